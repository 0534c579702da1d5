/*
 * Memory handles and partitions.
 *
 * Blocks of up to 68 KB are cached by size, per thread and behind that in a pool common to all threads;
 * larger ones come from the C library. A block that another thread frees enters that thread's cache,
 * and flows back through the pool with a batch of others. Blocks of up to a kilobyte are kept for ever.
 * Of the others the pool keeps some megabytes, a cache at most two batches of a size; the rest goes
 * back to the C library. Under a sanitizer every block is the C library's, so that the sanitizer sees
 * each allocation and each free.
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
#include <bit>
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

/* Size classes, headers included: one each 16 bytes up to a kilobyte, then 16 to a power of two. */
constexpr u64 CLASS_STEP = 16;
constexpr u32 LAST_SMALL = 1024 / CLASS_STEP;
constexpr u32 LARGE_OFFSET = 7 * 16 - (LAST_SMALL + 1); /* see classOf */
constexpr u32 CLASSES = 162; /* the last one: 68 KB, for what 16 bits can count and its header */
constexpr u64 CHUNK_BYTES = 0x10000;
constexpr u64 BATCH_BYTES = 0x2000; /* about as much moves between a cache and the pool */
constexpr u64 LARGE_BATCH_BYTES = 0x4000;
constexpr u64 LARGE_POOL_BYTES = 0x400000; /* at most, of blocks that are not small */

/* Stands before every block. */
struct alignas(16) Header {
    union {
        u64 size;         /* as asked for */
        u64 blocksInPool; /* of the batch that a free block stands for */
    };
    u32 mark; /* liveMark() while the block is live */
    u8 partition;
    u8 sizeClass; /* 0: in no cache */
};
static_assert(sizeof(Header) == 16);

/* Free blocks are linked in batches; in the pool, the first one of each stands for all. */
struct FreeBlock {
    Header header;
    FreeBlock *next;
    FreeBlock *nextBatch;
};
static_assert(sizeof(FreeBlock) <= sizeof(Header) + CLASS_STEP, "fits into the smallest block");

/*
 * The batch that blocks come from and go to, and a full one in reserve or none: at the end of a batch,
 * allocating and freeing by turns needs no pool.
 */
struct Cache {
    FreeBlock *first;
    FreeBlock *reserve;
    u32 room; /* blocks it takes before the batch is full */
};

/*
 * Live blocks and bytes in one word, so that one addition counts both. Written by its thread only,
 * read by whoever sums up; a single thread's may have wrapped around.
 */
using Count = std::atomic<u64>;
constexpr u32 BYTES_BITS = 36;

struct ThreadMemory {
    Cache caches[CLASSES];
    Count counts[PARTITIONS];
    ThreadMemory *next;
    ThreadMemory *previous;
};

struct Partition {
    std::atomic<u64> limit;   /* 0: none */
    std::atomic<u64> charged; /* bytes; kept while there is a limit */
    u64 ended;                /* Count of the threads that ended, guarded by g_mutex */
};

std::mutex g_handleMutex;
char g_handleNames[MAX_HANDLES][MAX_NAME];
std::atomic<u32> g_handleCount;  /* handles are 1 to this; their names are constant */
std::atomic<u32> g_shortHandles; /* as g_handleCount, but 0 while a partition has a limit */
u32 g_limits;                    /* partitions with one */

Partition g_partitions[PARTITIONS];

std::mutex g_mutex; /* guards the following, and the counts of ended threads */
ThreadMemory *g_threads;
FreeBlock *g_pool[CLASSES]; /* batches */
void *g_chunks;             /* all of them, linked through their first bytes */
unsigned char *g_chunkFree;
u64 g_chunkLeft;
u64 g_largeInPool; /* bytes */

pthread_once_t g_keyOnce = PTHREAD_ONCE_INIT;
pthread_key_t g_key; /* runs endThread at a thread's end */
bool g_hasKey;

/* Stands for the memory of a thread that has none yet: no blocks to take, no room to give. */
ThreadMemory g_noMemory;

__attribute__((tls_model("initial-exec"))) thread_local ThreadMemory *t_memory = &g_noMemory;

bool isHandle(u32 handle)
{
    return handle - 1 < g_handleCount.load(std::memory_order_acquire);
}

/* Bound to the address, so that copied bytes do not pass for a block. */
u32 liveMark(const Header *header)
{
    return 0x9E3779B1U ^ static_cast<u32>(reinterpret_cast<u64>(header));
}

