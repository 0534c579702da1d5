// Every message of representative requests, in order, with level and category; the dispatcher.
#include <gtest/gtest.h>

#include "arbitration/op_table.h"
#include "arbitration_support.h"

namespace {

using journal::Lines;

struct Step {
    const char *name;
    std::function<u32()> act;
    u32 result;
    Lines lines;
};

void Play(const std::vector<Step> &steps)
{
    journal::Clear();
    for (const Step &step : steps) {
        SCOPED_TRACE(step.name);
        EXPECT_EQ(step.act(), step.result);
        EXPECT_TRUE(journal::Equal(TakeLines(), step.lines));
    }
}

Lines operator+(Lines lines, const Lines &more)
{
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

class Messages : public Arbitration {};

const std::string kIcibKey =
    "KeyType:1,Port:2,Vsi:3,OutVlan:100,InnerVlan:6,Pri:8,Vdc:9"; // of the record functions

Lines IcibOpened(const std::string &op, const std::string &values)
{
    return {"1/1 icib " + op + " oper,srvType:" + values,
            "1/1 icib " + op + " key,keytype:1 vsiId:3 globalPort:2 outVlan:100 innerVlan:6 pri:8"};
}

Lines IcibFound(const std::string &record)
{
    return {"0/1 L2ResIcibOpHashSearch," + kIcibKey + ".",
            "0/1 L2ResIcibOpHashSearch " + (record.empty() ? "No Data." : "Data," + record + ".")};
}

Lines IcibStored(const std::string &before, const std::string &record)
{
    return IcibFound(before) + Lines{"0/1 L2ResIcibOpHashUpdate," + kIcibKey + "," + record};
}

const Lines kUsageChecked = {"2/0 check init alarmType:0, flag: 1.",
                             "2/0 [QorL2ResExceedCheck], total:10, used:4, idle:6, ret:0."};

TEST_F(Messages, OfIcibRequests)
{
    const Key key = MakeKey();
    L2ResQueryEntry entries[L2RES_QUERY_MAX] = {};
    u16 count = 77;
    const std::string held = "Stamp:100,Op:1,SrvType:10,Used:1";
    const std::string modified = "Stamp:103,Op:2,SrvType:10,Used:1";
    const std::string released = "Stamp:103,Op:2,SrvType:10,Used:0";
    const std::string unheldDelete = "Stamp:7,Op:3,SrvType:30,Used:0";
    Play({
        {"add, nobody holds",
         [] {
             return kIcib.Get(kAdd, {1, 10, 100});
         },
         0,
         IcibOpened("add", "1 timestamp:100") + IcibFound("") + kUsageChecked +
             IcibStored("", "Stamp:100,Op:1,Srv:10,Used:1") +
             Lines{"1/1 L2ResIcibAddMutexProc,Op:1,IsOp:1,ReOp:0,IsReOp:0,ret=0.",
                   "2/0 L2 res mutex proc,tblid:0,srvType:1,opType:1,Stamp:100,FwdType:10,Ret:0."}},
        {"add waits",
         [] {
             return kIcib.Get(kAdd, {2, 20, 101, "two"});
         },
         4,
         IcibOpened("add", "2 timestamp:101") + IcibFound(held) +
             Lines{"4/0 L2ResAddMutex,type:20,stamp:101,Op:1,Used:0,oldtype:10,oldstamp:100,"
                   "oldop:1,oldUsed:1,OpCode:0,IsOp:0,IsReOp:0,ReCode:0.",
                   "4/0 eth commtbl add error,srvtype:20,timestamp:101.",
                   "4/0 L2ResAddMutex Op:0,IsOp:0,ReOp:0,IsReOp:1."} +
             kUsageChecked +
             Lines{"1/1 icib reop hash save info:timeStamp:101,srvType:20,opCode:1,reOpNum:1.",
                   "1/1 L2ResIcibAddMutexProc,Op:0,IsOp:0,ReOp:0,IsReOp:1,ret=4.",
                   "2/0 L2 res mutex proc,tblid:0,srvType:2,opType:1,Stamp:101,FwdType:20,Ret:4."}},
        {"add refused",
         [] {
             return kIcib.Get(kAdd, {2, 20, 100});
         },
         1,
         IcibOpened("add", "2 timestamp:100") + IcibFound(held) +
             Lines{"4/0 L2ResAddMutex,type:20,stamp:100,Op:1,Used:0,oldtype:10,oldstamp:100,"
                   "oldop:1,oldUsed:1,OpCode:0,IsOp:0,IsReOp:0,ReCode:0.",
                   "5/0 eth commtbl add error,srvtype:20,timestamp:100.",
                   "5/1 icib add oper proc, srvType:2 timestamp:100 ret=1",
                   "2/0 L2 res mutex proc,tblid:0,srvType:2,opType:1,Stamp:100,FwdType:20,Ret:1."}},
        {"delete waits",
         [] {
             return kIcib.Get(kDelete, {3, 30, 7, "three"});
         },
         4,
         IcibOpened("del", "3 timestamp:7") + IcibFound(held) +
             Lines{"0/0 L2ResDelMutex,Stamp:7,Op:3,SrvType:30,Used:0,OldStamp:100,OldOp:1,"
                   "OldSrvType:10,OldUsed:1.",
                   "5/0 eth commtbl del error,srvtype:30,timestamp:7.",
                   "0/0 L2ResDelMutex Op:0,IsOp:0,ReOp:0,IsReOp:1.",
                   "1/1 icib reop hash save info:timeStamp:7,srvType:30,opCode:3,reOpNum:2.",
                   "1/1 icib del oper proc,Op:0,IsOp:0,ReOp:0,IsReOp:1,ret:4",
                   "2/0 L2 res mutex proc,tblid:0,srvType:3,opType:3,Stamp:7,FwdType:30,Ret:4."}},
        {"delete refused",
         [] {
             return kIcib.Get(kDelete, {1, 10, 100});
         },
         1,
         IcibOpened("del", "1 timestamp:100") + IcibFound(held) +
             Lines{"0/0 L2ResDelMutex,Stamp:100,Op:3,SrvType:10,Used:0,OldStamp:100,OldOp:1,"
                   "OldSrvType:10,OldUsed:1.",
                   "5/0 eth commtbl del error,srvtype:10,timestamp:100.",
                   "5/1 icib del oper proc,srvType:1 timestamp:100 ret=1",
                   "2/0 L2 res mutex proc,tblid:0,srvType:1,opType:3,Stamp:100,FwdType:10,Ret:1."}},
        {"update refused",
         [] {
             return kIcib.Get(kUpdate, {1, 10, 99});
         },
         1,
         IcibOpened("mod", "1 timestamp:99") + IcibFound(held) +
             Lines{"0/0 L2ResUpdateMutex,Stamp:99,Op:2,SrvType:10,Used:0,OldStamp:100,OldOp:1,"
                   "OldSrvType:10,OldUsed:1.",
                   "5/0 eth commtbl set and add mutex error,srvtype:10,timestamp:99,oldsrvtype:10,"
                   "oldtimestamp:100.",
                   "5/1 icib mod oper proc,srvType:1 timestamp:99 ret=1",
                   "2/0 L2 res mutex proc,tblid:0,srvType:1,opType:2,Stamp:99,FwdType:10,Ret:1."}},
        {"update granted",
         [] {
             return kIcib.Get(kUpdate, {1, 10, 103});
         },
         0,
         IcibOpened("mod", "1 timestamp:103") + IcibFound(held) +
             Lines{"0/0 L2ResUpdateMutex,Stamp:103,Op:2,SrvType:10,Used:0,OldStamp:100,OldOp:1,"
                   "OldSrvType:10,OldUsed:1.",
                   "0/0 L2ResUpdateMutex Op:2,IsOp:1,ReOp:0,IsReOp:0."} +
             IcibStored(held, "Stamp:103,Op:2,Srv:10,Used:1") +
             Lines{"1/1 icib mod oper proc,Op:2,IsOp:1,ReOp:0,IsReOp:0,ret:0.",
                   "2/0 L2 res mutex proc,tblid:0,srvType:1,opType:2,Stamp:103,FwdType:10,Ret:0."}},
        {"query", [&] { return QorL2ResIcibGet(&key.icib, entries, &count); }, 0,
         IcibFound(modified) +
             Lines{"2/1 Query icib used-info: servicename:10, optype:2, time:103, iswaiting:0.",
                   "2/1 Query icib used-info: servicename:20, optype:1, time:101, iswaiting:1.",
                   "2/1 Query icib used-info: servicename:30, optype:3, time:7, iswaiting:1."}},
        {"free after an update", [] { return kIcib.Free(kUpdate); }, 0,
         IcibFound(modified) + IcibStored(modified, "Stamp:103,Op:2,Srv:10,Used:0") +
             Lines{"notify 2 two",
                   "5/1 Icib Notify, ret:0 srvType:2 keyType:1, GlobalPort:2, OuterVlan:100",
                   "notify 3 three",
                   "5/1 Icib Notify, ret:0 srvType:3 keyType:1, GlobalPort:2, OuterVlan:100"}},
        {"free after a delete, nobody waits", [] { return kIcib.Free(kDelete); }, 0,
         IcibFound(released) +
             Lines{"0/1 L2ResIcibOpDel, " + kIcibKey + ",Ret:0",
                   "5/1 icib reop hash search failed,key info:keyType--1, GlobalPort--2, "
                   "OuterVlan--100."}},
        {"free, nobody holds", [] { return kIcib.Free(kAdd, MakeKey(), 12); }, 1,
         IcibFound("") + Lines{"5/1 icib op record is not exist.srvType:12,opType:1"}},
        {"query of nothing", [&] { return QorL2ResIcibGet(&key.icib, entries, &count); }, 0,
         IcibFound("") + Lines{"2/1 Query op record is not exist. keytype:1, portid:2.",
                               "2/1 Query waitinfo is not exist. keytype:1, portid:2."}},
        {"update, nobody holds",
         [] {
             return kIcib.Get(kUpdate, {3, 30, 6});
         },
         3,
         IcibOpened("mod", "3 timestamp:6") + IcibFound("") +
             Lines{"1/1 icib reop hash save info:timeStamp:6,srvType:30,opCode:2,reOpNum:1.",
                   "1/1 icib mod oper proc,Op:0,IsOp:0,ReOp:0,IsReOp:1,ret:3.",
                   "2/0 L2 res mutex proc,tblid:0,srvType:3,opType:2,Stamp:6,FwdType:30,Ret:3."}},
        {"delete, nobody holds",
         [] {
             return kIcib.Get(kDelete, {3, 30, 7});
         },
         4,
         IcibOpened("del", "3 timestamp:7") + IcibFound("") +
             IcibStored("", "Stamp:7,Op:3,Srv:30,Used:0") +
             Lines{"1/1 icib reop hash save info:timeStamp:7,srvType:30,opCode:3,reOpNum:2.",
                   "1/1 icib del oper proc,Op:0,IsOp:1,ReOp:0,IsReOp:1,ret:4",
                   "2/0 L2 res mutex proc,tblid:0,srvType:3,opType:3,Stamp:7,FwdType:30,Ret:4."}},
        {"third walk",
         [] { return Walk(3), 0u; },
         0,
         {"notify 3", "5/1 Notify Available, srvType:3 ,ret:0.", "notify 3",
          "5/1 Notify Available, srvType:3 ,ret:0."}},
        {"op type 0",
         [] {
             return kIcib.Get(0, {8, 10, 1});
         },
         1,
         {"2/0 L2 res mutex proc,tblid:0,srvType:8,opType:0,Stamp:1,FwdType:10,Ret:1."}},
        {"service 9",
         [] {
             return kIcib.Get(kAdd, {9, 10, 1});
         },
         1,
         {"5/1 L2ResGetIcib Fail,Service:9,OpType:1,Stamp:1,FwdType:10."}},
        {"op type 4",
         [] {
             return kIcib.Get(4, {8, 10, 1});
         },
         1,
         {"5/1 L2ResGetIcib Fail,Service:8,OpType:4,Stamp:1,FwdType:10."}},
        {"query without a key",
         [&] { return QorL2ResIcibGet(nullptr, entries, &count); },
         1,
         {"5/1 Query key is invalid."}},
        {"query without a buffer",
         [&] { return QorL2ResIcibGet(&key.icib, nullptr, &count); },
         1,
         {"5/1 Query buffer is invalid."}},
    });
    EXPECT_EQ(count, 0u); // of the last query that had all it needs
    EXPECT_EQ(entries[0].time, 103u);
    EXPECT_EQ(entries[2].servicename, 30u);
    EXPECT_EQ(entries[2].optype, 3u);
    EXPECT_EQ(entries[2].iswaiting, 1u);
    EXPECT_EQ(QorL2ResIcibGet(&key.icib, entries, nullptr), 1u);
}

Lines IpatFound(const std::string &record)
{
    return {"0/2 L2ResIpatOpHashSearch Unt:5,Port:100.",
            record.empty() ? "0/2 L2ResIpatOpHashSearch No Data,Unt:5,Port:100."
                           : "0/2 L2ResIpatOpHashSearch Data,Unt:5,Port:100," + record + "."};
}

Lines IpatStored(const std::string &before, const std::string &record)
{
    return IpatFound(before) + Lines{"0/2 L2ResIpatOpHashUpdate,Unit:5,Port:100," + record + "."};
}

TEST_F(Messages, OfIpatRequests)
{
    const std::string held = "Stamp:100,Op:1,SrvType:10,Used:0";
    const std::string claimed = "Stamp:6,Op:1,SrvType:30,Used:0"; // by an update
    g_onNotify = [](u32 srv, void *, void *) { return srv == 2 ? 22 : 0; };
    Play({
        {"add, nobody holds",
         [] {
             return kIpat.Get(kAdd, {1, 10, 100});
         },
         0,
         Lines{"0/2 L2ResIpatAddMutexProc unit:5,port:100,Type:1,Stamp:100,FwdType:10."} +
             IpatFound("") + IpatStored("", held) +
             Lines{"1/2 L2ResIpatAddMutexProc,Op:1,IsOp:1,ReOp:0,IsReOp:0,ret:0.",
                   "2/0 L2 res mutex proc,tblid:3,srvType:1,opType:1,Stamp:100,FwdType:10,Ret:0."}},
        {"delete waits",
         [] {
             return kIpat.Get(kDelete, {2, 20, 7, "two"});
         },
         4,
         Lines{"0/2 L2ResIpatDelMutexProc unit:5,port:100,Type:2,Stamp:7,FwdType:20."} +
             IpatFound(held) +
             Lines{"0/0 L2ResDelMutex,Stamp:7,Op:3,SrvType:20,Used:0,OldStamp:100,OldOp:1,"
                   "OldSrvType:10,OldUsed:0.",
                   "5/0 eth commtbl del error,srvtype:20,timestamp:7.",
                   "0/0 L2ResDelMutex Op:0,IsOp:0,ReOp:0,IsReOp:1.",
                   "1/2 L2ResIpatDelMutexProc,Op:0,IsOp:0,ReOp:0,IsReOp:1,ret:4.",
                   "2/0 L2 res mutex proc,tblid:3,srvType:2,opType:3,Stamp:7,FwdType:20,Ret:4."}},
        {"update waits",
         [] {
             return kIpat.Get(kUpdate, {3, 30, 8, "three"});
         },
         0,
         Lines{"0/2 L2ResIpatUpdateMutexProc,Unit:5,Port:100,Service:3,Stamp:8,FwdType:30."} +
             IpatFound(held) +
             Lines{"0/0 L2ResUpdateMutex,Stamp:8,Op:1,SrvType:30,Used:0,OldStamp:100,OldOp:1,"
                   "OldSrvType:10,OldUsed:0.",
                   "5/0 eth commtbl update mutex,srvtype is not same.srvtype:30,timestamp:10.",
                   "0/0 L2ResUpdateMutex Op:0,IsOp:0,ReOp:0,IsReOp:1.",
                   "1/2 L2ResIpatUpdateMutexProc,Op:0,IsOp:0,ReOp:0,IsReOp:1,ret:0.",
                   "2/0 L2 res mutex proc,tblid:3,srvType:3,opType:2,Stamp:8,FwdType:30,Ret:0."}},
        {"add refused",
         [] {
             return kIpat.Get(kAdd, {2, 20, 100});
         },
         1,
         Lines{"0/2 L2ResIpatAddMutexProc unit:5,port:100,Type:2,Stamp:100,FwdType:20."} +
             IpatFound(held) +
             Lines{"4/0 L2ResAddMutex,type:20,stamp:100,Op:1,Used:0,oldtype:10,oldstamp:100,"
                   "oldop:1,oldUsed:0,OpCode:0,IsOp:0,IsReOp:0,ReCode:0.",
                   "5/0 eth commtbl add error,srvtype:20,timestamp:100.",
                   "5/2 L2ResIpatAddMutexProc Fail,unit:5,port:100,Type:2,Stamp:100,FwdType:20.",
                   "2/0 L2 res mutex proc,tblid:3,srvType:2,opType:1,Stamp:100,FwdType:20,Ret:1."}},
        {"delete refused",
         [] {
             return kIpat.Get(kDelete, {1, 10, 100});
         },
         1,
         Lines{"0/2 L2ResIpatDelMutexProc unit:5,port:100,Type:1,Stamp:100,FwdType:10."} +
             IpatFound(held) +
             Lines{"0/0 L2ResDelMutex,Stamp:100,Op:3,SrvType:10,Used:0,OldStamp:100,OldOp:1,"
                   "OldSrvType:10,OldUsed:0.",
                   "5/0 eth commtbl del error,srvtype:10,timestamp:100.",
                   "5/2 L2ResIpatDelMutexProc unit:5,port:100,Type:1,Stamp:100,FwdType:10.",
                   "2/0 L2 res mutex proc,tblid:3,srvType:1,opType:3,Stamp:100,FwdType:10,Ret:1."}},
        {"update refused",
         [] {
             return kIpat.Get(kUpdate, {1, 10, 100});
         },
         1,
         Lines{"0/2 L2ResIpatUpdateMutexProc,Unit:5,Port:100,Service:1,Stamp:100,FwdType:10."} +
             IpatFound(held) +
             Lines{"0/0 L2ResUpdateMutex,Stamp:100,Op:1,SrvType:10,Used:0,OldStamp:100,OldOp:1,"
                   "OldSrvType:10,OldUsed:0.",
                   "5/0 eth commtbl set and add mutex error,srvtype:10,timestamp:100,oldsrvtype:10,"
                   "oldtimestamp:100.",
                   "5/2 L2ResIpatUpdateMutexProc "
                   "Fail,Unit:5,Port:100,Service:1,Stamp:100,FwdType:10.",
                   "2/0 L2 res mutex proc,tblid:3,srvType:1,opType:2,Stamp:100,FwdType:10,Ret:1."}},
        {"free",
         [] { return kIpat.Free(0); },
         0,
         {"0/2 L2ResIpatOpDel unit:5,port:100,Ret:0.", "notify 2 two",
          "5/1 Ipat Notify Available, srvType:2.", "notify 3 three"}},
        {"free again: the last one's result",
         [] { return kIpat.Free(kAdd); },
         22,
         {"0/2 L2ResIpatOpDel unit:5,port:100,Ret:1.", "notify 2 two",
          "5/1 Ipat Notify Available, srvType:2."}},
        {"free, nobody waits",
         [] { return kIpat.Free(kAdd); },
         0,
         {"0/2 L2ResIpatOpDel unit:5,port:100,Ret:1."}},
        {"update, nobody holds",
         [] {
             return kIpat.Get(kUpdate, {3, 30, 6});
         },
         3,
         Lines{"0/2 L2ResIpatUpdateMutexProc,Unit:5,Port:100,Service:3,Stamp:6,FwdType:30."} +
             IpatFound("") + IpatStored("", claimed) +
             Lines{"1/2 L2ResIpatUpdateMutexProc,Op:0,IsOp:1,ReOp:0,IsReOp:1,ret:3.",
                   "2/0 L2 res mutex proc,tblid:3,srvType:3,opType:2,Stamp:6,FwdType:30,Ret:3."}},
        {"delete granted",
         [] {
             return kIpat.Get(kDelete, {3, 30, 7});
         },
         0,
         Lines{"0/2 L2ResIpatDelMutexProc unit:5,port:100,Type:3,Stamp:7,FwdType:30."} +
             IpatFound(claimed) +
             Lines{"0/0 L2ResDelMutex,Stamp:7,Op:3,SrvType:30,Used:0,OldStamp:6,OldOp:1,"
                   "OldSrvType:30,OldUsed:0.",
                   "0/0 L2ResDelMutex Op:3,IsOp:1,ReOp:0,IsReOp:0."} +
             IpatStored(claimed, "Stamp:7,Op:3,SrvType:30,Used:0") +
             Lines{"1/2 L2ResIpatDelMutexProc,Op:3,IsOp:1,ReOp:0,IsReOp:0,ret:0.",
                   "2/0 L2 res mutex proc,tblid:3,srvType:3,opType:3,Stamp:7,FwdType:30,Ret:0."}},
        {"op type 4",
         [] {
             return kIpat.Get(4, {8, 10, 1});
         },
         1,
         {"5/0 L2ResGetIpatres Fail, Service:8,OpType:4,Stamp:1,FwdType:10."}},
        {"service 9",
         [] {
             return kIpat.Get(kAdd, {9, 10, 1});
         },
         1,
         {"5/0 L2ResGetIpatres Fail, Service:9,OpType:1,Stamp:1,FwdType:10."}},
    });
}

TEST_F(Messages, OfTheDispatcher)
{
    const Key key = MakeKey();
    L2ResTokenReq request = Request(kIcib, {1, 10, 100}, key);
    const Lines closing = {"2/0 L2 res mutex proc,tblid:"};
    for (const auto &[table, op] : {std::pair<u32, u32>{1, 1},
                                    {2, 1},
                                    {4, 2},
                                    {65536, 1},
                                    {0, 0},
                                    {0, 4},
                                    {3, 0},
                                    {3, 257}}) {
        journal::Clear();
        EXPECT_EQ(QorL2resMutexProc(table, 1, op, &request), 1u);
        EXPECT_TRUE(
            journal::Equal(TakeLines(), {"2/0 L2 res mutex proc,tblid:" + std::to_string(table) +
                                         ",srvType:1,opType:" + std::to_string(op) +
                                         ",Stamp:100,FwdType:10,Ret:1."}));
    }
    EXPECT_EQ(GetL2ResOpMutexFunc(0), &g_qorL2ResOpTable[0]);
    EXPECT_EQ(GetL2ResOpMutexFunc(3), &g_qorL2ResOpTable[1]);
    EXPECT_EQ(GetL2ResOpMutexFunc(1), nullptr);
}

// Whatever else is wrong with it, a request without a key or no request at all touches nothing.
TEST_F(Messages, NullRequestAndNullKeyAreSilent)
{
    ForBoth([this](const Side &side) {
        const L2ResOpTableRow *row = GetL2ResOpMutexFunc(side.tableId);
        for (u32 op : {0u, 1u, 2u, 3u, 9u}) {
            L2ResTokenReq noKey = {100, 10, nullptr, 0, nullptr};
            journal::Clear();
            EXPECT_EQ(side.getToken(1, op, nullptr), 1u);
            EXPECT_EQ(side.getToken(99, op, nullptr), 1u);
            EXPECT_EQ(QorL2resMutexProc(side.tableId, 1, op, nullptr), 1u);
            EXPECT_EQ(side.freeToken(1, op, nullptr), 1u);
            EXPECT_EQ(side.freeToken(1, op, &noKey), 1u);
            for (L2ResOpHandler handler : {row->add, row->update, row->del}) {
                EXPECT_EQ(handler(1, &noKey), 1u);
                EXPECT_EQ(handler(1, nullptr), 1u);
            }
            EXPECT_EQ(QorL2ResIcibReOpProc(&noKey), 0u);
            EXPECT_EQ(QorL2ResIpatReOpProc(&noKey), 0u);
            EXPECT_TRUE(journal::Equal(TakeLines(), {}));
            if (op <= L2RES_OP_DELETE) {
                EXPECT_EQ(side.getToken(1, op, &noKey), 1u);
                EXPECT_TRUE(journal::Equal(
                    TakeLines(),
                    {"2/0 L2 res mutex proc,tblid:" + std::to_string(side.tableId) +
                     ",srvType:1,opType:" + std::to_string(op) + ",Stamp:100,FwdType:10,Ret:1."}));
            }
        }
        ExpectNothingLeft();
    });
}

} // namespace
