// SPDX-License-Identifier: Apache-2.0
// Delivery: wake bytes, waiting, reentrancy, a full queue, many threads, the watchdog.
#include "zbhal_fixture.h"
#include "zbhal_watchdog.h"
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace zbhal_test {

using Clock = std::chrono::steady_clock;

int64_t millisecondsOf(const std::function<void()> &work) {
    const auto begin = Clock::now();
    work();
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
}

class Events : public HalTest {};
class DescriptorEvents : public HalTest {
protected:
    void writeBytes(int count) {
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(write(descriptor_, "", 1), 1);
        }
    }
};

TEST_P(DescriptorEvents, oneReturnPerWakeByte) {
    startWithNetwork(scenario_);
    const int flags = fcntl(descriptor_, F_GETFL);
    EXPECT_TRUE((flags & O_NONBLOCK) != 0);
    EXPECT_TRUE((fcntl(descriptor_, F_GETFD) & FD_CLOEXEC) != 0);
    writeBytes(5);
    for (int i = 0; i < 5; ++i) {
        EXPECT_LT(millisecondsOf([] { runEvents(60000); }), 30000) << i;
    }
    EXPECT_GE(millisecondsOf([] { runEvents(150); }), 149) << "a sixth byte that nobody wrote";
    const int64_t own_limit = millisecondsOf([] { runEvents(0); });
    EXPECT_GE(own_limit, 499);
}

// A callback that posts writes a byte. Bytes taken and messages posted must stay even, whoever delivered.
TEST_P(DescriptorEvents, bytesOfCallbacksAreNeitherLostNorDoubled) {
    startWithNetwork(scenario_);
    in_callback = [this] { writeBytes(1); };
    for (int i = 0; i < 20; ++i) {
        hal::injectStackStatus(ORU_ZB_HAL_STACK_BUSY_UPGRADING);
    }
    int returns = 0;
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    while (returns < 20 && Clock::now() < deadline) {
        processAction();
        runEvents(60000);
        ++returns;
    }
    in_callback = nullptr;
    EXPECT_EQ(returns, 20);
    EXPECT_EQ(hal::pendingIndications(), 0U);
    EXPECT_GE(millisecondsOf([] { runEvents(100); }), 99);
}

TEST_P(DescriptorEvents, waitingEndsForOtherThreadsAndSignals) {
    startWithNetwork(scenario_);
    struct sigaction ignore {};
    ignore.sa_handler = [](int) {};
    sigaction(SIGUSR1, &ignore, nullptr); // no SA_RESTART
    const std::function<void(std::atomic<bool> &)> disturbances[] = {
        [](std::atomic<bool> &) { hal::injectStackStatus(ORU_ZB_HAL_STACK_BUSY_UPGRADING); },
        [](std::atomic<bool> &) { oruZbHal_reset(); }, // reports at once
        [main = pthread_self()](std::atomic<bool> &done) {
            while (!done) { // it may come before the wait has begun
                pthread_kill(main, SIGUSR1);
                std::this_thread::yield();
            }
        },
    };
    for (const auto &disturb : disturbances) {
        std::atomic<bool> done{false};
        std::thread other([&] { disturb(done); });
        EXPECT_LT(millisecondsOf([] { runEvents(60000); }), 30000);
        done = true;
        other.join();
        drain();
    }
}

TEST_P(Events, callbacksMayCallEverythingAndNestNothing) {
    scenario_.devices = {device("lamp", 1)};
    startWithNetwork(scenario_);
    const uint16_t lamp = joined("lamp");
    std::atomic<int> depth{0};
    std::atomic<int> deepest{0};
    in_callback = [&] {
        deepest = std::max(deepest.load(), ++depth);
        oruZbHal_counters_t counters;
        EXPECT_EQ(oruZbHal_getAndClearDebugCounters(&counters), 0);
        if (record().confirmations.size() < 5) {
            EXPECT_EQ(sendZcl(lamp, 5), 0);
        }
        oruZbHal_processAction();
        oruZbHal_runEvents(1);
        --depth;
    };
    for (int i = 0; i < 10; ++i) {
        hal::injectStackStatus(ORU_ZB_HAL_STACK_BUSY_UPGRADING);
    }
    advance(10000);
    in_callback = nullptr;
    EXPECT_EQ(deepest, 1);
    EXPECT_GE(record().confirmations.size(), 5U);
}

