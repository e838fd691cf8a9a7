// SPDX-License-Identifier: Apache-2.0
//
// Memory of the service from the platform allocator, under the service's module id (22). Used for long-lived objects
// (discovery nodes, device list items, allowlist entries) and for scratch buffers of queries, never on the message
// path. All operations may be called from any thread.
#pragma once
#include "oru_status.h"
#include <cstddef>

// Start-up hook of the allocator; there is nothing to prepare. Always 0.
oru_status_t oruZb_initMemory();

// A block of size bytes, aligned for any record and owned by the caller; null when memory is short or size is 0.
void *oruZb_allocMemory(size_t size);

// Gives a block of oruZb_allocMemory back; null is allowed.
void oruZb_freeMemory(void *memory);
