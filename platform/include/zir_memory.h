/*
 * Memory handles and partitions.
 *
 * A handle says who allocates, a partition where from. Every block is aligned to 16 bytes and
 * counted in its partition. Partitions 0 to 255 exist from the start. Any thread, concurrently; but a
 * block's contents, and its return, are its owner's business. All may be called under any mutex.
 */
#ifndef ZIR_MEMORY_H
#define ZIR_MEMORY_H

#include "qor_types.h"

QOR_BEGIN_C

/*
 * A handle for `name`; the same name gets the same handle. 0, or 1: null argument, a name of more
 * than 63 characters, no handle left (there are 256).
 */
QOR_API u32 ZIR_HandleInitialize(const char *name, u32 *handle);

/*
 * `size` bytes, not cleared. Null: unknown handle, size 0 or above 4 GB, the partition's limit, no
 * memory.
 */
QOR_API void *ZIR_MemAlloc(u32 handle, u8 partition, u64 size);

/*
 * Gives a block back, on whatever thread. 0, or 1 for null, an unknown handle, or an address that is
 * not the start of a live block.
 *
 * What cannot be caught: two threads that free the same block at the same time may both get 0, and it
 * is then handed out twice (an atomic exchange would double the price of every block); and a freed
 * block above 64 KB, or one of more than a kilobyte beyond the 4 MB of them that are kept, belongs to
 * the C library again.
 */
QOR_API u32 ZIR_MemFree(u32 handle, void *block);

/* Bytes of a live block, as asked for; 0 for null or an address that is not the start of one. */
QOR_API u64 ZIR_MemSize(const void *block);

/* As memcmp; two null or zero-sized areas are equal, one null area is less. */
QOR_API int ZIR_MemCmp(const void *a, const void *b, u64 size);

typedef struct {
    u64 liveBlocks;
    u64 liveBytes;  /* as asked for by the callers */
    u64 limitBytes; /* 0: no limit */
} ZIR_PartitionStat;

/*
 * What is live now in a partition; exact when no thread is allocating or freeing, below 64 GB and 2^28
 * blocks.
 */
QOR_API void ZIR_PartitionGetStat(u8 partition, ZIR_PartitionStat *stat);

/* Bounds the live bytes of a partition; 0 lifts the limit. Meant for set-up, before use. */
QOR_API void ZIR_PartitionSetLimit(u8 partition, u64 limitBytes);

QOR_END_C

#endif
