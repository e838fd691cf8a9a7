// SPDX-License-Identifier: Apache-2.0
#include "zb_zdo.h"
#include "oru_zbhal.h"
#include "zb_gate.h"
#include "zb_log.h"
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

static constexpr size_t ZDO_FRAME_SIZE = 82; // sequence number and body
static constexpr size_t ZDO_BODY_SIZE = ZDO_FRAME_SIZE - 1;

std::atomic<uint8_t> zigbee_zdo_sequence{0};

static constexpr uint8_t lowByte(uint16_t value) {
    return static_cast<uint8_t>(value);
}
static constexpr uint8_t highByte(uint16_t value) {
    return static_cast<uint8_t>(value >> 8);
}

uint8_t oruZdo_getSeqNum() {
    return (zigbee_zdo_sequence.fetch_add(1) + 1) & 0x7F;
}

bool oruZb_isInternalZdoMessage(uint16_t zdo_command) {
    return zdo_command == ZDO_DEVICE_ANNCE || zdo_command == ZDO_NODE_DESC_RSP || zdo_command == ZDO_SIMPLE_DESC_RSP ||
           zdo_command == ZDO_ACTIVE_EP_RSP;
}

// Sequence and radius 0 leave both to the HAL: its own APS counter, its default radius.
static oruZbHal_apsFrame_t zdoApsFrame(uint16_t command_id) {
    oruZbHal_apsFrame_t aps_frame{};
    aps_frame.profile_id = ZDO_PROFILE_ID;
    aps_frame.cluster_id = command_id;
    aps_frame.options = ORU_ZB_HAL_APS_OPTION_ENABLE_ADDRESS_DISCOVERY | ORU_ZB_HAL_APS_OPTION_ENABLE_ROUTE_DISCOVERY |
                        ORU_ZB_HAL_APS_OPTION_RETRY;
    return aps_frame;
}

static void reportRefusal(oru_status_t status) {
    char text[32];
    (void)snprintf(text, sizeof(text), "0x%02x", static_cast<unsigned>(status));
    ZB_LOG_INFO("%s: zb_tx_failure, device info:%s", ZB_METRICS, text);
    oruZb_incApiErrorCount();
}

oru_status_t oruZb_sendZdoMessage(oruZbHal_nodeId_t node_id, uint16_t command_id, uint8_t *data, uint8_t len,
                                  oruZbHal_commandSentCallback_t callback) {
    if (data == nullptr) {
        ZB_LOG_ERROR("%s: %s(): Invalid data pointer.", ZB_SVC, __func__);
        return ORU_STATUS_NULL_POINTER;
    }
    if (len > ZDO_BODY_SIZE) {
        ZB_LOG_ERROR("%s: %s(): Invalid data len.", ZB_SVC, __func__);
        return ORU_STATUS_PARAM_OUT_OF_RANGE;
    }
    ZB_LOG_INFO("^T|^%s^^ %s: %s(): status %d 0x%4x, cmd 0x%x", ZB_HAL_PEER, ZB_SVC, __func__, 0, node_id, command_id);

    oruZbHal_apsFrame_t aps_frame = zdoApsFrame(command_id);
    std::array<uint8_t, ZDO_FRAME_SIZE> frame{};
    frame[0] = oruZdo_getSeqNum();
    std::copy_n(data, len, frame.begin() + 1);

    oruZb_incApiTxCount();
    const oru_status_t status =
        oruZbHal_sendZdoMessage(node_id, &aps_frame, frame.data(), static_cast<uint16_t>(len + 1), callback, 0);
    if (status != ORU_STATUS_OK) {
        reportRefusal(status);
    }
    return status;
}

oru_status_t oruZb_sendNodeDescriptorRequest(oruZbHal_nodeId_t target) {
    uint8_t body[] = {lowByte(target), highByte(target)};
    return oruZb_sendZdoMessage(target, ZDO_NODE_DESC_REQ, body, sizeof(body), oruZdo_sentCallback);
}

oru_status_t oruZb_sendSimpleDescriptorRequest(oruZbHal_nodeId_t target, uint8_t endpoint) {
    uint8_t body[] = {lowByte(target), highByte(target), endpoint};
    return oruZb_sendZdoMessage(target, ZDO_SIMPLE_DESC_REQ, body, sizeof(body), oruZdo_sentCallback);
}

oru_status_t oruZb_sendActiveEndpointsRequest(oruZbHal_nodeId_t target) {
    uint8_t body[] = {lowByte(target), highByte(target)};
    return oruZb_sendZdoMessage(target, ZDO_ACTIVE_EP_REQ, body, sizeof(body), oruZdo_sentCallback);
}

oru_status_t oruZb_sendBindingRequest(oruZbHal_nodeId_t target, uint8_t *payload, uint8_t payload_len) {
    return oruZb_sendZdoMessage(target, ZDO_BIND_REQ, payload, payload_len, oruZdo_sentCallback);
}

oru_status_t oruZb_sendNodeLeaveNetworkRequest(oruZbHal_nodeId_t target, uint8_t *device_address,
                                               uint8_t leave_request_flags) {
    if (device_address == nullptr) {
        ZB_LOG_ERROR("%s: %s(): Invalid data pointer.", ZB_SVC, __func__);
        return ORU_STATUS_NULL_POINTER;
    }
    uint8_t body[sizeof(oruZbHal_eui64_t) + 1];
    std::reverse_copy(device_address, device_address + sizeof(oruZbHal_eui64_t), body);
    body[sizeof(oruZbHal_eui64_t)] = leave_request_flags;
    return oruZb_sendZdoMessage(target, ZDO_MGMT_LEAVE_REQ, body, sizeof(body), oruZdo_sentCallback);
}

// The EUI-64 of zeros addresses whoever receives the request.
oru_status_t oruZb_sendBroadcastLeaveNetworkRequest(uint8_t leave_request_flags,
                                                    oruZbHal_commandSentCallback_t callback) {
    uint8_t body[sizeof(oruZbHal_eui64_t) + 1] = {};
    body[sizeof(oruZbHal_eui64_t)] = leave_request_flags;
    return oruZb_sendZdoMessage(static_cast<oruZbHal_nodeId_t>(ORU_ZB_BROADCAST_TYPE_ALL_DEVICE), ZDO_MGMT_LEAVE_REQ,
                                body, sizeof(body), callback);
}

void oruZdo_sentCallback(oruZbHal_outgoingMessageType_t type, uint16_t index_or_destination,
                         oruZbHal_apsFrame_t *aps_frame, uint16_t msg_len, [[maybe_unused]] uint8_t *message,
                         oruZbHal_clusterCommandStatus_t status, uint32_t request_id) {
    const oruZb_gatePass pass(oruZb_gatePass::For::callback);
    if (!pass) {
        return;
    }
    const bool failed = status != ORU_ZB_HAL_SUCCESS;
    if (aps_frame != nullptr) {
        ZB_LOG(failed ? ORU_LOG_ERROR : ORU_LOG_INFO,
               "^F|^%s^^ %s: %s(): status %d cluster/cmd sent status 0x%x, type %d, dest %x, msg_len %d "
               "aps_frame dest_ep %d, cluster_id %x, src_ep %d, seq_num 0x%x, requestID 0x%x",
               ZB_HAL_PEER, ZB_SVC, __func__, failed ? -1 : 0, static_cast<unsigned>(status), static_cast<int>(type),
               index_or_destination, msg_len, aps_frame->destination_endpoint, aps_frame->cluster_id,
               aps_frame->source_endpoint, aps_frame->sequence, request_id);
    }
    if (failed) {
        oruZb_logTxError(status);
    }
}
