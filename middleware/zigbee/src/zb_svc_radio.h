// SPDX-License-Identifier: Apache-2.0
//
// Radio power, region, leave, clear, reset. Main thread unless stated otherwise.
#pragma once
#include "zb_types.h"

oru_status_t oruZb_doEnableRadio(oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id);
oru_status_t oruZb_doDisableRadio(oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id);
oru_status_t oruZb_doSetTxPower(oruZb_powerLevel_t *power_level);
oru_status_t oruZb_doSetRegion(const char *region);
oru_status_t oruZb_doReset(oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id);
oru_status_t oruZb_doClearNetwork(oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id);
void oruZdo_broadcastLeaveCallback(oruZbHal_outgoingMessageType_t type, uint16_t index_or_destination,
                                   oruZbHal_apsFrame_t *aps_frame, uint16_t msg_len, uint8_t *message,
                                   oruZbHal_clusterCommandStatus_t cmd_status, uint32_t request_id); // HAL context
oru_status_t oruZb_leaveHelper();
oru_status_t oruZb_doAsyncPing(oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id);
oru_status_t oruZb_doSendNodeLeaveRequest(oruZb_nodeInfo_t *node, oruOipc_nodeId_t client_id,
                                          oruOipc_functionId_t callback_id);
void oruZb_handleDeviceLeft(uint8_t *eui64);
