// SPDX-License-Identifier: Apache-2.0
//
// Joins, rejoins and announces.
//
// Threads, locks and EUI-64s as in zb_discovery_list.h.
#pragma once
#include "zb_types.h"

// A report of the trust centre. parent_of_new_node and decision are not used. HAL
void oruZb_handleTrustCenterCallback(uint16_t new_node_id, uint8_t *new_node_eui64, uint16_t parent_of_new_node,
                                     oruZbHal_deviceUpdate_t status, oruZbHal_joinDecision_t decision);

// A Device_annce frame with its sequence byte. Too short: logged and ignored.
void oruZb_handleDeviceAnnounce(uint8_t *message, uint16_t length);

// Whether the joining mode excludes the device: only allowlisted devices are let in, and it is not one. HAL
bool oruZb_ignoreDeviceForDiscovery(uint8_t *mac_address);

// Has the main thread remove a database record, of which address and EUI-64 are copied into the message. 0,
// ORU_STATUS_NULL_POINTER, ORU_STATUS_OUT_OF_MEMORY, or the status of the post. HAL
oru_status_t oruZb_postDeviceLeftToMsgQueue(oruZb_device_t *device);

// What an announce says: a listed device gets address and capabilities, and its node is returned. Otherwise null; a
// device in the database gets the address, an unknown one is told to leave.
oruZb_node_t *oruZb_updateDiscoveryList(uint8_t *eui64, uint16_t node_id, uint8_t capabilities);
