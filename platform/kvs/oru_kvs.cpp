// SPDX-License-Identifier: Apache-2.0
//
// The key-value store: checks of arguments, the lock of the folder, and values that could not be written yet.
//
//   operation ──► open (if closed) ──► flush waiting values, oldest first ──► the operation itself
//
// A value whose write fails waits in memory; get and listKeys see it, every later operation tries again, and the caller
// of set has been told by the status. While anything waits, the database holds older values of those keys only.
// Operations that remove something are not kept: their failure changes nothing, and their caller keeps its record.
//
// One mutex guards everything here. It is never held while a callback runs, and the log is the only layer called
// under it.
#include "oru_kvs.h"
#include "kvs_database.h"
#include "oru_config.h"
#include "oru_kvs_testing.h"
#include "oru_log.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <optional>
#include <sys/file.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t max_key_length = 64;
constexpr size_t max_value_size = 65536;
constexpr size_t max_waiting = 1024;
constexpr int busy_timeout_ms = 2000;

struct waiting_t {
    std::string key;
    std::vector<uint8_t> value;
};

struct store_t {
    std::mutex mutex;
    int lock_descriptor = -1;
    kvsDatabase_t database;
    bool reopen = false;           // the connection may be unsound; the next operation opens it again
    std::deque<waiting_t> waiting; // one entry per key
    std::string condition;         // text of the failure that was logged last; empty: all is well
    unsigned written_late = 0;     // waiting values written since the failure began
    bool overflow_logged = false;
};

// Never deleted: layer threads may be inside while exit() runs.
store_t &theStore() {
    static store_t *const instance = new store_t;
    return *instance;
}

std::optional<kvsKey_t> parseKey(const char *key) {
    const std::string_view text(key, strnlen(key, max_key_length + 1));
    const size_t stop = text.find('.');
    if (text.size() > max_key_length || stop == std::string_view::npos || stop == 0 || stop + 1 == text.size()) {
        return std::nullopt;
    }
    return kvsKey_t{text.substr(0, stop), text.substr(stop + 1)};
}

oru_status_t statusOf(const kvsResult_t &result) {
    switch (result.code < 0 ? result.code : result.code & 0xFF) {
    case SQLITE_OK:
        return ORU_STATUS_OK;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case KVS_FOLDER_IN_USE:
        return ORU_STATUS_BUSY;
    case SQLITE_NOMEM:
        return ORU_STATUS_OUT_OF_MEMORY;
    case KVS_NEWER_SCHEMA:
        return ORU_STATUS_NOT_SUPPORTED;
    default:
        return ORU_STATUS_GENERAL_ERROR;
    }
}

// SQLite undoes a failed write by itself as long as the connection lives; a new connection might find it complete in
// the log after all. After other failures the next operation opens and checks the file afresh (the one that failed may
// still read through the old connection).
bool keepsConnection(const kvsDatabase_t &database, const kvsResult_t &result) {
    switch (result.code < 0 ? result.code : result.code & 0xFF) {
    case SQLITE_OK:
    case SQLITE_FULL:
    case SQLITE_BUSY:
    case SQLITE_IOERR:
        return true;
    case SQLITE_READONLY: // opened read-only for lack of permission: only a new connection can change that
        return database.connection != nullptr && sqlite3_db_readonly(database.connection.get(), "main") == 0;
    default:
        return false;
    }
}

// Logs each change of condition once, not each failing call.
void note(store_t &store, const kvsResult_t &result) {
    store.reopen = store.reopen || !keepsConnection(store.database, result);
    if (!result.ok() && result.text != store.condition) {
        store.condition = result.text;
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kvs_log_tag,
                   "store: %s; changes stay in memory and are written as soon as that is possible",
                   result.text.c_str());
    }
    if (result.ok() && store.waiting.empty() && !store.condition.empty()) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, kvs_log_tag,
                   "store: working again, %u values that waited in memory are written", store.written_late);
        store.condition.clear();
        store.written_late = 0;
        store.overflow_logged = false;
    }
}

