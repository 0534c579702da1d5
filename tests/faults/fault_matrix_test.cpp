// The fault matrix: every fallible call that the module makes, to the platform or to foreign code,
// fails once, each in a process of its own.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <dlfcn.h>
#include <semaphore>
#include <thread>

#include "arbitration/op_table.h"
#include "faults/consistency.h"
#include "faults/workload.h"
#include "frame/worker.h"
#include "l2rsm_alarms.h"
#include "l2rsm_entry.h"
#include "support/faults.h"
#include "support/journal.h"
#include "support/services.h"

// ThreadSanitizer would let every child that had a second thread linger for a second.
extern "C" const char *__tsan_default_options()
{
    return "atexit_sleep_ms=0";
}

namespace {

using consistency::Census;
using faults::Op;
using workload::Piece;

enum class World { platform, foreign };

/* Exit codes of a run. */
enum { kNothingFailed = 0, kBroken = 1, kSurvived = 2, kSurvivedWithABlockMore = 3 };

/* How a child ends: at once, unless it has line counts to write. */
#ifdef L2RSM_COVERAGE
constexpr auto kLeave = exit;
#else
constexpr auto kLeave = _exit;
#endif

void Arm(World world, unsigned nth)
{
    if (world == World::foreign) {
        workload::FailForeign(nth);
        return;
    }
    std::set<Op> all;
    for (int op = 0; op <= static_cast<int>(Op::QOR_Epoll_EvtProc); ++op) {
        all.insert(static_cast<Op>(op));
    }
#ifdef QOR_PLAIN_MUTEX
    all.erase(Op::ZIR_MutexInit); // only ours takes a zeroed mutex as well
#endif
    faults::FailOverall(nth, all);
}

/* What failed, as an exit code; from here on nothing does. */
int Disarm()
{
    const Op op = faults::FailedOp();
    const bool foreign = workload::ForeignFailed();
    faults::Reset();
    workload::FailForeign(0);
    if (op == Op::ZIR_MemFree) {
        return kSurvivedWithABlockMore;
    }
    return op != Op::kCount || foreign ? kSurvived : kNothingFailed;
}

/* A lock left held stops the other thread, and the alarm clock ends the run. */
void ExpectLocksFree()
{
    std::thread([] {
        for (const Side *side : kSides) {
            ZIR_MutexLock(side->opMutex);
            ZIR_MutexUnlock(side->opMutex);
            ZIR_MutexLock(side->waitMutex);
            ZIR_MutexUnlock(side->waitMutex);
        }
    }).join();
}

Census ExpectConsistent(const char *when)
{
    Census census;
    EXPECT_EQ(consistency::Problem(&census), "") << when;
    return census;
}

/* One run in a process of its own; its exit code. */
template <class Run> int InChild(const Run &run)
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        const int code = run();
        fflush(nullptr);
        kLeave(testing::Test::HasFailure() ? kBroken : code);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_FALSE(WIFSIGNALED(status)) << "ended by signal " << WTERMSIG(status);
    return WIFEXITED(status) ? WEXITSTATUS(status) : kBroken;
}

/* Runs with the first, the second, ... call failing, until a run sees no failure. */
template <class Run> void Sweep(const char *name, const Run &run)
{
    unsigned total = 0;
    for (World world : {World::platform, World::foreign}) {
        for (unsigned nth = 1;; ++nth, ++total) {
            const int code = InChild([&] { return run(world, nth); });
            if (code == kNothingFailed) {
                break;
            }
            ASSERT_NE(code, kBroken)
                << name << ", failing call " << nth << " of "
                << (world == World::platform ? "the platform" : "foreign code");
        }
    }
    EXPECT_GT(total, 0u);
    printf("%s: %u faults injected\n", name, total);
    testing::Test::RecordProperty("faults", static_cast<int>(total));
}

/* ---- A piece of the workload in a started module ---- */

int RunPiece(const Piece &piece, const std::vector<std::string> &reference, u64 bytesBefore,
             World world, unsigned nth)
{
    Arm(world, nth);
    piece.play();
    const int code = Disarm();

    ExpectConsistent("with the fault");
    ExpectLocksFree();
    piece.release();
    Census census = ExpectConsistent("released after the fault");
    EXPECT_TRUE(census.empty());
    EXPECT_EQ(workload::OpenAlarmObjects(), 0) << "created, but neither sent nor freed";
    if (code != kSurvivedWithABlockMore) {
        EXPECT_EQ(census.moduleBytes, bytesBefore);
    }

    (void)workload::TakeStory();
    piece.play();
    EXPECT_EQ(workload::TakeStory(), reference) << "the workload goes on as if nothing had been";
    piece.release();
    const u64 bytesAfter = census.moduleBytes;
    census = ExpectConsistent("released at the end");
    EXPECT_TRUE(census.empty());
    EXPECT_EQ(census.moduleBytes, bytesAfter);
    return code;
}

class FaultMatrix : public testing::TestWithParam<Piece> {};

