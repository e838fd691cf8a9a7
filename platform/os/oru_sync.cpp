// SPDX-License-Identifier: Apache-2.0
//
// Mutexes and semaphores over the table of handles.
//
// Every operation pins its record, so deletion never pulls memory away from a thread that waits: it only takes the id
// away, under the record's lock, and whoever gets that lock afterwards finds that the object is gone.
#include "oru_sync.h"
#include "oru_sync_records.h"
#include <chrono>
#include <condition_variable>
#include <limits>
#include <thread>

// Never destroyed: other threads may be inside while the process exits.
constinit Handle_table<Mutex_record> corvane::os::mutexes;
constinit Handle_table<Semaphore_record> corvane::os::semaphores;
static_assert(std::is_trivially_destructible_v<Handle_table<Mutex_record>>, "no destructor may run at exit");

namespace {

using corvane::os::mutexes;
using corvane::os::semaphores;

using Clock = std::chrono::steady_clock;

// Takes a token. wait(changed, guard, woken) is called when there is none: it returns ORU_STATUS_OK once woken() holds,
// or the status to give up with.
template <typename Wait>
oru_status_t take(oruSemaphore_t sem, Wait wait) {
    const Pin<Semaphore_record> record(semaphores, sem.id);
    if (!record) {
        return ORU_STATUS_UNINITIALIZED;
    }
    std::unique_lock guard(record->lock);
    if (!record.exists()) {
        return ORU_STATUS_UNINITIALIZED;
    }
    if (record->tokens == 0) {
        ++record->waiting;
        const oru_status_t status =
            wait(record->changed, guard, [&record] { return record->tokens > 0 || !record.exists(); });
        --record->waiting;
        if (status != ORU_STATUS_OK) {
            return status;
        }
    }
    if (record->tokens == 0) {
        return ORU_STATUS_CANCELED;
    }
    --record->tokens;
    return ORU_STATUS_OK;
}

} // namespace

oru_status_t oruMutex_new(const oruMutex_attr_t *attributes, oruMutex_t *mutex) {
    if (mutex == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (attributes != nullptr) {
        return ORU_STATUS_NOT_SUPPORTED;
    }
    const uint32_t id = mutexes.create([](Mutex_record &) {});
    if (id == 0) {
        return ORU_STATUS_OUT_OF_MEMORY;
    }
    mutex->id = id;
    return ORU_STATUS_OK;
}

oru_status_t oruMutex_acquire(oruMutex_t mutex) {
    const Pin<Mutex_record> record(mutexes, mutex.id);
    if (!record) {
        return ORU_STATUS_UNINITIALIZED;
    }
    const std::thread::id self = std::this_thread::get_id();
    if (record->owner.load(std::memory_order_relaxed) == self) {
        return ORU_STATUS_GENERAL_ERROR;
    }
    record->lock.lock();
    if (!record.exists()) {
        record->lock.unlock();
        return ORU_STATUS_UNINITIALIZED;
    }
    record->owner.store(self, std::memory_order_relaxed);
    return ORU_STATUS_OK;
}

oru_status_t oruMutex_release(oruMutex_t mutex) {
    const Pin<Mutex_record> record(mutexes, mutex.id);
    if (!record) {
        return ORU_STATUS_UNINITIALIZED;
    }
    if (record->owner.load(std::memory_order_relaxed) != std::this_thread::get_id()) {
        return ORU_STATUS_GENERAL_ERROR;
    }
    record->owner.store(std::thread::id(), std::memory_order_relaxed);
    record->lock.unlock();
    return ORU_STATUS_OK;
}

oru_status_t oruMutex_delete(oruMutex_t mutex) {
    const Pin<Mutex_record> record(mutexes, mutex.id);
    if (!record) {
        return ORU_STATUS_UNINITIALIZED;
    }
    if (record->owner.load(std::memory_order_relaxed) == std::this_thread::get_id()) {
        return ORU_STATUS_BUSY;
    }
    const std::unique_lock guard(record->lock, std::try_to_lock);
    if (!guard.owns_lock()) {
        return ORU_STATUS_BUSY;
    }
    if (!record.exists()) {
        return ORU_STATUS_UNINITIALIZED;
    }
    record->id = 0;
    return ORU_STATUS_OK;
}

oru_status_t oruSem_new(uint32_t count, oruSemaphore_t *sem) {
    if (sem == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const uint32_t id = semaphores.create([count](Semaphore_record &record) { record.tokens = count; });
    if (id == 0) {
        return ORU_STATUS_OUT_OF_MEMORY;
    }
    sem->id = id;
    return ORU_STATUS_OK;
}

oru_status_t oruSem_wait(oruSemaphore_t sem) {
    return take(sem, [](auto &changed, auto &guard, auto woken) {
        changed.wait(guard, woken);
        return ORU_STATUS_OK;
    });
}

oru_status_t oruSem_waitTimeout(oruSemaphore_t sem, uint32_t milliseconds) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(int64_t{milliseconds});
    return take(sem, [deadline](auto &changed, auto &guard, auto woken) {
        return changed.wait_until(guard, deadline, woken) ? ORU_STATUS_OK : ORU_STATUS_TIMEOUT;
    });
}

oru_status_t oruSem_waitTry(oruSemaphore_t sem) {
    return take(sem, [](auto &, auto &, auto) { return ORU_STATUS_TRY_AGAIN; });
}

oru_status_t oruSem_post(oruSemaphore_t sem) {
    const Pin<Semaphore_record> record(semaphores, sem.id);
    if (!record) {
        return ORU_STATUS_UNINITIALIZED;
    }
    {
        const std::lock_guard guard(record->lock);
        if (!record.exists()) {
            return ORU_STATUS_UNINITIALIZED;
        }
        if (record->tokens < std::numeric_limits<uint32_t>::max()) {
            ++record->tokens;
        }
    }
    record->changed.notify_one();
    return ORU_STATUS_OK;
}

oru_status_t oruSem_getCount(oruSemaphore_t sem, uint32_t *count) {
    if (count == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const Pin<Semaphore_record> record(semaphores, sem.id);
    if (!record) {
        return ORU_STATUS_UNINITIALIZED;
    }
    const std::lock_guard guard(record->lock);
    if (!record.exists()) {
        return ORU_STATUS_UNINITIALIZED;
    }
    *count = record->tokens;
    return ORU_STATUS_OK;
}

oru_status_t oruSem_delete(oruSemaphore_t sem) {
    const Pin<Semaphore_record> record(semaphores, sem.id);
    if (!record) {
        return ORU_STATUS_UNINITIALIZED;
    }
    {
        const std::lock_guard guard(record->lock);
        if (!record.exists()) {
            return ORU_STATUS_UNINITIALIZED;
        }
        record->id = 0;
    }
    record->changed.notify_all();
    return ORU_STATUS_OK;
}
