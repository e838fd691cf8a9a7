// SPDX-License-Identifier: Apache-2.0
#include "oipc_server.h"
#include "base/thread.h"
#include "oipc_log.h"
#include "oipc_platform.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

namespace oipc {

namespace {

// epoll keys beside the client ids, which are 1 to 0xFFFE
constexpr uint64_t KEY_LISTENER = 0x10000;
constexpr uint64_t KEY_WAKE = 0x10001;
constexpr uint64_t KEY_FOLDER = 0x10002;

constexpr uint16_t LAST_CLIENT_ID = 0xFFFE;

constexpr uint16_t clientIdAfter(uint16_t id) {
    return id >= LAST_CLIENT_ID ? uint16_t{1} : static_cast<uint16_t>(id + 1);
}
static_assert(clientIdAfter(0) == 1 && clientIdAfter(0xFFFD) == 0xFFFE && clientIdAfter(0xFFFE) == 1,
              "0 and 0xFFFF name no client");

constexpr std::chrono::seconds HOUSEKEEPING_INTERVAL{1};
constexpr int SHORTAGE_PAUSE_MS = 50;

// No signal reaches it.
template <class Body>
bool createThread(std::thread &thread, const char *name, Body body) {
    const bool created = base::startThread(thread, name, std::move(body));
    if (!created) {
        OIPC_LOG(ORU_LOG_ERROR, "cannot create a thread: %s", std::strerror(errno));
    }
    return created;
}

} // namespace

Server::Server(ServerSettings settings)
    : settings_(std::move(settings)), folder_(settings_.socket.path.substr(0, settings_.socket.path.rfind('/'))) {
    // Clients that went away while their last call runs are counted apart, so there can be twice as many.
    connections_.reserve(2 * std::size_t{settings_.max_clients});
}

Server::~Server() = default;

namespace {

oru_status_t statusOf(Socket_file_result result) {
    switch (result) {
    case Socket_file_result::ok:
        return ORU_STATUS_OK;
    case Socket_file_result::bad_path:
        return ORU_STATUS_PARAM_OUT_OF_RANGE;
    case Socket_file_result::no_folder:
        return ORU_STATUS_NOT_FOUND;
    case Socket_file_result::busy:
        return ORU_STATUS_BUSY;
    case Socket_file_result::not_a_socket:
    case Socket_file_result::served:
        return ORU_STATUS_ALREADY_EXISTS;
    case Socket_file_result::failed:
        return ORU_STATUS_GENERAL_ERROR;
    }
    return ORU_STATUS_GENERAL_ERROR;
}

} // namespace

oru_status_t Server::start() {
    rules_ = resolveAccess(settings_.socket);
    if (const auto status = openDescriptors(); status != ORU_STATUS_OK) {
        return status;
    }
    const char *path = settings_.socket.path.c_str();
    if (const auto result = openListener(settings_.socket, rules_, listener_); result != Socket_file_result::ok) {
        OIPC_LOG(ORU_LOG_ERROR, "cannot listen on socket %s: %s", path, explain(result));
        return statusOf(result);
    }
    if (!startThread()) {
        listener_.close();
        return ORU_STATUS_GENERAL_ERROR;
    }
    OIPC_LOG(ORU_LOG_INFO, "listening on %s", path);
    return ORU_STATUS_OK;
}

oru_status_t Server::openDescriptors() {
    epoll_ = Descriptor(::epoll_create1(EPOLL_CLOEXEC));
    wake_ = Descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    spare_ = Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!epoll_ || !wake_ || !spare_) {
        OIPC_LOG(ORU_LOG_ERROR, "cannot create descriptors: %s", std::strerror(errno));
        return ORU_STATUS_GENERAL_ERROR;
    }
    folder_events_.reset(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!folder_events_ || !watch(folder_events_.get(), KEY_FOLDER) || !watchFolder()) {
        keepHouseSoon();
    }
    return ORU_STATUS_OK;
}

