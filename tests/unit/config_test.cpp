// SPDX-License-Identifier: Apache-2.0
// Configuration file and platform start-up: mistakes are named with their place and nothing of the file is applied.
#include "config_internal.h"
#include "oru_init.h"
#include "oru_log_setup.h"
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>

namespace {

namespace fs = std::filesystem;

// All settings but those that the example shows without their defaults.
auto fieldsOf(const oruConfig_t &c) {
    return std::tuple(c.state_directory, c.runtime_directory, c.socket_mode, c.ipc_users, c.ipc_groups,
                      c.radio_event_descriptor, c.watchdog_seconds, c.radio_wait_for_adapter, c.simulation_control,
                      c.log_sink, c.log_level, c.log_max_size_kib, c.log_max_files);
}

std::string read(const std::string &path) {
    return (std::ostringstream() << std::ifstream(path).rdbuf()).str();
}

class ConfigTest : public testing::Test {
protected:
    ~ConfigTest() override {
        oruLog_configure({});
        free(config.thread_prio);
        fs::remove_all(folder);
    }
    // These give what was logged.
    std::string parseFile(const std::string &path, oru_status_t expected = ORU_STATUS_OK) {
        FILE *opened = fopen(path.c_str(), "r");
        testing::internal::CaptureStderr();
        EXPECT_EQ(oruUserConfig_parser(opened, &config), expected);
        (void)fclose(opened);
        EXPECT_TRUE(oruLog_flush(10000));
        return testing::internal::GetCapturedStderr();
    }
    std::string parse(const std::string &text, oru_status_t expected = ORU_STATUS_OK) {
        std::ofstream(file) << text;
        return parseFile(file, expected);
    }
    std::string start(const std::string &state, const std::string &runtime, oru_status_t expected) {
        oruConfig_t settings = oruConfig_get();
        settings.state_directory = state;
        settings.runtime_directory = runtime;
        oruConfig_replace(settings);
        testing::internal::CaptureStderr();
        EXPECT_EQ(oru_initWithConfig(&config), expected);
        EXPECT_TRUE(oruLog_flush(10000));
        return testing::internal::GetCapturedStderr();
    }

