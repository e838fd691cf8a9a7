// SPDX-License-Identifier: Apache-2.0
//
// Interrogation of new devices, one at a time, on the main thread.
//
//            join, rejoin          10 to 20 s passed, or announce
//   (none) ---------------> +-------+ ----------------------> +-------+
//                           |  NEW  |                         | READY |  both: waiting, any number of devices
//                   +-----> +-------+                         +-------+
//                   |                                             |  no other device is current
//   ================|=============================================|==  below: the one current device
//                   |                                             v
//                   |                                       +-----------+
//                   |  joined again                         | ACTIVE_EP | --+
//                   |  while it was                         +-----------+   |
//                   |  being stored                               |         |
//                   |                                             v         |
//                   |                next endpoint, +---> +-------------+   |  four time-outs; after four answers
//                   |      or one that is unlisted  +---- | SIMPLE_DESC | --+  that cannot be stored, one
//                   |                                     +-------------+   |
//                   |                                             |  last   |
//                   |                                             v         |
//              +----------+                                 +-----------+   |
//   (none) <-- | FINISHED | <------------------------------ | NODE_DESC | --+--> failed-discovery list
//              +----------+    stored, clients are told     +-----------+
//
// Recovery of failed devices begins with a response time-out that finds no current device: 10 s after the failure, or
// after the last of the good interviews that follow it.
//
// FROM -> TO [function]; the REQUEST_ of the long names is left out
//   -           -> NEW          [oruZb_handleTrustCenterCallback]        join, or secured rejoin of a failed device
//   NEW         -> READY        [oruZb_handleDeviceAnnounce]             announce
//   NEW         -> READY        [oruZb_markExpiredNodesReady]            expiry_time passed
//   READY       -> ACTIVE_EP    [oruZb_handleBeginDiscovery]             becomes current
//   ACTIVE_EP   -> SIMPLE_DESC  [oruZb_handleActiveEndpointsResponse]    endpoints known
//   SIMPLE_DESC -> SIMPLE_DESC  [oruZb_handleSimpleDescriptorResponse]   clusters of one endpoint known, more to ask
//   SIMPLE_DESC -> SIMPLE_DESC  [oruZb_handleSimpleDescriptorResponse]   unlisted endpoint: asked again, three times
//   SIMPLE_DESC -> NODE_DESC    [oruZb_handleSimpleDescriptorResponse]   clusters of the last endpoint known
//   NODE_DESC   -> FINISHED     [oruZb_handleNodeDescriptorResponse]     stored, announced to clients, removed
//   FINISHED    -> NEW          [oruZb_releaseFinishedNode]              joined again meanwhile
//   any REQUEST -> same         [oruZb_handleServiceDiscovery]           no response for 10 s, at most three times
//   any REQUEST -> (failed)     [oruZb_handleServiceDiscovery]           no response after three failures of any kind
//
// Invariants (checkDiscoveryLocked checks what the lists show of them)
//   NEW, READY   not current; no request outstanding; num_retries is 0.
//   REQUEST_*    is current_discovery_item, the only node in any REQUEST state; its request was posted to the queue and
//                the response timer runs. The timer is stopped only by a response that belongs to the request, and
//                started again before that handler returns; after the last response for recovery only.
//   SIMPLE_DESC  endpoints are known; the one in slot endpoint_query_index is asked, the first that has not answered.
//                With no endpoints at all nothing is sent, and the device fails after four time-outs.
//   FINISHED     only inside oruZb_handleNodeDescriptorResponse.
// Every change of state but the one to FINISHED goes through oruZb_prepareForDiscoveryState, which restarts the count
// of retries. Handlers work on a copy of the current node: joins change addresses in the list from another thread.
#include "oru_time.h"
#include "zb_database_list.h"
#include "zb_discovery_internal.h"
#include "zb_discovery_interview.h"
#include "zb_discovery_list.h"
#include "zb_discovery_recovery.h"
#include "zb_format.h"
#include "zb_frame.h"
#include "zb_queue.h"
#include "zb_reply.h"
#include "zb_svc_radio.h"
#include "zb_timer.h"
#include "zb_zdo.h"
#include <algorithm>
#include <array>
#include <bit>

