// SPDX-License-Identifier: Apache-2.0
//
// Timers are tested without guessing times: a callback that blocks holds the timer thread while a test arms others with
// 0 ms, and a last timer armed after them tells when all of them had their turn.
#include "oru_os_testing.h"
#include "oru_time.h"
#include "os_test_support.h"
#include <array>
#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <semaphore>

namespace {

using Steady = std::chrono::steady_clock;

// A timer whose callback counts and then runs an action of the test on it.
struct Probe {
    using Action = void (*)(Probe &probe);
    std::atomic<int> calls{0};
    oruTimer_t timer{};
    Action action;
    std::binary_semaphore entered{0};
    std::binary_semaphore leave{0};

    explicit Probe(
        oruTime_timerType_t type = ORUTIME_TIMER_ONESHOT, Action act = [](Probe &) {})
        : action(act) {
        EXPECT_EQ(oruTime_timerNew(&timer, ORUTIME_CLOCK_MONOTONIC, type, expire, this), ORU_STATUS_OK);
    }
    ~Probe() {
        const oru_status_t expected = timer.id == 0 ? ORU_STATUS_UNINITIALIZED : ORU_STATUS_OK;
        EXPECT_EQ(oruTime_timerDelete(&timer), expected);
    }
    Probe(const Probe &) = delete;
    Probe &operator=(const Probe &) = delete;

