#include "frame/init.h"

#include "alarms/alarm_emission.h"
#include "arbitration/op_table.h"
#include "frame/component.h"
#include "frame/dbg_log.h"
#include "frame/memory.h"
#include "frame/service_tables.h"
#include "frame/worker.h"
#include "qor_epoll.h"

L2ResInstInfo g_L2ResInstInfo = {};

namespace {

u32 Initialise(u32 firstArg, u32 secondArg)
{
    const u32 ret = QorL2ResCommInit();
    if (ret != QOR_OK) {
        return ret;
    }
    (void)QorL2AlarmInit(); // an alarm without description reports itself when it is checked
    QorL2ResGetQorInstInfo(firstArg, secondArg);
    return QorL2ResHashTblInit();
}

void ReapplyPatches()
{
    libqor_l2rsm_ResPatchC2hDeactivefunc();
    libqor_l2rsm_ResPatchC2hActivefunc();
}

// The module works without these services; whoever needs one reports it missing at that time.
void ReportUnless(u32 ret, const char *text)
{
    if (ret != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL, "%s", text);
    }
}

} // namespace

u32 QorL2ResInit(u32 firstArg, u32 secondArg, u32 phase)
{
    switch (phase) {
    case L2RES_PHASE_INIT:
        return Initialise(firstArg, secondArg);
    case L2RES_PHASE_START:
        return QorL2ResStart();
    case L2RES_PHASE_PATCH:
        ReapplyPatches();
        return QOR_OK;
    default:
        return QOR_OK;
    }
}

u32 QorL2ResCommInit(void)
{
    const u32 ret = QorL2ResMemmInit();
    if (ret != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_STARTUP, L2RES_LOG_GENERAL,
                            "[QOR-L2RSM][INIT] Memm Init Failed .");
        return ret;
    }
    ReportUnless(QorL2ResGetTimeFunVtbl(), "[QOR-L2RSM][INIT]Timefun vtable Init Failed.");
    ReportUnless(QorL2ResGetLogFunVtbl(), "[QOR-L2RSM][INIT]Logfun vtable Init Failed.");
    ReportUnless(QorL2ResGetOrchmFunVtbl(), "[QOR-L2RSM][INIT]Orchmfun vtable Init Failed.");
    QorL2resInitFunVtbl();
    QorL2resInitDbg();
    (void)QorL2resBlackBoxReg(); // without a black box the debug log still has everything
    ReportUnless(QOR_L2RES_FactoryInit(), "[QOR-L2RSM][INIT]Factory Init Failed.");
    return QOR_OK;
}

void QorL2ResGetQorInstInfo(u32 firstArg, u32 secondArg)
{
    g_L2ResInstInfo.secondArg = secondArg;
    g_L2ResInstInfo.firstArg = firstArg;
    g_L2ResInstInfo.selfSlot = QorL2ResGetSelfSlot();
    QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_GENERAL, "L2Res init, slot:%d.",
                        g_L2ResInstInfo.selfSlot);
}

u32 QorL2ResStart(void)
{
    u32 taskId = 0;
    const u32 ret = QorEpollTaskCreate("QOR_L2RSM", &taskId, QorL2ResMain, nullptr);
    if (ret != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_STARTUP, L2RES_LOG_GENERAL,
                            "[QOR-L2RSM][INIT] Create Thread QOR_L2RSM Failed, Ret is %d", ret);
    }
    return ret;
}
