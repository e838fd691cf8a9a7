// SPDX-License-Identifier: Apache-2.0
#pragma once
#include <cstdint>

typedef int32_t oru_status_t;

enum : oru_status_t {
    ORU_STATUS_OK = 0,
    ORU_STATUS_GENERAL_ERROR = -1,
    ORU_STATUS_TIMEOUT = -2,
    ORU_STATUS_OUT_OF_MEMORY = -4,
    ORU_STATUS_NOT_SUPPORTED = -6,
    ORU_STATUS_NOT_FOUND = -8,
    ORU_STATUS_NULL_POINTER = -9,
    ORU_STATUS_PARAM_OUT_OF_RANGE = -10,
    ORU_STATUS_BAD_PARAM = -11,
    ORU_STATUS_TRY_AGAIN = -14,
    ORU_STATUS_BUSY = -15,
    ORU_STATUS_CANCELED = -20,
    ORU_STATUS_UNRECOVERABLE = -22,
    ORU_STATUS_UNINITIALIZED = -25,
    ORU_STATUS_ALREADY_INITIALIZED = -26,
    ORU_STATUS_ALREADY_EXISTS = -27,
    ORU_STATUS_DATA_LEN_INVALID = -200,
    ORU_STATUS_DEVICE_STATE_INVALID = -10005,
};
static_assert(sizeof(oru_status_t) == 4, "status is a signed 32-bit value");
