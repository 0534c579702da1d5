#include "arbitration_support.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdarg>
#include <mutex>
#include <utility>
#include <vector>

#include "faults/consistency.h"
#include "frame/dbg_log.h"
#include "qor_thread_safety.h"
#include "support/faults.h"
#include "support/services.h"

std::function<u32(u32, void *, void *)> g_onNotify;
unsigned g_countHookCalls = 0;

namespace {

thread_local int t_held = 0;
thread_local const ZIR_Mutex *t_unlocked = nullptr; // a table's, while others are still held
thread_local bool t_walking = false;
std::atomic<unsigned> g_tableLocks{0};
u64 g_bytesWhenEmpty;

void ExpectNoMutexHeld(const std::string &what)
{
    EXPECT_TRUE(t_held == 0 || t_walking) << "with a mutex held: " << what;
}

// One point of interception: what is waited for, and what is done then.
struct Point {
    std::string prefix;
    const ZIR_Mutex *mutex;
    std::function<void()> act;
};
std::mutex g_pointsMutex;
std::vector<Point> g_points;

void AddPoint(Point point)
{
    std::lock_guard lock(g_pointsMutex);
    g_points.push_back(std::move(point));
}

// No two points of a test are due at once.
void Pass(const std::string &text, const ZIR_Mutex *mutex)
{
    std::function<void()> act;
    {
        std::lock_guard lock(g_pointsMutex);
        for (auto point = g_points.begin(); point != g_points.end(); ++point) {
            if (point->mutex == mutex && text.rfind(point->prefix, 0) == 0) {
                act = std::move(point->act);
                g_points.erase(point);
                break;
            }
        }
    }
    if (act) {
        act();
    }
}

void Behind(const char *name, ZIR_Mutex *mutex)
{
    reinterpret_cast<void (*)(ZIR_Mutex *)>(dlsym(RTLD_NEXT, name))(mutex);
}

// Op records and waiting requests of both tables.
bool IsTables(const ZIR_Mutex *mutex)
{
    return mutex == kIcib.opMutex || mutex == kIcib.waitMutex || mutex == kIpat.opMutex ||
           mutex == kIpat.waitMutex;
}

template <u32 kSrv> u32 Notified(u32 event, void *record, void *data)
{
    EXPECT_EQ(event, u32{L2RES_EVENT_ENTRY_FREE});
    EXPECT_NE(record, nullptr);
    ExpectNoMutexHeld("a callback");
    journal::Write(journal::kNotify, data == nullptr
                                         ? Text("notify ", kSrv)
                                         : Text("notify ", kSrv, " ", static_cast<char *>(data)));
    return g_onNotify ? g_onNotify(kSrv, record, data) : 0;
}

u32 CountHook(u32 *total, u32 *used, u32 *idle)
{
    ExpectNoMutexHeld("the count hook");
    ++g_countHookCalls;
    *total = 10;
    *used = 4;
    *idle = 6;
    return 0;
}

} // namespace

extern "C" QOR_API void QorL2ResDbgWriteLog(u32 level, u32 category, const char *format, ...)
{
    char text[L2RES_LOG_SIZE];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    ExpectNoMutexHeld(text);
    journal::Write(journal::kLog, Text(level, "/", category, " ", text));
    Pass(text, nullptr);
}

extern "C" QOR_API void ZIR_MutexLock(ZIR_Mutex *mutex) QOR_NO_THREAD_SAFETY
{
    Behind("ZIR_MutexLock", mutex);
    ++t_held;
    g_tableLocks += IsTables(mutex);
    EXPECT_TRUE(t_held == 1 || !IsTables(mutex) || t_walking) << "a table's mutex is not the first";
}

extern "C" QOR_API void ZIR_MutexUnlock(ZIR_Mutex *mutex) QOR_NO_THREAD_SAFETY
{
    --t_held;
    if (IsTables(mutex)) {
        t_unlocked = mutex;
    }
    Behind("ZIR_MutexUnlock", mutex);
    if (t_held == 0 && t_unlocked != nullptr) {
        Pass("", std::exchange(t_unlocked, nullptr));
    }
}

void AtMessage(const std::string &prefix, std::function<void()> act)
{
    AddPoint({prefix, nullptr, std::move(act)});
}

void AtUnlock(const ZIR_Mutex *mutex, std::function<void()> act)
{
    AddPoint({"", mutex, std::move(act)});
}

void ForgetPoints()
{
    g_points.clear();
}

int HeldMutexes()
{
    return t_held;
}

unsigned TableLocks()
{
    return g_tableLocks;
}

void Clean(const Side &side, const Key &key)
{
    if (side.Record(key) != nullptr) {
        EXPECT_EQ(side.DeleteRecord(key), 0u);
    }
    side.ShortenFullList(key);
    while (side.Waiting(key) != nullptr) {
        ASSERT_EQ(side.DeleteWaiting(key), 0u);
    }
}

void Walk(unsigned ticks)
{
    for (; ticks > 0; --ticks) {
        t_walking = true;
        QorL2ResIcibReOpHashWalk();
        t_walking = false;
        EXPECT_EQ(t_held, 0);
    }
}

Arbitration::Arbitration()
{
    services::StartWorkingModule();
    constexpr L2ResNotifyCallback kCallbacks[] = {Notified<0>, Notified<1>, Notified<2>,
                                                  Notified<3>, Notified<4>, Notified<5>,
                                                  Notified<6>, Notified<7>, Notified<8>};
    for (const Side *side : kSides) {
        for (u32 srv = 0; srv < L2RES_SERVICE_COUNT; ++srv) {
            EXPECT_EQ(QOR_L2RES_Register(side->tableId, srv, kCallbacks[srv]), 0u);
        }
        // The hash tables take their first memory for nodes and keep it.
        EXPECT_EQ(side->Get(kDelete, {1, 10, 1}), 4u);
        Clean(*side);
    }
    EXPECT_EQ(QorL2ResHookRegister(L2RES_HOOK_ICIB_PP, reinterpret_cast<L2ResHook>(CountHook)), 0u);
    consistency::Census census;
    EXPECT_EQ(consistency::Problem(&census), "");
    g_bytesWhenEmpty = census.moduleBytes;
    journal::Clear();
}

Arbitration::~Arbitration()
{
    g_onNotify = nullptr;
    EXPECT_EQ(g_points.size(), 0u) << "a point was never passed";
    faults::Reset();
}

void Arbitration::ForBoth(const std::function<void(const Side &)> &body) const
{
    for (const Side *side : kSides) {
        SCOPED_TRACE(side->name);
        journal::Clear();
        body(*side);
        Clean(*side);
        ExpectNothingLeft();
    }
}

void Arbitration::ExpectNothingLeft() const
{
    consistency::Census census;
    EXPECT_EQ(consistency::Problem(&census), "");
    EXPECT_TRUE(census.empty());
    EXPECT_EQ(census.moduleBytes, g_bytesWhenEmpty);
}

journal::Lines TakeLines()
{
    journal::Lines lines = journal::Only(journal::kLog | journal::kNotify);
    journal::Clear();
    return lines;
}

unsigned CountOf(const std::string &prefix)
{
    unsigned count = 0;
    for (const std::string &line : journal::Only(journal::kLog)) {
        count += line.compare(4, prefix.size(), prefix) == 0;
    }
    return count;
}

std::string Notifications()
{
    std::string all;
    for (const std::string &line : journal::Only(journal::kNotify)) {
        all += line.substr(6);
    }
    journal::Clear();
    return all;
}
