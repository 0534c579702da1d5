/*
 * Drives the module through its exported table as a stream of bytes says, beside the model, and
 * compares the two after every operation. Hooks and callbacks call the module again if the stream
 * says so. Whatever an input leaves behind is released and forgotten at its end.
 */
#include "fuzz/op_stream.h"

#include <array>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "alarms/exceed_check.h"
#include "faults/consistency.h"
#include "fuzz/model.h"
#include "l2rsm_component.h"
#include "support/services.h"

namespace {

const L2RsmFunVtbl &g_api = g_l2RsmFunVtbl;

#define REQUIRE(condition)                                                                         \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition);         \
            abort();                                                                               \
        }                                                                                          \
    } while (false)

/* ---- The stream ---- */

const u8 *g_next, *g_end;

u32 Next(u32 below)
{
    return g_next == g_end ? 0 : *g_next++ % below;
}

/* ---- Entries ---- */

/* Two to a bucket, two of another one that differ in one attribute. */
const Key kKeys[] = {MakeKey(100, 10), MakeKey(1124, 11), MakeKey(200, 10), MakeKey(200, 11)};
constexpr u32 kEntries = std::size(kKeys);
constexpr u32 kMates[] = {1, 0, 3, 2}; /* the other entry of the bucket */

/* A common table beside its model. */
struct Twin {
    const Side &side;
    model::CommonTable model;
    u32 releases[kEntries] = {}; /* of the entry's bucket */

    model::List *List(u32 entry)
    {
        const auto found = model.lists.find(entry);
        return found != model.lists.end() ? &found->second : nullptr;
    }
};
Twin g_icib{kIcib, {true, {}, {}}}, g_ipat{kIpat, {false, {}, {}}};

Twin &NextTwin()
{
    return Next(2) == 0 ? g_icib : g_ipat;
}

u32 EntryOf(const Twin &twin, const void *record)
{
    const auto same = twin.side.icib ? QorL2ResIcibCompFunc : QorL2ResIpatCompFunc;
    u32 entry = 0;
    while (entry < kEntries && same(record, twin.side.Of(kKeys[entry])) == 0) {
        ++entry;
    }
    REQUIRE(entry < kEntries); // an entry that nobody asked for
    return entry;
}

/* ---- Foreign code: what it answers, and what it does to the module ---- */

struct Counts {
    u32 total, used, idle, result;
};
Counts g_counts[L2RES_HOOK_COUNT];
Counts g_reported;     /* by the count hook that returned last */
unsigned g_attempts;   /* alarms begun since then */
u32 g_serviceFailures; /* bit set: that operation of the alarm object fails */
u32 g_vlanResult;
const VlanEditInfo *g_vlanInfo;
int g_openObjects;
bool g_raised[L2RES_ALARM_COUNT];
u32 g_cycles[L2RES_ALARM_COUNT];

/* Registered services: 0 never, 1 without a callback, 2 with. */
u32 g_registered[L2RES_TABLE_COUNT][L2RES_SERVICE_COUNT];
bool g_walking;
int g_depth;

/* What an ICIB add that is under way was judged against; null: a check that is no add's. */
struct Judged {
    u32 entry;
    std::optional<model::Record> holder;
    u32 releases;
};
std::vector<Judged *> g_checks;

void InnerOperation();

void ReEnter()
{
    if (g_depth < 4 && g_next != g_end && Next(4) == 0) {
        ++g_depth;
        InnerOperation();
        --g_depth;
    }
}

void Snapshot(Judged *judged)
{
    judged->holder = g_icib.model.Holder(judged->entry);
    judged->releases = g_icib.releases[judged->entry];
}

template <u32 kType> u32 Count(u32 *total, u32 *used, u32 *idle)
{
    if (kType == L2RES_HOOK_ICIB_PP && !g_checks.empty() && g_checks.back() != nullptr) {
        Snapshot(g_checks.back());
    }
    const Counts counts = g_counts[kType];
    *total = counts.total;
    *used = counts.used;
    *idle = counts.idle;
    ReEnter();
    g_reported = counts;
    g_attempts = 0;
    return counts.result;
}

