// SPDX-License-Identifier: Apache-2.0
//
// Clocks, and timers on one thread.
//
// Armed timers stand in a map ordered by deadline; timers of equal deadline expire in the order in which they were
// armed. The map node of a timer is made when the timer is created and moves between the map (armed) and the timer (not
// armed), so arming and disarming allocate nothing.
//
//   not armed --start--> armed --stop, expiry of a one-shot--> not armed
//   armed --start, expiry of a periodic--> armed with a new deadline
//
// The thread takes the first due timer, moves it on and copies its callback in one scope of the lock, then calls
// without the lock: a timer that was stopped, re-armed or deleted in the meantime cannot be taken.
#include "oru_time.h"
#include "base/thread.h"
#include "oru_time_timers.h"
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <unordered_map>

// Never destroyed: the thread may be at work while the process exits.
corvane::os::Timers &corvane::os::timers() {
    static auto *const instance = new Timers;
    return *instance;
}

namespace {

using corvane::os::Armed_timers;
using corvane::os::Clock;
using corvane::os::Timer;
using corvane::os::Timers;
using std::chrono::milliseconds;

void disarm(Timers &all_timers, Timer &timer) {
    if (timer.node.empty()) {
        timer.node = all_timers.armed.extract(timer.position);
    }
}

void arm(Timers &all_timers, Timer &timer, Clock::time_point deadline) {
    disarm(all_timers, timer);
    timer.node.key() = deadline;
    timer.position = all_timers.armed.insert(std::move(timer.node));
    if (timer.position == all_timers.armed.begin()) {
        all_timers.changed.notify_one();
    }
}

// Periods keep their grid, unless a blocked thread has missed a whole one.
Clock::time_point nextDeadline(const Timer &timer, Clock::time_point now) {
    const Clock::time_point next = timer.position->first + timer.period;
    return next > now ? next : now + timer.period;
}

void expireFirst(Timers &all_timers, std::unique_lock<std::mutex> &guard, Clock::time_point now) {
    Timer &timer = *all_timers.armed.begin()->second;
    const auto callback = timer.callback;
    void *const context = timer.context;
    if (timer.type == ORUTIME_TIMER_PERIODIC) {
        arm(all_timers, timer, nextDeadline(timer, now));
    } else {
        disarm(all_timers, timer);
    }
    guard.unlock();
    callback(context);
    guard.lock();
}

void runTimers() {
    Timers &all_timers = corvane::os::timers();
    std::unique_lock guard(all_timers.lock);
    for (;;) {
        if (all_timers.armed.empty()) {
            all_timers.changed.wait(guard);
            continue;
        }
        const Clock::time_point deadline = all_timers.armed.begin()->first;
        const Clock::time_point now = Clock::now();
        if (now < deadline) {
            all_timers.changed.wait_until(guard, deadline);
        } else {
            expireFirst(all_timers, guard, now);
        }
    }
}

bool startTimerThread() {
    std::thread thread;
    const bool started = corvane::base::startThread(thread, "oru_timer", runTimers);
    if (started) {
        thread.detach();
    }
    return started;
}

// A new timer that is not armed. Throws when there is no memory, and leaves nothing behind then.
Timer &add(Timers &all_timers) {
    Armed_timers spare;
    const auto position = spare.emplace(Clock::time_point(), nullptr);
    Timer &timer = all_timers.timers[all_timers.last_id + 1];
    timer.id = ++all_timers.last_id;
    timer.node = spare.extract(position);
    timer.node.mapped() = &timer;
    return timer;
}

// Runs operation(timers, timer) under the lock for a timer that exists.
template <typename Operation>
oru_status_t onTimer(oruTimer_t *handle, Operation operation) {
    if (handle == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    Timers &all_timers = corvane::os::timers();
    const std::lock_guard guard(all_timers.lock);
    const auto found = all_timers.timers.find(handle->id);
    if (found == all_timers.timers.end()) {
        return ORU_STATUS_UNINITIALIZED;
    }
    operation(all_timers, found->second);
    return ORU_STATUS_OK;
}

bool isClock(oruTime_clock_t clock) {
    return clock == ORUTIME_CLOCK_MONOTONIC || clock == ORUTIME_CLOCK_REALTIME;
}

} // namespace

oru_status_t oruTime_clockTime(oruTime_clock_t clock, oruTime_timespec_t *now) {
    if (now == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (!isClock(clock)) {
        return ORU_STATUS_BAD_PARAM;
    }
    timespec read{};
    if (clock_gettime(clock == ORUTIME_CLOCK_REALTIME ? CLOCK_REALTIME : CLOCK_MONOTONIC, &read) != 0) {
        return ORU_STATUS_GENERAL_ERROR;
    }
    *now = {read.tv_sec, static_cast<int32_t>(read.tv_nsec)};
    return ORU_STATUS_OK;
}

oru_status_t oruTime_time(oruTime_timespec_t *now) {
    return oruTime_clockTime(ORUTIME_CLOCK_MONOTONIC, now);
}

int64_t oruTime_timespecDiff(const oruTime_timespec_t *later, const oruTime_timespec_t *earlier) {
    if (later == nullptr || earlier == nullptr) {
        return 0;
    }
    using Wide = __int128; // 64 bits of seconds in nanoseconds need 94
    const auto nanoseconds = [](const oruTime_timespec_t &time) {
        return Wide{time.seconds} * 1'000'000'000 + time.nanoseconds;
    };
    const Wide microseconds = (nanoseconds(*later) - nanoseconds(*earlier)) / 1000;
    using Limits = std::numeric_limits<int64_t>;
    return static_cast<int64_t>(std::clamp(microseconds, Wide{Limits::min()}, Wide{Limits::max()}));
}

oru_status_t oruTime_timerNew(oruTimer_t *timer, oruTime_clock_t clock, oruTime_timerType_t type,
                              oruTime_timerCallback_t callback, void *context) {
    if (timer == nullptr || callback == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (!isClock(clock) || (type != ORUTIME_TIMER_ONESHOT && type != ORUTIME_TIMER_PERIODIC)) {
        return ORU_STATUS_BAD_PARAM;
    }
    Timers &all_timers = corvane::os::timers();
    const std::lock_guard guard(all_timers.lock);
    if (all_timers.timers.contains(timer->id)) {
        return ORU_STATUS_ALREADY_INITIALIZED;
    }
    if (!all_timers.thread_started) {
        all_timers.thread_started = startTimerThread();
    }
    if (!all_timers.thread_started || all_timers.last_id == std::numeric_limits<uint32_t>::max()) {
        return ORU_STATUS_OUT_OF_MEMORY;
    }
    try {
        Timer &added = add(all_timers);
        added.type = type;
        added.callback = callback;
        added.context = context;
        timer->id = added.id;
    } catch (const std::bad_alloc &) {
        return ORU_STATUS_OUT_OF_MEMORY;
    }
    return ORU_STATUS_OK;
}

oru_status_t oruTime_timerStart(oruTimer_t *timer, uint32_t period_ms) {
    return onTimer(timer, [period_ms](Timers &all_timers, Timer &existing) {
        const bool endless = existing.type == ORUTIME_TIMER_PERIODIC && period_ms == 0;
        existing.period = milliseconds(endless ? 1 : int64_t{period_ms});
        arm(all_timers, existing, Clock::now() + existing.period);
    });
}

oru_status_t oruTime_timerStop(oruTimer_t *timer) {
    return onTimer(timer, [](Timers &all_timers, Timer &existing) { disarm(all_timers, existing); });
}

oru_status_t oruTime_timerDelete(oruTimer_t *timer) {
    return onTimer(timer, [timer](Timers &all_timers, Timer &existing) {
        disarm(all_timers, existing);
        all_timers.timers.erase(timer->id);
        timer->id = 0;
    });
}
