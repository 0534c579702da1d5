#include "alarms/exceed_check.h"

#include <atomic>

#include "alarms/alarm_emission.h"
#include "frame/dbg_log.h"
#include "registry/registry.h"

namespace {

constexpr u32 kResendCycles = 120; // of 5000 ms: ten minutes

// Raises sent so far per type: tells a clear that a raise overtook it.
std::atomic<u32> g_raisesSent[L2RES_ALARM_COUNT];

inline u32 RaisesSent(u32 alarmType)
{
    return g_raisesSent[alarmType].load();
}

inline std::atomic_ref<u32> Raised(u32 alarmType)
{
    return std::atomic_ref(g_qorl2ResAlarmTbl[alarmType].raised);
}

inline std::atomic_ref<u32> ResendCount(u32 alarmType)
{
    return std::atomic_ref(g_qorl2ResAlarmTbl[alarmType].resendCount);
}

inline bool IsRaised(u32 alarmType)
{
    return Raised(alarmType).load() == 1;
}

inline bool IsRegistered(u32 alarmType)
{
    return alarmType < L2RES_ALARM_COUNT && g_qorl2ResAlarmTbl[alarmType].registered != 0;
}

struct Counts {
    u32 total, used, idle;
};

enum class Reporter { exceedCheck, probe };

void WriteReport(Reporter reporter, const Counts &counts, u32 ret)
{
    if (reporter == Reporter::exceedCheck) {
        QorL2ResDbgWriteLog(L2RES_LOG_REPORT, L2RES_LOG_GENERAL,
                            "[QorL2ResExceedCheck], total:%d, used:%d, idle:%d, ret:%d.",
                            counts.total, counts.used, counts.idle, ret);
    } else {
        QorL2ResDbgWriteLog(L2RES_LOG_REPORT, L2RES_LOG_GENERAL,
                            "[QorL2ResProbeProc], total:%d, used:%d, idle:%d, ret:%d.",
                            counts.total, counts.used, counts.idle, ret);
    }
}

// False when there is no count hook (the translation hook is none) or it failed.
bool ReadCounts(u32 hookType, Reporter reporter, Counts *counts)
{
    *counts = {};
    if (hookType >= L2RES_HOOK_COUNT || hookType == L2RES_HOOK_VLAN_TRANSLATION) {
        return false;
    }
    const auto hook = reinterpret_cast<L2ResCountHook>(HookOf(hookType));
    if (hook == nullptr) {
        return false;
    }
    const u32 ret = hook(&counts->total, &counts->used, &counts->idle);
    WriteReport(reporter, *counts, ret);
    return ret == QOR_OK;
}

u32 Send(u32 alarmType, u32 threshold, u32 kind)
{
    const L2ResAlarmEntry &entry = g_qorl2ResAlarmTbl[alarmType];
    return QorL2ResAlarmProc(threshold, entry.tableAlarmCode, entry.description, kind);
}

// Sends a raise with its lines; 0 sent and the flag set, or 1.
u32 SendRaise(u32 alarmType, u32 threshold)
{
    QorL2ResDbgWriteLog(L2RES_LOG_REPORT, L2RES_LOG_GENERAL,
                        "L2Res type %d alarm start, ulResThreshold: %d.", alarmType, threshold);
    if (Send(alarmType, threshold, L2RES_ALARM_RAISE) != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "L2Res type %d alarm start failed, ulResThreshold: %d.", alarmType,
                            threshold);
        return QOR_FAIL;
    }
    // Counted before the flag is set: a clear that does not see the count has written its 0 already.
    g_raisesSent[alarmType].fetch_add(1);
    Raised(alarmType).store(1);
    return QOR_OK;
}

// Sends a clear with its lines; 0 sent, or 1 and the alarm stays raised. raises: those sent before
// the counts were read that the clear goes by.
u32 SendClear(u32 alarmType, u32 threshold, u32 raises)
{
    QorL2ResDbgWriteLog(L2RES_LOG_REPORT, L2RES_LOG_GENERAL,
                        "L2Res type %d alarm resume, ulResThreshold: %d.", alarmType, threshold);
    if (Send(alarmType, threshold, L2RES_ALARM_CLEAR) != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "L2Res type alarm resume failed, alarmType:%d, ulResThreshold: %d.",
                            alarmType, threshold);
        return QOR_FAIL;
    }
    Raised(alarmType).store(0);
    // A raise sent meanwhile may have reached the alarm service after our clear: stay raised, the
    // next probe clears again if it need not be.
    if (RaisesSent(alarmType) != raises) {
        Raised(alarmType).store(1);
    }
    return QOR_OK;
}

