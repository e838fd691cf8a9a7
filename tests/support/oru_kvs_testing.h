// SPDX-License-Identifier: Apache-2.0
// Test access to the key-value store. Nothing of it is linked into the daemon.
#pragma once
#include <cstdint>

// Ends the store as the end of the process would: values still waiting in memory are gone, the lock file is released.
// The next operation opens it again, in the folder that oruConfig_get() names then.
void oruKvsTesting_closeStore();

// How long, in milliseconds, the first operation waits for a store that cannot be opened, and how often a timer tries
// while something is amiss; 0: no wait, no timer.
void oruKvsTesting_setPace(uint32_t start_wait, uint32_t retry_period);

// What the end of the process does: a last try for what waits in memory.
void oruKvsTesting_endOfProcess();

// From now on the writes of SQLite number first, first+1, ... first+count-1 (counted from 1; a write is a block
// written, a file flushed or truncated) fail with sqlite_code, for example SQLITE_FULL, SQLITE_IOERR_WRITE or
// SQLITE_READONLY. count 0: none. Files opened before the first call of this function are not affected.
void oruKvsTesting_failWrites(unsigned first, unsigned count, int sqlite_code);

// Writes seen and writes refused since the last oruKvsTesting_failWrites.
unsigned oruKvsTesting_writesSeen();
unsigned oruKvsTesting_writesRefused();
