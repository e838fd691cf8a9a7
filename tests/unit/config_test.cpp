// SPDX-License-Identifier: Apache-2.0
// Configuration file and platform start-up: mistakes are named with their place and nothing of the file is applied.
#include "oru_config.h"
#include "oru_init.h"
#include "oru_log_setup.h"
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::vector<std::string> log_lines;
oruLog_config_t log_settings;
oru_status_t log_status = ORU_STATUS_OK;

struct fileCloser_t {
    void operator()(FILE *file) const { (void)fclose(file); }
};
using file_t = std::unique_ptr<FILE, fileCloser_t>;

file_t fileOf(std::string text) {
    file_t file(tmpfile());
    EXPECT_EQ(fwrite(text.data(), 1, text.size(), file.get()), text.size());
    rewind(file.get());
    return file;
}

class ConfigTest : public testing::Test {
protected:
    ConfigTest() {
        std::string pattern = (std::filesystem::temp_directory_path() / "config-XXXXXX").string();
        folder = mkdtemp(pattern.data());
        oruConfig_setForTesting(oruConfig_defaults());
        log_lines.clear();
        log_status = ORU_STATUS_OK;
    }
    ~ConfigTest() override {
        free(config.thread_prio);
        std::filesystem::remove_all(folder);
    }
    oru_status_t parse(const std::string &text) { return oruUserConfig_parser(fileOf(text).get(), &config); }
    oru_status_t start(const std::string &state, const std::string &runtime) {
        oruConfig_t settings = oruConfig_defaults();
        settings.state_directory = state;
        settings.runtime_directory = runtime;
        oruConfig_setForTesting(settings);
        return oru_initWithConfig(&config);
    }

    oruUserConfig_config_t config = {1, nullptr};
    std::string folder;
};

} // namespace

extern "C" void oruLog_log(oruLog_id_t, oruLog_level_t, const char *, const char *format, ...) {
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    log_lines.emplace_back(text);
}

oru_status_t oruLog_configure(const oruLog_config_t &config, std::string *error) {
    log_settings = config;
    *error = "no such place";
    return log_status;
}

