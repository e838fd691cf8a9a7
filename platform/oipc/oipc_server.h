// SPDX-License-Identifier: Apache-2.0
//
// The server behind oru_oipc.h.
//
//   io thread        epoll: accepts clients, writes queued frames when a client's socket has room again, joins the
//                    handler threads that have ended, makes the socket again when its name is gone from the folder
//   handler thread   one per client: reads a call, runs the handler, sends the result
//   any thread       callback(), publish(): written to the socket at once, or queued when it is full
//
// Life of a connection: admitted and greeted by the io thread [accept] -> CONNECTED, calls, DISCONNECTED on its handler
// thread [serve] -> finished -> joined and forgotten by the io thread [reap] or by stop().
#pragma once
#include "oipc_connection.h"
#include "oru_oipc.h"
#include <chrono>
#include <vector>

namespace oipc {

struct ServerSettings {
    SocketSettings socket;
    oruOipc_serviceHandler_t handler = nullptr;
    uint32_t service_uuid = 0;
    uint32_t max_payload = MAX_PAYLOAD;
    uint32_t max_clients = 10;
};

class Server {
public:
    explicit Server(ServerSettings settings);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    oru_status_t start();
    // Once. Waits until the last handler call has come back.
    void stop();

    oru_status_t callback(uint16_t client, uint16_t callback_id, Bytes payload);
    oru_status_t publish(uint16_t event_id, Bytes payload);
    void publishStore(); // to those who subscribed
    uint32_t maxPayload() const { return settings_.max_payload; }

private:
    void run();
    int patience() const; // milliseconds, as epoll_wait takes them
    void handleEvents();
    void keepHouseSoon();
    void handleChangeOfFolder();
    bool accept();
    void admit(Descriptor fd);
    void enter(const std::shared_ptr<Connection> &connection);
    void turnAway(int fd, const Peer &peer, Reason reason);
    void tellOfTurnedAway();
    void keepName();
    bool listenAgain();
    bool watchFolder();
    bool watch(int fd, uint64_t key) const;
    void pauseAccepting() const;
    void greet(Connection &connection) const;
    void flush(uint16_t client);
    void reap();
    void recoverFromDescriptorShortage();
    Reason admission(const Peer &peer, bool known) const;
    uint16_t nextClientId();
    oru_status_t openDescriptors();
    bool startThread();

    void serve(const std::shared_ptr<Connection> &connection);
    bool serveCall(Connection &connection, const FrameHeader &call);
    void servePlatformCall(Connection &connection, const FrameHeader &call);
    void refuse(Connection &connection, Reason reason);
    void report(const Connection &connection, oruOipc_eventId_t event) const;
    SendResult send(Connection &connection, const FrameHeader &header, Bytes payload);
    bool watch(const Connection &connection, int operation, uint32_t events) const;
    void wake() const;

    using Clock = std::chrono::steady_clock;
    static constexpr Clock::time_point NEVER = Clock::time_point::max();

    const ServerSettings settings_;
    const std::string folder_; // of the socket
    AccessRules rules_;
    Socket_file listener_;
    Descriptor epoll_;
    Descriptor wake_;
    Descriptor spare_; // given up to accept and close a connection when the process has no descriptor left
    std::thread io_thread_;
    std::atomic<bool> stopping_{false};
    Descriptor folder_events_; // inotify; none when the user has no instance left
    // io thread
    int folder_watch_ = -1;
    Clock::time_point due_ = NEVER; // of what is not done at once, see run()
    uint16_t last_client_id_ = 0;
    bool name_lost_ = false;          // and said so
    uint32_t turned_away_ = 0;        // without a line in the log
    Clock::time_point quiet_until_{}; // no line about another one

    // Guards connections_; sends happen under it (they never wait), so that all clients see events in one order.
    // Before Connection's own mutex
    // and the one behind the state of the store. Changed by the io thread only, and by stop() after that has ended.
    std::mutex mutex_;
    std::vector<std::shared_ptr<Connection>> connections_;
};

} // namespace oipc
