// The worker task: start-up with each step failing, its loop, its messages and who frees them.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <semaphore>
#include <thread>

#include "frame/memory.h"
#include "frame/worker.h"
#include "l2rsm_alarms.h"
#include "l2rsm_entry.h"
#include "l2rsm_registry.h"
#include "support/faults.h"
#include "support/journal.h"
#include "support/services.h"
#include "zir_memory.h"
#include "zir_timer.h"

namespace {

std::counting_semaphore<> g_walks{0};

} // namespace

// Seen on its way to the module's own.
extern "C" QOR_API void QorL2ResIcibReOpHashWalk(void)
{
    journal::Write(journal::kCall, "walk");
    reinterpret_cast<void (*)()>(dlsym(RTLD_NEXT, "QorL2ResIcibReOpHashWalk"))();
    g_walks.release();
}

namespace {

using faults::Op;
using journal::Lines;

u64 LiveBlocks()
{
    ZIR_PartitionStat stat;
    ZIR_PartitionGetStat(7, &stat);
    return stat.liveBlocks;
}

long OpenDescriptors()
{
    using std::filesystem::directory_iterator;
    return std::distance(directory_iterator("/proc/self/fd"), directory_iterator());
}

const char *const kQueueCreated = "QorEpollQueCreate L2RSM_Q_DATA 4096 0 8";

struct FailingStep {
    const char *name;
    void (*arrange)();
    u32 result;
    Lines lines; // from the start of the second timer on
};

class FailingWorker : public testing::TestWithParam<FailingStep> {};

const FailingStep kFailingSteps[] = {
    {"ProbeTimer",
     [] { faults::Fail(Op::ZIR_ReltmrCbkStart, 2, 33); },
     1,
     {journal::Startup("[QOR-L2RSM] L2Rsm Create Timer Failed.")}},
    {"Epoll",
     [] { faults::Fail(Op::epoll_create_s); },
     1,
     {"epoll_create_s 8", "stopped 1000", "stopped 5000",
      journal::Startup("[QOR-L2RSM] L2Rsm Proc Epoll Create Failed.")}},
    {"Queue",
     [] { faults::Fail(Op::QorEpollQueCreate, 1, 44); },
     44,
     {"epoll_create_s 8", kQueueCreated, "stopped 1000", "stopped 5000", "close_s"}},
    {"Context",
     [] { faults::Fail(Op::ZIR_MemAlloc); },
     1,
     {"epoll_create_s 8", kQueueCreated, "ZIR_MemAlloc 40",
      journal::Startup("[QOR-L2RSM] EventQueue Malloc Failed."), "QorEpollQueDelete",
      "stopped 1000", "stopped 5000", "close_s"}},
    {"Attach",
     [] { faults::Fail(Op::QorEpollQueCtl, 1, 55); },
     55,
     {"epoll_create_s 8", kQueueCreated, "ZIR_MemAlloc 40", "QorEpollQueCtl 1 1",
      "QorEpollQueDelete", "ZIR_MemFree", "stopped 1000", "stopped 5000", "close_s"}},
};

TEST_P(FailingWorker, UndoesWhatItHadDone)
{
    services::StartWorkingModule();
    timers::Capture();
    faults::Record({Op::ZIR_ReltmrCbkStart, Op::epoll_create_s, Op::close_s, Op::QorEpollQueCreate,
                    Op::QorEpollQueDelete, Op::QorEpollQueCtl, Op::ZIR_MemAlloc, Op::ZIR_MemFree});
    GetParam().arrange();
    const u64 blocks = LiveBlocks();
    const long descriptors = OpenDescriptors();

    EXPECT_EQ(QorL2ResMain(nullptr), GetParam().result);

    Lines expected = {"ZIR_ReltmrCbkStart", "ZIR_ReltmrCbkStart"};
    expected.insert(expected.end(), GetParam().lines.begin(), GetParam().lines.end());
    EXPECT_TRUE(journal::Is(expected));
    EXPECT_EQ(LiveBlocks(), blocks);
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_EQ(g_qorl2resQueue, 0u);
}

INSTANTIATE_TEST_SUITE_P(Step, FailingWorker, testing::ValuesIn(kFailingSteps),
                         [](const auto &row) { return std::string(row.param.name); });

TEST(WorkerTimers, AreStartedWithTheirPeriodsAndCallbacks)
{
    services::StartWorkingModule();
    timers::Capture();
    EXPECT_EQ(QorL2ResTimerInit(), 0u);
    const auto started = timers::All();
    ASSERT_EQ(started.size(), 2u);
    struct {
        ZIR_TimerHandle *handle;
        u32 periodMs, parameter;
        ZIR_TimerCallback callback;
    } const rows[] = {{&g_icibReOpTimer, 1000, 0xFFFFFF02, QorL2ResTimerOut},
                      {&g_IcibppCountPorobeTimer, 5000, 0, QorL2ResIcibResProbe}};
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(started[i].handle, rows[i].handle);
        EXPECT_EQ(started[i].memHandle, g_qorL2ResMemHandle);
        EXPECT_EQ(started[i].periodMs, rows[i].periodMs);
        EXPECT_EQ(started[i].parameter, rows[i].parameter);
        EXPECT_EQ(started[i].context, nullptr);
        EXPECT_EQ(started[i].mode, 1u);
        EXPECT_EQ(started[i].callback, rows[i].callback);
    }
}

