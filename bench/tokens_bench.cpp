/* Getting and freeing tokens, alone and by two threads, and the release of waiting requests. */
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "bench.h"
#include "peer_tables.h"

#ifdef BENCH_GLIB
#include <glib-object.h>
#endif

namespace bench {
namespace {

constexpr u32 kService = 3;

L2ResTokenReq Request(const L2ResIcibKey &key, u64 stamp)
{
    return {.Stamp = stamp, .FwdType = 2, .key = &key, .dataLen = 0, .data = nullptr};
}

/* An add that is granted, and the release that leaves the entry free again. */
u32 GetAndFree(const L2RsmFunVtbl &module, L2ResTokenReq *req)
{
    return module.getIcibToken(kService, L2RES_OP_ADD, req) |
           module.freeIcibToken(kService, L2RES_OP_DELETE, req);
}

/*
 * The lines that GetAndFree writes, by the C library. TextsOf() makes sure that they are these.
 * A patchable call like the log's own keeps the compiler from seeing through the formats.
 */
__attribute__((noinline, format(printf, 1, 2))) void Format(const char *format, ...);

thread_local std::vector<std::string> *t_formatted = nullptr;

void Format(const char *format, ...)
{
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    benchmark::DoNotOptimize(text);
    if (t_formatted != nullptr) {
        t_formatted->emplace_back(text);
    }
}

constexpr u32 kLinesOfGetAndFree = 15;
constexpr u32 kBlackBoxLinesOfGetAndFree = 4;

void FormatSearch(const L2ResIcibKey &k)
{
    Format("L2ResIcibOpHashSearch,KeyType:%d,Port:%d,Vsi:%d,OutVlan:%d,InnerVlan:%d,Pri:%d,Vdc:%d.",
           k.keyType, k.GlobalPort, k.Vsi, k.OutVlan, k.InnerVlan, k.Pri, k.Vdc);
}

void FormatGetAndFree(const L2ResTokenReq &req)
{
    const auto &k = *static_cast<const L2ResIcibKey *>(req.key);
    const L2ResOpRecord r = {.Stamp = req.Stamp, .Op = 1, .SrvType = req.FwdType, .Used = 1};
    Format("icib add oper,srvType:%d timestamp:%llu", kService, req.Stamp);
    Format("icib add key,keytype:%d vsiId:%d globalPort:%d outVlan:%d innerVlan:%d pri:%d",
           k.keyType, k.Vsi, k.GlobalPort, k.OutVlan, k.InnerVlan, k.Pri);
    FormatSearch(k);
    Format("L2ResIcibOpHashSearch No Data.");
    Format("check init alarmType:%d, flag: %d.", 0, 1);
    Format("[QorL2ResExceedCheck], total:%d, used:%d, idle:%d, ret:%d.", 4096, 100, 3996, 0);
    FormatSearch(k);
    Format("L2ResIcibOpHashSearch No Data.");
    Format("L2ResIcibOpHashUpdate,KeyType:%d,Port:%d,Vsi:%d,OutVlan:%d,InnerVlan:%d,Pri:%d,"
           "Vdc:%d,Stamp:%llu,Op:%d,Srv:%d,Used:%d",
           k.keyType, k.GlobalPort, k.Vsi, k.OutVlan, k.InnerVlan, k.Pri, k.Vdc, r.Stamp, r.Op,
           r.SrvType, r.Used);
    Format("L2ResIcibAddMutexProc,Op:%d,IsOp:%d,ReOp:%d,IsReOp:%d,ret=%d.", 1, 1, 0, 0, 0);
    Format("L2 res mutex proc,tblid:%d,srvType:%d,opType:%d,Stamp:%llu,FwdType:%d,Ret:%d.", 0,
           kService, 1, req.Stamp, req.FwdType, 0);
    FormatSearch(k);
    Format("L2ResIcibOpHashSearch Data,Stamp:%llu,Op:%d,SrvType:%d,Used:%d.", r.Stamp, r.Op,
           r.SrvType, r.Used);
    Format("L2ResIcibOpDel, KeyType:%d,Port:%d,Vsi:%d,OutVlan:%d,InnerVlan:%d,Pri:%d,Vdc:%d,"
           "Ret:%d",
           k.keyType, k.GlobalPort, k.Vsi, k.OutVlan, k.InnerVlan, k.Pri, k.Vdc, 0);
    Format("icib reop hash search failed,key info:keyType--%d, GlobalPort--%d, OuterVlan--%d.",
           k.keyType, k.GlobalPort, k.OutVlan);
}

std::vector<std::string> FormattedLines(const L2ResTokenReq &req)
{
    std::vector<std::string> texts;
    t_formatted = &texts;
    FormatGetAndFree(req);
    t_formatted = nullptr;
    return texts;
}

void FormatLines(benchmark::State &state)
{
    const L2ResIcibKey key = KeyAt(Keys::spread, 4711);
    L2ResTokenReq req = Request(key, 1'700'000'000'000);
    const L2RsmFunVtbl &module = Module();
    AttachLog(true);
    const auto written = TextsOf([&] { (void)GetAndFree(module, &req); });
    AttachLog(false);
    Expect(state, "peer writes the module's lines", written == FormattedLines(req), true);
    for (auto _ : state) {
        ++req.Stamp;
        FormatGetAndFree(req);
    }
}

/* Each thread has a key, and so a bucket, of its own. */
void Tokens(benchmark::State &state, bool logged)
{
    const L2RsmFunVtbl &module = Module();
    if (state.thread_index() == 0) {
        AttachLog(logged);
    }
    const L2ResIcibKey key = KeyAt(Keys::spread, 4711 + static_cast<u32>(state.thread_index()));
    L2ResTokenReq req = Request(key, 1'700'000'000'000);
    const Lines before = LinesOfThread();
    u64 granted = 0;
    for (auto _ : state) {
        ++req.Stamp;
        granted += GetAndFree(module, &req) == 0;
    }
    const auto pairs = static_cast<u64>(state.iterations());
    Expect(state, "tokens granted and freed", granted, pairs);
    Expect(state, "lines in the debug log", LinesOfThread().debugLog - before.debugLog,
           logged ? pairs * kLinesOfGetAndFree : 0);
    Expect(state, "lines in the black box", LinesOfThread().blackBox - before.blackBox,
           logged ? pairs * kBlackBoxLinesOfGetAndFree : 0);
    if (state.thread_index() == 0) {
        AttachLog(false);
    }
}

void HoldTokens(u32 count)
{
    for (const u32 index : Shuffled(count)) {
        const L2ResIcibKey key = KeyAt(Keys::spread, index);
        L2ResTokenReq req = Request(key, 1'700'000'000'000);
        (void)Module().getIcibToken(kService, L2RES_OP_ADD, &req);
    }
}

/* The same, an entry after the other over all buckets, beside as many held ones. */
void TokensBesideHeld(benchmark::State &state, u32 held)
{
    const L2RsmFunVtbl &module = Module();
    HASH_Stat stat = {};
    HASH_GetStat(g_icibOpRecordHash, &stat);
    if (stat.nodes == 0) {
        HoldTokens(held);
    }
    std::vector<L2ResIcibKey> keys;
    for (const u32 index : Shuffled(65536)) {
        keys.push_back(KeyAt(Keys::spread, held + index));
    }
    u64 granted = 0;
    size_t next = 0;
    for (auto _ : state) {
        L2ResTokenReq req = Request(keys[next], 1'700'000'000'001);
        granted += GetAndFree(module, &req) == 0;
        next = next + 1 == keys.size() ? 0 : next + 1;
    }
    Expect(state, "tokens granted and freed", granted, state.iterations());
    HASH_GetStat(g_icibOpRecordHash, &stat);
    Expect(state, "entries held", stat.nodes, held);
}

/* A table under one mutex: looked up and inserted in one hold, erased in another. */
template <class Table> void TokensOf(benchmark::State &state)
{
    static Table table;
    const L2ResIcibKey key = KeyAt(Keys::spread, 4711 + static_cast<u32>(state.thread_index()));
    u64 stamp = 0;
    u64 freed = 0;
    for (auto _ : state) {
        table.Insert(key, {.Stamp = ++stamp, .Op = 1, .SrvType = 2, .Used = 1});
        freed += table.Erase(key);
    }
    Expect(state, "entries erased", freed, state.iterations());
}

void AddTokensBy(int threads)
{
    const std::string group = "tokens/" + std::to_string(threads);
    Add(group + "/off", [](benchmark::State &state) { Tokens(state, false); })->Threads(threads);
    Add(group + "/on", [](benchmark::State &state) { Tokens(state, true); })->Threads(threads);
    Add(group + "/std", TokensOf<StdTable>)->Threads(threads);
#ifdef BENCH_GLIB
    Add(group + "/glib", TokensOf<GlibTable>)->Threads(threads);
#endif
#ifdef BENCH_TBB
    Add(group + "/tbb", TokensOf<TbbTable>)->Threads(threads);
#endif
}

/* ---- Waiting requests ---- */

constexpr u32 kEntriesPerBatch = 64;
u64 g_notified = 0;

u32 Notified(u32, void *, void *data)
{
    g_notified += *static_cast<const u32 *>(data);
    return 0;
}

double ThreadTime()
{
    timespec now = {};
    (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

/* Time of `act` on each of a batch of entries with that many waiting requests. */
template <class Act> void PerBatch(benchmark::State &state, u32 waiters, bool notifies, Act act)
{
    Module().icibRegister(kService, Notified);
    const L2ResOpRecord record = {.Stamp = 5, .Op = 1, .SrvType = 3, .Used = 0};
    constexpr u32 kOne = 1;
    std::vector<L2ResIcibKey> keys;
    for (u32 i = 0; i < kEntriesPerBatch; ++i) {
        keys.push_back(KeyAt(Keys::spread, i));
    }
    const u64 before = g_notified;
    double total = 0;
    for (auto _ : state) {
        for (const L2ResIcibKey &key : keys) {
            for (u32 i = 0; i < waiters; ++i) {
                (void)QorL2ResIcibReOpHashUpdate(&key, &record, &kOne, sizeof kOne, kService);
            }
        }
        const double start = ThreadTime();
        for (const L2ResIcibKey &key : keys) {
            act(key);
        }
        const double time = ThreadTime() - start;
        state.SetIterationTime(time);
        total += time;
    }
    state.counters["figure"] =
        1e9 * total / static_cast<double>(state.iterations()) / kEntriesPerBatch;
    Expect(state, "requests notified", g_notified - before,
           notifies ? static_cast<u64>(state.iterations()) * kEntriesPerBatch * waiters : 0);
}

void Release(benchmark::State &state, u32 waiters)
{
    PerBatch(state, waiters, true, [](const L2ResIcibKey &key) {
        L2ResTokenReq req = Request(key, 6);
        (void)QorL2ResIcibReOpProc(&req);
    });
}

/* All that a release does but telling anybody. */
void Remove(benchmark::State &state, u32 waiters)
{
    PerBatch(state, waiters, false,
             [](const L2ResIcibKey &key) { (void)QorL2ResIcibReOpDel(&key); });
}

/* The bare minimum of a peer: copies the receivers under a mutex and calls the copies. */
void CallReceivers(benchmark::State &state, u32 receivers)
{
    std::mutex mutex;
    std::vector<std::function<u32(u32, void *, void *)>> all(receivers, Notified);
    const u64 before = g_notified;
    u32 one = 1;
    for (auto _ : state) {
        std::unique_lock lock(mutex);
        const auto current = all;
        lock.unlock();
        for (const auto &receiver : current) {
            benchmark::DoNotOptimize(receiver(0, nullptr, &one));
        }
    }
    Expect(state, "receivers called", g_notified - before,
           static_cast<u64>(state.iterations()) * receivers);
}

#ifdef BENCH_GLIB
void OnSignal(GObject *, gpointer data, gpointer)
{
    (void)Notified(0, nullptr, data);
}

void EmitSignal(benchmark::State &state, u32 receivers)
{
    static const guint signal =
        g_signal_new("entry-free", G_TYPE_OBJECT, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr,
                     g_cclosure_marshal_VOID__POINTER, G_TYPE_NONE, 1, G_TYPE_POINTER);
    auto *object = static_cast<GObject *>(g_object_new(G_TYPE_OBJECT, nullptr));
    for (u32 i = 0; i < receivers; ++i) {
        g_signal_connect(object, "entry-free", G_CALLBACK(OnSignal), nullptr);
    }
    const u64 before = g_notified;
    u32 one = 1;
    for (auto _ : state) {
        g_signal_emit(object, signal, 0, &one);
    }
    Expect(state, "receivers called", g_notified - before,
           static_cast<u64>(state.iterations()) * receivers);
    g_object_unref(object);
}
#endif

void AddWaiters(u32 waiters)
{
    const std::string group = "waiters/" + std::to_string(waiters);
    AddManual(group + "/release", [=](benchmark::State &state) { Release(state, waiters); });
    AddManual(group + "/remove", [=](benchmark::State &state) { Remove(state, waiters); });
    Add(group + "/std", [=](benchmark::State &state) { CallReceivers(state, waiters); });
#ifdef BENCH_GLIB
    Add(group + "/glib", [=](benchmark::State &state) { EmitSignal(state, waiters); });
#endif
}

} // namespace

void AddTokens(bool quick)
{
    for (const int threads : {1, 2, 3, 4, 6, 8}) {
        if (!quick || threads <= 2) {
            AddTokensBy(threads);
        }
    }
    Add("tokens/1/vsnprintf", FormatLines);
    // A process each: what a million entries leave behind would show beside a thousand.
    Add("few/held", [](benchmark::State &state) { TokensBesideHeld(state, 1000); });
    Add("many/held",
        [=](benchmark::State &state) { TokensBesideHeld(state, quick ? 10'000 : 1'000'000); });
    for (const u32 waiters : {1u, 2u, 4u, 6u, 8u, 10u}) {
        if (!quick || waiters == 10) {
            AddWaiters(waiters);
        }
    }
}

} // namespace bench
