// SPDX-License-Identifier: Apache-2.0
//
// The whole service on the test platform, brought up in the order of the process entry. The test thread is the main
// thread: pump() runs loop turns until the queue is empty.
#pragma once
#include "../support/records.h"
#include "oru_os_testing.h"
#include "test_platform.h"
#include "zb_callbacks.h"
#include "zb_database.h"
#include "zb_discovery.h"
#include "zb_gate.h"
#include "zb_log.h"
#include "zb_main.h"
#include "zb_region_info.h"
#include "zb_server.h"
#include "zb_svc.h"
#include "zb_timer.h"
#include "zb_util.h"
#include "zb_zdo.h"
#include "zb_zts.h"
#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <cstring>
#include <future>
#include <gtest/gtest.h>
#include <numeric>

using Eui64Bytes = std::array<uint8_t, 8>;

inline Bytes operator+(Bytes a, const Bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
inline Bytes le16(uint16_t v) {
    return {static_cast<uint8_t>(v & 0xFF), static_cast<uint8_t>(v >> 8)};
}

inline void resetProcess() { // what no shut-down resets
    adapter_state = ORU_ZB_ADAPTER_OFF;
    zb_pjoin_state = ORU_ZB_HAL_STATE_PJOIN_CLOSED;
    zb_hal_signal = -1;
    terminated = 0;
    device_fail_to_join_counter = 0;
    zigbee_zdo_sequence = 0;
    burst_size = 10;
    region_code = ORU_ZB_HAL_REGION_WORLD_WIDE;
    attempts = 0;
    test_without_qel = false;
}
// As the process entry does it; false when the service cannot run.
inline bool startService(const char *device) {
    static std::string name; // the service keeps the pointer
    name = device;
    (void)oruZb_timersInit();
    (void)oruZb_databaseInit();
    oruZb_ztsListInit();
    oruZb_serverInit();
    return oruZb_init(name.data()) == ORU_STATUS_OK;
}
inline void endService() {
    oruZb_stop();
    while (discovery_list_head.slh_first != nullptr) { // left behind on purpose by shut-down
        (void)oruZb_deleteFromDiscoveryList(discovery_list_head.slh_first->device.device_info.eui64);
    }
    (void)oruSem_delete(zb_throttle_sem); // lives as long as the process otherwise
    adapter_state = ORU_ZB_ADAPTER_OFF;
}

inline void pumpService() {
    while (oruZb_hasMsg(oruZb_msgListHead) == ORU_STATUS_OK) {
        oruZb_handleEvent();
    }
}

class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        testplat::resetAll();
        testplat::hal::reset();
        resetProcess();
        throttle_sem_timeout_ms = 20;
    }
    void TearDown() override {
        testplat::faults::off();
        if (up_) {
            stop();
        }
    }

    bool boot() {
        up_ = true;
        return startService("/dev/ttyTEST0");
    }
    // Up to a formed network, everything said so far forgotten.
    void bootReady() {
        ASSERT_TRUE(boot());
        EXPECT_EQ(testplat::ipc::eventIds(), (std::vector<uint16_t>{ORU_ZB_SVC_ADAPTER_ENABLING}));
        testplat::hal::stackStatus(ORU_ZB_HAL_STACK_ENABLED_NETWORK_UP);
        pump();
        ASSERT_EQ(adapter_state, ORU_ZB_ADAPTER_SERVICE_READY);
        forget();
    }
    void stop() {
        endService();
        up_ = false;
    }
    static void forget() {
        testplat::ipc::clear();
        testplat::log::clear();
        testplat::hal::clearCalls();
    }
    static void turn() { oruZb_handleEvent(); }
    static void pump() { pumpService(); }
    static void advance(uint64_t ms) { // in steps, so that what a timer posted is handled at its time
        while (ms > 0) {
            const uint64_t step = std::min({ms, std::max<uint64_t>(testplat::time::untilNext(), 1)});
            testplat::time::advance(step);
            pump();
            ms -= step;
        }
    }
    // A synchronous call from a thread of its own, served by this one.
    static testplat::ipc::Result callSync(uint16_t function, Bytes payload = {}, uint16_t client = 1) {
        auto call =
            std::async(std::launch::async, [&] { return testplat::ipc::sync(function, std::move(payload), client); });
        while (call.wait_for(std::chrono::microseconds(200)) != std::future_status::ready) {
            pump();
        }
        return call.get();
    }
    static int32_t callAsync(uint16_t function, Bytes payload = {}, uint16_t client = 1, uint16_t callback = 0x201) {
        const auto result = testplat::ipc::async(function, std::move(payload), client, callback);
        pump();
        return result.returned;
    }
    // Everything that belongs to a message or a send is back where it came from.
    static void expectAtRest() {
        EXPECT_EQ(oruZb_hasMsg(oruZb_msgListHead), ORU_STATUS_NOT_FOUND);
        EXPECT_EQ(oruMp_testBlocksOut(mp_zb_msgl_handle), 0U);
        EXPECT_EQ(oruMp_testBlocksOut(mp_zb_var_handle), 0U);
        uint32_t places = 0;
        EXPECT_EQ(oruSem_getCount(zb_post_sem, &places), ORU_STATUS_OK);
        EXPECT_EQ(places, 40U);
    }

    bool up_ = false;
};

