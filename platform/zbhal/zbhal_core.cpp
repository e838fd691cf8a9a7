// SPDX-License-Identifier: Apache-2.0
#include "zbhal_core.h"
#include "base/thread.h"
#include "oru_log.h"
#include "oru_time.h"
#include "supervise.h"
#include "zbhal_policy.h"
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace corvane::zbhal {

namespace {

constexpr char kTag[] = "zbhal";
constexpr uint64_t kOwnLimitUs = 500000; // longest wait of runEvents when the caller names none
constexpr uint64_t kLongestSleepUs = 60ull * 1000000;
constexpr size_t kDeliverAtOnce = 32; // indications per call when the service has nothing queued

} // namespace

uint64_t nowUs() {
    oruTime_timespec_t now{};
    if (oruTime_clockTime(ORUTIME_CLOCK_MONOTONIC, &now) != ORU_STATUS_OK || now.seconds < 0) {
        return 0; // the timeline never runs backwards, so nothing happens until the clock is back
    }
    return static_cast<uint64_t>(now.seconds) * 1000000 + static_cast<uint64_t>(now.nanoseconds) / 1000;
}

// ---------------------------------------------------------------- start and stop

oru_status_t Hal::init(const oruZbHal_callbacks_t *callbacks, int32_t *event_descriptor) {
    if (initialized_) {
        return ORU_STATUS_ALREADY_INITIALIZED;
    }
    HalSetup setup = setup_();
    descriptor_mode_ = setup.descriptor_mode;
    if (descriptor_mode_ && !pipe_.open()) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kTag, "cannot create the event pipe: %s", std::strerror(errno));
        return ORU_STATUS_GENERAL_ERROR;
    }
    source_.use(std::move(setup.backends), setup.wait_for_adapter);
    callbacks_ = callbacks;
    stopping_ = false;
    initialized_ = true;
    static const int registered = std::atexit([] { hal().stop(); });
    if (registered != 0) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_WARN, kTag, "no exit handler: threads of the layer end with the process");
    }
    if (!startThreads(setup.watchdog_seconds)) {
        shutDown();
        return ORU_STATUS_GENERAL_ERROR;
    }
    if (descriptor_mode_) {
        *event_descriptor = pipe_.writeEnd();
    }
    return ORU_STATUS_OK;
}

bool Hal::startThreads(uint32_t watchdog_seconds) {
    if (!supervise::start(watchdog_seconds)) {
        return false;
    }
    return descriptor_mode_ || (startLoop(clock_thread_, "zbhal-clock", &Hal::clockLoop) &&
                                startLoop(dispatch_thread_, "zbhal-dispatch", &Hal::dispatchLoop));
}

bool Hal::startLoop(std::thread &thread, const char *name, void (Hal::*loop)()) {
    ++running_threads_;
    const auto body = [this, loop] {
        (this->*loop)();
        --running_threads_;
    };
    if (base::startThread(thread, name, body)) {
        return true;
    }
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kTag, "cannot start the thread %s: %s", name, std::strerror(errno));
    --running_threads_;
    return false;
}

void Hal::stop() {
    stopping_ = true;
    queue_.stop();
    changed();
    supervise::stop();
    if (Adapter *const adapter = source_.adapter()) {
        adapter->stop();
    }
    // A callback may be stuck in the service while the process exits; it must not keep the process alive.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (running_threads_ > 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    for (std::thread *thread : {&clock_thread_, &dispatch_thread_}) {
        if (thread->joinable() && running_threads_ == 0) {
            thread->join();
        } else if (thread->joinable()) {
            thread->detach();
        }
    }
}

// As before init.
void Hal::shutDown() {
    stop();
    queue_.restart();
    pipe_.close();
    callbacks_ = nullptr;
    stopping_ = false;
    initialized_ = false;
}

// ---------------------------------------------------------------- the adapter

oru_status_t Hal::setAdapterName(const char *name) {
    return guarded([&] {
        source_.setName(name);
        return ORU_STATUS_OK;
    });
}

oru_status_t Hal::enable() {
    if (!initialized_) {
        return ORU_STATUS_UNINITIALIZED;
    }
    const oru_status_t status = guarded([&] { return source_.open(*this); });
    if (status != ORU_STATUS_OK || source_.adapter() == nullptr) {
        return status;
    }
    return run([](Adapter &adapter) { return adapter.enable(); });
}

oru_status_t Hal::setRegion(oruZbHal_region_t region) {
    if (source_.keepRegion(region)) {
        return ORU_STATUS_OK;
    }
    return run([region](Adapter &adapter) { return adapter.setRegion(region); });
}

oru_status_t Hal::send(SendRequest &request) {
    return run([&](Adapter &adapter) -> oru_status_t {
        if (!ledger_.accept(request, adapter.sendCapacity(), nowUs())) {
            return ORU_ZB_HAL_MAC_TRANSACTION_OVERFLOW;
        }
        const oru_status_t status = guarded([&] { return adapter.send(request); });
        if (status != ORU_STATUS_OK) {
            ledger_.withdraw(request.ticket);
        }
        return status;
    });
}

oru_status_t Hal::sendInterpan(InterpanRequest &request, oruZbHal_interpanSentCallback_t callback) {
    return run([&](Adapter &adapter) -> oru_status_t {
        request.ticket = ledger_.accept(callback, nowUs());
        if (request.ticket == 0) {
            return ORU_ZB_HAL_MAC_TRANSACTION_OVERFLOW;
        }
        const oru_status_t status = guarded([&] { return adapter.sendInterpan(request); });
        if (status != ORU_STATUS_OK) {
            ledger_.withdraw(request.ticket);
        }
        return status;
    });
}

