// SPDX-License-Identifier: Apache-2.0
#pragma once
#include "oru_status.h"
#include "oru_zbhal_types.h"

// ---------------------------------------------------------------- callbacks
typedef void (*oruZbHal_commandSentCallback_t)(oruZbHal_outgoingMessageType_t type, uint16_t index_or_destination,
                                               oruZbHal_apsFrame_t *aps_frame, uint16_t msg_len, uint8_t *message,
                                               oruZbHal_clusterCommandStatus_t status, uint32_t request_id);
typedef void (*oruZbHal_interpanSentCallback_t)(oru_status_t status);

struct oruZbHal_callbacks_t { // fields in this order
    uint8_t version;          // the service leaves 0
    void (*stack_status_callback)(oruZbHal_stackStatus_t status);
    void (*device_announce_callback)(oruZbHal_nodeId_t node_id, uint8_t *eui64); // the service leaves it empty
    bool (*incoming_message_callback)(const oruZbHal_incomingMessage_t *message);
    void (*energy_scan_result_callback)(uint8_t channel, int8_t max_rssi_value);
    void (*network_found_callback)(oruZbHal_network_t *network, uint8_t last_hop_lqi, int8_t last_hop_rssi);
    void (*scan_complete_callback)(uint8_t channel, oru_status_t status);
    void (*trust_center_callback)(oruZbHal_nodeId_t node_id, uint8_t *eui64_little_endian, oruZbHal_nodeId_t parent,
                                  oruZbHal_deviceUpdate_t status, oruZbHal_joinDecision_t decision);
};

// ---------------------------------------------------------------- operations
extern "C" {
// life cycle (process entry, adapter state, radio power and leave, inter-PAN)
oru_status_t oruZbHal_init(oruZbHal_callbacks_t *callbacks, int32_t *event_descriptor);
oru_status_t oruZbHal_setAdapterName(char *device);
oru_status_t oruZbHal_enable(void);
oru_status_t oruZbHal_disable(void);
oru_status_t oruZbHal_reset(void);
oru_status_t oruZbHal_factoryReset(void);
oru_status_t oruZbHal_processAction(void);
oru_status_t oruZbHal_runEvents(uint32_t max_wait_ms);
oru_status_t oruZbHal_echo(uint32_t count);

// network (adapter state, formation, radio power and leave, region, queries)
oru_status_t oruZbHal_formNetworkAuto(uint8_t mode, uint32_t primary_channel_mask, uint32_t secondary_channel_mask,
                                      uint8_t final_channel, oruZbHal_region_t region);
oru_status_t oruZbHal_addEndpoint(uint8_t endpoint, uint16_t profile_id, uint16_t device_id, uint8_t device_version,
                                  uint8_t input_cluster_count, uint8_t output_cluster_count,
                                  const uint16_t *input_clusters, const uint16_t *output_clusters);
oru_status_t oruZbHal_leaveNetwork(void);
oru_status_t oruZbHal_getNetworkInfo(oruZbHal_networkParameters_t *params);
oru_status_t oruZbHal_setRadioPower(int8_t power);
oru_status_t oruZbHal_setRegion(oruZbHal_region_t region);

// joining and keys (permit join, queries)
oru_status_t oruZbHal_permitJoinNetwork(bool allow);
oru_status_t oruZbHal_permitJoinZts(bool enable);
oru_status_t oruZbHal_addInstallCode(uint8_t *eui64_little_endian, uint8_t *install_code, uint8_t length);
oru_status_t oruZbHal_clearTransientLinkKeys(void);
oru_status_t oruZbHal_getKeyTableEntry(uint8_t index, oruZbHal_keyStruct_t *entry);
oru_status_t oruZbHal_getKey(oruZbHal_keyType_t type, oruZbHal_keyStruct_t *key);

// sending (inter-PAN, command send, ZDO requests)
oru_status_t oruZbHal_sendZclUnicast(oruZbHal_nodeId_t node_id, oruZbHal_apsFrame_t *aps_frame, uint8_t *payload,
                                     uint16_t payload_len, oruZbHal_commandSentCallback_t callback,
                                     uint32_t *request_id);
oru_status_t oruZbHal_sendZdoMessage(oruZbHal_nodeId_t node_id, oruZbHal_apsFrame_t *aps_frame, uint8_t *frame,
                                     uint16_t frame_len, oruZbHal_commandSentCallback_t callback, uint32_t request_id);
oru_status_t oruZbHal_sendRawInterpanMessageOnChannels(uint32_t channel_mask, oruZbHal_interpanHeader_t *header,
                                                       uint8_t *zcl_frame, uint8_t zcl_frame_len,
                                                       oruZbHal_interpanSentCallback_t callback);

// queries and counters (diagnostics, queries)
oru_status_t oruZbHal_getFwVersion(uint8_t *version, uint8_t *count);
oru_status_t oruZbHal_getAdapterInfo(oruZbHal_adapterInfo_t *info);
oru_status_t oruZbHal_startScan(uint8_t type, uint32_t channel_mask, uint8_t duration);
oru_status_t oruZbHal_getChildren(oruZbHal_childTableEntry_t *entries, uint8_t *count);
oru_status_t oruZbHal_getRouteTableEntries(oruZbHal_routeTableEntry_t *entries, uint8_t *count);
oru_status_t oruZbHal_getNeighbors(oruZbHal_neighborTableEntry_t *entries, uint8_t *count);
oru_status_t oruZbHal_getDebugCounters(oruZbHal_counters_t *counters);
oru_status_t oruZbHal_getAndClearDebugCounters(oruZbHal_counters_t *counters);
}
