// SPDX-License-Identifier: Apache-2.0
//
// Throttled command send. A send takes a token, or goes out without one after throttle_sem_timeout_ms: the throttle
// delays, it never refuses. The adapter's confirmation gives a token back, closes the transaction and tells clients.
//
//   client record -> APS frame -> transaction listed -> token -> HAL ... confirmation -> token, latency, event
//
// Sends run on the main thread, confirmations in the HAL's context.
#include "zb_svc_command.h"
#include "oru_mp.h"
#include "zb_database_list.h"
#include "zb_format.h"
#include "zb_gate.h"
#include "zb_log.h"
#include "zb_queue.h"
#include "zb_reply.h"
#include "zb_state.h"
#include "zb_txn.h"
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

oruSemaphore_t zb_throttle_sem;
std::atomic<uint32_t> burst_size{10};
std::atomic<uint32_t> throttle_sem_timeout_ms{20};

namespace {

constexpr uint16_t ZIGBEE_LIGHT_LINK_PROFILE = 0xC05E;
constexpr uint16_t HOME_AUTOMATION_PROFILE = 0x0104;

// A client may set any time-out; the wait is cut into steps, so that a termination signal is seen meanwhile. In
// descriptor mode nothing but this thread takes confirmations off the HAL, so it looks for them in much finer slices.
constexpr uint32_t WAIT_STEP_MS = 20;
constexpr uint32_t POLL_SLICE_MS = 1;

// Guards the handle zb_throttle_sem and "read the count, compare, post" against a change of the burst size. A leaf.
std::mutex throttle_mutex;

// Sends that the HAL has taken and not confirmed yet; HAL context and main thread.
std::atomic<uint32_t> sends_in_flight{0};

void sendHasEnded() {
    uint32_t count = sends_in_flight;
    while (count > 0 && !sends_in_flight.compare_exchange_weak(count, count - 1)) {
    }
}

oruSemaphore_t throttleSem() {
    const std::lock_guard lock(throttle_mutex);
    return zb_throttle_sem;
}

// Without a send in flight no confirmation is due and no token can come back, refused sends have kept them all: a long
// time-out would then hold up everybody for nothing.
bool noTokenCanCome() {
    return terminated != 0 || sends_in_flight == 0;
}

// Thread mode: the HAL's dispatcher gives the token back. With every place in the queue taken it may itself be waiting,
// for a place that only this thread can free: then the confirmation would come no sooner than the end of the wait.
oru_status_t waitForToken(oruSemaphore_t sem, uint32_t timeout_ms) {
    for (;;) {
        const uint32_t step = std::min(timeout_ms, WAIT_STEP_MS);
        const oru_status_t status = oruSem_waitTimeout(sem, step);
        timeout_ms -= step;
        if (status != ORU_STATUS_TIMEOUT || timeout_ms == 0 || noTokenCanCome() || oruZb_msgQueueIsFull()) {
            return status;
        }
        (void)oruZbHal_processAction();
    }
}

bool hasPassed(const oruTime_timespec_t &start, uint32_t timeout_ms) {
    oruTime_timespec_t now{};
    return oruTime_clockTime(ORUTIME_CLOCK_MONOTONIC, &now) == ORU_STATUS_OK &&
           oruTime_timespecDiff(&now, &start) >= int64_t{timeout_ms} * 1000;
}

oru_status_t tryAfterDelivery(oruSemaphore_t sem) {
    (void)oruZbHal_processAction();
    return oruSem_waitTry(sem);
}

// Descriptor mode: confirmations are delivered by this thread only, inside the HAL's turns. The time-out ends the wait
// by the clock, as slices last longer than they say, and by their number, should the clock fail.
oru_status_t pollForToken(oruSemaphore_t sem, uint32_t timeout_ms) {
    oruTime_timespec_t start{};
    const bool timed = oruTime_clockTime(ORUTIME_CLOCK_MONOTONIC, &start) == ORU_STATUS_OK;
    oru_status_t status = tryAfterDelivery(sem);
    for (uint32_t waited_ms = 0; status == ORU_STATUS_TRY_AGAIN; waited_ms += POLL_SLICE_MS) {
        const bool step_ends = waited_ms > 0 && waited_ms % WAIT_STEP_MS == 0;
        if (waited_ms == timeout_ms || (timed && hasPassed(start, timeout_ms)) || (step_ends && noTokenCanCome())) {
            return ORU_STATUS_TIMEOUT;
        }
        status = oruSem_waitTimeout(sem, POLL_SLICE_MS);
        if (status == ORU_STATUS_TIMEOUT) {
            status = tryAfterDelivery(sem);
        }
    }
    return status;
}

void takeToken() {
    const oruSemaphore_t sem = throttleSem();
    if (oruSem_waitTry(sem) != ORU_STATUS_TRY_AGAIN) {
        return;
    }
    const auto wait = oruZb_halUseSingleEventLoop() ? pollForToken : waitForToken;
    const oru_status_t status = wait(sem, throttle_sem_timeout_ms);
    if (status == ORU_STATUS_TIMEOUT) {
        ZB_LOG_INFO("%s: %s(): throttle sem timed out", ZB_SVC, "oruZb_throttledSend");
    } else if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): throttle sem wait failed, status = %d", ZB_SVC, "oruZb_throttledSend", status);
    }
}

