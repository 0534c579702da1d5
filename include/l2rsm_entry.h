/*
 * The module's entry point, and the entry points of the platform's hot-patch mechanism.
 *
 * The host loads libqor_l2rsm.so and calls QorL2ResInit with phase 1, 2 and 3 from one thread.
 *   phase 1  builds everything clients need: memory partition, service tables, debug log and
 *            black box, component registration, alarm descriptions, arbitration tables;
 *   phase 2  starts the worker task "QOR_L2RSM" (periodic release of waiters, alarm probe);
 *   phase 3  re-applies the reserved hot-patch hooks.
 * Phase 1 must have returned before any client calls an operation. What ran before is not checked:
 * a process asks for phases 1 and 2 once, or again when one failed.
 *
 * There is no shut-down:
 *   dlclose    leaves the module where it is, worker and all; a later dlopen finds it as it was.
 *   exit       (or the return from main) stops nothing. The module has no exit handlers and no
 *              destructors: until the process is gone its worker calls back and its operations may
 *              be called, also while those of others run. A callback, hook or service must not use
 *              what they take away.
 *   fork       In the child only the forking thread lives on: no worker, no timers, and mutexes that
 *              another thread held stay locked. After phase 1 the child must not call the module; it
 *              may exec or _exit.
 *   signals    No operation of the module may be called from a signal handler. One may
 *              run on the module's threads: the wait that it interrupts is repeated.
 *
 * Periods are counted in ticks that the worker has handled. A worker kept from its work, by a callback
 * or by the machine, is late by as much, and then handles what was posted meanwhile at once.
 */
#ifndef L2RSM_ENTRY_H
#define L2RSM_ENTRY_H

#include "qor_types.h"

QOR_BEGIN_C

enum { L2RES_PHASE_INIT = 1, L2RES_PHASE_START = 2, L2RES_PHASE_PATCH = 3 };

/*
 * firstArg, secondArg: the host's own values, stored and never interpreted.
 * Returns 0, or
 *   phase 1: the memory set-up's code, or 1 when an arbitration table could not be created
 *            (every other failure of phase 1 is logged and start-up goes on);
 *   phase 2: the host's code when the task could not be created.
 * Any other phase does nothing and returns 0.
 */
QOR_API u32 QorL2ResInit(u32 firstArg, u32 secondArg, u32 phase);

/* Operation codes of the synchronisation hook. */
enum { L2RES_PATCH_ACTIVATE = 0, L2RES_PATCH_DEACTIVATE = 1 };

/* Where a patch information record names the library it is for (zero-terminated). */
enum { L2RES_PATCH_LIBRARY_OFFSET = 397 };

/*
 * Called by the patch mechanism, on any thread, when a patch is activated or deactivated.
 * *handled becomes 1 when patchInfo names "libqor_l2rsm.so", else 0; it must be writable.
 * Returns 1 for an unknown operCode of a request for this library, else 0.
 */
QOR_API u32 libqor_l2rsm_PAT_C2HSyncHookFunc(u32 operCode, u64 unused, const void *patchInfo,
                                             u32 *handled);

/*
 * Reserved for patches: each writes its own line, the two without a number first call their
 * numbered ones. Called through their symbols, so that a replaced one takes effect.
 */
QOR_API void libqor_l2rsm_ResPatchC2hActivefunc01(void);
QOR_API void libqor_l2rsm_ResPatchC2hActivefunc02(void);
QOR_API void libqor_l2rsm_ResPatchC2hActivefunc(void);
QOR_API void libqor_l2rsm_ResPatchC2hDeactivefunc01(void);
QOR_API void libqor_l2rsm_ResPatchC2hDeactivefunc02(void);
QOR_API void libqor_l2rsm_ResPatchC2hDeactivefunc(void);

QOR_END_C

#endif
