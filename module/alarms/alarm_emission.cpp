#include "alarms/alarm_emission.h"

#include <string.h>

#include "bounded.h"
#include "frame/init.h"
#include "frame/service_tables.h"

// resendCount and raised change at run time and are accessed atomically (exceed_check.cpp).
L2ResAlarmEntry g_qorl2ResAlarmTbl[L2RES_ALARM_COUNT] = {};

namespace {

struct Description {
    u32 alarmType;
    u32 notifyTableId;
    u32 hookType;
    u32 tableAlarmCode;
    const char *text;
};

constexpr Description kIcibPp = {
    L2RES_ALARM_ICIB_PP, 0, 0, 581,
    "The number of ICIB_PP entries exceeded the specification of the forwarding engine resources."};
constexpr Description kEcib = {
    L2RES_ALARM_ECIB, 1, 1, 587,
    "The number of ECIB entries exceeded the specification of the forwarding engine resources, or "
    "a hash conflict occurred during delivery of ECIB entries to the chip."};
constexpr Description kEcibExt = {
    L2RES_ALARM_ECIB_EXT, 1, 2, 588, // there are no services of ECIB_EXT: those of ECIB are told
    "The number of ECIB_EXT entries exceeded the specification of the forwarding engine resources, "
    "or a hash conflict occurred during delivery of ECIB_EXT entries to the chip."};
constexpr Description kLem = {
    L2RES_ALARM_LEM, 4, 4, 170,
    "The number of LEM entries exceeded the specification of the forwarding engine resources"};
constexpr Description kSem = {
    L2RES_ALARM_SEM, 5, 5, 583,
    "The number of SEM entries exceeded the specification of the forwarding engine resources"};

u32 Register(const Description &row)
{
    L2ResAlarmEntry desc = {};
    desc.notifyTableId = row.notifyTableId;
    desc.hookType = row.hookType;
    const int copied = strcpy_s(desc.description, sizeof desc.description, row.text);
    if (copied != 0) {
        return static_cast<u32>(copied);
    }
    desc.tableAlarmCode = row.tableAlarmCode;
    return QorL2ResAlarmInfoReg(row.alarmType, &desc);
}

} // namespace

u32 QorL2AlarmInit(void)
{
    (void)QorL2ResIcibAlarmInfoReg();
    (void)QorL2ResEcibAlarmInfoReg();
    (void)QorL2ResEcibExtAlarmInfoReg();
    (void)QorL2ResLemAlarmInfoReg();
    return QorL2ResSemAlarmInfoReg();
}

u32 QorL2ResIcibAlarmInfoReg(void)
{
    return Register(kIcibPp);
}

u32 QorL2ResEcibAlarmInfoReg(void)
{
    return Register(kEcib);
}

u32 QorL2ResEcibExtAlarmInfoReg(void)
{
    return Register(kEcibExt);
}

u32 QorL2ResLemAlarmInfoReg(void)
{
    return Register(kLem);
}

u32 QorL2ResSemAlarmInfoReg(void)
{
    return Register(kSem);
}

u32 QorL2ResAlarmInfoReg(u32 alarmType, const L2ResAlarmEntry *desc)
{
    if (alarmType >= L2RES_ALARM_COUNT || desc == nullptr) {
        return QOR_FAIL;
    }
    L2ResAlarmEntry &entry = g_qorl2ResAlarmTbl[alarmType];
    entry.tableAlarmCode = desc->tableAlarmCode;
    const int copied = strcpy_s(entry.description, sizeof entry.description, desc->description);
    if (copied != 0) {
        return static_cast<u32>(copied);
    }
    entry.registered = 1;
    entry.notifyTableId = desc->notifyTableId;
    entry.hookType = desc->hookType;
    return QOR_OK;
}

namespace {

// Fixed by the alarm service.
constexpr u32 kObjectKind = 5;
constexpr u32 kResourceAlarmId = 0x095E2022;
constexpr u32 kRaiseKindCode = 255;
constexpr u32 kClearKindCode = 1;
constexpr u32 kTimeKind = 2;

// The time record is filled first, so that a record without a valid time is never handed out.
u32 SetTimedAttr(L2ResAlarmHandle object, L2ResAlarmAttr *attr, L2ResAlarmTime *time)
{
    if (QorL2ResGetSysTime(time) != QOR_OK) {
        return QOR_FAIL;
    }
    attr->time = time;
    attr->zero28 = 0;
    attr->timeKind = kTimeKind;
    return QorL2ResLogSetAlarmComAttr(object, attr);
}

u32 SetAttr(L2ResAlarmHandle object, u32 tableAlarmCode, u32 kind)
{
    L2ResAlarmAttr attr = {};
    if (kind == L2RES_ALARM_RAISE || kind == L2RES_ALARM_CLEAR) {
        attr.alarmKind = kind;
        attr.kindCode = kind == L2RES_ALARM_RAISE ? kRaiseKindCode : kClearKindCode;
    }
    attr.tableAlarmCode = tableAlarmCode;
    L2ResAlarmTime time = {};
    return SetTimedAttr(object, &attr, &time);
}

u32 AddText(L2ResAlarmHandle object, const char *text)
{
    return QorL2ResLogAddAlarmPara(object, L2RES_PARA_TEXT, static_cast<u32>(strlen(text)), text);
}

u32 AddNumber(L2ResAlarmHandle object, u32 value)
{
    return QorL2ResLogAddAlarmPara(object, L2RES_PARA_NUMBER, sizeof value, &value);
}

// All four are added even when one fails, so that the log names every parameter that is refused.
u32 AddParameters(L2ResAlarmHandle object, const char *slot, u32 threshold, u32 tableAlarmCode,
                  const char *description)
{
    u32 failed = AddText(object, slot);
    failed |= AddNumber(object, threshold);
    failed |= AddNumber(object, tableAlarmCode);
    failed |= AddText(object, description);
    return failed;
}

u32 FillAlarm(L2ResAlarmHandle object, u32 threshold, u32 tableAlarmCode, const char *description,
              u32 kind)
{
    char slot[16];
    if (sprintf_s(slot, sizeof slot, "slot %d", static_cast<int>(g_L2ResInstInfo.selfSlot)) < 0) {
        return QOR_FAIL;
    }
    if (SetAttr(object, tableAlarmCode, kind) != QOR_OK) {
        return QOR_FAIL;
    }
    return AddParameters(object, slot, threshold, tableAlarmCode, description);
}

} // namespace

u32 QorL2ResAlarmProc(u32 threshold, u32 tableAlarmCode, const char *description, u32 kind)
{
    L2ResAlarmHandle object = 0;
    if (QorL2ResLogAlarmObjCreate(kObjectKind, kResourceAlarmId, &object) != QOR_OK) {
        return QOR_FAIL;
    }
    if (FillAlarm(object, threshold, tableAlarmCode, description, kind) != QOR_OK) {
        (void)QorL2ResLogAlarmObjFree(object);
        return QOR_FAIL;
    }
    return QorL2ResLogAlarmSend(object); // sent or not, the object is the service's now
}

u32 QorL2ResLogSetIcibAlarmComAttr(L2ResAlarmHandle object, L2ResAlarmAttr *attr,
                                   L2ResAlarmTime *time)
{
    return SetTimedAttr(object, attr, time);
}
