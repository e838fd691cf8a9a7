// SPDX-License-Identifier: Apache-2.0
//
// The state machine that interrogates one device at a time, and its timers.
//
// Threads, locks and EUI-64s as in zb_discovery_list.h.
#pragma once
#include "zb_types.h"

// Posts an internal message without payload: 0, ORU_STATUS_OUT_OF_MEMORY, or the status of the post.
oru_status_t oruZb_discoveryPostServerMsg(oruZb_msgType_t function_id);

// The next begin-discovery step, counted from now; 0 runs it before returning (main thread only). HAL
void oruZb_scheduleBeginDiscovery(int timeout_ms);
void oruZb_scheduleServiceDiscovery(int timeout_ms); // time-out of the request under way, counted from now

oru_status_t oruZb_handleBeginDiscovery();   // starts the next device if none is current; always 0
oru_status_t oruZb_handleServiceDiscovery(); // the response timer expired; always 0
void oruZb_performDiscoveryAction();         // posts the message that sends the current device's request

// Send the request: the HAL's status, or ORU_STATUS_NULL_POINTER without a current device. The second returns
// ORU_STATUS_GENERAL_ERROR when no endpoint is left to ask.
oru_status_t oruZb_handleRequestActiveEndpoints();
oru_status_t oruZb_handleRequestSimpleDescriptor();
oru_status_t oruZb_handleRequestNodeDescriptor();

// Responses. 0: taken. Anything else changes nothing, and the response timer keeps running:
//   ORU_STATUS_NULL_POINTER          no frame
//   ORU_STATUS_CANCELED              no device is current, or the frame is from another node
//   ORU_STATUS_DEVICE_STATE_INVALID  the current device was not asked this
//   ORU_STATUS_DATA_LEN_INVALID      too short for what it announces, or of a length it cannot have
//   ORU_STATUS_GENERAL_ERROR         more than 37 clusters in one list of a simple descriptor
oru_status_t oruZb_handleActiveEndpointsResponse(uint8_t *message, uint16_t length);
oru_status_t oruZb_handleSimpleDescriptorResponse(uint8_t *message, uint16_t length);
oru_status_t oruZb_handleNodeDescriptorResponse(uint8_t *message, uint16_t length);

// Stores a device in the database and announces it to clients, the latter also when it could not be stored. The
// database's status, or ORU_STATUS_NULL_POINTER.
oru_status_t oruZb_notifyDeviceDiscovered(oruZbHal_deviceInfo_t *device);
