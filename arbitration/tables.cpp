#include "arbitration/tables.h"

#include <stddef.h>

#include "arbitration/icib.h"
#include "arbitration/ipat.h"
#include "arbitration/rules.h"
#include "frame/dbg_log.h"
#include "l2rsm_registry.h"

ZIR_Mutex g_icibOpRecordMutex = {};
ZIR_Mutex g_icibReOpRecordMutex = {};
ZIR_Mutex g_ipatOpRecordMutex = {};
ZIR_Mutex g_ipatReOpRecordMutex = {};

// Written in phase 1, read-only afterwards; what they refer to is guarded by the mutexes above.
HASH_Handle g_icibOpRecordHash = nullptr;
HASH_Handle g_icibReOpRecordHash = nullptr;
HASH_Handle g_ipatOpRecordHash = nullptr;
HASH_Handle g_ipatReOpRecordHash = nullptr;

namespace {

// Their mutexes need no initialisation: a zeroed one is free.
OpStripe g_icibOpStripes[kOpStripes];
OpStripe g_ipatOpStripes[kOpStripes];
u32 g_icibLastSerial;
u32 g_ipatLastSerial;
u32 g_icibWaitNodes;
u32 g_ipatWaitNodes;

constexpr u32 kIcib = L2RES_LOG_ICIB;
constexpr u32 kIpat = L2RES_LOG_IPAT;

struct IcibOpNode {
    L2ResIcibKey key;
    L2ResOpRecord record;
};
static_assert(sizeof(IcibOpNode) == 56 && offsetof(IcibOpNode, record) == 40);

struct IpatOpNode {
    L2ResIpatKey key;
    L2ResOpRecord record;
};
static_assert(sizeof(IpatOpNode) == 24 && offsetof(IpatOpNode, record) == 8);

static_assert(offsetof(L2ResIcibReOpRecord, waiters) == 40);
static_assert(offsetof(L2ResIcibReOpRecord, waiters.reOpNum) == 360);
static_assert(offsetof(L2ResIcibReOpRecord, waiters.walkCountdown) == 362);
static_assert(offsetof(L2ResIpatReOpRecord, waiters) == 8);
static_assert(offsetof(L2ResIpatReOpRecord, waiters.reOpNum) == 328);

inline const L2ResIcibKey &Icib(const void *key)
{
    return *static_cast<const L2ResIcibKey *>(key);
}

inline const L2ResIpatKey &Ipat(const void *key)
{
    return *static_cast<const L2ResIpatKey *>(key);
}

// The lines below are lambdas so that each literal stands in its table's row and the compiler
// still checks it against its arguments.

constexpr RecordLines kIcibLines = {
    .category = kIcib,
    .searched =
        [](const void *key) {
            const L2ResIcibKey &k = Icib(key);
            QorL2ResDbgWriteLog(
                L2RES_LOG_TRACE, kIcib,
                "L2ResIcibOpHashSearch,KeyType:%d,Port:%d,Vsi:%d,OutVlan:%d,InnerVlan:%d,Pri:%d,"
                "Vdc:%d.",
                k.keyType, k.GlobalPort, k.Vsi, k.OutVlan, k.InnerVlan, k.Pri, k.Vdc);
        },
    .found =
        [](const void *, const L2ResOpRecord &r) {
            QorL2ResDbgWriteLog(L2RES_LOG_TRACE, kIcib,
                                "L2ResIcibOpHashSearch Data,Stamp:%llu,Op:%d,SrvType:%d,Used:%d.",
                                r.Stamp, r.Op, r.SrvType, r.Used);
        },
    .notFound =
        [](const void *) {
            QorL2ResDbgWriteLog(L2RES_LOG_TRACE, kIcib, "L2ResIcibOpHashSearch No Data.");
        },
    .stored =
        [](const void *key, const L2ResOpRecord &r) {
            const L2ResIcibKey &k = Icib(key);
            QorL2ResDbgWriteLog(
                L2RES_LOG_TRACE, kIcib,
                "L2ResIcibOpHashUpdate,KeyType:%d,Port:%d,Vsi:%d,OutVlan:%d,InnerVlan:%d,Pri:%d,"
                "Vdc:%d,Stamp:%llu,Op:%d,Srv:%d,Used:%d",
                k.keyType, k.GlobalPort, k.Vsi, k.OutVlan, k.InnerVlan, k.Pri, k.Vdc, r.Stamp, r.Op,
                r.SrvType, r.Used);
        },
    .removed =
        [](const void *key, u32 ret) {
            const L2ResIcibKey &k = Icib(key);
            QorL2ResDbgWriteLog(
                L2RES_LOG_TRACE, kIcib,
                "L2ResIcibOpDel, KeyType:%d,Port:%d,Vsi:%d,OutVlan:%d,InnerVlan:%d,Pri:%d,Vdc:%d,"
                "Ret:%d",
                k.keyType, k.GlobalPort, k.Vsi, k.OutVlan, k.InnerVlan, k.Pri, k.Vdc, ret);
        },
    .overwriteFailed = "icib op data memcpy failed",
    .insertFailed = "icib op record memcpy failed",
    .noNode = "icib op hash node alloc failed",
    .appended =
        [](const L2ResOpRecord &r, u16 reOpNum) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_EVENT, kIcib,
                "icib reop hash save info:timeStamp:%llu,srvType:%d,opCode:%d,reOpNum:%d.", r.Stamp,
                r.SrvType, r.Op, reOpNum);
        },
    .appendFailed = "icib reop data memcpy failed",
    .firstFailed = "icib reop record memcpy failed",
    .noWaitNode = "icib reop hash node alloc failed",
    .noWaiters =
        [](const void *key) {
            const L2ResIcibKey &k = Icib(key);
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, kIcib,
                                "icib reop hash search failed,key info:keyType--%d, "
                                "GlobalPort--%d, OuterVlan--%d.",
                                k.keyType, k.GlobalPort, k.OutVlan);
        },
    .notified =
        [](const void *key, u32 srvType, u32 ret) {
            const L2ResIcibKey &k = Icib(key);
            QorL2ResDbgWriteLog(
                L2RES_LOG_ERROR, kIcib,
                "Icib Notify, ret:%d srvType:%d keyType:%d, GlobalPort:%d, OuterVlan:%d", ret,
                srvType, k.keyType, k.GlobalPort, k.OutVlan);
        },
};

