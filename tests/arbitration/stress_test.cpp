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

#include "faults/consistency.h"
#include "support/services.h"

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
    const Side *side;
    unsigned index;
    Key key;

    std::atomic<unsigned> asked{0};
    u32 owner = 0; // plain on purpose: only who holds the token may touch it
    struct Wait {
        u32 result = L2RES_TOKEN_REFUSED;
        std::atomic<unsigned> notified{0};
    };
    std::array<Wait, kPlaces> waits;
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
    (void)entry.side->Free(L2RES_OP_DELETE, entry.key);
}

void AskFor(Entry &entry)
{
    const unsigned number = entry.asked.fetch_add(1);
    if (number >= kPlaces) {
        return;
    }
    const bool mixed = entry.index == kMixed;
    const u32 op = mixed ? 1 + Random(3) : u32{L2RES_OP_ADD};
    const Ticket ticket = {static_cast<u32>(&entry - g_entries.data()), number};
    L2ResTokenReq request = {1 + Random(8), t_fwd, entry.side->Of(entry.key), sizeof(ticket),
                             &ticket};
    const u32 result = entry.side->getToken(Random(L2RES_SERVICE_COUNT), op, &request);
    entry.waits[number].result = result;
    g_granted += result == L2RES_TOKEN_PROCEED;
    g_waited += result == L2RES_TOKEN_WAIT;
    if (!mixed && result == L2RES_TOKEN_PROCEED) {
        Hold(entry);
    } else if (mixed && Random(2) == 0) {
        (void)entry.side->Free(1 + Random(3), entry.key);
    }
}

u32 Notified(u32 event, void *record, void *data)
{
    EXPECT_EQ(event, u32{L2RES_EVENT_ENTRY_FREE});
    const Ticket ticket = *static_cast<const Ticket *>(data);
    Entry &entry = g_entries[ticket.entry];
    EXPECT_EQ(memcmp(record, entry.side->Of(entry.key),
                     entry.side->icib ? sizeof entry.key.icib : sizeof entry.key.ipat),
              0);
    entry.waits[ticket.number].notified.fetch_add(1);
    g_notified += 1;
    if (Random(2) == 0) {
        g_reentered += 1;
        AskFor(entry);
    }
    return Random(2);
}

void Query(const Entry &entry)
{
    L2ResQueryEntry lines[L2RES_QUERY_MAX];
    u16 count = 0;
    EXPECT_EQ(QorL2ResIcibGet(&entry.key.icib, lines, &count), 0u);
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
        AskFor(g_entries[Random(g_entries.size())]);
    }
}

void WorkerRound()
{
    for (unsigned i = 0; i < kKeys; ++i) {
        Query(g_entries[i]);
        QorL2ResIcibReOpHashWalk();
    }
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
    (void)entry.side->Free(L2RES_OP_DELETE, entry.key);
    entry.side->ShortenFullList(entry.key);
    for (unsigned i = 0; i < kPlaces; ++i) {
        (void)entry.side->Free(L2RES_OP_DELETE, entry.key);
    }
}

void CheckDrained(Entry &entry)
{
    for (unsigned i = 0; i < kPlaces; ++i) {
        const unsigned notified = entry.waits[i].notified.exchange(0);
        EXPECT_TRUE(notified == 0 || entry.waits[i].result != L2RES_TOKEN_REFUSED);
        EXPECT_TRUE(notified > 0 || entry.waits[i].result != L2RES_TOKEN_UPDATE_NO_ENTRY);
        EXPECT_TRUE(!entry.side->icib || notified <= 1) << "notified " << notified << " times";
        entry.waits[i].result = L2RES_TOKEN_REFUSED;
    }
    entry.asked = 0;
}

// The module's memory when nothing is held and nobody waits.
u64 FinishRound()
{
    for (Entry &entry : g_entries) {
        // From now on callbacks ask for nothing.
        const unsigned asked = std::min(entry.asked.exchange(kPlaces), kPlaces);
        if (entry.index != kMixed) {
            SCOPED_TRACE(testing::Message() << entry.side->name << entry.index);
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
    consistency::Census census;
    EXPECT_EQ(consistency::Problem(&census), "");
    EXPECT_TRUE(census.empty());
    return census.moduleBytes;
}

void SetUpEntries()
{
    for (size_t i = 0; i < g_entries.size(); ++i) {
        Entry &entry = g_entries[i];
        entry.side = kSides[i / kKeys];
        entry.index = static_cast<unsigned>(i % kKeys);
        entry.key = MakeKey(static_cast<u16>(entry.index / 2), entry.index); // two to a bucket
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
    const u64 bytes = FinishRound();
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
        EXPECT_EQ(FinishRound(), bytes);
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
