/*
 * Relative timers: one thread, a list of running timers ordered by deadline.
 *
 * A timer lives in a slot: free, waiting (in the list), or running (its callback is being called;
 * not in the list). Only the timer thread moves a slot to running and away from it, so a stop that
 * meets a running timer only marks it. A stop waits while the timer's callback runs, whichever timer
 * calls it, unless it is on the timer thread itself. Then it looks at the handle again: the callback may
 * have started another timer with it. Callbacks are called with no lock held.
 */
#include <cerrno>
#include <ctime>
#include <pthread.h>

#include "zir_timer.h"

namespace {

constexpr u32 MAX_TIMERS = 1024;
constexpr u64 NS_PER_MS = 1000000;
constexpr u64 NS_PER_S = 1000000000;

enum TimerState { FREE, WAITING, RUNNING };

struct Timer {
    Timer *next; /* in the list, or in the list of free slots */
    u64 deadlineNs;
    u64 periodNs;
    u64 startNumber; /* orders equal deadlines */
    ZIR_TimerCallback callback;
    u32 mode;
    u32 generation; /* of the handle; another one for each start */
    TimerState state;
    bool stopped; /* while running: do not go back to waiting */
};

/* Guarded by g_mutex, all of it. Plain records: the thread outlives the process's destructors. */
pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_changed = PTHREAD_COND_INITIALIZER;  /* the first deadline may be another */
pthread_cond_t g_returned = PTHREAD_COND_INITIALIZER; /* a callback has returned */
Timer g_timers[MAX_TIMERS];
u32 g_usedSlots;     /* slots from here on have never been used */
Timer *g_freeTimers; /* slots used before */
Timer *g_firstTimer; /* waiting, ordered by deadline and start number */
u64 g_startCount;
ZIR_TimerCallback g_callback; /* that runs now, or null */
u64 g_callbackCount;          /* callbacks begun */
u64 g_callbacksReturned;
u32 g_speed = 1;
bool g_threadRuns;
pthread_t g_thread;

struct TimerLock {
    TimerLock()
    {
        (void)pthread_mutex_lock(&g_mutex);
    }
    ~TimerLock()
    {
        (void)pthread_mutex_unlock(&g_mutex);
    }
    TimerLock(const TimerLock &) = delete;
    TimerLock &operator=(const TimerLock &) = delete;
};

u64 nowNs()
{
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<u64>(now.tv_sec) * NS_PER_S + static_cast<u64>(now.tv_nsec);
}

bool isBefore(const Timer *a, const Timer *b)
{
    return a->deadlineNs != b->deadlineNs ? a->deadlineNs < b->deadlineNs
                                          : a->startNumber < b->startNumber;
}

void insertWaiting(Timer *timer)
{
    Timer **link = &g_firstTimer;
    while (*link != nullptr && isBefore(*link, timer)) {
        link = &(*link)->next;
    }
    timer->next = *link;
    *link = timer;
    timer->state = WAITING;
}

void removeWaiting(const Timer *timer)
{
    Timer **link = &g_firstTimer;
    while (*link != timer) {
        link = &(*link)->next;
    }
    *link = timer->next;
}

Timer *takeSlot()
{
    Timer *timer = g_freeTimers;
    if (timer != nullptr) {
        g_freeTimers = timer->next;
    } else if (g_usedSlots < MAX_TIMERS) {
        timer = &g_timers[g_usedSlots++];
    }
    return timer;
}

void giveSlotBack(Timer *timer)
{
    timer->state = FREE;
    timer->next = g_freeTimers;
    g_freeTimers = timer;
}

/* Calls the first timer's callback, the mutex released meanwhile, and puts the timer in its place. */
void runFirst()
{
    Timer *timer = g_firstTimer;
    g_firstTimer = timer->next;
    timer->state = RUNNING;
    timer->stopped = false;
    const ZIR_TimerCallback callback = timer->callback;
    g_callback = callback;
    ++g_callbackCount;

    (void)pthread_mutex_unlock(&g_mutex);
    callback();
    (void)pthread_mutex_lock(&g_mutex);

    g_callback = nullptr;
    if (timer->stopped || timer->mode == ZIR_TIMER_ONCE) {
        giveSlotBack(timer);
    } else {
        /* From the last deadline, not from now: a late callback must not shift the ones after it. */
        timer->deadlineNs += timer->periodNs;
        insertWaiting(timer);
    }
    g_callbacksReturned = g_callbackCount;
    (void)pthread_cond_broadcast(&g_returned);
}

void *runTimers(void *)
{
    (void)pthread_setname_np(pthread_self(), "qor-timer");
    const TimerLock lock;
    for (;;) {
        if (g_firstTimer == nullptr) {
            (void)pthread_cond_wait(&g_changed, &g_mutex);
        } else if (g_firstTimer->deadlineNs <= nowNs()) {
            runFirst();
        } else {
            const u64 deadline = g_firstTimer->deadlineNs;
            const timespec until = {static_cast<time_t>(deadline / NS_PER_S),
                                    static_cast<long>(deadline % NS_PER_S)};
            /* Whatever ends the wait, the list is looked at afresh. */
            (void)pthread_cond_clockwait(&g_changed, &g_mutex, CLOCK_MONOTONIC, &until);
        }
    }
}

bool ensureThread()
{
    if (!g_threadRuns && pthread_create(&g_thread, nullptr, runTimers, nullptr) == 0) {
        (void)pthread_detach(g_thread);
        g_threadRuns = true;
    }
    return g_threadRuns;
}

ZIR_TimerHandle handleOf(const Timer *timer)
{
    return static_cast<u64>(timer->generation) << 32 | static_cast<u64>(timer - g_timers + 1);
}

/* The timer that a handle speaks of, or null when it has ended. */
Timer *findTimer(ZIR_TimerHandle handle)
{
    const u64 index = (handle & 0xFFFFFFFF) - 1;
    if (index >= g_usedSlots) {
        return nullptr;
    }
    Timer *timer = &g_timers[index];
    return timer->state != FREE && handleOf(timer) == handle ? timer : nullptr;
}

/* Ends a timer, or sees to it that it ends when its callback returns. */
void endTimer(Timer *timer)
{
    if (timer->state == WAITING) {
        removeWaiting(timer);
        giveSlotBack(timer);
    } else {
        timer->stopped = true;
    }
}

/* Of the callback that runs now. */
void awaitReturn()
{
    const u64 running = g_callbackCount;
    while (g_callbacksReturned < running) {
        (void)pthread_cond_wait(&g_returned, &g_mutex);
    }
}

} // namespace