// Two daemons on one folder would overwrite each other's devices.
kvsResult_t lockFolder(store_t &store, const std::string &directory) {
    if (store.lock_descriptor >= 0) {
        return {};
    }
    const std::string path = directory + "/corvane.lock";
    const int descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        return kvsSystemFailure("cannot open", path, errno);
    }
    if (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        const int reason = errno;
        (void)close(descriptor);
        if (reason == EWOULDBLOCK) {
            return {KVS_FOLDER_IN_USE, "another process uses the folder " + directory +
                                           " (it holds corvane.lock); stop it or set another store.directory"};
        }
        return kvsSystemFailure("cannot lock", path, reason);
    }
    store.lock_descriptor = descriptor;
    return {};
}

kvsResult_t openStore(store_t &store, int timeout_ms) {
    const std::string &directory = oruConfig_get().state_directory;
    kvsResult_t result = lockFolder(store, directory);
    return result.ok() ? kvsDatabase_open(store.database, directory, timeout_ms) : result;
}

kvsResult_t flush(store_t &store) {
    while (!store.waiting.empty()) {
        const waiting_t &oldest = store.waiting.front();
        kvsResult_t result = kvsDatabase_put(store.database, *parseKey(oldest.key.c_str()), oldest.value);
        if (!result.ok()) {
            return result;
        }
        store.waiting.pop_front();
        store.written_late++;
    }
    return {};
}

// Makes the store usable as far as possible. While it fails, waits for other programs are not repeated at each call.
kvsResult_t prepareStore(store_t &store) {
    const int timeout_ms = store.condition.empty() ? busy_timeout_ms : 0;
    kvsResult_t result;
    if (store.reopen) {
        kvsDatabase_close(store.database);
        store.reopen = false;
    }
    if (store.database.connection == nullptr) {
        result = openStore(store, timeout_ms);
    } else {
        (void)sqlite3_busy_timeout(store.database.connection.get(), timeout_ms);
    }
    if (result.ok()) {
        result = flush(store);
    }
    note(store, result);
    return result;
}

std::deque<waiting_t>::iterator findWaiting(store_t &store, std::string_view key) {
    return std::find_if(store.waiting.begin(), store.waiting.end(),
                        [key](const waiting_t &entry) { return entry.key == key; });
}

void keepWaiting(store_t &store, const char *key, std::span<const uint8_t> value) {
    std::vector<uint8_t> copy(value.begin(), value.end());
    const auto entry = findWaiting(store, key);
    if (entry != store.waiting.end()) {
        entry->value = std::move(copy);
        return;
    }
    if (store.waiting.size() < max_waiting) {
        store.waiting.push_back({key, std::move(copy)});
        return;
    }
    if (!store.overflow_logged) {
        store.overflow_logged = true;
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kvs_log_tag,
                   "store: %zu values wait in memory, the limit; values of further keys are lost until the store works "
                   "again",
                   max_waiting);
    }
}

bool inGroup(std::string_view key, std::string_view group) {
    return key.size() > group.size() && key.substr(0, group.size()) == group && key[group.size()] == '.';
}

oru_status_t setValue(const char *key, std::span<const uint8_t> value) {
    const auto parsed = parseKey(key);
    if (!parsed) {
        return ORU_STATUS_BAD_PARAM;
    }
    store_t &store = theStore();
    const std::lock_guard guard(store.mutex);
    kvsResult_t result = prepareStore(store);
    if (result.ok()) {
        result = kvsDatabase_put(store.database, *parsed, value);
        note(store, result);
    }
    if (!result.ok()) {
        keepWaiting(store, key, value);
    }
    return statusOf(result);
}

int32_t getValue(const char *key, std::span<uint8_t> buffer) {
    const auto parsed = parseKey(key);
    if (!parsed) {
        return ORU_STATUS_BAD_PARAM;
    }
    store_t &store = theStore();
    const std::lock_guard guard(store.mutex);
    kvsResult_t result = prepareStore(store);
    size_t copied = 0;
    if (const auto entry = findWaiting(store, key); entry != store.waiting.end()) {
        copied = std::min(entry->value.size(), buffer.size());
        std::copy_n(entry->value.begin(), copied, buffer.begin());
        return static_cast<int32_t>(copied);
    }
    if (store.database.connection == nullptr) {
        return statusOf(result);
    }
    result = kvsDatabase_get(store.database, *parsed, buffer, copied);
    if (!result.ok()) {
        note(store, result);
        return statusOf(result);
    }
    return copied > 0 ? static_cast<int32_t>(copied) : ORU_STATUS_NOT_FOUND;
}

