// SPDX-License-Identifier: Apache-2.0
//
// Image of the device list in the key-value store, and what to do while it cannot be read. A null argument gives
// ORU_STATUS_NULL_POINTER.
#pragma once
#include "zb_types.h"

// The store could not be read, or not to the end: devices may be missing from the list. Set by a load, cleared by the
// first whole one and when all devices are removed. Read and written without a lock.
extern std::atomic<bool> database_incomplete;
extern std::atomic<bool> database_loaded_late; // some records may have come while their devices were joining afresh

enum { // answers of oruZb_kvsListKeysCallback to the store
    ORU_ZB_KVS_LIST_KEYS_CONTINUE = 0,
    ORU_ZB_KVS_LIST_KEYS_STOP = -1,
};

// Erases the store only; callers follow with oruZb_databaseDeInit. Nothing is missing from the list then, whatever the
// status: what a store that failed still holds is not loaded again.
oru_status_t oruZb_databaseRemoveAll();

// While database_incomplete is set, loads again what the store can give, at most once a second; nothing otherwise.
// Devices that are listed keep what is known of them. The caller holds no lock.
void oruZb_databaseLoadMissing();
// As oruZb_databaseGetDeviceByEui64, after loading what is missing when the device is not listed. ORU_STATUS_TRY_AGAIN:
// it is not listed, but nothing may be concluded from that; logged once until the next whole load.
oru_status_t oruZb_databaseFindOrLoad(const uint8_t *eui64, oruZb_device_t *p);

// One record of 744 bytes per device under the key "zigbee.01:23:45:67:89:ab:cd:ef". None of these takes the mutex,
// except oruZb_kvsListKeysCallback by way of the add.

constexpr size_t ORU_ZB_KVS_KEY_SIZE = 65; // longest key the store takes, and the terminator

// Write "group.name" to kvs_key. ORU_STATUS_BAD_PARAM for a size of 0 or above ORU_ZB_KVS_KEY_SIZE,
// ORU_STATUS_GENERAL_ERROR when the key does not fit in kvs_key_size bytes.
oru_status_t oruZb_kvsConvertNameToKey(char *kvs_key, size_t kvs_key_size, const char *group, const char *name);
oru_status_t oruZb_kvsConvertEUI64ToKey(char *kvs_key, size_t kvs_key_size, const uint8_t *eui64);
// Both return the status of the store, or ORU_STATUS_GENERAL_ERROR when the key could not be formed.
oru_status_t oruZb_kvsAddOrUpdateDeviceInfo(oruZb_device_t *device);
oru_status_t oruZb_kvsDeleteDeviceInfo(oruZb_device_t *device);
// The status of the listing. Main thread at start, then by way of oruZb_databaseLoadMissing only.
oru_status_t oruZb_kvsLoadAllDeviceInfo();
// Called by the store, which holds no lock then, with the part of a key after "zigbee.".
int oruZb_kvsListKeysCallback(const char *key_name);
