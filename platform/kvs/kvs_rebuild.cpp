// SPDX-License-Identifier: Apache-2.0
//
// Repair of a damaged database file. Steps, in an order that survives a crash between any two of them:
//   1. corvane.db.new: a new database, readable records of the damaged one copied into it in one transaction; what its
//      first page hides is read from a copy, corvane.db.salvage, that has a sound one
//   2. the log and other companions of the damaged file get their new names
//   3. the damaged file gets its second name, corvane.db.damaged-<time> (a hard link)
//   4. corvane.db.new takes over the name corvane.db
// Up to step 4 the damaged file is still corvane.db and the next start simply begins again. Nothing is ever deleted
// except an unfinished corvane.db.new and the salvage copy. A full disk stops at step 1 with the damaged file in place.
#include "kvs_database.h"
#include "oru_log.h"
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr unsigned max_rows_read = 100000; // a damaged tree may lead the scan in circles
constexpr std::array<const char *, 3> companions = {"-wal", "-shm", "-journal"};

// Of the file format of SQLite: sizes and places in the first page.
constexpr size_t page_size = 4096;
constexpr size_t root_at = page_size; // root of the table of records: the second page
constexpr unsigned max_pages_tried = 1024;
constexpr size_t write_version_at = 18, read_version_at = 19; // 2: with a log
constexpr size_t change_counter_at = 24, valid_for_at = 92;   // differ: the page count of the header is not used
using page_t = std::array<char, page_size>;

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

void removeSalvageCopy(const std::string &path) {
    for (const char *suffix : {"", "-wal", "-shm", "-journal"}) {
        (void)unlink((path + ".salvage" + suffix).c_str()); // rarely there
    }
}

// The first page holds nothing but the header and the schema, and both are known: they are those of the new file.
kvsResult_t makeSalvageCopy(const salvage_t &salvage, const std::string &path) {
    const std::string copy = path + ".salvage";
    std::error_code error;
    std::filesystem::copy_file(path, copy, error);
    if (!error && std::filesystem::exists(path + "-wal")) {
        std::filesystem::copy_file(path + "-wal", copy + "-wal", error);
    }
    if (error) {
        return kvsSystemFailure("cannot copy", path, error.value());
    }
    page_t page{};
    std::ifstream(salvage.target_path, std::ios::binary).read(page.data(), page.size());
    page[write_version_at] = page[read_version_at] = 2;
    page[change_counter_at] = static_cast<char>(~page[valid_for_at]);
    std::fstream file(copy, std::ios::binary | std::ios::in | std::ios::out);
    file.write(page.data(), page.size()).flush();
    return file ? kvsResult_t{} : kvsSystemFailure("cannot write", copy, errno);
}

// SQLite would delete the log of an empty file, even on a connection that only reads, and refuse one that was cut short
// unless the schema is declared writable.
void openSource(salvage_t &salvage, const std::string &path, int flags) {
    struct stat file = {};
    if (stat(path.c_str(), &file) != 0 || file.st_size == 0) {
        return;
    }
    if (!kvsConnection_open(salvage.source, path, flags).ok() ||
        sqlite3_exec(salvage.source.get(), "PRAGMA writable_schema=ON", nullptr, nullptr, nullptr) != SQLITE_OK) {
        salvage.source.reset();
    }
}

// Each page in turn takes the place of the root, as a tree of its own. Rows deleted long ago may come back from pages
// that are not in use: for when all others are lost.
bool copyPageByPage(salvage_t &salvage, const std::string &copy) {
    (void)sqlite3_exec(salvage.source.get(), "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr);
    std::fstream file(copy, std::ios::binary | std::ios::in | std::ios::out);
    for (unsigned page = 1; page < max_pages_tried; page++) {
        page_t content{};
        file.seekg(std::streamoff(page * page_size));
        file.read(content.data(), content.size());
        file.clear();
        if (file.gcount() != std::streamsize(page_size)) {
            return true;
        }
        salvage.source.reset();
        file.seekp(std::streamoff(root_at));
        file.write(content.data(), content.size()).flush();
        openSource(salvage, copy, SQLITE_OPEN_READWRITE);
        if (!copyRows(salvage, forward_sql, false)) {
            return false;
        }
    }
    return true;
}

// Of the copy sound rows only: the file may be that of another program.
bool copyAll(salvage_t &salvage, const std::string &path) {
    openSource(salvage, path, SQLITE_OPEN_READONLY);
    if (!copyRows(salvage, forward_sql, true) || !copyRows(salvage, backward_sql, false)) {
        return false;
    }
    const std::string copy = path + ".salvage";
    openSource(salvage, copy, SQLITE_OPEN_READWRITE);
    return copyRows(salvage, forward_sql, false) && copyRows(salvage, backward_sql, false) &&
           (salvage.recovered > 0 || copyPageByPage(salvage, copy));
}

// The target stays in rollback-journal mode: complete in one file once the transaction has ended.
kvsResult_t fillTarget(salvage_t &salvage, const std::string &path) {
    sqlite3 *const target = salvage.target.get();
    kvsResult_t result = kvsConnection_createSchema(target, salvage.target_path);
    if (result.ok()) {
        result = makeSalvageCopy(salvage, path);
    }
    // Room can be made and the repair tried again; a medium that cannot be copied is read as far as it goes.
    if (!result.ok() && result.code != SQLITE_CANTOPEN) {
        return result;
    }
    const bool filled = sqlite3_exec(target, "BEGIN", nullptr, nullptr, nullptr) == SQLITE_OK &&
                        copyAll(salvage, path) &&
                        sqlite3_exec(target, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    return filled ? kvsResult_t{} : kvsConnection_failure(target, "cannot write", salvage.target_path);
}

kvsResult_t buildTarget(salvage_t &salvage, const std::string &path) {
    salvage.target_path = path + ".new";
    for (const char *suffix : {"", "-journal"}) {
        (void)unlink((salvage.target_path + suffix).c_str()); // left over from a crash, and rarely there
    }
    removeSalvageCopy(path);
    kvsResult_t result = kvsFile_create(salvage.target_path);
    if (result.ok()) {
        result = kvsConnection_open(salvage.target, salvage.target_path, SQLITE_OPEN_READWRITE);
    }
    if (!result.ok()) {
        return result;
    }
    result = fillTarget(salvage, path);
    salvage.source.reset();
    salvage.target.reset();
    removeSalvageCopy(path);
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