TEST_F(ConfigTest, EveryMistakeIsNamedWithItsPlaceAndNothingIsApplied) {
    const struct {
        const char *text;
        const char *message; // ":line:column: ..." as a part of the one log line
    } cases[] = {
        {"[log\nlevel=1", ":1:5: "},
        {"a = 1 = 2", ":1:7: "},
        {"[log]\nlevel = \"loud\"", ":2:9: log.level has a wrong value; allowed: \"verbose\", \"debug\""},
        {"[log]\nlevle = \"info\"", ":2:1: unknown name \"log.levle\"; allowed: sink, level, file"},
        {"[lgo]\nlevel = \"info\"", ":1:2: unknown name \"lgo\"; allowed: version and the tables [thread_priority]"},
        {"log = \"info\"", ":1:1: \"log\" must be a table"},
        {"[[log]]\nlevel = \"info\"", "\"log\" must be a table"},
        {"[log]\nlevel = \"info\"\nlevel = \"warn\"", ":3:"},
        {"\n[log]\nsink = \"file\"", ":3:8: log.sink = \"file\" needs log.file"},
        {"[log]\nmax_size_kib = 15", ":2:16: log.max_size_kib has a wrong value; allowed: an integer from 16"},
        {"version = 2", ":1:11: version has a wrong value; allowed: 1"},
        {"[thread_priority]\nhigh = 1\nlow = -1", ":3:7: thread_priority.low"},
        {"[thread_priority]\nhigh = 4294967296", ":2:8: thread_priority.high"},
        {"[store]\ndirectory = \"/a\\u0000b\"", ":2:13: store.directory"},
        {"[ipc]\nsocket_mode = 660", ":2:15: ipc.socket_mode"},
        {"[ipc]\nsocket_mode = \"0888\"", ":2:15: ipc.socket_mode"},
        {"[ipc]\ngroups = [\"a\", true]", ":2:10: ipc.groups"},
        {"[ipc]\ngroups = [-1]", ":2:10: ipc.groups"},
        {"[radio]\nevent_mode = \"poll\"", ":2:14: radio.event_mode"},
        {"[radio]\nwatchdog_seconds = 86401", ":2:20: radio.watchdog_seconds"},
        {"[radio]\nseed = 9223372036854775808", ":2:"},
        {"[simulation]\ncontrol_socket = 1", ":2:18: simulation.control_socket"},
        {"[thread_priority]\nlow = true\n[log]\nlevel = 1", ":2:7: "}, // the first of the file, not of the alphabet
        {"# \u00e9\nk\u00e9y = 1", ":2:2: a character outside ASCII"},
        {"[log]\nfile = \"\u00e9\\\\\" \ufef0", ":2:14: a character outside ASCII"},
        {"# \u00e9\nversion = \"\"\"\n\"\"\"", ":1:3: characters outside ASCII in a file with multi-line"},
        {"[log]\n\"a\\u001bb\" = 1", "unknown name \"log.a?b\""}, // nothing forges a log line
    };
    for (const auto &mistake : cases) {
        SCOPED_TRACE(mistake.text);
        log_lines.clear();
        const std::string before = oruConfig_get().state_directory;
        EXPECT_EQ(parse(mistake.text), ORU_STATUS_BAD_PARAM);
        EXPECT_EQ(config.thread_prio, nullptr);
        ASSERT_EQ(log_lines.size(), 1U);
        EXPECT_NE(log_lines[0].find(mistake.message), std::string::npos) << log_lines[0];
        EXPECT_EQ(oruConfig_get().state_directory, before);
    }
    EXPECT_EQ(parse("[store]\ndirectory = \"/x\"\n[log]\nlevel = 1"), ORU_STATUS_BAD_PARAM);
    EXPECT_NE(oruConfig_get().state_directory, "/x");
}

TEST_F(ConfigTest, WhatIsNotATextFileIsRefused) {
    const file_t directory(fopen(folder.c_str(), "r"));
    ASSERT_NE(directory, nullptr);
    EXPECT_EQ(oruUserConfig_parser(directory.get(), &config), ORU_STATUS_BAD_PARAM);
    EXPECT_EQ(log_lines.back(), folder + " cannot be read: Is a directory");
    const file_t endless(fopen("/dev/zero", "r"));
    EXPECT_EQ(oruUserConfig_parser(endless.get(), &config), ORU_STATUS_BAD_PARAM);
    EXPECT_EQ(log_lines.back(), "/dev/zero is larger than 1 MiB; this is not a configuration file");
    EXPECT_EQ(parse(std::string("version\0= 1", 11)), ORU_STATUS_BAD_PARAM);
    EXPECT_EQ(parse("[log]\nfile = \"\xff\xfe\""), ORU_STATUS_BAD_PARAM);
    for (const char *unit : {"[", "a.", "{", "a={", "a=[", "\"", "=", "-", "1_", "0x", "t", "\\"}) {
        for (const size_t repeat : {1U, 2U, 3U, 5U, 4096U, 100000U}) { // neither an abort nor the end of the stack
            std::string text;
            for (size_t i = 0; i < repeat; i++) {
                text += unit;
            }
            EXPECT_EQ(parse(text), ORU_STATUS_BAD_PARAM) << unit << " times " << repeat;
            EXPECT_EQ(parse(text + "a = 1"), ORU_STATUS_BAD_PARAM) << unit << " times " << repeat;
        }
    }
    EXPECT_EQ(parse("# " + std::string(1024 * 1024 - 2, 'x')), ORU_STATUS_OK); // exactly 1 MiB
    EXPECT_EQ(oruUserConfig_parser(nullptr, &config), ORU_STATUS_NULL_POINTER);
    EXPECT_EQ(oruUserConfig_parser(endless.get(), nullptr), ORU_STATUS_NULL_POINTER);
}

