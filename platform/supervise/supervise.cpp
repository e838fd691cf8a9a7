// SPDX-License-Identifier: Apache-2.0
#include "supervise.h"
#include "base/thread.h"
#include "oru_log.h"
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <systemd/sd-daemon.h>
#include <thread>

namespace corvane::supervise {

namespace {

constexpr char TAG[] = "supervise";
constexpr size_t PULSES = static_cast<size_t>(Pulse::count);
constexpr std::array<const char *, PULSES> SILENCES = {
    "the main loop has not called oruZbHal_processAction",
    "the dispatcher has not returned from a callback",
    "the link to the radio has not gone on",
};

// Real time, not the platform's clock: a test clock that stands still must not look like a loop that stands still.
int64_t realNowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

[[noreturn]] void abortFor(const char *silence, uint64_t silent_us) {
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_FATAL, TAG, "watchdog: %s for %llu s, aborting", silence,
               static_cast<unsigned long long>(silent_us / 1000000));
    std::abort();
}

class Watcher {
public:
    bool start(uint32_t limit_seconds);
    void stop();
    void beat(Pulse pulse);
    void rest(Pulse pulse) { since_us_[static_cast<size_t>(pulse)].store(0, std::memory_order_relaxed); }

private:
    struct Silence {
        size_t pulse = 0;
        uint64_t us = 0;
    };

    void watch(int64_t looked_us);
    void look(int64_t now_us);
    Silence longest(int64_t now_us) const;
    void startOver(int64_t now_us);

    std::array<std::atomic<int64_t>, PULSES> since_us_{}; // of the last beat; 0: none yet, or at rest
    std::atomic<bool> ready_reported_{false};
    uint64_t limit_us_ = 0; // these two are set before the thread starts; 0: none
    uint64_t notify_us_ = 0;
    std::mutex mutex_; // guards stopping_; a leaf
    std::condition_variable changed_;
    bool stopping_ = false;
    std::thread thread_;
};

bool Watcher::start(uint32_t limit_seconds) {
    if (sd_watchdog_enabled(0, &notify_us_) <= 0) {
        notify_us_ = 0;
    }
    std::ranges::for_each(since_us_, [](std::atomic<int64_t> &since_us) { since_us = 0; });
    ready_reported_ = false;
    limit_us_ = uint64_t{limit_seconds} * 1000000;
    if (limit_us_ == 0 && notify_us_ == 0) {
        return true;
    }
    stopping_ = false;
    // The time is taken here: the process may be stopped before the thread has run at all.
    if (!base::startThread(thread_, "supervise", [this, now_us = realNowUs()] { watch(now_us); })) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, TAG, "cannot start the thread supervise: %s", std::strerror(errno));
        return false;
    }
    return true;
}

void Watcher::stop() {
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

void Watcher::beat(Pulse pulse) {
    since_us_[static_cast<size_t>(pulse)].store(realNowUs(), std::memory_order_relaxed);
    if (pulse == Pulse::main_loop && !ready_reported_.exchange(true)) {
        sd_notify(0, "READY=1"); // no effect without a supervisor that listens
    }
}

void Watcher::startOver(int64_t now_us) {
    for (std::atomic<int64_t> &since_us : since_us_) {
        int64_t since = since_us.load(std::memory_order_relaxed);
        if (since != 0) { // and only if nobody has set it meanwhile
            since_us.compare_exchange_strong(since, now_us, std::memory_order_relaxed);
        }
    }
}

Watcher::Silence Watcher::longest(int64_t now_us) const {
    Silence longest;
    for (size_t pulse = 0; pulse < PULSES; ++pulse) {
        const int64_t since = since_us_[pulse].load(std::memory_order_relaxed);
        const uint64_t silent_us = since == 0 ? 0 : static_cast<uint64_t>(std::max<int64_t>(now_us - since, 0));
        if (silent_us > longest.us) {
            longest = {pulse, silent_us};
        }
    }
    return longest;
}

void Watcher::watch(int64_t looked_us) {
    const uint64_t none = UINT64_MAX;
    const uint64_t shortest = std::min(limit_us_ != 0 ? limit_us_ : none, notify_us_ != 0 ? notify_us_ : none);
    const auto step_us = std::clamp<int64_t>(static_cast<int64_t>(shortest / 4), 50000, 5000000);
    std::unique_lock lock(mutex_);
    while (!changed_.wait_for(lock, std::chrono::microseconds(step_us), [this] { return stopping_; })) {
        const int64_t now_us = realNowUs();
        if (now_us - looked_us > 2 * step_us) {
            startOver(now_us);
        }
        looked_us = now_us;
        look(now_us);
    }
}

void Watcher::look(int64_t now_us) {
    if (since_us_[static_cast<size_t>(Pulse::main_loop)].load(std::memory_order_relaxed) == 0) {
        return; // start-up is not watched: the loop has not begun
    }
    const Silence silence = longest(now_us);
    if (limit_us_ != 0 && silence.us > limit_us_) {
        abortFor(SILENCES[silence.pulse], silence.us);
    }
    if (notify_us_ != 0 && silence.us < notify_us_) {
        sd_notify(0, "WATCHDOG=1");
    }
}

// Never destroyed, because exit() runs while threads of the process may still be inside.
Watcher &watcher() {
    static auto *instance = new Watcher;
    return *instance;
}

} // namespace

bool start(uint32_t limit_seconds) {
    return watcher().start(limit_seconds);
}

void stop() {
    watcher().stop();
}

void beat(Pulse pulse) {
    watcher().beat(pulse);
}

void rest(Pulse pulse) {
    watcher().rest(pulse);
}

} // namespace corvane::supervise
