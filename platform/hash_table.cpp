/* Hash tables of fixed-size nodes (first version: a block per node). */
#include <cstring>
#include <new>

#include "hash_table.h"
#include "zir_memory.h"

namespace {

struct Bucket {
    void **nodes;
    u32 count;
    u32 capacity;
};

struct Table {
    HASH_HashFunc hash;
    HASH_CompFunc compare;
    u64 bytes;
    u64 nodes;
    u64 buffers;
    u32 nodeSize;
    u32 bucketCount;
    u32 memHandle;
    u32 cursorBucket;
    u32 cursorIndex;
    u8 partition;
    HASH_Element element;
    Bucket buckets[1];
};

bool find(Table *table, const void *key, u32 *bucket, u32 *index)
{
    *bucket = table->hash(key);
    if (*bucket >= table->bucketCount) {
        return false;
    }
    const Bucket &in = table->buckets[*bucket];
    for (u32 i = 0; i < in.count; ++i) {
        if (table->compare(key, in.nodes[i]) == 1) {
            *index = i;
            return true;
        }
    }
    return false;
}

} // namespace

HASH_Handle HASH_CreateNew(u8 partition, u32 nodeSize, u32 bucketCount, HASH_HashFunc hash,
                           HASH_CompFunc compare, u32 option)
{
    (void)option;
    u32 handle;
    if (nodeSize == 0 || bucketCount == 0 || hash == nullptr || compare == nullptr ||
        ZIR_HandleInitialize("hash", &handle) != 0) {
        return nullptr;
    }
    const u64 size = sizeof(Table) + sizeof(Bucket) * static_cast<u64>(bucketCount);
    void *memory = ZIR_MemAlloc(handle, partition, size);
    if (memory == nullptr) {
        return nullptr;
    }
    (void)memset(memory, 0, size);
    auto *table = static_cast<Table *>(memory);
    table->hash = hash;
    table->compare = compare;
    table->bytes = size;
    table->nodeSize = nodeSize;
    table->bucketCount = bucketCount;
    table->memHandle = handle;
    table->cursorBucket = bucketCount;
    table->partition = partition;
    return table;
}

void *HASH_NewData(HASH_Handle handle, u32 option)
{
    (void)option;
    auto *table = static_cast<Table *>(handle);
    void *data = table != nullptr
                     ? ZIR_MemAlloc(table->memHandle, table->partition, table->nodeSize)
                     : nullptr;
    if (data != nullptr) {
        ++table->buffers;
    }
    return data;
}

void HASH_FreeData(HASH_Handle handle, void *data)
{
    auto *table = static_cast<Table *>(handle);
    if (table != nullptr && ZIR_MemFree(table->memHandle, data) == 0) {
        --table->buffers;
    }
}

u32 HASH_AddNode(HASH_Handle handle, const void *key, void *data, u32 option)
{
    (void)option;
    auto *table = static_cast<Table *>(handle);
    if (table == nullptr || key == nullptr || data == nullptr) {
        return QOR_FAIL;
    }
    const u32 index = table->hash(key);
    if (index >= table->bucketCount) {
        return QOR_FAIL;
    }
    Bucket &bucket = table->buckets[index];
    if (bucket.count == bucket.capacity) {
        const u32 capacity = bucket.capacity * 2 + 2;
        auto *nodes = static_cast<void **>(ZIR_MemAlloc(
            table->memHandle, table->partition, static_cast<u64>(capacity) * sizeof(void *)));
        if (nodes == nullptr) {
            return QOR_FAIL;
        }
        if (bucket.nodes != nullptr) {
            (void)memcpy(nodes, bucket.nodes, bucket.count * sizeof(void *));
            (void)ZIR_MemFree(table->memHandle, bucket.nodes);
        }
        table->bytes += (capacity - bucket.capacity) * sizeof(void *);
        bucket.nodes = nodes;
        bucket.capacity = capacity;
    }
    bucket.nodes[bucket.count++] = data;
    --table->buffers;
    ++table->nodes;
    return QOR_OK;
}

void *HASH_FindElmtFromFirst(HASH_Handle handle, const void *key)
{
    auto *table = static_cast<Table *>(handle);
    u32 bucket;
    u32 index;
    return table != nullptr && key != nullptr && find(table, key, &bucket, &index)
               ? table->buckets[bucket].nodes[index]
               : nullptr;
}

u32 HASH_RemoveElmtByKey(HASH_Handle handle, const void *key)
{
    auto *table = static_cast<Table *>(handle);
    u32 bucket;
    u32 index;
    if (table == nullptr || key == nullptr || !find(table, key, &bucket, &index)) {
        return QOR_FAIL;
    }
    Bucket &from = table->buckets[bucket];
    (void)ZIR_MemFree(table->memHandle, from.nodes[index]);
    --from.count;
    (void)memmove(from.nodes + index, from.nodes + index + 1,
                  (from.count - index) * sizeof(void *));
    if (bucket == table->cursorBucket && index < table->cursorIndex) {
        --table->cursorIndex;
    }
    --table->nodes;
    return QOR_OK;
}

HASH_Element *HASH_GetFirstNode(HASH_Handle handle)
{
    auto *table = static_cast<Table *>(handle);
    if (table != nullptr) {
        table->cursorBucket = 0;
        table->cursorIndex = 0;
    }
    return HASH_GetNextNode(handle);
}

HASH_Element *HASH_GetNextNode(HASH_Handle handle)
{
    auto *table = static_cast<Table *>(handle);
    if (table == nullptr) {
        return nullptr;
    }
    while (table->cursorBucket < table->bucketCount) {
        const Bucket &bucket = table->buckets[table->cursorBucket];
        if (table->cursorIndex < bucket.count) {
            table->element.node = bucket.nodes[table->cursorIndex++];
            return &table->element;
        }
        ++table->cursorBucket;
        table->cursorIndex = 0;
    }
    return nullptr;
}

void HASH_DeleteHash(HASH_Handle *handle)
{
    auto *table = handle != nullptr ? static_cast<Table *>(*handle) : nullptr;
    if (table == nullptr) {
        return;
    }
    for (u32 i = 0; i < table->bucketCount; ++i) {
        for (u32 n = 0; n < table->buckets[i].count; ++n) {
            (void)ZIR_MemFree(table->memHandle, table->buckets[i].nodes[n]);
        }
        (void)ZIR_MemFree(table->memHandle, table->buckets[i].nodes);
    }
    (void)ZIR_MemFree(table->memHandle, table);
    *handle = nullptr;
}

void HASH_GetStat(HASH_Handle handle, HASH_Stat *stat)
{
    const auto *table = static_cast<const Table *>(handle);
    if (stat != nullptr) {
        *stat = table == nullptr
                    ? HASH_Stat{}
                    : HASH_Stat{table->nodes, table->buffers,
                                table->bytes + (table->nodes + table->buffers) * table->nodeSize};
    }
}
