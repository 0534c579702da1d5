// Phases of the entry: order of the steps, and what each failing step does to the others.
#include <gtest/gtest.h>

#include <cstring>

#include "arbitration/icib.h"
#include "arbitration/ipat.h"
#include "comp_registry.h"
#include "frame/component.h"
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

using faults::Fail;
using faults::Op;
using journal::Lines;

TEST(Phase1, RunsItsStepsInOrder)
{
    faults::Record({Op::ZIR_HandleInitialize, Op::COMP_RegisterComponentInfo, Op::HASH_CreateNew,
                    Op::ZIR_MutexInit, Op::strcpy_s});
    services::Register();
    journal::Clear();
    ASSERT_EQ(services::StartModule(), 0u);

    std::string expected =
        "ZIR_HandleInitialize l2rsm | interface 1004 | initPartition 45000 l2rsm | "
        "getPartitionNumber 45000 l2rsm | interface 1010 | interface 1009 | interface 1003 | "
        "interface 1008 | interface 1024 | dbg register QOR_L2RES | "
        "bbox register qor-l2rsm Forward manage l2res module | COMP_RegisterComponentInfo";
    for (int copy = 0; copy < 10; ++copy) { // five descriptions, each copied twice
        expected += " | strcpy_s";
    }
    expected += " | getSelfSlot | log 4: L2Res init, slot:3. | bbox 0: L2Res init, slot:3.";
    for (const std::string nodeSize : {"56", "368", "24", "336"}) {
        expected += " | HASH_CreateNew partition 7 node " + nodeSize + " of 1024 | ZIR_MutexInit";
    }
    EXPECT_EQ(journal::Text(), expected);

    EXPECT_EQ(g_L2ResInstInfo.firstArg, 11u);
    EXPECT_EQ(g_L2ResInstInfo.secondArg, 22u);
}

template <u32 InterfaceId> void Refuse()
{
    services::Get().missing = {InterfaceId};
}

constexpr unsigned kNone = 0, kLog = journal::kLog, kBox = journal::kBlackBox, kBoth = kLog | kBox;

// A step of phase 1 that fails.
struct FailingStep {
    const char *name;
    void (*arrange)();
    u32 result;
    unsigned reached; // where messages arrive; nowhere as long as no service is known
    std::string error = "";
};

const FailingStep kFailingSteps[] = {
    {"Handle", [] { Fail(Op::ZIR_HandleInitialize, 1, 9); }, 9, kNone},
    {"MemoryManager", Refuse<L2RES_IID_MEMORY_MANAGER>, 1, kNone},
    {"Memory3Missing", [] { services::Get().memm.initPartition = nullptr; }, 1, kNone},
    {"Memory4Missing", [] { services::Get().memm.getPartitionNumber = nullptr; }, 1, kNone},
    {"InitPartition", [] { services::Get().results["initPartition"] = {8}; }, 8, kNone},
    {"Time", Refuse<L2RES_IID_TIME>, 0, kBoth},
    {"Log", Refuse<L2RES_IID_LOG>, 0, kBoth},
    {"Orchestration", Refuse<L2RES_IID_ORCHESTRATION>, 0, kBoth,
     "[Orch func vtable]g_qorL2ResOrchmFunVtbl is null."},
    {"GetSelfSlotMissing", [] { services::Get().orchm.getSelfSlot = nullptr; }, 0, kBoth,
     "[Orch func vtable]g_qorL2ResOrchmFunVtbl->getSelfSlot is null."},
    {"DebugLog", Refuse<L2RES_IID_DEBUG_LOG>, 0, kBox, "L2resRegDbgModule failed, ret:1."},
    {"DebugLogRegisterMissing", [] { services::Get().dbgLog.registerModule = nullptr; }, 0, kBoth,
     "L2resRegDbgModule failed, ret:1."},
    {"DebugLogRegister", [] { services::Get().results["dbgRegister"] = {6}; }, 0, kBoth,
     "L2resRegDbgModule failed, ret:6."},
    {"DebugLogPrintMissing", [] { services::Get().dbgLog.print = nullptr; }, 0, kBox},
    {"BlackBox", Refuse<L2RES_IID_BLACK_BOX>, 0, kLog,
     "[QorL2res][IinitVtbl]Get vtbl fail, cid:1000, iid:1024, vtblType:1, loop:1, ret:1"},
    {"BlackBoxPrintMissing", [] { services::Get().blackBox.print = nullptr; }, 0, kLog},
    {"Component", [] { Fail(Op::COMP_RegisterComponentInfo); }, 0, kBoth,
     "[QOR-L2RSM][INIT]Factory Init Failed."},
    {"IcibOp", [] { Fail(Op::HASH_CreateNew, 1); }, 1, kBoth,
     "Create ICIB CommTblOp HashTable Failed."},
    {"IcibReOp", [] { Fail(Op::HASH_CreateNew, 2); }, 1, kBoth,
     "Create ICIB CommTblReOp HashTable Failed."},
    {"IpatOp", [] { Fail(Op::HASH_CreateNew, 3); }, 1, kBoth,
     "Create IPAT CommTblOp HashTable Failed."},
    {"IpatReOp", [] { Fail(Op::HASH_CreateNew, 4); }, 1, kBoth,
     "Create IPAT CommTblReOp HashTable Failed."},
};

