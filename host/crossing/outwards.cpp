/* What the module calls: services, hooks and callbacks. */
#include <array>
#include <atomic>
#include <utility>

#include "crossing/crossing.h"

namespace host::crossing {

/* ---- services of component 1000 ---- */

/* The process's own tables; null in a replay. Written in phase 1. */
static const L2ResMemmVtbl *s_memory;
static const L2ResTimeVtbl *s_time;
static const L2ResOrchmVtbl *s_orchestration;
static const L2ResLogVtbl *s_log;
static const L2ResDbgLogVtbl *s_debugLog;
static const L2ResBlackBoxVtbl *s_blackBox;

static u32 initPartition(u32 id, const char *name)
{
    return pass(InitPartition{id, name}, [&] { return s_memory->initPartition(id, name); });
}

static u32 getPartitionNumber(u32 id, const char *name)
{
    return pass(PartitionNumber{id, name}, [&] { return s_memory->getPartitionNumber(id, name); });
}

static u32 getSysTime(L2ResAlarmTime *now)
{
    return pass(SysTime{now}, [&] { return s_time->getSysTime(now); });
}

static u32 getSelfSlot()
{
    return pass(SelfSlot{}, [] { return s_orchestration->getSelfSlot(); });
}

static u32 objCreate(u32 kind, u32 alarm, L2ResAlarmHandle *object)
{
    return pass(AlarmCreate{kind, alarm, object},
                [&] { return s_log->objCreate(kind, alarm, object); });
}

static u32 setAlarmComAttr(L2ResAlarmHandle object, L2ResAlarmAttr *attr)
{
    return pass(AlarmAttributes{object, attr},
                [&] { return s_log->setAlarmComAttr(object, attr); });
}

static u32 addPara(L2ResAlarmHandle object, u32 type, u32 length, const void *value)
{
    return pass(AlarmParameter{object, type, length, value},
                [&] { return s_log->addPara(object, type, length, value); });
}

static u32 send(L2ResAlarmHandle object)
{
    return pass(AlarmSend{object}, [&] { return s_log->send(object); });
}

static u32 objFree(L2ResAlarmHandle object)
{
    return pass(AlarmFree{object}, [&] { return s_log->objFree(object); });
}

static u32 registerLog(const char *name, u32 *id)
{
    return pass(LogRegister{name, id}, [&] { return s_debugLog->registerModule(name, id); });
}

static u32 registerBlackBox(const char *name, const char *description, u32 *id)
{
    return pass(BlackBoxRegister{name, description, id},
                [&] { return s_blackBox->registerModule(name, description, id); });
}

static void printLog(u32 id, u32 level, const char *text)
{
    pass(LogLine{false, id, level, text}, [&]() -> u32 {
        s_debugLog->print(id, level, text);
        return QOR_OK;
    });
}

static void printBlackBox(u32 id, u32 level, const char *text)
{
    pass(LogLine{true, id, level, text}, [&]() -> u32 {
        s_blackBox->print(id, level, text);
        return QOR_OK;
    });
}

/* Remembers the process's own table and hands out the crossing's. */
template <class Table>
static const void *exchange(const Table *&own, const void *real, const Table &table)
{
    own = static_cast<const Table *>(real);
    return &table;
}

const void *serviceTable(u32 interfaceId, const void *real)
{
    static const L2ResOrchmVtbl orchestration = {{}, getSelfSlot};
    static const L2ResMemmVtbl memory = {{}, initPartition, getPartitionNumber};
    static const L2ResDbgLogVtbl debugLog = {{}, registerLog, {}, printLog};
    static const L2ResLogVtbl log = {{}, objCreate, setAlarmComAttr, {}, addPara, send, objFree};
    static const L2ResTimeVtbl time = {{}, getSysTime};
    static const L2ResBlackBoxVtbl blackBox = {{}, registerBlackBox, printBlackBox};
    switch (interfaceId) {
    case L2RES_IID_ORCHESTRATION:
        return exchange(s_orchestration, real, orchestration);
    case L2RES_IID_MEMORY_MANAGER:
        return exchange(s_memory, real, memory);
    case L2RES_IID_DEBUG_LOG:
        return exchange(s_debugLog, real, debugLog);
    case L2RES_IID_LOG:
        return exchange(s_log, real, log);
    case L2RES_IID_TIME:
        return exchange(s_time, real, time);
    case L2RES_IID_BLACK_BOX:
        return exchange(s_blackBox, real, blackBox);
    default:
        return nullptr;
    }
}

/* ---- hooks ---- */

static std::array<std::atomic<L2ResHook>, L2RES_HOOK_COUNT> s_hooks; // the process's own

template <class Hook> static Hook realHook(u32 type)
{
    return reinterpret_cast<Hook>(s_hooks[type].load());
}

template <u32 Type> static u32 countHook(u32 *total, u32 *used, u32 *idle)
{
    return pass(CountHook{Type, total, used, idle},
                [&] { return realHook<L2ResCountHook>(Type)(total, used, idle); });
}

static u32 vlanHook(const VlanEditInfo *info, u16 profileId, u16 commandId, u32 flag)
{
    return pass(VlanHook{info, profileId, commandId, flag}, [&] {
        return realHook<L2ResVlanTranslationHook>(L2RES_HOOK_VLAN_TRANSLATION)(info, profileId,
                                                                               commandId, flag);
    });
}

template <class Hook> static L2ResHook generic(Hook hook)
{
    return reinterpret_cast<L2ResHook>(hook);
}

L2ResHook hook(u32 type, L2ResHook real)
{
    static const std::array<L2ResHook, L2RES_HOOK_COUNT> hooks = {
        generic(countHook<0>), generic(countHook<1>), generic(countHook<2>),
        generic(vlanHook),     generic(countHook<4>), generic(countHook<5>)};
    if (real == nullptr || type >= hooks.size()) {
        return real; // numbers out of range the module refuses itself
    }
    s_hooks[type] = real;
    return hooks[type];
}

/* ---- callbacks ---- */

constexpr u32 SERVICES = L2RES_SERVICE_COUNT;
constexpr u32 CELLS = L2RES_TABLE_COUNT * SERVICES;

static std::array<std::atomic<L2ResNotifyCallback>, CELLS> s_callbacks; // the process's own

static thread_local const Notify *t_notification = nullptr;

template <std::size_t Cell> static u32 cellCallback(u32 event, void *record, void *data)
{
    const Notify notify = {Cell / SERVICES, Cell % SERVICES, event, record, data};
    return pass(notify, [&] {
        const Notify *outer = std::exchange(t_notification, &notify);
        const u32 code = s_callbacks[Cell].load()(event, record, data);
        t_notification = outer;
        return code;
    });
}

template <std::size_t... Cell>
static constexpr std::array<L2ResNotifyCallback, CELLS> makeCallbacks(std::index_sequence<Cell...>)
{
    return {&cellCallback<Cell>...};
}

L2ResNotifyCallback callback(u32 table, u32 service, L2ResNotifyCallback real)
{
    static constexpr auto callbacks = makeCallbacks(std::make_index_sequence<CELLS>());
    if (real == nullptr || table >= L2RES_TABLE_COUNT || service >= SERVICES) {
        return real; // numbers out of range the module refuses itself
    }
    const u32 cell = table * SERVICES + service;
    s_callbacks[cell] = real;
    return callbacks[cell];
}

L2ResNotifyCallback registered(u32 table, u32 service)
{
    return s_callbacks.at(table * SERVICES + service);
}

const Notify &notification()
{
    return *t_notification;
}

} // namespace host::crossing
