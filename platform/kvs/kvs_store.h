// SPDX-License-Identifier: Apache-2.0
// The one store of the process. Its members are guarded by its mutex.
#pragma once
#include "base/descriptor.h"
#include "kvs_database.h"
#include "oru_time.h"
#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <vector>

extern std::atomic<uint32_t> start_wait_ms; // longest, for a medium that is mounted late or a lock that is held
extern std::atomic<uint32_t> retry_period_ms;

struct waiting_t {
    std::string key;
    std::vector<uint8_t> value;
};

// What does not work, and what proves that it works again: opening, or anything further to the right.
enum class trouble_t : uint8_t { none, opening, reading, writing };

struct store_t {
    std::mutex mutex;
    corvane::base::Descriptor lock; // of the folder
    kvsDatabase_t database;
    kvsResult_t copy_reason;       // why database is a copy only
    bool started = false;          // the wait at start is over
    bool writable = false;         // open, in its place and not a copy, as far as the last operation knows
    bool reopen = false;           // the connection may be unsound; the next operation opens it again
    std::deque<waiting_t> waiting; // one entry per key
    std::set<std::string> erasing; // groups; values of theirs in `waiting` are newer than the erasure
    trouble_t trouble = trouble_t::none;
    bool unread = false;       // something could not be read since the trouble began
    std::string last_failure;  // since the trouble began
    std::set<int> reported;    // codes of failures logged since then
    unsigned written_late = 0; // waiting values written since then
    bool overflow_logged = false;
    oruTimer_t timer{};
    uint32_t period_ms = 0; // of the timer; 0: not running
};

store_t &theStore();

// A last try for what waits in memory.
void endOfProcess();

// Tells others the state; the mutex is held. True when the listener is to be told, once it is free.
bool publish(const store_t &store);
