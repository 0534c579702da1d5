/*
 * Memory handles and partitions.
 *
 * Blocks of up to a kilobyte are cached by size, per thread and behind that in a pool common to all
 * threads; larger ones come from the C library. A block that another thread frees enters that
 * thread's cache, and full caches flow back through the pool. Under a sanitizer every block is the
 * C library's, so that the sanitizer sees each allocation and each free.
 *
 * Each thread counts for itself what it allocates and frees per partition, wrapping around below
 * zero when it frees blocks of others; only the sum over all threads means something. A thread that
 * ends adds its counts to the partition and its cached blocks to the pool.
 *
 * A partition with a limit also keeps the bytes charged to it in one place, exact at every moment.
 */
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <pthread.h>

#include "zir_memory.h"

#ifndef QOR_MEMORY_CACHED
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QOR_MEMORY_CACHED 0
#elif defined(__clang__)
#define QOR_MEMORY_CACHED (!__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer))
#else
#define QOR_MEMORY_CACHED 1
#endif
#endif

namespace {

constexpr bool IS_CACHED = QOR_MEMORY_CACHED != 0;

constexpr u32 MAX_HANDLES = 256;
constexpr size_t MAX_NAME = 64; /* terminator included */
constexpr u32 PARTITIONS = 256;
constexpr u64 MAX_BLOCK = 1ULL << 32; /* bytes; a larger request is a fault of the caller's */

constexpr u64 CLASS_STEP = 16;                 /* bytes between size classes, header included */
constexpr u32 CLASSES = 1024 / CLASS_STEP + 1; /* the last one: CLASSES - 1 steps */
constexpr u64 CHUNK_BYTES = 0x10000;
constexpr u64 BATCH_BYTES = 0x2000; /* about as much moves between a cache and the pool */

/* Stands before every block. */
struct alignas(16) Header {
    u64 size; /* as asked for */
    u32 mark; /* liveMark() while the block is live */
    u8 partition;
    u8 sizeClass; /* 0: the C library's */
};
static_assert(sizeof(Header) == 16);

struct FreeBlock {
    Header header;
    FreeBlock *next;
};

struct Cache {
    FreeBlock *first;
    u32 count;
};

/* Written by its thread only, read by whoever sums up. */
struct Count {
    std::atomic<u64> blocks;
    std::atomic<u64> bytes;
};

struct ThreadMemory {
    Cache caches[CLASSES];
    Count counts[PARTITIONS];
    ThreadMemory *next;
    ThreadMemory *previous;
};

struct Partition {
    std::atomic<u64> limit;   /* 0: none */
    std::atomic<u64> charged; /* bytes; kept while there is a limit */
    u64 blocks;               /* counts of threads that ended, guarded by g_mutex */
    u64 bytes;
};

std::mutex g_handleMutex;
char g_handleNames[MAX_HANDLES][MAX_NAME];
std::atomic<u32> g_handleCount; /* handles are 1 to this; the names before it are constant */

Partition g_partitions[PARTITIONS];

std::mutex g_mutex; /* guards the following, and the counts of ended threads */
ThreadMemory *g_threads;
FreeBlock *g_pool[CLASSES];
void *g_chunks; /* all of them, linked through their first bytes */
unsigned char *g_chunkFree;
u64 g_chunkLeft;

pthread_once_t g_keyOnce = PTHREAD_ONCE_INIT;
pthread_key_t g_key; /* runs endThread at a thread's end */
bool g_hasKey;

__attribute__((tls_model("initial-exec"))) thread_local ThreadMemory *t_memory;

bool isHandle(u32 handle)
{
    return handle - 1 < g_handleCount.load(std::memory_order_acquire);
}

/* Bound to the address, so that copied bytes do not pass for a block. */
u32 liveMark(const Header *header)
{
    return 0x9E3779B1U ^ static_cast<u32>(reinterpret_cast<u64>(header) >> 4);
}

/* Not instrumented: it is meant to answer for freed blocks as well. */
__attribute__((no_sanitize("address", "thread"))) bool isLive(const Header *header)
{
    return header->mark == liveMark(header);
}

/* ---- Counting ---- */

void count(ThreadMemory *memory, u8 partition, u64 blocks, u64 bytes)
{
    Count &counted = memory->counts[partition];
    constexpr auto relaxed = std::memory_order_relaxed;
    counted.blocks.store(counted.blocks.load(relaxed) + blocks, relaxed);
    counted.bytes.store(counted.bytes.load(relaxed) + bytes, relaxed);
}

/* Needs g_mutex. */
ZIR_PartitionStat sumUp(u8 partition)
{
    const Partition &from = g_partitions[partition];
    ZIR_PartitionStat sum = {from.blocks, from.bytes, from.limit};
    for (const ThreadMemory *memory = g_threads; memory != nullptr; memory = memory->next) {
        sum.liveBlocks += memory->counts[partition].blocks.load(std::memory_order_relaxed);
        sum.liveBytes += memory->counts[partition].bytes.load(std::memory_order_relaxed);
    }
    return sum;
}

bool charge(Partition *partition, u64 bytes)
{
    const u64 limit = partition->limit.load(std::memory_order_relaxed);
    if (limit == 0) {
        return true;
    }
    u64 charged = partition->charged;
    do {
        if (bytes > limit || charged > limit - bytes) {
            return false;
        }
    } while (!partition->charged.compare_exchange_weak(charged, charged + bytes));
    return true;
}

void discharge(Partition *partition, u64 bytes)
{
    if (partition->limit.load(std::memory_order_relaxed) != 0) {
        partition->charged -= bytes;
    }
}

/* ---- Size classes ---- */

constexpr u64 blockBytes(u32 sizeClass)
{
    return sizeClass * CLASS_STEP;
}

/* Blocks moved at once between a cache and the pool, by size class. */
constexpr auto BATCH = [] {
    std::array<u32, CLASSES> batch{};
    for (u32 i = 1; i < CLASSES; ++i) {
        batch[i] = static_cast<u32>(std::clamp<u64>(BATCH_BYTES / blockBytes(i), 8, 32));
    }
    return batch;
}();

/* ---- The pool; all of it needs g_mutex ---- */

FreeBlock *carveBlock(u32 sizeClass)
{
    if (g_chunkLeft < blockBytes(sizeClass)) {
        auto *chunk = static_cast<unsigned char *>(malloc(CHUNK_BYTES));
        if (chunk == nullptr) {
            return nullptr;
        }
        (void)memcpy(chunk, &g_chunks, sizeof(g_chunks));
        g_chunks = chunk;
        g_chunkFree = chunk + CLASS_STEP;
        g_chunkLeft = CHUNK_BYTES - CLASS_STEP;
    }
    auto *block = reinterpret_cast<FreeBlock *>(g_chunkFree);
    g_chunkFree += blockBytes(sizeClass);
    g_chunkLeft -= blockBytes(sizeClass);
    return block;
}

/* Moves a batch into the cache, of the pool's blocks and new ones. */
void fillCache(Cache *cache, u32 sizeClass)
{
    FreeBlock **link = &cache->first;
    for (u32 wanted = BATCH[sizeClass]; wanted > 0; --wanted) {
        FreeBlock *block = g_pool[sizeClass];
        if (block != nullptr) {
            g_pool[sizeClass] = block->next;
        } else {
            block = carveBlock(sizeClass);
        }
        if (block == nullptr) {
            break;
        }
        *link = block;
        link = &block->next;
        ++cache->count;
    }
    *link = nullptr;
}

/* Moves up to `most` blocks of the cache to the pool. */
void drainCache(Cache *cache, u32 sizeClass, u32 most)
{
    for (u32 moved = 0; moved < most && cache->first != nullptr; ++moved) {
        FreeBlock *block = cache->first;
        cache->first = block->next;
        --cache->count;
        block->next = g_pool[sizeClass];
        g_pool[sizeClass] = block;
    }
}

/* ---- Threads ---- */

void endThread(void *ended)
{
    auto *memory = static_cast<ThreadMemory *>(ended);
    t_memory = nullptr;
    {
        const std::lock_guard lock(g_mutex);
        for (u32 i = 0; i < PARTITIONS; ++i) {
            g_partitions[i].blocks += memory->counts[i].blocks;
            g_partitions[i].bytes += memory->counts[i].bytes;
        }
        for (u32 i = 1; i < CLASSES; ++i) {
            drainCache(&memory->caches[i], i, memory->caches[i].count);
        }
        (memory->previous != nullptr ? memory->previous->next : g_threads) = memory->next;
        if (memory->next != nullptr) {
            memory->next->previous = memory->previous;
        }
    }
    free(memory);
}

void createKey()
{
    g_hasKey = pthread_key_create(&g_key, endThread) == 0;
}

ThreadMemory *beginThread()
{
    (void)pthread_once(&g_keyOnce, createKey);
    auto *memory = static_cast<ThreadMemory *>(calloc(1, sizeof(ThreadMemory)));
    if (memory == nullptr || !g_hasKey || pthread_setspecific(g_key, memory) != 0) {
        free(memory);
        return nullptr;
    }
    const std::lock_guard lock(g_mutex);
    memory->next = g_threads;
    if (g_threads != nullptr) {
        g_threads->previous = memory;
    }
    g_threads = memory;
    t_memory = memory;
    return memory;
}

ThreadMemory *threadMemory()
{
    return t_memory != nullptr ? t_memory : beginThread();
}

/* ---- Blocks ---- */

Header *takeBlock(ThreadMemory *memory, u64 size)
{
    const u64 steps = (size + sizeof(Header) + CLASS_STEP - 1) / CLASS_STEP;
    if (!IS_CACHED || steps >= CLASSES) {
        auto *header = static_cast<Header *>(malloc(sizeof(Header) + size));
        if (header != nullptr) {
            header->sizeClass = 0;
        }
        return header;
    }
    const auto sizeClass = static_cast<u32>(steps);
    Cache *cache = &memory->caches[sizeClass];
    if (cache->first == nullptr) {
        const std::lock_guard lock(g_mutex);
        fillCache(cache, sizeClass);
    }
    FreeBlock *block = cache->first;
    if (block == nullptr) {
        return nullptr;
    }
    cache->first = block->next;
    --cache->count;
    block->header.sizeClass = static_cast<u8>(sizeClass);
    return &block->header;
}

void giveBlock(ThreadMemory *memory, Header *header)
{
    const u32 sizeClass = header->sizeClass;
    if (sizeClass == 0) {
        free(header);
        return;
    }
    Cache *cache = &memory->caches[sizeClass];
    auto *block = reinterpret_cast<FreeBlock *>(header);
    block->next = cache->first;
    cache->first = block;
    /* Two batches are the most: one thread may free what another allocates, for ever. */
    if (++cache->count > 2 * BATCH[sizeClass]) {
        const std::lock_guard lock(g_mutex);
        drainCache(cache, sizeClass, BATCH[sizeClass]);
    }
}

} // namespace

