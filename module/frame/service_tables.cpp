#include "frame/service_tables.h"

#include "comp_registry.h"
#include "frame/dbg_log.h"

const L2ResMemmVtbl *g_qorL2ResMemmFunVtbl = nullptr;
const L2ResTimeVtbl *g_qorL2ResTimeFunVtbl = nullptr;
const L2ResLogVtbl *g_qorL2ResLogFunVtbl = nullptr;
const L2ResOrchmVtbl *g_qorL2ResOrchmFunVtbl = nullptr;
void *g_qorL2resFuncVtbl[L2RES_VTBL_COUNT] = {};

namespace {

template <class Vtbl> u32 ObtainVtbl(u32 componentId, u32 interfaceId, Vtbl *&vtbl)
{
    if (vtbl != nullptr) {
        return QOR_OK;
    }
    void *found = nullptr;
    const u32 ret = COMP_GetVTable(componentId, interfaceId, &found);
    if (ret != QOR_OK || found == nullptr) {
        return QOR_FAIL;
    }
    vtbl = static_cast<Vtbl *>(found);
    return QOR_OK;
}

} // namespace

u32 QorL2ResGetMemmFunVtbl(void)
{
    return ObtainVtbl(L2RES_SERVICE_COMPONENT, L2RES_IID_MEMORY_MANAGER, g_qorL2ResMemmFunVtbl);
}

u32 QorL2ResGetTimeFunVtbl(void)
{
    return ObtainVtbl(L2RES_SERVICE_COMPONENT, L2RES_IID_TIME, g_qorL2ResTimeFunVtbl);
}

u32 QorL2ResGetLogFunVtbl(void)
{
    return ObtainVtbl(L2RES_SERVICE_COMPONENT, L2RES_IID_LOG, g_qorL2ResLogFunVtbl);
}

u32 QorL2ResGetOrchmFunVtbl(void)
{
    return ObtainVtbl(L2RES_SERVICE_COMPONENT, L2RES_IID_ORCHESTRATION, g_qorL2ResOrchmFunVtbl);
}

u32 QorL2resGetFunVtbl(u32 componentId, u32 interfaceId, u32 vtblType)
{
    if (vtblType >= L2RES_VTBL_COUNT) {
        return QOR_FAIL;
    }
    return ObtainVtbl(componentId, interfaceId, g_qorL2resFuncVtbl[vtblType]);
}

void QorL2resInitFunVtbl(void)
{
    struct Row {
        u32 componentId, interfaceId, vtblType;
    };
    static constexpr Row kRows[] = {
        {L2RES_SERVICE_COMPONENT, L2RES_IID_DEBUG_LOG, L2RES_VTBL_DEBUG_LOG},
        {L2RES_SERVICE_COMPONENT, L2RES_IID_BLACK_BOX, L2RES_VTBL_BLACK_BOX},
    };
    u32 loop = 0;
    for (const Row &row : kRows) {
        const u32 ret = QorL2resGetFunVtbl(row.componentId, row.interfaceId, row.vtblType);
        if (ret != QOR_OK) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                "[QorL2res][IinitVtbl]Get vtbl fail, cid:%d, iid:%d, vtblType:%d, loop:%d, ret:%d",
                row.componentId, row.interfaceId, row.vtblType, loop, ret);
        }
        ++loop;
    }
}

namespace {

// A wrapper's three texts. Every wrapper of the log and time services says "ARP".
struct Texts {
    const char *tableNull;
    const char *operationNull;
    const char *operationFailed;
};

#define L2RES_WRAPPER_TEXTS(table, operation)                                                      \
    {                                                                                              \
        "[ARP func vtable]" table " is null.",                                                     \
            "[ARP func vtable]" table "->" operation " is null.",                                  \
            "[ARP func vtable]" table "->" operation " is failed, ret=%u."                         \
    }

constexpr Texts kObjCreate = L2RES_WRAPPER_TEXTS("g_qorL2ResLogFunVtbl", "objCreate");
constexpr Texts kSetComAttr = L2RES_WRAPPER_TEXTS("g_qorL2ResLogFunVtbl", "setAlarmComAttr");
constexpr Texts kAddPara = L2RES_WRAPPER_TEXTS("g_qorL2ResLogFunVtbl", "addPara");
constexpr Texts kSend = L2RES_WRAPPER_TEXTS("g_qorL2ResLogFunVtbl", "send");
constexpr Texts kObjFree = L2RES_WRAPPER_TEXTS("g_qorL2ResLogFunVtbl", "objFree");
constexpr Texts kGetSysTime = L2RES_WRAPPER_TEXTS("g_qorL2ResTimeFunVtbl", "getSysTime");

#undef L2RES_WRAPPER_TEXTS

u32 Missing(const char *text)
{
    QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL, "%s", text);
    return QOR_FAIL;
}

// Calls one operation of a table that, like the operation, may be missing.
template <class Vtbl, class Operation, class... Arguments>
u32 CallService(const Vtbl *vtbl, Operation Vtbl::*operation, const Texts &texts,
                Arguments... arguments)
{
    if (vtbl == nullptr) {
        return Missing(texts.tableNull);
    }
    if (vtbl->*operation == nullptr) {
        return Missing(texts.operationNull);
    }
    const u32 ret = (vtbl->*operation)(arguments...);
    if (ret != QOR_OK) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // one of the six texts above, each with one %u
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL, texts.operationFailed, ret);
#pragma GCC diagnostic pop
        return QOR_FAIL;
    }
    return QOR_OK;
}

} // namespace

u32 QorL2ResLogAlarmObjCreate(u32 objectKind, u32 alarmId, L2ResAlarmHandle *object)
{
    return CallService(g_qorL2ResLogFunVtbl, &L2ResLogVtbl::objCreate, kObjCreate, objectKind,
                       alarmId, object);
}

u32 QorL2ResLogSetAlarmComAttr(L2ResAlarmHandle object, L2ResAlarmAttr *attr)
{
    return CallService(g_qorL2ResLogFunVtbl, &L2ResLogVtbl::setAlarmComAttr, kSetComAttr, object,
                       attr);
}

u32 QorL2ResLogAddAlarmPara(L2ResAlarmHandle object, u32 paraType, u32 length, const void *value)
{
    return CallService(g_qorL2ResLogFunVtbl, &L2ResLogVtbl::addPara, kAddPara, object, paraType,
                       length, value);
}

u32 QorL2ResLogAlarmSend(L2ResAlarmHandle object)
{
    return CallService(g_qorL2ResLogFunVtbl, &L2ResLogVtbl::send, kSend, object);
}

u32 QorL2ResLogAlarmObjFree(L2ResAlarmHandle object)
{
    return CallService(g_qorL2ResLogFunVtbl, &L2ResLogVtbl::objFree, kObjFree, object);
}

u32 QorL2ResGetSysTime(L2ResAlarmTime *now)
{
    return CallService(g_qorL2ResTimeFunVtbl, &L2ResTimeVtbl::getSysTime, kGetSysTime, now);
}

u32 QorL2ResGetSelfSlot(void)
{
    if (g_qorL2ResOrchmFunVtbl == nullptr) {
        return Missing("[Orch func vtable]g_qorL2ResOrchmFunVtbl is null.");
    }
    if (g_qorL2ResOrchmFunVtbl->getSelfSlot == nullptr) {
        return Missing("[Orch func vtable]g_qorL2ResOrchmFunVtbl->getSelfSlot is null.");
    }
    return g_qorL2ResOrchmFunVtbl->getSelfSlot();
}
