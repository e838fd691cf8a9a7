// SPDX-License-Identifier: Apache-2.0
//
// The device list. The store is written while device_list_mutex is held, so that list and store change in the same
// order; the store calls back without locks of its own, and only while loading.
//
// Invariants under the mutex (checkDeviceList): device_count is the number of items; every item came from
// oruZb_allocMemory. List and store may disagree after a failed write, until that device is written again.
#include "zb_alloc.h"
#include "zb_database_kvs.h"
#include "zb_database_list.h"
#include "zb_database_lock.h"
#include "zb_invariant.h"
#include <cstring>

deviceList device_list_head{};
std::atomic<uint32_t> device_count{0};
oruMutex_t device_list_mutex{};

deviceListLock::deviceListLock(const char *operation)
    : operation_(operation), status_(oruMutex_acquire(device_list_mutex)), held_(status_ == ORU_STATUS_OK) {
    if (!held_) {
        ZB_LOG_ERROR("%s: Error: %s() oruMutex_acquire failed, status: %d\n", ZB_DATABASE, operation_, status_);
    }
}

// The mutex is held.
static void checkDeviceList() {
    uint32_t items = 0;
    for (const auto *item = device_list_head.slh_first; item != nullptr; item = item->entries.sle_next) {
        ++items;
    }
    mustHold(items == device_count, "device_count is the number of items");
}

void deviceListLock::release() {
    if (!held_) {
        return;
    }
    if (check_invariants) {
        checkDeviceList();
    }
    held_ = false;
    const oru_status_t status = oruMutex_release(device_list_mutex);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() oruMutex_release failed, status: %d\n", ZB_DATABASE, operation_, status);
    }
}

static bool sameEui64(const oruZb_deviceListItem_t &item, const uint8_t *eui64) {
    return memcmp(item.device.device_info.eui64, eui64, sizeof(item.device.device_info.eui64)) == 0;
}

static void unlinkListItem(const oruZb_deviceListItem_t *item) {
    oruZb_deviceListItem_t **link = &device_list_head.slh_first;
    while (*link != item) {
        link = &(*link)->entries.sle_next;
    }
    *link = item->entries.sle_next;
}

template <typename Match>
static oru_status_t copyFirstMatch(const char *operation, oruZb_device_t *p, Match match) {
    deviceListLock lock(operation);
    if (lock.status() != ORU_STATUS_OK) {
        return lock.status();
    }
    const oruZb_deviceListItem_t *item = findListItem(match);
    if (item == nullptr) {
        return ORU_STATUS_NOT_FOUND;
    }
    *p = item->device;
    return ORU_STATUS_OK;
}

// The mutex is held. A network has one device to an address: who else is listed with the owner's has left it unnoticed,
// and must not be reached, or removed, in its place.
static void takeNodeIdFromOthers(const oruZb_device_t &owner) {
    for (oruZb_deviceListItem_t *item = device_list_head.slh_first; item != nullptr; item = item->entries.sle_next) {
        if (item->device.node_id != owner.node_id || owner.node_id == ORU_ZB_NODE_ID_UNKNOWN ||
            sameEui64(*item, owner.device_info.eui64)) {
            continue;
        }
        const uint8_t *eui64 = item->device.device_info.eui64;
        ZB_LOG_INFO(
            "%s: Device node ID 0x%4.4x belongs to another device now, mac_id(last 2 bytes):%2.2x%2.2x has none",
            ZB_DATABASE, owner.node_id, eui64[6], eui64[7]);
        item->device.node_id = ORU_ZB_NODE_ID_UNKNOWN;
        if (oruZb_kvsAddOrUpdateDeviceInfo(&item->device) != ORU_STATUS_OK) {
            ZB_LOG_ERROR("%s: Error: Unable to add to/update devices DB", ZB_DATABASE);
        }
    }
}

oru_status_t oruZb_databaseInit() {
    oru_status_t status = oruMutex_new(nullptr, &device_list_mutex);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() oruMutex_new failed", ZB_DATABASE, __func__);
        return status;
    }
    device_list_head.slh_first = nullptr;
    device_count = 0;
    database_incomplete = database_loaded_late = false;
    status = oruZb_kvsLoadAllDeviceInfo();
    if (status == ORU_STATUS_OK) {
        ZB_LOG_INFO("%s: %s: Loaded %u device[s] from the devices DB", ZB_DATABASE, __func__, device_count.load());
    } else {
        ZB_LOG_INFO("%s: %s: DB Load device info failed. DB might be empty, status: %d", ZB_DATABASE, __func__, status);
    }
    return status;
}

oru_status_t oruZb_databaseDeInit() {
    deviceListLock lock(__func__);
    if (lock.status() != ORU_STATUS_OK) {
        return lock.status();
    }
    while (device_list_head.slh_first != nullptr) {
        oruZb_deviceListItem_t *item = device_list_head.slh_first;
        device_list_head.slh_first = item->entries.sle_next;
        oruZb_freeMemory(item);
    }
    device_count = 0;
    lock.release();
    ZB_LOG_INFO("%s: %s: Removed all devices from device list", ZB_DATABASE, __func__);
    return ORU_STATUS_OK;
}

