// SPDX-License-Identifier: Apache-2.0
//
// Connection, calls and incoming frames.
#include "client_impl.h"
#include <algorithm>
#include <new>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <utility>

namespace corvane {

Client::Impl::Impl()
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      timer_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    epoll_event readable{.events = EPOLLIN, .data = {}};
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wake_.get(), &readable);
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, timer_.get(), &readable);
}

Client::Impl::~Impl() {
    stop();
}

Outcome Client::Impl::connect(const Options &options) {
    if (epoll_.get() < 0 || wake_.get() < 0 || timer_.get() < 0) {
        return {Transport::NoService, ORU_STATUS_OUT_OF_MEMORY}; // no descriptors
    }
    const auto address = socketAddress(options.socket_path.empty() ? defaultSocketPath() : options.socket_path);
    auto connection = prepareConnection();
    Options wanted = options;
    Lock lock(mutex_);
    changed_.wait(lock, [this] { return !connecting_; });
    reconnect_wanted_ = false;
    endReconnect();
    drop(LOST);
    options_ = std::move(wanted);
    if (!address) {
        return last_failure_ = {Transport::Invalid, ORU_STATUS_PARAM_OUT_OF_RANGE};
    }
    address_ = *address;
    pause_ = options_.reconnect_min;
    reconnect_wanted_ = options_.auto_reconnect;
    return attempt(lock, std::move(connection));
}

// The lock is open meanwhile; connecting_ keeps others from doing the same.
Outcome Client::Impl::attempt(Lock &lock, Connection connection) {
    connecting_ = true;
    const auto address = address_;
    const auto deadline = after(options_.connect_timeout);
    lock.unlock();
    Link &link = *connection.link;
    FrameBuffer buffer;
    Outcome outcome{link.connect(address, deadline), ORU_STATUS_OK};
    if (outcome.ok()) {
        const bool spoken = waitFor(link.fd(), POLLIN, deadline);
        outcome = (spoken ? link.greet(buffer) : std::nullopt).value_or(TIMED_OUT);
    }
    lock.lock();
    connecting_ = false;
    if (outcome.ok()) {
        watch(link);
        install(std::move(connection));
    } else {
        last_failure_ = outcome;
        scheduleReconnect();
    }
    changed_.notify_all();
    return outcome;
}

void Client::Impl::disconnect() {
    Lock lock(mutex_);
    changed_.wait(lock, [this] { return !connecting_; });
    reconnect_wanted_ = false;
    endReconnect();
    drop(LOST);
    last_failure_ = {Transport::NoService, ORU_STATUS_OK};
}

bool Client::Impl::connected() {
    const Lock lock(mutex_);
    return connection_.link != nullptr;
}

uint16_t Client::Impl::clientId() {
    const Lock lock(mutex_);
    return connection_.link ? connection_.link->clientId() : uint16_t{0};
}

uint16_t Client::Impl::platformVersion() {
    const Lock lock(mutex_);
    return connection_.link ? connection_.link->platformVersion() : uint16_t{0};
}

void Client::Impl::watch(const Link &link) const {
    epoll_event readable{.events = EPOLLIN, .data = {}};
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, link.fd(), &readable);
}

void Client::Impl::unwatch(const Link &link) const {
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, link.fd(), nullptr);
}

Client::Impl::Connection Client::Impl::prepareConnection() {
    Connection connection{std::make_shared<Link>(), {}, {}};
    connection.up.emplace_back(ConnectionNote{true, {}});
    connection.down.emplace_back(ConnectionNote{false, {}});
    return connection;
}

void Client::Impl::install(Connection connection) {
    connection_ = std::move(connection);
    pause_ = options_.reconnect_min;
    addNote(connection_.up);
}

void Client::Impl::drop(const Outcome &reason) {
    if (!connection_.link) {
        return;
    }
    unwatch(*connection_.link);
    connection_.link->shutdown();
    auto ended = std::exchange(connection_, {});
    last_failure_ = reason;
    for (OpenCall *call = open_calls_; call != nullptr; call = call->next) {
        if (!call->done) { // an answer may have come just before the end
            call->outcome = reason;
            call->done = true;
        }
    }
    for (auto call = async_calls_.begin(); call != async_calls_.end();) {
        completeAsync(call++, {reason, {}}); // those not taken over end with the call itself
    }
    endExchanges(reason);
    std::get<ConnectionNote>(ended.down.front()).reason = reason;
    addNote(ended.down);
    scheduleReconnect();
    changed_.notify_all();
}

// ---------------------------------------------------------------- reconnecting

void Client::Impl::scheduleReconnect() {
    if (!reconnect_wanted_) {
        return;
    }
    pause_ = std::max(pause_, Milliseconds(1));
    next_attempt_ = after(pause_);
    pause_ = std::min(pause_ * 2, options_.reconnect_max);
    arm(next_attempt_);
}