static constexpr uint8_t MAX_REQUEST_RETRIES = 3;
static constexpr uint8_t MAX_PARSED_CLUSTERS = 37;  // ids per list of a simple descriptor
static constexpr uint8_t ZIGBEE_3_0_REVISION = 21;  // stack compliance revisions above this are Zigbee 3.0
static constexpr unsigned SERVER_MASK_REVISION = 9; // the revision is in bits 9 to 15 of the server mask

// The message that makes the main loop send the request of a state; ORU_ZB_SVC_INVALID_MSG: the state has none.
static oruZb_msgType_t requestMessage(oruZb_device_discovery_state state) {
    switch (state) {
    case ORU_ZB_DEVICE_DISCOVERY_REQUEST_ACTIVE_ENDPOINTS:
        return ORU_ZB_SVC_INTERNAL_REQUEST_ACTIVE_ENDPOINTS;
    case ORU_ZB_DEVICE_DISCOVERY_REQUEST_SIMPLE_DESC:
        return ORU_ZB_SVC_INTERNAL_REQUEST_SIMPLE_DESCRIPTOR;
    case ORU_ZB_DEVICE_DISCOVERY_REQUEST_NODE_DESC:
        return ORU_ZB_SVC_INTERNAL_REQUEST_NODE_DESCRIPTOR;
    case ORU_ZB_DEVICE_DISCOVERY_NONE:
    case ORU_ZB_DEVICE_DISCOVERY_NEW:
    case ORU_ZB_DEVICE_DISCOVERY_READY:
    case ORU_ZB_DEVICE_DISCOVERY_FINISHED:
    case ORU_ZB_DEVICE_DISCOVERY_FAILED:
        break;
    }
    return ORU_ZB_SVC_INVALID_MSG;
}

// Slots of the current device whose simple descriptor is known, bit 0 the first; main thread, good from the
// Active_EP_rsp on.
static uint32_t answered_slots;

// --------------------------------------------------------------------------------------------- messages and scheduling
oru_status_t oruZb_discoveryPostServerMsg(oruZb_msgType_t function_id) {
    const PostResult result = postMessage(function_id);
    if (result.step == PostStep::no_item) {
        ZB_LOG_ERROR("%s: item oruMP_alloc/(mp_zb_msgl_handle/) failed.", ZB_DISCOVERY);
    } else if (result.step == PostStep::refused) {
        ZB_LOG_ERROR("%s: Error: %s cannot post msg to mainthread %d", ZB_DISCOVERY, __func__, result.status);
    }
    return result.status;
}

void oruZb_scheduleBeginDiscovery(int timeout_ms) {
    ZB_LOG_INFO("%s: oruZb_scheduleBeginDiscovery after %d ms", ZB_DISCOVERY, timeout_ms);
    if (timeout_ms != 0) {
        const oru_status_t status = oruTime_timerStart(&device_announce_timer, static_cast<uint32_t>(timeout_ms));
        if (status != ORU_STATUS_OK) {
            ZB_LOG_ERROR("%s: %s: deviceAnnounce timer start failed, status: %d", ZB_DISCOVERY, __func__, status);
        }
        return;
    }
    const oru_status_t status = oruTime_timerStop(&device_announce_timer);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: deviceAnnounce timer stop failed, status: %d", ZB_DISCOVERY, __func__, status);
    }
    oruZb_handleBeginDiscovery();
}

void oruZb_scheduleServiceDiscovery(int timeout_ms) {
    ZB_LOG_INFO("%s: oruZb_scheduleServiceDiscovery after %d ms", ZB_DISCOVERY, timeout_ms);
    if (oruTime_timerStart(&service_discovery_timer, static_cast<uint32_t>(timeout_ms)) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s serviceDiscovery timer start failed.", ZB_DISCOVERY, __func__);
    }
}

