/*
 * ICIB arbitration: its hash tables, record functions, handlers, release and walk. What it shares
 * with IPAT is in tables.h.
 *
 * Locks: every function takes the mutex it needs; the caller may hold it, too, for it is recursive.
 * The module never holds two at once, except that a callback run by the walk, which holds
 * g_icibReOpRecordMutex, may ask for a token. Whoever looks into a hash table himself, with the
 * platform's calls, holds its mutex, from the first node of an iteration to the last, and inserts and
 * removes nothing: the module counts its nodes. The searches
 * return a pointer into the table: good as long as the caller holds the mutex, or knows that nobody
 * changes or removes the entry.
 */
#ifndef ARBITRATION_ICIB_H
#define ARBITRATION_ICIB_H

#include "hash_table.h"
#include "l2rsm_arbitration.h"
#include "zir_mutex.h"

QOR_BEGIN_C

/* Created in phase 1. */
QOR_API extern ZIR_Mutex g_icibOpRecordMutex;
QOR_API extern ZIR_Mutex g_icibReOpRecordMutex;
QOR_API extern HASH_Handle g_icibOpRecordHash;
QOR_API extern HASH_Handle g_icibReOpRecordHash;

/* For the hash tables; keys are L2ResIcibKey. */
QOR_API u32 QorL2ResIcibHashFunc(const void *key);
QOR_API u32 QorL2ResIcibCompFunc(const void *a, const void *b);
QOR_API u32 QorL2ResIcibOpHashInit(void);
QOR_API u32 QorL2ResIcibReOpHashInit(void);

/* Op records. Update inserts or overwrites: 0 or 1. Del: the removal's result, 1 for a null key. */
QOR_API L2ResOpRecord *QorL2ResIcibOpHashSearch(const L2ResIcibKey *key);
QOR_API u32 QorL2ResIcibOpHashUpdate(const L2ResIcibKey *key, const L2ResOpRecord *record);
QOR_API u32 QorL2ResIcibOpDel(const L2ResIcibKey *key);

/*
 * Waiting requests. Update appends one with a copy of `dataLen` bytes of data: 0, 1 when it is not
 * recorded, or the failed copy's code. Del removes the entry with all of them: the removal's result,
 * 0 when there is none or a release or the walk is notifying it, 1 for a null key.
 */
QOR_API L2ResIcibReOpRecord *QorL2ResIcibReOpHashSearch(const L2ResIcibKey *key);
QOR_API u32 QorL2ResIcibReOpHashUpdate(const L2ResIcibKey *key, const L2ResOpRecord *record,
                                       const void *data, u16 dataLen, u32 srvType);
QOR_API u32 QorL2ResIcibReOpDel(const L2ResIcibKey *key);

/* Handlers of the op table: a token result. */
QOR_API u32 QorL2ResIcibAddMutexProc(u32 srvType, L2ResTokenReq *req);
QOR_API u32 QorL2ResIcibUpdateMutexProc(u32 srvType, L2ResTokenReq *req);
QOR_API u32 QorL2ResIcibDelMutexProc(u32 srvType, L2ResTokenReq *req);

/* Notifies and removes the key's waiters, on this thread, no lock held but the caller's. Returns 0. */
QOR_API u32 QorL2ResIcibReOpProc(L2ResTokenReq *req);

/*
 * One tick: notifies and removes the waiters whose countdown runs out, with g_icibReOpRecordMutex held
 * during the callbacks and given back between two entries. Worker task.
 */
QOR_API void QorL2ResIcibReOpHashWalk(void);

/* Fills one line of the query and logs it. */
QOR_API void QorL2ResIcibSet(L2ResQueryEntry *out, const L2ResOpRecord *record, u32 isWaiting);

QOR_END_C

#endif
