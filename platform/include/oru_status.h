// SPDX-License-Identifier: Apache-2.0
//
// Result of every operation of the service and the platform: 0 good, anything else a failure. Negative values are
// those below; positive values come only from send operations of the Zigbee HAL and are APS, NWK or MAC statuses.
// The numbers reach clients over IPC and the shell as exit statuses (low 8 bits), so they never change and a number
// that falls out of use is not given to anything else.
#pragma once
#include <cstdint>

// A plain integer, not an enumeration: HAL statuses outside the list travel in it as well.
typedef int32_t oru_status_t;

enum : oru_status_t {
    ORU_STATUS_OK = 0,
    ORU_STATUS_GENERAL_ERROR = -1,            // failed for a reason no other value describes
    ORU_STATUS_TIMEOUT = -2,                  // the time given was over first
    ORU_STATUS_OUT_OF_MEMORY = -4,            // no memory, pool block or queue item free
    ORU_STATUS_NOT_SUPPORTED = -6,            // known, but not offered here
    ORU_STATUS_NOT_FOUND = -8,                // no such record, device or entry
    ORU_STATUS_NULL_POINTER = -9,             // a pointer argument that must point to something is null
    ORU_STATUS_PARAM_OUT_OF_RANGE = -10,      // an argument is outside its range
    ORU_STATUS_BAD_PARAM = -11,               // an argument or a file has the wrong form
    ORU_STATUS_TRY_AGAIN = -14,               // nothing available at the moment, without having waited
    ORU_STATUS_BUSY = -15,                    // somebody else uses the resource
    ORU_STATUS_CANCELED = -20,                // the wait or the operation was ended from outside
    ORU_STATUS_UNRECOVERABLE = -22,           // cannot succeed by repeating
    ORU_STATUS_UNINITIALIZED = -25,           // the handle is zero, deleted or was never created
    ORU_STATUS_ALREADY_INITIALIZED = -26,     // initialised before
    ORU_STATUS_ALREADY_EXISTS = -27,          // the state or entry is there already
    ORU_STATUS_DATA_LEN_INVALID = -200,       // a length does not fit the content it describes
    ORU_STATUS_DEVICE_STATE_INVALID = -10005, // not possible in the present state
};
static_assert(sizeof(oru_status_t) == 4, "status is a signed 32-bit value");
