// SPDX-License-Identifier: Apache-2.0
//
// The database file behind the key-value store: one connection to SQLite, its prepared statements, and the checks that
// keep damage local. Not thread-safe; oru_kvs.cpp calls everything here under its mutex.
//
// File corvane.db, schema version 1 (PRAGMA user_version, and again in the low half of application_id, whose high half
// is "CV"):
//   records     "group" TEXT, name TEXT, value BLOB, crc32c INTEGER; primary key (group, name), without rowid, so that
//               a record lives in exactly one place of the file.
//   quarantine  records that failed their check, as they were, with reason and UTC time.
// crc32c covers the bytes of the key ("group.name"), one zero byte, and the value.
#pragma once
#include "base/descriptor.h"
#include <array>
#include <cstdint>
#include <memory>
#include <set>
#include <span>
#include <sqlite3.h>
#include <string>
#include <string_view>
#include <sys/types.h>

// Result codes beside those of SQLite, which are never negative.
enum kvsCode_t : int {
    KVS_FOREIGN_FILE = -1,  // a database, but not of this program
    KVS_NEWER_SCHEMA = -2,  // written by a later release
    KVS_MOVED = -3,         // renamed or deleted while open, and not written back yet
    KVS_FOLDER_IN_USE = -4, // another process holds the lock file
    KVS_REPLACED = -5,      // another file has taken its name while it was open
};

// `text` names the file, the reason and what to do; it is empty when the code is SQLITE_OK.
struct kvsResult_t {
    int code = SQLITE_OK;
    std::string text;
    bool ok() const { return code == SQLITE_OK; }
};

struct kvsKey_t {
    std::string_view group;
    std::string_view name;
};

struct kvsConnectionCloser_t {
    void operator()(sqlite3 *connection) const { (void)sqlite3_close_v2(connection); }
};
struct kvsStatementCloser_t {
    // The result repeats the error of the last step, which was handled there.
    void operator()(sqlite3_stmt *statement) const { (void)sqlite3_finalize(statement); }
};
using kvsConnection_t = std::unique_ptr<sqlite3, kvsConnectionCloser_t>;
using kvsStatement_t = std::unique_ptr<sqlite3_stmt, kvsStatementCloser_t>;

enum kvsStatementId_t : size_t {
    KVS_STATEMENT_GET,
    KVS_STATEMENT_PUT,
    KVS_STATEMENT_REMOVE,
    KVS_STATEMENT_ERASE_GROUP,
    KVS_STATEMENT_SCAN,
    KVS_STATEMENT_QUARANTINE,
    KVS_STATEMENT_COUNT,
};

// Which file it is, whatever its name; the inode is 0 when there was none.
struct kvsFileId_t {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const kvsFileId_t &) const = default;
};

struct kvsDatabase_t {
    std::string path;
    kvsConnection_t connection; // null: closed
    std::array<kvsStatement_t, KVS_STATEMENT_COUNT> statements;
    std::array<kvsFileId_t, 3> files; // the database, its -wal and its -shm, as they were opened
    bool alone = false;               // in exclusive locking mode, which needs no -shm
    bool copy = false;                // a copy for reading, in a folder of its own; never written
};

// Opens <directory>/corvane.db, creating it when missing; a damaged one is set aside and its readable records are
// carried over (one log line). Where there is no room for the -shm it is opened without one. On failure the database
// stays closed. busy_timeout_ms bounds every wait for other programs that have the file open.
kvsResult_t kvsDatabase_open(kvsDatabase_t &database, const std::string &directory, int busy_timeout_ms);
void kvsDatabase_close(kvsDatabase_t &database);

// Stores durably, all or nothing; writes nothing when the stored value is sound and equal.
kvsResult_t kvsDatabase_put(kvsDatabase_t &database, const kvsKey_t &key, std::span<const uint8_t> value);

// Copies as much of the value as fits; copied is 0 when there is no sound record of that key.
kvsResult_t kvsDatabase_get(kvsDatabase_t &database, const kvsKey_t &key, std::span<uint8_t> buffer, size_t &copied);
kvsResult_t kvsDatabase_remove(kvsDatabase_t &database, const kvsKey_t &key);
kvsResult_t kvsDatabase_eraseGroup(kvsDatabase_t &database, std::string_view group);

// Adds the names of all sound records of the group; unsound records of any group go to quarantine on the way.
kvsResult_t kvsDatabase_listNames(kvsDatabase_t &database, std::string_view group, std::set<std::string> &names);

// What was found damaged and kept apart, since the process started.
struct kvsSetAside_t {
    uint32_t files = 0;
    uint32_t records = 0;
};
inline kvsSetAside_t kvs_set_aside;

// ---- kvs_place.cpp: where the files are ----

// Opens a copy of the database and its log, made in `scratch` (a folder of its own, emptied first), for a medium that
// lets nothing be written beside them. KVS_FOLDER_IN_USE and the like are the caller's to exclude.
kvsResult_t kvsCopy_open(kvsDatabase_t &database, const std::string &directory, const std::string &scratch);

// Whether the files still have their names. Deleted or renamed ones are written back from the connection, which is
// closed then; one that was replaced is left alone (KVS_REPLACED).
kvsResult_t kvsPlace_keep(kvsDatabase_t &database);

// Takes the lock of the folder unless `held` is it already, also anew when the lock file was deleted. Where
// nothing can be written or locked there is nothing to keep apart either: OK without a lock, `held` as it was.
kvsResult_t kvsLock_take(corvane::base::Descriptor &held, const std::string &directory);

kvsFileId_t kvsFile_id(const std::string &path);

// ---- building blocks shared with kvs_rebuild.cpp and kvs_place.cpp ----

constexpr const char *kvs_log_tag = "oru_kvs";

// Opens a connection without touching the content. flags: SQLITE_OPEN_READONLY or SQLITE_OPEN_READWRITE. alone: in
// exclusive locking mode.
kvsResult_t kvsConnection_open(kvsConnection_t &connection, const std::string &path, int flags, bool alone = false);
kvsResult_t kvsConnection_createSchema(sqlite3 *connection, const std::string &path);

// Failure of the last call on `connection`, put into words.
kvsResult_t kvsConnection_failure(sqlite3 *connection, const char *action, const std::string &path);
kvsResult_t kvsSystemFailure(const char *action, const std::string &path, int error_number);

// Creates the file (mode 0600) when it is missing.
kvsResult_t kvsFile_create(const std::string &path);

// Makes renames and new names in the folder of `path` durable.
void kvsFile_syncFolder(const std::string &path);

// Null when the row (columns group, name, value, crc32c) is sound, else what is wrong with it.
const char *kvsRow_fault(sqlite3_stmt *row);
std::string kvsRow_key(sqlite3_stmt *row);

// Sets the damaged file and its companions aside under a name with a time stamp and puts a new one with all readable
// records in its place. The damaged file keeps its name until the new one is complete on the medium.
kvsResult_t kvsRebuild_run(const std::string &path, const std::string &reason);

// <path>.new is complete: it takes over the name, what has it now and the companions are set aside. `aside` gets their
// new name, empty when there was nothing.
kvsResult_t kvsRebuild_replace(const std::string &path, std::string &aside);

// Goes on with a replacement that the end of the process has cut short.
kvsResult_t kvsRebuild_resume(const std::string &path);
