// SPDX-License-Identifier: Apache-2.0
#include "service_fixture.h"
#include <thread>

using testplat::hal::sent;
namespace ipc = testplat::ipc;
namespace hal = testplat::hal;

namespace {

constexpr int32_t DESCRIPTOR = INT32_MAX; // makes it descriptor mode; nobody has to be woken

class CommandTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        bootReady();
        oruZb_device_t device{};
        device.node_id = 0x1001;
        device.device_info.eui64[0] = 0x0A;
        device.device_info.endpoint_count = 200; // as a damaged record would say
        device.device_info.endpoints[0].endpoint = 1;
        device.device_info.endpoints[0].device_id = 0x0100;
        ASSERT_EQ(oruZb_databaseAddDevice(&device), ORU_STATUS_OK);
        sent().reserve(256);
    }
    static uint32_t tokens() {
        uint32_t count = 0;
        EXPECT_EQ(oruSem_getCount(zb_throttle_sem, &count), ORU_STATUS_OK);
        return count;
    }
    static oruZb_clusterCmd_t lastEvent() { return recordOf<oruZb_clusterCmd_t>(ipc::events().back().payload); }
    static void sendToggles(int count) {
        for (int i = 0; i < count; ++i) {
            (void)callAsync(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, bytesOf(toggle(0x1001)));
        }
    }
    static uint32_t openTransactions() { return oruMp_testBlocksOut(mp_zb_txnl_handle); }
};

TEST_F(CommandTest, AsynchronousSendIsConfirmedToItsClientAndAnnounced) {
    EXPECT_EQ(callAsync(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, bytesOf(toggle(0x1001)), 3, 7), 0);
    ASSERT_EQ(sent().size(), 1U);
    EXPECT_EQ(sent()[0].request_id, 0x00030007U);
    ASSERT_EQ(ipc::callbacks().size(), 1U);
    EXPECT_EQ(ipc::callbacks()[0].client, 3);
    EXPECT_EQ(ipc::callbacks()[0].id, 7);
    EXPECT_EQ(ipc::callbacks()[0].status(), 0);
    EXPECT_EQ(tokens(), 9U);
    EXPECT_EQ(openTransactions(), 1U);
    testplat::time::advance(25);
    hal::confirm(0);
    EXPECT_EQ(ipc::eventIds(), (std::vector<uint16_t>{ORU_ZB_SVC_SENDCMD_SUCCESS}));
    EXPECT_EQ(tokens(), 10U);
    EXPECT_EQ(openTransactions(), 0U);
    EXPECT_EQ(device_list_head.slh_first->latency_info.max_latency, 25U);
    expectAtRest();
}

TEST_F(CommandTest, EventByConfirmationStatus) {
    const std::map<int32_t, uint16_t> table = {
        {0, ORU_ZB_SVC_SENDCMD_SUCCESS},       {173, ORU_ZB_SVC_SECURITY_ERROR},
        {175, ORU_ZB_SVC_SECURITY_ERROR},      {204, ORU_ZB_SVC_SECURITY_ERROR},
        {205, ORU_ZB_SVC_SECURITY_ERROR},      {206, ORU_ZB_SVC_SECURITY_ERROR},
        {221, ORU_ZB_SVC_SECURITY_ERROR},      {222, ORU_ZB_SVC_SECURITY_ERROR},
        {223, ORU_ZB_SVC_SECURITY_ERROR},      {228, ORU_ZB_SVC_SECURITY_ERROR},
        {208, ORU_ZB_SVC_DEVICE_UNRESPONSIVE}, {209, ORU_ZB_SVC_DEVICE_UNRESPONSIVE},
        {233, ORU_ZB_SVC_DEVICE_UNRESPONSIVE}, {225, ORU_ZB_SVC_CHANNEL_BUSY}};
    for (int32_t status = 0; status <= 260; ++status) {
        sent().clear();
        (void)callAsync(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, bytesOf(toggle(0x1001)));
        hal::confirm(0, status);
        const auto row = table.find(status);
        EXPECT_EQ(ipc::eventIds().back(), row == table.end() ? uint16_t{ORU_ZB_SVC_SENDCMD_FAILURE} : row->second)
            << status;
        EXPECT_EQ(lastEvent().status, status);
    }
    EXPECT_EQ(openTransactions(), 0U);
    EXPECT_TRUE(testplat::log::has("zb_zcl_command_failed, device info:e1-0a0000-0100"));
}

