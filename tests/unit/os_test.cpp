// SPDX-License-Identifier: Apache-2.0
#include "oru_mp.h"
#include "oru_os_testing.h"
#include "oru_sync.h"
#include "oru_time.h"
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <random>
#include <semaphore>
#include <set>
#include <span>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;

bool eventually(const std::function<bool()> &condition) {
    for (const auto end = Steady::now() + 20s; !condition() && Steady::now() < end;) {
        std::this_thread::yield();
    }
    return condition();
}

int live_areas = 0;
int areas_allowed = 2;
constexpr oruMp_allocator_t counted = {
    [](size_t size) { return live_areas < areas_allowed ? (++live_areas, std::malloc(size)) : nullptr; },
    [](void *block) { (--live_areas, std::free(block)); },
};

oruMp_handle_t variablePool(oru_status_t expected = ORU_STATUS_OK) {
    oruMp_handle_t pool = nullptr;
    EXPECT_EQ(oruMp_initWithAllocatorAlignmentFlags(&pool, &counted, 8192, 1, 1, 7), expected);
    return pool;
}

// Takes all blocks out and returns them in any order; refused frees in between must not change anything.
void useUp(oruMp_handle_t pool, size_t size, size_t count, unsigned seed) {
    std::vector<std::byte *> blocks;
    while (void *block = blocks.size() > count ? nullptr : oruMp_allocSize(pool, size)) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t), 0U);
        blocks.push_back(static_cast<std::byte *>(block));
        EXPECT_TRUE(!oruMp_testPoisonsBlocks() || blocks.back()[size - 1] == std::byte{0xA5});
        std::memset(block, static_cast<int>(blocks.size()), size);
    }
    EXPECT_EQ(blocks.size(), count);
    std::shuffle(blocks.begin(), blocks.end(), std::minstd_rand(seed));
    for (std::byte *block : blocks) {
        EXPECT_EQ(block[0], block[size - 1]) << "blocks overlap";
        EXPECT_EQ(oruMp_free(pool, block + 16), ORU_STATUS_BAD_PARAM);
        EXPECT_EQ(oruMp_free(pool, &blocks), ORU_STATUS_BAD_PARAM);
        EXPECT_EQ(oruMp_free(pool, block), ORU_STATUS_OK);
        EXPECT_EQ(oruMp_free(pool, block), ORU_STATUS_BAD_PARAM);
    }
}

// Takes and returns blocks of changing sizes; a write of somebody else shows in the fill byte.
void churn(oruMp_handle_t pool, size_t most, uint8_t mark) {
    std::minstd_rand random(mark);
    std::array<std::span<uint8_t>, 6> held{};
    for (int turns = 15000; turns > 0; --turns) {
        auto &slot = held[random() % held.size()];
        EXPECT_EQ(std::ranges::count(slot, mark), std::ssize(slot));
        EXPECT_TRUE(slot.empty() || oruMp_free(pool, slot.data()) == ORU_STATUS_OK);
        const size_t size = 1 + random() % most;
        void *block = turns > 200 ? oruMp_allocSize(pool, size) : nullptr; // in the end all come back
        slot = {static_cast<uint8_t *>(block), block != nullptr ? size : 0};
        std::ranges::fill(slot, mark);
    }
}

TEST(Pool, EveryBlockGoesOutOnceAndComesBackOnce) {
    oruMp_handle_t fixed = nullptr;
    EXPECT_EQ(oruMp_init(&fixed, SIZE_MAX / 16, 100), ORU_STATUS_BAD_PARAM);
    EXPECT_EQ(oruMp_init(&fixed, 41, 20), ORU_STATUS_OK);
    const struct {
        oruMp_handle_t pool;
        size_t size, count, largest, largest_count;
    } rows[] = {{fixed, 41, 20, 48, 20}, {variablePool(), 748, 10, 8192, 1}};
    for (const auto &[pool, size, count, largest, largest_count] : rows) {
        for (unsigned seed = 0; seed < 20; ++seed) {
            useUp(pool, size, count, seed);
            useUp(pool, largest, largest_count, seed); // neighbours have been joined again
        }
        for (const size_t refused : {size_t{0}, largest + 1, SIZE_MAX}) {
            EXPECT_EQ(oruMp_allocSize(pool, refused), nullptr);
        }
        const bool equal_blocks = oruMp_free(pool, oruMp_alloc(pool)) == ORU_STATUS_OK;
        EXPECT_EQ(equal_blocks, pool == fixed) << "a variable pool has no block size";
        std::vector<std::jthread> threads;
        for (uint8_t mark = 1; mark <= 4; ++mark) {
            threads.emplace_back(churn, pool, size, mark);
        }
        threads.clear(); // joins
        EXPECT_EQ(oruMp_testBlocksOut(pool), 0U);
        EXPECT_EQ(oruMp_destroy(pool), ORU_STATUS_OK);
    }
}

