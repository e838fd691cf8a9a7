// SPDX-License-Identifier: Apache-2.0
#include "service_fixture.h"

using testplat::hal::sent;
namespace ipc = testplat::ipc;
namespace hal = testplat::hal;

namespace {

class NetworkTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        bootReady();
    }
    static void addDevice(uint16_t node_id, uint8_t last) {
        oruZb_device_t device{};
        device.node_id = node_id;
        device.device_info.eui64[7] = last;
        device.device_info.endpoint_count = 1;
        ASSERT_EQ(oruZb_databaseAddDevice(&device), ORU_STATUS_OK);
    }
    // Three stored devices: a short record, a good one, one with impossible counts.
    static void SetUpStore() {
        oruZb_device_t device{};
        device.device_info.endpoint_count = 5;
        device.node_id = 0x0202;
        device.device_info.eui64[0] = 0x02;
        auto &store = testplat::kvs::content();
        store["zigbee.01:00:00:00:00:00:00:00"] = {0x01, 0x01, 0x00};
        store["zigbee.02:00:00:00:00:00:00:00"] = bytesOf(device);
        device.node_id = 0x0303;
        device.device_info.eui64[0] = 0x03;
        device.device_info.endpoint_count = 0xFF;
        device.device_info.endpoints[0].cluster_count = 0xFF;
        store["zigbee.03:00:00:00:00:00:00:00"] = bytesOf(device) + Bytes(100, 0xAA);
    }
    static int32_t lastStatus() { return ipc::callbacks().empty() ? INT32_MAX : ipc::callbacks().back().status(); }
    static std::string lastCall() { return hal::calls().empty() ? "" : hal::calls().back(); }
};

TEST_F(NetworkTest, FormationMasks) {
    struct Row {
        Bytes coex;
        const char *call;
    };
    const std::vector<Row> rows = {
        {{}, "formNetworkAuto(1,0x2108800,0x0,25,4)"},
        {{15, 1, 2, 3, 4, 5}, "formNetworkAuto(1,0x8000,0x0,15,4)"},
        {{0, 11, 15, 20, 26, 26}, "formNetworkAuto(1,0x2100000,0x0,26,4)"},
        {{0, 0, 15, 20, 27, 99}, "formNetworkAuto(1,0x2108800,0x0,99,4)"}, // the adapter judges the final channel
        {{0, 15, 11, 0, 0, 25}, "formNetworkAuto(1,0x2108800,0x0,25,4)"},
        {{200, 0, 0, 0, 0, 0}, "formNetworkAuto(1,0x0,0x0,200,4)"},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(callAsync(ORU_ZB_SVC_FORMZ3NET_AUTO, row.coex), 0);
        EXPECT_EQ(lastCall(), row.call);
        EXPECT_EQ(lastStatus(), 0);
    }
    EXPECT_EQ(oruZb_createChannelMask(11, 14, 0x05EF7000), 0x05EF0000U);
    EXPECT_EQ(oruZb_createChannelMask(11, 0x1000000B, 0x05EF7800), 0x05EF7000U); // taken as 8 bits
    for (const uint8_t channel : Bytes{10, 11, 26, 27}) {
        forget();
        (void)callAsync(ORU_ZB_SVC_FORMZ3NET_MANUAL, {channel});
        const bool valid = channel >= 11 && channel <= 26;
        EXPECT_EQ(hal::count("formNetworkAuto"), valid ? 1U : 0U);
        EXPECT_EQ(ipc::callbacks().size(), valid ? 1U : 0U);
    }
    EXPECT_EQ(oruZb_addEndpoint(), 0);
    EXPECT_EQ(lastCall(),
              "addEndpoint(1,0x104,7,1,6: 0 3 6 8 19 a,17: 0 3 6 8 300 4 101 20 500 1 b05 201 406 400 402 102 "
              "fc57)");
    hal::setResult("formNetworkAuto", 196);
    (void)callAsync(ORU_ZB_SVC_FORMZ3NET_AUTO);
    EXPECT_EQ(lastStatus(), 196);
}

TEST_F(NetworkTest, PermitJoinAndFailureCount) {
    device_fail_to_join_counter = 3;
    EXPECT_EQ(callSync(ORU_ZB_SVC_PERMITJOIN_STOP).returned, 0);
    EXPECT_TRUE(testplat::log::has("zb_device_join_failure, failure count:3"));
    EXPECT_EQ(device_fail_to_join_counter, 0U);
    EXPECT_EQ(callSync(ORU_ZB_SVC_PERMITJOIN_START).returned, 0);
    EXPECT_EQ(oruZb_getPjoinState(), ORU_ZB_HAL_STATE_PJOIN_OPEN);
    hal::setResult("permitJoinNetwork", 195);
    device_fail_to_join_counter = 1;
    EXPECT_EQ(callSync(ORU_ZB_SVC_PERMITJOIN_STOP).returned, ORU_STATUS_GENERAL_ERROR);
    EXPECT_EQ(oruZb_getPjoinState(), ORU_ZB_HAL_STATE_PJOIN_OPEN);
    EXPECT_EQ(device_fail_to_join_counter, 1U);
}