TEST_P(FaultMatrix, SurvivesEveryFault)
{
    const Piece &piece = GetParam();
    services::StartWorkingModule();
    workload::Prepare();
    piece.play(); // the first time fills the hash tables' slabs
    piece.release();
    (void)workload::TakeStory();
    piece.play();
    const auto reference = workload::TakeStory();
    piece.release();
    const Census census = ExpectConsistent("before any fault");
    ASSERT_TRUE(census.empty());
    journal::Clear();

    Sweep(piece.name, [&](World world, unsigned nth) {
        return RunPiece(piece, reference, census.moduleBytes, world, nth);
    });
}

INSTANTIATE_TEST_SUITE_P(Of, FaultMatrix, testing::ValuesIn(workload::kPieces),
                         [](const auto &row) {
                             std::string name = row.param.name;
                             std::erase(name, ' ');
                             return name;
                         });

/* ---- Start-up ---- */

int RunStartUp(World world, unsigned nth)
{
    workload::Prepare();
    Arm(world, nth);
    const u32 ret = services::StartModule();
    const int code = Disarm();

    EXPECT_EQ(ExpectConsistent("after phase 1").moduleBytes, 0u);
    if (ret != QOR_OK) {
        EXPECT_EQ(g_icibOpRecordHash, nullptr);
        EXPECT_EQ(g_ipatReOpRecordHash, nullptr);
        EXPECT_EQ(services::StartModule(), 0u) << "phase 1 may be tried again";
    }
    ExpectLocksFree();
    for (const Piece &piece : workload::kPieces) {
        piece.play();
        ExpectConsistent(piece.name);
        piece.release();
    }
    const Census after = ExpectConsistent("at the end");
    EXPECT_TRUE(after.empty());
    EXPECT_EQ(after.moduleBytes, 0u);
    return code;
}

TEST(FaultMatrixOfStartUp, SurvivesEveryFault)
{
    services::Register();
    Sweep("start-up", RunStartUp);
}

/* ---- The worker task itself ---- */

std::binary_semaphore g_handled{0}; /* the worker has a message behind it, or has ended */
std::atomic<bool> g_toReport{true}; /* its next wait is to be reported */
std::atomic<bool> g_workerEnded{false};

} // namespace

// Seen on its way to the module's own.
extern "C" QOR_API u32 QorL2ResMain(void *argument)
{
    static auto *const real = reinterpret_cast<u32 (*)(void *)>(dlsym(RTLD_NEXT, "QorL2ResMain"));
    const u32 ret = real(argument);
    g_workerEnded = true;
    g_handled.release();
    return ret;
}

namespace {

/* Phase 2 until the worker waits for its first message, or has given up: then false. */
bool StartWorker()
{
    g_toReport = true;
    g_workerEnded = false;
    if (QorL2ResInit(0, 0, L2RES_PHASE_START) != QOR_OK) {
        return false;
    }
    g_handled.acquire();
    return !g_workerEnded;
}

/* A probe of a raised alarm: its count hook tells that the message is being handled. */
void ProbeThroughWorker()
{
    g_qorl2ResAlarmTbl[L2RES_ALARM_SEM].raised = 1; // by hand: raising could be what fails
    if (QorL2ResMsgWrite(L2RES_MSG_PROBE, nullptr, 0) == QOR_OK) {
        g_handled.acquire();
    }
}

int RunWorker(u64 bytesBefore, World world, unsigned nth)
{
    const auto observe = [] {
        faults::Observe([](Op op) {
            if (op == Op::epoll_wait && g_toReport.exchange(false)) {
                g_handled.release();
            }
        });
    };
    workload::g_onCount = [] { g_toReport = true; };
    observe();
    Arm(world, nth);
    bool running = StartWorker();
    if (running) {
        ProbeThroughWorker();
    }
    const int code = Disarm();
    observe();

    if (!running) {
        EXPECT_EQ(g_qorl2resQueue, 0u);
        EXPECT_EQ(ExpectConsistent("without a worker").moduleBytes, bytesBefore);
        EXPECT_EQ(QorL2ResMsgWrite(L2RES_MSG_WALK, nullptr, 0), 1u);
        EXPECT_TRUE(StartWorker()) << "phase 2 may be tried again";
    }
    ExpectLocksFree();
    ProbeThroughWorker();
    EXPECT_EQ(g_qorl2ResAlarmTbl[L2RES_ALARM_SEM].raised, 0u) << "the worker works";
    const u64 bytes = ExpectConsistent("with a worker").moduleBytes - bytesBefore;
    EXPECT_EQ(bytes, sizeof(QorQueueContext) +
                         (code == kSurvivedWithABlockMore ? sizeof(L2ResQueueMsg) : 0));
    return code;
}

TEST(FaultMatrixOfTheWorker, SurvivesEveryFault)
{
    services::StartWorkingModule();
    workload::Prepare();
    const u64 bytes = ExpectConsistent("before any fault").moduleBytes;
    Sweep("worker", [&](World world, unsigned nth) { return RunWorker(bytes, world, nth); });
}

} // namespace
