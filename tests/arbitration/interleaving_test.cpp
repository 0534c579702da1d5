// What happens when another request comes in between two steps of one: each test runs it at the very
// point, from a message, from the release of a mutex or from a callback.
#include <gtest/gtest.h>

#include <semaphore>
#include <thread>

#include "arbitration_support.h"

namespace {

void OnOtherThread(const std::function<void()> &act)
{
    std::thread(act).join();
}

class Interleaving : public Arbitration {
protected:
    // Lets the key's waiting requests go in each way the table has: a free, and ICIB's third walk.
    void InEachWay(const std::function<void(const Side &, const std::function<void()> &)> &body)
    {
        ForBoth([&](const Side &side) { body(side, [&] { EXPECT_EQ(side.Free(kDelete), 0u); }); });
        m_walk = true;
        body(kIcib, [] {
            EXPECT_EQ(kIcib.DeleteRecord(), 0u);
            Walk(3);
        });
        ExpectNothingLeft();
    }
    bool m_walk = false;
};

std::string Searched(const Side &side)
{
    return side.icib ? "L2ResIcibOpHashSearch" : "L2ResIpatOpHashSearch";
}

// Both find the entry free. The one that comes second to store is judged again.
TEST_F(Interleaving, OfTwoAddsOnlyOneIsGranted)
{
    ForBoth([](const Side &side) {
        for (const auto &[stamp, result] : {std::pair{50u, 1u}, {150u, 4u}}) {
            AtMessage(Searched(side) + " No Data", [&] {
                OnOtherThread([&] { EXPECT_EQ(side.Get(kAdd, {2, 20, 100}), 0u); });
            });
            EXPECT_EQ(side.Get(kAdd, {1, 10, stamp}), result);
            EXPECT_EQ(side.Record()->SrvType, 20u);
            EXPECT_EQ(side.Record()->Stamp, 100u);
            EXPECT_EQ(side.WaitingCount(), result == 4 ? 1u : 0u);
            Clean(side);
        }
    });
}

// The holder changes after it was judged: by its own type, by its token's release, by a delete.
TEST_F(Interleaving, AHolderThatChangedIsJudgedAgain)
{
    struct Change {
        bool frees; // the holder's token instead of asking
        u32 op;
        u64 stamp;
        u32 icibResult, ipatResult; // of the request that was overtaken
        u64 icibStamp, ipatStamp;   // of the record afterwards; 0: none
    };
    const Change changes[] = {
        {false, kUpdate, 300, 0, 1, 200, 300}, {false, kDelete, 300, 1, 1, 300, 300},
        {false, kAdd, 50, 0, 0, 200, 200},     {true, kAdd, 0, 0, 3, 200, 200},
        {true, kDelete, 0, 3, 3, 0, 200},
    };
    ForBoth([&](const Side &side) {
        for (const Change &change : changes) {
            EXPECT_EQ(side.Get(kAdd, {1, 10, 100}), 0u);
            AtMessage("L2ResUpdateMutex Op:2", [&] {
                OnOtherThread([&] {
                    const u32 result = change.frees ? side.Free(change.op)
                                                    : side.Get(change.op, {3, 10, change.stamp});
                    EXPECT_EQ(result, side.icib && change.stamp == 50 ? 4u : 0u);
                });
            });
            EXPECT_EQ(side.Get(kUpdate, {2, 10, 200}),
                      side.icib ? change.icibResult : change.ipatResult);
            const u64 stamp = side.icib ? change.icibStamp : change.ipatStamp;
            ASSERT_EQ(side.Record() != nullptr, stamp != 0);
            if (stamp != 0) {
                EXPECT_EQ(side.Record()->Stamp, stamp);
                EXPECT_EQ(side.Record()->Used, side.icib ? 1u : 0u);
            }
            Clean(side);
        }
    });
}

// A repeat keeps the holder's Used as it is when the record is stored, not as it was when judged.
TEST_F(Interleaving, ARepeatDoesNotUndoARelease)
{
    EXPECT_EQ(kIcib.Get(kAdd, {1, 10, 100}), 0u);
    AtMessage("L2ResAddMutex Op:0", [] { EXPECT_EQ(kIcib.Free(kAdd), 0u); });
    EXPECT_EQ(kIcib.Get(kAdd, {1, 10, 200}), 4u);
    EXPECT_EQ(kIcib.Record()->Used, 0u);
    EXPECT_EQ(kIcib.Record()->Stamp, 200u);

    // And a release clears Used on the record it meets, not on the one it was asked about.
    AtMessage("L2ResIcibOpHashSearch,", [] { EXPECT_EQ(kIcib.Get(kUpdate, {1, 10, 300}), 0u); });
    EXPECT_EQ(kIcib.Free(kUpdate), 0u);
    EXPECT_EQ(kIcib.Record()->Stamp, 300u);
}

// The holder goes before the request is recorded as waiting: nobody else would ever notify it.
TEST_F(Interleaving, AnOvertakenWaitIsTakenBackAndJudgedAgain)
{
    ForBoth([](const Side &side) {
        EXPECT_EQ(side.Get(kAdd, {1, 10, 100}), 0u);
        AtMessage("L2ResAddMutex Op:0,IsOp:0", [&] { EXPECT_EQ(side.Free(kDelete), 0u); });
        const unsigned hookCalls = g_countHookCalls;
        EXPECT_EQ(side.Get(kAdd, {2, 20, 200, "A"}), 0u);
        EXPECT_EQ(g_countHookCalls - hookCalls, side.icib ? 1u : 0u); // judged twice, checked once
        EXPECT_EQ(side.Record()->SrvType, 20u);
        EXPECT_EQ(side.Waiting(), nullptr);
        EXPECT_EQ(Notifications(), "");

        // The same with a release caught between its two steps, and a request before it in the list.
        EXPECT_EQ(side.Get(kDelete, {3, 30, 1, "B"}), 4u);
        std::binary_semaphore halfway{0}, goOn{0};
        std::thread releaser;
        AtMessage(side.icib ? "L2ResIcibOpDel" : "L2ResIpatOpDel", [&] {
            halfway.release();
            goOn.acquire();
        });
        AtMessage("L2ResAddMutex Op:0,IsOp:0", [&] {
            releaser = std::thread([&] { EXPECT_EQ(side.Free(kDelete), 0u); });
            halfway.acquire();
        });
        EXPECT_EQ(side.Get(kAdd, {1, 10, 300, "A"}), 0u);
        EXPECT_EQ(side.Record()->SrvType, 10u);
        EXPECT_EQ(side.WaitingCount(), 1u);
        goOn.release();
        releaser.join();
        EXPECT_EQ(Notifications(), " 3 B");
    });
    // A released ICIB record stays: the request waits all the same.
    EXPECT_EQ(kIcib.Get(kAdd, {1, 10, 100}), 0u);
    AtMessage("L2ResAddMutex Op:0,IsOp:0", [] { EXPECT_EQ(kIcib.Free(kAdd), 0u); });
    journal::Clear();
    EXPECT_EQ(kIcib.Get(kAdd, {2, 20, 200, "A"}), 4u);
    EXPECT_EQ(CountOf("L2ResAddMutex,"), 2u);
    EXPECT_EQ(kIcib.WaitingCount(), 1u);
}

// Entries of one bucket have nothing to do with each other.
TEST_F(Interleaving, ReleasesOfOtherEntriesDoNotMatter)
{
    const Key mate = MakeKey(100, 77);
    ForBoth([&](const Side &side) {
        EXPECT_EQ(side.Get(kAdd, {1, 10, 100}), 0u);
        EXPECT_EQ(side.Get(kAdd, {1, 10, 100}, mate), 0u);
        AtMessage("L2ResAddMutex Op:0,IsOp:0", [&] { (void)side.Free(kDelete, mate); });
        AtUnlock(side.waitMutex, [&] { // recorded, not yet looked back
            EXPECT_EQ(side.Get(kAdd, {1, 10, 100}, mate), 0u);
            (void)side.Free(kDelete, mate);
        });
        const unsigned hookCalls = g_countHookCalls;
        EXPECT_EQ(side.Get(kAdd, {2, 20, 200, "A"}), 4u);
        EXPECT_EQ(CountOf("L2ResAddMutex,type:20"), 1u);
        EXPECT_EQ(g_countHookCalls - hookCalls, side.icib ? 2u : 0u); // the mate's add is one
        EXPECT_EQ(Notifications(), "");
        EXPECT_EQ(side.WaitingCount(), 1u);
    });
}

// Freed and made again alike: the request waits for the record that stands there now.
TEST_F(Interleaving, ARecordMadeAgainAlikeIsWaitedFor)
{
    ForBoth([](const Side &side) {
        EXPECT_EQ(side.Get(kAdd, {1, 10, 100}), 0u);
        AtMessage("L2ResAddMutex Op:0,IsOp:0", [&] {
            EXPECT_EQ(side.Free(kDelete), 0u);
            EXPECT_EQ(side.Get(kAdd, {1, 10, 100}), 0u);
        });
        EXPECT_EQ(side.Get(kAdd, {2, 20, 200, "A"}), 4u);
        EXPECT_EQ(Notifications(), "");
        EXPECT_EQ(side.Free(kDelete), 0u);
        EXPECT_EQ(Notifications(), " 2 A");
    });
}

// Who stored a record of its own and waits is not judged against what followed it: the repeat of its
// own type would leave both of them without a place in the list.
TEST_F(Interleaving, ARequestWaitsBehindItsOwnRecordsSuccessor)
{
    ForBoth([](const Side &side) {
        AtUnlock(side.opMutex, [&] {     // the search has ended
            AtUnlock(side.opMutex, [&] { // the record is stored
                OnOtherThread([&] { (void)side.Get(kDelete, {3, 20, 101, "B"}); });
            });
        });
        EXPECT_EQ(side.Get(kDelete, {2, 20, 100, "A"}), 4u);
        EXPECT_EQ(side.Record()->Stamp, 101u);
        EXPECT_EQ(side.WaitingCount(), 1u);
        EXPECT_EQ(side.Free(kDelete), 0u);
        EXPECT_EQ(Notifications(), " 2 A");
    });
}

// A release that comes after the request was recorded notifies it; then it is not taken back, also
// where the release leaves it in the list.
TEST_F(Interleaving, AnOvertakenWaitThatWasNotifiedStays)
{
    ForBoth([](const Side &side) {
        EXPECT_EQ(side.Get(kAdd, {1, 10, 100}), 0u);
        AtUnlock(side.waitMutex, [&] {
            EXPECT_EQ(side.Get(kDelete, {3, 30, 1, "B"}), 4u);
            EXPECT_EQ(side.Free(kDelete), 0u);
        });
        EXPECT_EQ(side.Get(kAdd, {2, 20, 200, "A"}), 4u);
        EXPECT_EQ(CountOf("L2ResAddMutex,"), 1u);
        EXPECT_EQ(Notifications(), " 2 A 3 B");
        EXPECT_EQ(side.WaitingCount(), side.icib ? 0u : 1u);
        EXPECT_EQ(side.Record(), nullptr);
    });
}

// With a full list there is no place to wait in; a request overtaken there is judged again too.
TEST_F(Interleaving, AnOvertakenEleventhRequestIsJudgedAgain)
{
    ForBoth([](const Side &side) {
        EXPECT_EQ(side.Get(kAdd, {1, 10, 100}), 0u);
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(side.Get(kDelete, {2, 20, 1}), 4u);
        }
        AtMessage("L2ResAddMutex Op:0,IsOp:0", [&] { EXPECT_EQ(side.DeleteRecord(), 0u); });
        EXPECT_EQ(side.Get(kAdd, {3, 30, 200}), 0u);
    });
}

