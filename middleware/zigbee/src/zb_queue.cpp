// SPDX-License-Identifier: Apache-2.0
//
// The message queue: a singly-linked tail queue of pool items, bounded by the counting semaphore zb_post_sem.
//
// Invariants (checkQueue): places handed out (40 minus the count of zb_post_sem, plus overdraft) = items linked +
// appends under way. A producer waits for its place before it takes list_mutex, so the main thread can always remove.
// list_mutex is held for a few pointer operations only and never together with another lock of the service.
#include "zb_queue.h"
#include "zb_gate.h"
#include "zb_invariant.h"
#include "zb_svc_pwr.h"
#include <cerrno>
#include <thread>
#include <unistd.h>

std::atomic<oruMp_handle_t> mp_zb_msgl_handle{nullptr};
std::atomic<oruMp_handle_t> mp_zb_var_handle{nullptr};
std::atomic<int32_t> zb_hal_signal{-1};

oruMutex_t list_mutex;
oruSemaphore_t zb_post_sem;
oruSemaphore_t zb_wait_sem;

static oruZb_msgList msg_list{nullptr, &msg_list.stqh_first};
oruZb_msgList *const oruZb_msgListHead = &msg_list;

static std::atomic<std::thread::id> consumer; // the thread that takes messages out
static uint32_t overdraft;                    // places in use beyond the 40; touched by the consumer only
static std::atomic<uint32_t> post_waiters;    // producers that wait for a place, or are about to

static bool isConsumer() {
    return std::this_thread::get_id() == consumer.load();
}

oru_status_t oruZb_acquireListMutex(const char *operation) {
    const oru_status_t status = oruMutex_acquire(list_mutex);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() oruMutex_acquire list_mutex failed. status: %d\n", ZB_SVC, operation, status);
    }
    return status;
}

oru_status_t oruZb_releaseListMutex(const char *operation) {
    const oru_status_t status = oruMutex_release(list_mutex);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() oruMutex_release list_mutex failed. status: %d\n", ZB_SVC, operation, status);
    }
    return status;
}

oru_status_t oruZb_msgQueueInit() {
    msg_list.stqh_first = nullptr;
    msg_list.stqh_last = &msg_list.stqh_first;
    overdraft = 0;
    consumer.store(std::this_thread::get_id());
    if (oruMutex_new(nullptr, &list_mutex) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() oruMutex_new failed", ZB_SVC, __func__);
        return ORU_STATUS_GENERAL_ERROR;
    }
    oru_status_t status = oruSem_new(0, &zb_wait_sem);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() oruSem_new zb_wait_sem failed", ZB_SVC, __func__);
        return status;
    }
    status = oruSem_new(ORU_ZB_MSG_QUEUE_PLACES, &zb_post_sem);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() oruSem_new zb_post_sem failed", ZB_SVC, __func__);
        return status;
    }
    oruZb_gateOpen(oruZb_msgReleaseProducers);
    return ORU_STATUS_OK;
}

// The handles keep their values: they are never handed out again, and a straggler gets a clean "not created".
oru_status_t oruZb_msgQueueDelete() {
    oru_status_t status = oruMutex_delete(list_mutex);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): oruMutex_delete failed, status:%d", ZB_SVC, __func__, status);
    }
    for (const oruSemaphore_t sem : {zb_wait_sem, zb_post_sem}) {
        status = oruSem_delete(sem);
        if (status != ORU_STATUS_OK) {
            ZB_LOG_ERROR("%s: %s(): oruSem_delete failed, status:%d", ZB_SVC, __func__, status);
        }
    }
    return ORU_STATUS_OK;
}

oru_status_t oruZb_hasMsg(oruZb_msgList *head) {
    if (head == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const oru_status_t status = oruZb_acquireListMutex(__func__);
    if (status != ORU_STATUS_OK) {
        return status;
    }
    const bool empty = head->stqh_first == nullptr;
    oruZb_releaseListMutex(__func__);
    return empty ? ORU_STATUS_NOT_FOUND : ORU_STATUS_OK;
}

uint32_t oruZb_msgCount(oruZb_msgList *head) {
    if (head == nullptr || oruZb_acquireListMutex(__func__) != ORU_STATUS_OK) {
        return 0;
    }
    uint32_t count = 0;
    for (const oruZb_msgListItem_t *item = head->stqh_first; item != nullptr; item = item->entries.stqe_next) {
        ++count;
    }
    oruZb_releaseListMutex(__func__);
    return count;
}

bool oruZb_msgQueueIsFull() {
    uint32_t places = 0;
    return oruSem_getCount(zb_post_sem, &places) == ORU_STATUS_OK && places == 0;
}

// The consumer would wait for itself: without a free place it goes into overdraft, because a stack status or a leave
// confirmation that it reports from inside a HAL call is never repeated.
static oru_status_t takePlaceAsConsumer() {
    const oru_status_t status = oruSem_waitTry(zb_post_sem);
    if (status == ORU_STATUS_TRY_AGAIN) {
        ++overdraft;
        return ORU_STATUS_OK;
    }
    return status;
}

// A place for one item, waiting for it as long as it takes; ORU_STATUS_CANCELED when the gate closes meanwhile.
static oru_status_t takePlace() {
    if (isConsumer()) {
        return takePlaceAsConsumer();
    }
    post_waiters.fetch_add(1);
    const oru_status_t status = oruZb_gateIsClosed() ? ORU_STATUS_CANCELED : oruSem_wait(zb_post_sem);
    post_waiters.fetch_sub(1);
    return status == ORU_STATUS_OK && oruZb_gateIsClosed() ? ORU_STATUS_CANCELED : status;
}

static void givePlaceBack(const char *operation) {
    if (isConsumer() && overdraft > 0) {
        --overdraft;
        return;
    }
    const oru_status_t status = oruSem_post(zb_post_sem);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() oruSem_post zb_post_sem failed. status: %d\n", ZB_SVC, operation, status);
    }
}

