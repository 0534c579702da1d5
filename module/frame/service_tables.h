/*
 * Service tables of other components, and the wrappers that call them.
 *
 * The pointers are null at load, written at most once each in phase 1, and read-only afterwards.
 * A wrapper tolerates a missing table or operation: it reports that in the log and returns 1. The
 * services accept concurrent calls, so no wrapper takes a lock.
 */
#ifndef FRAME_SERVICE_TABLES_H
#define FRAME_SERVICE_TABLES_H

#include "l2rsm_services.h"
#include "qor_types.h"

QOR_BEGIN_C

QOR_API extern const L2ResMemmVtbl *g_qorL2ResMemmFunVtbl;
QOR_API extern const L2ResTimeVtbl *g_qorL2ResTimeFunVtbl;
QOR_API extern const L2ResLogVtbl *g_qorL2ResLogFunVtbl;
QOR_API extern const L2ResOrchmVtbl *g_qorL2ResOrchmFunVtbl;

enum { L2RES_VTBL_DEBUG_LOG = 0, L2RES_VTBL_BLACK_BOX = 1, L2RES_VTBL_COUNT = 2 };
QOR_API extern void *g_qorL2resFuncVtbl[L2RES_VTBL_COUNT];

/* Phase 1: find a table unless it is known already. 0, or non-zero when it cannot be had. */
QOR_API u32 QorL2ResGetMemmFunVtbl(void);
QOR_API u32 QorL2ResGetTimeFunVtbl(void);
QOR_API u32 QorL2ResGetLogFunVtbl(void);
QOR_API u32 QorL2ResGetOrchmFunVtbl(void);
/* The same for an entry of g_qorL2resFuncVtbl; 1 also for a type above 1. */
QOR_API u32 QorL2resGetFunVtbl(u32 componentId, u32 interfaceId, u32 vtblType);
/* Finds the debug-log and black-box tables; a failure is logged. */
QOR_API void QorL2resInitFunVtbl(void);

/* Wrappers: 0, or 1 when the operation is missing or failed. */
QOR_API u32 QorL2ResLogAlarmObjCreate(u32 objectKind, u32 alarmId, L2ResAlarmHandle *object);
QOR_API u32 QorL2ResLogSetAlarmComAttr(L2ResAlarmHandle object, L2ResAlarmAttr *attr);
QOR_API u32 QorL2ResLogAddAlarmPara(L2ResAlarmHandle object, u32 paraType, u32 length,
                                    const void *value);
QOR_API u32 QorL2ResLogAlarmSend(L2ResAlarmHandle object);
QOR_API u32 QorL2ResLogAlarmObjFree(L2ResAlarmHandle object);
QOR_API u32 QorL2ResGetSysTime(L2ResAlarmTime *now);

/* The board slot as the orchestration service reports it; 1 when it cannot be asked. */
QOR_API u32 QorL2ResGetSelfSlot(void);

QOR_END_C

#endif