// --------------------------------------------------------------------------------------------- steps of the machine
// The current node keeps existing between scopes: only this thread frees it. Null when no device is current.
static oruZb_node_t *currentItem() {
    const std::lock_guard<std::mutex> lock(discovery_mutex);
    return current_discovery_item;
}

// Returns the new count, which stops at its highest value.
static uint8_t countRetry(oruZb_node_t *item) {
    const std::lock_guard<std::mutex> lock(discovery_mutex);
    if (item->action.num_retries < UINT8_MAX) {
        ++item->action.num_retries;
    }
    return item->action.num_retries;
}

static void requestAndAwait() {
    oruZb_performDiscoveryAction();
    oruZb_scheduleServiceDiscovery(DISCOVERY_WAIT_MS);
}

static void stopResponseTimer(const char *operation) {
    const oru_status_t status = oruTime_timerStop(&service_discovery_timer);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: service_discovery timer stop failed, status: %d", ZB_DISCOVERY, operation, status);
    }
}

static void logNotListed(const char *operation) {
    ZB_LOG_ERROR("%s: %s(): Failed to delete from discovery list, entry not found", ZB_DISCOVERY, operation);
}

oru_status_t oruZb_handleBeginDiscovery() {
    if (oruZb_discoveryListIsEmpty()) {
        return ORU_STATUS_OK;
    }
    ZB_LOG_INFO("%s: %s", ZB_DISCOVERY, __func__);
    oruZb_markExpiredNodesReady();
    oruZb_node_t *next = currentItem() == nullptr ? oruZb_getNextItemForDiscovery() : nullptr;
    if (next == nullptr) {
        oruZb_scheduleBeginDiscovery(DISCOVERY_WAIT_MS);
        return ORU_STATUS_OK;
    }
    oruZb_prepareForDiscoveryState(next, ORU_ZB_DEVICE_DISCOVERY_REQUEST_ACTIVE_ENDPOINTS);
    requestAndAwait();
    return ORU_STATUS_OK;
}

void oruZb_performDiscoveryAction() {
    oruZb_node_t current;
    if (!oruZb_copyCurrentItem(&current)) {
        return;
    }
    const oruZb_device_discovery_state state = current.action.discovery_state;
    ZB_LOG_INFO("%s: %s(): Discovery state=%d", ZB_DISCOVERY, __func__, static_cast<int>(state));
    const oruZb_msgType_t message = requestMessage(state);
    if (message == ORU_ZB_SVC_INVALID_MSG) {
        ZB_LOG_WARN("%s: %s(): Discovery state unsupported", ZB_DISCOVERY, __func__);
    }
    if (message == ORU_ZB_SVC_INVALID_MSG || oruZb_discoveryPostServerMsg(message) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s handling async function for %d", ZB_DISCOVERY, __func__, static_cast<int>(state));
    }
}

static void abandonCurrentItem() {
    oruZb_node_t failed;
    if (!oruZb_copyCurrentItem(&failed)) {
        return;
    }
    oruZbHal_deviceInfoCore_t &info = failed.device.device_info;
    oruZb_printDeviceError("Discovery failed", info.eui64);
    if (oruZb_addOrUpdateToFailedDiscoveryList(info.eui64, failed.device.node_id, info.capabilities) == nullptr) {
        oruZb_printDeviceError("oruZb_addOrUpdateToFailedDiscoveryList failed", info.eui64);
    }
    if (oruZb_deleteFromDiscoveryList(info.eui64) == ORU_STATUS_NOT_FOUND) {
        logNotListed("oruZb_handleServiceDiscovery");
    }
    {
        const std::lock_guard<std::mutex> lock(discovery_mutex);
        checkDiscoveryLocked();
    }
    oruZb_noteFailedDiscovery(info.eui64);
    oruZb_scheduleBeginDiscovery(0);
}

