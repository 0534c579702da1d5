/*
 * IPAT arbitration: as ICIB's (icib.h) but for the differences listed in tables.h. Nothing of it
 * runs on the worker.
 */
#ifndef ARBITRATION_IPAT_H
#define ARBITRATION_IPAT_H

#include "hash_table.h"
#include "l2rsm_arbitration.h"
#include "zir_mutex.h"

QOR_BEGIN_C

QOR_API extern ZIR_Mutex g_ipatOpRecordMutex;
QOR_API extern ZIR_Mutex g_ipatReOpRecordMutex;
QOR_API extern HASH_Handle g_ipatOpRecordHash;
QOR_API extern HASH_Handle g_ipatReOpRecordHash;

/* For the hash tables; keys are L2ResIpatKey. */
QOR_API u32 QorL2ResIpatHashFunc(const void *key);
QOR_API u32 QorL2ResIpatCompFunc(const void *a, const void *b);
QOR_API u32 QorL2ResIpatOpHashInit(void);
QOR_API u32 QorL2ResIpatReOpHashInit(void);

QOR_API L2ResOpRecord *QorL2ResIpatOpHashSearch(const L2ResIpatKey *key);
QOR_API u32 QorL2ResIpatOpHashUpdate(const L2ResIpatKey *key, const L2ResOpRecord *record);
QOR_API u32 QorL2ResIpatOpDel(const L2ResIpatKey *key);

/*
 * Del removes the most recent waiting request only, and the entry `hash` holds when it was the last:
 * 0, the removal's result, or 1 for a null argument and for an entry with all ten places taken.
 */
QOR_API L2ResIpatReOpRecord *QorL2ResIpatReOpHashSearch(const L2ResIpatKey *key);
QOR_API u32 QorL2ResIpatReOpHashUpdate(const L2ResIpatKey *key, const L2ResOpRecord *record,
                                       const void *data, u16 dataLen, u32 srvType);
QOR_API u32 QorL2ResIpatReOpDel(const L2ResIpatKey *key, HASH_Handle hash);

QOR_API u32 QorL2ResIpatAddMutexProc(u32 srvType, L2ResTokenReq *req);
QOR_API u32 QorL2ResIpatUpdateMutexProc(u32 srvType, L2ResTokenReq *req);
QOR_API u32 QorL2ResIpatDelMutexProc(u32 srvType, L2ResTokenReq *req);

/* Notifies the key's waiters and removes the most recent one. The last callback's result, or 0. */
QOR_API u32 QorL2ResIpatReOpProc(L2ResTokenReq *req);

QOR_END_C

#endif
