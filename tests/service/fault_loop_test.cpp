// SPDX-License-Identifier: Apache-2.0
//
// A whole life of the service with the Nth platform call failing, N = 1, 2, 3 ... until a run in which nothing failed;
// once with that call alone failing, once with every call from there on. Each run is a process of its own, because some
// failures legally end the service, and a hang or a crash must not take the test with it.
#include "service_fixture.h"
#include <sys/wait.h>
#include <unistd.h>

namespace ipc = testplat::ipc;
namespace hal = testplat::hal;

namespace {

const FakeDevice LAMP{{0x02, 0x11, 0x22, 0, 0, 0, 0xAA, 0x01}, 0x1001};

class FaultLoopTest : public ServiceTest {
protected:
    // What the parent learns from the exit status of a run.
    enum Verdict { finished = 0, ended_itself = EXIT_FAILURE, nothing_fired = 10, broken = 11 };

    void life() {
        const bool up = boot();
        if (up) {
            hal::stackStatus(ORU_ZB_HAL_STACK_ENABLED_NETWORK_UP);
            pump();
            journeys();
            lock_failed_ = persistent_ || testplat::faults::firedAt() == "oruMutex_acquire";
            testplat::faults::off();
            settle();
        }
        testplat::faults::off();
    }
    static void discoverLamp() {
        LAMP.join();
        LAMP.announce();
        pump();
        interview(LAMP, 1);
    }
    void journeys() {
        (void)callAsync(ORU_ZB_SVC_FORMZ3NET_AUTO);
        discoverLamp();
        oruZb_clusterCmd_t cmd{};
        cmd.dest_node = LAMP.node_id;
        cmd.payload_len = 3;
        (void)callAsync(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, bytesOf(cmd), 3, 7);
        hal::confirmAll();
        oruZb_interpan_t frame{};
        (void)callAsync(ORU_ZB_SVC_SEND_INTERPAN, bytesOf(frame));
        hal::confirmAll();
        pump();
        LAMP.join(); // a stale entry
        pump();
        advance(60'000); // never answers: fails, recovery begins
        (void)callAsync(ORU_ZB_SVC_CLEAR_NETWORK);
        hal::confirmAll(233);
        pump();
    }
    // With the platform healthy again everything must have come back to rest, and work.
    void settle() {
        while (oruZb_hasMsg(oruZb_msgListHead) == ORU_STATUS_OK) {
            turn();
        }
        hal::confirmAll();
        pump();
        expectAtRest();
        // A confirmation that cannot lock the list leaves its transaction to the next one with the same id.
        EXPECT_LE(oruMp_testBlocksOut(mp_zb_txnl_handle), lock_failed_ ? 1U : 0U);
        EXPECT_EQ(ipc::sync(ORU_ZB_SVC_PING, Bytes(8)).returned, 0);
        (void)oruZb_databaseRemoveAll();
        (void)oruZb_databaseDeInit();
        Bytes eui64(LAMP.eui64.begin(), LAMP.eui64.end());
        (void)oruZb_deleteFromDiscoveryList(eui64.data());
        (void)oruZb_deleteFromFailedDiscoveryList(eui64.data());
        forget();
        discoverLamp();
        EXPECT_EQ(ipc::eventIds().back(), ORU_ZB_SVC_DEVICE_DISCOVERED);
        if (oruMutex_release(device_list_mutex) != ORU_STATUS_UNINITIALIZED) { // else it lives on without a device list
            EXPECT_EQ(oruZb_databaseGetDeviceCount(), 1U);
            EXPECT_EQ(testplat::kvs::content().size(), 1U);
        }
    }

    // Runs a life with the fault in a child; returns its verdict, or `broken` for a crash or a hang.
    int run(uint64_t nth, bool persistent) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(20);
            persistent_ = persistent;
            testplat::faults::arm(nth, persistent);
            life();
            const bool fired = testplat::faults::fired();
            stop();
            const bool sound = !HasFailure();
            if (!sound) {
                fprintf(stderr, "call %llu (%s), %s\n", static_cast<unsigned long long>(nth),
                        testplat::faults::firedAt().c_str(), persistent ? "and from there on" : "once");
            }
            _exit(!sound ? broken : fired ? finished : nothing_fired);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return WIFEXITED(status) ? WEXITSTATUS(status) : broken;
    }
    bool persistent_ = false, lock_failed_ = false;

    void loop(bool persistent) {
        int ended = 0;
        for (uint64_t nth = 1; nth < 2000; ++nth) {
            const int verdict = run(nth, persistent);
            if (verdict == nothing_fired) {
                EXPECT_GT(nth, 200U);
                EXPECT_LE(ended, persistent ? 40 : 3)
                    << "only the IPC start, its semaphore and the throttle may end it";
                return;
            }
            ended += verdict == ended_itself ? 1 : 0;
            ASSERT_TRUE(verdict == finished || verdict == ended_itself) << "call " << nth << ": " << verdict;
        }
        FAIL() << "faults never stopped firing";
    }
};

TEST_F(FaultLoopTest, EachCallFailsOnce) {
    loop(false);
}
TEST_F(FaultLoopTest, EverythingFailsFromThereOn) {
    loop(true);
}

} // namespace
