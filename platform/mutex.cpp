/* Recursive mutexes: the system's plain mutex, with the owner and the depth beside it. */
#include <atomic>
#include <new>
#include <pthread.h>

#include "zir_mutex.h"

namespace {

/*
 * The layout inside ZIR_Mutex. All zero is PTHREAD_MUTEX_INITIALIZER, no owner and depth 0.
 * `owner` is read by threads that do not hold the mutex, but only compared with their own id: they
 * can only ever see it equal when they stored it themselves.
 */
struct RecursiveMutex {
    pthread_mutex_t mutex;
    std::atomic<const void *> owner;
    u64 depth; /* locks beyond the first; only the owner touches it */
};
static_assert(sizeof(RecursiveMutex) <= sizeof(ZIR_Mutex));
static_assert(alignof(RecursiveMutex) <= alignof(ZIR_Mutex));

/* Identifies the running thread by the address of its own copy. */
__attribute__((tls_model("initial-exec"))) thread_local char t_self;

RecursiveMutex *layout(ZIR_Mutex *mutex)
{
    return reinterpret_cast<RecursiveMutex *>(mutex->opaque);
}

bool isOwner(const RecursiveMutex *mutex)
{
    return mutex->owner.load(std::memory_order_relaxed) == &t_self;
}

} // namespace

u32 ZIR_MutexInit(ZIR_Mutex *mutex, const void *attributes)
{
    (void)attributes;
    if (mutex == nullptr) {
        return QOR_FAIL;
    }
    auto *created = new (mutex->opaque) RecursiveMutex{};
    /* Spins a little before it sleeps: what the callers guard is shorter than a sleep. */
    created->mutex = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;
    return QOR_OK;
}

void ZIR_MutexLock(ZIR_Mutex *mutex) QOR_NO_THREAD_SAFETY
{
    if (mutex == nullptr) {
        return;
    }
    RecursiveMutex *target = layout(mutex);
    if (isOwner(target)) {
        ++target->depth;
        return;
    }
    (void)pthread_mutex_lock(&target->mutex);
    target->owner.store(&t_self, std::memory_order_relaxed);
}

void ZIR_MutexUnlock(ZIR_Mutex *mutex) QOR_NO_THREAD_SAFETY
{
    if (mutex == nullptr || !isOwner(layout(mutex))) {
        return;
    }
    RecursiveMutex *target = layout(mutex);
    if (target->depth > 0) {
        --target->depth;
        return;
    }
    target->owner.store(nullptr, std::memory_order_relaxed);
    (void)pthread_mutex_unlock(&target->mutex);
}
