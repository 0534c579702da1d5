/*
 * Hash tables of fixed-size nodes.
 *
 * Two structures over the same nodes. Buckets lead from a key to a node: each is a contiguous array
 * of node addresses, and behind it an array of their keys' tags. A tag is made of the first bytes of
 * a key; a search looks at the nodes with the right tag only, and so mostly at one. Slabs hold the nodes in memory order, with two bits per node: taken (not in
 * the free list) and live (in the table). An iteration follows the slabs, not the buckets: a node
 * keeps its place in its slab, so neither a removal nor an insertion can shift the nodes still to
 * come, and a walk over many nodes reads memory forwards.
 *
 * All memory comes from the table's partition through a memory handle of the tables' own. Slabs are
 * kept until the table is deleted; a bucket's array is given back when the bucket empties.
 */
#include <algorithm>
#include <bit>
#include <cstring>
#include <sanitizer/asan_interface.h>

#include "hash_table.h"
#include "zir_memory.h"

namespace {

constexpr u32 BITS = 64;            /* in a word of a slab's bit maps */
constexpr u32 FIRST_SLAB = 16;      /* nodes of a table's first slab */
constexpr u64 SLAB_BYTES = 0x10000; /* a slab does not grow beyond (or is a single node) */
constexpr u32 TAGS = 8;             /* compared at once */
constexpr u32 WALK_AHEAD = 8;       /* nodes an iteration fetches ahead */

#if defined(__SANITIZE_ADDRESS__) || (defined(__clang__) && __has_feature(address_sanitizer))
constexpr u32 NODE_GAP = 16; /* poisoned, so that writing beyond a node is found */
#else
constexpr u32 NODE_GAP = 0;
#endif

struct Slab {
    Slab *next;           /* created after this one */
    unsigned char *nodes; /* the first node */
    u64 *taken;
    u64 *live;
    u32 nodeCount;
    u32 used; /* nodes from here on were never handed out */
};

/* A single entry stands in the bucket itself: most buckets of a spread table need no array. */
struct Bucket {
    union {
        void *single;
        void **array; /* `capacity` addresses, then as many tags */
    };
    u32 count;
    u32 capacity; /* of the array; 0: there is none */
};

struct Table {
    HASH_HashFunc hash;
    HASH_CompFunc compare;
    u32 memHandle;
    u32 nodeSize;
    u32 stride; /* from one node to the next */
    u32 bucketCount;
    u8 partition;
    bool hasTags; /* else all tags are 0, and a search looks at every node of its bucket */

    Slab *firstSlab;
    Slab *lastSlab;
    Slab **slabs; /* all, by address */
    u32 slabCount;
    u32 slabCapacity;
    u64 nodeCapacity; /* of all slabs */
    void *freeNodes;  /* given back, linked through their first bytes */

    Slab *cursorSlab; /* the next iteration step looks from here on; null at the end */
    u32 cursorIndex;
    HASH_Element element;