u32 ZIR_HandleInitialize(const char *name, u32 *handle)
{
    if (name == nullptr || handle == nullptr || strnlen(name, MAX_NAME) == MAX_NAME) {
        return QOR_FAIL;
    }
    const std::lock_guard lock(g_handleMutex);
    const u32 known = g_handleCount.load(std::memory_order_relaxed);
    u32 i = 0;
    while (i < known && strcmp(g_handleNames[i], name) != 0) {
        ++i;
    }
    if (i == MAX_HANDLES) {
        return QOR_FAIL;
    }
    if (i == known) {
        (void)memcpy(g_handleNames[i], name, strlen(name) + 1);
        g_handleCount.store(known + 1, std::memory_order_release);
    }
    *handle = i + 1;
    return QOR_OK;
}

void *ZIR_MemAlloc(u32 handle, u8 partition, u64 size)
{
    ThreadMemory *memory = threadMemory();
    if (!isHandle(handle) || size == 0 || size > MAX_BLOCK || memory == nullptr ||
        !charge(&g_partitions[partition], size)) {
        return nullptr;
    }
    Header *header = takeBlock(memory, size);
    if (header == nullptr) {
        discharge(&g_partitions[partition], size);
        return nullptr;
    }
    header->size = size;
    header->partition = partition;
    header->mark = liveMark(header);
    count(memory, partition, 1, size);
    return header + 1;
}

