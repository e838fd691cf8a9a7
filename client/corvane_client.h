// SPDX-License-Identifier: Apache-2.0
//
// libcorvane-client: talk to the corvane Zigbee service from C++20. A whole program:
//
//     corvane::Client client;
//     client.onEvent([](const corvane::Event &e) { std::puts(corvane::eventName(e.id)); });
//     corvane::Options options;
//     options.auto_reconnect = true;                        // the service may be restarted
//     if (auto up = client.connect(options); !up.ok()) { std::puts(up.describe().c_str()); return 1; }
//     auto info = client.networkInfo();                     // synchronous: waits for the answer
//     if (info.ok()) std::printf("channel %d\n", info.value.channel);
//     client.formNetworkManual(15, [](const corvane::Outcome &o) { std::puts(o.describe().c_str()); });
//     for (;;) client.poll(std::chrono::seconds(1));        // delivers callbacks and events
//
// Results. Every call returns an Outcome (or Result<T>, an Outcome with a value): `transport` tells whether the service
// answered at all, `status` what it answered (an oru_status_t, 0 = good). Nothing here throws: a call for which there
// is no memory is Invalid with ORU_STATUS_OUT_OF_MEMORY and has not begun; texts are empty then. (Copying a handler on
// its way in is the caller's business.) A handler of yours that throws ends the process.
//
// Threads. Every member may be called from any thread, except where noted. The service answers the calls of one
// connection one after the other; use several Clients where a slow call must not hold up a quick one.
//
// Handlers (completions, onEvent, onConnection) run one at a time, only inside poll()/pollUntil(), or on the thread
// that start() creates; never inside any other call. A handler may call every member except poll(), pollUntil(),
// start(), stop() and the destructor. Do one or the other soon after connecting: the service disconnects a client
// that leaves its messages unread.
#pragma once
#include "oru_status.h"
#include "oru_zigbee_api.h"
#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

using Milliseconds = std::chrono::milliseconds;
using Bytes = std::span<const uint8_t>;
using Eui64 = std::array<uint8_t, 8>; // most significant byte first

// How a call fared on its way to the service and back. Only with Ok does the status come from the service.
enum class Transport : uint8_t {
    Ok,             // the service answered
    NoService,      // nobody listens on the socket, or the path is wrong or not accessible
    Refused,        // the service turned the connection away: too many clients (-15), user not allowed (-11), bad frame
    TimedOut,       // no answer in time; the service may still carry the call out
    ConnectionLost, // the connection ended before the answer came; the service may have carried the call out
    Invalid,        // refused by this library: an argument that cannot be sent, or no memory (status says why)
    OtherVersion,   // the service speaks another version of the protocol
};

struct Outcome {
    Transport transport = Transport::Ok;
    oru_status_t status = ORU_STATUS_OK;

    bool ok() const { return transport == Transport::Ok && status == ORU_STATUS_OK; }
    bool answered() const { return transport == Transport::Ok; }
    std::string describe() const; // "ok", "busy (-15): ...", "no service: ..."
};

template <class T>
struct Result : Outcome {
    T value{}; // meaningful when ok(); partly filled values are described with the call
};

// An event of the service. The payload is valid during the handler only.
struct Event {
    uint16_t id = 0; // ORU_ZB_SVC_..., names through eventName()
    Bytes payload;

    // The payload as a record; nothing when the event carries another one.
    std::optional<oruZb_device_t> device() const;             // joined, rejoined, left, discovered
    std::optional<oruZb_clusterCmd_t> command() const;        // command outcomes and incoming messages
    std::optional<oruZb_interpanResponse_t> interpan() const; // inter-PAN completion
};

// How the daemon's store of devices and settings is.
enum class StoreCondition : uint8_t {
    not_opened = 0,     // nothing has used it yet
    sound = 1,          // all of it is on the medium
    in_memory = 2,      // the medium fails: changes wait in memory and are written when it works again
    copy = 3,           // the same, and nothing at all can be written: it is read from a copy
    not_read_whole = 4, // it could not be opened, or part of it not be read: known devices may be missing
};

struct StoreState {
    StoreCondition condition = StoreCondition::not_opened;
    uint32_t waiting = 0;           // changes that are in memory only
    uint32_t files_set_aside = 0;   // damaged files, kept apart since the daemon started
    uint32_t records_set_aside = 0; // damaged records, likewise
    Milliseconds since{};           // how long the condition has lasted
    std::string reason;             // what fails, in English; empty when nothing does
};

