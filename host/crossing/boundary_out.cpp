/* What the module calls: services, hooks and callbacks. */
#include <array>
#include <atomic>
#include <cstring>
#include <utility>

#include "crossing/boundary.h"
#include "zir_memory.h"

namespace host::boundary {

/* ---- services of component 1000 ---- */

/* The process's own tables; null in a replay. Written in phase 1. */
static const L2ResMemmVtbl *s_memory;
static const L2ResTimeVtbl *s_time;
static const L2ResOrchmVtbl *s_orchestration;
static const L2ResLogVtbl *s_log;
static const L2ResDbgLogVtbl *s_debugLog;
static const L2ResBlackBoxVtbl *s_blackBox;

static std::string given(const char *text)
{
    return textOf(text == nullptr ? "" : text);
}

static u32 initPartition(u32 id, const char *name)
{
    return crossForCode("memory.initPartition", {{"id", id}, {"name", given(name)}},
                        [&] { return s_memory->initPartition(id, name); });
}

static u32 getPartitionNumber(u32 id, const char *name)
{
    return crossForCode("memory.getPartitionNumber", {{"id", id}, {"name", given(name)}},
                        [&] { return s_memory->getPartitionNumber(id, name); });
}

static u32 getSysTime(L2ResAlarmTime *now)
{
    u32 code = QOR_FAIL;
    const auto real = [&]() -> Value {
        const u32 result = s_time->getSysTime(now);
        return {{"code", result}, {"time", hexOf(now, sizeof *now)}};
    };
    cross("time.getSysTime", Value::object(), real, [&](const Value &answer) {
        code = numberIn<u32>(answer, "code");
        const std::string bytes = bytesIn(answer, "time");
        if (bytes.size() != sizeof *now) {
            throw std::runtime_error("time is not of 20 bytes");
        }
        std::memcpy(now, bytes.data(), sizeof *now);
    });
    return code;
}

static u32 getSelfSlot()
{
    return crossForCode("orchestration.getSelfSlot", Value::object(),
                        [] { return s_orchestration->getSelfSlot(); });
}

/* An operation that answers with a code and a number in *value. */
template <class T, class Real>
static u32 crossForNumber(const char *operation, const Value &arguments, const char *name, T *value,
                          Real real)
{
    u32 code = QOR_FAIL;
    const auto run = [&]() -> Value {
        const u32 result = real();
        return {{"code", result}, {name, *value}};
    };
    cross(operation, arguments, run, [&](const Value &answer) {
        code = numberIn<u32>(answer, "code");
        *value = numberIn<T>(answer, name);
    });
    return code;
}

static u32 objCreate(u32 kind, u32 alarm, L2ResAlarmHandle *object)
{
    return crossForNumber("log.objCreate", {{"kind", kind}, {"alarm", alarm}}, "object", object,
                          [&] { return s_log->objCreate(kind, alarm, object); });
}

static u32 setAlarmComAttr(L2ResAlarmHandle object, L2ResAlarmAttr *attr)
{
    Value arguments = {{"object", object}};
    if (attr != nullptr) {
        arguments["attr"] = fieldsOf(*attr);
        if (attr->time != nullptr) {
            arguments["time"] = hexOf(attr->time, sizeof *attr->time);
        }
    }
    return crossForCode("log.setAlarmComAttr", arguments,
                        [&] { return s_log->setAlarmComAttr(object, attr); });
}

static u32 addPara(L2ResAlarmHandle object, u32 type, u32 length, const void *value)
{
    Value arguments = {{"object", object}, {"type", type}, {"length", length}};
    if (value != nullptr) {
        arguments["value"] = hexOf(value, length);
    }
    return crossForCode("log.addPara", arguments,
                        [&] { return s_log->addPara(object, type, length, value); });
}

static u32 send(L2ResAlarmHandle object)
{
    return crossForCode("log.send", {{"object", object}}, [&] { return s_log->send(object); });
}

static u32 objFree(L2ResAlarmHandle object)
{
    return crossForCode("log.objFree", {{"object", object}},
                        [&] { return s_log->objFree(object); });
}

static u32 registerLog(const char *name, u32 *id)
{
    return crossForNumber("debuglog.register", {{"name", given(name)}}, "id", id,
                          [&] { return s_debugLog->registerModule(name, id); });
}

static u32 registerBlackBox(const char *name, const char *description, u32 *id)
{
    return crossForNumber("blackbox.register",
                          {{"name", given(name)}, {"description", given(description)}}, "id", id,
                          [&] { return s_blackBox->registerModule(name, description, id); });
}

static Value lineOf(u32 id, u32 level, const char *text)
{
    return {{"id", id}, {"level", level}, {"text", given(text)}};
}

static void printLog(u32 id, u32 level, const char *text)
{
    crossings().tell("debuglog.print", lineOf(id, level, text),
                     [&] { s_debugLog->print(id, level, text); });
}

static void printBlackBox(u32 id, u32 level, const char *text)
{
    crossings().tell("blackbox.print", lineOf(id, level, text),
                     [&] { s_blackBox->print(id, level, text); });
}

/* Remembers the process's own table and hands out the boundary's. */
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
    u32 code = QOR_FAIL;
    const auto real = [&]() -> Value {
        const u32 result = realHook<L2ResCountHook>(Type)(total, used, idle);
        return {{"code", result}, {"total", *total}, {"used", *used}, {"idle", *idle}};
    };
    cross("hook.count", {{"type", Type}}, real, [&](const Value &answer) {
        code = numberIn<u32>(answer, "code");
        *total = numberIn<u32>(answer, "total");
        *used = numberIn<u32>(answer, "used");
        *idle = numberIn<u32>(answer, "idle");
    });
    return code;
}

