// SPDX-License-Identifier: Apache-2.0
// Sends, confirmations, inter-PAN, scans, counters.
#include "zbhal_core.h"
#include "zbhal_fixture.h"
#include <random>

namespace zbhal_test {

TEST_P(HalTest, everyKindOfFailureHasItsStatusAndCounters) {
    using mesh::Role;
    scenario_.devices = {device("near", 1), device("far", 2, Role::router, "near"), device("left", 3)};
    scenario_.devices[1].link_quality = 70; // no way past near
    startWithNetwork();
    join({"near", "far", "left"});
    play(R"({"command":"leave","device":"left"} @20000 => ok | 3 left
send near 1 | sent 1: 0, frame of 5
send far 1 | sent 1: 0, frame of 5
send left 1 | sent 1: 200 # NWK unknown device
send nobody 1 @1000
wait @2000 | sent 1: 208 # NWK route discovery failed
counters => 0/2 0/0 0/0 0
{"command":"faults","device":"near","faults":{"deaf":true}} => ok
send near 1 @5000
wait @5000 | sent 1: 233 # MAC no acknowledgement
counters => 3/1 12/4 0/0 0
{"command":"faults","device":"near","faults":{"deaf":false}} => ok
{"command":"air","air":{"interference":1.0}} => ok
send near 1 @8000 | sent 1: 225 # MAC channel access failure
counters => 3/1 0/4 16/4 0
{"command":"air","air":{"interference":0.0,"pta_denial":1.0}} => ok
send near 1 @8000 | sent 1: 225
counters => 3/1 12/4 0/0 100
{"command":"air","air":{"pta_denial":0.0,"aps_ack_wait_ms":100}} => ok
{"command":"faults","device":"near","faults":{"silent":true}} => ok
send near 1 | sent 1: 0 # taken, only not answered
{"command":"faults","device":"near","faults":{"silent":false,"answer_delay_ms":5000}} => ok
send near 1 | sent 1: 0
{"command":"announce","device":"near"} => ok | announced # a slow answer holds up nothing else
wait | frame of 5
{"command":"faults","device":"near","faults":{"answer_delay_ms":0,"send_status":173}} => ok
send near 1 | sent 1: 173
{"command":"faults","device":"near","faults":{"send_status":0}} => ok
{"command":"faults","device":"far","faults":{"deaf":true}} => ok
send far 1 | sent 1: 209 # NWK route error
{"command":"power","device":"near","on":false} => ok
send near 1 | sent 1: 233
send far 1 @20000 | sent 1: 208 # its only router is off)");
}

TEST_P(HalTest, sleepyDevicesFetchWhatTheirParentsKeepForThem) {
    using mesh::Role;
    scenario_.devices = {device("lamp", 1), device("sensor", 2, Role::sleepy_end_device),
                         device("button", 3, Role::sleepy_end_device)};
    scenario_.devices[1].poll_interval_ms = 5000;
    scenario_.devices[2].poll_interval_ms = 3'600'000;
    startWithNetwork();
    join({"lamp", "sensor", "button"});
    play(R"(send button 1 @500 | sent 1: 0, frame of 5 # fresh in the network, it polls fast
wait @60000
send sensor 1 @0
send sensor 2 @0
send sensor 3 @5100 | sent 1: 0, frame of 5, sent 2: 0, frame of 5, sent 3: 0, frame of 5 # one poll leads to the next
send button 4 @7600
wait @100 | sent 4: 240 # MAC transaction expired
{"command":"announce","device":"button"} @500 => ok | announced
send button 5 @500 | sent 5: 0, frame of 5
{"command":"power","device":"sensor","on":false} => ok
send sensor 6 @7600
wait @100 | sent 6: 240
counters => 0/2 0/0 0/0 0
wait @60000
leave all 0 @9000 | sent 0: 0, 1 left # those asleep miss it for good
{"command":"announce","device":"button"} @5000 => ok | announced)");
}

// 60 commands are on the air for 2.9 ms each, with acknowledgements and answers of the same length.
TEST_P(HalTest, neighboursShareTheirMedium) {
    const std::vector<std::string> lamps = {"a", "b", "c", "d"}; // one alone does not get so many places
    for (const std::string &lamp : lamps) {
        scenario_.devices.push_back(device(lamp, static_cast<uint8_t>(lamp[0])));
    }
    scenario_.air.max_in_flight = 64;
    for (const bool shared : {true, false}) {
        scenario_.air.shared_medium = shared;
        startWithNetwork();
        join(lamps);
        record = {};
        const uint64_t start_ms = testplat::time::nowMs();
        for (uint32_t i = 0; i < 60; ++i) {
            EXPECT_EQ(sendZcl(nodeId(lamps[i % lamps.size()]), i), 0);
        }
        while (record.confirmations.size() < 60 && testplat::time::nowMs() < start_ms + 5000) {
            advance(1);
        }
        const uint64_t taken_ms = testplat::time::nowMs() - start_ms;
        EXPECT_TRUE(shared ? taken_ms > 350 && taken_ms < 800 : taken_ms < 50) << taken_ms;
        advance(2000);
        EXPECT_EQ(record.node_ids.size(), 120U) << "every command is confirmed and answered";
    }
}

TEST_P(HalTest, sendsAreRefusedForAReasonOrConfirmedInTheirOrder) {
    scenario_.devices = {device("lamp", 1)};
    scenario_.devices[0].faults = {.silent = true, .hold_confirmations = true};
    scenario_.air.max_in_flight = 3;
    startWithNetwork();
    join({"lamp"});
    oruZbHal_apsFrame_t aps_frame{};
    uint8_t payload[200] = {};
    EXPECT_EQ(oruZbHal_sendZdoMessage(1, nullptr, payload, 2, nullptr, 0), ORU_STATUS_NULL_POINTER);
    EXPECT_EQ(oruZbHal_sendZdoMessage(1, &aps_frame, nullptr, 2, nullptr, 0), ORU_STATUS_NULL_POINTER);
    EXPECT_EQ(oruZbHal_sendZdoMessage(1, &aps_frame, payload, 129, nullptr, 0), ORU_ZB_HAL_APS_ASDU_TOO_LONG);
    EXPECT_EQ(oruZbHal_sendZdoMessage(1, &aps_frame, payload, 128, nullptr, 0), 0);
    EXPECT_EQ(oruZbHal_sendZdoMessage(1, &aps_frame, nullptr, 0, nullptr, 0), 0);
    play(R"({"command":"refuse","operation":"sendZclUnicast","status":240} => ok
send lamp 9 => 240
send coordinator 9 => 194
send lamp 1
send lamp 2
send lamp 3
send lamp 9 @60000 => 241
reset | sent 1: 211, sent 2: 211, sent 3: 211, stack resetting, stack up
disable @0
send lamp 9 => -10005 | stack off
send lamp 9 => -10005)");
}

TEST_P(HalTest, aFrameToAGroupReachesItsMembers) {
    scenario_.devices = {device("lamp", 1), device("other", 2)};
    scenario_.devices[0].endpoints[0].input_clusters.push_back(0x0004);
    startWithNetwork();
    join({"lamp", "other"});
    oruZbHal_apsFrame_t frame{0x0104, 0x0004, 1, 1, 0, 0, 0, 0};
    uint8_t add_group[] = {0x01, 1, 0x00, 0x34, 0x12, 0x00};
    EXPECT_EQ(oruZbHal_sendZclUnicast(nodeId("lamp"), &frame, add_group, sizeof add_group, nullptr, nullptr), 0);
    advance(1000);
    const uint8_t on[] = {0x01, 2, 0x01};
    frame = {0x0104, 0x0006, 1, 1, 0, 0x1234, 0, 0};
    EXPECT_EQ(corvane::zbhal::hal().sendGroup(frame, on), 0);
    advance(1000);
    for (const mesh::SimDevice &row : sim().list()) {
        EXPECT_EQ(row.state, row.name == "lamp" ? "on" : "off");
    }
    EXPECT_EQ(oruZbHal_disable(), 0);
    EXPECT_EQ(corvane::zbhal::hal().sendGroup(frame, on), ORU_STATUS_DEVICE_STATE_INVALID);
}

TEST_P(HalTest, noDestinationTakesThePlacesOfTheOthersAndOfZdo) {
    scenario_.devices = {device("dead", 1), device("lamp", 2), device("new", 3)};
    startWithNetwork();
    join({"dead", "lamp", "new"});
    const auto accepted = [this](const char *name, bool zdo) { // until one is refused
        int count = 0;
        for (; (zdo ? sendLeave(name, 0x80) : sendZcl(nodeId(name), 0)) == ORU_STATUS_OK; ++count) {
        }
        return count;
    };
    for (int i = 0; i < 5; ++i) { // all places come back
        hal::holdConfirmations(true);
        const std::vector<int> counts{accepted("dead", false), accepted("dead", true), accepted("lamp", false),
                                      accepted("new", false), accepted("new", true)};
        EXPECT_EQ(counts, (std::vector{16, 0, 12, 0, 4}));
        hal::holdConfirmations(false);
        oruZbHal_reset();
        advance(60000);
    }
}

// Whatever happens to the adapter and the devices, every accepted send is confirmed once with what it was made with,
// and a refused one never.
TEST_P(HalTest, confirmationsComeExactlyOnce) {
    scenario_.devices = {device("a", 1), device("b", 2, mesh::Role::router, "a"),
                         device("c", 3, mesh::Role::sleepy_end_device)};
    scenario_.devices[2].reports = {{1, 0x0006, 0x0000, 1000}};
    scenario_.air.loss = 0.2;
    scenario_.air.interference = 0.3;
    scenario_.air.max_in_flight = 12;
    size_t interpan = 0; // sends accepted
    std::mt19937 random;
    const auto recover = [] { return oruZbHal_enable() + form(); };
    const std::function<void()> troubles[] = {
        [] { oruZbHal_reset(); },
        [] { oruZbHal_disable(); },
        [] { sim().adapterFatalError(); },
        [] { oruZbHal_leaveNetwork(); },
        recover,
        recover,
        [&] { sim().setFaults("a", {.hold_confirmations = random() % 2 == 0}); },
        [&] { hal::holdConfirmations(random() % 2 == 0); },
        [&] { interpan += sendInterpan(0x800) == 0 ? 1 : 0; },
        [] { hal::refuseNext("interpanCompletion", 1, 1); },
    };
    std::vector<std::pair<std::string, std::vector<uint16_t>>> runs;
    for (uint32_t i = 0; i <= 12; ++i) {
        SCOPED_TRACE(i);
        random.seed(i % 12);
        startWithNetwork();
        join({"a", "b", "c"});
        const uint16_t nodes[] = {nodeId("a"), nodeId("b"), nodeId("c"), 0x1234, 0xFFFF};
        std::vector<Confirmation> expected;
        interpan = 0;
        for (uint32_t step = 0; step < 300; ++step) {
            const size_t kind = random() % 60;
            const uint16_t node_id = nodes[random() % std::size(nodes)];
            if (kind < std::size(troubles)) {
                troubles[kind]();
            } else if (sendZcl(node_id, step) == 0) {
                expected.push_back({step, node_id, sequence_, {0x01, 0x21, 0x02}});
            }
            advance(random() % 200);
        }
        oruZbHal_reset(); // frees what is held
        oruZbHal_disable();
        advance(60000);
        std::ranges::sort(record.confirmations);
        EXPECT_EQ(record.confirmations, expected);
        EXPECT_GT(expected.size(), 40U) << "the run must mean something";
        EXPECT_EQ(record.interpan, interpan);
        runs.emplace_back(record.trace, record.node_ids);
    }
    EXPECT_EQ(runs.front(), runs.back()) << "the same seed gives the same run";
}

TEST_P(HalTest, interpanCompletesOnceAndALostCompletionWaitsForAReset) {
    startWithNetwork();
    play(R"(interpan 0x000007FF => -10
interpan 0x07FFF800 @0
wait | interpan 0
{"command":"refuse","operation":"interpanCompletion","status":1} => ok
interpan 0x00000800 @60000 # lost
interpan 0x00000800 @0
reset | interpan -20, interpan -20, stack resetting, stack up)");
    oruZbHal_interpanHeader_t header{};
    uint8_t frame[103] = {};
    const auto send = [&](uint8_t *from, uint8_t size) {
        return oruZbHal_sendRawInterpanMessageOnChannels(0x800, &header, from, size, nullptr);
    };
    EXPECT_EQ(send(frame, 103), ORU_ZB_HAL_MAC_FRAME_TOO_LONG);
    EXPECT_EQ(send(frame, 102), 0);
    EXPECT_EQ(send(nullptr, 0), 0);
}

TEST_P(HalTest, scansReportAndComplete) {
    scenario_.energy_dbm[20 - 11] = -35;
    scenario_.foreign_networks = {{0xBEEF, 20, true, {1, 2, 3, 4, 5, 6, 7, 8}, 90}, {0xCAFE, 11, false, {}, 60}};
    startWithNetwork(); // on channel 15
    play(R"(scan 2 0x00100000 3 => -10 # no such type
scan 0 0x00000400 3 => -10 # no channel
scan 0 0x00000800 15 => -10
scan 0 0x07FFF800 3 @100
scan 0 0x07FFF800 3 @10000 => -15 | scanned to 26 0
scan 1 0x00108000 2 | closed network, open network, scanned to 20 0
scan 0 0x07FFF800 5 @600
reset | scanned to 12 -20, stack resetting, stack up
scan 0 0x00000800 14 @252000 | scanned to 11 0)");
    EXPECT_EQ(record.energy.size(), 16U);
    EXPECT_GE(record.energy[20], -35);
    EXPECT_LT(record.energy[11], -80);
    EXPECT_NE(std::ranges::find(record.node_ids, 0xBEEF), record.node_ids.end());
}

TEST_P(HalTest, adapterDescribesItself) {
    startWithNetwork();
    EXPECT_EQ(oruZbHal_addEndpoint(2, 0x0104, 5, 1, 0, 0, nullptr, nullptr), 0);
    const uint16_t clusters[36] = {7};
    EXPECT_EQ(oruZbHal_addEndpoint(2, 0x0104, 6, 1, 1, 34, clusters, clusters), 0) << "replaced";
    EXPECT_EQ(oruZbHal_addEndpoint(2, 0x0104, 6, 1, 1, 35, clusters, clusters), ORU_STATUS_PARAM_OUT_OF_RANGE);
    EXPECT_EQ(oruZbHal_addEndpoint(240, 0x0104, 5, 1, 0, 0, nullptr, nullptr), ORU_STATUS_OUT_OF_MEMORY);
    EXPECT_EQ(oruZbHal_addEndpoint(241, 0x0104, 5, 1, 0, 0, nullptr, nullptr), ORU_STATUS_PARAM_OUT_OF_RANGE);
    oruZbHal_adapterInfo_t info{};
    EXPECT_EQ(oruZbHal_getAdapterInfo(&info), 0);
    EXPECT_EQ(info.endpoints[0].cluster_count, 23);
    EXPECT_EQ(info.endpoints[1].device_id, 6);
    EXPECT_EQ(info.endpoints[1].cluster_count, 35);
    EXPECT_TRUE(info.endpoints[1].clusters[0].server == 1 && info.endpoints[1].clusters[1].server == 0);
    EXPECT_EQ(info.eui64[0], scenario_.coordinator.eui64[7]);
    uint8_t version[2];
    uint8_t count = 2;
    EXPECT_EQ(oruZbHal_getFwVersion(version, &count), 0);
    EXPECT_EQ(count, 2) << "never more than the capacity";
}

} // namespace zbhal_test