    oruUserConfig_config_t config = {1, nullptr};
    std::string pattern = (fs::temp_directory_path() / "config-XXXXXX").string();
    std::string folder = mkdtemp(pattern.data());
    std::string file = folder + "/file";
};

void expectLine(const std::string &logged, const std::string &part) {
    EXPECT_EQ(std::ranges::count(logged, '\n'), 1) << logged;
    EXPECT_NE(logged.find(part), std::string::npos) << logged << part;
}

TEST_F(ConfigTest, EveryMistakeIsNamedWithItsPlaceAndNothingIsApplied) {
    const std::pair<const char *, const char *> cases[] = {
        {"[log\nlevel=1", ":1:5: "},
        {"[log]\nlevel = \"loud\"", ":2:9: log.level has a wrong value; allowed: \"verbose\", \"debug\""},
        {"[log]\nlevle = \"info\"", ":2:1: unknown name \"log.levle\"; allowed: sink, level, file"},
        {"[lgo]\nlevel = \"info\"", ":1:2: unknown name \"lgo\"; allowed: version and the tables [thread_priority]"},
        {"log = \"info\"", ":1:1: \"log\" must be a table"},
        {"\n[log]\nsink = \"file\"", ":3:8: log.sink = \"file\" needs log.file"},
        {"[log]\nmax_size_kib = 15", ":2:16: log.max_size_kib has a wrong value; allowed: an integer from 16"},
        {"version = 2", ":1:11: version has a wrong value; allowed: 1"},
        {"[thread_priority]\nhigh = 1\nlow = 4294967296", ":3:7: thread_priority.low"},
        {"[store]\ndirectory = \"/a\\u0000b\"", ":2:13: store.directory"},
        {"[ipc]\nsocket_mode = \"0888\"", ":2:15: ipc.socket_mode"},
        {"[ipc]\ngroups = [\"a\", true]", ":2:10: ipc.groups"},
        {"[radio]\nwatchdog_seconds = 86401", ":2:20: radio.watchdog_seconds"},
        {"[thread_priority]\nlow = true\n[log]\nlevel = 1", ":2:7: "}, // the first of the file, not of the alphabet
        {"# \u00e9\nk\u00e9y = 1", ":2:2: a character outside ASCII"},
        {"[log]\nfile = \"\u00e9\\\\\" \ufef0", ":2:14: a character outside ASCII"},
        {"# \u00e9\nversion = \"\"\"\n\"\"\"", ":1:3: characters outside ASCII in a file with multi-line"},
        {"[log]\n\"a\\u001bb\" = 1", ":2:1: unknown name \"log.a?b\""}, // nothing forges a log line
        {"[store]\ndirectory = \"/x\"\n[log]\nlevel = 1", ":4:9: log.level"},
    };
    const auto before = fieldsOf(oruConfig_get());
    for (const auto &[text, message] : cases) {
        expectLine(parse(text, ORU_STATUS_BAD_PARAM), message);
        EXPECT_EQ(fieldsOf(oruConfig_get()), before);
        EXPECT_EQ(config.thread_prio, nullptr);
    }
}

TEST_F(ConfigTest, WhatIsNotATextFileIsRefused) {
    expectLine(parseFile(folder, ORU_STATUS_BAD_PARAM), folder + " cannot be read: Is a directory");
    expectLine(parseFile("/dev/zero", ORU_STATUS_BAD_PARAM), "/dev/zero is larger than 1 MiB");
    parse("# " + std::string(1024 * 1024 - 2, 'x')); // exactly 1 MiB
    parse(std::string("version\0= 1", 11), ORU_STATUS_BAD_PARAM);
    parse("[log]\nfile = \"\xff\xfe\"", ORU_STATUS_BAD_PARAM);
    for (const std::string unit : {"[", "a.", "{", "a={", "a=[", "\"", "=", "-", "1_", "0x", "t", "\\"}) {
        std::string text;
        for (const size_t repeat : {1U, 2U, 3U, 5U, 4096U, 100000U}) { // neither an abort nor the end of the stack
            for (size_t size = text.size(); size < repeat * unit.size(); size += unit.size()) {
                text += unit;
            }
            parse(text, ORU_STATUS_BAD_PARAM);
            parse(text + "a = 1", ORU_STATUS_BAD_PARAM);
        }
    }
}

TEST_F(ConfigTest, AllSettingsArrive) {
    parse("version = 1\nthread_priority.low = 4294967295\n"
          "[log]\nsink = \"file\"\nlevel = \"warn\"\nfile = \"/l\"\nmax_size_kib = 16\nmax_files = 0\n"
          "[store]\ndirectory = \"/s\u00e9\\\"\" # \u00e9\n"
          "[ipc]\ndirectory = \"/r\"\nsocket_mode = \"600\"\nusers = [\"alice\", 1000]\ngroups = [0]\n"
          "[radio]\nevent_mode = \"thread\"\nseed = 0\nwatchdog_seconds = 7\nwait_for_adapter = true\n"
          "[simulation]\ncontrol_socket = false\n");
    const oruConfig_t &settings = oruConfig_get();
    const std::vector<std::string> users = {"alice", "1000"}, groups = {"0"};
    EXPECT_EQ(fieldsOf(settings), std::tuple("/s\u00e9\"", "/r", 0600U, users, groups, false, 7U, true, false,
                                             oruConfig_log_sink_t::LOG_FILE, ORU_LOG_WARN, 16U, 0U));
    EXPECT_EQ(settings.log_file, "/l");
    EXPECT_TRUE(settings.radio_seed_set && settings.radio_seed == 0);
    ASSERT_NE(config.thread_prio, nullptr);
    EXPECT_EQ(config.thread_prio->low, 4294967295U);
    EXPECT_EQ(config.thread_prio->high, 0U);
}

// The shipped example must stay loadable, also after someone removed every comment sign in front of a setting, and
// its commented values must be the defaults. The two active lines suit the service unit.
TEST_F(ConfigTest, TheShippedExampleIsValidAndShowsTheDefaults) {
    const std::string example = read(CORVANE_EXAMPLE_CONFIG);
    const std::string active = std::regex_replace(example, std::regex("\n#([a-z_]+ = )"), "\n$1");
    ASSERT_NE(active, example);
    oruConfig_t expected = oruConfig_defaults();
    expected.ipc_groups = {"corvane"};
    expected.radio_wait_for_adapter = true;
    for (const std::string &text : {example, active}) {
        EXPECT_EQ(parse(text), "");
        EXPECT_EQ(fieldsOf(oruConfig_get()), fieldsOf(expected));
    }
    setenv("STATE_DIRECTORY", "/var/lib/one:/var/lib/two", 1);
    setenv("RUNTIME_DIRECTORY", "", 1);
    EXPECT_EQ(oruConfig_defaults().state_directory, "/var/lib/one");
    EXPECT_EQ(oruConfig_defaults().runtime_directory, "/run/corvane");
    unsetenv("STATE_DIRECTORY");
    unsetenv("RUNTIME_DIRECTORY");
}

TEST_F(ConfigTest, StartUpCreatesTheFoldersAndSetsTheLogUp) {
    const mode_t umask_before = umask(077);
    parse("[log]\nsink = \"file\"\nlevel = \"error\"\nmax_size_kib = 16\nmax_files = 1\nfile = \"" + folder + "/log\"");
    for (int round = 0; round < 2; ++round) { // folders that exist are fine
        EXPECT_EQ(start(folder + "/state", folder + "/run/", ORU_STATUS_OK), "");
    }
    umask(umask_before);
    EXPECT_EQ(fs::status(folder + "/state").permissions(), fs::perms(0700));
    EXPECT_EQ(fs::status(folder + "/run").permissions(), fs::perms(0755));
    EXPECT_TRUE(fs::is_empty(folder + "/state")) << "no probe file stays";
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_WARN, "test", "below the level");
    for (int line = 0; line < 120; ++line) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, "test", "%0100d", line);
    }
    EXPECT_TRUE(oruLog_flush(10000));
    EXPECT_GT(fs::file_size(folder + "/log.1"), 15U * 1024U);
    EXPECT_EQ(read(folder + "/log.1").find("below"), std::string::npos);
}

