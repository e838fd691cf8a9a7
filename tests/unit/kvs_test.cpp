// SPDX-License-Identifier: Apache-2.0
// Behaviour of the key-value store on a sound file: contract, durability, faults of the medium, several threads.
#include "config_internal.h"
#include "kvs_fixture.h"
#include "oru_log.h"
#include "zb_database.h"
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <map>
#include <mutex>
#include <sys/file.h>
#include <thread>
#include <unistd.h>

namespace {
std::mutex log_mutex;
std::vector<std::pair<oruLog_level_t, std::string>> log_lines;
std::vector<std::string> names_seen;
} // namespace

extern "C" void oruLog_log(oruLog_id_t, oruLog_level_t level, const char *, const char *format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const std::lock_guard guard(log_mutex);
    log_lines.emplace_back(level, text);
}

size_t errorLines() {
    const std::lock_guard guard(log_mutex);
    return size_t(std::count_if(log_lines.begin(), log_lines.end(), [](auto &l) { return l.first >= ORU_LOG_ERROR; }));
}

bool logged(const std::string &part) {
    const std::lock_guard guard(log_mutex);
    return std::any_of(log_lines.begin(), log_lines.end(),
                       [&](auto &line) { return line.second.find(part) != std::string::npos; });
}

void clearLog() {
    const std::lock_guard guard(log_mutex);
    log_lines.clear();
}

KvsTest::KvsTest() {
    // Memory where there is some: a flush costs nothing there, and no test here cuts the power.
    const bool memory = access("/dev/shm", W_OK) == 0;
    std::string pattern = (memory ? "/dev/shm" : std::filesystem::temp_directory_path().string()) + "/kvs-XXXXXX";
    folder = mkdtemp(pattern.data());
    oruConfig_t config = oruConfig_defaults();
    config.state_directory = folder;
    config.runtime_directory = folder + "-run";
    std::filesystem::create_directory(config.runtime_directory);
    oruConfig_replace(config);
    oruKvsTesting_setPace(0, 0);
    oruKvsTesting_failWrites(0, 0, SQLITE_OK);
    clearLog();
}

KvsTest::~KvsTest() {
    oruKvsTesting_failWrites(0, 0, SQLITE_OK);
    restart();
    std::filesystem::remove_all(folder);
    std::filesystem::remove_all(folder + "-run");
}

oru_status_t KvsTest::set(const std::string &key, const std::string &value) {
    return oruKeyValueDsHal_set(key.c_str(), value.data(), value.size());
}

std::string KvsTest::get(const std::string &key) {
    std::string buffer(4096, '\0');
    const int32_t count = oruKeyValueDsHal_get(key.c_str(), buffer.data(), buffer.size());
    return buffer.substr(0, size_t(std::max(count, 0)));
}

std::vector<std::string> KvsTest::list(const std::string &group) {
    names_seen.clear();
    EXPECT_EQ(
        oruKeyValueDsHal_listKeys(group.c_str(), [](const char *name) { return names_seen.emplace_back(name), 0; }),
        ORU_STATUS_OK);
    return names_seen;
}

std::string KvsTest::sql(const std::string &statements) const {
    sqlite3 *connection = nullptr;
    EXPECT_EQ(sqlite3_open(database().c_str(), &connection), SQLITE_OK);
    std::string result;
    const auto keep = [](void *text, int, char **columns, char **) {
        *static_cast<std::string *>(text) = columns[0] != nullptr ? columns[0] : "";
        return 0;
    };
    EXPECT_EQ(sqlite3_exec(connection, statements.c_str(), keep, &result, nullptr), SQLITE_OK)
        << sqlite3_errmsg(connection);
    sqlite3_close(connection);
    return result;
}

using Names = std::vector<std::string>;

