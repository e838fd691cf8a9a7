// SPDX-License-Identifier: Apache-2.0
// Sends, confirmations, inter-PAN, scans, counters.
#include "zbhal_fixture.h"
#include <algorithm>
#include <cstring>
#include <map>
#include <random>

namespace zbhal_test {

class Traffic : public HalTest {
protected:
    // Status of the one confirmation that a send to the node gets.
    int32_t outcome(uint16_t node_id) {
        record().confirmations.clear();
        EXPECT_EQ(sendZcl(node_id, 77), 0);
        advance(20000);
        EXPECT_EQ(record().confirmations.size(), 1U);
        return record().confirmations.empty() ? -1 : record().confirmations[0].status;
    }
};

void onInterpan(oru_status_t status) {
    const std::lock_guard lock(record().mutex);
    record().interpan.push_back(status);
}

oru_status_t sendInterpan(uint32_t mask = 0x00000800) {
    oruZbHal_interpanHeader_t header{};
    uint8_t frame[] = {0x11, 0x01, 0x00};
    return oruZbHal_sendRawInterpanMessageOnChannels(mask, &header, frame, sizeof frame, onInterpan);
}

TEST_P(Traffic, aCommandReachesTheDeviceAndTheAnswerComesBack) {
    scenario_.devices = {device("lamp", 1), device("plug", 2, mesh::Role::router, "lamp")};
    startWithNetwork(scenario_);
    joined("lamp");
    const uint16_t plug = joined("plug");
    record().frames.clear();

    oruZbHal_apsFrame_t aps_frame{0x0104, 0x0006, 1, 1, ORU_ZB_HAL_APS_OPTION_RETRY, 0, 0, 0};
    uint8_t toggle[] = {0x01, 0x21, 0x02};
    uint32_t request_id = 0x00030007;
    EXPECT_EQ(
        oruZbHal_sendZclUnicast(
            plug, &aps_frame, toggle, sizeof toggle,
            [](oruZbHal_outgoingMessageType_t type, uint16_t destination, oruZbHal_apsFrame_t *frame, uint16_t length,
               uint8_t *message, oruZbHal_clusterCommandStatus_t status, uint32_t id) {
                const std::lock_guard lock(record().mutex);
                record().confirmations.push_back({id, status, destination, type, *frame, {message, message + length}});
            },
            &request_id),
        0);
    EXPECT_NE(aps_frame.sequence, 0) << "the counter used, before returning";
    std::fill(std::begin(toggle), std::end(toggle), uint8_t{0xEE}); // the caller's again
    advance(3000);
    ASSERT_EQ(record().confirmations.size(), 1U);
    const Confirmation &confirmation = record().confirmations[0];
    EXPECT_EQ(confirmation.request_id, 0x00030007U);
    EXPECT_EQ(confirmation.status, 0);
    EXPECT_EQ(confirmation.destination, plug);
    EXPECT_EQ(confirmation.type, ORU_ZB_HAL_OUTGOING_DIRECT);
    EXPECT_EQ(confirmation.aps_frame.sequence, aps_frame.sequence);
    EXPECT_EQ(confirmation.message, (std::vector<uint8_t>{0x01, 0x21, 0x02}));
    ASSERT_FALSE(record().frames.empty());
    EXPECT_EQ(record().frames[0].source, plug);
    EXPECT_EQ(record().frames[0].message[1], 0x21) << "the transaction sequence of the request";

    record().frames.clear();
    EXPECT_EQ(sendZdo(plug, 0x0005, {0x42, static_cast<uint8_t>(plug), static_cast<uint8_t>(plug >> 8)}), 0);
    advance(3000);
    ASSERT_EQ(record().frames.size(), 1U);
    EXPECT_EQ(record().frames[0].aps_frame.cluster_id, 0x8005);
    EXPECT_EQ(record().frames[0].message,
              (std::vector<uint8_t>{0x42, 0x00, static_cast<uint8_t>(plug), static_cast<uint8_t>(plug >> 8), 1, 1}));
    EXPECT_EQ(record().confirmations.back().request_id, 0U);
}

TEST_P(Traffic, everyKindOfFailureHasItsStatus) {
    scenario_.devices = {device("near", 1), device("far", 2, mesh::Role::router, "near"), device("left", 3),
                         device("sleeper", 4, mesh::Role::sleepy_end_device),
                         device("deep sleeper", 5, mesh::Role::sleepy_end_device)};
    scenario_.devices[1].link_quality = 70; // no way past near
    scenario_.devices[3].poll_interval_ms = 5000;
    scenario_.devices[4].poll_interval_ms = 3600000;
    startWithNetwork(scenario_);
    const uint16_t near = joined("near");
    const uint16_t far = joined("far");
    const uint16_t left = joined("left");
    const uint16_t sleeper = joined("sleeper");
    const uint16_t deep_sleeper = joined("deep sleeper");
    EXPECT_EQ(sim().leave("left"), "");
    mesh::Faults deaf;
    deaf.deaf = true;
    mesh::Faults silent;
    silent.silent = true;
    mesh::Faults status;
    status.send_status = ORU_ZB_HAL_APS_SECURITY_FAIL;
    mesh::AirSpec jammed = sim().getAir();
    jammed.interference = 1.0;
    mesh::AirSpec denied = sim().getAir();
    denied.pta_denial = 1.0;
    const mesh::AirSpec clear = sim().getAir();

    EXPECT_EQ(outcome(near), 0);
    EXPECT_EQ(outcome(far), 0);
    EXPECT_EQ(outcome(sleeper), 0) << "at its next poll";
    EXPECT_EQ(outcome(deep_sleeper), ORU_ZB_HAL_MAC_TRANSACTION_EXPIRED);
    EXPECT_EQ(outcome(left), ORU_ZB_HAL_NWK_UNKNOWN_DEVICE);
    EXPECT_EQ(outcome(static_cast<uint16_t>(near ^ far ^ 0x0100)), ORU_ZB_HAL_NWK_ROUTE_DISCOVERY_FAILED);
    EXPECT_EQ(sim().setFaults("near", deaf), "");
    EXPECT_EQ(outcome(near), ORU_ZB_HAL_MAC_NO_ACK);
    EXPECT_EQ(sim().setFaults("near", silent), "");
    EXPECT_EQ(outcome(near), 0) << "taken, only not answered";
    EXPECT_EQ(sim().setFaults("near", status), "");
    EXPECT_EQ(outcome(near), ORU_ZB_HAL_APS_SECURITY_FAIL);
    EXPECT_EQ(sim().setFaults("near", {}), "");
    EXPECT_EQ(sim().setFaults("far", deaf), "");
    EXPECT_EQ(outcome(far), ORU_ZB_HAL_NWK_ROUTE_ERROR);
    EXPECT_EQ(sim().setFaults("far", {}), "");
    for (const auto &[air, name] : {std::pair(jammed, "jammed"), std::pair(denied, "denied")}) {
        EXPECT_EQ(sim().setAir(air), "");
        EXPECT_EQ(outcome(near), ORU_ZB_HAL_MAC_CHANNEL_ACCESSS_FAILURE) << name;
    }
    EXPECT_EQ(sim().setAir(clear), "");
    EXPECT_EQ(sim().setPower("near", false), "");
    EXPECT_EQ(outcome(near), ORU_ZB_HAL_MAC_NO_ACK);
    EXPECT_EQ(outcome(far), ORU_ZB_HAL_NWK_ROUTE_DISCOVERY_FAILED) << "its only router is off";
}

TEST_P(Traffic, badSendsAreRefusedAndNeverConfirmed) {
    startWithNetwork(scenario_);
    oruZbHal_apsFrame_t aps_frame{};
    uint8_t payload[200] = {};
    EXPECT_EQ(oruZbHal_sendZdoMessage(1, nullptr, payload, 2, nullptr, 0), ORU_STATUS_NULL_POINTER);
    EXPECT_EQ(oruZbHal_sendZdoMessage(1, &aps_frame, nullptr, 2, nullptr, 0), ORU_STATUS_NULL_POINTER);
    EXPECT_EQ(oruZbHal_sendZdoMessage(1, &aps_frame, payload, 200, nullptr, 0), ORU_ZB_HAL_APS_ASDU_TOO_LONG);
    EXPECT_NE(sendZcl(0, 1), 0) << "the coordinator itself";
    EXPECT_EQ(sendInterpan(0x000007FF), ORU_STATUS_PARAM_OUT_OF_RANGE);
    EXPECT_EQ(hal::refuseNext("sendZclUnicast", 2, 240), "");
    EXPECT_NE(hal::refuseNext("sendNothing", 1, 1), "");
    EXPECT_EQ(sendZcl(1, 1), 240);
    EXPECT_EQ(sendZcl(1, 1), 240);
    EXPECT_EQ(oruZbHal_disable(), 0);
    EXPECT_EQ(sendZcl(1, 1), ORU_STATUS_DEVICE_STATE_INVALID);
    advance(5000);
    EXPECT_EQ(sendZcl(1, 1), ORU_STATUS_DEVICE_STATE_INVALID);
    EXPECT_TRUE(record().confirmations.empty());
}

// Whatever happens to the adapter and the devices, every accepted send is confirmed once and a refused one never.
TEST_P(Traffic, confirmationsComeExactlyOnce) {
    scenario_.devices = {device("a", 1), device("b", 2, mesh::Role::router, "a"),
                         device("c", 3, mesh::Role::sleepy_end_device)};
    scenario_.air.loss = 0.2;
    scenario_.air.interference = 0.3;
    scenario_.air.max_in_flight = 12;
    for (uint32_t seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        startWithNetwork(scenario_);
        std::vector<uint16_t> nodes = {joined("a"), joined("b"), joined("c"), 0x1234, 0xFFFF};
        record().confirmations.clear();
        std::map<uint32_t, int> expected;
        uint32_t request_id = 0;
        size_t accepted_interpan = 0;
        mesh::Faults holding;
        holding.hold_confirmations = true;
        for (int step = 0; step < 300; ++step) {
            const uint16_t node_id = nodes[random() % nodes.size()];
            switch (random() % 60) {
            case 0:
                oruZbHal_reset();
                break;
            case 1:
                oruZbHal_disable();
                break;
            case 2:
                sim().adapterFatalError();
                break;
            case 3:
                oruZbHal_leaveNetwork();
                break;
            case 4:
            case 5:
                oruZbHal_enable();
                form();
                break;
            case 6:
                sim().setFaults("a", random() % 2 == 0 ? holding : mesh::Faults{});
                break;
            case 7:
                hal::holdConfirmations(random() % 2 == 0);
                break;
            case 8:
                accepted_interpan += sendInterpan() == 0 ? 1 : 0;
                break;
            case 9:
                hal::refuseNext("interpanCompletion", 1, 1);
                break;
            default:
                if (sendZcl(node_id, ++request_id) == 0) {
                    expected[request_id] = 1;
                }
                break;
            }
            advance(random() % 200);
        }
        hal::refuseNext("interpanCompletion", 0, 1);
        oruZbHal_reset(); // frees what is held
        oruZbHal_disable();
        advance(60000);
        std::map<uint32_t, int> confirmed;
        for (const Confirmation &confirmation : record().confirmations) {
            ++confirmed[confirmation.request_id];
        }
        EXPECT_EQ(confirmed, expected);
        EXPECT_GT(expected.size(), 40U) << "the run must mean something";
        EXPECT_EQ(record().interpan.size(), accepted_interpan);
    }
}

TEST_P(Traffic, aFullAdapterRefusesAndAResetFailsWhatIsHeld) {
    scenario_.devices = {device("lamp", 1)};
    scenario_.air.max_in_flight = 3;
    startWithNetwork(scenario_);
    const uint16_t lamp = joined("lamp");
    mesh::Faults holding;
    holding.hold_confirmations = true;
    EXPECT_EQ(sim().setFaults("lamp", holding), "");
    for (uint32_t id = 1; id <= 3; ++id) {
        EXPECT_EQ(sendZcl(lamp, id), 0);
    }
    EXPECT_EQ(sendZcl(lamp, 4), ORU_ZB_HAL_MAC_TRANSACTION_OVERFLOW);
    advance(60000);
    EXPECT_TRUE(record().confirmations.empty());
    EXPECT_EQ(oruZbHal_reset(), 0);
    advance(1000);
    ASSERT_EQ(record().confirmations.size(), 3U);
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(record().confirmations[i].request_id, i + 1) << "in the order of sending";
        EXPECT_EQ(record().confirmations[i].status, ORU_ZB_HAL_NWK_FRAME_NOT_BUFFERED);
    }
}