// The count never rises above burst_size. A refused send keeps its token, so the window shrinks until confirmations of
// sends that went out without a token fill it up again.
void giveTokenBack() {
    const std::lock_guard lock(throttle_mutex);
    uint32_t count = 0;
    oru_status_t status = oruSem_getCount(zb_throttle_sem, &count);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): get sem count failed, status = %d", ZB_SVC, "oruZb_cmdSentCallback", status);
        count = 0;
    }
    if (count >= burst_size) {
        return;
    }
    status = oruSem_post(zb_throttle_sem);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): sem post failed, status = %d", ZB_SVC, "oruZb_cmdSentCallback", status);
    }
}

// Lists the transaction before the frame goes out: its confirmation may be quicker than the return of the send. Null
// when the send has to do without one.
oruZb_txnListItem_t *recordTransaction(uint16_t node_id, uint32_t cfmId, const oruTime_timespec_t &start_time) {
    auto *item = static_cast<oruZb_txnListItem_t *>(oruMp_alloc(mp_zb_txnl_handle));
    if (item == nullptr) {
        ZB_LOG_ERROR("%s: %s: item oruMP_alloc/(mp_zb_txnl_handle/) failed.", ZB_SVC, "oruZb_throttledSend");
        return nullptr;
    }
    *item = {};
    item->data.cfmId = cfmId;
    item->data.start_time = start_time;
    item->data.node_id = node_id;
    const oru_status_t status = oruZb_postTransaction(item);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): Failed to record unicast start time, status = %d", ZB_SVC, "oruZb_throttledSend",
                     status);
        (void)oruMp_free(mp_zb_txnl_handle, item);
        return nullptr;
    }
    return item;
}

oruZbHal_apsFrame_t apsFrameOf(const oruZb_clusterCmd_t &cmd) {
    oruZbHal_apsFrame_t frame{};
    frame.profile_id = cmd.profile_id == ZIGBEE_LIGHT_LINK_PROFILE ? HOME_AUTOMATION_PROFILE : cmd.profile_id;
    frame.cluster_id = cmd.cluster_id;
    frame.source_endpoint = cmd.src_ep;
    frame.destination_endpoint = cmd.dest_ep;
    frame.options = cmd.aps_options;
    return frame;
}

