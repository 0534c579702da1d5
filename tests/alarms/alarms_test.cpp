// Table-full alarms: descriptions, emission with each operation failing, and every transition.
#include "alarms/alarm_emission.h"

#include <gtest/gtest.h>

#include <cstring>

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
using journal::Error;
using journal::Lines;
using journal::Trace;

struct Row {
    u32 type, notifyTableId, hookType, code;
    const char *text;
};

const Row kRows[] = {
    {0, 0, 0, 581,
     "The number of ICIB_PP entries "
     "exceeded the specification of the forwarding engine resources."},
    {1, 1, 1, 587,
     "The number of ECIB entries exceeded the specification of the forwarding engine resources, or "
     "a hash conflict occurred during delivery of ECIB entries to the chip."},
    {2, 1, 2, 588,
     "The number of ECIB_EXT entries "
     "exceeded the specification of the forwarding engine resources, "
     "or a hash conflict occurred during delivery of ECIB_EXT entries to the chip."},
    {4, 4, 4, 170,
     "The number of LEM entries exceeded the specification of the forwarding engine resources"},
    {5, 5, 5, 583,
     "The number of SEM entries exceeded the specification of the forwarding engine resources"},
};

struct Counts {
    u32 total, used, idle, result;
    bool operator==(const Counts &) const = default;
};

Counts g_engine[L2RES_HOOK_COUNT];

template <u32 Type> u32 CountHook(u32 *total, u32 *used, u32 *idle)
{
    journal::Write(journal::kHook, "count " + std::to_string(Type));
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
    journal::Write(journal::kNotify,
                   "event " + std::to_string(event) + " row " + std::to_string(Table));
    return 0;
}

template <u32 Type> void LendHook()
{
    QorL2ResHookRegister(Type, reinterpret_cast<L2ResHook>(CountHook<Type>));
}

// Raises and clears in the order in which they were handed to the service, "raise 581".
Lines Sent()
{
    Lines sent;
    for (const std::string &line : journal::Only(journal::kAlarm)) {
        const auto code = line.find(" code ");
        if (code != std::string::npos) {
            sent.push_back((line.find(" kind 1/255 ") != std::string::npos ? "raise " : "clear ") +
                           line.substr(code + 6));
        }
    }
    return sent;
}

std::string Number(const char *before, u32 number, const char *after = ".")
{
    return before + std::to_string(number) + after;
}

class Alarms : public testing::Test {
protected:
    void SetUp() override
    {
        services::StartWorkingModule();
        LendHook<0>();
        LendHook<1>();
        LendHook<2>();
        LendHook<3>(); // the translation hook's place: nobody may call it as a count hook
        LendHook<4>();
        LendHook<5>();
        QorL2ResNotifyRegister(0, 6, Notify<0>);
        QorL2ResNotifyRegister(1, 6, Notify<1>);
        QorL2ResNotifyRegister(4, 6, Notify<4>);
        QorL2ResNotifyRegister(5, 6, Notify<5>);
        journal::Clear();
    }
};

TEST_F(Alarms, AreDescribedByPhase1)
{
    for (const Row &row : kRows) {
        const L2ResAlarmEntry &entry = g_qorl2ResAlarmTbl[row.type];
        EXPECT_EQ(entry.notifyTableId, row.notifyTableId);
        EXPECT_EQ(entry.hookType, row.hookType);
        EXPECT_EQ(entry.tableAlarmCode, row.code);
        EXPECT_STREQ(entry.description, row.text);
        EXPECT_EQ(entry.registered, 1u);
        EXPECT_EQ(entry.raised + entry.resendCount, 0u);
    }
    EXPECT_EQ(g_qorl2ResAlarmTbl[3].registered, 0u);
}

