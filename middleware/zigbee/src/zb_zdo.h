// SPDX-License-Identifier: Apache-2.0
//
// ZDO requests: the only place where ZDO frames are built.
//
// A request is a ZDO frame (transaction sequence number, then the body) in an APS frame of profile 0 between the two
// endpoints 0. No request waits: the HAL confirms every accepted frame once through its callback, and responses come
// back as incoming messages. Requests may be sent from the main thread and from the HAL's callback context.
//
// Result of every send: 0 when the HAL accepted the frame, the HAL's status when it refused it,
// ORU_STATUS_NULL_POINTER or ORU_STATUS_PARAM_OUT_OF_RANGE when there was nothing legal to send. Buffers stay with the
// caller and are not used after the call.
#pragma once
#include "zb_types.h"

enum : uint16_t { // ZDO cluster ids
    ZDO_NODE_DESC_REQ = 0x0002,
    ZDO_SIMPLE_DESC_REQ = 0x0004,
    ZDO_ACTIVE_EP_REQ = 0x0005,
    ZDO_DEVICE_ANNCE = 0x0013,
    ZDO_BIND_REQ = 0x0021,
    ZDO_MGMT_LEAVE_REQ = 0x0034,
    ZDO_NODE_DESC_RSP = 0x8002,
    ZDO_SIMPLE_DESC_RSP = 0x8004,
    ZDO_ACTIVE_EP_RSP = 0x8005,
    ZDO_MGMT_LEAVE_RSP = 0x8034,
};

// Flags of Mgmt_Leave_req. Bit 6, which would take the device's children along, is never used.
enum : uint8_t {
    ZDO_LEAVE = 0x00,
    ZDO_LEAVE_AND_REJOIN = 0x80,
};

// Zigbee broadcast addresses.
enum _oruZb_broadcastDestination_t : int32_t {
    ORU_ZB_BROADCAST_TYPE_ALL_DEVICE = 0xFFFF,
    ORU_ZB_BROADCAST_TYPE_NON_SLEEPING_DEVICE = 0xFFFD,
    ORU_ZB_BROADCAST_TYPE_ROUTER_DEVICE = 0xFFFC,
};

extern std::atomic<uint8_t> zigbee_zdo_sequence; // the last number drawn, before it is cut to 7 bits

oru_status_t oruZb_sendNodeDescriptorRequest(oruZbHal_nodeId_t target);
oru_status_t oruZb_sendSimpleDescriptorRequest(oruZbHal_nodeId_t target, uint8_t endpoint);
oru_status_t oruZb_sendActiveEndpointsRequest(oruZbHal_nodeId_t target);

// payload: the body of Bind_req exactly as it goes on the air, at most 81 bytes.
oru_status_t oruZb_sendBindingRequest(oruZbHal_nodeId_t target, uint8_t *payload, uint8_t payload_len);

// device_address: EUI-64 of the device that shall leave, most significant byte first.
oru_status_t oruZb_sendNodeLeaveNetworkRequest(oruZbHal_nodeId_t target, uint8_t *device_address,
                                               uint8_t leave_request_flags);

// Tells every device of the network to leave; callback runs in the HAL's context when the broadcast is out or failed.
oru_status_t oruZb_sendBroadcastLeaveNetworkRequest(uint8_t leave_request_flags,
                                                    oruZbHal_commandSentCallback_t callback);

// The common sender. data: len bytes of body, not null, at most 81 bytes.
oru_status_t oruZb_sendZdoMessage(oruZbHal_nodeId_t node_id, uint16_t command_id, uint8_t *data, uint8_t len,
                                  oruZbHal_commandSentCallback_t callback);

// The next ZDO transaction sequence number, 0 to 127; the first one is 1. Any thread.
uint8_t oruZdo_getSeqNum();

// Confirmation of every request but the broadcast leave, in the HAL's context. It only reports: a request that did not
// get out is repeated by whoever waits for its response.
void oruZdo_sentCallback(oruZbHal_outgoingMessageType_t type, uint16_t index_or_destination,
                         oruZbHal_apsFrame_t *aps_frame, uint16_t msg_len, uint8_t *message,
                         oruZbHal_clusterCommandStatus_t status, uint32_t request_id);

// Whether the service itself handles incoming frames of this ZDO cluster; all others are passed on to clients.
bool oruZb_isInternalZdoMessage(uint16_t zdo_command);