TEST(Pool, DestroyedWithBlocksOutKeepsTheirMemoryUntilTheLastComesBack) {
    const oruMp_handle_t pool = variablePool();
    void *first = oruMp_allocSize(pool, 100);
    void *second = oruMp_allocSize(pool, 100);
    EXPECT_EQ(oruMp_destroy(pool), ORU_STATUS_OK);
    for (void *block : {first, first, second, second}) { // stragglers, each twice
        EXPECT_EQ(live_areas, oruMp_testBlocksOut(pool) == 0 ? 0 : 2);
        EXPECT_EQ(oruMp_free(pool, block), ORU_STATUS_NULL_POINTER);
    }
    EXPECT_EQ(oruMp_destroy(pool), ORU_STATUS_NULL_POINTER);
    EXPECT_EQ(oruMp_allocSize(pool, 1), nullptr);
    for (areas_allowed = 0; areas_allowed < 2; ++areas_allowed) {
        EXPECT_EQ(variablePool(ORU_STATUS_OUT_OF_MEMORY), nullptr);
        EXPECT_EQ(live_areas, 0);
    }
}

oruMutex_t newMutex() {
    oruMutex_t mutex{};
    EXPECT_EQ(oruMutex_new(nullptr, &mutex), ORU_STATUS_OK);
    return mutex;
}

oruSemaphore_t newSemaphore(uint32_t count) {
    oruSemaphore_t sem{};
    EXPECT_EQ(oruSem_new(count, &sem), ORU_STATUS_OK);
    return sem;
}

TEST(Sync, MisuseIsReportedAndIdsNeverComeBack) {
    std::set<uint32_t> ids = {0, 4095, UINT32_MAX};
    for (int round = 0; round < 1000; ++round) {
        const oruSemaphore_t sem = newSemaphore(1);
        EXPECT_TRUE(ids.insert(sem.id).second) << "id used again";
        EXPECT_EQ(oruSem_delete(sem), ORU_STATUS_OK);
        EXPECT_EQ(oruMutex_delete(newMutex()), ORU_STATUS_OK);
    }
    const oruMutex_t mutex = newMutex(); // in the place of the others
    const oruSemaphore_t sem = newSemaphore(UINT32_MAX);
    for (const uint32_t id : ids) {
        for (const auto operation : {oruMutex_acquire, oruMutex_release, oruMutex_delete}) {
            EXPECT_EQ(operation({id}), ORU_STATUS_UNINITIALIZED) << id;
        }
        for (const auto operation : {oruSem_wait, oruSem_waitTry, oruSem_post, oruSem_delete}) {
            EXPECT_EQ(operation({id}), ORU_STATUS_UNINITIALIZED) << id;
        }
    }
    uint32_t count = 0;
    EXPECT_EQ(oruSem_post(sem), ORU_STATUS_OK);
    EXPECT_EQ(oruSem_getCount(sem, &count), ORU_STATUS_OK);
    EXPECT_EQ(count, UINT32_MAX);
    EXPECT_EQ(oruSem_delete(sem), ORU_STATUS_OK);

    const auto elsewhere = [=](auto operation) { return std::async(std::launch::async, operation, mutex).get(); };
    EXPECT_EQ(oruMutex_release(mutex), ORU_STATUS_GENERAL_ERROR);
    EXPECT_EQ(oruMutex_acquire(mutex), ORU_STATUS_OK);
    EXPECT_EQ(oruMutex_acquire(mutex), ORU_STATUS_GENERAL_ERROR);
    EXPECT_EQ(elsewhere(oruMutex_release), ORU_STATUS_GENERAL_ERROR);
    EXPECT_EQ(oruMutex_delete(mutex), ORU_STATUS_BUSY);
    EXPECT_EQ(elsewhere(oruMutex_delete), ORU_STATUS_BUSY);
    EXPECT_EQ(oruMutex_release(mutex), ORU_STATUS_OK);
    EXPECT_EQ(oruMutex_delete(mutex), ORU_STATUS_OK);
}

