// SPDX-License-Identifier: Apache-2.0
// The store when its medium, its folder or its start is not as it should be: nothing is taken for absent, and what
// could not be written is written as soon as that is possible.
#include "../support/file_faults.h"
#include "kvs_fixture.h"
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <sys/file.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using Names = std::vector<std::string>;

bool eventually(const std::function<bool()> &condition) {
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (!condition() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(1ms);
    }
    return condition();
}

class KvsMediumTest : public KvsTest {
protected:
    KvsMediumTest() { EXPECT_EQ(set("g.a", "1"), 0); }
    ~KvsMediumTest() override { filefaults::off(); }
    static oru_status_t listStatus() {
        return oruKeyValueDsHal_listKeys("g", [](const char *) { return 0; });
    }
    std::string everything() const {
        std::string all;
        for (const std::string &name : list("g")) {
            all += name + get("g." + name);
        }
        return all;
    }
};

// What was written last is in the log only.
TEST_F(KvsMediumTest, AMediumThatTakesNoFilesIsReadAllTheSame) {
    const std::string below = folder + "/";
    for (const bool full : {true, false}) {
        SCOPED_TRACE(full ? "no room for the -shm" : "read-only");
        restart();
        std::filesystem::remove(database() + "-shm");
        full ? filefaults::failOpening("-shm", 1000, ENOSPC) : filefaults::failChangesBelow(below.c_str(), EROFS);
        EXPECT_EQ(listStatus(), ORU_STATUS_OK);
        EXPECT_EQ(get("g.a"), "1");
        EXPECT_FALSE(logged("working again"));
        EXPECT_EQ(set("g.b", "2"), full ? ORU_STATUS_OK : ORU_STATUS_GENERAL_ERROR);
        EXPECT_EQ(oruKeyValueDsHal_remove("g.a"), full ? ORU_STATUS_OK : ORU_STATUS_GENERAL_ERROR);
        EXPECT_EQ(condition(), full ? kvs::Condition::sound : kvs::Condition::copy);
        filefaults::off();
        EXPECT_EQ(set("g.a", "1"), 0);
        EXPECT_EQ(everything(), "a1b2");
        EXPECT_TRUE(std::filesystem::is_empty(folder + "-run")) << "the copy is gone";
        restart();
        EXPECT_EQ(everything(), "a1b2");
    }
}

// Opened so because of a permission that is right by now.
TEST_F(KvsMediumTest, AFileOpenedReadOnlyIsOpenedAnew) {
    for (const char *suffix : {"corvane.db", "-wal", "-shm"}) {
        SCOPED_TRACE(suffix);
        restart();
        filefaults::failOpening(suffix, 1, EACCES);
        (void)set("g.b", suffix);
        EXPECT_EQ(filefaults::failed(), 1U);
        EXPECT_EQ(set("g.c", suffix), 0);
        restart();
        EXPECT_EQ(everything(), std::string("a1b") + suffix + "c" + suffix);
        EXPECT_FALSE(logged("set aside"));
    }
}

TEST_F(KvsMediumTest, TheStartWaitsForTheStoreUntilTheProcessIsToEnd) {
    static volatile sig_atomic_t told = 0;
    (void)std::signal(SIGTERM, [](int) { told = 1; });
    for (const bool freed : {true, false}) {
        restart();
        const int other = open((folder + "/corvane.lock").c_str(), O_RDWR);
        ASSERT_EQ(flock(other, LOCK_EX), 0);
        oruKvsTesting_setPace(10'000, 0);
        const pthread_t main_thread = pthread_self();
        std::thread helper([&] {
            EXPECT_TRUE(eventually([] { return logged("another process uses the folder"); }));
            freed ? (void)flock(other, LOCK_UN) : (void)pthread_kill(main_thread, SIGTERM);
        });
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(listStatus(), freed ? ORU_STATUS_OK : ORU_STATUS_TRY_AGAIN);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 8s);
        EXPECT_EQ(told, freed ? 0 : 1);
        helper.join();
        close(other);
        clearLog();
    }
    (void)std::signal(SIGTERM, SIG_DFL);
    EXPECT_EQ(get("g.a"), "1") << "a store opened later is used from then on";
}

TEST_F(KvsMediumTest, WhatWaitsIsWrittenWithoutAnyOperationAndAtTheEnd) {
    restart();
    oruKvsTesting_setPace(0, 5);
    oruKvsTesting_failWrites(1, 1000000, SQLITE_FULL);
    EXPECT_EQ(set("g.b", "2"), ORU_STATUS_GENERAL_ERROR);
    oruKvsTesting_failWrites(0, 0, SQLITE_OK);
    EXPECT_TRUE(eventually([] { return logged("working again, 1 values"); }));
    oruKvsTesting_setPace(0, 0);
    for (const bool recovers : {true, false}) {
        oruKvsTesting_failWrites(1, 1000000, SQLITE_FULL);
        EXPECT_EQ(set("g.c", recovers ? "3" : "4"), ORU_STATUS_GENERAL_ERROR);
        oruKvsTesting_failWrites(1, recovers ? 0 : 1000000, SQLITE_FULL);
        oruKvsTesting_endOfProcess();
        EXPECT_EQ(logged("lost: g.c"), !recovers);
        restart();
        oruKvsTesting_failWrites(0, 0, SQLITE_OK);
        EXPECT_EQ(everything(), "a1b2c3");
    }
}

