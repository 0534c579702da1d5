/*
 * What passes between the process and the module, one type each: its arguments as they were given,
 * and places for results other than the code. Pointers are the caller's, valid during the passage; what
 * a place holds before the call has been made is the caller's, too.
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
};
struct HookRegister {
    u32 type;
    bool some; // false: null
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
};
struct VlanRelease {
    const VlanEditInfo *info;
    u32 flag;
};
struct AlarmCheck {
    u32 type;
};
struct Query {
    const L2ResIcibKey *key;
    const L2ResQueryEntry *entries;
    const u16 *count;
};
struct VlanDump {};
struct Patch {
    u32 operation;
    u64 unused;
    const char *library;
    const u32 *handled;
};
struct Tick { // of one of the module's timers
    u32 period;
};
struct Message {}; // the worker's queue has one

/* ---- out of the module ---- */

struct FindTable {
    u32 component, interface;
};
struct InitPartition {
    u32 id;
    const char *name;
};
struct PartitionNumber {
    u32 id;
    const char *name;
};
struct SysTime {
    L2ResAlarmTime *now;
};
struct SelfSlot {};
struct AlarmCreate {
    u32 kind, alarm;
    L2ResAlarmHandle *object;
};
struct AlarmAttributes {
    L2ResAlarmHandle object;
    const L2ResAlarmAttr *attr;
};
struct AlarmParameter {
    L2ResAlarmHandle object;
    u32 type, length;
    const void *value;
};
struct AlarmSend {
    L2ResAlarmHandle object;
};
struct AlarmFree {
    L2ResAlarmHandle object;
};
struct LogRegister {
    const char *name;
    u32 *id;
};
struct BlackBoxRegister {
    const char *name, *description;
    u32 *id;
};
struct LogLine { // no answer
    bool blackBox;
    u32 id, level;
    const char *text;
};
struct CountHook {
    u32 type;
    u32 *total, *used, *idle;
};
struct VlanHook {
    const VlanEditInfo *info;
    u16 profile, command;
    u32 flag;
};
struct Notify {
    u32 table, service, event;
    void *record, *data;
};
struct QueueCount {}; // the code is the count
struct QueueWrite {
    u32 size, timeout;
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
