/*
 * Timers under the test's own clock: the platform's looks at the monotonic clock and its waits are
 * interposed. Waits return at once, as spurious wake-ups, and the clock stands still until a test
 * moves it; so orders and counts are exact whatever the machine does meanwhile.
 */
#include <atomic>
#include <ctime>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform_support.h"
#include "zir_timer.h"

namespace {

std::atomic<u64> g_nowMs{1000};
thread_local bool t_isStopper;
std::atomic<u32> g_stoppers; /* that wait for a callback, or have returned without */

void countStopper()
{
    g_stoppers += t_isStopper;
    t_isStopper = false;
}

int yieldUnlocked(pthread_mutex_t *mutex)
{
    countStopper();
    (void)pthread_mutex_unlock(mutex);
    (void)sched_yield();
    (void)pthread_mutex_lock(mutex);
    return 0;
}

} // namespace

extern "C" {

QOR_API int clock_gettime(clockid_t clock, timespec *time) noexcept
{
    if (clock != CLOCK_MONOTONIC) {
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    }
    const u64 now = g_nowMs;
    *time = {static_cast<time_t>(now / 1000), static_cast<long>(now % 1000 * 1000000)};
    return 0;
}

QOR_API int pthread_cond_wait(pthread_cond_t *, pthread_mutex_t *mutex)
{
    return yieldUnlocked(mutex);
}

QOR_API int pthread_cond_clockwait(pthread_cond_t *, pthread_mutex_t *mutex, clockid_t,
                                   const timespec *)
{
    return yieldUnlocked(mutex);
}

} // extern "C"