// The mutex is released and deleted while another thread wants it: either that thread got it first, or it is told.
TEST(Sync, MutexDeletionAndAWaiterAgreeOnTheOutcome) {
    for (int round = 0; round < 300; ++round) {
        const oruMutex_t mutex = newMutex();
        ASSERT_EQ(oruMutex_acquire(mutex), ORU_STATUS_OK);
        std::promise<void> started;
        auto waiter = std::async(std::launch::async, [&] {
            started.set_value();
            return oruMutex_acquire(mutex) == ORU_STATUS_OK ? oruMutex_release(mutex) : ORU_STATUS_UNINITIALIZED;
        });
        started.get_future().wait();
        EXPECT_EQ(oruMutex_release(mutex), ORU_STATUS_OK);
        const oru_status_t deleted = oruMutex_delete(mutex);
        const oru_status_t waited = waiter.get();
        EXPECT_TRUE(deleted == ORU_STATUS_OK || (deleted == ORU_STATUS_BUSY && waited == ORU_STATUS_OK));
        EXPECT_EQ(oruMutex_delete(mutex), deleted == ORU_STATUS_OK ? ORU_STATUS_UNINITIALIZED : ORU_STATUS_OK);
    }
    EXPECT_EQ(oruSync_testLiveMutexes(), 0U);
}

// The successor may not get the place of the deleted semaphore while its waiters are still to wake.
TEST(Sync, APostWakesOneWaiterAndDeletionAllWithoutTouchingTheSuccessor) {
    oruSemaphore_t sem = newSemaphore(0);
    for (int round = 0; round < 50; ++round) {
        std::atomic<int> taken{0}, canceled{0};
        std::vector<std::jthread> waiters;
        for (const bool forever : {true, false, true, false}) { // the longest time-out is a real one
            waiters.emplace_back([&, sem, forever] {
                const oru_status_t status = forever ? oruSem_wait(sem) : oruSem_waitTimeout(sem, UINT32_MAX);
                taken += status == ORU_STATUS_OK ? 1 : 0;
                canceled += status == ORU_STATUS_CANCELED ? 1 : 0;
            });
        }
        EXPECT_TRUE(eventually([&] { return oruSync_testWaiting(sem) == 4; }));
        EXPECT_EQ(oruSem_post(sem), ORU_STATUS_OK);
        EXPECT_TRUE(eventually([&] { return taken == 1; }));
        EXPECT_EQ(oruSem_delete(sem), ORU_STATUS_OK);
        sem = newSemaphore(1);
        waiters.clear(); // joins
        EXPECT_EQ(taken, 1);
        EXPECT_EQ(canceled, 3);
        EXPECT_EQ(oruSem_waitTry(sem), ORU_STATUS_OK);
    }
    EXPECT_EQ(oruSem_waitTry(sem), ORU_STATUS_TRY_AGAIN);
    const auto start = Steady::now();
    EXPECT_EQ(oruSem_waitTimeout(sem, 30), ORU_STATUS_TIMEOUT);
    EXPECT_GE(Steady::now() - start, 30ms);
    EXPECT_EQ(oruSem_delete(sem), ORU_STATUS_OK);
    EXPECT_EQ(oruSync_testLiveSemaphores(), 0U);
}

// A timer whose callback runs an action of the test on it and then counts.
struct Probe {
    std::function<void(Probe &)> action;
    std::atomic<int> calls{0};
    oruTimer_t timer{};

    explicit Probe(
        std::function<void(Probe &)> act = [](Probe &) {}, oruTime_timerType_t type = ORUTIME_TIMER_ONESHOT)
        : action(std::move(act)) {
        EXPECT_EQ(oruTime_timerNew(&timer, ORUTIME_CLOCK_MONOTONIC, type, expire, this), ORU_STATUS_OK);
    }
    ~Probe() { (void)oruTime_timerDelete(&timer); }
    static void expire(void *context) {
        auto &probe = *static_cast<Probe *>(context);
        probe.action(probe);
        ++probe.calls;
    }
    void start(uint32_t milliseconds) { EXPECT_EQ(oruTime_timerStart(&timer, milliseconds), ORU_STATUS_OK); }
};

// Holds the timer thread while it lives. Nothing here guesses times: when it begins, all timers due before have had
// their turn.
struct Blocker : Probe {
    std::binary_semaphore entered{0}, leave{0};

    Blocker() : Probe([this](Probe &) { (entered.release(), leave.acquire()); }) {
        start(0);
        entered.acquire();
    }
    ~Blocker() {
        leave.release();
        EXPECT_TRUE(eventually([&] { return calls == 1; }));
    }
};

