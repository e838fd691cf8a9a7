// SPDX-License-Identifier: Apache-2.0
//
// Repair of a damaged database file. Steps, in an order that survives a crash between any two of them:
//   1. corvane.db.new: a new database, readable records of the damaged one copied into it in one transaction; what its
//      first page hides is read from a copy, corvane.db.salvage, that has a sound one
//   2. complete on the medium, it becomes corvane.db.repaired; from here on the next start goes on with it
//   3. the log and other companions of the damaged file get their new names
//   4. the damaged file gets its second name, corvane.db.damaged-<time> (a hard link)
//   5. corvane.db.repaired takes over the name corvane.db
// Up to step 2 nothing has happened to the damaged file and the next start begins again. The time in the new names is
// that of the repaired file, so that a start that goes on finds the same ones. Nothing is ever deleted except an
// unfinished corvane.db.new and the salvage copy. A full disk stops at step 1 with the damaged file in place.
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
    std::string source_path;
    std::string target_path;
    kvsResult_t unread; // the last block that the medium did not give
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

// Not the damage, but want of memory, of descriptors, of a lock: another try may read more.
bool mayPass(int code) {
    switch (code & 0xFF) {
    case SQLITE_NOMEM:
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_FULL:
    case SQLITE_CANTOPEN:
        return code > 0;
    default:
        return false;
    }
}

kvsResult_t sourceState(salvage_t &salvage) {
    const int code = sqlite3_extended_errcode(salvage.source.get());
    if ((code & 0xFF) == SQLITE_IOERR) {
        salvage.unread = kvsConnection_failure(salvage.source.get(), "cannot read", salvage.source_path);
    }
    return mayPass(code) ? kvsConnection_failure(salvage.source.get(), "cannot read", salvage.source_path)
                         : kvsResult_t{};
}

kvsResult_t targetFailure(const salvage_t &salvage) {
    return kvsConnection_failure(salvage.target.get(), "cannot write", salvage.target_path);
}

// A source that ends in an error is what we are here for; a failure is one of the target, or one that may pass.
kvsResult_t copyRows(salvage_t &salvage, const char *sql, bool keep_unsound) {
    if (!salvage.source) {
        return {};
    }
    const kvsStatement_t scan = prepare(salvage.source.get(), sql);
    const kvsStatement_t insertion = prepare(salvage.target.get(), insert_sql);
    const kvsStatement_t unsound = prepare(salvage.target.get(), quarantine_sql);
    if (!insertion || !unsound) {
        return targetFailure(salvage);
    }
    for (unsigned count = 0; scan && count < max_rows_read && sqlite3_step(scan.get()) == SQLITE_ROW; count++) {
        const char *fault = kvsRow_fault(scan.get());
        if (fault != nullptr && !keep_unsound) {
            continue;
        }
        if (!copyRow(scan.get(), fault == nullptr ? insertion.get() : unsound.get(), fault)) {
            return targetFailure(salvage);
        }
        const auto added = static_cast<unsigned>(sqlite3_changes(salvage.target.get()));
        (fault == nullptr ? salvage.recovered : salvage.quarantined) += added;
        if (fault != nullptr) {
            oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kvs_log_tag,
                       "store: record \"%s\" is damaged (%s) and was moved to table quarantine",
                       kvsRow_key(scan.get()).c_str(), fault);
        }
    }
    return sourceState(salvage);
}

