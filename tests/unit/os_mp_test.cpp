// SPDX-License-Identifier: Apache-2.0
#include "oru_mp.h"
#include "oru_os_testing.h"
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr size_t area = 8192;
int live_areas = 0;
int areas_allowed = 0;
constexpr oruMp_allocator_t counted = {
    [](size_t size) { return live_areas < areas_allowed ? (++live_areas, std::malloc(size)) : nullptr; },
    [](void *block) { (--live_areas, std::free(block)); },
};

oruMp_handle_t variablePool(const oruMp_allocator_t *allocator = nullptr) {
    oruMp_handle_t pool = nullptr;
    EXPECT_EQ(oruMp_initWithAllocatorAlignmentFlags(&pool, allocator, area, 1, 1, 7), ORU_STATUS_OK);
    return pool;
}

oruMp_handle_t fixedPool(size_t size, uint32_t count) {
    oruMp_handle_t pool = nullptr;
    EXPECT_EQ(oruMp_init(&pool, size, count), ORU_STATUS_OK);
    return pool;
}

bool aligned(const void *block) {
    return reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t) == 0;
}

void *inside(void *block) {
    return static_cast<std::byte *>(block) + 16;
}

TEST(Pool, CreatorsRefuseWhatTheyCannotServe) {
    oruMp_handle_t pool = fixedPool(1, 1);
    for (const auto &[size, count] : {std::pair<size_t, uint32_t>{0, 1}, {8, 0}, {SIZE_MAX, 1}, {SIZE_MAX / 16, 100}}) {
        EXPECT_EQ(oruMp_init(&pool, size, count), ORU_STATUS_BAD_PARAM);
        EXPECT_EQ(pool, nullptr);
    }
    EXPECT_EQ(oruMp_initWithAllocatorAlignmentFlags(&pool, nullptr, SIZE_MAX, 1, 1, 7), ORU_STATUS_BAD_PARAM);
    for (areas_allowed = 0; areas_allowed < 2; ++areas_allowed) {
        EXPECT_EQ(oruMp_initWithAllocatorAlignmentFlags(&pool, &counted, area, 1, 1, 7), ORU_STATUS_OUT_OF_MEMORY);
        EXPECT_EQ(live_areas, 0);
    }
}

TEST(FixedPool, HandsOutEveryBlockOnceAndRefusesWhatIsNotOut) {
    oruMp_handle_t pool = fixedPool(41, 100);
    oruMp_handle_t other = fixedPool(41, 1);
    std::vector<uint8_t *> blocks;
    while (auto *block = static_cast<uint8_t *>(oruMp_alloc(pool))) {
        EXPECT_TRUE(aligned(block));
        EXPECT_TRUE(!oruMp_testPoisonsBlocks() || block[40] == 0xA5);
        std::memset(block, static_cast<int>(blocks.size()), 41);
        blocks.push_back(block);
    }
    ASSERT_EQ(blocks.size(), 100U);
    for (void *wrong : {oruMp_alloc(other), inside(blocks[3]), static_cast<void *>(&pool)}) {
        EXPECT_EQ(oruMp_free(pool, wrong), ORU_STATUS_BAD_PARAM);
    }
    EXPECT_EQ(oruMp_free(pool, blocks[7]), ORU_STATUS_OK);
    EXPECT_EQ(oruMp_free(pool, blocks[7]), ORU_STATUS_BAD_PARAM);
    EXPECT_EQ(oruMp_testBlocksOut(pool), 99U);
    EXPECT_EQ(oruMp_allocSize(pool, 49), nullptr) << "larger than a block";
    EXPECT_EQ(oruMp_allocSize(pool, 41), blocks[7]);
    EXPECT_EQ(oruMp_alloc(pool), nullptr) << "the refused free must not have made a second block of one";
    for (size_t index = 0; index < blocks.size(); ++index) {
        EXPECT_TRUE(index == 7 || blocks[index][40] == index) << "blocks overlap";
        EXPECT_EQ(oruMp_free(pool, blocks[index]), ORU_STATUS_OK);
    }
    oruMp_destroy(pool);
    oruMp_destroy(other);
}