TEST_F(NetworkTest, AllowlistSizesOrderAndMode) {
    Bytes two(52);
    two[0] = 0xA0;
    two[7] = 0xA7;
    two[26] = 0xB0;
    two[33] = 0xB7;
    EXPECT_EQ(callSync(ORU_ZB_SVC_ZTS_ADD_DEVICES, {}).returned, ORU_STATUS_PARAM_OUT_OF_RANGE);
    EXPECT_EQ(callSync(ORU_ZB_SVC_ZTS_ADD_DEVICES, Bytes(25)).returned, 0);
    EXPECT_EQ(zts_device_list_head.slh_first, nullptr);
    EXPECT_EQ(callSync(ORU_ZB_SVC_ZTS_ADD_DEVICES, two + Bytes(8)).returned, 0);
    hal::keys.resize(2);
    forget();
    EXPECT_EQ(callAsync(ORU_ZB_SVC_ZTS_ENABLE), 0);
    EXPECT_EQ(hal::calls(),
              (std::vector<std::string>{"clearTransientLinkKeys( )", "addInstallCode(b7..b0,18)",
                                        "addInstallCode(a7..a0,18)", "permitJoinZts(1)", "getKeyTableEntry(0)",
                                        "getKeyTableEntry(1)", "getKeyTableEntry(2)"}));
    EXPECT_EQ(lastStatus(), 0);
    EXPECT_EQ(oruZb_getPjoinState(), ORU_ZB_HAL_STATE_ZTS_PJOIN_OPEN);
    EXPECT_TRUE(oruZb_ztsOnAllowlist(two.data()));
    EXPECT_FALSE(oruZb_ztsOnAllowlist(Bytes(8).data()));
    hal::keys.resize(300); // a table that never refuses must not be walked for ever
    EXPECT_EQ(callAsync(ORU_ZB_SVC_ZTS_ENABLE), 0);
    hal::setResult("permitJoinZts", 7);
    EXPECT_EQ(callAsync(ORU_ZB_SVC_ZTS_DISABLE), 0);
    EXPECT_EQ(lastStatus(), 7);
    EXPECT_EQ(oruZb_getPjoinState(), ORU_ZB_HAL_STATE_ZTS_PJOIN_OPEN);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(callSync(ORU_ZB_SVC_ZTS_CLEAR_DEVICES).returned, 0);
        EXPECT_EQ(zts_device_list_head.slh_first, nullptr);
        std::vector<oruZb_ztsDeviceInfo_t> many(5000);
        many[4095].mac_address[0] = 0xC0;
        many[4096].mac_address[0] = 0xD0;
        auto *list = reinterpret_cast<oruZb_ztsDeviceInfoList_t *>(many.data());
        EXPECT_EQ(oruZb_doZtsAddDevices(static_cast<uint32_t>(many.size() * sizeof many[0]), list),
                  ORU_STATUS_OUT_OF_MEMORY);
        EXPECT_TRUE(oruZb_ztsOnAllowlist(many[4095].mac_address)); // the last that fits
        EXPECT_FALSE(oruZb_ztsOnAllowlist(many[4096].mac_address));
    }
}

TEST_F(NetworkTest, RegionCodes) {
    const std::map<std::string, int32_t> table = {
        {"US", 0}, {"DE", 1}, {"ES", 1},       {"FR", 1}, {"GB", 1}, {"IT", 1}, {"JP", 2}, {"IN", 3},
        {"WW", 4}, {"us", 4}, {"\xff\xfe", 4}, {"CA", 6}, {"AU", 7}, {"NZ", 7}, {"BR", 8}, {"MX", 9}};
    const auto set = [](const std::string &code) {
        return callSync(ORU_ZB_SVC_ADAPTER_SET_REGION, Bytes(code.begin(), code.end()) + Bytes{0}).returned;
    };
    for (const auto &[code, region] : table) {
        EXPECT_EQ(set(code), 0) << code;
        EXPECT_EQ(oruZb_getRegionCode(), region) << code;
        EXPECT_EQ(lastCall(), "getNetworkInfo( )");
    }
    const auto before = oruZb_getRegionCode();
    const size_t applied = hal::count("setRegion");
    for (const char *bad : {"", "U", "USA"}) {
        EXPECT_EQ(set(bad), ORU_STATUS_GENERAL_ERROR);
    }
    EXPECT_EQ(callSync(ORU_ZB_SVC_ADAPTER_SET_REGION, {'U', 'S'}).returned, ORU_STATUS_DATA_LEN_INVALID);
    EXPECT_EQ(oruZb_setRegionCode(nullptr), ORU_STATUS_GENERAL_ERROR);
    EXPECT_EQ(oruZb_getRegionCode(), before);
    EXPECT_EQ(hal::count("setRegion"), applied);
    EXPECT_STREQ(oruZb_getRegion(static_cast<oruZbHal_region_t>(5)), "Undefined");
    EXPECT_STREQ(oruZb_getRegion(static_cast<oruZbHal_region_t>(99)), "Undefined");
}

