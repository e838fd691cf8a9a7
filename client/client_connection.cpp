// SPDX-License-Identifier: Apache-2.0
//
// Connection, calls and incoming frames.
#include "client_impl.h"
#include <algorithm>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>

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
    Lock lock(mutex_);
    changed_.wait(lock, [this] { return !connecting_; });
    drop({Transport::ConnectionLost, ORU_STATUS_OK});
    options_ = options;
    if (options_.socket_path.empty()) {
        options_.socket_path = defaultSocketPath();
    }
    pause_ = options_.reconnect_min;
    reconnect_wanted_ = options_.auto_reconnect;
    return attempt(lock);
}

// The lock is open meanwhile; connecting_ keeps others from doing the same.
Outcome Client::Impl::attempt(Lock &lock) {
    connecting_ = true;
    const std::string path = options_.socket_path;
    const Milliseconds timeout = options_.connect_timeout;
    lock.unlock();
    std::shared_ptr<Link> link;
    const auto outcome = Link::open(path, timeout, link);
    lock.lock();
    connecting_ = false;
    if (link) {
        install(std::move(link));
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
    next_attempt_ = NEVER;
    drop({Transport::ConnectionLost, ORU_STATUS_OK});
    last_failure_ = {Transport::NoService, ORU_STATUS_OK};
}

bool Client::Impl::connected() {
    const Lock lock(mutex_);
    return link_ != nullptr;
}

uint16_t Client::Impl::clientId() {
    const Lock lock(mutex_);
    return link_ ? link_->clientId() : uint16_t{0};
}

void Client::Impl::install(std::shared_ptr<Link> link) {
    link_ = std::move(link);
    epoll_event readable{.events = EPOLLIN, .data = {}};
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, link_->fd(), &readable);
    next_attempt_ = NEVER;
    pause_ = options_.reconnect_min;
    addNote(ConnectionNote{true, {}});
}

void Client::Impl::drop(const Outcome &reason) {
    if (!link_) {
        return;
    }
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, link_->fd(), nullptr);
    link_->shutdown();
    link_.reset();
    last_failure_ = reason;
    for (OpenCall *call : open_calls_) {
        if (!call->done) { // an answer may have come just before the end
            call->outcome = reason;
            call->done = true;
        }
    }
    while (!async_calls_.empty()) {
        completeAsync(async_calls_.begin(), {reason, {}});
    }
    addNote(ConnectionNote{false, reason});
    scheduleReconnect();
    changed_.notify_all();
}

void Client::Impl::scheduleReconnect() {
    if (!reconnect_wanted_) {
        return;
    }
    next_attempt_ = after(pause_);
    pause_ = std::min(pause_ * 2, options_.reconnect_max);
    arm(next_attempt_);
}

void Client::Impl::reconnectIfDue(Lock &lock) {
    if (!connecting_ && !link_ && reconnect_wanted_ && Clock::now() >= next_attempt_) {
        attempt(lock);
    }
}

// ---------------------------------------------------------------- calls

Outcome Client::Impl::notConnected() const {
    return {last_failure_.transport == Transport::Ok ? Transport::NoService : last_failure_.transport,
            last_failure_.status};
}

Outcome Client::Impl::transact(Lock &lock, oipc::FrameHeader header, Bytes payload, OpenCall &call) {
    const auto deadline = after(options_.call_timeout);
    const auto link = link_;
    call.sequence = ++sequence_;
    header.sequence = call.sequence;
    header.payload_length = static_cast<uint32_t>(payload.size());
    open_calls_.push_back(&call);

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
    std::erase(open_calls_, &call);
    return call.done ? call.outcome : Outcome{Transport::TimedOut, ORU_STATUS_OK};
}

Outcome Client::Impl::callSync(uint16_t function_id, Bytes in, std::span<uint8_t> out) {
    if (in.size() > oipc::MAX_PAYLOAD) {
        return {Transport::Invalid, ORU_STATUS_DATA_LEN_INVALID};
    }
    Lock lock(mutex_);
    if (!link_) {
        return notConnected();
    }
    OpenCall call;
    call.out = out;
    return transact(lock, {.type = oipc::FrameType::SyncCall, .id = function_id}, in, call);
}