TEST_F(KvsMediumTest, AnErasureThatFailsIsMadeUpFor) {
    restart();
    oruKvsTesting_failWrites(1, 1000000, SQLITE_FULL);
    EXPECT_EQ(set("g.b", "2"), ORU_STATUS_GENERAL_ERROR);
    EXPECT_EQ(oruKeyValueDsHal_eraseGroup("g"), ORU_STATUS_GENERAL_ERROR);
    EXPECT_EQ(set("g.c", "3"), ORU_STATUS_GENERAL_ERROR);
    EXPECT_EQ(set("g.d", "4"), ORU_STATUS_GENERAL_ERROR);
    EXPECT_EQ(oruKeyValueDsHal_remove("g.d"), ORU_STATUS_OK);
    char buffer[8];
    EXPECT_EQ(oruKeyValueDsHal_get("g.a", buffer, sizeof buffer), ORU_STATUS_NOT_FOUND);
    EXPECT_EQ(everything(), "c3");
    EXPECT_EQ(kvs::state().waiting, 2U);
    oruKvsTesting_endOfProcess();
    EXPECT_TRUE(logged("lost: erasure of all g.* g.c"));
    oruKvsTesting_failWrites(0, 0, SQLITE_OK);
    oruKvsTesting_endOfProcess();
    restart();
    EXPECT_EQ(everything(), "c3");
}

TEST_F(KvsMediumTest, DeletedFilesAreWrittenBackAndTheLockIsTakenAnew) {
    ASSERT_EQ(set("g.b", "2"), 0);
    for (const Names &suffixes : {Names{"corvane.db"},
                                  {"corvane.db-wal"},
                                  {"corvane.db-shm"},
                                  {"corvane.db", "corvane.db-wal", "corvane.db-shm"},
                                  {"corvane.lock"}}) {
        SCOPED_TRACE(suffixes.front());
        for (const std::string &name : suffixes) {
            std::filesystem::remove(folder + "/" + name);
        }
        oruKvsTesting_endOfProcess(); // as good as any operation
        EXPECT_TRUE(std::filesystem::exists(folder + "/" + suffixes.front()));
        EXPECT_EQ(set("g.b", suffixes.front()), 0);
        const int other = open((folder + "/corvane.lock").c_str(), O_RDWR);
        EXPECT_NE(flock(other, LOCK_EX | LOCK_NB), 0);
        close(other);
        restart();
        EXPECT_EQ(everything(), "a1b" + suffixes.front());
    }
    EXPECT_TRUE(logged("moved or deleted"));
}

TEST_F(KvsMediumTest, NothingIsWrittenToAFileThatReplacedOurs) {
    restart();
    sql("PRAGMA wal_checkpoint(TRUNCATE)");
    std::filesystem::copy_file(database(), folder + "/backup");
    ASSERT_EQ(set("g.b", "2"), 0);
    std::filesystem::rename(folder + "/backup", database());
    std::filesystem::remove(database() + "-wal");
    EXPECT_EQ(set("g.c", "3"), ORU_STATUS_GENERAL_ERROR);
    EXPECT_EQ(oruKeyValueDsHal_remove("g.a"), ORU_STATUS_GENERAL_ERROR);
    EXPECT_EQ(everything(), "a1b2c3");
    EXPECT_TRUE(logged("restart corvane to use it"));
    EXPECT_EQ(errorLines(), 1U);
    oruKvsTesting_endOfProcess();
    EXPECT_TRUE(logged("lost: g.c"));
    restart();
    EXPECT_EQ(everything(), "a1");
}

// Reading works, removing does not: the line is written once and nothing claims that all is well.
TEST_F(KvsMediumTest, TheConditionDoesNotFlap) {
    static std::vector<kvs::Condition> told;
    kvs::onStateChange([] { told.push_back((void(get("g.a")), condition())); }); // from where the store may be used
    oruKvsTesting_failWrites(1, 1000000, SQLITE_IOERR_WRITE);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(oruKeyValueDsHal_remove("g.a"), ORU_STATUS_GENERAL_ERROR);
        EXPECT_EQ(get("g.a"), "1");
    }
    EXPECT_EQ(errorLines(), 1U);
    EXPECT_FALSE(logged("working again"));
    oruKvsTesting_failWrites(0, 0, SQLITE_OK);
    EXPECT_EQ(oruKeyValueDsHal_remove("g.a"), 0);
    EXPECT_TRUE(logged("working again"));
    EXPECT_EQ(told, (std::vector{kvs::Condition::in_memory, kvs::Condition::sound}));
    kvs::onStateChange(nullptr);
}

} // namespace
