// SPDX-License-Identifier: Apache-2.0
//
// The allowlist holds addresses least significant byte first, the order the adapter takes them in.
#include "zb_zts.h"
#include "zb_alloc.h"
#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <mutex>
#include <type_traits>

ztsDeviceList zts_device_list_head{};

static constexpr uint32_t MAX_ZTS_DEVICES = 4096;

static uint32_t zts_device_count; // items of the list

// Guards zts_device_list_head, every item and their count. Taken inside discovery_mutex, never around another service
// lock.
static std::mutex zts_mutex;
static_assert(std::is_trivially_destructible_v<std::mutex>, "threads may still use it while the process exits");

void oruZb_ztsListInit() {
    const std::lock_guard lock(zts_mutex);
    zts_device_list_head.slh_first = nullptr;
    zts_device_count = 0;
}

static bool isFull() {
    const std::lock_guard lock(zts_mutex);
    return zts_device_count >= MAX_ZTS_DEVICES;
}

oru_status_t oruZb_ztsListAddDevice(oruZb_ztsDeviceInfo_t *device_info) {
    if (device_info == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (isFull()) {
        ZB_LOG_ERROR("%s: %s: the allowlist is full, it holds %u devices", ZB_SVC, __func__, MAX_ZTS_DEVICES);
        return ORU_STATUS_OUT_OF_MEMORY;
    }
    auto *item = static_cast<oruZb_ztsListItem_t *>(oruZb_allocMemory(sizeof(oruZb_ztsListItem_t)));
    if (item == nullptr) {
        ZB_LOG_ERROR("%s: %s: Failed to allocate memory for zts device", ZB_SVC, __func__);
        return ORU_STATUS_OUT_OF_MEMORY;
    }
    item->device_info = *device_info;
    std::reverse(std::begin(item->device_info.mac_address), std::end(item->device_info.mac_address));
    {
        const std::lock_guard lock(zts_mutex);
        item->entries.sle_next = zts_device_list_head.slh_first;
        zts_device_list_head.slh_first = item;
        ++zts_device_count;
    }
    const uint8_t *mac = device_info->mac_address;
    const uint8_t *code = device_info->install_code;
    ZB_LOG_INFO("%s: %s: EUI=%02X%02X%02X%02X%02X%02X%02X%02X, Key=%02X%02X..%02X%02X", ZB_SVC, __func__, mac[0],
                mac[1], mac[2], mac[3], mac[4], mac[5], mac[6], mac[7], code[0], code[1], code[16], code[17]);
    return ORU_STATUS_OK;
}

void oruZb_ztsListRemoveAllDevices() {
    {
        const std::lock_guard lock(zts_mutex);
        while (zts_device_list_head.slh_first != nullptr) {
            oruZb_ztsListItem_t *item = zts_device_list_head.slh_first;
            zts_device_list_head.slh_first = item->entries.sle_next;
            oruZb_freeMemory(item);
        }
        zts_device_count = 0;
    }
    ZB_LOG_INFO("%s: All ZTS devices are removed from the allowlist", ZB_SVC);
}

bool oruZb_ztsOnAllowlist(const uint8_t *mac_address) {
    if (mac_address == nullptr) {
        return false;
    }
    std::array<uint8_t, sizeof(oruZbHal_eui64_t)> wanted;
    std::reverse_copy(mac_address, mac_address + wanted.size(), wanted.begin());
    const std::lock_guard lock(zts_mutex);
    for (const auto *item = zts_device_list_head.slh_first; item != nullptr; item = item->entries.sle_next) {
        if (memcmp(item->device_info.mac_address, wanted.data(), wanted.size()) == 0) {
            return true;
        }
    }
    return false;
}

oru_status_t oruZb_ztsLoadInstallCodes() {
    // Held across the adapter calls: they call nothing back, and a lookup in the HAL's context can wait.
    const std::lock_guard lock(zts_mutex);
    for (auto *item = zts_device_list_head.slh_first; item != nullptr; item = item->entries.sle_next) {
        oruZb_ztsDeviceInfo_t &info = item->device_info;
        const oru_status_t status =
            oruZbHal_addInstallCode(info.mac_address, info.install_code, sizeof(info.install_code));
        if (status != ORU_STATUS_OK) {
            ZB_LOG_ERROR("%s: %s(): Failed to add ZTS device to allowlist in Zigbee service: status=%d", ZB_SVC,
                         __func__, status);
        }
    }
    return ORU_STATUS_OK;
}
