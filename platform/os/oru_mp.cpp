// SPDX-License-Identifier: Apache-2.0
//
// Memory pools.
//
// A pool is an area of equal units and a table with one word per unit, kept outside of the area so that a block written
// beyond its end cannot destroy the book-keeping. A fixed pool has units of one block each; a variable pool has units
// of the strictest alignment, and a block is an extent of consecutive units.
//
//   word of a unit            fixed pool                         variable pool
//   out_flag set              the block is out                   an extent that is out starts here, low bits = its
//   units out_flag clear            next free unit, or no_unit         a free extent starts here, low bits = its units
//                                                                0 = inside of an extent
//
// Invariants: extents of a variable pool lie end to end from unit 0 to the last unit. Free neighbours are joined by the
// walk of the next allocation, which keeps freeing in constant time. A word has out_flag set if and only if a block
// that is out starts at its unit: this makes second frees and foreign pointers detectable.
#include "oru_mp.h"
#include "oru_log.h"
#include "oru_mp_pool.h"
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

namespace {

constexpr bool poison_blocks = ORU_MP_POISON != 0;
constexpr int poison_byte = 0xA5;
constexpr size_t alignment = alignof(std::max_align_t);
constexpr uint32_t out_flag = 0x80000000U;
constexpr uint32_t no_unit = 0x7FFFFFFFU;
constexpr uint32_t variable_pool_flags = 7;
constexpr oruMp_allocator_t heap = {std::malloc, std::free};

constinit std::atomic<oruMp_pool_t *> all_pools{nullptr}; // keeps every control record reachable

// Up to the next multiple of the alignment; 0 when that is beyond the type.
constexpr size_t alignUp(size_t size) {
    return (size + alignment - 1) & ~(alignment - 1);
}

constexpr uint32_t unitsOf(uint32_t word) {
    return word & ~out_flag;
}

bool isOut(uint32_t word) {
    return (word & out_flag) != 0;
}

void poison(void *block, size_t size) {
    if (poison_blocks) {
        std::memset(block, poison_byte, size);
    }
}

void releaseMemory(oruMp_pool_t &pool) {
    pool.source.free(std::exchange(pool.memory, nullptr));
    pool.source.free(std::exchange(pool.words, nullptr));
}

void layOut(oruMp_pool_t &pool) {
    std::fill_n(pool.words, pool.unit_count, 0U);
    if (pool.variable) {
        pool.words[0] = pool.unit_count;
        return;
    }
    for (uint32_t unit = 0; unit < pool.unit_count; ++unit) {
        pool.words[unit] = unit + 1 < pool.unit_count ? unit + 1 : no_unit;
    }
}

// Takes the memory for a pool whose source, sizes and kind are set, and publishes it.
oru_status_t open(oruMp_pool_t *pool, oruMp_handle_t *handle) {
    size_t bytes = 0;
    if (__builtin_mul_overflow(pool->unit_size, size_t{pool->unit_count}, &bytes)) {
        delete pool;
        return ORU_STATUS_BAD_PARAM;
    }
    pool->memory = static_cast<std::byte *>(pool->source.alloc(bytes));
    pool->words = static_cast<uint32_t *>(pool->source.alloc(size_t{pool->unit_count} * sizeof(uint32_t)));
    if (pool->memory == nullptr || pool->words == nullptr) {
        if (pool->memory != nullptr) {
            pool->source.free(pool->memory);
        }
        if (pool->words != nullptr) {
            pool->source.free(pool->words);
        }
        delete pool;
        return ORU_STATUS_OUT_OF_MEMORY;
    }
    layOut(*pool);
    pool->next = all_pools.load();
    while (!all_pools.compare_exchange_weak(pool->next, pool)) {
    }
    *handle = pool;
    return ORU_STATUS_OK;
}

void *takeFixed(oruMp_pool_t &pool) {
    if (pool.first_free == no_unit) {
        return nullptr;
    }
    const uint32_t unit = pool.first_free;
    pool.first_free = std::exchange(pool.words[unit], out_flag);
    ++pool.out;
    return pool.memory + unit * pool.unit_size;
}

// Joins the free extent at a unit with the free ones that follow it.
void absorbFollowing(oruMp_pool_t &pool, uint32_t unit) {
    uint32_t next = unit + pool.words[unit];
    while (next < pool.unit_count && !isOut(pool.words[next])) {
        pool.words[unit] += std::exchange(pool.words[next], 0U);
        next = unit + pool.words[unit];
    }
}

void *takeVariable(oruMp_pool_t &pool, uint32_t units) {
    for (uint32_t unit = 0; unit < pool.unit_count; unit += unitsOf(pool.words[unit])) {
        if (isOut(pool.words[unit])) {
            continue;
        }
        absorbFollowing(pool, unit);
        const uint32_t free_units = pool.words[unit];
        if (free_units < units) {
            continue;
        }
        if (free_units > units) {
            pool.words[unit + units] = free_units - units;
        }
        pool.words[unit] = units | out_flag;
        ++pool.out;
        return pool.memory + unit * pool.unit_size;
    }
    return nullptr;
}

void *take(oruMp_pool_t &pool, size_t size) {
    const std::lock_guard guard(pool.lock);
    if (pool.closed) {
        return nullptr;
    }
    if (!pool.variable) {
        return size <= pool.unit_size ? takeFixed(pool) : nullptr;
    }
    if (size > pool.unit_size * pool.unit_count) {
        return nullptr;
    }
    return takeVariable(pool, std::max(static_cast<uint32_t>(alignUp(size) / alignment), pool.min_units));
}

// The unit at which a block that is out starts; no_unit when the pointer is not such a block.
uint32_t unitOfBlock(const oruMp_pool_t &pool, const void *block) {
    const size_t offset = reinterpret_cast<uintptr_t>(block) - reinterpret_cast<uintptr_t>(pool.memory);
    if (pool.memory == nullptr || offset >= pool.unit_size * pool.unit_count || offset % pool.unit_size != 0) {
        return no_unit;
    }
    const auto unit = static_cast<uint32_t>(offset / pool.unit_size);
    return isOut(pool.words[unit]) ? unit : no_unit;
}

// False when the block is not out.
bool giveBack(oruMp_pool_t &pool, void *block) {
    const uint32_t unit = unitOfBlock(pool, block);
    if (unit == no_unit) {
        return false;
    }
    --pool.out;
    if (pool.variable) {
        pool.words[unit] = unitsOf(pool.words[unit]);
        poison(block, pool.words[unit] * pool.unit_size);
    } else {
        pool.words[unit] = std::exchange(pool.first_free, unit);
        poison(block, pool.unit_size);
    }
    if (pool.closed && pool.out == 0) {
        releaseMemory(pool);
    }
    return true;
}

} // namespace

