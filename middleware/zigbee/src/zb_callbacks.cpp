// SPDX-License-Identifier: Apache-2.0
#include "zb_callbacks.h"
#include "zb_discovery_join.h"
#include "zb_format.h"
#include "zb_gate.h"
#include "zb_log.h"
#include "zb_queue.h"
#include "zb_reply.h"
#include "zb_zdo.h"
#include <algorithm>
#include <cstring>

void oruZb_halInitCallbacks(oruZbHal_callbacks_t *zb_hal_callbacks) {
    if (zb_hal_callbacks == nullptr) {
        return;
    }
    zb_hal_callbacks->stack_status_callback = oruZb_stackStatusCallback;
    zb_hal_callbacks->incoming_message_callback = oruZb_stackIncomingMsgCallback;
    zb_hal_callbacks->energy_scan_result_callback = oruZb_energyScanResultCallback;
    zb_hal_callbacks->network_found_callback = oruZb_networkFoundCallback;
    zb_hal_callbacks->scan_complete_callback = oruZb_scanCompleteCallback;
    zb_hal_callbacks->trust_center_callback = oruZb_trustCenterJoinCallback;
}

// A report is nobody's call: its record is zero but for its type and what was reported.
static void clearCaller(oruZb_msgData_t &msg) {
    msg.callback_client_id = 0;
    msg.callback_id = 0;
}

static PostResult postReport(oruZb_msgType_t msg_type, uint32_t value) {
    return postMessage(msg_type, [value](oruZb_msgData_t &msg) {
        clearCaller(msg);
        msg.msg_value32 = value;
        return ORU_STATUS_OK;
    });
}

void oruZb_stackStatusCallback(oruZbHal_stackStatus_t status) {
    const oruZb_gatePass pass(oruZb_gatePass::For::callback);
    if (!pass) {
        return;
    }
    ZB_LOG_INFO("^F|^%s^^ %s: %s(): status %d stack status: %d", ZB_HAL_PEER, ZB_SVC, __func__, 0, status);
    const PostResult report = postReport(ORU_ZB_SVC_INTERNAL_STACK_STATUS_CHANGE, static_cast<uint32_t>(status));
    if (report.step == PostStep::no_item) {
        ZB_LOG_ERROR("%s: item oruMP_alloc/(mp_zb_msgl_handle/) failed.", ZB_SVC);
    } else if (report.step == PostStep::refused) {
        ZB_LOG_ERROR("%s: Error: %s() cannot post stack callback msg to mainthread %d", ZB_SVC, __func__,
                     report.status);
    }
}

void oruZb_trustCenterJoinCallback(oruZbHal_nodeId_t node_id, uint8_t *new_node_eui64_little_endian,
                                   oruZbHal_nodeId_t parent_of_new_node, oruZbHal_deviceUpdate_t status,
                                   oruZbHal_joinDecision_t decision) {
    const oruZb_gatePass pass(oruZb_gatePass::For::callback);
    if (!pass) {
        return;
    }
    if (new_node_eui64_little_endian == nullptr) {
        ZB_LOG_ERROR("%s: %s: NULL pointer passed", ZB_SVC, __func__);
        return;
    }
    ZB_LOG_INFO("^F|^%s^^ %s: %s(): status %d node_id=0x%4.4x, mac_id(last 2 bytes)=%2.2x%2.2x, status %d, "
                "decision=%d ",
                ZB_HAL_PEER, ZB_SVC, __func__, 0, node_id, new_node_eui64_little_endian[1],
                new_node_eui64_little_endian[0], status, decision);
    oruZbHal_eui64_t eui64;
    std::reverse_copy(new_node_eui64_little_endian, new_node_eui64_little_endian + sizeof eui64, eui64);
    oruZb_handleTrustCenterCallback(node_id, eui64, parent_of_new_node, status, decision);
}

