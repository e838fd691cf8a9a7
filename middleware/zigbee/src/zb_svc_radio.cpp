// SPDX-License-Identifier: Apache-2.0
//
// Radio on and off, transmit power, region, factory reset; leaving: one device, all devices, the coordinator itself.
// The adapter answers later through its stack status, which moves the adapter state and tells clients.
#include "zb_svc_radio.h"
#include "zb_database_kvs.h"
#include "zb_database_list.h"
#include "zb_format.h"
#include "zb_gate.h"
#include "zb_log.h"
#include "zb_queue.h"
#include "zb_region_info.h"
#include "zb_reply.h"
#include "zb_state.h"
#include "zb_zdo.h"
#include <cstdio>

namespace {

void publishCurrentState() {
    (void)oruZb_publishEvent(oruZb_adapterStateToEventID(adapter_state), nullptr, 0); // logged there
}

oru_status_t moveTo(oruZb_adapterState_t state, const char *operation) {
    const oru_status_t status = oruZb_setAdapterState(state);
    if (status != ORU_STATUS_OK && status != ORU_STATUS_ALREADY_EXISTS) {
        ZB_LOG_WARN("%s: %s(): setting adapter state failed: status=%d", ZB_SVC, operation, status);
    }
    return status;
}

void forgetAllDevices() {
    (void)oruZb_databaseRemoveAll(); // both log their own failures; the list goes even when the store keeps its records
    (void)oruZb_databaseDeInit();
}

} // namespace

oru_status_t oruZb_doEnableRadio(oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id) {
    oru_status_t status = ORU_STATUS_OK;
    if (adapter_state == ORU_ZB_ADAPTER_OFF) {
        status = oruZbHal_enable();
        if (status != ORU_STATUS_OK) {
            ZB_LOG_ERROR("%s: %s(): failed to send ORU_ZB_SVC_ADAPTER_ENABLE_RADIO request: status=%d", ZB_SVC,
                         __func__, status);
        } else {
            status = moveTo(ORU_ZB_ADAPTER_TURNING_ON, __func__);
        }
    } else {
        publishCurrentState();
    }
    oruZb_asyncCallResultCallback(status, client_id, callback_id);
    return status;
}

oru_status_t oruZb_doDisableRadio(oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id) {
    const oruZb_adapterState_t state = adapter_state;
    if (state == ORU_ZB_ADAPTER_OFF || state == ORU_ZB_ADAPTER_TURNING_OFF) {
        publishCurrentState(); // the event is the whole answer: there is no callback in this case
        return ORU_STATUS_OK;
    }
    oru_status_t status = oruZbHal_disable();
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): failed to send ORU_ZB_SVC_ADAPTER_DISABLE_RADIO request: status=%d", ZB_SVC, __func__,
                     status);
    } else {
        status = moveTo(ORU_ZB_ADAPTER_TURNING_OFF, __func__);
    }
    oruZb_asyncCallResultCallback(status, client_id, callback_id);
    return status;
}

oru_status_t oruZb_doSetTxPower(oruZb_powerLevel_t *power_level) {
    if (power_level == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const oru_status_t status = oruZbHal_setRadioPower(power_level->power);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): oruZbHal_setRadioPower (%d) failed: status=%d", ZB_SVC, __func__, power_level->power,
                     status);
    }
    char text[8];
    (void)snprintf(text, sizeof text, "%d", power_level->power);
    ZB_LOG_INFO("%s: zb_tx_power: %s", ZB_METRICS, text);
    return status;
}

oru_status_t oruZb_doSetRegion(const char *region) {
    oruZb_testWithoutQEL(true); // from now on the client's word counts: no more retries of the country-code step
    return oruZb_setRegionCode(region);
}

oru_status_t oruZb_doReset(oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id) {
    const oru_status_t status = oruZbHal_factoryReset();
    if (status == ORU_STATUS_OK) {
        (void)oruZb_publishEvent(ORU_ZB_SVC_ADAPTER_RESETTING, nullptr, 0); // logged there
        forgetAllDevices();
    } else {
        ZB_LOG_ERROR("%s: %s(): failed to send ORU_ZB_SVC_ADAPTER_RESET request: status=%d", ZB_SVC, __func__, status);
    }
    oruZb_asyncCallResultCallback(status, client_id, callback_id);
    return status;
}

oru_status_t oruZb_doClearNetwork(oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id) {
    oru_status_t status = ORU_STATUS_OK;
    if (oruZb_databaseGetDeviceCount() > 0) {
        status = oruZb_sendBroadcastLeaveNetworkRequest(0, oruZdo_broadcastLeaveCallback);
        if (status != ORU_STATUS_OK) {
            ZB_LOG_ERROR("%s: %s(): Failed to send broadcast leave request: status %d", ZB_SVC, __func__, status);
        }
    } else {
        status = oruZb_leaveHelper();
    }
    oruZb_asyncCallResultCallback(status, client_id, callback_id);
    return status;
}

