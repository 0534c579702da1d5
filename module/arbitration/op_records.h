/* Op records: who holds an entry. One implementation for both common tables. */
#ifndef ARBITRATION_OP_RECORDS_H
#define ARBITRATION_OP_RECORDS_H

#include "arbitration/tables.h"

/* What an entry's record is at one moment: a copy, so that no lock is held while a rule runs. */
struct Holder {
    bool exists;
    L2ResOpRecord record;
};

inline bool operator==(const Holder &a, const Holder &b)
{
    return a.exists == b.exists &&
           (!a.exists || (a.record.Stamp == b.record.Stamp && a.record.Op == b.record.Op &&
                          a.record.SrvType == b.record.SrvType && a.record.Used == b.record.Used));
}

/* Creates hash table and mutex: 0 or 1. */
u32 CreateOpTable(const CommonTable &table);

/* The search with its lines: a pointer into the table, or null. */
L2ResOpRecord *SearchOpRecord(const CommonTable &table, const void *key);

/* The same as a copy. */
Holder FindHolder(const CommonTable &table, const void *key);

/* A look without a line. */
Holder PeekHolder(const CommonTable &table, const void *key);

/*
 * Inserts or overwrites; with `judged`, only while that is still what the entry has. Fails, and the
 * entry stays as it was, for a null key or record and when there is no memory.
 */
enum class Store { done, failed, overtaken };
Store StoreOpRecord(const CommonTable &table, const void *key, const L2ResOpRecord *record,
                    const Holder *judged);

/* Removes the record: the removal's result, 1 for a null key. */
u32 RemoveOpRecord(const CommonTable &table, const void *key);

/* Frees an add or update token: the record stays, not in use. False when there is none. */
bool MarkReleased(const CommonTable &table, const void *key);

/* Frees a delete token: the record goes; *ret is the removal's result. False when there is none. */
bool RemoveReleased(const CommonTable &table, const void *key, u32 *ret);

#endif
