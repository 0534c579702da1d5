// The worker task: start-up with each step failing, its loop, its messages and who frees them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <semaphore>

#include "frame/memory.h"
#include "frame/worker.h"
#include "l2rsm_entry.h"
#include "support/faults.h"
#include "support/journal.h"
#include "support/services.h"
#include "zir_memory.h"

// The worker's jobs, seen instead of done.
extern "C" QOR_API void QorL2ResIcibReOpHashWalk(void)
{
    journal::Write(journal::kCall, "walk");
}

extern "C" QOR_API void QorL2ResProbeProc(u32 alarmType)
{
    journal::Write(journal::kCall, journal::Join("probe", alarmType));
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

/* The next descriptor that will be given out: the same again when none was left open. */
int NextDescriptor()
{
    const int next = dup(0);
    close(next);
    return next;
}

struct FailingStep {
    const char *name;
    Op op;
    unsigned nth;
    long long answer;
    u32 result;
    std::string did; // from the start of the second timer on
};

class FailingWorker : public testing::TestWithParam<FailingStep> {};

const std::string kQueue = " | epoll_create_s 8 | QorEpollQueCreate L2RSM_Q_DATA 4096 0 8";
const std::string kTimersStopped = " | stopped 1000 | stopped 5000";

const FailingStep kFailingSteps[] = {
    {"ProbeTimer", Op::ZIR_ReltmrCbkStart, 2, 33, 1,
     " | log 3: [QOR-L2RSM] L2Rsm Create Timer Failed."},
    {"Epoll", Op::epoll_create_s, 1, -1, 1,
     " | epoll_create_s 8" + kTimersStopped +
         " | log 3: [QOR-L2RSM] L2Rsm Proc Epoll Create Failed."},
    {"Queue", Op::QorEpollQueCreate, 1, 44, 44, kQueue + kTimersStopped + " | close_s"},
    {"Context", Op::ZIR_MemAlloc, 1, 0, 1,
     kQueue + " | ZIR_MemAlloc 40 | log 3: [QOR-L2RSM] EventQueue Malloc Failed." +
         " | QorEpollQueDelete" + kTimersStopped + " | close_s"},
    {"Attach", Op::QorEpollQueCtl, 1, 55, 55,
     kQueue + " | ZIR_MemAlloc 40 | QorEpollQueCtl 1 1 | QorEpollQueDelete | ZIR_MemFree" +
         kTimersStopped + " | close_s"},
};

TEST_P(FailingWorker, UndoesWhatItHadDone)
{
    services::StartWorkingModule();
    timers::Capture();
    faults::Record({Op::ZIR_ReltmrCbkStart, Op::epoll_create_s, Op::close_s, Op::QorEpollQueCreate,
                    Op::QorEpollQueDelete, Op::QorEpollQueCtl, Op::ZIR_MemAlloc, Op::ZIR_MemFree});
    const FailingStep &step = GetParam();
    faults::Fail(step.op, step.nth, step.answer);
    const u64 blocks = LiveBlocks();
    const int descriptor = NextDescriptor();

    EXPECT_EQ(QorL2ResMain(nullptr), step.result);

    EXPECT_EQ(journal::Text(), "ZIR_ReltmrCbkStart | ZIR_ReltmrCbkStart" + step.did);
    EXPECT_EQ(LiveBlocks(), blocks);
    EXPECT_EQ(NextDescriptor(), descriptor);
    EXPECT_EQ(g_qorl2resQueue, 0u);
}

INSTANTIATE_TEST_SUITE_P(Step, FailingWorker, testing::ValuesIn(kFailingSteps),
                         [](const auto &row) { return std::string(row.param.name); });

TEST(WorkerTimers, AreStartedWithTheirPeriodsAndCallbacks)
{
    services::StartWorkingModule();
    timers::Capture();
    faults::Fail(Op::ZIR_ReltmrCbkStart, 2, 33);
    EXPECT_EQ(QorL2ResTimerInit(), 33u);
    EXPECT_TRUE(timers::All().back().running) << "the re-op timer goes on";
    faults::Fail(Op::ZIR_ReltmrCbkStart, 1, 22);
    EXPECT_EQ(QorL2ResTimerInit(), 0u) << "only the probe timer's failure counts";
    EXPECT_TRUE(
        journal::Is({journal::Error("QorL2ResTimerInit Create Timer Fail.")}, journal::kLog));

    const timers::Timer expected[] = {
        {&g_icibReOpTimer, 0, 1000, 0xFFFFFF02, nullptr, 1, QorL2ResTimerOut, true},
        {&g_IcibppCountPorobeTimer, 0, 5000, 0, nullptr, 1, QorL2ResIcibResProbe, true}};
    const auto started = timers::All();
    ASSERT_EQ(started.size(), std::size(expected));
    for (size_t i = 0; i < started.size(); ++i) {
        timers::Timer timer = expected[i];
        timer.memHandle = g_qorL2ResMemHandle;
        EXPECT_EQ(started[i], timer) << i;
    }
}

// What a wait yields when nothing is ready or a signal ends it: another wait, no dispatch.
TEST(WorkerLoop, WaitsAgainAfterAnEmptyOrInterruptedWait)
{
    services::StartWorkingModule();
    timers::Capture();
    static std::counting_semaphore<> waits{0};
    int answer = -1; // of the first wait, 0 of the second; from then on a wait is a wait
    faults::Observe([&](Op op) {
        if (op == Op::epoll_wait) {
            if (answer <= 0) {
                faults::Fail(op, 1, answer++);
            }
            waits.release();
        }
    });
    faults::Record({Op::epoll_wait, Op::QOR_Epoll_EvtProc});
    ASSERT_EQ(QorL2ResInit(0, 0, L2RES_PHASE_START), 0u);
    for (int wait = 0; wait < 3; ++wait) {
        waits.acquire();
    }
    const std::string waited = "epoll_wait 8 -1 | epoll_wait 8 -1 | epoll_wait 8 -1";
    EXPECT_EQ(journal::Text(), waited);
    EXPECT_EQ(QorL2ResMsgWrite(1, nullptr, 0), 0u);
    waits.acquire();
    EXPECT_EQ(journal::Text(journal::kCall),
              waited + " | QOR_Epoll_EvtProc | walk | epoll_wait 8 -1");
    faults::Observe({});
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

TEST_F(Messages, TravelAsAddressesThroughTheAttachedQueue)
{
    faults::Record({Op::ZIR_MemAlloc, Op::QorEpollQueWrite});
    ASSERT_EQ(QorL2ResMsgWrite(3, nullptr, 0), 0u);
    EXPECT_EQ(journal::Text(), "ZIR_MemAlloc 16 | QorEpollQueWrite 8 within 3000");
    ASSERT_NE(worker::Context(), nullptr);
    QorQueueContext expected = {};
    expected.queue = g_qorl2resQueue;
    expected.handler = QorL2ResMsgProc;
    EXPECT_EQ(memcmp(worker::Context(), &expected, sizeof expected), 0);
}

TEST_F(Messages, TicksWalkAndProbe)
{
    timers::Tick(5000);
    timers::Tick(1000);
    timers::Tick(1000);
    EXPECT_TRUE(journal::Is({})) << "timers only post";
    EXPECT_EQ(worker::Drain(), 3u);
    EXPECT_EQ(journal::Text(), "probe 0 | probe 1 | probe 2 | probe 4 | probe 5 | walk | walk");
    EXPECT_EQ(LiveBlocks(), blocks);
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

const std::string kTickLost = "log 2: QorL2ResTimerOut Write Queue Fail.";
const std::string kProbeLost = "log 2: L2Res Icib probe msg EnQue Fail.";

TEST_F(Messages, ThatCannotBePostedStayTheCallers)
{
    struct {
        Op op;
        long long answer;
        u32 result;
    } const rows[] = {{Op::ZIR_MemAlloc, 0, 1}, {Op::QorEpollQueWrite, 77, 77}};
    for (const auto &row : rows) {
        void *data = QorL2ResMemAlloc(24);
        journal::Clear();
        faults::Fail(row.op, 1, row.answer);
        EXPECT_EQ(QorL2ResMsgWrite(3, data, 24), row.result);
        EXPECT_EQ(LiveBlocks(), blocks + 1) << "the record is freed, the data is not";
        EXPECT_EQ(QorL2ResMemFree(data), 0u);
        EXPECT_TRUE(journal::Is({}, journal::kLog));
        faults::Fail(row.op, 1, row.answer);
        QorL2ResTimerOut();
        faults::Fail(row.op, 1, row.answer);
        QorL2ResIcibResProbe();
        EXPECT_EQ(journal::Text(journal::kLog), kTickLost + " | " + kProbeLost);
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
    QorL2ResTimerOut();
    QorL2ResIcibResProbe();
    const std::string full = "log 2: [QOR-L2RSM] Write Que Full,msgtype:";
    EXPECT_EQ(journal::Text(journal::kLog), full + "3,dataLen:5. | " + full + "1,dataLen:0. | " +
                                                kTickLost + " | " + full + "2,dataLen:0. | " +
                                                kProbeLost);
    EXPECT_TRUE(worker::Step());
    EXPECT_EQ(QorL2ResMsgWrite(3, nullptr, 0), 0u);
    EXPECT_EQ(worker::Drain(), 4096u);
    EXPECT_EQ(LiveBlocks(), blocks);
}

} // namespace
