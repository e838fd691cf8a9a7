// SPDX-License-Identifier: Apache-2.0
#include "kvs_database.h"
#include "kvs_crc32c.h"
#include "oru_log.h"
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using corvane::base::Descriptor;

constexpr int schema_version = 1;
constexpr long schema_mark = 0x43560000; // "CV"; with the number of the schema it is the application_id

constexpr const char *connection_sql = "PRAGMA cell_size_check=ON; PRAGMA synchronous=FULL; PRAGMA temp_store=MEMORY";
constexpr const char *schema_sql =
    "BEGIN IMMEDIATE;"
    "CREATE TABLE records(\"group\" TEXT NOT NULL, name TEXT NOT NULL, value BLOB NOT NULL, crc32c INTEGER NOT NULL,"
    " PRIMARY KEY(\"group\", name)) WITHOUT ROWID;"
    "CREATE TABLE quarantine(id INTEGER PRIMARY KEY, \"group\", name, value, crc32c, reason TEXT, time TEXT);"
    "PRAGMA user_version=1;"
    "PRAGMA application_id=1129709569;"
    "COMMIT";
static_assert(schema_version == 1 && schema_mark + schema_version == 1129709569, "schema_sql writes the numbers too");

// Indexed by kvsStatementId_t.
constexpr std::array<const char *, KVS_STATEMENT_COUNT> statement_sql = {
    "SELECT \"group\", name, value, crc32c FROM records WHERE \"group\"=?1 AND name=?2",
    "INSERT INTO records(\"group\", name, value, crc32c) VALUES(?1, ?2, ?3, ?4)"
    " ON CONFLICT(\"group\", name) DO UPDATE SET value=excluded.value, crc32c=excluded.crc32c",
    "DELETE FROM records WHERE \"group\"=?1 AND name=?2",
    "DELETE FROM records WHERE \"group\"=?1",
    "SELECT \"group\", name, value, crc32c FROM records",
    "INSERT INTO quarantine(\"group\", name, value, crc32c, reason, time)"
    " SELECT \"group\", name, value, crc32c, ?3, strftime('%Y-%m-%dT%H:%M:%SZ', 'now')"
    " FROM records WHERE \"group\"=?1 AND name=?2",
};

struct valueCloser_t {
    void operator()(sqlite3_value *value) const { sqlite3_value_free(value); }
};
using value_t = std::unique_ptr<sqlite3_value, valueCloser_t>;

// A record to be moved: its key exactly as stored, whatever type that has.
struct unsound_t {
    value_t group;
    value_t name;
    std::string key;
    const char *reason;
};

// Hands out a prepared statement and gives it back clean, so that no read transaction stays open.
class statementUse_t {
public:
    statementUse_t(kvsDatabase_t &database, kvsStatementId_t id) : statement(database.statements[id].get()) {}
    statementUse_t(const statementUse_t &) = delete;
    statementUse_t &operator=(const statementUse_t &) = delete;
    ~statementUse_t() {
        (void)sqlite3_reset(statement); // repeats the error of the last step
        (void)sqlite3_clear_bindings(statement);
    }
    // Binding fails only for wrong indices and when memory is short; the step then finds a null and matches or
    // stores nothing (all columns are NOT NULL).
    void bindText(int index, std::string_view text) {
        (void)sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    }
    void bindKey(const kvsKey_t &key) {
        bindText(1, key.group);
        bindText(2, key.name);
    }
    int step() { return sqlite3_step(statement); }

    sqlite3_stmt *const statement;
};

const char *adviceFor(int code) {
    switch (code & 0xFF) {
    case SQLITE_FULL:
        return "; free some space";
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_CANTOPEN:
        return "; check the owner of the folder and whether it is mounted read-only";
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return "; another program has the file locked, close it";
    case SQLITE_IOERR:
        return "; check the storage medium";
    default:
        return "";
    }
}

bool isDamage(int code) {
    const int primary = code < 0 ? code : code & 0xFF;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB || primary == KVS_FOREIGN_FILE;
}