// Integer on purpose: the adapter may report a code that the enumeration does not list.
oruZb_msgType_t eventOf(int32_t status) {
    switch (status) {
    case ORU_ZB_HAL_SUCCESS:
        return ORU_ZB_SVC_SENDCMD_SUCCESS;
    case ORU_ZB_HAL_APS_SECURITY_FAIL:
    case ORU_ZB_HAL_APS_UNSECURED:
    case ORU_ZB_HAL_NWK_MAX_FRM_COUNTER:
    case ORU_ZB_HAL_NWK_NO_KEY:
    case ORU_ZB_HAL_NWK_BAD_CCM_OUTPUT:
    case ORU_ZB_HAL_MAC_IMPROPER_SECURITY_LEVEL:
    case ORU_ZB_HAL_MAC_UNSUPPORTED_LEGACY:
    case ORU_ZB_HAL_MAC_UNSUPPORTED_SECURITY:
    case ORU_ZB_HAL_MAC_SECURITY_ERROR:
        return ORU_ZB_SVC_SECURITY_ERROR;
    case ORU_ZB_HAL_NWK_ROUTE_DISCOVERY_FAILED:
    case ORU_ZB_HAL_NWK_ROUTE_ERROR:
    case ORU_ZB_HAL_MAC_NO_ACK:
        return ORU_ZB_SVC_DEVICE_UNRESPONSIVE;
    case ORU_ZB_HAL_MAC_CHANNEL_ACCESSS_FAILURE:
        return ORU_ZB_SVC_CHANNEL_BUSY;
    default:
        return ORU_ZB_SVC_SENDCMD_FAILURE;
    }
}

oruZb_clusterCmd_t eventRecord(uint16_t destination, const oruZbHal_apsFrame_t &frame, uint16_t msg_len,
                               const uint8_t *message, oruZbHal_clusterCommandStatus_t status, uint32_t request_id) {
    oruZb_clusterCmd_t record{};
    record.dest_node = destination;
    record.cluster_id = frame.cluster_id;
    record.profile_id = frame.profile_id;
    record.dest_ep = frame.destination_endpoint;
    record.src_ep = frame.source_endpoint;
    if (message != nullptr) {
        record.payload_len = std::min(msg_len, ORU_ZB_MAX_PAYLOAD);
        memcpy(record.payload, message, record.payload_len);
    }
    record.confirmation_id = static_cast<uint16_t>(request_id & 0xFFFF);
    record.status = static_cast<oruZb_clusterCommandStatus_t>(status);
    return record;
}

// The last endpoint record with that number counts; 0 when there is none.
uint16_t deviceIdOf(const oruZb_device_t &device, uint8_t endpoint) {
    uint16_t device_id = 0;
    const uint8_t count = std::min<uint8_t>(device.device_info.endpoint_count, ORU_ZB_HAL_MAX_ENDPOINTS);
    for (uint8_t i = 0; i < count; ++i) {
        if (device.device_info.endpoints[i].endpoint == endpoint) {
            device_id = device.device_info.endpoints[i].device_id;
        }
    }
    return device_id;
}

void logFailedCommand(uint16_t destination, uint8_t endpoint, oruZbHal_clusterCommandStatus_t status) {
    oruZb_device_t device{};
    if (oruZb_databaseGetDevice(destination, &device) == ORU_STATUS_OK) {
        char text[32];
        (void)snprintf(text, sizeof text, "%02x-%s-%04x", static_cast<unsigned>(status),
                       ouiText(device.device_info.eui64).c_str(), deviceIdOf(device, endpoint));
        ZB_LOG_INFO("%s: zb_zcl_command_failed, device info:%s", ZB_METRICS, text);
    }
    oruZb_logTxError(status);
}

} // namespace

void oruZb_throttleInit() {
    oruSemaphore_t sem{};
    const oru_status_t status = oruSem_new(burst_size, &sem);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): throttle sem create failed, status = %d", ZB_SVC, __func__, status);
        exit(EXIT_FAILURE);
    }
    sends_in_flight = 0;
    const std::lock_guard lock(throttle_mutex);
    zb_throttle_sem = sem;
}

