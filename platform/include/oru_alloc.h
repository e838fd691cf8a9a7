// SPDX-License-Identifier: Apache-2.0
//
// Module allocator: general memory, outside of the message path, which lives on the pools of oru_mp.h.
// Both operations may be called from every thread.
#pragma once
#include <cstddef>
#include <cstdint>

enum : uint32_t { ORU_MODULE_ZIGBEE = 22 };
enum : uint32_t { ORU_ALLOC_BUFFER_GENERIC = 0 };

extern "C" {
// A zero-filled block of size bytes, aligned for any type, for the caller to give back with oruAlloc_free.
// module_id and buffer_kind name the user and the use; they do not choose between memories.
// Null when there is no memory, and for size 0.
void *oruAlloc_alloc(uint32_t module_id, uint32_t buffer_kind, size_t size);

// Clears and gives back a block of oruAlloc_alloc, named with the same module and kind; null does nothing.
void oruAlloc_free(uint32_t module_id, uint32_t buffer_kind, void *block);
}