// Who stores a record and waits must not be judged against that record when a token of the bucket,
// or its own, is freed in between.
TEST_F(Interleaving, ARequestIsNotJudgedAgainstItsOwnRecord)
{
    const Key mate = MakeKey(100, 77);
    ForBoth([&](const Side &side) {
        for (const u32 op : {kDelete, kUpdate}) {
            if (side.icib && op == kUpdate) {
                continue; // stores nothing
            }
            for (const bool own : {false, true}) {
                EXPECT_EQ(side.Get(kAdd, {1, 10, 1}, mate), 0u);
                const auto free = [&] { (void)side.Free(kAdd, own ? MakeKey() : mate); };
                AtUnlock(side.opMutex, free); // follows the store
                EXPECT_EQ(side.Get(op, {2, 20, 100, "A"}), op == kDelete ? 4u : 3u);
                EXPECT_EQ(side.WaitingCount(), 1u);
                EXPECT_NE(side.Record(), nullptr);
                EXPECT_EQ(Notifications(), "");
                Clean(side);
                Clean(side, mate);
            }
        }
    });
}

// The natural thing to do when told that an entry is free.
TEST_F(Interleaving, ACallbackMayTakeAndFreeTheEntry)
{
    InEachWay([this](const Side &side, const std::function<void()> &release) {
        EXPECT_EQ(side.Get(kAdd, {1, 10, 100}), 0u);
        EXPECT_EQ(side.Get(kAdd, {2, 20, 200, "A"}), 4u);
        EXPECT_EQ(side.Get(kAdd, {3, 30, 200, "B"}), 4u);
        g_onNotify = [&](u32 srv, void *, void *) {
            EXPECT_EQ(HeldMutexes(), m_walk ? 1 : 0);
            EXPECT_EQ(side.Get(kAdd, {srv, static_cast<u16>(srv * 10), 300}), 0u);
            const auto before = journal::Only(journal::kLog).size();
            EXPECT_EQ(side.Free(kDelete), 0u);
            // What the record's removal writes, nothing about the waiting requests.
            EXPECT_EQ(journal::Only(journal::kLog).size() - before, side.icib ? 3u : 1u);
            return 0u;
        };
        release();
        EXPECT_EQ(Notifications(), " 2 A 3 B");
        EXPECT_EQ(side.Record(), nullptr);
    });
}