oru_status_t oruZb_handleServiceDiscovery() {
    oruZb_node_t *current = currentItem();
    if (current == nullptr || oruZb_discoveryListIsEmpty()) {
        if (!oruZb_failedDiscoveryListIsEmpty()) {
            oruZb_handleDeviceRecovery();
        }
        return ORU_STATUS_OK;
    }
    ZB_LOG_INFO("%s: %s", ZB_DISCOVERY, __func__);
    if (countRetry(current) > MAX_REQUEST_RETRIES) {
        abandonCurrentItem();
    }
    // Also after giving up: a device that has just become current is asked a second time, and with no device at all the
    // timer's next expiry starts recovery.
    requestAndAwait();
    return ORU_STATUS_OK;
}

// ------------------------------------------------------------------------------------------------------------ requests
oru_status_t oruZb_handleRequestActiveEndpoints() {
    oruZb_node_t current;
    if (!oruZb_copyCurrentItem(&current)) {
        ZB_LOG_ERROR("%s: %s Cannot send active endpoints request, current_discovery_item is NULL", ZB_DISCOVERY,
                     __func__);
        return ORU_STATUS_NULL_POINTER;
    }
    ZB_LOG_INFO("%s: %s 0x%x", ZB_DISCOVERY, __func__, current.device.node_id);
    const oru_status_t status = oruZb_sendActiveEndpointsRequest(current.device.node_id);
    if (status != ORU_STATUS_OK) {
        oruZb_printDeviceError("Failed to send active endpoint request", current.device.device_info.eui64);
    }
    return status;
}

oru_status_t oruZb_handleRequestSimpleDescriptor() {
    oruZb_node_t current;
    if (!oruZb_copyCurrentItem(&current)) {
        ZB_LOG_ERROR("%s: %s Cannot send simple descriptor request, current_discovery_item is NULL", ZB_DISCOVERY,
                     __func__);
        return ORU_STATUS_NULL_POINTER;
    }
    const oruZbHal_deviceInfoCore_t &info = current.device.device_info;
    if (current.action.endpoint_query_index >= info.endpoint_count) {
        ZB_LOG_WARN("%s: <WARNING> cannot send simple descriptor request. All endpoints are accounted for!",
                    ZB_DISCOVERY);
        return ORU_STATUS_GENERAL_ERROR;
    }
    const uint8_t endpoint = info.endpoints[current.action.endpoint_query_index].endpoint;
    ZB_LOG_INFO("%s: %s 0x%x, %d", ZB_DISCOVERY, __func__, current.device.node_id, endpoint);
    const oru_status_t status = oruZb_sendSimpleDescriptorRequest(current.device.node_id, endpoint);
    if (status != ORU_STATUS_OK) {
        oruZb_printDeviceError("Failed to send simple descriptor request", info.eui64);
    }
    return status;
}

oru_status_t oruZb_handleRequestNodeDescriptor() {
    oruZb_node_t current;
    if (!oruZb_copyCurrentItem(&current)) {
        ZB_LOG_ERROR("%s: %s Cannot send node descriptor request, current_discovery_item is NULL", ZB_DISCOVERY,
                     __func__);
        return ORU_STATUS_NULL_POINTER;
    }
    ZB_LOG_INFO("%s: %s 0x%x", ZB_DISCOVERY, __func__, current.device.node_id);
    const oru_status_t status = oruZb_sendNodeDescriptorRequest(current.device.node_id);
    if (status != ORU_STATUS_OK) {
        oruZb_printDeviceError("Failed to send node descriptor request", current.device.device_info.eui64);
    }
    return status;
}

// ----------------------------------------------------------------------------------------------------------- responses