// Counts a cycle; true when it was the 120th and the raise was sent again.
bool Resend(u32 alarmType, u32 threshold)
{
    if (ResendCount(alarmType).fetch_add(1) + 1 < kResendCycles) {
        return false;
    }
    const bool sent = SendRaise(alarmType, threshold) == QOR_OK;
    if (!sent) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "Icib alarm start failed, ulResThreshold:%d.", threshold);
    }
    ResendCount(alarmType).store(0);
    return sent;
}

// The clear of a probe cycle.
void ClearIfRoom(u32 alarmType, const Counts &counts, u32 raises)
{
    if (counts.used >= counts.total || !IsRaised(alarmType)) {
        return;
    }
    // The table has run full since it was counted: a clear would take the new alarm back, and with
    // the flag down nobody would look at the table again. The next cycle has newer counts.
    if (RaisesSent(alarmType) != raises) {
        return;
    }
    (void)SendClear(alarmType, counts.total, raises); // a failed one is tried again next cycle
    if (counts.idle != 0) {
        (void)QorL2ResIdleNotifyProc(g_qorl2ResAlarmTbl[alarmType].notifyTableId);
    }
    ResendCount(alarmType).store(0);
}

u32 WriteNotInit(u32 alarmType)
{
    QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL, "L2Res type not init, alarmType: %d.",
                        alarmType);
    return QOR_FAIL;
}

} // namespace

u32 QorL2ResExceedCheckAndAlarm(u32 alarmType)
{
    const bool registered = IsRegistered(alarmType);
    QorL2ResDbgWriteLog(L2RES_LOG_REPORT, L2RES_LOG_GENERAL, "check init alarmType:%d, flag: %d.",
                        alarmType, registered ? 1 : 0);
    if (!registered) {
        return WriteNotInit(alarmType);
    }
    Counts counts;
    if (!ReadCounts(g_qorl2ResAlarmTbl[alarmType].hookType, Reporter::exceedCheck, &counts) ||
        counts.used != counts.total) {
        return QOR_OK;
    }
    // Raised already or not: whoever runs into the full table says so again.
    if (SendRaise(alarmType, counts.total) != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "tbl %d alarm start failed, ulResThreshold:%d.", alarmType,
                            counts.total);
        return QOR_FAIL;
    }
    return QOR_OK;
}

u32 QorL2ResEcibExceedCheckAndAlarm(void)
{
    (void)QorL2ResExceedCheckAndAlarm(L2RES_ALARM_ECIB);
    return QorL2ResExceedCheckAndAlarm(L2RES_ALARM_ECIB_EXT);
}

u32 QorL2ResExceedCheck(u32 hookType, u32 *threshold)
{
    Counts counts;
    if (!ReadCounts(hookType, Reporter::exceedCheck, &counts) || counts.used != counts.total) {
        return 0;
    }
    if (threshold != nullptr) {
        *threshold = counts.total;
    }
    return 1;
}

u32 QorL2ResAlarmStart(u32 alarmType, u32 threshold)
{
    return alarmType < L2RES_ALARM_COUNT ? SendRaise(alarmType, threshold)
                                         : WriteNotInit(alarmType);
}

u32 QorL2ResAlarmResume(u32 alarmType, u32 threshold)
{
    return alarmType < L2RES_ALARM_COUNT ? SendClear(alarmType, threshold, RaisesSent(alarmType))
                                         : WriteNotInit(alarmType);
}

void QorL2ResProbeProc(u32 alarmType)
{
    if (!IsRegistered(alarmType) || !IsRaised(alarmType)) {
        return;
    }
    u32 raises = RaisesSent(alarmType);
    Counts counts;
    if (!ReadCounts(g_qorl2ResAlarmTbl[alarmType].hookType, Reporter::probe, &counts)) {
        return;
    }
    if (Resend(alarmType, counts.total)) {
        ++raises; // our own does not overtake us
    }
    ClearIfRoom(alarmType, counts, raises);
}

void QorL2ResAlarmResend(u32 alarmType, u32 threshold)
{
    if (alarmType < L2RES_ALARM_COUNT) {
        (void)Resend(alarmType, threshold);
    }
}

void QorL2ResProbe(u32 alarmType, u32 total, u32 used, u32 idle)
{
    if (alarmType < L2RES_ALARM_COUNT) {
        ClearIfRoom(alarmType, {total, used, idle}, RaisesSent(alarmType));
    }
}