u32 Translate(const VlanEditInfo *info, u16 profile, u16 command, u32)
{
    REQUIRE(info == g_vlanInfo && profile < 64 && command > 0 && command < 128);
    const u32 result = g_vlanResult;
    ReEnter();
    return result;
}

/* Those before the one who is told now have no callback. */
void SkipSilent(const Twin &twin, model::List *list, size_t until)
{
    for (; list->told < until; ++list->told) {
        const u32 registered = g_registered[twin.side.tableId][list->waiters[list->told].service];
        REQUIRE(registered != 2);
        list->lastResult = registered;
    }
}

/* The lists that the walk has released since foreign code ran last: told to the end, and gone. */
void FollowWalk()
{
    for (u32 entry = 0; g_walking && entry < kEntries; ++entry) {
        model::List *list = g_icib.List(entry);
        if (list != nullptr && kIcib.Waiting(kKeys[entry]) == nullptr) {
            REQUIRE(list->countdown <= 1 && !list->young);
            SkipSilent(g_icib, list, list->waiters.size());
            g_icib.model.Released(entry);
        }
    }
}

u32 EntryFree(Twin *twin, u32 service, const void *record, const void *data)
{
    FollowWalk();
    const u32 entry = EntryOf(*twin, record);
    REQUIRE(twin->List(entry) != nullptr);
    model::List &list = *twin->List(entry);
    if (!list.releasing) {
        REQUIRE(g_walking && twin->side.icib && list.countdown <= 1 && !list.young);
        list.releasing = true;
    }
    size_t next = list.told;
    while (next < list.waiters.size() &&
           g_registered[twin->side.tableId][list.waiters[next].service] != 2) {
        ++next;
    }
    REQUIRE(next < list.waiters.size() && list.waiters[next].service == service);
    SkipSilent(*twin, &list, next);
    const std::string &expected = list.waiters[next].data;
    REQUIRE((data == nullptr) == expected.empty());
    REQUIRE(expected.empty() || memcmp(data, expected.data(), expected.size()) == 0);
    ++list.told;
    const u32 result = Next(3);
    ReEnter();
    return list.lastResult = result;
}

template <u32 kTable, u32 kService> u32 Notified(u32 event, void *record, void *data)
{
    REQUIRE(g_registered[kTable][kService] == 2);
    if (event == L2RES_EVENT_TABLE_IDLE) {
        REQUIRE(record == nullptr && data == nullptr);
        return Next(2);
    }
    REQUIRE(event == L2RES_EVENT_ENTRY_FREE);
    REQUIRE(kTable == L2RES_TABLE_ICIB || kTable == L2RES_TABLE_IPAT);
    return EntryFree(kTable == 0 ? &g_icib : &g_ipat, kService, record, data);
}

template <u32... kCells>
L2ResNotifyCallback CallbackOf(u32 cell, std::integer_sequence<u32, kCells...>)
{
    static constexpr L2ResNotifyCallback kAll[] = {Notified<kCells / 9, kCells % 9>...};
    return kAll[cell];
}

/* ---- Operations: the module's answer against the model's ---- */

