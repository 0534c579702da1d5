#include <cerrno>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "word_mutex.h"

namespace {

constexpr u32 SPINS = 100; /* reads of the word; some microseconds in all */

static_assert(sizeof(std::atomic<u32>) == sizeof(u32), "the futex is the word itself");

void pause()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

bool spinFor(WordMutex *mutex)
{
    for (u32 spin = 0; spin < SPINS; ++spin) {
        if (mutex->state.load(std::memory_order_relaxed) == WORD_FREE && tryLock(mutex)) {
            return true;
        }
        pause();
    }
    return false;
}

} // namespace

/*
 * A thread that had to sleep marks the mutex as having sleepers even when it was the last one: it
 * cannot know, and a wake-up too many is harmless where one too few is not.
 */
void lockSlowly(WordMutex *mutex)
{
    if (spinFor(mutex)) {
        return;
    }
    while (mutex->state.exchange(WORD_HELD_WITH_SLEEPERS, std::memory_order_acquire) != WORD_FREE) {
        (void)syscall(SYS_futex, &mutex->state, FUTEX_WAIT_PRIVATE, WORD_HELD_WITH_SLEEPERS,
                      nullptr, nullptr, 0);
    }
}

void wakeSleeper(WordMutex *mutex)
{
    wakeSleepers(&mutex->state, 1);
}

bool sleepUntil(std::atomic<u32> *word, u32 seen, const timespec *deadline)
{
    return syscall(SYS_futex, word, FUTEX_WAIT_BITSET_PRIVATE, seen, deadline, nullptr,
                   FUTEX_BITSET_MATCH_ANY) == 0 ||
           errno != ETIMEDOUT;
}

void wakeSleepers(std::atomic<u32> *word, int count)
{
    (void)syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
}
