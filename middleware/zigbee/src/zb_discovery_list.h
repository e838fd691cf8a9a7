// SPDX-License-Identifier: Apache-2.0
//
// The two lists of discovery and their nodes.
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
