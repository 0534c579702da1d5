#include "registry/registry.h"

#include "frame/dbg_log.h"

// Filled by other components at any time, read from any thread: every field is published and read
// atomically, and a callback before its registered flag.
L2ResRegistration g_qorl2resRegTbl[L2RES_TABLE_COUNT][L2RES_SERVICE_COUNT] = {};
L2ResHookEntry g_qorl2ResHookTbl[L2RES_HOOK_COUNT] = {};

namespace {

constexpr u32 kNotRegistered = 0;
constexpr u32 kRegistered = 1;

inline bool IsCell(u32 tableId, u32 serviceType)
{
    return tableId < L2RES_TABLE_COUNT && serviceType < L2RES_SERVICE_COUNT;
}

// ICIB, ECIB and the general registration write the same kind of line; a client tells them apart
// by the text, which the general one shares with ECIB.
u32 LogIcib(u32 ret, u32 serviceType)
{
    QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_ICIB,
                        "L2ResIcibRegister Ret:%d, ServiceType:%d.", ret, serviceType);
    return ret;
}

u32 LogEcib(u32 ret, u32 serviceType)
{
    QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_ICIB,
                        "L2ResEcibRegister Ret:%d, ServiceType:%d.", ret, serviceType);
    return ret;
}

u32 LogIpat(u32 ret, u32 serviceType)
{
    QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_GENERAL,
                        "L2ResIpatRegister Ret:%d, ServiceType:%d.", ret, serviceType);
    return ret;
}

} // namespace

u32 QOR_L2RES_Register(u32 tableId, u32 serviceType, L2ResNotifyCallback callback)
{
    if (!IsCell(tableId, serviceType)) {
        return QOR_FAIL;
    }
    L2ResRegistration &cell = g_qorl2resRegTbl[tableId][serviceType];
    // The other way round, a notification in between would report a service without a callback.
    std::atomic_ref(cell.callback).store(callback, std::memory_order_release);
    std::atomic_ref(cell.registered).store(kRegistered, std::memory_order_release);
    return QOR_OK;
}

L2ResNotifyCallback QOR_L2RES_GetRegFunc(u32 tableId, u32 serviceType)
{
    if (!IsCell(tableId, serviceType)) {
        return nullptr;
    }
    return std::atomic_ref(g_qorl2resRegTbl[tableId][serviceType].callback)
        .load(std::memory_order_acquire);
}

u32 QOR_L2RES_IsRegister(u32 tableId, u32 serviceType)
{
    if (!IsCell(tableId, serviceType)) {
        return kNotRegistered;
    }
    return std::atomic_ref(g_qorl2resRegTbl[tableId][serviceType].registered)
        .load(std::memory_order_acquire);
}

u32 QorL2ResIcibRegister(u32 serviceType, L2ResNotifyCallback callback)
{
    return LogIcib(QOR_L2RES_Register(L2RES_TABLE_ICIB, serviceType, callback), serviceType);
}

u32 QorL2ResEcibRegister(u32 serviceType, L2ResNotifyCallback callback)
{
    return LogEcib(QOR_L2RES_Register(L2RES_TABLE_ECIB, serviceType, callback), serviceType);
}

u32 QorL2ResIpatRegister(u32 serviceType, L2ResNotifyCallback callback)
{
    return LogIpat(QOR_L2RES_Register(L2RES_TABLE_IPAT, serviceType, callback), serviceType);
}

u32 QorL2ResNotifyRegister(u32 tableId, u32 serviceType, L2ResNotifyCallback callback)
{
    return LogEcib(QOR_L2RES_Register(tableId, serviceType, callback), serviceType);
}

u32 QorL2ResHookRegister(u32 hookType, L2ResHook hook)
{
    if (hookType >= L2RES_HOOK_COUNT) {
        return QOR_FAIL;
    }
    L2ResHookEntry &entry = g_qorl2ResHookTbl[hookType];
    std::atomic_ref(entry.type).store(hookType, std::memory_order_relaxed);
    std::atomic_ref(entry.hook).store(hook, std::memory_order_release);
    QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_GENERAL, "L2ResHookRegister Success, Type:%d.",
                        hookType);
    return QOR_OK;
}

L2ResHook QorL2ResGetHook(u32 hookType)
{
    return hookType < L2RES_HOOK_COUNT ? HookOf(hookType) : nullptr;
}

u32 QorL2ResNotifyWaitingProc(u32 tableId, u32 serviceType, u32 event, void *record, void *data)
{
    if (!IsCell(tableId, serviceType)) {
        return kNotRegistered;
    }
    L2ResRegistration &cell = g_qorl2resRegTbl[tableId][serviceType];
    // Flag before callback: a registration in between is then seen as none, not as one without a
    // callback.
    const u32 registered = std::atomic_ref(cell.registered).load(std::memory_order_acquire);
    const auto callback = std::atomic_ref(cell.callback).load(std::memory_order_acquire);
    if (callback != nullptr) {
        return callback(event, record, data);
    }
    return registered;
}

u32 QorL2ResIdleNotifyProc(u32 tableId)
{
    for (u32 serviceType = 0; serviceType < L2RES_SERVICE_COUNT; ++serviceType) {
        // Nobody to tell counts as told; registered without a callback counts as a failure.
        if (QorL2ResNotifyWaitingProc(tableId, serviceType, L2RES_EVENT_TABLE_IDLE, nullptr,
                                      nullptr) != QOR_OK) {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                                "Icib Notify resource Available, srvType:%d.", serviceType);
        }
    }
    return QOR_OK;
}