TEST_F(KvsTest, KeysAndSizesAreChecked) {
    const std::string longest = "zigbee." + std::string(57, 'x');
    const std::map<std::string, oru_status_t> cases = {{"", -11},
                                                       {"zigbee", -11},
                                                       {".name", -11},
                                                       {"zigbee.", -11},
                                                       {longest, 0},
                                                       {longest + "x", -11},
                                                       {"zigbee.01:23:45:67:89:ab:cd:ef", 0},
                                                       {"a.b.c", 0},
                                                       {"g.\xff\x01 '\"", 0}};
    char buffer[8];
    for (const auto &[key, expected] : cases) {
        EXPECT_EQ(set(key, "v"), expected) << key;
        EXPECT_EQ(oruKeyValueDsHal_get(key.c_str(), buffer, 8), expected == 0 ? 1 : expected) << key;
        EXPECT_EQ(oruKeyValueDsHal_remove(key.c_str()), expected) << key;
    }
    EXPECT_EQ(oruKeyValueDsHal_set("a.b", buffer, 0), ORU_STATUS_DATA_LEN_INVALID);
    EXPECT_EQ(oruKeyValueDsHal_set("a.b", buffer, 65537), ORU_STATUS_DATA_LEN_INVALID);
    EXPECT_EQ(oruKeyValueDsHal_get("a.b", buffer, 0), ORU_STATUS_DATA_LEN_INVALID);
    EXPECT_EQ(oruKeyValueDsHal_get("a.b", nullptr, 8), ORU_STATUS_NULL_POINTER);
    EXPECT_EQ(oruKeyValueDsHal_listKeys("a", nullptr), ORU_STATUS_NULL_POINTER);
}

TEST_F(KvsTest, ValuesSurviveARestartAndGroupsAreSeparate) {
    const std::string record(744, '\x80');
    ASSERT_EQ(set("zigbee.b", record), 0);
    ASSERT_EQ(set("zigbee.a", "one"), 0);
    ASSERT_EQ(set("zigbee.a", std::string("two\0three", 9)), 0);
    ASSERT_EQ(set("zigbee2.c", "other"), 0);
    restart();
    EXPECT_EQ(std::filesystem::status(database()).permissions(), std::filesystem::perms(0600));
    EXPECT_EQ(get("zigbee.a"), std::string("two\0three", 9));
    EXPECT_EQ(get("zigbee.b"), record);
    EXPECT_EQ(list("zigbee"), (Names{"a", "b"}));
    EXPECT_EQ(list("zig"), Names{});
    char cut[4] = {};
    EXPECT_EQ(oruKeyValueDsHal_get("zigbee.b", cut, sizeof cut), 4);
    EXPECT_EQ(oruKeyValueDsHal_get("zigbee.none", cut, sizeof cut), ORU_STATUS_NOT_FOUND);
    EXPECT_EQ(oruKeyValueDsHal_remove("zigbee.none"), 0);
    EXPECT_EQ(oruKeyValueDsHal_eraseGroup("zigbee"), 0);
    EXPECT_EQ(oruKeyValueDsHal_eraseGroup("zigbee"), 0);
    restart();
    EXPECT_EQ(list("zigbee"), Names{});
    EXPECT_EQ(list("zigbee2"), Names{"c"});
    EXPECT_EQ(errorLines(), 0U);
}

TEST_F(KvsTest, AnEqualValueIsNotWrittenAgain) {
    ASSERT_EQ(set("zigbee.a", "same"), 0);
    oruKvsTesting_failWrites(0, 0, SQLITE_OK);
    EXPECT_EQ(set("zigbee.a", "same"), 0);
    EXPECT_EQ(oruKvsTesting_writesSeen(), 0U);
    EXPECT_EQ(set("zigbee.a", "else"), 0);
    EXPECT_GT(oruKvsTesting_writesSeen(), 0U);
}

