// SPDX-License-Identifier: Apache-2.0
//
// What a join, rejoin, departure or announce means for discovery.
//
// Trust-centre reports are handled in the HAL's callback context, not through the queue; announces on the main thread.
// Both touch the lists only under discovery_mutex and do everything else without it. A device is inserted and put in
// NEW in one scope: the main thread never sees a node without a state.
//
//   report            discovery list         failed list   database                 clients
//   unsecured join    added in NEW           removed       old record removed       DEVICE_JOINED
//    ... while listed address refreshed;     -             old record removed       -
//                     FINISHED: NEW
//   secured rejoin    -                      -             unknown: told to leave   known: DEVICE_SECURED_REJOIN
//    ... of a failed  added in NEW           removed       -                        DEVICE_SECURED_REJOIN
//   unsecured rejoin  -                      -             -                        DEVICE_UNSECURED_REJOIN
//   left              -                      removed       -                        -
//   announce          address, capabilities  -             unknown: told to leave;  -
//                     refreshed; NEW: READY                known: address updated
//
// While the database could not be loaded (database_incomplete) no device counts as unknown: it is neither known nor
// told to leave.
#include "zb_discovery_join.h"
#include "oru_mp.h"
#include "zb_database_kvs.h"
#include "zb_database_list.h"
#include "zb_discovery_internal.h"
#include "zb_discovery_interview.h"
#include "zb_discovery_list.h"
#include "zb_format.h"
#include "zb_frame.h"
#include "zb_queue.h"
#include "zb_reply.h"
#include "zb_state.h"
#include "zb_zdo.h"
#include "zb_zts.h"
#include <algorithm>

static constexpr char TRUST_CENTER_HANDLER[] = "oruZb_handleTrustCenterCallback"; // name in the log of its branches
static constexpr uint8_t UNKNOWN_CAPABILITIES = 0; // until the announce; counts as sleepy

bool oruZb_ignoreDeviceForDiscovery(uint8_t *mac_address) {
    return oruZb_getPjoinState() == ORU_ZB_HAL_STATE_ZTS_PJOIN_OPEN && !oruZb_ztsOnAllowlist(mac_address);
}

// ---------------------------------------------------------------------------------------------- stale database entries
static oru_status_t fillDeviceLeft(oruZb_msgData_t &msg, const oruZb_device_t &device) {
    auto *payload = static_cast<oruZb_nodeInfo_t *>(oruMp_allocSize(mp_zb_var_handle, sizeof(oruZb_nodeInfo_t)));
    if (payload == nullptr) {
        return ORU_STATUS_OUT_OF_MEMORY;
    }
    *payload = oruZb_nodeInfo_t{};
    payload->id = device.node_id;
    std::copy_n(device.device_info.eui64, sizeof(oruZbHal_eui64_t), payload->device_info.eui64);
    msg.param_type = ORU_ZB_SVC_PARAM_IN_POINTER_ALLOCED;
    msg.msg_data_ptr = payload;
    return ORU_STATUS_OK;
}

oru_status_t oruZb_postDeviceLeftToMsgQueue(oruZb_device_t *device) {
    if (device == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const PostResult result = postMessage(ORU_ZB_SVC_INTERNAL_DEVICE_LEFT,
                                          [device](oruZb_msgData_t &msg) { return fillDeviceLeft(msg, *device); });
    if (result.step == PostStep::no_item) {
        ZB_LOG_ERROR("%s: %s: oruMP_alloc failed.", ZB_DISCOVERY, __func__);
    } else if (result.step == PostStep::not_filled) {
        ZB_LOG_ERROR("%s: %s: oruMP_allocSize failed", ZB_DISCOVERY, __func__);
    } else if (result.step == PostStep::refused) {
        ZB_LOG_ERROR("%s: %s(): failed to post msg to mainthread %d", ZB_DISCOVERY, __func__, result.status);
    }
    return result.status;
}

// A device that joins afresh while the database still holds it. Its old record is removed on the main thread, later,
// but before the record of the new discovery is added. True: its removal is on its way.
static bool removeStaleEntry(uint8_t *eui64) {
    oruZb_device_t stored{};
    oruZb_databaseLoadMissing();
    if (oruZb_databaseGetDeviceByEui64(eui64, &stored) != ORU_STATUS_OK) {
        return false;
    }
    ZB_LOG_INFO("%s: %s(): Stale device entry found in DB. Last 2 bytes of mac_id: %2.2x%2.2x", ZB_DISCOVERY,
                TRUST_CENTER_HANDLER, eui64[6], eui64[7]);
    const oru_status_t status = oruZb_postDeviceLeftToMsgQueue(&stored);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): Could not post to message queue, status: %d", ZB_DISCOVERY, TRUST_CENTER_HANDLER,
                     status);
    }
    return status == ORU_STATUS_OK;
}

