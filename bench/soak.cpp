/*
 * l2rsm-soak [SECONDS]: the module at real speed under load, 60 s unless told otherwise.
 *
 * Two clients fight for a few ICIB entries, get in each other's way and wait; one posts messages
 * with data as fast as the queue takes them; one assigns and releases VLAN edit profiles. The timers
 * run as they do in a device. What the module asks of the platform is seen by defining three of its
 * functions here, before the platform's. Prints the figures; the exit status is 1 when a message was
 * lost or handled twice, a tick is missing, the ticks drift, or a block is left.
 */
#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "arbitration/icib.h"
#include "arbitration/ipat.h"
#include "bench.h"
#include "frame/memory.h"
#include "frame/worker.h"
#include "host/watch/progress.h"
#include "l2rsm_entry.h"
#include "qor_epoll.h"
#include "zir_memory.h"
#include "zir_timer.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr u32 kTypes = 4; /* message types 1 and 2 of the timers, 3 of our own */
constexpr u32 kOurMessage = 3;

struct Counts {
    std::atomic<u64> posted{0}, refused{0}, handled{0};
};
Counts g_counts[kTypes];
std::atomic<u64> g_twice{0};
std::atomic<u32> g_deepest{0};

std::mutex g_mutex; /* guards the two below */
std::unordered_map<const void *, u32> g_underway;
std::array<std::vector<double>, kTypes> g_ticks; /* ms after the start */
Clock::time_point g_start;

template <class Function> Function *Next(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

u32 TypeOf(const L2ResQueueMsg *message)
{
    return message->msgType < kTypes ? message->msgType : 0;
}

void Deeper(u32 depth)
{
    u32 deepest = g_deepest;
    while (depth > deepest && !g_deepest.compare_exchange_weak(deepest, depth)) {
    }
}

} // namespace

/* A message is under way before it is written: it may be read before this returns. */
u32 QorEpollQueWrite(QorQueueHandle queue, const void *element, u32 size, u32 timeoutMs)
{
    static auto *next = Next<decltype(QorEpollQueWrite)>("QorEpollQueWrite");
    const auto *message = *static_cast<L2ResQueueMsg *const *>(element);
    const u32 type = TypeOf(message);
    {
        const std::lock_guard lock(g_mutex);
        ++g_underway[message];
        const std::chrono::duration<double, std::milli> now = Clock::now() - g_start;
        if (type != kOurMessage) {
            g_ticks[type].push_back(now.count());
        }
    }
    const u32 ret = next(queue, element, size, timeoutMs);
    ++(ret == 0 ? g_counts[type].posted : g_counts[type].refused);
    if (ret != 0) {
        const std::lock_guard lock(g_mutex);
        --g_underway[message];
    }
    Deeper(QorEpollQueGetMsgNum(queue));
    return ret;
}

u32 QorEpollQueRead(QorQueueHandle queue, u32 option, void *element, u32 size)
{
    static auto *next = Next<decltype(QorEpollQueRead)>("QorEpollQueRead");
    const u32 read = next(queue, option, element, size);
    if (read != 0) {
        const auto *message = *static_cast<L2ResQueueMsg *const *>(element);
        ++g_counts[TypeOf(message)].handled;
        const std::lock_guard lock(g_mutex);
        g_twice += g_underway[message]-- == 0;
    }
    return read;
}