void GetToken()
{
    static const u8 kData[8] = {0xDA, 1, 2, 3, 4, 5, 6, 7};
    Twin &twin = NextTwin();
    const u32 entry = Next(kEntries), service = Next(10), op = Next(5), dataLen = Next(9);
    const auto type = static_cast<u16>(Next(3));
    const u64 stamp = Next(8);
    const bool icib = twin.side.icib;
    Key dirty = kKeys[entry];
    reinterpret_cast<u8 *>(&dirty.icib)[14] = static_cast<u8>(stamp); // behind OutVlan
    L2ResTokenReq req = {stamp, type, twin.side.Of(dirty), static_cast<u16>(dataLen), kData};
    const auto get = icib ? g_api.getIcibToken : g_api.getIpatToken;
    if (service > 8 || op < 1 || op > 3) {
        REQUIRE(get(service, op, &req) == 1);
        return;
    }
    Judged judged = {entry, twin.model.Holder(entry), twin.releases[entry]};
    const bool checks = icib && op == L2RES_OP_ADD;
    if (checks) {
        g_checks.push_back(&judged);
    }
    const u32 result = get(service, op, &req);
    if (checks) {
        g_checks.pop_back();
    }
    // Overtaken by a hook that is no longer registered: judged once more.
    const auto holder = twin.model.Holder(entry);
    model::Outcome outcome = model::Judge(icib, op, type, stamp, judged.holder);
    if ((outcome.stores && judged.holder != holder) ||
        (outcome.waits && judged.releases != twin.releases[entry])) {
        outcome = model::Judge(icib, op, type, stamp, holder);
    }
    REQUIRE(result == outcome.result);
    twin.model.Apply(entry, service, outcome, {reinterpret_cast<const char *>(kData), dataLen});
}

void Free(Twin *twin, u32 entry, u32 op)
{
    const bool icib = twin->side.icib;
    L2ResTokenReq req = {0, 0, twin->side.Of(kKeys[entry]), 0, nullptr};
    const bool counts = !icib || twin->model.Holder(entry).has_value();
    const bool notifies = twin->model.Free(entry, op);
    twin->releases[entry] += counts;
    twin->releases[kMates[entry]] += counts;
    if (notifies) {
        twin->List(entry)->releasing = true;
    }
    const u32 result = (icib ? g_api.freeIcibToken : g_api.freeIpatToken)(0, op, &req);
    u32 expected = counts ? 0 : 1;
    if (notifies) {
        model::List &list = *twin->List(entry);
        SkipSilent(*twin, &list, list.waiters.size());
        expected = icib ? 0 : list.lastResult;
        twin->model.Released(entry);
    }
    REQUIRE(result == expected);
}

void FreeToken()
{
    Twin &twin = NextTwin();
    const u32 entry = Next(kEntries);
    Free(&twin, entry, Next(5));
}

void Walk()
{
    auto &lists = g_icib.model.lists;
    for (auto &[entry, list] : lists) {
        list.young = false;
    }
    g_walking = true;
    QorL2ResIcibReOpHashWalk();
    FollowWalk();
    g_walking = false;
    for (auto &[entry, list] : lists) {
        if (list.young) { // counted down if the walk met it
            list.countdown -= kIcib.Waiting(kKeys[entry])->walkCountdown == 2;
        } else {
            REQUIRE(list.countdown > 1);
            --list.countdown;
        }
    }
}

void Register()
{
    const u32 table = Next(7), service = Next(10), kind = Next(4);
    const bool valid = table < L2RES_TABLE_COUNT && service < L2RES_SERVICE_COUNT;
    const u32 cell = valid ? table * 9 + service : 0;
    const auto callback =
        kind == 0 ? nullptr : CallbackOf(cell, std::make_integer_sequence<u32, 54>());
    // What the callback finds is registered before it can be called.
    if (valid) {
        g_registered[table][service] = kind == 0 ? 1 : 2;
    }
    u32 result = 0;
    if (kind == 1 &&
        (table == L2RES_TABLE_ICIB || table == L2RES_TABLE_ECIB || table == L2RES_TABLE_IPAT)) {
        const auto own = table == L2RES_TABLE_ICIB   ? g_api.icibRegister
                         : table == L2RES_TABLE_ECIB ? g_api.ecibRegister
                                                     : g_api.ipatRegister;
        result = own(service, callback);
    } else {
        result = g_api.notifyRegister(table, service, callback);
    }
    REQUIRE(result == (valid ? 0u : 1u));
}