TEST(Timer, StartStopAndDeleteDecideUntilTheCallbackBegins) {
    Probe rearmed, stopped, postponed, deleted, kept;
    {
        Blocker blocker;
        for (Probe *probe : {&rearmed, &rearmed, &stopped, &postponed, &deleted, &kept}) {
            probe->start(0);
        }
        EXPECT_EQ(oruTime_timerStop(&stopped.timer), ORU_STATUS_OK);
        postponed.start(86'400'000);
        oruTimer_t stale = deleted.timer;
        EXPECT_EQ(oruTime_timerDelete(&deleted.timer), ORU_STATUS_OK);
        EXPECT_EQ(oruTime_timerStart(&stale, 0), ORU_STATUS_UNINITIALIZED);
        EXPECT_EQ(
            oruTime_timerNew(&kept.timer, ORUTIME_CLOCK_MONOTONIC, ORUTIME_TIMER_PERIODIC, Probe::expire, &stopped),
            ORU_STATUS_ALREADY_INITIALIZED);
        EXPECT_EQ(oruTime_timerStop(&blocker.timer), ORU_STATUS_OK) << "must not wait for the running callback";
        EXPECT_EQ(oruTime_timerDelete(&blocker.timer), ORU_STATUS_OK);
    }
    const Blocker after;
    EXPECT_EQ(rearmed.calls + kept.calls, 1 + 1);
    EXPECT_EQ(stopped.calls + postponed.calls + deleted.calls, 0);
    const auto armed = oruTime_testArmedTimers();
    ASSERT_EQ(armed.size(), 1U);
    EXPECT_EQ(armed[0].id, postponed.timer.id);
    EXPECT_TRUE(armed[0].remaining_ms > 86'300'000 && armed[0].remaining_ms <= 86'400'000);
}

TEST(Timer, CallbackMayStopDeleteAndRestartItsOwnTimer) {
    const std::pair<oruTime_timerType_t, void (*)(Probe &)> rows[] = {
        {ORUTIME_TIMER_PERIODIC, [](Probe &p) { p.calls == 2 ? oruTime_timerStop(&p.timer) : 0; }},
        {ORUTIME_TIMER_PERIODIC, [](Probe &p) { p.calls == 2 ? oruTime_timerDelete(&p.timer) : 0; }},
        {ORUTIME_TIMER_ONESHOT, [](Probe &p) { p.calls < 2 ? oruTime_timerStart(&p.timer, 0) : 0; }},
    };
    for (const auto &[type, action] : rows) {
        Probe probe(action, type);
        probe.start(1);
        EXPECT_TRUE(eventually([&] { return probe.calls == 3; }));
        const Blocker after;
        EXPECT_EQ(probe.calls, 3);
        EXPECT_TRUE(oruTime_testArmedTimers().empty());
    }
    EXPECT_EQ(oruTime_testLiveTimers(), 0U);
}

TEST(Timer, PeriodicKeepsItsPeriodAndSkipsWhatABlockedThreadMissed) {
    sigset_t blocked{};
    Probe periodic([&](Probe &) { pthread_sigmask(SIG_SETMASK, nullptr, &blocked); }, ORUTIME_TIMER_PERIODIC);
    Probe stopper([&](Probe &) { (void)oruTime_timerStop(&periodic.timer); });
    const auto start = Steady::now();
    periodic.start(10);
    EXPECT_TRUE(eventually([&] { return periodic.calls >= 5; }));
    EXPECT_GE(Steady::now() - start, 50ms);
    {
        const Blocker blocker;
        periodic.calls = 0;
        periodic.start(200);
        std::this_thread::sleep_for(700ms);
        stopper.start(0);
    }
    EXPECT_TRUE(eventually([&] { return stopper.calls == 1; }));
    EXPECT_EQ(periodic.calls, 1);
    EXPECT_TRUE(sigismember(&blocked, SIGINT) == 1 && sigismember(&blocked, SIGTERM) == 1);
}

TEST(Clock, DifferencesAreInMicrosecondsCutTowardZero) {
    const auto difference = [](oruTime_timespec_t later, oruTime_timespec_t earlier) {
        return oruTime_timespecDiff(&later, &earlier);
    };
    EXPECT_EQ(difference({1, 1'999'900}, {1, 0}), 1999);
    EXPECT_EQ(difference({1, 0}, {1, 1'999'900}), -1999);
    EXPECT_EQ(difference({2, 0}, {0, 999'999'999}), 1'000'000);
    EXPECT_EQ(difference({INT64_MAX, 0}, {INT64_MIN, 0}), INT64_MAX);
    EXPECT_EQ(difference({INT64_MIN, 0}, {INT64_MAX, 0}), INT64_MIN);
    oruTime_timespec_t now{};
    EXPECT_EQ(oruTime_time(&now), ORU_STATUS_OK);
    EXPECT_LE(Steady::now().time_since_epoch() - std::chrono::seconds(now.seconds), 60s);
}

} // namespace