oru_status_t oruZb_postTransaction(oruZb_txnListItem_t *item) {
    if (item == nullptr) {
        ZB_LOG_ERROR("%s: Error: %s() item is NULL", ZB_SVC, __func__);
        return ORU_STATUS_NULL_POINTER;
    }
    const uint16_t node_id = item->data.node_id; // once listed, a confirmation may return the item
    const oru_status_t status = oruZb_txnPut(oruZb_txnListHead, item);
    ZB_LOG_INFO("%s: %s(): posted transaction to 0x%4.4x with return status: %d.", ZB_SVC, __func__, node_id, status);
    return status;
}

oru_status_t oruZb_throttledSend(oruZb_clusterCmd_t *cluster_cmd, oruZbHal_apsFrame_t *aps_frame, uint32_t *cfmId) {
    if (cluster_cmd == nullptr || aps_frame == nullptr || cfmId == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    oruTime_timespec_t start_time{};
    (void)oruTime_clockTime(ORUTIME_CLOCK_MONOTONIC, &start_time); // costs one latency sample at most
    const oruZb_txnListItem_t *item = recordTransaction(cluster_cmd->dest_node, *cfmId, start_time);
    takeToken();
    (void)oruZb_dumpPacket(">> ", cluster_cmd);
    oruZb_incApiTxCount();
    ++sends_in_flight; // the confirmation may come before the call returns
    const oru_status_t status = oruZbHal_sendZclUnicast(cluster_cmd->dest_node, aps_frame, cluster_cmd->payload,
                                                        cluster_cmd->payload_len, oruZb_cmdSentCallback, cfmId);
    if (status != ORU_STATUS_OK) {
        sendHasEnded();
        char text[32];
        (void)snprintf(text, sizeof text, "0x%02x", static_cast<unsigned>(status));
        ZB_LOG_INFO("%s: zb_tx_failure, device info:%s", ZB_METRICS, text);
        oruZb_incApiErrorCount();
        if (item != nullptr) {
            (void)oruZb_txnRemoveItem(oruZb_txnListHead, item); // never confirmed, so nobody else would
        }
    }
    return status;
}

oru_status_t oruZb_doSendClusterCmd(oruZb_clusterCmd_t *cluster_cmd, uint32_t cfmId) {
    if (cluster_cmd == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const auto client_id = static_cast<oruOipc_nodeId_t>(cfmId >> 16);
    const auto callback_id = static_cast<oruOipc_functionId_t>(cfmId & 0xFFFF);
    if (cluster_cmd->payload_len > ORU_ZB_MAX_PAYLOAD) {
        ZB_LOG_ERROR("%s: %s(): payload of %d bytes does not fit into a command", ZB_SVC, __func__,
                     cluster_cmd->payload_len);
        if (cfmId != 0) {
            oruZb_asyncCallResultCallback(ORU_STATUS_DATA_LEN_INVALID, client_id, callback_id);
        }
        return ORU_STATUS_DATA_LEN_INVALID;
    }
    ZB_LOG_INFO("^T|^%s^^ %s: %s(): status %d dest 0x%4.4x, cluster 0x%x, reqID %x, seq %d", ZB_HAL_PEER, ZB_SVC,
                __func__, 0, cluster_cmd->dest_node, cluster_cmd->cluster_id, cfmId, cluster_cmd->payload[1]);
    oruZbHal_apsFrame_t frame = apsFrameOf(*cluster_cmd);
    uint32_t request_id = cfmId; // the HAL gets a copy: it must not change whom we answer
    const oru_status_t status = oruZb_throttledSend(cluster_cmd, &frame, &request_id);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_INFO("%s: %s(): unicast didn't send successfully, status = %d", ZB_SVC, __func__, status);
    }
    if (cfmId != 0) {
        cluster_cmd->confirmation_id = callback_id;
        oruZb_asyncCallResultCallback(status, client_id, callback_id);
    } else {
        cluster_cmd->confirmation_id = frame.sequence;
    }
    return status;
}

void oruZb_cmdSentCallback(oruZbHal_outgoingMessageType_t type, uint16_t index_or_destination,
                           oruZbHal_apsFrame_t *aps_frame, uint16_t msg_len, uint8_t *message,
                           oruZbHal_clusterCommandStatus_t status, uint32_t request_id) {
    const oruZb_gatePass pass(oruZb_gatePass::For::callback);
    if (!pass) {
        return;
    }
    sendHasEnded();
    if (aps_frame == nullptr) {
        ZB_LOG_ERROR("%s: %s: NULL pointer passed", ZB_SVC, __func__);
        return;
    }
    const bool failed = status != ORU_ZB_HAL_SUCCESS;
    ZB_LOG(failed ? ORU_LOG_ERROR : ORU_LOG_INFO,
           "^F|^%s^^ %s: %s(): status %d cluster/cmd sent status 0x%x, type %d, dest 0x%4.4x, msg_len %d, "
           "aps_frame dest_ep %d, cluster_id %x, src_ep %d, seq_num 0x%x, requestID 0x%x",
           ZB_HAL_PEER, ZB_SVC, __func__, failed ? -1 : 0, static_cast<unsigned>(status), type, index_or_destination,
           msg_len, aps_frame->destination_endpoint, aps_frame->cluster_id, aps_frame->source_endpoint,
           aps_frame->sequence, request_id);
    giveTokenBack();
    const oru_status_t recorded = oruZb_txnRecordItem(oruZb_txnListHead, request_id, status);
    if (recorded != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): Record transaction failed, status = %d", ZB_SVC, __func__, recorded);
    }
    const oruZb_clusterCmd_t record =
        eventRecord(index_or_destination, *aps_frame, msg_len, message, status, request_id);
    if (failed) {
        logFailedCommand(index_or_destination, aps_frame->destination_endpoint, status);
    }
    (void)oruZb_publishEvent(static_cast<uint16_t>(eventOf(status)), &record, sizeof record); // logged there
}