TEST_F(KvsTest, TheListingMayUseTheStoreAndStop) {
    for (const char *key : {"g.1", "g.2", "g.3", "g.4"}) {
        ASSERT_EQ(set(key, key), 0);
    }
    names_seen.clear();
    const auto callback = [](const char *name) {
        const std::string key = std::string("g.") + name;
        EXPECT_EQ(get(key), key);
        EXPECT_EQ(set("g.0" + key, "new"), 0); // does not appear in the running listing
        EXPECT_EQ(oruKeyValueDsHal_remove(key.c_str()), 0);
        names_seen.emplace_back(name);
        return names_seen.size() == 3 ? -1 : 0;
    };
    EXPECT_EQ(oruKeyValueDsHal_listKeys("g", callback), 0);
    EXPECT_EQ(names_seen, (Names{"1", "2", "3"}));
    EXPECT_EQ(list("g").size(), 4U);
}

// One run of operations while the medium misbehaves from write `first` on for `count` writes. The model is what a
// caller may expect: set values and erasures are remembered in any case, a failed removal changes nothing. Whether any
// call failed.
bool runWithFaults(unsigned first, unsigned count, int code, std::map<std::string, std::string> &model) {
    bool failed = false;
    const auto put = [&](const char *key, const std::string &value) {
        failed = oruKeyValueDsHal_set(key, value.data(), value.size()) != 0 || failed;
        model[key] = value;
    };
    oruKvsTesting_failWrites(first, count, code);
    put("g.a", "1");
    put("g.b", std::string(744, 'b'));
    put("g.a", "2");
    put("h.x", "3");
    if (oruKeyValueDsHal_remove("g.b") == 0) {
        model.erase("g.b");
    }
    (void)oruKeyValueDsHal_eraseGroup("h");
    model.erase("h.x");
    put("g.c", "4");
    return failed;
}

TEST_F(KvsTest, EveryRefusedWriteConvergesOnceTheMediumRecovers) {
    const unsigned counts[] = {1, 1000000};
    for (const int code : {SQLITE_FULL, SQLITE_IOERR_WRITE, SQLITE_IOERR_FSYNC}) {
        for (const unsigned count : counts) {
            for (unsigned first = 1;; first++) {
                SCOPED_TRACE("code " + std::to_string(code) + " first " + std::to_string(first));
                std::filesystem::remove_all(folder);
                std::filesystem::create_directory(folder);
                clearLog();
                std::map<std::string, std::string> model;
                const bool failed = runWithFaults(first, count, code, model);
                const bool fired = oruKvsTesting_writesRefused() > 0;
                for (const auto &[key, value] : model) {
                    EXPECT_EQ(get(key), value) << key;
                }
                names_seen.clear();
                for (const char *group : {"g", "h"}) {
                    (void)oruKeyValueDsHal_listKeys(group, [](const char *n) { return names_seen.emplace_back(n), 0; });
                }
                EXPECT_EQ(names_seen.size(), model.size());
                EXPECT_LE(errorLines(), 4U) << "a line per change of condition, not per call";
                EXPECT_TRUE(!failed || errorLines() > 0);
                oruKvsTesting_failWrites(0, 0, SQLITE_OK);
                (void)list("g"); // any operation writes what waits
                restart();
                EXPECT_EQ(list("g").size() + list("h").size(), model.size());
                for (const auto &[key, value] : model) {
                    EXPECT_EQ(get(key), value) << key;
                }
                restart();
                if (!fired) {
                    break;
                }
            }
        }
    }
}

TEST_F(KvsTest, AFullMediumIsReportedOnceAndWaitingValuesAreBounded) {
    ASSERT_EQ(set("g.0", "stored"), 0);
    oruKvsTesting_failWrites(1, 1000000, SQLITE_FULL);
    for (int i = 1000; i < 2025; i++) {
        EXPECT_NE(set("g." + std::to_string(i), "v"), 0);
    }
    EXPECT_EQ(list("g").size(), 1U + 1024U);
    EXPECT_EQ(errorLines(), 2U); // the condition and the limit
    EXPECT_EQ(set("g.1000", "newer"), ORU_STATUS_GENERAL_ERROR);
    oruKvsTesting_failWrites(0, 0, SQLITE_OK);
    EXPECT_EQ(oruKeyValueDsHal_remove("g.1001"), 0);
    EXPECT_TRUE(logged("working again, 1024 values"));
    restart();
    EXPECT_EQ(list("g").size(), 1U + 1023U);
    EXPECT_EQ(get("g.1000"), "newer");
}