// ------------------------------------------------------------------------------------------------ trust-centre reports
static void deleteFailedDevice(uint8_t *eui64) {
    const oru_status_t status = oruZb_deleteFromFailedDiscoveryList(eui64);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): Failed to delete from failed_discovery_list, status: %d", ZB_DISCOVERY,
                     TRUST_CENTER_HANDLER, status);
    }
}

// False: already listed (its address is updated then) or out of memory.
static bool enterDiscovery(const uint8_t *eui64, uint16_t node_id, bool removal_queued) {
    const std::lock_guard<std::mutex> lock(discovery_mutex);
    oruZb_node_t *item = oruZb_addToDiscoveryListLocked(eui64, node_id, UNKNOWN_CAPABILITIES);
    if (item == nullptr) {
        oruZb_noteJoinOfFinishedNodeLocked(eui64, removal_queued);
        return false;
    }
    oruZb_prepareForDiscoveryStateLocked(item, ORU_ZB_DEVICE_DISCOVERY_NEW);
    return true;
}

static void handleUnsecuredRejoin(const oruZb_device_t &device) {
    const uint8_t *eui64 = device.device_info.eui64;
    ZB_LOG_INFO("%s: %s Unsecured rejoin detected for node 0x%4.4x, mac_id(last 2 bytes):%2.2x%2.2x", ZB_DISCOVERY,
                TRUST_CENTER_HANDLER, device.node_id, eui64[6], eui64[7]);
    oruZb_publishEvent(ORU_ZB_SVC_DEVICE_UNSECURED_REJOIN, &device, sizeof(device));
}

static void handleLeft(oruZb_device_t &device) {
    uint8_t *eui64 = device.device_info.eui64;
    ZB_LOG_INFO("%s: %s: Device left 0x%4.4x, mac_id(last 2 bytes):%2.2x%2.2x", ZB_DISCOVERY, TRUST_CENTER_HANDLER,
                device.node_id, eui64[6], eui64[7]);
    if (oruZb_findNodeFailedDiscoveryList(eui64) != nullptr) {
        deleteFailedDevice(eui64);
    }
}

// A device that nobody knows is told to leave.
static void sendAway(uint8_t *eui64, uint16_t node_id, const char *operation) {
    ZB_LOG_INFO("%s: %s(): Device NOT found in DB. Sending leave request to device, Last 2 bytes of mac_id: %2.2x%2.2x",
                ZB_DISCOVERY, operation, eui64[6], eui64[7]);
    const oru_status_t status = oruZb_sendNodeLeaveNetworkRequest(node_id, eui64, ZDO_LEAVE);
    if (status == ORU_STATUS_OK) {
        ZB_LOG_INFO("%s: %s(): Leave request sent successfully", ZB_DISCOVERY, operation);
    } else {
        ZB_LOG_ERROR("%s: %s(): Failed to send leave request: %d", ZB_DISCOVERY, operation, status);
    }
}