bool Server::startThread() {
    return watch(listener_.get(), KEY_LISTENER) && watch(wake_.get(), KEY_WAKE) &&
           createThread(io_thread_, "oru_oipc", [this] { run(); });
}

bool Server::watch(int fd, uint64_t key) const {
    epoll_event event{.events = EPOLLIN, .data = {.u64 = key}};
    return ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

void Server::stop() {
    stopping_ = true;
    wake();
    io_thread_.join();
    listener_.close();
    for (const auto &connection : connections_) {
        connection->endCalls();
    }
    for (const auto &connection : connections_) {
        connection->thread.join();
    }
    const std::lock_guard lock(mutex_);
    connections_.clear();
}

void Server::run() {
    while (!stopping_) {
        handleEvents();
        reap();
        if (Clock::now() >= due_) {
            due_ = NEVER;
            tellOfTurnedAway();
            keepName();
        }
    }
}

// An idle server sleeps until somebody comes.
int Server::patience() const {
    using Milliseconds = std::chrono::milliseconds;
    const auto left = std::max(std::chrono::ceil<Milliseconds>(due_ - Clock::now()), Milliseconds::zero());
    return due_ == NEVER ? -1 : static_cast<int>(left.count());
}

void Server::keepHouseSoon() {
    due_ = std::min(due_, Clock::now() + HOUSEKEEPING_INTERVAL);
}

void Server::handleEvents() {
    std::array<epoll_event, 16> events{};
    const int count = ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), patience());
    for (int i = 0; i < count && !stopping_; ++i) {
        const uint64_t key = events[static_cast<std::size_t>(i)].data.u64;
        if (key == KEY_LISTENER) {
            accept();
        } else if (key == KEY_WAKE) {
            uint64_t ignored = 0;
            (void)!::read(wake_.get(), &ignored, sizeof ignored);
        } else if (key == KEY_FOLDER) {
            handleChangeOfFolder();
        } else {
            flush(static_cast<uint16_t>(key));
        }
    }
}

// A socket that was deleted under the service would serve nobody but those who are connected, for ever.
void Server::keepName() {
    const bool watched = watchFolder(); // first, or what happens after the look would not be seen
    name_lost_ = !listener_.isInPlace() && !listenAgain();
    if (name_lost_ || !watched) {
        keepHouseSoon();
    }
}

// The folder may be another one than at the last call. False when it is missing, or when the user has no inotify
// instance left; then looking once a second has to do.
bool Server::watchFolder() {
    constexpr uint32_t NAMES_GONE = IN_DELETE | IN_MOVE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
    const int former =
        std::exchange(folder_watch_, ::inotify_add_watch(folder_events_.get(), folder_.c_str(), NAMES_GONE));
    if (former >= 0 && former != folder_watch_) {
        (void)::inotify_rm_watch(folder_events_.get(), former); // gone already when the folder was deleted
    }
    return folder_watch_ >= 0;
}

// Not at once: somebody who deletes the socket whenever he sees it must not keep this thread and the log busy.
void Server::handleChangeOfFolder() {
    std::array<char, 4096> events; // whichever they are, the name is looked at
    while (::read(folder_events_.get(), events.data(), events.size()) > 0) {
    }
    keepHouseSoon();
}

bool Server::listenAgain() try {
    const char *path = settings_.socket.path.c_str();
    Socket_file fresh;
    if (const auto result = openListener(settings_.socket, rules_, fresh); result != Socket_file_result::ok) {
        if (!name_lost_) {
            OIPC_LOG(ORU_LOG_ERROR, "socket %s was removed and cannot be made again yet: %s", path, explain(result));
        }
        name_lost_ = true;
        return false;
    }
    if (!watch(fresh.get(), KEY_LISTENER)) {
        return false;
    }
    while (accept()) { // who had connected before
    }
    listener_ = std::move(fresh);
    OIPC_LOG(ORU_LOG_WARN, "socket %s was removed by somebody and has been made again", path);
    return true;
} catch (const std::bad_alloc &) {
    return false; // the next attempt may find memory
}