TEST_F(CommandTest, OutcomeByteForByte) {
    Bytes payload(100);
    std::iota(payload.begin(), payload.end(), uint8_t{1});
    const Bytes address = {0x34, 0x12, 0x78, 0x56, 0xBC, 0x9A, 0x0D, 0x0E}; // node, cluster, profile, endpoints
    const Bytes cmd = address + payload + Bytes{100, 0, 0x44, 0x11, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(callAsync(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, cmd, 0xABCD, 0x0277), 0);
    EXPECT_EQ(bytesOf(sent()[0].aps), (Bytes{0xBC, 0x9A, 0x78, 0x56, 0x0E, 0x0D, 0x44, 0x11, 0, 0, 1, 0}));
    EXPECT_EQ(sent()[0].frame, payload);
    hal::confirm(0, 225);
    EXPECT_EQ(ipc::eventIds().back(), ORU_ZB_SVC_CHANNEL_BUSY);
    const Bytes event = address + payload + Bytes{100, 0, 0, 0, 0x77, 0x02, 0, 0, 225, 0, 0, 0};
    EXPECT_EQ(ipc::events().back().payload, event);
}

TEST_F(CommandTest, EleventhSendWaitsForATokenAsLongAsOneCanComeAndGoesOut) {
    struct Row {
        bool descriptor;
        uint32_t timeout_ms;
        std::function<void(size_t turn)> in_turn; // of the radio, during the wait
        size_t turns;                             // until the wait is over
        bool timed_out;                           // or has it got a token?
    };
    const auto nothing = [](size_t) {};
    const auto confirm_in = [](size_t last) {
        return [last](size_t turn) { turn == last ? hal::confirm(0) : (void)0; };
    };
    const auto fill_queue = [](size_t) {
        while (!oruZb_msgQueueIsFull()) {
            ASSERT_EQ(oruZb_timerPostServerMsg(ORU_ZB_SVC_INTERNAL_SERVICE_DISCOVERY), 0);
        }
    };
    const auto let_time_pass = [](size_t) { testplat::time::advance(1'000); };
    for (const Row &row : {Row{false, 20, nothing, 0, true}, Row{false, 2'000, confirm_in(3), 3, false},
                           Row{false, 2'000, fill_queue, 1, true}, // the dispatcher may be waiting for a place
                           Row{true, 0, nothing, 1, true}, Row{true, 20, nothing, 21, true}, // by count of slices
                           Row{true, 2'000, let_time_pass, 2, true}, Row{true, 2'000, confirm_in(1), 1, false},
                           Row{true, 2'000, confirm_in(30), 30, false}}) {
        SCOPED_TRACE(row.turns);
        zb_hal_signal = row.descriptor ? DESCRIPTOR : -1;
        throttle_sem_timeout_ms = row.timeout_ms;
        forget();
        sent().clear();
        size_t turns = 0;
        hal::on_process = [&] { row.in_turn(++turns); };
        sendToggles(10);
        EXPECT_EQ(turns, 0U);
        const auto begin = std::chrono::steady_clock::now();
        oruZb_clusterCmd_t cmd = toggle(0x1001);
        EXPECT_EQ(oruZb_doSendClusterCmd(&cmd, 0), 0);
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(row.timeout_ms % 1000));
        EXPECT_EQ(turns, row.turns);
        EXPECT_EQ(testplat::log::count("throttle sem timed out"), row.timed_out ? 1U : 0U);
        EXPECT_EQ(sent().size(), 11U);
        hal::on_process = nullptr;
        hal::confirmAll();
        pump();
        EXPECT_EQ(tokens(), 10U); // never above the burst size
        EXPECT_EQ(openTransactions(), 0U);
    }
}

TEST_F(CommandTest, RefusedSendsLeakNothing) {
    hal::setResult("sendZclUnicast", 166);
    for (int i = 0; i < 150; ++i) { // more than the pool has items
        // With nothing in flight no token can come back: even the longest time-out ends soon.
        throttle_sem_timeout_ms = i < 140 ? 0 : 0xFFFFFFFF;
        (void)callAsync(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, bytesOf(toggle(0x1001)));
    }
    EXPECT_EQ(ipc::callbacks().size(), 150U);
    EXPECT_EQ(ipc::callbacks().back().status(), 166);
    EXPECT_TRUE(ipc::events().empty());
    EXPECT_EQ(openTransactions(), 0U);
    EXPECT_EQ(tokens(), 0U); // kept: the window refills with later confirmations
    throttle_sem_timeout_ms = 0;
    hal::setResult("sendZclUnicast", 0);
    sendToggles(10);
    hal::confirmAll();
    EXPECT_EQ(tokens(), 10U);
    expectAtRest();
}

TEST_F(CommandTest, PayloadLengths) {
    for (const uint16_t length : std::initializer_list<uint16_t>{0, 1, 99, 100, 101, 255, 65535}) {
        oruZb_clusterCmd_t cmd = toggle(0x1001);
        cmd.payload_len = length;
        sent().clear();
        const bool fits = length <= 100;
        EXPECT_EQ(callSync(ORU_ZB_SVC_SEND_CLUSTER_CMD, bytesOf(cmd)).returned, fits ? 0 : ORU_STATUS_DATA_LEN_INVALID);
        (void)callAsync(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, bytesOf(cmd));
        EXPECT_EQ(ipc::callbacks().back().status(), fits ? 0 : ORU_STATUS_DATA_LEN_INVALID);
        EXPECT_EQ(sent().size(), fits ? 2U : 0U);
        hal::confirmAll();
    }
    EXPECT_EQ(openTransactions(), 0U);
    // A confirmation longer than the event's field, and one without bytes.
    oruZbHal_apsFrame_t aps{};
    Bytes message(300, 0x77);
    oruZb_cmdSentCallback(ORU_ZB_HAL_OUTGOING_DIRECT, 1, &aps, 300, message.data(), ORU_ZB_HAL_SUCCESS, 9);
    EXPECT_EQ(lastEvent().payload_len, 100);
    oruZb_cmdSentCallback(ORU_ZB_HAL_OUTGOING_DIRECT, 1, &aps, 300, nullptr, ORU_ZB_HAL_SUCCESS, 9);
    EXPECT_EQ(lastEvent().payload_len, 0);
    ipc::clear();
    oruZb_cmdSentCallback(ORU_ZB_HAL_OUTGOING_DIRECT, 1, nullptr, 0, nullptr, ORU_ZB_HAL_SUCCESS, 9);
    EXPECT_TRUE(ipc::events().empty());
}

TEST_F(CommandTest, ProfileAndRequestIdentity) {
    oruZb_clusterCmd_t cmd = toggle(0x1001);
    cmd.profile_id = 0xC05E;
    const auto result = callSync(ORU_ZB_SVC_SEND_CLUSTER_CMD, bytesOf(cmd));
    EXPECT_EQ(sent()[0].aps.profile_id, 0x0104);
    EXPECT_EQ(recordOf<oruZb_clusterCmd_t>(result.payload).profile_id, 0xC05E);
    EXPECT_EQ(recordOf<oruZb_clusterCmd_t>(result.payload).confirmation_id, sent()[0].aps.sequence);
    EXPECT_EQ(sent()[0].request_id, 0U);
    EXPECT_TRUE(ipc::callbacks().empty());
    // A confirmation inside the send closes the transaction that is already listed.
    hal::on_send = [](testplat::Sent &s) {
        s.confirmed = true;
        oruZb_cmdSentCallback(ORU_ZB_HAL_OUTGOING_DIRECT, s.destination, &s.aps, 3, s.frame.data(), ORU_ZB_HAL_SUCCESS,
                              s.request_id);
    };
    (void)callAsync(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, bytesOf(toggle(0x1001)));
    EXPECT_EQ(openTransactions(), 1U); // the synchronous one of above
    EXPECT_FALSE(testplat::log::has("Record transaction failed"));
}

TEST_F(CommandTest, SameConfirmationIdClosesOldestFirst) {
    (void)callAsync(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, bytesOf(toggle(0x1001)), 3, 7);
    testplat::time::advance(30);
    (void)callAsync(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, bytesOf(toggle(0x1001)), 3, 7);
    testplat::time::advance(10);
    hal::confirm(1); // whichever frame it was: the oldest open transaction of that id
    EXPECT_EQ(device_list_head.slh_first->latency_info.max_latency, 40U);
    hal::confirm(0, 167);
    EXPECT_EQ(device_list_head.slh_first->latency_info.transaction_count, 1U);
    EXPECT_EQ(openTransactions(), 0U);
}

TEST_F(CommandTest, BurstSizeAndTimeOutSettings) {
    const auto set = [](uint32_t value) { return callSync(ORU_ZB_SVC_ADAPTER_SET_BURST_SIZE, bytesOf(value)); };
    EXPECT_EQ(set(0).returned, ORU_STATUS_GENERAL_ERROR);
    EXPECT_TRUE(testplat::log::has("burst size can't be set to zero"));
    EXPECT_EQ(set(3).returned, 0);
    EXPECT_EQ(tokens(), 3U);
    EXPECT_EQ(set(0xFFFFFFFF).returned, 0);
    EXPECT_EQ(tokens(), 0xFFFFFFFFU);
    testplat::faults::arm(1, false);
    const uint32_t five = 5;
    const uint32_t limit = burst_size;
    EXPECT_EQ(oruZb_setBurstSize(&five), ORU_STATUS_OK); // the new semaphore cannot be made: the old one stays
    EXPECT_EQ(tokens(), limit);
    hal::stackStatus(ORU_ZB_HAL_STACK_ENABLED_NO_NETWORK);
    pump();
    EXPECT_EQ(set(0).returned, ORU_STATUS_GENERAL_ERROR);
    EXPECT_TRUE(testplat::log::has("zigbee adapter must be turned off"));
    EXPECT_EQ(callSync(ORU_ZB_SVC_ADAPTER_SET_THROTTLE_TIMEOUT, bytesOf(0xFFFFFFFFU)).returned, 0);
    EXPECT_EQ(throttle_sem_timeout_ms, 0xFFFFFFFFU);
}

TEST_F(CommandTest, EndlessThrottleTimeOutEndsWithTheService) {
    throttle_sem_timeout_ms = 0xFFFFFFFF;
    const uint32_t one = 1;
    ASSERT_EQ(oruZb_setBurstSize(&one), ORU_STATUS_OK);
    (void)callAsync(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, bytesOf(toggle(0x1001)));
    std::thread terminator([] { HandleTermSignal(15); });
    terminator.join();
    (void)callAsync(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, bytesOf(toggle(0x1001)));
    EXPECT_EQ(sent().size(), 2U);
    hal::confirmAll();
}

} // namespace