// A callback that has to wait once more is told once more, until the list is full: an end is in
// sight, and nobody who was recorded is dropped untold.
TEST_F(Interleaving, WhoWaitsAgainFromACallbackIsNotifiedAgain)
{
    InEachWay([](const Side &side, const std::function<void()> &release) {
        EXPECT_EQ(side.Get(kAdd, {1, 10, 100}), 0u);
        EXPECT_EQ(side.Get(kAdd, {2, 20, 200, "A"}), 4u);
        g_onNotify = [&](u32, void *, void *) {
            if (side.Record() == nullptr) {
                EXPECT_EQ(side.Get(kAdd, {1, 10, 100}), 0u); // somebody was quicker
            }
            EXPECT_EQ(side.Get(kAdd, {2, 20, 200, "A"}), 4u);
            return 0u;
        };
        release();
        EXPECT_EQ(Notifications(), " 2 A 2 A 2 A 2 A 2 A 2 A 2 A 2 A 2 A 2 A");
        EXPECT_EQ(side.WaitingCount(), side.icib ? 0u : 10u);
        Clean(side);
    });
}

// A client that keeps one request for everything has another entry's key in it when its callback
// returns.
TEST_F(Interleaving, ACallbackMayReuseTheRequestsKey)
{
    const Key other = MakeKey(101);
    ForBoth([&](const Side &side) {
        Key key = MakeKey();
        EXPECT_EQ(side.Get(kDelete, {2, 20, 1, "A"}, key), 4u);
        EXPECT_EQ(side.Get(kDelete, {3, 30, 1, "B"}, other), 4u);
        g_onNotify = [&](u32, void *, void *) {
            key = other;
            return 0u;
        };
        EXPECT_EQ(side.Free(kDelete, key), 0u);
        EXPECT_EQ(Notifications(), " 2 A");
        EXPECT_EQ(side.Waiting(), nullptr);
        EXPECT_EQ(side.WaitingCount(other), 1u);
        Clean(side, other);
        g_onNotify = nullptr;
    });
}

