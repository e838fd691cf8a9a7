// SPDX-License-Identifier: Apache-2.0
#include "service_fixture.h"

using testplat::hal::sent;
namespace ipc = testplat::ipc;
namespace hal = testplat::hal;

namespace {

const FakeDevice LAMP{{0x02, 0x11, 0x22, 0, 0, 0, 0xAA, 0x01}, 0x1001};
const FakeDevice PLUG{{0x02, 0x11, 0x22, 0, 0, 0, 0xAA, 0x02}, 0x1002};
const FakeDevice SENSOR{{0x02, 0x11, 0x22, 0, 0, 0, 0xAA, 0x03}, 0x1003};

class DiscoveryTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        bootReady();
    }
    static std::vector<uint16_t> zdoTo(uint16_t node_id) {
        std::vector<uint16_t> clusters;
        for (const testplat::Sent &s : sent()) {
            if (s.kind == testplat::Sent::zdo && s.destination == node_id) {
                clusters.push_back(s.aps.cluster_id);
            }
        }
        return clusters;
    }
    static size_t eventCount(uint16_t id) {
        const auto ids = ipc::eventIds();
        return static_cast<size_t>(std::count(ids.begin(), ids.end(), id));
    }
    static std::vector<std::pair<uint16_t, uint8_t>> leaveRequests() { // destination and flags
        std::vector<std::pair<uint16_t, uint8_t>> out;
        for (const testplat::Sent &s : sent()) {
            if (s.aps.cluster_id == ZDO_MGMT_LEAVE_REQ) {
                out.emplace_back(s.destination, s.frame.at(9));
            }
        }
        return out;
    }
};

