/*
 * The alarm table's descriptions, and the one routine that sends an alarm.
 *
 * Descriptions, ids and codes are written in phase 1 and read-only afterwards. An alarm object of
 * the log service lives only within one QorL2ResAlarmProc, all of whose state is on its own stack,
 * so any number of threads may send at once.
 */
#ifndef ALARMS_ALARM_EMISSION_H
#define ALARMS_ALARM_EMISSION_H

#include "l2rsm_alarms.h"
#include "l2rsm_services.h"

QOR_BEGIN_C

/* Registers all five descriptions; the result of the last, SEM. */
QOR_API u32 QorL2AlarmInit(void);

/* One description each: 0, or the failed copy's code. */
QOR_API u32 QorL2ResIcibAlarmInfoReg(void);
QOR_API u32 QorL2ResEcibAlarmInfoReg(void);
QOR_API u32 QorL2ResEcibExtAlarmInfoReg(void);
QOR_API u32 QorL2ResLemAlarmInfoReg(void);
QOR_API u32 QorL2ResSemAlarmInfoReg(void);

/*
 * Takes notify table id, hook type, description and table alarm code from desc. 0; 1 for a type
 * above 5 or a null record; or the failed copy's code, and then the type is not registered by it.
 */
QOR_API u32 QorL2ResAlarmInfoReg(u32 alarmType, const L2ResAlarmEntry *desc);

/* Sends one alarm; kind L2RES_ALARM_RAISE or L2RES_ALARM_CLEAR. 0 sent, 1 not. */
QOR_API u32 QorL2ResAlarmProc(u32 threshold, u32 tableAlarmCode, const char *description, u32 kind);

/* For other components: fills the time fields of *attr from *time (filled here) and sets it. 0/1. */
QOR_API u32 QorL2ResLogSetIcibAlarmComAttr(L2ResAlarmHandle object, L2ResAlarmAttr *attr,
                                           L2ResAlarmTime *time);

QOR_END_C

#endif