// While a release calls back, others append, free, take everything away or let the walk run: all
// of it is left to the one that notifies.
TEST_F(Interleaving, AClaimedNodeIsLeftToItsClaimer)
{
    ForBoth([](const Side &side) {
        EXPECT_EQ(side.Get(kDelete, {2, 20, 1, "A"}), 4u);
        Walk(2);
        g_onNotify = [&](u32 srv, void *, void *) {
            if (srv == 2) {
                OnOtherThread([&] {
                    EXPECT_EQ(side.Get(kAdd, {1, 10, 100}), 0u);
                    EXPECT_EQ(side.Get(kAdd, {3, 30, 200, "B"}), 4u);
                    EXPECT_EQ(side.Free(kDelete), 0u);
                    EXPECT_EQ(side.DeleteWaiting(), 0u);
                    Walk(3);
                    EXPECT_EQ(side.WaitingCount(), 2u);
                });
            }
            return 0u;
        };
        EXPECT_EQ(side.Free(kDelete), 0u);
        EXPECT_EQ(Notifications(), " 2 A 3 B");
        EXPECT_EQ(side.WaitingCount(), side.icib ? 0u : 1u);
    });
}

// Everybody gets at the waiting requests between two entries whose time has come.
TEST_F(Interleaving, TheWalkGivesItsMutexBackAfterEachDueNode)
{
    for (u16 bucket = 0; bucket < 3; ++bucket) {
        EXPECT_EQ(kIcib.Get(kDelete, {2, 20, 1, "A"}, MakeKey(bucket)), 4u);
    }
    Walk(2);
    std::vector<size_t> told;
    for (int i = 0; i < 3; ++i) {
        AtUnlock(kIcib.waitMutex, [&] { told.push_back(journal::Only(journal::kNotify).size()); });
    }
    Walk();
    EXPECT_EQ(told, (std::vector<size_t>{1, 2, 3}));
    for (u16 bucket = 0; bucket < 3; ++bucket) {
        Clean(kIcib, MakeKey(bucket));
    }
    ExpectNothingLeft();
}

