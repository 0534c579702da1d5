/* What the platform's tests share. */
#ifndef TESTS_PLATFORM_PLATFORM_SUPPORT_H
#define TESTS_PLATFORM_PLATFORM_SUPPORT_H

#include <gtest/gtest.h>
#include <thread>
#include <vector>

#include "zir_memory.h"

/* Runs the function on `count` threads at once, each with its number, and waits for them. */
template <class Function> void onThreads(u32 count, Function function)
{
    std::vector<std::thread> threads;
    for (u32 i = 0; i < count; ++i) {
        threads.emplace_back(function, i);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

/* The live blocks and bytes of a partition. */
inline void expectLive(u8 partition, u64 blocks, u64 bytes)
{
    ZIR_PartitionStat stat;
    ZIR_PartitionGetStat(partition, &stat);
    EXPECT_EQ(stat.liveBlocks, blocks);
    EXPECT_EQ(stat.liveBytes, bytes);
}

#endif
