// SPDX-License-Identifier: Apache-2.0
#include "zb_timer.h"
#include "zb_gate.h"
#include "zb_queue.h"
#include "zb_region_info.h"

oruTimer_t device_announce_timer;
oruTimer_t service_discovery_timer;
oruTimer_t device_recovery_timer;

oru_status_t oruZb_timerPostServerMsg(oruZb_msgType_t timer_id) {
    const PostResult result = postMessage(timer_id);
    if (result.step == PostStep::no_item) {
        ZB_LOG_ERROR("%s: item oruMP_alloc/(mp_zb_msgl_handle/) failed.", ZB_SVC);
    } else if (result.step == PostStep::refused) {
        ZB_LOG_ERROR("%s: Error: %s() cannot post msg to mainthread %d", ZB_SVC, __func__, result.status);
    }
    return result.status;
}

static void postExpiry(const char *callback, oruZb_msgType_t timer_id) {
    const oruZb_gatePass pass(oruZb_gatePass::For::callback);
    if (!pass) {
        return;
    }
    if (oruZb_timerPostServerMsg(timer_id) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() async timer_id %d cannot be handled", ZB_SVC, callback,
                     static_cast<int>(timer_id));
    }
}

void oruZb_timerDeviceAnnounceCallback(void *) {
    postExpiry(__func__, ORU_ZB_SVC_INTERNAL_DEVICE_ANNOUNCE);
}

void oruZb_timerServiceDiscoveryCallback(void *) {
    postExpiry(__func__, ORU_ZB_SVC_INTERNAL_SERVICE_DISCOVERY);
}

void oruZb_timerDeviceRecoveryCallback(void *) {
    postExpiry(__func__, ORU_ZB_SVC_INTERNAL_DEVICE_RECOVERY);
}

static oru_status_t newTimer(oruTimer_t *timer, oruTime_timerCallback_t callback) {
    return oruTime_timerNew(timer, ORUTIME_CLOCK_MONOTONIC, ORUTIME_TIMER_ONESHOT, callback, nullptr);
}

static bool isUsable(oru_status_t created) {
    return created == ORU_STATUS_OK || created == ORU_STATUS_ALREADY_INITIALIZED;
}

oru_status_t oruZb_timersInit() {
    ZB_LOG_INFO("%s: oruZb_timersInit", ZB_SVC);
    oru_status_t status = newTimer(&device_announce_timer, oruZb_timerDeviceAnnounceCallback);
    if (!isUsable(status)) {
        ZB_LOG_ERROR("%s: Error: %s: deviceAnnounce timer create failed.", ZB_SVC, __func__);
        return status;
    }
    status = newTimer(&service_discovery_timer, oruZb_timerServiceDiscoveryCallback);
    if (!isUsable(status)) {
        ZB_LOG_ERROR("%s: Error: %s: serviceDiscovery timer create failed.", ZB_SVC, __func__);
        return status;
    }
    status = newTimer(&qel_ready_timer, oruZb_timerCheckQelCallback);
    if (!isUsable(status)) {
        ZB_LOG_ERROR("%s: Error: %s: qelReady timer create failed.", ZB_SVC, __func__);
        return status;
    }
    status = newTimer(&device_recovery_timer, oruZb_timerDeviceRecoveryCallback);
    if (!isUsable(status)) {
        ZB_LOG_ERROR("%s: Error: %s: device recovery timer create failed.", ZB_SVC, __func__);
    }
    return status;
}

void oruZb_timersDeInit() {
    ZB_LOG_INFO("%s: oruZb_timersDeInit", ZB_SVC);
    oruTime_timerDelete(&device_announce_timer);
    oruTime_timerDelete(&service_discovery_timer);
    oruTime_timerDelete(&qel_ready_timer);
    oruTime_timerDelete(&device_recovery_timer);
}
