// SPDX-License-Identifier: Apache-2.0
#include "test_platform.h"
#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <optional>

namespace testplat {

// ------------------------------------------------------------------------------------------------------------- faults
namespace faults {
namespace {
std::mutex mutex;
uint64_t countdown = 0;
bool persists = false, has_fired = false;
std::string where;
} // namespace

void off() {
    const std::lock_guard lock(mutex);
    countdown = 0;
    persists = false;
}
void arm(uint64_t nth, bool persistent) {
    const std::lock_guard lock(mutex);
    countdown = nth;
    persists = persistent;
    has_fired = false;
    where.clear();
}
bool fired() {
    const std::lock_guard lock(mutex);
    return has_fired;
}
std::string firedAt() {
    const std::lock_guard lock(mutex);
    return where;
}
bool hit(const char *operation) {
    const std::lock_guard lock(mutex);
    if (countdown == 0 || --countdown > 0) {
        return false;
    }
    if (persists) {
        countdown = 1;
    }
    if (!has_fired) {
        where = operation;
    }
    has_fired = true;
    return true;
}
} // namespace faults

// --------------------------------------------------------------------------------------------------------------- time
namespace time {
namespace {
struct Timer {
    uint32_t id;
    oruTime_timerType_t type;
    oruTime_timerCallback_t callback;
    void *context;
    std::optional<uint64_t> due_us;
    uint64_t period_us, order;
};
std::mutex mutex;
uint64_t now_us = 1'000'000'000;
uint32_t next_id = 1;
uint64_t next_order = 1;
std::vector<Timer> timers;
Timer *find(const oruTimer_t *timer) {
    for (Timer &t : timers) {
        if (timer != nullptr && t.id == timer->id) {
            return &t;
        }
    }
    return nullptr;
}
oru_status_t withTimer(const char *operation, const oruTimer_t *timer, const std::function<void(Timer &)> &work) {
    const bool fails = faults::hit(operation);
    const std::lock_guard lock(mutex);
    Timer *found = find(timer);
    if (!fails && found != nullptr) {
        work(*found);
    }
    return fails ? ORU_STATUS_GENERAL_ERROR : found == nullptr ? ORU_STATUS_UNINITIALIZED : ORU_STATUS_OK;
}
Timer *soonest() {
    Timer *best = nullptr;
    for (Timer &t : timers) {
        if (t.due_us && (best == nullptr || std::pair(*t.due_us, t.order) < std::pair(*best->due_us, best->order))) {
            best = &t;
        }
    }
    return best;
}
} // namespace

uint64_t nowMs() {
    const std::lock_guard lock(mutex);
    return now_us / 1000;
}
void advance(uint64_t ms) {
    std::unique_lock lock(mutex);
    const uint64_t end = now_us + ms * 1000;
    for (Timer *t = soonest(); t != nullptr && *t->due_us <= end; t = soonest()) {
        now_us = std::max(now_us, *t->due_us);
        if (t->type == ORUTIME_TIMER_PERIODIC) {
            t->due_us = *t->due_us + t->period_us;
        } else {
            t->due_us.reset();
        }
        const auto callback = t->callback;
        void *context = t->context;
        lock.unlock();
        callback(context);
        lock.lock();
    }
    now_us = end;
}
uint64_t untilNext() {
    const std::lock_guard lock(mutex);
    const Timer *t = soonest();
    return t == nullptr ? UINT64_MAX : (*t->due_us - now_us + 999) / 1000;
}
size_t live() {
    const std::lock_guard lock(mutex);
    return timers.size();
}
} // namespace time

// ---------------------------------------------------------------------------------------------------------------- log
namespace log {
namespace {
std::mutex mutex;
std::vector<std::string> captured;
} // namespace
bool echo = getenv("TEST_LOG") != nullptr;
std::function<void(const std::string &)> on_line;

std::vector<std::string> lines() {
    const std::lock_guard lock(mutex);
    return captured;
}
void clear() {
    const std::lock_guard lock(mutex);
    captured.clear();
}
size_t count(const std::string &part) {
    const std::lock_guard lock(mutex);
    return static_cast<size_t>(
        std::ranges::count_if(captured, [&](const std::string &line) { return line.find(part) != line.npos; }));
}
bool has(const std::string &part) {
    return count(part) > 0;
}
} // namespace log

// ---------------------------------------------------------------------------------------------------------------- IPC
int32_t Callback::status() const {
    int32_t value = INT32_MIN;
    if (payload.size() == sizeof value) {
        memcpy(&value, payload.data(), sizeof value);
    }
    return value;
}

namespace ipc {
namespace {
std::mutex mutex;
std::vector<Event> published;
std::vector<Callback> called_back;
std::set<uint16_t> gone;
oruOipc_serverConfig_t server{};

std::vector<uint8_t> copyOf(const void *data, size_t size) {
    const auto *bytes = static_cast<const uint8_t *>(data);
    return data == nullptr ? std::vector<uint8_t>{} : std::vector<uint8_t>(bytes, bytes + size);
}

Result call(oruOipc_dataType_t type, uint16_t function, std::vector<uint8_t> payload, uint16_t client,
            uint16_t callback) {
    alignas(8) uint8_t buffer[4096] = {};
    std::copy_n(payload.begin(), std::min(payload.size(), sizeof buffer), buffer);
    auto length = static_cast<uint32_t>(payload.size());
    uint32_t status = 0;
    oruOipc_parameter_t task{client, type, function, 0, &length, &status, buffer, callback};
    const oru_status_t returned = server.service_handler(&task);
    return {returned, status, copyOf(buffer, length)};
}
} // namespace

std::vector<Event> events() {
    const std::lock_guard lock(mutex);
    return published;
}
std::vector<uint16_t> eventIds() {
    std::vector<uint16_t> ids;
    for (const Event &e : events()) {
        ids.push_back(e.id);
    }
    return ids;
}
std::vector<Callback> callbacks() {
    const std::lock_guard lock(mutex);
    return called_back;
}
void clear() {
    const std::lock_guard lock(mutex);
    published.clear();
    called_back.clear();
}
Result sync(uint16_t function, std::vector<uint8_t> payload, uint16_t client) {
    return call(ORU_OIPC_FUNCTION_SYNC, function, std::move(payload), client, 0xFFFF);
}
Result async(uint16_t function, std::vector<uint8_t> payload, uint16_t client, uint16_t callback) {
    return call(ORU_OIPC_FUNCTION_ASYNC, function, std::move(payload), client, callback);
}
void disconnect(uint16_t client) {
    {
        const std::lock_guard lock(mutex);
        gone.insert(client);
    }
    uint32_t length = 0, status = 0;
    uint8_t buffer[8] = {};
    oruOipc_parameter_t task{
        client, ORU_OIPC_EVENT_UNICAST, 0, ORU_OIPC_EVENT_CLIENT_DISCONNECTED, &length, &status, buffer, 0};
    (void)server.service_handler(&task);
}
} // namespace ipc

// -------------------------------------------------------------------------------------------------------------- store
namespace kvs {
namespace {
std::mutex mutex; // guards content() too, but for tests that look into it
bool failing = false;
std::atomic<int> unreadable_from{-1}, gets{0};
std::set<std::string> outdated_keys;

bool refuses(const char *operation) {
    const std::lock_guard lock(mutex);
    return faults::hit(operation) || failing;
}
// A change of the keys that start with prefix.
oru_status_t change(const char *operation, const std::string &prefix, const std::function<void()> &work) {
    const bool refused = refuses(operation);
    const std::lock_guard lock(mutex);
    if (!refused) {
        work();
        std::erase_if(outdated_keys, [&](const std::string &key) { return key.rfind(prefix, 0) == 0; });
        return 0;
    }
    if (prefix.back() != '.') {
        outdated_keys.insert(prefix);
    }
    for (const auto &[key, value] : content()) {
        if (key.rfind(prefix, 0) == 0) {
            outdated_keys.insert(key);
        }
    }
    return ORU_STATUS_GENERAL_ERROR;
}
} // namespace
std::map<std::string, std::vector<uint8_t>> &content() {
    static auto *map = new std::map<std::string, std::vector<uint8_t>>;
    return *map;
}
void fail(bool on) {
    const std::lock_guard lock(mutex);
    failing = on;
}
void failReading(int from) {
    unreadable_from = from;
    gets = 0;
}
std::set<std::string> outdated() {
    const std::lock_guard lock(mutex);
    return outdated_keys;
}
} // namespace kvs

std::atomic<bool> quiet{false};
std::atomic<uint64_t> quiet_events{0};

void resetAll() {
    quiet = false;
    faults::off();
    ipc::clear();
    log::clear();
    kvs::content().clear();
    kvs::outdated_keys.clear();
    kvs::failing = false;
    kvs::failReading(-1);
    ipc::gone.clear();
    log::on_line = nullptr;
    const std::lock_guard lock(time::mutex);
    time::timers.clear();
}

} // namespace testplat

