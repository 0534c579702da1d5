/*
 * Hash tables of fixed-size nodes.
 *
 * Nodes have numbers, and lie in slabs of 64. An iteration follows the numbers, and looks at a bit for
 * each node: neither a removal nor an insertion can shift the nodes still to come, and 64 numbers out
 * of use are passed at once.
 *
 * Buckets lead from a key to a number. A bucket with several entries has an array of them, searched
 * from a place that follows from a hash of those bits of the key that the compare function looks at, up
 * to an empty place; the function is called for equal hashes only. Buckets grow by themselves, without
 * a look at their nodes, so that no insertion takes much longer than others.
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

constexpr u64 LINE = 64; /* bytes that the processor fetches at once */
constexpr u32 SLAB_NODES = 64;
constexpr u32 MAX_NODE = 0x10000;
constexpr u32 MAX_SLABS = 0xFFFFFFFF / SLAB_NODES; /* all their numbers are below NONE */
constexpr u32 WALK_AHEAD = 8;                      /* nodes an iteration fetches ahead */
constexpr u32 KEY_WORDS = 8;                       /* of a key, at most, that its hash is made of */
constexpr u32 NONE = 0xFFFFFFFF;                   /* no node's number */

/* Behind a node, its link; as much as any field's alignment asks for. */
constexpr u32 LINK_BYTES = 8;

#if defined(__SANITIZE_ADDRESS__) || (defined(__clang__) && __has_feature(address_sanitizer))
constexpr u32 NODE_GAP = 16; /* poisoned, so that writing beyond a node is found */
#else
constexpr u32 NODE_GAP = 0;
#endif

struct Slab {
    void *memory;
    unsigned char *nodes; /* in it, from a line's begin on */
    u64 live;             /* a bit for each: it is in the table */
};

struct Entry {
    u32 number; /* NONE: the place is empty */
    u32 hash;
};

/* A single entry stands in the bucket itself: most buckets of a spread table need no array. */
struct Bucket {
    union {
        u32 single;
        Entry *entries;
    };
    u32 count;
    u32 capacity; /* of the array; 0: there is none */
};

/* Eight bytes of a key: which bits of them count, and what they contribute to its hash. */
struct KeyWord {
    u64 mask;
    u64 factor;
    u64 offset;
};

struct Table {
    HASH_HashFunc hash;
    HASH_CompFunc compare;
    u32 memHandle;
    u32 nodeSize;
    u32 stride; /* from one node to the next, its link included */
    u32 bucketCount;
    u8 partition;
    u8 keyWords; /* 0: unknown, and all hashes are the same */
    KeyWord keyWord[KEY_WORDS];
    Bucket *buckets;

    Slab *slabs;
    u32 slabCount;
    u32 slabCapacity;
    u32 usedNodes; /* numbers from here on were never handed out */
    u32 freeNode;  /* the number given back last */
    u32 cursor;    /* the next iteration step looks from here on; NONE at the end */
    HASH_Element element;
    HASH_Stat stat;
};

Table *tableOf(HASH_Handle handle)
{
    return static_cast<Table *>(handle);
}

void *takeMemory(Table *table, u64 size)
{
    void *memory = ZIR_MemAlloc(table->memHandle, table->partition, size);
    table->stat.bytes += memory != nullptr ? size : 0;
    return memory;
}

void giveMemory(Table *table, void *memory, u64 size)
{
    if (memory != nullptr) {
        (void)ZIR_MemFree(table->memHandle, memory);
        table->stat.bytes -= size;
    }
}

/* ---- Nodes and their numbers ---- */

u64 slabSize(const Table *table)
{
    return LINE + static_cast<u64>(SLAB_NODES) * table->stride;
}

/* Nodes that are as long as a line with their link, as those of the ICIB holders, have it alone. */
unsigned char *nextLine(void *address)
{
    return static_cast<unsigned char *>(address) + -reinterpret_cast<u64>(address) % LINE;
}

unsigned char *nodeAt(const Table *table, u32 number)
{
    return table->slabs[number / SLAB_NODES].nodes +
           static_cast<u64>(number % SLAB_NODES) * table->stride;
}

/* Behind a node that was given back: the number of the one before. A buffer's leads to itself. */
u32 *linkOf(const Table *table, void *node)
{
    return reinterpret_cast<u32 *>(static_cast<unsigned char *>(node) + table->stride - LINK_BYTES);
}

bool reserveSlab(Table *table)
{
    if (table->slabCount < table->slabCapacity) {
        return true;
    }
    const u32 capacity = std::min(table->slabCapacity * 2 + 4, MAX_SLABS);
    auto *slabs = table->slabCount < capacity
                      ? static_cast<Slab *>(takeMemory(table, capacity * sizeof(Slab)))
                      : nullptr;
    if (slabs == nullptr) {
        return false;
    }
    std::copy_n(table->slabs, table->slabCount, slabs);
    giveMemory(table, table->slabs, table->slabCapacity * sizeof(Slab));
    table->slabs = slabs;
    table->slabCapacity = capacity;
    return true;
}

