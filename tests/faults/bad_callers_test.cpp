// Callers that ask for nonsense, hooks that report it, services that are slow: nothing of it may
// leave a trace, stop another caller or reach the engine.
#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "alarms/exceed_check.h"
#include "faults/consistency.h"
#include "l2rsm_component.h"
#include "support/journal.h"
#include "support/services.h"

namespace {

using consistency::Census;

constexpr u32 kWild = 0xFFFFFFFF;
const L2RsmFunVtbl &g_api = g_l2RsmFunVtbl;
L2ResIcibKey g_icibKey = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
L2ResIpatKey g_ipatKey = {1, 2};

L2ResTokenReq Request(const void *key, u16 type = 1, u64 stamp = 1)
{
    return {stamp, type, key, 0, nullptr};
}

u32 Silent(u32, void *, void *)
{
    return QOR_OK;
}

void AnyHook()
{
}

Census Look()
{
    Census census;
    EXPECT_EQ(consistency::Problem(&census), "");
    return census;
}

/* Everything a call may leave behind in the open. */
std::string Image()
{
    const auto bytes = [](const auto &table) {
        return std::string(reinterpret_cast<const char *>(&table), sizeof table);
    };
    return bytes(g_qorl2resRegTbl) + bytes(g_qorl2ResHookTbl) + bytes(g_qorl2ResAlarmTbl) +
           bytes(g_iveEditProfileItem) + bytes(g_eveEditProfileItem) + bytes(g_iveEditCommandInfo) +
           bytes(g_eveEditCommandInfo);
}

struct Call {
    std::string what;
    std::function<u32()> act;
    u32 result;
};

void AddTokenCalls(std::vector<Call> *calls)
{
    const struct {
        const char *name;
        const void *key;
        u32 (*get)(u32, u32, L2ResTokenReq *), (*free)(u32, u32, L2ResTokenReq *);
        u32 freeOfNothing;
    } sides[] = {{"ICIB", &g_icibKey, g_api.getIcibToken, g_api.freeIcibToken, 1},
                 {"IPAT", &g_ipatKey, g_api.getIpatToken, g_api.freeIpatToken, 0}};
    for (const auto &side : sides) {
        const std::string name = side.name;
        const std::pair<u32, u32> arguments[] = {{0, 0}, {0, 4},     {0, kWild},
                                                 {9, 1}, {kWild, 3}, {kWild, kWild}};
        for (const auto &pair : arguments) {
            calls->push_back(
                {name + " of " + std::to_string(pair.first) + "/" + std::to_string(pair.second),
                 [=] {
                     auto req = Request(side.key);
                     return side.get(pair.first, pair.second, &req);
                 },
                 1});
        }
        for (u32 op : {0u, 1u, 2u, 3u, 4u, kWild}) {
            calls->push_back(
                {name + " without a request", [=] { return side.get(1, op, nullptr); }, 1});
            calls->push_back({name + " without a key",
                              [=] {
                                  auto req = Request(nullptr);
                                  return side.get(1, op, &req) & side.free(1, op, &req);
                              },
                              1});
            calls->push_back(
                {name + " freed without a request", [=] { return side.free(1, op, nullptr); }, 1});
            calls->push_back({name + " freed that nobody holds",
                              [=] {
                                  auto req = Request(side.key);
                                  return side.free(kWild, op, &req);
                              },
                              side.freeOfNothing});
        }
    }
}

void AddVlanCalls(std::vector<Call> *calls)
{
    static VlanEditInfo good = {5, 2, 1, 1, 1, 1, 0, 0, 1, 1};
    static VlanEditInfo bad[20];
    static u16 profile;
    for (u32 flag : {0u, 1u, 2u, 3u, kWild}) {
        const std::string name = "VLAN edit " + std::to_string(flag);
        const bool known = flag == 1 || flag == 2;
        calls->push_back(
            {name, [=] { return g_api.assignVlanEditProfile(nullptr, &profile, flag); }, 1});
        calls->push_back(
            {name, [=] { return g_api.assignVlanEditProfile(&good, nullptr, flag); }, 1});
        calls->push_back({name, [=] { return g_api.freeVlanEditProfile(nullptr, flag); }, 1});
        calls->push_back(
            {name, [=] { return g_api.freeVlanEditProfile(&good, flag); }, known ? 0u : 1u});
        const u32 limits[] = {13, 8, 5, 5, 5, 5, 4, 4, 5, 5};
        for (u32 field = 0; field < 20; ++field) { // each beyond its limit, and far beyond
            bad[field] = good;
            reinterpret_cast<u32 *>(&bad[field])[field % 10] = field < 10 ? limits[field] : kWild;
            calls->push_back(
                {name + " field " + std::to_string(field),
                 [=] { return g_api.assignVlanEditProfile(&bad[field], &profile, flag); }, 1});
        }
    }
}

std::vector<Call> BadCalls()
{
    static void *out;
    std::vector<Call> calls = {
        {"interface for nobody", [] { return g_api.queryInterface(nullptr, 3016, nullptr); }, 1},
        {"unknown interface", [] { return g_api.queryInterface(nullptr, kWild, &out); }, 1},
        {"hook 6", [] { return g_api.hookRegister(6, AnyHook); }, 1},
        {"hook far away", [] { return g_api.hookRegister(kWild, AnyHook); }, 1},
        {"ICIB service 9", [] { return g_api.icibRegister(9, Silent); }, 1},
        {"ECIB service 9", [] { return g_api.ecibRegister(9, Silent); }, 1},
        {"IPAT service far away", [] { return g_api.ipatRegister(kWild, Silent); }, 1},
        {"table 6", [] { return g_api.notifyRegister(6, 0, Silent); }, 1},
        {"both far away", [] { return g_api.notifyRegister(kWild, kWild, Silent); }, 1},
        {"alarm 3", [] { return g_api.exceedCheckAndAlarm(3); }, 1},
        {"alarm 6", [] { return g_api.exceedCheckAndAlarm(6); }, 1},
        {"alarm far away", [] { return g_api.exceedCheckAndAlarm(kWild); }, 1},
        {"start far away", [] { return QorL2ResAlarmStart(kWild, 1); }, 1},
        {"resume at the limit", [] { return QorL2ResAlarmResume(6, 1); }, 1},
        {"count of no table", [] { return QorL2ResExceedCheck(kWild, nullptr); }, 0},
        {"query without a key", [] { return QorL2ResIcibGet(nullptr, nullptr, nullptr); }, 1},
        {"query into nothing", [] { return QorL2ResIcibGet(&g_icibKey, nullptr, nullptr); }, 1},
    };
    AddTokenCalls(&calls);
    AddVlanCalls(&calls);
    return calls;
}

TEST(BadCallers, AreRefusedWithoutATrace)
{
    services::StartWorkingModule();
    const Census before = Look();
    for (const Call &call : BadCalls()) {
        const std::string image = Image();
        EXPECT_EQ(call.act(), call.result) << call.what;
        EXPECT_EQ(Image(), image) << call.what;
        EXPECT_EQ(Look().moduleBytes, before.moduleBytes) << call.what;
        EXPECT_TRUE(Look().empty()) << call.what;
    }
}

TEST(BadCallers, MayHandInAnyAmountOfDataOrNone)
{
    services::StartWorkingModule();
    const u64 before = Look().moduleBytes;
    auto holder = Request(&g_ipatKey);
    EXPECT_EQ(g_api.getIpatToken(8, L2RES_OP_ADD, &holder), 0u);
    const std::string data(65535, 'd'); // as much as a length can say
    const struct {
        u16 length;
        const void *data;
        u64 waiters;
    } rows[] = {{65535, data.data(), 1}, {0, nullptr, 2}, {0, data.data(), 3}, {100, nullptr, 3}};
    for (const auto &row : rows) {
        L2ResTokenReq req = {~0ULL, 0xFFFF, &g_ipatKey, row.length, row.data};
        EXPECT_EQ(g_api.getIpatToken(8, L2RES_OP_DELETE, &req), 4u);
        EXPECT_EQ(Look().waiters, row.waiters);
        EXPECT_EQ(Look().moduleBytes, before + data.size());
    }
}

/* ---- Hooks ---- */

struct {
    u32 total, used, idle, result;
} g_counts;

u32 Count(u32 *total, u32 *used, u32 *idle)
{
    *total = g_counts.total;
    *used = g_counts.used;
    *idle = g_counts.idle;
    return g_counts.result;
}

TEST(BadHooks, DecideNothingButWhatTheirCountsSay)
{
    services::StartWorkingModule();
    g_api.notifyRegister(L2RES_TABLE_SEM, 1, [](u32 event, void *, void *) -> u32 {
        journal::Write(journal::kNotify, "idle " + std::to_string(event));
        return 0;
    });
    g_api.hookRegister(L2RES_HOOK_SEM, reinterpret_cast<L2ResHook>(Count));
    constexpr u32 kType = L2RES_ALARM_SEM;
    const struct {
        const char *what;
        u32 total, used, idle, result;
        u32 raised, raisedAfterProbe; // the latter from a raised alarm
        size_t told;
    } rows[] = {
        {"used above total", 10, 11, 0, 0, 0, 1, 0},
        {"used far above total", 10, kWild, kWild, 0, 0, 1, 0},
        {"nothing at all", 0, 0, 0, 0, 1, 1, 0},
        {"no idle ones, but room", 10, 5, 0, 0, 0, 0, 0},
        {"more idle ones than entries", 10, 5, kWild, 0, 0, 0, 1},
        {"full, with idle ones", 10, 10, 10, 0, 1, 1, 0},
        {"full, but the counts do not count", 10, 10, 0, kWild, 0, 1, 0},
        {"room, but the counts do not count", 10, 5, 5, 1, 0, 1, 0},
    };
    for (const auto &row : rows) {
        g_counts = {row.total, row.used, row.idle, row.result};
        g_qorl2ResAlarmTbl[kType].raised = 0;
        EXPECT_EQ(g_api.exceedCheckAndAlarm(kType), 0u) << row.what;
        EXPECT_EQ(g_qorl2ResAlarmTbl[kType].raised, row.raised) << row.what;
        g_qorl2ResAlarmTbl[kType].raised = 1;
        journal::Clear();
        QorL2ResProbeProc(kType);
        EXPECT_EQ(g_qorl2ResAlarmTbl[kType].raised, row.raisedAfterProbe) << row.what;
        EXPECT_EQ(journal::Only(journal::kNotify).size(), row.told) << row.what;
    }
}

/* ---- Foreign code that takes its time ---- */

u32 g_slowCalls;

/* Another component works on the same entries meanwhile. Whoever holds a lock here never returns. */
u32 TakeTime()
{
    ++g_slowCalls;
    std::thread([] {
        auto icib = Request(&g_icibKey, 9), ipat = Request(&g_ipatKey, 9);
        for (u32 op : {L2RES_OP_ADD, L2RES_OP_UPDATE, L2RES_OP_DELETE}) {
            (void)g_api.getIcibToken(8, op, &icib);
            (void)g_api.getIpatToken(8, op, &ipat);
        }
        (void)g_api.freeIcibToken(8, L2RES_OP_DELETE, &icib);
        (void)g_api.freeIpatToken(8, L2RES_OP_DELETE, &ipat);
        (void)g_api.exceedCheckAndAlarm(L2RES_ALARM_ECIB);
    }).join();
    return QOR_OK;
}

u32 SlowCallback(u32, void *, void *)
{
    return TakeTime();
}

u32 SlowCount(u32 *total, u32 *used, u32 *idle)
{
    (void)Count(total, used, idle);
    return TakeTime();
}

u32 SlowTranslation(const VlanEditInfo *, u16, u16, u32)
{
    return TakeTime();
}

void AwaitAndFree(u32 table)
{
    const bool icib = table == L2RES_TABLE_ICIB;
    auto req = icib ? Request(&g_icibKey, 2) : Request(&g_ipatKey, 2);
    (void)(icib ? g_api.getIcibToken : g_api.getIpatToken)(1, L2RES_OP_DELETE, &req);
    (void)(icib ? g_api.freeIcibToken : g_api.freeIpatToken)(1, L2RES_OP_DELETE, &req);
}

TEST(SlowForeignCode, StopsNobodyElse)
{
    services::StartWorkingModule();
    for (u32 table : {L2RES_TABLE_ICIB, L2RES_TABLE_IPAT, L2RES_TABLE_SEM}) {
        g_api.notifyRegister(table, 1, SlowCallback);
    }
    g_api.hookRegister(L2RES_HOOK_VLAN_TRANSLATION, reinterpret_cast<L2ResHook>(SlowTranslation));
    g_api.hookRegister(L2RES_HOOK_SEM, reinterpret_cast<L2ResHook>(SlowCount));
    static VlanEditInfo info = {5, 2, 1, 1, 1, 1, 0, 0, 1, 1};
    const struct {
        const char *what;
        void (*act)();
        u32 calls;
    } rows[] = {
        {"ICIB callback", [] { AwaitAndFree(L2RES_TABLE_ICIB); }, 1},
        {"IPAT callback", [] { AwaitAndFree(L2RES_TABLE_IPAT); }, 1},
        {"count hook", [] { (void)g_api.exceedCheckAndAlarm(L2RES_ALARM_SEM); }, 1},
        {"count hook of the probe, clear, idle callback",
         [] {
             g_counts.used = 5;
             QorL2ResProbeProc(L2RES_ALARM_SEM);
         },
         3},
        {"alarm service", [] { (void)QorL2ResAlarmStart(L2RES_ALARM_SEM, 1); }, 1},
        {"VLAN hook",
         [] {
             u16 profile = 0;
             (void)g_api.assignVlanEditProfile(&info, &profile, L2RES_VLAN_EGRESS);
             (void)g_api.freeVlanEditProfile(&info, L2RES_VLAN_EGRESS);
         },
         2},
    };
    g_counts = {10, 10, 10, 0};
    for (const auto &row : rows) {
        g_slowCalls = 0;
        row.act();
        EXPECT_GE(g_slowCalls, row.calls) << row.what;
        services::Get().during = [](const std::string &operation) {
            if (operation == "send") { // from the second row on
                (void)TakeTime();
            }
        };
    }
    (void)Look();
}

} // namespace
