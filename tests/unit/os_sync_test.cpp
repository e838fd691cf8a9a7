// SPDX-License-Identifier: Apache-2.0
#include "oru_os_testing.h"
#include "oru_sync.h"
#include "os_test_support.h"
#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <set>
#include <thread>
#include <vector>

namespace {

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

uint32_t countOf(oruSemaphore_t sem) {
    uint32_t count = 0;
    EXPECT_EQ(oruSem_getCount(sem, &count), ORU_STATUS_OK);
    return count;
}

TEST(Mutex, ReportsMisuseInsteadOfHanging) {
    const oruMutex_t mutex = newMutex();
    const auto elsewhere = [=](auto operation) { return std::async(std::launch::async, operation, mutex).get(); };
    EXPECT_EQ(oruMutex_release(mutex), ORU_STATUS_GENERAL_ERROR);
    EXPECT_EQ(oruMutex_acquire(mutex), ORU_STATUS_OK);
    EXPECT_EQ(oruMutex_acquire(mutex), ORU_STATUS_GENERAL_ERROR);
    EXPECT_EQ(elsewhere(oruMutex_release), ORU_STATUS_GENERAL_ERROR);
    EXPECT_EQ(oruMutex_delete(mutex), ORU_STATUS_BUSY);
    EXPECT_EQ(elsewhere(oruMutex_delete), ORU_STATUS_BUSY);
    EXPECT_EQ(oruMutex_release(mutex), ORU_STATUS_OK);
    EXPECT_EQ(oruMutex_delete(mutex), ORU_STATUS_OK);
    EXPECT_EQ(oruSync_testLiveMutexes(), 0U);
}

TEST(Handles, StaleAndUnknownOnesAreRefusedAndNeverComeBack) {
    std::set<uint32_t> ids = {0, 1, 4095, UINT32_MAX};
    for (int round = 0; round < 1000; ++round) {
        const oruSemaphore_t sem = newSemaphore(1);
        const oruMutex_t mutex = newMutex();
        EXPECT_TRUE(ids.insert(sem.id).second) << "id used again";
        EXPECT_EQ(oruSem_delete(sem), ORU_STATUS_OK);
        EXPECT_EQ(oruMutex_delete(mutex), ORU_STATUS_OK);
    }
    const oruMutex_t successor = newMutex(); // in the place of the others
    const oruSemaphore_t next = newSemaphore(5);
    uint32_t count = 0;
    for (const uint32_t id : ids) {
        for (const auto operation : {oruMutex_acquire, oruMutex_release, oruMutex_delete}) {
            EXPECT_EQ(operation({id}), ORU_STATUS_UNINITIALIZED) << id;
        }
        for (const auto operation : {oruSem_wait, oruSem_waitTry, oruSem_post, oruSem_delete}) {
            EXPECT_EQ(operation({id}), ORU_STATUS_UNINITIALIZED) << id;
        }
        EXPECT_EQ(oruSem_waitTimeout({id}, 1), ORU_STATUS_UNINITIALIZED);
        EXPECT_EQ(oruSem_getCount({id}, &count), ORU_STATUS_UNINITIALIZED);
    }
    EXPECT_EQ(countOf(next), 5U);
    EXPECT_EQ(oruMutex_delete(successor), ORU_STATUS_OK);
    EXPECT_EQ(oruSem_delete(next), ORU_STATUS_OK);
}

// The mutex is released and deleted while another thread wants it: either that thread got it first, or it is told.
TEST(Mutex, DeletionAndAWaiterAgreeOnTheOutcome) {
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
}

TEST(Semaphore, CountsSaturatesAndTimesOut) {
    const oruSemaphore_t full = newSemaphore(UINT32_MAX - 1);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(oruSem_post(full), ORU_STATUS_OK);
        EXPECT_EQ(countOf(full), UINT32_MAX);
    }
    oruSem_delete(full);
    const oruSemaphore_t few = newSemaphore(3);
    EXPECT_EQ(oruSem_wait(few), ORU_STATUS_OK);
    EXPECT_EQ(oruSem_waitTry(few), ORU_STATUS_OK);
    EXPECT_EQ(oruSem_waitTimeout(few, 0), ORU_STATUS_OK);
    EXPECT_EQ(oruSem_waitTry(few), ORU_STATUS_TRY_AGAIN);
    for (const uint32_t wait_ms : {0U, 30U}) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(oruSem_waitTimeout(few, wait_ms), ORU_STATUS_TIMEOUT);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(wait_ms));
    }
    oruSem_delete(few);
}

TEST(Semaphore, APostWakesOneWaiterAndDeletionWakesAll) {
    const oruSemaphore_t sem = newSemaphore(0);
    std::atomic<int> taken{0};
    std::atomic<int> canceled{0};
    int written_before_post = 0;
    std::vector<std::jthread> waiters(6);
    for (size_t index = 0; index < waiters.size(); ++index) {
        waiters[index] = std::jthread([&, forever = index % 2 == 0] { // the longest time-out is a real one
            const oru_status_t status = forever ? oruSem_wait(sem) : oruSem_waitTimeout(sem, UINT32_MAX);
            taken += status == ORU_STATUS_OK ? written_before_post : 0;
            canceled += status == ORU_STATUS_CANCELED ? 1 : 0;
        });
    }
    EXPECT_TRUE(waitFor([&] { return oruSync_testWaiting(sem) == 6; }));
    written_before_post = 1;
    EXPECT_EQ(oruSem_post(sem), ORU_STATUS_OK);
    EXPECT_EQ(oruSem_post(sem), ORU_STATUS_OK);
    EXPECT_TRUE(waitFor([&] { return taken == 2; }));
    EXPECT_EQ(oruSync_testWaiting(sem), 4U);
    EXPECT_EQ(oruSem_delete(sem), ORU_STATUS_OK);
    waiters.clear();
    EXPECT_EQ(taken, 2);
    EXPECT_EQ(canceled, 4);
}

TEST(Semaphore, SurvivesReplacementUnderLoad) {
    std::atomic<uint32_t> current{newSemaphore(1).id};
    std::atomic<bool> stop{false};
    std::vector<std::jthread> users(3);
    for (std::jthread &user : users) {
        user = std::jthread([&] {
            const std::set<oru_status_t> fine = {ORU_STATUS_OK, ORU_STATUS_CANCELED, ORU_STATUS_UNINITIALIZED};
            while (!stop) {
                const oruSemaphore_t sem = {current};
                EXPECT_TRUE(fine.contains(oruSem_wait(sem)));
                (void)oruSem_post(sem); // refused when it is gone
            }
        });
    }
    for (int round = 0; round < 500; ++round) {
        EXPECT_EQ(oruSem_delete({current.exchange(newSemaphore(1).id)}), ORU_STATUS_OK);
    }
    stop = true;
    EXPECT_EQ(oruSem_delete({current}), ORU_STATUS_OK);
    users.clear();
    EXPECT_EQ(oruSync_testLiveSemaphores(), 0U);
}

} // namespace
