// SPDX-License-Identifier: Apache-2.0
#include "virtual/scenario.h"
#include "virtual/text_formats.h"
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace corvane::mesh {
namespace {

std::string failure(const std::string &text) {
    Scenario scenario;
    scenario.name = "untouched";
    ScenarioError error;
    EXPECT_FALSE(parseScenario(text, "f", scenario, error)) << text;
    EXPECT_EQ(scenario.name, "untouched") << text;
    return error.message;
}

// Lines 1 to 3 of a device that is fine so far; a case goes on in line 4.
const std::string kDevice = "[[device]]\nname = \"a\"\neui64 = \"02:00:00:00:00:00:00:01\"\n";
const std::string kRouters = kDevice + "[[device]]\nname = \"b\"\neui64 = \"02:00:00:00:00:00:00:02\"\n";

TEST(Scenario, FaultsAreNamedWithTheirPlace) {
    const struct {
        std::string text;
        const char *message; // begins with this
    } cases[] = {
        {"name = ", "f:1:8: "},
        {"a = 1\n", "f:1:1: unknown key \"a\" in the scenario; known: name, seed"},
        {"zz = 1\naa = 1\n", "f:1:1: unknown key \"zz\""},
        {"name = 5", "f:1:8: name must be a text"},
        {"name = \"a\\nb\"", "f:1:8: name must have at most 32 characters, all printable ASCII"},
        {"name = \"0123456789012345678901234567890123\"", "f:1:8: name must have at most 32"},
        {"seed = -1", "f:1:8: seed must be an integer from 0 to"},
        {"seed = 1.5", "f:1:8: seed must be an integer"},
        {"speed = 0.05", "f:1:9: speed must be a number from 0.1 to 100"},
        {"speed = nan", "f:1:9: speed must be a number"},
        {"speed = true", "f:1:9: speed must be a number"},
        {"air = 3", "f:1:7: air must be a table: [air]"},
        {"[air]\nloss = 1.01", "f:2:8: loss must be a number from 0 to 1"},
        {"[air]\nmax_in_flight = 0", "f:2:17: max_in_flight must be an integer from 1 to 1000"},
        {"[coordinator]\nfirmware_version = [1, 256]", "f:2:24: a part of firmware_version"},
        {"[coordinator]\nfirmware_version = []", "f:2:20: firmware_version must be a list"},
        {"[coordinator]\neui64 = \"ff:ff:ff:ff:ff:ff:ff:ff\"", "f:2:9: eui64 must be eight hexadecimal bytes"},
        {"[energy_dbm]\n10 = -50", "f:2:1: unknown key \"10\""},
        {"[energy_dbm]\n11 = 0", "f:2:6: 11 must be an integer from -110 to -1"},
        {"[[foreign_network]]\nchannel = 11", "f:1:1: foreign_network needs the key \"pan_id\""},
        {"[[foreign_network]]\npan_id = 1\nchannel = 27", "f:3:11: channel must be an integer from 11 to 26"},
        {"device = [1]", "f:1:11: device must hold tables only: [[device]]"},
        {"device = 1", "f:1:10: device must be at most 500 tables"},
        {"[[device]]\nname = \"a\"", "f:1:1: device needs the key \"eui64\""},
        {"[[device]]\nname = \"a b\"\neui64 = \"02:00:00:00:00:00:00:01\"", "f:2:8: name must be 1 to 32 of the"},
        {"[[device]]\nname = \"a\"\neui64 = \"02-00-00-00-00-00-00-01\"", "f:3:9: eui64 must be eight"},
        {"[[device]]\nname = \"a\"\neui64 = \"02:00:00:00:00:00:00:0g\"", "f:3:9: eui64 must be eight"},
        {kDevice + "role = \"coordinator\"", "f:4:8: role must be \"router\", "},
        {kDevice + "link_quality = 0", "f:4:16: link_quality must be an integer from 1 to 255"},
        {kDevice + "poll_interval_ms = 99", "f:4:20: poll_interval_ms must be an integer from 100"},
        {kDevice + "join_at_ms = 99999999", "f:4:14: join_at_ms must be an integer"},
        {kDevice + "install_code_only = true", "f:4:21: install_code_only needs an install_code"},
        {kDevice + "install_code = \"83FED3407A939723A5C639B26916D505\"", "f:4:16: install_code must be 36 hex"},
        {kDevice + "install_code = \"83FED3407A939723A5C639B26916D505B5C3\"", "f:4:16: the CRC in the last two"},
        {kDevice + "install_code_crc = \"compute\"\ninstall_code = \"83FE\"", "f:5:16: install_code must be 32 hex"},
        {kDevice + "install_code_crc = \"none\"", "f:4:20: install_code_crc must be \"given\" or \"compute\""},
        {kDevice + "faults.silent = 1", "f:4:17: silent must be true or false"},
        {kDevice + "faults.zdo_length_delta = 129", "f:4:27: zdo_length_delta must be an integer from -128 to 128"},
        {kDevice + "endpoint = [{id = 0}]", "f:4:19: id must be an integer from 1 to 240"},
        {kDevice + "endpoint = [{device_id = 1}]", "f:4:13: endpoint needs the key \"id\""},
        {kDevice + "endpoint = [{id = 1}, {id = 1}]", "f:4:29: endpoint 1 is there twice"},
        {kDevice + "endpoint = [{id = 1, input_clusters = [6, \"on_off\"]}]", "f:4:43: cluster listed twice in"},
        {kDevice + "endpoint = [{id = 1, input_clusters = [\"onoff\"]}]", "f:4:40: unknown cluster \"onoff\"; known: "},
        {kDevice + "endpoint = [{id = 1, input_clusters = [65536]}]", "f:4:40: a cluster must be a number from 0"},
        {kDevice + "report = [{cluster = 6, attribute = 0}]", "f:4:11: the device has no endpoint 1"},
        {kDevice + "endpoint = [{id = 1}]\nreport = [{cluster = 6, attribute = 0}]",
         "f:5:22: endpoint 1 does not have this cluster in input_clusters"},
        {kDevice + "endpoint = [{id = 1, input_clusters = [6]}]\nreport = [{cluster = 6, attribute = \"x\"}]",
         "f:5:37: the cluster has no attribute named \"x\""},
        {kDevice + "endpoint = [{id = 1, input_clusters = [6]}]\nreport = [{cluster = 6, attribute = 0x4001}]",
         "f:5:37: the cluster has no such attribute that can be reported"},
        {kDevice + "endpoint = [{id = 1, input_clusters = [6]}]\nreport = [{cluster = 6, attribute = 0, "
                   "interval_ms = 99}]",
         "f:5:54: interval_ms must be an integer from 100"},
        {kDevice + "[[device]]\nname = \"a\"\neui64 = \"02:00:00:00:00:00:00:02\"",
         "f:5:8: name \"a\" is taken by the device in line 2"},
        {kDevice + "[[device]]\nname = \"b\"\neui64 = \"02:00:00:00:00:00:00:01\"",
         "f:6:9: eui64 02:00:00:00:00:00:00:01 is taken by device \"a\""},
        {"[[device]]\nname = \"a\"\neui64 = \"02:00:c0:ff:fe:00:00:01\"", "f:3:9: eui64 02:00:c0:ff:fe:00:00:01 is "
                                                                          "that of the coordinator"},
        {kDevice + "parent = \"x\"", "f:4:10: parent \"x\" is not the name of a device"},
        {kDevice + "parent = \"a\"", "f:4:10: the parents of \"a\" form a cycle"},
        {kDevice + "parent = \"b\"\n[[device]]\nname = \"b\"\neui64 = \"02:00:00:00:00:00:00:02\"\nparent = \"a\"",
         "f:4:10: the parents of \"a\" form a cycle"},
        {kDevice + "parent = \"b\"\n[[device]]\nname = \"b\"\neui64 = \"02:00:00:00:00:00:00:02\"\n"
                   "role = \"end_device\"",
         "f:4:10: parent \"b\" is not a router"},
        {std::string(1024 * 1024 + 1, '#'), "f:1:1: a scenario must not be larger than 1 MiB"},
        {"[[[", "f:1:"},
        {"a = " + std::string(100000, '['), "f:1:"},
        {"a" + std::string(5000, '.') + " = 1", "f:1:4098: more than 4096 full stops"},
        {"name = \"\xff\xfe\"", "f:1:9: not a character in UTF-8"},
    };
    for (const auto &test : cases) {
        const std::string message = failure(test.text);
        EXPECT_EQ(message.substr(0, std::string(test.message).size()), test.message) << message;
    }
}

TEST(Scenario, CyclesAmongOthersDoNotHangTheParser) {
    EXPECT_EQ(failure(kRouters + "parent = \"c\"\n[[device]]\nname = \"c\"\neui64 = \"02:00:00:00:00:00:00:03\"\n"
                                 "parent = \"b\"\n[[device]]\nname = \"d\"\neui64 = \"02:00:00:00:00:00:00:04\"\n"
                                 "parent = \"b\"\n"),
              "f:7:10: the parents of \"b\" form a cycle");
}

TEST(Scenario, InstallCodesCarryTheirCrcLowByteFirst) {
    const auto code = parseHex("83FED3407A939723A5C639B26916D505 C3B5", 18).value(); // as labels print it
    InstallCode value{};
    std::ranges::copy(code, value.begin());
    EXPECT_EQ(installCodeCrc(value), 0xB5C3);
    EXPECT_TRUE(installCodeValid(value));
    value[17] ^= 1;
    EXPECT_FALSE(installCodeValid(value));
}

TEST(Scenario, HomeHasWhatTheDemonstrationNeeds) {
    Scenario home;
    ScenarioError error;
    ASSERT_TRUE(loadScenario(CORVANE_SCENARIOS "/home.toml", home, error)) << error.message;
    const auto device = [&](const std::string &name) {
        return *std::ranges::find(home.devices, name, &DeviceSpec::name);
    };
    EXPECT_EQ(device("power-strip").endpoints.size(), 7U);
    EXPECT_EQ(device("wall-panel").endpoints[0].input_clusters.size(), 20U);
    EXPECT_EQ(device("wall-panel").endpoints[0].output_clusters.size(), 20U);
    EXPECT_EQ(device("wall-switch").endpoints.size(), 2U);
    EXPECT_TRUE(device("attic-relay").faults.silent);
    EXPECT_NE(device("cellar-probe").faults.zdo_length_delta, 0);
    EXPECT_TRUE(installCodeValid(device("garden-gate").install_code.value()));
    EXPECT_TRUE(device("garden-gate").install_code_only);
    EXPECT_EQ(device("front-door").mac_capabilities, 0x80);
    for (const DeviceSpec &spec : home.devices) {
        const bool broken = spec.faults.silent || spec.faults.zdo_length_delta != 0;
        EXPECT_EQ(spec.join_at_ms.has_value(), !broken) << spec.name;
        EXPECT_EQ(spec.eui64[0] & 0x03, 0x02) << spec.name << ": locally administered";
    }
    EXPECT_EQ(home.energy_dbm[1], -52);
    EXPECT_EQ(home.foreign_networks.size(), 2U);
}

TEST(Scenario, FilesThatCannotBeReadAreNamed) {
    char folder[] = "/tmp/scenario-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string path = folder;
    ASSERT_EQ(mkfifo((path + "/fifo").c_str(), 0600), 0);
    std::ofstream(path + "/large") << std::string(1024 * 1024 + 1, '\n');
    std::ofstream(path + "/bad") << "\n\nname = 1\n";
    Scenario scenario;
    ScenarioError error;
    const auto load = [&](const std::string &name) {
        EXPECT_FALSE(loadScenario(path + name, scenario, error));
        return error.message.substr(path.size());
    };
    EXPECT_EQ(load("/none"), "/none: cannot be opened: No such file or directory");
    EXPECT_EQ(load(""), ": is a directory, not a scenario file");
    EXPECT_EQ(load("/fifo"), "/fifo: is not a regular file");
    EXPECT_EQ(load("/large"), "/large: is larger than 1 MiB");
    EXPECT_EQ(load("/bad"), "/bad:3:8: name must be a text");
    std::filesystem::remove_all(path);
}

} // namespace
} // namespace corvane::mesh
