// SPDX-License-Identifier: Apache-2.0
//
// Delivery of notes to handlers, time-outs and the receive thread.
#include "base/thread.h"
#include "client_impl.h"
#include <algorithm>
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace corvane {

namespace {

template <class Handler>
std::shared_ptr<const Handler> kept(Handler handler) {
    return handler ? std::make_shared<const Handler>(std::move(handler)) : nullptr;
}

} // namespace

// The former handler is released after the lock: what it holds may use the Client.
bool Client::Impl::onEvent(EventHandler handler) {
    auto next = kept(std::move(handler));
    const Lock lock(mutex_);
    handlers_.on_event.swap(next);
    return true;
}

bool Client::Impl::onPlatformEvent(PlatformEventHandler handler) {
    auto next = kept(std::move(handler));
    const Lock lock(mutex_);
    handlers_.on_platform_event.swap(next);
    return true;
}

bool Client::Impl::onConnection(ConnectionHandler handler) {
    auto next = kept(std::move(handler));
    const Lock lock(mutex_);
    handlers_.on_connection.swap(next);
    return true;
}

uint64_t Client::Impl::droppedEvents() {
    const Lock lock(mutex_);
    return dropped_events_;
}

std::size_t Client::Impl::poll(Milliseconds timeout) {
    return dispatch(after(timeout), Waiter::Poll);
}

bool Client::Impl::pollUntil(const std::function<bool()> &done, Milliseconds timeout) {
    constexpr Milliseconds SLICE{100}; // what `done` asks about may be another thread's doing
    const auto deadline = after(timeout);
    while (!done()) {
        dispatch(std::min(deadline, after(SLICE)), Waiter::Poll);
        if (Clock::now() >= deadline) {
            return done();
        }
    }
    return true;
}

// Waits until there is something to deliver or the time is up. One thread delivers at a time; a second one waits for
// its turn, a handler that comes here gets nothing.
std::size_t Client::Impl::dispatch(TimePoint deadline, Waiter waiter) {
    Lock lock(mutex_);
    if (delivering_ == std::this_thread::get_id()) {
        return 0;
    }
    while (waiter != Waiter::ReceiveThread || !stop_requested_) {
        expire();
        startReconnect();
        if (!reader_) {
            receiveAvailable();
        }
        const bool my_turn = delivering_ == std::thread::id{};
        if (!notes_.empty() && my_turn) {
            return deliver(lock);
        }
        if (Clock::now() >= deadline) {
            return 0;
        }
        if (reader_ || !my_turn) {
            changed_.wait_until(lock, std::min(deadline, armed_));
        } else {
            waitForSocket(lock, epoll_.get(), deadline);
        }
    }
    return 0;
}

// Those that wait now; what handlers add is for the next turn.
std::size_t Client::Impl::deliver(Lock &lock) {
    delivering_ = std::this_thread::get_id();
    std::size_t called = 0;
    for (std::size_t waiting = notes_.size(); waiting > 0 && !notes_.empty(); --waiting) {
        deliverFirst(lock);
        ++called;
    }
    delivering_ = {};
    if (notes_.empty()) {
        clearWake();
    }
    changed_.notify_all();
    return called;
}

void Client::Impl::deliverFirst(Lock &lock) {
    {
        Notes first;
        first.splice(first.end(), notes_, notes_.begin());
        const Note &note = first.front();
        queued_events_ -= std::holds_alternative<EventNote>(note) ? 1U : 0U;
        const auto handlers = handlers_;
        lock.unlock();
        call(note, handlers);
        // What the handlers hold is released here, outside the lock: it may use the Client.
    }
    lock.lock();
}

void Client::Impl::call(const Note &note, const Handlers &handlers) noexcept {
    if (const auto *event = std::get_if<EventNote>(&note)) {
        callEvent(*event, handlers);
    } else if (const auto *completion = std::get_if<CompletionNote>(&note)) {
        completion->done(completion->result);
    } else if (const auto *connection = std::get_if<ConnectionNote>(&note)) {
        if (handlers.on_connection) {
            (*handlers.on_connection)(connection->connected, connection->reason);
        }
    } else if (const auto *exchange = std::get_if<ExchangeNote>(&note)) {
        if (exchange->done) {
            exchange->done(exchange->result);
        }
    }
}

void Client::Impl::callEvent(const EventNote &event, const Handlers &handlers) noexcept {
    if (event.type == oipc::FrameType::PlatformEvent) {
        if (handlers.on_platform_event) {
            (*handlers.on_platform_event)(PlatformEvent{event.id, event.payload});
        }
    } else if (handlers.on_event) {
        (*handlers.on_event)(Event{event.id, event.payload});
    }
}

void Client::Impl::addNote(Notes &note) {
    notes_.splice(notes_.end(), note);
    setWake();
    changed_.notify_all();
}

void Client::Impl::setWake() {
    if (!wake_set_) {
        const uint64_t one = 1;
        (void)!::write(wake_.get(), &one, sizeof one);
        wake_set_ = true;
    }
}

void Client::Impl::clearWake() {
    if (wake_set_) {
        uint64_t ignored = 0;
        (void)!::read(wake_.get(), &ignored, sizeof ignored);
        wake_set_ = false;
    }
}

// The timer may go off for a call that is over; then nothing is due and the next deadline is set.
void Client::Impl::expire() {
    const auto now = Clock::now();
    if (now < armed_) {
        return;
    }
    armed_ = NEVER;
    uint64_t ignored = 0;
    (void)!::read(timer_.get(), &ignored, sizeof ignored);
    if (greeting_deadline_ <= now) {
        failReconnect(TIMED_OUT);
    }
    TimePoint next = std::min({next_attempt_ > now ? next_attempt_ : NEVER, greeting_deadline_, expireExchanges(now)});
    for (auto call = async_calls_.begin(); call != async_calls_.end();) {
        const auto current = call++;
        if (current->second.deadline <= now) {
            completeAsync(current, {{Transport::TimedOut, ORU_STATUS_OK}, {}});
        } else {
            next = std::min(next, current->second.deadline);
        }
    }
    arm(next);
}

void Client::Impl::arm(TimePoint deadline) {
    if (deadline >= armed_) {
        return;
    }
    armed_ = deadline;
    const auto since = std::max(deadline.time_since_epoch(), Clock::duration(1)); // zero would disarm
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
    const itimerspec setting{
        {},
        {static_cast<time_t>(seconds.count()), static_cast<long>(std::chrono::nanoseconds(since - seconds).count())}};
    ::timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &setting, nullptr);
    changed_.notify_all();
}

// ---------------------------------------------------------------- receive thread

bool Client::Impl::start() {
    const Lock lock(mutex_);
    if (thread_.joinable() || stop_requested_) {
        return false;
    }
    return base::startThread(thread_, "corvane-client", [this] { receiveLoop(); });
}

void Client::Impl::stop() {
    Lock lock(mutex_);
    if (!thread_.joinable()) {
        return;
    }
    auto thread = std::move(thread_);
    stop_requested_ = true;
    setWake();
    changed_.notify_all();
    lock.unlock();
    thread.join();
    lock.lock();
    stop_requested_ = false;
    if (notes_.empty()) {
        clearWake();
    }
}

void Client::Impl::receiveLoop() {
    for (;;) {
        dispatch(NEVER, Waiter::ReceiveThread);
        const Lock lock(mutex_);
        if (stop_requested_) {
            return;
        }
    }
}

} // namespace corvane
