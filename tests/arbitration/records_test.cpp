// The records themselves: identity of keys, waiting requests in number and order, and what every
// failing platform call leaves behind. Timed release and what callbacks see: the fuzzer's model.
#include <gtest/gtest.h>

#include <cerrno>

#include "arbitration/op_table.h"
#include "arbitration_support.h"
#include "support/faults.h"

namespace {

using faults::Op;
using journal::Lines;

class Records : public Arbitration {};

TEST_F(Records, AreKeptByTheWholeKeyButItsPadding)
{
    const Key key = MakeKey();
    Key dirty = key;
    memset(reinterpret_cast<u8 *>(&dirty.icib) + 14, 0xAA, 2); // behind OutVlan
    memset(reinterpret_cast<u8 *>(&dirty.icib) + 22, 0xAA, 2); // behind InnerVlan
    EXPECT_EQ(kIcib.Get(kAdd, {1, 10, 100}, dirty), 0u);
    EXPECT_EQ(kIcib.Record(key), kIcib.Record(dirty));
    EXPECT_EQ(kIcib.Get(kAdd, {2, 20, 100}, key), 1u);

    // Every field but OutVlan: another entry of the same bucket.
    auto *bytes = reinterpret_cast<u8 *>(&dirty.icib);
    for (const size_t field : {0, 4, 6, 8, 16, 20, 24, 28, 32}) {
        dirty = key;
        bytes[field] ^= 0x80;
        EXPECT_EQ(QorL2ResIcibHashFunc(&dirty.icib), QorL2ResIcibHashFunc(&key.icib));
        EXPECT_EQ(kIcib.Get(kAdd, {1, 10, 100}, dirty), 0u) << "field at " << field;
        EXPECT_EQ(kIcib.Free(kDelete, dirty), 0u);
    }
    EXPECT_EQ(kIcib.Free(kDelete, key), 0u);
    ForBoth([](const Side &side) {
        const Key keys[] = {MakeKey(1, 5), MakeKey(1, 6), MakeKey(1025, 5)};
        for (const Key &each : keys) {
            EXPECT_EQ(side.Get(kAdd, {1, 10, 1}, each), 0u);
        }
        for (const Key &each : keys) {
            EXPECT_EQ(side.Free(kDelete, each), 0u);
            EXPECT_EQ(side.Record(each), nullptr);
        }
    });
    const Key high = MakeKey(0xFFFF);
    EXPECT_EQ(QorL2ResIcibHashFunc(&high.icib), 0x3FFu);
    EXPECT_EQ(QorL2ResIpatHashFunc(&high.ipat), 0x3FFu);
    EXPECT_EQ(QorL2ResIcibHashFunc(nullptr) + QorL2ResIpatHashFunc(nullptr), 0u);
    EXPECT_EQ(QorL2ResIcibCompFunc(&key, nullptr) + QorL2ResIcibCompFunc(nullptr, &key), 0u);
    EXPECT_EQ(QorL2ResIpatCompFunc(&key, nullptr) + QorL2ResIpatCompFunc(nullptr, &key), 0u);
}

u32 Append(const Side &side, const char *data)
{
    const Key key = MakeKey();
    const L2ResOpRecord record = {1, L2RES_OP_ADD, 1, 0};
    return side.icib ? QorL2ResIcibReOpHashUpdate(&key.icib, &record, data, 5, 1)
                     : QorL2ResIpatReOpHashUpdate(&key.ipat, &record, data, 5, 1);
}

TEST_F(Records, TenRequestsWaitTheEleventhIsOnlyAnswered)
{
    ForBoth([](const Side &side) {
        EXPECT_EQ(side.Get(kAdd, {0, 10, 100}), 0u);
        for (u32 i = 0; i < 10; ++i) {
            EXPECT_EQ(side.Get(kAdd, {i % 9, 20, 101 + i, std::to_string(i)}), 4u);
        }
        EXPECT_EQ(side.Get(kAdd, {1, 20, 111, "eleventh"}), 4u);
        EXPECT_EQ(side.Get(kUpdate, {1, 20, 112, "eleventh"}), 0u);
        EXPECT_EQ(Append(side, "data"), 1u);
        EXPECT_EQ(side.WaitingCount(), 10u);
        EXPECT_EQ(side.Free(kDelete), 0u);
        EXPECT_EQ(Notifications(), " 0 0 1 1 2 2 3 3 4 4 5 5 6 6 7 7 8 8 0 9");
        EXPECT_EQ(side.WaitingCount(), side.icib ? 0u : 10u); // a full IPAT list is not shortened
        if (!side.icib) {
            EXPECT_EQ(side.DeleteWaiting(), 1u);
        }
    });
}

TEST_F(Records, IpatReleasesTheLatestWaiterAtEachFree)
{
    EXPECT_EQ(kIpat.Get(kAdd, {1, 10, 100}), 0u);
    EXPECT_EQ(kIpat.Get(kAdd, {2, 20, 101, "A"}), 4u);
    EXPECT_EQ(kIpat.Get(kAdd, {3, 30, 101, "B"}), 4u);
    g_onNotify = [](u32 srv, void *, void *) { return srv + 40; };
    for (const auto &[result, told] : {std::pair{43u, " 2 A 3 B"}, {42u, " 2 A"}, {0u, ""}}) {
        EXPECT_EQ(kIpat.Free(kAdd), result);
        EXPECT_EQ(Notifications(), told);
    }
    ExpectNothingLeft();
}

struct Failure {
    const char *name;
    bool waiting; // appends a waiting request, else stores a record
    bool onto;    // there is one already
    Op op;
    unsigned nth; // 0: no call fails, but the data to copy is null
    u32 result;
    const char *line; // the one error, "T" for the table's name; or null
    unsigned left;    // records or waiting requests afterwards
};

const char *const kFirstFailed =
    "icib reop record memcpy failed|add ipat reop record memcpy failed";
const Failure kFailures[] = {
    {"no node", false, false, Op::HASH_NewData, 1, 1, "T op hash node alloc failed", 0},
    {"not inserted", false, false, Op::HASH_AddNode, 1, 1, nullptr, 0},
    {"not copied", false, false, Op::memcpy_s, 2, 0, "T op record memcpy failed", 1},
    {"not overwritten", false, true, Op::memcpy_s, 1, 0, "T op data memcpy failed", 1},
    {"no node", true, false, Op::HASH_NewData, 1, 1,
     "icib reop hash node alloc failed|add ipat reop hash node, alloc failed", 0},
    {"no first data", true, false, Op::ZIR_MemAlloc, 1, 1, nullptr, 0},
    {"first data not copied", true, false, Op::memcpy_s, 3, 0, kFirstFailed, 1},
    {"null first data", true, false, Op::memcpy_s, 0, 0, kFirstFailed, 1},
    {"not inserted", true, false, Op::HASH_AddNode, 1, 1, nullptr, 0},
    {"no further data", true, true, Op::ZIR_MemAlloc, 1, 1, nullptr, 1},
    {"further data not copied", true, true, Op::memcpy_s, 2, 34, "T reop data memcpy failed", 1},
    {"null further data", true, true, Op::memcpy_s, 0, EINVAL, "T reop data memcpy failed", 1},
};

// One text for both tables, or "ICIB's|IPAT's".
std::string TextFor(const Side &side, const std::string &both)
{
    const auto bar = both.find('|');
    if (bar != std::string::npos) {
        return side.icib ? "5/1 " + both.substr(0, bar) : "5/2 " + both.substr(bar + 1);
    }
    return (side.icib ? "5/1 icib" : "5/2 ipat") + both.substr(1);
}

void Try(const Side &side, const Failure &failure)
{
    const auto act = [&](const char *data) {
        return failure.waiting ? Append(side, data) : side.Store({1, 1, 1, 0});
    };
    EXPECT_EQ(failure.onto ? act("data") : 0, 0u);
    journal::Clear();
    if (failure.nth > 0) {
        faults::Fail(failure.op, failure.nth,
                     failure.result > 1 ? std::optional<long long>(failure.result) : std::nullopt);
    }
    EXPECT_EQ(act(failure.nth > 0 ? "data" : nullptr), failure.result);
    EXPECT_EQ(faults::Failed(), failure.nth > 0 ? 1u : 0u);
    faults::Reset();

    Lines errors = TakeLines();
    std::erase_if(errors, [](const std::string &line) { return line[0] != '5'; });
    EXPECT_TRUE(journal::Equal(
        errors, failure.line == nullptr ? Lines{} : Lines{TextFor(side, failure.line)}));
    EXPECT_EQ(failure.waiting ? side.WaitingCount() : side.Record() != nullptr, failure.left);
}

TEST_F(Records, AFailingStepLeavesNothingBehind)
{
    for (const Failure &failure : kFailures) {
        SCOPED_TRACE(failure.name);
        ForBoth([&](const Side &side) { Try(side, failure); });
    }
}

// A node whose removal failed keeps no data; the next release, or the next walk, removes it.
TEST_F(Records, ARemovalThatFailedIsTriedAgain)
{
    for (const bool byRelease : {true, false}) {
        ForBoth([&](const Side &side) {
            EXPECT_EQ(side.Get(kDelete, {2, 20, 101, "A"}), 4u);
            faults::Fail(Op::HASH_RemoveElmtByKey, 2); // the first removes the record
            EXPECT_EQ(side.Free(kDelete), 0u);
            EXPECT_EQ(faults::Failed(), 1u);
            EXPECT_EQ(Notifications(), " 2 A");
            ASSERT_NE(side.Waiting(), nullptr);
            EXPECT_EQ(side.WaitingCount(), 0u);
            faults::Fail(Op::HASH_RemoveElmtByKey);
            EXPECT_EQ(side.DeleteWaiting(), 1u);
            if (byRelease) {
                EXPECT_EQ(side.Get(kAdd, {1, 10, 100}), 0u);
                EXPECT_EQ(side.Free(kDelete), 0u);
            } else {
                EXPECT_EQ(side.DeleteWaiting(), 0u);
            }
            EXPECT_EQ(Notifications(), "");
            EXPECT_EQ(side.Waiting(), nullptr);
        });
    }
    EXPECT_EQ(kIcib.Get(kUpdate, {2, 20, 101, "A"}), 3u);
    Walk(2);
    faults::Fail(Op::HASH_RemoveElmtByKey);
    Walk();
    EXPECT_EQ(CountOf("QorL2ResIcibReOpHashWalk Free ReopHash Fail."), 1u);
    EXPECT_NE(kIcib.Waiting(), nullptr);
    Walk();
    ExpectNothingLeft();

    EXPECT_EQ(kIcib.Get(kAdd, {1, 10, 100}), 0u);
    faults::Fail(Op::HASH_RemoveElmtByKey);
    EXPECT_EQ(kIcib.Free(kDelete), 0u);
    EXPECT_EQ(CountOf("icib op free  failed.srvType:1,opType:3"), 1u);
    EXPECT_EQ(kIcib.Record()->Used, 1u);
}

TEST_F(Records, ExportedOperationsRefuseNull)
{
    const L2ResOpRecord record = {};
    EXPECT_EQ(QorL2ResIcibOpHashSearch(nullptr), nullptr);
    EXPECT_EQ(QorL2ResIpatOpHashSearch(nullptr), nullptr);
    EXPECT_EQ(QorL2ResIcibReOpHashSearch(nullptr), nullptr);
    EXPECT_EQ(QorL2ResIpatReOpHashSearch(nullptr), nullptr);
    for (const u32 result :
         {QorL2ResIcibOpHashUpdate(nullptr, &record), QorL2ResIpatOpHashUpdate(nullptr, &record),
          QorL2ResIcibOpDel(nullptr), QorL2ResIpatOpDel(nullptr),
          QorL2ResIcibReOpHashUpdate(nullptr, &record, nullptr, 0, 1),
          QorL2ResIpatReOpHashUpdate(nullptr, &record, nullptr, 0, 1), QorL2ResIcibReOpDel(nullptr),
          QorL2ResIpatReOpDel(nullptr, g_ipatReOpRecordHash)}) {
        EXPECT_EQ(result, 1u);
    }
    const Key key = MakeKey();
    EXPECT_EQ(QorL2ResIpatReOpDel(&key.ipat, nullptr), 1u);
    EXPECT_TRUE(journal::Equal(TakeLines(), {}));
}

// Before phase 1 there is neither a table nor a mutex to lock.
TEST(HashTables, NeedNotExist)
{
    const Key key = MakeKey();
    Walk();
    EXPECT_EQ(QorL2ResIpatOpHashSearch(&key.ipat), nullptr);
    EXPECT_TRUE(journal::Equal(TakeLines(), {}));
    EXPECT_EQ(QorL2ResIcibOpHashSearch(&key.icib), nullptr);
    EXPECT_EQ(QorL2ResIcibReOpHashSearch(&key.icib), nullptr);
    EXPECT_EQ(QorL2ResIpatReOpHashSearch(&key.ipat), nullptr);
    for (const Side *side : kSides) {
        EXPECT_EQ(side->Store({1, 1, 1, 0}), 1u);
        EXPECT_EQ(side->DeleteRecord(), 1u);
        EXPECT_EQ(Append(*side, "data"), 1u);
        EXPECT_EQ(side->icib ? side->DeleteWaiting() : 0u, 0u);
        EXPECT_EQ(side->Get(kDelete, {1, 10, 100}), 4u);
        EXPECT_EQ(side->Free(kDelete), side->icib ? 1u : 0u);
    }
    EXPECT_EQ(TableLocks(), 0u);
    QorL2ResHashDestroy(nullptr);
    EXPECT_EQ(faults::Calls(Op::HASH_DeleteHash), 0u);
}

} // namespace
