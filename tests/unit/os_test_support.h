// SPDX-License-Identifier: Apache-2.0
#pragma once
#include <chrono>
#include <thread>

// Waits for a condition; false when it does not come true in time.
template <typename Condition>
bool waitFor(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}
