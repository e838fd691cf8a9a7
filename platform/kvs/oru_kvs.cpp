// SPDX-License-Identifier: Apache-2.0
//
// The key-value store: checks of arguments, the wait at start, and changes that could not be written yet.
//
//   operation ──► open (if closed) ──► flush erasures and values that wait, oldest first ──► the operation itself
//
// A value whose write fails waits in memory; get and listKeys see it, every later operation, a timer and the end of the
// process try again, and the caller of set has been told by the status. While anything waits, the database holds older
// values of those keys only. So does the erasure of a group: its caller has forgotten what was in it, and what is
// erased must not be back after a restart. The removal of one key is not kept: its failure changes nothing, and its
// caller keeps its record.
//
// One mutex guards everything here. It is never held while a callback runs; the log, the timers' own lock and that of
// the state that others are told (kvs_state.cpp) are the only things taken under it.
#include "oru_kvs.h"
#include "kvs_store.h"
#include "oru_config.h"
#include "oru_kvs_state.h"
#include "oru_log.h"
#include "oru_time.h"
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <optional>
#include <thread>
#include <unistd.h>
#include <vector>

namespace kvs = corvane::kvs;

std::atomic<uint32_t> start_wait_ms{10'000};
std::atomic<uint32_t> retry_period_ms{5'000};

// Never deleted: layer threads may be inside while exit() runs.
store_t &theStore() {
    static store_t *const instance = new store_t;
    return *instance;
}

namespace {

constexpr size_t max_key_length = 64;
constexpr size_t max_value_size = 65536;
constexpr size_t max_waiting = 1024;
constexpr int busy_timeout_ms = 2000;
constexpr uint32_t watch_period_ms = 10'000;                       // whether the files still have their names
constexpr auto last_flush_limit = std::chrono::milliseconds(1000); // for another thread to leave the store
constexpr auto last_flush_pause = std::chrono::milliseconds(10);

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

// Of operations that only read. Whatever the reason, the caller must not take what it missed for absent.
oru_status_t readStatusOf(const kvsResult_t &result) {
    return result.ok() ? ORU_STATUS_OK : ORU_STATUS_TRY_AGAIN;
}

// SQLite undoes a failed write by itself as long as the connection lives; a new connection might find it complete in
// the log after all. After other failures the next operation opens and checks the file afresh (the one that failed may
// still read through the old connection).
bool keepsConnection(const kvsResult_t &result) {
    switch (result.code < 0 ? result.code : result.code & 0xFF) {
    case SQLITE_OK:
    case SQLITE_FULL:
    case SQLITE_BUSY:
    case SQLITE_IOERR:
        return true;
    default: // SQLITE_READONLY too: one of the files was opened so for lack of permission, and stays so
        return false;
    }
}

bool changesWait(const store_t &store) {
    return !store.waiting.empty() || !store.erasing.empty();
}

// One line for each kind of failure while the trouble lasts, however many calls fail and however they take turns.
void noteFailure(store_t &store, trouble_t trouble, const kvsResult_t &result) {
    store.reopen = store.reopen || !keepsConnection(result);
    store.trouble = std::max(store.trouble, trouble);
    store.last_failure = result.text;
    if (store.reported.insert(result.code).second) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kvs_log_tag,
                   "store: %s; changes stay in memory and are written as soon as that is possible",
                   result.text.c_str());
    }
}

// What a copy, or a connection to a file that has lost its name, can do proves nothing.
void noteSuccess(store_t &store, trouble_t proof) {
    if (store.trouble == trouble_t::none || proof < store.trouble || !store.writable || changesWait(store)) {
        return;
    }
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, kvs_log_tag,
               "store: working again, %u values that waited in memory are written", store.written_late);
    store.trouble = trouble_t::none;
    store.unread = false;
    store.last_failure.clear();
    store.reported.clear();
    store.written_late = 0;
    store.overflow_logged = false;
}

void note(store_t &store, trouble_t kind, const kvsResult_t &result) {
    result.ok() ? noteSuccess(store, kind) : noteFailure(store, kind, result);
}

void noteRead(store_t &store, const kvsResult_t &result) {
    store.unread = store.unread || !result.ok();
    note(store, trouble_t::reading, result);
}

kvs::Condition conditionOf(const store_t &store) {
    if (!store.started) {
        return kvs::Condition::not_opened;
    }
    if (store.database.connection == nullptr || store.unread) {
        return kvs::Condition::not_read_whole;
    }
    if (store.database.copy) {
        return kvs::Condition::copy;
    }
    const bool sound = store.trouble == trouble_t::none && !changesWait(store);
    return sound ? kvs::Condition::sound : kvs::Condition::in_memory;
}