TEST(WorkerTimers, OnlyTheProbeTimersFailureCounts)
{
    services::StartWorkingModule();
    timers::Capture();
    faults::Fail(Op::ZIR_ReltmrCbkStart, 1, 22);
    EXPECT_EQ(QorL2ResTimerInit(), 0u);
    EXPECT_TRUE(
        journal::Is({journal::Error("QorL2ResTimerInit Create Timer Fail.")}, journal::kLog));
    faults::Fail(Op::ZIR_ReltmrCbkStart, 2, 33);
    EXPECT_EQ(QorL2ResTimerInit(), 33u);
    EXPECT_TRUE(timers::All().back().running) << "the re-op timer goes on";
}

const char *const kWait = "epoll_wait 8 -1";

// What a wait yields when nothing is ready or a signal ends it: another wait, no dispatch.
TEST(WorkerLoop, WaitsAgainAfterAnEmptyOrInterruptedWait)
{
    services::StartWorkingModule();
    timers::Capture();
    static std::counting_semaphore<> waits{0};
    int answers = 0;
    faults::Observe([&](Op op) {
        if (op == Op::epoll_wait) {
            // The first two waits end at once, with -1 and with 0.
            if (answers < 2) {
                faults::Fail(Op::epoll_wait, 1, answers == 0 ? -1 : 0);
            }
            ++answers;
            waits.release();
        }
    });
    faults::Record({Op::epoll_wait, Op::QOR_Epoll_EvtProc});
    ASSERT_EQ(QorL2ResInit(0, 0, L2RES_PHASE_START), 0u);
    for (int i = 0; i < 3; ++i) {
        waits.acquire();
    }
    EXPECT_TRUE(journal::Is({kWait, kWait, kWait}));
    EXPECT_EQ(QorL2ResMsgWrite(1, nullptr, 0), 0u);
    waits.acquire();
    EXPECT_TRUE(
        journal::Is({kWait, kWait, kWait, "QOR_Epoll_EvtProc", "walk", kWait}, journal::kCall));
    faults::Observe({});
}

TEST(WorkerLoop, RealTimersDriveTheTask)
{
    services::StartWorkingModule();
    ZIR_TimerSetSpeed(50);
    ASSERT_EQ(QorL2ResInit(0, 0, L2RES_PHASE_START), 0u);
    for (int i = 0; i < 6; ++i) {
        g_walks.acquire();
    }
    QorL2ResTimerDeInit();
    EXPECT_EQ(g_icibReOpTimer, 0u);
    EXPECT_EQ(g_IcibppCountPorobeTimer, 0u);
}