TEST_P(Events, aFullQueueBlocksNoOperationAndLosesNoConfirmation) {
    scenario_.devices = {device("lamp", 1)};
    startWithNetwork(scenario_);
    const uint16_t lamp = joined("lamp");
    std::atomic<bool> stuck{GetParam() == hal::Mode::thread};
    in_callback = [&] {
        while (stuck) { // the service is not taking any more
            std::this_thread::yield();
        }
    };
    const oruZbHal_apsFrame_t aps_frame{};
    const uint8_t payload[4] = {};
    for (uint32_t id = 1; id <= 10; ++id) {
        EXPECT_EQ(sendZcl(lamp, id), 0);
    }
    for (int i = 0; i < 1000; ++i) {
        hal::injectFrame(1, aps_frame, payload);
    }
    EXPECT_FALSE(hal::injectFrame(1, aps_frame, payload));
    EXPECT_GT(hal::droppedIndications(), 700U);
    hal::injectStackStatus(ORU_ZB_HAL_STACK_BUSY_UPGRADING);
    EXPECT_EQ(oruZbHal_disable(), 0); // fails the ten sends
    stuck = false;
    advance(5000);
    EXPECT_EQ(record().confirmations.size(), 10U);
    EXPECT_EQ(record().stack[record().stack.size() - 2], ORU_ZB_HAL_STACK_BUSY_UPGRADING);
    EXPECT_EQ(record().stack.back(), ORU_ZB_HAL_STACK_DISABLED);
    EXPECT_NE(logText().find("reports of the radio lost"), std::string::npos);
}

TEST_P(Events, operationsFromManyThreads) {
    scenario_.devices = {device("lamp", 1), device("plug", 2)};
    startWithNetwork(scenario_);
    const uint16_t lamp = joined("lamp");
    record().confirmations.clear();
    std::atomic<uint32_t> accepted{0};
    std::atomic<int> running{4};
    std::vector<std::thread> threads;
    for (uint32_t number = 0; number < 4; ++number) {
        threads.emplace_back([&, number] {
            for (uint32_t i = 0; i < 200; ++i) {
                oruZbHal_networkParameters_t parameters;
                oruZbHal_neighborTableEntry_t neighbors[4];
                uint8_t count = 4;
                accepted += sendZcl(lamp, number * 1000 + i) == 0 ? 1U : 0U;
                oruZbHal_getNetworkInfo(&parameters);
                oruZbHal_getNeighbors(neighbors, &count);
                if (number == 0 && i % 50 == 49) {
                    oruZbHal_reset();
                } else if (number == 1) {
                    sim().setPower("plug", i % 2 != 0);
                }
            }
            --running;
        });
    }
    while (running > 0) {
        advance(20);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    oruZbHal_disable();
    advance(60000);
    EXPECT_GT(accepted, 0U);
    EXPECT_EQ(record().confirmations.size(), accepted);
}

TEST_P(Events, aHangingAdapterBlocksItsCaller) {
    startWithNetwork(scenario_);
    EXPECT_EQ(sim().adapterHang(200), "");
    EXPECT_GE(millisecondsOf([] { oruZbHal_echo(10); }), 190);
    EXPECT_EQ(oruZbHal_echo(10), 0);
}

TEST(WatchdogDeathTest, aLoopThatStandsStillEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            corvane::zbhal::Watchdog watchdog;
            watchdog.start(1);
            watchdog.beat();
            std::this_thread::sleep_for(std::chrono::seconds(30)); // the hang; the abort comes first
            std::_Exit(0);
        },
        ::testing::KilledBySignal(SIGABRT), "has not called oruZbHal_processAction");
}

const auto kModeName = [](const auto &mode) {
    return std::string(mode.param == hal::Mode::thread ? "thread" : "descriptor");
};
INSTANTIATE_TEST_SUITE_P(modes, Events, ::testing::Values(hal::Mode::descriptor, hal::Mode::thread), kModeName);
INSTANTIATE_TEST_SUITE_P(modes, DescriptorEvents, ::testing::Values(hal::Mode::descriptor), kModeName);

} // namespace zbhal_test