class FailingPhase1 : public testing::TestWithParam<FailingStep> {};

TEST_P(FailingPhase1, KeepsItsResultItsLinesAndTheOtherSteps)
{
    const FailingStep &step = GetParam();
    services::Register();
    step.arrange();
    EXPECT_EQ(services::StartModule(), step.result);

    const bool wentOn = step.reached != kNone;
    const u32 slot = step.error.starts_with("[Orch") ? 1 : 3;
    const std::string init = "L2Res init, slot:" + std::to_string(slot) + ".";
    Lines lines = {"log 4: " + init, "bbox 0: " + init};
    if (!step.error.empty()) { // that of a table comes last
        lines.insert(step.result == 0 ? lines.begin() : lines.end(),
                     {"log 2: " + step.error, "bbox 1: " + step.error});
    }
    std::erase_if(lines, [&](const auto &line) {
        return (step.reached & (line[0] == 'l' ? kLog : kBox)) == 0;
    });
    EXPECT_TRUE(journal::Is(lines, kBoth));

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
    ZIR_PartitionStat stat;
    ZIR_PartitionGetStat(7, &stat);
    EXPECT_TRUE(tables || stat.liveBlocks == 0);
}

INSTANTIATE_TEST_SUITE_P(Step, FailingPhase1, testing::ValuesIn(kFailingSteps),
                         [](const auto &row) { return std::string(row.param.name); });

TEST(Phase1, LeavesNoMemoryToTakeWithoutHandleOrPartition)
{
    int block = 0;
    Fail(Op::ZIR_HandleInitialize, 1, 9);
    EXPECT_EQ(services::StartModule(), 9u);
    EXPECT_EQ(g_qorL2ResMemHandle, 0xFFFFFFFFu);
    EXPECT_EQ(QorL2ResMemAlloc(16), nullptr);
    EXPECT_EQ(QorL2ResMemFree(static_cast<void *>(&block)), 1u);
    services::Get().partition = 0x1FF; // cut to 0xFF: no partition, yet start-up succeeds
    EXPECT_EQ(services::StartModule(), 0u);
    EXPECT_EQ(QorL2ResGetMemPtNo(), 0xFF);
    EXPECT_EQ(QorL2ResMemAlloc(16), nullptr);
    EXPECT_EQ(QorL2ResMemFree(nullptr), 1u);
    EXPECT_EQ(faults::Calls(Op::ZIR_MemAlloc) + faults::Calls(Op::ZIR_MemFree), 0u);
}

// What is dropped while no service is known shows when a step is run again.
TEST(Phase1, TellsItsFailuresOnceTheLogIsThere)
{
    services::StartWorkingModule();
    struct {
        void (*arrange)();
        u32 (*act)();
        u32 result;
        const char *written;
    } const rows[] = {
        {[] { Fail(Op::ZIR_HandleInitialize, 1, 9); }, QorL2ResMemmInit, 9,
         "log 2: QOR l2RSM Module InitMemHandle failed, ret is 9. | "
         "log 2: QOR l2RSM InitHandle failed, ret is 9."},
        {[] { g_qorL2ResMemmFunVtbl = nullptr, Refuse<L2RES_IID_MEMORY_MANAGER>(); },
         QorL2ResMemmInit, 1, "log 2: GetMemmFunVtbl failed."},
        {[] { services::Get().results["initPartition"] = {5}; },
         [] { return QorL2ResInit(1, 2, L2RES_PHASE_INIT); }, 5,
         "log 2: failed to init mem pt no, ret is 5. | "
         "log 3: [QOR-L2RSM][INIT] Memm Init Failed ."},
        {[] {
             g_qorL2ResTimeFunVtbl = nullptr;
             g_qorL2ResLogFunVtbl = nullptr;
             g_qorL2ResOrchmFunVtbl = nullptr;
             services::Get().missing = {L2RES_IID_TIME, L2RES_IID_LOG, L2RES_IID_ORCHESTRATION};
         },
         QorL2ResCommInit, 0,
         "log 2: [QOR-L2RSM][INIT]Timefun vtable Init Failed. | "
         "log 2: [QOR-L2RSM][INIT]Logfun vtable Init Failed. | "
         "log 2: [QOR-L2RSM][INIT]Orchmfun vtable Init Failed."},
        {[] { services::Get().partition = 0x300; }, QorL2ResMemmInit, 0,
         "log 2: failed to get mem pt no, ret is 0."},
    };
    for (const auto &row : rows) {
        row.arrange();
        journal::Clear();
        EXPECT_EQ(row.act(), row.result);
        EXPECT_EQ(journal::Text(kLog), row.written);
        services::Get().missing.clear();
        services::Get().results.clear();
    }
    EXPECT_EQ(g_L2ResInstInfo.firstArg, 11u) << "a failed phase 1 went on";
    // Partition 0 stays in place and serves.
    void *block = QorL2ResMemAlloc(16);
    ZIR_PartitionStat stat;
    ZIR_PartitionGetStat(0, &stat);
    EXPECT_EQ(stat.liveBlocks, 1u);
    EXPECT_EQ(QorL2ResMemFree(block), 0u);
}

