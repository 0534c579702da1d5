// Threads that raise and clear the same alarm while the table runs full and empties again.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "alarms/exceed_check.h"
#include "l2rsm_component.h"
#include "support/services.h"

namespace {

constexpr u32 kType = L2RES_ALARM_LEM;
constexpr int kRounds = 1000;

std::atomic<unsigned> g_calls{0};

u32 ToggleFull(u32 *total, u32 *used, u32 *idle)
{
    *total = 8;
    *used = g_calls.fetch_add(1) % 3 == 0 ? 8 : 3;
    *idle = 8 - *used;
    return QOR_OK;
}

/* What the alarm service was told last; each object knows its kind from its attributes. */
std::mutex g_mutex;
bool g_lastWasRaise = false;
unsigned g_sent[2];
thread_local bool t_raise;

TEST(AlarmThreads, AnAlarmThatIsOnAtTheServiceIsNeverForgotten)
{
    auto &log = services::Get().log;
    log.setAlarmComAttr = [](L2ResAlarmHandle, L2ResAlarmAttr *attr) -> u32 {
        t_raise = attr->alarmKind == L2RES_ALARM_RAISE;
        return QOR_OK;
    };
    log.objCreate = [](u32, u32, L2ResAlarmHandle *) -> u32 { return QOR_OK; };
    log.addPara = [](L2ResAlarmHandle, u32, u32, const void *) -> u32 { return QOR_OK; };
    log.send = [](L2ResAlarmHandle) -> u32 {
        {
            const std::lock_guard lock(g_mutex);
            g_lastWasRaise = t_raise;
            ++g_sent[t_raise];
        }
        for (int i = 0; i < 20; ++i) { // what is sent but not yet noted is the moment to come in
            std::this_thread::yield();
        }
        return QOR_OK;
    };
    services::Get().time.getSysTime = [](L2ResAlarmTime *) -> u32 { return QOR_OK; };
    services::Get().dbgLog.print = [](u32, u32, const char *) {};
    services::Get().blackBox.print = [](u32, u32, const char *) {};
    services::StartWorkingModule();
    g_l2RsmFunVtbl.hookRegister(L2RES_HOOK_LEM, reinterpret_cast<L2ResHook>(ToggleFull));

    for (int round = 0; round < kRounds; ++round) {
        // Two clients and the worker, which alone probes.
        std::vector<std::thread> threads;
        for (int client = 0; client < 2; ++client) {
            threads.emplace_back([] {
                for (int i = 0; i < 4; ++i) {
                    (void)g_l2RsmFunVtbl.exceedCheckAndAlarm(kType);
                }
            });
        }
        for (int i = 0; i < 4; ++i) {
            QorL2ResProbeProc(kType);
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        if (g_lastWasRaise) {
            ASSERT_EQ(g_qorl2ResAlarmTbl[kType].raised, 1u) << "round " << round;
        }
    }
    EXPECT_GT(g_sent[0], 0u);
    EXPECT_GT(g_sent[1], 0u);
}

} // namespace
