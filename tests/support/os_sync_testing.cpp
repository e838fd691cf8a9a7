// SPDX-License-Identifier: Apache-2.0
#include "oru_os_testing.h"
#include "oru_sync_records.h"

size_t oruSync_testLiveMutexes() {
    return corvane::os::mutexes.live();
}

size_t oruSync_testLiveSemaphores() {
    return corvane::os::semaphores.live();
}

uint32_t oruSync_testWaiting(oruSemaphore_t sem) {
    const Pin<Semaphore_record> record(corvane::os::semaphores, sem.id);
    if (!record) {
        return 0;
    }
    const std::lock_guard guard(record->lock);
    return record->waiting;
}
