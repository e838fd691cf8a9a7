// SPDX-License-Identifier: Apache-2.0
//
// The two lists of discovery and what can be done to a node in them.
//
//   discovery list         devices waiting for or under interrogation (NEW to FINISHED); one of them may be current
//   failed-discovery list  devices that did not answer, waiting to be told to leave
//
// Both insert at the head, so the device that came last is served first. A device has at most one node in each list;
// the lists own their nodes. They become initialised with the first insertion.
#include "zb_discovery_list.h"
#include "oru_time.h"
#include "zb_alloc.h"
#include "zb_discovery_internal.h"
#include "zb_invariant.h"
#include <algorithm>
#include <cstring>
#include <utility>

static constexpr uint8_t CAPABILITY_RX_ON_WHEN_IDLE = 0x08; // MAC capability flags of the Zigbee specification
static constexpr uint32_t SLEEPY_EXPIRY_S = 10;
static constexpr uint32_t EXPIRY_S = 3;
static constexpr uint8_t NO_ENDPOINT_INDEX = 255;

constinit std::mutex discovery_mutex;
oruZb_nodeList discovery_list_head;
int discovery_list_init;
oruZb_nodeList failed_discovery_list_head;
int failed_discovery_list_init;
oruZb_node_t *current_discovery_item;
std::atomic<uint32_t> device_fail_to_join_counter{0};

using discoveryLock = std::lock_guard<std::mutex>;

// ---------------------------------------------------------------------------------------------------- states and time
bool oruZb_isSleepyEndDevice(uint8_t capabilities) {
    return (capabilities & CAPABILITY_RX_ON_WHEN_IDLE) == 0;
}

uint32_t oruZb_getCurrentTimeSec() {
    oruTime_timespec_t now{};
    if (oruTime_time(&now) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: Failed to get oru time", ZB_DISCOVERY);
        return 0;
    }
    return static_cast<uint32_t>(now.seconds);
}

static uint32_t expiryTime(uint8_t capabilities) {
    return oruZb_getCurrentTimeSec() + (oruZb_isSleepyEndDevice(capabilities) ? SLEEPY_EXPIRY_S : EXPIRY_S);
}

uint32_t oruZb_determineExpiryTime(oruZb_node_t *item) {
    if (item == nullptr) {
        return 0;
    }
    const discoveryLock lock(discovery_mutex);
    return expiryTime(item->device.device_info.capabilities);
}

static bool mayBeCurrent(oruZb_device_discovery_state state) {
    switch (state) {
    case ORU_ZB_DEVICE_DISCOVERY_READY: // between its choice and its first request
    case ORU_ZB_DEVICE_DISCOVERY_REQUEST_ACTIVE_ENDPOINTS:
    case ORU_ZB_DEVICE_DISCOVERY_REQUEST_SIMPLE_DESC:
    case ORU_ZB_DEVICE_DISCOVERY_REQUEST_NODE_DESC:
    case ORU_ZB_DEVICE_DISCOVERY_FINISHED:
        return true;
    case ORU_ZB_DEVICE_DISCOVERY_NONE:
    case ORU_ZB_DEVICE_DISCOVERY_NEW:
    case ORU_ZB_DEVICE_DISCOVERY_FAILED:
        break;
    }
    return false;
}

static void checkNode(const oruZb_node_t &node) {
    const oruZb_discoveryAction_t &action = node.action;
    const bool waiting = action.discovery_state == ORU_ZB_DEVICE_DISCOVERY_NEW ||
                         action.discovery_state == ORU_ZB_DEVICE_DISCOVERY_READY;
    const uint8_t endpoints = node.device.device_info.endpoint_count;
    if (&node == current_discovery_item) {
        mustHold(mayBeCurrent(action.discovery_state), "the current node is being interrogated");
    } else {
        mustHold(waiting || !mayBeCurrent(action.discovery_state), "only the current node is being interrogated");
    }
    mustHold(!waiting || action.num_retries == 0, "a waiting node has no retries");
    mustHold(endpoints <= ORU_ZB_HAL_MAX_ENDPOINTS && action.endpoint_query_index <= endpoints,
             "the slot that is asked is one of the node's");
}

void checkDiscoveryLocked() {
    if (!check_invariants) {
        return;
    }
    bool current_listed = current_discovery_item == nullptr;
    for (const oruZb_node_t *node = discovery_list_head.slh_first; node != nullptr; node = node->entries.sle_next) {
        mustHold(oruZb_findNodeLocked(discovery_list_head, node->device.device_info.eui64) == node,
                 "a device has one node in the discovery list");
        checkNode(*node);
        current_listed = current_listed || node == current_discovery_item;
    }
    mustHold(current_listed, "the current node is listed");
}

