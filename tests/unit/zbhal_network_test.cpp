// SPDX-License-Identifier: Apache-2.0
// States of the stack, formation, joining, keys, radio settings, tables, memory.
#include "virtual/install_code.h"
#include "virtual/radio_memory.h"
#include "zbhal_fixture.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>

namespace zbhal_test {

using Stack = std::vector<int32_t>;

class Network : public HalTest {};

TEST_P(Network, everyCommandEndsInItsStackStatuses) {
    struct Step {
        const char *what;
        std::function<oru_status_t()> run;
        oru_status_t status;
        Stack reported;
    };
    const Step steps[] = {
        {"enable", [] { return 0; }, 0, {1, 5}}, // by the fixture
        {"enable again", oruZbHal_enable, ORU_STATUS_ALREADY_EXISTS, {}},
        {"leave without a network", oruZbHal_leaveNetwork, ORU_STATUS_DEVICE_STATE_INVALID, {}},
        {"form", [this] { return form(); }, 0, {4}},
        {"form again", [this] { return form(); }, ORU_STATUS_ALREADY_EXISTS, {}},
        {"reset keeps the network", oruZbHal_reset, 0, {3, 4}},
        {"fatal error", [this] { return sim().adapterFatalError().empty() ? 0 : 1; }, 0, {7, 4}},
        {"disable", oruZbHal_disable, 0, {6}},
        {"reset while off", oruZbHal_reset, ORU_STATUS_DEVICE_STATE_INVALID, {}},
        {"enable keeps the network", oruZbHal_enable, 0, {1, 4}},
        {"reset overtaken by disable", [] { return oruZbHal_reset() + oruZbHal_disable(); }, 0, {3, 6}},
        {"enable", oruZbHal_enable, 0, {1, 4}},
        {"leave", oruZbHal_leaveNetwork, 0, {5}},
        {"form", [this] { return form(); }, 0, {4}},
        {"factory reset", oruZbHal_factoryReset, 0, {3, 5}},
        {"form overtaken by reset", [this] { return form() + oruZbHal_reset(); }, 0, {3, 5}},
    };
    start(scenario_);
    for (const Step &step : steps) {
        EXPECT_EQ(step.run(), step.status) << step.what;
        advance(3000);
        EXPECT_EQ(record().stack, step.reported) << step.what;
        record().stack.clear();
        oruZbHal_networkParameters_t parameters{};
        parameters.pan_id = 0x4242;
        const bool up = !step.reported.empty() && step.reported.back() == 4;
        if (!step.reported.empty()) {
            EXPECT_EQ(oruZbHal_getNetworkInfo(&parameters) == 0, up) << step.what;
            EXPECT_EQ(parameters.pan_id == 0x4242, !up) << step.what << ": written on success only";
        }
    }
}

TEST_P(Network, formationChecksMasksAndChoosesTheChannel) {
    scenario_.energy_dbm[15 - 11] = -40;
    scenario_.energy_dbm[20 - 11] = -95; // the quietest of the primary mask
    scenario_.energy_dbm[25 - 11] = -50;
    const struct {
        uint8_t mode;
        uint32_t primary, secondary;
        uint8_t final_channel;
        int region;
        oru_status_t status;
        uint8_t channel;
    } rows[] = {
        {1, 0x02108800, 0, 25, 1, 0, 25},                             // final channel allowed
        {1, 0x02108800, 0, 26, 1, 0, 20},                             // not allowed: the quietest
        {1, 0x00000800, 0x04000000, 26, 1, 0, 26},                    // allowed by the secondary mask
        {1, 0, 0x02108800, 25, 1, ORU_STATUS_PARAM_OUT_OF_RANGE, 0},  //
        {1, 0x080007FF, 0, 11, 1, ORU_STATUS_PARAM_OUT_OF_RANGE, 0},  // no channel of the band
        {1, 0x02108800, 0, 10, 1, ORU_STATUS_PARAM_OUT_OF_RANGE, 0},  //
        {1, 0x02108800, 0, 27, 1, ORU_STATUS_PARAM_OUT_OF_RANGE, 0},  //
        {1, 0x02108800, 0, 25, 5, ORU_STATUS_PARAM_OUT_OF_RANGE, 0},  //
        {1, 0x02108800, 0, 25, 10, ORU_STATUS_PARAM_OUT_OF_RANGE, 0}, //
        {0, 0x02108800, 0, 25, 1, ORU_STATUS_BAD_PARAM, 0},           //
    };
    for (const auto &row : rows) {
        start(scenario_);
        EXPECT_EQ(form(), ORU_STATUS_DEVICE_STATE_INVALID) << "still enabling";
        advance(100);
        EXPECT_EQ(oruZbHal_formNetworkAuto(row.mode, row.primary, row.secondary, row.final_channel,
                                           static_cast<oruZbHal_region_t>(row.region)),
                  row.status);
        advance(300);
        oruZbHal_networkParameters_t parameters{};
        EXPECT_EQ(oruZbHal_getNetworkInfo(&parameters) == 0, row.status == 0);
        EXPECT_EQ(parameters.radio_channel, row.channel);
    }
}

enum class JoinMode { closed, open, zts };
enum class Code { none, right, wrong };

TEST_P(Network, onlyThosePermittedJoin) {
    const struct {
        JoinMode mode;
        Code code;
        bool code_only;
        bool joins;
        bool reported; // a join report, accepted or denied
    } rows[] = {
        {JoinMode::closed, Code::none, false, false, false}, {JoinMode::closed, Code::right, true, false, false},
        {JoinMode::open, Code::none, false, true, true},     {JoinMode::open, Code::none, true, false, false},
        {JoinMode::open, Code::right, true, true, true},     {JoinMode::open, Code::wrong, true, false, true},
        {JoinMode::zts, Code::none, false, false, true},     {JoinMode::zts, Code::none, true, false, true},
        {JoinMode::zts, Code::right, false, true, true},     {JoinMode::zts, Code::wrong, false, false, true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        scenario_.devices = {device("lamp", 1)};
        mesh::DeviceSpec &lamp = scenario_.devices[0];
        lamp.install_code = installCode(0x11);
        lamp.install_code_only = row.code_only;
        startWithNetwork(scenario_);
        mesh::InstallCode code = installCode(row.code == Code::right ? 0x11 : 0x22);
        oruZbHal_eui64_t eui64;
        std::reverse_copy(lamp.eui64.begin(), lamp.eui64.end(), eui64);
        if (row.code != Code::none) {
            EXPECT_EQ(oruZbHal_addInstallCode(eui64, code.data(), 18), 0);
        }
        EXPECT_EQ(row.mode == JoinMode::open ? oruZbHal_permitJoinNetwork(true)
                                             : oruZbHal_permitJoinZts(row.mode == JoinMode::zts),
                  0);
        EXPECT_EQ(sim().join("lamp").empty(), row.joins);
        advance(500);
        ASSERT_EQ(record().joins.size(), row.reported ? 1U : 0U);
        if (row.reported) {
            const Join &join = record().joins[0];
            EXPECT_EQ(join.update, ORU_ZB_HAL_STANDARD_SECURITY_UNSECURED_JOIN);
            EXPECT_EQ(join.decision == ORU_ZB_HAL_DENY_JOIN, !row.joins);
            EXPECT_TRUE(std::equal(join.eui64.begin(), join.eui64.end(), lamp.eui64.rbegin()));
        }
        ASSERT_EQ(record().frames.size(), row.joins ? 1U : 0U) << "the announce";
        if (row.joins) {
            const Incoming &announce = record().frames[0];
            EXPECT_EQ(announce.aps_frame.cluster_id, 0x0013);
            EXPECT_EQ(announce.message[1] | announce.message[2] << 8, record().joins[0].node_id);
        }
    }
}

TEST_P(Network, scheduledJoinsWaitForAnOpenNetworkAndRetry) {
    scenario_.devices = {device("first", 1), device("second", 2), device("late", 3, mesh::Role::router, "second")};
    scenario_.devices[0].join_at_ms = 1000;
    scenario_.devices[1].join_at_ms = 2000;
    scenario_.devices[1].install_code = installCode(0x33);
    scenario_.devices[1].install_code_only = true;
    scenario_.devices[2].join_at_ms = 2500;
    startWithNetwork(scenario_);
    advance(10000);
    EXPECT_TRUE(record().joins.empty()) << "closed";
    EXPECT_EQ(oruZbHal_permitJoinNetwork(true), 0);
    advance(999);
    EXPECT_FALSE(row("first").in_network);
    advance(10000);
    EXPECT_TRUE(row("first").in_network);
    EXPECT_FALSE(row("second").in_network);
    mesh::InstallCode code = installCode(0x33);
    uint8_t eui64[8];
    std::reverse_copy(scenario_.devices[1].eui64.begin(), scenario_.devices[1].eui64.end(), eui64);
    EXPECT_EQ(oruZbHal_addInstallCode(eui64, code.data(), 18), 0);
    advance(61000);
    EXPECT_TRUE(row("second").in_network) << "tried again";
    EXPECT_TRUE(row("late").in_network);
    EXPECT_EQ(oruZbHal_permitJoinNetwork(false), 0);
    EXPECT_EQ(sim().leave("first"), "");
    advance(100000);
    EXPECT_EQ(record().joins.back().update, ORU_ZB_HAL_DEVICE_LEFT);
    EXPECT_FALSE(row("first").in_network) << "closed again";
    EXPECT_EQ(sim().rejoin("first", true), "") << "a secured rejoin is possible at any time";
    advance(500);
    EXPECT_EQ(record().joins.back().update, ORU_ZB_HAL_STANDARD_SECURITY_SECURED_REJOIN);
}

TEST_P(Network, leaveRequestWithRejoinBringsTheDeviceBack) {
    scenario_.devices = {device("lamp", 1)};
    startWithNetwork(scenario_);
    const uint16_t node_id = joined("lamp");
    std::vector<uint8_t> leave(10);
    leave[0] = 7;
    std::copy(scenario_.devices[0].eui64.rbegin(), scenario_.devices[0].eui64.rend(), leave.begin() + 1);
    leave[9] = 0x80;
    record().joins.clear();
    record().frames.clear();
    EXPECT_EQ(sendZdo(node_id, 0x0034, leave), 0);
    advance(5000);
    ASSERT_EQ(record().joins.size(), 1U) << "a leave with rejoin is no departure for the trust centre";
    EXPECT_EQ(record().joins[0].update, ORU_ZB_HAL_STANDARD_SECURITY_SECURED_REJOIN);
    EXPECT_EQ(record().frames.back().aps_frame.cluster_id, 0x0013);
    EXPECT_EQ(record().frames.back().source, record().joins[0].node_id);

    leave[9] = 0;
    EXPECT_EQ(sendZdo(row("lamp").node_id, 0x0034, leave), 0);
    advance(60000);
    EXPECT_FALSE(row("lamp").in_network);
    EXPECT_EQ(record().joins.back().update, ORU_ZB_HAL_DEVICE_LEFT);
}

TEST_P(Network, installCodesAndTheKeyTable) {
    // Test vector of the Base Device Behavior specification.
    const mesh::InstallCode known = {0x83, 0xFE, 0xD3, 0x40, 0x7A, 0x93, 0x97, 0x23, 0xA5,
                                     0xC6, 0x39, 0xB2, 0x69, 0x16, 0xD5, 0x05, 0xC3, 0xB5};
    const mesh::Key expected = {0x66, 0xB6, 0x90, 0x09, 0x81, 0xE1, 0xEE, 0x3C,
                                0xA4, 0x20, 0x6B, 0x6B, 0x86, 0x1C, 0x02, 0xBB};
    EXPECT_EQ(mesh::installCodeKey(known), expected);

    scenario_.devices = {device("lamp", 1)};
    scenario_.coordinator.key_table_capacity = 3;
    startWithNetwork(scenario_);
    joined("lamp");
    uint8_t eui64[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    mesh::InstallCode code = known;
    EXPECT_EQ(oruZbHal_addInstallCode(eui64, code.data(), 17), ORU_STATUS_DATA_LEN_INVALID);
    EXPECT_EQ(oruZbHal_addInstallCode(eui64, nullptr, 18), ORU_STATUS_NULL_POINTER);
    code[17] ^= 1;
    EXPECT_EQ(oruZbHal_addInstallCode(eui64, code.data(), 18), ORU_STATUS_BAD_PARAM);
    code = known;
    EXPECT_EQ(oruZbHal_addInstallCode(eui64, code.data(), 18), 0);
    EXPECT_EQ(oruZbHal_addInstallCode(eui64, code.data(), 18), 0) << "twice is once";

    oruZbHal_keyStruct_t network_key{};
    EXPECT_EQ(oruZbHal_getKey(ORU_ZB_HAL_CURRENT_NETWORK_KEY, &network_key), 0);
    const auto entries = [] {
        std::vector<oruZbHal_keyStruct_t> table;
        oruZbHal_keyStruct_t entry{};
        for (int index = 0; index < 256 && oruZbHal_getKeyTableEntry(static_cast<uint8_t>(index), &entry) == 0;
             ++index) {
            table.push_back(entry);
        }
        return table;
    };
    const auto table = entries();
    ASSERT_EQ(table.size(), 3U); // network key, install code, device
    EXPECT_EQ(memcmp(table[0].key.contents, network_key.key.contents, 16), 0);
    EXPECT_EQ(memcmp(table[1].key.contents, expected.data(), 16), 0);
    EXPECT_EQ(memcmp(table[1].partner_eui64, eui64, 8), 0);
    EXPECT_EQ(table[2].partner_eui64[0], 1);
    for (uint8_t more = 0; more < 3; ++more) {
        eui64[0] = static_cast<uint8_t>(20 + more);
        EXPECT_EQ(oruZbHal_addInstallCode(eui64, code.data(), 18), more < 2 ? 0 : ORU_STATUS_OUT_OF_MEMORY);
    }
    EXPECT_EQ(oruZbHal_clearTransientLinkKeys(), 0);
    EXPECT_EQ(entries().size(), 2U);
}

TEST_P(Network, powerStaysWithinTheRegion) {
    startWithNetwork(scenario_);
    const auto power = [] {
        oruZbHal_networkParameters_t parameters{};
        EXPECT_EQ(oruZbHal_getNetworkInfo(&parameters), 0);
        return int{parameters.radio_tx_power};
    };
    for (const int region : {5, 10, 11, -1}) {
        EXPECT_EQ(oruZbHal_setRegion(static_cast<oruZbHal_region_t>(region)), ORU_STATUS_PARAM_OUT_OF_RANGE);
    }
    EXPECT_EQ(oruZbHal_setRegion(ORU_ZB_HAL_REGION_UNITED_STATES), 0);
    EXPECT_EQ(oruZbHal_setRadioPower(20), 0);
    EXPECT_EQ(power(), 20);
    EXPECT_EQ(oruZbHal_setRadioPower(21), ORU_STATUS_PARAM_OUT_OF_RANGE);
    EXPECT_EQ(oruZbHal_setRadioPower(-21), ORU_STATUS_PARAM_OUT_OF_RANGE);
    EXPECT_EQ(oruZbHal_setRegion(ORU_ZB_HAL_REGION_EUROPE), 0);
    EXPECT_EQ(power(), 10) << "lowered with the region";
    EXPECT_EQ(oruZbHal_setRadioPower(11), ORU_STATUS_PARAM_OUT_OF_RANGE);
    EXPECT_EQ(power(), 10);
}

struct Tables {
    std::set<uint16_t> children, neighbors;
    std::map<uint16_t, uint16_t> next_hops; // active routes
};

Tables tables() {
    Tables result;
    oruZbHal_childTableEntry_t children[40];
    oruZbHal_neighborTableEntry_t neighbors[40];
    oruZbHal_routeTableEntry_t routes[40];
    uint8_t count = 40;
    EXPECT_EQ(oruZbHal_getChildren(children, &count), 0);
    for (int i = 0; i < count; ++i) {
        result.children.insert(children[i].short_id);
    }
    count = 40;
    EXPECT_EQ(oruZbHal_getNeighbors(neighbors, &count), 0);
    for (int i = 0; i < count; ++i) {
        result.neighbors.insert(neighbors[i].short_id);
    }
    count = 40;
    EXPECT_EQ(oruZbHal_getRouteTableEntries(routes, &count), 0);
    for (int i = 0; i < count; ++i) {
        if (routes[i].status == 0) {
            result.next_hops[routes[i].destination] = routes[i].next_hop;
        }
    }
    return result;
}

TEST_P(Network, tablesFollowTheTopology) {
    scenario_.devices = {device("near", 1), device("far", 2, mesh::Role::router, "near"),
                         device("sensor", 3, mesh::Role::end_device), // child of the coordinator
                         device("button", 4, mesh::Role::end_device, "near"),
                         device("remote", 5, mesh::Role::router, "far")};
    scenario_.devices[4].link_quality = 70; // too weak for a link past its parent
    startWithNetwork(scenario_);
    const uint16_t near = joined("near");
    const uint16_t far = joined("far");
    const uint16_t sensor = joined("sensor");
    const uint16_t button = joined("button");
    const uint16_t remote = joined("remote");
    Tables now = tables();
    EXPECT_EQ(now.children, (std::set<uint16_t>{sensor}));
    EXPECT_EQ(now.neighbors, (std::set<uint16_t>{near, far})) << "far is heard over half the link quality";
    EXPECT_EQ(now.next_hops, (std::map<uint16_t, uint16_t>{{far, near}, {button, near}, {remote, near}}));

    record().joins.clear();
    EXPECT_EQ(sim().setPower("near", false), "");
    advance(30000);
    now = tables();
    EXPECT_EQ(now.children, (std::set<uint16_t>{sensor, button})) << "the button has found another parent";
    EXPECT_EQ(now.neighbors, (std::set<uint16_t>{far}));
    EXPECT_EQ(now.next_hops, (std::map<uint16_t, uint16_t>{{remote, far}}));
    ASSERT_EQ(record().joins.size(), 1U);
    EXPECT_EQ(record().joins[0].update, ORU_ZB_HAL_STANDARD_SECURITY_SECURED_REJOIN);

    EXPECT_EQ(sim().setPower("far", false), "");
    advance(30000);
    EXPECT_EQ(row("remote").parent, "") << "out of reach of everybody";
    EXPECT_TRUE(tables().next_hops.empty());
    EXPECT_TRUE(tables().neighbors.empty());

    EXPECT_EQ(sim().setPower("near", true), "");
    EXPECT_EQ(sim().setPower("far", true), "");
    EXPECT_EQ(sim().leave("sensor"), "");
    advance(30000);
    now = tables();
    EXPECT_TRUE(now.children.empty());
    EXPECT_EQ(now.neighbors, (std::set<uint16_t>{near, far}));
    EXPECT_EQ(now.next_hops, (std::map<uint16_t, uint16_t>{{far, near}, {button, near}, {remote, near}}));

    oruZbHal_neighborTableEntry_t one[1];
    uint8_t count = 1;
    EXPECT_EQ(oruZbHal_getNeighbors(one, &count), 0);
    EXPECT_EQ(count, 1) << "never more than the capacity";
    EXPECT_EQ(one[0].long_id[0], 1) << "least significant byte first";
}

TEST_P(Network, aRestartKeepsNetworkAndDevices) {
    scenario_.devices = {device("sensor", 2, mesh::Role::end_device, "lamp"), device("lamp", 1), device("gone", 3)};
    startWithNetwork(scenario_, folder_);
    const uint16_t lamp = joined("lamp");
    const uint16_t sensor = joined("sensor");
    joined("gone");
    EXPECT_EQ(oruZbHal_setRadioPower(3), 0);
    EXPECT_EQ(sim().leave("gone"), "");
    advance(100);
    oruZbHal_networkParameters_t before{};
    oruZbHal_keyStruct_t key_before{};
    EXPECT_EQ(oruZbHal_getNetworkInfo(&before), 0);
    EXPECT_EQ(oruZbHal_getKey(ORU_ZB_HAL_CURRENT_NETWORK_KEY, &key_before), 0);
    const std::string path = folder_ + "/virtual-radio.state";
    struct stat attributes {};
    ASSERT_EQ(stat(path.c_str(), &attributes), 0);
    EXPECT_EQ(attributes.st_mode & 0777, 0600U) << "it holds the network key";
    std::ifstream file(path);
    const std::string good((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());

    start(scenario_, folder_, 99);
    advance(3000);
    EXPECT_EQ(record().stack, (Stack{1, 4}));
    EXPECT_TRUE(record().joins.empty()) << "nobody has joined anew";
    oruZbHal_networkParameters_t after{};
    oruZbHal_keyStruct_t key_after{};
    EXPECT_EQ(oruZbHal_getNetworkInfo(&after), 0);
    EXPECT_EQ(oruZbHal_getKey(ORU_ZB_HAL_CURRENT_NETWORK_KEY, &key_after), 0);
    EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
    EXPECT_EQ(memcmp(&key_before, &key_after, sizeof key_before), 0);
    EXPECT_EQ(row("lamp").node_id, lamp);
    EXPECT_EQ(row("sensor").node_id, sensor);
    EXPECT_EQ(row("sensor").parent, "lamp");
    EXPECT_FALSE(row("gone").in_network);
    EXPECT_EQ(sendZdo(sensor, 0x0005, {1, static_cast<uint8_t>(sensor), static_cast<uint8_t>(sensor >> 8)}), 0);
    advance(3000);
    ASSERT_EQ(record().confirmations.size(), 1U);
    EXPECT_EQ(record().confirmations[0].status, 0);

    // Any damage costs the network, never more, and is named.
    for (size_t cut = 0; cut <= good.size(); cut += 7) {
        std::string damaged = cut % 2 == 0 ? good.substr(0, cut) : good;
        if (cut % 2 != 0) {
            damaged[cut] = static_cast<char>(damaged[cut] ^ 0x04);
        }
        EXPECT_FALSE(mesh::parseMemory(damaged).has_value()) << cut;
    }
    std::ofstream(path) << good.substr(0, good.size() / 2);
    start(scenario_, folder_);
    advance(3000);
    EXPECT_EQ(record().stack, (Stack{1, 5}));
    EXPECT_NE(logText().find(path + " is damaged"), std::string::npos);
    EXPECT_EQ(form(), 0);
    advance(500);
    EXPECT_EQ(oruZbHal_leaveNetwork(), 0);
    advance(500);
    EXPECT_FALSE(std::filesystem::exists(path)) << "nothing left to remember";
}

TEST_P(Network, adapterNamesThatCannotWorkAreExplained) {
    const struct {
        std::string name;
        const char *explained;
    } rows[] = {{folder_ + "/none", "No such file or directory"},
                {"/dev/null", "no backend for serial adapters"},
                {"", "no radio adapter is named"},
                {"virtual:" + folder_ + "/none.toml", "none.toml"},
                {"virtual:" + folder_ + "/bad.toml", "bad.toml:1:"}};
    std::ofstream(folder_ + "/bad.toml") << "= nonsense\n";
    for (const auto &row : rows) {
        hal::Options options;
        options.mode = GetParam();
        hal::reset(options);
        oruZbHal_callbacks_t callbacks{};
        int32_t descriptor = -1;
        std::string name = row.name;
        EXPECT_EQ(oruZbHal_enable(), ORU_STATUS_UNINITIALIZED);
        EXPECT_EQ(oruZbHal_init(&callbacks, &descriptor), 0);
        EXPECT_EQ(oruZbHal_setAdapterName(name.data()), 0);
        EXPECT_NE(oruZbHal_enable(), 0) << row.name;
        EXPECT_NE(logText().find(row.explained), std::string::npos) << row.name;
        EXPECT_EQ(oruZbHal_reset(), ORU_STATUS_UNINITIALIZED);
    }
}

INSTANTIATE_TEST_SUITE_P(modes, Network, ::testing::Values(hal::Mode::descriptor, hal::Mode::thread),
                         [](const auto &mode) {
                             return std::string(mode.param == hal::Mode::thread ? "thread" : "descriptor");
                         });

} // namespace zbhal_test