static u32 vlanHook(const VlanEditInfo *info, u16 profileId, u16 commandId, u32 flag)
{
    const Value arguments = {{"info", info == nullptr ? Value() : fieldsOf(*info)},
                             {"profile", profileId},
                             {"command", commandId},
                             {"flag", flag}};
    return crossForCode("hook.vlan", arguments, [&] {
        return realHook<L2ResVlanTranslationHook>(L2RES_HOOK_VLAN_TRANSLATION)(info, profileId,
                                                                               commandId, flag);
    });
}

template <class Hook> static L2ResHook generic(Hook hook)
{
    return reinterpret_cast<L2ResHook>(hook);
}

L2ResHook replayedHook(u32 type)
{
    static const std::array<L2ResHook, L2RES_HOOK_COUNT> hooks = {
        generic(countHook<0>), generic(countHook<1>), generic(countHook<2>),
        generic(vlanHook),     generic(countHook<4>), generic(countHook<5>)};
    return hooks[type < hooks.size() ? type : 0]; // the module refuses the others
}

L2ResHook hook(u32 type, L2ResHook real)
{
    if (real == nullptr || type >= s_hooks.size()) {
        return real;
    }
    s_hooks[type] = real;
    return replayedHook(type);
}

/* ---- callbacks ---- */

constexpr u32 SERVICES = L2RES_SERVICE_COUNT;
constexpr u32 CELLS = L2RES_TABLE_COUNT * SERVICES;

static std::array<std::atomic<L2ResNotifyCallback>, CELLS> s_callbacks; // the process's own

/* Key and waiters, as far as a callback may read: up to the notified service's own. */
template <class Record> static Value recordOf(const void *record, u32 service, const void *data)
{
    const auto &reOp = *static_cast<const Record *>(record);
    Value waiters = Value::array();
    for (const L2ResWaiter &entry : reOp.waiters.entry) {
        Value waiter = fieldsOf(entry.op);
        waiter["service"] = entry.srvType;
        waiters.push_back(std::move(waiter));
        if (entry.srvType == service && entry.data == data) {
            break;
        }
    }
    return {{"key", fieldsOf(reOp.key)}, {"waiters", waiters}};
}

static Value notificationOf(u32 table, u32 service, u32 event, const void *record, const void *data)
{
    Value out = {{"table", table}, {"service", service}, {"event", event}};
    if (record != nullptr && table == L2RES_TABLE_ICIB) {
        out["record"] = recordOf<L2ResIcibReOpRecord>(record, service, data);
    } else if (record != nullptr && table == L2RES_TABLE_IPAT) {
        out["record"] = recordOf<L2ResIpatReOpRecord>(record, service, data);
    }
    if (data != nullptr) {
        const u64 size = ZIR_MemSize(data);
        out["data"] = size != 0 ? hexOf(data, size) : "not of the module's memory";
    }
    return out;
}

template <std::size_t Cell> static u32 cellCallback(u32 event, void *record, void *data)
{
    return crossForCode("notify",
                        notificationOf(Cell / SERVICES, Cell % SERVICES, event, record, data),
                        [&] { return s_callbacks[Cell].load()(event, record, data); });
}

template <std::size_t... Cell>
static constexpr std::array<L2ResNotifyCallback, CELLS> makeCallbacks(std::index_sequence<Cell...>)
{
    return {&cellCallback<Cell>...};
}

L2ResNotifyCallback replayedCallback(u32 table, u32 service)
{
    static constexpr auto callbacks = makeCallbacks(std::make_index_sequence<CELLS>());
    const bool known = table < L2RES_TABLE_COUNT && service < SERVICES;
    return callbacks[known ? table * SERVICES + service : 0]; // the module refuses the others
}

L2ResNotifyCallback callback(u32 table, u32 service, L2ResNotifyCallback real)
{
    if (real == nullptr || table >= L2RES_TABLE_COUNT || service >= SERVICES) {
        return real;
    }
    s_callbacks[table * SERVICES + service] = real;
    return replayedCallback(table, service);
}

} // namespace host::boundary