TEST(OtherPhases, UnknownOnesDoNothing)
{
    EXPECT_EQ(QorL2ResInit(1, 2, L2RES_PHASE_PATCH), 0u);
    EXPECT_TRUE(journal::Is({})); // no log yet
    services::StartWorkingModule();
    for (const u32 phase : {0u, 4u, 0xFFFFFFFFu}) {
        EXPECT_EQ(QorL2ResInit(1, 2, phase), 0u);
    }
    EXPECT_TRUE(journal::Is({}));
    EXPECT_EQ(g_L2ResInstInfo.firstArg, 11u);
}

TEST(Phase2, PassesTheHostsCodeOn)
{
    services::StartWorkingModule();
    Fail(Op::QorEpollTaskCreate, 1, 11);
    faults::Record({Op::QorEpollTaskCreate});
    EXPECT_EQ(QorL2ResInit(1, 2, L2RES_PHASE_START), 11u);
    EXPECT_TRUE(
        journal::Is({"QorEpollTaskCreate QOR_L2RSM",
                     "log 3: [QOR-L2RSM][INIT] Create Thread QOR_L2RSM Failed, Ret is 11"}));
}

template <class... Functions> std::vector<void *> Addresses(Functions *...functions)
{
    return {reinterpret_cast<void *>(functions)...};
}

TEST(Component, RecordAndTableAreWhatTheRegistryAndClientsRead)
{
    char expected[112] = {};
    const u32 id = 3008, one = 1;
    QorFactory *const factory = &g_l2resFactory;
    memcpy(expected, &id, 4);
    memcpy(expected + 4, "QOR_L2RES", 9);
    memcpy(expected + 36, "L2RES", 5);
    memcpy(expected + 100, &one, 4);
    memcpy(expected + 104, &factory, 8);
    EXPECT_EQ(memcmp(&g_l2RsmCompInfo, expected, sizeof expected), 0);

    EXPECT_EQ(g_l2RsmFunVtbl.queryInterface, nullptr) << "filled by phase 1 only";
    ASSERT_EQ(services::StartModule(), 0u);
    void *found = nullptr;
    ASSERT_EQ(COMP_GetVTable(3008, 3016, &found), 0u);
    ASSERT_EQ(found, &g_l2RsmFunVtbl);
    const auto positions = Addresses(
        QOR_ETH_QueryInterface_l2rsm, QorL2ResHookRegister, QorL2ResIcibRegister,
        QorL2ResGetIcibToken, QorL2ResFreeIcibToken, QorL2ResEcibRegister, QorL2ResIpatRegister,
        QorL2ResGetIpatToken, QorL2ResFreeIpatToken, Qorl2ResAssignVlanEditProfile,
        Qorl2ResFreeVlanEditProfile, QorL2ResNotifyRegister, QorL2ResExceedCheckAndAlarm);
    ASSERT_EQ(positions.size() * sizeof(void *), sizeof(L2RsmFunVtbl));
    EXPECT_EQ(memcmp(found, positions.data(), sizeof(L2RsmFunVtbl)), 0);
}

TEST(Component, HandsOutItsInterfaces)
{
    int other = 0;
    void *const untouched = &other;
    const auto query = QOR_ETH_QueryInterface_l2rsm;
    const auto create = QOR_ETH_FactoryCreateInstance_l2rsm;
    const auto factory = QOR_ETH_FactoryQueryInterface_l2rsm;
    constexpr u32 kBase = 0x748429F6, kFactory = 0x11DB04E4, kNoInterface = 0x10102DDF;
    struct {
        u32 (*operation)(void *, u32, void **);
        void *self;
        u32 interfaceId, result;
        void *out;
    } const rows[] = {
        {query, nullptr, 3016, 0, &g_l2ResFun},
        {query, nullptr, kBase, 1, nullptr},
        {create, nullptr, kBase, 0, &g_l2ResFun},
        {create, &other, 3016, 0, &g_l2ResFun},
        {create, &other, kFactory, 1, nullptr},
        {factory, &g_l2resFactory, kBase, 0, &g_l2resFactory},
        {factory, &other, kFactory, 0, &other},
        {factory, &g_l2resFactory, 3016, kNoInterface, untouched},
        {factory, nullptr, kBase, kNoInterface, untouched},
    };
    for (size_t i = 0; i < std::size(rows); ++i) {
        void *out = untouched;
        EXPECT_EQ(rows[i].operation(rows[i].self, rows[i].interfaceId, &out), rows[i].result) << i;
        EXPECT_EQ(out, rows[i].out) << i;
    }
    EXPECT_EQ(QOR_L2RES_FactoryGetVtbl(), &g_l2ResFun);
    EXPECT_EQ(QOR_L2RES_FactoryGetFunc(), &g_l2ResFun);
}

} // namespace