namespace {

std::string g_calls; /* one letter a callback; written by the timer thread, then published */
std::atomic<size_t> g_callCount;
ZIR_TimerHandle g_timer[3];

template <char LETTER> void record()
{
    g_calls += LETTER;
    ++g_callCount;
}

u32 start(ZIR_TimerHandle *handle, u32 periodMs, ZIR_TimerCallback callback,
          u32 mode = ZIR_TIMER_REPEAT)
{
    return ZIR_ReltmrCbkStart(handle, 1, periodMs, 0xFFFFFF02, nullptr, mode, callback);
}

void awaitCalls(size_t count)
{
    while (g_callCount < count) {
        (void)sched_yield();
    }
}

/* Moves the clock and returns all calls so far, once there are as many as expected. */
std::string callsAt(u64 ms, size_t expected)
{
    g_nowMs = 1000 + ms;
    awaitCalls(expected);
    return g_calls;
}

TEST(TimerTest, CallsInOrderOfDeadlinesWithoutLossOrDrift)
{
    ZIR_TimerHandle once;
    ASSERT_EQ(start(&g_timer[0], 10, record<'A'>), 0U);
    ASSERT_EQ(start(&g_timer[1], 10, record<'B'>), 0U);
    ASSERT_EQ(start(&once, 5, record<'C'>, ZIR_TIMER_ONCE), 0U);
    ASSERT_EQ(start(&g_timer[2], 25, record<'D'>), 0U);
    EXPECT_EQ(callsAt(9, 1), "C");
    /* Far too late for each of them: every tick still comes, each in its place. */
    EXPECT_EQ(callsAt(37, 8), "CABABDAB");
    EXPECT_EQ(callsAt(40, 10), "CABABDABAB") << "the deadlines did not shift";
    EXPECT_EQ(ZIR_ReltmrStop(&g_timer[0]), 0U);
    EXPECT_EQ(callsAt(60, 13), "CABABDABABBDB");
    EXPECT_EQ(ZIR_ReltmrStop(&once), 1U) << "it has ended";
}

void stopItselfAndTheNext()
{
    EXPECT_EQ(ZIR_ReltmrStop(&g_timer[0]), 0U);
    EXPECT_EQ(ZIR_ReltmrStop(&g_timer[1]), 0U);
    EXPECT_EQ(start(&g_timer[0], 5, record<'N'>), 0U);
    record<'S'>(); /* last: it lets the test move the clock */
}

TEST(TimerTest, CallbacksStopAndStartTimers)
{
    ASSERT_EQ(start(&g_timer[0], 10, stopItselfAndTheNext), 0U);
    const ZIR_TimerHandle first = g_timer[0];
    ASSERT_EQ(start(&g_timer[1], 10, record<'X'>), 0U);
    ASSERT_EQ(start(&g_timer[2], 20, record<'Z'>), 0U);
    EXPECT_EQ(callsAt(10, 1), "S");
    EXPECT_EQ(callsAt(20, 4), "SNZN") << "started at 10, a period of 5, after Z at 20";
    EXPECT_EQ(g_timer[1], 0U);
    ZIR_TimerHandle stale = first;
    EXPECT_EQ(ZIR_ReltmrStop(&stale), 1U);
    EXPECT_EQ(callsAt(25, 5), "SNZNN");
}

std::atomic<bool> g_callbackEnded;
u32 g_mode;

void endWhenStopped(u32 stoppers)
{
    ++g_callCount;
    while (g_stoppers < stoppers) {
        (void)sched_yield();
    }
}

template <u32 STOPPERS> void runUntilStopped()
{
    endWhenStopped(STOPPERS);
    g_callbackEnded = true;
}

void restartBeforeTheStop()
{
    EXPECT_EQ(ZIR_ReltmrStop(&g_timer[0]), 0U); /* or a repeated one would go on under no handle */
    EXPECT_EQ(start(&g_timer[0], 10, restartBeforeTheStop, g_mode), 0U);
    runUntilStopped<1>();
}

void restartBesideTheStop()
{
    endWhenStopped(1);
    EXPECT_EQ(start(&g_timer[0], 10, restartBesideTheStop, g_mode), 0U);
    g_callbackEnded = true;
}

void stopAndExpectTheEnd(ZIR_TimerHandle *handle)
{
    t_isStopper = true;
    EXPECT_EQ(ZIR_ReltmrStop(handle), 0U);
    countStopper();
    EXPECT_TRUE(g_callbackEnded) << "the callback ran while the stop returned";
    EXPECT_EQ(*handle, 0U);
}

TEST(TimerTest, StopWaitsForTheRunningCallbackAndEndsWhatItStarts)
{
    for (u32 mode : {ZIR_TIMER_ONCE, ZIR_TIMER_REPEAT}) {
        for (const auto &[callback, stoppers] : {std::pair{&runUntilStopped<1>, 1U},
                                                 {runUntilStopped<2>, 2U},
                                                 {restartBeforeTheStop, 1U},
                                                 {restartBesideTheStop, 1U}}) {
            g_mode = mode;
            g_callbackEnded = false;
            g_callCount = g_stoppers = 0;
            ASSERT_EQ(start(&g_timer[0], 10, callback, mode), 0U);
            ZIR_TimerHandle handles[] = {g_timer[0], g_timer[0]};
            g_nowMs += 10;
            awaitCalls(1);
            onThreads(stoppers, [&, count = stoppers](u32 self) {
                stopAndExpectTheEnd(count == 1 ? &g_timer[0] : &handles[self]);
            });
            /* All that was due before another timer has been called when that one is. */
            ASSERT_EQ(start(&g_timer[1], 100, record<'Z'>, ZIR_TIMER_ONCE), 0U);
            g_calls.clear();
            g_stoppers = 1;
            g_nowMs += 100;
            awaitCalls(2);
            EXPECT_EQ(g_calls, "Z");
            EXPECT_EQ(g_callCount, 2U) << "the callback ran again";
        }
    }
}

TEST(TimerTest, RefusesBadArgumentsAndStaleHandles)
{
    ZIR_TimerHandle handle = 0;
    EXPECT_EQ(start(nullptr, 1, record<'A'>), 1U);
    EXPECT_EQ(start(&handle, 0, record<'A'>), 1U);
    EXPECT_EQ(start(&handle, 1, nullptr), 1U);
    EXPECT_EQ(start(&handle, 1, record<'A'>, 2), 1U);
    EXPECT_EQ(ZIR_ReltmrStop(nullptr), 1U);
    for (ZIR_TimerHandle unknown : {0ULL, 1ULL, 5000ULL, ~0ULL}) {
        EXPECT_EQ(ZIR_ReltmrStop(&unknown), 1U);
    }
    /* All timers there are; then a new timer in an old one's place. */
    ZIR_TimerHandle handles[1025];
    u32 started = 0;
    while (start(&handles[started], 1000000, record<'A'>) == 0) {
        ASSERT_LT(++started, 1025U);
    }
    EXPECT_EQ(started, 1024U);
    ZIR_TimerHandle stale = handles[7];
    EXPECT_EQ(ZIR_ReltmrStop(&handles[7]), 0U);
    EXPECT_EQ(start(&handles[7], 3, record<'R'>), 0U);
    EXPECT_EQ(ZIR_ReltmrStop(&stale), 1U);
    EXPECT_EQ(callsAt(3, 1), "R");
}

TEST(TimerTest, SpeedDividesThePeriodsOfLaterStarts)
{
    ASSERT_EQ(start(&g_timer[0], 1000, record<'A'>), 0U);
    ZIR_TimerSetSpeed(100);
    ASSERT_EQ(start(&g_timer[1], 1050, record<'B'>), 0U);
    ZIR_TimerSetSpeed(0);
    ASSERT_EQ(start(&g_timer[2], 45, record<'C'>), 0U);
    EXPECT_EQ(callsAt(52, 5), "BBBBC");
    EXPECT_EQ(callsAt(53, 6), "BBBBCB");
}

/* Starts and stops from several threads, against each other and against the callbacks. */
TEST(TimerTest, ServesManyThreads)
{
    onThreads(3, [](u32) {
        for (u32 i = 0; i < 300; ++i) {
            ZIR_TimerHandle handle;
            EXPECT_EQ(start(&handle, 1 + i % 3, record<'T'>), 0U);
            ++g_nowMs;
            EXPECT_EQ(ZIR_ReltmrStop(&handle), 0U);
            EXPECT_EQ(handle, 0U);
        }
    });
    EXPECT_EQ(g_calls.size(), g_callCount) << "no callback runs any more";
}

} // namespace
