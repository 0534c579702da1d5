#include "arbitration_support.h"

#include <dlfcn.h>

#include <cstdarg>
#include <cstring>
#include <mutex>

#include "bounded.h"
#include "frame/dbg_log.h"
#include "frame/memory.h"
#include "support/faults.h"
#include "support/services.h"
#include "zir_memory.h"

const Side kIcib = {"ICIB",
                    L2RES_TABLE_ICIB,
                    &g_icibOpRecordHash,
                    &g_icibReOpRecordHash,
                    &g_icibOpRecordMutex,
                    &g_icibReOpRecordMutex,
                    QorL2ResGetIcibToken,
                    QorL2ResFreeIcibToken,
                    true};
const Side kIpat = {"IPAT",
                    L2RES_TABLE_IPAT,
                    &g_ipatOpRecordHash,
                    &g_ipatReOpRecordHash,
                    &g_ipatOpRecordMutex,
                    &g_ipatReOpRecordMutex,
                    QorL2ResGetIpatToken,
                    QorL2ResFreeIpatToken,
                    false};

std::function<u32(u32, void *, void *)> g_onNotify;
unsigned g_countHookCalls = 0;

namespace {

thread_local int t_held = 0;
thread_local bool t_walking = false;

// One point of interception: what is waited for, and what is done then.
struct Point {
    std::string prefix;
    const ZIR_Mutex *mutex;
    unsigned left;
    std::function<void()> act;
};
std::mutex g_pointsMutex;
std::vector<Point> g_points;

template <class Matches> void Pass(const Matches &matches)
{
    std::vector<std::function<void()>> due;
    {
        std::lock_guard lock(g_pointsMutex);
        for (auto point = g_points.begin(); point != g_points.end();) {
            if (matches(*point) && --point->left == 0) {
                due.push_back(std::move(point->act));
                point = g_points.erase(point);
            } else {
                ++point;
            }
        }
    }
    for (const auto &act : due) {
        act();
    }
}

template <class Function> Function *Behind(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

bool IsModules(const ZIR_Mutex *mutex)
{
    return mutex == kIcib.opMutex || mutex == kIcib.waitMutex || mutex == kIpat.opMutex ||
           mutex == kIpat.waitMutex;
}

u32 Notified(u32 srv, u32 event, void *record, void *data)
{
    EXPECT_EQ(event, u32{L2RES_EVENT_ENTRY_FREE});
    EXPECT_NE(record, nullptr);
    EXPECT_TRUE(t_held == 0 || t_walking) << "a callback runs with a mutex held";
    const auto *text = static_cast<const char *>(data);
    journal::Write(journal::kNotify, "notify " + std::to_string(srv) +
                                         (text != nullptr ? " " : "") +
                                         (text != nullptr ? text : ""));
    return g_onNotify ? g_onNotify(srv, record, data) : 0;
}

template <u32 kSrv> u32 Callback(u32 event, void *record, void *data)
{
    return Notified(kSrv, event, record, data);
}

u32 CountHook(u32 *total, u32 *used, u32 *idle)
{
    EXPECT_TRUE(t_held == 0 || t_walking) << "the count hook runs with a mutex held";
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
    EXPECT_TRUE(t_held == 0 || t_walking) << "written with a mutex held: " << text;
    journal::Write(journal::kLog,
                   std::to_string(level) + "/" + std::to_string(category) + " " + text);
    Pass([&](const Point &point) {
        return point.mutex == nullptr && std::string(text).rfind(point.prefix, 0) == 0;
    });
}

extern "C" QOR_API void ZIR_MutexLock(ZIR_Mutex *mutex) QOR_NO_THREAD_SAFETY
{
    static auto *const lock = Behind<void(ZIR_Mutex *)>("ZIR_MutexLock");
    lock(mutex);
    t_held += IsModules(mutex);
    EXPECT_TRUE(t_held <= 1 || t_walking) << "two mutexes held";
}

extern "C" QOR_API void ZIR_MutexUnlock(ZIR_Mutex *mutex) QOR_NO_THREAD_SAFETY
{
    static auto *const unlock = Behind<void(ZIR_Mutex *)>("ZIR_MutexUnlock");
    t_held -= IsModules(mutex);
    unlock(mutex);
    Pass([&](const Point &point) { return point.mutex == mutex; });
}

void AtMessage(const std::string &prefix, std::function<void()> act, unsigned nth)
{
    std::lock_guard lock(g_pointsMutex);
    g_points.push_back({prefix, nullptr, nth, std::move(act)});
}

void AtUnlock(const ZIR_Mutex *mutex, std::function<void()> act, unsigned nth)
{
    std::lock_guard lock(g_pointsMutex);
    g_points.push_back({"", mutex, nth, std::move(act)});
}

int HeldMutexes()
{
    return t_held;
}

Key MakeKey(u16 bucket, u32 other)
{
    Key key;
    memset(&key, 0, sizeof(key));
    key.icib = {1, 2, 3, 4, bucket, other, 6, 7, 8, 9};
    key.ipat = {other, bucket};
    return key;
}

L2ResTokenReq Request(const Side &side, const Ask &ask, const Key &key)
{
    const bool empty = ask.data.empty();
    return {ask.stamp, ask.fwd, side.Of(key), static_cast<u16>(empty ? 0 : ask.data.size() + 1),
            empty ? nullptr : ask.data.c_str()};
}

u32 Side::Get(u32 op, const Ask &ask, const Key &key) const
{
    L2ResTokenReq request = Request(*this, ask, key);
    return getToken(ask.srv, op, &request);
}

u32 Side::Free(u32 op, const Key &key, u32 srv) const
{
    L2ResTokenReq request = {0, 0, Of(key), 0, nullptr};
    return freeToken(srv, op, &request);
}

const void *Side::Of(const Key &key) const
{
    return icib ? static_cast<const void *>(&key.icib) : &key.ipat;
}

u32 Side::Store(const L2ResOpRecord &record, const Key &key) const
{
    return icib ? QorL2ResIcibOpHashUpdate(&key.icib, &record)
                : QorL2ResIpatOpHashUpdate(&key.ipat, &record);
}

u32 Side::DeleteRecord(const Key &key) const
{
    return icib ? QorL2ResIcibOpDel(&key.icib) : QorL2ResIpatOpDel(&key.ipat);
}

u32 Side::Append(const Ask &ask, const void *data, u16 dataLen, const Key &key) const
{
    const L2ResOpRecord record = {ask.stamp, L2RES_OP_ADD, ask.fwd, 0};
    return icib ? QorL2ResIcibReOpHashUpdate(&key.icib, &record, data, dataLen, ask.srv)
                : QorL2ResIpatReOpHashUpdate(&key.ipat, &record, data, dataLen, ask.srv);
}

u32 Side::DeleteWaiting(const Key &key) const
{
    return icib ? QorL2ResIcibReOpDel(&key.icib)
                : QorL2ResIpatReOpDel(&key.ipat, g_ipatReOpRecordHash);
}

const L2ResOpRecord *Side::Record(const Key &key) const
{
    const auto *node = static_cast<const u8 *>(HASH_FindElmtFromFirst(*opHash, Of(key)));
    return node == nullptr ? nullptr
                           : reinterpret_cast<const L2ResOpRecord *>(node + (icib ? 40 : 8));
}

L2ResWaitList *Side::Waiting(const Key &key) const
{
    auto *node = static_cast<u8 *>(HASH_FindElmtFromFirst(*waitHash, Of(key)));
    return node == nullptr ? nullptr : reinterpret_cast<L2ResWaitList *>(node + (icib ? 40 : 8));
}

unsigned Side::WaitingCount(const Key &key) const
{
    const L2ResWaitList *list = Waiting(key);
    return list != nullptr ? list->reOpNum : 0;
}

void Side::Clean(const Key &key) const
{
    if (Record(key) != nullptr) {
        EXPECT_EQ(DeleteRecord(key), 0u);
    }
    L2ResWaitList *list = Waiting(key);
    if (!icib && list != nullptr && list->reOpNum == L2RES_WAITERS_MAX) {
        // A full one is never shortened by the module.
        (void)QorL2ResMemFree(list->entry[--list->reOpNum].data);
    }
    while (Waiting(key) != nullptr) {
        ASSERT_EQ(DeleteWaiting(key), 0u);
    }
}

void ForBoth(const std::function<void(const Side &)> &body)
{
    for (const Side *side : {&kIcib, &kIpat}) {
        SCOPED_TRACE(side->name);
        body(*side);
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

namespace {

struct Stock {
    u64 blocks, nodes, buffers;
};

Stock Count()
{
    ZIR_PartitionStat partition;
    ZIR_PartitionGetStat(QorL2ResGetMemPtNo(), &partition);
    Stock stock = {partition.liveBlocks, 0, 0};
    for (const Side *side : {&kIcib, &kIpat}) {
        for (HASH_Handle *hash : {side->opHash, side->waitHash}) {
            HASH_Stat stat;
            HASH_GetStat(*hash, &stat);
            stock.nodes += stat.nodes;
            stock.buffers += stat.buffers;
        }
    }
    return stock;
}

Stock g_empty;

} // namespace

Arbitration::Arbitration()
{
    services::StartWorkingModule();
    constexpr L2ResNotifyCallback kCallbacks[] = {Callback<0>, Callback<1>, Callback<2>,
                                                  Callback<3>, Callback<4>, Callback<5>,
                                                  Callback<6>, Callback<7>, Callback<8>};
    ForBoth([&](const Side &side) {
        for (u32 srv = 0; srv < L2RES_SERVICE_COUNT; ++srv) {
            EXPECT_EQ(QOR_L2RES_Register(side.tableId, srv, kCallbacks[srv]), 0u);
        }
        // The hash tables take their first memory for nodes and keep it.
        EXPECT_EQ(side.Get(kDelete, {1, 10, 1}), 4u);
        side.Clean();
    });
    EXPECT_EQ(QorL2ResHookRegister(L2RES_HOOK_ICIB_PP, reinterpret_cast<L2ResHook>(CountHook)), 0u);
    g_empty = Count();
    journal::Clear();
}

Arbitration::~Arbitration()
{
    g_onNotify = nullptr;
    EXPECT_EQ(g_points.size(), 0u) << "a point was never passed";
    faults::Reset();
}

void Arbitration::ExpectNothingLeft() const
{
    const Stock now = Count();
    EXPECT_EQ(now.blocks, g_empty.blocks);
    EXPECT_EQ(now.nodes, 0u);
    EXPECT_EQ(now.buffers, 0u);
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