TEST_P(Traffic, broadcastLeaveEmptiesTheNetwork) {
    scenario_.devices = {device("a", 1), device("b", 2, mesh::Role::end_device, "a"), device("c", 3)};
    startWithNetwork(scenario_);
    joined("a");
    joined("b");
    joined("c");
    record().joins.clear();
    record().confirmations.clear();
    EXPECT_EQ(sendZdo(0xFFFF, 0x0034, std::vector<uint8_t>{1, 0, 0, 0, 0, 0, 0, 0, 0, 0}), 0);
    advance(5000);
    ASSERT_EQ(record().confirmations.size(), 1U);
    EXPECT_EQ(record().confirmations[0].status, 0);
    EXPECT_EQ(record().confirmations[0].type, ORU_ZB_HAL_OUTGOING_BROADCAST);
    for (const char *name : {"a", "b", "c"}) {
        EXPECT_FALSE(row(name).in_network) << name;
    }
    EXPECT_FALSE(record().joins.empty());
}

TEST_P(Traffic, interpanCompletesOnceAndALostCompletionWaitsForAReset) {
    startWithNetwork(scenario_);
    EXPECT_EQ(sendInterpan(0x07FFF800), 0);
    EXPECT_TRUE(record().interpan.empty());
    advance(5000);
    EXPECT_EQ(record().interpan, (std::vector<int32_t>{0}));
    EXPECT_EQ(hal::refuseNext("interpanCompletion", 1, 1), "");
    EXPECT_EQ(sendInterpan(), 0);
    advance(60000);
    EXPECT_EQ(record().interpan.size(), 1U);
    EXPECT_EQ(sendInterpan(), 0) << "under way when the reset comes";
    EXPECT_EQ(oruZbHal_reset(), 0);
    advance(60000);
    ASSERT_EQ(record().interpan.size(), 3U);
    EXPECT_LT(record().interpan[1], 0);
    EXPECT_LT(record().interpan[2], 0);
}

