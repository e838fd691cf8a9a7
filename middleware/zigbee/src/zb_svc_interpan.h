// SPDX-License-Identifier: Apache-2.0
//
// Inter-PAN exchange. Main thread unless stated otherwise.
#pragma once
#include "zb_types.h"

extern oruTimer_t interpan_fail_timer;
extern uint8_t current_server_interpan_seq;

oru_status_t oruZb_doSendInterpan(oruZb_interpan_t *inter_pan, oruOipc_nodeId_t client_id,
                                  oruOipc_functionId_t callback_id);
void oruZb_doSendInterpanCallback(oru_status_t status);
void oruZb_sendInterpanCallbackFail(void *context); // timer thread
