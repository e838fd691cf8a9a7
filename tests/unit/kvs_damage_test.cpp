// SPDX-License-Identifier: Apache-2.0
// The store in front of files that are damaged, not ours, or newer than this release.
#include "../support/file_faults.h"
#include "kvs_fixture.h"
#include <cerrno>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int records = 60; // about a dozen pages

std::string keyOf(int i) {
    return "zigbee.device-" + std::to_string(100 + i);
}
std::string valueOf(int i) {
    return "<" + std::to_string(100 + i) + ">" + std::string(739, static_cast<char>('A' + i % 26));
}

std::string readFile(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

class KvsDamageTest : public KvsTest {
protected:
    KvsDamageTest() {
        for (int i = 0; i < records; i++) {
            EXPECT_EQ(set(keyOf(i), valueOf(i)), 0);
        }
        restart();
        sql("PRAGMA wal_checkpoint(TRUNCATE)"); // all of it in one file, which the tests then damage
    }

    std::string asideName() const {
        for (const auto &entry : std::filesystem::directory_iterator(folder)) {
            const std::string name = entry.path().filename().string();
            if (name.starts_with("corvane.db.damaged-") && name.find("-wal") == std::string::npos &&
                name.find("-shm") == std::string::npos) {
                return entry.path().string();
            }
        }
        return "";
    }

    // Every record that is still there is right; how many are.
    static int soundRecords() {
        int count = 0;
        for (const std::string &name : list("zigbee")) {
            const int i = std::stoi(name.substr(name.find('-') + 1)) - 100;
            EXPECT_EQ(get("zigbee." + name), valueOf(i));
            count++;
        }
        return count;
    }

    // What is missing was named, and its bytes are still there: in quarantine, or in the file that was set aside as it
    // was. Closes the store.
    void expectNothingGoneForGood(const std::string &content, int kept) const {
        EXPECT_TRUE(kept == records || errorLines() > 0);
        const std::string aside = asideName();
        restart();
        if (aside.empty()) {
            EXPECT_EQ(kept + std::stoi(sql("SELECT count(*) FROM quarantine")), records);
        } else {
            EXPECT_TRUE(logged("set aside as " + aside));
            EXPECT_TRUE(readFile(aside) == content);
        }
    }
    void startOver() const {
        restart();
        std::filesystem::remove_all(folder);
        std::filesystem::create_directory(folder);
    }
};

TEST_F(KvsDamageTest, OneDamagedRecordCostsOnlyItself) {
    const std::string victim = keyOf(20);
    const std::string where = " WHERE name='device-120'";
    struct {
        const char *what;
        std::string statement; // empty: flip a bit in the file
        std::string named = "zigbee.device-120";
    } const cases[] = {
        {"flipped bit of the value", ""},
        {"value of the wrong type", "UPDATE records SET value='text'" + where},
        {"value of another record", "UPDATE records SET value=(SELECT value FROM records LIMIT 1)" + where},
        {"checksum of the wrong type", "UPDATE records SET crc32c='none'" + where},
        {"checksum beyond 32 bits", "UPDATE records SET crc32c=crc32c+4294967296" + where},
        {"renamed", "UPDATE records SET name='device-120x'" + where, "zigbee.device-120x"},
        {"name of the wrong type", "UPDATE records SET name=x'00ff'" + where, "zigbee."},
        {"empty value", "UPDATE records SET value=x''" + where},
    };
    for (const auto &damage : cases) {
        SCOPED_TRACE(damage.what);
        clearLog();
        ASSERT_EQ(set(victim, valueOf(20)), 0);
        restart();
        if (damage.statement.empty()) {
            sql("PRAGMA wal_checkpoint(TRUNCATE)");
            std::string content = readFile(database());
            content[content.rfind(valueOf(20)) + 400] ^= 0x10;
            writeFile(database(), content);
        } else {
            sql(damage.statement);
        }
        EXPECT_EQ(soundRecords(), records - 1);
        EXPECT_EQ(errorLines(), 1U);
        EXPECT_TRUE(logged("\"" + damage.named + "\" is damaged"));
        char buffer[8];
        EXPECT_EQ(oruKeyValueDsHal_get(victim.c_str(), buffer, sizeof buffer), ORU_STATUS_NOT_FOUND);
        restart();
        EXPECT_EQ(soundRecords(), records - 1);
        EXPECT_EQ(errorLines(), 1U) << "moved, so not reported again";
    }
    EXPECT_EQ(asideName(), "");
    restart();
    EXPECT_EQ(sql("SELECT count(*) FROM quarantine WHERE reason<>'' AND time>'2'"), std::to_string(std::size(cases)));
}

TEST_F(KvsDamageTest, ADamagedFileIsSetAsideAndReadableRecordsAreKept) {
    const std::string sound = readFile(database());
    const auto page = [](int number) { return size_t(number - 1) * 4096; };
    struct {
        const char *what;
        std::function<std::string(std::string)> damage;
        int at_least; // records recovered
        int at_most = records - 1;
    } const cases[] = {
        {"not a database", [](std::string) { return std::string("just a text file\n"); }, 0},
        {"header overwritten", [](std::string s) { return s.replace(0, 16, 16, 'x'); }, records, records},
        {"cut to a byte", [](std::string s) { return s.substr(0, 1); }, 0},
        {"cut inside the header", [](std::string s) { return s.substr(0, 99); }, 0},
        {"cut after the header", [](std::string s) { return s.substr(0, 100); }, 0},
        {"cut to a page", [](std::string s) { return s.substr(0, 4096); }, 0},
        {"cut in the middle", [](std::string s) { return s.substr(0, s.size() / 2); }, 0},
        {"cut by a page", [](std::string s) { return s.substr(0, s.size() - 4096); }, records / 2},
        {"cut inside a page", [](std::string s) { return s.substr(0, s.size() - 1000); }, records / 2},
        {"cut by a byte", [](std::string s) { return s.substr(0, s.size() - 1); }, records / 2},
        {"a leaf page zeroed", [&](std::string s) { return s.replace(page(9), 4096, 4096, '\0'); }, records / 3},
        {"a leaf page of noise", [&](std::string s) { return s.replace(page(9), 4096, 4096, '\xA5'); }, records / 3},
        {"a key out of order",
         [](std::string s) { return s.replace(s.rfind("zigbeedevice-130"), 16, "zigbeedevice-930"); }, records - 2},
    };
    for (const auto &damage : cases) {
        SCOPED_TRACE(damage.what);
        clearLog();
        const std::string content = damage.damage(sound);
        writeFile(database(), content);
        writeFile(database() + ".salvage", "left over from a crash");
        const int kept = soundRecords();
        EXPECT_TRUE(kept >= damage.at_least && kept <= damage.at_most) << kept;
        EXPECT_EQ(logged("set aside as"), damage.what != std::string("cut by a byte")); // which costs one record only
        expectNothingGoneForGood(content, kept);
        EXPECT_EQ(set("zigbee.device-100", valueOf(0)), 0);
        restart();
        EXPECT_EQ(get("zigbee.device-100"), valueOf(0));
        startOver();
    }
}

// Wherever the bit is, in a record, an index or the header: no wrong value comes out, what is missing was named, and
// the bytes are kept, in quarantine or in the file that was set aside.
TEST_F(KvsDamageTest, AFlippedBitAnywhereCostsLittleAndNothingForGood) {
    const std::string sound = readFile(database());
    constexpr size_t flips = 150;
    int worst = records, unharmed = 0;
    for (size_t i = 0; i < flips; i++) {
        std::string content = sound;
        const size_t where = i < 50 ? i * 2 + 1 : (i - 50) * content.size() / 100; // the header, then the whole file
        SCOPED_TRACE("byte " + std::to_string(where));
        content[where] = static_cast<char>(content[where] ^ (1 << i % 8));
        writeFile(database(), content);
        clearLog();
        const int kept = soundRecords();
        expectNothingGoneForGood(content, kept);
        worst = std::min(worst, kept);
        unharmed += kept == records ? 1 : 0;
        startOver();
    }
    EXPECT_GE(worst, records * 3 / 4);
    std::cout << flips << " flipped bits: " << unharmed << " without a loss, " << records - worst
              << " records lost at worst\n";
}

TEST_F(KvsDamageTest, AnEmptiedFileDoesNotTakeItsLogAlong) {
    ASSERT_EQ(set("zigbee.device-200", valueOf(100)), 0);
    restart();
    const std::string log = readFile(database() + "-wal");
    ASSERT_GT(log.size(), 744U);
    writeFile(database(), "");
    EXPECT_GT(soundRecords(), 0); // those in the page that the log has
    EXPECT_EQ(get("zigbee.device-200"), valueOf(100));
    EXPECT_EQ(readFile(asideName() + "-wal"), log);
}

TEST_F(KvsDamageTest, RepairOnAFullMediumKeepsTheDamagedFileAndIsTriedAgain) {
    const std::string damaged = readFile(database()).replace(8 * 4096, 4096, 4096, '\0');
    for (unsigned first = 1;; first++) {
        SCOPED_TRACE(first);
        writeFile(database(), damaged);
        oruKvsTesting_failWrites(first, 1000000, SQLITE_FULL);
        const oru_status_t status = set("zigbee.device-200", valueOf(100));
        const bool fired = oruKvsTesting_writesRefused() > 0;
        EXPECT_EQ(status != 0, fired);
        EXPECT_TRUE(!fired || readFile(asideName().empty() ? database() : asideName()) == damaged);
        oruKvsTesting_failWrites(0, 0, SQLITE_OK);
        EXPECT_GT(soundRecords(), 1);
        EXPECT_EQ(get("zigbee.device-200"), valueOf(100));
        startOver();
        if (!fired) {
            break;
        }
    }
}

// A damaged file, its log with one more record, and what a crash left of an earlier repair. The process ends before
// each change on the medium in turn, and the one after it finds what the uncut repair finds.
TEST_F(KvsDamageTest, ARepairCutShortAnywhereLosesNothing) {
    const std::string damaged = readFile(database()).replace(8 * 4096, 4096, 4096, '\0');
    ASSERT_EQ(set("zigbee.device-200", valueOf(100)), 0);
    restart();
    const std::string log = readFile(database() + "-wal");
    int uncut = 0, cuts = 0;
    for (bool died = true; died; cuts++) {
        SCOPED_TRACE("cut " + std::to_string(cuts));
        startOver();
        for (const auto &[suffix, content] : {std::pair{"", damaged}, {"-wal", log}, {".salvage", log}}) {
            writeFile(database() + suffix, content);
        }
        if (const pid_t child = cuts > 0 ? fork() : -1; child == 0) {
            filefaults::dieBeforeChange(static_cast<unsigned>(cuts));
            _exit(oruKeyValueDsHal_listKeys("zigbee", [](const char *) { return 0; }));
        } else if (child > 0) {
            int status = 0;
            ASSERT_EQ(waitpid(child, &status, 0), child);
            ASSERT_TRUE(WIFEXITED(status));
            died = WEXITSTATUS(status) == 42;
        }
        const int found = soundRecords();
        uncut = cuts == 0 ? found : uncut;
        EXPECT_EQ(found, uncut);
        EXPECT_EQ(get("zigbee.device-200"), valueOf(100));
        EXPECT_TRUE(readFile(asideName()) == damaged);
        EXPECT_FALSE(std::filesystem::exists(database() + ".repaired") ||
                     std::filesystem::exists(database() + ".salvage"));
    }
    EXPECT_GT(uncut, records / 3);
    EXPECT_GT(cuts, 50);
    std::cout << cuts << " cuts\n";
}

// Each call in turn fails, once or from there on: a sound file is never taken for damaged, what cannot be read is never
// taken for absent, and with the medium back everything is there.
TEST_F(KvsDamageTest, NoFailingCallMakesASoundStoreLookEmptyOrADamagedOneEmptier) {
    const std::string sound = readFile(database());
    const std::string damaged = std::string(sound).replace(8 * 4096, 4096, 4096, '\0');
    static int listed;
    unsigned runs = 0;
    for (const std::string &content : {sound, damaged}) {
        int whole = 0;
        for (const auto &[error, count] : {std::pair{0, 0U}, {EIO, 1U}, {EMFILE, 1U}, {ENOSPC, 1000000U}}) {
            for (unsigned first = 1;; first++) {
                SCOPED_TRACE(std::to_string(error) + " at " + std::to_string(first));
                startOver();
                writeFile(database(), content);
                filefaults::failCalls(first, count, error);
                listed = 0;
                const oru_status_t status =
                    oruKeyValueDsHal_listKeys("zigbee", [](const char *) { return listed++, 0; });
                const unsigned failed = filefaults::failed();
                filefaults::off();
                ASSERT_TRUE(status == ORU_STATUS_TRY_AGAIN || status == ORU_STATUS_OK);
                whole = error == 0 ? listed : whole;
                if (status == ORU_STATUS_OK) {
                    EXPECT_GE(listed, whole);
                }
                EXPECT_EQ(condition() == kvs::Condition::not_read_whole, status != ORU_STATUS_OK);
                EXPECT_EQ(set("zigbee.device-100", valueOf(0)), 0);
                EXPECT_GE(soundRecords(), whole);
                EXPECT_EQ(asideName().empty(), content == sound);
                EXPECT_EQ(kvs::state().files_set_aside, content == sound ? 0U : 1U);
                EXPECT_EQ(condition(), kvs::Condition::sound);
                runs++;
                if (failed == 0) {
                    break;
                }
            }
        }
    }
    std::cout << runs << " runs\n";
}

TEST_F(KvsDamageTest, ADatabaseOfAnotherProgramIsSetAsideUntouched) {
    std::filesystem::remove(database());
    sql("CREATE TABLE photos(id INTEGER PRIMARY KEY); INSERT INTO photos VALUES(7)");
    const std::string content = readFile(database());
    EXPECT_EQ(set("zigbee.a", "1"), 0);
    EXPECT_EQ(readFile(asideName()), content);
    EXPECT_TRUE(logged("not a store of corvane"));
}

TEST_F(KvsDamageTest, ANewerStoreIsRefusedAndTheServiceRunsFromMemory) {
    ASSERT_EQ(set("zigbee.device-200", valueOf(100)), 0);
    sql("PRAGMA user_version=2; PRAGMA application_id=1129709570");
    const std::string content = readFile(database()), log = readFile(database() + "-wal");
    restart();
    EXPECT_EQ(set("zigbee.a", "1"), ORU_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(set("zigbee.a", "2"), ORU_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(get("zigbee.a"), "2");
    EXPECT_EQ(oruKeyValueDsHal_listKeys("zigbee", [](const char *) { return 0; }), ORU_STATUS_TRY_AGAIN);
    EXPECT_TRUE(logged("newer release"));
    EXPECT_EQ(condition(), kvs::Condition::not_read_whole);
    EXPECT_NE(std::string(kvs::state().reason.data()).find("newer release"), std::string::npos);
    EXPECT_EQ(errorLines(), 1U);
    EXPECT_TRUE(readFile(database()) == content && readFile(database() + "-wal") == log && log.size() > 744);
    EXPECT_EQ(asideName(), "");
}

// Format and checksum are a promise to every store that was ever written.
TEST_F(KvsDamageTest, AStoreKeptFromTheFirstReleaseOpensForEver) {
    startOver();
    std::filesystem::copy_file(KEPT_STORE, database());
    EXPECT_EQ(list("zigbee"), (std::vector<std::string>{"01:23:45:67:89:ab:cd:ef", "device-103"}));
    EXPECT_EQ(get("zigbee.01:23:45:67:89:ab:cd:ef"), std::string("sound\0\xff", 7));
    EXPECT_EQ(get("other.x"), "of another group");
    EXPECT_EQ(set("zigbee.device-103", valueOf(3)), 0);
    EXPECT_EQ(errorLines(), 1U);
    restart();
    EXPECT_EQ(sql("SELECT group_concat(crc32c) FROM records"), "3616262818,1071189625,37228322");
    EXPECT_EQ(sql("SELECT count(*) FROM quarantine WHERE reason='checksum mismatch'"), "1");
}

} // namespace