void Client::Impl::startReconnect() {
    if (connecting_ || Clock::now() < next_attempt_) {
        return;
    }
    next_attempt_ = NEVER;
    try {
        greeting_ = prepareConnection();
    } catch (const std::bad_alloc &) {
        return failReconnect(NO_MEMORY);
    }
    watch(*greeting_.link);
    const auto transport = greeting_.link->connect(address_, Clock::now());
    if (transport != Transport::Ok) {
        return failReconnect({transport, ORU_STATUS_OK});
    }
    greeting_deadline_ = after(options_.connect_timeout);
    arm(greeting_deadline_);
}

void Client::Impl::receiveGreeting() {
    if (!greeting_.link) {
        return;
    }
    const auto outcome = greeting_.link->greet(buffer_);
    if (!outcome) {
        return;
    }
    if (!outcome->ok()) {
        return failReconnect(*outcome);
    }
    greeting_deadline_ = NEVER;
    install(std::exchange(greeting_, {}));
}

void Client::Impl::endReconnect() {
    if (greeting_.link) {
        unwatch(*greeting_.link);
        greeting_ = {};
    }
    greeting_deadline_ = NEVER;
    next_attempt_ = NEVER;
}

void Client::Impl::failReconnect(const Outcome &reason) {
    endReconnect();
    last_failure_ = reason;
    scheduleReconnect();
}

// ---------------------------------------------------------------- calls

Outcome Client::Impl::notConnected() const {
    return {last_failure_.transport == Transport::Ok ? Transport::NoService : last_failure_.transport,
            last_failure_.status};
}

Outcome Client::Impl::transact(Lock &lock, oipc::FrameHeader header, Bytes payload, OpenCall &call) {
    const auto deadline = after(options_.call_timeout);
    const auto link = connection_.link;
    call.sequence = ++sequence_;
    header.sequence = call.sequence;
    header.payload_length = static_cast<uint32_t>(payload.size());
    call.next = std::exchange(open_calls_, &call);

    lock.unlock();
    const auto sent = link->send(header, payload, deadline);
    lock.lock();
    // When the service has closed the connection, its last words are still to be read: they end the call.
    while (sent != Transport::TimedOut && !call.done && Clock::now() < deadline) {
        if (reader_) {
            changed_.wait_until(lock, deadline);
        } else {
            waitForSocket(lock, link->fd(), deadline);
        }
    }
    OpenCall **place = &open_calls_;
    while (*place != &call) {
        place = &(*place)->next;
    }
    *place = call.next;
    return call.done ? call.outcome : TIMED_OUT;
}

Outcome Client::Impl::callSync(uint16_t function_id, Bytes in, std::span<uint8_t> out) {
    if (in.size() > oipc::MAX_PAYLOAD) {
        return {Transport::Invalid, ORU_STATUS_DATA_LEN_INVALID};
    }
    Lock lock(mutex_);
    if (!connection_.link) {
        return notConnected();
    }
    OpenCall call;
    call.out = out;
    return transact(lock, {.type = oipc::FrameType::SyncCall, .id = function_id}, in, call);
}

// An older service would end the connection.
Result<std::size_t> Client::Impl::callPlatform(uint16_t operation, Bytes in, std::span<uint8_t> out) {
    if (in.size() > oipc::MAX_PAYLOAD) {
        return {{Transport::Invalid, ORU_STATUS_DATA_LEN_INVALID}};
    }
    Lock lock(mutex_);
    if (!connection_.link) {
        return {notConnected()};
    }
    if (connection_.link->platformVersion() == 0) {
        return {NO_PLATFORM};
    }
    OpenCall call;
    call.out = out;
    const auto outcome = transact(lock, {.type = oipc::FrameType::PlatformCall, .id = operation}, in, call);
    return {outcome, call.written};
}

Result<uint16_t> Client::Impl::callAsync(uint16_t function_id, Bytes payload, RawCompletion done,
                                         Milliseconds timeout) {
    if (payload.size() > oipc::MAX_PAYLOAD) {
        return {{Transport::Invalid, ORU_STATUS_DATA_LEN_INVALID}};
    }
    auto prepared =
        prepareAsync(std::move(done), timeout); // outlives the lock: what the handler holds may use the Client
    Lock lock(mutex_);
    if (!connection_.link) {
        return {notConnected()};
    }
    OpenCall call;
    if (!prepared.empty()) {
        if (async_calls_.size() > LAST_CALLBACK_ID - FIRST_CALLBACK_ID) {
            return {NO_MEMORY};
        }
        call.callback_id = nextCallbackId();
        auto entry = prepared.extract(prepared.begin());
        entry.key() = call.callback_id;
        async_calls_.insert(std::move(entry));
    }
    const auto outcome = transact(
        lock, {.type = oipc::FrameType::AsyncCall, .id = function_id, .callback_id = call.callback_id}, payload, call);
    if (!outcome.ok()) {
        prepared.insert(async_calls_.extract(call.callback_id));
    }
    return {outcome, call.callback_id};
}

Client::Impl::AsyncCalls Client::Impl::prepareAsync(RawCompletion done, Milliseconds timeout) {
    AsyncCalls calls;
    if (done) {
        auto &call = calls[0];
        call.note.emplace_back(CompletionNote{std::move(done), {}});
        call.timeout = timeout;
    }
    return calls;
}

