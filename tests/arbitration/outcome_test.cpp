// Outcome tables: what a request leaves behind, driven through the token operations.
#include <gtest/gtest.h>

#include "arbitration_support.h"

namespace {

enum Stored {
    kKept,        // as it was, or none
    kNew,         // the request's
    kNewUsed,     // the request's, ICIB: in use
    kNewKeepsUse, // the request's, ICIB: in use if the holder's was
    kNewIpat      // ICIB: none; IPAT: the request's
};

struct Row {
    u32 op;
    const char *holder; // "none", "other", "same": its forwarding type
    const char *ops;    // its op codes, each tried
    const char *ages;   // of the request: '<' older, '=' as old, '>' newer, each tried
    Stored stored;
    bool waits;
    u32 icibResult, ipatResult;
};

const Row kRows[] = {
    {kAdd, "none", "1", "=", kNewUsed, false, 0, 0},
    {kAdd, "other", "01234", "<=", kKept, false, 1, 1},
    {kAdd, "other", "01234", ">", kKept, true, 4, 4},
    {kAdd, "same", "1", "<=>", kNewKeepsUse, false, 4, 0},
    {kAdd, "same", "2", "<", kNewUsed, false, 0, 0},
    {kAdd, "same", "2", "=>", kKept, false, 1, 1},
    {kAdd, "same", "3", ">", kNewUsed, false, 0, 0},
    {kAdd, "same", "3", "<=", kKept, false, 1, 1},
    {kDelete, "none", "1", "=", kNew, true, 4, 4},
    {kDelete, "other", "01234", "<=>", kKept, true, 4, 4},
    {kDelete, "same", "12", ">", kNewUsed, false, 0, 0},
    {kDelete, "same", "12", "<=", kKept, false, 1, 1},
    {kDelete, "same", "3", "<=>", kNewKeepsUse, false, 4, 0},
    {kUpdate, "none", "1", "=", kNewIpat, true, 3, 3},
    {kUpdate, "other", "01234", "<=>", kKept, true, 0, 0},
    {kUpdate, "same", "1", ">", kNewUsed, false, 0, 0},
    {kUpdate, "same", "1", "<=", kKept, false, 1, 1},
    {kUpdate, "same", "2", "<=>", kNewUsed, false, 0, 0},
    {kUpdate, "same", "3", ">", kKept, true, 0, 0},
    {kUpdate, "same", "3", "<=", kKept, false, 1, 1},
    {kAdd, "same", "049", "<=>", kKept, false, 4, 0},
    {kDelete, "same", "049", "<=>", kKept, false, 4, 0},
    {kUpdate, "same", "049", "<=>", kKept, false, 0, 0},
};

auto Fields(const L2ResOpRecord &record)
{
    return std::tuple(record.Stamp, record.Op, record.SrvType, record.Used);
}

void Try(const Side &side, const Row &row, char op, char age, u32 used)
{
    SCOPED_TRACE(
        Text("op ", row.op, ", holder ", row.holder, " ", op, " used ", used, ", request ", age));
    const bool held = strcmp(row.holder, "none") != 0;
    const L2ResOpRecord holder = {500, static_cast<u16>(op - '0'), 10, used};
    if (held) {
        ASSERT_EQ(side.Store(holder), 0u);
    }
    const u16 fwd = strcmp(row.holder, "other") == 0 ? 11 : 10;
    const u64 stamp = 500 + (age == '>') - (age == '<');
    const u32 result = side.icib ? row.icibResult : row.ipatResult;
    g_countHookCalls = 0;
    EXPECT_EQ(side.Get(row.op, {6, fwd, stamp, "data"}), result);
    EXPECT_EQ(g_countHookCalls, side.icib && row.op == kAdd && result != 1 ? 1u : 0u);

    const u16 recorded = static_cast<u16>(!side.icib && row.op == kUpdate ? kAdd : row.op);
    L2ResOpRecord mine = {stamp, recorded, fwd, 0};
    if (side.icib && row.stored != kNew) {
        mine.Used = row.stored == kNewUsed ? 1 : held ? used : 0;
    }
    const bool replaced = row.stored != kKept && !(row.stored == kNewIpat && side.icib);
    const L2ResOpRecord *stored = side.Record();
    ASSERT_EQ(stored != nullptr, held || replaced);
    if (stored != nullptr) {
        EXPECT_EQ(Fields(*stored), Fields(replaced ? mine : holder));
    }

    const L2ResWaitList *list = side.Waiting();
    ASSERT_EQ(list != nullptr, row.waits);
    if (list != nullptr) {
        EXPECT_EQ(list->reOpNum, 1u);
        EXPECT_EQ(list->walkCountdown, side.icib ? 3 : 0);
        EXPECT_EQ(Fields(list->entry[0].op), Fields(mine));
        EXPECT_EQ(list->entry[0].srvType, 6u);
        EXPECT_STREQ(static_cast<const char *>(list->entry[0].data), "data");
    }
    Clean(side);
}

class Outcome : public Arbitration {};

TEST_F(Outcome, FollowsTheTableRowByRow)
{
    ForBoth([](const Side &side) {
        for (const Row &row : kRows) {
            for (const char *op = row.ops; *op != '\0'; ++op) {
                for (const char *age = row.ages; *age != '\0'; ++age) {
                    for (u32 used = 0; used <= (side.icib ? 1 : 0); ++used) {
                        Try(side, row, *op, *age, used);
                    }
                }
            }
        }
    });
}

} // namespace
