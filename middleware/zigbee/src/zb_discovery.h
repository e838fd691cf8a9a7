// SPDX-License-Identifier: Apache-2.0
//
// Device discovery: lists, joins, interrogation of new devices, recovery of those that did not answer.
//   zb_discovery_list.cpp      the two lists, their nodes
//   zb_discovery_join.cpp      trust-centre reports and announces
//   zb_discovery.cpp           the state machine that interrogates one device at a time, and its timers
//   zb_discovery_recovery.cpp  leave requests to devices whose discovery failed
//
// Everything runs on the main thread, except the trust-centre reports and what they call, which run in the HAL's
// callback context (marked HAL below). Every operation locks the lists itself and holds no lock while it sends, posts,
// publishes or waits. EUI-64s are 8 bytes, most significant byte first; they stay with the caller.
#pragma once
#include "zb_types.h"

extern oruZb_nodeList discovery_list_head; // all of these are guarded by discovery_mutex (zb_discovery_list.cpp)
extern int discovery_list_init;
extern oruZb_nodeList failed_discovery_list_head;
extern int failed_discovery_list_init;
extern oruZb_node_t *current_discovery_item; // the device being interrogated, a member of the discovery list, or null
extern std::atomic<uint32_t> device_fail_to_join_counter; // joins whose discovery has not completed

// ---------------------------------------------------------------------------------------------------- lists and nodes
// Nodes belong to their list. A pointer into the discovery list is good on the main thread until that thread
// deletes the node; one into the failed-discovery list says no more than that the device was there, for the HAL may
// remove it.

// MAC capability flags of the Zigbee specification; 0, as after a join, counts as sleepy.
bool oruZb_isSleepyEndDevice(uint8_t capabilities);

uint32_t oruZb_getCurrentTimeSec();                     // platform clock; 0 when it cannot be read. Any thread
uint32_t oruZb_determineExpiryTime(oruZb_node_t *item); // seconds: 10 from now for a sleepy device, else 3; null: 0

// Puts the node in the state, with a new expiry time and no retries. Null: nothing.
void oruZb_prepareForDiscoveryState(oruZb_node_t *item, oruZb_device_discovery_state state);

// Null when not listed. HAL
oruZb_node_t *oruZb_findNodeDiscoveryList(const uint8_t *eui64);
oruZb_node_t *oruZb_findNodeFailedDiscoveryList(const uint8_t *eui64);

// The new node, still without a state. Null when out of memory, and for a device that is listed already: its address is
// updated and its discovery goes on as it was.
oruZb_node_t *oruZb_addToDiscoveryList(uint8_t *eui64, uint16_t node_id, uint8_t capabilities);

// What an announce says: a listed device gets address and capabilities, and its node is returned. Otherwise null; a
// device in the database gets the address, an unknown one is told to leave.
oruZb_node_t *oruZb_updateDiscoveryList(uint8_t *eui64, uint16_t node_id, uint8_t capabilities);

// 0; ORU_STATUS_UNINITIALIZED when nothing was ever listed; ORU_STATUS_NOT_FOUND. The first ends the interrogation of
// the current device. The second: HAL
oru_status_t oruZb_deleteFromDiscoveryList(uint8_t *eui64);
oru_status_t oruZb_deleteFromFailedDiscoveryList(uint8_t *eui64);

// Enters a device for recovery, or starts its recovery anew. Null when out of memory.
oruZb_node_t *oruZb_addOrUpdateToFailedDiscoveryList(uint8_t *eui64, uint16_t node_id, uint8_t capabilities);

void oruZb_cleanupFailedDiscoveryList(); // frees every node of the failed-discovery list

void oruZb_markExpiredNodesReady(); // NEW to READY for nodes whose expiry second has passed
// Makes the first READY node current and returns it; null, current node unchanged, when there is none.
oruZb_node_t *oruZb_getNextItemForDiscovery();

// Slot 0 to 4 that holds the endpoint, used or not; 255 when there is none.
uint8_t oruZb_getIndexFromEndpoint(oruZb_node_t *item, uint8_t endpoint);

// Store parts of a response in a node: 0, ORU_STATUS_NULL_POINTER, or ORU_STATUS_NOT_FOUND for an endpoint that the
// device did not list. At most 5 endpoints and 35 clusters for each are kept, client clusters first; the lists stay
// with the caller.
oru_status_t oruZb_deviceSetEndpoints(oruZb_node_t *item, const uint8_t *endpoint_list, uint8_t endpoint_count);
oru_status_t oruZb_setClustersForEndpoint(oruZb_node_t *item, const oruZbHal_clusterList_t *cluster_list);
oru_status_t oruZb_setManufacturerCodeAndCapability(oruZb_node_t *item, uint16_t manufacturer_code, uint8_t capability);

// Posts an internal message without payload: 0, ORU_STATUS_OUT_OF_MEMORY, or the status of the post.
oru_status_t oruZb_discoveryPostServerMsg(oruZb_msgType_t function_id);

// The next begin-discovery step, counted from now; 0 runs it before returning (main thread only). HAL
void oruZb_scheduleBeginDiscovery(int timeout_ms);
void oruZb_scheduleServiceDiscovery(int timeout_ms); // time-out of the request under way, counted from now

// ------------------------------------------------------------------------------------------- joins, rejoins, announces
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

// ------------------------------------------------------------------------------------------------------- interrogation
oru_status_t oruZb_handleBeginDiscovery();   // starts the next device if none is current; always 0
oru_status_t oruZb_handleServiceDiscovery(); // the response timer expired; always 0
void oruZb_performDiscoveryAction();         // posts the message that sends the current device's request

// Send the request: the HAL's status, or ORU_STATUS_NULL_POINTER without a current device. The second returns
// ORU_STATUS_GENERAL_ERROR when no endpoint is left to ask.
oru_status_t oruZb_handleRequestActiveEndpoints();
oru_status_t oruZb_handleRequestSimpleDescriptor();
oru_status_t oruZb_handleRequestNodeDescriptor();

// An incoming ZDO frame, its sequence byte included: the result of its handler, or ORU_STATUS_NOT_SUPPORTED for a
// cluster that has none.
oru_status_t oruZb_handleIncomingZdoMsg(uint16_t cluster_id, uint8_t *message, uint16_t msg_len);

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

// ------------------------------------------------------------------------------------------------------------ recovery
// One run: a leave request to the next device of the failed-discovery list, and the timer for the run after it.
void oruZb_handleDeviceRecovery();
