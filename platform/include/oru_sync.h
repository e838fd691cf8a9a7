// SPDX-License-Identifier: Apache-2.0
//
// Mutexes and counting semaphores, known by small ids.
//
// An id is never used twice in the life of the process, so an operation on a zero, deleted or stale id gives
// ORU_STATUS_UNINITIALIZED and touches nothing: deleting an object that was never created, and using one that another
// thread has just deleted, are both harmless. At most 4096 mutexes and 4096 semaphores exist at a time.
//
// Threads: every operation may be called from every thread at once. No operation on an existing object allocates.
// The caller's oruMutex_t and oruSemaphore_t are only written by the two "new" operations; delete leaves the stale id.
// Waiting ignores signals.
#pragma once
#include "oru_status.h"
#include <cstdint>

struct oruMutex_t {
    uint32_t id;
}; // 0 = not created
struct oruSemaphore_t {
    uint32_t id;
};                      // 0 = not created
struct oruMutex_attr_t; // opaque; the service always passes null (default attributes)

extern "C" {
// Creates a free, non-recursive mutex. attributes: null; no others exist.
// Result: ORU_STATUS_OK and the id in *mutex; *mutex unchanged with ORU_STATUS_NULL_POINTER (mutex is null),
// ORU_STATUS_NOT_SUPPORTED (attributes given), ORU_STATUS_OUT_OF_MEMORY.
oru_status_t oruMutex_new(const oruMutex_attr_t *attributes, oruMutex_t *mutex);

// Waits without limit until the caller owns the mutex.
// Result: ORU_STATUS_OK; ORU_STATUS_GENERAL_ERROR when the caller owns it already (instead of hanging);
// ORU_STATUS_UNINITIALIZED when it does not exist, or was deleted while the caller waited.
oru_status_t oruMutex_acquire(oruMutex_t mutex);

// Gives the mutex up.
// Result: ORU_STATUS_OK; ORU_STATUS_GENERAL_ERROR when the caller is not the owner; ORU_STATUS_UNINITIALIZED.
oru_status_t oruMutex_release(oruMutex_t mutex);

// Removes a mutex that nobody owns.
// Result: ORU_STATUS_OK; ORU_STATUS_BUSY when somebody owns it, the caller included (it stays);
// ORU_STATUS_UNINITIALIZED.
oru_status_t oruMutex_delete(oruMutex_t mutex);

// Creates a semaphore with count tokens, any value of 32 bits.
// Result: ORU_STATUS_OK and the id in *sem; *sem unchanged with ORU_STATUS_NULL_POINTER (sem is null) or
// ORU_STATUS_OUT_OF_MEMORY.
oru_status_t oruSem_new(uint32_t count, oruSemaphore_t *sem);

// Takes one token, waits for it without limit. What the posting thread wrote before its post is visible afterwards.
// Result: ORU_STATUS_OK; ORU_STATUS_CANCELED when the semaphore is deleted while the caller waits (a token posted
// before the deletion is still handed over); ORU_STATUS_UNINITIALIZED.
oru_status_t oruSem_wait(oruSemaphore_t sem);

// Takes one token, waits at least the given milliseconds for it on the monotonic clock; 0 is one try.
// All values of 32 bits are real durations, there is no "for ever".
// Result: as oruSem_wait, and ORU_STATUS_TIMEOUT.
oru_status_t oruSem_waitTimeout(oruSemaphore_t sem, uint32_t milliseconds);

// Takes one token if there is one.
// Result: ORU_STATUS_OK; ORU_STATUS_TRY_AGAIN when there is none; ORU_STATUS_UNINITIALIZED.
oru_status_t oruSem_waitTry(oruSemaphore_t sem);

// Adds one token and wakes one waiter. The count stops at 4294967295; posting then succeeds without effect.
// Result: ORU_STATUS_OK; ORU_STATUS_UNINITIALIZED.
oru_status_t oruSem_post(oruSemaphore_t sem);

// Stores the number of tokens in *count; other threads may change it at once.
// Result: ORU_STATUS_OK; ORU_STATUS_NULL_POINTER when count is null; ORU_STATUS_UNINITIALIZED.
oru_status_t oruSem_getCount(oruSemaphore_t sem, uint32_t *count);

// Removes the semaphore. Every thread waiting for it returns ORU_STATUS_CANCELED; the call does not wait for them.
// Result: ORU_STATUS_OK; ORU_STATUS_UNINITIALIZED.
oru_status_t oruSem_delete(oruSemaphore_t sem);
}