// Payload bytes that are really there: a HAL may report a length without bytes.
static uint16_t presentLength(const oruZbHal_incomingMessage_t *msg) {
    return msg->message != nullptr ? msg->msg_len : uint16_t{0};
}

// A pool block with the fixed part and the frame bytes; null when the pool is exhausted. size receives its length.
static oruZb_incomingStackMsg_t *copyIncomingMsg(const oruZbHal_incomingMessage_t *msg, size_t *size) {
    constexpr size_t fixed_size = offsetof(oruZb_incomingStackMsg_t, message);
    const uint16_t len = presentLength(msg);
    *size = fixed_size + len;
    void *const block = oruMp_allocSize(mp_zb_var_handle.load(), *size);
    if (block == nullptr) {
        return nullptr;
    }
    memset(block, 0, fixed_size);
    auto *const copy = static_cast<oruZb_incomingStackMsg_t *>(block);
    copy->type = msg->type;
    copy->aps_frame = *msg->aps_frame;
    copy->msg_len = len;
    copy->source = msg->source;
    copy->last_hop_lqi = msg->last_hop_lqi;
    copy->last_hop_rssi = msg->last_hop_rssi;
    copy->binding_table_index = msg->binding_table_index;
    copy->address_table_index = msg->address_table_index;
    copy->network_index = msg->network_index;
    if (len > 0) {
        memcpy(static_cast<uint8_t *>(block) + fixed_size, msg->message, len);
    }
    return copy;
}

static PostResult queueZdoMsg(const oruZbHal_incomingMessage_t *msg) {
    return postMessage(ORU_ZB_SVC_INTERNAL_INCOMING_ZDO_MESSAGE, [msg](oruZb_msgData_t &data) {
        size_t size = 0;
        clearCaller(data);
        data.incoming_msg = copyIncomingMsg(msg, &size);
        data.msg_data_len = static_cast<uint32_t>(size);
        data.param_type = ORU_ZB_SVC_PARAM_IN_POINTER_ALLOCED;
        return data.incoming_msg != nullptr ? ORU_STATUS_OK : ORU_STATUS_OUT_OF_MEMORY;
    });
}

static void publishIncomingMsg(const oruZbHal_incomingMessage_t *msg) {
    const uint16_t len = std::min(presentLength(msg), ORU_ZB_MAX_PAYLOAD);
    oruZb_clusterCmd_t record{};
    record.src_node = msg->source;
    record.cluster_id = msg->aps_frame->cluster_id;
    record.profile_id = msg->aps_frame->profile_id;
    record.dest_ep = msg->aps_frame->destination_endpoint;
    record.src_ep = msg->aps_frame->source_endpoint;
    record.payload_len = len;
    record.confirmation_id = msg->aps_frame->sequence;
    if (len > 0) {
        memcpy(record.payload, msg->message, len);
    }
    oruZb_dumpPacket("<< ", &record);
    oruZb_publishEvent(ORU_ZB_SVC_INCOMING_MSG, &record, sizeof record);
}