bool addSlab(Table *table)
{
    void *memory = reserveSlab(table) ? takeMemory(table, slabSize(table)) : nullptr;
    if (memory == nullptr) {
        return false;
    }
    ASAN_POISON_MEMORY_REGION(memory, slabSize(table));
    table->slabs[table->slabCount++] = {memory, nextLine(memory), 0};
    return true;
}

/* Nodes taken in a row lie in a row. */
void *takeNode(Table *table)
{
    u32 number = table->freeNode;
    if (number != NONE) {
        table->freeNode = *linkOf(table, nodeAt(table, number));
    } else if (table->usedNodes < table->slabCount * SLAB_NODES || addSlab(table)) {
        number = table->usedNodes++;
    } else {
        return nullptr;
    }
    void *node = nodeAt(table, number);
    ASAN_UNPOISON_MEMORY_REGION(node, table->nodeSize);
    ASAN_UNPOISON_MEMORY_REGION(linkOf(table, node), LINK_BYTES);
    *linkOf(table, node) = number;
    ++table->stat.buffers;
    return node;
}

/* A buffer that was handed out and is neither in the table nor given back. */
bool isBuffer(const Table *table, void *data)
{
    const u32 number = data != nullptr ? *linkOf(table, data) : NONE;
    return number < table->usedNodes && nodeAt(table, number) == data;
}

void giveNode(Table *table, u32 number)
{
    void *node = nodeAt(table, number);
    *linkOf(table, node) = table->freeNode;
    table->freeNode = number;
    ASAN_POISON_MEMORY_REGION(node, table->stride - LINK_BYTES);
}

/* ---- Keys ---- */

u32 hashKey(const Table *table, const void *key)
{
    u64 sum = 0;
    for (u32 i = 0; i < table->keyWords; ++i) {
        const KeyWord &part = table->keyWord[i];
        u64 word;
        (void)memcpy(&word, static_cast<const unsigned char *>(key) + part.offset, sizeof(word));
        sum += (word & part.mask) * part.factor;
    }
    return static_cast<u32>(sum >> 32);
}

/*
 * Sets the bits of `mask` by which two keys differ: `a` and `b` are all 0, and one bit at a time is
 * set in `b`. Returns the bytes of a key that are known for sure, and so may be read of any key.
 */
u32 learnMask(HASH_CompFunc compare, const unsigned char *a, unsigned char *b, u32 size,
              unsigned char *mask)
{
    u32 known = 0;
    for (u32 i = 0; i < size; ++i) {
        for (u32 bit = 1; bit < 0x100; bit <<= 1) {
            b[i] = static_cast<unsigned char>(bit);
            if (compare(a, b) == 0) {
                mask[i] = static_cast<unsigned char>(mask[i] | bit);
                known = i + 1;
            }
        }
        b[i] = 0;
    }
    return known;
}

/* A key with less than a word is left unknown. False: no memory. */
bool learnKey(Table *table)
{
    /* As far apart as nodes are, for the alignment of their fields. */
    const u64 bytes = 2ULL * table->stride;
    auto *keys = static_cast<unsigned char *>(takeMemory(table, bytes));
    if (keys == nullptr) {
        return false;
    }
    (void)memset(keys, 0, bytes);
    unsigned char mask[KEY_WORDS * sizeof(u64)] = {};
    const u32 size = std::min(table->nodeSize, static_cast<u32>(sizeof(mask)));
    const u32 known = learnMask(table->compare, keys, keys + table->stride, size, mask);
    giveMemory(table, keys, bytes);

    u64 factor = 1;
    for (u32 begin = 0; begin < known && known >= sizeof(u64); begin += sizeof(u64)) {
        KeyWord &word = table->keyWord[table->keyWords];
        /* Nothing is read beyond the end: the last word may overlap the one before. */
        word.offset = std::min<u64>(begin, known - sizeof(u64));
        (void)memcpy(&word.mask, mask + word.offset, sizeof(u64));
        word.factor = factor *= 0x9E3779B97F4A7C15;
        table->keyWords = static_cast<u8>(table->keyWords + (word.mask != 0));
    }
    return true;
}

/* ---- Buckets ---- */

/* The bucket that the caller's hash function names, or null: it is beyond the last. */
Bucket *bucketOf(const Table *table, const void *key)
{
    const u32 bucket = table->hash(key);
    return bucket < table->bucketCount ? &table->buckets[bucket] : nullptr;
}