    HASH_Stat stat;
    Bucket buckets[1]; /* bucketCount of them */
};

/* A node's place in its slab. */
struct Place {
    Slab *slab; /* null: not an address of a node */
    u32 index;
};

Table *tableOf(HASH_Handle handle)
{
    return static_cast<Table *>(handle);
}

void *takeMemory(Table *table, u64 size)
{
    void *memory = ZIR_MemAlloc(table->memHandle, table->partition, size);
    if (memory != nullptr) {
        table->stat.bytes += size;
    }
    return memory;
}

void giveMemory(Table *table, void *memory, u64 size)
{
    if (memory != nullptr) {
        (void)ZIR_MemFree(table->memHandle, memory);
        table->stat.bytes -= size;
    }
}

/* ---- Slabs ---- */

bool isSet(const u64 *map, u32 index)
{
    return (map[index / BITS] >> index % BITS & 1) != 0;
}

void setBit(u64 *map, u32 index)
{
    map[index / BITS] |= 1ULL << index % BITS;
}

void clearBit(u64 *map, u32 index)
{
    map[index / BITS] &= ~(1ULL << index % BITS);
}

u32 mapWords(u32 nodeCount)
{
    return (nodeCount + BITS - 1) / BITS;
}

u64 slabSize(const Table *table, u32 nodeCount)
{
    return sizeof(Slab) + 2 * sizeof(u64) * mapWords(nodeCount) +
           static_cast<u64>(nodeCount) * table->stride;
}

/* An eighth of what the table has, so that little is unused, within what one slab may be. */
u32 nextSlabNodes(const Table *table)
{
    const u64 most = std::max<u64>(SLAB_BYTES / table->stride, 1);
    return static_cast<u32>(std::min(std::max<u64>(table->nodeCapacity / 8, FIRST_SLAB), most));
}

bool reserveSlabEntry(Table *table)
{
    if (table->slabCount < table->slabCapacity) {
        return true;
    }
    const u32 capacity = table->slabCapacity * 2 + 4;
    auto *slabs = static_cast<Slab **>(takeMemory(table, capacity * sizeof(Slab *)));
    if (slabs == nullptr) {
        return false;
    }
    std::copy_n(table->slabs, table->slabCount, slabs);
    giveMemory(table, table->slabs, table->slabCapacity * sizeof(Slab *));
    table->slabs = slabs;
    table->slabCapacity = capacity;
    return true;
}

bool addSlab(Table *table)
{
    const u32 nodeCount = nextSlabNodes(table);
    auto *slab = reserveSlabEntry(table)
                     ? static_cast<Slab *>(takeMemory(table, slabSize(table, nodeCount)))
                     : nullptr;
    if (slab == nullptr) {
        return false;
    }
    const u32 words = mapWords(nodeCount);
    slab->next = nullptr;
    slab->taken = reinterpret_cast<u64 *>(slab + 1);
    slab->live = slab->taken + words;
    slab->nodes = reinterpret_cast<unsigned char *>(slab->live + words);
    slab->nodeCount = nodeCount;
    slab->used = 0;
    std::fill_n(slab->taken, 2 * words, 0ULL);
    ASAN_POISON_MEMORY_REGION(slab->nodes, static_cast<size_t>(nodeCount) * table->stride);

    (table->lastSlab != nullptr ? table->lastSlab->next : table->firstSlab) = slab;
    table->lastSlab = slab;
    Slab **end = table->slabs + table->slabCount;
    Slab **position = std::upper_bound(table->slabs, end, slab);
    std::copy_backward(position, end, end + 1);
    *position = slab;
    ++table->slabCount;
    table->nodeCapacity += nodeCount;
    return true;
}

/* Finds the place of a node by its address alone: what is not a node is never looked into. */
Place placeOf(const Table *table, const void *node)
{
    const auto *address = static_cast<const unsigned char *>(node);
    Slab *const *after = std::upper_bound(
        table->slabs, table->slabs + table->slabCount, address,
        [](const unsigned char *searched, const Slab *slab) { return searched < slab->nodes; });
    if (after == table->slabs) {
        return {nullptr, 0};
    }
    Slab *slab = after[-1];
    const u64 offset = static_cast<u64>(address - slab->nodes);
    if (offset >= static_cast<u64>(slab->used) * table->stride || offset % table->stride != 0) {
        return {nullptr, 0};
    }
    return {slab, static_cast<u32>(offset / table->stride)};
}

void *nodeAt(const Table *table, Place place)
{
    return place.slab->nodes + static_cast<u64>(place.index) * table->stride;
}

/* Takes a node given back before. */
Place takeFreeNode(Table *table)
{
    void *node = table->freeNodes;
    ASAN_UNPOISON_MEMORY_REGION(node, table->stride);
    (void)memcpy(&table->freeNodes, node, sizeof(table->freeNodes));
    ASAN_POISON_MEMORY_REGION(node, table->stride);
    return placeOf(table, node);
}

/* Takes the next node of the newest slab: nodes taken in a row lie in a row. */
Place takeFreshNode(Table *table)
{
    const Slab *slab = table->lastSlab;
    if ((slab == nullptr || slab->used == slab->nodeCount) && !addSlab(table)) {
        return {nullptr, 0};
    }
    return {table->lastSlab, table->lastSlab->used++};
}

void giveNodeBack(Table *table, Place place)
{
    void *node = nodeAt(table, place);
    clearBit(place.slab->taken, place.index);
    ASAN_UNPOISON_MEMORY_REGION(node, table->stride);
    (void)memcpy(node, &table->freeNodes, sizeof(table->freeNodes));
    ASAN_POISON_MEMORY_REGION(node, table->stride);
    table->freeNodes = node;
}

/* A buffer that was handed out and is neither in the table nor given back. */
bool isBuffer(Place place)
{
    return place.slab != nullptr && isSet(place.slab->taken, place.index) &&
           !isSet(place.slab->live, place.index);
}

/* ---- Buckets ---- */

u16 tagOf(const Table *table, const void *key)
{
    if (!table->hasTags) {
        return 0;
    }
    u64 head;
    (void)memcpy(&head, key, sizeof(head));
    return static_cast<u16>(head * 0x9E3779B97F4A7C15 >> 48);
}

void **entriesOf(Bucket *bucket)
{
    return bucket->capacity == 0 ? &bucket->single : bucket->array;
}

u16 *tagsOf(const Bucket *bucket)
{
    return reinterpret_cast<u16 *>(bucket->array + bucket->capacity);
}

u64 arrayBytes(u32 capacity)
{
    return capacity * static_cast<u64>(sizeof(void *) + sizeof(u16));
}

void giveArray(Table *table, Bucket *bucket)
{
    if (bucket->capacity != 0) {
        giveMemory(table, bucket->array, arrayBytes(bucket->capacity));
    }
}

/* Room for one more entry; growth by half keeps what is unused small. */
bool reserveEntry(Table *table, Bucket *bucket)
{
    if (bucket->count < std::max(bucket->capacity, 1U)) {
        return true;
    }
    Bucket grown = *bucket;
    grown.capacity = bucket->count + bucket->count / 2 + 2;
    grown.array = static_cast<void **>(takeMemory(table, arrayBytes(grown.capacity)));
    if (grown.array == nullptr) {
        return false;
    }
    std::copy_n(entriesOf(bucket), bucket->count, grown.array);
    if (bucket->capacity != 0) {
        std::copy_n(tagsOf(bucket), bucket->count, tagsOf(&grown));
    } else {
        tagsOf(&grown)[0] = tagOf(table, bucket->single);
    }
    giveArray(table, bucket);
    *bucket = grown;
    return true;
}

void addEntry(const Table *table, Bucket *bucket, void *node)
{
    if (bucket->capacity != 0) {
        tagsOf(bucket)[bucket->count] = tagOf(table, node);
    }
    entriesOf(bucket)[bucket->count++] = node;
}

/* The order within a bucket means nothing, so the last entry fills the gap. */
void removeEntry(Table *table, Bucket *bucket, u32 index)
{
    const u32 last = --bucket->count;
    entriesOf(bucket)[index] = entriesOf(bucket)[last];
    if (bucket->capacity != 0) {
        tagsOf(bucket)[index] = tagsOf(bucket)[last];
    }
    if (last == 0) {
        giveArray(table, bucket);
        *bucket = Bucket{};
    }
}

/* Whether one of the tags from here on is `tag`: a single comparison of the processor's. */
bool anyTag(const u16 *tags, u16 tag)
{
    typedef u16 Vector __attribute__((vector_size(TAGS * sizeof(u16))));
    Vector vector;
    (void)memcpy(&vector, tags, sizeof(vector));
    const auto equal = vector == tag;
    u64 halves[2];
    static_assert(sizeof(halves) == sizeof(equal));
    (void)memcpy(halves, &equal, sizeof(halves));
    return (halves[0] | halves[1]) != 0;
}

/* The index of the entry for the node with that key, or the entry count when there is none. */
u32 findEntry(const Table *table, Bucket *bucket, const void *key)
{
    const u32 count = bucket->count;
    if (bucket->capacity == 0) {
        return count != 0 && table->compare(key, bucket->single) != 0 ? 0 : count;
    }
    const u16 tag = tagOf(table, key);
    const u16 *tags = tagsOf(bucket);
    for (u32 i = 0; i < count;) {
        if (i + TAGS <= count && !anyTag(tags + i, tag)) {
            i += TAGS;
            continue;
        }
        for (const u32 end = std::min(i + TAGS, count); i < end; ++i) {
            if (tags[i] == tag && table->compare(key, bucket->array[i]) != 0) {
                return i;
            }
        }
    }
    return count;
}

/* The bucket entry of a key. */
struct Position {
    Bucket *bucket;
    u32 index;
    bool found;
};

Position findKey(Table *table, const void *key)
{
    const u32 hash = table->hash(key);
    if (hash >= table->bucketCount) {
        return {nullptr, 0, false};
    }
    Bucket *bucket = &table->buckets[hash];
    const u32 index = findEntry(table, bucket, key);
    return {bucket, index, index < bucket->count};
}

/* ---- Iteration ---- */

HASH_Element *nextElement(Table *table)
{
    for (; table->cursorSlab != nullptr; table->cursorSlab = table->cursorSlab->next) {
        const Slab *slab = table->cursorSlab;
        while (table->cursorIndex < slab->used) {
            const u32 index = table->cursorIndex;
            const u64 live = slab->live[index / BITS] >> index % BITS;
            if (live != 0) {
                const u32 found = index + static_cast<u32>(std::countr_zero(live));
                table->cursorIndex = found + 1;
                unsigned char *node = slab->nodes + static_cast<u64>(found) * table->stride;
                /* The end of a node to come: a walk looks at the bookkeeping behind the keys. */
                __builtin_prefetch(node + static_cast<u64>(WALK_AHEAD) * table->stride - 1);
                table->element.node = node;
                return &table->element;
            }
            table->cursorIndex = (index / BITS + 1) * BITS;
        }
        table->cursorIndex = 0;
    }
    return nullptr;
}

} // namespace

