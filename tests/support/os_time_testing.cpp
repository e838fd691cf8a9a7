// SPDX-License-Identifier: Apache-2.0
#include "oru_os_testing.h"
#include "oru_time_timers.h"
#include <algorithm>

using corvane::os::Clock;

size_t oruTime_testLiveTimers() {
    corvane::os::Timers &all_timers = corvane::os::timers();
    const std::lock_guard guard(all_timers.lock);
    return all_timers.timers.size();
}

std::vector<oruTime_testArmedTimer_t> oruTime_testArmedTimers() {
    corvane::os::Timers &all_timers = corvane::os::timers();
    const std::lock_guard guard(all_timers.lock);
    const Clock::time_point now = Clock::now();
    std::vector<oruTime_testArmedTimer_t> list;
    for (const auto &[deadline, timer] : all_timers.armed) {
        const auto remaining =
            std::chrono::ceil<std::chrono::milliseconds>(std::max(deadline - now, Clock::duration::zero()));
        list.push_back({timer->id, static_cast<uint64_t>(remaining.count())});
    }
    return list;
}
