/*
 * Relative timers with a callback.
 *
 * All callbacks run on one timer thread, one at a time, in the order of their deadlines (equal
 * deadlines: in start order). Deadlines are absolute on the monotonic clock, start + n * period, so
 * a late callback does not shift the ones after it. A callback may start and stop timers, itself
 * included.
 */
#ifndef ZIR_TIMER_H
#define ZIR_TIMER_H

#include "qor_types.h"

QOR_BEGIN_C

typedef u64 ZIR_TimerHandle;
typedef void (*ZIR_TimerCallback)(void);

enum { ZIR_TIMER_ONCE = 0, ZIR_TIMER_REPEAT = 1 };

/*
 * Starts a timer of `periodMs` milliseconds (at least 1). memHandle, parameter and context mean
 * nothing to it. 0 with *handle set; 1 for a null handle or callback, period 0, an unknown mode, or
 * when no timer is left.
 */
QOR_API u32 ZIR_ReltmrCbkStart(ZIR_TimerHandle *handle, u32 memHandle, u32 periodMs, u32 parameter,
                               void *context, u32 mode, ZIR_TimerCallback callback);

/*
 * Stops a timer and sets *handle to 0. When it returns, the callback is not running and will not run
 * again, whoever else stops the timer meanwhile, and also when the callback started itself again with
 * this very *handle; called from that very callback it does not wait. 0, or 1 for an unknown handle.
 *
 * *handle is read again after a wait: the variable must outlive the callback. The caller must not hold
 * what the callback locks.
 */
QOR_API u32 ZIR_ReltmrStop(ZIR_TimerHandle *handle);

/*
 * Lets time pass `factor` times as fast for every timer started afterwards (its real period is
 * periodMs / factor). 1 at first; 0 counts as 1. For simulations of long spans.
 */
QOR_API void ZIR_TimerSetSpeed(u32 factor);

QOR_END_C

#endif
