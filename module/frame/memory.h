/*
 * The module's memory: a handle of its own with the platform and a partition that the memory
 * manager service assigns. Everything allocated at run time comes from here.
 *
 * Both globals are written in phase 1 and read-only afterwards, so allocation takes no lock of ours.
 */
#ifndef FRAME_MEMORY_H
#define FRAME_MEMORY_H

#include "qor_types.h"

QOR_BEGIN_C

QOR_API extern u32 g_qorL2ResMemHandle; /* 0xFFFFFFFF: no handle */
QOR_API extern u8 g_qorL2ResMemPtNo;    /* 0xFF: no partition */

/* Obtains the handle: 0, or the platform's code. */
QOR_API u32 QorL2ResInitMemHandle(void);

/* Obtains handle and partition: 0, or a non-zero code, which fails start-up. */
QOR_API u32 QorL2ResMemmInit(void);

/* size in bytes; not cleared. Null before a successful start-up or when memory is short. */
QOR_API void *QorL2ResMemAlloc(u64 size);

/* 0 on success; 1 for null or before start-up. */
QOR_API u32 QorL2ResMemFree(void *block);

/* For the creation of hash tables. */
QOR_API u8 QorL2ResGetMemPtNo(void);

QOR_END_C

#endif
