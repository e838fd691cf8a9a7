// SPDX-License-Identifier: Apache-2.0
//
// The engine of a Client.
//
// Reading. There is no reader by profession: whoever waits (a synchronous caller, poll(), the receive thread) and finds
// nobody reading takes the reader's role, waits for the socket without the lock, then takes all frames that are there
// under the lock and wakes the others. So a synchronous call works with and without a receive thread, and inside a
// handler.
//
// Delivery. Frames that end in a handler become notes in a queue; only poll() and the receive thread take notes out and
// call handlers, one at a time, without the lock.
//
// Memory. What a call or a connection needs is allocated before it begins, the notes of its end included. So nothing
// that has begun can be lost for lack of memory but the payload of a callback (the outcome says so) and events (counted
// as dropped).
//
// Reconnecting. Nobody waits for it: [startReconnect] connects within 1 ms or not at all, the greeting is read like any
// other frame and has its deadline among those of the timer.
//
// Asynchronous calls. OPEN (sent, not yet taken over) -> TAKEN [acceptAsync] -> note [completeAsync: callback,
// time-out, lost connection]. A callback may overtake the answer that takes the call over; it is kept until then. A
// call that is not taken over is forgotten without a note, its caller has the result.
//
// Exchanges. They follow events on their way in, in client_exchange.cpp; only their end becomes a note.
#pragma once
#include "client_link.h"
#include <condition_variable>
#include <list>
#include <map>
#include <mutex>
#include <thread>
#include <variant>

namespace corvane {

class Client::Impl {
public:
    Impl();
    ~Impl();

    Outcome connect(const Options &options);
    void disconnect();
    bool connected();
    uint16_t clientId();
    uint16_t platformVersion();
    bool onEvent(EventHandler handler);
    bool onPlatformEvent(PlatformEventHandler handler);
    bool onConnection(ConnectionHandler handler);

    std::size_t poll(Milliseconds timeout);
    bool pollUntil(const std::function<bool()> &done, Milliseconds timeout);
    int fileDescriptor() const { return epoll_.get(); }
    bool start();
    void stop();
    uint64_t droppedEvents();

    Outcome callSync(uint16_t function_id, Bytes in, std::span<uint8_t> out);
    Result<std::size_t> callPlatform(uint16_t operation, Bytes in, std::span<uint8_t> out);
    Result<uint16_t> callAsync(uint16_t function_id, Bytes payload, RawCompletion done, Milliseconds timeout);
    Outcome startExchange(const oruZb_clusterCmd_t &command, const ExchangeOptions &options, ExchangeCompletion done);

private:
    using Lock = std::unique_lock<std::mutex>;

    struct OpenCall { // lives in the frame of the waiting caller
        uint32_t sequence = 0;
        uint16_t callback_id = ORU_ZB_NO_CALLBACK; // asynchronous calls
        std::span<uint8_t> out;
        std::size_t written = 0; // to out
        Outcome outcome;
        bool done = false;
        OpenCall *next = nullptr;
    };
    struct EventNote {
        oipc::FrameType type; // Event or PlatformEvent
        uint16_t id;
        std::vector<uint8_t> payload;
    };
    struct CompletionNote {
        RawCompletion done;
        CallbackResult result;
    };
    struct ConnectionNote {
        bool connected;
        Outcome reason;
    };
    struct ExchangeNote {
        ExchangeCompletion done;
        Exchange result;
    };
    using Note = std::variant<EventNote, CompletionNote, ConnectionNote, ExchangeNote>;
    using Notes = std::list<Note>; // notes move between lists without allocation

    struct AsyncCall {
        Notes note; // the one CompletionNote
        Milliseconds timeout{};
        TimePoint deadline = NEVER; // from being taken over on
        bool taken = false;
        bool called_back = false; // before it was taken over; the result is in the note
    };
    using AsyncCalls = std::map<uint16_t, AsyncCall>; // by callback id

    struct OpenExchange {
        Notes note; // the one ExchangeNote
        oruZb_clusterCmd_t command{};
        bool wants_answer = true;
        Milliseconds timeout{};
        uint64_t id = 0;
        TimePoint begun;
        TimePoint deadline = NEVER; // from being taken over on
        bool taken = false;
        bool ended = false; // before it was taken over

        Exchange &result() { return std::get<ExchangeNote>(note.front()).result; }
    };
    using Exchanges = std::list<OpenExchange>; // in the order of their beginning