oru_status_t Hal::sendGroup(oruZbHal_apsFrame_t &aps_frame, std::span<const uint8_t> payload) {
    aps_frame.sequence = ledger_.nextSequence();
    return run([&](Adapter &adapter) { return adapter.sendGroup(aps_frame, payload); });
}

// ---------------------------------------------------------------- advancing and delivering

uint64_t Hal::pump() {
    const uint64_t now_us = nowUs();
    uint64_t due_us = now_us; // goes on with the next event when memory runs out in one
    (void)guarded([&] {
        uint64_t next_us = source_.look(now_us, *this);
        if (Adapter *const adapter = source_.adapter()) {
            const uint64_t expires_us = ledger_.expire(now_us, adapter->conclusionLimitUs());
            next_us = std::min({next_us, expires_us, adapter->advance(now_us)});
        }
        due_us = next_us;
        return ORU_STATUS_OK;
    });
    return due_us;
}

void Hal::deliverNext() {
    deliver(*callbacks_, current_);
    queue_.done();
    if (queue_.takeRoomMade()) {
        if (Adapter *const adapter = source_.adapter()) {
            adapter->roomMade();
        }
        changed();
    }
}

// One indication in any case. More only while the service has nothing queued: each of its messages has a wake byte in
// the pipe, and its queue is bounded.
void Hal::deliverSome() {
    delivering_ = true;
    for (size_t delivered = 0; delivered < kDeliverAtOnce && queue_.pop(current_); ++delivered) {
        deliverNext();
        if (pipe_.byteWaiting()) {
            break;
        }
    }
    delivering_ = false;
}

void Hal::reportShortages() {
    if (const uint32_t count = shortages_ == 0 ? 0 : shortages_.exchange(0); count != 0) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kTag, "memory is short: the radio has lost %u steps of its work",
                   count);
    }
}

oru_status_t Hal::processAction() {
    if (!initialized_) {
        return ORU_STATUS_UNINITIALIZED;
    }
    supervise::beat(supervise::Pulse::main_loop);
    reportShortages();
    if (delivering_) {
        return ORU_STATUS_OK;
    }
    (void)pump();
    if (descriptor_mode_) {
        deliverSome();
    }
    return ORU_STATUS_OK;
}

oru_status_t Hal::runEvents(uint32_t max_wait_ms) {
    if (!initialized_) {
        return ORU_STATUS_UNINITIALIZED;
    }
    if (!descriptor_mode_) {
        return ORU_STATUS_NOT_SUPPORTED;
    }
    if (delivering_ || pipe_.takeByte()) {
        return ORU_STATUS_OK;
    }
    const uint64_t limit_us = max_wait_ms == 0 ? kOwnLimitUs : uint64_t{max_wait_ms} * 1000;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::microseconds(limit_us);
    bool go_on = true;
    while (go_on) {
        stirred_ = false; // before pump: what comes after this is looked at
        const uint64_t due_us = pump();
        if (queue_.size() > 0) {
            deliverSome();
            (void)pipe_.takeByte(); // the byte of a message that a callback has posted
            return ORU_STATUS_OK;
        }
        go_on = sleep(due_us, deadline);
    }
    return ORU_STATUS_OK;
}

// False: the caller's time is over, or there is something that is not the radio's.
bool Hal::sleep(uint64_t due_us, std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
        return false;
    }
    const uint64_t until_due_us = due_us == kNever ? kNever : due_us - std::min(due_us, nowUs());
    // A due time of "now" with nothing to deliver is work left over: 1 ms keeps it from spinning.
    const uint64_t wait_us = std::max<uint64_t>(until_due_us, 1000);
    waiting_ = true;
    const auto result =
        stirred_ ? WakePipe::Wait::woken : pipe_.wait(std::min<uint64_t>(static_cast<uint64_t>(left.count()), wait_us));
    waiting_ = false;
    return result != WakePipe::Wait::interrupted && !pipe_.takeByte();
}

// Descriptor mode: there is something to look at.
void Hal::wakeLoop() {
    stirred_ = true;
    if (waiting_) {
        pipe_.signal();
    }
}

void Hal::changed() {
    if (!initialized_) {
        return;
    }
    if (descriptor_mode_) {
        wakeLoop();
        return;
    }
    const std::lock_guard lock(clock_mutex_);
    due_changed_ = true;
    clock_changed_.notify_all();
}

void Hal::clockLoop() {
    while (!stopping_) {
        const uint64_t due_us = pump();
        const uint64_t now_us = nowUs();
        const uint64_t wait_us = due_us <= now_us ? 1000 : std::min(due_us - now_us, kLongestSleepUs);
        std::unique_lock lock(clock_mutex_);
        clock_changed_.wait_for(lock, std::chrono::microseconds(wait_us), [this] { return due_changed_ || stopping_; });
        due_changed_ = false;
    }
}

void Hal::dispatchLoop() {
    while (queue_.waitPop(current_)) {
        supervise::beat(supervise::Pulse::dispatcher);
        deliverNext();
        supervise::rest(supervise::Pulse::dispatcher);
    }
}

// ---------------------------------------------------------------- host of the adapter

bool Hal::indicate(const Indication &indication) {
    if (isJoinDenied(indication)) {
        const uint8_t *const eui64 = indication.eui64;
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, kTag, "trust centre: join of %02x%02x%02x..%02x%02x denied", eui64[7],
                   eui64[6], eui64[5], eui64[1], eui64[0]);
        return true;
    }
    const bool taken = queue_.push(indication);
    wakeLoop();
    return taken;
}

void Hal::conclude(Ticket ticket, int32_t status) {
    ledger_.conclude(ticket, status);
    wakeLoop();
}

void Hal::concludeAll(int32_t send_status, oru_status_t interpan_status) {
    ledger_.concludeAll(send_status, interpan_status);
    wakeLoop();
}

} // namespace corvane::zbhal