TEST_P(Traffic, scansReportAndComplete) {
    scenario_.energy_dbm[20 - 11] = -35;
    scenario_.foreign_networks = {{0xBEEF, 20, true, {1, 2, 3, 4, 5, 6, 7, 8}, 90}, {0xCAFE, 11, false, {}, 60}};
    startWithNetwork(scenario_); // on channel 15
    EXPECT_EQ(oruZbHal_startScan(2, 0x00100000, 3), ORU_STATUS_PARAM_OUT_OF_RANGE);
    EXPECT_EQ(oruZbHal_startScan(0, 0x00000400, 3), ORU_STATUS_PARAM_OUT_OF_RANGE);
    EXPECT_EQ(oruZbHal_startScan(0, 0x07FFF800, 3), 0);
    EXPECT_EQ(oruZbHal_startScan(0, 0x07FFF800, 3), ORU_STATUS_BUSY);
    advance(10000);
    ASSERT_EQ(record().energy.size(), 16U);
    EXPECT_GE(record().energy[20 - 11].second, -35);
    EXPECT_LT(record().energy[0].second, -80);
    EXPECT_EQ(record().scans.back(), (std::pair<uint8_t, int32_t>{26, 0}));
    EXPECT_EQ(oruZbHal_startScan(1, 0x00108000, 2), 0); // channels 15 and 20
    advance(10000);
    ASSERT_EQ(record().networks.size(), 2U);
    EXPECT_EQ(record().networks[0].channel, 15);
    EXPECT_EQ(record().networks[1].pan_id, 0xBEEF);
    EXPECT_TRUE(record().networks[1].allowing_join);
    EXPECT_EQ(oruZbHal_startScan(0, 0x07FFF800, 5), 0);
    advance(600);
    EXPECT_EQ(oruZbHal_reset(), 0);
    advance(60000);
    EXPECT_EQ(record().scans.size(), 3U);
    EXPECT_EQ(record().scans.back().second, ORU_STATUS_CANCELED);
}