    struct Connection {
        std::shared_ptr<Link> link;
        Notes up, down; // one ConnectionNote each, until it is delivered
    };

    // calls
    Outcome transact(Lock &lock, oipc::FrameHeader header, Bytes payload, OpenCall &call);
    static AsyncCalls prepareAsync(RawCompletion done, Milliseconds timeout);
    uint16_t nextCallbackId();
    Outcome notConnected() const;

    // exchanges
    static Exchanges prepareExchange(const oruZb_clusterCmd_t &command, const ExchangeOptions &options,
                                     ExchangeCompletion done);
    Outcome handOver(const OpenExchange &exchange, bool async);
    void takeExchange(Exchanges::iterator exchange);
    void followExchanges(const Event &event);
    bool advance(Exchanges::iterator exchange, uint16_t event_id, const oruZb_clusterCmd_t &record);
    void endExchange(Exchanges::iterator exchange, const Outcome &outcome);
    void endExchanges(const Outcome &reason);
    void failExchange(uint64_t id, const CallbackResult &result);
    TimePoint expireExchanges(TimePoint now);

    // reading
    void waitForSocket(Lock &lock, int fd, TimePoint deadline);
    void receiveAvailable();
    void handle(const Frame &frame);
    void handleResult(const Frame &frame);
    void handleEvent(const Frame &frame);
    void handleCallback(const Frame &frame);
    void acceptAsync(uint16_t callback_id);
    void completeAsync(AsyncCalls::iterator call, CallbackResult result);

    // connection
    static Connection prepareConnection();
    Outcome attempt(Lock &lock, Connection connection);
    void install(Connection connection);
    void drop(const Outcome &reason);
    void startReconnect();
    void receiveGreeting();
    void endReconnect();
    void failReconnect(const Outcome &reason);
    void scheduleReconnect();
    void watch(const Link &link) const; // in fileDescriptor()
    void unwatch(const Link &link) const;

    // delivery
    enum class Waiter : uint8_t { Poll, ReceiveThread };
    std::size_t dispatch(TimePoint deadline, Waiter waiter);
    std::size_t deliver(Lock &lock);
    void deliverFirst(Lock &lock);
    struct Handlers {
        std::shared_ptr<const EventHandler> on_event;
        std::shared_ptr<const PlatformEventHandler> on_platform_event;
        std::shared_ptr<const ConnectionHandler> on_connection;
    };
    static void call(const Note &note, const Handlers &handlers) noexcept;
    static void callEvent(const EventNote &event, const Handlers &handlers) noexcept;
    void expire();
    void arm(TimePoint deadline);
    void addNote(Notes &note); // takes it
    void setWake();
    void clearWake();
    void receiveLoop();

    base::Descriptor epoll_; // what fileDescriptor() shows: the link's socket, wake_ and timer_
    base::Descriptor wake_;  // set while notes wait, and by stop()
    base::Descriptor timer_; // the next deadline of dispatch()

    std::mutex mutex_; // guards everything below
    std::condition_variable changed_;
    Options options_; // but for socket_path, which is in address_
    sockaddr_un address_{};
    Connection connection_; // greeted; without a link when there is none
    Outcome last_failure_{Transport::NoService, ORU_STATUS_OK};
    bool connecting_ = false; // connect() is under way
    bool reader_ = false;     // somebody waits for the socket
    bool wake_set_ = false;
    FrameBuffer buffer_{};

    bool reconnect_wanted_ = false;
    TimePoint next_attempt_ = NEVER;
    Milliseconds pause_{};
    Connection greeting_; // reconnected, not greeted yet
    TimePoint greeting_deadline_ = NEVER;

    uint32_t sequence_ = 0;
    OpenCall *open_calls_ = nullptr;
    uint16_t last_callback_id_ = LAST_CALLBACK_ID;
    AsyncCalls async_calls_;
    uint64_t last_exchange_id_ = 0;
    Exchanges exchanges_;
    TimePoint armed_ = NEVER;

    Notes notes_;
    std::size_t queued_events_ = 0;
    uint64_t dropped_events_ = 0;
    Handlers handlers_;
    std::thread::id delivering_; // thread that runs handlers now

    std::thread thread_;
    bool stop_requested_ = false; // until stop() has joined the thread
};

} // namespace corvane