Result<uint16_t> Client::Impl::callAsync(uint16_t function_id, Bytes payload, RawCompletion done,
                                         Milliseconds timeout) {
    if (payload.size() > oipc::MAX_PAYLOAD) {
        return {{Transport::Invalid, ORU_STATUS_DATA_LEN_INVALID}};
    }
    Lock lock(mutex_);
    if (!link_) {
        return {notConnected()};
    }
    OpenCall call;
    if (done) {
        call.callback_id = nextCallbackId();
        auto &entry = async_calls_[call.callback_id];
        entry.done = std::move(done);
        entry.timeout = timeout == Milliseconds::zero() ? options_.completion_timeout : timeout;
    }
    const auto outcome = transact(
        lock, {.type = oipc::FrameType::AsyncCall, .id = function_id, .callback_id = call.callback_id}, payload, call);
    std::map<uint16_t, AsyncCall>::node_type forgotten;
    if (!outcome.ok()) {
        forgotten = async_calls_.extract(call.callback_id);
    }
    lock.unlock(); // before the handler is released: what it holds may use the Client
    return {outcome, call.callback_id};
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
    const auto link = link_; // keeps the descriptor open while this thread waits for it
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
    for (int i = 0; i < AT_ONCE && link_; ++i) {
        Frame frame;
        switch (link_->receive(buffer_, frame)) {
        case Link::Received::Frame:
            handle(frame);
            break;
        case Link::Received::Nothing:
            return;
        case Link::Received::Closed:
            drop({Transport::ConnectionLost, ORU_STATUS_OK});
            return;
        }
    }
}

void Client::Impl::handle(const Frame &frame) {
    switch (frame.header.type) {
    case oipc::FrameType::SyncResult:
    case oipc::FrameType::AsyncResult:
        handleResult(frame);
        break;
    case oipc::FrameType::Callback:
        handleCallback(frame);
        break;
    case oipc::FrameType::Event:
        handleEvent(frame);
        break;
    case oipc::FrameType::Refusal:
        drop({Transport::Refused, frame.header.status});
        break;
    case oipc::FrameType::Hello:
    case oipc::FrameType::SyncCall:
    case oipc::FrameType::AsyncCall:
        drop({Transport::ConnectionLost, ORU_STATUS_OK}); // not what a service says here
        break;
    }
}

void Client::Impl::handleResult(const Frame &frame) {
    const auto found = std::ranges::find(open_calls_, frame.header.sequence, &OpenCall::sequence);
    if (found == open_calls_.end()) {
        return; // its caller has given up
    }
    OpenCall &call = **found;
    const auto count = std::min(frame.payload.size(), call.out.size());
    std::ranges::copy(frame.payload.first(count), call.out.begin());
    call.outcome = {Transport::Ok, frame.header.status};
    call.done = true;
    if (call.outcome.ok()) {
        acceptAsync(call.callback_id);
    }
}

void Client::Impl::acceptAsync(uint16_t callback_id) {
    const auto found = async_calls_.find(callback_id);
    if (found == async_calls_.end()) {
        return;
    }
    auto &call = found->second;
    call.taken = true;
    if (call.early) {
        completeAsync(found, std::move(*call.early));
        return;
    }
    call.deadline = after(call.timeout);
    arm(call.deadline);
}

void Client::Impl::completeAsync(std::map<uint16_t, AsyncCall>::iterator call, CallbackResult result) {
    if (call->second.taken) {
        addNote(CompletionNote{std::move(call->second.done), std::move(result)});
    }
    async_calls_.erase(call);
}

void Client::Impl::handleCallback(const Frame &frame) {
    const auto found = async_calls_.find(frame.header.id);
    if (found == async_calls_.end()) {
        return; // timed out before
    }
    CallbackResult result;
    result.payload.assign(frame.payload.begin(), frame.payload.end());
    if (found->second.taken) {
        completeAsync(found, std::move(result));
    } else {
        found->second.early = std::move(result);
    }
}

void Client::Impl::handleEvent(const Frame &frame) {
    if (!on_event_) {
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
    ++queued_events_;
    addNote(EventNote{frame.header.id, {frame.payload.begin(), frame.payload.end()}});
}

} // namespace corvane
