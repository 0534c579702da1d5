/*
 * Hash tables of fixed-size nodes.
 *
 * Two structures over the same nodes. Buckets lead from a key to a node: a bucket is an array of node
 * addresses, and behind it an array of their keys' tags. A tag is made of those bits of a key that the
 * compare function looks at. It tells where in the arrays a search begins; the search ends at an empty
 * place, and calls the compare function for equal tags only. Slabs hold the nodes in memory order, each
 * with its state behind it. An iteration follows the slabs, not the buckets: a node keeps its place in
 * its slab, so neither a removal nor an insertion can shift the nodes still to come, and a walk over
 * many nodes reads memory forwards.
 *
 * Searches and removals run beside whatever concerns other buckets. So they write nothing but their
 * bucket, its nodes and a list of nodes given back; threads keep such lists apart, that no cache line
 * travels between them for nothing.
 *
 * All memory comes from the table's partition through a memory handle of the tables' own. Slabs are
 * kept until the table is deleted; a bucket's array is given back when the bucket empties.
 */
#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <sanitizer/asan_interface.h>

#include "hash_table.h"
#include "zir_memory.h"

namespace {

constexpr u64 LINE = 64;            /* bytes that travel together between processors */
constexpr u32 FIRST_SLAB = 16;      /* nodes of a table's first slab */
constexpr u64 SLAB_BYTES = 0x10000; /* a slab does not grow beyond (or is a single node) */
constexpr u32 WALK_AHEAD = 8;       /* nodes an iteration fetches ahead */
constexpr u32 POOLS = 8;
constexpr u32 KEY_WORDS = 8; /* of a key, at most, that its tag is made of */

#if defined(__SANITIZE_ADDRESS__) || (defined(__clang__) && __has_feature(address_sanitizer))
constexpr u32 NODE_GAP = 16; /* poisoned, so that writing beyond a node is found */
#else
constexpr u32 NODE_GAP = 0;
#endif

/* Of a node, in the last bytes of its stride: given back, handed out, in the table. */
enum : u64 { FREE, BUFFER, LIVE };

struct Slab {
    Slab *next;           /* created after this one */
    unsigned char *nodes; /* the first node */
    u32 nodeCount;
    u32 used; /* nodes from here on were never handed out */
};

/* A key has a tag from LEAST_TAG on; NO_TAG marks an empty place of a bucket's array. */
constexpr u16 NO_TAG = 0;
constexpr u16 LEAST_TAG = 1;

/* A single entry stands in the bucket itself: most buckets of a spread table need no array. */
struct Bucket {
    union {
        void *single;
        void **array; /* `capacity` addresses, then as many tags */
    };
    u32 count;
    u32 capacity; /* of the array; 0: there is none */
};
constexpr u32 BUCKETS_PER_LINE = LINE / sizeof(Bucket);

/*
 * Nodes given back by the threads that share this pool, linked through their first bytes. Anyone adds
 * to `returned`; whoever holds the table takes them all at once, and then has them to itself.
 */
struct alignas(LINE) Pool {
    std::atomic<void *> returned;
    void *taken;
};

/* Eight bytes of a key: which bits of them count, and what they contribute to its tag. */
struct KeyWord {
    u64 mask;
    u64 factor;
    u64 offset;
};

struct Table {
    /* Read by everyone, written by nobody. */
    HASH_HashFunc hash;
    HASH_CompFunc compare;
    u32 memHandle;
    u32 nodeSize;
    u32 stride; /* from one node to the next, its state included */
    u32 bucketCount;
    u32 bucketStep; /* see bucketOf */
    u8 partition;
    u8 keyWords; /* 0: unknown, and all tags are the same */
    KeyWord keyWord[KEY_WORDS];
    void *memory; /* this table's, as allocated */
    Bucket *buckets;

    Pool pools[POOLS];

    /* Whoever holds the table. */
    alignas(LINE) Slab *firstSlab;
    Slab *lastSlab;
    Slab **slabs; /* all, by address */
    u32 slabCount;
    u32 slabCapacity;
    u64 nodeCapacity; /* of all slabs */
    Slab *cursorSlab; /* the next iteration step looks from here on; null at the end */
    u32 cursorIndex;
    HASH_Element element;