void Server::wake() const {
    const uint64_t one = 1;
    (void)!::write(wake_.get(), &one, sizeof one);
}

// True when there was a client; whether it came in is another question.
bool Server::accept() {
    Descriptor fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (fd) {
        reap(); // a client that went away just before makes room
        admit(std::move(fd));
        return true;
    }
    if (errno == EMFILE || errno == ENFILE) {
        recoverFromDescriptorShortage();
    } else if (errno == ENOBUFS || errno == ENOMEM) {
        pauseAccepting();
    }
    return false;
}

// Without this the waiting connection would keep the listener readable and this thread busy.
void Server::recoverFromDescriptorShortage() {
    OIPC_LOG(ORU_LOG_ERROR, "no descriptor left for another client: %s", std::strerror(errno));
    if (!spare_) {
        pauseAccepting();
    }
    spare_.reset();
    Descriptor(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)).reset();
    spare_ = Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

void Server::pauseAccepting() const {
    pollfd entry{wake_.get(), POLLIN, 0}; // stopping is not held up
    (void)::poll(&entry, 1, SHORTAGE_PAUSE_MS);
}

// Root and the service's own user find a place even when the others have taken all of theirs.
Reason Server::admission(const Peer &peer, bool known) const {
    if (!known || !isAllowed(peer, rules_)) {
        return Reason::NotAllowed;
    }
    const std::size_t kept = settings_.max_clients > 1 && !isOwner(peer, rules_) ? 1 : 0;
    const std::size_t places = settings_.max_clients - kept;
    const auto gone =
        static_cast<std::size_t>(std::ranges::count_if(connections_, [](const auto &c) { return c->peerGone(); }));
    return connections_.size() - gone >= places || connections_.size() >= 2 * places ? Reason::TooManyClients
                                                                                     : Reason::None;
}

void Server::admit(Descriptor fd) {
    Peer peer;
    Reason reason = Reason::OutOfResources;
    try {
        const bool known = readPeer(fd.get(), peer);
        reason = admission(peer, known);
        if (reason == Reason::None) {
            enter(std::make_shared<Connection>(std::move(fd), nextClientId(), peer));
            return;
        }
    } catch (const std::bad_alloc &) {
        reason = Reason::OutOfResources; // the socket is still here
    }
    turnAway(fd.get(), peer, reason);
}

void Server::enter(const std::shared_ptr<Connection> &connection) {
    // Under the lock, so that the greeting is the first frame and no event between it and the entry is missed.
    const std::lock_guard lock(mutex_);
    greet(*connection);
    connections_.push_back(connection); // into memory that is there
    // Watched without EPOLLOUT until a frame has to wait; one-shot, or a hang-up would be reported for ever.
    if (!watch(*connection, EPOLL_CTL_ADD, 0) ||
        !createThread(connection->thread, "oipc_client", [this, connection] { serve(connection); })) {
        connections_.pop_back();
        refuse(*connection, Reason::OutOfResources);
    }
}

// Anybody may knock as often as he likes; the log must not be his.
void Server::turnAway(int fd, const Peer &peer, Reason reason) {
    const auto now = Clock::now();
    if (now < quiet_until_) {
        ++turned_away_;
        keepHouseSoon();
    } else {
        quiet_until_ = now + HOUSEKEEPING_INTERVAL;
        OIPC_LOG(ORU_LOG_WARN, "client 0 (user %u, process %d) refused: %s", peer.uid, peer.pid,
                 reasonInfo(reason).text);
    }
    oipc::turnAway(fd, reason);
}

void Server::tellOfTurnedAway() {
    if (turned_away_ > 0) {
        OIPC_LOG(ORU_LOG_WARN, "%u more clients were refused in the last second", turned_away_);
        turned_away_ = 0;
    }
}