static void restartFailedDiscovery(oruZb_device_t &device) {
    uint8_t *eui64 = device.device_info.eui64;
    ZB_LOG_INFO("%s: %s: Device Rejoin, Restart device discovery for 0x%4.4x, mac_id(last 2 bytes):%2.2x%2.2x",
                ZB_DISCOVERY, TRUST_CENTER_HANDLER, device.node_id, eui64[6], eui64[7]);
    if (enterDiscovery(eui64, device.node_id, false)) {
        deleteFailedDevice(eui64);
        oruZb_scheduleBeginDiscovery(DISCOVERY_WAIT_MS);
    }
}

static void handleSecuredRejoin(oruZb_device_t &device) {
    uint8_t *eui64 = device.device_info.eui64;
    ZB_LOG_INFO("%s: %s Secured rejoin detected for node 0x%4.4x, mac_id(last 2 bytes):%2.2x%2.2x", ZB_DISCOVERY,
                TRUST_CENTER_HANDLER, device.node_id, eui64[6], eui64[7]);
    oruZb_device_t stored{};
    if (oruZb_findNodeFailedDiscoveryList(eui64) != nullptr) {
        restartFailedDiscovery(device);
    } else if (const oru_status_t status = oruZb_databaseFindOrLoad(eui64, &stored); status != ORU_STATUS_OK) {
        if (status != ORU_STATUS_TRY_AGAIN) {
            sendAway(eui64, device.node_id, TRUST_CENTER_HANDLER);
        }
        return;
    }
    oruZb_publishEvent(ORU_ZB_SVC_DEVICE_SECURED_REJOIN, &device, sizeof(device));
}

static void handleUnsecuredJoin(oruZb_device_t &device) {
    uint8_t *eui64 = device.device_info.eui64;
    if (oruZb_ignoreDeviceForDiscovery(eui64)) {
        ZB_LOG_WARN("%s: %s(): Ignored device 0x%4.4x. Last 2 bytes of mac_id: %2.2x%2.2x. Not allowed in ZTS permit "
                    "join mode",
                    ZB_DISCOVERY, TRUST_CENTER_HANDLER, device.node_id, eui64[6], eui64[7]);
        return;
    }
    const bool removal_queued = removeStaleEntry(eui64);
    ZB_LOG_INFO("%s: %s(): Device join for node_id: 0x%x, mac_id(last 2 bytes):%2.2x%2.2x", ZB_DISCOVERY,
                TRUST_CENTER_HANDLER, device.node_id, eui64[6], eui64[7]);
    if (!enterDiscovery(eui64, device.node_id, removal_queued)) {
        return;
    }
    device_fail_to_join_counter.fetch_add(1);
    oruZb_scheduleBeginDiscovery(DISCOVERY_WAIT_MS);
    oruZb_publishEvent(ORU_ZB_SVC_DEVICE_JOINED, &device, sizeof(device));
    ZB_LOG_INFO("%s: zb_trustcenter_join:,EUI:%s", ZB_METRICS, ouiText(eui64).c_str());
    if (oruZb_findNodeFailedDiscoveryList(eui64) != nullptr) {
        deleteFailedDevice(eui64);
    }
}

void oruZb_handleTrustCenterCallback(uint16_t new_node_id, uint8_t *new_node_eui64,
                                     [[maybe_unused]] uint16_t parent_of_new_node, oruZbHal_deviceUpdate_t status,
                                     [[maybe_unused]] oruZbHal_joinDecision_t decision) {
    if (new_node_eui64 == nullptr) {
        ZB_LOG_ERROR("%s: Error: %s report without EUI-64 for node 0x%4.4x", ZB_DISCOVERY, __func__, new_node_id);
        return;
    }
    oruZb_device_t device{}; // the event's payload
    device.node_id = new_node_id;
    std::copy_n(new_node_eui64, sizeof(oruZbHal_eui64_t), device.device_info.eui64);
    switch (status) {
    case ORU_ZB_HAL_STANDARD_SECURITY_UNSECURED_REJOIN:
        return handleUnsecuredRejoin(device);
    case ORU_ZB_HAL_DEVICE_LEFT:
        return handleLeft(device);
    case ORU_ZB_HAL_STANDARD_SECURITY_SECURED_REJOIN:
        return handleSecuredRejoin(device);
    case ORU_ZB_HAL_STANDARD_SECURITY_UNSECURED_JOIN:
        return handleUnsecuredJoin(device);
    }
    ZB_LOG_ERROR("%s: Error: %s Unsupported join type! 0x%x", ZB_DISCOVERY, __func__, static_cast<unsigned>(status));
}