TEST_F(ConfigTest, UnusableFoldersStopTheStartWithOneLineEach) {
    parse("");
    const std::pair<std::string, std::string> cases[] = {
        {folder + "/missing/state", "cannot be created: No such file or directory; create it, make it writable for"},
        {file, "is not a folder"},
        {folder + "/file/state", "cannot be created: Not a directory"},
        {"/proc", "cannot be written: "}, // read-only for root as well
    };
    for (const auto &[path, reason] : cases) {
        const std::string line = std::string(".directory \"").append(path).append("\" ").append(reason);
        const bool may_wait = path == "/proc"; // a medium can be read-only for a while, a wrong path stays wrong
        expectLine(start(path, folder, may_wait ? ORU_STATUS_OK : ORU_STATUS_GENERAL_ERROR), "store" + line);
        expectLine(start(folder, path, ORU_STATUS_GENERAL_ERROR), "ipc" + line);
    }
    const std::string both = start(file, file, ORU_STATUS_GENERAL_ERROR);
    EXPECT_EQ(std::ranges::count(both, '\n'), 2) << "both at the first start";
    parse("[log]\nsink = \"file\"\nfile = \"/none/log\"");
    expectLine(start(folder, folder, ORU_STATUS_BAD_PARAM), "the log cannot be set up: cannot open log file \"/none/");
}

} // namespace