/* Where the search for a hash begins. */
u32 homeOf(const Bucket *bucket, u32 hash)
{
    return static_cast<u32>(u64{hash} * bucket->capacity >> 32);
}

u32 following(const Bucket *bucket, u32 index)
{
    return index + 1 == bucket->capacity ? 0 : index + 1;
}

/* Into an array with room. */
void putEntry(Bucket *bucket, Entry entry)
{
    u32 index = homeOf(bucket, entry.hash);
    while (bucket->entries[index].number != NONE) {
        index = following(bucket, index);
    }
    bucket->entries[index] = entry;
}

void giveEntries(Table *table, const Bucket *bucket)
{
    if (bucket->capacity != 0) {
        giveMemory(table, bucket->entries, bucket->capacity * sizeof(Entry));
    }
}

bool growBucket(Table *table, Bucket *bucket)
{
    Bucket grown = *bucket;
    grown.capacity = bucket->count + bucket->count / 2 + 3;
    grown.entries = static_cast<Entry *>(takeMemory(table, grown.capacity * sizeof(Entry)));
    if (grown.entries == nullptr) {
        return false;
    }
    std::fill_n(grown.entries, grown.capacity, Entry{NONE, 0});
    if (bucket->capacity == 0) {
        putEntry(&grown, {bucket->single, hashKey(table, nodeAt(table, bucket->single))});
    }
    for (u32 i = 0; i < bucket->capacity; ++i) {
        if (bucket->entries[i].number != NONE) {
            putEntry(&grown, bucket->entries[i]);
        }
    }
    giveEntries(table, bucket);
    *bucket = grown;
    return true;
}

/* An eighth of an array and one place stay empty: a search ends there. False: no memory. */
bool addEntry(Table *table, Bucket *bucket, Entry entry)
{
    const u32 capacity = bucket->capacity;
    const u32 most = capacity == 0 ? 1 : capacity - capacity / 8 - 1;
    if (bucket->count == most && !growBucket(table, bucket)) {
        return false;
    }
    if (bucket->capacity == 0) {
        bucket->single = entry.number;
    } else {
        putEntry(bucket, entry);
    }
    ++bucket->count;
    return true;
}

/* Entries that a search would not reach any more across the gap move into it. */
void closeGap(Bucket *bucket, u32 gap)
{
    Entry *entries = bucket->entries;
    const auto distance = [bucket](u32 from, u32 to) {
        return to >= from ? to - from : to + bucket->capacity - from;
    };
    for (u32 i = following(bucket, gap); entries[i].number != NONE; i = following(bucket, i)) {
        if (distance(homeOf(bucket, entries[i].hash), i) >= distance(gap, i)) {
            entries[gap] = entries[i];
            gap = i;
        }
    }
    entries[gap].number = NONE;
}

void removeEntry(Table *table, Bucket *bucket, u32 index)
{
    if (--bucket->count == 0) {
        giveEntries(table, bucket);
        *bucket = {};
    } else {
        closeGap(bucket, index);
    }
}

/* A node's number, NONE when there is none, and where its bucket has it. */
struct Position {
    u32 number;
    u32 index;
    Bucket *bucket;
};

/* Apart from findKey, that a bucket with a single entry does not pay for it. */
__attribute__((noinline)) Position findHash(const Table *table, Bucket *bucket, const void *key)
{
    const u32 hash = hashKey(table, key);
    u32 index = homeOf(bucket, hash);
    for (; bucket->entries[index].number != NONE; index = following(bucket, index)) {
        const Entry &entry = bucket->entries[index];
        if (entry.hash == hash && table->compare(key, nodeAt(table, entry.number)) != 0) {
            return {entry.number, index, bucket};
        }
    }
    return {NONE, 0, bucket};
}

Position findKey(const Table *table, const void *key)
{
    Bucket *bucket = bucketOf(table, key);
    if (bucket != nullptr && bucket->capacity != 0) {
        return findHash(table, bucket, key);
    }
    const bool found = bucket != nullptr && bucket->count != 0 &&
                       table->compare(key, nodeAt(table, bucket->single)) != 0;
    return {found ? bucket->single : NONE, 0, bucket};
}

/* ---- Iteration ---- */

HASH_Element *nextElement(Table *table)
{
    for (u32 &cursor = table->cursor; cursor / SLAB_NODES < table->slabCount;
         cursor += SLAB_NODES - cursor % SLAB_NODES) {
        const u64 rest = table->slabs[cursor / SLAB_NODES].live >> cursor % SLAB_NODES;
        if (rest == 0) {
            continue;
        }
        cursor += static_cast<u32>(std::countr_zero(rest));
        /* The end of a node to come: a walk looks at the bookkeeping behind the keys. */
        const u32 ahead = std::min(cursor + WALK_AHEAD, table->slabCount * SLAB_NODES - 1);
        __builtin_prefetch(linkOf(table, nodeAt(table, ahead)));
        table->element.node = nodeAt(table, cursor++);
        return &table->element;
    }
    table->cursor = NONE;
    return nullptr;
}

} // namespace

