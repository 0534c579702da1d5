/* Op records: who holds an entry. One implementation for both common tables. */
#ifndef ARBITRATION_OP_RECORDS_H
#define ARBITRATION_OP_RECORDS_H

#include "arbitration/tables.h"

/* What a judgement is based on: a copy, so that no lock is held while the rule runs. */
struct Holder {
    bool exists;
    L2ResOpRecord record;
    u32 releases; /* of the entry's bucket at that moment */
};

/* Creates hash table and mutex: 0 or 1. */
u32 CreateOpTable(const CommonTable &table);

/* The search proper, with its lines, no lock: a pointer into the table, or null. */
L2ResOpRecord *SearchOpRecord(const CommonTable &table, const void *key);

Holder FindHolder(const CommonTable &table, const void *key);

/* The same for a query, which whoever holds the table's mutex keeps waiting as he does writers. */
Holder QueryHolder(const CommonTable &table, const void *key);

/* Inserts or overwrites whatever is there: 0 or 1. */
u32 StoreOpRecord(const CommonTable &table, const void *key, const L2ResOpRecord &record);

/*
 * The same, but only while the entry's record is still the judged one. On success judged->releases
 * is brought up to date.
 */
enum class Replacement { stored, failed, overtaken };
Replacement ReplaceJudged(const CommonTable &table, const void *key, const L2ResOpRecord &record,
                          Holder *judged);

/* Removes the record, which counts as a release: the removal's result, 1 for a null key. */
u32 RemoveOpRecord(const CommonTable &table, const void *key);

/* Frees an add or update token: the record stays, not in use. False when there is none. */
bool MarkReleased(const CommonTable &table, const void *key);

/* Frees a delete token: the record goes; *ret is the removal's result. False when there is none. */
bool RemoveReleased(const CommonTable &table, const void *key, u32 *ret);

/* Was a token of the entry (or of one in its bucket) freed since `judged` was looked up? */
bool ReleasedSince(const CommonTable &table, const void *key, const Holder &judged);

/* All mutexes of the table's op records. */
void LockOpTable(const CommonTable &table);
void UnlockOpTable(const CommonTable &table);

#endif
