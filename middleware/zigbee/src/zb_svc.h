// SPDX-License-Identifier: Apache-2.0
//
// Dispatch of queued messages and the handlers of client functions, by area:
//   zb_svc.cpp           dispatch of queued messages and of ZDO frames, ping answers, adapter-state query
//   zb_svc_adapter.cpp   HAL bring-up, stack status
//   zb_svc_network.cpp   formation, permit join, ZTS mode
//   zb_svc_radio.cpp     radio power, region, leave, clear, reset
//   zb_svc_interpan.cpp  inter-PAN exchange
//   zb_svc_command.cpp   throttled command send
//   zb_svc_query.cpp     network and device queries, PTA counters
// Unless stated otherwise everything runs on the main thread.
#pragma once
#include "zb_reply.h"
#include "zb_state.h"
#include "zb_types.h"

// Dispatch
//
// Handles at most the one message at the head of the queue: refuses network work while an inter-PAN exchange owns the
// radio, calls the handler, completes a synchronous call or releases the payload, removes the item. A lock failure
// ends the turn early; the message stays for a later one.
void oruZb_handleEvent();
// The semaphore a synchronous caller waits on; null for every other message and for a null record.
oruSemaphore_t *oruZb_isIpcSyncCall(oruZb_msgData_t *msg);
// Runs a synchronous call, stores the result in *return_status and then posts sem_sync_call, after which the payload
// and the status belong to the caller again. Results besides the handler's: ORU_STATUS_BUSY during an inter-PAN
// exchange, ORU_STATUS_NOT_SUPPORTED without a handler, ORU_STATUS_GENERAL_ERROR for the PTA option functions,
// ORU_STATUS_DATA_LEN_INVALID for a payload shorter than its record or a country code that does not end within it,
// ORU_STATUS_BAD_PARAM for a binding request without a node id or with a body above 255 bytes.
void oruZb_processSyncCall(oruZb_msgData_t *msg);
// Smallest legal payload of a client function in bytes; 0 when its handler works from the length or needs none. Of
// asynchronous functions it binds only a payload that is given. Any thread.
uint32_t oruZb_minPayloadLen(uint16_t function_id);
// Stores the present adapter state. ORU_STATUS_NULL_POINTER. IPC threads.
oru_status_t oruZb_doGetAdapterState(oruZb_adapterState_t *state);

// Bring-up
extern oruZbHal_callbacks_t zb_hal_callbacks;

// Brings the HAL up on the adapter at the device path, which must outlive the call only. ORU_STATUS_GENERAL_ERROR when
// the adapter is not off or the HAL refuses; the stack reports its progress later. Main thread, before the loop.
oru_status_t oruZb_halInit(char *device);
// Turns a report of the stack into state changes and events, the adapter event before the network event. Always 0.
oru_status_t oruZb_handleStackStatusChange(oruZbHal_stackStatus_t status);

// Formation and ping
// Channels are 11 to 26; bit n of a mask is channel n. Of the asynchronous handlers a refused argument is returned
// without calling the client back; otherwise the adapter's immediate answer is returned and sent to the client as a
// 4-byte status. That the network is up is reported later, by a stack status.

// channel_mask without the channels low to high. Only the low 8 bits of both ends count; an end outside 11 to 26
// leaves the mask as it is.
uint32_t oruZb_createChannelMask(const uint32_t low_channel_to_mask, const uint32_t high_channel_to_mask,
                                 uint32_t channel_mask);
// Channels by the coexistence hints, the default ones without any (null).
oru_status_t oruZb_doFormZ3Network(oruZb_coexParams_t *coex_params, oruOipc_nodeId_t client_id,
                                   oruOipc_functionId_t callback_id);
// One channel. ORU_STATUS_NULL_POINTER, ORU_STATUS_PARAM_OUT_OF_RANGE.
oru_status_t oruZb_doFormZ3NetworkManual(oruZb_channel_t *zigbee_channel, oruOipc_nodeId_t client_id,
                                         oruOipc_functionId_t callback_id);
oru_status_t oruZb_doPing(oruZb_pingResponse_t *echo, const char *resp); // main and IPC threads
// Describes the coordinator's application endpoint to the adapter. Not part of start-up: the adapter layer registers
// a default endpoint of its own.
oru_status_t oruZb_addEndpoint();

