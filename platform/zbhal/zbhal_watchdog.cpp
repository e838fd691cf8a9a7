// SPDX-License-Identifier: Apache-2.0
#include "zbhal_watchdog.h"
#include "oru_log.h"
#include "zbhal_thread.h"
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <systemd/sd-daemon.h>

namespace corvane::zbhal {

namespace {

// Real time, not the platform's clock: a test clock that stands still must not look like a loop that stands still.
int64_t realNowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Of a time stamp, 0 where there is none.
uint64_t elapsedUs(const std::atomic<int64_t> &since_us, int64_t now_us) {
    const int64_t since = since_us.load(std::memory_order_relaxed);
    return since == 0 ? 0 : static_cast<uint64_t>(std::max<int64_t>(now_us - since, 0));
}

[[noreturn]] void abortFor(const char *what, uint64_t silent_us) {
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_FATAL, "zbhal", "watchdog: %s for %llu s, aborting", what,
               static_cast<unsigned long long>(silent_us / 1000000));
    std::abort();
}

} // namespace

bool Watchdog::start(uint32_t limit_seconds) {
    uint64_t supervisor_us = 0;
    if (sd_watchdog_enabled(0, &supervisor_us) <= 0) {
        supervisor_us = 0;
    }
    last_beat_us_ = dispatched_us_ = 0;
    ready_reported_ = false;
    const uint64_t limit_us = uint64_t{limit_seconds} * 1000000;
    if (limit_us == 0 && supervisor_us == 0) {
        return true;
    }
    stopping_ = false;
    thread_ = startThread("zbhal-watch", [this, limit_us, supervisor_us] { watch(limit_us, supervisor_us); });
    return thread_.joinable();
}

void Watchdog::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        changed_.notify_all();
    }
    if (!thread_.joinable()) {
        return;
    }
    if (thread_.get_id() == std::this_thread::get_id()) {
        thread_.detach();
    } else {
        thread_.join();
    }
}

void Watchdog::beat() {
    last_beat_us_.store(realNowUs(), std::memory_order_relaxed);
    if (!ready_reported_.exchange(true)) {
        sd_notify(0, "READY=1"); // no effect without a supervisor that listens
    }
}

void Watchdog::dispatching(bool inside) {
    dispatched_us_.store(inside ? realNowUs() : 0, std::memory_order_relaxed);
}

void Watchdog::startOver(int64_t now_us) {
    for (std::atomic<int64_t> *since_us : {&last_beat_us_, &dispatched_us_}) {
        int64_t since = since_us->load(std::memory_order_relaxed);
        if (since != 0) { // and only if nobody has set it meanwhile
            since_us->compare_exchange_strong(since, now_us, std::memory_order_relaxed);
        }
    }
}

void Watchdog::watch(uint64_t limit_us, uint64_t notify_us) {
    const uint64_t shortest = std::min(limit_us != 0 ? limit_us : notify_us, notify_us != 0 ? notify_us : limit_us);
    const auto step_us = std::clamp<int64_t>(static_cast<int64_t>(shortest / 4), 50000, 5000000);
    int64_t looked_us = realNowUs();
    std::unique_lock lock(mutex_);
    while (!changed_.wait_for(lock, std::chrono::microseconds(step_us), [this] { return stopping_; })) {
        const int64_t now_us = realNowUs();
        if (now_us - looked_us > 2 * step_us) {
            startOver(now_us);
        }
        looked_us = now_us;
        if (last_beat_us_.load(std::memory_order_relaxed) == 0) {
            continue; // start-up is not watched: the loop has not begun
        }
        const uint64_t loop_us = elapsedUs(last_beat_us_, now_us);
        const uint64_t dispatch_us = elapsedUs(dispatched_us_, now_us);
        if (limit_us != 0 && loop_us > limit_us) {
            abortFor("the main loop has not called oruZbHal_processAction", loop_us);
        }
        if (limit_us != 0 && dispatch_us > limit_us) {
            abortFor("the dispatcher has not returned from a callback", dispatch_us);
        }
        if (notify_us != 0 && std::max(loop_us, dispatch_us) < notify_us) {
            sd_notify(0, "WATCHDOG=1");
        }
    }
}

} // namespace corvane::zbhal
