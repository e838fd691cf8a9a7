// SPDX-License-Identifier: Apache-2.0
// The objects behind the handles of mutexes and semaphores.
#pragma once
#include "oru_handles.h"
#include "oru_sync.h"
#include <condition_variable>
#include <mutex>
#include <thread>

struct Mutex_record : Handle_record {
    std::mutex lock;
    // The thread that holds `lock` on behalf of its caller. A thread only ever compares it with itself, and only that
    // thread writes its own id, so no order with other threads is needed.
    std::atomic<std::thread::id> owner{};
};

struct Semaphore_record : Handle_record {
    std::mutex lock;                 // guards tokens, waiting and the end of id
    std::condition_variable changed; // a token more, or deleted
    uint32_t tokens = 0;
    uint32_t waiting = 0; // threads
};

namespace corvane::os {

extern constinit Handle_table<Mutex_record> mutexes;
extern constinit Handle_table<Semaphore_record> semaphores;

} // namespace corvane::os