constexpr RecordLines kIpatLines = {
    .category = kIpat,
    .searched =
        [](const void *key) {
            QorL2ResDbgWriteLog(L2RES_LOG_TRACE, kIpat, "L2ResIpatOpHashSearch Unt:%d,Port:%d.",
                                Ipat(key).unit, Ipat(key).port);
        },
    .found =
        [](const void *key, const L2ResOpRecord &r) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_TRACE, kIpat,
                "L2ResIpatOpHashSearch Data,Unt:%d,Port:%d,Stamp:%llu,Op:%d,SrvType:%d,Used:%d.",
                Ipat(key).unit, Ipat(key).port, r.Stamp, r.Op, r.SrvType, r.Used);
        },
    .notFound =
        [](const void *key) {
            QorL2ResDbgWriteLog(L2RES_LOG_TRACE, kIpat,
                                "L2ResIpatOpHashSearch No Data,Unt:%d,Port:%d.", Ipat(key).unit,
                                Ipat(key).port);
        },
    .stored =
        [](const void *key, const L2ResOpRecord &r) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_TRACE, kIpat,
                "L2ResIpatOpHashUpdate,Unit:%d,Port:%d,Stamp:%llu,Op:%d,SrvType:%d,Used:%d.",
                Ipat(key).unit, Ipat(key).port, r.Stamp, r.Op, r.SrvType, r.Used);
        },
    .removed =
        [](const void *key, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_TRACE, kIpat, "L2ResIpatOpDel unit:%d,port:%d,Ret:%d.",
                                Ipat(key).unit, Ipat(key).port, ret);
        },
    .overwriteFailed = "ipat op data memcpy failed",
    .insertFailed = "ipat op record memcpy failed",
    .noNode = "ipat op hash node alloc failed",
    .appended = nullptr,
    .appendFailed = "ipat reop data memcpy failed",
    .firstFailed = "add ipat reop record memcpy failed",
    .noWaitNode = "add ipat reop hash node, alloc failed",
    .noWaiters = nullptr,
    .notified =
        [](const void *, u32 srvType, u32 ret) {
            if (ret != QOR_OK) {
                QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_ICIB,
                                    "Ipat Notify Available, srvType:%d.", srvType);
            }
        },
};

