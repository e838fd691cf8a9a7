// SPDX-License-Identifier: Apache-2.0
//
// State of the service that everybody may read: adapter, joining, end of the process.
#pragma once
#include "zb_types.h"

extern std::atomic<oruZb_adapterState_t> adapter_state; // written only by oruZb_setAdapterState
extern oruZb_adapterState_t adapter_state_before_interpan;
extern std::atomic<oruZbHal_pjoinState_t> zb_pjoin_state;
extern volatile int terminated; // set to 1 by SIGINT or SIGTERM, read by the main loop before every turn

// 0: the state changed; ORU_STATUS_ALREADY_EXISTS: it was that already, harmless; ORU_STATUS_GENERAL_ERROR: not
// allowed from the present state, nothing changed. Publishes nothing: that is the caller's.
oru_status_t oruZb_setAdapterState(oruZb_adapterState_t next_state);
const char *oruZb_adapterStateName(oruZb_adapterState_t state);            // never null; any thread
oruOipc_eventId_t oruZb_adapterStateToEventID(oruZb_adapterState_t state); // any thread
oruZbHal_pjoinState_t oruZb_getPjoinState();                               // any thread