bool mayBeCopied(int code) {
    const int primary = code & 0xFF;
    return code > 0 && (primary == SQLITE_FULL || primary == SQLITE_IOERR || primary == SQLITE_CANTOPEN ||
                        primary == SQLITE_READONLY || primary == SQLITE_PERM);
}

// A medium that lets nothing be written is read from a copy; the result then still is the failure.
kvsResult_t openStore(store_t &store, int timeout_ms) {
    const oruConfig_t &config = oruConfig_get();
    kvsDatabase_t opened;
    kvsResult_t result = kvsLock_take(store.lock, config.state_directory);
    if (result.ok()) {
        result = kvsDatabase_open(opened, config.state_directory, timeout_ms);
    }
    if (result.ok()) {
        kvsDatabase_close(store.database); // a copy, if anything
        store.database = std::move(opened);
        store.reopen = false;
    } else if (store.database.connection == nullptr && mayBeCopied(result.code)) {
        (void)kvsCopy_open(store.database, config.state_directory, config.runtime_directory + "/corvane-store");
    }
    store.copy_reason = result;
    return result;
}

// The lock goes with the place of the files.
kvsResult_t keepPlace(store_t &store) {
    kvsResult_t result = kvsLock_take(store.lock, oruConfig_get().state_directory);
    return result.ok() ? kvsPlace_keep(store.database) : result;
}

// retry: a copy is given up for the original if that can be opened now.
kvsResult_t ensureOpen(store_t &store, int timeout_ms, bool retry) {
    if (store.database.copy) {
        return retry ? openStore(store, timeout_ms) : store.copy_reason;
    }
    if (store.database.connection != nullptr) {
        kvsResult_t result = keepPlace(store);
        if (!result.ok()) {
            return result;
        }
    }
    if (store.reopen) {
        kvsDatabase_close(store.database);
        store.reopen = false;
    }
    if (store.database.connection == nullptr) {
        return openStore(store, timeout_ms);
    }
    (void)sqlite3_busy_timeout(store.database.connection.get(), timeout_ms);
    return {};
}

kvsResult_t flush(store_t &store) {
    while (!store.erasing.empty()) {
        kvsResult_t result = kvsDatabase_eraseGroup(store.database, *store.erasing.begin());
        if (!result.ok()) {
            return result;
        }
        store.erasing.erase(store.erasing.begin());
    }
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
kvsResult_t prepareStore(store_t &store, bool retry) {
    const int timeout_ms = store.trouble == trouble_t::none ? busy_timeout_ms : 0;
    const sqlite3 *const former = store.database.connection.get();
    kvsResult_t result = ensureOpen(store, timeout_ms, retry);
    store.writable = result.ok();
    // Opening reads and checks all of it.
    note(store, store.database.connection.get() == former ? trouble_t::opening : trouble_t::reading, result);
    if (result.ok() && changesWait(store)) {
        result = flush(store);
        note(store, trouble_t::writing, result);
    }
    return result;
}

// While it exists, the signals that end the process are let in during its pauses only, so that none is missed.
class interruptibleWait_t {
public:
    interruptibleWait_t() {
        (void)sigemptyset(&signals_);
        (void)sigaddset(&signals_, SIGTERM);
        (void)sigaddset(&signals_, SIGINT);
        (void)pthread_sigmask(SIG_BLOCK, &signals_, &former_);
    }
    interruptibleWait_t(const interruptibleWait_t &) = delete;
    interruptibleWait_t &operator=(const interruptibleWait_t &) = delete;
    ~interruptibleWait_t() { (void)pthread_sigmask(SIG_SETMASK, &former_, nullptr); }

    // True when the process is to end; the signal is handled as soon as this object is gone.
    bool pause(std::chrono::milliseconds duration) const {
        const timespec limit = {0, static_cast<long>(std::chrono::nanoseconds(duration).count())};
        const int signal = sigtimedwait(&signals_, nullptr, &limit);
        return signal > 0 && raise(signal) == 0;
    }

private:
    sigset_t signals_{};
    sigset_t former_{};
};

// Whoever starts with a store that cannot be read knows none of its devices, so a little patience is worth it.
void waitForStore(store_t &store) {
    constexpr auto pause = std::chrono::milliseconds(100);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(start_wait_ms);
    const interruptibleWait_t wait;
    kvsResult_t result = prepareStore(store, true);
    while (store.database.connection == nullptr && result.code != KVS_NEWER_SCHEMA &&
           std::chrono::steady_clock::now() < end && !wait.pause(pause)) {
        result = prepareStore(store, true);
    }
}

void retryStore(store_t &store) {
    // With room for the -shm other programs may read the database again.
    store.reopen = store.reopen || (store.database.alone && store.trouble == trouble_t::none);
    (void)prepareStore(store, true);
}

void runTimer(void *);

// Timer and final flush belong to the process that uses the store, which may have forked before.
void schedule(store_t &store) {
    const bool urgent = changesWait(store) || store.database.connection == nullptr || store.database.copy;
    const uint32_t period_ms = retry_period_ms == 0 ? 0 : urgent ? retry_period_ms.load() : watch_period_ms;
    if (period_ms == store.period_ms) {
        return;
    }
    if (store.timer.id == 0 &&
        oruTime_timerNew(&store.timer, ORUTIME_CLOCK_MONOTONIC, ORUTIME_TIMER_PERIODIC, runTimer, nullptr) != 0) {
        return; // the operations still try
    }
    const oru_status_t status =
        period_ms == 0 ? oruTime_timerStop(&store.timer) : oruTime_timerStart(&store.timer, period_ms);
    store.period_ms = status == ORU_STATUS_OK ? period_ms : 0;
}

void logLost(const std::string &names) {
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kvs_log_tag, "store: could not be written to the end, lost:%s",
               names.c_str());
}