struct PlatformInfo {
    uint16_t platform_version = 0; // of the platform calls, 1 and up
    std::string release;           // of the daemon, "0.1.0"
    uint32_t process_id = 0;
    Milliseconds uptime{}; // since the process started
    StoreState store;
};

// An event of the platform. The payload is valid during the handler only.
enum PlatformEventId : uint16_t { PLATFORM_EVENT_STORE_CHANGED = 1 };
struct PlatformEvent {
    uint16_t id = 0; // a PlatformEventId, or one that is newer than this library
    Bytes payload;

    // Of PLATFORM_EVENT_STORE_CHANGED; nothing with another event, or without memory for the reason.
    std::optional<StoreState> store() const;
};

// What a raw asynchronous call delivers: an answered outcome has status 0 and the callback's bytes.
struct CallbackResult : Outcome {
    std::vector<uint8_t> payload;
};

// What became of a command to a device. ok(): all that was waited for has come. Otherwise `step` tells what was waited
// for in vain and the outcome why: TimedOut, ConnectionLost, or Ok with the status that the service (negative) or the
// radio (160 to 253) gave.
struct Exchange : Outcome {
    enum class Step : uint8_t {
        hand_over,    // to the adapter
        confirmation, // of the radio: the frame has reached the device, or not
        answer,       // of the device
        done,
    };

    Step step = Step::hand_over;
    uint16_t confirmation = 0; // its event, ORU_ZB_SVC_SENDCMD_SUCCESS or what went wrong; 0: none came
    std::chrono::microseconds confirmed_after{}; // both since startExchange() was called
    std::chrono::microseconds answered_after{};
    std::optional<oruZb_clusterCmd_t> answer; // the message; src_node and src_ep name the device
};

struct ExchangeOptions {
    bool answer = true; // false: done when it is confirmed
    bool async = false; // do not wait in startExchange() until the adapter has taken the command
    // For the confirmation, and again for the answer; zero: Options::completion_timeout. With `async` the first begins
    // before the adapter has taken the command.
    Milliseconds timeout{};
};

using EventHandler = std::function<void(const Event &)>;
using PlatformEventHandler = std::function<void(const PlatformEvent &)>;
using ConnectionHandler = std::function<void(bool connected, const Outcome &reason)>;
using Completion = std::function<void(const Outcome &)>;
using PingCompletion = std::function<void(const Result<std::string> &)>;
using ExchangeCompletion = std::function<void(const Exchange &)>;
using RawCompletion = std::function<void(const CallbackResult &)>;

struct NodePage {
    std::vector<oruZb_nodeInfo_t> nodes; // `type` is not set by the service
    uint32_t next = 0;                   // list position after the last node
    bool more = false;                   // the service knows more nodes, from position `next` on
};

// The socket that a client uses when Options names none: $CORVANE_SOCKET, else /run/corvane/corvane.sock. Not that of
// $RUNTIME_DIRECTORY: a client that is a service has one of its own.
std::string defaultSocketPath();

struct Options {
    std::string socket_path;                // empty: defaultSocketPath()
    Milliseconds connect_timeout{5000};     // until the service's greeting
    Milliseconds call_timeout{30000};       // of synchronous calls, and until an asynchronous call is taken over
    Milliseconds completion_timeout{60000}; // of asynchronous calls; some are never answered, see below
    bool auto_reconnect = false;            // try again after a lost connection, in poll() or the receive thread
    Milliseconds reconnect_min{250};        // first pause, doubled after each failure ...
    Milliseconds reconnect_max{15000};      // ... up to this
    std::size_t max_queued = 4096;          // undelivered events kept; the oldest are dropped, see droppedEvents()
};

class Client {
public:
    Client();
    ~Client(); // stops the receive thread; open completions are dropped without being called
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // ------------------------------------------------------------ connection
    // Connects and waits for the greeting. With auto_reconnect a failure is returned as well, but tried again later.
    // A second connect() replaces the first connection.
    Outcome connect(const Options &options = {});
    // Ends the connection: waiting calls and open completions end with ConnectionLost. No reconnection follows.
    void disconnect();
    bool connected() const;
    uint16_t clientId() const; // given by the service for this connection; 0 when not connected

    // Set handlers before connect(). They replace the former ones. False when there is no memory to keep the handler;
    // then the former one stays.
    bool onEvent(EventHandler handler);
    bool onPlatformEvent(PlatformEventHandler handler); // see subscribe()
    bool onConnection(ConnectionHandler handler);       // each time a connection comes up or ends