void RegisterHook()
{
    static const L2ResHook kHooks[] = {
        reinterpret_cast<L2ResHook>(Count<0>), reinterpret_cast<L2ResHook>(Count<1>),
        reinterpret_cast<L2ResHook>(Count<2>), reinterpret_cast<L2ResHook>(Translate),
        reinterpret_cast<L2ResHook>(Count<4>), reinterpret_cast<L2ResHook>(Count<5>),
    };
    const u32 type = Next(7);
    const bool silence = Next(4) == 0;
    const bool valid = type < L2RES_HOOK_COUNT;
    REQUIRE(g_api.hookRegister(type, silence || !valid ? nullptr : kHooks[type]) ==
            (valid ? 0u : 1u));
}

/* Plausible, full, and nonsense: used above total, nothing at all, idle that does not add up. */
void SetCounts()
{
    static const Counts kRows[] = {{8, 3, 5, 0}, {8, 8, 0, 0},       {8, 9, 0, 0},
                                   {0, 0, 0, 0}, {8, 3, 0, 0},       {8, 8, 8, 0},
                                   {8, 8, 0, 7}, {~0u, ~0u, ~0u, 0}, {~0u, 0, 1, 0}};
    g_counts[Next(L2RES_HOOK_COUNT)] = kRows[Next(std::size(kRows))];
    g_serviceFailures = Next(4) == 0 ? Next(64) : 0;
    g_vlanResult = Next(8) == 0 ? 9 : 0;
}

bool HasAlarm(u32 type)
{
    return type < L2RES_ALARM_COUNT && type != 3;
}

void ExceedCheck()
{
    const u32 type = Next(8);
    const bool reads = HasAlarm(type) && QorL2ResGetHook(type) != nullptr;
    g_attempts = 0;
    g_checks.push_back(nullptr);
    const u32 result = g_api.exceedCheckAndAlarm(type);
    g_checks.pop_back();
    const bool full = reads && g_reported.result == 0 && g_reported.used == g_reported.total;
    REQUIRE(g_attempts == (full ? 1u : 0u));
    REQUIRE(result == (!HasAlarm(type) || (full && (g_serviceFailures & 0x1F) != 0) ? 1u : 0u));
}

void Probe(u32 type)
{
    const bool reads = HasAlarm(type) && g_raised[type] && QorL2ResGetHook(type) != nullptr;
    g_attempts = 0;
    g_checks.push_back(nullptr);
    QorL2ResProbeProc(type);
    g_checks.pop_back();
    unsigned attempts = 0;
    if (reads && g_reported.result == 0) {
        if (++g_cycles[type] == 120) {
            g_cycles[type] = 0;
            ++attempts;
        }
        if (g_reported.used < g_reported.total) {
            g_cycles[type] = 0;
            ++attempts;
        }
    }
    REQUIRE(g_attempts == attempts);
}

void ProbeOften()
{
    const u32 type = Next(7);
    for (u32 left = Next(4) == 0 ? 120 : 1; left > 0; --left) {
        Probe(type);
    }
}

/* What was ever assigned, with its direction: to be released in the end. What is booked when is for
   the VLAN edit tests, here only the tables' consistency. */
using VlanFields = std::array<u32, sizeof(VlanEditInfo) / sizeof(u32)>;
std::set<std::pair<u32, VlanFields>> g_assigned;

VlanEditInfo NextVlanInfo()
{
    return {Next(14), Next(9), 1 + Next(5), 1 + Next(2), 1, 1, Next(5), 0, 1, 1};
}

void AssignVlan()
{
    const u32 flag = Next(4);
    VlanEditInfo info = NextVlanInfo();
    const bool valid = (flag == 1 || flag == 2) && QorL2ResCheckVlanEditInfo(&info) == 1;
    if (g_assigned.size() > 120) { // fewer than there is place for
        return;
    }
    g_vlanInfo = &info;
    u16 profile = 99;
    REQUIRE(g_api.assignVlanEditProfile(&info, &profile, flag) == (valid ? 0u : 1u));
    REQUIRE(valid ? profile < 64 : profile == 99);
    if (valid) {
        g_assigned.insert({flag, std::bit_cast<VlanFields>(info)});
    }
}

