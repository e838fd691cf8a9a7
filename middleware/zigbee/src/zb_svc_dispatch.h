// SPDX-License-Identifier: Apache-2.0
//
// Dispatch of queued messages and ZDO frames to their handlers. Main thread unless stated otherwise.
#pragma once
#include "zb_types.h"

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

// An incoming ZDO frame, its sequence byte included: the result of its handler, or ORU_STATUS_NOT_SUPPORTED for a
// cluster that has none.
oru_status_t oruZb_handleIncomingZdoMsg(uint16_t cluster_id, uint8_t *message, uint16_t msg_len);
