// SPDX-License-Identifier: Apache-2.0
//
// Watches that the main loop keeps calling the HAL and that, in thread mode, the dispatcher comes back from the
// callbacks. A thread that stands still (a HAL call that never returns, a lock that is never released) cannot be mended
// from inside: the watchdog names it in one log line and aborts, and the supervisor starts the daemon again. Under a
// supervisor that asks for it the watchdog also reports readiness and liveness.
//
// A process that is stopped and continued (a paused container, a debugger) has stood still without fault. The
// watchdog's own wait shows it: when that has taken far too long, all time counts from then on.
#pragma once
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

namespace corvane::zbhal {

class Watchdog {
public:
    // limit_seconds 0: no abort. The supervisor's notifications work in any case. Starts a thread only when there is
    // something to watch; false: the thread could not be started, which has been logged.
    [[nodiscard]] bool start(uint32_t limit_seconds);
    void stop();
    // The main loop is alive. The first one reports readiness to the supervisor, and watching begins.
    void beat();
    // The dispatcher calls a callback, or has returned from it.
    void dispatching(bool inside);

private:
    void watch(uint64_t limit_us, uint64_t notify_us);
    void startOver(int64_t now_us);

    std::atomic<int64_t> last_beat_us_{0};  // 0: none yet
    std::atomic<int64_t> dispatched_us_{0}; // since when the dispatcher is inside a callback; 0: it is not
    std::atomic<bool> ready_reported_{false};
    std::mutex mutex_; // guards stopping_
    std::condition_variable changed_;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace corvane::zbhal
