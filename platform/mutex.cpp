/*
 * Recursive mutexes: one atomic word that is claimed with a compare-and-swap, and a futex on the
 * same word for those who have to sleep. What the callers guard is mostly shorter than going to
 * sleep and being woken, so a thread spins a little first.
 */
#include <atomic>
#include <linux/futex.h>
#include <new>
#include <sys/syscall.h>
#include <unistd.h>

#include "zir_mutex.h"

namespace {

constexpr u32 SPINS = 100; /* reads of the word; some microseconds in all */

enum : u32 { FREE = 0, HELD = 1, HELD_WITH_SLEEPERS = 2 };

/*
 * The layout inside ZIR_Mutex; all zero is free. `owner` is read by threads that do not hold the
 * mutex, but only compared with their own id: they can only see it equal if they stored it.
 */
struct RecursiveMutex {
    std::atomic<u32> state;
    u32 depth; /* locks beyond the first; only the owner touches it */
    std::atomic<const void *> owner;
};
static_assert(sizeof(RecursiveMutex) <= sizeof(ZIR_Mutex));
static_assert(alignof(RecursiveMutex) <= alignof(ZIR_Mutex));
static_assert(sizeof(std::atomic<u32>) == sizeof(u32), "the futex is the word itself");

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

bool claim(RecursiveMutex *mutex)
{
    u32 expected = FREE;
    return mutex->state.compare_exchange_strong(expected, HELD, std::memory_order_acquire,
                                                std::memory_order_relaxed);
}

void pause()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

bool spinFor(RecursiveMutex *mutex)
{
    for (u32 spin = 0; spin < SPINS; ++spin) {
        if (mutex->state.load(std::memory_order_relaxed) == FREE && claim(mutex)) {
            return true;
        }
        pause();
    }
    return false;
}

/*
 * A thread that comes from here marks the mutex as having sleepers even when it was the last one:
 * it cannot know, and a wake-up too many is harmless where one too few is not.
 */
void sleepFor(RecursiveMutex *mutex)
{
    while (mutex->state.exchange(HELD_WITH_SLEEPERS, std::memory_order_acquire) != FREE) {
        (void)syscall(SYS_futex, &mutex->state, FUTEX_WAIT_PRIVATE, HELD_WITH_SLEEPERS, nullptr,
                      nullptr, 0);
    }
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
    if (!claim(target)) {
        if (isOwner(target)) {
            ++target->depth;
            return;
        }
        if (!spinFor(target)) {
            sleepFor(target);
        }
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
    if (target->state.exchange(FREE, std::memory_order_release) == HELD_WITH_SLEEPERS) {
        (void)syscall(SYS_futex, &target->state, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
}