std::string WriteQueueFull(u32 type, u32 length)
{
    return journal::Error("[QOR-L2RSM] Write Que Full,msgtype:" + std::to_string(type) +
                          ",dataLen:" + std::to_string(length) + ".");
}

class Messages : public testing::Test {
protected:
    void SetUp() override
    {
        services::StartWorkingModule();
        timers::Capture();
        worker::Open();
        QorL2ResTimerInit();
        blocks = LiveBlocks();
    }
    u64 blocks = 0;
};

TEST_F(Messages, ContextIsWhatTheDispatcherNeeds)
{
    ASSERT_NE(worker::Context(), nullptr);
    EXPECT_EQ(worker::Context()->queue, g_qorl2resQueue);
    EXPECT_EQ(worker::Context()->handler, QorL2ResMsgProc);
    for (const u64 zero : worker::Context()->reserved) {
        EXPECT_EQ(zero, 0u);
    }
}

TEST_F(Messages, TicksWalkAndProbe)
{
    for (u32 type = 0; type < L2RES_ALARM_COUNT; ++type) {
        g_qorl2ResAlarmTbl[type].registered = 1; // 3 too: it must not be probed all the same
        g_qorl2ResAlarmTbl[type].raised = 1;
        g_qorl2ResAlarmTbl[type].hookType = type == 3 ? 0 : type;
    }
    const auto hook = [](auto type) -> L2ResHook {
        return reinterpret_cast<L2ResHook>(+[](u32 *, u32 *, u32 *) -> u32 {
            journal::Write(journal::kHook, "count " + std::to_string(decltype(type)::value));
            return 1;
        });
    };
    QorL2ResHookRegister(0, hook(std::integral_constant<int, 0>()));
    QorL2ResHookRegister(1, hook(std::integral_constant<int, 1>()));
    QorL2ResHookRegister(2, hook(std::integral_constant<int, 2>()));
    QorL2ResHookRegister(4, hook(std::integral_constant<int, 4>()));
    QorL2ResHookRegister(5, hook(std::integral_constant<int, 5>()));

    timers::Tick(5000);
    timers::Tick(1000);
    timers::Tick(1000);
    EXPECT_TRUE(journal::Is({}, journal::kHook | journal::kCall)) << "timers only post";
    EXPECT_EQ(worker::Drain(), 3u);
    EXPECT_TRUE(journal::Is({"count 0", "count 1", "count 2", "count 4", "count 5", "walk", "walk"},
                            journal::kHook | journal::kCall));
    EXPECT_EQ(LiveBlocks(), blocks);
}

TEST_F(Messages, TravelAsAddresses)
{
    faults::Record({Op::ZIR_MemAlloc, Op::QorEpollQueWrite});
    ASSERT_EQ(QorL2ResMsgWrite(3, nullptr, 0), 0u);
    EXPECT_TRUE(journal::Is({"ZIR_MemAlloc 16", "QorEpollQueWrite 8 within 3000"}));
    EXPECT_TRUE(worker::Step());
}

TEST_F(Messages, OfUnknownTypeAreOnlyFreedWithTheirData)
{
    for (const u32 type : {0u, 3u, 0xFFFFFFFFu}) {
        void *data = QorL2ResMemAlloc(24);
        ASSERT_EQ(QorL2ResMsgWrite(type, data, 24), 0u);
        ASSERT_EQ(QorL2ResMsgWrite(type, nullptr, 0), 0u);
        EXPECT_EQ(LiveBlocks(), blocks + 3);
        const auto frees = faults::Calls(Op::ZIR_MemFree);
        EXPECT_TRUE(worker::Step());
        EXPECT_EQ(faults::Calls(Op::ZIR_MemFree), frees + 2);
        EXPECT_TRUE(worker::Step());
        EXPECT_EQ(faults::Calls(Op::ZIR_MemFree), frees + 3);
        EXPECT_EQ(LiveBlocks(), blocks);
        EXPECT_EQ(QorL2ResMemFree(data), 1u) << "the data was freed";
    }
    EXPECT_TRUE(journal::Is({}));
}

