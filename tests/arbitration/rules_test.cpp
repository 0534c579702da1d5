// The three rules, row by row: verdict, result and every message.
#include <gtest/gtest.h>

#include "arbitration/rules.h"
#include "arbitration_support.h"

namespace {

using Rule = u32 (*)(const L2ResOpRecord *, const L2ResOpRecord *, L2ResVerdict *);

constexpr u64 kStamp = 0x7FFFFFFFFFFFFFFF; // of the holder: signed or cut, the next one is older
constexpr u16 kFwd = 40000;

struct Row {
    u32 level; // of the message
    const char *name;
    Rule rule;
    bool same;
    const char *ops;  // the holder's, each tried
    const char *ages; // of the request: '<' older, '=' as old, '>' newer, each tried
    u32 result;
    L2ResVerdict verdict; // OpCode, IsOp, IsReOp, ReOp
    const char *message;  // between opening and closing line; or null
};

const char *const kAddError = "/0 eth commtbl add error,srvtype:R,timestamp:S.";
const char *const kDelError = "/0 eth commtbl del error,srvtype:R,timestamp:S.";
const char *const kUpdateType =
    "/0 eth commtbl update mutex,srvtype is not same.srvtype:R,timestamp:H.";
const char *const kSetAdd = "/0 eth commtbl set and add mutex error,srvtype:R,timestamp:S,"
                            "oldsrvtype:H,oldtimestamp:T.";
const char *const kSetDel = "/0 eth commtbl set and del mutex error,srvtype:R,timestamp:S,"
                            "oldsrvtype:H,oldtimestamp:T.";

const Row kRows[] = {
    {5, "add other", QorL2ResAddMutex, false, "012349", "<=", 1, {}, kAddError},
    {4, "add other", QorL2ResAddMutex, false, "012349", ">", 0, {0, 0, 1, 0}, kAddError},
    {0, "add same 1", QorL2ResAddMutex, true, "1", "<=>", 0, {0, 1, 0, 0}, nullptr},
    {5, "add same 2", QorL2ResAddMutex, true, "2", "=>", 1, {}, kAddError},
    {0, "add same 2", QorL2ResAddMutex, true, "2", "<", 0, {1, 1, 0, 2}, nullptr},
    {5, "add same 3", QorL2ResAddMutex, true, "3", "<=", 1, {}, kAddError},
    {0, "add same 3", QorL2ResAddMutex, true, "3", ">", 0, {1, 1, 0, 3}, nullptr},
    {0, "add same", QorL2ResAddMutex, true, "049", "<=>", 0, {}, nullptr},

    {5, "del other", QorL2ResDelMutex, false, "012349", "<=>", 0, {0, 0, 1, 0}, kDelError},
    {5, "del same 12", QorL2ResDelMutex, true, "12", "<=", 1, {}, kDelError},
    {0, "del same 12", QorL2ResDelMutex, true, "12", ">", 0, {3, 1, 0, 0}, nullptr},
    {0, "del same 3", QorL2ResDelMutex, true, "3", "<=>", 0, {0, 1, 0, 0}, nullptr},
    {0, "del same", QorL2ResDelMutex, true, "049", "<=>", 0, {}, nullptr},

    {5, "mod other", QorL2ResUpdateMutex, false, "012349", "<=>", 0, {0, 0, 1, 0}, kUpdateType},
    {5, "mod same 1", QorL2ResUpdateMutex, true, "1", "<=", 1, {}, kSetAdd},
    {0, "mod same 1", QorL2ResUpdateMutex, true, "1", ">", 0, {2, 1, 0, 0}, nullptr},
    {0, "mod same 2", QorL2ResUpdateMutex, true, "2", "<=>", 0, {2, 1, 0, 0}, nullptr},
    {5, "mod same 3", QorL2ResUpdateMutex, true, "3", "<=", 1, {}, kSetDel},
    {0, "mod same 3", QorL2ResUpdateMutex, true, "3", ">", 0, {0, 0, 1, 0}, nullptr},
    {0, "mod same", QorL2ResUpdateMutex, true, "049", "<=>", 0, {}, nullptr},
};

std::string Filled(const std::string &text, const L2ResOpRecord &req, const L2ResOpRecord &holder)
{
    std::string filled;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool value = i > 0 && text[i - 1] == ':';
        filled += !value           ? std::string(1, text[i])
                  : text[i] == 'R' ? std::to_string(req.SrvType)
                  : text[i] == 'S' ? std::to_string(req.Stamp)
                  : text[i] == 'H' ? std::to_string(holder.SrvType)
                  : text[i] == 'T' ? std::to_string(holder.Stamp)
                                   : std::string(1, text[i]);
    }
    return filled;
}

std::string Opening(Rule rule, const L2ResOpRecord &r, const L2ResOpRecord &h)
{
    using std::to_string;
    if (rule == QorL2ResAddMutex) {
        return "4/0 L2ResAddMutex,type:" + to_string(r.SrvType) + ",stamp:" + to_string(r.Stamp) +
               ",Op:7,Used:6,oldtype:" + to_string(h.SrvType) + ",oldstamp:" + to_string(h.Stamp) +
               ",oldop:" + to_string(h.Op) + ",oldUsed:1,OpCode:0,IsOp:0,IsReOp:0,ReCode:0.";
    }
    const char *name = rule == QorL2ResDelMutex ? "L2ResDelMutex" : "L2ResUpdateMutex";
    return std::string("0/0 ") + name + ",Stamp:" + to_string(r.Stamp) +
           ",Op:7,SrvType:" + to_string(r.SrvType) + ",Used:6,OldStamp:" + to_string(h.Stamp) +
           ",OldOp:" + to_string(h.Op) + ",OldSrvType:" + to_string(h.SrvType) + ",OldUsed:1.";
}

std::string Closing(Rule rule, const L2ResVerdict &v)
{
    const char *name = rule == QorL2ResAddMutex   ? "4/0 L2ResAddMutex"
                       : rule == QorL2ResDelMutex ? "0/0 L2ResDelMutex"
                                                  : "0/0 L2ResUpdateMutex";
    return name + (" Op:" + std::to_string(v.OpCode) + ",IsOp:" + std::to_string(v.IsOp)) +
           ",ReOp:" + std::to_string(v.ReOp) + ",IsReOp:" + std::to_string(v.IsReOp) + ".";
}

void Try(const Row &row, char op, char age)
{
    SCOPED_TRACE(std::string(row.name) + ", holder's op " + op + ", request " + age);
    const L2ResOpRecord holder = {kStamp, static_cast<u16>(op - '0'), kFwd, 1};
    const L2ResOpRecord req = {kStamp + (age == '>') - (age == '<'), 7,
                               static_cast<u16>(row.same ? kFwd : kFwd + 1), 6};
    journal::Clear();
    L2ResVerdict verdict = {};
    EXPECT_EQ(row.rule(&req, &holder, &verdict), row.result);
    EXPECT_EQ(verdict.OpCode, row.verdict.OpCode);
    EXPECT_EQ(verdict.IsOp, row.verdict.IsOp);
    EXPECT_EQ(verdict.IsReOp, row.verdict.IsReOp);
    EXPECT_EQ(verdict.ReOp, row.verdict.ReOp);

    journal::Lines expected = {Opening(row.rule, req, holder)};
    if (row.message != nullptr) {
        expected.push_back(std::to_string(row.level) + Filled(row.message, req, holder));
    }
    if (row.result == 0) {
        expected.push_back(Closing(row.rule, row.verdict));
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