void oruZdo_broadcastLeaveCallback(oruZbHal_outgoingMessageType_t type, uint16_t index_or_destination,
                                   oruZbHal_apsFrame_t *aps_frame, uint16_t msg_len, uint8_t * /*message*/,
                                   oruZbHal_clusterCommandStatus_t cmd_status, uint32_t request_id) {
    const oruZb_gatePass pass(oruZb_gatePass::For::callback);
    if (!pass) {
        return;
    }
    const bool failed = cmd_status != ORU_ZB_HAL_SUCCESS;
    if (aps_frame != nullptr) {
        ZB_LOG(failed ? ORU_LOG_ERROR : ORU_LOG_INFO,
               "^F|^%s^^ %s: %s(): status %d Broadcast leave cmd sent status 0x%x, type %d, dest 0x%x, msg_len %d "
               "aps_frame dest_ep %d, cluster_id %x, src_ep %d, seq_num 0x%x, requestID 0x%x",
               ZB_HAL_PEER, ZB_SVC, __func__, failed ? -1 : 0, static_cast<unsigned>(cmd_status), type,
               index_or_destination, msg_len, aps_frame->destination_endpoint, aps_frame->cluster_id,
               aps_frame->source_endpoint, aps_frame->sequence, request_id);
    }
    if (failed) {
        oruZb_logTxError(cmd_status);
    }
    // Whether or not the broadcast was delivered: the coordinator leaves in any case.
    const PostResult leave = postMessage(ORU_ZB_SVC_INTERNAL_NETWORK_LEAVE);
    if (leave.step == PostStep::no_item) {
        ZB_LOG_ERROR("%s: %s: item oruMP_alloc/(mp_zb_msgl_handle/) failed.", ZB_SVC, __func__);
    } else if (leave.step == PostStep::refused) {
        ZB_LOG_ERROR("%s: %s(): Cannot post msg to mainthread %d", ZB_SVC, __func__, leave.status);
    }
}

oru_status_t oruZb_leaveHelper() {
    const oru_status_t status = oruZbHal_leaveNetwork();
    if (status == ORU_STATUS_OK) {
        forgetAllDevices();
    } else {
        ZB_LOG_ERROR("%s: %s(): oruZbHal_leaveNetwork() failed: status %d", ZB_SVC, __func__, status);
    }
    return status;
}

oru_status_t oruZb_doAsyncPing(oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id) {
    const oruZb_pingResponse_t answer{"apong"};
    (void)oruZb_oipcCallback(client_id, callback_id, &answer, sizeof answer); // logged there
    return ORU_STATUS_OK;
}

oru_status_t oruZb_doSendNodeLeaveRequest(oruZb_nodeInfo_t *node, oruOipc_nodeId_t client_id,
                                          oruOipc_functionId_t callback_id) {
    if (node == nullptr) {
        oruZb_asyncCallResultCallback(ORU_STATUS_NULL_POINTER, client_id, callback_id);
        return ORU_STATUS_NULL_POINTER;
    }
    oruZb_device_t device{};
    oru_status_t status = oruZb_databaseGetDevice(node->id, &device);
    if (status != ORU_STATUS_OK) {
        return status; // an unknown node id is not answered
    }
    ZB_LOG_INFO("%s: %s: Removing %4.4x from network\n", ZB_SVC, __func__, node->id);
    status = oruZb_sendNodeLeaveNetworkRequest(node->id, node->device_info.eui64, 0);
    if (status == ORU_STATUS_OK) {
        oruZb_handleDeviceLeft(node->device_info.eui64);
    }
    oruZb_asyncCallResultCallback(status, client_id, callback_id);
    return status;
}

void oruZb_handleDeviceLeft(uint8_t *eui64) {
    if (eui64 == nullptr) {
        return;
    }
    oruZb_device_t device{};
    if (oruZb_databaseGetDeviceByEui64(eui64, &device) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: Device not found in DB mac_id(last 2 bytes)=%2.2x%2.2x", ZB_SVC, __func__, eui64[6],
                     eui64[7]);
        return;
    }
    ZB_LOG_INFO("%s: %s: removing %4.4x from DB", ZB_SVC, __func__, device.node_id);
    const oru_status_t status = oruZb_databaseRemoveLeftDevice(&device);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: Failed to remove device from database, status:%d", ZB_SVC, __func__, status);
        return;
    }
    (void)oruZb_publishEvent(ORU_ZB_SVC_DEVICE_LEFT, &device, sizeof device); // logged there
    ZB_LOG_INFO("%s: zb_db_remove, EUI:%s", ZB_METRICS, ouiText(device.device_info.eui64).c_str());
}