TEST_F(NetworkTest, RegionFollowsTheLastWriterOnBothThreads) {
    for (int round = 0; round < 50; ++round) {
        hal::clearCalls();
        auto retry = std::async(std::launch::async, [] {
            for (int i = 0; i < 20; ++i) {
                (void)oruZb_handleQelAccess(); // as the timer thread does
            }
        });
        for (int i = 0; i < 20; ++i) {
            (void)oruZb_doSetRegion(i % 2 == 0 ? "DE" : "JP");
        }
        retry.get();
        std::string applied;
        for (const std::string &call : hal::calls()) {
            applied = call.rfind("setRegion", 0) == 0 ? call : applied;
        }
        ASSERT_EQ(applied, "setRegion(" + std::to_string(oruZb_getRegionCode()) + ")");
    }
}

TEST_F(NetworkTest, CountryCodeRetries) {
    hal::setResult("setRegion", 3);
    test_without_qel = false;
    EXPECT_EQ(oruZb_handleQelAccess(), 0);
    for (int retry = 2; retry <= 9; ++retry) {
        advance(59'999);
        EXPECT_EQ(attempts, retry - 1);
        advance(1);
        EXPECT_EQ(attempts, retry);
    }
    EXPECT_FALSE(testplat::log::has("World Wide Safe"));
    advance(60'000);
    EXPECT_TRUE(testplat::log::has("Failed 10 times"));
    EXPECT_TRUE(testplat::log::has("World Wide Safe"));
    EXPECT_EQ(attempts, 0);
    advance(479'999);
    EXPECT_EQ(attempts, 0);
    advance(1);
    EXPECT_EQ(attempts, 1);
    country_code_provider = [](char *, size_t) -> oru_status_t { return -77; };
    oruZb_testWithoutQEL(true);
    advance(60'000); // the armed retry runs once more, then never again
    EXPECT_TRUE(testplat::log::has("Failed to get country code from KVS, error code= -77"));
    EXPECT_EQ(testplat::log::count("Region and Tx power settings done"), 1U);
    advance(1'000'000);
    EXPECT_EQ(testplat::log::count("Region and Tx power settings done"), 1U);
    // A client's region that comes between the tenth failure and the fallback stays.
    hal::setResult("setRegion", 0);
    oruZb_testWithoutQEL(false);
    attempts = 9;
    testplat::log::clear();
    testplat::log::on_line = [](const std::string &line) {
        if (line.find("Failed 10 times") != line.npos) {
            (void)oruZb_doSetRegion("JP");
        }
    };
    (void)oruZb_handleQelAccess();
    EXPECT_EQ(oruZb_getRegionCode(), ORU_ZB_HAL_REGION_JAPAN);
    EXPECT_EQ(lastCall(), "getNetworkInfo( )");
    EXPECT_EQ(hal::calls().at(hal::calls().size() - 2), "setRegion(2)");
    advance(1'000'000);
    EXPECT_EQ(attempts, 0);
}

TEST_F(NetworkTest, RadioOnAndOffByState) {
    struct Row {
        uint16_t function;
        oruZb_adapterState_t from, to;
        std::vector<uint16_t> events;
        size_t callbacks, hal_calls;
    };
    const uint16_t on = ORU_ZB_SVC_ADAPTER_ENABLE_RADIO, off = ORU_ZB_SVC_ADAPTER_DISABLE_RADIO;
    const std::vector<Row> rows = {
        {on, ORU_ZB_ADAPTER_OFF, ORU_ZB_ADAPTER_TURNING_ON, {}, 1, 1},
        {on, ORU_ZB_ADAPTER_SERVICE_READY, ORU_ZB_ADAPTER_SERVICE_READY, {1025}, 1, 0},
        {on, ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS, ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS, {1031}, 1, 0},
        {off, ORU_ZB_ADAPTER_OFF, ORU_ZB_ADAPTER_OFF, {1027}, 0, 0},
        {off, ORU_ZB_ADAPTER_TURNING_OFF, ORU_ZB_ADAPTER_TURNING_OFF, {1029}, 0, 0},
        {off, ORU_ZB_ADAPTER_SERVICE_READY, ORU_ZB_ADAPTER_TURNING_OFF, {}, 1, 1},
        {off, ORU_ZB_ADAPTER_TURNING_ON, ORU_ZB_ADAPTER_TURNING_OFF, {}, 1, 1},
    };
    for (const Row &row : rows) {
        adapter_state = row.from;
        forget();
        EXPECT_EQ(callAsync(row.function), 0);
        EXPECT_EQ(adapter_state, row.to);
        EXPECT_EQ(ipc::eventIds(), row.events);
        EXPECT_EQ(ipc::callbacks().size(), row.callbacks);
        EXPECT_EQ(hal::calls().size(), row.hal_calls);
    }
    const int8_t power = -9;
    hal::setResult("setRadioPower", 5);
    EXPECT_EQ(callSync(ORU_ZB_SVC_ADAPTER_SET_RADIO_POWER, bytesOf(power)).returned, 5);
    EXPECT_TRUE(testplat::log::has("zb_tx_power: -9"));
    EXPECT_EQ(callAsync(ORU_ZB_SVC_APING, {}, 2, 9), 0);
    EXPECT_EQ(ipc::callbacks().back().payload, (Bytes{'a', 'p', 'o', 'n', 'g', 0, 0, 0}));
}

TEST_F(NetworkTest, ClearLeavesAfterTheConfirmationEvenAFailedOne) {
    for (const int32_t confirmation : {0, 233}) {
        addDevice(0x1001, 1);
        forget();
        sent().clear();
        EXPECT_EQ(callAsync(ORU_ZB_SVC_CLEAR_NETWORK), 0);
        EXPECT_EQ(lastStatus(), 0); // at once
        EXPECT_EQ(sent().back().destination, 0xFFFF);
        EXPECT_EQ(sent().back().frame.size(), 10U);
        EXPECT_EQ(hal::count("leaveNetwork"), 0U);
        hal::confirm(0, confirmation);
        pump();
        EXPECT_EQ(hal::count("leaveNetwork"), 1U);
        EXPECT_EQ(oruZb_databaseGetDeviceCount(), 0U);
        EXPECT_TRUE(testplat::kvs::content().empty());
    }
    forget();
    EXPECT_EQ(callAsync(ORU_ZB_SVC_CLEAR_NETWORK), 0); // no devices: the coordinator leaves at once
    EXPECT_EQ(hal::calls(), (std::vector<std::string>{"leaveNetwork( )"}));
    addDevice(0x1001, 1);
    hal::setResult("sendZdoMessage", 4);
    EXPECT_EQ(callAsync(ORU_ZB_SVC_CLEAR_NETWORK), 0);
    EXPECT_EQ(lastStatus(), 4);
    EXPECT_EQ(oruZb_databaseGetDeviceCount(), 1U);
    EXPECT_EQ(callAsync(ORU_ZB_SVC_ADAPTER_RESET), 0);
    EXPECT_EQ(oruZb_databaseGetDeviceCount(), 0U);
    EXPECT_EQ(ipc::eventIds().back(), ORU_ZB_SVC_ADAPTER_RESETTING);
    expectAtRest();
}

TEST_F(NetworkTest, NodeLeave) {
    addDevice(0x1001, 1);
    oruZb_nodeInfo_t node{};
    node.id = 0x2222;
    node.device_info.eui64[7] = 1;
    EXPECT_EQ(callAsync(ORU_ZB_SVC_SEND_NODE_LEAVE_REQUEST, bytesOf(node)), 0);
    EXPECT_TRUE(ipc::callbacks().empty()); // unknown node ids are not answered
    EXPECT_TRUE(sent().empty());
    node.id = 0x1001;
    node.device_info.eui64[7] = 9; // the request goes out, nobody is removed
    EXPECT_EQ(callAsync(ORU_ZB_SVC_SEND_NODE_LEAVE_REQUEST, bytesOf(node)), 0);
    EXPECT_EQ(lastStatus(), 0);
    EXPECT_TRUE(ipc::events().empty());
    node.device_info.eui64[7] = 1;
    EXPECT_EQ(callAsync(ORU_ZB_SVC_SEND_NODE_LEAVE_REQUEST, bytesOf(node)), 0);
    EXPECT_EQ(ipc::eventIds(), (std::vector<uint16_t>{ORU_ZB_SVC_DEVICE_LEFT}));
    EXPECT_EQ(recordOf<oruZb_device_t>(ipc::events()[0].payload).node_id, 0x1001);
    EXPECT_EQ(callAsync(ORU_ZB_SVC_SEND_NODE_LEAVE_REQUEST), 0);
    EXPECT_EQ(lastStatus(), ORU_STATUS_NULL_POINTER);
}

TEST_F(NetworkTest, AnAddressBelongsToTheDeviceThatWasStoredLast) {
    const auto nodeIdOf = [](uint8_t last) { // in memory and in the store
        oruZb_device_t device{};
        const uint8_t eui64[8] = {0, 0, 0, 0, 0, 0, 0, last};
        EXPECT_EQ(oruZb_databaseGetDeviceByEui64(eui64, &device), 0);
        char key[65];
        EXPECT_EQ(oruZb_kvsConvertEUI64ToKey(key, sizeof key, eui64), 0);
        EXPECT_EQ(recordOf<oruZb_device_t>(testplat::kvs::content()[key]).node_id, device.node_id);
        return device.node_id;
    };
    const auto leave = [](uint8_t last) {
        uint8_t eui64[8] = {0, 0, 0, 0, 0, 0, 0, last};
        oruZb_handleDeviceLeft(eui64);
    };
    addDevice(0x1001, 1);
    addDevice(0x1002, 2);
    addDevice(0x1001, 3);
    addDevice(0x1001, 3); // its own second record is no stranger
    EXPECT_EQ(nodeIdOf(1), 0xFFFE);
    EXPECT_EQ(nodeIdOf(2), 0x1002);
    EXPECT_EQ(nodeIdOf(3), 0x1001);
    uint8_t first[8] = {0, 0, 0, 0, 0, 0, 0, 1};
    EXPECT_EQ(oruZb_databaseUpdateNodeId(first, 0x1002), 0);
    EXPECT_EQ(nodeIdOf(1), 0x1002);
    EXPECT_EQ(nodeIdOf(2), 0xFFFE);
    addDevice(0xFFFE, 4); // two without an address: the one that left goes
    EXPECT_EQ(nodeIdOf(2), 0xFFFE);
    leave(2);
    EXPECT_EQ(nodeIdOf(4), 0xFFFE);
    EXPECT_TRUE(testplat::log::has("oruZb_handleDeviceLeft: removing fffe from DB"));
    EXPECT_TRUE(testplat::log::has("Removed device 0xfffe from database"));
    EXPECT_EQ(testplat::kvs::content().size(), 3U);
    EXPECT_EQ(recordOf<oruZb_device_t>(ipc::events().back().payload).device_info.eui64[7], 2);
}

TEST_F(NetworkTest, InterpanMakesNetworkCallsBusyAndEnds) {
    oruZb_interpan_t frame{};
    frame.sequence = 42;
    frame.channel_mask = 1U << 15;
    frame.zcl_buf_len = 101;
    EXPECT_EQ(callAsync(ORU_ZB_SVC_SEND_INTERPAN, bytesOf(frame)), 0);
    EXPECT_EQ(lastStatus(), ORU_STATUS_DATA_LEN_INVALID);
    EXPECT_TRUE(sent().empty());
    frame.zcl_buf_len = 10;
    for (const int32_t outcome : {0, 225}) {
        forget();
        sent().clear();
        EXPECT_EQ(callAsync(ORU_ZB_SVC_SEND_INTERPAN, bytesOf(frame)), 0);
        EXPECT_EQ(lastStatus(), 0);
        EXPECT_EQ(adapter_state, ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS);
        for (const uint16_t function : std::initializer_list<uint16_t>{3, 4, 5, 7}) {
            EXPECT_EQ(callSync(function, Bytes(120)).returned, ORU_STATUS_BUSY) << function;
        }
        for (const uint16_t function : std::initializer_list<uint16_t>{258, 259, 263, 265, 268}) {
            EXPECT_EQ(callAsync(function, Bytes(132)), 0);
            EXPECT_EQ(lastStatus(), ORU_STATUS_BUSY) << function;
        }
        EXPECT_EQ(callSync(ORU_ZB_SVC_GETDEVICE_COUNT, Bytes(4)).returned, 0);
        EXPECT_EQ(callAsync(ORU_ZB_SVC_FORMZ3NET_MANUAL, {15}), 0);
        EXPECT_EQ(lastStatus(), 0);
        hal::confirm(0, outcome);
        pump();
        EXPECT_EQ(adapter_state, ORU_ZB_ADAPTER_SERVICE_READY);
        const auto response = recordOf<oruZb_interpanResponse_t>(ipc::events().back().payload);
        EXPECT_EQ(ipc::events().back().id, ORU_ZB_SVC_INTERPAN_COMPLETE);
        EXPECT_EQ(response.sequence, 42);
        EXPECT_EQ(response.status, static_cast<uint32_t>(outcome));
    }
    expectAtRest();
}

TEST_F(NetworkTest, InterpanWithoutCompletionResetsTheAdapterOnce) {
    oruZb_interpan_t frame{};
    EXPECT_EQ(callAsync(ORU_ZB_SVC_SEND_INTERPAN, bytesOf(frame)), 0);
    advance(29'999);
    EXPECT_EQ(hal::count("reset"), 0U);
    advance(1);
    EXPECT_EQ(hal::count("reset"), 1U);
    EXPECT_EQ(adapter_state, ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS);
    hal::stackStatus(ORU_ZB_HAL_STACK_ENABLED_NETWORK_UP);
    pump();
    EXPECT_EQ(adapter_state, ORU_ZB_ADAPTER_SERVICE_READY);
    const size_t timers = testplat::time::live();
    EXPECT_EQ(callAsync(ORU_ZB_SVC_SEND_INTERPAN, bytesOf(frame)), 0);
    EXPECT_EQ(testplat::time::live(), timers); // the expired timer is used again
    advance(30'000);
    EXPECT_EQ(hal::count("reset"), 2U);
}

TEST_F(NetworkTest, Queries) {
    hal::network = {{1, 2, 3, 4, 5, 6, 7, 8}, 0xABCD, -11, 20, {}, 0, 0, 0};
    EXPECT_EQ(callSync(3, Bytes(32, 0xEE)).payload,
              (Bytes{1,    2,    3,    4,    5,    6,    7,    8,    0xCD, 0xAB, 0,    0,    20,   0x4B, 0x4C, 0x4D,
                     0x4E, 0x4F, 0x50, 0x51, 0x52, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5A, 0xF5, 0xEE, 0xEE}));
    const auto info = [] { return recordOf<oruZb_networkInfo_t>(callSync(3, Bytes(32)).payload); };
    hal::setResult("getNetworkInfo", 1);
    hal::setResult("getKey", 1);
    EXPECT_EQ(info().panid, 0xFFFFFFFFU);
    EXPECT_EQ(info().channel, 0xFF);
    EXPECT_EQ(info().radio_tx_power, -1);
    EXPECT_EQ(info().network_key[0], 0xFF);

    hal::adapter.eui64[0] = 0x11;
    hal::adapter.endpoint_count = 9; // only two entries exist
    const auto adapter = recordOf<oruZb_adapterInfo_t>(callSync(17, Bytes(264)).payload);
    EXPECT_STREQ(adapter.firmware_version, "5.1.2.0.");
    EXPECT_EQ(adapter.mac_addr[7], 0x11);
    hal::firmware = Bytes(255, 200);
    EXPECT_EQ(strlen(recordOf<oruZb_adapterInfo_t>(callSync(17, Bytes(264)).payload).firmware_version), 252U);
    const auto local = recordOf<oruZb_nodeInfo_t>(callSync(18, Bytes(748)).payload);
    EXPECT_EQ(local.manufacturer_code, 0x1217);
    EXPECT_EQ(local.device_info.endpoint_count, 2);

    hal::children.resize(3);
    hal::children[2].type = ORU_ZB_HAL_NODE_SLEEPY_END_DEVICE;
    const auto children = callSync(ORU_ZB_SVC_GET_CHILDREN, Bytes(60, 0xEE)).payload;
    EXPECT_EQ(children[16], 1);
    EXPECT_EQ(children[56], 3);
    EXPECT_EQ(children[52], 4);
    EXPECT_EQ(children[57], 0xEE); // what follows the index is not touched
    forget();
    EXPECT_EQ(callSync(ORU_ZB_SVC_GET_CHILDREN, Bytes(19)).returned, 0);
    EXPECT_TRUE(hal::calls().empty());
    EXPECT_EQ(callSync(ORU_ZB_SVC_GET_NEIGHBORS, Bytes(4096)).returned, 0);
    EXPECT_EQ(lastCall(), "getNeighbors(255)");
    hal::setResult("getRouteTableEntries", 12);
    EXPECT_EQ(callSync(ORU_ZB_SVC_GET_ROUTES, Bytes(100)).returned, 12);
    oruZb_scan_t scan{ORU_ZB_SCAN_TYPE_ACTIVE, 0x07FFF800, 3, {}};
    EXPECT_EQ(callAsync(ORU_ZB_SVC_START_SCAN, bytesOf(scan)), 0);
    EXPECT_EQ(lastCall(), "startScan(1,0x7fff800,3)");
    EXPECT_EQ(lastStatus(), 0);
}

TEST_F(NetworkTest, NodePagesAndLookUps) {
    const auto page = [](uint32_t start, size_t size) {
        Bytes payload(size);
        memcpy(payload.data(), &start, std::min<size_t>(size, 4));
        const auto result = callSync(ORU_ZB_SVC_GET_CONN_NODES, payload);
        uint32_t next = 0;
        memcpy(&next, result.payload.data(), std::min<size_t>(4, result.payload.size()));
        return std::pair(result.returned, next);
    };
    for (uint8_t n = 1; n <= 5; ++n) {
        addDevice(static_cast<uint16_t>(0x1000 + n), n);
    }
    EXPECT_EQ(page(0, 4 + 2 * 748), std::pair(-22, 2U));
    EXPECT_EQ(page(2, 4 + 3 * 748 - 1), std::pair(-22, 4U));
    EXPECT_EQ(page(4, 4 + 748), std::pair(0, 5U));
    EXPECT_EQ(page(4, 4 + 3 * 748), std::pair(-1, 5U));
    EXPECT_EQ(page(0, 4), std::pair(-22, 0U));
    EXPECT_EQ(page(0xFFFFFFFF, 4 + 748).first, -1);
    EXPECT_EQ(page(0, 3).first, ORU_STATUS_DATA_LEN_INVALID);
    struct Row {
        int32_t by;
        uint16_t node_id;
        uint8_t eui_last;
        int32_t result;
    };
    for (const Row &row : {Row{0, 0, 0, 0}, Row{4, 0, 0, 0}, Row{5, 0, 0, -8}, Row{-1, 0x1003, 0, 0},
                           Row{-1, 0x9999, 0, -8}, Row{-2, 0, 2, 0}, Row{-2, 0, 77, -8}, Row{-3, 0x1001, 1, -1}}) {
        oruZb_getDevice_t request{};
        request.by = static_cast<oruZb_getDeviceBy_t>(row.by);
        request.device.node_id = row.node_id;
        request.device.device_info.eui64[7] = row.eui_last;
        const auto result = callSync(ORU_ZB_SVC_GETDEVICE, bytesOf(request));
        EXPECT_EQ(result.returned, row.result) << row.by;
        if (row.result != 0) {
            EXPECT_EQ(result.payload, bytesOf(request)); // left alone
        }
    }
}

TEST_F(NetworkTest, NodeListByteForByte) {
    constexpr size_t CLUSTERS = 35;
    Bytes nodes;
    for (uint8_t n = 1; n <= 2; ++n) {
        const auto word = [n](size_t value) { return le16(static_cast<uint16_t>(n * 0x4000 + value)); };
        const Bytes head = word(0x1A2) + word(0x2B3); // node id, manufacturer code
        Bytes info = {n, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, static_cast<uint8_t>(0x80 + n), 5};
        for (uint8_t endpoint = 1; endpoint <= 5; ++endpoint) {
            info = info + word(0x300U + endpoint) + word(0x400U + endpoint) +
                   Bytes{static_cast<uint8_t>(0x10 * n + endpoint), CLUSTERS};
            for (size_t cluster = 1; cluster <= CLUSTERS; ++cluster) {
                info = info + word(endpoint * 0x100U + cluster) + Bytes{static_cast<uint8_t>(cluster % 2), 0xFF};
            }
        }
        auto device = recordOf<oruZb_device_t>(head + info);
        ASSERT_EQ(oruZb_databaseAddDevice(&device), 0);
        nodes = head + Bytes(4, 0xEE) + info + nodes; // the type is not written; the newest comes first
        ASSERT_EQ(testplat::kvs::content().rbegin()->second, head + info);
    }
    const Bytes answer = callSync(ORU_ZB_SVC_GET_CONN_NODES, Bytes(4) + Bytes(2 * 748, 0xEE)).payload;
    EXPECT_EQ(answer, Bytes({2, 0, 0, 0}) + nodes); // and the position after the last
}

TEST_F(NetworkTest, StoredRecordsOfEveryKind) {
    stop();
    SetUpStore();
    ASSERT_TRUE(boot());
    EXPECT_EQ(oruZb_databaseGetDeviceCount(), 3U);
    oruZb_device_t device{};
    ASSERT_EQ(oruZb_databaseGetDeviceByIndex(0, &device), 0); // listed last
    EXPECT_EQ(device.node_id, 0x0303);
    EXPECT_LE(device.device_info.endpoint_count, 5); // counts of a damaged record are not believed
    ASSERT_EQ(oruZb_databaseGetDeviceByIndex(2, &device), 0);
    EXPECT_EQ(device.device_info.endpoint_count, 0); // a short record: its tail is zero
    testplat::log::clear();
    EXPECT_EQ(oruZb_databaseUploadMetrics(), 0);
    EXPECT_EQ(testplat::log::count("zb_device_oui_and_device_id"), 5U + 5U);
    EXPECT_EQ(oruZb_databaseRemoveDevice(0x7777), ORU_STATUS_NOT_FOUND);
    EXPECT_EQ(oruZb_databaseRemoveDevice(0x0303), 0);
    EXPECT_EQ(testplat::kvs::content().size(), 2U);
    char key[66];
    EXPECT_EQ(oruZb_kvsConvertNameToKey(key, 65, "zigbee", std::string(57, 'x').c_str()), 0);
    EXPECT_EQ(oruZb_kvsConvertNameToKey(key, 65, "zigbee", std::string(58, 'x').c_str()), ORU_STATUS_GENERAL_ERROR);
    EXPECT_EQ(oruZb_kvsConvertNameToKey(key, 66, "zigbee", "x"), ORU_STATUS_BAD_PARAM);
    const uint8_t eui64[8] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};
    EXPECT_EQ(oruZb_kvsConvertEUI64ToKey(key, 65, eui64), 0);
    EXPECT_STREQ(key, "zigbee.01:23:45:67:89:ab:cd:ef");
}

// A store that cannot be read is no empty one: its devices are loaded when somebody asks, and nobody is told to leave
// before that was possible.
TEST_F(NetworkTest, AnUnreadableStoreCostsNoDevice) {
    const FakeDevice listed{{0x00, 0, 0, 0, 0, 0, 0, 0}, 0x0101}, stored{{0x02, 0, 0, 0, 0, 0, 0, 0}, 0x0202},
        stranger{{0x09, 0, 0, 0, 0, 0, 0, 0}, 0x0909};
    for (const int unreadable_from : {0, 2}) { // all of it, or all but the first record
        stop();
        SetUpStore();
        testplat::kvs::failReading(unreadable_from);
        ASSERT_TRUE(boot());
        EXPECT_TRUE(database_incomplete);
        EXPECT_EQ(oruZb_databaseGetDeviceCount(), unreadable_from == 0 ? 0U : 1U);
        sent().clear();
        forget();
        const auto askEverybody = [&] {
            advance(1'000);
            for (const FakeDevice &device : {listed, stored, stranger}) {
                device.update(ORU_ZB_HAL_STANDARD_SECURITY_SECURED_REJOIN);
                device.announce();
                pump();
            }
        };
        askEverybody();
        EXPECT_TRUE(sent().empty());
        EXPECT_EQ(testplat::log::count("not told to leave"), 1U);
        testplat::kvs::failReading(-1);
        EXPECT_EQ(recordOf<oruZb_deviceCount_t>(callSync(ORU_ZB_SVC_GETDEVICE_COUNT, Bytes(4)).payload).count,
                  unreadable_from == 0 ? 0U : 1U)
            << "at most once a second";
        advance(1'000);
        EXPECT_EQ(recordOf<oruZb_deviceCount_t>(callSync(ORU_ZB_SVC_GETDEVICE_COUNT, Bytes(4)).payload).count, 3U);
        EXPECT_FALSE(database_incomplete);
        forget();
        askEverybody();
        EXPECT_EQ(ipc::eventIds(), std::vector<uint16_t>(2, ORU_ZB_SVC_DEVICE_SECURED_REJOIN));
        EXPECT_EQ(sent().size(), 2U); // the stranger, at its rejoin and its announce
    }
    testplat::kvs::fail(true); // any other failure means what it always did
    stop();
    ASSERT_TRUE(boot());
    EXPECT_FALSE(database_incomplete);
    sent().clear();
    stored.announce();
    pump();
    EXPECT_EQ(sent().size(), 1U);
}

// What happens while the store cannot be read stands when it can: nobody is listed twice, and nothing that was cleared
// comes back.
TEST_F(NetworkTest, WhatIsKnownByNowIsNotLoadedLate) {
    const FakeDevice joining{{0x02, 0, 0, 0, 0, 0, 0, 0}, 0x7777};
    stop();
    SetUpStore();
    testplat::kvs::failReading(0);
    ASSERT_TRUE(boot());
    hal::stackStatus(ORU_ZB_HAL_STACK_ENABLED_NETWORK_UP);
    pump();
    addDevice(0x4444, 4);
    joining.join();
    testplat::kvs::failReading(-1);
    advance(1'000);
    joining.announce();
    interview(joining, 1);
    oruZb_databaseLoadMissing();
    EXPECT_EQ(oruZb_databaseGetDeviceCount(), 4U);
    oruZb_device_t device{};
    EXPECT_EQ(oruZb_databaseGetDeviceByEui64(joining.eui64.data(), &device), 0);
    EXPECT_EQ(device.node_id, 0x7777);
    stop();
    testplat::kvs::failReading(2);
    ASSERT_TRUE(boot());
    ASSERT_TRUE(database_incomplete);
    testplat::kvs::fail(true);
    EXPECT_EQ(callAsync(ORU_ZB_SVC_ADAPTER_RESET), 0);
    testplat::kvs::fail(false);
    testplat::kvs::failReading(-1);
    advance(1'000);
    EXPECT_EQ(recordOf<oruZb_deviceCount_t>(callSync(ORU_ZB_SVC_GETDEVICE_COUNT, Bytes(4)).payload).count, 0U);
}

TEST_F(NetworkTest, LatencyAndDailyLines) {
    addDevice(0x1001, 1);
    for (const uint32_t sample : {30, 10, 20}) {
        EXPECT_EQ(oruZb_databaseUpdateItemLatency(0x1001, sample), 0);
    }
    EXPECT_EQ(oruZb_databaseUpdateItemLatency(0x4444, 1), ORU_STATUS_NOT_FOUND);
    zb_api_tx_count = 5;
    advance(86'400'000);
    EXPECT_TRUE(testplat::log::has("zb_zcl_tx_count: 3 for node 0x1001"));
    EXPECT_TRUE(testplat::log::has("average : 20ms, zb_device_latency_min: 10ms,zb_device_latency_max: 30ms"));
    EXPECT_TRUE(testplat::log::has("zb_internal_tx_count : 5"));
    EXPECT_FALSE(testplat::log::has("zb_internal_rx_idle"));
    EXPECT_EQ(zb_api_tx_count, 0U);
    forget();
    adapter_state = ORU_ZB_ADAPTER_OFF;
    EXPECT_EQ(oruZb_databaseUpdateItemLatency(0x1001, 0), 0);
    advance(86'400'000);
    EXPECT_FALSE(testplat::log::has("zb_device_latency_average")); // nothing but a 0 ms sample
    EXPECT_TRUE(testplat::log::has("zb_internal_rx_idle"));
}

TEST_F(NetworkTest, TransmitErrorDiagnosis) {
    struct Row {
        uint16_t aps_retry, aps_fail, rate, lo_req, lo_denied, hi_req, hi_denied;
        const char *present, *absent;
    };
    const char *high = "High MAC and APS failures", *low = "Low MAC failures with high APS failures";
    const char *severe = "severe PTA denial", *lo = "denied rate(20%) exceeded threshold(20%)",
               *hi = "denied rate(5%) exceeded threshold(5%)";
    for (const Row &row : {Row{41, 16, 0, 0, 0, 0, 0, high, low}, Row{40, 16, 0, 0, 0, 0, 0, low, high},
                           Row{41, 15, 0, 0, 0, 0, 0, low, high}, Row{2, 1, 0, 0, 0, 0, 0, low, high},
                           Row{1, 5, 0, 0, 0, 0, 0, "0xe1", low}, Row{5, 0, 0, 0, 0, 0, 0, "0xe1", low},
                           Row{0, 0, 100, 0, 0, 0, 0, severe, low}, Row{0, 0, 99, 0, 0, 0, 0, "0xe1", severe},
                           Row{0, 0, 0, 5, 1, 0, 0, lo, "zb_pta_high"}, Row{0, 0, 0, 6, 1, 0, 9, "0xe1", "zb_pta_"},
                           Row{0, 0, 0, 0, 9, 20, 1, hi, "zb_pta_low"}}) {
        testplat::log::clear();
        hal::counters = {};
        hal::counters.aps_tx_ucast_retry = row.aps_retry;
        hal::counters.aps_tx_ucast_fail = row.aps_fail;
        hal::counters.pta_denied_rate = row.rate;
        hal::counters.pta_lo_pri_req = row.lo_req;
        hal::counters.pta_lo_pri_denied = row.lo_denied;
        hal::counters.pta_hi_pri_req = row.hi_req;
        hal::counters.pta_hi_pri_denied = row.hi_denied;
        oruZb_logTxError(ORU_ZB_HAL_MAC_CHANNEL_ACCESSS_FAILURE);
        EXPECT_TRUE(testplat::log::has(row.present)) << row.present;
        EXPECT_FALSE(testplat::log::has(row.absent)) << row.absent;
    }
    hal::counters.cca_failures = 7;
    EXPECT_EQ(recordOf<oruZb_counters_t>(callSync(24, Bytes(22)).payload).cca_failures, 7);
    EXPECT_EQ(recordOf<oruZb_counters_t>(callSync(23, Bytes(22)).payload).cca_failures, 0);
}

} // namespace
