// SPDX-License-Identifier: Apache-2.0
// States of the stack, formation, joining, keys, radio settings, tables, memory.
#include "virtual/radio_memory.h"
#include "zbhal_fixture.h"
#include <cstring>
#include <fstream>

namespace zbhal_test {

INSTANTIATE_TEST_SUITE_P(modes, HalTest, ::testing::Values(hal::Mode::descriptor, hal::Mode::thread),
                         [](const auto &mode) { return mode.param == hal::Mode::thread ? "thread" : "descriptor"; });

TEST_P(HalTest, everyCommandEndsInItsStackStatuses) {
    start();
    play(R"(wait | stack enabling, stack without network
enable => -27
leave-network => -10005
form | stack up
form => -27
reset | stack resetting, stack up # keeps the network
{"command":"fatal"} => ok | stack failed, stack up
disable | stack off
reset => -10005
enable | stack enabling, stack up
reset @0 | stack resetting
disable | stack off # overtakes the reset
enable | stack enabling, stack up
leave-network | stack without network
form | stack up
factory-reset | stack resetting, stack without network
form @0
reset | stack resetting, stack without network # overtakes the forming)");
    oruZbHal_networkParameters_t parameters{};
    EXPECT_EQ(oruZbHal_getNetworkInfo(&parameters), ORU_STATUS_DEVICE_STATE_INVALID);
    EXPECT_EQ(parameters.channel_mask, 0U) << "written on success only";
}

TEST_P(HalTest, theNameOfTheAdapterCountsUntilTheFirstEnable) {
    start();
    const auto enable = [](std::string name) { return (oruZbHal_setAdapterName(name.data()), oruZbHal_enable()); };
    EXPECT_EQ(enable("virtual:other.toml"), ORU_STATUS_BUSY);
    EXPECT_EQ(enable("virtual:given.toml"), ORU_STATUS_ALREADY_EXISTS);
    pump([] { EXPECT_EQ(oruZbHal_runEvents(1), GetParam() == hal::Mode::thread ? ORU_STATUS_NOT_SUPPORTED : 0); });
    hal::reset({});
    oruZbHal_callbacks_t callbacks{};
    EXPECT_EQ(oruZbHal_init(&callbacks, &descriptor_), 0);
    EXPECT_EQ(enable(""), ORU_STATUS_BAD_PARAM);
    EXPECT_EQ(enable(folder_ + "/none"), ORU_STATUS_NOT_FOUND);
    EXPECT_EQ(enable("/dev/null"), ORU_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(enable("virtual:" + folder_ + "/none"), ORU_STATUS_BAD_PARAM);
}

TEST_P(HalTest, formationChecksMasksAndChoosesTheChannel) {
    scenario_.energy_dbm[15 - 11] = -40;
    scenario_.energy_dbm[20 - 11] = -95; // the quietest of the primary mask
    scenario_.energy_dbm[25 - 11] = -50;
    start();
    play(R"(form-as 1 0x02108800 0 25 1 => -10005 | stack enabling, stack without network # still enabling
form-as 0 0x02108800 0 25 1 => -11 # no such mode
form-as 1 0 0x02108800 25 1 => -10 # no primary channel
form-as 1 0x080007FF 0 11 1 => -10 # no channel of the band
form-as 1 0x02108800 0 10 1 => -10
form-as 1 0x02108800 0 27 1 => -10
form-as 1 0x02108800 0 25 5 => -10 # region without a meaning
form-as 1 0x02108800 0 25 10 => -10
form-as 1 0x02108800 0 25 1 | stack up
channel => 25
leave-network | stack without network
form-as 1 0x02108800 0 26 1 | stack up # the final channel is not allowed
channel => 20
leave-network | stack without network
form-as 1 0x00000800 0x04000000 26 1 | stack up # allowed by the secondary mask
channel => 26)");
}

TEST_P(HalTest, onlyThosePermittedJoin) {
    scenario_.devices = {device("lamp", 1), device("gate", 2), device("door", 3), device("plug", 4)};
    for (const size_t i : {0U, 1U, 2U}) {
        scenario_.devices.at(i).install_code = kCode;
        scenario_.devices.at(i).install_code_only = i > 0;
    }
    startWithNetwork();
    play(R"({"command":"join","device":"gate"} => the network is closed for joining
code gate right
{"command":"join","device":"gate"} => the network is closed for joining
zts 1
{"command":"join","device":"lamp"} => no install code was added
{"command":"join","device":"door"} => no install code was added
code lamp wrong
{"command":"join","device":"lamp"} => the install code that was added is not the device's
code lamp right # the first one counts
{"command":"join","device":"lamp"} => the install code that was added is not the device's
clear-codes
code lamp right
code lamp wrong
code gate right
{"command":"join","device":"lamp"} => ok | 1 joined, announced
zts 0
{"command":"join","device":"plug"} => the network is closed for joining
permit 1
{"command":"join","device":"plug"} => ok | 4 joined, announced
{"command":"join","device":"door"} => the device joins with its install code only
code door wrong
{"command":"join","device":"door"} => the install code that was added is not the device's
{"command":"join","device":"gate"} => ok | 2 joined, announced)");
    EXPECT_EQ(testplat::log::count("trust centre: join of 00124b..0101 denied"), 3U);
    // What a radio may tell beside: whose unsecured join or rejoin was refused is not in the network.
    for (const int32_t update : {0, 1, 2, 3}) {
        for (const oruZbHal_joinDecision_t decision : {ORU_ZB_HAL_DENY_JOIN, ORU_ZB_HAL_NO_ACTION}) {
            hal::injectTrustCenter(9, {7}, 0, static_cast<oruZbHal_deviceUpdate_t>(update), decision);
        }
    }
    play("wait | 7 rejoined denied, 7 rejoined, 7 joined, 7 left denied, 7 left, 7 rejoined unsecured");
}

TEST_P(HalTest, scheduledJoinsWaitForAnOpenNetworkAndRetry) {
    scenario_.devices = {device("first", 1), device("second", 2), device("late", 3, mesh::Role::router, "second")};
    scenario_.devices[0].join_at_ms = 1000;
    scenario_.devices[1].join_at_ms = 2000;
    scenario_.devices[1].install_code = kCode;
    scenario_.devices[1].install_code_only = true;
    scenario_.devices[2].join_at_ms = 2500;
    scenario_.devices[2].link_quality = 70; // no way past the second
    startWithNetwork();
    play(R"(wait @10000
permit 1 @999
wait @10000 | 1 joined, announced
code second right @61000 | 2 joined, announced, 3 joined, announced # they try again
permit 0
{"command":"leave","device":"first"} @100000 => ok | 1 left # and cannot come back)");
}

TEST_P(HalTest, leaveRequestsSendDevicesAwayOrBringThemBack) {
    scenario_.devices = {device("lamp", 1), device("sensor", 2, mesh::Role::end_device, "lamp"), device("plug", 3)};
    startWithNetwork();
    join({"lamp", "sensor", "plug"});
    play(R"(leave plug 0x80 @5000 | sent 0: 0, frame of 2, 3 rejoined, announced # no departure for the trust centre
leave plug 0x80 @500 | sent 0: 0, frame of 2
disable @20000 | stack off # not there when the plug comes back
enable @60000 | stack enabling, stack up, 3 rejoined, announced # it keeps trying
leave plug 0x80 @500 | sent 0: 0, frame of 2
{"command":"power","device":"plug","on":false} @20000 => ok
{"command":"power","device":"plug","on":true} @5000 => ok | 3 rejoined, announced
leave plug 0 @60000 | sent 0: 0, frame of 2, 3 left
leave all 0 @5000 | sent 0: 0, 1 left # its child loses its way to say so
{"command":"leave","device":"sensor"} => the device is not in the network)");
}

TEST_P(HalTest, installCodesAndTheKeyTable) {
    const mesh::Key expected = {0x66, 0xB6, 0x90, 0x09, 0x81, 0xE1, 0xEE, 0x3C,
                                0xA4, 0x20, 0x6B, 0x6B, 0x86, 0x1C, 0x02, 0xBB};
    scenario_.devices = {device("lamp", 1)};
    scenario_.coordinator.key_table_capacity = 3;
    startWithNetwork();
    join({"lamp"});
    mesh::Eui64 eui64 = {8, 7, 6, 5, 4, 3, 2, 1};
    mesh::InstallCode code = kCode;
    EXPECT_EQ(oruZbHal_addInstallCode(eui64.data(), code.data(), 17), ORU_STATUS_DATA_LEN_INVALID);
    EXPECT_EQ(oruZbHal_addInstallCode(eui64.data(), nullptr, 18), ORU_STATUS_NULL_POINTER);
    code[17] ^= 1;
    EXPECT_EQ(addInstallCode(eui64, code), ORU_STATUS_BAD_PARAM);
    EXPECT_EQ(addInstallCode(eui64, kCode), 0);
    EXPECT_EQ(addInstallCode(eui64, kCode), 0) << "twice is once";

    const auto entries = [] {
        std::vector<oruZbHal_keyStruct_t> table;
        oruZbHal_keyStruct_t entry{};
        while (oruZbHal_getKeyTableEntry(static_cast<uint8_t>(table.size()), &entry) == 0) {
            table.push_back(entry);
        }
        return table;
    };
    oruZbHal_keyStruct_t network_key{};
    EXPECT_EQ(oruZbHal_getKey(ORU_ZB_HAL_CURRENT_NETWORK_KEY, &network_key), 0);
    const auto table = entries();
    ASSERT_EQ(table.size(), 3U); // network key, install code, device
    EXPECT_EQ(memcmp(table[0].key.contents, network_key.key.contents, 16), 0);
    EXPECT_EQ(memcmp(table[1].key.contents, expected.data(), 16), 0);
    EXPECT_TRUE(std::equal(eui64.rbegin(), eui64.rend(), table[1].partner_eui64));
    EXPECT_EQ(table[2].partner_eui64[0], 1);
    for (uint8_t more = 0; more < 3; ++more) {
        eui64[7] = static_cast<uint8_t>(20 + more);
        EXPECT_EQ(addInstallCode(eui64, kCode), more < 2 ? 0 : ORU_STATUS_OUT_OF_MEMORY);
    }
    EXPECT_EQ(oruZbHal_clearTransientLinkKeys(), 0);
    EXPECT_EQ(entries().size(), 2U);
}

TEST_P(HalTest, powerStaysWithinTheRegion) {
    startWithNetwork();
    play(R"(region 5 => -10
region 10 => -10
region -1 => -10
region 0
power 20
power 21 => -10
dbm => 20
region 2
dbm => 10 # lowered with the region
power 11 => -10
power -21 => -10
power -20
dbm => -20)");
}

// "children / neighbours / destination>next hop of the active routes", by the names of the devices.
std::string tables() {
    std::map<uint16_t, std::string> names;
    for (const mesh::SimDevice &device : hal::simTarget()->list()) {
        names[device.node_id] = device.name;
    }
    oruZbHal_childTableEntry_t children[40];
    oruZbHal_neighborTableEntry_t neighbors[40];
    oruZbHal_routeTableEntry_t routes[40];
    uint8_t counts[] = {40, 40, 40};
    EXPECT_EQ(oruZbHal_getChildren(children, &counts[0]), 0);
    EXPECT_EQ(oruZbHal_getNeighbors(neighbors, &counts[1]), 0);
    EXPECT_EQ(oruZbHal_getRouteTableEntries(routes, &counts[2]), 0);
    std::string text;
    for (int i = 0; i < counts[0]; ++i) {
        text += names[children[i].short_id] + " ";
    }
    text += "/";
    for (int i = 0; i < counts[1]; ++i) {
        text += " " + names[neighbors[i].short_id];
    }
    text += " /";
    for (int i = 0; i < counts[2]; ++i) {
        text += routes[i].status == 0 ? " " + names[routes[i].destination] + ">" + names[routes[i].next_hop] : "";
    }
    return text;
}

TEST_P(HalTest, tablesFollowTheTopology) {
    scenario_.devices = {device("near", 1),
                         device("far", 2, mesh::Role::router, "near"),
                         device("sensor", 3, mesh::Role::end_device), // child of the coordinator
                         device("button", 4, mesh::Role::end_device, "near"),
                         device("remote", 5, mesh::Role::router, "far"),
                         device("bell", 6, mesh::Role::end_device, "near")};
    scenario_.devices[4].link_quality = 70; // too weak for a link past its parent
    scenario_.coordinator.child_capacity = 2;
    startWithNetwork();
    join({"near", "far", "sensor", "button", "remote", "bell"});
    EXPECT_EQ(tables(), "sensor / near far / far>near button>near remote>near bell>near") << "far is heard, too";
    oruZbHal_neighborTableEntry_t one{};
    uint8_t count = 1;
    EXPECT_EQ(oruZbHal_getNeighbors(&one, &count), 0);
    EXPECT_EQ(count, 1) << "never more than the capacity";
    EXPECT_EQ(one.long_id[0], 1) << "least significant byte first";

    play(R"({"command":"power","device":"near","on":false} @30000 => ok | 4 rejoined, announced)");
    EXPECT_EQ(tables(), "sensor button / far / remote>far") << "there was room for one of near's children";
    play(R"({"command":"rejoin","device":"bell"} => the coordinator has no room)");
    play(R"({"command":"power","device":"far","on":false} @30000 => ok)");
    EXPECT_EQ(tables(), "sensor button / /") << "remote is out of reach of everybody";
    play(R"({"command":"power","device":"near","on":true} => ok | announced
{"command":"power","device":"far","on":true} => ok | announced, 4 rejoined, 6 rejoined, announced, announced
{"command":"leave","device":"sensor"} @30000 => ok | 3 left)");
    EXPECT_EQ(tables(), "/ near far / far>near button>near remote>near bell>near");
}

TEST_P(HalTest, aRestartKeepsNetworkAndDevices) {
    scenario_.devices = {device("sensor", 2, mesh::Role::end_device, "lamp"), device("lamp", 1), device("gone", 3)};
    startWithNetwork(folder_);
    join({"lamp", "sensor", "gone"});
    play(R"({"command":"leave","device":"gone"} => ok | 3 left
power 3)");
    const std::string path = folder_ + "/virtual-radio-0200c0fffe000001.state";
    const auto memory = [&] { // the network, its key, the power, and the addresses of the devices
        std::ifstream file(path);
        return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    };
    const std::string good = memory();
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0600}) << "it holds the network key";

    start(folder_, 99);
    play(R"(wait | stack enabling, stack up # and nobody has joined anew
send sensor 1 | sent 1: 0, frame of 5
dbm => 3)");
    std::filesystem::remove(path);
    play("power 3"); // writes the file again
    EXPECT_EQ(memory(), good);
    EXPECT_EQ(tables(), "/ lamp / sensor>lamp");

    // Other scenarios in the same folder: of the same radio, the file named as it once was, and of another radio.
    const std::vector<mesh::DeviceSpec> home = std::exchange(scenario_.devices, {device("plug", 9)});
    std::filesystem::rename(path, folder_ + "/virtual-radio.state");
    start(folder_);
    play("wait | stack enabling, stack up");
    join({"plug"});
    play("leave plug 0x80 @500 | sent 0: 0, frame of 2"); // and the daemon ends while it is away
    start(folder_);
    play("wait @5000 | stack enabling, stack up, 9 rejoined, announced");
    scenario_.coordinator.eui64[7] = 2;
    start(folder_);
    play("wait | stack enabling, stack without network\nform | stack up");
    scenario_.coordinator.eui64[7] = 1;
    scenario_.devices = home;
    start(folder_);
    play("wait | stack enabling, stack up\nsend sensor 1 | sent 1: 0, frame of 5");
    EXPECT_EQ(tables(), "/ lamp / sensor>lamp");

    // Any damage costs the network, never more, and is named.
    for (size_t cut = 0; cut <= good.size(); cut += 7) {
        std::string damaged = cut % 2 == 0 ? good.substr(0, cut) : good;
        if (cut % 2 != 0) {
            damaged[cut] = static_cast<char>(damaged[cut] ^ 0x04);
        }
        EXPECT_FALSE(mesh::parseMemory(damaged).has_value()) << cut;
    }
    std::ofstream(path) << good.substr(0, good.size() / 2);
    start(folder_);
    play(R"(wait | stack enabling, stack without network
form | stack up
leave-network | stack without network)");
    EXPECT_TRUE(testplat::log::has(path + " is damaged"));
    EXPECT_FALSE(std::filesystem::exists(path)) << "nothing left to remember";
}

} // namespace zbhal_test
