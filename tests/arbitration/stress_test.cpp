// Four clients, the walk and queries at once on a few keys, with callbacks that take and free tokens.
//
// Work comes in rounds, so that the outcome can be checked exactly: in a round a key is asked for at
// most as often as its list has places, so every request that is told to wait is recorded and must be
// notified: once for ICIB, whose release empties the list, and at least once for IPAT.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <barrier>
#include <random>
#include <thread>

#include "arbitration/icib.h"
#include "arbitration/ipat.h"
#include "frame/memory.h"
#include "l2rsm_registry.h"
#include "support/services.h"
#include "zir_memory.h"

namespace {

#if defined(__has_feature)
constexpr bool kSanitized = __has_feature(thread_sanitizer) || __has_feature(address_sanitizer);
#else
constexpr bool kSanitized = false;
#endif
constexpr unsigned kRounds = kSanitized ? 800 : 4000;
constexpr unsigned kClients = 4;
constexpr unsigned kKeys = 4; // per table; the last one takes every kind of operation, others adds
constexpr unsigned kMixed = kKeys - 1;
constexpr unsigned kPlaces = L2RES_WAITERS_MAX;

struct Entry {
    bool icib;
    unsigned index;
    L2ResIcibKey icibKey;
    L2ResIpatKey ipatKey;

    std::atomic<unsigned> asked{0};
    u32 owner = 0; // plain on purpose: only who holds the token may touch it
    struct Wait {
        u32 result = L2RES_TOKEN_REFUSED;
        std::atomic<unsigned> notified{0};
    };
    std::array<Wait, kPlaces> waits;