TEST_P(Traffic, countersTellInterferenceDenialAndAbsenceApart) {
    scenario_.devices = {device("lamp", 1)};
    startWithNetwork(scenario_);
    const uint16_t lamp = joined("lamp");
    oruZbHal_counters_t counters{};
    const auto measure = [&](const mesh::AirSpec &air, const mesh::Faults &faults) {
        EXPECT_EQ(oruZbHal_getAndClearDebugCounters(&counters), 0);
        EXPECT_EQ(sim().setAir(air), "");
        EXPECT_EQ(sim().setFaults("lamp", faults), "");
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(sendZcl(lamp, 1), 0);
            advance(3000);
        }
        EXPECT_EQ(oruZbHal_getDebugCounters(&counters), 0);
        oruZbHal_counters_t again{};
        EXPECT_EQ(oruZbHal_getAndClearDebugCounters(&again), 0);
        EXPECT_EQ(memcmp(&counters, &again, sizeof counters), 0);
        EXPECT_EQ(oruZbHal_getDebugCounters(&again), 0);
        EXPECT_EQ(again.pta_lo_pri_req, 0);
    };
    const mesh::AirSpec clear = sim().getAir();
    mesh::AirSpec air = clear;
    measure(air, {});
    EXPECT_EQ(counters.pta_lo_pri_req, 20);
    EXPECT_EQ(counters.cca_failures + counters.mac_tx_ucast_retry + counters.aps_tx_ucast_fail, 0);
    air.interference = 0.8;
    measure(air, {});
    EXPECT_GT(counters.cca_retries, 20);
    EXPECT_GT(counters.cca_failures, 3);
    air = clear;
    air.pta_denial = 1.0;
    measure(air, {});
    EXPECT_EQ(counters.pta_denied_rate, 100);
    EXPECT_EQ(counters.pta_lo_pri_denied, counters.pta_lo_pri_req);
    mesh::Faults deaf;
    deaf.deaf = true;
    measure(clear, deaf);
    EXPECT_EQ(counters.aps_tx_ucast_fail, 20);
    EXPECT_EQ(counters.aps_tx_ucast_retry, 60);
    EXPECT_EQ(counters.mac_tx_ucast_fail, 80);
    EXPECT_EQ(counters.pta_denied_rate, 0);
}