kvsResult_t execute(sqlite3 *connection, const std::string &path, const char *sql) {
    if (sqlite3_exec(connection, sql, nullptr, nullptr, nullptr) == SQLITE_OK) {
        return {};
    }
    kvsResult_t failure = kvsConnection_failure(connection, "cannot prepare", path);
    if (sqlite3_get_autocommit(connection) == 0) {
        (void)sqlite3_exec(connection, "ROLLBACK", nullptr, nullptr, nullptr); // the failure is what counts
    }
    return failure;
}

// First column of the first row as text.
kvsResult_t queryText(sqlite3 *connection, const std::string &path, const char *sql, std::string &text) {
    sqlite3_stmt *raw = nullptr;
    if (sqlite3_prepare_v2(connection, sql, -1, &raw, nullptr) != SQLITE_OK) {
        return kvsConnection_failure(connection, "cannot read", path);
    }
    const kvsStatement_t statement(raw);
    if (sqlite3_step(raw) != SQLITE_ROW) {
        return kvsConnection_failure(connection, "cannot read", path);
    }
    const auto *bytes = sqlite3_column_text(raw, 0);
    text = bytes != nullptr ? reinterpret_cast<const char *>(bytes) : "";
    return {};
}

kvsResult_t foreign(const std::string &path, const std::string &what) {
    return {KVS_FOREIGN_FILE, path + " is not a store of corvane: " + what};
}

kvsResult_t createOrCheckSchema(sqlite3 *connection, const std::string &path) {
    std::string version;
    std::string mark;
    std::string tables;
    kvsResult_t result = queryText(connection, path, "PRAGMA user_version", version);
    if (result.ok()) {
        result = queryText(connection, path, "PRAGMA application_id", mark);
    }
    if (result.ok()) {
        result = queryText(connection, path, "SELECT count(*) FROM sqlite_master", tables);
    }
    if ((result.code & 0xFF) == SQLITE_ERROR) { // nothing is wrong with the queries
        return foreign(path, result.text);
    }
    if (!result.ok()) {
        return result;
    }
    const long number = strtol(version.c_str(), nullptr, 10);
    // A later release has written its number twice; once only is damage, not progress.
    if (number > schema_version && strtol(mark.c_str(), nullptr, 10) == schema_mark + number) {
        return {KVS_NEWER_SCHEMA, "cannot use " + path + ": it was written by a newer release (schema " + version +
                                      ", this one knows up to " + std::to_string(schema_version) +
                                      "); install that release again or set another store.directory"};
    }
    if (number == 0 && tables == "0") {
        return kvsConnection_createSchema(connection, path);
    }
    return number == schema_version ? kvsResult_t{} : foreign(path, "schema version " + version);
}

// The full check, not the quick one: only it compares the order of keys, and a key out of order hides its neighbours.
// It reads the whole file once, some hundred kilobytes.
kvsResult_t checkIntegrity(sqlite3 *connection, const std::string &path) {
    std::string verdict;
    kvsResult_t result = queryText(connection, path, "PRAGMA integrity_check(1)", verdict);
    if (result.ok() && verdict != "ok") { // a block that could not be read just once is no damage
        result = queryText(connection, path, "PRAGMA integrity_check(1)", verdict);
    }
    if (result.ok() && verdict != "ok") {
        return {SQLITE_CORRUPT, "cannot use " + path + ": " + verdict};
    }
    return result;
}

kvsResult_t prepareStatements(kvsDatabase_t &database) {
    for (size_t id = 0; id < KVS_STATEMENT_COUNT; id++) {
        sqlite3_stmt *raw = nullptr;
        const int code = sqlite3_prepare_v3(database.connection.get(), statement_sql[id], -1, SQLITE_PREPARE_PERSISTENT,
                                            &raw, nullptr);
        database.statements[id].reset(raw);
        if ((code & 0xFF) == SQLITE_ERROR) { // a table or column is missing
            return foreign(database.path, sqlite3_errmsg(database.connection.get()));
        }
        if (code != SQLITE_OK) {
            return kvsConnection_failure(database.connection.get(), "cannot read", database.path);
        }
    }
    return {};
}

