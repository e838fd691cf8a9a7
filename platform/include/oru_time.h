// SPDX-License-Identifier: Apache-2.0
//
// Clocks and timers.
//
// Timer callbacks run one after the other on the layer's only timer thread, which starts with the first
// oruTime_timerNew and blocks all signals. No lock of the layer is held during a callback: it may start, stop and
// delete any timer, its own included, and may take long or block, which delays the other timers. Stop and delete never
// wait for a callback that is running: after they return, at most the one callback that had already begun runs to its
// end, and no further one begins.
//
// Threads: every operation may be called from every thread at once. An oruTimer_t belongs to the caller and must stay
// valid during a call only; the layer reads and writes it under its own lock. Starting and stopping never allocate.
#pragma once
#include "oru_status.h"
#include <cstdint>

enum oruTime_clock_t : int32_t {
    ORUTIME_CLOCK_MONOTONIC = 0,
    ORUTIME_CLOCK_REALTIME = 1,
};
enum oruTime_timerType_t : int32_t {
    ORUTIME_TIMER_ONESHOT = 0,
    ORUTIME_TIMER_PERIODIC = 1,
};

struct oruTime_timespec_t {
    int64_t seconds;
    int32_t nanoseconds; // 0 .. 999 999 999
};

struct oruTimer_t {
    uint32_t id;
}; // 0 = not created; static objects start that way
typedef void (*oruTime_timerCallback_t)(void *context);

extern "C" {
// Reads a clock into *now. Real time counts from 1970-01-01 UTC and may step, monotonic time from start-up.
// Result: ORU_STATUS_OK; *now unchanged with ORU_STATUS_NULL_POINTER (now is null), ORU_STATUS_BAD_PARAM (no such
// clock), ORU_STATUS_GENERAL_ERROR (the system refused).
oru_status_t oruTime_clockTime(oruTime_clock_t clock, oruTime_timespec_t *now);

// Reads the platform's clock, one that never steps (monotonic): only differences of its values mean anything.
// Result: as oruTime_clockTime.
oru_status_t oruTime_time(oruTime_timespec_t *now);

// later - earlier in microseconds, cut toward zero; negative when later is the earlier one. A difference beyond 64 bits
// ends at their limit; a null argument gives 0.
int64_t oruTime_timespecDiff(const oruTime_timespec_t *later, const oruTime_timespec_t *earlier);

// Creates a timer that is not running. context is handed to callback as it is.
// clock is accepted for both values; periods are measured on the monotonic clock in either case.
// Result: ORU_STATUS_OK and the id in *timer; *timer unchanged with
//   ORU_STATUS_ALREADY_INITIALIZED  *timer exists; nothing about it changes, whether it runs or not
//   ORU_STATUS_NULL_POINTER         timer or callback is null
//   ORU_STATUS_BAD_PARAM            no such clock or type
//   ORU_STATUS_OUT_OF_MEMORY        no memory, or the timer thread cannot be started
oru_status_t oruTime_timerNew(oruTimer_t *timer, oruTime_clock_t clock, oruTime_timerType_t type,
                              oruTime_timerCallback_t callback, void *context);

// Arms the timer for the given milliseconds from now. A running timer is armed anew: there is exactly one expiry,
// counted from this call. One-shot: one callback. Periodic: a callback every period; periods that went by while another
// callback blocked the thread are not made up for. 0 is "as soon as possible" on the timer thread (periodic: every
// millisecond). Result: ORU_STATUS_OK; ORU_STATUS_NULL_POINTER; ORU_STATUS_UNINITIALIZED when the timer does not exist.
oru_status_t oruTime_timerStart(oruTimer_t *timer, uint32_t milliseconds);

// Disarms the timer; it stays in existence.
// Result: ORU_STATUS_OK, also when it was not running; ORU_STATUS_NULL_POINTER; ORU_STATUS_UNINITIALIZED.
oru_status_t oruTime_timerStop(oruTimer_t *timer);

// Disarms and removes the timer and sets *timer to "not created".
// Result: ORU_STATUS_OK; ORU_STATUS_NULL_POINTER; ORU_STATUS_UNINITIALIZED.
oru_status_t oruTime_timerDelete(oruTimer_t *timer);
}