TEST_F(ConfigTest, AllSettingsArrive) {
    ASSERT_EQ(parse("version = 1\nthread_priority.low = 4294967295\n"
                    "[log]\nsink = \"file\"\nlevel = \"warn\"\nfile = \"/l\"\nmax_size_kib = 16\nmax_files = 0\n"
                    "[store]\ndirectory = \"/s\u00e9\\\"\" # \u00e9\n"
                    "[ipc]\ndirectory = \"/r\"\nsocket_mode = \"600\"\nusers = [\"alice\", 1000]\ngroups = [0]\n"
                    "[radio]\nevent_mode = \"thread\"\nseed = 0\nwatchdog_seconds = 7\n"
                    "[simulation]\ncontrol_socket = false\n"),
              ORU_STATUS_OK);
    const oruConfig_t &settings = oruConfig_get();
    ASSERT_NE(config.thread_prio, nullptr);
    EXPECT_EQ(config.thread_prio->low, 4294967295U);
    EXPECT_EQ(config.thread_prio->high, 0U);
    EXPECT_EQ(settings.log_sink, oruConfig_log_sink_t::LOG_FILE);
    EXPECT_EQ(settings.log_level, ORU_LOG_WARN);
    EXPECT_EQ(settings.log_file + settings.state_directory + settings.runtime_directory, "/l/s\u00e9\"/r");
    EXPECT_EQ(settings.log_max_size_kib, 16U);
    EXPECT_EQ(settings.log_max_files, 0U);
    EXPECT_EQ(settings.socket_mode, mode_t{0600});
    EXPECT_EQ(settings.ipc_users, (std::vector<std::string>{"alice", "1000"}));
    EXPECT_EQ(settings.ipc_groups, std::vector<std::string>{"0"});
    EXPECT_FALSE(settings.radio_event_descriptor);
    EXPECT_TRUE(settings.radio_seed_set && settings.radio_seed == 0);
    EXPECT_EQ(settings.watchdog_seconds, 7U);
    EXPECT_FALSE(settings.simulation_control);
}

TEST_F(ConfigTest, DefaultsComeFromTheServiceManager) {
    setenv("STATE_DIRECTORY", "/var/lib/one:/var/lib/two", 1);
    setenv("RUNTIME_DIRECTORY", "", 1);
    EXPECT_EQ(oruConfig_defaults().state_directory, "/var/lib/one");
    EXPECT_EQ(oruConfig_defaults().runtime_directory, "/run/corvane");
    unsetenv("STATE_DIRECTORY");
    unsetenv("RUNTIME_DIRECTORY");
    EXPECT_EQ(oruConfig_defaults().state_directory, "/var/lib/corvane");
    EXPECT_EQ(parse(""), ORU_STATUS_OK);
    EXPECT_EQ(oruConfig_get().socket_mode, mode_t{0660});
    EXPECT_EQ(config.thread_prio, nullptr);
}

// The shipped example must stay loadable, also after someone removed every comment sign in front of a setting, and
// its commented values must be the defaults.
TEST_F(ConfigTest, TheShippedExampleIsValidAndShowsTheDefaults) {
    std::ifstream file(CORVANE_EXAMPLE_CONFIG);
    const std::string example{std::istreambuf_iterator<char>(file), {}};
    ASSERT_FALSE(example.empty());
    EXPECT_EQ(parse(example), ORU_STATUS_OK);
    std::string active = example;
    for (size_t at = active.find("\n#"); at != std::string::npos; at = active.find("\n#", at + 1)) {
        const size_t name_end = active.find_first_not_of("abcdefghijklmnopqrstuvwxyz_", at + 2);
        if (active.compare(name_end, 3, " = ") == 0) {
            active.erase(at + 1, 1);
        }
    }
    ASSERT_NE(active, example);
    EXPECT_EQ(parse(active), ORU_STATUS_OK) << (log_lines.empty() ? "" : log_lines.back());
    const oruConfig_t shown = oruConfig_get();
    const oruConfig_t defaults = oruConfig_defaults();
    EXPECT_EQ(shown.state_directory, defaults.state_directory);
    EXPECT_EQ(shown.runtime_directory, defaults.runtime_directory);
    EXPECT_EQ(shown.socket_mode, defaults.socket_mode);
    EXPECT_EQ(shown.watchdog_seconds, defaults.watchdog_seconds);
    EXPECT_EQ(shown.log_level, defaults.log_level);
    EXPECT_EQ(shown.log_max_size_kib, defaults.log_max_size_kib);
    EXPECT_EQ(shown.log_max_files, defaults.log_max_files);
    EXPECT_EQ(shown.radio_event_descriptor, defaults.radio_event_descriptor);
}

