// SPDX-License-Identifier: Apache-2.0
//
// What goes back to clients: answers to one, events to all.
#pragma once
#include "zb_types.h"

extern oruOipc_Handler_t shmem_server_hdl;

// Calls one client back; the payload is copied. ORU_STATUS_CANCELED for callback id 0xFFFF, else the framework's
// status. Any thread.
oru_status_t oruZb_oipcCallback(uint16_t client_id, uint16_t callback_id, const void *data, uint32_t len);
// Publishes an event to all clients; the payload (null with length 0 for none) is copied. Any thread.
oru_status_t oruZb_publishEvent(uint16_t event_id, const void *data, uint32_t len);

// Answers an asynchronous client call with a 4-byte status (signed 32-bit, host order). Any thread.
void oruZb_asyncCallResultCallback(oru_status_t ret, oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id);