oru_status_t oruZb_setBurstSize(const uint32_t *burst_payload) {
    const oruZb_adapterState_t state = adapter_state;
    if (state == ORU_ZB_ADAPTER_ON || state == ORU_ZB_ADAPTER_TURNING_ON) {
        ZB_LOG_ERROR("%s: %s(): zigbee adapter must be turned off", ZB_SVC, __func__);
        return ORU_STATUS_GENERAL_ERROR;
    }
    if (burst_payload == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    uint32_t size = 0;
    memcpy(&size, burst_payload, sizeof size);
    if (size == 0) {
        ZB_LOG_ERROR("%s: %s(): burst size can't be set to zero", ZB_SVC, __func__);
        return ORU_STATUS_GENERAL_ERROR;
    }
    ZB_LOG_INFO("%s: %s(): burst size changed from old: %d to new: %d", ZB_SVC, __func__,
                static_cast<int>(burst_size.load()), static_cast<int>(size));
    oruSemaphore_t fresh{};
    if (oruSem_new(size, &fresh) != ORU_STATUS_OK) {
        // The old semaphore stays in use, with its own count as the limit.
        ZB_LOG_ERROR("%s: %s(): throttle sem create failed", ZB_SVC, __func__);
        return ORU_STATUS_OK;
    }
    oruSemaphore_t old{};
    {
        const std::lock_guard lock(throttle_mutex);
        old = zb_throttle_sem;
        zb_throttle_sem = fresh;
        burst_size = size;
    }
    (void)oruSem_delete(old);
    return ORU_STATUS_OK;
}

oru_status_t oruZb_setThrottleTimeout(const uint32_t *timeout_payload) {
    if (timeout_payload == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    uint32_t timeout_ms = 0;
    memcpy(&timeout_ms, timeout_payload, sizeof timeout_ms);
    ZB_LOG_INFO("%s: %s(): throttle timeout changed from old: %d to new: %d", ZB_SVC, __func__,
                static_cast<int>(throttle_sem_timeout_ms.load()), static_cast<int>(timeout_ms));
    throttle_sem_timeout_ms = timeout_ms;
    return ORU_STATUS_OK;
}
