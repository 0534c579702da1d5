#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <malloc.h>
#include <mutex>
#include <string>
#include <vector>

#include "platform_support.h"

namespace {

constexpr u8 PARTITION = 7;

u32 newHandle(const char *name = "test")
{
    u32 handle = 0;
    EXPECT_EQ(ZIR_HandleInitialize(name, &handle), 0U);
    return handle;
}

TEST(MemoryTest, BlocksAreAlignedApartAndCounted)
{
    const u32 handle = newHandle();
    std::vector<std::pair<unsigned char *, u64>> blocks;
    u64 bytes = 0;
    const auto take = [&](u64 size, u32 count) {
        for (u32 i = 0; i < count; ++i) {
            auto *block = static_cast<unsigned char *>(ZIR_MemAlloc(handle, PARTITION, size));
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(reinterpret_cast<u64>(block) % 16, 0U);
            memset(block, static_cast<int>(blocks.size() % 251), size);
            blocks.emplace_back(block, size);
            bytes += size;
        }
    };
    for (u64 size : {1, 15, 16, 17, 56, 368, 1007, 1008, 1009, 2032, 2033, 5000, 200000}) {
        take(size, 50);
    }
    for (u64 size = 1; size < 80000; size += 61) {
        take(size, 1);
    }
    expectLive(PARTITION, blocks.size(), bytes);
    expectLive(PARTITION + 1, 0, 0);
    for (size_t i = 0; i < blocks.size(); ++i) {
        const auto [block, size] = blocks[i];
        EXPECT_EQ(ZIR_MemSize(block), size);
        EXPECT_EQ(block[0], i % 251);
        EXPECT_EQ(memcmp(block, block + size / 2, size - size / 2), 0) << "block " << i;
        EXPECT_EQ(ZIR_MemFree(handle, block), 0U);
    }
    expectLive(PARTITION, 0, 0);
}

TEST(MemoryTest, RefusesWhatItDoesNotKnow)
{
    const u32 handle = newHandle();
    alignas(16) unsigned char foreign[64] = {};
    auto *block = static_cast<unsigned char *>(ZIR_MemAlloc(handle, PARTITION, 100));
    memset(block, 0, 100);
    for (u32 unknown : {0U, handle + 1, 0xFFFFFFFFU}) {
        EXPECT_EQ(ZIR_MemAlloc(unknown, PARTITION, 16), nullptr);
        EXPECT_EQ(ZIR_MemFree(unknown, block), 1U);
    }
    for (u64 size : {0ULL, (1ULL << 32) + 1, ~0ULL}) {
        EXPECT_EQ(ZIR_MemAlloc(handle, PARTITION, size), nullptr) << size;
    }
    memcpy(foreign, block - 16, 16);
    for (unsigned char *address : {block + 8, block + 16, foreign + 16}) {
        EXPECT_EQ(ZIR_MemFree(handle, address), 1U);
        EXPECT_EQ(ZIR_MemSize(address), 0U);
    }
    EXPECT_EQ(ZIR_MemSize(nullptr), 0U);
    EXPECT_EQ(ZIR_MemFree(handle, nullptr), 1U);
    expectLive(PARTITION, 1, 100);
    EXPECT_EQ(ZIR_MemFree(handle, block), 0U);
    EXPECT_EQ(ZIR_MemFree(handle, block), 1U) << "freed twice";
    expectLive(PARTITION, 0, 0);
}

TEST(MemoryTest, HandlesAreByName)
{
    const u32 first = newHandle("l2");
    EXPECT_EQ(newHandle("l2"), first);
    EXPECT_NE(newHandle("l3"), first);
    u32 handle = 77;
    EXPECT_EQ(ZIR_HandleInitialize(nullptr, &handle), 1U);
    EXPECT_EQ(ZIR_HandleInitialize("l2", nullptr), 1U);
    EXPECT_EQ(ZIR_HandleInitialize(std::string(64, 'x').c_str(), &handle), 1U);
    for (u32 i = 2; i < 256; ++i) {
        EXPECT_EQ(ZIR_HandleInitialize(std::to_string(i).c_str(), &handle), 0U);
    }
    EXPECT_EQ(ZIR_HandleInitialize("one more", &handle), 1U);
    EXPECT_EQ(newHandle("l2"), first);
}

TEST(MemoryTest, LimitBoundsLiveBytes)
{
    const u32 handle = newHandle();
    void *early = ZIR_MemAlloc(handle, PARTITION, 300);
    ZIR_PartitionSetLimit(PARTITION, 1000);
    void *second = ZIR_MemAlloc(handle, PARTITION, 700);
    EXPECT_NE(second, nullptr) << "exactly the limit";
    EXPECT_EQ(ZIR_MemAlloc(handle, PARTITION, 1), nullptr);
    EXPECT_EQ(ZIR_MemAlloc(handle, PARTITION, 1ULL << 31), nullptr);
    expectLive(PARTITION, 2, 1000);
    EXPECT_EQ(ZIR_MemFree(handle, early), 0U);
    EXPECT_EQ(ZIR_MemFree(handle, second), 0U);

    /* Four threads race for the last bytes; together they get what there is. */
    std::atomic<u32> count{0};
    std::vector<void *> taken(101);
    onThreads(4, [&](u32) {
        while (void *block = ZIR_MemAlloc(handle, PARTITION, 10)) {
            taken.at(count++) = block;
        }
    });
    EXPECT_EQ(count, 100U);
    ZIR_PartitionSetLimit(PARTITION, 0);
    taken[100] = ZIR_MemAlloc(handle, PARTITION, 10);
    for (void *block : taken) {
        EXPECT_EQ(ZIR_MemFree(handle, block), 0U);
    }
    expectLive(PARTITION, 0, 0);
}

TEST(MemoryTest, BlocksFreedByOtherThreadsAreCountedOnce)
{
    const u32 handle = newHandle();
    constexpr u32 BLOCKS = 5000;
    std::mutex mutex;
    std::vector<u32 *> handedOver;
    /* Two threads allocate, two free: until each has done its share. */
    onThreads(4, [&](u32 thread) {
        for (u32 i = 0; i < BLOCKS;) {
            u32 *block = nullptr;
            if (thread % 2 == 0) {
                block = static_cast<u32 *>(ZIR_MemAlloc(handle, PARTITION, 8 + i % 40 * 16));
                block[0] = i++;
                block[1] = ~block[0];
                const std::lock_guard lock(mutex);
                handedOver.push_back(block);
                continue;
            }
            {
                const std::lock_guard lock(mutex);
                if (!handedOver.empty()) {
                    block = handedOver.back();
                    handedOver.pop_back();
                }
            }
            if (block != nullptr) {
                EXPECT_EQ(block[1], ~block[0]);
                EXPECT_EQ(ZIR_MemFree(handle, block), 0U);
                ++i;
            }
        }
    });
    expectLive(PARTITION, 0, 0);
}

size_t bytesOfTheCLibrary()
{
    const struct mallinfo2 info = mallinfo2(); /* a sanitizer's is another */
    return info.uordblks + info.hblkhd;
}

/* What a thread leaves behind, and what it freed of others', is used again, or goes back. */
TEST(MemoryTest, NeedsNoMoreWhenThreadsComeAndGo)
{
    const u32 handle = newHandle();
    const size_t before = bytesOfTheCLibrary();
    for (const auto &[size, most] :
         {std::pair{100, 0x100000}, {3000, 0x500000}, {60000, 0x500000}}) {
        std::vector<void *> blocks(2000);
        size_t after[20];
        for (size_t &used : after) {
            for (void *&block : blocks) {
                block = ZIR_MemAlloc(handle, PARTITION, size);
            }
            onThreads(1, [&](u32) {
                for (void *block : blocks) {
                    EXPECT_EQ(ZIR_MemFree(handle, block), 0U);
                }
            });
            used = bytesOfTheCLibrary();
        }
        EXPECT_LT(after[19], after[1] + 0x40000);
        EXPECT_LT(after[19], before + most);
    }
}

TEST(MemoryTest, Compares)
{
    EXPECT_LT(ZIR_MemCmp("abc", "abd", 3), 0);
    EXPECT_EQ(ZIR_MemCmp("abc", "abd", 2), 0);
    EXPECT_EQ(ZIR_MemCmp("abc", nullptr, 0), 0);
    EXPECT_EQ(ZIR_MemCmp(nullptr, nullptr, 4), 0);
    EXPECT_LT(ZIR_MemCmp(nullptr, "a", 1), 0);
    EXPECT_GT(ZIR_MemCmp("a", nullptr, 1), 0);
}

} // namespace
