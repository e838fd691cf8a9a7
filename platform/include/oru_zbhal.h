// SPDX-License-Identifier: Apache-2.0
//
// Zigbee HAL: the Zigbee stack on the radio adapter, as the service sees it.
//
// Modes. oruZbHal_init stores a descriptor (descriptor mode) or leaves -1 (thread mode); the configuration decides.
//   descriptor mode  Callbacks come only from inside oruZbHal_processAction and oruZbHal_runEvents, on the thread that
//                    calls them (the main thread).
//   thread mode      Callbacks come from one dispatcher thread of the layer, one at a time. They may begin before
//                    oruZbHal_init returns.
//
// Callbacks. Never from inside any other operation; no lock of the layer is held; any operation may be called from a
// callback, and none of them delivers another callback. What the arguments point to belongs to the layer and is valid
// until the callback returns. No report is dropped: when the service does not take them, the radio is held back.
//
// Operations. Thread-safe; none waits for a callback to return; each ends within a bounded time. What arguments point
// to belongs to the caller and is copied before the operation returns. Unless stated otherwise they return
//    0                                 done, or accepted where the end is reported later
//   -4 ORU_STATUS_OUT_OF_MEMORY        no memory to be had, or no room as stated at the operation
//   -9 ORU_STATUS_NULL_POINTER         a pointer that is needed is null; nothing has happened
//  -10 ORU_STATUS_PARAM_OUT_OF_RANGE   an argument is outside its range; nothing has happened
//  -25 ORU_STATUS_UNINITIALIZED        before a successful oruZbHal_init and oruZbHal_enable
//  -10005 ORU_STATUS_DEVICE_STATE_INVALID   not possible in the present state of the stack
// and any adapter may answer with a further non-zero status of its own. Records are written on success only.
//
// Byte order. EUI-64s are least significant byte first. The extended PAN id, table entries and key bytes are handed
// over as the adapter holds them. Numbers are in host order.
#pragma once
#include "oru_status.h"
#include "oru_zbhal_types.h"

// ---------------------------------------------------------------- callbacks

// Confirmation of one accepted send; comes exactly once, also when the adapter is reset, disabled, leaves its network
// or fails (then with a failure such as ORU_ZB_HAL_NWK_FRAME_NOT_BUFFERED).
//   type                  ORU_ZB_HAL_OUTGOING_DIRECT or ORU_ZB_HAL_OUTGOING_BROADCAST
//   index_or_destination  the node id that the frame was sent to
//   aps_frame             copy of the frame, with the APS counter and the radius used; never null
//   msg_len, message      the payload that was sent, without the APS header; message is never null
//   status                0: delivered (acknowledged end to end when that was asked for), else an APS, NWK or MAC code
//   request_id            exactly the value the send was made with
typedef void (*oruZbHal_commandSentCallback_t)(oruZbHal_outgoingMessageType_t type, uint16_t index_or_destination,
                                               oruZbHal_apsFrame_t *aps_frame, uint16_t msg_len, uint8_t *message,
                                               oruZbHal_clusterCommandStatus_t status, uint32_t request_id);

// Completion of one accepted inter-PAN send; comes exactly once. status: 0 sent, negative when the adapter was reset
// or stopped meanwhile, positive (a MAC code) when it could not be sent.
typedef void (*oruZbHal_interpanSentCallback_t)(oru_status_t status);

struct oruZbHal_callbacks_t { // fields in this order; empty entries are skipped
    uint8_t version;          // the service leaves 0

    // The state of the stack has changed. See the operations for which status follows which.
    void (*stack_status_callback)(oruZbHal_stackStatus_t status);

    // Not used by this layer: announces arrive as ZDO messages. The service leaves it empty.
    void (*device_announce_callback)(oruZbHal_nodeId_t node_id, uint8_t *eui64);

    // A ZDO or ZCL frame has arrived. message->message starts with the ZDO sequence number or the ZCL frame control.
    // The result (taken or not) has no effect on the radio.
    bool (*incoming_message_callback)(const oruZbHal_incomingMessage_t *message);

    // Energy scan: highest level on one channel in dBm.
    void (*energy_scan_result_callback)(uint8_t channel, int8_t max_rssi_value);

    // Active scan: one beacon. LQI 0 to 255, RSSI in dBm.
    void (*network_found_callback)(oruZbHal_network_t *network, uint8_t last_hop_lqi, int8_t last_hop_rssi);

    // A scan has ended. channel: the last one scanned. status: 0, or -20 when a reset or disable ended it.
    void (*scan_complete_callback)(uint8_t channel, oru_status_t status);

    // The trust centre has seen a device join, rejoin or leave. parent: node id of its router, 0 the coordinator.
    // An unsecured join or rejoin that was refused (ORU_ZB_HAL_DENY_JOIN) is logged and not reported, because the
    // device is not in the network; secured rejoins and departures are reported whatever the decision.
    void (*trust_center_callback)(oruZbHal_nodeId_t node_id, uint8_t *eui64_little_endian, oruZbHal_nodeId_t parent,
                                  oruZbHal_deviceUpdate_t status, oruZbHal_joinDecision_t decision);
};

