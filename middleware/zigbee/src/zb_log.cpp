// SPDX-License-Identifier: Apache-2.0
//
// Counters of the traffic with the radio, logged once a day, and the diagnosis of failed transmissions.
#include "zb_log.h"
#include "zb_database_metrics.h"
#include "zb_gate.h"
#include "zb_state.h"
#include <cstdio>

static constexpr uint32_t DAILY_LOG_PERIOD_MS = 24 * 60 * 60 * 1000;
static_assert(DAILY_LOG_PERIOD_MS == 86400000);

// Thresholds of the diagnosis.
static constexpr uint16_t PTA_SEVERE_PERCENT = 99;
static constexpr uint16_t APS_RETRY_SUSPECT = 2;
static constexpr uint16_t APS_FAIL_SUSPECT = 1;
static constexpr uint16_t APS_RETRY_HIGH = 40;
static constexpr uint16_t APS_FAIL_HIGH = 15;
static constexpr double PTA_LOW_THRESHOLD = 0.2;
static constexpr int PTA_LOW_THRESHOLD_PERCENT = 20;
static constexpr double PTA_HIGH_THRESHOLD = 0.05;
static constexpr int PTA_HIGH_THRESHOLD_PERCENT = 5;

std::atomic<uint32_t> zb_api_tx_count{0};
std::atomic<uint32_t> zb_api_rx_count{0};
std::atomic<uint32_t> zb_api_error_count{0};
oruTimer_t daily_log_timer{};

void oruZb_incApiTxCount() {
    ++zb_api_tx_count;
}

void oruZb_incApiRxCount() {
    ++zb_api_rx_count;
}

void oruZb_incApiErrorCount() {
    ++zb_api_error_count;
}

static void deleteDailyLogTimer(const char *operation) {
    const oru_status_t status = oruTime_timerDelete(&daily_log_timer);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: Failed to delete daily_log_timer, status: %d", ZB_SVC, operation, status);
    }
}

void oruZb_initDailyLogTimer() {
    ZB_LOG_INFO("%s: %s", ZB_SVC, __func__);
    oru_status_t status = oruTime_timerNew(&daily_log_timer, ORUTIME_CLOCK_MONOTONIC, ORUTIME_TIMER_PERIODIC,
                                           oruZb_logTimerCallback, nullptr);
    if (status != ORU_STATUS_OK && status != ORU_STATUS_ALREADY_INITIALIZED) {
        ZB_LOG_ERROR("%s: %s: daily_log_timer create failed, status:%d", ZB_SVC, __func__, status);
        return;
    }
    status = oruTime_timerStart(&daily_log_timer, DAILY_LOG_PERIOD_MS);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: daily_log_timer start failed, status: %d", ZB_SVC, __func__, status);
        deleteDailyLogTimer(__func__);
    }
}

void oruZb_unInitDailyLogTimer() {
    ZB_LOG_INFO("%s: %s", ZB_SVC, __func__);
    const oru_status_t status = oruTime_timerStop(&daily_log_timer);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: Failed to stop daily_log_timer, status: %d", ZB_SVC, __func__, status);
    }
    deleteDailyLogTimer(__func__);
    zb_api_tx_count = 0;
    zb_api_rx_count = 0;
    zb_api_error_count = 0;
}

void oruZb_logTimerCallback(void * /*c*/) {
    const oruZb_gatePass pass(oruZb_gatePass::For::callback);
    if (!pass) {
        return;
    }
    oruZb_logDailyMetrics();
    oruZb_databaseUploadMetrics();
}

void oruZb_logDailyMetrics() {
    const oruZb_adapterState_t state = adapter_state;
    if (state == ORU_ZB_ADAPTER_OFF || state == ORU_ZB_ADAPTER_TURNING_OFF) {
        ZB_LOG_INFO("%s: zb_internal_rx_idle", ZB_METRICS);
    }
    // Read and cleared in one step each: what is counted meanwhile belongs to the new day.
    ZB_LOG_INFO("%s: Daily counters:", ZB_METRICS);
    ZB_LOG_INFO("%s: zb_internal_tx_count : %d", ZB_METRICS, zb_api_tx_count.exchange(0));
    ZB_LOG_INFO("%s: zb_internal_rx_count : %d", ZB_METRICS, zb_api_rx_count.exchange(0));
    ZB_LOG_INFO("%s: zb_api_failure_error_count : %d", ZB_METRICS, zb_api_error_count.exchange(0));
}