// Size in bytes, 0 when there is no such file.
kvsResult_t fileSize(const std::string &path, off_t &size) {
    struct stat file = {};
    size = 0;
    if (stat(path.c_str(), &file) == 0) {
        size = file.st_size;
        return {};
    }
    return errno == ENOENT ? kvsResult_t{} : kvsSystemFailure("cannot read", path, errno);
}

// SQLite takes a file that is empty, or as good as, for a new database and deletes its log; content that was cut off
// would vanish unseen.
kvsResult_t checkNotEmptied(const std::string &path) {
    constexpr off_t header_size = 100;
    off_t file = 0;
    off_t log = 0;
    kvsResult_t result = fileSize(path, file);
    if (result.ok()) {
        result = fileSize(path + "-wal", log);
    }
    if (result.ok() && file < header_size && (file > 0 || log > 0)) {
        return {SQLITE_CORRUPT, "cannot use " + path + ": its content was cut off"};
    }
    return result;
}

// SQLite reads, but does not write, a file whose header asks for a format it does not know; no release of ours wrote
// such a one. It does the same with one that it may not, or just once could not, open for writing.
kvsResult_t readOnlyFailure(const std::string &path) {
    constexpr size_t write_version_at = 18;
    constexpr unsigned char highest_known = 2;
    std::array<char, write_version_at + 1> header{};
    if (std::ifstream(path, std::ios::binary).read(header.data(), header.size()) &&
        static_cast<unsigned char>(header[write_version_at]) > highest_known) {
        return {SQLITE_CORRUPT, "cannot use " + path + ": its header is damaged"};
    }
    return {SQLITE_READONLY, "cannot open " + path + " for writing" + adviceFor(SQLITE_READONLY)};
}

// Moves the content of the log into the database file. When that fails (a full medium, a reader elsewhere) the log
// stays.
void emptyLog(sqlite3 *connection) {
    (void)sqlite3_wal_checkpoint_v2(connection, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
}

kvsResult_t openConnection(kvsDatabase_t &database, int busy_timeout_ms) {
    const std::string &path = database.path;
    kvsResult_t result = kvsFile_create(path);
    if (result.ok()) {
        result = checkNotEmptied(path);
    }
    if (result.ok()) {
        result = kvsConnection_open(database.connection, path, SQLITE_OPEN_READWRITE, database.alone);
    }
    if ((result.code & 0xFF) == SQLITE_ERROR) { // a format that SQLite does not know
        return foreign(path, result.text);
    }
    if (result.ok()) {
        (void)sqlite3_busy_timeout(database.connection.get(), busy_timeout_ms);
    }
    return result;
}

kvsResult_t checkContent(sqlite3 *connection, const std::string &path) {
    kvsResult_t result = createOrCheckSchema(connection, path);
    if ((result.ok() || (result.code & 0xFF) == SQLITE_READONLY) && sqlite3_db_readonly(connection, "main") == 1) {
        return readOnlyFailure(path);
    }
    return result.ok() ? checkIntegrity(connection, path) : result;
}

void noteFiles(kvsDatabase_t &database) {
    database.files = {kvsFile_id(database.path), kvsFile_id(database.path + "-wal"),
                      database.alone ? kvsFileId_t{} : kvsFile_id(database.path + "-shm")};
}

// Nothing is written before all is known to be sound and ours: a newer or damaged store stays as it was found.
kvsResult_t openAndCheck(kvsDatabase_t &database, int busy_timeout_ms) {
    kvsResult_t result = openConnection(database, busy_timeout_ms);
    if (!result.ok()) {
        return result;
    }
    sqlite3 *const connection = database.connection.get();
    result = checkContent(connection, database.path);
    if (result.ok()) {
        // 25 pages keep the log near 100 KB: writes are rare, and what is not in the log cannot be lost with it.
        result = execute(connection, database.path, "PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=25");
    }
    if (!result.ok()) {
        return result;
    }
    // What a crash left in the log is brought home early: one bad block in the log would hide all that follows it.
    emptyLog(connection);
    noteFiles(database);
    return prepareStatements(database);
}

kvsResult_t openOrRebuild(kvsDatabase_t &database, int busy_timeout_ms) {
    kvsResult_t result = openAndCheck(database, busy_timeout_ms);
    if (isDamage(result.code)) {
        kvsDatabase_close(database);
        result = kvsRebuild_run(database.path, result.text);
        if (result.ok()) {
            result = openAndCheck(database, busy_timeout_ms);
        }
    }
    return result;
}

// Of the failures these may come from the -shm alone: it is made when the database is opened, and takes 32 KiB.
bool mayLackSharedMemory(int code) {
    const int primary = code & 0xFF;
    return code > 0 && (primary == SQLITE_FULL || primary == SQLITE_CANTOPEN || primary == SQLITE_IOERR);
}

kvsResult_t statementFailure(const kvsDatabase_t &database, const char *action) {
    return kvsConnection_failure(database.connection.get(), action, database.path);
}

kvsResult_t change(kvsDatabase_t &database, statementUse_t &statement) {
    int code = statement.step();
    if ((code & 0xFF) == SQLITE_FULL) {
        // On a small medium the log may be what fills it.
        (void)sqlite3_reset(statement.statement); // repeats the error
        emptyLog(database.connection.get());
        code = statement.step();
    }
    return code == SQLITE_DONE ? kvsResult_t{} : statementFailure(database, "cannot write");
}

uint32_t recordCrc(const kvsKey_t &key, std::span<const uint8_t> value) {
    const auto bytes = [](std::string_view text) {
        return std::span(reinterpret_cast<const uint8_t *>(text.data()), text.size());
    };
    uint32_t crc = kvsCrc32c(0, bytes(key.group));
    crc = kvsCrc32c(crc, bytes("."));
    crc = kvsCrc32c(crc, bytes(key.name));
    crc = kvsCrc32c(crc, std::array<uint8_t, 1>{0});
    return kvsCrc32c(crc, value);
}

// SQLite wants the pointer before the size, or the size may be that of another encoding.
std::string_view columnText(sqlite3_stmt *row, int column) {
    const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(row, column));
    return text == nullptr ? std::string_view() : std::string_view(text, size_t(sqlite3_column_bytes(row, column)));
}