HASH_Handle HASH_CreateNew(u8 partition, u32 nodeSize, u32 bucketCount, HASH_HashFunc hash,
                           HASH_CompFunc compare, u32 option)
{
    u32 memHandle;
    if (nodeSize == 0 || nodeSize > MAX_NODE || bucketCount == 0 || hash == nullptr ||
        compare == nullptr || option > HASH_ANY_KEY ||
        ZIR_HandleInitialize("qor-hash", &memHandle) != QOR_OK) {
        return nullptr;
    }
    const u64 size = sizeof(Table) + bucketCount * sizeof(Bucket);
    auto *table = static_cast<Table *>(ZIR_MemAlloc(memHandle, partition, size));
    if (table == nullptr) {
        return nullptr;
    }
    (void)memset(table, 0, size);
    table->buckets = reinterpret_cast<Bucket *>(table + 1);
    table->hash = hash;
    table->compare = compare;
    table->memHandle = memHandle;
    table->nodeSize = nodeSize;
    table->stride = (nodeSize + NODE_GAP + 7) / 8 * 8 + LINK_BYTES;
    table->bucketCount = bucketCount;
    table->partition = partition;
    table->freeNode = table->cursor = NONE;
    table->stat.bytes = size;
    if (option != HASH_ANY_KEY && !learnKey(table)) {
        HASH_Handle handle = table;
        HASH_DeleteHash(&handle);
        return nullptr;
    }
    return table;
}

void *HASH_NewData(HASH_Handle handle, u32 option)
{
    (void)option;
    return handle != nullptr ? takeNode(tableOf(handle)) : nullptr;
}

void HASH_FreeData(HASH_Handle handle, void *data)
{
    Table *table = tableOf(handle);
    /* A node of the table, or one given back before, is left alone. */
    if (table != nullptr && isBuffer(table, data)) {
        --table->stat.buffers;
        giveNode(table, *linkOf(table, data));
    }
}

u32 HASH_AddNode(HASH_Handle handle, const void *key, void *data, u32 option)
{
    (void)option;
    Table *table = tableOf(handle);
    if (table == nullptr || key == nullptr || !isBuffer(table, data)) {
        return QOR_FAIL;
    }
    const u32 number = *linkOf(table, data);
    Bucket *bucket = bucketOf(table, key);
    if (bucket == nullptr || !addEntry(table, bucket, {number, hashKey(table, key)})) {
        return QOR_FAIL;
    }
    *linkOf(table, data) = NONE;
    table->slabs[number / SLAB_NODES].live |= 1ULL << number % SLAB_NODES;
    --table->stat.buffers;
    ++table->stat.nodes;
    return QOR_OK;
}

void *HASH_FindElmtFromFirst(HASH_Handle handle, const void *key)
{
    const Table *table = tableOf(handle);
    const u32 number = table != nullptr && key != nullptr ? findKey(table, key).number : NONE;
    return number != NONE ? nodeAt(table, number) : nullptr;
}

u32 HASH_RemoveElmtByKey(HASH_Handle handle, const void *key)
{
    Table *table = tableOf(handle);
    if (table == nullptr || key == nullptr) {
        return QOR_FAIL;
    }
    const Position found = findKey(table, key);
    if (found.number == NONE) {
        return QOR_FAIL;
    }
    /* `key` may be the node's own: it is not read any more from here on. */
    removeEntry(table, found.bucket, found.index);
    table->slabs[found.number / SLAB_NODES].live &= ~(1ULL << found.number % SLAB_NODES);
    --table->stat.nodes;
    giveNode(table, found.number);
    return QOR_OK;
}

HASH_Element *HASH_GetFirstNode(HASH_Handle handle)
{
    Table *table = tableOf(handle);
    if (table == nullptr) {
        return nullptr;
    }
    table->cursor = 0;
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
        giveEntries(table, &table->buckets[i]);
    }
    for (u32 i = 0; i < table->slabCount; ++i) {
        ASAN_UNPOISON_MEMORY_REGION(table->slabs[i].memory, slabSize(table));
        giveMemory(table, table->slabs[i].memory, slabSize(table));
    }
    giveMemory(table, table->slabs, table->slabCapacity * sizeof(Slab));
    (void)ZIR_MemFree(table->memHandle, table);
    *handle = nullptr;
}

void HASH_GetStat(HASH_Handle handle, HASH_Stat *stat)
{
    if (stat != nullptr) {
        *stat = handle != nullptr ? tableOf(handle)->stat : HASH_Stat{};
    }
}
