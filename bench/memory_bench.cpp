/* A block of a waiting entry's size, taken and given back. */
#include <cstdlib>

#include "bench.h"
#include "frame/memory.h"
#include "l2rsm_arbitration.h"
#include "zir_memory.h"

namespace bench {
namespace {

constexpr size_t kBlock = sizeof(L2ResIcibReOpRecord);

u64 LiveBlocks()
{
    ZIR_PartitionStat stat = {};
    ZIR_PartitionGetStat(g_qorL2ResMemPtNo, &stat);
    return stat.liveBlocks;
}

void Partition(benchmark::State &state)
{
    (void)Module();
    const u64 before = LiveBlocks();
    u64 given = 0;
    for (auto _ : state) {
        void *block = ZIR_MemAlloc(g_qorL2ResMemHandle, g_qorL2ResMemPtNo, kBlock);
        benchmark::DoNotOptimize(block);
        given += ZIR_MemFree(g_qorL2ResMemHandle, block) == 0;
    }
    Expect(state, "blocks given back", given, state.iterations());
    Expect(state, "live blocks", LiveBlocks(), before);
}

void Malloc(benchmark::State &state)
{
    u64 taken = 0;
    for (auto _ : state) {
        void *block = malloc(kBlock);
        benchmark::DoNotOptimize(block);
        taken += block != nullptr;
        free(block);
    }
    Expect(state, "blocks taken", taken, state.iterations());
}

} // namespace

void AddMemory()
{
    Add("block/module", Partition);
    Add("block/malloc", Malloc);
}

} // namespace bench