using namespace testplat;

#define FAIL_WHEN_DUE(operation, status)                                                                               \
    do {                                                                                                               \
        if (faults::hit(operation)) {                                                                                  \
            return status;                                                                                             \
        }                                                                                                              \
    } while (false)

extern "C" {

// ------------------------------------------------------------------------------------------------------------ oru_log
void oruLog_log(oruLog_id_t, oruLog_level_t level, const char *tag, const char *format, ...) {
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    if (quiet) {
        return;
    }
    std::unique_lock lock(testplat::log::mutex);
    if (testplat::log::echo) {
        fprintf(stderr, "%d [%s] %s\n", level, tag, line);
    }
    testplat::log::captured.emplace_back(line);
    lock.unlock();
    if (testplat::log::on_line) {
        testplat::log::on_line(line);
    }
}

// ----------------------------------------------------------------------------------------------------------- oru_time
oru_status_t oruTime_clockTime(oruTime_clock_t, oruTime_timespec_t *now) {
    if (now == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    FAIL_WHEN_DUE("oruTime_clockTime", ORU_STATUS_GENERAL_ERROR);
    const std::lock_guard lock(testplat::time::mutex);
    now->seconds = static_cast<int64_t>(testplat::time::now_us / 1'000'000);
    now->nanoseconds = static_cast<int32_t>(testplat::time::now_us % 1'000'000 * 1000);
    return 0;
}
oru_status_t oruTime_time(oruTime_timespec_t *now) {
    return oruTime_clockTime(ORUTIME_CLOCK_MONOTONIC, now);
}
int64_t oruTime_timespecDiff(const oruTime_timespec_t *later, const oruTime_timespec_t *earlier) {
    return ((later->seconds - earlier->seconds) * 1'000'000'000 + later->nanoseconds - earlier->nanoseconds) / 1000;
}
oru_status_t oruTime_timerNew(oruTimer_t *timer, oruTime_clock_t, oruTime_timerType_t type,
                              oruTime_timerCallback_t callback, void *context) {
    FAIL_WHEN_DUE("oruTime_timerNew", ORU_STATUS_OUT_OF_MEMORY);
    const std::lock_guard lock(testplat::time::mutex);
    if (testplat::time::find(timer) != nullptr) {
        return ORU_STATUS_ALREADY_INITIALIZED;
    }
    timer->id = testplat::time::next_id++;
    testplat::time::timers.push_back({timer->id, type, callback, context, {}, 0, 0});
    return 0;
}
oru_status_t oruTime_timerStart(oruTimer_t *timer, uint32_t milliseconds) {
    return testplat::time::withTimer("oruTime_timerStart", timer, [=](auto &t) {
        t.period_us = uint64_t{milliseconds} * 1000;
        t.due_us = testplat::time::now_us + t.period_us;
        t.order = testplat::time::next_order++;
    });
}
oru_status_t oruTime_timerStop(oruTimer_t *timer) {
    return testplat::time::withTimer("oruTime_timerStop", timer, [](auto &t) { t.due_us.reset(); });
}
oru_status_t oruTime_timerDelete(oruTimer_t *timer) {
    const oru_status_t status = testplat::time::withTimer("oruTime_timerDelete", timer, [](auto &t) {
        std::erase_if(testplat::time::timers, [id = t.id](const auto &other) { return other.id == id; });
    });
    if (status == ORU_STATUS_OK) {
        timer->id = 0;
    }
    return status;
}

// ----------------------------------------------------------------------------------------------------------- oru_oipc
oru_status_t oruOipc_start(oruOipc_Handler_t *handle, const oruOipc_serverConfig_t *config) {
    FAIL_WHEN_DUE("oruOipc_start", ORU_STATUS_GENERAL_ERROR);
    ipc::server = *config;
    *handle = 1;
    return 0;
}
oru_status_t oruOipc_stop(oruOipc_Handler_t *handle) {
    *handle = 0;
    return faults::hit("oruOipc_stop") ? ORU_STATUS_GENERAL_ERROR : 0;
}
oru_status_t oruOipc_callback(oruOipc_Handler_t, oruOipc_nodeId_t client, const oruOipc_callbackParams_t *callback) {
    FAIL_WHEN_DUE("oruOipc_callback", ORU_STATUS_NOT_FOUND);
    if (quiet) {
        ++quiet_events;
        return 0;
    }
    const std::lock_guard lock(ipc::mutex);
    if (ipc::gone.contains(client)) {
        return ORU_STATUS_NOT_FOUND;
    }
    ipc::called_back.push_back(
        {client, callback->callback_id, ipc::copyOf(callback->parameters, callback->parameter_length)});
    return 0;
}
oru_status_t oruOipc_publishEvent(oruOipc_Handler_t, const oruOipc_eventParams_t *event) {
    FAIL_WHEN_DUE("oruOipc_publishEvent", ORU_STATUS_BUSY);
    if (quiet) {
        ++quiet_events;
        return 0;
    }
    const std::lock_guard lock(ipc::mutex);
    ipc::published.push_back({event->event_id, ipc::copyOf(event->payload, event->length)});
    return 0;
}

// ------------------------------------------------------------------------------------------------------------ oru_kvs
oru_status_t oruKeyValueDsHal_set(const char *key, const void *value, size_t value_size) {
    return testplat::kvs::change("oruKeyValueDsHal_set", key,
                                 [&] { testplat::kvs::content()[key] = ipc::copyOf(value, value_size); });
}
int32_t oruKeyValueDsHal_get(const char *key, void *buffer, size_t buffer_size) {
    if (testplat::kvs::refuses("oruKeyValueDsHal_get")) {
        return ORU_STATUS_GENERAL_ERROR;
    }
    if (testplat::kvs::unreadable_from >= 0 && ++testplat::kvs::gets >= testplat::kvs::unreadable_from) {
        return ORU_STATUS_TRY_AGAIN;
    }
    const std::lock_guard lock(testplat::kvs::mutex);
    const auto found = testplat::kvs::content().find(key);
    if (found == testplat::kvs::content().end()) {
        return ORU_STATUS_NOT_FOUND;
    }
    const size_t size = std::min(buffer_size, found->second.size());
    std::copy_n(found->second.begin(), size, static_cast<uint8_t *>(buffer));
    return static_cast<int32_t>(size);
}
oru_status_t oruKeyValueDsHal_remove(const char *key) {
    return testplat::kvs::change("oruKeyValueDsHal_remove", key, [&] { testplat::kvs::content().erase(key); });
}
oru_status_t oruKeyValueDsHal_listKeys(const char *group, oruKeyValueDsHal_listKeysCallback_t callback) {
    if (testplat::kvs::refuses("oruKeyValueDsHal_listKeys")) {
        return ORU_STATUS_GENERAL_ERROR;
    }
    if (testplat::kvs::unreadable_from == 0) {
        return ORU_STATUS_TRY_AGAIN;
    }
    const std::string prefix = std::string(group) + ".";
    std::vector<std::string> names;
    {
        const std::lock_guard lock(testplat::kvs::mutex);
        for (const auto &[key, value] : testplat::kvs::content()) {
            if (key.rfind(prefix, 0) == 0) {
                names.push_back(key.substr(prefix.size()));
            }
        }
    }
    for (const std::string &name : names) {
        if (callback(name.c_str()) != 0) {
            break;
        }
    }
    return 0;
}
oru_status_t oruKeyValueDsHal_eraseGroup(const char *group) {
    const std::string prefix = std::string(group) + ".";
    return testplat::kvs::change("oruKeyValueDsHal_eraseGroup", prefix, [&] {
        std::erase_if(testplat::kvs::content(), [&](const auto &entry) { return entry.first.rfind(prefix, 0) == 0; });
    });
}

// ----------------------------------------------------------------------------------------------------------- oru_init
oru_status_t oru_init(void) {
    return 0;
}

} // extern "C"
