// SPDX-License-Identifier: Apache-2.0
//
// Intake of HAL callbacks. All of them run in the HAL's context: the main thread inside oruZbHal_processAction or
// oruZbHal_runEvents, or a thread of the HAL. They log, and then post to the main queue, publish to clients or call
// join handling; what they are given belongs to the HAL and is copied. Once the intake gate is closed they return at
// once.
#pragma once
#include "zb_types.h"

// Fills the six entries the service serves; version and device_announce_callback stay as they are (announcements
// arrive as ZDO messages). Main thread, before oruZbHal_init; the table must live as long as the process.
void oruZb_halInitCallbacks(oruZbHal_callbacks_t *zb_hal_callbacks);
// Posts ORU_ZB_SVC_INTERNAL_STACK_STATUS_CHANGE. Lost, with an error line, when no item is free or the post fails.
void oruZb_stackStatusCallback(oruZbHal_stackStatus_t status);
// Hands a join, rejoin or leave on to join handling with the EUI-64 turned most significant byte first. The decision
// is the HAL's own; the service only logs it.
void oruZb_trustCenterJoinCallback(oruZbHal_nodeId_t node_id, uint8_t *new_node_eui64_little_endian,
                                   oruZbHal_nodeId_t parent_of_new_node, oruZbHal_deviceUpdate_t status,
                                   oruZbHal_joinDecision_t decision);
// ZDO messages that discovery consumes are copied and queued, all others published as ORU_ZB_SVC_INCOMING_MSG (at most
// 100 payload bytes). True: taken; false: no record or APS frame, no pool block, or the post failed.
bool oruZb_stackIncomingMsgCallback(const oruZbHal_incomingMessage_t *msg);
// Scan results go to the log only. RSSI in dBm.
void oruZb_energyScanResultCallback(uint8_t channel, int8_t max_rssi_value);
void oruZb_networkFoundCallback(oruZbHal_network_t *network, uint8_t last_hop_lqi, int8_t last_hop_rssi);
void oruZb_scanCompleteCallback(uint8_t channel, oru_status_t status);
// Completion of one inter-PAN send: posts ORU_ZB_SVC_INTERNAL_SEND_INTERPAN_CALLBACK with the status.
void oruZb_sendInterpanCallback(oru_status_t status);