TEST(VariablePool, FitsTheAgreedLoadAndJoinsNeighboursInAnyOrder) {
    oruMp_handle_t pool = variablePool();
    for (unsigned round = 0; round < 20; ++round) {
        std::vector<void *> blocks;
        while (void *block = oruMp_allocSize(pool, 748)) {
            EXPECT_TRUE(aligned(block));
            blocks.push_back(block);
        }
        EXPECT_GE(blocks.size(), 10U);
        EXPECT_EQ(oruMp_free(pool, inside(blocks[0])), ORU_STATUS_BAD_PARAM);
        std::shuffle(blocks.begin(), blocks.end(), std::minstd_rand(round));
        for (void *block : blocks) {
            EXPECT_EQ(oruMp_free(pool, block), ORU_STATUS_OK);
            EXPECT_EQ(oruMp_free(pool, block), ORU_STATUS_BAD_PARAM);
        }
        void *whole = oruMp_allocSize(pool, area);
        EXPECT_EQ(oruMp_free(pool, whole), ORU_STATUS_OK) << "not joined in round " << round;
    }
    for (const size_t size : {size_t{0}, area + 1, SIZE_MAX}) {
        EXPECT_EQ(oruMp_allocSize(pool, size), nullptr);
    }
    EXPECT_EQ(oruMp_alloc(pool), nullptr) << "a variable pool has no block size";
    oruMp_destroy(pool);
}

TEST(Pool, DestroyedWithBlocksOutKeepsTheirMemoryUntilTheLastComesBack) {
    areas_allowed = 2;
    oruMp_handle_t pool = variablePool(&counted);
    void *first = oruMp_allocSize(pool, 100);
    void *second = oruMp_allocSize(pool, 100);
    EXPECT_EQ(oruMp_destroy(pool), ORU_STATUS_OK);
    for (void *block : {first, first, second, second}) { // each is written by a straggler, then given back twice
        EXPECT_EQ(live_areas, oruMp_testBlocksOut(pool) == 0 ? 0 : 2);
        if (live_areas != 0) {
            std::memset(second, 1, 100);
        }
        EXPECT_EQ(oruMp_free(pool, block), ORU_STATUS_NULL_POINTER);
    }
    EXPECT_EQ(live_areas, 0);
    for (oruMp_handle_t gone : {pool, oruMp_handle_t{nullptr}}) {
        EXPECT_EQ(oruMp_destroy(gone), ORU_STATUS_NULL_POINTER);
        EXPECT_EQ(oruMp_alloc(gone), nullptr);
        EXPECT_EQ(oruMp_allocSize(gone, 1), nullptr);
    }
}

// Takes and returns blocks of changing sizes; a foreign write into one of them shows as a wrong fill byte.
bool churn(oruMp_handle_t pool, uint8_t mark, size_t max_size) {
    struct Held {
        uint8_t *bytes;
        size_t size;
    };
    std::minstd_rand random(mark);
    std::vector<Held> held;
    bool intact = true;
    for (int turn = 0; turn < 5000 || !held.empty(); ++turn) {
        const size_t size = 1 + random() % max_size;
        void *block = turn < 5000 && held.size() < 6 ? oruMp_allocSize(pool, size) : nullptr;
        if (block != nullptr) {
            std::memset(block, mark, size);
            held.push_back({static_cast<uint8_t *>(block), size});
        } else if (!held.empty()) {
            std::swap(held[random() % held.size()], held.back());
            const auto [bytes, length] = held.back();
            held.pop_back();
            intact = intact && std::count(bytes, bytes + length, mark) == static_cast<ptrdiff_t>(length);
            intact = oruMp_free(pool, bytes) == ORU_STATUS_OK && intact;
        }
    }
    return intact;
}

TEST(Pool, ThreadsNeverShareABlock) {
    for (oruMp_handle_t pool : {fixedPool(64, 16), variablePool()}) {
        const size_t max_size = oruMp_allocSize(pool, 800) == nullptr ? 64 : 800;
        const uint32_t out = oruMp_testBlocksOut(pool);
        std::vector<std::jthread> threads(4);
        for (size_t index = 0; index < threads.size(); ++index) {
            threads[index] = std::jthread([=] { EXPECT_TRUE(churn(pool, static_cast<uint8_t>(index + 1), max_size)); });
        }
        threads.clear();
        EXPECT_EQ(oruMp_testBlocksOut(pool), out);
        oruMp_destroy(pool);
    }
}

} // namespace