/* Not instrumented: it is meant to answer for freed blocks as well. */
__attribute__((no_sanitize("address", "thread"))) bool isLive(const Header *header)
{
    return header->mark == liveMark(header);
}

/* ---- Counting ---- */

constexpr u64 asCount(u64 blocks, u64 bytes)
{
    return (blocks << BYTES_BITS) + bytes;
}

void add(Count *count, u64 change)
{
    constexpr auto relaxed = std::memory_order_relaxed;
    count->store(count->load(relaxed) + change, relaxed);
}

/* Needs g_mutex. */
ZIR_PartitionStat sumUp(u8 partition)
{
    u64 sum = g_partitions[partition].ended;
    for (const ThreadMemory *memory = g_threads; memory != nullptr; memory = memory->next) {
        sum += memory->counts[partition].load(std::memory_order_relaxed);
    }
    return {sum >> BYTES_BITS, sum & ((1ULL << BYTES_BITS) - 1), g_partitions[partition].limit};
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

constexpr u32 classOf(u64 size)
{
    const u64 bytes = size + sizeof(Header);
    if (bytes <= LAST_SMALL * CLASS_STEP) {
        return static_cast<u32>((bytes + CLASS_STEP - 1) / CLASS_STEP);
    }
    /* The five leading bits of the last byte's number, 16 to 31, and how many bits follow. */
    const u32 shift = 59 - static_cast<u32>(std::countl_zero(bytes - 1));
    return static_cast<u32>((bytes - 1) >> shift) + shift * 16 - LARGE_OFFSET;
}

constexpr u64 blockBytes(u32 sizeClass)
{
    const u32 large = sizeClass + LARGE_OFFSET;
    return sizeClass <= LAST_SMALL ? sizeClass * CLASS_STEP
                                   : (large % 16 + 17ULL) << (large / 16 - 1);
}
static_assert(classOf(0xFFFF) == CLASSES - 1 && blockBytes(CLASSES - 1) == 17 << 12);
static_assert(blockBytes(LAST_SMALL) == 1 << 10 && blockBytes(LAST_SMALL + 1) == 17 << 6);

constexpr u64 MAX_CACHED = blockBytes(CLASSES - 1) - sizeof(Header);

/* Blocks of a batch, by size class. */
constexpr auto BATCH = [] {
    std::array<u32, CLASSES> batch{};
    for (u32 i = 1; i < CLASSES; ++i) {
        batch[i] =
            static_cast<u32>(i <= LAST_SMALL ? std::clamp<u64>(BATCH_BYTES / blockBytes(i), 8, 64)
                                             : std::max<u64>(LARGE_BATCH_BYTES / blockBytes(i), 1));
    }
    return batch;
}();

/* ---- The pool; all of it needs g_mutex ---- */

FreeBlock *carveBlock(u32 sizeClass)
{
    if (sizeClass > LAST_SMALL) {
        auto *large = static_cast<FreeBlock *>(malloc(blockBytes(sizeClass)));
        if (large != nullptr) {
            large->header.sizeClass = static_cast<u8>(sizeClass);
        }
        return large;
    }
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
    block->header.sizeClass = static_cast<u8>(sizeClass);
    g_chunkFree += blockBytes(sizeClass);
    g_chunkLeft -= blockBytes(sizeClass);
    return block;
}

/* A batch of new blocks, of large ones just one; `count` becomes their number. */
FreeBlock *carveBatch(u32 sizeClass, u32 *count)
{
    const u32 wanted = sizeClass <= LAST_SMALL ? BATCH[sizeClass] : 1;
    FreeBlock *first = nullptr;
    FreeBlock **link = &first;
    u32 carved = 0;
    for (FreeBlock *block; carved < wanted && (block = carveBlock(sizeClass)) != nullptr;
         ++carved) {
        *link = block;
        link = &block->next;
    }
    *link = nullptr;
    *count = carved;
    return first;
}

/*
 * Batches move as they are: their blocks' lines are in the cache of the processor that freed them,
 * and to fetch them one by one would take longer than all the rest.
 */
FreeBlock *takeBatch(u32 sizeClass, u32 *count)
{
    FreeBlock *batch = g_pool[sizeClass];
    if (batch == nullptr) {
        return carveBatch(sizeClass, count);
    }
    g_pool[sizeClass] = batch->nextBatch;
    *count = static_cast<u32>(batch->header.blocksInPool);
    g_largeInPool -= sizeClass > LAST_SMALL ? *count * blockBytes(sizeClass) : 0;
    return batch;
}

void giveBatch(FreeBlock *batch, u32 sizeClass, u32 count)
{
    const u64 bytes = sizeClass > LAST_SMALL ? count * blockBytes(sizeClass) : 0;
    if (batch != nullptr && g_largeInPool + bytes <= LARGE_POOL_BYTES) {
        batch->header.blocksInPool = count;
        batch->nextBatch = g_pool[sizeClass];
        g_pool[sizeClass] = batch;
        g_largeInPool += bytes;
        return;
    }
    while (batch != nullptr) {
        FreeBlock *next = batch->next;
        free(batch);
        batch = next;
    }
}

/* ---- Threads ---- */

void endThread(void *ended)
{
    auto *memory = static_cast<ThreadMemory *>(ended);
    t_memory = &g_noMemory;
    {
        const std::lock_guard lock(g_mutex);
        for (u32 i = 0; i < PARTITIONS; ++i) {
            g_partitions[i].ended += memory->counts[i];
        }
        for (u32 i = 1; i < CLASSES; ++i) {
            const Cache *cache = &memory->caches[i];
            giveBatch(cache->first, i, BATCH[i] - cache->room);
            giveBatch(cache->reserve, i, BATCH[i]);
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
    for (u32 i = 1; i < CLASSES; ++i) {
        memory->caches[i].room = BATCH[i];
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
    return t_memory != &g_noMemory ? t_memory : beginThread();
}

/* ---- Blocks ---- */

/* Whether a cache has blocks of that size. */
bool isCached(u64 size)
{
    return IS_CACHED && size - 1 < MAX_CACHED;
}

/* The cache must not be empty. */
Header *popBlock(Cache *cache)
{
    FreeBlock *block = cache->first;
    cache->first = block->next;
    __builtin_prefetch(cache->first, 1); /* the next one may have grown cold since it was freed */
    ++cache->room;
    return &block->header;
}

/* The cache must have room. */
void pushBlock(Cache *cache, Header *header)
{
    auto *block = reinterpret_cast<FreeBlock *>(header);
    block->next = cache->first;
    cache->first = block;
    --cache->room;
}

void *beginBlock(ThreadMemory *memory, Header *header, u8 partition, u64 size)
{
    header->size = size;
    header->partition = partition;
    header->mark = liveMark(header);
    add(&memory->counts[partition], asCount(1, size));
    return header + 1;
}

void endBlock(ThreadMemory *memory, Header *header)
{
    header->mark = 0;
    add(&memory->counts[header->partition], -asCount(1, header->size));
}

Header *takeUncached(u64 size)
{
    auto *header = static_cast<Header *>(malloc(sizeof(Header) + size));
    if (header != nullptr) {
        header->sizeClass = 0;
    }
    return header;
}

/* The cache must be empty but for its reserve. */
void refill(Cache *cache, u32 sizeClass)
{
    u32 count = BATCH[sizeClass];
    if (cache->reserve != nullptr) {
        cache->first = cache->reserve;
        cache->reserve = nullptr;
    } else {
        const std::lock_guard lock(g_mutex);
        cache->first = takeBatch(sizeClass, &count);
    }
    cache->room = BATCH[sizeClass] - count;
}

/* The cache's batch must be full: it becomes the reserve. */
void makeRoom(Cache *cache, u32 sizeClass)
{
    if (cache->reserve != nullptr) {
        const std::lock_guard lock(g_mutex);
        giveBatch(cache->reserve, sizeClass, BATCH[sizeClass]);
    }
    cache->reserve = cache->first;
    cache->first = nullptr;
    cache->room = BATCH[sizeClass];
}

Header *takeCached(ThreadMemory *memory, u64 size)
{
    const u32 sizeClass = classOf(size);
    Cache *cache = &memory->caches[sizeClass];
    if (cache->first == nullptr) {
        refill(cache, sizeClass);
    }
    return cache->first != nullptr ? popBlock(cache) : nullptr;
}

void giveCached(ThreadMemory *memory, Header *header)
{
    const u32 sizeClass = header->sizeClass;
    Cache *cache = &memory->caches[sizeClass];
    if (cache->room == 0) {
        makeRoom(cache, sizeClass);
    }
    pushBlock(cache, header);
}

/* What ZIR_MemAlloc does when its short way is barred, with every check of its own. */
__attribute__((noinline)) void *allocateSlowly(u32 handle, u8 partition, u64 size)
{
    ThreadMemory *memory = threadMemory();
    if (!isHandle(handle) || size == 0 || size > MAX_BLOCK || memory == nullptr ||
        !charge(&g_partitions[partition], size)) {
        return nullptr;
    }
    Header *header = isCached(size) ? takeCached(memory, size) : takeUncached(size);
    if (header == nullptr) {
        discharge(&g_partitions[partition], size);
        return nullptr;
    }
    return beginBlock(memory, header, partition, size);
}

/* For a thread that gets no memory of its own: none must be lost when there is none. */
void freeWithoutMemory(Header *header)
{
    const std::lock_guard lock(g_mutex);
    header->mark = 0;
    g_partitions[header->partition].ended -= asCount(1, header->size);
    if (header->sizeClass == 0) {
        free(header);
    } else {
        auto *batch = reinterpret_cast<FreeBlock *>(header);
        batch->next = nullptr;
        giveBatch(batch, header->sizeClass, 1);
    }
}

__attribute__((noinline)) u32 freeSlowly(u32 handle, void *block)
{
    if (block == nullptr || !isHandle(handle) || reinterpret_cast<u64>(block) % 16 != 0) {
        return QOR_FAIL;
    }
    Header *header = static_cast<Header *>(block) - 1;
    if (!isLive(header)) {
        return QOR_FAIL;
    }
    discharge(&g_partitions[header->partition], header->size);
    ThreadMemory *memory = threadMemory();
    if (memory == nullptr) {
        freeWithoutMemory(header);
        return QOR_OK;
    }
    endBlock(memory, header);
    if (header->sizeClass == 0) {
        free(header);
    } else {
        giveCached(memory, header);
    }
    return QOR_OK;
}

/* Whether the handle is known and no partition has a limit, in one comparison. */
bool hasShortWay(u32 handle)
{
    return handle - 1 < g_shortHandles.load(std::memory_order_acquire);
}

/* Needs g_handleMutex. */
void updateShortWay()
{
    g_shortHandles.store(g_limits == 0 ? g_handleCount.load() : 0, std::memory_order_release);
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
        updateShortWay();
    }
    *handle = i + 1;
    return QOR_OK;
}

/* The short way: a block out of the thread's cache. */
void *ZIR_MemAlloc(u32 handle, u8 partition, u64 size)
{
    if (!hasShortWay(handle) || !isCached(size)) {
        return allocateSlowly(handle, partition, size);
    }
    ThreadMemory *memory = t_memory;
    Cache *cache = &memory->caches[classOf(size)];
    if (cache->first == nullptr) {
        return allocateSlowly(handle, partition, size);
    }
    return beginBlock(memory, popBlock(cache), partition, size);
}

/* The short way: into the thread's cache, which has no room for what comes from elsewhere. */
u32 ZIR_MemFree(u32 handle, void *block)
{
    if (!hasShortWay(handle) || block == nullptr || reinterpret_cast<u64>(block) % 16 != 0) {
        return freeSlowly(handle, block);
    }
    Header *header = static_cast<Header *>(block) - 1;
    if (!isLive(header)) {
        return QOR_FAIL;
    }
    ThreadMemory *memory = t_memory;
    Cache *cache = &memory->caches[header->sizeClass];
    if (cache->room == 0) {
        return freeSlowly(handle, block);
    }
    endBlock(memory, header);
    pushBlock(cache, header);
    return QOR_OK;
}

u64 ZIR_MemSize(const void *block)
{
    if (block == nullptr || reinterpret_cast<u64>(block) % 16 != 0) {
        return 0;
    }
    const Header *header = static_cast<const Header *>(block) - 1;
    return isLive(header) ? header->size : 0;
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
    Partition &target = g_partitions[partition];
    const std::lock_guard handleLock(g_handleMutex);
    const std::lock_guard lock(g_mutex);
    g_limits += (limitBytes != 0 ? 1 : 0) - (target.limit != 0 ? 1 : 0);
    target.charged = sumUp(partition).liveBytes;
    target.limit = limitBytes;
    updateShortWay();
}