HASH_Handle HASH_CreateNew(u8 partition, u32 nodeSize, u32 bucketCount, HASH_HashFunc hash,
                           HASH_CompFunc compare, u32 option)
{
    u32 memHandle;
    if (nodeSize == 0 || nodeSize > SLAB_BYTES || bucketCount == 0 || hash == nullptr ||
        compare == nullptr || option > HASH_ANY_KEY ||
        ZIR_HandleInitialize("qor-hash", &memHandle) != QOR_OK) {
        return nullptr;
    }
    const u64 size = sizeof(Table) + (bucketCount - 1ULL) * sizeof(Bucket);
    auto *table = static_cast<Table *>(ZIR_MemAlloc(memHandle, partition, size));
    if (table == nullptr) {
        return nullptr;
    }
    (void)memset(static_cast<void *>(table), 0, size);
    table->hash = hash;
    table->compare = compare;
    table->memHandle = memHandle;
    table->nodeSize = nodeSize;
    /* Eight bytes are what a free node's link needs and what any field's alignment asks for. */
    table->stride = (nodeSize + NODE_GAP + 7) / 8 * 8;
    table->bucketCount = bucketCount;
    table->partition = partition;
    table->hasTags = option != HASH_ANY_KEY && nodeSize >= sizeof(u64);
    table->stat.bytes = size;
    return table;
}

