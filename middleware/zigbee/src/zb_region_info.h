// SPDX-License-Identifier: Apache-2.0
//
// Regulatory region of the radio, from a two-letter country code.
//
// The start-up step asks for the hub's country code and applies it; while that fails it is repeated:
//
//   start-up --failure 1..9--> wait 1 min --> step again
//            --failure 10----> world wide, wait 8 min --> step again, failures counted from 1
//            --success, or a client has set a region--> done
//
// A retry that is already armed when a client sets a region still runs once and applies the hub's country code over the
// client's choice. The step runs on the main thread at start-up and on the timer thread afterwards, client requests on
// the main thread: a mutex in zb_region_info.cpp makes "store the region and apply it" one step.
#pragma once
#include "zb_types.h"

extern oruTimer_t qel_ready_timer;                 // retry of the country-code step
extern std::atomic<oruZbHal_region_t> region_code; // the region last chosen, even when the adapter refused it
extern std::atomic<int32_t> attempts; // failures of the country-code step since the last fallback; kept by a success
extern std::atomic<bool> test_without_qel; // once true, a failed step schedules no retry

// Where the hub's country code comes from: writes a zero-terminated code into code (size bytes) and returns 0, or an
// error code while none is available. Any thread.
typedef oru_status_t (*oruZb_countryCodeProvider_t)(char *code, size_t size);
extern std::atomic<oruZb_countryCodeProvider_t> country_code_provider; // yields "WW" unless replaced; never null

// Maps two upper-case letters (zero-terminated) to their region; unknown codes are world wide.
// ORU_ZB_HAL_REGION_MAX for null or a text that is not exactly two characters long. Any thread.
oruZbHal_region_t oruZb_countryCodeToRegionCode(const uint8_t *country_code);
oruZbHal_region_t oruZb_getRegionCode();               // any thread
const char *oruZb_getRegion(oruZbHal_region_t region); // short name, constant text, never null; any thread
// Maps a code and applies its region, also when it is the current one. ORU_STATUS_GENERAL_ERROR for a code that is not
// two characters long or null (nothing changes); else the result of oruZb_handleRegion. Main and timer thread.
oru_status_t oruZb_setRegionCode(const char *country_code);
// Applies region_code to the adapter and logs the transmit power that results. Returns the adapter's status. Main and
// timer thread.
oru_status_t oruZb_handleRegion();
void oruZb_testWithoutQEL(bool test_flag); // any thread
// Asks country_code_provider and applies its answer. ORU_STATUS_GENERAL_ERROR when there is none.
oru_status_t oruZb_queryQelRegionCode();
// The start-up step. Returns its status, or that of arming the retry timer.
oru_status_t oruZb_handleQelAccess();
void oruZb_timerCheckQelCallback(void *context); // expiry of qel_ready_timer: the step again
