/*
 * Table-full alarms.
 *
 * A table is full when its resource count hook (l2rsm_registry.h) reports used equal to total. The
 * exceed check raises the alarm, on the caller's thread; the worker probes raised alarms every
 * 5000 ms, sends a raised one again every 120 probes, clears it when used falls below total and
 * tells the services registered for the table (event 2). Alarm types have the numbers of the count
 * hooks. Threads: any, concurrently; hooks and alarm services are called with no lock of the alarms'
 * own held (l2rsm_registry.h says which other may be).
 */
#ifndef L2RSM_ALARMS_H
#define L2RSM_ALARMS_H

#include "qor_types.h"

QOR_BEGIN_C

enum {
    L2RES_ALARM_ICIB_PP = 0,
    L2RES_ALARM_ECIB = 1,
    L2RES_ALARM_ECIB_EXT = 2,
    L2RES_ALARM_LEM = 4,
    L2RES_ALARM_SEM = 5,
    L2RES_ALARM_COUNT = 6 /* 3 has no alarm */
};

enum { L2RES_ALARM_TEXT_SIZE = 256 };

typedef struct {
    u32 notifyTableId; /* row of the registration table told when the alarm clears */
    u32 hookType;      /* resource count hook of the table */
    char description[L2RES_ALARM_TEXT_SIZE];
    u32 tableAlarmCode; /* tells the tables apart at the alarm service */
    u32 resendCount;    /* probes since the last re-send or clear, counted while raised */
    u32 raised;         /* 1 from a raise that was sent to a clear that was sent */
    u32 registered;     /* 1 once the description is in place */
} L2ResAlarmEntry;
QOR_STATIC_ASSERT(sizeof(L2ResAlarmEntry) == 280, "alarm entry");

QOR_API extern L2ResAlarmEntry g_qorl2ResAlarmTbl[L2RES_ALARM_COUNT];

/* Raises the alarm when the table is full. 1 when the type is unknown or the raise failed, else 0. */
QOR_API u32 QorL2ResExceedCheckAndAlarm(u32 alarmType);

/* The same for ECIB, then ECIB_EXT; the result of the latter. */
QOR_API u32 QorL2ResEcibExceedCheckAndAlarm(void);

/* Is the table of that count hook full? 1 with *threshold = total entries, else 0, untouched. */
QOR_API u32 QorL2ResExceedCheck(u32 hookType, u32 *threshold);

/* Sends a raise or a clear with a threshold of the caller's. 0 sent, 1 not. */
QOR_API u32 QorL2ResAlarmStart(u32 alarmType, u32 threshold);
QOR_API u32 QorL2ResAlarmResume(u32 alarmType, u32 threshold);

QOR_END_C

#endif
