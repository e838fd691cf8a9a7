// SPDX-License-Identifier: Apache-2.0
//
// Repair of a damaged database file. Steps, in an order that survives a crash between any two of them:
//   1. corvane.db.new: a new database, readable records of the damaged one copied into it in one transaction
//   2. the log and other companions of the damaged file get their new names
//   3. the damaged file gets its second name, corvane.db.damaged-<time> (a hard link)
//   4. corvane.db.new takes over the name corvane.db
// Up to step 4 the damaged file is still corvane.db and the next start simply begins again. Nothing is ever deleted
// except an unfinished corvane.db.new. A full disk stops at step 1 with the damaged file in place.
#include "kvs_database.h"
#include "oru_log.h"
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr unsigned max_rows_read = 100000; // a damaged tree may lead the scan in circles
constexpr std::array<const char *, 3> companions = {"-wal", "-shm", "-journal"};

// A scan ends where the damage begins, so a second one comes from the other end.
constexpr const char *forward_sql = "SELECT \"group\", name, value, crc32c FROM records";
constexpr const char *backward_sql =
    "SELECT \"group\", name, value, crc32c FROM records ORDER BY \"group\" DESC, name DESC";
constexpr const char *insert_sql =
    "INSERT OR IGNORE INTO records(\"group\", name, value, crc32c) VALUES(?1, ?2, ?3, ?4)";
constexpr const char *quarantine_sql = "INSERT INTO quarantine(\"group\", name, value, crc32c, reason, time)"
                                       " VALUES(?1, ?2, ?3, ?4, ?5, strftime('%Y-%m-%dT%H:%M:%SZ', 'now'))";

struct salvage_t {
    kvsConnection_t source; // null: not even readable as a database
    kvsConnection_t target;
    std::string target_path;
    unsigned recovered = 0;
    unsigned quarantined = 0;
};

kvsStatement_t prepare(sqlite3 *connection, const char *sql) {
    sqlite3_stmt *raw = nullptr;
    (void)sqlite3_prepare_v2(connection, sql, -1, &raw, nullptr); // null on failure
    return kvsStatement_t(raw);
}

bool copyRow(sqlite3_stmt *row, sqlite3_stmt *insertion, const char *fault) {
    for (int column = 0; column < 4; column++) {
        (void)sqlite3_bind_value(insertion, column + 1, sqlite3_column_value(row, column));
    }
    if (fault != nullptr) {
        (void)sqlite3_bind_text(insertion, 5, fault, -1, SQLITE_STATIC);
    }
    const bool done = sqlite3_step(insertion) == SQLITE_DONE;
    (void)sqlite3_reset(insertion); // the failure, if any, is in the connection
    return done;
}

// False only when the target cannot be written; a source that ends in an error is what we are here for.
bool copyRows(salvage_t &salvage, const char *sql, bool keep_unsound) {
    const kvsStatement_t scan = prepare(salvage.source.get(), sql);
    const kvsStatement_t insertion = prepare(salvage.target.get(), insert_sql);
    const kvsStatement_t unsound = prepare(salvage.target.get(), quarantine_sql);
    if (!insertion || !unsound) {
        return false;
    }
    for (unsigned count = 0; scan && count < max_rows_read && sqlite3_step(scan.get()) == SQLITE_ROW; count++) {
        const char *fault = kvsRow_fault(scan.get());
        if (fault != nullptr && !keep_unsound) {
            continue;
        }
        if (!copyRow(scan.get(), fault == nullptr ? insertion.get() : unsound.get(), fault)) {
            return false;
        }
        const auto added = static_cast<unsigned>(sqlite3_changes(salvage.target.get()));
        (fault == nullptr ? salvage.recovered : salvage.quarantined) += added;
        if (fault != nullptr) {
            oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kvs_log_tag,
                       "store: record \"%s\" is damaged (%s) and was moved to table quarantine",
                       kvsRow_key(scan.get()).c_str(), fault);
        }
    }
    return true;
}

