/* Start-up: the steps of the entry's phases, in their order. Host start-up thread only. */
#ifndef FRAME_INIT_H
#define FRAME_INIT_H

#include "l2rsm_entry.h"

QOR_BEGIN_C

/* Written in phase 1, read-only afterwards. */
typedef struct {
    u32 secondArg; /* of QorL2ResInit, stored for the host and never interpreted */
    u32 firstArg;
    u32 selfSlot; /* board slot; part of every alarm */
} L2ResInstInfo;
QOR_STATIC_ASSERT(sizeof(L2ResInstInfo) == 12, "instance information");

QOR_API extern L2ResInstInfo g_L2ResInstInfo;

/* Memory, service tables, debug log, black box, component. 0, or the memory set-up's code. */
QOR_API u32 QorL2ResCommInit(void);

/* Creates the worker task: 0, or the host's code. */
QOR_API u32 QorL2ResStart(void);

/* Fills the instance information and writes the start-up line. */
QOR_API void QorL2ResGetQorInstInfo(u32 firstArg, u32 secondArg);

QOR_END_C

#endif
