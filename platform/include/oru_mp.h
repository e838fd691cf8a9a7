// SPDX-License-Identifier: Apache-2.0
//
// Memory pools: all memory a pool ever hands out is taken when the pool is created.
//
// Two kinds behind one handle. A fixed pool holds equal blocks and allocates in constant time. A variable pool cuts
// blocks of any size out of one area, first fit, and joins free neighbours again.
//
// Threads: alloc and free may be called from every thread at once and never block for longer than another thread's
// pool operation. Creating and destroying one pool is for a single thread.
// Every block starts at a multiple of alignof(std::max_align_t). A block belongs to the caller from the allocation
// until it is freed; it is not cleared (builds other than Release fill it with 0xA5, at allocation and when it comes
// back, so that code reading stale or unset fields is found).
#pragma once
#include "oru_status.h"
#include <cstddef>
#include <cstdint>

struct oruMp_pool_t;                  // opaque
typedef oruMp_pool_t *oruMp_handle_t; // null = never created or destroyed

struct oruMp_allocator_t { // memory source of a pool; the service always passes null
    void *(*alloc)(size_t size);
    void (*free)(void *block);
};

extern "C" {
// Creates a fixed pool of block_count blocks with at least block_size bytes each.
// Result: ORU_STATUS_OK and a handle in *pool, or with *pool null:
//   ORU_STATUS_NULL_POINTER   pool is null
//   ORU_STATUS_BAD_PARAM      block_size or block_count is 0, or the total does not fit the address space
//   ORU_STATUS_OUT_OF_MEMORY  the memory is not to be had
oru_status_t oruMp_init(oruMp_handle_t *pool, size_t block_size, uint32_t block_count);

// Creates a variable pool over pool_size bytes, rounded down to the alignment. Book-keeping is outside of these bytes;
// 8192 hold ten blocks of 748 bytes.
//   allocator      memory source, or null for the heap. The record is copied; both functions must stay callable for the
//                  life of the process, return memory aligned like malloc's, and be safe from every thread.
//   min_block      smallest block in bytes; a smaller request takes this much
//   min_alignment  a power of two up to alignof(std::max_align_t); blocks have the strictest alignment all the same
//   flags          7 = thread-safe (1) | variable size (2) | first fit (4); no other kind exists
// Result: as oruMp_init, and
//   ORU_STATUS_NULL_POINTER   a function of the allocator is null
//   ORU_STATUS_BAD_PARAM      pool_size below one aligned unit, or min_alignment not as described
//   ORU_STATUS_NOT_SUPPORTED  other flags
oru_status_t oruMp_initWithAllocatorAlignmentFlags(oruMp_handle_t *pool, const oruMp_allocator_t *allocator,
                                                   size_t pool_size, uint32_t min_block, uint32_t min_alignment,
                                                   uint32_t flags);

// Closes the pool, also with blocks out: from now on its handle gives null and ORU_STATUS_NULL_POINTER. The memory goes
// back when no block is out, that is now or with the last late oruMp_free, so a thread that still writes into a block
// writes into memory of the pool. The control record stays for the life of the process.
// Result: ORU_STATUS_OK; ORU_STATUS_NULL_POINTER for a null or destroyed pool.
oru_status_t oruMp_destroy(oruMp_handle_t pool);

// One whole block of a fixed pool. Null when all are out, for a variable pool, and for a null or destroyed pool.
void *oruMp_alloc(oruMp_handle_t pool);

// A block of at least size bytes. Null for size 0, when no hole is large enough (fixed pool: size above the block size
// or all blocks out), and for a null or destroyed pool.
void *oruMp_allocSize(oruMp_handle_t pool, size_t size);

// Gives a block back.
// Result: ORU_STATUS_OK, or without any effect the caller could see:
//   ORU_STATUS_NULL_POINTER  null block, null or destroyed pool
//   ORU_STATUS_BAD_PARAM     block is not out of this pool (second free, foreign pointer, pointer into a block); logged
oru_status_t oruMp_free(oruMp_handle_t pool, void *block);
}
