// Phases of the entry: order of the steps, and what each failing step does to the others.
#include <gtest/gtest.h>

#include <cstring>

#include "arbitration/icib.h"
#include "arbitration/ipat.h"
#include "comp_registry.h"
#include "frame/component.h"
#include "frame/dbg_log.h"
#include "frame/init.h"
#include "frame/memory.h"
#include "frame/service_tables.h"
#include "l2rsm_component.h"
#include "l2rsm_entry.h"
#include "support/faults.h"
#include "support/journal.h"
#include "support/services.h"
#include "zir_memory.h"

namespace {

using faults::Op;
using journal::Lines;

const char *const kInitLine = "L2Res init, slot:3.";

TEST(Phase1, RunsItsStepsInOrder)
{
    faults::Record({Op::ZIR_HandleInitialize, Op::COMP_RegisterComponentInfo, Op::HASH_CreateNew,
                    Op::ZIR_MutexInit, Op::strcpy_s});
    services::Register();
    journal::Clear();
    ASSERT_EQ(services::StartModule(), 0u);

    Lines expected = {"ZIR_HandleInitialize l2rsm",
                      "interface 1004",
                      "initPartition 45000 l2rsm",
                      "getPartitionNumber 45000 l2rsm",
                      "interface 1010",
                      "interface 1009",
                      "interface 1003",
                      "interface 1008",
                      "interface 1024",
                      "dbg register QOR_L2RES",
                      "bbox register qor-l2rsm Forward manage l2res module",
                      "COMP_RegisterComponentInfo"};
    expected.insert(expected.end(), 10, "strcpy_s"); // five descriptions, each copied twice
    expected.insert(expected.end(), {"getSelfSlot", std::string("log 4: ") + kInitLine,
                                     std::string("bbox 0: ") + kInitLine});
    for (const char *nodeSize : {"56", "368", "24", "336"}) {
        expected.push_back(std::string("HASH_CreateNew partition 7 node ") + nodeSize + " of 1024");
        expected.push_back("ZIR_MutexInit");
    }
    EXPECT_TRUE(journal::Is(expected));

    EXPECT_EQ(g_L2ResInstInfo.firstArg, 11u);
    EXPECT_EQ(g_L2ResInstInfo.secondArg, 22u);
    EXPECT_EQ(g_L2ResInstInfo.selfSlot, 3u);
    EXPECT_EQ(services::Get().seenDbgIds, std::set<u32>{0x11});
    EXPECT_EQ(services::Get().seenBlackBoxIds, std::set<u32>{0x22});
    EXPECT_EQ(g_qorL2ResMemPtNo, 7);
    void *block = QorL2ResMemAlloc(16);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(QorL2ResMemFree(block), 0u);
}

// A step of phase 1 that fails. The texts are those that reach a service: the ones written before
// the debug-log table is known are dropped.
struct FailingStep {
    const char *name;
    void (*arrange)();
    u32 result;
    Lines lines;
};

template <u32 InterfaceId> void Refuse()
{
    services::Get().missing = {InterfaceId};
}

const std::string kInit = kInitLine, kSlotUnknown = "L2Res init, slot:1.";
const Lines kStopped = {}, kOnlyInit = {"log 4: " + kInit, "bbox 0: " + kInit};

Lines Both(const Lines &before, const std::string &error, const Lines &after)
{
    Lines lines = before;
    lines.insert(lines.end(), {"log 2: " + error, "bbox 1: " + error});
    lines.insert(lines.end(), after.begin(), after.end());
    return lines;
}

Lines ThenInit(const std::string &error)
{
    return Both({}, error, kOnlyInit);
}

Lines WithoutSlot(const std::string &error)
{
    return Both({}, error, {"log 4: " + kSlotUnknown, "bbox 0: " + kSlotUnknown});
}

Lines InitThen(const std::string &error)
{
    return Both(kOnlyInit, error, {});
}

const Lines kBlackBoxOnly = {"bbox 0: " + kInit}, kDebugLogOnly = {"log 4: " + kInit},
            kNoDebugLog = {"bbox 1: L2resRegDbgModule failed, ret:1.", "bbox 0: " + kInit},
            kNoBlackBox = {"log 2: [QorL2res][IinitVtbl]Get vtbl fail, cid:1000, iid:1024, "
                           "vtblType:1, loop:1, ret:1",
                           "log 4: " + kInit};

const FailingStep kFailingSteps[] = {
    {"Handle", [] { faults::Fail(Op::ZIR_HandleInitialize, 1, 9); }, 9, kStopped},
    {"MemoryManager", Refuse<L2RES_IID_MEMORY_MANAGER>, 1, kStopped},
    {"Memory3Missing", [] { services::Get().memm.initPartition = nullptr; }, 1, kStopped},
    {"Memory4Missing", [] { services::Get().memm.getPartitionNumber = nullptr; }, 1, kStopped},
    {"InitPartition", [] { services::Get().result["initPartition"] = 8; }, 8, kStopped},
    {"PartitionZero", [] { services::Get().partition = 0x100; }, 0, kOnlyInit},
    {"Time", Refuse<L2RES_IID_TIME>, 0, kOnlyInit},
    {"Log", Refuse<L2RES_IID_LOG>, 0, kOnlyInit},
    {"Orchestration", Refuse<L2RES_IID_ORCHESTRATION>, 0,
     WithoutSlot("[Orch func vtable]g_qorL2ResOrchmFunVtbl is null.")},
    {"GetSelfSlotMissing", [] { services::Get().orchm.getSelfSlot = nullptr; }, 0,
     WithoutSlot("[Orch func vtable]g_qorL2ResOrchmFunVtbl->getSelfSlot is null.")},
    {"DebugLog", Refuse<L2RES_IID_DEBUG_LOG>, 0, kNoDebugLog},
    {"DebugLogRegisterMissing", [] { services::Get().dbgLog.registerModule = nullptr; }, 0,
     ThenInit("L2resRegDbgModule failed, ret:1.")},
    {"DebugLogRegister", [] { services::Get().result["dbgRegister"] = 6; }, 0,
     ThenInit("L2resRegDbgModule failed, ret:6.")},
    {"DebugLogPrintMissing", [] { services::Get().dbgLog.print = nullptr; }, 0, kBlackBoxOnly},
    {"BlackBox", Refuse<L2RES_IID_BLACK_BOX>, 0, kNoBlackBox},
    {"BlackBoxPrintMissing", [] { services::Get().blackBox.print = nullptr; }, 0, kDebugLogOnly},
    {"Component", [] { faults::Fail(Op::COMP_RegisterComponentInfo); }, 0,
     ThenInit("[QOR-L2RSM][INIT]Factory Init Failed.")},
    {"IcibOpTable", [] { faults::Fail(Op::HASH_CreateNew, 1); }, 1,
     InitThen("Create ICIB CommTblOp HashTable Failed.")},
    {"IcibReOpTable", [] { faults::Fail(Op::HASH_CreateNew, 2); }, 1,
     InitThen("Create ICIB CommTblReOp HashTable Failed.")},
    {"IpatOpTable", [] { faults::Fail(Op::HASH_CreateNew, 3); }, 1,
     InitThen("Create IPAT CommTblOp HashTable Failed.")},
    {"IpatReOpTable", [] { faults::Fail(Op::HASH_CreateNew, 4); }, 1,
     InitThen("Create IPAT CommTblReOp HashTable Failed.")},
};

class FailingPhase1 : public testing::TestWithParam<FailingStep> {};

TEST_P(FailingPhase1, KeepsItsResultItsLinesAndTheOtherSteps)
{
    const FailingStep &step = GetParam();
    services::Register();
    step.arrange();
    EXPECT_EQ(services::StartModule(), step.result);

    EXPECT_TRUE(journal::Is(step.lines, journal::kLog | journal::kBlackBox));
    const std::string all = testing::PrintToString(step.lines);
    const bool wentOn = !step.lines.empty();
    const bool known = wentOn && all.find("L2resRegDbgModule") == std::string::npos;
    EXPECT_EQ(g_qorL2resDbgId, known ? 0x11u : 0u);
    const u32 slot = all.find(kSlotUnknown) == std::string::npos ? 3 : 1;
    EXPECT_EQ(g_L2ResInstInfo.selfSlot, wentOn ? slot : 0u);
    EXPECT_EQ(g_L2ResInstInfo.firstArg, wentOn ? 11u : 0u);
    EXPECT_EQ(g_qorl2ResAlarmTbl[L2RES_ALARM_SEM].registered, wentOn ? 1u : 0u);
    EXPECT_EQ(g_l2RsmFunVtbl.queryInterface != nullptr, wentOn);

    // What a failed creation left behind: no table, no block.
    const bool tables = step.result == 0;
    for (const HASH_Handle table :
         {g_icibOpRecordHash, g_icibReOpRecordHash, g_ipatOpRecordHash, g_ipatReOpRecordHash}) {
        EXPECT_EQ(table != nullptr, tables);
    }
    if (!tables) {
        ZIR_PartitionStat stat;
        ZIR_PartitionGetStat(7, &stat);
        EXPECT_EQ(stat.liveBlocks, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(Step, FailingPhase1, testing::ValuesIn(kFailingSteps),
                         [](const auto &row) { return std::string(row.param.name); });

TEST(Phase1, FailedMemorySetUpLeavesNoHandleBehind)
{
    int block = 0;
    void *const somewhere = &block;
    EXPECT_EQ(QorL2ResMemAlloc(16), nullptr);
    EXPECT_EQ(QorL2ResMemFree(somewhere), 1u);
    faults::Fail(Op::ZIR_HandleInitialize, 1, 9);
    EXPECT_EQ(services::StartModule(), 9u);
    EXPECT_EQ(g_qorL2ResMemHandle, 0xFFFFFFFFu);
    EXPECT_EQ(QorL2ResMemAlloc(16), nullptr);
    EXPECT_EQ(QorL2ResMemFree(somewhere), 1u);
    EXPECT_EQ(faults::Calls(Op::ZIR_MemAlloc) + faults::Calls(Op::ZIR_MemFree), 0u);
}

TEST(Phase1, PartitionNumbersAreCutToEightBits)
{
    services::Get().partition = 0x1FF; // 0xFF: no partition, yet start-up succeeds
    EXPECT_EQ(services::StartModule(), 0u);
    EXPECT_EQ(QorL2ResGetMemPtNo(), 0xFF);
    EXPECT_EQ(QorL2ResMemAlloc(16), nullptr);
    EXPECT_EQ(QorL2ResMemFree(nullptr), 1u);
}

TEST(Phase1, TellsMemoryFailuresOnceTheLogIsThere)
{
    services::StartWorkingModule();
    struct {
        void (*arrange)();
        u32 result;
        Lines lines;
    } const rows[] = {
        {[] { faults::Fail(Op::ZIR_HandleInitialize, 1, 9); },
         9,
         {"QOR l2RSM Module InitMemHandle failed, ret is 9.",
          "QOR l2RSM InitHandle failed, ret is 9."}},
        {[] { g_qorL2ResMemmFunVtbl = nullptr, Refuse<L2RES_IID_MEMORY_MANAGER>(); },
         1,
         {"GetMemmFunVtbl failed."}},
        {[] { services::Get().result["initPartition"] = 8; },
         8,
         {"failed to init mem pt no, ret is 8."}},
        {[] { services::Get().partition = 0x300; }, 0, {"failed to get mem pt no, ret is 0."}},
    };
    for (const auto &row : rows) {
        row.arrange();
        journal::Clear();
        EXPECT_EQ(QorL2ResMemmInit(), row.result);
        Lines expected;
        for (const auto &line : row.lines) {
            expected.push_back(journal::Error(line));
        }
        EXPECT_TRUE(journal::Is(expected, journal::kLog)) << row.lines.front();
        faults::Reset();
        services::Get().missing.clear();
        services::Get().result.clear();
    }
    // Partition 0 stays in place and serves.
    void *block = QorL2ResMemAlloc(16);
    ZIR_PartitionStat stat;
    ZIR_PartitionGetStat(0, &stat);
    EXPECT_EQ(stat.liveBlocks, 1u);
    EXPECT_EQ(QorL2ResMemFree(block), 0u);
}

TEST(Phase1, TellsMissingTablesOnceTheLogIsThere)
{
    services::StartWorkingModule();
    g_qorL2ResTimeFunVtbl = nullptr;
    g_qorL2ResLogFunVtbl = nullptr;
    g_qorL2ResOrchmFunVtbl = nullptr;
    services::Get().missing = {L2RES_IID_TIME, L2RES_IID_LOG, L2RES_IID_ORCHESTRATION};
    EXPECT_EQ(QorL2ResCommInit(), 0u);
    EXPECT_TRUE(journal::Is({journal::Error("[QOR-L2RSM][INIT]Timefun vtable Init Failed."),
                             journal::Error("[QOR-L2RSM][INIT]Logfun vtable Init Failed."),
                             journal::Error("[QOR-L2RSM][INIT]Orchmfun vtable Init Failed.")},
                            journal::kLog));
    journal::Clear();
    services::Get().result["initPartition"] = 5;
    EXPECT_EQ(QorL2ResInit(1, 2, L2RES_PHASE_INIT), 5u);
    EXPECT_TRUE(journal::Is({journal::Error("failed to init mem pt no, ret is 5."),
                             journal::Startup("[QOR-L2RSM][INIT] Memm Init Failed .")},
                            journal::kLog));
    EXPECT_EQ(g_L2ResInstInfo.firstArg, 11u) << "a failed phase 1 went on";
}

TEST(OtherPhases, UnknownOnesDoNothing)
{
    for (const bool started : {false, true}) {
        for (const u32 phase : {0u, 4u, 0xFFFFFFFFu}) {
            EXPECT_EQ(QorL2ResInit(1, 2, phase), 0u);
        }
        EXPECT_TRUE(journal::Is({}));
        if (!started) {
            EXPECT_EQ(QorL2ResInit(1, 2, L2RES_PHASE_PATCH), 0u);
            EXPECT_TRUE(journal::Is({})); // no log yet
            services::StartWorkingModule();
        }
    }
}

TEST(Phase2, PassesTheHostsCodeOn)
{
    services::StartWorkingModule();
    faults::Fail(Op::QorEpollTaskCreate, 1, 11);
    faults::Record({Op::QorEpollTaskCreate});
    EXPECT_EQ(QorL2ResInit(1, 2, L2RES_PHASE_START), 11u);
    EXPECT_TRUE(journal::Is(
        {"QorEpollTaskCreate QOR_L2RSM",
         journal::Startup("[QOR-L2RSM][INIT] Create Thread QOR_L2RSM Failed, Ret is 11")}));
}

TEST(Component, RecordAndTableAreWhatTheRegistryAndClientsRead)
{
    const auto *bytes = reinterpret_cast<const char *>(&g_l2RsmCompInfo);
    char expected[112] = {};
    const u32 id = 3008, one = 1;
    QorFactory *const factory = &g_l2resFactory;
    memcpy(expected, &id, 4);
    memcpy(expected + 4, "QOR_L2RES", 9);
    memcpy(expected + 36, "L2RES", 5);
    memcpy(expected + 100, &one, 4);
    memcpy(expected + 104, &factory, 8);
    EXPECT_EQ(memcmp(bytes, expected, sizeof expected), 0);
    EXPECT_EQ(g_l2resFactory.vtbl, &g_l2resFactoryVtbl);
    EXPECT_EQ(g_l2ResFun.vtbl, &g_l2RsmFunVtbl);

    EXPECT_EQ(g_l2RsmFunVtbl.queryInterface, nullptr) << "filled by phase 1 only";
    ASSERT_EQ(services::StartModule(), 0u);
    void *found = nullptr;
    ASSERT_EQ(COMP_GetVTable(3008, 3016, &found), 0u);
    ASSERT_EQ(found, &g_l2RsmFunVtbl);
    const void *const positions[] = {reinterpret_cast<void *>(QOR_ETH_QueryInterface_l2rsm),
                                     reinterpret_cast<void *>(QorL2ResHookRegister),
                                     reinterpret_cast<void *>(QorL2ResIcibRegister),
                                     reinterpret_cast<void *>(QorL2ResGetIcibToken),
                                     reinterpret_cast<void *>(QorL2ResFreeIcibToken),
                                     reinterpret_cast<void *>(QorL2ResEcibRegister),
                                     reinterpret_cast<void *>(QorL2ResIpatRegister),
                                     reinterpret_cast<void *>(QorL2ResGetIpatToken),
                                     reinterpret_cast<void *>(QorL2ResFreeIpatToken),
                                     reinterpret_cast<void *>(Qorl2ResAssignVlanEditProfile),
                                     reinterpret_cast<void *>(Qorl2ResFreeVlanEditProfile),
                                     reinterpret_cast<void *>(QorL2ResNotifyRegister),
                                     reinterpret_cast<void *>(QorL2ResExceedCheckAndAlarm)};
    static_assert(sizeof positions == sizeof(L2RsmFunVtbl));
    for (size_t i = 0; i < std::size(positions); ++i) {
        EXPECT_EQ(static_cast<void **>(found)[i], positions[i]) << "position " << i;
    }
}

TEST(Component, HandsOutItsInterfaces)
{
    int other = 0;
    void *const untouched = &other;
    struct {
        const char *name;
        u32 (*operation)(void *, u32, void **);
        void *self;
        u32 interfaceId;
        u32 result;
        void *out;
    } const rows[] = {
        {"query 3016", QOR_ETH_QueryInterface_l2rsm, nullptr, 3016, 0, &g_l2ResFun},
        {"query base", QOR_ETH_QueryInterface_l2rsm, nullptr, 0x748429F6, 1, nullptr},
        {"create base", QOR_ETH_FactoryCreateInstance_l2rsm, nullptr, 0x748429F6, 0, &g_l2ResFun},
        {"create 3016", QOR_ETH_FactoryCreateInstance_l2rsm, &other, 3016, 0, &g_l2ResFun},
        {"create factory", QOR_ETH_FactoryCreateInstance_l2rsm, &other, 0x11DB04E4, 1, nullptr},
        {"factory base", QOR_ETH_FactoryQueryInterface_l2rsm, &g_l2resFactory, 0x748429F6, 0,
         &g_l2resFactory},
        {"factory itself", QOR_ETH_FactoryQueryInterface_l2rsm, &other, 0x11DB04E4, 0, &other},
        {"factory 3016", QOR_ETH_FactoryQueryInterface_l2rsm, &g_l2resFactory, 3016, 0x10102DDF,
         untouched},
        {"no factory", QOR_ETH_FactoryQueryInterface_l2rsm, nullptr, 0x748429F6, 0x10102DDF,
         untouched},
    };
    for (const auto &row : rows) {
        void *out = untouched;
        EXPECT_EQ(row.operation(row.self, row.interfaceId, &out), row.result) << row.name;
        EXPECT_EQ(out, row.out) << row.name;
    }
    EXPECT_EQ(QOR_L2RES_FactoryGetVtbl(), &g_l2ResFun);
    EXPECT_EQ(QOR_L2RES_FactoryGetFunc(), &g_l2ResFun);
}

} // namespace
