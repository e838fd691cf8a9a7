// SPDX-License-Identifier: Apache-2.0
// Delivery: wake bytes, waiting, reentrancy, a full queue, the watchdog.
#include "zbhal_fixture.h"
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace zbhal_test {

int64_t millisecondsOf(uint32_t max_wait_ms) {
    const auto begin = std::chrono::steady_clock::now();
    pump([=] { oruZbHal_runEvents(max_wait_ms); });
    return (std::chrono::steady_clock::now() - begin) / std::chrono::milliseconds(1);
}

class DescriptorEvents : public HalTest {
protected:
    void SetUp() override {
        HalTest::SetUp();
        startWithNetwork();
    }
    void writeBytes(size_t count) const { ASSERT_EQ(write(descriptor_, "12345", count), count); }
};
INSTANTIATE_TEST_SUITE_P(modes, DescriptorEvents, ::testing::Values(hal::Mode::descriptor));

TEST_P(DescriptorEvents, oneReturnPerWakeByte) {
    EXPECT_TRUE((fcntl(descriptor_, F_GETFL) & O_NONBLOCK) != 0);
    EXPECT_TRUE((fcntl(descriptor_, F_GETFD) & FD_CLOEXEC) != 0);
    writeBytes(5);
    for (int i = 0; i < 5; ++i) {
        EXPECT_LT(millisecondsOf(60000), 30000) << i;
    }
    EXPECT_GE(millisecondsOf(150), 149) << "a sixth byte that nobody wrote";
    EXPECT_GE(millisecondsOf(0), 499) << "its own limit";
}

// A callback that posts writes a byte. Bytes taken and messages posted must stay even, whoever delivered.
TEST_P(DescriptorEvents, bytesOfCallbacksAreNeitherLostNorDoubled) {
    in_callback = [this] { writeBytes(1); };
    for (int i = 0; i < 20; ++i) {
        hal::injectStackStatus(ORU_ZB_HAL_STACK_BUSY_UPGRADING);
    }
    for (size_t left = 20; left-- > 0;) {
        pump(oruZbHal_processAction);
        EXPECT_EQ(hal::pendingIndications(), left) << "one only while messages are waiting";
        EXPECT_LT(millisecondsOf(60000), 30000) << left;
    }
    hal::injectStackStatus(ORU_ZB_HAL_STACK_BUSY_UPGRADING);
    EXPECT_LT(millisecondsOf(60000), 30000);
    EXPECT_GE(millisecondsOf(100), 99) << "its byte was taken with it";
    in_callback = nullptr;
    for (int i = 0; i < 5; ++i) {
        hal::injectStackStatus(ORU_ZB_HAL_STACK_BUSY_UPGRADING);
    }
    pump(oruZbHal_processAction);
    EXPECT_EQ(hal::pendingIndications(), 0U) << "all while none is";
}

TEST_P(DescriptorEvents, waitingEndsForOtherThreadsAndSignals) {
    (void)std::signal(SIGUSR1, [](int) {});
    std::thread resetting(oruZbHal_reset); // reports at once
    EXPECT_LT(millisecondsOf(60000), 30000);
    resetting.join();
    advance(0);
    std::atomic<bool> done{false};
    std::thread signalling([&done, main = pthread_self()] {
        while (!done) { // it may come before the wait has begun
            pthread_kill(main, SIGUSR1);
            std::this_thread::yield();
        }
    });
    EXPECT_LT(millisecondsOf(60000), 30000);
    done = true;
    signalling.join();
}

TEST_P(HalTest, callbacksMayCallEverythingAndNestNothing) {
    scenario_.devices = {device("lamp", 1)};
    startWithNetwork();
    join({"lamp"});
    const uint16_t lamp = nodeId("lamp");
    int depth = 0;
    in_callback = [&] {
        EXPECT_EQ(++depth, 1);
        if (record.confirmations.size() < 5) {
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
    EXPECT_GE(record.confirmations.size(), 5U);
}

TEST_P(HalTest, aFullQueueBlocksNoOperationAndLosesNoConfirmation) {
    scenario_.devices = {device("lamp", 1)};
    startWithNetwork();
    join({"lamp"});
    const uint16_t lamp = nodeId("lamp");
    std::atomic<bool> stuck{GetParam() == hal::Mode::thread};
    in_callback = [&] {
        while (stuck) { // the service is not taking any more
            std::this_thread::yield();
        }
    };
    for (uint32_t id = 1; id <= 10; ++id) {
        EXPECT_EQ(sendZcl(lamp, id), 0);
    }
    bool taken = true;
    for (int i = 0; i < 1001; ++i) {
        taken = hal::injectFrame(1, {}, {});
        hal::injectStackStatus(ORU_ZB_HAL_STACK_BUSY_UPGRADING); // into the last places, but for those reserved
    }
    EXPECT_FALSE(taken);
    EXPECT_EQ(oruZbHal_disable(), 0); // fails the ten sends
    stuck = false;
    advance(5000);
    EXPECT_EQ(record.confirmations.size(), 10U);
    EXPECT_NE(record.trace.find("stack upgrading, sent"), std::string::npos);
    EXPECT_TRUE(record.trace.ends_with("stack off, "));
}

// Far more than the queue holds, and the service takes one now and then.
TEST_P(HalTest, noJoinIsLostHoweverManyComeAtOnce) {
    for (int i = 0; i < 400; ++i) {
        scenario_.devices.push_back(device("d" + std::to_string(i), static_cast<uint8_t>(i)));
        scenario_.devices.back().eui64[5] = static_cast<uint8_t>(i >> 8);
        scenario_.devices.back().join_at_ms = 0;
    }
    const auto count = [](const std::string &word) {
        const std::regex words(word);
        return std::distance(std::sregex_iterator(record.trace.begin(), record.trace.end(), words), {});
    };
    for (const bool shared : {true, false}) {
        scenario_.air.shared_medium = shared;
        startWithNetwork();
        EXPECT_EQ(oruZbHal_permitJoinNetwork(true), 0);
        advance(60000);
        EXPECT_EQ(count(" joined"), 400);
        EXPECT_GE(count("announced"), shared ? 200 : 400) << "some get lost, but on the air only";
        EXPECT_EQ(oruZbHal_permitJoinNetwork(false), 0);
        for (const mesh::DeviceSpec &spec : scenario_.devices) { // by hand, and nothing is taken meanwhile
            EXPECT_EQ(sim().leave(spec.name), "");
        }
        advance(1000);
        EXPECT_EQ(count(" left"), 400);
    }
}

hal::Options watched(hal::Mode mode, uint32_t seconds) {
    hal::Options options;
    options.mode = mode;
    options.watchdog_seconds = seconds;
    return options;
}

TEST_P(HalTest, aThreadThatCannotBeStartedFailsTheStartWithALine) {
    pthread_attr_t usual, huge;
    pthread_getattr_default_np(&usual);
    huge = usual;
    pthread_attr_setstacksize(&huge, 1UL << 46);
    oruZbHal_callbacks_t callbacks{};
    for (const uint32_t watchdog_seconds : {0, 60}) {
        const bool needed = watchdog_seconds > 0 || GetParam() == hal::Mode::thread;
        hal::reset(watched(GetParam(), watchdog_seconds));
        pthread_setattr_default_np(&huge);
        EXPECT_EQ(oruZbHal_init(&callbacks, &descriptor_), needed ? -1 : 0);
        pthread_setattr_default_np(&usual);
        EXPECT_EQ(oruZbHal_init(&callbacks, &descriptor_), needed ? 0 : ORU_STATUS_ALREADY_INITIALIZED);
    }
    EXPECT_TRUE(testplat::log::has("cannot start the thread supervise: Resource"));
}

void sleepMs(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

// Stopped for longer than the limit, slow, but alive, and then no more.
void stopAndHang() {
    oruZbHal_processAction();
    if (fork() == 0) {
        sleepMs(1500);
        kill(getppid(), SIGCONT);
        _exit(0);
    }
    (void)raise(SIGSTOP);
    sleepMs(600);
    oruZbHal_processAction();
    std::cerr << "alive\n";
    sleepMs(30000); // the abort comes first
}

void hangInACallback() {
    hal::injectStackStatus(ORU_ZB_HAL_STACK_BUSY_UPGRADING);
    for (int i = 0; i < 3000; ++i) { // the abort comes first
        oruZbHal_processAction();
        sleepMs(10);
    }
}

TEST(WatchdogDeathTest, aThreadThatStandsStillEndsTheProcessAndAStoppedProcessGoesOn) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto run = [](void (*body)()) {
        testplat::log::echo = true;
        hal::reset(watched(hal::Mode::thread, 1));
        oruZbHal_callbacks_t callbacks{};
        callbacks.stack_status_callback = [](auto) { sleepMs(30000); };
        int32_t descriptor = -1;
        oruZbHal_init(&callbacks, &descriptor);
        body();
    };
    const auto aborted = ::testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(run(stopAndHang), aborted, "alive\n.*the main loop has not called oruZbHal_processAction for 1 s");
    EXPECT_EXIT(run(hangInACallback), aborted, "the dispatcher has not returned from a callback for 1 s, aborting");
}

} // namespace zbhal_test