// In the middle of a long walk: somebody else iterates the table to its end, an entry goes, another
// one comes. The walk still counts down every entry that was there before, and each once.
TEST_F(Interleaving, TheWalkIsNotDerailed)
{
    constexpr u16 kEntries = 3000;
    const auto key = [](u16 i) { return MakeKey(static_cast<u16>(i % 1024), i); };
    const auto countdown = [&](u16 i) { return kIcib.Waiting(key(i))->walkCountdown; };
    for (u16 i = 0; i < kEntries; ++i) {
        EXPECT_EQ(kIcib.Get(kUpdate, {2, 20, 1}, key(i)), 3u);
    }
    AtUnlock(kIcib.waitMutex, [&] {
        OnOtherThread([&] {
            unsigned counted = 0;
            ZIR_MutexLock(kIcib.waitMutex);
            for (auto *at = HASH_GetFirstNode(*kIcib.waitHash); at != nullptr;
                 at = HASH_GetNextNode(*kIcib.waitHash)) {
                counted += static_cast<L2ResIcibReOpRecord *>(at->node)->waiters.walkCountdown == 2;
            }
            ZIR_MutexUnlock(kIcib.waitMutex);
            EXPECT_GT(counted, 0u);
            EXPECT_LT(counted, u32{kEntries});
            EXPECT_EQ(kIcib.DeleteWaiting(key(0)), 0u);
            EXPECT_EQ(kIcib.DeleteWaiting(key(kEntries - 1)), 0u);
            EXPECT_EQ(kIcib.Get(kUpdate, {2, 20, 1}, key(kEntries)), 3u);
        });
    });
    Walk();
    for (u16 i = 1; i < kEntries - 1; ++i) {
        ASSERT_EQ(countdown(i), 2) << i;
    }
    EXPECT_EQ(countdown(kEntries), 3);
    Walk(2);
    EXPECT_EQ(journal::Only(journal::kNotify).size(), kEntries - 2u);
    EXPECT_EQ(kIcib.WaitingCount(key(kEntries)), 1u);
    Walk();
    EXPECT_EQ(kIcib.Waiting(key(kEntries)), nullptr);

    const unsigned locks = TableLocks();
    Walk(); // nobody waits
    EXPECT_EQ(TableLocks(), locks);
}

// Whoever moves the position back each time he gets the mutex does not keep the walk from its end.
TEST_F(Interleaving, TheWalkEndsWhoeverMovesItsPosition)
{
    constexpr u16 kEntries = 3000;
    for (u16 i = 0; i < kEntries; ++i) {
        EXPECT_EQ(kIcib.Get(kUpdate, {2, 20, 1}, MakeKey(static_cast<u16>(i % 1024), i)), 3u);
    }
    unsigned times = 0;
    std::function<void()> moveBack = [&] {
        ZIR_MutexLock(kIcib.waitMutex);
        (void)HASH_GetFirstNode(*kIcib.waitHash);
        ZIR_MutexUnlock(kIcib.waitMutex);
        if (++times < 100) {
            AtUnlock(kIcib.waitMutex, moveBack);
        }
    };
    AtUnlock(kIcib.waitMutex, moveBack);
    Walk();
    ForgetPoints();
    EXPECT_LT(times, 10u);
    Walk(2);
    EXPECT_EQ(journal::Only(journal::kNotify).size(), size_t{kEntries});
}

} // namespace
