/*
 * Mutual exclusion between threads. Recursive: the thread that holds a mutex may lock it again and
 * unlocks it as often. A zeroed mutex is a valid unlocked one.
 */
#ifndef ZIR_MUTEX_H
#define ZIR_MUTEX_H

#include "qor_thread_safety.h"
#include "qor_types.h"

QOR_BEGIN_C

typedef struct QOR_CAPABILITY("mutex") {
    u64 opaque[8];
} ZIR_Mutex;

/* attributes: null. 0, or 1 for a null mutex. */
QOR_API u32 ZIR_MutexInit(ZIR_Mutex *mutex, const void *attributes);
QOR_API void ZIR_MutexLock(ZIR_Mutex *mutex) QOR_ACQUIRE(*mutex);
QOR_API void ZIR_MutexUnlock(ZIR_Mutex *mutex) QOR_RELEASE(*mutex);

QOR_END_C

#endif
