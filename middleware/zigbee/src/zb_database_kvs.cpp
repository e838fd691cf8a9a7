// SPDX-License-Identifier: Apache-2.0
//
// Image of the device list in the key-value store: group "zigbee", one key per device, the value is the record byte
// for byte. What comes back from the store is not trusted: its counts are cut to what the record can hold.
#include "oru_kvs.h"
#include "zb_database.h"
#include <algorithm>
#include <cstdio>

static constexpr char KVS_GROUP[] = "zigbee";
static constexpr size_t EUI64_TEXT_SIZE = 24; // eight bytes of two digits, seven colons, terminator

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
    char text[EUI64_TEXT_SIZE];
    const int length = snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x", eui64[0], eui64[1],
                                eui64[2], eui64[3], eui64[4], eui64[5], eui64[6], eui64[7]);
    if (length < 0 || static_cast<size_t>(length) >= sizeof(text)) {
        ZB_LOG_ERROR("%s: %s: Failed to convert EUI64 to string format, status:%d", ZB_DATABASE, __func__, length);
        return ORU_STATUS_GENERAL_ERROR;
    }
    return oruZb_kvsConvertNameToKey(kvs_key, kvs_key_size, KVS_GROUP, text);
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
    const oru_status_t status = oruKeyValueDsHal_eraseGroup(KVS_GROUP);
    if (status == ORU_STATUS_OK) {
        ZB_LOG_INFO("%s: %s: Removed all devices from KVS DB", ZB_DATABASE, __func__);
    } else {
        ZB_LOG_ERROR("%s: %s: Unable to remove all devices from KVS DB, status: %d", ZB_DATABASE, __func__, status);
    }
    return status;
}

oru_status_t oruZb_kvsLoadAllDeviceInfo() {
    return oruKeyValueDsHal_listKeys(KVS_GROUP, oruZb_kvsListKeysCallback);
}

// Readers use the counts as loop bounds. Slots beyond the endpoint count are fill and stay as they are.
static void clampCounts(oruZb_deviceInfo_t &info) {
    info.endpoint_count = std::min<uint8_t>(info.endpoint_count, ORU_ZB_HAL_MAX_ENDPOINTS);
    for (uint8_t i = 0; i < info.endpoint_count; ++i) {
        uint8_t &cluster_count = info.endpoints[i].cluster_count;
        cluster_count = std::min<uint8_t>(cluster_count, ORU_ZB_HAL_MAX_CLUSTERS);
    }
}

int oruZb_kvsListKeysCallback(const char *key_name) {
    oruZb_device_t device{}; // a value shorter than the record leaves the tail zero
    char key[ORU_ZB_KVS_KEY_SIZE]{};
    if (oruZb_kvsConvertNameToKey(key, sizeof(key), KVS_GROUP, key_name) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: failed to convert key_name to key", ZB_DATABASE);
        return ORU_ZB_KVS_LIST_KEYS_STOP;
    }
    if (oruKeyValueDsHal_get(key, &device, sizeof(device)) < 1) {
        ZB_LOG_ERROR("%s: Error: Unable to get from devices DB", ZB_DATABASE);
        return ORU_ZB_KVS_LIST_KEYS_STOP;
    }
    clampCounts(device.device_info);
    if (oruZb_databaseAddDeviceHelper(&device) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: Cannot add device info", ZB_DATABASE);
        return ORU_ZB_KVS_LIST_KEYS_STOP;
    }
    return ORU_ZB_KVS_LIST_KEYS_CONTINUE;
}
