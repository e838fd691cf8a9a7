// SPDX-License-Identifier: Apache-2.0
// Lets calls to the real pools, mutexes, semaphores and the allocator fail. Linked with -Wl,--wrap for each name.
#include "oru_alloc.h"
#include "oru_mp.h"
#include "oru_sync.h"
#include "test_platform.h"

using testplat::faults::hit;

constexpr oru_status_t NO_MEMORY = ORU_STATUS_OUT_OF_MEMORY, BROKEN = ORU_STATUS_GENERAL_ERROR;

#define WRAP(result, operation, parameters, arguments, failure)                                                        \
    result __real_##operation parameters;                                                                              \
    result __wrap_##operation parameters {                                                                             \
        return hit(#operation) ? failure : __real_##operation arguments;                                               \
    }

extern "C" {
WRAP(void *, oruAlloc_alloc, (uint32_t module_id, uint32_t kind, size_t size), (module_id, kind, size), nullptr)
WRAP(oru_status_t, oruMp_init, (oruMp_handle_t * pool, size_t size, uint32_t count), (pool, size, count), NO_MEMORY)
WRAP(void *, oruMp_alloc, (oruMp_handle_t pool), (pool), nullptr)
WRAP(void *, oruMp_allocSize, (oruMp_handle_t pool, size_t size), (pool, size), nullptr)
WRAP(oru_status_t, oruMutex_new, (const oruMutex_attr_t *attributes, oruMutex_t *mutex), (attributes, mutex), NO_MEMORY)
WRAP(oru_status_t, oruMutex_acquire, (oruMutex_t mutex), (mutex), BROKEN)
WRAP(oru_status_t, oruSem_new, (uint32_t count, oruSemaphore_t *sem), (count, sem), NO_MEMORY)
WRAP(oru_status_t, oruSem_wait, (oruSemaphore_t sem), (sem), BROKEN)
WRAP(oru_status_t, oruSem_waitTry, (oruSemaphore_t sem), (sem), BROKEN)
}
