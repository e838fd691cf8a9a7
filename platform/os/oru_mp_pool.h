// SPDX-License-Identifier: Apache-2.0
#pragma once
#include "oru_mp.h"
#include <cstddef>
#include <cstdint>
#include <mutex>

// Control record: created with the pool, never freed (a stale handle finds it closed).
struct oruMp_pool_t {
    std::mutex lock; // guards everything below; a leaf, nothing is called while it is held but the memory source
    oruMp_allocator_t source{};
    std::byte *memory = nullptr; // null once a destroyed pool has no block out
    uint32_t *words = nullptr;
    size_t unit_size = 0; // bytes
    uint32_t unit_count = 0;
    uint32_t min_units = 1;  // variable pool: smallest extent
    uint32_t first_free = 0; // fixed pool
    uint32_t out = 0;        // blocks out
    bool variable = false;
    bool closed = false;
    oruMp_pool_t *next = nullptr;
};