void ReleaseVlan(VlanEditInfo info, u32 flag)
{
    g_vlanInfo = &info;
    const u32 result = g_api.freeVlanEditProfile(&info, flag);
    const bool valid = (flag == 1 || flag == 2) && info.servType >= 1 && info.servType <= 12;
    REQUIRE(valid || result == 1);
}

void ReleaseVlanNext()
{
    const u32 flag = Next(4);
    ReleaseVlan(NextVlanInfo(), flag);
}

void Query()
{
    const u32 entry = Next(kEntries);
    L2ResQueryEntry entries[L2RES_QUERY_MAX];
    u16 count = 99;
    REQUIRE(QorL2ResIcibGet(&kKeys[entry].icib, entries, &count) == 0);
    const model::List *list = g_icib.List(entry);
    REQUIRE(count == g_icib.model.records.count(entry) + (list ? list->waiters.size() : 0));
}

/* Those that foreign code may call as well, then the worker's and what callers serialise. */
void (*const kOperations[])() = {GetToken, GetToken,   GetToken,     FreeToken,      FreeToken,
                                 Register, SetCounts,  RegisterHook, ExceedCheck,    Query,
                                 Walk,     ProbeOften, AssignVlan,   ReleaseVlanNext};
constexpr u32 kInnerOperations = 10;

void InnerOperation()
{
    kOperations[Next(kInnerOperations)]();
}

/* ---- The whole of the module against the whole of the model ---- */

bool Same(const L2ResOpRecord &record, const model::Record &expected)
{
    return record.Stamp == expected.stamp && record.Op == expected.op &&
           record.SrvType == expected.type && record.Used == expected.used;
}

/* Their data, in bytes. */
u64 CompareLists(const Twin &twin)
{
    u64 bytes = 0;
    for (const auto &[entry, list] : twin.model.lists) {
        const L2ResWaitList *waiting = twin.side.Waiting(kKeys[entry]);
        REQUIRE(waiting != nullptr && waiting->reOpNum == list.waiters.size());
        REQUIRE(waiting->walkCountdown == list.countdown);
        for (u16 i = 0; i < waiting->reOpNum; ++i) {
            REQUIRE(Same(waiting->entry[i].op, list.waiters[i].record));
            REQUIRE(waiting->entry[i].srvType == list.waiters[i].service);
            bytes += list.waiters[i].data.size();
        }
    }
    return bytes;
}

u64 g_bytesAtRest;

consistency::Census Look()
{
    consistency::Census census;
    const std::string problem = consistency::Problem(&census);
    fputs(problem.c_str(), stderr);
    REQUIRE(problem.empty());
    return census;
}

void Compare()
{
    const consistency::Census census = Look();
    u64 bytes = 0;
    for (const Twin *twin : {&g_icib, &g_ipat}) {
        REQUIRE(census.records[!twin->side.icib] == twin->model.records.size());
        REQUIRE(census.lists[!twin->side.icib] == twin->model.lists.size());
        for (const auto &[entry, record] : twin->model.records) {
            const L2ResOpRecord *stored = twin->side.Record(kKeys[entry]);
            REQUIRE(stored != nullptr && Same(*stored, record));
        }
        bytes += CompareLists(*twin);
    }
    REQUIRE(census.moduleBytes == g_bytesAtRest + bytes);
    REQUIRE(g_openObjects == 0);
    for (u32 type = 0; type < L2RES_ALARM_COUNT; ++type) {
        REQUIRE(g_qorl2ResAlarmTbl[type].raised == (g_raised[type] ? 1u : 0u));
        REQUIRE(g_qorl2ResAlarmTbl[type].resendCount == g_cycles[type]);
    }
}

/* ---- Between inputs ---- */