void Server::greet(Connection &connection) const {
    const Hello hello{connection.id, static_cast<uint16_t>(settings_.service_uuid), settings_.max_payload,
                      settings_.max_clients, PLATFORM_VERSION};
    connection.send({.type = FrameType::Hello, .payload_length = HELLO_SIZE}, encodeHello(hello));
}

uint16_t Server::nextClientId() {
    const auto taken = [this](uint16_t id) {
        return std::ranges::any_of(connections_, [id](const auto &c) { return c->id == id; });
    };
    do {
        last_client_id_ = clientIdAfter(last_client_id_);
    } while (taken(last_client_id_));
    return last_client_id_;
}

void Server::flush(uint16_t client) {
    const auto found = std::ranges::find_if(connections_, [client](const auto &c) { return c->id == client; });
    if (found != connections_.end() && (*found)->flush()) {
        watch(**found, EPOLL_CTL_MOD, EPOLLOUT);
    }
}

void Server::reap() {
    const std::lock_guard lock(mutex_);
    std::erase_if(connections_, [](const auto &connection) {
        if (!connection->finished) {
            return false;
        }
        connection->thread.join(); // about to end, takes no lock any more
        return true;
    });
}

bool Server::watch(const Connection &connection, int operation, uint32_t events) const {
    epoll_event event{.events = events | EPOLLONESHOT, .data = {.u64 = connection.id}};
    return ::epoll_ctl(epoll_.get(), operation, connection.fd(), &event) == 0;
}

SendResult Server::send(Connection &connection, const FrameHeader &header, Bytes payload) {
    const auto result = connection.send(header, payload);
    if (result == SendResult::QueuedFirst) {
        watch(connection, EPOLL_CTL_MOD, EPOLLOUT);
    }
    return result;
}

oru_status_t Server::callback(uint16_t client, uint16_t callback_id, Bytes payload) {
    const std::lock_guard lock(mutex_);
    const auto found = std::ranges::find_if(connections_, [client](const auto &c) { return c->id == client; });
    if (found == connections_.end()) {
        return ORU_STATUS_NOT_FOUND;
    }
    const FrameHeader header{
        .type = FrameType::Callback, .id = callback_id, .payload_length = static_cast<uint32_t>(payload.size())};
    switch (send(**found, header, payload)) {
    case SendResult::Sent:
    case SendResult::Queued:
    case SendResult::QueuedFirst:
        return ORU_STATUS_OK;
    case SendResult::Full:
        return ORU_STATUS_BUSY;
    case SendResult::Closed:
        return ORU_STATUS_NOT_FOUND;
    }
    return ORU_STATUS_NOT_FOUND;
}

oru_status_t Server::publish(uint16_t event_id, Bytes payload) {
    const FrameHeader header{
        .type = FrameType::Event, .id = event_id, .payload_length = static_cast<uint32_t>(payload.size())};
    const std::lock_guard lock(mutex_);
    for (const auto &connection : connections_) {
        send(*connection, header, payload);
    }
    return ORU_STATUS_OK;
}

void Server::serve(const std::shared_ptr<Connection> &connection) {
    report(*connection, ORU_OIPC_EVENT_CLIENT_CONNECTED);
    FrameHeader call;
    Reason reason = Reason::None;
    bool serving = true;
    while (serving) {
        switch (connection->receive(call, reason)) {
        case Connection::Received::Frame:
            serving = serveCall(*connection, call);
            break;
        case Connection::Received::Malformed:
            refuse(*connection, reason);
            serving = false;
            break;
        case Connection::Received::Closed:
            serving = false;
            break;
        }
    }
    connection->disconnect();
    if (connection->overflowed) {
        OIPC_LOG(ORU_LOG_WARN, "client %u (user %u, process %d) did not read its messages and was disconnected",
                 connection->id, connection->peer.uid, connection->peer.pid);
    }
    report(*connection, ORU_OIPC_EVENT_CLIENT_DISCONNECTED);
    connection->finished = true;
    wake();
}

