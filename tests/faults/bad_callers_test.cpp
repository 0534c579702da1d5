// Callers that ask for nonsense, services that are slow: nothing of it may leave a trace, stop another
// caller or reach the engine.
#include <gtest/gtest.h>

#include <thread>

#include "alarms/exceed_check.h"
#include "faults/consistency.h"
#include "l2rsm_component.h"
#include "support/services.h"

namespace {

using consistency::Census;

constexpr u32 kWild = 0xFFFFFFFF;
const L2RsmFunVtbl &g_api = g_l2RsmFunVtbl;
const Key g_key = MakeKey();

Census Look()
{
    Census census;
    EXPECT_EQ(consistency::Problem(&census), "");
    return census;
}

/* All that a call may leave behind in the open. */
std::string Image()
{
    std::string image;
    const auto add = [&image](const auto &table) {
        image.append(reinterpret_cast<const char *>(&table), sizeof table);
    };
    add(g_qorl2resRegTbl), add(g_qorl2ResHookTbl), add(g_qorl2ResAlarmTbl);
    add(g_iveEditProfileItem), add(g_eveEditProfileItem);
    add(g_iveEditCommandInfo), add(g_eveEditCommandInfo);
    return image;
}

/* To be called right after the call. */
void Without(const char *what, u32 result, u32 expected = 1)
{
    static const std::string image = Image();
    static const u64 bytes = Look().moduleBytes;
    EXPECT_EQ(result, expected) << what;
    EXPECT_EQ(Image(), image) << what;
    const Census census = Look();
    EXPECT_TRUE(census.empty()) << what;
    EXPECT_EQ(census.moduleBytes, bytes) << what;
}

/* The first call to Without sees the state that all others must leave. */
void Start()
{
    services::StartWorkingModule();
    Without("anything", 1);
}

TEST(BadCallers, ArgumentsBeyondTheirLimitsAreRefusedWithoutATrace)
{
    Start();
    void *out = nullptr;
    Without("interface for nobody", g_api.queryInterface(nullptr, 3016, nullptr));
    for (u32 wild : {9u, 14u, kWild}) {
        Without("interface", g_api.queryInterface(nullptr, wild, &out));
        Without("hook", g_api.hookRegister(wild, nullptr));
        Without("ICIB service", g_api.icibRegister(wild, nullptr));
        Without("ECIB service", g_api.ecibRegister(wild, nullptr));
        Without("IPAT service", g_api.ipatRegister(wild, nullptr));
        Without("table", g_api.notifyRegister(wild, 0, nullptr));
        Without("service of a table", g_api.notifyRegister(0, wild, nullptr));
        Without("alarm", g_api.exceedCheckAndAlarm(wild));
        Without("start", QorL2ResAlarmStart(wild, 1));
        Without("resume", QorL2ResAlarmResume(wild, 1));
        Without("count", QorL2ResExceedCheck(wild, nullptr), 0);
    }
    Without("hook 6", g_api.hookRegister(6, nullptr));
    Without("table 6", g_api.notifyRegister(6, 0, nullptr));
    Without("alarm 3", g_api.exceedCheckAndAlarm(3));
    Without("alarm 6", g_api.exceedCheckAndAlarm(6));
}

TEST(BadCallers, RequestsForTokensAreRefusedWithoutATrace)
{
    Start();
    for (const Side *side : kSides) {
        L2ResTokenReq req = side->Request({1, 1, 1}, g_key);
        for (u32 op : {0u, 1u, 2u, 3u, 4u, kWild}) {
            for (u32 service : {0u, 8u, 9u, kWild}) {
                const u32 nobodys = side->freeToken(service, op, &req);
                Without("nobody's token", nobodys, side->icib ? 1 : 0);
                if (op < 1 || op > 3 || service > 8) {
                    Without("beyond the limits", side->getToken(service, op, &req));
                }
            }
        }
    }
}

TEST(BadCallers, VlanEditsAreRefusedWithoutATrace)
{
    Start();
    VlanEditInfo good = {5, 2, 1, 1, 1, 1, 0, 0, 1, 1};
    const u32 limits[] = {13, 8, 5, 5, 5, 5, 4, 4, 5, 5};
    u16 profile = 0;
    for (u32 flag : {0u, 1u, 2u, 3u, kWild}) {
        Without("no record", g_api.assignVlanEditProfile(nullptr, &profile, flag));
        Without("no place", g_api.assignVlanEditProfile(&good, nullptr, flag));
        Without("no record to free", g_api.freeVlanEditProfile(nullptr, flag));
        const bool known = flag == 1 || flag == 2;
        Without("not assigned", g_api.freeVlanEditProfile(&good, flag), known ? 0 : 1);
        for (u32 field = 0; field < 10; ++field) {
            for (u32 value : {limits[field], kWild}) {
                VlanEditInfo bad = good;
                reinterpret_cast<u32 *>(&bad)[field] = value;
                Without("a field", g_api.assignVlanEditProfile(&bad, &profile, flag));
            }
        }
    }
}

TEST(BadCallers, MayHandInAnyAmountOfDataOrNone)
{
    services::StartWorkingModule();
    const u64 before = Look().moduleBytes;
    EXPECT_EQ(kIpat.Get(L2RES_OP_ADD, {8, 1, 1}, g_key), 0u);
    const std::string data(65535, 'd'); // as much as a length can say
    const struct {
        u16 length;
        const void *data;
        u64 waiters;
    } rows[] = {{65535, data.data(), 1}, {0, nullptr, 2}, {0, data.data(), 3}, {100, nullptr, 3}};
    for (const auto &row : rows) {
        L2ResTokenReq req = {~0ULL, 0xFFFF, &g_key.ipat, row.length, row.data};
        EXPECT_EQ(g_api.getIpatToken(8, L2RES_OP_DELETE, &req), 4u);
        EXPECT_EQ(Look().waiters, row.waiters);
        EXPECT_EQ(Look().moduleBytes, before + data.size());
    }
}

/* ---- Foreign code that takes its time ---- */

u32 g_used, g_slowCalls;

/* Another component works on the same entries meanwhile. Whoever holds a lock here never returns. */
u32 TakeTime()
{
    ++g_slowCalls;
    std::thread([] {
        for (const Side *side : kSides) {
            for (u32 op : {L2RES_OP_ADD, L2RES_OP_UPDATE, L2RES_OP_DELETE}) {
                (void)side->Get(op, {8, 9, 1}, g_key);
            }
            (void)side->Free(L2RES_OP_DELETE, g_key);
        }
        (void)g_api.exceedCheckAndAlarm(L2RES_ALARM_ECIB);
    }).join();
    return QOR_OK;
}

u32 SlowCount(u32 *total, u32 *used, u32 *idle)
{
    *total = 10;
    *used = g_used;
    *idle = 10 - g_used;
    return TakeTime();
}

TEST(SlowForeignCode, StopsNobodyElse)
{
    services::StartWorkingModule();
    services::Get().during = [](const std::string &operation) {
        if (operation == "send") {
            (void)TakeTime();
        }
    };
    g_api.notifyRegister(L2RES_TABLE_SEM, 1, [](u32, void *, void *) { return TakeTime(); });
    g_api.hookRegister(L2RES_HOOK_SEM, reinterpret_cast<L2ResHook>(SlowCount));
    const L2ResVlanTranslationHook translate = [](auto...) { return TakeTime(); };
    g_api.hookRegister(L2RES_HOOK_VLAN_TRANSLATION, reinterpret_cast<L2ResHook>(translate));

    g_used = 10;
    EXPECT_EQ(g_api.exceedCheckAndAlarm(L2RES_ALARM_SEM), 0u);
    EXPECT_EQ(g_slowCalls, 2u) << "count hook, send";
    g_used = 5;
    QorL2ResProbeProc(L2RES_ALARM_SEM);
    EXPECT_EQ(g_slowCalls, 5u) << "count hook, send, idle callback";
    VlanEditInfo info = {5, 2, 1, 1, 1, 1, 0, 0, 1, 1};
    u16 profile = 0;
    EXPECT_EQ(g_api.assignVlanEditProfile(&info, &profile, L2RES_VLAN_EGRESS), 0u);
    EXPECT_EQ(g_api.freeVlanEditProfile(&info, L2RES_VLAN_EGRESS), 0u);
    EXPECT_EQ(g_slowCalls, 7u) << "translations";
    EXPECT_TRUE(Look().empty());
}

} // namespace