// Handlers, op by op, ICIB before IPAT.

constexpr HandlerRow kIcibAdd = {
    .rule = QorL2ResAddMutex,
    .recordedOp = L2RES_OP_ADD,
    .unheld = {.OpCode = L2RES_OP_ADD, .IsOp = 1, .IsReOp = 0, .ReOp = 0},
    .unheldResult = L2RES_TOKEN_PROCEED,
    .notGrantedResult = L2RES_TOKEN_WAIT,
    .waitChangesResult = true,
    .checksUsage = true,
    .opened =
        [](u32 srvType, const L2ResTokenReq &req) {
            const L2ResIcibKey &k = Icib(req.key);
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, kIcib, "icib add oper,srvType:%d timestamp:%llu",
                                srvType, req.Stamp);
            QorL2ResDbgWriteLog(
                L2RES_LOG_EVENT, kIcib,
                "icib add key,keytype:%d vsiId:%d globalPort:%d outVlan:%d innerVlan:%d pri:%d",
                k.keyType, k.Vsi, k.GlobalPort, k.OutVlan, k.InnerVlan, k.Pri);
        },
    .refused =
        [](u32 srvType, const L2ResTokenReq &req, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, kIcib,
                                "icib add oper proc, srvType:%d timestamp:%llu ret=%d", srvType,
                                req.Stamp, ret);
        },
    .closed =
        [](const L2ResVerdict &v, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, kIcib,
                                "L2ResIcibAddMutexProc,Op:%d,IsOp:%d,ReOp:%d,IsReOp:%d,ret=%d.",
                                v.OpCode, v.IsOp, v.ReOp, v.IsReOp, ret);
        },
};

constexpr HandlerRow kIpatAdd = {
    .rule = QorL2ResAddMutex,
    .recordedOp = L2RES_OP_ADD,
    .unheld = {.OpCode = L2RES_OP_ADD, .IsOp = 1, .IsReOp = 0, .ReOp = 0},
    .unheldResult = L2RES_TOKEN_PROCEED,
    .notGrantedResult = L2RES_TOKEN_PROCEED,
    .waitChangesResult = true,
    .checksUsage = false,
    .opened =
        [](u32 srvType, const L2ResTokenReq &req) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_TRACE, kIpat,
                "L2ResIpatAddMutexProc unit:%d,port:%d,Type:%d,Stamp:%llu,FwdType:%d.",
                Ipat(req.key).unit, Ipat(req.key).port, srvType, req.Stamp, req.FwdType);
        },
    .refused =
        [](u32 srvType, const L2ResTokenReq &req, u32) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_ERROR, kIpat,
                "L2ResIpatAddMutexProc Fail,unit:%d,port:%d,Type:%d,Stamp:%llu,FwdType:%d.",
                Ipat(req.key).unit, Ipat(req.key).port, srvType, req.Stamp, req.FwdType);
        },
    .closed =
        [](const L2ResVerdict &v, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, kIpat,
                                "L2ResIpatAddMutexProc,Op:%d,IsOp:%d,ReOp:%d,IsReOp:%d,ret:%d.",
                                v.OpCode, v.IsOp, v.ReOp, v.IsReOp, ret);
        },
};

constexpr HandlerRow kIcibUpdate = {
    .rule = QorL2ResUpdateMutex,
    .recordedOp = L2RES_OP_UPDATE,
    .unheld = {.OpCode = L2RES_OP_NONE, .IsOp = 0, .IsReOp = 1, .ReOp = 0},
    .unheldResult = L2RES_TOKEN_UPDATE_NO_ENTRY,
    .notGrantedResult = L2RES_TOKEN_PROCEED,
    .waitChangesResult = false,
    .checksUsage = false,
    .opened =
        [](u32 srvType, const L2ResTokenReq &req) {
            const L2ResIcibKey &k = Icib(req.key);
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, kIcib, "icib mod oper,srvType:%d timestamp:%llu",
                                srvType, req.Stamp);
            QorL2ResDbgWriteLog(
                L2RES_LOG_EVENT, kIcib,
                "icib mod key,keytype:%d vsiId:%d globalPort:%d outVlan:%d innerVlan:%d pri:%d",
                k.keyType, k.Vsi, k.GlobalPort, k.OutVlan, k.InnerVlan, k.Pri);
        },
    .refused =
        [](u32 srvType, const L2ResTokenReq &req, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, kIcib,
                                "icib mod oper proc,srvType:%d timestamp:%llu ret=%d", srvType,
                                req.Stamp, ret);
        },
    .closed =
        [](const L2ResVerdict &v, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, kIcib,
                                "icib mod oper proc,Op:%d,IsOp:%d,ReOp:%d,IsReOp:%d,ret:%d.",
                                v.OpCode, v.IsOp, v.ReOp, v.IsReOp, ret);
        },
};