void ReleaseEverything()
{
    for (u32 entry = 0; entry < kEntries; ++entry) {
        Free(&g_icib, entry, L2RES_OP_DELETE);
        model::List *list = g_ipat.List(entry);
        if (list != nullptr && list->waiters.size() == L2RES_WAITERS_MAX) {
            kIpat.ShortenFullList(kKeys[entry]);
            list->waiters.pop_back();
        }
        for (int i = 0; i < L2RES_WAITERS_MAX; ++i) {
            Free(&g_ipat, entry, L2RES_OP_DELETE);
        }
    }
    for (int i = 0; i < 3; ++i) {
        Walk();
    }
    g_vlanResult = 0;
    REQUIRE(g_api.hookRegister(3, reinterpret_cast<L2ResHook>(Translate)) == 0);
    for (const auto &[flag, fields] : g_assigned) {
        ReleaseVlan(std::bit_cast<VlanEditInfo>(fields), flag);
    }
    g_assigned.clear();
    Compare();
    REQUIRE(Look().empty());
}

/* What has no operation that undoes it. */
void Forget()
{
    memset(g_qorl2resRegTbl, 0, sizeof g_qorl2resRegTbl);
    memset(g_qorl2ResHookTbl, 0, sizeof g_qorl2ResHookTbl);
    memset(g_iveEditProfileItem, 0, sizeof g_iveEditProfileItem);
    memset(g_eveEditProfileItem, 0, sizeof g_eveEditProfileItem);
    memset(g_registered, 0, sizeof g_registered);
    memset(g_counts, 0, sizeof g_counts);
    for (u32 type = 0; type < L2RES_ALARM_COUNT; ++type) {
        g_qorl2ResAlarmTbl[type].raised = g_qorl2ResAlarmTbl[type].resendCount = 0;
        g_raised[type] = false;
        g_cycles[type] = 0;
    }
    g_serviceFailures = 0;
}

/* ---- Services that cost little and check what they get ---- */

u32 g_objectType, g_objectKind;

u32 Fails(u32 operation)
{
    return g_serviceFailures >> operation & 1;
}

void CheckText(u32, u32, const char *text)
{
    REQUIRE(strlen(text) < 1024);
}

void UseCheapServices()
{
    auto &fakes = services::Get();
    fakes.dbgLog.print = CheckText;
    fakes.blackBox.print = CheckText;
    fakes.log.objCreate = [](u32, u32, L2ResAlarmHandle *object) -> u32 {
        ++g_attempts;
        *object = 77;
        g_openObjects += Fails(0) == 0;
        return Fails(0);
    };
    fakes.time.getSysTime = [](L2ResAlarmTime *) -> u32 { return Fails(1); };
    fakes.log.setAlarmComAttr = [](L2ResAlarmHandle object, L2ResAlarmAttr *attr) -> u32 {
        REQUIRE(object == 77 && attr->time != nullptr);
        g_objectKind = attr->alarmKind;
        for (u32 type = 0; type < L2RES_ALARM_COUNT; ++type) {
            if (g_qorl2ResAlarmTbl[type].tableAlarmCode == attr->tableAlarmCode) {
                g_objectType = type;
            }
        }
        return Fails(2);
    };
    fakes.log.addPara = [](L2ResAlarmHandle, u32, u32, const void *) -> u32 { return Fails(3); };
    fakes.log.send = [](L2ResAlarmHandle) -> u32 {
        --g_openObjects;
        if (Fails(4) == 0) {
            g_raised[g_objectType] = g_objectKind == L2RES_ALARM_RAISE;
        }
        return Fails(4);
    };
    fakes.log.objFree = [](L2ResAlarmHandle) -> u32 {
        --g_openObjects;
        return Fails(5);
    };
}

} // namespace

void RunOpStream(const u8 *data, size_t size)
{
    static const bool started = [] {
        UseCheapServices();
        REQUIRE(services::StartModule() == 0);
        REQUIRE(Look().empty());
        g_bytesAtRest = Look().moduleBytes;
        return true;
    }();
    (void)started;
    g_next = data;
    g_end = data + size;
    while (g_next != g_end) {
        kOperations[Next(std::size(kOperations))]();
        Compare();
    }
    ReleaseEverything();
    Forget();
}
