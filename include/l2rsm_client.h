/*
 * The entry point of a client component: a shared object whose service uses the module.
 *
 * Whoever loads the component calls QorClientStart once, after the module's phase 3. The component
 * registers its callbacks there, and may take tokens at once. It stays loaded for the life of the
 * process: the module has no way to take a callback back.
 *
 * Threads: the start function runs on the loader's thread, callbacks where l2rsm_registry.h says.
 */
#ifndef L2RSM_CLIENT_H
#define L2RSM_CLIENT_H

#include "l2rsm_component.h"
#include "qor_types.h"

QOR_BEGIN_C

/*
 * Defined by the component. table: the module's operations, valid and unchanged for the life of the
 * process; a position is null where the module has no such operation. Returns 0 when the component
 * has started; the loader reports anything else and does not call it again.
 */
QOR_API u32 QorClientStart(const L2RsmFunVtbl *table);

/* The same for a loader: the symbol and its type. */
#define L2RSM_CLIENT_START "QorClientStart"
typedef u32 (*L2RsmClientStart)(const L2RsmFunVtbl *table);

QOR_END_C

#endif
