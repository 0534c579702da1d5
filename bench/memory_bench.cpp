/* Blocks of a waiting entry's size, and of a large request's data, taken and given back. */
#include <dlfcn.h>

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

/* ---- Many large blocks ---- */

constexpr size_t kLarge = 3000;

struct Allocator {
    const char *name;
    void *(*take)(size_t);
    void (*give)(void *);
};

constexpr Allocator kModule = {
    "module",
    [](size_t size) { return ZIR_MemAlloc(g_qorL2ResMemHandle, g_qorL2ResMemPtNo, size); },
    [](void *block) { (void)ZIR_MemFree(g_qorL2ResMemHandle, block); }};

/* That many are taken, as when requests come to wait, and given back in the same order. */
void TakeAndGive(benchmark::State &state, const Allocator &allocator, u32 live)
{
    (void)Module();
    const u64 before = LiveBlocks();
    std::vector<void *> blocks(live);
    u64 taken = 0;
    for (auto _ : state) {
        for (void *&block : blocks) {
            block = allocator.take(kLarge);
            benchmark::DoNotOptimize(block);
            taken += block != nullptr;
        }
        for (void *block : blocks) {
            allocator.give(block);
        }
    }
    Expect(state, "blocks taken", taken, static_cast<u64>(state.iterations()) * live);
    Expect(state, "live blocks", LiveBlocks(), before);
}

/* That many stay live; the one that has been so longest goes when one is taken. */
void Rotate(benchmark::State &state, const Allocator &allocator, u32 live)
{
    (void)Module();
    std::vector<void *> blocks(live);
    for (void *&block : blocks) {
        block = allocator.take(kLarge);
    }
    u64 taken = 0;
    u32 next = 0;
    for (auto _ : state) {
        allocator.give(blocks[next]);
        blocks[next] = allocator.take(kLarge);
        benchmark::DoNotOptimize(blocks[next]);
        taken += blocks[next] != nullptr;
        next = next + 1 == live ? 0 : next + 1;
    }
    for (void *block : blocks) {
        allocator.give(block);
    }
    Expect(state, "blocks taken", taken, state.iterations());
}

void AddLarge(const Allocator &allocator)
{
    for (const u32 live : {64u, 1000u}) {
        const std::string name = std::to_string(live) + "/" + allocator.name;
        Add("large/" + name, [=](benchmark::State &state) { Rotate(state, allocator, live); });
        Add("burst/" + name, [=](benchmark::State &state) { TakeAndGive(state, allocator, live); });
    }
}

#ifdef BENCH_MIMALLOC
/* Linked, it would take the place of malloc for all. */
void AddMimalloc()
{
    void *library = dlopen(BENCH_MIMALLOC, RTLD_NOW | RTLD_LOCAL);
    if (library != nullptr) {
        AddLarge({"mimalloc", reinterpret_cast<void *(*)(size_t)>(dlsym(library, "mi_malloc")),
                  reinterpret_cast<void (*)(void *)>(dlsym(library, "mi_free"))});
    }
}
#endif

} // namespace

void AddMemory()
{
    Add("block/module", Partition);
    Add("block/malloc", Malloc);
    AddLarge(kModule);
    AddLarge({"malloc", malloc, free});
#ifdef BENCH_MIMALLOC
    AddMimalloc();
#endif
}

} // namespace bench
