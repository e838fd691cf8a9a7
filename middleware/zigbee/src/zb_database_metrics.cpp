// SPDX-License-Identifier: Apache-2.0
//
// Latency statistics of the unicasts to each device, and their daily upload to the log. They live in the list items,
// under device_list_mutex, and are never stored.
#include "zb_database_metrics.h"
#include "zb_database_list.h"
#include "zb_database_lock.h"
#include <algorithm>

static void addSample(oruZb_latencyInfo_t &info, uint32_t latency) {
    info.total_latency += latency;
    info.transaction_count += 1;
    if (info.min_latency == 0 || latency < info.min_latency) { // 0 also stands for "no sample yet"
        info.min_latency = latency;
    }
    info.max_latency = std::max(info.max_latency, latency);
}

oru_status_t oruZb_databaseUpdateItemLatency(oruZbHal_nodeId_t node_id, uint32_t latency) {
    deviceListLock lock(__func__);
    if (lock.status() != ORU_STATUS_OK) {
        return lock.status();
    }
    oruZb_deviceListItem_t *item = findListItem(
        [node_id](const oruZb_deviceListItem_t &candidate) { return candidate.device.node_id == node_id; });
    if (item != nullptr) {
        addSample(item->latency_info, latency);
        return ORU_STATUS_OK;
    }
    lock.release();
    ZB_LOG_WARN("%s: %s: NodeId 0x%x: No such device found", ZB_DATABASE, __func__, node_id);
    return ORU_STATUS_NOT_FOUND;
}

static void logLatency(const oruZb_latencyInfo_t &info, uint16_t node_id) {
    if (info.transaction_count == 0 || info.total_latency == 0) {
        return;
    }
    ZB_LOG_INFO("%s: zb_zcl_tx_count: %d for node 0x%04x", ZB_METRICS, info.transaction_count, node_id);
    const uint32_t average = info.total_latency / info.transaction_count;
    ZB_LOG_INFO("%s: zb_device_latency_average : %ums, zb_device_latency_min: %ums,zb_device_latency_max: %ums for "
                "node 0x%04x",
                ZB_METRICS, average, info.min_latency, info.max_latency, node_id);
}

static void logEndpoints(const oruZb_deviceInfo_t &info) {
    const uint8_t count = std::min<uint8_t>(info.endpoint_count, ORU_ZB_HAL_MAX_ENDPOINTS);
    for (uint8_t i = 0; i < count; ++i) {
        ZB_LOG_INFO("%s: zb_device_oui_and_device_id: OUI: %02x:%02x:%02x Device ID: %04x", ZB_METRICS, info.eui64[0],
                    info.eui64[1], info.eui64[2], info.endpoints[i].device_id);
    }
}

oru_status_t oruZb_databaseUploadMetrics() {
    deviceListLock lock(__func__);
    if (lock.status() != ORU_STATUS_OK) {
        return lock.status();
    }
    uint8_t count = 0; // wraps beyond 255 devices, which the metric accepts
    for (auto *item = device_list_head.slh_first; item != nullptr; item = item->entries.sle_next) {
        logLatency(item->latency_info, item->device.node_id);
        item->latency_info = {};
        logEndpoints(item->device.device_info);
        ++count;
    }
    ZB_LOG_INFO("%s: zb_number_of_devices: Number of devices in the network: %d", ZB_METRICS, count);
    return ORU_STATUS_OK;
}
