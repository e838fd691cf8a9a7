// SPDX-License-Identifier: Apache-2.0
//
// One raw inter-PAN frame at a time. While it is on its way the adapter state is INTERPAN_IN_PROGRESS and the
// dispatcher refuses network requests.
//
//   idle --accepted by the HAL [oruZb_doSendInterpan]--> in flight
//   in flight --completion [oruZb_doSendInterpanCallback]--> idle: saved state restored, event published
//   in flight --30 s [oruZb_sendInterpanCallbackFail]--> adapter reset; its stack status leads on
#include "zb_svc_interpan.h"
#include "zb_callbacks.h"
#include "zb_gate.h"
#include "zb_log.h"
#include "zb_reply.h"
#include "zb_state.h"
#include <cstring>

oruTimer_t interpan_fail_timer;
uint8_t current_server_interpan_seq;

namespace {

constexpr uint32_t INTERPAN_FAIL_MS = 30000;

void startFailTimer() {
    // An expired one-shot timer still exists and only needs starting again.
    const oru_status_t created = oruTime_timerNew(&interpan_fail_timer, ORUTIME_CLOCK_MONOTONIC, ORUTIME_TIMER_ONESHOT,
                                                  oruZb_sendInterpanCallbackFail, nullptr);
    if (created != ORU_STATUS_OK && created != ORU_STATUS_ALREADY_INITIALIZED) {
        ZB_LOG_ERROR("%s: Error: interpanFail timer create failed", ZB_SVC);
        return;
    }
    if (oruTime_timerStart(&interpan_fail_timer, INTERPAN_FAIL_MS) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: interpan_fail_timer timer start failed.", ZB_SVC);
        (void)oruTime_timerDelete(&interpan_fail_timer); // the send goes on without a time-out
    }
}

oru_status_t handToHal(oruZb_interpan_t &inter_pan) {
    oruZbHal_interpanHeader_t header{};
    memcpy(&header, &inter_pan.header, sizeof header);
    const oru_status_t status = oruZbHal_sendRawInterpanMessageOnChannels(
        inter_pan.channel_mask, &header, inter_pan.zcl_buf, static_cast<uint8_t>(inter_pan.zcl_buf_len),
        oruZb_sendInterpanCallback);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Failed to send raw interpan message on channels", ZB_SVC);
        ZB_LOG_INFO("%s: zb_tx_failure, error status:%d", ZB_METRICS, status);
        oruZb_incApiErrorCount();
    }
    return status;
}

} // namespace

oru_status_t oruZb_doSendInterpan(oruZb_interpan_t *inter_pan, oruOipc_nodeId_t client_id,
                                  oruOipc_functionId_t callback_id) {
    if (inter_pan == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (inter_pan->zcl_buf_len > ORU_ZB_MAX_PAYLOAD) {
        oruZb_asyncCallResultCallback(ORU_STATUS_DATA_LEN_INVALID, client_id, callback_id);
        return ORU_STATUS_DATA_LEN_INVALID;
    }
    oruZb_incApiTxCount();
    ZB_LOG_INFO("%s: zb_inter_pan_req", ZB_METRICS);
    oru_status_t status = handToHal(*inter_pan);
    if (status == ORU_STATUS_OK) {
        startFailTimer();
        adapter_state_before_interpan = adapter_state;
        status = oruZb_setAdapterState(ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS);
        if (status == ORU_STATUS_GENERAL_ERROR) {
            ZB_LOG_ERROR("%s: %s(): Cannot set adapter state to ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS !", ZB_SVC,
                         __func__);
        }
        current_server_interpan_seq = inter_pan->sequence;
    }
    oruZb_asyncCallResultCallback(status, client_id, callback_id);
    return status;
}

void oruZb_doSendInterpanCallback(oru_status_t status) {
    oruZb_interpanResponse_t response{};
    response.sequence = current_server_interpan_seq;
    response.status = static_cast<uint32_t>(status);
    oru_status_t result = oruTime_timerStop(&interpan_fail_timer);
    if (result != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: Failed to stop interpan_fail_timer, status: %d", ZB_SVC, __func__, result);
    }
    result = oruTime_timerDelete(&interpan_fail_timer);
    if (result != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: Failed to delete interpan_fail_timer, status: %d", ZB_SVC, __func__, result);
    }
    // A stack status may have led back to the same state meanwhile; then nothing is published.
    if (oruZb_setAdapterState(adapter_state_before_interpan) == ORU_STATUS_OK) {
        (void)oruZb_publishEvent(ORU_ZB_SVC_INTERPAN_COMPLETE, &response, sizeof response); // logged there
    }
    if (status != ORU_STATUS_OK) {
        oruZb_logTxError(static_cast<oruZbHal_clusterCommandStatus_t>(status));
    }
}

void oruZb_sendInterpanCallbackFail(void * /*context*/) {
    const oruZb_gatePass pass(oruZb_gatePass::For::callback);
    if (!pass) {
        return; // shutting down: no reset in the middle of it
    }
    if (oruZbHal_reset() != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: oruZbHal_reset failed", ZB_SVC, __func__);
    } else {
        ZB_LOG_INFO("%s: %s: oruZbHal_reset done successfully", ZB_SVC, __func__);
    }
}
