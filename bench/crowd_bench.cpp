/* Clients beside a crowd: many waiting entries under a tick, many releases of other entries. */
#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "arbitration/icib.h"
#include "bench.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr u32 kService = 3;
constexpr u32 kTicks = 3; /* until a waiting request is told */

double Nanoseconds(Clock::duration time)
{
    return std::chrono::duration<double, std::nano>(time).count();
}

/* Keys beyond one per outer VLAN, port and VSI differ in an attribute. */
L2ResIcibKey Key(u32 index)
{
    L2ResIcibKey key = KeyAt(Keys::spread, index);
    key.keyAttr1 = index;
    return key;
}

u64 g_told = 0;

u32 Told(u32, void *, void *)
{
    ++g_told;
    return 0;
}

/* That many entries with a request each that waits for nobody's token. */
void Crowd(u32 count)
{
    Module().icibRegister(kService, Told);
    const L2ResOpRecord record = {.Stamp = 1, .Op = 1, .SrvType = 2, .Used = 0};
    for (u32 index = 0; index < count; ++index) {
        const L2ResIcibKey key = Key(index);
        (void)QorL2ResIcibReOpHashUpdate(&key, &record, nullptr, 0, kService);
    }
}

double TimeOfTick()
{
    const auto start = Clock::now();
    QorL2ResIcibReOpHashWalk();
    return Nanoseconds(Clock::now() - start);
}

/* A client that records a request and takes it back, as fast as it can; its longest call. */
class Client {
public:
    Client() : thread_([this] { Run(); })
    {
    }
    double Longest()
    {
        stop_ = true;
        thread_.join();
        return longest_;
    }

private:
    void Run()
    {
        const L2ResIcibKey key = Key(0xFFFFFFFF);
        const L2ResOpRecord record = {.Stamp = 1, .Op = 1, .SrvType = 2, .Used = 0};
        while (!stop_) {
            const auto start = Clock::now();
            (void)QorL2ResIcibReOpHashUpdate(&key, &record, nullptr, 0, kService);
            const auto middle = Clock::now();
            (void)QorL2ResIcibReOpDel(&key);
            longest_ = std::max(
                {longest_, Nanoseconds(middle - start), Nanoseconds(Clock::now() - middle)});
        }
    }

    std::atomic<bool> stop_{false};
    double longest_ = 0;
    std::thread thread_;
};

void BesideATick(benchmark::State &state, u32 count, bool due)
{
    (void)Module();
    double longest = 0;
    for (auto _ : state) {
        Crowd(count);
        for (u32 tick = 1; due && tick < kTicks; ++tick) {
            QorL2ResIcibReOpHashWalk();
        }
        const u64 before = g_told;
        Client client;
        QorL2ResIcibReOpHashWalk();
        longest = client.Longest();
        Expect(state, "requests told", g_told - before, due ? count : 0);
        for (u32 tick = 0; tick < kTicks; ++tick) {
            QorL2ResIcibReOpHashWalk();
        }
        Expect(state, "requests told in the end", g_told - before, count);
    }
    state.counters["figure"] = longest;
}

/* A tick with nobody waiting, after a crowd has been served, against one before. */
void AfterACrowd(benchmark::State &state, u32 count)
{
    (void)Module();
    const auto idle = [] {
        double least = TimeOfTick();
        for (int i = 0; i < 100; ++i) {
            least = std::min(least, TimeOfTick());
        }
        return least;
    };
    double before = 0, after = 0;
    for (auto _ : state) {
        before = idle();
        Crowd(count);
        for (u32 tick = 0; tick < kTicks; ++tick) {
            QorL2ResIcibReOpHashWalk();
        }
        after = idle();
    }
    state.counters["figure"] = after;
    state.counters["before"] = before;
}

/* ---- Usage checks of one request that has to wait while its VLAN is busy ---- */

thread_local u64 t_hookCalls = 0;

u32 SlowCount(u32 *total, u32 *used, u32 *idle)
{
    ++t_hookCalls;
    const auto start = Clock::now();
    while (Clock::now() - start < std::chrono::microseconds(50)) {
    }
    *total = 4096;
    *used = 100;
    *idle = 3996;
    return 0;
}

void AskAndFree(u32 index, const std::atomic<bool> &stop)
{
    L2ResIcibKey key = KeyAt(Keys::oneVlan, index);
    L2ResTokenReq req = {.Stamp = 1, .FwdType = 1, .key = &key, .dataLen = 0, .data = nullptr};
    while (!stop) {
        (void)Module().getIcibToken(kService, L2RES_OP_ADD, &req);
        (void)Module().freeIcibToken(kService, L2RES_OP_DELETE, &req);
    }
}

/* The most hook calls that one of these requests has made. */
void HookCalls(benchmark::State &state, u32 others, u32 requests)
{
    Module().hookRegister(L2RES_HOOK_ICIB_PP, reinterpret_cast<L2ResHook>(SlowCount));
    const L2ResIcibKey key = KeyAt(Keys::oneVlan, 0);
    u64 most = 0;
    for (auto _ : state) {
        std::atomic<bool> stop{false};
        std::vector<std::thread> threads;
        for (u32 i = 1; i <= others; ++i) {
            threads.emplace_back([i, &stop] { AskAndFree(i, stop); });
        }
        L2ResTokenReq held = {.Stamp = 1, .FwdType = 1, .key = &key, .dataLen = 0, .data = nullptr};
        L2ResTokenReq waits = {
            .Stamp = 2, .FwdType = 2, .key = &key, .dataLen = 0, .data = nullptr};
        for (u32 i = 0; i < requests; ++i) {
            (void)Module().getIcibToken(kService, L2RES_OP_ADD, &held);
            t_hookCalls = 0;
            Expect(state, "answer", Module().getIcibToken(kService, L2RES_OP_ADD, &waits),
                   u32{L2RES_TOKEN_WAIT});
            most = std::max(most, t_hookCalls);
            (void)Module().freeIcibToken(kService, L2RES_OP_DELETE, &held);
        }
        stop = true;
        for (std::thread &thread : threads) {
            thread.join();
        }
    }
    state.counters["figure"] = static_cast<double>(most);
}

void AddOnce(const std::string &name, const std::function<void(benchmark::State &)> &function)
{
    Add(name, function)->Iterations(1);
}

} // namespace

void AddCrowd(bool quick)
{
    const u32 crowd = quick ? 5000 : 1'000'000;
    AddOnce("crowd/none", [=](benchmark::State &state) { BesideATick(state, crowd, false); });
    AddOnce("crowd/all", [=](benchmark::State &state) { BesideATick(state, crowd, true); });
    AddOnce("idle/tick", [=](benchmark::State &state) { AfterACrowd(state, crowd); });
    AddOnce("hooks/8", [=](benchmark::State &state) { HookCalls(state, 7, quick ? 5 : 200); });
}

} // namespace bench
