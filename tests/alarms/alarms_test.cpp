// Table-full alarms: descriptions, emission with each operation failing, and every transition.
#include "alarms/alarm_emission.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <utility>

#include "alarms/exceed_check.h"
#include "frame/init.h"
#include "frame/service_tables.h"
#include "l2rsm_alarms.h"
#include "l2rsm_registry.h"
#include "support/faults.h"
#include "support/journal.h"
#include "support/services.h"

namespace {

using faults::Op;
using journal::Join;

struct Row {
    u32 type, notifyTableId, hookType, code;
    const char *text;
};

const Row kRows[] = {
    {0, 0, 0, 581,
     "The number of ICIB_PP entries exceeded the specification of the forwarding engine resources."},
    {1, 1, 1, 587,
     "The number of ECIB entries exceeded the specification of the forwarding engine resources, or "
     "a hash conflict occurred during delivery of ECIB entries to the chip."},
    {2, 1, 2, 588,
     "The number of ECIB_EXT entries exceeded the specification of the forwarding engine resources, "
     "or a hash conflict occurred during delivery of ECIB_EXT entries to the chip."},
    {4, 4, 4, 170,
     "The number of LEM entries exceeded the specification of the forwarding engine resources"},
    {5, 5, 5, 583,
     "The number of SEM entries exceeded the specification of the forwarding engine resources"},
};

struct Counts {
    u32 total, used, idle, result;
};

Counts g_engine[L2RES_HOOK_COUNT];

template <u32 Type> u32 CountHook(u32 *total, u32 *used, u32 *idle)
{
    journal::Write(journal::kHook, journal::Join("count", Type));
    EXPECT_EQ(*total + *used + *idle, 0u) << "counts come in cleared";
    *total = g_engine[Type].total;
    *used = g_engine[Type].used;
    *idle = g_engine[Type].idle;
    return g_engine[Type].result;
}

template <u32 Table> u32 Notify(u32 event, void *record, void *data)
{
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(data, nullptr);
    journal::Write(journal::kNotify, journal::Join("event", event, "row", Table));
    return 0;
}

// Raises and clears in the order in which they were handed to the service: "raise 581 clear 581 ".
std::string Sent()
{
    std::string sent;
    for (const std::string &line : journal::Only(journal::kAlarm)) {
        if (const auto code = line.find(" code "); code != std::string::npos) {
            const bool raise = line.find(" kind 1/255 ") != std::string::npos;
            sent += (raise ? "raise " : "clear ") + line.substr(code + 6) + " ";
        }
    }
    return sent;
}

template <u32... Numbers> void Lend(std::integer_sequence<u32, Numbers...>)
{
    (QorL2ResHookRegister(Numbers, reinterpret_cast<L2ResHook>(CountHook<Numbers>)), ...);
    (QorL2ResNotifyRegister(Numbers, 6, Notify<Numbers>), ...);
}

class Alarms : public testing::Test {
protected:
    void SetUp() override
    {
        services::StartWorkingModule();
        // 3 is the translation hook's place: nobody may call it as a count hook.
        Lend(std::make_integer_sequence<u32, 6>());
        journal::Clear();
    }
};

TEST_F(Alarms, CarryTheirParametersToTheLogService)
{
    services::Get().slot = 12;
    QorL2ResGetQorInstInfo(0, 0);
    u32 object = 0;
    for (const Row &row : kRows) {
        for (const u32 kind : {1u, 2u}) {
            journal::Clear();
            const auto act = kind == 1 ? QorL2ResAlarmStart : QorL2ResAlarmResume;
            EXPECT_EQ(act(row.type, 8192 + row.type), 0u);
            const std::string handle = std::to_string(++object) + " ";
            const std::string addPara = " | addPara " + handle, code = std::to_string(row.code);
            EXPECT_EQ(journal::Text(journal::kAlarm),
                      "objCreate 5 157163554 | getSysTime | setAlarmComAttr " + handle +
                          (kind == 1 ? "kind 1/255" : "kind 2/1") + " time 2 code " + code +
                          addPara + "25 7 slot 12" + addPara + "6 4 " +
                          std::to_string(8192 + row.type) + addPara + "6 4 " + code + addPara +
                          Join(25, strlen(row.text), row.text, "| send", object));
        }
    }
    journal::Clear();
    EXPECT_EQ(QorL2ResAlarmProc(1, 2, "d", 3), 0u);
    EXPECT_EQ(journal::Only(journal::kAlarm)[2], "setAlarmComAttr 11 kind 0/0 time 2 code 2");
}

// Emission with one step failing: what is still done, and whether the object is freed.
TEST_F(Alarms, ThatCannotBeSentAreGivenUpInOrder)
{
    const std::string steps =
        "objCreate getSysTime setAlarmComAttr addPara addPara addPara addPara ";
    struct {
        std::string operation;    // of the service; empty: the slot text cannot be made
        std::vector<u32> results; // of its calls
        std::string last;         // of the steps above
        const char *then;
    } const rows[] = {
        {"objCreate", {7}, "objCreate ", ""},
        {"", {}, "objCreate ", "objFree "},
        {"getSysTime", {7}, "getSysTime ", "objFree "},
        {"setAlarmComAttr", {7}, "setAlarmComAttr ", "objFree "},
        {"addPara", {7, 0}, "addPara ", "objFree "},
        {"addPara", {0, 7, 0}, "addPara ", "objFree "},
        {"addPara", {0, 0, 7, 0}, "addPara ", "objFree "},
        {"addPara", {0, 0, 0, 7}, "addPara ", "objFree "},
        {"send", {7}, "addPara ", "send "},
    };
    for (const auto &row : rows) {
        for (const u32 freeResult : {0u, 5u}) { // what freeing answers changes nothing
            services::Get().results = {{"objFree", {freeResult}}, {row.operation, row.results}};
            if (row.operation.empty()) {
                faults::Fail(Op::sprintf_s);
            }
            journal::Clear();
            EXPECT_EQ(QorL2ResAlarmProc(8192, 9, "ddd", 1), 1u) << row.operation;

            std::string done;
            for (const auto &entry : journal::Only(journal::kAlarm)) {
                done += entry.substr(0, entry.find(' ')) + " ";
            }
            EXPECT_EQ(done, steps.substr(0, steps.rfind(row.last) + row.last.size()) + row.then);
            const bool freeFails = freeResult != 0 && row.then == std::string("objFree ");
            EXPECT_EQ(journal::Only(journal::kLog).size(),
                      (row.operation.empty() ? 0u : 1u) + (freeFails ? 1u : 0u));
        }
    }
}

TEST_F(Alarms, AttributesOfOtherComponentsGetTheirTime)
{
    L2ResAlarmTime time = {};
    L2ResAlarmAttr attr = {2, 1, 0, 0, nullptr, 4, 77, 0};
    const L2ResAlarmAttr before = attr;
    services::Get().results["getSysTime"] = {1};
    EXPECT_EQ(QorL2ResLogSetIcibAlarmComAttr(8, &attr, &time), 1u);
    EXPECT_EQ(memcmp(&attr, &before, sizeof attr), 0);
    services::Get().results.clear();
    journal::Clear();
    EXPECT_EQ(QorL2ResLogSetIcibAlarmComAttr(8, &attr, &time), 0u);
    EXPECT_EQ(attr.time, &time);
    EXPECT_TRUE(journal::Is({"getSysTime", "setAlarmComAttr 8 kind 2/1 time 2 code 4"}));
}

TEST(AlarmDescriptions, FailAloneWhenACopyFails)
{
    for (unsigned copy = 1; copy <= 10; ++copy) { // into the record, into the entry, for each
        memset(g_qorl2ResAlarmTbl, 0, sizeof g_qorl2ResAlarmTbl);
        faults::Fail(Op::strcpy_s, copy, 34);
        const unsigned failing = (copy - 1) / 2;
        EXPECT_EQ(QorL2AlarmInit(), failing == 4 ? 34u : 0u);
        for (unsigned i = 0; i < 5; ++i) {
            const L2ResAlarmEntry &entry = g_qorl2ResAlarmTbl[kRows[i].type];
            EXPECT_EQ(entry.registered, i == failing ? 0u : 1u) << "copy " << copy;
            if (i == failing) {
                EXPECT_EQ(entry.notifyTableId + entry.hookType, 0u);
                EXPECT_EQ(entry.tableAlarmCode, copy % 2 == 0 ? kRows[i].code : 0u);
                EXPECT_STREQ(entry.description, "");
            }
        }
    }
    // Registering again keeps what belongs to the check and the probe.
    L2ResAlarmEntry other = {1, 2, "text", 3, 99, 98, 97};
    g_qorl2ResAlarmTbl[5] = {};
    g_qorl2ResAlarmTbl[5].raised = 1;
    g_qorl2ResAlarmTbl[5].resendCount = 50;
    EXPECT_EQ(QorL2ResAlarmInfoReg(5, &other), 0u);
    other.raised = 1;
    other.resendCount = 50;
    other.registered = 1;
    EXPECT_EQ(memcmp(&g_qorl2ResAlarmTbl[5], &other, sizeof other), 0);
    EXPECT_EQ(QorL2ResAlarmInfoReg(6, &other), 1u);
    EXPECT_EQ(QorL2ResAlarmInfoReg(5, nullptr), 1u);
}

// One exceed check: what it says, sends, answers and leaves.
TEST_F(Alarms, AreRaisedByTheExceedCheckWheneverTheTableIsFull)
{
    struct {
        const char *name;
        Counts counts;
        bool raises;
        u32 result; // of sending, too
    } const rows[] = {
        {"full", {4096, 4096, 0, 0}, true, 0},
        {"full, though idle entries are told", {4096, 4096, 9, 0}, true, 0},
        {"empty table without entries", {0, 0, 0, 0}, true, 0},
        {"room", {4096, 4095, 1, 0}, false, 0},
        {"more used than there are", {4096, 4097, 0, 0}, false, 0},
        {"hook fails", {4096, 4096, 0, 3}, false, 0},
        {"raise fails", {4096, 4096, 0, 0}, true, 1},
    };
    for (const auto &row : rows) {
        for (const Row &alarm : kRows) {
            for (const u32 raised : {0u, 1u}) {
                SCOPED_TRACE(Join(row.name, "type", alarm.type, "raised", raised));
                L2ResAlarmEntry &entry = g_qorl2ResAlarmTbl[alarm.type];
                entry.raised = raised;
                entry.resendCount = 17;
                g_engine[alarm.hookType] = row.counts;
                services::Get().results["send"] = {row.result * 2};
                journal::Clear();
                EXPECT_EQ(QorL2ResExceedCheckAndAlarm(alarm.type), row.result);

                const std::string type = std::to_string(alarm.type);
                const std::string total = std::to_string(row.counts.total);
                std::string lines = "log 4: check init alarmType:" + type + ", flag: 1.";
                lines += " | log 4: [QorL2ResExceedCheck], total:" + total +
                         ", used:" + std::to_string(row.counts.used) +
                         ", idle:" + std::to_string(row.counts.idle) +
                         ", ret:" + std::to_string(row.counts.result) + ".";
                if (row.raises) {
                    lines += " | log 4: L2Res type " + type +
                             " alarm start, ulResThreshold: " + total + ".";
                }
                if (row.result != 0) {
                    lines +=
                        " | log 2: [ARP func vtable]g_qorL2ResLogFunVtbl->send is failed, ret=2."
                        " | log 2: L2Res type " +
                        type + " alarm start failed, ulResThreshold: " + total + ". | log 2: tbl " +
                        type + " alarm start failed, ulResThreshold:" + total + ".";
                }
                EXPECT_EQ(journal::Text(journal::kLog), lines);
                EXPECT_EQ(Sent(), row.raises ? Join("raise", alarm.code, "") : "");
                EXPECT_EQ(entry.raised, row.raises && row.result == 0 ? 1u : raised);
                EXPECT_EQ(entry.resendCount, 17u);
            }
        }
    }
}

TEST_F(Alarms, OfTypesWithoutDescriptionAreRefused)
{
    for (const u32 type : {3u, 6u, 0xFFFFFFFFu}) {
        journal::Clear();
        EXPECT_EQ(QorL2ResExceedCheckAndAlarm(type), 1u);
        const std::string number = std::to_string(static_cast<int>(type));
        const std::string notInit = "log 2: L2Res type not init, alarmType: " + number + ".";
        EXPECT_EQ(journal::Text(journal::kLog),
                  "log 4: check init alarmType:" + number + ", flag: 0. | " + notInit);
        if (type > 5) {
            journal::Clear();
            EXPECT_EQ(QorL2ResAlarmStart(type, 1), 1u);
            EXPECT_EQ(QorL2ResAlarmResume(type, 1), 1u);
            QorL2ResAlarmResend(type, 1);
            QorL2ResProbe(type, 2, 1, 1);
            QorL2ResProbeProc(type);
            EXPECT_EQ(journal::Text(journal::kLog | journal::kAlarm), notInit + " | " + notInit);
        }
    }
    // An entry that names the translation hook, or none that is there, has no counts.
    QorL2ResHookRegister(5, nullptr);
    for (const u32 hookType : {3u, 5u, 6u}) {
        g_qorl2ResAlarmTbl[0].hookType = hookType;
        g_qorl2ResAlarmTbl[0].raised = 1;
        journal::Clear();
        EXPECT_EQ(QorL2ResExceedCheckAndAlarm(0), 0u);
        QorL2ResProbeProc(0);
        EXPECT_TRUE(journal::Is({}, journal::kHook | journal::kAlarm));
    }
}

TEST_F(Alarms, ExceedCheckAloneTellsFullTables)
{
    struct {
        u32 hookType;
        Counts counts;
        u32 result;
    } const rows[] = {{0, {8, 8, 0, 0}, 1}, {5, {8, 8, 0, 0}, 1}, {1, {8, 7, 1, 0}, 0},
                      {2, {8, 9, 0, 0}, 0}, {4, {8, 8, 0, 1}, 0}, {3, {8, 8, 0, 0}, 0},
                      {6, {8, 8, 0, 0}, 0}};
    for (const auto &row : rows) {
        if (row.hookType < 6) {
            g_engine[row.hookType] = row.counts;
        }
        u32 threshold = 77;
        journal::Clear();
        EXPECT_EQ(QorL2ResExceedCheck(row.hookType, &threshold), row.result) << row.hookType;
        EXPECT_EQ(threshold, row.result == 1 ? 8u : 77u) << row.hookType;
        const bool called = row.hookType != 3 && row.hookType != 6;
        EXPECT_EQ(journal::Only(journal::kHook).size(), called ? 1u : 0u) << row.hookType;
        EXPECT_EQ(Sent(), "");
    }
}

TEST_F(Alarms, EcibIsCheckedBeforeEcibExtWhoseResultCounts)
{
    for (const bool firstFails : {true, false}) {
        g_engine[1] = g_engine[2] = {8, 8, 0, 0};
        services::Get().results["send"] = {firstFails ? 1u : 0u, firstFails ? 0u : 1u};
        journal::Clear();
        EXPECT_EQ(QorL2ResEcibExceedCheckAndAlarm(), firstFails ? 0u : 1u);
        EXPECT_EQ(Sent(), "raise 587 raise 588 ");
    }
}

// One probe cycle from every state the transition table knows.
TEST_F(Alarms, AreResentAndClearedByTheProbe)
{
    const Counts full = {8, 8, 0, 0}, room = {8, 5, 3, 0}, noIdle = {8, 5, 0, 0};
    struct {
        const char *name;
        u32 registered, raised, count;
        Counts counts;
        u32 sendResult;
        std::string sent; // R: raise, c: clear, n: the services are told of idle entries
        u32 raisedAfter, countAfter;
    } const rows[] = {
        {"unregistered", 0, 1, 5, room, 0, "", 1, 5},
        {"clear", 1, 0, 5, room, 0, "", 0, 5},
        {"raised, counts fail", 1, 1, 119, {8, 5, 3, 1}, 0, "", 1, 119},
        {"stays full", 1, 1, 0, full, 0, "", 1, 1},
        {"stays full, 119th", 1, 1, 118, full, 0, "", 1, 119},
        {"stays full, 120th", 1, 1, 119, full, 0, "R", 1, 0},
        {"120th, raise fails", 1, 1, 119, full, 1, "R", 1, 0},
        {"overfull is not room", 1, 1, 3, {8, 9, 3, 0}, 0, "", 1, 4},
        {"room", 1, 1, 3, room, 0, "cn", 0, 0},
        {"room, none idle", 1, 1, 3, noIdle, 0, "c", 0, 0},
        {"room, clear fails", 1, 1, 3, room, 1, "cn", 1, 0},
        {"room, none idle, clear fails", 1, 1, 3, noIdle, 1, "c", 1, 0},
        {"room on the 120th", 1, 1, 119, room, 0, "Rcn", 0, 0},
        {"room on the 120th, both fail", 1, 1, 119, room, 1, "Rcn", 1, 0},
    };
    for (const auto &row : rows) {
        for (const Row &alarm : kRows) {
            SCOPED_TRACE(Join(row.name, "type", alarm.type));
            L2ResAlarmEntry &entry = g_qorl2ResAlarmTbl[alarm.type];
            entry.registered = row.registered;
            entry.raised = row.raised;
            entry.resendCount = row.count;
            g_engine[alarm.hookType] = row.counts;
            services::Get().results["send"] = {row.sendResult};
            journal::Clear();
            QorL2ResProbeProc(alarm.type);

            std::string sent, told;
            for (const char what : row.sent) {
                if (what == 'n') {
                    told = Join("event 2 row", alarm.notifyTableId);
                } else {
                    sent += Join(what == 'R' ? "raise" : "clear", alarm.code, "");
                }
            }
            EXPECT_EQ(Sent(), sent);
            EXPECT_EQ(journal::Text(journal::kNotify), told);
            EXPECT_EQ(journal::Only(journal::kHook).size(), row.registered & row.raised);
            EXPECT_EQ(entry.raised, row.raisedAfter);
            EXPECT_EQ(entry.resendCount, row.countAfter);
        }
    }
}

TEST_F(Alarms, ProbeNamesWhatItDoesAndWhatFails)
{
    g_engine[2] = {8, 5, 3, 0};
    g_qorl2ResAlarmTbl[2].raised = 1;
    g_qorl2ResAlarmTbl[2].resendCount = 119;
    services::Get().results["objCreate"] = {4};
    QorL2ResProbeProc(2);
    const std::string service =
        "log 2: [ARP func vtable]g_qorL2ResLogFunVtbl->objCreate is failed, ret=4.";
    EXPECT_TRUE(
        journal::Is({"log 4: [QorL2ResProbeProc], total:8, used:5, idle:3, ret:0.",
                     "log 4: L2Res type 2 alarm start, ulResThreshold: 8.", service,
                     "log 2: L2Res type 2 alarm start failed, ulResThreshold: 8.",
                     "log 2: Icib alarm start failed, ulResThreshold:8.",
                     "log 4: L2Res type 2 alarm resume, ulResThreshold: 8.", service,
                     "log 2: L2Res type alarm resume failed, alarmType:2, ulResThreshold: 8."},
                    journal::kLog));
}

TEST_F(Alarms, AreSentAgainEvery120Cycles)
{
    g_engine[0] = {8, 8, 0, 0};
    ASSERT_EQ(QorL2ResExceedCheckAndAlarm(0), 0u);
    std::vector<int> resentAt;
    for (int cycle = 1; cycle <= 360; ++cycle) {
        journal::Clear();
        QorL2ResProbeProc(0);
        if (!Sent().empty()) {
            resentAt.push_back(cycle);
        }
    }
    EXPECT_EQ(resentAt, (std::vector<int>{120, 240, 360}));
}

TEST_F(Alarms, StartAndResumeSetTheFlagWhenSent)
{
    for (const u32 type : {4u, 3u}) { // 3 is unregistered: nobody looks at that
        L2ResAlarmEntry &entry = g_qorl2ResAlarmTbl[type];
        entry.resendCount = 6;
        for (const u32 sendResult : {0u, 1u}) {
            services::Get().results["send"] = {sendResult};
            entry.raised = 0;
            EXPECT_EQ(QorL2ResAlarmStart(type, 5), sendResult);
            EXPECT_EQ(entry.raised, sendResult == 0 ? 1u : 0u);
            entry.raised = 1;
            EXPECT_EQ(QorL2ResAlarmResume(type, 5), sendResult);
            EXPECT_EQ(entry.raised, sendResult == 0 ? 0u : 1u);
        }
        EXPECT_EQ(entry.resendCount, 6u);
    }
}

// The table runs full at any step of a cycle that sends the raise again and then clears: the check's
// raise is not taken back by counts that it has overtaken, and the type always counts as raised, or
// nobody would ever look at the table again.
TEST_F(Alarms, ARaiseDuringAProbeIsNotForgotten)
{
    constexpr int kSteps = 8; // to send one alarm
    for (int interrupted = 1; interrupted <= 2 * kSteps; ++interrupted) {
        SCOPED_TRACE(interrupted);
        g_engine[5] = {8, 5, 3, 0};
        g_qorl2ResAlarmTbl[5].raised = 1;
        g_qorl2ResAlarmTbl[5].resendCount = 119;
        int step = 0;
        services::Get().during = [&](const std::string &) {
            if (++step == interrupted) {
                g_engine[5] = {8, 8, 0, 0};
                EXPECT_EQ(QorL2ResExceedCheckAndAlarm(5), 0u);
            }
        };
        journal::Clear();
        QorL2ResProbeProc(5);
        services::Get().during = nullptr;
        const bool clears = Sent().find("clear") != std::string::npos;
        EXPECT_EQ(clears, interrupted > kSteps) << "only one that was on its way: " << Sent();
        EXPECT_EQ(g_qorl2ResAlarmTbl[5].raised, 1u);

        g_engine[5] = {8, 5, 3, 0};
        journal::Clear();
        QorL2ResProbeProc(5);
        EXPECT_EQ(Sent(), "clear 583 ");
        EXPECT_EQ(g_qorl2ResAlarmTbl[5].raised, 0u);
    }
}

// The table runs full right after the probe has read its counts: a clear by these would take the new
// alarm back, and nobody would look at the full table again.
TEST_F(Alarms, ARaiseAfterTheCountsIsNotCleared)
{
    static bool fillsUp = true;
    const L2ResCountHook hook = [](u32 *total, u32 *used, u32 *idle) -> u32 {
        *total = 8;
        *used = std::exchange(fillsUp, false) ? 5 : 8;
        *idle = 8 - *used;
        if (*used == 5) {
            std::thread([] { EXPECT_EQ(QorL2ResExceedCheckAndAlarm(5), 0u); }).join();
        }
        return 0;
    };
    QorL2ResHookRegister(5, reinterpret_cast<L2ResHook>(hook));
    g_qorl2ResAlarmTbl[5].raised = 1;
    QorL2ResProbeProc(5);
    EXPECT_EQ(Sent(), "raise 583 ");
    EXPECT_EQ(g_qorl2ResAlarmTbl[5].raised, 1u);
    EXPECT_EQ(g_qorl2ResAlarmTbl[5].resendCount, 1u) << "a cycle like any other";
}

} // namespace
