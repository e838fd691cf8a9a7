// SPDX-License-Identifier: Apache-2.0
//
// Throttled command send. Main thread unless stated otherwise.
#pragma once
#include "zb_types.h"

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
