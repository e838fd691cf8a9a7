// SPDX-License-Identifier: Apache-2.0
// Lets calls to the real pools, mutexes, semaphores and the allocator fail. Linked with -Wl,--wrap for each name.
#include "oru_alloc.h"
#include "oru_mp.h"
#include "oru_sync.h"
#include "test_platform.h"

using testplat::faults::hit;

extern "C" {
void *__real_oruAlloc_alloc(uint32_t module_id, uint32_t buffer_kind, size_t size);
void *__wrap_oruAlloc_alloc(uint32_t module_id, uint32_t buffer_kind, size_t size) {
    return hit("oruAlloc_alloc") ? nullptr : __real_oruAlloc_alloc(module_id, buffer_kind, size);
}
oru_status_t __real_oruMp_init(oruMp_handle_t *pool, size_t block_size, uint32_t block_count);
oru_status_t __wrap_oruMp_init(oruMp_handle_t *pool, size_t block_size, uint32_t block_count) {
    return hit("oruMp_init") ? ORU_STATUS_OUT_OF_MEMORY : __real_oruMp_init(pool, block_size, block_count);
}
void *__real_oruMp_alloc(oruMp_handle_t pool);
void *__wrap_oruMp_alloc(oruMp_handle_t pool) {
    return hit("oruMp_alloc") ? nullptr : __real_oruMp_alloc(pool);
}
void *__real_oruMp_allocSize(oruMp_handle_t pool, size_t size);
void *__wrap_oruMp_allocSize(oruMp_handle_t pool, size_t size) {
    return hit("oruMp_allocSize") ? nullptr : __real_oruMp_allocSize(pool, size);
}
oru_status_t __real_oruMutex_new(const oruMutex_attr_t *attributes, oruMutex_t *mutex);
oru_status_t __wrap_oruMutex_new(const oruMutex_attr_t *attributes, oruMutex_t *mutex) {
    return hit("oruMutex_new") ? ORU_STATUS_OUT_OF_MEMORY : __real_oruMutex_new(attributes, mutex);
}
oru_status_t __real_oruMutex_acquire(oruMutex_t mutex);
oru_status_t __wrap_oruMutex_acquire(oruMutex_t mutex) {
    return hit("oruMutex_acquire") ? ORU_STATUS_GENERAL_ERROR : __real_oruMutex_acquire(mutex);
}
oru_status_t __real_oruSem_new(uint32_t count, oruSemaphore_t *sem);
oru_status_t __wrap_oruSem_new(uint32_t count, oruSemaphore_t *sem) {
    return hit("oruSem_new") ? ORU_STATUS_OUT_OF_MEMORY : __real_oruSem_new(count, sem);
}
oru_status_t __real_oruSem_wait(oruSemaphore_t sem);
oru_status_t __wrap_oruSem_wait(oruSemaphore_t sem) {
    return hit("oruSem_wait") ? ORU_STATUS_GENERAL_ERROR : __real_oruSem_wait(sem);
}
oru_status_t __real_oruSem_waitTry(oruSemaphore_t sem);
oru_status_t __wrap_oruSem_waitTry(oruSemaphore_t sem) {
    return hit("oruSem_waitTry") ? ORU_STATUS_GENERAL_ERROR : __real_oruSem_waitTry(sem);
}
}
