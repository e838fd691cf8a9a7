// SPDX-License-Identifier: Apache-2.0
//
// Image of the device list in the key-value store: group "zigbee", one key per device, the value is the record byte
// for byte. What comes back from the store is not trusted: its counts are cut to what the record can hold.
//
// A store that answers ORU_STATUS_TRY_AGAIN could not read: its devices are there, and are not to be treated as
// strangers. Then the list is incomplete, and loaded again when somebody asks, until a load was whole.
#include "zb_database_kvs.h"
#include "oru_kvs.h"
#include "oru_time.h"
#include "zb_database_list.h"
#include "zb_format.h"
#include <algorithm>
#include <cstdio>
#include <mutex>
#include <type_traits>

static constexpr char KVS_GROUP[] = "zigbee";
static constexpr size_t EUI64_TEXT_SIZE = sizeof("00:00:00:00:00:00:00:00");

static constexpr int64_t RELOAD_INTERVAL_US = 1'000'000;

std::atomic<bool> database_incomplete{false};
std::atomic<bool> database_loaded_late{false};

// Guards the four below and the loading itself, for which every other thread that needs it waits. Taken with no other
// lock held; device_list_mutex is taken inside it.
static constinit std::mutex load_mutex;
static_assert(std::is_trivially_destructible_v<std::mutex>, "exit() may run while other threads hold it");
static bool read_failed;  // the store could not read what the listing named
static bool load_stopped; // the callback ended the listing
static bool last_load_known;
static oruTime_timespec_t last_load;   // the last one that was not whole, if known
static std::atomic<bool> doubt_logged; // since the list became incomplete

static_assert(sizeof(oruZb_device_t) == 744, "size of a stored record");
static_assert(sizeof(KVS_GROUP) + EUI64_TEXT_SIZE <= ORU_ZB_KVS_KEY_SIZE);

static bool isKeySize(size_t size) {
    return size > 0 && size <= ORU_ZB_KVS_KEY_SIZE;
}