// Slots of endpoints that the list names a second time: their first slot is the one that answers are stored in.
static uint32_t repeatedEndpoints(std::span<const uint8_t> endpoints) {
    uint32_t slots = 0;
    for (size_t i = 0; i < endpoints.size() && i < ORU_ZB_HAL_MAX_ENDPOINTS; i++) {
        const auto earlier = endpoints.first(i);
        slots |= std::ranges::find(earlier, endpoints[i]) != earlier.end() ? 1U << i : 0U;
    }
    return slots;
}

oru_status_t oruZb_handleActiveEndpointsResponse(uint8_t *message, uint16_t length) {
    if (message == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    oruZb_node_t current;
    if (!oruZb_copyCurrentItem(&current)) {
        ZB_LOG_WARN("%s: Ignore ActiveEndpointsResponse: No device currently being discovered", ZB_DISCOVERY);
        return ORU_STATUS_CANCELED;
    }
    if (current.action.discovery_state != ORU_ZB_DEVICE_DISCOVERY_REQUEST_ACTIVE_ENDPOINTS) {
        ZB_LOG_WARN("%s: Ignore ActiveEndpointsResponse: Not in REQUEST_ACTIVE_ENDPOINTS state", ZB_DISCOVERY);
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    oruZb_frameReader frame({message, length});
    frame.skip(2); // sequence number and status
    const uint16_t node_id = frame.u16();
    const uint8_t count = frame.u8();
    const std::span<const uint8_t> endpoints = frame.bytes(count);
    if (!frame.ok() || frame.left() != 0) {
        ZB_LOG_ERROR("%s: <ERROR> invalid length (%d != %d) for Active Endpoint response", ZB_DISCOVERY, count + 5,
                     length);
        return ORU_STATUS_DATA_LEN_INVALID;
    }
    if (node_id != current.device.node_id) {
        ZB_LOG_WARN("%s: Ignore ActiveEndpointsResponse: 0x%x not currently undergoing discovery. Active node:0x%04x",
                    ZB_DISCOVERY, node_id, current.device.node_id);
        return ORU_STATUS_CANCELED;
    }
    stopResponseTimer(__func__);
    ZB_LOG_INFO("%s: %s for node_id 0x%x", ZB_DISCOVERY, __func__, node_id);
    ZB_LOG_INFO("%s: Found %d active endpoints", ZB_DISCOVERY, count);
    oruZb_node_t *item = currentItem();
    if (oruZb_deviceSetEndpoints(item, endpoints.data(), count) != ORU_STATUS_OK) {
        oruZb_printDeviceError("Failed to set endpoints in device database", current.device.device_info.eui64);
        countRetry(item);
    } else {
        answered_slots = repeatedEndpoints(endpoints);
        oruZb_prepareForDiscoveryState(item, ORU_ZB_DEVICE_DISCOVERY_REQUEST_SIMPLE_DESC);
    }
    requestAndAwait();
    return ORU_STATUS_OK;
}

struct simpleDescriptor {
    uint16_t node_id;
    uint16_t profile_id;
    uint16_t device_id;
    uint8_t endpoint;
    uint8_t in_count;
    uint8_t out_count;
    std::array<uint16_t, MAX_PARSED_CLUSTERS> in;
    std::array<uint16_t, MAX_PARSED_CLUSTERS> out;
};

// 0; ORU_STATUS_GENERAL_ERROR for a list that is too long; ORU_STATUS_DATA_LEN_INVALID for a frame that does not hold
// what it announces, or whose length is even (with two-byte ids it never is).
static oru_status_t parseSimpleDescriptor(std::span<const uint8_t> bytes, simpleDescriptor &descriptor) {
    oruZb_frameReader frame(bytes);
    frame.skip(2); // sequence number and status
    descriptor.node_id = frame.u16();
    frame.skip(1); // descriptor length
    descriptor.endpoint = frame.u8();
    descriptor.profile_id = frame.u16();
    descriptor.device_id = frame.u16();
    frame.skip(1); // device version
    descriptor.in_count = frame.u8();
    if (!frame.ok()) {
        return ORU_STATUS_DATA_LEN_INVALID;
    }
    if (descriptor.in_count > descriptor.in.size()) {
        return ORU_STATUS_GENERAL_ERROR;
    }
    for (uint8_t i = 0; i < descriptor.in_count; i++) {
        descriptor.in[i] = frame.u16();
    }
    descriptor.out_count = frame.u8();
    if (!frame.ok()) {
        return ORU_STATUS_DATA_LEN_INVALID;
    }
    if (descriptor.out_count > descriptor.out.size()) {
        return ORU_STATUS_GENERAL_ERROR;
    }
    for (uint8_t i = 0; i < descriptor.out_count; i++) {
        descriptor.out[i] = frame.u16();
    }
    return frame.ok() && bytes.size() % 2 != 0 ? ORU_STATUS_OK : ORU_STATUS_DATA_LEN_INVALID;
}

// What a simple descriptor means for the interrogation.
enum class answerKind {
    first,     // of its endpoint
    repeated,  // late or doubled: stored, and nothing else changes
    unlisted,  // of an endpoint that the device did not list: a failure, asked again
    exhausting // such a failure after three others: the time-out ends it
};

static answerKind kindOfAnswer(oruZb_node_t &current, uint8_t endpoint) {
    const uint8_t slot = oruZb_getIndexFromEndpoint(&current, endpoint);
    if (slot < current.device.device_info.endpoint_count) {
        return (answered_slots >> slot & 1U) == 0 ? answerKind::first : answerKind::repeated;
    }
    return current.action.num_retries < MAX_REQUEST_RETRIES ? answerKind::unlisted : answerKind::exhausting;
}

// On to the first endpoint that has not answered, or to the node descriptor when all have.
static void moveOn(oruZb_node_t *item, uint8_t answered_endpoint) {
    answered_slots |= 1U << oruZb_getIndexFromEndpoint(item, answered_endpoint);
    const std::lock_guard<std::mutex> lock(discovery_mutex);
    const uint8_t count = item->device.device_info.endpoint_count;
    const auto next = std::min<uint8_t>(static_cast<uint8_t>(std::countr_one(answered_slots)), count);
    item->action.endpoint_query_index = next;
    oruZb_prepareForDiscoveryStateLocked(item, next < count ? ORU_ZB_DEVICE_DISCOVERY_REQUEST_SIMPLE_DESC
                                                            : ORU_ZB_DEVICE_DISCOVERY_REQUEST_NODE_DESC);
}

static void storeSimpleDescriptor(oruZb_node_t *item, simpleDescriptor &descriptor, answerKind kind) {
    const oruZbHal_clusterList_t clusters = {
        .in_cluster_count = descriptor.in_count,
        .in_cluster_list = descriptor.in.data(),
        .out_cluster_count = descriptor.out_count,
        .out_cluster_list = descriptor.out.data(),
        .profile_id = descriptor.profile_id,
        .device_id = descriptor.device_id,
        .endpoint = descriptor.endpoint,
    };
    if (oruZb_setClustersForEndpoint(item, &clusters) != ORU_STATUS_OK) {
        oruZb_printDeviceError("failed to set clusters in device database", item->device.device_info.eui64);
        countRetry(item);
    } else if (kind == answerKind::first) {
        moveOn(item, descriptor.endpoint);
    }
}

oru_status_t oruZb_handleSimpleDescriptorResponse(uint8_t *message, uint16_t length) {
    if (message == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    oruZb_node_t current;
    if (!oruZb_copyCurrentItem(&current)) {
        ZB_LOG_WARN("%s: Ignore SimpleDescriptorResponse: No device currently being discovered", ZB_DISCOVERY);
        return ORU_STATUS_CANCELED;
    }
    if (current.action.discovery_state != ORU_ZB_DEVICE_DISCOVERY_REQUEST_SIMPLE_DESC) {
        ZB_LOG_WARN("%s: Ignore SimpleDescriptorResponse: Not in REQUEST_SIMPLE_DESC state", ZB_DISCOVERY);
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    simpleDescriptor descriptor;
    const oru_status_t parsed = parseSimpleDescriptor({message, length}, descriptor);
    if (parsed == ORU_STATUS_GENERAL_ERROR) {
        ZB_LOG_ERROR("%s: <ERROR> invalid count of cluster", ZB_DISCOVERY);
        return parsed;
    }
    if (parsed != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: <ERROR> invalid length for Simple Descriptor response", ZB_DISCOVERY);
        return parsed;
    }
    if (descriptor.node_id != current.device.node_id) {
        ZB_LOG_WARN("%s: Ignore SimpleDescriptorResponse: 0x%x not currently undergoing discovery", ZB_DISCOVERY,
                    descriptor.node_id);
        return ORU_STATUS_CANCELED;
    }
    const answerKind kind = kindOfAnswer(current, descriptor.endpoint);
    const bool asks_again = kind == answerKind::first || kind == answerKind::unlisted;
    if (asks_again) {
        stopResponseTimer(__func__);
    }
    ZB_LOG_INFO("%s: %s for node_id 0x%x", ZB_DISCOVERY, __func__, descriptor.node_id);
    ZB_LOG_INFO("%s: Found %d server clusters and %d client clusters on EP %d", ZB_DISCOVERY, descriptor.in_count,
                descriptor.out_count, descriptor.endpoint);
    storeSimpleDescriptor(currentItem(), descriptor, kind);
    if (asks_again) {
        requestAndAwait();
    }
    return ORU_STATUS_OK;
}

struct nodeDescriptor {
    uint16_t node_id;
    uint16_t manufacturer_code;
    uint16_t server_mask;
    uint8_t capabilities;
};

// False: too short for the fields used.
static bool parseNodeDescriptor(std::span<const uint8_t> bytes, nodeDescriptor &descriptor) {
    oruZb_frameReader frame(bytes);
    frame.skip(2); // sequence number and status
    descriptor.node_id = frame.u16();
    frame.skip(2); // logical type, frequency band
    descriptor.capabilities = frame.u8();
    descriptor.manufacturer_code = frame.u16();
    frame.skip(3); // maximum buffer and incoming transfer sizes
    descriptor.server_mask = frame.u16();
    return frame.ok();
}

static void finishDevice(oruZb_node_t *item) {
    oruZb_node_t finished;
    {
        const std::lock_guard<std::mutex> lock(discovery_mutex);
        item->action.discovery_state = ORU_ZB_DEVICE_DISCOVERY_FINISHED;
        checkDiscoveryLocked();
        finished = *item;
    }
    oruZb_notifyDeviceDiscovered(&finished.device);
    uint8_t *eui64 = finished.device.device_info.eui64;
    switch (oruZb_releaseFinishedNode(eui64)) {
    case finishedNode::deleted:
        break;
    case finishedNode::missing:
        logNotListed("oruZb_handleNodeDescriptorResponse");
        break;
    case finishedNode::renewed_stored:
        oruZb_handleDeviceLeft(eui64);
        [[fallthrough]];
    case finishedNode::renewed:
        device_fail_to_join_counter.fetch_add(1); // a join that entered discovery
        break;
    }
}

static void logNodeDescriptor(const char *operation, const nodeDescriptor &descriptor) {
    const unsigned revision = static_cast<unsigned>(descriptor.server_mask) >> SERVER_MASK_REVISION;
    if (revision > ZIGBEE_3_0_REVISION) {
        ZB_LOG_INFO("%s: %s for node_id 0x%x. This is a Zigbee 3.0 device, stack compliance revision: R%d",
                    ZB_DISCOVERY, operation, descriptor.node_id, static_cast<int>(revision));
    } else {
        ZB_LOG_INFO("%s: %s for node_id 0x%x", ZB_DISCOVERY, operation, descriptor.node_id);
    }
}

oru_status_t oruZb_handleNodeDescriptorResponse(uint8_t *message, uint16_t length) {
    if (message == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    oruZb_node_t current;
    if (!oruZb_copyCurrentItem(&current)) {
        ZB_LOG_WARN("%s: Ignore NodeDescriptorResponse: No device currently being discovered", ZB_DISCOVERY);
        return ORU_STATUS_CANCELED;
    }
    if (current.action.discovery_state != ORU_ZB_DEVICE_DISCOVERY_REQUEST_NODE_DESC) {
        ZB_LOG_WARN("%s: Ignore NodeDescriptorResponse: Not in REQUEST_NODE_DESC state", ZB_DISCOVERY);
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    nodeDescriptor descriptor;
    if (!parseNodeDescriptor({message, length}, descriptor)) {
        ZB_LOG_ERROR("%s: <ERROR> invalid length for Node Descriptor response", ZB_DISCOVERY);
        return ORU_STATUS_DATA_LEN_INVALID;
    }
    if (descriptor.node_id != current.device.node_id) {
        ZB_LOG_INFO("%s: Ignore NodeDescriptorResponse: 0x%x not currently undergoing discovery. Active node:0x%04x",
                    ZB_DISCOVERY, descriptor.node_id, current.device.node_id);
        return ORU_STATUS_CANCELED;
    }
    stopResponseTimer(__func__);
    logNodeDescriptor(__func__, descriptor);
    oruZb_node_t *item = currentItem();
    if (oruZb_setManufacturerCodeAndCapability(item, descriptor.manufacturer_code, descriptor.capabilities) !=
        ORU_STATUS_OK) {
        oruZb_printDeviceError("Failed to set manufacturer code and capability for device",
                               current.device.device_info.eui64);
        countRetry(item);
    } else {
        finishDevice(item);
    }
    if (!oruZb_discoveryListIsEmpty()) {
        oruZb_scheduleBeginDiscovery(0);
    }
    // The answer has stopped the timer that recovery was waiting for.
    if (currentItem() == nullptr && !oruZb_failedDiscoveryListIsEmpty()) {
        oruZb_scheduleServiceDiscovery(DISCOVERY_WAIT_MS);
    }
    return ORU_STATUS_OK;
}

// -------------------------------------------------------------------------------------------------------------- result
static uint32_t countDiscovered() {
    uint32_t joining = device_fail_to_join_counter.load();
    while (joining > 0 && !device_fail_to_join_counter.compare_exchange_weak(joining, joining - 1)) {
    }
    return joining > 0 ? joining - 1 : 0;
}

oru_status_t oruZb_notifyDeviceDiscovered(oruZbHal_deviceInfo_t *device) {
    if (device == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    ZB_LOG_INFO("%s: %s node_id: 0x%x", ZB_DISCOVERY, __func__, device->node_id);
    oruZb_device_t record = {
        .node_id = device->node_id,
        .manufacturer_code = device->manufacturer_code,
        .device_info = device->device_info,
    };
    const oru_status_t status = oruZb_databaseAddDevice(&record);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: oruZb_databaseAddDevice failed for node_id: 0x%x, status:%d", ZB_DISCOVERY, __func__,
                     record.node_id, status);
    }
    oruZb_publishEvent(ORU_ZB_SVC_DEVICE_DISCOVERED, &record, sizeof(record));
    oruZb_databasePrintDevices();
    const uint32_t joining = countDiscovered();
    ZB_LOG_INFO("%s: zb_db_add, EUI:%s", ZB_METRICS, ouiText(record.device_info.eui64).c_str());
    ZB_LOG_INFO("%s: %s(): Device discovered notification, join failure count : %d", ZB_DISCOVERY, __func__,
                static_cast<int>(joining));
    return status;
}
