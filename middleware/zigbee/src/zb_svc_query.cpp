// SPDX-License-Identifier: Apache-2.0
//
// Read-only questions of clients. Every handler writes into the caller's buffer in place; the buffer is at least as
// long as its record, which the dispatcher has checked, or its length comes along.
#include "zb_svc_query.h"
#include "zb_alloc.h"
#include "zb_database_kvs.h"
#include "zb_database_list.h"
#include "zb_reply.h"
#include "zb_state.h"
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

static constexpr uint16_t COORDINATOR_NODE_ID = 0x0000;
static constexpr uint16_t COORDINATOR_MANUFACTURER_CODE = 0x1217;

oru_status_t oruZb_doPing(oruZb_pingResponse_t *echo, const char *resp) {
    if (echo == nullptr || resp == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    constexpr size_t text_size = sizeof echo->response - 1; // the last byte is the caller's
    const size_t len = strnlen(resp, text_size);
    memset(echo->response, 0, text_size);
    memcpy(echo->response, resp, len);
    return ORU_STATUS_OK;
}

oru_status_t oruZb_doGetAdapterState(oruZb_adapterState_t *state) {
    if (state == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    *state = adapter_state.load();
    return ORU_STATUS_OK;
}

static void fillNetworkKey(oruZb_networkInfo_t &info) {
    oruZbHal_keyStruct_t key{};
    static_assert(sizeof(info.network_key) == sizeof(key.key.contents));
    if (oruZbHal_getKey(ORU_ZB_HAL_CURRENT_NETWORK_KEY, &key) == ORU_STATUS_OK) {
        memcpy(info.network_key, key.key.contents, sizeof(info.network_key));
    } else {
        memset(info.network_key, 0xFF, sizeof(info.network_key));
    }
}

oru_status_t oruZb_doGetNetworkInfo(oruZb_networkInfo_t *info) {
    if (info == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    fillNetworkKey(*info);
    oruZbHal_networkParameters_t params{};
    if (oruZbHal_getNetworkInfo(&params) == ORU_STATUS_OK) {
        info->channel = params.radio_channel;
        info->panid = params.pan_id;
        info->radio_tx_power = params.radio_tx_power;
        static_assert(sizeof(info->extended_panid) == sizeof(params.extended_pan_id));
        memcpy(&info->extended_panid, params.extended_pan_id, sizeof(info->extended_panid));
    } else {
        ZB_LOG_ERROR("%s: Failed to get network info", ZB_SVC);
        info->channel = UINT8_MAX;
        info->panid = UINT32_MAX;
        info->radio_tx_power = -1;
        info->extended_panid = UINT64_MAX;
    }
    return ORU_STATUS_OK;
}

oru_status_t oruZb_doGetDevice(oruZb_getDevice_t *req) {
    if (req == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    oruZb_databaseLoadMissing();
    oruZb_device_t device{};
    oru_status_t status = ORU_STATUS_GENERAL_ERROR;
    if (req->by >= ORU_ZB_BY_INDEX) {
        status = oruZb_databaseGetDeviceByIndex(static_cast<uint32_t>(req->by), &device);
    } else if (req->by == ORU_ZB_BY_NODEID) {
        status = oruZb_databaseGetDevice(req->device.node_id, &device);
    } else if (req->by == ORU_ZB_BY_EUI64) {
        status = oruZb_databaseGetDeviceByEui64(req->device.device_info.eui64, &device);
    }
    if (status == ORU_STATUS_OK) {
        req->device = device;
    }
    return status;
}

oru_status_t oruZb_doGetDeviceCount(oruZb_deviceCount_t *out) {
    if (out == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    oruZb_databaseLoadMissing();
    out->count = oruZb_databaseGetDeviceCount();
    return ORU_STATUS_OK;
}

oru_status_t oruZb_doGetConnectedNodes(uint32_t len, oruZb_nodeInfoList_t *list) {
    if (list == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (len < sizeof(list->node_index)) {
        return ORU_STATUS_DATA_LEN_INVALID;
    }
    oruZb_databaseLoadMissing();
    const auto capacity = static_cast<uint32_t>((len - sizeof(list->node_index)) / sizeof(oruZb_nodeInfo_t));
    ZB_LOG_INFO("%s: Reading %d nodes from database", ZB_SVC, capacity);
    oruZb_nodeInfo_t *nodes = list->node_info_array;
    for (uint32_t k = 0; k < capacity; ++k) {
        oruZb_device_t device{};
        if (oruZb_databaseGetDeviceByIndex(list->node_index, &device) != ORU_STATUS_OK) {
            ZB_LOG_ERROR("%s: Invalid node index:%d", ZB_SVC, list->node_index);
            return ORU_STATUS_GENERAL_ERROR;
        }
        ZB_LOG_INFO("%s: Found node: 0x%4.4x node_index:%d", ZB_SVC, device.node_id, list->node_index);
        nodes[k].id = device.node_id;
        nodes[k].manufacturer_code = device.manufacturer_code;
        nodes[k].device_info = device.device_info;
        ++list->node_index;
    }
    const uint32_t count = oruZb_databaseGetDeviceCount();
    if (count > list->node_index) {
        ZB_LOG_WARN("%s: Nodes remaining: %d", ZB_SVC, count - list->node_index);
        return ORU_STATUS_UNRECOVERABLE; // more to come: the client asks again from node_index
    }
    return ORU_STATUS_OK;
}

// Decimal bytes, each followed by a dot. A version too long for the field is cut after its last whole byte.
static void formatFirmwareVersion(const uint8_t *version, size_t count, char *text, size_t size) {
    size_t used = 0;
    for (size_t i = 0; i < count; ++i) {
        char part[8];
        const int length = snprintf(part, sizeof(part), "%u.", static_cast<unsigned>(version[i]));
        if (length < 0 || used + static_cast<size_t>(length) >= size) {
            break;
        }
        memcpy(text + used, part, static_cast<size_t>(length));
        used += static_cast<size_t>(length);
    }
    text[used] = '\0';
}

static void fillFirmwareVersion(oruZb_adapterInfo_t &info) {
    memset(info.firmware_version, 0, sizeof(info.firmware_version));
    uint8_t version[256]{};
    uint8_t count = UINT8_MAX;
    const oru_status_t status = oruZbHal_getFwVersion(version, &count);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Failed to get firmware version: status = 0x%x", ZB_SVC, static_cast<unsigned>(status));
        return;
    }
    formatFirmwareVersion(version, count, info.firmware_version, sizeof(info.firmware_version));
}

static oru_status_t readAdapterInfo(oruZbHal_adapterInfo_t &adapter) {
    const oru_status_t status = oruZbHal_getAdapterInfo(&adapter);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Failed to get adapter information: status = 0x%x", ZB_SVC, static_cast<unsigned>(status));
    }
    return status;
}

oru_status_t oruZb_doGetAdapterInfo(oruZb_adapterInfo_t *info) {
    if (info == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    fillFirmwareVersion(*info);
    oruZbHal_adapterInfo_t adapter{};
    const oru_status_t status = readAdapterInfo(adapter);
    if (status == ORU_STATUS_OK) {
        std::reverse_copy(std::begin(adapter.eui64), std::end(adapter.eui64), info->mac_addr);
    }
    return status;
}

oru_status_t oruZb_doGetLocalNodeInfo(oruZb_nodeInfo_t *node) {
    if (node == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    node->id = COORDINATOR_NODE_ID;
    node->manufacturer_code = COORDINATOR_MANUFACTURER_CODE;
    node->type = ORU_ZB_NODE_TYPE_COORDINATOR;
    oruZbHal_adapterInfo_t adapter{};
    const oru_status_t status = readAdapterInfo(adapter);
    if (status != ORU_STATUS_OK) {
        return status;
    }
    oruZb_deviceInfo_t &info = node->device_info;
    std::reverse_copy(std::begin(adapter.eui64), std::end(adapter.eui64), info.eui64);
    info.capabilities = adapter.capabilities;
    info.endpoint_count = std::min<uint8_t>(adapter.endpoint_count, ORU_ZB_HAL_MAX_ADAPTER_ENDPOINTS);
    std::copy_n(adapter.endpoints, info.endpoint_count, info.endpoints);
    return ORU_STATUS_OK;
}

// Fills as many client entries as the adapter has and the payload holds. A client entry begins with the adapter's
// entry, byte for byte, and adds a number counted from 1.
template <typename ClientEntry, typename HalEntry, typename LogFailure>
static oru_status_t readTable(const char *operation, uint32_t len, ClientEntry *entries,
                              oru_status_t (*read)(HalEntry *, uint8_t *), LogFailure log_failure) {
    static_assert(offsetof(ClientEntry, idx) == sizeof(HalEntry));
    if (entries == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const auto capacity = static_cast<uint8_t>(std::min<size_t>(len / sizeof(ClientEntry), UINT8_MAX));
    if (capacity == 0) {
        return ORU_STATUS_OK;
    }
    auto *scratch = static_cast<HalEntry *>(oruZb_allocMemory(capacity * sizeof(HalEntry)));
    if (scratch == nullptr) {
        ZB_LOG_ERROR("%s: %s: Failed to allocate memory", ZB_SVC, operation);
        return ORU_STATUS_NULL_POINTER;
    }
    memset(scratch, 0, capacity * sizeof(HalEntry));
    uint8_t count = capacity;
    const oru_status_t status = read(scratch, &count);
    if (status != ORU_STATUS_OK) {
        log_failure(status);
        oruZb_freeMemory(scratch);
        return status;
    }
    count = std::min(count, capacity);
    for (uint8_t i = 0; i < count; ++i) {
        memcpy(&entries[i], &scratch[i], sizeof(HalEntry));
        entries[i].idx = static_cast<uint8_t>(i + 1);
    }
    oruZb_freeMemory(scratch);
    return ORU_STATUS_OK;
}

oru_status_t oruZb_doGetChildren(uint32_t len, oruZb_childTableEntry_t *entries) {
    const char *operation = __func__;
    return readTable(operation, len, entries, oruZbHal_getChildren, [operation](oru_status_t status) {
        ZB_LOG_ERROR("%s: %s(): Failed to get child info from adapter, status:%d", ZB_SVC, operation, status);
    });
}

oru_status_t oruZb_doGetRoutes(uint32_t len, oruZb_routeTableEntry_t *entries) {
    const char *operation = __func__;
    return readTable(operation, len, entries, oruZbHal_getRouteTableEntries, [operation](oru_status_t status) {
        ZB_LOG_ERROR("%s: %s(): Failed to get route info from adapter, status:%d", ZB_SVC, operation, status);
    });
}

oru_status_t oruZb_doGetNeighbors(uint32_t len, oruZb_neighborTableEntry_t *entries) {
    const char *operation = __func__;
    return readTable(operation, len, entries, oruZbHal_getNeighbors, [operation](oru_status_t status) {
        ZB_LOG_ERROR("%s: %s(): Failed to get neighbor info from adapter, status:%d", ZB_SVC, operation, status);
    });
}

oru_status_t oruZb_doScan(oruZb_scan_t *scan, oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id) {
    if (scan == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const oru_status_t status =
        oruZbHal_startScan(static_cast<uint8_t>(scan->type), scan->channel_mask, scan->duration);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: oruZbHal_startScan() failed: status = 0x%x", ZB_SVC, static_cast<unsigned>(status));
    }
    oruZb_asyncCallResultCallback(status, client_id, callback_id);
    return status;
}

oru_status_t oruZb_doGetPtaCounters(oruZb_counters_t *pta_counters, uint8_t clear) {
    if (pta_counters == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    oruZbHal_counters_t counters{};
    const oru_status_t status =
        clear != 0 ? oruZbHal_getAndClearDebugCounters(&counters) : oruZbHal_getDebugCounters(&counters);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Failed to dump PTA counters, status: %d", ZB_SVC, status);
        return status;
    }
    ZB_LOG_INFO("%s: %s(): Collecting PTA counter values", ZB_SVC, __func__);
    static_assert(sizeof(*pta_counters) == sizeof(counters), "the same eleven fields in the same order");
    memcpy(pta_counters, &counters, sizeof(counters));
    return ORU_STATUS_OK;
}
