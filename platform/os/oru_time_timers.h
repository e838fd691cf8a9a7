// SPDX-License-Identifier: Apache-2.0
#pragma once
#include "oru_time.h"
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <unordered_map>

namespace corvane::os {

using Clock = std::chrono::steady_clock;

struct Timer;
using Armed_timers = std::multimap<Clock::time_point, Timer *>;

struct Timer {
    uint32_t id = 0;
    oruTime_timerType_t type = ORUTIME_TIMER_ONESHOT;
    oruTime_timerCallback_t callback = nullptr;
    void *context = nullptr;
    std::chrono::milliseconds period{0};
    Armed_timers::node_type node;    // holds the node while the timer is not armed
    Armed_timers::iterator position; // place in the map while it is
};

struct Timers {
    std::mutex lock;                 // guards everything below and the callers' oruTimer_t; not held during callbacks
    std::condition_variable changed; // the first deadline is another one
    std::unordered_map<uint32_t, Timer> timers;
    Armed_timers armed;
    uint32_t last_id = 0;
    bool thread_started = false;
};

Timers &timers();

} // namespace corvane::os
