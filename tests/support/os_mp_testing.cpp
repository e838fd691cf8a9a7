// SPDX-License-Identifier: Apache-2.0
#include "oru_mp_pool.h"
#include "oru_os_testing.h"

uint32_t oruMp_testBlocksOut(oruMp_handle_t pool) {
    if (pool == nullptr) {
        return 0;
    }
    const std::lock_guard guard(pool->lock);
    return pool->out;
}

bool oruMp_testPoisonsBlocks() {
    return ORU_MP_POISON != 0;
}
