/* Recursive mutexes: a mutex in a word, and who holds it how often. */
#include <new>

#include "word_mutex.h"
#include "zir_mutex.h"

namespace {

/*
 * The layout inside ZIR_Mutex; all zero is free. `owner` is read by threads that do not hold the
 * mutex, but only compared with their own id: they can only see it equal if they stored it.
 */
struct RecursiveMutex {
    WordMutex word;
    u32 depth; /* locks beyond the first; only the owner touches it */
    std::atomic<const void *> owner;
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
    (void)new (mutex->opaque) RecursiveMutex{};
    return QOR_OK;
}

void ZIR_MutexLock(ZIR_Mutex *mutex) QOR_NO_THREAD_SAFETY
{
    if (mutex == nullptr) {
        return;
    }
    RecursiveMutex *target = layout(mutex);
    if (!tryLock(&target->word)) {
        if (isOwner(target)) {
            ++target->depth;
            return;
        }
        lockSlowly(&target->word);
    }
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
    unlock(&target->word);
}
