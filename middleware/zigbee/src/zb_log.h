// SPDX-License-Identifier: Apache-2.0
//
// Daily counters and the diagnosis of failed transmissions.
#pragma once
#include "zb_types.h"

// Since the last daily log. Counted on the main thread and in the HAL's context, read and cleared on the timer thread.
extern std::atomic<uint32_t> zb_api_tx_count;    // frames handed to the HAL
extern std::atomic<uint32_t> zb_api_rx_count;    // messages reported by the HAL
extern std::atomic<uint32_t> zb_api_error_count; // refused frames and failed confirmations
extern oruTimer_t daily_log_timer;

void oruZb_incApiTxCount();    // any thread
void oruZb_incApiRxCount();    // any thread
void oruZb_incApiErrorCount(); // any thread

// Creates and starts the timer that expires every 24 hours. A failure is logged and leaves the daily log off. Main
// thread, start-up.
void oruZb_initDailyLogTimer();
// Removes the timer and clears the counters. Main thread, shut-down.
void oruZb_unInitDailyLogTimer();
// Expiry: daily counters, then the metrics of the devices. Timer thread; nothing happens once the gate is closed.
void oruZb_logTimerCallback(void *c);
void oruZb_logDailyMetrics();
// Counts a failed confirmation, reads and clears the radio's counters and logs them with a guess at the cause. Main
// thread or HAL's context; never with status 0.
void oruZb_logTxError(oruZbHal_clusterCommandStatus_t tx_status);
