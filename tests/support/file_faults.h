// SPDX-License-Identifier: Apache-2.0
//
// Failing system calls for everything in a test program, the libraries it loads included: opening, reading, changing
// and renaming files.
#pragma once

namespace filefaults {
void off();
// Calls number first, first+1, ... first+count-1 from now on (counted from 1) fail with this errno.
void failCalls(unsigned first, unsigned count, int error);
// Opening a file whose name ends so, for writing, fails that often with this errno. An empty end: every file whose
// name contains `part`; then renaming, linking, removing and making folders fail as well.
void failOpening(const char *end, unsigned count, int error);
void failChangesBelow(const char *part, int error);
// The process ends, with status 42, before call number nth that changes something on the medium.
void dieBeforeChange(unsigned nth);
// Calls that failed since.
unsigned failed();
} // namespace filefaults