bool Server::serveCall(Connection &connection, const FrameHeader &call) {
    if (stopping_) {
        refuse(connection, Reason::Stopping);
        return false;
    }
    if (call.type == FrameType::PlatformCall) {
        servePlatformCall(connection, call);
        return true;
    }
    if (call.payload_length > settings_.max_payload) {
        refuse(connection, Reason::TooLong);
        return false;
    }
    const bool synchronous = call.type == FrameType::SyncCall;
    oruOipc_size_t length = call.payload_length;
    uint32_t status = 0;
    oruOipc_parameter_t task{};
    task.client_id = connection.id;
    task.type = synchronous ? ORU_OIPC_FUNCTION_SYNC : ORU_OIPC_FUNCTION_ASYNC;
    task.function_id = call.id;
    task.data_length = &length;
    task.status = &status;
    task.buffer = connection.payload().data();
    task.callback_id = call.callback_id;
    const oru_status_t returned = settings_.handler(&task);

    const auto back = synchronous ? std::min<std::size_t>(length, settings_.max_payload) : 0;
    const FrameHeader result{.type = synchronous ? FrameType::SyncResult : FrameType::AsyncResult,
                             .id = call.id,
                             .callback_id = call.callback_id,
                             .sequence = call.sequence,
                             .status = returned != ORU_STATUS_OK ? returned : static_cast<int32_t>(status),
                             .payload_length = static_cast<uint32_t>(back)};
    send(connection, result, connection.payload().first(back));
    return true;
}

void Server::servePlatformCall(Connection &connection, const FrameHeader &call) {
    std::array<uint8_t, MAX_PAYLOAD> room;
    base::ByteWriter out(room);
    const auto in = Bytes(connection.payload()).first(call.payload_length);
    const auto status = callPlatform(connection, isOwner(connection.peer, rules_), call.id, in, out);
    const auto back = status == ORU_STATUS_OK ? out.written() : Bytes{};
    const FrameHeader result{.type = FrameType::PlatformResult,
                             .id = call.id,
                             .sequence = call.sequence,
                             .status = status,
                             .payload_length = static_cast<uint32_t>(back.size())};
    send(connection, result, back);
}

// The state is read under the lock, so that the last event tells of the last state.
void Server::publishStore() {
    constexpr auto EVENT = PlatformEventId::store_changed;
    std::array<uint8_t, STORE_RECORD_SIZE> payload;
    base::ByteWriter writer(payload);
    const std::lock_guard lock(mutex_);
    encode(writer, storeRecord());
    const FrameHeader header{.type = FrameType::PlatformEvent,
                             .id = static_cast<uint16_t>(EVENT),
                             .payload_length = static_cast<uint32_t>(payload.size())};
    for (const auto &connection : connections_) {
        if ((connection->subscriptions & maskOf(EVENT)) != 0) {
            send(*connection, header, payload);
        }
    }
}

void Server::refuse(Connection &connection, Reason reason) {
    const auto [header, text] = refusalOf(reason);
    OIPC_LOG(ORU_LOG_WARN, "client %u (user %u, process %d) refused: %s", connection.id, connection.peer.uid,
             connection.peer.pid, reasonInfo(reason).text);
    connection.send(header, text);
    connection.disconnect();
}

void Server::report(const Connection &connection, oruOipc_eventId_t event) const {
    oruOipc_size_t length = 0;
    uint32_t status = 0;
    alignas(8) std::array<uint8_t, 8> nothing{};
    oruOipc_parameter_t task{};
    task.client_id = connection.id;
    task.type = ORU_OIPC_EVENT_UNICAST;
    task.event_id = event;
    task.data_length = &length;
    task.status = &status;
    task.buffer = nothing.data();
    settings_.handler(&task); // the result of a connection event means nothing
}

} // namespace oipc
