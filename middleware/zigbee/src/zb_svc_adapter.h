// SPDX-License-Identifier: Apache-2.0
//
// Bring-up of the HAL and the reports of its stack. Main thread.
#pragma once
#include "zb_types.h"

extern oruZbHal_callbacks_t zb_hal_callbacks;

// Brings the HAL up on the adapter at the device path, which must outlive the call only. ORU_STATUS_GENERAL_ERROR when
// the adapter is not off or the HAL refuses; the stack reports its progress later. Main thread, before the loop.
oru_status_t oruZb_halInit(char *device);
// Turns a report of the stack into state changes and events, the adapter event before the network event. Always 0.
oru_status_t oruZb_handleStackStatusChange(oruZbHal_stackStatus_t status);