constexpr HandlerRow kIpatUpdate = {
    .rule = QorL2ResUpdateMutex,
    // An IPAT update claims the entry as an add does, also one that nobody holds: recorded as an
    // update, it would refuse its own type's later add, although no add ever came before it.
    .recordedOp = L2RES_OP_ADD,
    .unheld = {.OpCode = L2RES_OP_NONE, .IsOp = 1, .IsReOp = 1, .ReOp = 0},
    .unheldResult = L2RES_TOKEN_UPDATE_NO_ENTRY,
    .notGrantedResult = L2RES_TOKEN_PROCEED,
    .waitChangesResult = false,
    .checksUsage = false,
    .opened =
        [](u32 srvType, const L2ResTokenReq &req) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_TRACE, kIpat,
                "L2ResIpatUpdateMutexProc,Unit:%d,Port:%d,Service:%d,Stamp:%llu,FwdType:%d.",
                Ipat(req.key).unit, Ipat(req.key).port, srvType, req.Stamp, req.FwdType);
        },
    .refused =
        [](u32 srvType, const L2ResTokenReq &req, u32) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_ERROR, kIpat,
                "L2ResIpatUpdateMutexProc Fail,Unit:%d,Port:%d,Service:%d,Stamp:%llu,FwdType:%d.",
                Ipat(req.key).unit, Ipat(req.key).port, srvType, req.Stamp, req.FwdType);
        },
    .closed =
        [](const L2ResVerdict &v, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, kIpat,
                                "L2ResIpatUpdateMutexProc,Op:%d,IsOp:%d,ReOp:%d,IsReOp:%d,ret:%d.",
                                v.OpCode, v.IsOp, v.ReOp, v.IsReOp, ret);
        },
};

constexpr HandlerRow kIcibDelete = {
    .rule = QorL2ResDelMutex,
    .recordedOp = L2RES_OP_DELETE,
    .unheld = {.OpCode = L2RES_OP_NONE, .IsOp = 1, .IsReOp = 1, .ReOp = 0},
    .unheldResult = L2RES_TOKEN_WAIT,
    .notGrantedResult = L2RES_TOKEN_WAIT,
    .waitChangesResult = true,
    .checksUsage = false,
    .opened =
        [](u32 srvType, const L2ResTokenReq &req) {
            const L2ResIcibKey &k = Icib(req.key);
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, kIcib, "icib del oper,srvType:%d timestamp:%llu",
                                srvType, req.Stamp);
            QorL2ResDbgWriteLog(
                L2RES_LOG_EVENT, kIcib,
                "icib del key,keytype:%d vsiId:%d globalPort:%d outVlan:%d innerVlan:%d pri:%d",
                k.keyType, k.Vsi, k.GlobalPort, k.OutVlan, k.InnerVlan, k.Pri);
        },
    .refused =
        [](u32 srvType, const L2ResTokenReq &req, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, kIcib,
                                "icib del oper proc,srvType:%d timestamp:%llu ret=%d", srvType,
                                req.Stamp, ret);
        },
    .closed =
        [](const L2ResVerdict &v, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, kIcib,
                                "icib del oper proc,Op:%d,IsOp:%d,ReOp:%d,IsReOp:%d,ret:%d",
                                v.OpCode, v.IsOp, v.ReOp, v.IsReOp, ret);
        },
};

