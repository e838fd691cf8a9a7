// SPDX-License-Identifier: Apache-2.0
//
// Message queue, its pools, and the byte that wakes the loop.
//
// A queued message lives: a producer takes an item (oruZb_takeMsgItem), fills it, posts it (oruZb_postThreadMsg); the
// main thread handles it while it is still the head of the queue, removes it (oruZb_msgRemoveHead) and returns the item
// and a payload marked ORU_ZB_SVC_PARAM_IN_POINTER_ALLOCED to their pools. The producer owns both until the post
// returned 0, the main thread from then on.
//
// The queue holds 40 messages; a producer waits for a place. The thread that initialised the queue is its consumer and
// never waits: it may exceed the 40 (the item pool has 100), and its next removals make up for that before a place is
// handed to another producer.
#pragma once
#include "zb_types.h"

extern std::atomic<oruMp_handle_t> mp_zb_msgl_handle; // 100 queue items
extern std::atomic<oruMp_handle_t> mp_zb_var_handle;  // 8192 bytes of message payloads
extern oruZb_msgList *const oruZb_msgListHead;
extern oruMutex_t list_mutex;              // guards the links of the message queue; a leaf
extern oruSemaphore_t zb_post_sem;         // free places in the message queue, 40 at start
extern oruSemaphore_t zb_wait_sem;         // posts made; wakes the main loop in non-blocking mode
extern std::atomic<int32_t> zb_hal_signal; // descriptor the HAL's event loop waits on; -1 none

constexpr uint32_t ORU_ZB_MSG_QUEUE_PLACES = 40;

// Main thread, before producers exist. Empties the queue, creates its objects, makes the caller its consumer and opens
// the intake gate. ORU_STATUS_GENERAL_ERROR when the mutex, the platform's status when a semaphore cannot be created.
oru_status_t oruZb_msgQueueInit();
// Main thread. Deletes the queue's objects; waiting producers return. Items still queued are not walked. Always 0.
oru_status_t oruZb_msgQueueDelete();
// 0: at least one message; ORU_STATUS_NOT_FOUND: empty; ORU_STATUS_NULL_POINTER; the mutex's status. Any thread.
oru_status_t oruZb_hasMsg(oruZb_msgList *head);
// The way in for every producer: appends, logs, wakes the HAL's event loop. 0: the queue owns the item, which must not
// be touched any more. Otherwise the caller still owns it: ORU_STATUS_NULL_POINTER, ORU_STATUS_CANCELED when the
// service stops, or the status of a lock or semaphore. Waits while the queue is full; never on the main thread.
oru_status_t oruZb_postThreadMsg(oruZb_msgListItem_t *item);
// The append alone, without log line and wake-up of the HAL. Results as above.
oru_status_t oruZb_msgPut(oruZb_msgList *head, oruZb_msgListItem_t *item);
// Main thread. Unlinks the first item, without freeing it, and frees its place. ORU_STATUS_NOT_FOUND when there is
// none (nothing changes then); ORU_STATUS_NULL_POINTER; the status of a mutex that could not be taken (still linked).
oru_status_t oruZb_msgRemoveHead(oruZb_msgList *head);
// A cleared queue item of the given type, with no client and no callback; null when the pool is empty. Any thread.
oruZb_msgListItem_t *oruZb_takeMsgItem(oruZb_msgType_t msg_type);
// Returns an item that was not queued to its pool, with the pool payload that it may own. Any thread.
void oruZb_returnMsgItem(oruZb_msgListItem_t *item);

// What became of a message, for the log line of whoever posted it.
enum class PostStep {
    posted,
    no_item,    // the item pool is empty: ORU_STATUS_OUT_OF_MEMORY
    not_filled, // the payload could not be made: the status of the filler
    refused     // by the queue: the status of oruZb_postThreadMsg
};
struct PostResult {
    PostStep step;
    oru_status_t status; // 0 when posted
};

// Takes an item, has fill(oruZb_msgData_t &) complete it (0: go on), and posts it; whatever was taken goes back when
// that fails. Any thread; logs nothing but the post itself.
template <typename Fill>
PostResult postMessage(oruZb_msgType_t msg_type, Fill fill) {
    oruZb_msgListItem_t *const item = oruZb_takeMsgItem(msg_type);
    if (item == nullptr) {
        return {PostStep::no_item, ORU_STATUS_OUT_OF_MEMORY};
    }
    PostResult result{PostStep::not_filled, fill(item->data)};
    if (result.status == ORU_STATUS_OK) {
        result.status = oruZb_postThreadMsg(item);
        result.step = result.status == ORU_STATUS_OK ? PostStep::posted : PostStep::refused;
    }
    if (result.step != PostStep::posted) {
        oruZb_returnMsgItem(item);
    }
    return result;
}
// A message that says everything by its type.
inline PostResult postMessage(oruZb_msgType_t msg_type) {
    return postMessage(msg_type, [](oruZb_msgData_t &) { return ORU_STATUS_OK; });
}

// Messages in the queue now. Any thread.
uint32_t oruZb_msgCount(oruZb_msgList *head);
// Whether every place is taken, so that producers wait. Any thread.
bool oruZb_msgQueueIsFull();
// Wakes every producer that waits for a place once the intake gate is closed. For the gate.
void oruZb_msgReleaseProducers();
// list_mutex with the log lines of its failures; operation is the name printed in them.
oru_status_t oruZb_acquireListMutex(const char *operation);
oru_status_t oruZb_releaseListMutex(const char *operation);
// Wakes the HAL's event loop with one zero byte; nothing without a descriptor. Any thread.
void oruZb_signalHalEvent();
// True when the HAL handed out an event descriptor: the loop then waits inside the HAL (blocking mode).
bool oruZb_halUseSingleEventLoop();