oru_status_t oruZb_kvsConvertNameToKey(char *kvs_key, size_t kvs_key_size, const char *group, const char *name) {
    if (kvs_key == nullptr || group == nullptr || name == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (!isKeySize(kvs_key_size)) {
        return ORU_STATUS_BAD_PARAM;
    }
    const int length = snprintf(kvs_key, kvs_key_size, "%s.%s", group, name);
    if (length < 0 || static_cast<size_t>(length) >= kvs_key_size) {
        return ORU_STATUS_GENERAL_ERROR;
    }
    return ORU_STATUS_OK;
}

oru_status_t oruZb_kvsConvertEUI64ToKey(char *kvs_key, size_t kvs_key_size, const uint8_t *eui64) {
    if (kvs_key == nullptr || eui64 == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (!isKeySize(kvs_key_size)) {
        return ORU_STATUS_BAD_PARAM;
    }
    const auto text = eui64Text(eui64);
    if (text.view().size() + 1 != EUI64_TEXT_SIZE) {
        ZB_LOG_ERROR("%s: %s: Failed to convert EUI64 to string format, status:%d", ZB_DATABASE, __func__,
                     static_cast<int>(text.view().size()));
        return ORU_STATUS_GENERAL_ERROR;
    }
    return oruZb_kvsConvertNameToKey(kvs_key, kvs_key_size, KVS_GROUP, text.c_str());
}

oru_status_t oruZb_kvsAddOrUpdateDeviceInfo(oruZb_device_t *device) {
    if (device == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    char key[ORU_ZB_KVS_KEY_SIZE];
    if (oruZb_kvsConvertEUI64ToKey(key, sizeof(key), device->device_info.eui64) != ORU_STATUS_OK) {
        return ORU_STATUS_GENERAL_ERROR;
    }
    return oruKeyValueDsHal_set(key, device, sizeof(*device));
}

oru_status_t oruZb_kvsDeleteDeviceInfo(oruZb_device_t *device) {
    if (device == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    char key[ORU_ZB_KVS_KEY_SIZE];
    if (oruZb_kvsConvertEUI64ToKey(key, sizeof(key), device->device_info.eui64) != ORU_STATUS_OK) {
        return ORU_STATUS_GENERAL_ERROR;
    }
    return oruKeyValueDsHal_remove(key);
}

oru_status_t oruZb_databaseRemoveAll() {
    const std::lock_guard lock(load_mutex); // a load that is running ends before, and adds nothing after
    const oru_status_t status = oruKeyValueDsHal_eraseGroup(KVS_GROUP);
    database_incomplete = doubt_logged = false;
    if (status == ORU_STATUS_OK) {
        ZB_LOG_INFO("%s: %s: Removed all devices from KVS DB", ZB_DATABASE, __func__);
    } else {
        ZB_LOG_ERROR("%s: %s: Unable to remove all devices from KVS DB, status: %d", ZB_DATABASE, __func__, status);
    }
    return status;
}

// load_mutex is held. Only a store that could not read makes the list incomplete, and only a whole load mends that.
static oru_status_t load() {
    read_failed = load_stopped = false;
    const oru_status_t status = oruKeyValueDsHal_listKeys(KVS_GROUP, oruZb_kvsListKeysCallback);
    if (status == ORU_STATUS_TRY_AGAIN || read_failed) {
        database_incomplete = true;
        last_load_known = oruTime_time(&last_load) == ORU_STATUS_OK;
    } else if (status == ORU_STATUS_OK && !load_stopped) {
        database_incomplete = false;
        doubt_logged = false;
    }
    return status;
}

static bool isTimeToLoad() {
    oruTime_timespec_t now{};
    return !last_load_known || oruTime_time(&now) != ORU_STATUS_OK ||
           oruTime_timespecDiff(&now, &last_load) >= RELOAD_INTERVAL_US;
}

oru_status_t oruZb_kvsLoadAllDeviceInfo() {
    const std::lock_guard lock(load_mutex);
    return load();
}

void oruZb_databaseLoadMissing() {
    if (!database_incomplete) {
        return;
    }
    const std::lock_guard lock(load_mutex);
    if (!database_incomplete || !isTimeToLoad()) {
        return;
    }
    database_loaded_late = true;
    (void)load();
    if (!database_incomplete) {
        ZB_LOG_INFO("%s: %s: Loaded %u device[s] from the devices DB", ZB_DATABASE, __func__, device_count.load());
    }
}

oru_status_t oruZb_databaseFindOrLoad(const uint8_t *eui64, oruZb_device_t *p) {
    bool incomplete = database_incomplete; // before looking: another thread may be loading what is not seen yet
    oru_status_t status = oruZb_databaseGetDeviceByEui64(eui64, p);
    if (status == ORU_STATUS_NOT_FOUND && incomplete) {
        oruZb_databaseLoadMissing();
        incomplete = database_incomplete;
        status = oruZb_databaseGetDeviceByEui64(eui64, p);
    }
    if (status != ORU_STATUS_NOT_FOUND || !incomplete) {
        return status;
    }
    if (!doubt_logged.exchange(true)) {
        ZB_LOG_ERROR("%s: %s: The devices DB could not be read: unknown devices are not told to leave until it can",
                     ZB_DATABASE, __func__);
    }
    return ORU_STATUS_TRY_AGAIN;
}

// Readers use the counts as loop bounds. Slots beyond the endpoint count are fill and stay as they are.
static void clampCounts(oruZb_deviceInfo_t &info) {
    info.endpoint_count = std::min<uint8_t>(info.endpoint_count, ORU_ZB_HAL_MAX_ENDPOINTS);
    for (uint8_t i = 0; i < info.endpoint_count; ++i) {
        uint8_t &cluster_count = info.endpoints[i].cluster_count;
        cluster_count = std::min<uint8_t>(cluster_count, ORU_ZB_HAL_MAX_CLUSTERS);
    }
}

static bool isListed(const oruZb_device_t &record) {
    oruZb_device_t listed{};
    return oruZb_databaseGetDeviceByEui64(record.device_info.eui64, &listed) == ORU_STATUS_OK;
}

// The record behind a key; false when it could not be got.
static bool readRecord(const char *key, oruZb_device_t &record) {
    const int32_t count = oruKeyValueDsHal_get(key, &record, sizeof(record));
    if (count < 1) {
        read_failed = read_failed || count == ORU_STATUS_TRY_AGAIN;
        ZB_LOG_ERROR("%s: Error: Unable to get from devices DB", ZB_DATABASE);
    }
    return count >= 1;
}

static int stopLoading() {
    load_stopped = true;
    return ORU_ZB_KVS_LIST_KEYS_STOP;
}

int oruZb_kvsListKeysCallback(const char *key_name) {
    oruZb_device_t device{}; // a value shorter than the record leaves the tail zero
    char key[ORU_ZB_KVS_KEY_SIZE]{};
    if (oruZb_kvsConvertNameToKey(key, sizeof(key), KVS_GROUP, key_name) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: failed to convert key_name to key", ZB_DATABASE);
        return stopLoading();
    }
    if (!readRecord(key, device)) {
        return stopLoading();
    }
    clampCounts(device.device_info);
    if (database_incomplete && isListed(device)) { // what is known of it by now is newer than its record
        return ORU_ZB_KVS_LIST_KEYS_CONTINUE;
    }
    if (oruZb_databaseAddDeviceHelper(&device) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: Cannot add device info", ZB_DATABASE);
        return stopLoading();
    }
    return ORU_ZB_KVS_LIST_KEYS_CONTINUE;
}