constexpr HandlerRow kIpatDelete = {
    .rule = QorL2ResDelMutex,
    .recordedOp = L2RES_OP_DELETE,
    .unheld = {.OpCode = L2RES_OP_NONE, .IsOp = 1, .IsReOp = 1, .ReOp = 0},
    .unheldResult = L2RES_TOKEN_UPDATE_NO_ENTRY, // never seen: the wait that goes with it answers
    .notGrantedResult = L2RES_TOKEN_PROCEED,
    .waitChangesResult = true,
    .checksUsage = false,
    .opened =
        [](u32 srvType, const L2ResTokenReq &req) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_TRACE, kIpat,
                "L2ResIpatDelMutexProc unit:%d,port:%d,Type:%d,Stamp:%llu,FwdType:%d.",
                Ipat(req.key).unit, Ipat(req.key).port, srvType, req.Stamp, req.FwdType);
        },
    .refused =
        [](u32 srvType, const L2ResTokenReq &req, u32) {
            // The opening line's text again, told apart by its level.
            QorL2ResDbgWriteLog(
                L2RES_LOG_ERROR, kIpat,
                "L2ResIpatDelMutexProc unit:%d,port:%d,Type:%d,Stamp:%llu,FwdType:%d.",
                Ipat(req.key).unit, Ipat(req.key).port, srvType, req.Stamp, req.FwdType);
        },
    .closed =
        [](const L2ResVerdict &v, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, kIpat,
                                "L2ResIpatDelMutexProc,Op:%d,IsOp:%d,ReOp:%d,IsReOp:%d,ret:%d.",
                                v.OpCode, v.IsOp, v.ReOp, v.IsReOp, ret);
        },
};

} // namespace

constinit const CommonTable kIcibTable = {
    .tableId = L2RES_TABLE_ICIB,
    .keySize = sizeof(L2ResIcibKey),
    .opNodeSize = sizeof(IcibOpNode),
    .opRecordOffset = offsetof(IcibOpNode, record),
    .waitNodeSize = sizeof(L2ResIcibReOpRecord),
    .waitListOffset = offsetof(L2ResIcibReOpRecord, waiters),
    .walkCountdown = 3,
    .tracksUse = true,
    .releaseEmptiesList = true,
    .silentBeforeInit = false,
    .hash = QorL2ResIcibHashFunc,
    .compare = QorL2ResIcibCompFunc,
    .opHash = &g_icibOpRecordHash,
    .opMutex = &g_icibOpRecordMutex,
    .opStripes = g_icibOpStripes,
    .waitHash = &g_icibReOpRecordHash,
    .waitMutex = &g_icibReOpRecordMutex,
    .lastSerial = &g_icibLastSerial,
    .waitNodes = &g_icibWaitNodes,
    .createOpFailed = "Create ICIB CommTblOp HashTable Failed.",
    .createWaitFailed = "Create ICIB CommTblReOp HashTable Failed.",
    .lines = kIcibLines,
    .handler = {{}, kIcibAdd, kIcibUpdate, kIcibDelete},
};

constinit const CommonTable kIpatTable = {
    .tableId = L2RES_TABLE_IPAT,
    .keySize = sizeof(L2ResIpatKey),
    .opNodeSize = sizeof(IpatOpNode),
    .opRecordOffset = offsetof(IpatOpNode, record),
    .waitNodeSize = sizeof(L2ResIpatReOpRecord),
    .waitListOffset = offsetof(L2ResIpatReOpRecord, waiters),
    .walkCountdown = 0, // no timed release
    .tracksUse = false,
    .releaseEmptiesList = false,
    .silentBeforeInit = true,
    .hash = QorL2ResIpatHashFunc,
    .compare = QorL2ResIpatCompFunc,
    .opHash = &g_ipatOpRecordHash,
    .opMutex = &g_ipatOpRecordMutex,
    .opStripes = g_ipatOpStripes,
    .waitHash = &g_ipatReOpRecordHash,
    .waitMutex = &g_ipatReOpRecordMutex,
    .lastSerial = &g_ipatLastSerial,
    .waitNodes = &g_ipatWaitNodes,
    .createOpFailed = "Create IPAT CommTblOp HashTable Failed.",
    .createWaitFailed = "Create IPAT CommTblReOp HashTable Failed.",
    .lines = kIpatLines,
    .handler = {{}, kIpatAdd, kIpatUpdate, kIpatDelete},
};
