/*
 * The module's one log call, and the thin wrappers of the debug-log and black-box services.
 *
 * Every message goes to the debug log; events and errors also go to the black box, which outlives
 * the process. Nothing is added to the text. A message written before start-up has found the
 * services is dropped. Any thread, at any time; nothing is allocated.
 */
#ifndef FRAME_DBG_LOG_H
#define FRAME_DBG_LOG_H

#include <stdbool.h>

#include "frame/service_tables.h"
#include "qor_types.h"

QOR_BEGIN_C

/* Levels; any other value is not written anywhere. */
enum {
    L2RES_LOG_TRACE = 0,   /* look-ups, arbitration internals */
    L2RES_LOG_EVENT = 1,   /* registrations, operations with their verdicts; also black box */
    L2RES_LOG_REPORT = 2,  /* usage checks, queries, VLAN edit operations */
    L2RES_LOG_STARTUP = 4, /* start-up failures of the worker, the add rule's trace */
    L2RES_LOG_ERROR = 5    /* failures; also black box */
};

/* Categories: told by the caller, written nowhere. */
enum { L2RES_LOG_GENERAL = 0, L2RES_LOG_ICIB = 1, L2RES_LOG_IPAT = 2 };

/* A message is cut to 255 characters. */
enum { L2RES_LOG_SIZE = 256 };

QOR_API extern u32 g_qorL2resDbgId;      /* written in phase 1, read-only afterwards */
QOR_API extern u32 g_qorL2resBlackBoxId; /* likewise */

QOR_API void QorL2ResDbgWriteLog(u32 level, u32 category, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/*
 * What a level becomes: 0, or 1 when nothing is written at that level or debugLevel is null.
 * *blackBoxLevel becomes 3 when the black box gets nothing.
 */
QOR_API u32 QorL2ResGetDbgLogLevel(u32 level, u32 *debugLevel, u32 *blackBoxLevel);

/* Phase 1: make the module known to both services. */
QOR_API void QorL2resInitDbg(void);
QOR_API u32 QorL2resBlackBoxReg(void);

/* The services' operations; 1, or nothing done, while the service or operation is missing. */
QOR_API void QorL2resPrintBlackBox(u32 blackBoxLevel, const char *text);
QOR_API u32 QorL2resRegDbgModule(const char *name, u32 *id);
QOR_API void QorL2resVtblPrintDbgLog(u32 id, u32 debugLevel, const char *text);
QOR_API u32 QorL2resRegBlackBoxModule(const char *name, const char *description, u32 *id);
QOR_API void QorL2resVtblPrintBlackBox(u32 id, u32 blackBoxLevel, const char *text);

/* Would any message be seen? Asked once by code that is about to write several lines. */
static inline bool LogIsAttached(void)
{
    return g_qorL2resFuncVtbl[L2RES_VTBL_DEBUG_LOG] != 0 ||
           g_qorL2resFuncVtbl[L2RES_VTBL_BLACK_BOX] != 0;
}

QOR_END_C

#endif