// ---------------------------------------------------------------------------------------------------- device announce
static void updateStoredNodeId(uint8_t *eui64, uint16_t node_id, uint16_t stored_node_id) {
    const oru_status_t status = oruZb_databaseUpdateNodeId(eui64, node_id);
    if (status == ORU_STATUS_OK) {
        ZB_LOG_INFO("%s: Device node ID updated from 0x%4.4x to 0x%4.4x in DB", ZB_DISCOVERY, stored_node_id, node_id);
    } else {
        ZB_LOG_ERROR("%s: Unable to update device node ID in DB, status:%d", ZB_DISCOVERY, status);
    }
}

static oruZb_node_t *refreshListedNode(const uint8_t *eui64, uint16_t node_id, uint8_t capabilities) {
    const std::lock_guard<std::mutex> lock(discovery_mutex);
    oruZb_node_t *item = discovery_list_init != 0 ? oruZb_findNodeLocked(discovery_list_head, eui64) : nullptr;
    if (item != nullptr) {
        item->device.node_id = node_id;
        item->device.device_info.capabilities = capabilities;
    }
    return item;
}

oruZb_node_t *oruZb_updateDiscoveryList(uint8_t *eui64, uint16_t node_id, uint8_t capabilities) {
    if (eui64 == nullptr) {
        return nullptr;
    }
    if (oruZb_node_t *item = refreshListedNode(eui64, node_id, capabilities)) {
        return item;
    }
    oruZb_device_t stored{};
    const oru_status_t status = oruZb_databaseFindOrLoad(eui64, &stored);
    if (status == ORU_STATUS_TRY_AGAIN) {
        return nullptr;
    }
    if (status != ORU_STATUS_OK) {
        sendAway(eui64, node_id, __func__);
    } else if (stored.node_id != node_id) {
        updateStoredNodeId(eui64, node_id, stored.node_id);
    }
    return nullptr;
}

static bool makeReadyIfNew(oruZb_node_t *item) {
    const std::lock_guard<std::mutex> lock(discovery_mutex);
    const bool is_new = item->action.discovery_state == ORU_ZB_DEVICE_DISCOVERY_NEW;
    if (is_new) {
        oruZb_prepareForDiscoveryStateLocked(item, ORU_ZB_DEVICE_DISCOVERY_READY);
    }
    return is_new;
}

void oruZb_handleDeviceAnnounce(uint8_t *message, uint16_t length) {
    oruZb_frameReader frame({message, message != nullptr ? length : size_t{0}});
    frame.skip(1); // ZDO sequence number
    const uint16_t node_id = frame.u16();
    oruZbHal_eui64_t eui64;
    frame.eui64(eui64);
    const uint8_t capabilities = frame.u8();
    if (!frame.ok()) {
        ZB_LOG_ERROR("%s: %s(): invalid length %d for device announce", ZB_DISCOVERY, __func__, length);
        return;
    }
    ZB_LOG_INFO("%s: %s(): for node 0x%x, mac_id(last 2 bytes):%2.2x%2.2x", ZB_DISCOVERY, __func__, node_id, eui64[6],
                eui64[7]);
    // The node stays valid after the look-up: nodes of the discovery list are freed on this thread only.
    oruZb_node_t *item = oruZb_updateDiscoveryList(eui64, node_id, capabilities);
    if (item != nullptr && makeReadyIfNew(item)) {
        oruZb_scheduleBeginDiscovery(0);
    }
    ZB_LOG_INFO("%s: zb_device_announce, EUI:%s", ZB_METRICS, ouiText(eui64).c_str());
}