void oruZb_prepareForDiscoveryStateLocked(oruZb_node_t *item, oruZb_device_discovery_state state) {
    item->action.discovery_state = state;
    item->action.expiry_time = expiryTime(item->device.device_info.capabilities);
    item->action.num_retries = 0;
    checkDiscoveryLocked();
}

void oruZb_prepareForDiscoveryState(oruZb_node_t *item, oruZb_device_discovery_state state) {
    if (item == nullptr) {
        return;
    }
    const discoveryLock lock(discovery_mutex);
    oruZb_prepareForDiscoveryStateLocked(item, state);
}

// ----------------------------------------------------------------------------------------------------- list mechanics
oruZb_node_t *oruZb_findNodeLocked(const oruZb_nodeList &list, const uint8_t *eui64) {
    oruZb_node_t *item = list.slh_first;
    while (item != nullptr && memcmp(item->device.device_info.eui64, eui64, sizeof(oruZbHal_eui64_t)) != 0) {
        item = item->entries.sle_next;
    }
    return item;
}

static void unlinkNode(oruZb_nodeList &list, const oruZb_node_t *item) {
    oruZb_node_t **link = &list.slh_first;
    while (*link != item) {
        link = &(*link)->entries.sle_next;
    }
    *link = item->entries.sle_next;
}

static void describeNode(oruZb_node_t *item, const uint8_t *eui64, uint16_t node_id, uint8_t capabilities) {
    std::copy_n(eui64, sizeof(oruZbHal_eui64_t), item->device.device_info.eui64);
    item->device.device_info.capabilities = capabilities;
    item->device.device_info.endpoint_count = 0;
    item->device.node_id = node_id;
    item->action.endpoint_query_index = 0;
}

// A cleared node; null when out of memory.
static oruZb_node_t *newNode() {
    auto *item = static_cast<oruZb_node_t *>(oruZb_allocMemory(sizeof(oruZb_node_t)));
    if (item != nullptr) {
        *item = oruZb_node_t{};
    }
    return item;
}

static void insertNode(oruZb_nodeList &list, oruZb_node_t *item) {
    item->entries.sle_next = list.slh_first;
    list.slh_first = item;
}

bool oruZb_discoveryListIsEmpty() {
    const discoveryLock lock(discovery_mutex);
    return discovery_list_head.slh_first == nullptr;
}

bool oruZb_failedDiscoveryListIsEmpty() {
    const discoveryLock lock(discovery_mutex);
    return failed_discovery_list_head.slh_first == nullptr;
}

bool oruZb_copyCurrentItem(oruZb_node_t *copy) {
    const discoveryLock lock(discovery_mutex);
    if (current_discovery_item == nullptr) {
        return false;
    }
    *copy = *current_discovery_item;
    return true;
}

// ----------------------------------------------------------------------------------------------------- discovery list
oruZb_node_t *oruZb_findNodeDiscoveryList(const uint8_t *eui64) {
    const discoveryLock lock(discovery_mutex);
    return eui64 != nullptr && discovery_list_init != 0 ? oruZb_findNodeLocked(discovery_list_head, eui64) : nullptr;
}

oruZb_node_t *oruZb_addToDiscoveryListLocked(const uint8_t *eui64, uint16_t node_id, uint8_t capabilities) {
    if (discovery_list_init == 0) {
        discovery_list_head.slh_first = nullptr;
        discovery_list_init = 1;
    }
    if (oruZb_node_t *listed = oruZb_findNodeLocked(discovery_list_head, eui64)) {
        ZB_LOG_ERROR("%s: Device already exists!", ZB_DISCOVERY);
        if (listed->device.node_id != node_id) {
            ZB_LOG_ERROR("%s: Device 0x%4.4x trying to rejoin with a new node ID 0x%4.4x", ZB_DISCOVERY,
                         listed->device.node_id, node_id);
            listed->device.node_id = node_id;
        }
        return nullptr;
    }
    oruZb_node_t *item = newNode();
    if (item == nullptr) {
        ZB_LOG_ERROR("%s: Failed to allocate memory for device", ZB_DISCOVERY);
        return nullptr;
    }
    describeNode(item, eui64, node_id, capabilities);
    insertNode(discovery_list_head, item);
    return item;
}

oruZb_node_t *oruZb_addToDiscoveryList(uint8_t *eui64, uint16_t node_id, uint8_t capabilities) {
    if (eui64 == nullptr) {
        return nullptr;
    }
    const discoveryLock lock(discovery_mutex);
    return oruZb_addToDiscoveryListLocked(eui64, node_id, capabilities);
}

static oru_status_t deleteNodeLocked(oruZb_nodeList &list, int list_init, const uint8_t *eui64) {
    if (list_init == 0) {
        return ORU_STATUS_UNINITIALIZED;
    }
    oruZb_node_t *item = oruZb_findNodeLocked(list, eui64);
    if (item == nullptr) {
        return ORU_STATUS_NOT_FOUND;
    }
    unlinkNode(list, item);
    oruZb_freeMemory(item);
    return ORU_STATUS_OK;
}