namespace {

std::atomic<bool> g_stop{false};
std::atomic<u64> g_tokens{0}, g_waits{0}, g_notified{0}, g_profiles{0};

u32 Notified(u32, void *, void *)
{
    ++g_notified;
    return 0;
}

void FightForEntries(const L2RsmFunVtbl *module, u16 type)
{
    u64 stamp = 0;
    while (!g_stop) {
        const L2ResIcibKey key =
            bench::KeyAt(bench::Keys::spread, static_cast<u32>(++stamp / 64 % 16));
        const u64 data = stamp;
        L2ResTokenReq req = {
            .Stamp = stamp, .FwdType = type, .key = &key, .dataLen = 8, .data = &data};
        const u32 opType = 1 + static_cast<u32>(stamp % 3);
        const u32 ret = module->getIcibToken(type, opType, &req);
        ++(ret == L2RES_TOKEN_PROCEED ? g_tokens : g_waits);
        if (stamp % 4 != 0) { // some are never freed by whoever waits
            (void)module->freeIcibToken(type, opType, &req);
        }
    }
}

void PostMessages()
{
    while (!g_stop) {
        for (u32 i = 0; i < 64; ++i) {
            void *data = QorL2ResMemAlloc(24);
            if (QorL2ResMsgWrite(kOurMessage, data, 24) != 0) {
                (void)QorL2ResMemFree(data);
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

void AssignProfiles(const L2RsmFunVtbl *module)
{
    while (!g_stop) {
        VlanEditInfo info = {5, 3, 1, 2, 3, 4, 0, 1, 2, 3};
        for (const u32 direction : {L2RES_VLAN_INGRESS, L2RES_VLAN_EGRESS}) {
            u16 profile = 0;
            g_profiles += module->assignVlanEditProfile(&info, &profile, direction) == 0 &&
                          module->freeVlanEditProfile(&info, direction) == 0;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
}

/* The hash tables keep what they once needed: their own memory is counted apart. */
struct Live {
    u64 blocks, bytes, nodes, bytesOutsideTables;
};

Live CountLive()
{
    ZIR_PartitionStat stat = {};
    ZIR_PartitionGetStat(g_qorL2ResMemPtNo, &stat);
    Live live = {stat.liveBlocks, stat.liveBytes, 0, stat.liveBytes};
    for (const HASH_Handle table :
         {g_icibOpRecordHash, g_icibReOpRecordHash, g_ipatOpRecordHash, g_ipatReOpRecordHash}) {
        HASH_Stat own = {};
        HASH_GetStat(table, &own);
        live.nodes += own.nodes + own.buffers;
        live.bytesOutsideTables -= own.bytes;
    }
    return live;
}

void PrintLive(const char *when, const Live &live)
{
    std::printf("live %-9s %llu blocks, %llu bytes, of these %llu outside the hash tables; %llu "
                "nodes in these\n",
                when, live.blocks, live.bytes, live.bytesOutsideTables, live.nodes);
}

/* Frees every entry; what then still waits is released by the worker's third tick. */
void EmptyTables(const L2RsmFunVtbl *module)
{
    for (u32 index = 0; index < 16; ++index) {
        const L2ResIcibKey key = bench::KeyAt(bench::Keys::spread, index);
        L2ResTokenReq req = {.Stamp = 0, .FwdType = 0, .key = &key, .dataLen = 0, .data = nullptr};
        (void)module->freeIcibToken(0, L2RES_OP_DELETE, &req);
    }
}

/* How far tick n is from first tick + n periods; the last ticks against the first tell the drift. */
double PrintTicks(const char *name, u32 type, double periodMs)
{
    const std::vector<double> &ticks = g_ticks[type];
    double earliest = 0;
    double latest = 0;
    std::vector<double> offsets;
    for (size_t n = 0; n < ticks.size(); ++n) {
        const double offset = ticks[n] - ticks[0] - static_cast<double>(n) * periodMs;
        offsets.push_back(offset);
        earliest = std::min(earliest, offset);
        latest = std::max(latest, offset);
    }
    // A late tick is the scheduler's. What drifts moves the most punctual ones, too.
    double drift = 0;
    if (offsets.size() >= 2) {
        const auto half = offsets.begin() + static_cast<std::ptrdiff_t>(offsets.size() / 2);
        drift = *std::min_element(half, offsets.end()) - *std::min_element(offsets.begin(), half);
    }
    const Counts &counts = g_counts[type];
    std::printf("%-14s posted %llu, refused %llu, handled %llu, lost %lld; each %.0f ms, %+.3f to "
                "%+.3f ms; drift %+.3f ms\n",
                name, counts.posted.load(), counts.refused.load(), counts.handled.load(),
                static_cast<long long>(counts.posted - counts.handled), periodMs, earliest, latest,
                drift);
    return drift;
}

void WaitShowingProgress(int seconds)
{
    host::Progress progress("soak, seconds", static_cast<u64>(seconds));
    for (int second = 0; second < seconds; ++second) {
        progress.update(static_cast<u64>(second));
        std::this_thread::sleep_until(g_start + std::chrono::seconds(second + 1));
    }
}

} // namespace

int main(int argc, char **argv)
{
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 60;
    const L2RsmFunVtbl *module = &bench::Module();
    bench::AttachLog(true);
    for (u32 service = 0; service < L2RES_SERVICE_COUNT; ++service) {
        (void)module->icibRegister(service, Notified);
    }
    g_start = Clock::now();
    bench::StartWorker();
    while (QorEpollQueGetMsgNum(g_qorl2resQueue) != 0) {
        std::this_thread::yield();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const Live before = CountLive();

    std::vector<std::thread> clients;
    clients.emplace_back(FightForEntries, module, u16{1});
    clients.emplace_back(FightForEntries, module, u16{2});
    clients.emplace_back(PostMessages);
    clients.emplace_back(AssignProfiles, module);
    WaitShowingProgress(seconds);
    g_stop = true;
    for (std::thread &client : clients) {
        client.join();
    }
    EmptyTables(module);
    std::this_thread::sleep_until(g_start + std::chrono::milliseconds(seconds * 1000 + 3500));
    const Live after = CountLive();

    const double drift = std::max(std::fabs(PrintTicks("walk ticks", L2RES_MSG_WALK, 1000)),
                                  std::fabs(PrintTicks("probe ticks", L2RES_MSG_PROBE, 5000)));
    const Counts &ours = g_counts[kOurMessage];
    std::printf("messages       posted %llu, refused %llu, handled %llu, lost %lld; any message "
                "twice: %llu\n",
                ours.posted.load(), ours.refused.load(), ours.handled.load(),
                static_cast<long long>(ours.posted - ours.handled), g_twice.load());
    std::printf("queue          deepest %u of 4096, at the end %u\n", g_deepest.load(),
                QorEpollQueGetMsgNum(g_qorl2resQueue));
    std::printf("load           %llu tokens granted, %llu not, %llu notifications, %llu profiles\n",
                g_tokens.load(), g_waits.load(), g_notified.load(), g_profiles.load());
    PrintLive("before", before);
    PrintLive("after", after);
    const u64 wanted = static_cast<u64>(seconds) + 3;
    bool right = g_twice == 0 && drift < 5 && g_counts[L2RES_MSG_WALK].posted >= wanted &&
                 after.nodes == 0 && after.bytesOutsideTables == before.bytesOutsideTables;
    for (const Counts &counts : g_counts) {
        right = right && counts.posted == counts.handled;
    }
    std::puts(right ? "exact" : "NOT EXACT");
    std::fflush(stdout);
    std::_Exit(right ? 0 : 1);
}