// Permit join and ZTS mode
// Opens (not 0) or closes joining for everybody, without a time limit. ORU_STATUS_GENERAL_ERROR when the adapter
// refuses; the state stays as it was then.
oru_status_t oruZb_doPermitJoin(int allow);
// Puts data_len / 26 records on the allowlist; the adapter learns of them when ZTS mode is enabled.
// ORU_STATUS_NULL_POINTER, ORU_STATUS_PARAM_OUT_OF_RANGE for 0 bytes, ORU_STATUS_OUT_OF_MEMORY at the first record that
// finds no memory (those before it stay).
oru_status_t oruZb_doZtsAddDevices(oruOipc_size_t data_len, oruZb_ztsDeviceInfoList_t *zts_device_info_list);
oru_status_t oruZb_doZtsClearDevices(); // always 0; joining stays as it is
// Hand all install codes to the adapter again and admit their devices, or stop admitting them (the allowlist stays).
// The adapter's answer is returned and sent to the client; joining for everybody is not touched.
oru_status_t oruZb_doZtsEnable(oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id);
oru_status_t oruZb_doZtsDisable(oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id);

// Radio power, leave, clear, reset
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

// Inter-PAN
extern oruTimer_t interpan_fail_timer;
extern uint8_t current_server_interpan_seq;

oru_status_t oruZb_doSendInterpan(oruZb_interpan_t *inter_pan, oruOipc_nodeId_t client_id,
                                  oruOipc_functionId_t callback_id);
void oruZb_doSendInterpanCallback(oru_status_t status);
void oruZb_sendInterpanCallbackFail(void *context); // timer thread

// Command send
extern oruSemaphore_t zb_throttle_sem;
extern std::atomic<uint32_t> burst_size;              // tokens, never 0
extern std::atomic<uint32_t> throttle_sem_timeout_ms; // wait for a token before going out without one

void oruZb_throttleInit(); // ends the process with status 1 on failure
oru_status_t oruZb_doSendClusterCmd(oruZb_clusterCmd_t *cluster_cmd, uint32_t cfmId);
oru_status_t oruZb_throttledSend(oruZb_clusterCmd_t *cluster_cmd, oruZbHal_apsFrame_t *aps_frame, uint32_t *cfmId);
oru_status_t oruZb_postTransaction(oruZb_txnListItem_t *item);
void oruZb_cmdSentCallback(oruZbHal_outgoingMessageType_t type, uint16_t index_or_destination,
                           oruZbHal_apsFrame_t *aps_frame, uint16_t msg_len, uint8_t *message,
                           oruZbHal_clusterCommandStatus_t status, uint32_t request_id); // HAL context
oru_status_t oruZb_setBurstSize(const uint32_t *burst_payload);
oru_status_t oruZb_setThrottleTimeout(const uint32_t *timeout_payload);

// Queries
// All of them give ORU_STATUS_NULL_POINTER for a null record. Records are filled in place; len is the payload's length
// in bytes.

// Always 0: without a network (without a key) the fields hold the fill values of oruZb_networkInfo_t.
oru_status_t oruZb_doGetNetworkInfo(oruZb_networkInfo_t *info);
// By list position, node id or EUI-64, as req->by says. ORU_STATUS_NOT_FOUND, or ORU_STATUS_GENERAL_ERROR for an
// unknown kind of key; the record stays as it was then.
oru_status_t oruZb_doGetDevice(oruZb_getDevice_t *req);
oru_status_t oruZb_doGetDeviceCount(oruZb_deviceCount_t *out);
// Fills every entry the payload holds, from list position node_index on, and advances node_index past each.
// ORU_STATUS_UNRECOVERABLE: all entries filled, more devices remain. ORU_STATUS_GENERAL_ERROR: the payload holds more
// entries than remain; those that do are filled. ORU_STATUS_DATA_LEN_INVALID: no room for node_index.
oru_status_t oruZb_doGetConnectedNodes(uint32_t len, oruZb_nodeInfoList_t *list);
// The result is that of the identity; a version that cannot be read is an empty text.
oru_status_t oruZb_doGetAdapterInfo(oruZb_adapterInfo_t *info);
// The coordinator itself. On failure only id, manufacturer_code and type are written.
oru_status_t oruZb_doGetLocalNodeInfo(oruZb_nodeInfo_t *node);
// Adapter tables, at most 255 entries, numbered from 1; entries beyond those the adapter has are not written. A payload
// too short for one entry gives 0 and is left alone. The status of the adapter; ORU_STATUS_NULL_POINTER also when there
// is no memory for the transfer.
oru_status_t oruZb_doGetChildren(uint32_t len, oruZb_childTableEntry_t *entries);
oru_status_t oruZb_doGetRoutes(uint32_t len, oruZb_routeTableEntry_t *entries);
oru_status_t oruZb_doGetNeighbors(uint32_t len, oruZb_neighborTableEntry_t *entries);
// Starts a scan; the status of the start is returned and sent to the client (not for a null scan). Results are logged.
oru_status_t oruZb_doScan(oruZb_scan_t *scan, oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id);
// Radio counters since they were last cleared; clear != 0 clears them in the same step.
oru_status_t oruZb_doGetPtaCounters(oruZb_counters_t *pta_counters, uint8_t clear);