std::span<const uint8_t> columnBlob(sqlite3_stmt *row, int column) {
    const auto *bytes = static_cast<const uint8_t *>(sqlite3_column_blob(row, column));
    return {bytes, bytes == nullptr ? 0 : size_t(sqlite3_column_bytes(row, column))};
}

unsound_t unsoundRow(sqlite3_stmt *row, const char *reason) {
    return {value_t(sqlite3_value_dup(sqlite3_column_value(row, 0))),
            value_t(sqlite3_value_dup(sqlite3_column_value(row, 1))), kvsRow_key(row), reason};
}

int moveRecord(kvsDatabase_t &database, const unsound_t &record) {
    statementUse_t copy(database, KVS_STATEMENT_QUARANTINE);
    (void)sqlite3_bind_value(copy.statement, 1, record.group.get());
    (void)sqlite3_bind_value(copy.statement, 2, record.name.get());
    copy.bindText(3, record.reason);
    const int code = copy.step();
    if (code != SQLITE_DONE) {
        return code;
    }
    statementUse_t removal(database, KVS_STATEMENT_REMOVE);
    (void)sqlite3_bind_value(removal.statement, 1, record.group.get());
    (void)sqlite3_bind_value(removal.statement, 2, record.name.get());
    return removal.step();
}

int moveRecords(kvsDatabase_t &database, const std::vector<unsound_t> &records) {
    sqlite3 *const connection = database.connection.get();
    int code = sqlite3_exec(connection, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    for (size_t i = 0; i < records.size() && (code == SQLITE_OK || code == SQLITE_DONE); i++) {
        code = moveRecord(database, records[i]);
    }
    return code == SQLITE_DONE ? sqlite3_exec(connection, "COMMIT", nullptr, nullptr, nullptr) : code;
}

// Best effort: the caller leaves the records out whether or not the move succeeds. One transaction: there may be
// thousands, and each one waits for the medium.
void quarantine(kvsDatabase_t &database, const std::vector<unsound_t> &records) {
    if (records.empty()) {
        return;
    }
    const int code = database.copy ? SQLITE_READONLY : moveRecords(database, records);
    if (sqlite3_get_autocommit(database.connection.get()) == 0) {
        (void)sqlite3_exec(database.connection.get(), "ROLLBACK", nullptr, nullptr, nullptr); // nothing changed then
    }
    kvs_set_aside.records += code == SQLITE_OK ? static_cast<uint32_t>(records.size()) : 0U; // else met again
    for (const unsound_t &record : records) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kvs_log_tag,
                   "store: record \"%s\" is damaged (%s) and left out; %s table quarantine of %s", record.key.c_str(),
                   record.reason, code == SQLITE_OK ? "it was moved to" : "it could not be moved to",
                   database.path.c_str());
    }
}

} // namespace