void reportLost(const store_t &store) {
    constexpr size_t line_length = 800; // the log cuts at 1 KiB
    std::string names;
    for (const std::string &group : store.erasing) {
        names += " erasure of all " + group + ".*";
    }
    for (const waiting_t &entry : store.waiting) {
        if (names.size() > line_length) {
            logLost(names);
            names.clear();
        }
        names += " " + entry.key;
    }
    logLost(names);
}

} // namespace

void endOfProcess() {
    store_t &store = theStore();
    std::unique_lock guard(store.mutex, std::try_to_lock);
    for (auto waited = std::chrono::milliseconds(0); !guard; waited += last_flush_pause) {
        if (waited >= last_flush_limit) { // a medium that hangs must not hold up the end
            return;
        }
        std::this_thread::sleep_for(last_flush_pause);
        (void)guard.try_lock();
    }
    try {
        if (store.started) { // also writes back files that were deleted
            (void)prepareStore(store, true);
        }
        if (changesWait(store)) {
            reportLost(store);
        }
        if (store.database.copy) {
            kvsDatabase_close(store.database);
        }
    } catch (const std::bad_alloc &) {
        logLost(" unknown, out of memory");
    }
}

bool publish(const store_t &store) {
    kvs::State state;
    state.condition = conditionOf(store);
    state.waiting = static_cast<uint32_t>(store.waiting.size() + store.erasing.size());
    state.files_set_aside = kvs_set_aside.files;
    state.records_set_aside = kvs_set_aside.records;
    state.setReason(store.last_failure);
    return kvs::publishState(state);
}

namespace {

// One operation: the lock and, at its end, the timer that what it leaves behind asks for, and the word to others.
class operation_t {
public:
    operation_t() {
        static const int registered = std::atexit(endOfProcess);
        (void)registered; // without it there is no last try
        if (!store.started) {
            store.started = true;
            waitForStore(store);
        }
    }
    operation_t(const operation_t &) = delete;
    operation_t &operator=(const operation_t &) = delete;
    ~operation_t() {
        schedule(store);
        const bool changed = publish(store);
        guard_.unlock();
        if (changed) {
            kvs::tellListener();
        }
    }