oru_status_t oruZb_databaseAddDeviceHelper(oruZb_device_t *device) {
    if (device == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    deviceListLock lock(__func__);
    if (lock.status() != ORU_STATUS_OK) {
        return lock.status();
    }
    auto *item = static_cast<oruZb_deviceListItem_t *>(oruZb_allocMemory(sizeof(oruZb_deviceListItem_t)));
    if (item == nullptr) {
        ZB_LOG_ERROR("%s: Error: Failed to allocate memory for device", ZB_DATABASE);
        return ORU_STATUS_NULL_POINTER;
    }
    item->device = *device;
    item->latency_info = {};
    item->entries.sle_next = device_list_head.slh_first;
    device_list_head.slh_first = item;
    ++device_count;
    return ORU_STATUS_OK;
}

// The record of a device that joined afresh when the store could not be read; at the join there was none to remove.
static void dropLateRecord(const uint8_t *eui64) {
    deviceListLock lock(__func__);
    if (lock.status() != ORU_STATUS_OK) {
        return;
    }
    oruZb_deviceListItem_t *item =
        findListItem([eui64](const oruZb_deviceListItem_t &candidate) { return sameEui64(candidate, eui64); });
    if (item != nullptr) {
        unlinkListItem(item);
        oruZb_freeMemory(item);
        --device_count;
    }
}

oru_status_t oruZb_databaseAddDevice(oruZb_device_t *device) {
    if (device == nullptr) {
        ZB_LOG_ERROR("%s: Error: %s() device pointer is NULL!", ZB_DATABASE, __func__);
        return ORU_STATUS_NULL_POINTER;
    }
    if (database_loaded_late) {
        dropLateRecord(device->device_info.eui64);
    }
    oru_status_t status = oruZb_databaseAddDeviceHelper(device);
    if (status != ORU_STATUS_OK) {
        return status;
    }
    status = oruZb_kvsAddOrUpdateDeviceInfo(device);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: Unable to add to/update devices DB", ZB_DATABASE);
    }
    const deviceListLock lock(__func__);
    if (lock.status() == ORU_STATUS_OK) {
        takeNodeIdFromOthers(*device);
    }
    return status;
}

oru_status_t oruZb_databaseGetDevice(oruZbHal_nodeId_t node_id, oruZb_device_t *p) {
    if (p == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    return copyFirstMatch(__func__, p,
                          [node_id](const oruZb_deviceListItem_t &item) { return item.device.node_id == node_id; });
}

oru_status_t oruZb_databaseGetDeviceByEui64(const uint8_t *eui64, oruZb_device_t *p) {
    if (eui64 == nullptr || p == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    return copyFirstMatch(__func__, p, [eui64](const oruZb_deviceListItem_t &item) { return sameEui64(item, eui64); });
}

oru_status_t oruZb_databaseGetDeviceByIndex(uint32_t index, oruZb_device_t *p) {
    if (p == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    uint32_t position = 0;
    return copyFirstMatch(__func__, p,
                          [index, &position](const oruZb_deviceListItem_t &) { return position++ == index; });
}

uint32_t oruZb_databaseGetDeviceCount() {
    return device_count;
}

oru_status_t oruZb_databaseUpdateNodeId(uint8_t *eui64, oruZbHal_nodeId_t node_id) {
    if (eui64 == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    deviceListLock lock(__func__);
    if (lock.status() != ORU_STATUS_OK) {
        return lock.status();
    }
    oruZb_deviceListItem_t *item =
        findListItem([eui64](const oruZb_deviceListItem_t &candidate) { return sameEui64(candidate, eui64); });
    if (item == nullptr) {
        lock.release();
        ZB_LOG_ERROR("%s: Error: Device not found in database", ZB_DATABASE);
        return ORU_STATUS_NOT_FOUND;
    }
    item->device.node_id = node_id;
    const oru_status_t status = oruZb_kvsAddOrUpdateDeviceInfo(&item->device); // a refusal is the caller's to log
    takeNodeIdFromOthers(item->device);
    return status;
}

template <typename Match>
static oru_status_t removeFirstMatch(oruZbHal_nodeId_t node_id, Match match) {
    constexpr char operation[] = "oruZb_databaseRemoveDevice";
    deviceListLock lock(operation);
    if (lock.status() != ORU_STATUS_OK) {
        return lock.status();
    }
    oruZb_deviceListItem_t *item = findListItem(match);
    if (item == nullptr) {
        lock.release();
        ZB_LOG_WARN("%s: %s: NodeId 0x%x: No such device to remove", ZB_DATABASE, operation, node_id);
        return ORU_STATUS_NOT_FOUND;
    }
    const oru_status_t status = oruZb_kvsDeleteDeviceInfo(&item->device);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: Unable to delete from devices DB, status: %d", ZB_DATABASE, operation, status);
        return status;
    }
    unlinkListItem(item);
    oruZb_freeMemory(item);
    --device_count;
    ZB_LOG_INFO("%s: Removed device 0x%04x from database", ZB_DATABASE, node_id);
    return ORU_STATUS_OK;
}

oru_status_t oruZb_databaseRemoveDevice(oruZbHal_nodeId_t node_id) {
    return removeFirstMatch(node_id,
                            [node_id](const oruZb_deviceListItem_t &item) { return item.device.node_id == node_id; });
}

oru_status_t oruZb_databaseRemoveLeftDevice(const oruZb_device_t *device) {
    if (device == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    return removeFirstMatch(device->node_id, [device](const oruZb_deviceListItem_t &item) {
        return item.device.node_id == device->node_id && sameEui64(item, device->device_info.eui64);
    });
}

oru_status_t oruZb_databasePrintDevices() {
    ZB_LOG_INFO("%s: %s", ZB_DATABASE, __func__);
    deviceListLock lock(__func__);
    if (lock.status() != ORU_STATUS_OK) {
        return lock.status();
    }
    for (const auto *item = device_list_head.slh_first; item != nullptr; item = item->entries.sle_next) {
        ZB_LOG_INFO("%s:   Device NodeID: 0x%x", ZB_DATABASE, item->device.node_id);
    }
    return ORU_STATUS_OK;
}
