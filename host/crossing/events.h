/*
 * What passes between the process and the module, one type each: its arguments as they were given,
 * and places for results other than the code. Pointers are the caller's, valid during the passage; what
 * a place holds before the call has been made is the caller's, too.
 *
 * `operation` is the name in records and, of services, in the journal; each() visits the arguments that
 * are plain numbers and texts, eachPlace() the numbers that come back beside the code.
 */
#ifndef HOST_EVENTS_H
#define HOST_EVENTS_H

#include <type_traits>
#include <variant>

#include "inspect/words.h"
#include "l2rsm_component.h"
#include "l2rsm_services.h"

namespace host::crossing {

using namespace inspect;

/* ---- into the module ---- */

struct Phase {
    u32 first, second, phase;
    static constexpr const char *operation = "QorL2ResInit";
    void each(auto visit) const
    {
        visit("first", first);
        visit("second", second);
        visit("phase", phase);
    }
};
struct HookRegister {
    u32 type;
    bool some; // false: null
    static constexpr const char *operation = "hookRegister";
    void each(auto visit) const
    {
        visit("type", type);
        visit("hook", some);
    }
};
struct Register {
    u32 table, service;
    bool some;
    bool any; // through notifyRegister, not the table's own operation
};
struct Token {
    TokenTable table;
    bool get; // false: free
    u32 service, op;
    const L2ResTokenReq *request;
};
struct VlanAssign {
    const VlanEditInfo *info;
    const u16 *profile;
    u32 flag;
    u16 before; // what stood at `profile`
    static constexpr const char *operation = "assignVlanEditProfile";
};
struct VlanRelease {
    const VlanEditInfo *info;
    u32 flag;
    static constexpr const char *operation = "freeVlanEditProfile";
};
struct AlarmCheck {
    u32 type;
    static constexpr const char *operation = "exceedCheckAndAlarm";
    void each(auto visit) const
    {
        visit("type", type);
    }
};
struct Query {
    const L2ResIcibKey *key;
    const L2ResQueryEntry *entries;
    const u16 *count;
    static constexpr const char *operation = "QorL2ResIcibGet";
};
struct VlanDump {
    static constexpr const char *operation = "QorL2ResPrintVlanEditRes";
};
struct Patch {
    u32 code;
    u64 unused;
    const char *library;
    const u32 *handled;
    static constexpr const char *operation = "libqor_l2rsm_PAT_C2HSyncHookFunc";
    void each(auto visit) const
    {
        visit("operation", code);
        visit("unused", unused);
        visit("library", library);
    }
};
struct Tick { // of one of the module's timers
    u32 period;
    static constexpr const char *operation = "tick";
    void each(auto visit) const
    {
        visit("period", period);
    }
};
struct Message {
    static constexpr const char *operation = "message";
}; // the worker's queue has one

/* ---- out of the module ---- */

struct FindTable {
    u32 component, interface;
    static constexpr const char *operation = "component.table";
    void each(auto visit) const
    {
        visit("component", component);
        visit("interface", interface);
    }
};
struct InitPartition {
    u32 id;
    const char *name;
    static constexpr const char *operation = "memory.initPartition";
    void each(auto visit) const
    {
        visit("id", id);
        visit("name", name);
    }
};
struct PartitionNumber {
    u32 id;
    const char *name;
    static constexpr const char *operation = "memory.getPartitionNumber";
    void each(auto visit) const
    {
        visit("id", id);
        visit("name", name);
    }
};
struct SysTime {
    L2ResAlarmTime *now;
    static constexpr const char *operation = "time.getSysTime";
};
struct SelfSlot {
    static constexpr const char *operation = "orchestration.getSelfSlot";
};
struct AlarmCreate {
    u32 kind, alarm;
    L2ResAlarmHandle *object;
    static constexpr const char *operation = "log.objCreate";
    void each(auto visit) const
    {
        visit("kind", kind);
        visit("alarm", alarm);
    }
    void eachPlace(auto visit) const
    {
        visit("object", *object);
    }
};
struct AlarmAttributes {
    L2ResAlarmHandle object;
    const L2ResAlarmAttr *attr;
    static constexpr const char *operation = "log.setAlarmComAttr";
};
struct AlarmParameter {
    L2ResAlarmHandle object;
    u32 type, length;
    const void *value;
    static constexpr const char *operation = "log.addPara";
};
struct AlarmSend {
    L2ResAlarmHandle object;
    static constexpr const char *operation = "log.send";
    void each(auto visit) const
    {
        visit("object", object);
    }
};
struct AlarmFree {
    L2ResAlarmHandle object;
    static constexpr const char *operation = "log.objFree";
    void each(auto visit) const
    {
        visit("object", object);
    }
};
struct LogRegister {
    const char *name;
    u32 *id;
    static constexpr const char *operation = "debuglog.register";
    void each(auto visit) const
    {
        visit("name", name);
    }
    void eachPlace(auto visit) const
    {
        visit("id", *id);
    }
};
struct BlackBoxRegister {
    const char *name, *description;
    u32 *id;
    static constexpr const char *operation = "blackbox.register";
    void each(auto visit) const
    {
        visit("name", name);
        visit("description", description);
    }
    void eachPlace(auto visit) const
    {
        visit("id", *id);
    }
};
struct LogLine { // no answer
    bool blackBox;
    u32 id, level;
    const char *text;
};
struct CountHook {
    u32 type;
    u32 *total, *used, *idle;
    static constexpr const char *operation = "hook.count";
    void each(auto visit) const
    {
        visit("type", type);
    }
    void eachPlace(auto visit) const
    {
        visit("total", *total);
        visit("used", *used);
        visit("idle", *idle);
    }
};
struct VlanHook {
    const VlanEditInfo *info;
    u16 profile, command;
    u32 flag;
    static constexpr const char *operation = "hook.vlan";
};
struct Notify {
    u32 table, service, event;
    void *record, *data;
    static constexpr const char *operation = "notify";
};
struct QueueCount {
    static constexpr const char *operation = "queue.count";
}; // the code is the count
struct QueueWrite {
    u32 size, timeout;
    static constexpr const char *operation = "queue.write";
    void each(auto visit) const
    {
        visit("size", size);
        visit("timeout", timeout);
    }
};

using Event =
    std::variant<Phase, HookRegister, Register, Token, VlanAssign, VlanRelease, AlarmCheck, Query,
                 VlanDump, Patch, Tick, Message, FindTable, InitPartition, PartitionNumber, SysTime,
                 SelfSlot, AlarmCreate, AlarmAttributes, AlarmParameter, AlarmSend, AlarmFree,
                 LogRegister, BlackBoxRegister, LogLine, CountHook, VlanHook, Notify, QueueCount,
                 QueueWrite>;

/* Whether the call is one into the module. */
inline bool isInwards(const Event &event)
{
    return event.index() <= Event(Message{}).index();
}

} // namespace host::crossing

#endif
