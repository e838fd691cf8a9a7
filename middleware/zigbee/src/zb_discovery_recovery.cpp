// SPDX-License-Identifier: Apache-2.0
//
// Recovery of devices whose discovery failed: they are told to leave, and to rejoin while joining is open, so that
// their rejoin starts discovery again.
//
// A pass visits the failed-discovery list from its head, one device per run, 200 ms apart; the next pass begins 10 s
// after the last device of the previous one. A device that was told to leave six times is dropped. Recovery is started
// by a response time-out that finds nothing to interrogate, keeps itself going through device_recovery_timer, and ends
// with the run that finds the list empty.
//
// The next device is remembered by its EUI-64: the HAL's callback context may free any node between two runs, and
// during one. A device that is gone sends the pass back to the head of the list.
#include "zb_discovery_recovery.h"
#include "oru_time.h"
#include "zb_discovery_internal.h"
#include "zb_discovery_list.h"
#include "zb_format.h"
#include "zb_state.h"
#include "zb_timer.h"
#include "zb_zdo.h"
#include <algorithm>
#include <array>
#include <iterator>

static constexpr uint8_t MAX_RECOVERY_RETRIES = 5; // after the first attempt
static constexpr uint32_t FAST_WAKEUP_MS = 200;
static constexpr uint32_t STANDARD_WAKEUP_MS = 10'000;

// A device that rejoins when told to but never answers keeps the interrogator busy most of the time.
static constexpr uint32_t FAILURES_WORTH_TELLING = 3;
static constexpr uint32_t FAILURE_MEMORY_S = 3600; // failures further apart have nothing to do with each other
static constexpr uint32_t TELL_INTERVAL_S = 86'400;
static constexpr size_t REMEMBERED_DEVICES = 8;

struct recoveryCursor {
    bool set;
    oruZbHal_eui64_t eui64;
};

struct recoveryAttempt {
    uint16_t node_id;
    oruZbHal_eui64_t eui64;
    uint8_t num_retries; // attempts made before this one
};

static recoveryCursor item; // the failed device to be handled next; guarded by discovery_mutex

// The caller holds discovery_mutex.
static void moveCursorTo(const oruZb_node_t *node) {
    item.set = node != nullptr;
    if (node != nullptr) {
        std::copy_n(node->device.device_info.eui64, sizeof(oruZbHal_eui64_t), item.eui64);
    }
}

// The device of this run; false when the list is empty. The cursor is moved on at once, in case the device is removed
// while its leave request is being sent.
static bool beginAttempt(recoveryAttempt &attempt) {
    const std::lock_guard<std::mutex> lock(discovery_mutex);
    const oruZb_node_t *node = item.set ? oruZb_findNodeLocked(failed_discovery_list_head, item.eui64) : nullptr;
    if (node == nullptr) {
        node = failed_discovery_list_head.slh_first;
    }
    if (node == nullptr) {
        moveCursorTo(nullptr);
        return false;
    }
    attempt.node_id = node->device.node_id;
    std::copy_n(node->device.device_info.eui64, sizeof(oruZbHal_eui64_t), attempt.eui64);
    attempt.num_retries = node->action.num_retries;
    moveCursorTo(node->entries.sle_next);
    return true;
}

static void sendLeave(recoveryAttempt &attempt) {
    constexpr char operation[] = "oruZb_handleDeviceRecovery";
    const bool rejoin = oruZb_getPjoinState() == ORU_ZB_HAL_STATE_PJOIN_OPEN;
    if (rejoin) {
        ZB_LOG_INFO("%s: %s: Sending Leave Rejoin Request (retry attempt:%d) to %4.4x", ZB_DISCOVERY, operation,
                    attempt.num_retries, attempt.node_id);
    } else {
        ZB_LOG_INFO("%s: %s: Sending Leave Request (retry attempt:%d) to %4.4x", ZB_DISCOVERY, operation,
                    attempt.num_retries, attempt.node_id);
    }
    const oru_status_t status =
        oruZb_sendNodeLeaveNetworkRequest(attempt.node_id, attempt.eui64, rejoin ? ZDO_LEAVE_AND_REJOIN : ZDO_LEAVE);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: Fail to send Leave / Rejoin Request to %4.4x, status: %d\n", ZB_DISCOVERY, operation,
                     attempt.node_id, status);
    }
}

