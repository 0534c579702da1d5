/*
 * The op table: which handler judges which operation on which common table; and the creation of the
 * hash tables behind the handlers. The table never changes; dispatching takes no lock.
 */
#ifndef ARBITRATION_OP_TABLE_H
#define ARBITRATION_OP_TABLE_H

#include "hash_table.h"
#include "l2rsm_arbitration.h"

QOR_BEGIN_C

typedef u32 (*L2ResOpHandler)(u32 srvType, L2ResTokenReq *req); /* a token result */

typedef struct {
    u16 tableId;
    L2ResOpHandler add;
    L2ResOpHandler update;
    L2ResOpHandler del;
} L2ResOpTableRow;
QOR_STATIC_ASSERT(sizeof(L2ResOpTableRow) == 32, "op table row");

enum { L2RES_OP_TABLE_ROWS = 2 };
QOR_API extern const L2ResOpTableRow g_qorL2ResOpTable[L2RES_OP_TABLE_ROWS];

/* The row of a table id, or null. */
QOR_API const L2ResOpTableRow *GetL2ResOpMutexFunc(u32 tableId);

/* Calls the handler: its result, or 1 when there is none. A null request: 1, nothing written. */
QOR_API u32 QorL2resMutexProc(u32 tableId, u32 srvType, u32 opType, L2ResTokenReq *req);

/* Phase 1: creates all four hash tables, or none: 0 or 1. */
QOR_API u32 QorL2ResHashTblInit(void);

/*
 * Deletes a table unless null. For other components, which hold its mutex if anybody else knows the
 * table; the module keeps its own for ever.
 */
QOR_API void QorL2ResHashDestroy(HASH_Handle handle);

QOR_END_C

#endif
