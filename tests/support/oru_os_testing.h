// SPDX-License-Identifier: Apache-2.0
//
// What tests may look at inside the layer. Each group has a source of its own, so a program that brings its own
// oru_time.h operations brings these with them or does without. All may be called from every thread.
#pragma once
#include "oru_mp.h"
#include "oru_sync.h"
#include <cstddef>
#include <cstdint>
#include <vector>

// Blocks of the pool that are out; also for a destroyed pool. 0 for null.
uint32_t oruMp_testBlocksOut(oruMp_handle_t pool);

// Whether this build fills blocks with 0xA5.
bool oruMp_testPoisonsBlocks();

// Objects that were created and not deleted.
size_t oruSync_testLiveMutexes();
size_t oruSync_testLiveSemaphores();
size_t oruTime_testLiveTimers();

// Threads that wait for a token of the semaphore; 0 when it does not exist.
uint32_t oruSync_testWaiting(oruSemaphore_t sem);

struct oruTime_testArmedTimer_t {
    uint32_t id;           // oruTimer_t::id
    uint64_t remaining_ms; // rounded up; 0 = due
};

// The running timers, next expiry first.
std::vector<oruTime_testArmedTimer_t> oruTime_testArmedTimers();
