// SPDX-License-Identifier: Apache-2.0
#include "virtual/scenario.h"
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <sys/stat.h>

namespace corvane::mesh {
namespace {

// "text => where: what is wrong"; the message begins like this. In the text \n is a line feed, "@a " three lines of a
// device of that name that is fine so far.
const char *const kFaults = R"(name = => 1:8:
zz = 1\naa = 1 => 1:1: unknown key "zz" in the scenario; known: name, seed
name = 5 => 1:8: name must be a text
name = "0123456789012345678901234567890123" => 1:8: name must have at most 32
speed = nan => 1:9: speed must be a number
air = 3 => 1:7: air must be a table: [air]
[air]\nloss = 1.01 => 2:8: loss must be a number from 0 to 1
[air]\nmax_in_flight = 65 => 2:17: max_in_flight must be an integer from 1 to 64
[coordinator]\nfirmware_version = [1, 256] => 2:24: a part of firmware_version
[coordinator]\neui64 = "ff:ff:ff:ff:ff:ff:ff:ff" => 2:9: eui64 must be eight hexadecimal bytes
[energy_dbm]\n10 = -50 => 2:1: unknown key "10"
[[foreign_network]]\nchannel = 11 => 1:1: foreign_network needs the key "pan_id"
device = 1 => 1:10: device must be at most 500 tables
[[device]]\nname = "a" => 1:1: device needs the key "eui64"
[[device]]\nname = "a"\neui64 = "02-00-00-00-00-00-00-01" => 3:9: eui64 must be eight
[[device]]\nname = "a"\neui64 = "02:00:c0:ff:fe:00:00:01" => 3:9: eui64 02:00:c0:ff:fe:00:00:01 is that of
@a install_code_only = true => 4:21: install_code_only needs an install_code
@a install_code = "83FED3407A939723A5C639B26916D505" => 4:16: install_code must be 36 hex
@a install_code = "83FED3407A939723A5C639B26916D505B5C3" => 4:16: the CRC in the last two
@a install_code = "83FED3407A939723A5C639B26916D505 C3B5"\nrole = 1 => 5:8:
@a install_code_crc = "compute"\ninstall_code = "83FE" => 5:16: install_code must be 32 hex
@a endpoint = [{device_id = 1}] => 4:13: endpoint needs the key "id"
@a endpoint = [{id = 1}, {id = 1}] => 4:29: endpoint 1 is there twice
@a endpoint = [{id = 1, input_clusters = [6, "on_off"]}] => 4:43: cluster listed twice in
@a endpoint = [{id = 1, input_clusters = ["on_of"]}] => 4:40: unknown cluster "on_of"; known:
@a report = [{cluster = 6, attribute = 0}] => 4:11: the device has no endpoint 1
@a endpoint = [{id = 1}]\nreport = [{cluster = 6, attribute = 0}] => 5:22: endpoint 1 does not have this cluster in
@a endpoint = [{id = 1, input_clusters = [6]}]\nreport = [{cluster = 6, attribute = 0x4001}] => 5:37: the cluster has no
@a @a => 5:8: name "a" is taken by the device in line 2
@a [[device]]\nname = "b"\neui64 = "02:00:00:00:00:00:00:0a" => 6:9: eui64 02:00:00:00:00:00:00:0a is taken by
@a parent = "x" => 4:10: parent "x" is not the name of a device
@a parent = "a" => 4:10: the parents of "a" form a cycle
@a parent = "c"\n@b parent = "c"\n@c parent = "b" => 4:10: the parents of "a" form a cycle
@a parent = "b"\n@b role = "end_device" => 4:10: parent "b" is not a router)";

TEST(Scenario, FaultsAreNamedWithTheirPlace) {
    std::istringstream lines(kFaults + std::string("\nname = \"\xff\" => 1:9: not a character in UTF-8"));
    for (std::string line; std::getline(lines, line);) {
        const size_t arrow = line.find("=> ");
        std::string text = line.substr(0, arrow);
        text = std::regex_replace(text, std::regex("@(.) "),
                                  R"([[device]]\nname = "$1"\neui64 = "02:00:00:00:00:00:00:0$1"\n)");
        text = std::regex_replace(text, std::regex(R"(\\n)"), "\n");
        Scenario scenario;
        scenario.name = "untouched";
        ScenarioError error;
        EXPECT_FALSE(parseScenario(text, "f", scenario, error)) << line;
        EXPECT_EQ(error.message.find("f:" + line.substr(arrow + 3)), 0U) << line << error.message;
        EXPECT_EQ(scenario.name, "untouched") << line;
    }
}

TEST(Scenario, HomeHasWhatTheDemonstrationNeeds) {
    Scenario home;
    ScenarioError error;
    ASSERT_TRUE(loadScenario(CORVANE_SCENARIOS "/home.toml", home, error)) << error.message;
    const auto device = [&](const std::string &name) {
        return *std::ranges::find(home.devices, name, &DeviceSpec::name);
    };
    EXPECT_EQ(device("power-strip").endpoints.size(), 7U);
    EXPECT_TRUE(device("attic-relay").faults.silent);
    EXPECT_NE(device("cellar-probe").faults.zdo_length_delta, 0);
    EXPECT_TRUE(zigbee::isInstallCodeValid(device("garden-gate").install_code.value()));
    EXPECT_TRUE(device("garden-gate").install_code_only);
    EXPECT_EQ(device("front-door").mac_capabilities, 0x80);
    for (const DeviceSpec &spec : home.devices) {
        const bool broken = spec.faults.silent || spec.faults.zdo_length_delta != 0;
        EXPECT_EQ(spec.join_at_ms.has_value(), !broken) << spec.name;
    }
}

TEST(Scenario, FilesThatCannotBeReadAreNamed) {
    char folder[] = "/tmp/scenario-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string path = folder;
    ASSERT_EQ(mkfifo((path + "/fifo").c_str(), 0600), 0);
    std::ofstream(path + "/large") << std::string(1024 * 1024 + 1, '\n');
    const std::pair<const char *, const char *> cases[] = {
        {"/none", ": cannot be opened: No such file or directory"},
        {"", ": is a directory, not a scenario file"},
        {"/fifo", ": is not a regular file"},
        {"/large", ": is larger than 1 MiB"},
    };
    for (const auto &[name, message] : cases) {
        Scenario scenario;
        ScenarioError error;
        EXPECT_FALSE(loadScenario(path + name, scenario, error));
        EXPECT_EQ(error.message, path + name + message);
    }
    std::filesystem::remove_all(path);
}

} // namespace
} // namespace corvane::mesh