void *HASH_NewData(HASH_Handle handle, u32 option)
{
    (void)option;
    Table *table = tableOf(handle);
    if (table == nullptr) {
        return nullptr;
    }
    const Place place = table->freeNodes != nullptr ? takeFreeNode(table) : takeFreshNode(table);
    if (place.slab == nullptr) {
        return nullptr;
    }
    setBit(place.slab->taken, place.index);
    ++table->stat.buffers;
    void *node = nodeAt(table, place);
    ASAN_UNPOISON_MEMORY_REGION(node, table->nodeSize);
    return node;
}

void HASH_FreeData(HASH_Handle handle, void *data)
{
    Table *table = tableOf(handle);
    const Place place = table != nullptr ? placeOf(table, data) : Place{};
    /* A node of the table, or one given back before, is left alone. */
    if (!isBuffer(place)) {
        return;
    }
    giveNodeBack(table, place);
    --table->stat.buffers;
}

u32 HASH_AddNode(HASH_Handle handle, const void *key, void *data, u32 option)
{
    (void)option;
    Table *table = tableOf(handle);
    if (table == nullptr || key == nullptr || data == nullptr) {
        return QOR_FAIL;
    }
    const Place place = placeOf(table, data);
    if (!isBuffer(place)) {
        return QOR_FAIL;
    }
    const u32 hash = table->hash(key);
    if (hash >= table->bucketCount || !reserveEntry(table, &table->buckets[hash])) {
        return QOR_FAIL;
    }
    addEntry(table, &table->buckets[hash], data);
    setBit(place.slab->live, place.index);
    --table->stat.buffers;
    ++table->stat.nodes;
    return QOR_OK;
}