TEST_F(DiscoveryTest, EveryListedEndpointAnswersBeforeTheDeviceIsStored) {
    constexpr uint8_t TIME_OUT = 0, NODE = 0; // instead of an answering endpoint; of an endpoint that is asked
    struct Row {
        Bytes listed, answers, asked; // asked: after the list of endpoints and after each answer that asks anew
        bool stored = true;
    };
    for (const Row &row : {Row{{1, 2, 3}, {1, 1, 1, 3, 3, 2}, {1, 2, 2, NODE}}, // late and doubled answers
                           Row{{1, 2, 3}, {3, TIME_OUT, 1, 1, 2}, {1, 1, 1, 2, NODE}},
                           Row{{4, 4, 5, 4, 5}, {4, 4, 5}, {4, 5, NODE}},         // listed twice, answered once
                           Row{{1, 2}, {9, 255, 9, 1, 2}, {1, 1, 1, 1, 2, NODE}}, // strangers, three times
                           Row{{1, 2}, {9, TIME_OUT, 9, 9, TIME_OUT}, {1, 1, 1, 1}, false},
                           Row{{1, 2}, Bytes(300, 9) + Bytes{TIME_OUT}, {1, 1, 1, 1}, false}}) {
        SCOPED_TRACE(::testing::PrintToString(row.answers));
        LAMP.join();
        LAMP.announce();
        pump();
        forget();
        sent().clear();
        LAMP.activeEndpoints(row.listed);
        pump();
        for (const uint8_t endpoint : row.answers) {
            if (endpoint == TIME_OUT) {
                advance(10'000);
                continue;
            }
            advance(10); // what leaves the timer alone does not delay the next time-out
            LAMP.simpleDescriptor(endpoint, {0x0006}, {0x0019});
            pump();
        }
        Bytes asked;
        for (const testplat::Sent &request : sent()) {
            asked.push_back(request.aps.cluster_id == ZDO_SIMPLE_DESC_REQ ? request.frame.at(3) : NODE);
        }
        EXPECT_EQ(asked, row.asked);
        EXPECT_EQ(oruZb_findNodeFailedDiscoveryList(LAMP.eui64.data()) == nullptr, row.stored);
        LAMP.nodeDescriptor();
        pump();
        ASSERT_EQ(eventCount(ORU_ZB_SVC_DEVICE_DISCOVERED), row.stored ? 1U : 0U);
        if (row.stored) {
            const auto info = recordOf<oruZb_device_t>(ipc::events().back().payload).device_info;
            for (size_t i = 0; i < row.listed.size(); ++i) {
                const auto *first =
                    std::ranges::find(info.endpoints, row.listed[i], &oruZbHal_endpointInfo_t::endpoint);
                EXPECT_EQ(first->cluster_count, 2) << i;
            }
            for (size_t i = row.listed.size(); i < 5; ++i) {
                EXPECT_EQ(info.endpoints[i].cluster_count, 0xFF) << i; // not in use
            }
        }
        expectAtRest();
    }
}

TEST_F(DiscoveryTest, DeviceThatJoinsAgainStaysInDiscovery) {
    FakeDevice again = LAMP; // with a new address
    again.node_id = 0x4444;
    // Under interrogation: it goes on at the new address.
    LAMP.join();
    LAMP.announce();
    pump();
    interview(LAMP, 2, 2);
    again.join();
    advance(10'000);
    EXPECT_EQ(zdoTo(again.node_id), (std::vector<uint16_t>{ZDO_SIMPLE_DESC_REQ}));
    again.simpleDescriptor(2, {}, {});
    pump();
    // While it is being stored, before and after its record is there: from the beginning.
    for (const char *moment : {"oruZb_notifyDeviceDiscovered node_id", "zb_db_add"}) {
        SCOPED_TRACE(moment);
        forget();
        sent().clear();
        again.node_id++;
        bool joined = false;
        testplat::log::on_line = [&](const std::string &line) {
            if (!joined && line.find(moment) != line.npos) {
                joined = true;
                again.join();
            }
        };
        const FakeDevice before{LAMP.eui64, static_cast<uint16_t>(again.node_id - 1)};
        before.nodeDescriptor();
        pump();
        testplat::log::on_line = nullptr;
        EXPECT_EQ(ipc::eventIds(), (std::vector<uint16_t>{ORU_ZB_SVC_DEVICE_DISCOVERED, ORU_ZB_SVC_DEVICE_LEFT}));
        EXPECT_EQ(oruZb_databaseGetDeviceCount(), 0U);
        ASSERT_NE(oruZb_findNodeDiscoveryList(LAMP.eui64.data()), nullptr);
        EXPECT_FALSE(testplat::log::has("Device not found in DB"));
        again.announce();
        pump();
        interview(again, 1, 2);
        EXPECT_EQ(device_fail_to_join_counter, 1U);
    }
    again.nodeDescriptor();
    pump();
    EXPECT_EQ(oruZb_databaseGetDeviceCount(), 1U);
    EXPECT_EQ(device_fail_to_join_counter, 0U);
    EXPECT_EQ(discovery_list_head.slh_first, nullptr);
    expectAtRest();
}

TEST_F(DiscoveryTest, NewDevicesAreInterrogatedStoredAndAnnounced) {
    for (const uint8_t endpoints : Bytes{1, 2, 7}) {
        const FakeDevice device{{0x02, 1, 1, 1, 1, 1, 1, endpoints}, static_cast<uint16_t>(0x2000 + endpoints)};
        forget();
        device.join();
        pump();
        EXPECT_EQ(device_fail_to_join_counter, 1U);
        device.announce();
        pump();
        interview(device, endpoints);
        EXPECT_EQ(ipc::eventIds(), (std::vector<uint16_t>{ORU_ZB_SVC_DEVICE_JOINED, ORU_ZB_SVC_DEVICE_DISCOVERED}));
        const auto record = recordOf<oruZb_device_t>(ipc::events().back().payload);
        EXPECT_EQ(ipc::events().back().payload.size(), 744U);
        EXPECT_EQ(record.device_info.endpoint_count, std::min<uint8_t>(endpoints, 5));
        EXPECT_EQ(record.manufacturer_code, 0x1234);
        EXPECT_EQ(record.device_info.endpoints[0].clusters[0].cluster_id, 0x0019); // client clusters come first
        EXPECT_EQ(record.device_info.endpoints[0].clusters[1].server, 1);
        EXPECT_EQ(record.device_info.endpoints[0].clusters[0].reserved, 0xFF);
        EXPECT_EQ(testplat::kvs::content().size(), endpoints == 1 ? 1U : endpoints == 2 ? 2U : 3U);
        EXPECT_EQ(device_fail_to_join_counter, 0U);
        EXPECT_EQ(discovery_list_head.slh_first, nullptr);
    }
    expectAtRest();
    EXPECT_TRUE(testplat::log::has("This is a Zigbee 3.0 device, stack compliance revision: R22"));
}

TEST_F(DiscoveryTest, OneDeviceAtATimeLastReadyFirst) {
    LAMP.join();
    PLUG.join();
    advance(20'000); // neither announced: the second check finds both past their expiry second
    EXPECT_EQ(zdoTo(PLUG.node_id), (std::vector<uint16_t>{ZDO_ACTIVE_EP_REQ}));
    EXPECT_TRUE(zdoTo(LAMP.node_id).empty());
    interview(PLUG, 1);
    EXPECT_EQ(zdoTo(LAMP.node_id), (std::vector<uint16_t>{ZDO_ACTIVE_EP_REQ}));
    interview(LAMP, 1);
    EXPECT_EQ(oruZb_databaseGetDeviceCount(), 2U);
}

TEST_F(DiscoveryTest, FourTimeOutsEndInTheFailedList) {
    LAMP.join();
    LAMP.announce();
    pump();
    for (int request = 1; request <= 4; ++request) {
        EXPECT_EQ(zdoTo(LAMP.node_id).size(), static_cast<size_t>(request));
        EXPECT_EQ(oruZb_findNodeFailedDiscoveryList(LAMP.eui64.data()), nullptr);
        advance(10'000);
    }
    const oruZb_node_t *failed = oruZb_findNodeFailedDiscoveryList(LAMP.eui64.data());
    ASSERT_NE(failed, nullptr);
    EXPECT_EQ(failed->action.num_retries, 0);
    EXPECT_EQ(current_discovery_item, nullptr);
    EXPECT_EQ(oruZb_findNodeDiscoveryList(LAMP.eui64.data()), nullptr);
    EXPECT_TRUE(leaveRequests().empty());
    PLUG.join(); // a good interview in between only delays recovery
    PLUG.announce();
    pump();
    interview(PLUG, 1);
    EXPECT_EQ(eventCount(ORU_ZB_SVC_DEVICE_DISCOVERED), 1U);
    advance(9'999);
    EXPECT_TRUE(leaveRequests().empty());
    advance(1); // the response timer finds no current device: recovery begins
    EXPECT_EQ(leaveRequests().size(), 1U);
}

TEST_F(DiscoveryTest, DeviceThatObeysButNeverAnswersGetsSixNewAttemptsAndIsToldOfOnceADay) {
    const FakeDevice mute{{0x02, 0x11, 0x22, 0, 0, 0, 0xBB, 0x01}, 0x1B01};
    for (size_t day = 1; day <= 2; ++day) {
        mute.join();
        for (int round = 1; round <= 6; ++round) {
            mute.announce();
            pump();
            advance(55'000); // four requests, then two leave requests
            ASSERT_NE(oruZb_findNodeFailedDiscoveryList(mute.eui64.data()), nullptr);
            EXPECT_EQ(testplat::log::count("comes back but never answers"), round < 3 ? day - 1 : day);
            mute.update(ORU_ZB_HAL_STANDARD_SECURITY_SECURED_REJOIN);
        }
        sent().clear();
        advance(86'400'000);
        EXPECT_EQ(leaveRequests().size(), 6U);
        EXPECT_EQ(failed_discovery_list_head.slh_first, nullptr);
    }
}

TEST_F(DiscoveryTest, ResponsesOfEveryWrongLengthAreRefusedAndTheRequestIsRepeated) {
    struct Step {
        uint16_t cluster;
        Bytes good;
    };
    const Bytes address = le16(LAMP.node_id);
    const std::vector<Step> steps = {
        {ZDO_ACTIVE_EP_RSP, Bytes{1, 0} + address + Bytes{2, 1, 2}},
        {ZDO_SIMPLE_DESC_RSP, Bytes{1, 0} + address + Bytes{12, 1, 4, 1, 0, 1, 1, 1, 0, 0, 1, 6, 0}},
        {ZDO_SIMPLE_DESC_RSP, Bytes{1, 0} + address + Bytes{12, 2, 4, 1, 0, 1, 1, 1, 0, 0, 1, 6, 0}},
        {ZDO_NODE_DESC_RSP, Bytes{1, 0} + address + Bytes{1, 0x40, 0x8E, 0x34, 0x12, 82, 82, 0, 0, 0x2C, 82, 0, 0}},
    };
    LAMP.join();
    LAMP.announce();
    pump();
    for (const Step &step : steps) {
        const size_t shortest = step.cluster == ZDO_NODE_DESC_RSP ? 14 : step.good.size();
        for (size_t length = 0; length < shortest; ++length) {
            const auto *before = current_discovery_item;
            const auto state = current_discovery_item->action.discovery_state;
            hal::incoming(LAMP.node_id, 0, step.cluster, Bytes(step.good.begin(), step.good.begin() + length));
            pump();
            ASSERT_EQ(current_discovery_item, before) << length;
            ASSERT_EQ(current_discovery_item->action.discovery_state, state) << step.cluster << " " << length;
        }
        const size_t requests = zdoTo(LAMP.node_id).size();
        advance(10'000); // nothing stopped the response timer
        ASSERT_EQ(zdoTo(LAMP.node_id).size(), requests + 1);
        hal::incoming(0x7777, 0, step.cluster, Bytes{1, 0, 0x77, 0x77} + Bytes(step.good.begin() + 4, step.good.end()));
        pump();
        hal::incoming(LAMP.node_id, 0, step.cluster, step.good);
        pump();
    }
    EXPECT_EQ(eventCount(ORU_ZB_SVC_DEVICE_DISCOVERED), 1U);
    expectAtRest();
}

TEST_F(DiscoveryTest, ParserResults) {
    const auto handle = [](uint16_t cluster, Bytes frame) {
        return oruZb_handleIncomingZdoMsg(cluster, frame.data(), static_cast<uint16_t>(frame.size()));
    };
    const Bytes simple_38 = Bytes{1, 0, 1, 0x10, 0, 1, 4, 1, 0, 1, 1, 38} + Bytes(2 * 38 + 1, 0);
    EXPECT_EQ(oruZb_handleIncomingZdoMsg(ZDO_ACTIVE_EP_RSP, nullptr, 9), ORU_STATUS_NULL_POINTER);
    EXPECT_EQ(handle(0x8034, Bytes(4)), ORU_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(handle(0x1234, Bytes(4)), ORU_STATUS_NOT_SUPPORTED);
    for (const uint16_t cluster : {ZDO_ACTIVE_EP_RSP, ZDO_SIMPLE_DESC_RSP, ZDO_NODE_DESC_RSP}) {
        EXPECT_EQ(handle(cluster, Bytes(20)), ORU_STATUS_CANCELED); // nobody is being asked
    }
    LAMP.join();
    LAMP.announce();
    pump();
    EXPECT_EQ(handle(ZDO_SIMPLE_DESC_RSP, simple_38), ORU_STATUS_DEVICE_STATE_INVALID);
    EXPECT_EQ(handle(ZDO_ACTIVE_EP_RSP, Bytes{1, 0, 1, 0x10, 1, 1, 0}), ORU_STATUS_DATA_LEN_INVALID);
    EXPECT_EQ(handle(ZDO_ACTIVE_EP_RSP, Bytes{1, 0, 9, 0x10, 1, 1}), ORU_STATUS_CANCELED);
    EXPECT_EQ(handle(ZDO_ACTIVE_EP_RSP, Bytes{1, 0, 1, 0x10, 1, 1}), ORU_STATUS_OK);
    EXPECT_EQ(handle(ZDO_SIMPLE_DESC_RSP, simple_38), ORU_STATUS_GENERAL_ERROR);
    Bytes simple_37 = Bytes{1, 0, 1, 0x10, 0, 1, 4, 1, 0, 1, 1, 37} + Bytes(74, 1) + Bytes{20} + Bytes(40, 2);
    EXPECT_EQ(handle(ZDO_SIMPLE_DESC_RSP, Bytes(simple_37.begin(), simple_37.end() - 1)), ORU_STATUS_DATA_LEN_INVALID);
    EXPECT_EQ(handle(ZDO_SIMPLE_DESC_RSP, simple_37), ORU_STATUS_OK);
    EXPECT_TRUE(testplat::log::has("Too many clusters (57)"));
    const auto &endpoint = current_discovery_item->device.device_info.endpoints[0];
    EXPECT_EQ(endpoint.cluster_count, 35);
    for (int i = 0; i < 35; ++i) { // client clusters come first
        EXPECT_EQ(endpoint.clusters[i].cluster_id, i < 20 ? 0x0202 : 0x0101) << i;
    }
    pump();
}

TEST_F(DiscoveryTest, NoEndpointsFailsAfterFourTimeOuts) {
    LAMP.join();
    LAMP.announce();
    pump();
    LAMP.activeEndpoints({});
    pump();
    EXPECT_TRUE(testplat::log::has("All endpoints are accounted for!"));
    advance(40'000);
    EXPECT_NE(oruZb_findNodeFailedDiscoveryList(LAMP.eui64.data()), nullptr);
}

TEST_F(DiscoveryTest, JoinReportsByKind) {
    constexpr int32_t SECURED = ORU_ZB_HAL_STANDARD_SECURITY_SECURED_REJOIN;
    constexpr int32_t UNSECURED = ORU_ZB_HAL_STANDARD_SECURITY_UNSECURED_REJOIN;
    constexpr int32_t JOIN = ORU_ZB_HAL_STANDARD_SECURITY_UNSECURED_JOIN;
    constexpr int32_t LEFT = ORU_ZB_HAL_DEVICE_LEFT, NO_SUCH = 9;
    struct Row {
        bool known, failed; // before
        int32_t update;
        std::vector<uint16_t> events;
        size_t leaves = 0;
    };
    const std::vector<Row> rows = {
        {false, false, UNSECURED, {ORU_ZB_SVC_DEVICE_UNSECURED_REJOIN}},
        {false, false, SECURED, {}, 1}, // a stranger has to join properly
        {true, false, SECURED, {ORU_ZB_SVC_DEVICE_SECURED_REJOIN}},
        {false, true, SECURED, {ORU_ZB_SVC_DEVICE_SECURED_REJOIN}},
        {true, false, LEFT, {}},
        {false, true, LEFT, {}},
        {true, false, NO_SUCH, {}},
        {true, false, JOIN, {ORU_ZB_SVC_DEVICE_JOINED, ORU_ZB_SVC_DEVICE_LEFT}}, // the record goes after the news
        {false, true, JOIN, {ORU_ZB_SVC_DEVICE_JOINED}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.update);
        if (row.known) {
            oruZb_device_t device{};
            device.node_id = 0x0999;
            memcpy(device.device_info.eui64, LAMP.eui64.data(), 8);
            ASSERT_EQ(oruZb_databaseAddDevice(&device), ORU_STATUS_OK);
        }
        if (row.failed) {
            Eui64Bytes eui64 = LAMP.eui64;
            ASSERT_NE(oruZb_addOrUpdateToFailedDiscoveryList(eui64.data(), 0x1001, 0), nullptr);
        }
        forget();
        sent().clear();
        LAMP.update(row.update);
        pump();
        EXPECT_EQ(ipc::eventIds(), row.events);
        EXPECT_EQ(leaveRequests().size(), row.leaves);
        if (row.failed) {
            EXPECT_EQ(oruZb_findNodeFailedDiscoveryList(LAMP.eui64.data()), nullptr);
        }
        Eui64Bytes eui64 = LAMP.eui64;
        (void)oruZb_deleteFromDiscoveryList(eui64.data());
        (void)oruZb_databaseRemoveAll();
        (void)oruZb_databaseDeInit();
        expectAtRest();
    }
}

TEST_F(DiscoveryTest, SecondJoinOfAListedDeviceOnlyUpdatesItsAddress) {
    LAMP.join();
    forget();
    FakeDevice again = LAMP;
    again.node_id = 0x3333;
    again.join();
    pump();
    EXPECT_TRUE(ipc::events().empty());
    EXPECT_EQ(oruZb_findNodeDiscoveryList(LAMP.eui64.data())->device.node_id, 0x3333);
    EXPECT_TRUE(testplat::log::has("trying to rejoin with a new node ID 0x3333"));
}

TEST_F(DiscoveryTest, InstallCodeModeIgnoresStrangersCompletely) {
    oruZb_ztsDeviceInfo_t allowed{};
    memcpy(allowed.mac_address, LAMP.eui64.data(), 8);
    EXPECT_EQ(callSync(ORU_ZB_SVC_ZTS_ADD_DEVICES, bytesOf(allowed)).returned, 0);
    EXPECT_EQ(callAsync(ORU_ZB_SVC_ZTS_ENABLE), 0);
    forget();
    PLUG.join();
    pump();
    EXPECT_TRUE(ipc::events().empty());
    EXPECT_EQ(hal::count("send"), 0U);
    EXPECT_EQ(oruZb_findNodeDiscoveryList(PLUG.eui64.data()), nullptr);
    LAMP.join();
    EXPECT_EQ(ipc::eventIds(), (std::vector<uint16_t>{ORU_ZB_SVC_DEVICE_JOINED}));
}

TEST_F(DiscoveryTest, AnnounceOfKnownUnknownAndShort) {
    oruZb_device_t device{};
    device.node_id = 0x0999;
    memcpy(device.device_info.eui64, LAMP.eui64.data(), 8);
    ASSERT_EQ(oruZb_databaseAddDevice(&device), ORU_STATUS_OK);
    LAMP.announce(); // known, new address
    pump();
    EXPECT_EQ(oruZb_databaseGetDevice(LAMP.node_id, &device), ORU_STATUS_OK);
    EXPECT_EQ(recordOf<oruZb_device_t>(testplat::kvs::content().begin()->second).node_id, LAMP.node_id);
    PLUG.announce(); // a stranger is told to leave
    pump();
    ASSERT_EQ(leaveRequests().size(), 1U);
    EXPECT_EQ(sent().back().frame, Bytes{1} + PLUG.lsb() + Bytes{0});
    for (size_t length = 0; length < 12; ++length) {
        hal::incoming(SENSOR.node_id, 0, ZDO_DEVICE_ANNCE, Bytes(length, 0x5A));
    }
    pump();
    EXPECT_EQ(leaveRequests().size(), 1U);
}

TEST_F(DiscoveryTest, RecoveryOrderSpacingFlagsAndEnd) {
    for (const FakeDevice *device : {&LAMP, &PLUG, &SENSOR}) {
        Eui64Bytes eui64 = device->eui64;
        ASSERT_NE(oruZb_addOrUpdateToFailedDiscoveryList(eui64.data(), device->node_id, 0), nullptr);
    }
    oruZb_handleDeviceRecovery();
    using Requests = std::vector<std::pair<uint16_t, uint8_t>>;
    EXPECT_EQ(leaveRequests(), (Requests{{0x1003, 0}}));
    advance(199);
    EXPECT_EQ(leaveRequests().size(), 1U);
    EXPECT_EQ(callSync(ORU_ZB_SVC_PERMITJOIN_START).returned, 0); // the flag is decided per request
    advance(1);
    EXPECT_EQ(leaveRequests().back(), (std::pair<uint16_t, uint8_t>{0x1002, 0x80}));
    EXPECT_EQ(callSync(ORU_ZB_SVC_PERMITJOIN_STOP).returned, 0);
    advance(200);
    EXPECT_EQ(leaveRequests(), (Requests{{0x1003, 0}, {0x1002, 0x80}, {0x1001, 0}}));
    advance(9'999);
    EXPECT_EQ(leaveRequests().size(), 3U);
    advance(1);
    EXPECT_EQ(leaveRequests().size(), 4U);
    PLUG.update(ORU_ZB_HAL_DEVICE_LEFT); // the cursor's device vanishes: the pass restarts at the head
    advance(200);
    EXPECT_EQ(leaveRequests().back().first, 0x1003);
    Eui64Bytes sensor_eui64 = SENSOR.eui64; // entered again after three requests: six more
    ASSERT_NE(oruZb_addOrUpdateToFailedDiscoveryList(sensor_eui64.data(), SENSOR.node_id, 0), nullptr);
    advance(120'000);
    EXPECT_EQ(failed_discovery_list_head.slh_first, nullptr);
    size_t lamp = 0, sensor = 0;
    for (const auto &[node_id, flags] : leaveRequests()) {
        lamp += node_id == 0x1001 ? 1U : 0U;
        sensor += node_id == 0x1003 ? 1U : 0U;
    }
    EXPECT_EQ(lamp, 6U);
    EXPECT_EQ(sensor, 9U);
    EXPECT_EQ(testplat::log::count("Failed to Recover"), 2U);
    EXPECT_EQ(testplat::time::untilNext() > 10'000, true); // recovery does not wake any more
}

TEST_F(DiscoveryTest, ZdoFramesAndSequence) {
    const auto bind = [](const Bytes &body) { return callSync(ORU_ZB_SVC_BINDING, le16(0x1234) + body).returned; };
    Bytes body(81);
    std::iota(body.begin(), body.end(), uint8_t{0x40});
    EXPECT_EQ(bind(body), ORU_STATUS_OK);
    EXPECT_EQ(sent().back().destination, 0x1234);
    EXPECT_EQ(sent().back().frame, Bytes{1} + body);
    EXPECT_EQ(bytesOf(sent().back().aps), (Bytes{0, 0, 0x21, 0, 0, 0, 0x40, 0x11, 0, 0, 0, 0}));
    EXPECT_EQ(bind(Bytes(82)), ORU_STATUS_PARAM_OUT_OF_RANGE);
    EXPECT_EQ(bind(Bytes(256)), ORU_STATUS_BAD_PARAM);
    EXPECT_EQ(sent().size(), 1U);
    EXPECT_EQ(oruZb_sendBindingRequest(0x1001, nullptr, 1), ORU_STATUS_NULL_POINTER);
    uint8_t eui64[8] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
    EXPECT_EQ(oruZb_sendNodeLeaveNetworkRequest(0x1001, eui64, 0x80), ORU_STATUS_OK);
    EXPECT_EQ(sent().back().frame, (Bytes{2, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0x00, 0x80}));
    EXPECT_EQ(sent().back().aps.options, 0x1140);
    for (int i = 3; i <= 129; ++i) {
        EXPECT_EQ(oruZdo_getSeqNum(), i % 128);
    }
    int internal = 0;
    for (uint32_t cluster = 0; cluster <= 0xFFFF; ++cluster) {
        internal += oruZb_isInternalZdoMessage(static_cast<uint16_t>(cluster)) ? 1 : 0;
    }
    EXPECT_EQ(internal, 4);
}

} // namespace
