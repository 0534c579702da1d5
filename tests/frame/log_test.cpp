// The log call, and the wrappers of the other components' services.
#include <gtest/gtest.h>

#include <utility>

#include "frame/dbg_log.h"
#include "frame/service_tables.h"
#include "support/faults.h"
#include "support/journal.h"
#include "support/services.h"

namespace {

using faults::Op;

TEST(Log, MapsLevels)
{
    constexpr u32 kNever = 99;
    struct {
        u32 level, debugLevel, blackBoxLevel;
        std::string written;
    } const rows[] = {
        {0, 4, 3, "log 4: text 7"}, {1, 4, 0, "log 4: text 7 | bbox 0: text 7"},
        {2, 4, 3, "log 4: text 7"}, {3, kNever, 3, ""},
        {4, 3, 3, "log 3: text 7"}, {5, 2, 1, "log 2: text 7 | bbox 1: text 7"},
        {6, kNever, 3, ""},         {0xFFFFFFFF, kNever, 3, ""},
    };
    // Before the services are known nothing is written and nothing fails.
    for (const auto &row : rows) {
        QorL2ResDbgWriteLog(row.level, 0, "text %d", 7);
    }
    EXPECT_TRUE(journal::Is({}));

    services::StartWorkingModule();
    for (const auto &row : rows) {
        u32 debugLevel = kNever, blackBoxLevel = kNever;
        EXPECT_EQ(QorL2ResGetDbgLogLevel(row.level, nullptr, &blackBoxLevel), 1u);
        EXPECT_EQ(blackBoxLevel, kNever);
        EXPECT_EQ(QorL2ResGetDbgLogLevel(row.level, &debugLevel, &blackBoxLevel),
                  row.debugLevel == kNever ? 1u : 0u);
        EXPECT_EQ(debugLevel, row.debugLevel) << "level " << row.level;
        EXPECT_EQ(blackBoxLevel, row.blackBoxLevel) << "level " << row.level;

        for (const u32 category : {0u, 1u, 2u, 77u}) {
            journal::Clear();
            const auto formatted = faults::Calls(Op::vsnprintf_s);
            QorL2ResDbgWriteLog(row.level, category, "text %d", 7);
            EXPECT_EQ(journal::Text(), row.written) << "level " << row.level;
            // What is not written costs no formatting.
            EXPECT_EQ(faults::Calls(Op::vsnprintf_s) - formatted, row.written.empty() ? 0u : 1u);
        }
    }
}

TEST(Log, CutsAt255CharactersAndDropsWhatCannotBeFormatted)
{
    services::StartWorkingModule();
    for (const size_t length : {0u, 1u, 254u, 255u, 256u, 1000u}) {
        journal::Clear();
        const std::string text(length, 'a');
        QorL2ResDbgWriteLog(0, 0, "%s", text.c_str());
        EXPECT_TRUE(journal::Is({"log 4: " + text.substr(0, 255)})) << length;
    }
    journal::Clear();
    faults::Fail(Op::vsnprintf_s);
    QorL2ResDbgWriteLog(5, 0, "lost");
    EXPECT_TRUE(journal::Is({}));
}

TEST(Log, BlackBoxRegistrationNeedsAllItsArguments)
{
    services::StartWorkingModule();
    u32 id = 0;
    EXPECT_EQ(QorL2resRegBlackBoxModule(nullptr, "d", &id), 1u);
    EXPECT_EQ(QorL2resRegBlackBoxModule("n", nullptr, &id), 1u);
    EXPECT_EQ(QorL2resRegBlackBoxModule("n", "d", nullptr), 1u);
    services::Get().results["blackBoxRegister"] = {6};
    EXPECT_EQ(QorL2resBlackBoxReg(), 6u);
    EXPECT_EQ(journal::Text(), "bbox register qor-l2rsm Forward manage l2res module");
}

// A wrapper, called with arguments whose way through the journal shows.
struct Wrapper {
    const char *operation;
    u32 (*call)();
    std::string entry; // of a call that reaches the service
    void **table;      // what the service hands out
    size_t position;   // in it
};

L2ResAlarmTime g_time;
L2ResAlarmAttr g_attr = {2, 1, 2, 0, &g_time, 583, 0, 0};
L2ResAlarmHandle g_object;
void **const g_log = reinterpret_cast<void **>(&services::Get().log);
void **const g_timeService = reinterpret_cast<void **>(&services::Get().time);

const Wrapper kWrappers[] = {
    {"objCreate", [] { return QorL2ResLogAlarmObjCreate(5, 77, &g_object); }, "objCreate 5 77",
     g_log, 1},
    {"setAlarmComAttr", [] { return QorL2ResLogSetAlarmComAttr(9, &g_attr); },
     "setAlarmComAttr 9 kind 2/1 time 2 code 583", g_log, 2},
    {"getSysTime", [] { return QorL2ResGetSysTime(&g_time); }, "getSysTime", g_timeService, 3},
    {"addPara", [] { return QorL2ResLogAddAlarmPara(9, 25, 4, "textual"); }, "addPara 9 25 4 text",
     g_log, 4},
    {"send", [] { return QorL2ResLogAlarmSend(9); }, "send 9", g_log, 5},
    {"objFree", [] { return QorL2ResLogAlarmObjFree(9); }, "objFree 9", g_log, 6},
};

TEST(Wrappers, ReportMissingTableMissingOperationAndFailure)
{
    services::StartWorkingModule();
    g_time.opaque[19] = 0x5A;
    for (const Wrapper &wrapper : kWrappers) {
        const std::string table = std::string("[ARP func vtable]g_qorL2Res") +
                                  (wrapper.table == g_log ? "Log" : "Time") + "FunVtbl";
        const std::string operation = table + "->" + wrapper.operation;
        const auto expect = [&](u32 result, const std::string &text) {
            journal::Clear();
            EXPECT_EQ(wrapper.call(), result);
            EXPECT_EQ(journal::Text(journal::kLog | journal::kAlarm), text);
        };
        expect(0, wrapper.entry);
        services::Get().results[wrapper.operation] = {0xFFFFFFFF};
        expect(1, wrapper.entry + " | log 2: " + operation + " is failed, ret=4294967295.");
        void *const before = std::exchange(wrapper.table[wrapper.position], nullptr);
        expect(1, "log 2: " + operation + " is null.");
        wrapper.table[wrapper.position] = before;

        const auto *const log = std::exchange(g_qorL2ResLogFunVtbl, nullptr);
        const auto *const time = std::exchange(g_qorL2ResTimeFunVtbl, nullptr);
        expect(1, "log 2: " + table + " is null.");
        g_qorL2ResLogFunVtbl = log;
        g_qorL2ResTimeFunVtbl = time;
    }
    services::Get().slot = 0xFFFFFFFF; // whatever the service says
    EXPECT_EQ(QorL2ResGetSelfSlot(), 0xFFFFFFFFu);
}

TEST(Tables, AreAskedForUntilTheyAreThere)
{
    services::Register();
    struct {
        u32 (*obtain)();
        u32 interfaceId;
    } const rows[] = {{QorL2ResGetOrchmFunVtbl, 1003},
                      {[] { return QorL2resGetFunVtbl(1000, 1024, 1); }, 1024}};
    for (const auto &row : rows) {
        journal::Clear();
        services::Get().missing = {row.interfaceId};
        EXPECT_NE(row.obtain(), 0u);
        services::Get().missing.clear();
        faults::Fail(Op::COMP_GetVTable, 1, 0); // success that leaves no table
        EXPECT_NE(row.obtain(), 0u);
        EXPECT_EQ(row.obtain(), 0u);
        EXPECT_EQ(row.obtain(), 0u);
        const std::string asked = journal::Join("interface", row.interfaceId);
        EXPECT_EQ(journal::Text(), asked + " | " + asked);
    }
    EXPECT_EQ(QorL2resGetFunVtbl(1000, 1008, 2), 1u);
}

} // namespace