// ---------------------------------------------------------------- operations
extern "C" {

// -------- life cycle

// Once per process, before anything else, on the main thread. callbacks: kept, must live as long as the process.
// event_descriptor: receives in descriptor mode the writing end of a pipe, non-blocking and close-on-exec, into which
// any thread writes one byte per message that it has queued for the main thread; stays as it was in thread mode.
// -26: called before; -1: no descriptor or no thread to be had; the log says which, and it may be called again.
oru_status_t oruZbHal_init(oruZbHal_callbacks_t *callbacks, int32_t *event_descriptor);

// Names the adapter: "virtual:<scenario.toml>" for the virtual mesh, else the path of a serial device. Only noted here;
// what is wrong with it shows at oruZbHal_enable. Takes effect until the first successful enable.
oru_status_t oruZbHal_setAdapterName(char *device);

// Starts the stack. Reports ENABLING, then ENABLED_NETWORK_UP when the adapter remembers a network, else
// ENABLED_NO_NETWORK. -27: it is not disabled. Failures that the name causes (no such device, no backend for it, a
// scenario with a fault) are logged with the reason: -8, -6, -11; -15 when the name was changed after the first enable.
// Where the configuration asks to wait for the adapter, these three are accepted and nothing is reported before the
// adapter is there; until then oruZbHal_setRegion is remembered for it and the other operations return -25.
oru_status_t oruZbHal_enable(void);

// Stops the stack; everything accepted is confirmed as failed. Reports DISABLED. The network is kept. Accepted in any
// state.
oru_status_t oruZbHal_disable(void);

// Restarts the adapter; everything accepted is confirmed as failed. Reports BUSY_RESETTING, then ENABLED_NETWORK_UP or
// ENABLED_NO_NETWORK. The network, keys and whether joining is open are kept.
oru_status_t oruZbHal_reset(void);

// Forgets network, keys and install codes and closes joining. Reports BUSY_RESETTING, then ENABLED_NO_NETWORK.
oru_status_t oruZbHal_factoryReset(void);

// One turn of the layer: advances the adapter and, in descriptor mode, delivers what is waiting. While messages of the
// service are waiting (bytes in the pipe) it delivers one report only, so that the service's queue does not overflow.
// Never waits. The call is the main loop's sign of life for the watchdog. Main thread.
oru_status_t oruZbHal_processAction(void);

// Descriptor mode: waits for reports of the adapter or a byte in the pipe, and delivers the reports. Takes at most one
// byte per return, so a loop that handles one message per turn is woken once per message; returns at once for each
// byte that is waiting. Returns also when a signal interrupts the wait and after max_wait_ms milliseconds (0: after
// 500 ms). Main thread. -6 in thread mode, at once.
oru_status_t oruZbHal_runEvents(uint32_t max_wait_ms);

// Exchanges count (at least 1) echo messages with the adapter. 0: it answered.
oru_status_t oruZbHal_echo(uint32_t count);

// -------- network

// Forms a network. mode: always 1 (-11 otherwise). Masks: bit n is channel n; the primary mask needs at least one of
// the channels 11 to 26, bits outside are ignored. final_channel (11 to 26) is used when one of the masks has it, else
// the quietest channel of the primary mask. region: as in oruZbHal_setRegion. Reports ENABLED_NETWORK_UP.
// -27: there is a network already.
oru_status_t oruZbHal_formNetworkAuto(uint8_t mode, uint32_t primary_channel_mask, uint32_t secondary_channel_mask,
                                      uint8_t final_channel, oruZbHal_region_t region);

// Describes an application endpoint (1 to 240) of the coordinator; replaces the one with the same number. At most 35
// clusters and two endpoints (-4). The layer registers endpoint 1, profile 0x0104, by itself.
oru_status_t oruZbHal_addEndpoint(uint8_t endpoint, uint16_t profile_id, uint16_t device_id, uint8_t device_version,
                                  uint8_t input_cluster_count, uint8_t output_cluster_count,
                                  const uint16_t *input_clusters, const uint16_t *output_clusters);

// The coordinator leaves and forgets its network; joining is closed. Reports ENABLED_NO_NETWORK.
oru_status_t oruZbHal_leaveNetwork(void);

// Parameters of the network that is up. radio_tx_power in dBm.
oru_status_t oruZbHal_getNetworkInfo(oruZbHal_networkParameters_t *params);

// Transmit power in dBm, from -20 to the limit of the region: 10 dBm in Europe, Japan and world-wide, 20 dBm elsewhere.
oru_status_t oruZbHal_setRadioPower(int8_t power);

// Regulatory region; ORU_ZB_HAL_REGION_UNIFIED and values from ORU_ZB_HAL_REGION_MAX on are refused. Lowers the
// transmit power when it is above the new limit.
oru_status_t oruZbHal_setRegion(oruZbHal_region_t region);

// -------- joining and keys

// Opens or closes the network for everybody. No duration: it stays as it is until changed. A device that insists on
// its install code still needs it. Closing closes both modes.
oru_status_t oruZbHal_permitJoinNetwork(bool allow);

// Opens or closes joining for devices whose install code was added. Closing closes both modes.
oru_status_t oruZbHal_permitJoinZts(bool enable);

// Registers the install code of a device: 16 bytes and their CRC-16/X-25, low byte first. length: 18 (else -200).
// -11: the CRC is wrong; -4: no room. The first code accepted for a device counts until oruZbHal_clearTransientLinkKeys
// or oruZbHal_factoryReset: further sound codes for it are answered 0 and change nothing. So to correct a code, clear
// and add the newest first.
oru_status_t oruZbHal_addInstallCode(uint8_t *eui64_little_endian, uint8_t *install_code, uint8_t length);

// Drops all install codes and the link keys derived from them. Devices in the network stay.
oru_status_t oruZbHal_clearTransientLinkKeys(void);

// Entry of the key table: the network key, link keys of install codes, link keys of devices. -8: past the end, at the
// latest for index 255.
oru_status_t oruZbHal_getKeyTableEntry(uint8_t index, oruZbHal_keyStruct_t *entry);

// The current network key (type 3). -8: no network; -6: any other type.
oru_status_t oruZbHal_getKey(oruZbHal_keyType_t type, oruZbHal_keyStruct_t *key);

// -------- sending

// Sends one ZCL frame of at most 128 bytes to a node id (from 0xFFF8 on: broadcast). aps_frame->sequence receives the
// APS counter used, before the operation returns; radius 0 means the default of the stack. With
// ORU_ZB_HAL_APS_OPTION_RETRY or _ACKNOWLEDGED the frame is acknowledged end to end and repeated up to three times.
// request_id: read once, null counts as 0. callback: may be null. Further results: 160 too long, 194 the coordinator
// itself, 241 too many sends are under way. The send is confirmed exactly when the result is 0.
// Places: an adapter holds a number of sends at once (the virtual mesh 32 unless its scenario says otherwise), of them
// at most 16 to one node id; the last 4 (the last eighth, where that is less) are kept for ZDO messages.
oru_status_t oruZbHal_sendZclUnicast(oruZbHal_nodeId_t node_id, oruZbHal_apsFrame_t *aps_frame, uint8_t *payload,
                                     uint16_t payload_len, oruZbHal_commandSentCallback_t callback,
                                     uint32_t *request_id);

// The same for a ZDO frame, which starts with its sequence number.
oru_status_t oruZbHal_sendZdoMessage(oruZbHal_nodeId_t node_id, oruZbHal_apsFrame_t *aps_frame, uint8_t *frame,
                                     uint16_t frame_len, oruZbHal_commandSentCallback_t callback, uint32_t request_id);

// Sends one inter-PAN frame of at most 102 bytes on each channel of the mask (at least one of 11 to 26). header goes
// out as it is. Results beside the common ones: 229 too long, -15 too many are under way. Completed exactly when the
// result is 0.
oru_status_t oruZbHal_sendRawInterpanMessageOnChannels(uint32_t channel_mask, oruZbHal_interpanHeader_t *header,
                                                       uint8_t *zcl_frame, uint8_t zcl_frame_len,
                                                       oruZbHal_interpanSentCallback_t callback);

// -------- queries and counters

// Firmware version, one number per byte, most significant first. count: in the room, out the bytes written.
oru_status_t oruZbHal_getFwVersion(uint8_t *version, uint8_t *count);

oru_status_t oruZbHal_getAdapterInfo(oruZbHal_adapterInfo_t *info);

// type 0: energy scan, 1: active scan. channel_mask: at least one of 11 to 26. duration: 0 to 14, the radio stays
// (2^duration + 1) * 15.36 ms on each channel. Results come through the scan callbacks. -15: a scan is running.
oru_status_t oruZbHal_startScan(uint8_t type, uint32_t channel_mask, uint8_t duration);

// Tables of the coordinator. count: in the room for entries, out the entries written, never more. Empty without a
// network.
oru_status_t oruZbHal_getChildren(oruZbHal_childTableEntry_t *entries, uint8_t *count);
oru_status_t oruZbHal_getRouteTableEntries(oruZbHal_routeTableEntry_t *entries, uint8_t *count);
oru_status_t oruZbHal_getNeighbors(oruZbHal_neighborTableEntry_t *entries, uint8_t *count);

// Counters of the radio since they were cleared last; they stop at 65535. The second reads and clears in one step.
oru_status_t oruZbHal_getDebugCounters(oruZbHal_counters_t *counters);
oru_status_t oruZbHal_getAndClearDebugCounters(oruZbHal_counters_t *counters);
}
