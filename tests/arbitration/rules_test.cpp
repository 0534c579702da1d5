// The three rules, row by row: verdict, result and every message.
#include <gtest/gtest.h>

#include "arbitration/rules.h"
#include "arbitration_support.h"

namespace {

struct Rule {
    u32 (*judge)(const L2ResOpRecord *, const L2ResOpRecord *, L2ResVerdict *);
    const char *name, *opening; // its first line
};
constexpr const char *kOpening =
    ",Stamp:$S,Op:7,SrvType:$R,Used:6,OldStamp:$T,OldOp:$O,OldSrvType:$H,OldUsed:1.";
const Rule kAddRule = {QorL2ResAddMutex, "4/0 L2ResAddMutex",
                       ",type:$R,stamp:$S,Op:7,Used:6,oldtype:$H,oldstamp:$T,oldop:$O,oldUsed:1,"
                       "OpCode:0,IsOp:0,IsReOp:0,ReCode:0."};
const Rule kDelRule = {QorL2ResDelMutex, "0/0 L2ResDelMutex", kOpening};
const Rule kModRule = {QorL2ResUpdateMutex, "0/0 L2ResUpdateMutex", kOpening};

constexpr u64 kStamp = 0x7FFFFFFFFFFFFFFF; // of the holder: signed or cut, the next one is older
constexpr u16 kFwd = 40000;

struct Row {
    u32 level; // of the message
    const char *name;
    const Rule &rule;
    bool same;
    const char *ops;  // the holder's, each tried
    const char *ages; // of the request: '<' older, '=' as old, '>' newer, each tried
    u32 result;
    L2ResVerdict verdict; // OpCode, IsOp, IsReOp, ReOp
    const char *message;  // between opening and closing line; or null
};

const char *const kAddError = "/0 eth commtbl add error,srvtype:$R,timestamp:$S.";
const char *const kDelError = "/0 eth commtbl del error,srvtype:$R,timestamp:$S.";
const char *const kUpdateType =
    "/0 eth commtbl update mutex,srvtype is not same.srvtype:$R,timestamp:$H.";
const char *const kSetAdd = "/0 eth commtbl set and add mutex error,srvtype:$R,timestamp:$S,"
                            "oldsrvtype:$H,oldtimestamp:$T.";
const char *const kSetDel = "/0 eth commtbl set and del mutex error,srvtype:$R,timestamp:$S,"
                            "oldsrvtype:$H,oldtimestamp:$T.";

const Row kRows[] = {
    {5, "add other", kAddRule, false, "012349", "<=", 1, {}, kAddError},
    {4, "add other", kAddRule, false, "012349", ">", 0, {0, 0, 1, 0}, kAddError},
    {0, "add same 1", kAddRule, true, "1", "<=>", 0, {0, 1, 0, 0}, nullptr},
    {5, "add same 2", kAddRule, true, "2", "=>", 1, {}, kAddError},
    {0, "add same 2", kAddRule, true, "2", "<", 0, {1, 1, 0, 2}, nullptr},
    {5, "add same 3", kAddRule, true, "3", "<=", 1, {}, kAddError},
    {0, "add same 3", kAddRule, true, "3", ">", 0, {1, 1, 0, 3}, nullptr},
    {0, "add same", kAddRule, true, "049", "<=>", 0, {}, nullptr},

    {5, "del other", kDelRule, false, "012349", "<=>", 0, {0, 0, 1, 0}, kDelError},
    {5, "del same 12", kDelRule, true, "12", "<=", 1, {}, kDelError},
    {0, "del same 12", kDelRule, true, "12", ">", 0, {3, 1, 0, 0}, nullptr},
    {0, "del same 3", kDelRule, true, "3", "<=>", 0, {0, 1, 0, 0}, nullptr},
    {0, "del same", kDelRule, true, "049", "<=>", 0, {}, nullptr},

    {5, "mod other", kModRule, false, "012349", "<=>", 0, {0, 0, 1, 0}, kUpdateType},
    {5, "mod same 1", kModRule, true, "1", "<=", 1, {}, kSetAdd},
    {0, "mod same 1", kModRule, true, "1", ">", 0, {2, 1, 0, 0}, nullptr},
    {0, "mod same 2", kModRule, true, "2", "<=>", 0, {2, 1, 0, 0}, nullptr},
    {5, "mod same 3", kModRule, true, "3", "<=", 1, {}, kSetDel},
    {0, "mod same 3", kModRule, true, "3", ">", 0, {0, 0, 1, 0}, nullptr},
    {0, "mod same", kModRule, true, "049", "<=>", 0, {}, nullptr},
};

// $R and $S: the request's type and stamp; $H, $T and $O: the holder's and its op code.
std::string Filled(std::string text, const L2ResOpRecord &req, const L2ResOpRecord &holder)
{
    for (const auto &[place, value] : {std::pair{"$R", u64{req.SrvType}},
                                       {"$S", req.Stamp},
                                       {"$H", u64{holder.SrvType}},
                                       {"$T", holder.Stamp},
                                       {"$O", u64{holder.Op}}}) {
        const auto at = text.find(place);
        if (at != std::string::npos) {
            text.replace(at, 2, std::to_string(value));
        }
    }
    return text;
}

std::string Closing(const L2ResVerdict &verdict)
{
    return Text(" Op:", +verdict.OpCode, ",IsOp:", +verdict.IsOp, ",ReOp:", +verdict.ReOp,
                ",IsReOp:", +verdict.IsReOp, ".");
}

void Try(const Row &row, char op, char age)
{
    SCOPED_TRACE(std::string(row.name) + ", holder's op " + op + ", request " + age);
    const L2ResOpRecord holder = {kStamp, static_cast<u16>(op - '0'), kFwd, 1};
    const L2ResOpRecord req = {kStamp + (age == '>') - (age == '<'), 7,
                               static_cast<u16>(row.same ? kFwd : kFwd + 1), 6};
    journal::Clear();
    L2ResVerdict verdict = {};
    EXPECT_EQ(row.rule.judge(&req, &holder, &verdict), row.result);
    EXPECT_EQ(Closing(verdict), Closing(row.verdict));

    journal::Lines expected = {Filled(std::string(row.rule.name) + row.rule.opening, req, holder)};
    if (row.message != nullptr) {
        expected.push_back(std::to_string(row.level) + Filled(row.message, req, holder));
    }
    if (row.result == 0) {
        expected.push_back(row.rule.name + Closing(row.verdict));
    }
    EXPECT_TRUE(journal::Equal(TakeLines(), expected));
}

TEST(Rules, DecideRowByRow)
{
    for (const Row &row : kRows) {
        for (const char *op = row.ops; *op != '\0'; ++op) {
            for (const char *age = row.ages; *age != '\0'; ++age) {
                Try(row, *op, *age);
            }
        }
    }
}

} // namespace