// One device on the scripted radio: joins, announces, answers as the test says.
struct FakeDevice {
    Eui64Bytes eui64;
    uint16_t node_id;

    Bytes lsb() const { return {eui64.rbegin(), eui64.rend()}; }
    void join() const {
        testplat::hal::trustCenter(node_id, eui64.data(), ORU_ZB_HAL_STANDARD_SECURITY_UNSECURED_JOIN);
    }
    void update(int32_t kind) const { testplat::hal::trustCenter(node_id, eui64.data(), kind); }
    void announce(uint8_t capabilities = 0x8E) const {
        testplat::hal::incoming(node_id, 0, ZDO_DEVICE_ANNCE, Bytes{1} + le16(node_id) + lsb() + Bytes{capabilities});
    }
    void activeEndpoints(const Bytes &endpoints) const {
        testplat::hal::incoming(node_id, 0, ZDO_ACTIVE_EP_RSP,
                                Bytes{1, 0} + le16(node_id) + Bytes{static_cast<uint8_t>(endpoints.size())} +
                                    endpoints);
    }
    void simpleDescriptor(uint8_t endpoint, const std::vector<uint16_t> &inputs,
                          const std::vector<uint16_t> &outputs) const {
        Bytes frame = Bytes{1, 0} + le16(node_id) + Bytes{0, endpoint} + le16(0x0104) + le16(0x0100) +
                      Bytes{1, static_cast<uint8_t>(inputs.size())};
        for (const uint16_t id : inputs) {
            frame = frame + le16(id);
        }
        frame.push_back(static_cast<uint8_t>(outputs.size()));
        for (const uint16_t id : outputs) {
            frame = frame + le16(id);
        }
        testplat::hal::incoming(node_id, 0, ZDO_SIMPLE_DESC_RSP, frame);
    }
    void nodeDescriptor(uint8_t capabilities = 0x8E, uint16_t manufacturer = 0x1234,
                        uint16_t server_mask = 0x2C00) const {
        testplat::hal::incoming(node_id, 0, ZDO_NODE_DESC_RSP,
                                Bytes{1, 0} + le16(node_id) + Bytes{1, 0x40, capabilities} + le16(manufacturer) +
                                    Bytes{82} + le16(82) + le16(server_mask) + le16(82) + Bytes{0});
    }
};

// The device answers the questions that the service puts to it, as many as asked for, with endpoints 1..count.
inline void interview(const FakeDevice &device, uint8_t count, int answers = INT_MAX) {
    Bytes endpoints(count);
    std::iota(endpoints.begin(), endpoints.end(), uint8_t{1});
    for (int i = 0; i < std::min(answers, std::min<int>(count, 5) + 2); ++i) {
        i == 0                         ? device.activeEndpoints(endpoints)
        : i <= std::min<int>(count, 5) ? device.simpleDescriptor(static_cast<uint8_t>(i), {0x0000, 0x0006}, {0x0019})
                                       : device.nodeDescriptor();
        pumpService();
    }
}