u32 ZIR_ReltmrCbkStart(ZIR_TimerHandle *handle, u32 memHandle, u32 periodMs, u32 parameter,
                       void *context, u32 mode, ZIR_TimerCallback callback)
{
    (void)memHandle;
    (void)parameter;
    (void)context;
    if (handle == nullptr || callback == nullptr || periodMs == 0 || mode > ZIR_TIMER_REPEAT) {
        return QOR_FAIL;
    }
    const u64 start = nowNs();
    const TimerLock lock;
    Timer *timer = ensureThread() ? takeSlot() : nullptr;
    if (timer == nullptr) {
        return QOR_FAIL;
    }
    timer->periodNs = periodMs * NS_PER_MS / g_speed;
    if (timer->periodNs == 0) {
        timer->periodNs = 1;
    }
    timer->deadlineNs = start + timer->periodNs;
    timer->startNumber = ++g_startCount;
    timer->callback = callback;
    timer->mode = mode;
    ++timer->generation;

    /* Under the mutex: the callback may already look at the handle. */
    *handle = handleOf(timer);
    insertWaiting(timer);
    if (g_firstTimer == timer) {
        (void)pthread_cond_signal(&g_changed);
    }
    return QOR_OK;
}

u32 ZIR_ReltmrStop(ZIR_TimerHandle *handle)
{
    if (handle == nullptr) {
        return QOR_FAIL;
    }
    const TimerLock lock;
    const bool waits = pthread_equal(pthread_self(), g_thread) == 0;
    u32 ret = QOR_FAIL;
    while (Timer *timer = findTimer(*handle)) {
        ret = QOR_OK;
        const ZIR_TimerHandle stopped = *handle;
        const ZIR_TimerCallback callback = timer->callback;
        endTimer(timer);
        if (waits && callback == g_callback) {
            awaitReturn();
        }
        if (*handle == stopped) {
            *handle = 0;
        }
    }
    return ret;
}

void ZIR_TimerSetSpeed(u32 factor)
{
    const TimerLock lock;
    g_speed = factor != 0 ? factor : 1;
}
