// SPDX-License-Identifier: Apache-2.0
#include "oru_alloc.h"
#include <cstdlib>

void *oruAlloc_alloc(uint32_t /*module_id*/, uint32_t /*buffer_kind*/, size_t size) {
    return size == 0 ? nullptr : std::calloc(1, size);
}

void oruAlloc_free(uint32_t /*module_id*/, uint32_t /*buffer_kind*/, void *block) {
    std::free(block);
}