    // ------------------------------------------------------------ delivery, single-threaded
    // Waits up to `timeout` for something to deliver and delivers all that is there. Returns the number of messages
    // delivered: events, callbacks, and connections that came up or ended (counted with or without a handler), so that
    // a lost connection makes it return. Without a connection it waits as well, for a reconnection or another thread's
    // connect().
    std::size_t poll(Milliseconds timeout);
    // Polls until `done` returns true (true) or the time is up (what `done` says then). `done` is asked on the calling
    // thread, after each delivery and every 100 ms; what it throws goes to the caller.
    bool pollUntil(const std::function<bool()> &done, Milliseconds timeout);
    // A descriptor that is readable whenever poll(0) has work, for a main loop of your own; the same for the Client's
    // whole life, owned by it.
    int fileDescriptor() const;

    // ------------------------------------------------------------ delivery, own thread
    bool start(); // false when the thread runs already or cannot be created
    void stop();  // returns when the last handler has returned

    std::uint64_t droppedEvents() const; // events lost because max_queued was reached, or for lack of memory

    // ------------------------------------------------------------ synchronous calls
    Result<std::string> ping(); // answered by the service itself, without its main loop: "pong"
    Result<std::string>
    serverPing(); // through the main loop and the adapter: "spong", or "serror" if the adapter fails
    Result<oruZb_adapterState_t> adapterState();
    Result<oruZb_networkInfo_t> networkInfo(); // without a network: channel 255, all bits of panid set
    Result<oruZb_adapterInfo_t> adapterInfo();
    Result<oruZb_nodeInfo_t> localNode(); // the coordinator
    Outcome permitJoin(bool open);

    Result<uint32_t> deviceCount();
    Result<oruZb_device_t> deviceByIndex(uint32_t index); // list position from 0; -8: none there
    Result<oruZb_device_t> deviceByNodeId(uint16_t node_id);
    Result<oruZb_device_t> deviceByEui64(const Eui64 &eui64);
    // Known devices from list position `start`, at most `max`, in as many calls as needed. ok() also when fewer (or
    // none) are left; on a failure the nodes read so far stay in the value.
    Result<NodePage> connectedNodes(uint32_t start = 0, std::size_t max = SIZE_MAX);

    // Sends a ZCL frame and returns when the adapter has taken it. The value is the command as the service completed
    // it (confirmation_id, status). Whether it arrived is told by the events ORU_ZB_SVC_SENDCMD_SUCCESS and the like.
    Result<oruZb_clusterCmd_t> sendCommand(const oruZb_clusterCmd_t &command);
    // ZDO Bind_req: `body` is the request's body after the sequence number, at most 81 bytes.
    Outcome bind(uint16_t node_id, Bytes body);

    Outcome setRadioPower(int8_t dbm);
    Outcome setRegion(std::string_view country_code); // ISO 3166 alpha-2, for example "DE"; "WW" world-wide
    Outcome setBurstSize(uint32_t commands); // commands under way at a time; -1 while the state is ON or TURNING_ON
    Outcome setThrottleTimeout(Milliseconds timeout);               // longest wait for a place in the burst
    Outcome ztsAdd(std::span<const oruZb_ztsDeviceInfo_t> devices); // any number, in as many calls as needed
    Outcome ztsClear();
    Result<oruZb_counters_t> ptaCounters(bool clear); // packet traffic arbitration; clear: and set them to zero
    Result<std::vector<oruZb_childTableEntry_t>> children();
    Result<std::vector<oruZb_routeTableEntry_t>> routes();
    Result<std::vector<oruZb_neighborTableEntry_t>> neighbors();

    // Any synchronous function by its id. `in` (at most 4096 bytes) is sent, `out` receives the payload's bytes after
    // the call: the service writes in place, so as many come back as were sent; the rest of `out` is left alone.
    Outcome callSync(uint16_t function_id, Bytes in, std::span<uint8_t> out);

    // ------------------------------------------------------------ platform calls
    // What the daemon tells beside its Zigbee service; answered also while that one is busy. A daemon without them is
    // not asked: Invalid with ORU_STATUS_NOT_SUPPORTED; so is an operation that it does not know, answered by itself.
    uint16_t platformVersion() const; // of the connection; 0: no platform calls, or not connected
    Result<PlatformInfo> platformInfo();
    // From now on these events arrive, and no others; bit n of the mask stands for event n, 0 ends it. The value is
    // those of them that this daemon knows. It holds for this connection: subscribe again in onConnection. To miss no
    // change, subscribe first and ask for platformInfo() then.
    Result<uint32_t> subscribe(uint32_t events);
    // Any operation by its number. `in` (at most 4096 bytes) is sent; the value is the number of bytes written to the
    // front of `out`, what does not fit is dropped.
    Result<std::size_t> callPlatform(uint16_t operation, Bytes in, std::span<uint8_t> out);