oru_status_t oruZb_deleteFromDiscoveryList(uint8_t *eui64) {
    if (eui64 == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const discoveryLock lock(discovery_mutex);
    const oru_status_t status = deleteNodeLocked(discovery_list_head, discovery_list_init, eui64);
    if (status == ORU_STATUS_OK) {
        current_discovery_item = nullptr; // only the current node is ever deleted
    }
    return status;
}

// The join that met the FINISHED node, of which there is one at most; guarded by discovery_mutex.
static struct { bool met, removal_queued; } join_of_finished;

void oruZb_noteJoinOfFinishedNodeLocked(const uint8_t *eui64, bool removal_queued) {
    const oruZb_node_t *item = oruZb_findNodeLocked(discovery_list_head, eui64);
    if (item != nullptr && item->action.discovery_state == ORU_ZB_DEVICE_DISCOVERY_FINISHED) {
        join_of_finished = {true, removal_queued};
    }
}

finishedNode oruZb_releaseFinishedNode(const uint8_t *eui64) {
    const discoveryLock lock(discovery_mutex);
    const auto join = std::exchange(join_of_finished, {});
    oruZb_node_t *item = oruZb_findNodeLocked(discovery_list_head, eui64);
    if (item == nullptr) {
        return finishedNode::missing;
    }
    current_discovery_item = nullptr;
    if (join.met) {
        describeNode(item, eui64, item->device.node_id, 0); // capabilities unknown, as after every join
        oruZb_prepareForDiscoveryStateLocked(item, ORU_ZB_DEVICE_DISCOVERY_NEW);
        return join.removal_queued ? finishedNode::renewed : finishedNode::renewed_stored;
    }
    (void)deleteNodeLocked(discovery_list_head, discovery_list_init, eui64);
    checkDiscoveryLocked();
    return finishedNode::deleted;
}

void oruZb_markExpiredNodesReady() {
    const discoveryLock lock(discovery_mutex);
    const uint32_t now = oruZb_getCurrentTimeSec();
    for (oruZb_node_t *item = discovery_list_head.slh_first; item != nullptr; item = item->entries.sle_next) {
        if (item->action.expiry_time < now && item->action.discovery_state == ORU_ZB_DEVICE_DISCOVERY_NEW) {
            ZB_LOG_INFO("%s: %s for NodeID: 0x%x", ZB_DISCOVERY, __func__, item->device.node_id);
            oruZb_prepareForDiscoveryStateLocked(item, ORU_ZB_DEVICE_DISCOVERY_READY);
        }
    }
}

oruZb_node_t *oruZb_getNextItemForDiscovery() {
    const discoveryLock lock(discovery_mutex);
    oruZb_node_t *item = discovery_list_head.slh_first;
    while (item != nullptr && item->action.discovery_state != ORU_ZB_DEVICE_DISCOVERY_READY) {
        item = item->entries.sle_next;
    }
    if (item != nullptr) {
        current_discovery_item = item;
    }
    return item;
}

// ---------------------------------------------------------------------------------------------- failed-discovery list
oruZb_node_t *oruZb_findNodeFailedDiscoveryList(const uint8_t *eui64) {
    const discoveryLock lock(discovery_mutex);
    return eui64 != nullptr && failed_discovery_list_init != 0 ? oruZb_findNodeLocked(failed_discovery_list_head, eui64)
                                                               : nullptr;
}

oruZb_node_t *oruZb_addOrUpdateToFailedDiscoveryList(uint8_t *eui64, uint16_t node_id, uint8_t capabilities) {
    if (eui64 == nullptr) {
        return nullptr;
    }
    const discoveryLock lock(discovery_mutex);
    if (failed_discovery_list_init == 0) {
        failed_discovery_list_head.slh_first = nullptr;
        failed_discovery_list_init = 1;
    }
    oruZb_node_t *item = oruZb_findNodeLocked(failed_discovery_list_head, eui64);
    const bool is_new = item == nullptr;
    if (is_new) {
        item = newNode();
        if (item == nullptr) {
            ZB_LOG_ERROR("%s: %s: Failed to allocate memory for device", ZB_DISCOVERY, __func__);
            return nullptr;
        }
    }
    describeNode(item, eui64, node_id, capabilities);
    item->action.num_retries = 0;
    if (is_new) {
        insertNode(failed_discovery_list_head, item);
    }
    return item;
}

oru_status_t oruZb_deleteFromFailedDiscoveryList(uint8_t *eui64) {
    if (eui64 == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const discoveryLock lock(discovery_mutex);
    return deleteNodeLocked(failed_discovery_list_head, failed_discovery_list_init, eui64);
}

void oruZb_cleanupFailedDiscoveryList() {
    {
        const discoveryLock lock(discovery_mutex);
        while (oruZb_node_t *item = failed_discovery_list_head.slh_first) {
            failed_discovery_list_head.slh_first = item->entries.sle_next;
            oruZb_freeMemory(item);
        }
    }
    ZB_LOG_INFO("%s: %s:Removed all devices from failed discovery list", ZB_DISCOVERY, __func__);
}

// ---------------------------------------------------------------------------------------------- contents of a node
static uint8_t endpointIndex(const oruZb_node_t *item, uint8_t endpoint) {
    const oruZbHal_endpointInfo_t *slots = item->device.device_info.endpoints;
    const oruZbHal_endpointInfo_t *found =
        std::find_if(slots, slots + ORU_ZB_HAL_MAX_ENDPOINTS,
                     [endpoint](const oruZbHal_endpointInfo_t &slot) { return slot.endpoint == endpoint; });
    return found == slots + ORU_ZB_HAL_MAX_ENDPOINTS ? NO_ENDPOINT_INDEX : static_cast<uint8_t>(found - slots);
}

uint8_t oruZb_getIndexFromEndpoint(oruZb_node_t *item, uint8_t endpoint) {
    if (item == nullptr) {
        return NO_ENDPOINT_INDEX;
    }
    const discoveryLock lock(discovery_mutex);
    return endpointIndex(item, endpoint);
}

oru_status_t oruZb_deviceSetEndpoints(oruZb_node_t *item, const uint8_t *endpoint_list, uint8_t endpoint_count) {
    if (item == nullptr || endpoint_list == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const discoveryLock lock(discovery_mutex);
    oruZbHal_deviceInfoCore_t &info = item->device.device_info;
    memset(info.endpoints, 0xFF, sizeof(info.endpoints));
    info.endpoint_count = std::min<uint8_t>(endpoint_count, ORU_ZB_HAL_MAX_ENDPOINTS);
    for (uint8_t i = 0; i < info.endpoint_count; i++) {
        info.endpoints[i].endpoint = endpoint_list[i];
        info.endpoints[i].cluster_count = 0;
    }
    return ORU_STATUS_OK;
}

// Member by member: the filler byte of each entry keeps its 0xFF, it is stored and published with the record. The
// client (output) clusters come first, so a device with too many of them loses server (input) clusters.
static void fillClusters(oruZbHal_endpointInfo_t &slot, const oruZbHal_clusterList_t &list) {
    const uint8_t clients = std::min(list.out_cluster_count, slot.cluster_count);
    for (uint8_t i = 0; i < slot.cluster_count; i++) {
        const bool server = i >= clients;
        slot.clusters[i].cluster_id = server ? list.in_cluster_list[i - clients] : list.out_cluster_list[i];
        slot.clusters[i].server = server ? 1 : 0;
    }
}

oru_status_t oruZb_setClustersForEndpoint(oruZb_node_t *item, const oruZbHal_clusterList_t *cluster_list) {
    if (item == nullptr || cluster_list == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const discoveryLock lock(discovery_mutex);
    const uint8_t index = endpointIndex(item, cluster_list->endpoint);
    if (index >= item->device.device_info.endpoint_count) { // a slot beyond the count is not in use, whatever it holds
        ZB_LOG_ERROR("%s: endpoint %d does not exist for device", ZB_DISCOVERY, cluster_list->endpoint);
        return ORU_STATUS_NOT_FOUND;
    }
    oruZbHal_endpointInfo_t &slot = item->device.device_info.endpoints[index];
    slot.profile_id = cluster_list->profile_id;
    slot.device_id = cluster_list->device_id;
    slot.cluster_count = static_cast<uint8_t>(cluster_list->in_cluster_count + cluster_list->out_cluster_count);
    if (slot.cluster_count > ORU_ZB_HAL_MAX_CLUSTERS) {
        ZB_LOG_INFO("%s: Too many clusters (%d) for endpoint in the node=0x%4.4x. Limiting to %d", ZB_DISCOVERY,
                    slot.cluster_count, slot.device_id, ORU_ZB_HAL_MAX_CLUSTERS);
        slot.cluster_count = ORU_ZB_HAL_MAX_CLUSTERS;
    }
    fillClusters(slot, *cluster_list);
    return ORU_STATUS_OK;
}

oru_status_t oruZb_setManufacturerCodeAndCapability(oruZb_node_t *item, uint16_t manufacturer_code,
                                                    uint8_t capability) {
    if (item == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const discoveryLock lock(discovery_mutex);
    item->device.manufacturer_code = manufacturer_code;
    item->device.device_info.capabilities = capability;
    return ORU_STATUS_OK;
}
