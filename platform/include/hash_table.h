/*
 * Hash tables of fixed-size nodes in a memory partition.
 *
 * A node is a buffer of nodeSize bytes that begins with its key. It never moves while it is in the
 * table. It remembers one iteration position, which tolerates the removal of any node, the current
 * one included, and insertions.
 *
 * Threads: the table takes no lock. Searches and removals may run at any time, beside each other and
 * beside all but an iteration, HASH_GetStat and HASH_DeleteHash. Of the other calls one runs at a
 * time. In any case no two calls at a time may concern keys of the same bucket.
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
 * beyond the bucket count, no memory; the buffer then stays the caller's.
 */
QOR_API u32 HASH_AddNode(HASH_Handle table, const void *key, void *data, u32 option);

/* The node with that key, or null. */
QOR_API void *HASH_FindElmtFromFirst(HASH_Handle table, const void *key);

/* Removes the node with that key and gives its buffer back. 0, or 1 when there is none. */
QOR_API u32 HASH_RemoveElmtByKey(HASH_Handle table, const void *key);

/*
 * Iterate over all nodes, in no particular order; null at the end. Nodes inserted during an
 * iteration may or may not be met; every other node is met exactly once. The order hangs on the calls
 * made so far and, unless HASH_ShareNodes was called, on which threads made them.
 */
QOR_API HASH_Element *HASH_GetFirstNode(HASH_Handle table);
QOR_API HASH_Element *HASH_GetNextNode(HASH_Handle table);

/*
 * Threads that have not used a table before share the nodes that are given back from now on; else
 * each keeps its own at hand, which is faster. For replays of what several threads did.
 */
QOR_API void HASH_ShareNodes(void);

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
