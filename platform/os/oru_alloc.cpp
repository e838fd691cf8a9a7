// SPDX-License-Identifier: Apache-2.0
#include "oru_alloc.h"
#include "oru_secret.h"
#include <cstdlib>
#include <malloc.h>

void *oruAlloc_alloc(uint32_t /*module_id*/, uint32_t /*buffer_kind*/, size_t size) {
    void *const block = size == 0 ? nullptr : std::calloc(1, size);
    if (block != nullptr) {
        oruSecret_keepOutOfDumps(block, size); // the list of install codes is among what is kept here
    }
    return block;
}

void oruAlloc_free(uint32_t /*module_id*/, uint32_t /*buffer_kind*/, void *block) {
    if (block != nullptr) {
        oruSecret_wipe(block, malloc_usable_size(block));
    }
    std::free(block);
}