    const void *Key() const
    {
        return icib ? static_cast<const void *>(&icibKey) : &ipatKey;
    }
};

std::array<Entry, 2 * kKeys> g_entries;
std::atomic<unsigned long> g_granted{0}, g_waited{0}, g_notified{0}, g_reentered{0};

struct Ticket { // what a waiting request carries
    u32 entry;
    u32 number;
};

thread_local u16 t_fwd; // a forwarding type is a thread's own: no two adds may be granted at once
thread_local std::minstd_rand t_random;

u32 Random(u32 below)
{
    return static_cast<u32>(t_random() % below);
}

void Free(Entry &entry, u32 op)
{
    L2ResTokenReq request = {0, 0, entry.Key(), 0, nullptr};
    (void)(entry.icib ? QorL2ResFreeIcibToken(1, op, &request)
                      : QorL2ResFreeIpatToken(1, op, &request));
}

// Uses the entry and frees it. Between threads only the module orders these plain accesses.
void Hold(Entry &entry)
{
    EXPECT_EQ(entry.owner, 0u);
    entry.owner = t_fwd;
    if (Random(4) == 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(entry.owner, t_fwd);
    entry.owner = 0;
    Free(entry, L2RES_OP_DELETE);
}

void Ask(Entry &entry)
{
    const unsigned number = entry.asked.fetch_add(1);
    if (number >= kPlaces) {
        return;
    }
    const bool mixed = entry.index == kMixed;
    const u32 op = mixed ? 1 + Random(3) : u32{L2RES_OP_ADD};
    const Ticket ticket = {static_cast<u32>(&entry - g_entries.data()), number};
    L2ResTokenReq request = {1 + Random(8), t_fwd, entry.Key(), sizeof(ticket), &ticket};
    const u32 srv = Random(L2RES_SERVICE_COUNT);
    const u32 result = entry.icib ? QorL2ResGetIcibToken(srv, op, &request)
                                  : QorL2ResGetIpatToken(srv, op, &request);
    entry.waits[number].result = result;
    g_granted += result == L2RES_TOKEN_PROCEED;
    g_waited += result == L2RES_TOKEN_WAIT;
    if (!mixed && result == L2RES_TOKEN_PROCEED) {
        Hold(entry);
    } else if (mixed && Random(2) == 0) {
        Free(entry, 1 + Random(3));
    }
}

u32 Notified(u32 event, void *record, void *data)
{
    EXPECT_EQ(event, u32{L2RES_EVENT_ENTRY_FREE});
    const Ticket ticket = *static_cast<const Ticket *>(data);
    Entry &entry = g_entries[ticket.entry];
    const u32 inRecord = entry.icib ? static_cast<L2ResIcibReOpRecord *>(record)->key.keyAttr3
                                    : static_cast<L2ResIpatReOpRecord *>(record)->key.unit;
    EXPECT_EQ(inRecord, entry.index);
    entry.waits[ticket.number].notified.fetch_add(1);
    g_notified += 1;
    if (Random(2) == 0) {
        g_reentered += 1;
        Ask(entry);
    }
    return Random(2);
}

void Query(const Entry &entry)
{
    L2ResQueryEntry lines[L2RES_QUERY_MAX];
    u16 count = 0;
    EXPECT_EQ(QorL2ResIcibGet(&entry.icibKey, lines, &count), 0u);
    EXPECT_LE(count, L2RES_QUERY_MAX);
    for (u16 i = 0; i < count; ++i) {
        EXPECT_EQ(lines[i].iswaiting, i == 0 ? lines[0].iswaiting : 1u);
        EXPECT_TRUE(lines[i].optype >= 1 && lines[i].optype <= 3) << lines[i].optype;
        EXPECT_TRUE(lines[i].time >= 1 && lines[i].time <= 8) << lines[i].time;
    }
}

void ClientRound()
{
    for (unsigned i = 0; i < 2 * g_entries.size(); ++i) {
        Ask(g_entries[Random(g_entries.size())]);
    }
}

void WorkerRound()
{
    for (unsigned i = 0; i < kKeys; ++i) {
        Query(g_entries[i]);
        QorL2ResIcibReOpHashWalk();
    }
}

u64 LiveBlocks()
{
    ZIR_PartitionStat stat;
    ZIR_PartitionGetStat(QorL2ResGetMemPtNo(), &stat);
    return stat.liveBlocks;
}

u64 Nodes()
{
    u64 nodes = 0;
    for (HASH_Handle table :
         {g_icibOpRecordHash, g_icibReOpRecordHash, g_ipatOpRecordHash, g_ipatReOpRecordHash}) {
        HASH_Stat stat;
        HASH_GetStat(table, &stat);
        nodes += stat.nodes + stat.buffers;
    }
    return nodes;
}

// Each add that was granted has been freed, so whoever waited for it has been told: a request still
// untold is stranded.
void CheckAdds(const Entry &entry, unsigned asked)
{
    EXPECT_EQ(entry.owner, 0u);
    for (unsigned i = 0; i < asked; ++i) {
        const u32 result = entry.waits[i].result;
        EXPECT_EQ(entry.waits[i].notified > 0, result == L2RES_TOKEN_WAIT) << "result " << result;
    }
}

// Frees what is held, releases who waits.
void Drain(Entry &entry)
{
    for (unsigned i = 0; i <= kPlaces; ++i) {
        Free(entry, L2RES_OP_DELETE);
    }
    L2ResIpatReOpRecord *full = QorL2ResIpatReOpHashSearch(&entry.ipatKey);
    if (!entry.icib && full != nullptr) { // the module never shortens a full list
        ASSERT_EQ(full->waiters.reOpNum, kPlaces);
        EXPECT_EQ(QorL2ResMemFree(full->waiters.entry[--full->waiters.reOpNum].data), 0u);
        Drain(entry);
    }
}

void CheckDrained(Entry &entry)
{
    for (unsigned i = 0; i < kPlaces; ++i) {
        const unsigned notified = entry.waits[i].notified.exchange(0);
        EXPECT_TRUE(notified == 0 || entry.waits[i].result != L2RES_TOKEN_REFUSED);
        EXPECT_TRUE(notified > 0 || entry.waits[i].result != L2RES_TOKEN_UPDATE_NO_ENTRY);
        EXPECT_TRUE(!entry.icib || notified <= 1) << "notified " << notified << " times";
        entry.waits[i].result = L2RES_TOKEN_REFUSED;
    }
    entry.asked = 0;
}

void FinishRound(u64 blocks)
{
    for (Entry &entry : g_entries) {
        // From now on callbacks ask for nothing.
        const unsigned asked = std::min(entry.asked.exchange(kPlaces), kPlaces);
        if (entry.index != kMixed) {
            SCOPED_TRACE(testing::Message() << (entry.icib ? "ICIB " : "IPAT ") << entry.index);
            CheckAdds(entry, asked);
        }
    }
    for (Entry &entry : g_entries) {
        Drain(entry);
    }
    for (int tick = 0; tick < 3; ++tick) {
        QorL2ResIcibReOpHashWalk();
    }
    for (Entry &entry : g_entries) {
        CheckDrained(entry);
    }
    EXPECT_EQ(Nodes(), 0u);
    EXPECT_TRUE(blocks == 0 || LiveBlocks() == blocks) << LiveBlocks() << " blocks";
}

void SetUpEntries()
{
    for (size_t i = 0; i < g_entries.size(); ++i) {
        Entry &entry = g_entries[i];
        entry.icib = i < kKeys;
        entry.index = static_cast<unsigned>(i % kKeys);
        // Two to a bucket.
        const u16 bucket = static_cast<u16>(entry.index / 2);
        entry.icibKey = {1, 2, 3, 4, bucket, 5, 6, entry.index, 8, 9};
        entry.ipatKey = {entry.index, bucket};
    }
    for (u32 srv = 0; srv < L2RES_SERVICE_COUNT; ++srv) {
        ASSERT_EQ(QOR_L2RES_Register(L2RES_TABLE_ICIB, srv, Notified), 0u);
        ASSERT_EQ(QOR_L2RES_Register(L2RES_TABLE_IPAT, srv, Notified), 0u);
    }
}

TEST(Stress, NobodyIsLostNobodyIsGrantedTwiceNothingIsLeft)
{
    services::StartWorkingModule();
    services::Get().dbgLog.print = [](u32, u32, const char *) {};
    services::Get().blackBox.print = [](u32, u32, const char *) {};
    SetUpEntries();
    u64 blocks = 0;
    std::barrier start(kClients + 2);
    std::barrier finish(kClients + 2);
    const auto participant = [&](u16 fwd, void (*act)()) {
        t_fwd = fwd;
        t_random.seed(fwd);
        for (unsigned i = 0; i < kRounds; ++i) {
            start.arrive_and_wait();
            act();
            finish.arrive_and_wait();
        }
    };
    std::vector<std::thread> threads;
    threads.emplace_back(participant, u16{100}, WorkerRound);
    for (unsigned i = 0; i < kClients; ++i) {
        threads.emplace_back(participant, static_cast<u16>(10 + i), ClientRound);
    }
    t_fwd = 200;
    for (unsigned round = 0; round < kRounds; ++round) {
        start.arrive_and_wait();
        finish.arrive_and_wait();
        FinishRound(blocks);
        if (round == 0) { // the hash tables keep what they took for nodes
            blocks = LiveBlocks();
        }
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    // It was a stress: all of it happened, and often.
    for (const auto *count : {&g_granted, &g_waited, &g_notified, &g_reentered}) {
        EXPECT_GT(count->load(), kRounds / 4);
    }
}

} // namespace
