// SPDX-License-Identifier: Apache-2.0
//
// List of open send transactions.
#pragma once
#include "zb_types.h"

extern std::atomic<oruMp_handle_t> mp_zb_txnl_handle; // 100 transaction items
extern oruZb_txnList *const oruZb_txnListHead;
extern oruMutex_t txn_list_mutex; // guards the transaction list; device_list_mutex may be taken inside it

// Main thread, before the first send. ORU_STATUS_GENERAL_ERROR when the mutex cannot be created.
oru_status_t oruZb_txnQueueInit();
oru_status_t oruZb_txnQueueDelete(); // always 0
// Appends; the list owns the item when 0 is returned. ORU_STATUS_NULL_POINTER; the mutex's status. Any thread.
oru_status_t oruZb_txnPut(oruZb_txnList *head, oruZb_txnListItem_t *item);
// Closes the oldest transaction with this cfmId and returns its item to the pool; any thread. A successful one books
// its latency (whole milliseconds) to the device and gives oruZb_databaseUpdateItemLatency's status, a failed one gives
// ORU_STATUS_GENERAL_ERROR; ORU_STATUS_NOT_FOUND when none is open; ORU_STATUS_NULL_POINTER; the mutex's status.
oru_status_t oruZb_txnRecordItem(oruZb_txnList *head, uint32_t cfmId, oruZbHal_clusterCommandStatus_t status);
// Takes one item (by address) out of the list and returns it to its pool; ORU_STATUS_NOT_FOUND when it is not listed
// any more (a confirmation was quicker).
oru_status_t oruZb_txnRemoveItem(oruZb_txnList *head, const oruZb_txnListItem_t *item);