TEST_P(Traffic, adapterDescribesItself) {
    startWithNetwork(scenario_);
    oruZbHal_adapterInfo_t info{};
    EXPECT_EQ(oruZbHal_getAdapterInfo(&info), 0);
    ASSERT_EQ(info.endpoint_count, 1);
    EXPECT_EQ(info.endpoints[0].cluster_count, 23);
    EXPECT_EQ(info.endpoints[0].device_id, 7);
    EXPECT_EQ(info.eui64[0], scenario_.coordinator.eui64[7]);
    const uint16_t cluster = 0x0006;
    EXPECT_EQ(oruZbHal_addEndpoint(2, 0x0104, 5, 1, 1, 0, &cluster, nullptr), 0);
    EXPECT_EQ(oruZbHal_addEndpoint(2, 0x0104, 6, 1, 1, 0, &cluster, nullptr), 0) << "replaced";
    EXPECT_EQ(oruZbHal_addEndpoint(3, 0x0104, 5, 1, 1, 0, &cluster, nullptr), ORU_STATUS_OUT_OF_MEMORY);
    EXPECT_EQ(oruZbHal_getAdapterInfo(&info), 0);
    EXPECT_EQ(info.endpoint_count, 2);
    EXPECT_EQ(info.endpoints[1].device_id, 6);
    uint8_t version[255];
    uint8_t count = 2;
    EXPECT_EQ(oruZbHal_getFwVersion(version, &count), 0);
    EXPECT_EQ(count, 2) << "never more than the capacity";
    count = 255;
    EXPECT_EQ(oruZbHal_getFwVersion(version, &count), 0);
    EXPECT_EQ(count, scenario_.coordinator.firmware_version.size());
}

TEST_P(Traffic, theSameSeedGivesTheSameRun) {
    scenario_.devices = {device("a", 1), device("b", 2, mesh::Role::sleepy_end_device, "a")};
    scenario_.air.loss = 0.3;
    scenario_.devices[1].reports = {{1, 0x0006, 0x0000, 1000}};
    const auto run = [this] {
        startWithNetwork(scenario_);
        const uint16_t a = joined("a");
        joined("b");
        for (uint32_t i = 0; i < 20; ++i) {
            sendZcl(a, i);
            advance(500);
        }
        return record().trace;
    };
    const std::string first = run();
    EXPECT_GT(std::count(first.begin(), first.end(), '\n'), 50);
    EXPECT_EQ(first, run());
}

INSTANTIATE_TEST_SUITE_P(modes, Traffic, ::testing::Values(hal::Mode::descriptor, hal::Mode::thread),
                         [](const auto &mode) {
                             return std::string(mode.param == hal::Mode::thread ? "thread" : "descriptor");
                         });

} // namespace zbhal_test
