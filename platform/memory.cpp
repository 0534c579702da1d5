/* Memory handles and partitions. */
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "bounded.h"
#include "zir_memory.h"

namespace {

constexpr u32 MAX_HANDLES = 256;
constexpr u64 LIVE = 0x5A1B0C4D3E2F6071;

struct alignas(16) Header {
    u64 sizeAndPartition;
    u64 cookie;
};

struct Partition {
    std::atomic<u64> blocks, bytes, limit;
};

std::mutex g_mutex;
char g_names[MAX_HANDLES][64];
std::atomic<u32> g_handleCount;
Partition g_partitions[256];

bool isHandle(u32 handle)
{
    return handle - 1 < g_handleCount.load(std::memory_order_acquire);
}

} // namespace

u32 ZIR_HandleInitialize(const char *name, u32 *handle)
{
    if (name == nullptr || handle == nullptr || strlen(name) >= sizeof(g_names[0])) {
        return QOR_FAIL;
    }
    const std::lock_guard lock(g_mutex);
    const u32 count = g_handleCount;
    u32 i = 0;
    while (i < count && strcmp(g_names[i], name) != 0) {
        ++i;
    }
    if (i == MAX_HANDLES) {
        return QOR_FAIL;
    }
    if (i == count) {
        (void)strcpy_s(g_names[i], sizeof(g_names[i]), name);
        g_handleCount.store(count + 1, std::memory_order_release);
    }
    *handle = i + 1;
    return QOR_OK;
}

void *ZIR_MemAlloc(u32 handle, u8 partition, u64 size)
{
    if (!isHandle(handle) || size == 0 || size >> 48 != 0) {
        return nullptr;
    }
    Partition &from = g_partitions[partition];
    const u64 limit = from.limit;
    if (from.bytes.fetch_add(size) + size > limit && limit != 0) {
        from.bytes -= size;
        return nullptr;
    }
    auto *header = static_cast<Header *>(malloc(sizeof(Header) + size));
    if (header == nullptr) {
        from.bytes -= size;
        return nullptr;
    }
    ++from.blocks;
    header->sizeAndPartition = size << 8 | partition;
    header->cookie = LIVE ^ reinterpret_cast<u64>(header);
    return header + 1;
}

u32 ZIR_MemFree(u32 handle, void *block)
{
    if (block == nullptr || !isHandle(handle)) {
        return QOR_FAIL;
    }
    Header *header = static_cast<Header *>(block) - 1;
    if (header->cookie != (LIVE ^ reinterpret_cast<u64>(header))) {
        return QOR_FAIL;
    }
    header->cookie = 0;
    Partition &from = g_partitions[header->sizeAndPartition & 0xFF];
    from.bytes -= header->sizeAndPartition >> 8;
    --from.blocks;
    free(header);
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
    if (stat == nullptr) {
        return;
    }
    const Partition &from = g_partitions[partition];
    *stat = {from.blocks, from.bytes, from.limit};
}

void ZIR_PartitionSetLimit(u8 partition, u64 limitBytes)
{
    g_partitions[partition].limit = limitBytes;
}
