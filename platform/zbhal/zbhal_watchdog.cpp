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

} // namespace

void Watchdog::start(uint32_t limit_seconds) {
    uint64_t supervisor_us = 0;
    if (sd_watchdog_enabled(0, &supervisor_us) <= 0) {
        supervisor_us = 0;
    }
    last_beat_us_ = 0;
    ready_reported_ = false;
    const uint64_t limit_us = uint64_t{limit_seconds} * 1000000;
    if (limit_us == 0 && supervisor_us == 0) {
        return;
    }
    stopping_ = false;
    thread_ = startThread("zbhal-watch", [this, limit_us, supervisor_us] { watch(limit_us, supervisor_us); });
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

void Watchdog::watch(uint64_t limit_us, uint64_t notify_us) {
    const uint64_t shortest = std::min(limit_us != 0 ? limit_us : notify_us, notify_us != 0 ? notify_us : limit_us);
    const auto step = std::chrono::microseconds(std::clamp<uint64_t>(shortest / 4, 50000, 5000000));
    std::unique_lock lock(mutex_);
    while (!changed_.wait_for(lock, step, [this] { return stopping_; })) {
        const int64_t last_beat = last_beat_us_.load(std::memory_order_relaxed);
        if (last_beat == 0) {
            continue; // start-up is not watched: the loop has not begun
        }
        const auto silent_us = static_cast<uint64_t>(std::max<int64_t>(realNowUs() - last_beat, 0));
        if (limit_us != 0 && silent_us > limit_us) {
            oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, "zbhal",
                       "watchdog: the main loop has not called oruZbHal_processAction for %llu s, aborting",
                       static_cast<unsigned long long>(silent_us / 1000000));
            std::abort();
        }
        if (notify_us != 0 && silent_us < notify_us) {
            sd_notify(0, "WATCHDOG=1");
        }
    }
}

} // namespace corvane::zbhal