// The blanks align the colons.
static void logRawCounters(const oruZbHal_counters_t &counters) {
    ZB_LOG_INFO("%s: Raw TX error counters:", ZB_METRICS);
    ZB_LOG_INFO("%s: pta_lo_pri_req    : %d", ZB_METRICS, counters.pta_lo_pri_req);
    ZB_LOG_INFO("%s: pta_hi_pri_req    : %d", ZB_METRICS, counters.pta_hi_pri_req);
    ZB_LOG_INFO("%s: pta_lo_pri_denied : %d", ZB_METRICS, counters.pta_lo_pri_denied);
    ZB_LOG_INFO("%s: pta_hi_pri_denied : %d", ZB_METRICS, counters.pta_hi_pri_denied);
    ZB_LOG_INFO("%s: pta_denied_rate   : %d%%", ZB_METRICS, counters.pta_denied_rate);
    ZB_LOG_INFO("%s: cca_failures      : %d", ZB_METRICS, counters.cca_failures);
    ZB_LOG_INFO("%s: mac_tx_ucast_retry: %d", ZB_METRICS, counters.mac_tx_ucast_retry);
    ZB_LOG_INFO("%s: mac_tx_ucast_fail : %d", ZB_METRICS, counters.mac_tx_ucast_fail);
    ZB_LOG_INFO("%s: aps_tx_ucast_retry: %d", ZB_METRICS, counters.aps_tx_ucast_retry);
    ZB_LOG_INFO("%s: aps_tx_ucast_fail : %d", ZB_METRICS, counters.aps_tx_ucast_fail);
}

static void logDiagnosis(const oruZbHal_counters_t &counters) {
    if (counters.pta_denied_rate > PTA_SEVERE_PERCENT) {
        ZB_LOG_INFO("%s: severe PTA denial rates detected. Local radio traffic blocking message", ZB_METRICS);
    }
    if (counters.aps_tx_ucast_retry < APS_RETRY_SUSPECT || counters.aps_tx_ucast_fail < APS_FAIL_SUSPECT) {
        return;
    }
    if (counters.aps_tx_ucast_fail > APS_FAIL_HIGH && counters.aps_tx_ucast_retry > APS_RETRY_HIGH) {
        ZB_LOG_INFO("%s: High MAC and APS failures", ZB_METRICS);
        ZB_LOG_INFO("%s: Packet timed out waiting for MAC ACK. A neighbor is down?", ZB_METRICS);
    } else {
        ZB_LOG_INFO("%s: Low MAC failures with high APS failures", ZB_METRICS);
        ZB_LOG_INFO("%s: Packet timed out waiting for APS ACK. The network is there, the target is not", ZB_METRICS);
    }
}

// Formed in single precision and compared in double: exactly one in five (one in twenty) counts as exceeding 0.2
// (0.05).
static double denialRate(uint16_t denied, uint16_t requested) {
    if (requested == 0) {
        return 0.0;
    }
    return static_cast<double>(static_cast<float>(denied) / static_cast<float>(requested));
}

static void logDenialRates(const oruZbHal_counters_t &counters) {
    const double low = denialRate(counters.pta_lo_pri_denied, counters.pta_lo_pri_req);
    if (low > PTA_LOW_THRESHOLD) {
        ZB_LOG_INFO("%s: zb_pta_low: PTA low priority denied rate(%d%%) exceeded threshold(%d%%)", ZB_METRICS,
                    static_cast<int>(low * 100.0), PTA_LOW_THRESHOLD_PERCENT);
    }
    const double high = denialRate(counters.pta_hi_pri_denied, counters.pta_hi_pri_req);
    if (high > PTA_HIGH_THRESHOLD) {
        ZB_LOG_INFO("%s: zb_pta_high: PTA high priority denied rate(%d%%) exceeded threshold(%d%%)", ZB_METRICS,
                    static_cast<int>(high * 100.0), PTA_HIGH_THRESHOLD_PERCENT);
    }
}

void oruZb_logTxError(oruZbHal_clusterCommandStatus_t tx_status) {
    oruZb_incApiErrorCount();
    oruZbHal_counters_t counters{};
    if (oruZbHal_getAndClearDebugCounters(&counters) != ORU_STATUS_OK) {
        return;
    }
    logRawCounters(counters);
    logDiagnosis(counters);
    char status_text[32];
    static_cast<void>(snprintf(status_text, sizeof(status_text), "0x%02x", static_cast<unsigned>(tx_status)));
    ZB_LOG_INFO("%s: zb_tx_failure, error status:%s", ZB_METRICS, status_text);
    logDenialRates(counters);
}