    store_t &store = theStore();

private:
    std::unique_lock<std::mutex> guard_{store.mutex};
};

void runTimer(void *) {
    try {
        const operation_t operation;
        retryStore(operation.store);
    } catch (const std::bad_alloc &) { // the next one may have more luck
    }
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
    const operation_t operation;
    store_t &store = operation.store;
    kvsResult_t result = prepareStore(store, true);
    if (result.ok()) {
        result = kvsDatabase_put(store.database, *parsed, value);
        note(store, trouble_t::writing, result);
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
    const operation_t operation;
    store_t &store = operation.store;
    (void)prepareStore(store, changesWait(store));
    size_t copied = 0;
    if (const auto entry = findWaiting(store, key); entry != store.waiting.end()) {
        copied = std::min(entry->value.size(), buffer.size());
        std::copy_n(entry->value.begin(), copied, buffer.begin());
        return static_cast<int32_t>(copied);
    }
    if (store.erasing.contains(std::string(parsed->group))) {
        return ORU_STATUS_NOT_FOUND;
    }
    if (store.database.connection == nullptr) {
        return ORU_STATUS_TRY_AGAIN;
    }
    const kvsResult_t result = kvsDatabase_get(store.database, *parsed, buffer, copied);
    noteRead(store, result);
    return !result.ok() ? readStatusOf(result) : copied > 0 ? static_cast<int32_t>(copied) : ORU_STATUS_NOT_FOUND;
}

// A change that is not a value. It goes to the database even while values wait: it may be what makes room.
template <typename Change>
kvsResult_t changeDatabase(store_t &store, Change change) {
    kvsResult_t result = prepareStore(store, true);
    if (!store.writable) {
        return result;
    }
    result = change();
    note(store, trouble_t::writing, result);
    return result;
}

oru_status_t removeKey(const char *key) {
    const auto parsed = parseKey(key);
    if (!parsed) {
        return ORU_STATUS_BAD_PARAM;
    }
    const operation_t operation;
    store_t &store = operation.store;
    kvsResult_t result = changeDatabase(store, [&] { return kvsDatabase_remove(store.database, *parsed); });
    if (result.ok() || store.erasing.contains(std::string(parsed->group))) {
        std::erase_if(store.waiting, [key](const waiting_t &entry) { return entry.key == key; });
        noteSuccess(store, result.ok() ? trouble_t::writing : trouble_t::none);
        return ORU_STATUS_OK;
    }
    return statusOf(result);
}

oru_status_t eraseGroup(std::string_view group) {
    const operation_t operation;
    store_t &store = operation.store;
    const kvsResult_t result = changeDatabase(store, [&] { return kvsDatabase_eraseGroup(store.database, group); });
    std::erase_if(store.waiting, [group](const waiting_t &entry) { return inGroup(entry.key, group); });
    if (result.ok()) {
        store.erasing.erase(std::string(group));
        noteSuccess(store, trouble_t::writing);
    } else {
        store.erasing.emplace(group);
    }
    return statusOf(result);
}

// The names are copied, so that the callback may use the store.
oru_status_t snapshotNames(std::string_view group, std::set<std::string> &names) {
    const operation_t operation;
    store_t &store = operation.store;
    kvsResult_t result = prepareStore(store, changesWait(store));
    for (const waiting_t &entry : store.waiting) {
        if (inGroup(entry.key, group)) {
            names.insert(entry.key.substr(group.size() + 1));
        }
    }
    if (store.erasing.contains(std::string(group))) {
        return ORU_STATUS_OK;
    }
    if (store.database.connection != nullptr) {
        result = kvsDatabase_listNames(store.database, group, names);
        noteRead(store, result);
    }
    return readStatusOf(result);
}

// Memory is the only thing that throws here, and C callers must not see it.
template <typename Operation>
oru_status_t guarded(oru_status_t without_memory, Operation operation) {
    try {
        return operation();
    } catch (const std::bad_alloc &) {
        return without_memory;
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
    return guarded(ORU_STATUS_OUT_OF_MEMORY, [&] {
        return setValue(key, {static_cast<const uint8_t *>(value), value_size});
    });
}

extern "C" int32_t oruKeyValueDsHal_get(const char *key, void *buffer, size_t buffer_size) {
    if (key == nullptr || buffer == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (buffer_size == 0) {
        return ORU_STATUS_DATA_LEN_INVALID;
    }
    return guarded(ORU_STATUS_TRY_AGAIN, [&] { return getValue(key, {static_cast<uint8_t *>(buffer), buffer_size}); });
}

extern "C" oru_status_t oruKeyValueDsHal_remove(const char *key) {
    if (key == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    return guarded(ORU_STATUS_OUT_OF_MEMORY, [&] { return removeKey(key); });
}

extern "C" oru_status_t oruKeyValueDsHal_listKeys(const char *group, oruKeyValueDsHal_listKeysCallback_t callback) {
    if (group == nullptr || callback == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    std::set<std::string> names;
    const std::string_view bounded(group, strnlen(group, max_key_length));
    const oru_status_t status = guarded(ORU_STATUS_TRY_AGAIN, [&] { return snapshotNames(bounded, names); });
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
    return guarded(ORU_STATUS_OUT_OF_MEMORY, [&] { return eraseGroup(bounded); });
}