TEST_F(Messages, NobodyPostedAreRefused)
{
    EXPECT_EQ(QorL2ResMsgProc(0, worker::Context()), 1u) << "an empty queue";
    QorQueueContext noQueue = *worker::Context();
    noQueue.queue = 0;
    void *const null = nullptr;
    ASSERT_EQ(QorEpollQueWrite(g_qorl2resQueue, &null, 8, 0), 0u);
    EXPECT_EQ(QorL2ResMsgProc(0, &noQueue), 1u);
    EXPECT_EQ(QorEpollQueGetMsgNum(g_qorl2resQueue), 1u);
    EXPECT_EQ(QorL2ResMsgProc(0, worker::Context()), 1u) << "a null message";
    EXPECT_EQ(QorEpollQueGetMsgNum(g_qorl2resQueue), 0u);
    EXPECT_EQ(LiveBlocks(), blocks);
}

TEST_F(Messages, ThatCannotBePostedStayTheCallers)
{
    struct {
        void (*arrange)();
        u32 result;
        Lines lines;
    } const rows[] = {
        {[] { faults::Fail(Op::ZIR_MemAlloc); }, 1, {}},
        {[] { faults::Fail(Op::QorEpollQueWrite, 1, 77); }, 77, {}},
        {[] { faults::Fail(Op::QorEpollQueGetMsgNum, 1, 4096); }, 1, {WriteQueueFull(3, 24)}},
        {[] { faults::Fail(Op::QorEpollQueGetMsgNum, 1, 5000); }, 1, {WriteQueueFull(3, 24)}},
    };
    for (const auto &row : rows) {
        void *data = QorL2ResMemAlloc(24);
        row.arrange();
        journal::Clear();
        EXPECT_EQ(QorL2ResMsgWrite(3, data, 24), row.result);
        EXPECT_TRUE(journal::Is(row.lines, journal::kLog));
        EXPECT_EQ(LiveBlocks(), blocks + 1) << "the record is freed, the data is not";
        EXPECT_EQ(QorL2ResMemFree(data), 0u);

        // A tick that meets the same failure is lost and says so.
        struct {
            void (*tick)();
            u32 type;
            const char *line;
        } const ticks[] = {{QorL2ResTimerOut, 1, "QorL2ResTimerOut Write Queue Fail."},
                           {QorL2ResIcibResProbe, 2, "L2Res Icib probe msg EnQue Fail."}};
        for (const auto &tick : ticks) {
            row.arrange();
            journal::Clear();
            tick.tick();
            Lines lines;
            if (!row.lines.empty()) {
                lines.push_back(WriteQueueFull(tick.type, 0));
            }
            lines.push_back(journal::Error(tick.line));
            EXPECT_TRUE(journal::Is(lines, journal::kLog));
        }
        EXPECT_EQ(LiveBlocks(), blocks);
        EXPECT_FALSE(worker::Step());
    }
}

TEST_F(Messages, FillTheQueueTo4096)
{
    for (u32 i = 0; i < 4096; ++i) {
        ASSERT_EQ(QorL2ResMsgWrite(3, nullptr, 0), 0u) << i;
    }
    EXPECT_EQ(QorL2ResMsgWrite(3, nullptr, 5), 1u);
    EXPECT_TRUE(journal::Is({WriteQueueFull(3, 5)}, journal::kLog));
    EXPECT_TRUE(worker::Step());
    EXPECT_EQ(QorL2ResMsgWrite(3, nullptr, 0), 0u);
    EXPECT_EQ(worker::Drain(), 4096u);
    EXPECT_EQ(LiveBlocks(), blocks);
}

TEST(Posts, FailSoftlyBeforeTheQueueExists)
{
    services::StartWorkingModule();
    const u64 blocks = LiveBlocks();
    QorL2ResTimerOut();
    EXPECT_TRUE(journal::Is({journal::Error("QorL2ResTimerOut Write Queue Fail.")}, journal::kLog));
    EXPECT_EQ(LiveBlocks(), blocks);
}

} // namespace
