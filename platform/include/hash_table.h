/*
 * Hash tables of fixed-size nodes in a memory partition.
 *
 * A node is a buffer of nodeSize bytes that begins with its key. It is aligned to 8 bytes and never
 * moves while it is in the table.
 *
 * Threads: a table takes no lock; its users lock around every call, so that one at a time runs, on
 * whatever thread. Different tables are independent. The table's functions call nothing but its hash
 * and compare functions, which must not call them, and the memory partition.
 *
 * Memory: a table grows by 64 nodes at a time, and keeps their memory until it is deleted.
 */
#ifndef HASH_TABLE_H
#define HASH_TABLE_H

#include "qor_types.h"

QOR_BEGIN_C

typedef void *HASH_Handle;
typedef u32 (*HASH_HashFunc)(const void *key);              /* bucket index */
typedef u32 (*HASH_CompFunc)(const void *a, const void *b); /* 1 when the keys are equal */

/* What an iteration step yields; valid until the next step. */
typedef struct {
    void *node;
} HASH_Element;

/*
 * A new table, or null: a null function, node size 0 or above 64 KB, bucket count 0, an unknown
 * option, no memory.
 *
 * option 0: two keys are equal when certain bits of theirs are, whatever their values. The table finds
 * out which by comparing keys that differ in one bit (a node's bytes, else all 0; no pointer in them
 * may be followed), and tells most keys apart without a call of `compare`. HASH_ANY_KEY: nothing is
 * known of the keys but what `compare` says. Then, and for keys of less than 8 bytes, a search looks at
 * every node of its bucket.
 */
enum { HASH_ANY_KEY = 1 };
QOR_API HASH_Handle HASH_CreateNew(u8 partition, u32 nodeSize, u32 bucketCount, HASH_HashFunc hash,
                                   HASH_CompFunc compare, u32 option);

/* A node buffer that is not in the table yet, contents undefined; null when there is no memory. */
QOR_API void *HASH_NewData(HASH_Handle table, u32 option);

/* Gives back a buffer that was not inserted. */
QOR_API void HASH_FreeData(HASH_Handle table, void *data);

/*
 * Inserts a buffer of HASH_NewData under `key` (its own first bytes). 0, or 1: null argument, hash
 * beyond the bucket count, no memory; the buffer then stays the caller's. 1 also for one that is in the
 * table already or was given back.
 */
QOR_API u32 HASH_AddNode(HASH_Handle table, const void *key, void *data, u32 option);

/* The node with that key, or null. */
QOR_API void *HASH_FindElmtFromFirst(HASH_Handle table, const void *key);

/*
 * Removes the node with that key, which may be the key in the node itself, and gives its buffer back.
 * 0, or 1 when there is none.
 */
QOR_API u32 HASH_RemoveElmtByKey(HASH_Handle table, const void *key);

/*
 * Iterate over all nodes; null at the end, and from there on until an iteration begins again.
 *
 * The table remembers one position, for all its users. It tolerates whatever happens to the table
 * between two steps, on any thread: the removal of any node, the current one included, and insertions.
 * Nodes inserted meanwhile may or may not be met; every other node that is not removed is met exactly
 * once. The order hangs on the calls made so far alone. A table that was large is passed quickly: 64
 * places of removed nodes a time.
 */
QOR_API HASH_Element *HASH_GetFirstNode(HASH_Handle table);
QOR_API HASH_Element *HASH_GetNextNode(HASH_Handle table);

/* Deletes the table with all its nodes and sets *table to null. */
QOR_API void HASH_DeleteHash(HASH_Handle *table);

typedef struct {
    u64 nodes;   /* in the table */
    u64 buffers; /* handed out by HASH_NewData, not yet inserted or given back */
    u64 bytes;   /* memory of the table, nodes included */
} HASH_Stat;

QOR_API void HASH_GetStat(HASH_Handle table, HASH_Stat *stat);

QOR_END_C

#endif