void oruZb_msgReleaseProducers() {
    for (uint32_t waiting = post_waiters.load(); waiting > 0; --waiting) {
        oruSem_post(zb_post_sem);
    }
}

oru_status_t oruZb_msgPut(oruZb_msgList *head, oruZb_msgListItem_t *item) {
    if (head == nullptr || item == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    oru_status_t status = takePlace();
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() oruSem_wait zb_post_sem failed. status: %d\n", ZB_SVC, __func__, status);
        return status;
    }
    status = oruZb_acquireListMutex(__func__);
    if (status != ORU_STATUS_OK) {
        givePlaceBack(__func__);
        return status;
    }
    if (head->stqh_first == nullptr) {
        oruZb_pwrSvcAcquire();
    }
    item->entries.stqe_next = nullptr;
    *head->stqh_last = item;
    head->stqh_last = &item->entries.stqe_next;
    oruZb_releaseListMutex(__func__);
    status = oruSem_post(zb_wait_sem);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() oruSem_post zb_wait_sem failed. status: %d\n", ZB_SVC, __func__, status);
    }
    return ORU_STATUS_OK;
}

bool oruZb_halUseSingleEventLoop() {
    return zb_hal_signal.load() != -1;
}

// A full pipe refuses the byte; it holds enough wake-ups already.
void oruZb_signalHalEvent() {
    const int32_t descriptor = zb_hal_signal.load();
    if (descriptor == -1) {
        return;
    }
    const uint8_t wake = 0;
    while (::write(descriptor, &wake, sizeof wake) < 0 && errno == EINTR) {
    }
}

oru_status_t oruZb_postThreadMsg(oruZb_msgListItem_t *item) {
    if (item == nullptr) {
        ZB_LOG_ERROR("%s: Error: %s() item is NULL", ZB_SVC, __func__);
        return ORU_STATUS_NULL_POINTER;
    }
    const oruZb_msgType_t msg_type = item->data.msg_type; // once appended, the item may be gone at any moment
    const oru_status_t status = oruZb_msgPut(oruZb_msgListHead, item);
    ZB_LOG_INFO("%s: %s(): posted message %x with return status: %d.", ZB_SVC, __func__, msg_type, status);
    oruZb_signalHalEvent();
    return status;
}

// On the consumer, between two messages; closing the gate gives places away that nobody took.
static void checkQueue() {
    if (!isConsumer() || oruZb_acquireListMutex(__func__) != ORU_STATUS_OK) {
        return;
    }
    uint32_t linked = 0;
    oruZb_msgListItem_t **last = &msg_list.stqh_first;
    for (; *last != nullptr; last = &(*last)->entries.stqe_next) {
        ++linked;
    }
    mustHold(last == msg_list.stqh_last, "the queue knows its last item");
    uint32_t places = 0;
    if (oruSem_getCount(zb_post_sem, &places) == ORU_STATUS_OK && !oruZb_gateIsClosed()) {
        mustHold(linked + places <= ORU_ZB_MSG_QUEUE_PLACES + overdraft, "every linked item has a place");
    }
    oruZb_releaseListMutex(__func__);
}

oru_status_t oruZb_msgRemoveHead(oruZb_msgList *head) {
    if (head == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const oru_status_t status = oruZb_acquireListMutex(__func__);
    if (status != ORU_STATUS_OK) {
        return status;
    }
    const oruZb_msgListItem_t *const first = head->stqh_first;
    if (first != nullptr) {
        head->stqh_first = first->entries.stqe_next;
        if (head->stqh_first == nullptr) {
            head->stqh_last = &head->stqh_first;
        }
    }
    oruZb_releaseListMutex(__func__);
    if (first == nullptr) {
        return ORU_STATUS_NOT_FOUND;
    }
    givePlaceBack(__func__);
    if (check_invariants) {
        checkQueue();
    }
    if (oruZb_hasMsg(head) != ORU_STATUS_OK) {
        oruZb_pwrSvcRelease();
    }
    return ORU_STATUS_OK;
}

oruZb_msgListItem_t *oruZb_takeMsgItem(oruZb_msgType_t msg_type) {
    auto *const item = static_cast<oruZb_msgListItem_t *>(oruMp_alloc(mp_zb_msgl_handle.load()));
    if (item != nullptr) {
        *item = oruZb_msgListItem_t{};
        item->data.msg_type = msg_type;
        item->data.callback_client_id = ORU_ZB_NO_CALLBACK;
        item->data.callback_id = ORU_ZB_NO_CALLBACK;
    }
    return item;
}

void oruZb_returnMsgItem(oruZb_msgListItem_t *item) {
    if (item == nullptr) {
        return;
    }
    if (item->data.param_type == ORU_ZB_SVC_PARAM_IN_POINTER_ALLOCED && item->data.msg_data_ptr != nullptr) {
        oruMp_free(mp_zb_var_handle.load(), item->data.msg_data_ptr);
    }
    oruMp_free(mp_zb_msgl_handle.load(), item);
}