u32 ZIR_MemFree(u32 handle, void *block)
{
    if (block == nullptr || !isHandle(handle) || reinterpret_cast<u64>(block) % 16 != 0) {
        return QOR_FAIL;
    }
    auto *header = static_cast<Header *>(block) - 1;
    if (!isLive(header)) {
        return QOR_FAIL;
    }
    ThreadMemory *memory = threadMemory();
    if (memory == nullptr) {
        return QOR_FAIL;
    }
    header->mark = 0;
    discharge(&g_partitions[header->partition], header->size);
    count(memory, header->partition, -1ULL, -header->size);
    giveBlock(memory, header);
    return QOR_OK;
}

int ZIR_MemCmp(const void *a, const void *b, u64 size)
{
    if (a == b || size == 0) {
        return 0;
    }
    if (a == nullptr || b == nullptr) {
        return a == nullptr ? -1 : 1;
    }
    return memcmp(a, b, size);
}

void ZIR_PartitionGetStat(u8 partition, ZIR_PartitionStat *stat)
{
    if (stat != nullptr) {
        const std::lock_guard lock(g_mutex);
        *stat = sumUp(partition);
    }
}

void ZIR_PartitionSetLimit(u8 partition, u64 limitBytes)
{
    const std::lock_guard lock(g_mutex);
    g_partitions[partition].charged = sumUp(partition).liveBytes;
    g_partitions[partition].limit = limitBytes;
}
