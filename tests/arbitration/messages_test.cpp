// Every message of representative requests, in order, with level and category; the dispatcher.
#include <gtest/gtest.h>

#include "arbitration/op_table.h"
#include "arbitration_support.h"

namespace {

using journal::Lines;
using std::string;

struct Step {
    const char *name;
    std::function<u32()> act;
    u32 result;
    Lines lines;
};

// The rules' own messages are tested with the rules: here only the requester's half of the first.
void KeepOneRuleLine(Lines *lines)
{
    for (string &line : *lines) {
        line.erase(std::min({line.find(",oldtype"), line.find(",OldStamp"), line.size()}));
    }
    std::erase_if(*lines, [](const string &line) {
        return line.find("/0 eth commtbl") != string::npos ||
               line.find("Mutex Op:") != string::npos;
    });
}

void Play(const std::vector<Step> &steps)
{
    journal::Clear();
    for (const Step &step : steps) {
        SCOPED_TRACE(step.name);
        EXPECT_EQ(step.act(), step.result);
        Lines lines = TakeLines();
        KeepOneRuleLine(&lines);
        EXPECT_TRUE(journal::Equal(lines, step.lines));
    }
}

Lines operator+(Lines lines, const Lines &more)
{
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

string Done(u32 table, u32 op, const Ask &ask, u32 ret)
{
    return Text("2/0 L2 res mutex proc,tblid:", table, ",srvType:", ask.srv, ",opType:", op,
                ",Stamp:", ask.stamp, ",FwdType:", ask.fwd, ",Ret:", ret, ".");
}

// A request with all it writes: the opening lines, those of `middle`, and the dispatcher's.
Step Requested(const char *name, const Side &side, u32 op, const Ask &ask, u32 ret,
               const Lines &middle)
{
    constexpr const char *kIcibOps[] = {"", "add", "mod", "del"};
    constexpr const char *kIpatOps[] = {
        "", "AddMutexProc unit:5,port:100,Type:", "UpdateMutexProc,Unit:5,Port:100,Service:",
        "DelMutexProc unit:5,port:100,Type:"};
    Lines opened = {Text("0/2 L2ResIpat", kIpatOps[op], ask.srv, ",Stamp:", ask.stamp,
                         ",FwdType:", ask.fwd, ".")};
    if (side.icib) {
        const string icib = Text("1/1 icib ", kIcibOps[op]);
        opened = {Text(icib, " oper,srvType:", ask.srv, " timestamp:", ask.stamp),
                  icib + " key,keytype:1 vsiId:3 globalPort:2 outVlan:100 innerVlan:6 pri:8"};
    }
    return {name, [=, &side] { return side.Get(op, ask); }, ret,
            opened + middle + Lines{Done(side.tableId, op, ask, ret)}};
}

Step Freed(const char *name, const Side &side, u32 op, u32 ret, const Lines &lines)
{
    return {name, [=, &side] { return side.Free(op, MakeKey(), 12); }, ret, lines};
}

// Not judged at all: one line.
Step Unjudged(const Side &side, u32 op, u32 srv, const string &line)
{
    return {"bad arguments", [=, &side] { return side.Get(op, {srv, 10, 1}); }, 1, {line}};
}

class Messages : public Arbitration {};

const string kIcibKey = "KeyType:1,Port:2,Vsi:3,OutVlan:100,InnerVlan:6,Pri:8,Vdc:9";

// An empty record is none.
Lines IcibFound(const string &record)
{
    return {"0/1 L2ResIcibOpHashSearch," + kIcibKey + ".",
            "0/1 L2ResIcibOpHashSearch " + (record.empty() ? "No Data." : "Data," + record + ".")};
}

Lines IcibStored(const string &before, const string &record)
{
    return IcibFound(before) + Lines{"0/1 L2ResIcibOpHashUpdate," + kIcibKey + "," + record};
}

TEST_F(Messages, OfIcibRequests)
{
    const Key key = MakeKey();
    L2ResQueryEntry entries[L2RES_QUERY_MAX] = {};
    u16 count = 77;
    const auto query = [&] {
        AtUnlock(kIcib.opMutex, [] {}); // it waits for a writer of any entry
        return QorL2ResIcibGet(&key.icib, entries, &count);
    };
    const Lines checked = {"2/0 check init alarmType:0, flag: 1.",
                           "2/0 [QorL2ResExceedCheck], total:10, used:4, idle:6, ret:0."};
    const Lines held = IcibFound("Stamp:100,Op:1,SrvType:10,Used:1");
    const string modified = "Stamp:103,Op:2,SrvType:10,Used:1";
    const string info = "2/1 Query icib used-info: servicename:";
    const string saved = "1/1 icib reop hash save info:timeStamp:";
    const string told = " keyType:1, GlobalPort:2, OuterVlan:100";
    Play({
        Requested("add, nobody holds", kIcib, kAdd, {1, 10, 100}, 0,
                  IcibFound("") + checked + IcibStored("", "Stamp:100,Op:1,Srv:10,Used:1") +
                      Lines{"1/1 L2ResIcibAddMutexProc,Op:1,IsOp:1,ReOp:0,IsReOp:0,ret=0."}),
        Requested("add waits", kIcib, kAdd, {2, 20, 101, "two"}, 4,
                  held + Lines{"4/0 L2ResAddMutex,type:20,stamp:101,Op:1,Used:0"} + checked +
                      Lines{saved + "101,srvType:20,opCode:1,reOpNum:1.",
                            "1/1 L2ResIcibAddMutexProc,Op:0,IsOp:0,ReOp:0,IsReOp:1,ret=4."}),
        Requested("add refused", kIcib, kAdd, {2, 20, 100}, 1,
                  held + Lines{"4/0 L2ResAddMutex,type:20,stamp:100,Op:1,Used:0",
                               "5/1 icib add oper proc, srvType:2 timestamp:100 ret=1"}),
        Requested("delete waits", kIcib, kDelete, {3, 30, 7, "three"}, 4,
                  held + Lines{"0/0 L2ResDelMutex,Stamp:7,Op:3,SrvType:30,Used:0",
                               saved + "7,srvType:30,opCode:3,reOpNum:2.",
                               "1/1 icib del oper proc,Op:0,IsOp:0,ReOp:0,IsReOp:1,ret:4"}),
        Requested("delete refused", kIcib, kDelete, {1, 10, 100}, 1,
                  held + Lines{"0/0 L2ResDelMutex,Stamp:100,Op:3,SrvType:10,Used:0",
                               "5/1 icib del oper proc,srvType:1 timestamp:100 ret=1"}),
        Requested("update refused", kIcib, kUpdate, {1, 10, 99}, 1,
                  held + Lines{"0/0 L2ResUpdateMutex,Stamp:99,Op:2,SrvType:10,Used:0",
                               "5/1 icib mod oper proc,srvType:1 timestamp:99 ret=1"}),
        Requested(
            "update granted", kIcib, kUpdate, {1, 10, 103}, 0,
            held + Lines{"0/0 L2ResUpdateMutex,Stamp:103,Op:2,SrvType:10,Used:0"} +
                IcibStored("Stamp:100,Op:1,SrvType:10,Used:1", "Stamp:103,Op:2,Srv:10,Used:1") +
                Lines{"1/1 icib mod oper proc,Op:2,IsOp:1,ReOp:0,IsReOp:0,ret:0."}),
        Step{"query", query, 0,
             IcibFound(modified) + Lines{info + "10, optype:2, time:103, iswaiting:0.",
                                         info + "20, optype:1, time:101, iswaiting:1.",
                                         info + "30, optype:3, time:7, iswaiting:1."}},
        Freed("after an update", kIcib, kUpdate, 0,
              IcibFound(modified) + IcibStored(modified, "Stamp:103,Op:2,Srv:10,Used:0") +
                  Lines{"notify 2 two", "5/1 Icib Notify, ret:0 srvType:2" + told, "notify 3 three",
                        "5/1 Icib Notify, ret:0 srvType:3" + told}),
        Freed("after a delete, nobody waits", kIcib, kDelete, 0,
              IcibFound("Stamp:103,Op:2,SrvType:10,Used:0") +
                  Lines{"0/1 L2ResIcibOpDel, " + kIcibKey + ",Ret:0",
                        "5/1 icib reop hash search failed,key info:keyType--1, GlobalPort--2, "
                        "OuterVlan--100."}),
        Freed("nobody holds", kIcib, kAdd, 1,
              IcibFound("") + Lines{"5/1 icib op record is not exist.srvType:12,opType:1"}),
        Step{"query of nothing", query, 0,
             IcibFound("") + Lines{"2/1 Query op record is not exist. keytype:1, portid:2.",
                                   "2/1 Query waitinfo is not exist. keytype:1, portid:2."}},
        Requested("update, nobody holds", kIcib, kUpdate, {3, 30, 6}, 3,
                  IcibFound("") +
                      Lines{saved + "6,srvType:30,opCode:2,reOpNum:1.",
                            "1/1 icib mod oper proc,Op:0,IsOp:0,ReOp:0,IsReOp:1,ret:3."}),
        Requested("delete, nobody holds", kIcib, kDelete, {3, 30, 7}, 4,
                  IcibFound("") + IcibStored("", "Stamp:7,Op:3,Srv:30,Used:0") +
                      Lines{saved + "7,srvType:30,opCode:3,reOpNum:2.",
                            "1/1 icib del oper proc,Op:0,IsOp:1,ReOp:0,IsReOp:1,ret:4"}),
        Step{"third walk",
             [] { return Walk(3), 0u; },
             0,
             {"notify 3", "5/1 Notify Available, srvType:3 ,ret:0.", "notify 3",
              "5/1 Notify Available, srvType:3 ,ret:0."}},
        Unjudged(kIcib, 0, 8, Done(0, 0, {8, 10, 1}, 1)),
        Unjudged(kIcib, 1, 9, "5/1 L2ResGetIcib Fail,Service:9,OpType:1,Stamp:1,FwdType:10."),
        Unjudged(kIcib, 4, 8, "5/1 L2ResGetIcib Fail,Service:8,OpType:4,Stamp:1,FwdType:10."),
        Step{"no key",
             [&] { return QorL2ResIcibGet(nullptr, entries, &count); },
             1,
             {"5/1 Query key is invalid."}},
        Step{"no buffer",
             [&] { return QorL2ResIcibGet(&key.icib, nullptr, &count); },
             1,
             {"5/1 Query buffer is invalid."}},
    });
    EXPECT_EQ(count, 0u); // of the last query that had all it needs; the lines are of the first
    const L2ResQueryEntry first[] = {{103, 2, 10, 0}, {101, 1, 20, 1}, {7, 3, 30, 1}};
    EXPECT_EQ(memcmp(entries, first, sizeof first), 0);
    EXPECT_EQ(QorL2ResIcibGet(&key.icib, entries, nullptr), 1u);
}

Lines IpatFound(const string &record)
{
    return {"0/2 L2ResIpatOpHashSearch Unt:5,Port:100.",
            record.empty() ? "0/2 L2ResIpatOpHashSearch No Data,Unt:5,Port:100."
                           : "0/2 L2ResIpatOpHashSearch Data,Unt:5,Port:100," + record + "."};
}

Lines IpatStored(const string &before, const string &record)
{
    return IpatFound(before) + Lines{"0/2 L2ResIpatOpHashUpdate,Unit:5,Port:100," + record + "."};
}

TEST_F(Messages, OfIpatRequests)
{
    const string record = "Stamp:100,Op:1,SrvType:10,Used:0";
    const string claimed = "Stamp:6,Op:1,SrvType:30,Used:0"; // by an update
    const Lines held = IpatFound(record);
    const string failed = "Stamp:100,FwdType:10.";
    g_onNotify = [](u32 srv, void *, void *) { return srv == 2 ? 22 : 0; };
    Play({
        Requested("add, nobody holds", kIpat, kAdd, {1, 10, 100}, 0,
                  IpatFound("") + IpatStored("", record) +
                      Lines{"1/2 L2ResIpatAddMutexProc,Op:1,IsOp:1,ReOp:0,IsReOp:0,ret:0."}),
        Requested("delete waits", kIpat, kDelete, {2, 20, 7, "two"}, 4,
                  held + Lines{"0/0 L2ResDelMutex,Stamp:7,Op:3,SrvType:20,Used:0",
                               "1/2 L2ResIpatDelMutexProc,Op:0,IsOp:0,ReOp:0,IsReOp:1,ret:4."}),
        Requested("update waits", kIpat, kUpdate, {3, 30, 8, "three"}, 0,
                  held + Lines{"0/0 L2ResUpdateMutex,Stamp:8,Op:1,SrvType:30,Used:0",
                               "1/2 L2ResIpatUpdateMutexProc,Op:0,IsOp:0,ReOp:0,IsReOp:1,ret:0."}),
        Requested("add refused", kIpat, kAdd, {2, 20, 100}, 1,
                  held + Lines{"4/0 L2ResAddMutex,type:20,stamp:100,Op:1,Used:0",
                               "5/2 L2ResIpatAddMutexProc Fail,unit:5,port:100,Type:2,Stamp:100,"
                               "FwdType:20."}),
        Requested("delete refused", kIpat, kDelete, {1, 10, 100}, 1,
                  held + Lines{"0/0 L2ResDelMutex,Stamp:100,Op:3,SrvType:10,Used:0",
                               "5/2 L2ResIpatDelMutexProc unit:5,port:100,Type:1," + failed}),
        Requested(
            "update refused", kIpat, kUpdate, {1, 10, 100}, 1,
            held + Lines{"0/0 L2ResUpdateMutex,Stamp:100,Op:1,SrvType:10,Used:0",
                         "5/2 L2ResIpatUpdateMutexProc Fail,Unit:5,Port:100,Service:1," + failed}),
        Freed("two wait", kIpat, 0, 0,
              {"0/2 L2ResIpatOpDel unit:5,port:100,Ret:0.", "notify 2 two",
               "5/1 Ipat Notify Available, srvType:2.", "notify 3 three"}),
        Freed("one waits", kIpat, kAdd, 22,
              {"0/2 L2ResIpatOpDel unit:5,port:100,Ret:1.", "notify 2 two",
               "5/1 Ipat Notify Available, srvType:2."}),
        Freed("nobody waits", kIpat, kAdd, 0, {"0/2 L2ResIpatOpDel unit:5,port:100,Ret:1."}),
        Requested("update, nobody holds", kIpat, kUpdate, {3, 30, 6}, 3,
                  IpatFound("") + IpatStored("", claimed) +
                      Lines{"1/2 L2ResIpatUpdateMutexProc,Op:0,IsOp:1,ReOp:0,IsReOp:1,ret:3."}),
        Requested("delete granted", kIpat, kDelete, {3, 30, 7}, 0,
                  IpatFound(claimed) + Lines{"0/0 L2ResDelMutex,Stamp:7,Op:3,SrvType:30,Used:0"} +
                      IpatStored(claimed, "Stamp:7,Op:3,SrvType:30,Used:0") +
                      Lines{"1/2 L2ResIpatDelMutexProc,Op:3,IsOp:1,ReOp:0,IsReOp:0,ret:0."}),
        Unjudged(kIpat, 4, 8, "5/0 L2ResGetIpatres Fail, Service:8,OpType:4,Stamp:1,FwdType:10."),
        Unjudged(kIpat, 1, 9, "5/0 L2ResGetIpatres Fail, Service:9,OpType:1,Stamp:1,FwdType:10."),
    });
}

TEST_F(Messages, OfTheDispatcher)
{
    const Key key = MakeKey();
    const Ask ask = {1, 10, 100};
    L2ResTokenReq request = kIcib.Request(ask, key);
    for (const auto &[table, op] :
         {std::pair{1u, 1u}, {2, 1}, {4, 2}, {65536, 1}, {0, 0}, {0, 4}, {3, 0}, {3, 257}}) {
        EXPECT_EQ(QorL2resMutexProc(table, 1, op, &request), 1u);
        EXPECT_TRUE(journal::Equal(TakeLines(), {Done(table, op, ask, 1)}));
    }
    EXPECT_EQ(GetL2ResOpMutexFunc(0), &g_qorL2ResOpTable[0]);
    EXPECT_EQ(GetL2ResOpMutexFunc(3), &g_qorL2ResOpTable[1]);
    EXPECT_EQ(GetL2ResOpMutexFunc(1), nullptr);
}

// Whatever else is wrong with it, a request without a key or no request at all touches nothing.
TEST_F(Messages, NullRequestAndNullKeyAreSilent)
{
    ForBoth([](const Side &side) {
        const L2ResOpTableRow *row = GetL2ResOpMutexFunc(side.tableId);
        L2ResTokenReq noKey = {100, 10, nullptr, 0, nullptr};
        for (u32 op : {0u, 1u, 2u, 3u, 9u}) {
            for (const u32 result :
                 {side.getToken(1, op, nullptr), side.getToken(99, op, nullptr),
                  QorL2resMutexProc(side.tableId, 1, op, nullptr), side.freeToken(1, op, nullptr),
                  side.freeToken(1, op, &noKey), row->add(1, &noKey), row->update(1, &noKey),
                  row->del(1, &noKey), row->add(1, nullptr)}) {
                EXPECT_EQ(result, 1u);
            }
            EXPECT_EQ(QorL2ResIcibReOpProc(&noKey) + QorL2ResIpatReOpProc(&noKey), 0u);
            EXPECT_TRUE(journal::Equal(TakeLines(), {}));
            if (op <= L2RES_OP_DELETE) {
                EXPECT_EQ(side.getToken(1, op, &noKey), 1u);
                EXPECT_TRUE(journal::Equal(TakeLines(), {Done(side.tableId, op, {1, 10, 100}, 1)}));
            }
        }
    });
}

} // namespace