TEST_F(Alarms, CarryTheirParametersToTheLogService)
{
    services::Get().slot = 12;
    QorL2ResGetQorInstInfo(0, 0);
    u32 object = 0;
    for (const Row &row : kRows) {
        for (const u32 kind : {1u, 2u}) {
            journal::Clear();
            const u32 result = kind == 1 ? QorL2ResAlarmStart(row.type, 8192 + row.type)
                                         : QorL2ResAlarmResume(row.type, 8192 + row.type);
            EXPECT_EQ(result, 0u);
            const std::string handle = " " + std::to_string(++object);
            const std::string length = std::to_string(strlen(row.text));
            EXPECT_TRUE(journal::Is(
                {"objCreate 5 157163554", "getSysTime",
                 "setAlarmComAttr" + handle + (kind == 1 ? " kind 1/255" : " kind 2/1") +
                     " time 2 code " + std::to_string(row.code),
                 "addPara" + handle + " 25 7 slot 12",
                 "addPara" + handle + " 6 4 " + std::to_string(8192 + row.type),
                 "addPara" + handle + " 6 4 " + std::to_string(row.code),
                 "addPara" + handle + " 25 " + length + " " + row.text, "send" + handle},
                journal::kAlarm));
        }
    }
    journal::Clear();
    EXPECT_EQ(QorL2ResAlarmProc(1, 2, "d", 3), 0u);
    EXPECT_EQ(journal::Only(journal::kAlarm)[2], "setAlarmComAttr 11 kind 0/0 time 2 code 2");
}

// Emission with one step failing: what is still done, and whether the object is freed.
TEST_F(Alarms, ThatCannotBeSentAreGivenUpInOrder)
{
    const Lines until = {"objCreate 5 9", "getSysTime",  "setAlarmComAttr", "addPara 25 6",
                         "addPara 6 4",   "addPara 6 4", "addPara 25 3",    "send"};
    struct {
        const char *name;
        void (*arrange)();
        u32 steps; // of the list above
        bool freed;
        const char *line;
    } const rows[] = {
        {"objCreate", [] { services::Get().result["objCreate"] = 7; }, 1, false,
         "[ARP func vtable]g_qorL2ResLogFunVtbl->objCreate is failed, ret=7."},
        {"slot text", [] { faults::Fail(Op::sprintf_s); }, 1, true, nullptr},
        {"getSysTime", [] { services::Get().result["getSysTime"] = 7; }, 2, true,
         "[ARP func vtable]g_qorL2ResTimeFunVtbl->getSysTime is failed, ret=7."},
        {"setAlarmComAttr", [] { services::Get().result["setAlarmComAttr"] = 7; }, 3, true,
         "[ARP func vtable]g_qorL2ResLogFunVtbl->setAlarmComAttr is failed, ret=7."},
        {"1st parameter", [] { services::Get().results["addPara"] = {7}; }, 7, true,
         "[ARP func vtable]g_qorL2ResLogFunVtbl->addPara is failed, ret=7."},
        {"2nd parameter",
         [] {
             services::Get().results["addPara"] = {0, 7};
         },
         7, true, "[ARP func vtable]g_qorL2ResLogFunVtbl->addPara is failed, ret=7."},
        {"3rd parameter",
         [] {
             services::Get().results["addPara"] = {0, 0, 7};
         },
         7, true, "[ARP func vtable]g_qorL2ResLogFunVtbl->addPara is failed, ret=7."},
        {"4th parameter",
         [] {
             services::Get().results["addPara"] = {0, 0, 0, 7};
         },
         7, true, "[ARP func vtable]g_qorL2ResLogFunVtbl->addPara is failed, ret=7."},
        {"send", [] { services::Get().result["send"] = 7; }, 8, false,
         "[ARP func vtable]g_qorL2ResLogFunVtbl->send is failed, ret=7."},
    };
    for (const auto &row : rows) {
        for (const u32 freeResult : {0u, 5u}) { // what freeing answers changes nothing
            services::Get().result = {{"objFree", freeResult}};
            row.arrange();
            journal::Clear();
            EXPECT_EQ(QorL2ResAlarmProc(8192, 9, "ddd", 1), 1u) << row.name;

            const Lines entries = journal::Only(journal::kAlarm);
            Lines steps;
            for (const auto &entry : entries) {
                steps.push_back(entry.substr(0, entry.find(' ')));
            }
            Lines expected;
            for (u32 i = 0; i < row.steps; ++i) {
                expected.push_back(until[i].substr(0, until[i].find(' ')));
            }
            if (row.freed) {
                expected.push_back("objFree");
            }
            EXPECT_TRUE(journal::Equal(steps, expected)) << row.name;
            const Lines lines = journal::Only(journal::kLog);
            EXPECT_EQ(lines.size(), (row.line ? 1u : 0u) + (row.freed && freeResult ? 1u : 0u));
            if (row.line != nullptr && !lines.empty()) {
                EXPECT_EQ(lines.front(), Error(row.line));
            }
        }
    }
}