// Counts the attempt, unless the device left the list meanwhile. True: it was the last one.
static bool countAttempt(const recoveryAttempt &attempt) {
    const std::lock_guard<std::mutex> lock(discovery_mutex);
    oruZb_node_t *node = oruZb_findNodeLocked(failed_discovery_list_head, attempt.eui64);
    if (node == nullptr) {
        return false;
    }
    node->action.num_retries++;
    moveCursorTo(node->entries.sle_next);
    return node->action.num_retries > MAX_RECOVERY_RETRIES;
}

static void giveUp(recoveryAttempt &attempt) {
    oruZb_printDeviceError("Failed to Recover", attempt.eui64);
    const oru_status_t status = oruZb_deleteFromFailedDiscoveryList(attempt.eui64);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): Failed to delete from failed_discovery_list, status: %d", ZB_DISCOVERY,
                     "oruZb_handleDeviceRecovery", status);
    }
}

static bool passGoesOn() {
    const std::lock_guard<std::mutex> lock(discovery_mutex);
    return item.set;
}

void oruZb_handleDeviceRecovery() {
    recoveryAttempt attempt{};
    if (!beginAttempt(attempt)) {
        return;
    }
    sendLeave(attempt);
    if (countAttempt(attempt)) {
        giveUp(attempt);
    }
    if (passGoesOn()) {
        if (oruTime_timerStart(&device_recovery_timer, FAST_WAKEUP_MS) != ORU_STATUS_OK) {
            ZB_LOG_ERROR("%s: %s: Device recovery fast wakeup timer start failed.", ZB_DISCOVERY, __func__);
            oruZb_cleanupFailedDiscoveryList();
        }
    } else if (oruTime_timerStart(&device_recovery_timer, STANDARD_WAKEUP_MS) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: Device recovery standard wakeup timer start failed.", ZB_DISCOVERY, __func__);
        oruZb_cleanupFailedDiscoveryList();
    }
}

// ---------------------------------------------------------------------------------------- devices that keep failing
struct failureHistory {
    oruZbHal_eui64_t eui64;
    uint32_t failures;
    uint32_t last_s; // seconds of the platform clock; 0: never
    uint32_t told_s; // likewise
};

static std::array<failureHistory, REMEMBERED_DEVICES> histories{}; // main thread

// A device that is not remembered takes the place of the one whose last failure is longest ago.
static failureHistory &historyOf(const uint8_t *eui64) {
    const auto known = std::ranges::find_if(histories, [eui64](const failureHistory &history) {
        return history.failures > 0 && std::equal(std::begin(history.eui64), std::end(history.eui64), eui64);
    });
    if (known != histories.end()) {
        return *known;
    }
    failureHistory &oldest = *std::ranges::min_element(histories, {}, &failureHistory::last_s);
    oldest = {};
    std::copy_n(eui64, sizeof(oruZbHal_eui64_t), oldest.eui64);
    return oldest;
}

void oruZb_noteFailedDiscovery(const uint8_t *eui64) {
    failureHistory &history = historyOf(eui64);
    const uint32_t now_s = oruZb_getCurrentTimeSec();
    history.failures = now_s - history.last_s > FAILURE_MEMORY_S ? 1 : history.failures + 1;
    history.last_s = now_s;
    if (history.failures < FAILURES_WORTH_TELLING ||
        (history.told_s != 0 && now_s - history.told_s < TELL_INTERVAL_S)) {
        return;
    }
    history.told_s = now_s;
    ZB_LOG_WARN("%s: device %s comes back but never answers, %u failures so far, "
                "and holds up the discovery of others: stop joining, or reset the device or switch it off",
                ZB_DISCOVERY, eui64Text(eui64).c_str(), history.failures);
}