// Removals go to the database even while values wait: they may be what makes room.
template <typename Removal, typename Affected>
oru_status_t removeWhere(Removal removal, Affected affected) {
    store_t &store = theStore();
    const std::lock_guard guard(store.mutex);
    kvsResult_t result = prepareStore(store);
    if (store.database.connection == nullptr) {
        return statusOf(result);
    }
    result = removal(store.database);
    if (result.ok()) {
        std::erase_if(store.waiting, [&](const waiting_t &entry) { return affected(entry.key); });
    }
    note(store, result);
    return statusOf(result);
}

// The names are copied, so that the callback may use the store.
oru_status_t snapshotNames(std::string_view group, std::set<std::string> &names) {
    store_t &store = theStore();
    const std::lock_guard guard(store.mutex);
    kvsResult_t result = prepareStore(store);
    if (store.database.connection != nullptr) {
        result = kvsDatabase_listNames(store.database, group, names);
        if (!result.ok()) {
            note(store, result);
        }
    }
    for (const waiting_t &entry : store.waiting) {
        if (inGroup(entry.key, group)) {
            names.insert(entry.key.substr(group.size() + 1));
        }
    }
    return statusOf(result);
}

// Memory is the only thing that throws here, and C callers must not see it.
template <typename Operation>
oru_status_t guarded(Operation operation) {
    try {
        return operation();
    } catch (const std::bad_alloc &) {
        return ORU_STATUS_OUT_OF_MEMORY;
    }
}

} // namespace

extern "C" oru_status_t oruKeyValueDsHal_set(const char *key, const void *value, size_t value_size) {
    if (key == nullptr || value == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (value_size == 0 || value_size > max_value_size) {
        return ORU_STATUS_DATA_LEN_INVALID;
    }
    return guarded([&] { return setValue(key, {static_cast<const uint8_t *>(value), value_size}); });
}

extern "C" int32_t oruKeyValueDsHal_get(const char *key, void *buffer, size_t buffer_size) {
    if (key == nullptr || buffer == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (buffer_size == 0) {
        return ORU_STATUS_DATA_LEN_INVALID;
    }
    return guarded([&] { return getValue(key, {static_cast<uint8_t *>(buffer), buffer_size}); });
}

extern "C" oru_status_t oruKeyValueDsHal_remove(const char *key) {
    if (key == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const auto parsed = parseKey(key);
    if (!parsed) {
        return ORU_STATUS_BAD_PARAM;
    }
    return guarded([&] {
        return removeWhere([&](kvsDatabase_t &database) { return kvsDatabase_remove(database, *parsed); },
                           [&](const std::string &waiting) { return waiting == key; });
    });
}

extern "C" oru_status_t oruKeyValueDsHal_listKeys(const char *group, oruKeyValueDsHal_listKeysCallback_t callback) {
    if (group == nullptr || callback == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    std::set<std::string> names;
    const std::string_view bounded(group, strnlen(group, max_key_length));
    const oru_status_t status = guarded([&] { return snapshotNames(bounded, names); });
    for (const std::string &name : names) {
        if (callback(name.c_str()) != 0) {
            break;
        }
    }
    return status;
}

extern "C" oru_status_t oruKeyValueDsHal_eraseGroup(const char *group) {
    if (group == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const std::string_view bounded(group, strnlen(group, max_key_length));
    return guarded([&] {
        return removeWhere([&](kvsDatabase_t &database) { return kvsDatabase_eraseGroup(database, bounded); },
                           [&](const std::string &waiting) { return inGroup(waiting, bounded); });
    });
}

void oruKvsTesting_closeStore() {
    store_t &store = theStore();
    const std::lock_guard guard(store.mutex);
    kvsDatabase_close(store.database);
    store.reopen = false;
    if (store.lock_descriptor >= 0) {
        (void)close(store.lock_descriptor);
    }
    store.lock_descriptor = -1;
    store.waiting.clear();
    store.condition.clear();
    store.written_late = 0;
    store.overflow_logged = false;
}