kvsResult_t kvsSystemFailure(const char *action, const std::string &path, int error_number) {
    const int code = error_number == ENOSPC || error_number == EDQUOT ? SQLITE_FULL : SQLITE_CANTOPEN;
    return {code, std::string(action) + " " + path + ": " + strerror(error_number) + adviceFor(code)};
}

kvsResult_t kvsConnection_failure(sqlite3 *connection, const char *action, const std::string &path) {
    int code = sqlite3_extended_errcode(connection);
    if (code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE) {
        code = SQLITE_ERROR;
    }
    return {code, std::string(action) + " " + path + ": " + sqlite3_errmsg(connection) + adviceFor(code)};
}

kvsResult_t kvsFile_create(const std::string &path) {
    if (const Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600)); file) {
        kvsFile_syncFolder(path);
        return {};
    }
    return errno == EEXIST ? kvsResult_t{} : kvsSystemFailure("cannot create", path, errno);
}

void kvsFile_syncFolder(const std::string &path) {
    const std::string folder = path.substr(0, path.rfind('/'));
    if (const Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)); opened) {
        (void)fsync(opened.get()); // some file systems refuse it for folders; there is nothing better to do then
    }
}

kvsResult_t kvsConnection_open(kvsConnection_t &connection, const std::string &path, int flags, bool alone) {
    sqlite3 *raw = nullptr;
    // The mutex of the store already keeps threads apart.
    const int code = sqlite3_open_v2(path.c_str(), &raw, flags | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE, nullptr);
    connection.reset(raw);
    if (raw == nullptr) {
        return {SQLITE_NOMEM, "cannot open " + path + ": out of memory"};
    }
    if (code != SQLITE_OK) {
        return kvsConnection_failure(raw, "cannot open", path);
    }
    // Whatever the file contains, it stays data: no functions run from its schema, sizes are checked before use.
    // Closing leaves the log alone, so that a damaged file is set aside as it was found.
    (void)sqlite3_db_config(raw, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    (void)sqlite3_db_config(raw, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    // The locking mode first: the other settings look into the file.
    kvsResult_t result = alone ? execute(raw, path, "PRAGMA locking_mode=EXCLUSIVE") : kvsResult_t{};
    return result.ok() ? execute(raw, path, connection_sql) : result;
}

kvsResult_t kvsConnection_createSchema(sqlite3 *connection, const std::string &path) {
    return execute(connection, path, schema_sql);
}

const char *kvsRow_fault(sqlite3_stmt *row) {
    if (sqlite3_column_type(row, 0) != SQLITE_TEXT || sqlite3_column_type(row, 1) != SQLITE_TEXT ||
        sqlite3_column_type(row, 2) != SQLITE_BLOB || sqlite3_column_type(row, 3) != SQLITE_INTEGER) {
        return "wrong column type";
    }
    if (sqlite3_column_bytes(row, 2) == 0) {
        return "empty value";
    }
    const uint32_t crc = recordCrc({columnText(row, 0), columnText(row, 1)}, columnBlob(row, 2));
    return sqlite3_column_int64(row, 3) == int64_t{crc} ? nullptr : "checksum mismatch";
}

std::string kvsRow_key(sqlite3_stmt *row) {
    return std::string(columnText(row, 0)) + "." + std::string(columnText(row, 1));
}

kvsResult_t kvsDatabase_open(kvsDatabase_t &database, const std::string &directory, int busy_timeout_ms) {
    database.path = directory + "/corvane.db";
    database.alone = database.copy = false;
    kvsResult_t result = kvsRebuild_resume(database.path);
    if (!result.ok()) {
        return result;
    }
    result = openOrRebuild(database, busy_timeout_ms);
    if (mayLackSharedMemory(result.code)) {
        kvsDatabase_close(database);
        database.alone = true;
        if (openAndCheck(database, busy_timeout_ms).ok()) {
            return {};
        }
    }
    if (!result.ok()) {
        kvsDatabase_close(database);
    }
    return result;
}

void kvsDatabase_close(kvsDatabase_t &database) {
    for (kvsStatement_t &statement : database.statements) {
        statement.reset();
    }
    database.connection.reset();
    if (database.copy) {
        std::error_code error; // it is made afresh when it is needed again
        std::filesystem::remove_all(std::filesystem::path(database.path).parent_path(), error);
        database.copy = false;
    }
}

kvsResult_t kvsDatabase_put(kvsDatabase_t &database, const kvsKey_t &key, std::span<const uint8_t> value) {
    {
        statementUse_t stored(database, KVS_STATEMENT_GET);
        stored.bindKey(key);
        if (stored.step() == SQLITE_ROW && kvsRow_fault(stored.statement) == nullptr &&
            std::ranges::equal(columnBlob(stored.statement, 2), value)) {
            return {};
        }
    }
    statementUse_t put(database, KVS_STATEMENT_PUT);
    put.bindKey(key);
    (void)sqlite3_bind_blob(put.statement, 3, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
    (void)sqlite3_bind_int64(put.statement, 4, int64_t{recordCrc(key, value)});
    return change(database, put);
}

kvsResult_t kvsDatabase_get(kvsDatabase_t &database, const kvsKey_t &key, std::span<uint8_t> buffer, size_t &copied) {
    copied = 0;
    std::vector<unsound_t> unsound;
    {
        statementUse_t get(database, KVS_STATEMENT_GET);
        get.bindKey(key);
        const int code = get.step();
        if (code != SQLITE_ROW) {
            return code == SQLITE_DONE ? kvsResult_t{} : statementFailure(database, "cannot read");
        }
        if (const char *fault = kvsRow_fault(get.statement)) {
            unsound.push_back(unsoundRow(get.statement, fault));
        } else {
            const auto value = columnBlob(get.statement, 2);
            copied = std::min(value.size(), buffer.size());
            std::copy_n(value.begin(), copied, buffer.begin());
        }
    }
    quarantine(database, unsound);
    return {};
}

kvsResult_t kvsDatabase_remove(kvsDatabase_t &database, const kvsKey_t &key) {
    statementUse_t removal(database, KVS_STATEMENT_REMOVE);
    removal.bindKey(key);
    return change(database, removal);
}

kvsResult_t kvsDatabase_eraseGroup(kvsDatabase_t &database, std::string_view group) {
    statementUse_t erasure(database, KVS_STATEMENT_ERASE_GROUP);
    erasure.bindText(1, group);
    return change(database, erasure);
}

kvsResult_t kvsDatabase_listNames(kvsDatabase_t &database, std::string_view group, std::set<std::string> &names) {
    std::vector<unsound_t> unsound;
    {
        statementUse_t scan(database, KVS_STATEMENT_SCAN);
        int code = scan.step();
        for (; code == SQLITE_ROW; code = scan.step()) {
            if (const char *fault = kvsRow_fault(scan.statement)) {
                unsound.push_back(unsoundRow(scan.statement, fault));
            } else if (columnText(scan.statement, 0) == group) {
                names.emplace(columnText(scan.statement, 1));
            }
        }
        if (code != SQLITE_DONE) {
            return statementFailure(database, "cannot read");
        }
    }
    quarantine(database, unsound);
    return {};
}
