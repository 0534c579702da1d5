/*
 * A mutex in one word, not recursive; all zero is free. It is claimed with a compare-and-swap, and a
 * futex on the same word is for those who have to sleep. What the callers guard is mostly shorter
 * than going to sleep and being woken, so a thread spins a little first.
 *
 * The short ways are inline: a caller that comes along once in a while finds the code of a function
 * elsewhere out of the cache, which costs it more than the lock.
 */
#ifndef WORD_MUTEX_H
#define WORD_MUTEX_H

#include <atomic>
#include <ctime>

#include "qor_types.h"

struct WordMutex {
    std::atomic<u32> state;
};

enum : u32 { WORD_FREE = 0, WORD_HELD = 1, WORD_HELD_WITH_SLEEPERS = 2 };

/* What tryLock and unlock leave over: somebody holds the mutex; somebody sleeps for it. */
void lockSlowly(WordMutex *mutex);
void wakeSleeper(WordMutex *mutex);

inline bool tryLock(WordMutex *mutex)
{
    u32 expected = WORD_FREE;
    return mutex->state.compare_exchange_strong(expected, WORD_HELD, std::memory_order_acquire,
                                                std::memory_order_relaxed);
}

inline void lock(WordMutex *mutex)
{
    if (!tryLock(mutex)) {
        lockSlowly(mutex);
    }
}

inline void unlock(WordMutex *mutex)
{
    if (mutex->state.exchange(WORD_FREE, std::memory_order_release) == WORD_HELD_WITH_SLEEPERS) {
        wakeSleeper(mutex);
    }
}

/* Sleeps while the word is `seen`, up to a moment of CLOCK_MONOTONIC. False: the moment has come. */
bool sleepUntil(std::atomic<u32> *word, u32 seen, const timespec *deadline);

void wakeSleepers(std::atomic<u32> *word, int count);

#endif
