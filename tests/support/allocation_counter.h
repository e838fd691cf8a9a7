// SPDX-License-Identifier: Apache-2.0
// Counts what the process takes from the heap, and has no memory for one of them. For one source file of a program.
#pragma once
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

static std::atomic<uint64_t> allocations{0};
[[maybe_unused]] static std::atomic<uint64_t> failing_allocation{0}; // number of the one that fails; 0: none

// Both operators are replaced together; the compiler sees only one of them inlined.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
// NOLINTBEGIN(misc-new-delete-overloads,cppcoreguidelines-no-malloc,misc-definitions-in-headers)
void *operator new(size_t size) {
    const bool fails = ++allocations == failing_allocation;
    void *block = fails ? nullptr : std::malloc(size);
    return block == nullptr ? throw std::bad_alloc() : block;
}
void operator delete(void *block) noexcept {
    std::free(block);
}
void operator delete(void *block, size_t) noexcept {
    std::free(block);
}
// NOLINTEND(misc-new-delete-overloads,cppcoreguidelines-no-malloc,misc-definitions-in-headers)