    // ------------------------------------------------------------ asynchronous calls
    // The return value tells whether the service took the call over. If it did (ok()), `done` is called exactly once:
    // with the service's status, with TimedOut after Options::completion_timeout, or with ConnectionLost; if it did
    // not, `done` is never called. An empty `done` asks for no callback. Up to 24,576 calls can be open at a time, a
    // further one is Invalid with ORU_STATUS_OUT_OF_MEMORY; so is the outcome of a callback that there was no memory
    // for. Never answered by the service, so `done` sees TimedOut: disableRadio while the adapter is off or turning
    // off, nodeLeave for an unknown node, formNetworkManual with a channel outside 11 to 26.
    Outcome asyncPing(PingCompletion done); // "apong"
    Outcome formNetworkAuto(const std::optional<oruZb_coexParams_t> &coex, Completion done);
    Outcome formNetworkManual(uint8_t channel, Completion done);
    Outcome clearNetwork(Completion done); // all devices and the coordinator leave
    Outcome enableRadio(Completion done);
    Outcome disableRadio(Completion done);
    Outcome resetAdapter(Completion done);
    // The value is the confirmation_id that the events about this command carry.
    Result<uint16_t> sendCommandAsync(const oruZb_clusterCmd_t &command, Completion done);
    Outcome nodeLeave(const oruZb_nodeInfo_t &node, Completion done); // `id` and the EUI-64 name the node
    Outcome sendInterpan(const oruZb_interpan_t &message, Completion done);
    Outcome ztsEnable(Completion done);
    Outcome ztsDisable(Completion done);
    Outcome startScan(const oruZb_scan_t &scan, Completion done);

    // Sends a ZCL or ZDO frame and follows what becomes of it. The confirmation is the event with the same node,
    // cluster, endpoint and frame; the answer is the message from there with the same sequence number that is no
    // report. It may come before the confirmation. Frames that are under way at the same time need different sequence
    // numbers: of equal ones the oldest gets what comes first. Node_Desc_req, Simple_Desc_req and Active_EP_req need
    // `answer` false: the service keeps the answers for itself. onEvent() hears all these events as well. Return value
    // and `done` are as above; unless `async` is set, ok() says that the adapter has taken the command.
    Outcome startExchange(const oruZb_clusterCmd_t &command, const ExchangeOptions &options, ExchangeCompletion done);

    // Any asynchronous function by its id. `timeout` zero: Options::completion_timeout. The value is the callback id.
    Result<uint16_t> callAsync(uint16_t function_id, Bytes payload, RawCompletion done, Milliseconds timeout = {});

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

// Callback ids that this library hands out, in rotation; an id is not used again while its call is open. Outside every
// range that the service or its clients name, and never ORU_ZB_NO_CALLBACK.
constexpr uint16_t FIRST_CALLBACK_ID = 0x9000;
constexpr uint16_t LAST_CALLBACK_ID = 0xEFFF;

// ---------------------------------------------------------------- names for people
// Static texts; "unknown" for a value that has no name.
const char *statusName(oru_status_t status);    // "BUSY"; positive values are names of clusterCommandStatusName
const char *statusMeaning(oru_status_t status); // a sentence: what it means and what to do
const char *transportName(Transport transport);
const char *functionName(uint16_t function_id); // "PERMITJOIN_START"
const char *eventName(uint16_t event_id);       // "DEVICE_JOINED"
const char *adapterStateName(oruZb_adapterState_t state);
const char *clusterCommandStatusName(oruZb_clusterCommandStatus_t status); // "APS_NO_ACK"
const char *nodeTypeName(oruZb_nodeType_t type);
const char *storeConditionName(StoreCondition condition);    // "IN_MEMORY"
const char *storeConditionMeaning(StoreCondition condition); // a sentence: what it means and what to do

// The listings behind the names, for completion and help: every status and every function that can be asked for.
std::span<const oru_status_t> allStatuses();
std::span<const uint16_t> allFunctions();
std::span<const uint16_t> allEvents();

} // namespace corvane