uint16_t Client::Impl::nextCallbackId() {
    do {
        last_callback_id_ =
            last_callback_id_ >= LAST_CALLBACK_ID ? FIRST_CALLBACK_ID : static_cast<uint16_t>(last_callback_id_ + 1);
    } while (async_calls_.contains(last_callback_id_));
    return last_callback_id_;
}

// ---------------------------------------------------------------- reading

void Client::Impl::waitForSocket(Lock &lock, int fd, TimePoint deadline) {
    const auto link = connection_.link; // keeps the descriptor open while this thread waits for it
    reader_ = true;
    lock.unlock();
    waitFor(fd, POLLIN, deadline);
    lock.lock();
    reader_ = false;
    receiveAvailable();
    changed_.notify_all();
}

void Client::Impl::receiveAvailable() {
    constexpr int AT_ONCE = 256; // then let the caller look at the time and at its own result
    receiveGreeting();
    for (int i = 0; i < AT_ONCE && connection_.link; ++i) {
        Frame frame;
        switch (connection_.link->receive(buffer_, frame)) {
        case Link::Received::Frame:
            handle(frame);
            break;
        case Link::Received::Nothing:
            return;
        case Link::Received::Closed:
            drop(LOST);
            return;
        case Link::Received::OtherVersion:
            drop(OTHER_VERSION);
            return;
        }
    }
}

void Client::Impl::handle(const Frame &frame) {
    switch (frame.header.type) {
    case oipc::FrameType::SyncResult:
    case oipc::FrameType::AsyncResult:
    case oipc::FrameType::PlatformResult:
        handleResult(frame);
        break;
    case oipc::FrameType::Callback:
        handleCallback(frame);
        break;
    case oipc::FrameType::Event:
    case oipc::FrameType::PlatformEvent:
        handleEvent(frame);
        break;
    case oipc::FrameType::Refusal:
        drop(refusal(frame.header));
        break;
    case oipc::FrameType::Hello:
    case oipc::FrameType::SyncCall:
    case oipc::FrameType::AsyncCall:
    case oipc::FrameType::PlatformCall:
        drop(LOST); // not what a service says here
        break;
    }
}

void Client::Impl::handleResult(const Frame &frame) {
    OpenCall *call = open_calls_;
    while (call != nullptr && call->sequence != frame.header.sequence) {
        call = call->next;
    }
    if (call == nullptr) {
        return; // its caller has given up
    }
    call->written = std::min(frame.payload.size(), call->out.size());
    std::ranges::copy(frame.payload.first(call->written), call->out.begin());
    call->outcome = {Transport::Ok, frame.header.status};
    call->done = true;
    if (call->outcome.ok()) {
        acceptAsync(call->callback_id);
    }
}

void Client::Impl::acceptAsync(uint16_t callback_id) {
    const auto found = async_calls_.find(callback_id);
    if (found == async_calls_.end()) {
        return;
    }
    auto &call = found->second;
    call.taken = true;
    if (call.called_back) {
        addNote(call.note);
        async_calls_.erase(found);
        return;
    }
    call.deadline = after(call.timeout == Milliseconds::zero() ? options_.completion_timeout : call.timeout);
    arm(call.deadline);
}

void Client::Impl::completeAsync(AsyncCalls::iterator call, CallbackResult result) {
    auto &note = call->second.note;
    std::get<CompletionNote>(note.front()).result = std::move(result);
    if (call->second.taken) {
        addNote(note);
        async_calls_.erase(call);
    } else {
        call->second.called_back = true;
    }
}

void Client::Impl::handleCallback(const Frame &frame) {
    const auto found = async_calls_.find(frame.header.id);
    if (found == async_calls_.end()) {
        return; // timed out before
    }
    CallbackResult result;
    try {
        result.payload.assign(frame.payload.begin(), frame.payload.end());
    } catch (const std::bad_alloc &) {
        static_cast<Outcome &>(result) = NO_MEMORY;
    }
    completeAsync(found, std::move(result));
}

void Client::Impl::handleEvent(const Frame &frame) {
    const auto type = frame.header.type;
    const bool of_service = type == oipc::FrameType::Event;
    if (of_service) {
        followExchanges({frame.header.id, frame.payload});
    }
    if (of_service ? !handlers_.on_event : !handlers_.on_platform_event) {
        return;
    }
    if (queued_events_ >= options_.max_queued) {
        ++dropped_events_;
        const auto oldest =
            std::ranges::find_if(notes_, [](const Note &note) { return std::holds_alternative<EventNote>(note); });
        if (oldest == notes_.end()) {
            return; // none may wait at all
        }
        notes_.erase(oldest);
        --queued_events_;
    }
    try {
        Notes note;
        note.emplace_back(EventNote{type, frame.header.id, {frame.payload.begin(), frame.payload.end()}});
        addNote(note);
        ++queued_events_;
    } catch (const std::bad_alloc &) {
        ++dropped_events_;
    }
}

} // namespace corvane