bool oruZb_stackIncomingMsgCallback(const oruZbHal_incomingMessage_t *msg) {
    const oruZb_gatePass pass(oruZb_gatePass::For::callback);
    if (!pass) {
        return false;
    }
    if (msg == nullptr || msg->aps_frame == nullptr) {
        ZB_LOG_ERROR("%s: %s(): Invalid incoming message!", ZB_SVC, __func__);
        return false;
    }
    const oruZbHal_apsFrame_t *const aps = msg->aps_frame;
    if (msg->message != nullptr) {
        const int seq = msg->msg_len >= 2 ? msg->message[1] : 0;
        ZB_LOG_INFO("^F|^%s^^ %s: %s(): status %d node_id 0x%4.4x, cluster_id %x, seq %d", ZB_HAL_PEER, ZB_SVC,
                    __func__, 0, msg->source, aps->cluster_id, seq);
    }
    oruZb_incApiRxCount();
    if (aps->profile_id == ZDO_PROFILE_ID && oruZb_isInternalZdoMessage(aps->cluster_id)) {
        ZB_LOG_INFO("^F|^%s^^ %s: %s(): status %d profile_id %d", ZB_HAL_PEER, ZB_SVC, __func__, 0, aps->profile_id);
        const PostResult queued = queueZdoMsg(msg);
        if (queued.step == PostStep::no_item) {
            ZB_LOG_ERROR("%s: %s(): item oruMP_alloc(mp_zb_msgl_handle) failed.", ZB_SVC, __func__);
        } else if (queued.step == PostStep::not_filled) {
            ZB_LOG_ERROR("%s: %s(): msg_data oruMP_allocSize(mp_zb_var_handle) failed.", ZB_SVC, __func__);
        } else if (queued.step == PostStep::refused) {
            ZB_LOG_ERROR("%s: Error: %s() cannot post msg to mainthread %d", ZB_SVC, __func__, queued.status);
        }
        return queued.step == PostStep::posted;
    }
    if (presentLength(msg) > ORU_ZB_MAX_PAYLOAD) {
        ZB_LOG_WARN("%s: %s(): message of %d bytes from 0x%4.4x cut to %d", ZB_SVC, __func__, presentLength(msg),
                    msg->source, ORU_ZB_MAX_PAYLOAD);
    }
    publishIncomingMsg(msg);
    return true;
}

void oruZb_energyScanResultCallback(uint8_t channel, int8_t max_rssi_value) {
    const oruZb_gatePass pass(oruZb_gatePass::For::callback);
    if (pass) {
        ZB_LOG_INFO("%s: %s(): channel %d, rssi %d", ZB_SVC, __func__, channel, max_rssi_value);
    }
}

void oruZb_networkFoundCallback(oruZbHal_network_t *network, uint8_t last_hop_lqi, int8_t last_hop_rssi) {
    const oruZb_gatePass pass(oruZb_gatePass::For::callback);
    if (!pass) {
        return;
    }
    if (network == nullptr) {
        ZB_LOG_ERROR("%s: %s: NULL pointer passed", ZB_SVC, __func__);
        return;
    }
    const uint8_t *const epan_id = network->extended_pan_id;
    ZB_LOG_INFO("%s: %s(), epan_id: %2.2x%2.2x%2.2x%2.2x%2.2x%2.2x%2.2x%2.2x,channel: %d, association permission: %d, "
                "lqi: %d, rssi: %d",
                ZB_SVC, __func__, epan_id[0], epan_id[1], epan_id[2], epan_id[3], epan_id[4], epan_id[5], epan_id[6],
                epan_id[7], network->channel, network->allowing_join, last_hop_lqi, last_hop_rssi);
}

void oruZb_scanCompleteCallback(uint8_t channel, oru_status_t status) {
    const oruZb_gatePass pass(oruZb_gatePass::For::callback);
    if (pass) {
        ZB_LOG_INFO("%s: %s(): channel %d, status %d", ZB_SVC, __func__, channel, status);
    }
}

void oruZb_sendInterpanCallback(oru_status_t status) {
    const oruZb_gatePass pass(oruZb_gatePass::For::callback);
    if (!pass) {
        return;
    }
    ZB_LOG(status == ORU_STATUS_OK ? ORU_LOG_INFO : ORU_LOG_ERROR, "^F|^%s^^ %s: %s(): status %d ", ZB_HAL_PEER, ZB_SVC,
           __func__, status);
    const PostResult report = postReport(ORU_ZB_SVC_INTERNAL_SEND_INTERPAN_CALLBACK, static_cast<uint32_t>(status));
    if (report.step == PostStep::no_item) {
        ZB_LOG_ERROR("%s: item oruMP_alloc/(mp_zb_msgl_handle/) failed.", ZB_SVC);
    } else if (report.step == PostStep::refused) {
        ZB_LOG_ERROR("%s: Error: %s() cannot post msg to mainthread", ZB_SVC, __func__);
    }
}
