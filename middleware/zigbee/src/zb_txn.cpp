// SPDX-License-Identifier: Apache-2.0
//
// Open send transactions, oldest first. Sends append on the main thread before they hand the frame to the HAL; the
// HAL's confirmation closes them in its own context. Several transactions may share a cfmId (all synchronous sends
// have 0, all sends of one client with one callback id are alike): the oldest is closed.
#include "zb_txn.h"
#include "zb_database_metrics.h"
#include <algorithm>
#include <limits>

std::atomic<oruMp_handle_t> mp_zb_txnl_handle{nullptr};
oruMutex_t txn_list_mutex;

static oruZb_txnList txn_list{nullptr, &txn_list.tqh_first};
oruZb_txnList *const oruZb_txnListHead = &txn_list;

static oru_status_t acquireTxnListMutex(const char *operation) {
    const oru_status_t status = oruMutex_acquire(txn_list_mutex);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() oruMutex_acquire txn_list_mutex failed.status: %d\n", ZB_SVC, operation, status);
    }
    return status;
}

static void releaseTxnListMutex(const char *operation) {
    const oru_status_t status = oruMutex_release(txn_list_mutex);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() oruMutex_release txn_list_mutex failed.status: %d\n", ZB_SVC, operation, status);
    }
}

// Under txn_list_mutex.
static void unlinkAndFree(oruZb_txnList *head, oruZb_txnListItem_t *item) {
    if (item->entries.tqe_next != nullptr) {
        item->entries.tqe_next->entries.tqe_prev = item->entries.tqe_prev;
    } else {
        head->tqh_last = item->entries.tqe_prev;
    }
    *item->entries.tqe_prev = item->entries.tqe_next;
    oruMp_free(mp_zb_txnl_handle.load(), item);
}

oru_status_t oruZb_txnQueueInit() {
    txn_list.tqh_first = nullptr;
    txn_list.tqh_last = &txn_list.tqh_first;
    if (oruMutex_new(nullptr, &txn_list_mutex) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() oruMutex_new failed", ZB_SVC, __func__);
        return ORU_STATUS_GENERAL_ERROR;
    }
    return ORU_STATUS_OK;
}

oru_status_t oruZb_txnQueueDelete() {
    if (oruMutex_delete(txn_list_mutex) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() oruMutex_delete failed", ZB_SVC, __func__);
    }
    return ORU_STATUS_OK;
}

oru_status_t oruZb_txnPut(oruZb_txnList *head, oruZb_txnListItem_t *item) {
    if (head == nullptr || item == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const oru_status_t status = acquireTxnListMutex(__func__);
    if (status != ORU_STATUS_OK) {
        return status;
    }
    item->entries.tqe_next = nullptr;
    item->entries.tqe_prev = head->tqh_last;
    *head->tqh_last = item;
    head->tqh_last = &item->entries.tqe_next;
    releaseTxnListMutex(__func__);
    return ORU_STATUS_OK;
}

// Whole milliseconds between the two; 0 when a younger transaction was found, which started after now was read.
static uint32_t latencyMs(const oruTime_timespec_t &now, const oruTime_timespec_t &start) {
    const int64_t ms = oruTime_timespecDiff(&now, &start) / 1000;
    return static_cast<uint32_t>(std::clamp<int64_t>(ms, 0, std::numeric_limits<uint32_t>::max()));
}

// Under txn_list_mutex.
static oru_status_t closeTransaction(oruZb_txnList *head, uint32_t cfmId, oruZbHal_clusterCommandStatus_t send_status,
                                     const oruTime_timespec_t &now) {
    oruZb_txnListItem_t *item = head->tqh_first;
    while (item != nullptr && item->data.cfmId != cfmId) {
        item = item->entries.tqe_next;
    }
    if (item == nullptr) {
        return ORU_STATUS_NOT_FOUND;
    }
    oru_status_t status = ORU_STATUS_GENERAL_ERROR;
    if (send_status == ORU_ZB_HAL_SUCCESS) {
        status = oruZb_databaseUpdateItemLatency(item->data.node_id, latencyMs(now, item->data.start_time));
    }
    unlinkAndFree(head, item);
    return status;
}

oru_status_t oruZb_txnRecordItem(oruZb_txnList *head, uint32_t cfmId, oruZbHal_clusterCommandStatus_t status) {
    if (head == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    oruTime_timespec_t now{};
    const oru_status_t clock_status = oruTime_clockTime(ORUTIME_CLOCK_MONOTONIC, &now);
    if (clock_status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() oruTime_clockTime failed. status: %d\n", ZB_SVC, __func__, clock_status);
    }
    oru_status_t result = acquireTxnListMutex(__func__);
    if (result != ORU_STATUS_OK) {
        return result;
    }
    result = closeTransaction(head, cfmId, status, now);
    if (result != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() Failed to record txn latencystatus: %d\n", ZB_SVC, __func__, result);
    }
    releaseTxnListMutex(__func__);
    return result;
}

oru_status_t oruZb_txnRemoveItem(oruZb_txnList *head, const oruZb_txnListItem_t *item) {
    if (head == nullptr || item == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const oru_status_t status = acquireTxnListMutex(__func__);
    if (status != ORU_STATUS_OK) {
        return status;
    }
    oruZb_txnListItem_t *listed = head->tqh_first;
    while (listed != nullptr && listed != item) {
        listed = listed->entries.tqe_next;
    }
    if (listed != nullptr) {
        unlinkAndFree(head, listed);
    }
    releaseTxnListMutex(__func__);
    return listed != nullptr ? ORU_STATUS_OK : ORU_STATUS_NOT_FOUND;
}