    static void expire(void *context) {
        auto &probe = *static_cast<Probe *>(context);
        probe.action(probe);
        ++probe.calls;
    }
    void start(uint32_t milliseconds) { EXPECT_EQ(oruTime_timerStart(&timer, milliseconds), ORU_STATUS_OK); }
};

struct Blocker : Probe { // holds the timer thread until let go
    Blocker()
        : Probe(ORUTIME_TIMER_ONESHOT, [](Probe &probe) {
              probe.entered.release();
              probe.leave.acquire();
          }) {
        start(0);
        entered.acquire();
    }
    void letGo() { // returns when every timer due by now has expired
        Probe last;
        last.start(0);
        leave.release();
        EXPECT_TRUE(waitFor([&] { return last.calls == 1; }));
    }
};

TEST(Timer, StartStopAndDeleteDecideUntilTheCallbackBegins) {
    Blocker blocker;
    Probe once, rearmed, stopped, postponed, deleted, kept;
    for (Probe *probe : {&once, &rearmed, &rearmed, &rearmed, &stopped, &postponed, &deleted, &kept}) {
        probe->start(0);
    }
    EXPECT_EQ(oruTime_timerStop(&stopped.timer), ORU_STATUS_OK);
    postponed.start(86'400'000);
    EXPECT_EQ(oruTime_timerDelete(&deleted.timer), ORU_STATUS_OK);
    EXPECT_EQ(deleted.timer.id, 0U);
    EXPECT_EQ(oruTime_timerNew(&kept.timer, ORUTIME_CLOCK_MONOTONIC, ORUTIME_TIMER_PERIODIC, Probe::expire, &stopped),
              ORU_STATUS_ALREADY_INITIALIZED);
    EXPECT_EQ(oruTime_timerStop(&blocker.timer), ORU_STATUS_OK) << "must not wait for the running callback";
    EXPECT_EQ(oruTime_timerDelete(&blocker.timer), ORU_STATUS_OK);
    blocker.letGo();
    const std::array<int, 6> calls = {once.calls,      rearmed.calls, stopped.calls,
                                      postponed.calls, deleted.calls, kept.calls};
    EXPECT_EQ(calls, (std::array<int, 6>{1, 1, 0, 0, 0, 1}));
    const auto armed = oruTime_testArmedTimers();
    ASSERT_EQ(armed.size(), 1U);
    EXPECT_EQ(armed[0].id, postponed.timer.id);
    EXPECT_TRUE(armed[0].remaining_ms > 86'300'000 && armed[0].remaining_ms <= 86'400'000);
    EXPECT_EQ(oruTime_timerStop(&once.timer), ORU_STATUS_OK) << "an expired timer still exists";
    once.start(0);
    EXPECT_TRUE(waitFor([&] { return once.calls == 2; }));
}

TEST(Timer, RefusesWhatDoesNotExist) {
    oruTimer_t gone{};
    {
        Probe probe;
        gone = probe.timer;
    }
    for (oruTimer_t timer : {oruTimer_t{}, gone, oruTimer_t{UINT32_MAX}}) {
        EXPECT_EQ(oruTime_timerStart(&timer, 1), ORU_STATUS_UNINITIALIZED);
        EXPECT_EQ(oruTime_timerStop(&timer), ORU_STATUS_UNINITIALIZED);
        EXPECT_EQ(oruTime_timerDelete(&timer), ORU_STATUS_UNINITIALIZED);
    }
    EXPECT_EQ(oruTime_timerNew(&gone, ORUTIME_CLOCK_MONOTONIC, ORUTIME_TIMER_ONESHOT, nullptr, nullptr),
              ORU_STATUS_NULL_POINTER);
    EXPECT_EQ(oruTime_testLiveTimers(), 0U);
}

TEST(Timer, CallbackMayStopDeleteAndRestartItsOwnTimer) {
    struct Case {
        oruTime_timerType_t type;
        Probe::Action action;
    };
    for (const Case &c : {
             Case{ORUTIME_TIMER_PERIODIC, [](Probe &p) { p.calls == 2 ? oruTime_timerStop(&p.timer) : 0; }},
             Case{ORUTIME_TIMER_PERIODIC, [](Probe &p) { p.calls == 2 ? oruTime_timerDelete(&p.timer) : 0; }},
             Case{ORUTIME_TIMER_ONESHOT, [](Probe &p) { p.calls < 2 ? oruTime_timerStart(&p.timer, 0) : 0; }},
         }) {
        Probe probe(c.type, c.action);
        probe.start(1);
        EXPECT_TRUE(waitFor([&] { return probe.calls == 3; }));
        Blocker().letGo();
        EXPECT_EQ(probe.calls, 3);
        EXPECT_TRUE(oruTime_testArmedTimers().empty());
    }
}

TEST(Timer, PeriodicKeepsItsPeriodAndSkipsWhatABlockedThreadMissed) {
    Probe periodic(ORUTIME_TIMER_PERIODIC);
    const auto start = Steady::now();
    periodic.start(10);
    EXPECT_TRUE(waitFor([&] { return periodic.calls >= 5; }));
    EXPECT_GE(Steady::now() - start, std::chrono::milliseconds(50));
    Blocker blocker;
    const int before = periodic.calls;
    periodic.start(200);
    EXPECT_TRUE(waitFor([end = Steady::now() + std::chrono::milliseconds(700)] { return Steady::now() > end; }));
    blocker.letGo();
    EXPECT_EQ(periodic.calls, before + 1);
    EXPECT_EQ(oruTime_timerStop(&periodic.timer), ORU_STATUS_OK);
    Blocker().letGo(); // a callback that runs just now must end before its probe does
}

TEST(Timer, ThreadTakesNoSignals) {
    static sigset_t blocked;
    Probe probe(ORUTIME_TIMER_ONESHOT, [](Probe &) { pthread_sigmask(SIG_SETMASK, nullptr, &blocked); });
    probe.start(0);
    EXPECT_TRUE(waitFor([&] { return probe.calls == 1; }));
    EXPECT_TRUE(sigismember(&blocked, SIGINT) == 1 && sigismember(&blocked, SIGTERM) == 1);
}

TEST(Clock, DifferencesAreInMicrosecondsCutTowardZero) {
    struct Case {
        oruTime_timespec_t later, earlier;
        int64_t microseconds;
    };
    for (const Case &c : {Case{{1, 1'999'900}, {1, 0}, 1999},
                          {{1, 0}, {1, 1'999'900}, -1999},
                          {{2, 0}, {0, 999'999'999}, 1'000'000},
                          {{86'400, 1}, {0, 0}, 86'400'000'000},
                          {{INT64_MAX, 0}, {INT64_MIN, 0}, INT64_MAX},
                          {{INT64_MIN, 0}, {INT64_MAX, 0}, INT64_MIN}}) {
        EXPECT_EQ(oruTime_timespecDiff(&c.later, &c.earlier), c.microseconds);
    }
    oruTime_timespec_t start{}, now{};
    EXPECT_EQ(oruTime_time(&start), ORU_STATUS_OK);
    EXPECT_EQ(oruTime_clockTime(ORUTIME_CLOCK_MONOTONIC, &now), ORU_STATUS_OK);
    EXPECT_GE(oruTime_timespecDiff(&now, &start), 0) << "both read the clock that never steps";
}

} // namespace