    alignas(LINE) std::atomic<u64> bytes;
};

Table *tableOf(HASH_Handle handle)
{
    return static_cast<Table *>(handle);
}

void *takeMemory(Table *table, u64 size)
{
    void *memory = ZIR_MemAlloc(table->memHandle, table->partition, size);
    if (memory != nullptr) {
        table->bytes.fetch_add(size, std::memory_order_relaxed);
    }
    return memory;
}

void giveMemory(Table *table, void *memory, u64 size)
{
    if (memory != nullptr) {
        (void)ZIR_MemFree(table->memHandle, memory);
        table->bytes.fetch_sub(size, std::memory_order_relaxed);
    }
}

/* ---- Slabs ---- */

u64 *stateOf(const Table *table, void *node)
{
    return reinterpret_cast<u64 *>(static_cast<unsigned char *>(node) + table->stride) - 1;
}

u64 slabSize(const Table *table, u32 nodeCount)
{
    return sizeof(Slab) + LINE + static_cast<u64>(nodeCount) * table->stride;
}

/* Nodes that are as long as a cache line, as those of the ICIB holders are, have one to themselves. */
unsigned char *nextLine(void *address)
{
    return static_cast<unsigned char *>(address) + (-reinterpret_cast<u64>(address) % LINE);
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
    slab->next = nullptr;
    slab->nodes = nextLine(slab + 1);
    slab->nodeCount = nodeCount;
    slab->used = 0;
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

/* Whether it is a node, by its address alone: what is none is never looked into. */
bool isNode(const Table *table, const void *data)
{
    const auto *address = static_cast<const unsigned char *>(data);
    Slab *const *after = std::upper_bound(
        table->slabs, table->slabs + table->slabCount, address,
        [](const unsigned char *searched, const Slab *slab) { return searched < slab->nodes; });
    if (after == table->slabs) {
        return false;
    }
    const Slab *slab = after[-1];
    const u64 offset = static_cast<u64>(address - slab->nodes);
    return offset < static_cast<u64>(slab->used) * table->stride && offset % table->stride == 0;
}

/* A buffer that was handed out and is neither in the table nor given back. */
bool isBuffer(const Table *table, void *data)
{
    return isNode(table, data) && *stateOf(table, data) == BUFFER;
}

/* ---- Pools ---- */

std::atomic<bool> g_shareNodes;

/* The running thread's: threads that start one after the other have different ones. */
Pool *ownPool(Table *table)
{
    static std::atomic<u32> threads{0};
    __attribute__((tls_model("initial-exec"))) thread_local u32 number = 0;
    if (number == 0) {
        number = g_shareNodes ? POOLS : ++threads;
    }
    return &table->pools[number % POOLS];
}

/* The link of a node in a pool. ASan sees to it that nobody else looks into such a node. */
void setLink(const Table *table, void *node, void *next)
{
    ASAN_UNPOISON_MEMORY_REGION(node, sizeof(next));
    (void)memcpy(node, &next, sizeof(next));
    ASAN_POISON_MEMORY_REGION(node, table->stride - sizeof(u64));
}

void *linkOf(const Table *table, const void *node)
{
    void *next;
    ASAN_UNPOISON_MEMORY_REGION(node, sizeof(next));
    (void)memcpy(&next, node, sizeof(next));
    ASAN_POISON_MEMORY_REGION(node, table->stride - sizeof(u64));
    return next;
}

void giveNodeBack(Table *table, void *node)
{
    *stateOf(table, node) = FREE;
    Pool *pool = ownPool(table);
    void *first = pool->returned.load(std::memory_order_relaxed);
    do {
        setLink(table, node, first);
    } while (!pool->returned.compare_exchange_weak(first, node, std::memory_order_release,
                                                   std::memory_order_relaxed));
}

/* A node given back before, by a thread of that pool; null when there is none. */
void *takeFrom(const Table *table, Pool *pool)
{
    if (pool->taken == nullptr) {
        pool->taken = pool->returned.exchange(nullptr, std::memory_order_acquire);
    }
    void *node = pool->taken;
    if (node != nullptr) {
        pool->taken = linkOf(table, node);
    }
    return node;
}

/* The next node of the newest slab, or null: nodes taken in a row lie in a row. */
void *takeFresh(Table *table)
{
    Slab *slab = table->lastSlab;
    if (slab == nullptr || slab->used == slab->nodeCount) {
        return nullptr;
    }
    void *node = slab->nodes + static_cast<u64>(slab->used++) * table->stride;
    ASAN_UNPOISON_MEMORY_REGION(stateOf(table, node), sizeof(u64));
    return node;
}

/* Before the table grows, what other threads gave back is used up. */
void *takeNode(Table *table)
{
    void *node = takeFrom(table, ownPool(table));
    if (node == nullptr) {
        node = takeFresh(table);
    }
    for (u32 i = 0; node == nullptr && i < POOLS; ++i) {
        node = takeFrom(table, &table->pools[i]);
    }
    return node != nullptr || !addSlab(table) ? node : takeFresh(table);
}

/* ---- Buckets ---- */

/* Neighbouring hashes lie on different cache lines: neighbours are often different threads'. */
Bucket *bucketOf(const Table *table, u32 hash)
{
    return &table->buckets[hash % BUCKETS_PER_LINE * table->bucketStep + hash / BUCKETS_PER_LINE];
}

u16 tagOf(const Table *table, const void *key)
{
    u64 sum = 0;
    for (u32 i = 0; i < table->keyWords; ++i) {
        const KeyWord &part = table->keyWord[i];
        u64 word;
        (void)memcpy(&word, static_cast<const unsigned char *>(key) + part.offset, sizeof(word));
        sum += (word & part.mask) * part.factor;
    }
    return std::max(static_cast<u16>(sum >> 48), LEAST_TAG);
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

/* Where the search for a tag begins. */
u32 homeOf(const Bucket *bucket, u16 tag)
{
    return static_cast<u32>(u64{tag} * bucket->capacity >> 16);
}

u32 following(const Bucket *bucket, u32 index)
{
    return index + 1 == bucket->capacity ? 0 : index + 1;
}

/* Into an array with room. */
void putEntry(Bucket *bucket, void *node, u16 tag)
{
    u16 *tags = tagsOf(bucket);
    u32 index = homeOf(bucket, tag);
    while (tags[index] != NO_TAG) {
        index = following(bucket, index);
    }
    tags[index] = tag;
    bucket->array[index] = node;
}

bool growArray(Table *table, Bucket *bucket)
{
    Bucket grown = *bucket;
    grown.capacity = bucket->count + bucket->count / 2 + 3;
    grown.array = static_cast<void **>(takeMemory(table, arrayBytes(grown.capacity)));
    if (grown.array == nullptr) {
        return false;
    }
    std::fill_n(tagsOf(&grown), grown.capacity, NO_TAG);
    if (bucket->capacity == 0) {
        putEntry(&grown, bucket->single, tagOf(table, bucket->single));
    }
    for (u32 i = 0; i < bucket->capacity; ++i) {
        if (tagsOf(bucket)[i] != NO_TAG) {
            putEntry(&grown, bucket->array[i], tagsOf(bucket)[i]);
        }
    }
    giveArray(table, bucket);
    *bucket = grown;
    return true;
}

/* Room for one more entry. An eighth of an array and one place stay empty: a search ends there. */
bool reserveEntry(Table *table, Bucket *bucket)
{
    const u32 capacity = bucket->capacity;
    const u32 most = capacity == 0 ? 1 : capacity - capacity / 8 - 1;
    return bucket->count < most || growArray(table, bucket);
}

void addEntry(const Table *table, Bucket *bucket, void *node)
{
    if (bucket->capacity == 0) {
        bucket->single = node;
    } else {
        putEntry(bucket, node, tagOf(table, node));
    }
    ++bucket->count;
}

/* Entries that a search would not reach any more across the gap move into it. */
void closeGap(Bucket *bucket, u32 gap)
{
    u16 *tags = tagsOf(bucket);
    const auto distance = [bucket](u32 from, u32 to) {
        return to >= from ? to - from : to + bucket->capacity - from;
    };
    for (u32 i = following(bucket, gap); tags[i] != NO_TAG; i = following(bucket, i)) {
        const u32 home = homeOf(bucket, tags[i]);
        if (distance(home, i) >= distance(gap, i)) {
            tags[gap] = tags[i];
            bucket->array[gap] = bucket->array[i];
            gap = i;
        }
    }
    tags[gap] = NO_TAG;
}

void removeEntry(Table *table, Bucket *bucket, u32 index)
{
    if (--bucket->count == 0) {
        giveArray(table, bucket);
        *bucket = Bucket{};
    } else {
        closeGap(bucket, index);
    }
}

/* A node and where its bucket has it; null when there is none. */
struct Position {
    Bucket *bucket;
    u32 index;
    void *node;
};

/* Apart from findKey, that a bucket with a single entry does not pay for it. */
__attribute__((noinline)) Position findTagged(const Table *table, Bucket *bucket, const void *key)
{
    const u16 tag = tagOf(table, key);
    const u16 *tags = tagsOf(bucket);
    u32 index = homeOf(bucket, tag);
    __builtin_prefetch(&bucket->array[index]);
    for (; tags[index] != NO_TAG; index = following(bucket, index)) {
        if (tags[index] == tag && table->compare(key, bucket->array[index]) != 0) {
            return {bucket, index, bucket->array[index]};
        }
    }
    return {bucket, 0, nullptr};
}

Position findKey(const Table *table, const void *key)
{
    const u32 hash = table->hash(key);
    if (hash >= table->bucketCount) {
        return {nullptr, 0, nullptr};
    }
    Bucket *bucket = bucketOf(table, hash);
    if (bucket->capacity != 0) {
        return findTagged(table, bucket, key);
    }
    const bool found = bucket->count != 0 && table->compare(key, bucket->single) != 0;
    return {bucket, 0, found ? bucket->single : nullptr};
}

/* ---- Iteration ---- */

HASH_Element *nextElement(Table *table)
{
    for (; table->cursorSlab != nullptr; table->cursorSlab = table->cursorSlab->next) {
        const Slab *slab = table->cursorSlab;
        while (table->cursorIndex < slab->used) {
            unsigned char *node =
                slab->nodes + static_cast<u64>(table->cursorIndex++) * table->stride;
            /* The end of a node to come: a walk looks at the bookkeeping behind the keys. */
            __builtin_prefetch(node + static_cast<u64>(WALK_AHEAD) * table->stride - sizeof(u64));
            if (*stateOf(table, node) == LIVE) {
                table->element.node = node;
                return &table->element;
            }
        }
        table->cursorIndex = 0;
    }
    return nullptr;
}

/* ---- What counts of a key ---- */

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

/* A key with less than a word is left unknown. */
void setKeyWords(Table *table, const unsigned char *mask, u32 known)
{
    u64 factor = 1;
    for (u32 begin = 0; begin < known && known >= sizeof(u64); begin += sizeof(u64)) {
        KeyWord &word = table->keyWord[table->keyWords];
        /* Nothing is read beyond the end: the last word may overlap the one before. */
        word.offset = std::min<u64>(begin, known - sizeof(u64));
        (void)memcpy(&word.mask, mask + word.offset, sizeof(u64));
        word.factor = factor *= 0x9E3779B97F4A7C15;
        table->keyWords = static_cast<u8>(table->keyWords + (word.mask != 0));
    }
}

bool learnKey(Table *table)
{
    /* As far apart as nodes are, for the alignment of their fields. */
    const u64 bytes = 2ULL * table->stride;
    /* Larger than what threads keep for later: it is needed only once. */
    const u64 size = std::max<u64>(bytes, 0x1000);
    auto *keys = static_cast<unsigned char *>(takeMemory(table, size));
    if (keys == nullptr) {
        return false;
    }
    (void)memset(keys, 0, bytes);
    unsigned char mask[KEY_WORDS * sizeof(u64)] = {};
    const u32 known = learnMask(table->compare, keys, keys + table->stride,
                                std::min(table->nodeSize, static_cast<u32>(sizeof(mask))), mask);
    setKeyWords(table, mask, known);
    giveMemory(table, keys, size);
    return true;
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
    const u32 bucketStep = (bucketCount - 1) / BUCKETS_PER_LINE + 1;
    const u64 size = sizeof(Table) + bucketStep * LINE + LINE;
    void *memory = ZIR_MemAlloc(memHandle, partition, size);
    if (memory == nullptr) {
        return nullptr;
    }
    (void)memset(memory, 0, size);
    auto *table = new (nextLine(memory)) Table{};
    table->memory = memory;
    table->buckets = reinterpret_cast<Bucket *>(table + 1);
    table->hash = hash;
    table->compare = compare;
    table->memHandle = memHandle;
    table->nodeSize = nodeSize;
    /* Eight bytes are what a free node's link needs and what any field's alignment asks for. */
    table->stride = (nodeSize + NODE_GAP + 7) / 8 * 8 + static_cast<u32>(sizeof(u64));
    table->bucketCount = bucketCount;
    table->bucketStep = bucketStep;
    table->partition = partition;
    table->bytes = size;
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
    Table *table = tableOf(handle);
    void *node = table != nullptr ? takeNode(table) : nullptr;
    if (node == nullptr) {
        return nullptr;
    }
    *stateOf(table, node) = BUFFER;
    ASAN_UNPOISON_MEMORY_REGION(node, table->nodeSize);
    return node;
}

void HASH_FreeData(HASH_Handle handle, void *data)
{
    Table *table = tableOf(handle);
    /* A node of the table, or one given back before, is left alone. */
    if (table != nullptr && isBuffer(table, data)) {
        giveNodeBack(table, data);
    }
}

u32 HASH_AddNode(HASH_Handle handle, const void *key, void *data, u32 option)
{
    (void)option;
    Table *table = tableOf(handle);
    if (table == nullptr || key == nullptr || data == nullptr || !isBuffer(table, data)) {
        return QOR_FAIL;
    }
    const u32 hash = table->hash(key);
    if (hash >= table->bucketCount || !reserveEntry(table, bucketOf(table, hash))) {
        return QOR_FAIL;
    }
    addEntry(table, bucketOf(table, hash), data);
    *stateOf(table, data) = LIVE;
    return QOR_OK;
}

void *HASH_FindElmtFromFirst(HASH_Handle handle, const void *key)
{
    Table *table = tableOf(handle);
    if (table == nullptr || key == nullptr) {
        return nullptr;
    }
    return findKey(table, key).node;
}

u32 HASH_RemoveElmtByKey(HASH_Handle handle, const void *key)
{
    Table *table = tableOf(handle);
    if (table == nullptr || key == nullptr) {
        return QOR_FAIL;
    }
    const Position position = findKey(table, key);
    if (position.node == nullptr) {
        return QOR_FAIL;
    }
    /* `key` may be the node's own: it is not read any more from here on. */
    removeEntry(table, position.bucket, position.index);
    giveNodeBack(table, position.node);
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
    for (u32 hash = 0; hash < table->bucketCount; ++hash) {
        giveArray(table, bucketOf(table, hash));
    }
    for (Slab *slab = table->firstSlab; slab != nullptr;) {
        Slab *next = slab->next;
        const u64 size = slabSize(table, slab->nodeCount);
        ASAN_UNPOISON_MEMORY_REGION(slab, size);
        giveMemory(table, slab, size);
        slab = next;
    }
    giveMemory(table, table->slabs, table->slabCapacity * sizeof(Slab *));
    (void)ZIR_MemFree(table->memHandle, table->memory);
    *handle = nullptr;
}

void HASH_ShareNodes()
{
    g_shareNodes = true;
}

void HASH_GetStat(HASH_Handle handle, HASH_Stat *stat)
{
    if (stat == nullptr) {
        return;
    }
    *stat = {};
    const Table *table = tableOf(handle);
    if (table == nullptr) {
        return;
    }
    stat->bytes = table->bytes;
    for (const Slab *slab = table->firstSlab; slab != nullptr; slab = slab->next) {
        for (u32 i = 0; i < slab->used; ++i) {
            const u64 state = *stateOf(table, slab->nodes + static_cast<u64>(i) * table->stride);
            stat->nodes += state == LIVE;
            stat->buffers += state == BUFFER;
        }
    }
}
