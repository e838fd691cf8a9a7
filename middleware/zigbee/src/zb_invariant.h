// SPDX-License-Identifier: Apache-2.0
//
// Checks of what the units state as their invariants, after every change of state. The product runs without them; tests
// and sanitized builds of the daemon turn them on.
#pragma once
#include <cstdio>
#include <cstdlib>

inline bool check_invariants = false; // set before the process has a second thread

// Ends the process when a condition does not hold that always should; what says which.
inline void mustHold(bool condition, const char *what) {
    if (!condition) {
        static_cast<void>(fprintf(stderr, "broken invariant: %s\n", what));
        abort();
    }
}