TEST_F(ConfigTest, StartUpCreatesTheFoldersAndPassesTheLogSettingsOn) {
    const mode_t umask_before = umask(077);
    ASSERT_EQ(parse("[log]\nsink = \"syslog\"\nlevel = \"error\"\nmax_size_kib = 32"), ORU_STATUS_OK);
    oruConfig_t settings = oruConfig_get();
    settings.state_directory = folder + "/state";
    settings.runtime_directory = folder + "/run/";
    oruConfig_setForTesting(settings);
    EXPECT_EQ(oru_initWithConfig(&config), ORU_STATUS_OK);
    EXPECT_EQ(oru_initWithConfig(&config), ORU_STATUS_OK) << "folders that exist are fine";
    umask(umask_before);
    using std::filesystem::perms;
    EXPECT_EQ(std::filesystem::status(folder + "/state").permissions(), perms(0700));
    EXPECT_EQ(std::filesystem::status(folder + "/run").permissions(), perms(0755));
    EXPECT_TRUE(std::filesystem::is_empty(folder + "/state")) << "no probe file stays";
    EXPECT_EQ(log_settings.sink, oruLog_config_t::sink_t::syslog);
    EXPECT_EQ(log_settings.level, ORU_LOG_ERROR);
    EXPECT_EQ(log_settings.max_file_bytes, 32U * 1024U);
    EXPECT_TRUE(log_lines.empty());
}

TEST_F(ConfigTest, UnusableFoldersStopTheStartWithOneLineEach) {
    std::ofstream(folder + "/file") << "x";
    const struct {
        std::string path;
        const char *reason;
    } cases[] = {
        {folder + "/missing/state", "cannot be created: No such file or directory; create it, make it writable for"},
        {folder + "/file", "is not a folder"},
        {folder + "/file/state", "cannot be created: Not a directory"},
        {"/proc", "cannot be written: "}, // read-only for root as well
    };
    for (const auto &unusable : cases) {
        SCOPED_TRACE(unusable.path);
        for (const bool state : {true, false}) {
            log_lines.clear();
            EXPECT_LT(start(state ? unusable.path : folder, state ? folder : unusable.path), 0);
            ASSERT_EQ(log_lines.size(), 1U);
            EXPECT_EQ(log_lines[0].find(state ? "store.directory \"" : "ipc.directory \""), 0U) << log_lines[0];
            EXPECT_NE(log_lines[0].find(unusable.path + "\" " + unusable.reason), std::string::npos) << log_lines[0];
        }
    }
    log_lines.clear();
    EXPECT_LT(start(folder + "/file", folder + "/file"), 0);
    EXPECT_EQ(log_lines.size(), 2U) << "both at the first start";
    log_status = ORU_STATUS_BAD_PARAM;
    EXPECT_EQ(start(folder, folder), ORU_STATUS_BAD_PARAM);
    EXPECT_EQ(log_lines.back(), "the log cannot be set up: no such place; check the [log] settings");
    EXPECT_EQ(oru_initWithConfig(nullptr), ORU_STATUS_NULL_POINTER);
}