kvsResult_t copyBothWays(salvage_t &salvage, bool keep_unsound) {
    kvsResult_t result = copyRows(salvage, forward_sql, keep_unsound);
    return result.ok() ? copyRows(salvage, backward_sql, false) : result;
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
    if (!error) {
        std::filesystem::copy_file(path + "-wal", copy + "-wal", error);
        if (error == std::errc::no_such_file_or_directory) {
            error.clear();
        }
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
kvsResult_t openSource(salvage_t &salvage, const std::string &path, int flags) {
    salvage.source.reset();
    salvage.source_path = path;
    struct stat file = {};
    if (stat(path.c_str(), &file) != 0) {
        return errno == ENOENT ? kvsResult_t{} : kvsSystemFailure("cannot read", path, errno);
    }
    if (file.st_size == 0) {
        return {};
    }
    kvsResult_t result = kvsConnection_open(salvage.source, path, flags);
    if (result.ok() &&
        sqlite3_exec(salvage.source.get(), "PRAGMA writable_schema=ON", nullptr, nullptr, nullptr) != SQLITE_OK) {
        result = kvsConnection_failure(salvage.source.get(), "cannot read", path);
    }
    if (!result.ok()) {
        salvage.source.reset();
    }
    return mayPass(result.code) ? result : kvsResult_t{};
}

// Each page in turn takes the place of the root, as a tree of its own. Rows deleted long ago may come back from pages
// that are not in use: for when all others are lost.
kvsResult_t copyPageByPage(salvage_t &salvage, const std::string &copy) {
    (void)sqlite3_exec(salvage.source.get(), "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr);
    std::fstream file(copy, std::ios::binary | std::ios::in | std::ios::out);
    for (unsigned page = 1; page < max_pages_tried; page++) {
        page_t content{};
        file.seekg(std::streamoff(page * page_size));
        file.read(content.data(), content.size());
        file.clear();
        if (file.gcount() != std::streamsize(page_size)) {
            break;
        }
        salvage.source.reset();
        file.seekp(std::streamoff(root_at));
        file.write(content.data(), content.size()).flush();
        kvsResult_t result = openSource(salvage, copy, SQLITE_OPEN_READWRITE);
        if (result.ok()) {
            result = copyRows(salvage, forward_sql, false);
        }
        if (!result.ok()) {
            return result;
        }
    }
    return {};
}

// Of the copy sound rows only: the file may be that of another program.
kvsResult_t copyAll(salvage_t &salvage, const std::string &path) {
    const std::string copy = path + ".salvage";
    kvsResult_t result = openSource(salvage, path, SQLITE_OPEN_READONLY);
    if (result.ok()) {
        result = copyBothWays(salvage, true);
    }
    if (result.ok()) {
        result = openSource(salvage, copy, SQLITE_OPEN_READWRITE);
    }
    if (result.ok()) {
        result = copyBothWays(salvage, false);
    }
    if (result.ok() && salvage.recovered == 0) {
        result = copyPageByPage(salvage, copy);
    }
    // A medium that gives nothing at all may come back; one that gives a part has given what it can.
    return result.ok() && salvage.recovered == 0 ? salvage.unread : result;
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
    if (sqlite3_exec(target, "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK) {
        return targetFailure(salvage);
    }
    result = copyAll(salvage, path);
    return result.ok() && sqlite3_exec(target, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK
               ? targetFailure(salvage)
               : result;
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

std::string timeOf(const std::string &path) {
    struct stat file = {};
    (void)stat(path.c_str(), &file); // of a file that is there; 1970 else, as good a name as any
    struct tm utc = {};
    (void)gmtime_r(&file.st_mtime, &utc);
    std::array<char, 32> stamp = {};
    (void)strftime(stamp.data(), stamp.size(), "%Y%m%dT%H%M%SZ", &utc);
    return stamp.data();
}

// A name that is not taken yet, except by this very file.
std::string asideName(const std::string &path) {
    const std::string base = path + ".damaged-" + timeOf(path + ".repaired");
    const kvsFileId_t damaged = kvsFile_id(path);
    std::string name = base;
    for (int number = 2; access(name.c_str(), F_OK) == 0 && !(kvsFile_id(name) == damaged); number++) {
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
    if (link(path.c_str(), aside.c_str()) != 0 && errno != EEXIST && errno != ENOENT &&
        rename(path.c_str(), aside.c_str()) != 0) {
        return kvsSystemFailure("cannot set aside", path, errno);
    }
    kvsFile_syncFolder(path);
    return {};
}

// The file with the new name is complete.
kvsResult_t takeOver(const std::string &path, std::string &aside) {
    const std::string name = asideName(path);
    kvsResult_t result = setAside(path, name);
    if (result.ok() && rename((path + ".repaired").c_str(), path.c_str()) != 0) {
        return kvsSystemFailure("cannot replace", path, errno);
    }
    kvsFile_syncFolder(path);
    aside = access(name.c_str(), F_OK) == 0 ? name : "";
    return result;
}

} // namespace

kvsResult_t kvsRebuild_replace(const std::string &path, std::string &aside) {
    if (rename((path + ".new").c_str(), (path + ".repaired").c_str()) != 0) {
        return kvsSystemFailure("cannot rename", path + ".new", errno);
    }
    kvsFile_syncFolder(path);
    return takeOver(path, aside);
}

kvsResult_t kvsRebuild_resume(const std::string &path) {
    if (access((path + ".repaired").c_str(), F_OK) != 0) {
        return errno == ENOENT ? kvsResult_t{} : kvsSystemFailure("cannot read", path + ".repaired", errno);
    }
    std::string aside;
    kvsResult_t result = takeOver(path, aside);
    if (result.ok()) {
        ++kvs_set_aside.files;
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kvs_log_tag,
                   "store: a repair of %s that was cut short is finished%s%s", path.c_str(),
                   aside.empty() ? "" : "; the file was set aside as ", aside.c_str());
    }
    return result;
}

kvsResult_t kvsRebuild_run(const std::string &path, const std::string &reason) {
    salvage_t salvage;
    kvsResult_t result = buildTarget(salvage, path);
    std::string aside;
    if (result.ok()) {
        result = kvsRebuild_replace(path, aside);
    }
    if (result.ok()) {
        ++kvs_set_aside.files;
        kvs_set_aside.records += salvage.quarantined;
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kvs_log_tag,
                   "store: %s; the file was set aside as %s, a new one begun with %u records recovered from it and %u "
                   "in quarantine",
                   reason.c_str(), aside.c_str(), salvage.recovered, salvage.quarantined);
    }
    return result;
}
