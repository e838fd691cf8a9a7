// SPDX-License-Identifier: Apache-2.0
//
// Formation, permit join, ZTS mode. Main thread.
//
// Channels are 11 to 26; bit n of a mask is channel n. Of the asynchronous handlers a refused argument is returned
// without calling the client back; otherwise the adapter's immediate answer is returned and sent to the client as a
// 4-byte status. That the network is up is reported later, by a stack status.
#pragma once
#include "zb_types.h"

bool oruZb_isValidZBChannel(uint8_t channel); // IEEE 802.15.4 2.4 GHz channels, 11 to 26
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
// Describes the coordinator's application endpoint to the adapter. Not part of start-up: the adapter layer registers
// a default endpoint of its own.
oru_status_t oruZb_addEndpoint();

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
