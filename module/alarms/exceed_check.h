/*
 * When a table-full alarm is raised, sent again and cleared: the worker's side.
 *
 * States of an alarm type: unregistered, clear, raised (flags of L2ResAlarmEntry). The exceed check
 * moves clear to raised, the probe raised to clear. A clear that overlaps a raise on another thread
 * leaves the type raised, so that no alarm stays on at the alarm service with nobody left to clear
 * it, and none stays off for good: the next check or re-send raises it, or the next probe clears it
 * once more. A probe whose counts a raise of another thread has overtaken sends no clear and tells no
 * service; it counts as a cycle all the same.
 */
#ifndef ALARMS_EXCEED_CHECK_H
#define ALARMS_EXCEED_CHECK_H

#include "l2rsm_alarms.h"

QOR_BEGIN_C

/* One probe cycle, every 5000 ms on the worker: re-send, then clear. Does nothing unless raised. */
QOR_API void QorL2ResProbeProc(u32 alarmType);

/* The two steps of a cycle, for components that probe on their own; above 5 nothing is done. */

/* Counts a cycle and sends the raise again on the 120th. */
QOR_API void QorL2ResAlarmResend(u32 alarmType, u32 threshold);

/*
 * Clears a raised alarm when used is below total, and tells the table's services when idle > 0. The
 * counts must be newer than the last raise: nothing tells how old they are.
 */
QOR_API void QorL2ResProbe(u32 alarmType, u32 total, u32 used, u32 idle);

QOR_END_C

#endif