// The target stays in rollback-journal mode: complete in one file once the transaction has ended.
kvsResult_t fillTarget(salvage_t &salvage) {
    sqlite3 *const target = salvage.target.get();
    kvsResult_t result = kvsConnection_createSchema(target, salvage.target_path);
    if (!result.ok()) {
        return result;
    }
    const bool filled = sqlite3_exec(target, "BEGIN", nullptr, nullptr, nullptr) == SQLITE_OK &&
                        copyRows(salvage, forward_sql, true) && copyRows(salvage, backward_sql, false) &&
                        sqlite3_exec(target, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    return filled ? kvsResult_t{} : kvsConnection_failure(target, "cannot write", salvage.target_path);
}

// SQLite would delete the log of an empty file, even on a connection that only reads, and refuse one that was cut short
// unless the schema is declared writable.
void openSource(salvage_t &salvage, const std::string &path) {
    struct stat file = {};
    if (stat(path.c_str(), &file) != 0 || file.st_size == 0) {
        return;
    }
    if (!kvsConnection_open(salvage.source, path, SQLITE_OPEN_READONLY).ok() ||
        sqlite3_exec(salvage.source.get(), "PRAGMA writable_schema=ON", nullptr, nullptr, nullptr) != SQLITE_OK) {
        salvage.source.reset();
    }
}

kvsResult_t buildTarget(salvage_t &salvage, const std::string &path) {
    salvage.target_path = path + ".new";
    for (const char *suffix : {"", "-journal"}) {
        (void)unlink((salvage.target_path + suffix).c_str()); // left over from a crash, and rarely there
    }
    kvsResult_t result = kvsFile_create(salvage.target_path);
    if (result.ok()) {
        result = kvsConnection_open(salvage.target, salvage.target_path, SQLITE_OPEN_READWRITE);
    }
    if (!result.ok()) {
        return result;
    }
    openSource(salvage, path);
    result = fillTarget(salvage);
    salvage.source.reset();
    salvage.target.reset();
    return result;
}

// A name that is not taken yet.
std::string asideName(const std::string &path) {
    const time_t now = time(nullptr);
    struct tm utc = {};
    (void)gmtime_r(&now, &utc);
    std::array<char, 32> stamp = {};
    (void)strftime(stamp.data(), stamp.size(), "%Y%m%dT%H%M%SZ", &utc);
    const std::string base = path + ".damaged-" + stamp.data();
    std::string name = base;
    for (int number = 2; access(name.c_str(), F_OK) == 0; number++) {
        name = base + "-" + std::to_string(number);
    }
    return name;
}

kvsResult_t setAside(const std::string &path, const std::string &aside) {
    for (const char *suffix : companions) {
        if (rename((path + suffix).c_str(), (aside + suffix).c_str()) != 0 && errno != ENOENT) {
            return kvsSystemFailure("cannot set aside", path + suffix, errno);
        }
    }
    // Not every file system has hard links.
    if (link(path.c_str(), aside.c_str()) != 0 && rename(path.c_str(), aside.c_str()) != 0) {
        return kvsSystemFailure("cannot set aside", path, errno);
    }
    kvsFile_syncFolder(path);
    if (rename((path + ".new").c_str(), path.c_str()) != 0) {
        return kvsSystemFailure("cannot replace", path, errno);
    }
    kvsFile_syncFolder(path);
    return {};
}

} // namespace

kvsResult_t kvsRebuild_run(const std::string &path, const std::string &reason) {
    salvage_t salvage;
    kvsResult_t result = buildTarget(salvage, path);
    if (!result.ok()) {
        return result;
    }
    const std::string aside = asideName(path);
    result = setAside(path, aside);
    if (result.ok()) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kvs_log_tag,
                   "store: %s; the file was set aside as %s, a new one begun with %u records recovered from it and %u "
                   "in quarantine",
                   reason.c_str(), aside.c_str(), salvage.recovered, salvage.quarantined);
    }
    return result;
}