TEST_F(KvsTest, ASecondDaemonOnTheFolderIsRefusedUntilTheFirstEnds) {
    const int other = open((folder + "/corvane.lock").c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(flock(other, LOCK_EX), 0);
    EXPECT_EQ(set("g.a", "1"), ORU_STATUS_BUSY);
    EXPECT_EQ(oruKeyValueDsHal_remove("g.a"), ORU_STATUS_BUSY);
    EXPECT_EQ(get("g.a"), "1");
    EXPECT_TRUE(logged("another process uses the folder " + folder));
    EXPECT_EQ(errorLines(), 1U);
    close(other);
    EXPECT_EQ(set("g.b", "2"), 0);
    restart();
    EXPECT_EQ(list("g"), (Names{"a", "b"}));
}

TEST_F(KvsTest, ThreadsMayMixAllOperations) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([t] {
            const std::string group = "g" + std::to_string(t);
            for (int i = 0; i < 30; i++) {
                EXPECT_EQ(set(group + "." + std::to_string(i % 5), std::to_string(i)), 0);
                EXPECT_EQ(get(group + "." + std::to_string(i % 5)), std::to_string(i));
                EXPECT_EQ(oruKeyValueDsHal_listKeys("g0", [](const char *) { return 0; }), 0);
            }
            EXPECT_EQ(oruKeyValueDsHal_remove((group + ".0").c_str()), 0);
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    restart();
    EXPECT_EQ(list("g3"), (Names{"1", "2", "3", "4"}));
}

// Foreign records, sound ones in other groups and unsound ones among the devices: the service starts in time with all
// of its devices and nothing else, and what was taken out of its group is kept.
TEST_F(KvsTest, TheServiceFindsItsDevicesAmongTenThousandForeignKeys) {
    constexpr int devices = 50, strangers = 5000;
    const auto deviceOf = [](int i) {
        oruZb_device_t device{};
        device.node_id = static_cast<uint16_t>(100 + i);
        device.device_info.eui64[7] = static_cast<uint8_t>(i);
        device.device_info.endpoint_count = 1;
        device.device_info.endpoints[0].endpoint = static_cast<uint8_t>(1 + i);
        return device;
    };
    for (int i = 0; i < devices; i++) {
        oruZb_device_t device = deviceOf(i);
        ASSERT_EQ(oruZb_kvsAddOrUpdateDeviceInfo(&device), 0);
    }
    for (int i = 0; i < strangers; i++) {
        ASSERT_EQ(set("zigbee2." + std::to_string(i), "sound"), 0);
    }
    restart();
    sql("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<" + std::to_string(strangers) +
        ") INSERT INTO records SELECT 'zigbee', 'stranger-'||i, randomblob(744), 0 FROM n");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(oruZb_databaseInit(), 0);
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
    std::cout << "loaded in " << ms.count() << " ms\n";
    EXPECT_LT(ms.count(), 30'000);
    EXPECT_EQ(oruZb_databaseGetDeviceCount(), unsigned(devices));
    for (int i = 0; i < devices; i++) {
        const oruZb_device_t expected = deviceOf(i);
        oruZb_device_t found{};
        EXPECT_EQ(oruZb_databaseGetDeviceByEui64(expected.device_info.eui64, &found), 0);
        EXPECT_EQ(memcmp(&found, &expected, sizeof found), 0) << i;
    }
    EXPECT_TRUE(logged("\"zigbee.stranger-1\"") && logged("\"zigbee.stranger-5000\""));
    EXPECT_EQ(oruZb_databaseDeInit(), 0);
    EXPECT_EQ(oruMutex_delete(device_list_mutex), 0);
    EXPECT_EQ(list("zigbee2").size(), size_t(strangers));
    restart();
    EXPECT_EQ(sql("SELECT count(*) FROM quarantine"), std::to_string(strangers));
}
