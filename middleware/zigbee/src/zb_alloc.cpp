// SPDX-License-Identifier: Apache-2.0
#include "zb_alloc.h"
#include "oru_alloc.h"

oru_status_t oruZb_initMemory() {
    return ORU_STATUS_OK;
}

void *oruZb_allocMemory(size_t size) {
    return oruAlloc_alloc(ORU_MODULE_ZIGBEE, ORU_ALLOC_BUFFER_GENERIC, size);
}

void oruZb_freeMemory(void *memory) {
    oruAlloc_free(ORU_MODULE_ZIGBEE, ORU_ALLOC_BUFFER_GENERIC, memory);
}