void *HASH_FindElmtFromFirst(HASH_Handle handle, const void *key)
{
    Table *table = tableOf(handle);
    if (table == nullptr || key == nullptr) {
        return nullptr;
    }
    const Position position = findKey(table, key);
    return position.found ? entriesOf(position.bucket)[position.index] : nullptr;
}

u32 HASH_RemoveElmtByKey(HASH_Handle handle, const void *key)
{
    Table *table = tableOf(handle);
    if (table == nullptr || key == nullptr) {
        return QOR_FAIL;
    }
    const Position position = findKey(table, key);
    if (!position.found) {
        return QOR_FAIL;
    }
    /* `key` may be the node's own: it is not read any more from here on. */
    const Place place = placeOf(table, entriesOf(position.bucket)[position.index]);
    removeEntry(table, position.bucket, position.index);
    clearBit(place.slab->live, place.index);
    giveNodeBack(table, place);
    --table->stat.nodes;
    return QOR_OK;
}

HASH_Element *HASH_GetFirstNode(HASH_Handle handle)
{
    Table *table = tableOf(handle);
    if (table == nullptr) {
        return nullptr;
    }
    table->cursorSlab = table->firstSlab;
    table->cursorIndex = 0;
    return nextElement(table);
}

HASH_Element *HASH_GetNextNode(HASH_Handle handle)
{
    return handle != nullptr ? nextElement(tableOf(handle)) : nullptr;
}

void HASH_DeleteHash(HASH_Handle *handle)
{
    Table *table = handle != nullptr ? tableOf(*handle) : nullptr;
    if (table == nullptr) {
        return;
    }
    for (u32 i = 0; i < table->bucketCount; ++i) {
        if (table->buckets[i].capacity != 0) {
            (void)ZIR_MemFree(table->memHandle, table->buckets[i].array);
        }
    }
    for (u32 i = 0; i < table->slabCount; ++i) {
        Slab *slab = table->slabs[i];
        ASAN_UNPOISON_MEMORY_REGION(slab->nodes,
                                    static_cast<size_t>(slab->nodeCount) * table->stride);
        (void)ZIR_MemFree(table->memHandle, slab);
    }
    if (table->slabs != nullptr) {
        (void)ZIR_MemFree(table->memHandle, table->slabs);
    }
    (void)ZIR_MemFree(table->memHandle, table);
    *handle = nullptr;
}

void HASH_GetStat(HASH_Handle handle, HASH_Stat *stat)
{
    if (stat != nullptr) {
        *stat = handle != nullptr ? tableOf(handle)->stat : HASH_Stat{};
    }
}
