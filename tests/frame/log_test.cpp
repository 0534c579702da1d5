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
using journal::Lines;

TEST(Log, MapsLevels)
{
    struct {
        u32 level;
        u32 result, debugLevel, blackBoxLevel; // 99: left as it was
        Lines written;
    } const rows[] = {
        {0, 0, 4, 3, {"log 4: text 7"}},
        {1, 0, 4, 0, {"log 4: text 7", "bbox 0: text 7"}},
        {2, 0, 4, 3, {"log 4: text 7"}},
        {3, 1, 99, 3, {}},
        {4, 0, 3, 3, {"log 3: text 7"}},
        {5, 0, 2, 1, {"log 2: text 7", "bbox 1: text 7"}},
        {6, 1, 99, 3, {}},
        {0xFFFFFFFF, 1, 99, 3, {}},
    };
    // Before the services are known nothing is written and nothing fails.
    for (const auto &row : rows) {
        QorL2ResDbgWriteLog(row.level, 0, "text %d", 7);
    }
    EXPECT_TRUE(journal::Is({}));

    services::StartWorkingModule();
    for (const auto &row : rows) {
        u32 debugLevel = 99, blackBoxLevel = 99;
        EXPECT_EQ(QorL2ResGetDbgLogLevel(row.level, nullptr, &blackBoxLevel), 1u);
        EXPECT_EQ(blackBoxLevel, 99u);
        EXPECT_EQ(QorL2ResGetDbgLogLevel(row.level, &debugLevel, &blackBoxLevel), row.result);
        EXPECT_EQ(debugLevel, row.debugLevel) << "level " << row.level;
        EXPECT_EQ(blackBoxLevel, row.blackBoxLevel) << "level " << row.level;
        for (const u32 category : {0u, 1u, 2u, 77u}) {
            journal::Clear();
            const auto formatted = faults::Calls(Op::vsnprintf_s);
            QorL2ResDbgWriteLog(row.level, category, "text %d", 7);
            EXPECT_TRUE(journal::Is(row.written)) << "level " << row.level;
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
        EXPECT_TRUE(journal::Is({journal::Trace(text.substr(0, 255))})) << length;
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
    EXPECT_TRUE(journal::Is({}));
    services::Get().result["blackBoxRegister"] = 6;
    EXPECT_EQ(QorL2resBlackBoxReg(), 6u);
    EXPECT_TRUE(journal::Is({"bbox register qor-l2rsm Forward manage l2res module"}));
}

// A wrapper with the names its messages are made of, called with arguments whose way through the
// journal shows.
struct Wrapper {
    const char *operation;
    u32 (*call)();
    const char *entry; // of a call that reaches the service
    size_t position;   // in the log service's table; 3 in the time service's
};

L2ResAlarmTime g_time;
L2ResAlarmAttr g_attr = {2, 1, 2, 0, &g_time, 583, 0, 0};
L2ResAlarmHandle g_object;

const Wrapper kWrappers[] = {
    {"objCreate", [] { return QorL2ResLogAlarmObjCreate(5, 77, &g_object); }, "objCreate 5 77", 1},
    {"setAlarmComAttr", [] { return QorL2ResLogSetAlarmComAttr(9, &g_attr); },
     "setAlarmComAttr 9 kind 2/1 time 2 code 583", 2},
    {"getSysTime", [] { return QorL2ResGetSysTime(&g_time); }, "getSysTime", 3},
    {"addPara", [] { return QorL2ResLogAddAlarmPara(9, 25, 4, "textual"); }, "addPara 9 25 4 text",
     4},
    {"send", [] { return QorL2ResLogAlarmSend(9); }, "send 9", 5},
    {"objFree", [] { return QorL2ResLogAlarmObjFree(9); }, "objFree 9", 6},
};

TEST(Wrappers, ReportMissingTableMissingOperationAndFailure)
{
    services::StartWorkingModule();
    g_time.opaque[19] = 0x5A;
    for (const Wrapper &wrapper : kWrappers) {
        const bool isTime = wrapper.position == 3;
        const std::string table =
            std::string("[ARP func vtable]g_qorL2Res") + (isTime ? "Time" : "Log") + "FunVtbl";
        const std::string operation = table + "->" + wrapper.operation;
        const auto expect = [&](u32 result, const Lines &lines) {
            journal::Clear();
            EXPECT_EQ(wrapper.call(), result);
            EXPECT_TRUE(journal::Is(lines, journal::kLog | journal::kAlarm)) << operation;
        };
        expect(0, {wrapper.entry});
        services::Get().result[wrapper.operation] = 0xFFFFFFFF;
        expect(1, {wrapper.entry, journal::Error(operation + " is failed, ret=4294967295.")});
        services::Get().result.clear();

        auto *const positions = isTime ? reinterpret_cast<void **>(&services::Get().time)
                                       : reinterpret_cast<void **>(&services::Get().log);
        void *const before = std::exchange(positions[wrapper.position], nullptr);
        expect(1, {journal::Error(operation + " is null.")});
        positions[wrapper.position] = before;

        const auto *const log = std::exchange(g_qorL2ResLogFunVtbl, nullptr);
        const auto *const time = std::exchange(g_qorL2ResTimeFunVtbl, nullptr);
        expect(1, {journal::Error(table + " is null.")});
        g_qorL2ResLogFunVtbl = log;
        g_qorL2ResTimeFunVtbl = time;
    }
}

TEST(Wrappers, SelfSlotIsPassedUnchecked)
{
    services::StartWorkingModule();
    for (const u32 slot : {0u, 1u, 0xFFFFFFFFu}) {
        services::Get().slot = slot;
        EXPECT_EQ(QorL2ResGetSelfSlot(), slot);
    }
    EXPECT_TRUE(journal::Is({}, journal::kLog));
}

TEST(Tables, AreAskedForUntilTheyAreThere)
{
    services::Register();
    struct {
        u32 (*obtain)();
        u32 interfaceId;
    } const rows[] = {
        {QorL2ResGetMemmFunVtbl, 1004},
        {QorL2ResGetTimeFunVtbl, 1010},
        {QorL2ResGetLogFunVtbl, 1009},
        {QorL2ResGetOrchmFunVtbl, 1003},
        {[] { return QorL2resGetFunVtbl(1000, 1008, 0); }, 1008},
        {[] { return QorL2resGetFunVtbl(1000, 1024, 1); }, 1024},
    };
    for (const auto &row : rows) {
        journal::Clear();
        services::Get().missing = {row.interfaceId};
        EXPECT_NE(row.obtain(), 0u);
        services::Get().missing.clear();
        faults::Fail(Op::COMP_GetVTable, 1, 0); // success that leaves no table
        EXPECT_NE(row.obtain(), 0u);
        EXPECT_EQ(row.obtain(), 0u);
        EXPECT_EQ(row.obtain(), 0u);
        const std::string asked = "interface " + std::to_string(row.interfaceId);
        EXPECT_TRUE(journal::Is({asked, asked}));
    }
    journal::Clear();
    EXPECT_EQ(QorL2resGetFunVtbl(1000, 1008, 2), 1u);
    EXPECT_TRUE(journal::Is({}));
}

} // namespace