TEST_F(Alarms, AttributesOfOtherComponentsGetTheirTime)
{
    L2ResAlarmTime time = {};
    L2ResAlarmAttr attr = {2, 1, 0, 0, nullptr, 4, 77, 0};
    const L2ResAlarmAttr before = attr;
    services::Get().result["getSysTime"] = 1;
    EXPECT_EQ(QorL2ResLogSetIcibAlarmComAttr(8, &attr, &time), 1u);
    EXPECT_EQ(memcmp(&attr, &before, sizeof attr), 0);
    services::Get().result = {{"setAlarmComAttr", 9}};
    EXPECT_EQ(QorL2ResLogSetIcibAlarmComAttr(8, &attr, &time), 1u);
    services::Get().result.clear();
    journal::Clear();
    EXPECT_EQ(QorL2ResLogSetIcibAlarmComAttr(8, &attr, &time), 0u);
    EXPECT_EQ(attr.time, &time);
    EXPECT_TRUE(journal::Is({"getSysTime", "setAlarmComAttr 8 kind 2/1 time 2 code 4"}));
}

TEST(AlarmDescriptions, FailAloneWhenACopyFails)
{
    u32 (*const registrations[])() = {QorL2ResIcibAlarmInfoReg, QorL2ResEcibAlarmInfoReg,
                                      QorL2ResEcibExtAlarmInfoReg, QorL2ResLemAlarmInfoReg,
                                      QorL2ResSemAlarmInfoReg};
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
        EXPECT_EQ(registrations[failing](), 0u);
        EXPECT_EQ(g_qorl2ResAlarmTbl[kRows[failing].type].registered, 1u);
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
        bool hook, sendFails;
        u32 result;
        bool raises;
    } const rows[] = {
        {"full", {4096, 4096, 0, 0}, true, false, 0, true},
        {"full, though idle entries are told", {4096, 4096, 9, 0}, true, false, 0, true},
        {"empty table without entries", {0, 0, 0, 0}, true, false, 0, true},
        {"room", {4096, 4095, 1, 0}, true, false, 0, false},
        {"more used than there are", {4096, 4097, 0, 0}, true, false, 0, false},
        {"hook fails", {4096, 4096, 0, 3}, true, false, 0, false},
        {"no hook", {4096, 4096, 0, 0}, false, false, 0, false},
        {"raise fails", {4096, 4096, 0, 0}, true, true, 1, true},
    };
    for (const auto &row : rows) {
        for (const Row &alarm : kRows) {
            for (const u32 raised : {0u, 1u}) {
                SCOPED_TRACE(row.name + Number(", type ", alarm.type) + Number(" raised ", raised));
                L2ResAlarmEntry &entry = g_qorl2ResAlarmTbl[alarm.type];
                entry.raised = raised;
                entry.resendCount = 17;
                g_engine[alarm.hookType] = row.counts;
                const L2ResHook hook = QorL2ResGetHook(alarm.hookType);
                if (!row.hook) {
                    QorL2ResHookRegister(alarm.hookType, nullptr);
                }
                services::Get().result["send"] = row.sendFails ? 2 : 0;
                journal::Clear();
                EXPECT_EQ(QorL2ResExceedCheckAndAlarm(alarm.type), row.result);

                const std::string type = std::to_string(alarm.type);
                const std::string threshold = std::to_string(row.counts.total) + ".";
                Lines lines = {Trace("check init alarmType:" + type + ", flag: 1.")};
                if (row.hook) {
                    lines.push_back(
                        Trace(Number("[QorL2ResExceedCheck], total:", row.counts.total, ", used:") +
                              std::to_string(row.counts.used) +
                              Number(", idle:", row.counts.idle, ", ret:") +
                              std::to_string(row.counts.result) + "."));
                }
                if (row.raises) {
                    lines.push_back(
                        Trace("L2Res type " + type + " alarm start, ulResThreshold: " + threshold));
                }
                if (row.sendFails) {
                    lines.push_back(
                        Error("[ARP func vtable]g_qorL2ResLogFunVtbl->send is failed, ret=2."));
                    lines.push_back(Error("L2Res type " + type +
                                          " alarm start failed, ulResThreshold: " + threshold));
                    lines.push_back(
                        Error("tbl " + type + " alarm start failed, ulResThreshold:" + threshold));
                }
                EXPECT_TRUE(journal::Is(lines, journal::kLog));
                const Lines sent = row.raises ? Lines{Number("raise ", alarm.code, "")} : Lines{};
                EXPECT_EQ(Sent(), sent);
                EXPECT_EQ(entry.raised, row.raises && !row.sendFails ? 1u : raised);
                EXPECT_EQ(entry.resendCount, 17u);
                QorL2ResHookRegister(alarm.hookType, hook);
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
        const std::string notInit = Error("L2Res type not init, alarmType: " + number + ".");
        EXPECT_TRUE(journal::Is({Trace("check init alarmType:" + number + ", flag: 0."), notInit},
                                journal::kLog));
        if (type > 5) {
            journal::Clear();
            EXPECT_EQ(QorL2ResAlarmStart(type, 1), 1u);
            EXPECT_EQ(QorL2ResAlarmResume(type, 1), 1u);
            QorL2ResAlarmResend(type, 1);
            QorL2ResProbe(type, 2, 1, 1);
            QorL2ResProbeProc(type);
            EXPECT_TRUE(journal::Is({notInit, notInit}, journal::kLog));
            EXPECT_EQ(Sent(), Lines{});
        }
    }
    // An entry that names the translation hook, or none there is, has no counts.
    for (const u32 hookType : {3u, 6u}) {
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
        EXPECT_EQ(Sent(), Lines{});
    }
}

TEST_F(Alarms, EcibIsCheckedBeforeEcibExtWhoseResultCounts)
{
    for (const bool firstFails : {true, false}) {
        g_engine[1] = g_engine[2] = {8, 8, 0, 0};
        services::Get().results["send"] = firstFails ? std::vector<u32>{1} : std::vector<u32>{0, 1};
        journal::Clear();
        EXPECT_EQ(QorL2ResEcibExceedCheckAndAlarm(), firstFails ? 0u : 1u);
        EXPECT_EQ(Sent(), (Lines{"raise 587", "raise 588"}));
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
        u32 sendResults[2];
        Lines sent, notified;
        u32 raisedAfter, countAfter;
    } const rows[] = {
        {"unregistered", 0, 1, 5, room, {}, {}, {}, 1, 5},
        {"clear", 1, 0, 5, room, {}, {}, {}, 0, 5},
        {"raised, counts fail", 1, 1, 119, {8, 5, 3, 1}, {}, {}, {}, 1, 119},
        {"stays full", 1, 1, 0, full, {}, {}, {}, 1, 1},
        {"stays full, 119th", 1, 1, 118, full, {}, {}, {}, 1, 119},
        {"stays full, 120th", 1, 1, 119, full, {}, {"raise"}, {}, 1, 0},
        {"120th, raise fails", 1, 1, 119, full, {1}, {"raise"}, {}, 1, 0},
        {"overfull is not room", 1, 1, 3, {8, 9, 3, 0}, {}, {}, {}, 1, 4},
        {"room", 1, 1, 3, room, {}, {"clear"}, {"event 2"}, 0, 0},
        {"room, none idle", 1, 1, 3, noIdle, {}, {"clear"}, {}, 0, 0},
        {"room, clear fails", 1, 1, 3, room, {1}, {"clear"}, {"event 2"}, 1, 0},
        {"room, none idle, clear fails", 1, 1, 3, noIdle, {1}, {"clear"}, {}, 1, 0},
        {"room on the 120th", 1, 1, 119, room, {}, {"raise", "clear"}, {"event 2"}, 0, 0},
        {"room on the 120th, both fail",
         1,
         1,
         119,
         room,
         {1, 1},
         {"raise", "clear"},
         {"event 2"},
         1,
         0},
    };
    for (const auto &row : rows) {
        for (const Row &alarm : kRows) {
            SCOPED_TRACE(row.name + Number(", type ", alarm.type));
            L2ResAlarmEntry &entry = g_qorl2ResAlarmTbl[alarm.type];
            entry.registered = row.registered;
            entry.raised = row.raised;
            entry.resendCount = row.count;
            g_engine[alarm.hookType] = row.counts;
            services::Get().results["send"] = {row.sendResults[0], row.sendResults[1]};
            journal::Clear();
            QorL2ResProbeProc(alarm.type);

            Lines sent, notified;
            for (const auto &kind : row.sent) {
                sent.push_back(Number((kind + " ").c_str(), alarm.code, ""));
            }
            for (const auto &event : row.notified) {
                notified.push_back(Number((event + " row ").c_str(), alarm.notifyTableId, ""));
            }
            EXPECT_EQ(Sent(), sent);
            EXPECT_TRUE(journal::Is(notified, journal::kNotify));
            EXPECT_EQ(journal::Only(journal::kHook).size(), row.registered & row.raised);
            EXPECT_EQ(entry.raised, row.raisedAfter);
            EXPECT_EQ(entry.resendCount, row.countAfter);
            services::Get().results.clear();
        }
    }
}

TEST_F(Alarms, ProbeNamesWhatItDoesAndWhatFails)
{
    g_engine[2] = {8, 5, 3, 0};
    g_qorl2ResAlarmTbl[2].raised = 1;
    g_qorl2ResAlarmTbl[2].resendCount = 119;
    services::Get().result["objCreate"] = 4;
    QorL2ResProbeProc(2);
    const std::string service =
        Error("[ARP func vtable]g_qorL2ResLogFunVtbl->objCreate is failed, ret=4.");
    EXPECT_TRUE(
        journal::Is({Trace("[QorL2ResProbeProc], total:8, used:5, idle:3, ret:0."),
                     Trace("L2Res type 2 alarm start, ulResThreshold: 8."), service,
                     Error("L2Res type 2 alarm start failed, ulResThreshold: 8."),
                     Error("Icib alarm start failed, ulResThreshold:8."),
                     Trace("L2Res type 2 alarm resume, ulResThreshold: 8."), service,
                     Error("L2Res type alarm resume failed, alarmType:2, ulResThreshold: 8.")},
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
            services::Get().result["send"] = sendResult;
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

// The table runs full again while the clear is on its way: the raise may reach the alarm service
// after the clear, so the type has to count as raised, or nobody would ever clear it.
TEST_F(Alarms, ARaiseDuringAClearIsNotForgotten)
{
    g_engine[5] = {8, 5, 3, 0};
    g_qorl2ResAlarmTbl[5].raised = 1;
    bool overlapped = false;
    services::Get().during = [&](const std::string &operation) {
        if (operation == "send" && !overlapped) {
            overlapped = true;
            g_engine[5] = {8, 8, 0, 0};
            EXPECT_EQ(QorL2ResExceedCheckAndAlarm(5), 0u);
        }
    };
    QorL2ResProbeProc(5);
    EXPECT_EQ(Sent(), (Lines{"clear 583", "raise 583"}));
    EXPECT_EQ(g_qorl2ResAlarmTbl[5].raised, 1u);

    services::Get().during = nullptr;
    g_engine[5] = {8, 5, 3, 0};
    journal::Clear();
    QorL2ResProbeProc(5);
    EXPECT_EQ(Sent(), Lines{"clear 583"});
    EXPECT_EQ(g_qorl2ResAlarmTbl[5].raised, 0u);
}

} // namespace