oru_status_t oruMp_init(oruMp_handle_t *pool, size_t block_size, uint32_t block_count) {
    if (pool == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    *pool = nullptr;
    if (alignUp(block_size) < block_size || block_size == 0 || block_count == 0 || block_count >= no_unit) {
        return ORU_STATUS_BAD_PARAM;
    }
    auto *record = new (std::nothrow) oruMp_pool_t;
    if (record == nullptr) {
        return ORU_STATUS_OUT_OF_MEMORY;
    }
    record->source = heap;
    record->unit_size = alignUp(block_size);
    record->unit_count = block_count;
    return open(record, pool);
}

oru_status_t oruMp_initWithAllocatorAlignmentFlags(oruMp_handle_t *pool, const oruMp_allocator_t *allocator,
                                                   size_t pool_size, uint32_t min_block, uint32_t min_alignment,
                                                   uint32_t flags) {
    if (pool == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    *pool = nullptr;
    if (allocator != nullptr && (allocator->alloc == nullptr || allocator->free == nullptr)) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (flags != variable_pool_flags) {
        return ORU_STATUS_NOT_SUPPORTED;
    }
    const bool power_of_two = min_alignment != 0 && (min_alignment & (min_alignment - 1)) == 0;
    const size_t units = pool_size / alignment;
    if (units == 0 || units >= no_unit || !power_of_two || min_alignment > alignment) {
        return ORU_STATUS_BAD_PARAM;
    }
    auto *record = new (std::nothrow) oruMp_pool_t;
    if (record == nullptr) {
        return ORU_STATUS_OUT_OF_MEMORY;
    }
    record->source = allocator == nullptr ? heap : *allocator;
    record->variable = true;
    record->unit_size = alignment;
    record->unit_count = static_cast<uint32_t>(units);
    record->min_units = std::max(static_cast<uint32_t>(alignUp(min_block) / alignment), 1U);
    return open(record, pool);
}

oru_status_t oruMp_destroy(oruMp_handle_t pool) {
    if (pool == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const std::lock_guard guard(pool->lock);
    if (pool->closed) {
        return ORU_STATUS_NULL_POINTER;
    }
    pool->closed = true;
    if (pool->out == 0) {
        releaseMemory(*pool);
    }
    return ORU_STATUS_OK;
}

void *oruMp_alloc(oruMp_handle_t pool) {
    // The kind and the size of a unit never change after the handle was given out.
    return pool == nullptr || pool->variable ? nullptr : oruMp_allocSize(pool, pool->unit_size);
}

void *oruMp_allocSize(oruMp_handle_t pool, size_t size) {
    if (pool == nullptr || size == 0) {
        return nullptr;
    }
    void *block = take(*pool, size);
    if (block != nullptr) {
        poison(block, size);
    }
    return block;
}

oru_status_t oruMp_free(oruMp_handle_t pool, void *block) {
    if (pool == nullptr || block == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    bool closed = false;
    bool given_back = false;
    {
        const std::lock_guard guard(pool->lock);
        closed = pool->closed;
        given_back = giveBack(*pool, block);
    }
    if (closed) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (!given_back) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, "oru_os", "oruMp_free: %p is not a block out of pool %p", block,
                   static_cast<void *>(pool));
        return ORU_STATUS_BAD_PARAM;
    }
    return ORU_STATUS_OK;
}
