// SPDX-License-Identifier: Apache-2.0
//
// Counts heap allocations. A file of its own, so that the compiler cannot see through the replaced operators.
#include <cstddef>
#include <cstdlib>
#include <new>

size_t allocationCount();

namespace {
thread_local size_t allocations = 0;
}

size_t allocationCount() {
    return allocations;
}

void *operator new(size_t size) {
    ++allocations;
    void *block = std::malloc(size);
    return block == nullptr ? throw std::bad_alloc() : block;
}
void operator delete(void *block) noexcept {
    std::free(block);
}
void operator delete(void *block, size_t) noexcept {
    std::free(block);
}
