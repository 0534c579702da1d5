#include "arbitration/ipat.h"

#include <stddef.h>

#include "arbitration/op_records.h"
#include "arbitration/op_table.h"
#include "arbitration/rules.h"
#include "arbitration/token_ops.h"
#include "arbitration/waiters.h"
#include "l2rsm_registry.h"

ZIR_Mutex g_ipatOpRecordMutex = {};
ZIR_Mutex g_ipatReOpRecordMutex = {};
HASH_Handle g_ipatOpRecordHash = nullptr;
HASH_Handle g_ipatReOpRecordHash = nullptr;

namespace {

constinit WaitState g_ipatWait = {};

struct OpNode {
    L2ResIpatKey key;
    L2ResOpRecord record;
};
static_assert(sizeof(OpNode) == 24 && offsetof(OpNode, record) == 8);
static_assert(offsetof(L2ResIpatReOpRecord, waiters) == 8);
static_assert(offsetof(L2ResIpatReOpRecord, waiters.reOpNum) == 328);

inline const L2ResIpatKey &Ipat(const void *key)
{
    return *static_cast<const L2ResIpatKey *>(key);
}

constexpr RecordLines kIpatLines = {
    .category = L2RES_LOG_IPAT,
    .searched =
        [](const void *key) {
            QorL2ResDbgWriteLog(L2RES_LOG_TRACE, L2RES_LOG_IPAT,
                                "L2ResIpatOpHashSearch Unt:%d,Port:%d.", Ipat(key).unit,
                                Ipat(key).port);
        },
    .found =
        [](const void *key, const L2ResOpRecord &r) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_TRACE, L2RES_LOG_IPAT,
                "L2ResIpatOpHashSearch Data,Unt:%d,Port:%d,Stamp:%llu,Op:%d,SrvType:%d,Used:%d.",
                Ipat(key).unit, Ipat(key).port, r.Stamp, r.Op, r.SrvType, r.Used);
        },
    .notFound =
        [](const void *key) {
            QorL2ResDbgWriteLog(L2RES_LOG_TRACE, L2RES_LOG_IPAT,
                                "L2ResIpatOpHashSearch No Data,Unt:%d,Port:%d.", Ipat(key).unit,
                                Ipat(key).port);
        },
    .stored =
        [](const void *key, const L2ResOpRecord &r) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_TRACE, L2RES_LOG_IPAT,
                "L2ResIpatOpHashUpdate,Unit:%d,Port:%d,Stamp:%llu,Op:%d,SrvType:%d,Used:%d.",
                Ipat(key).unit, Ipat(key).port, r.Stamp, r.Op, r.SrvType, r.Used);
        },
    .removed =
        [](const void *key, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_TRACE, L2RES_LOG_IPAT,
                                "L2ResIpatOpDel unit:%d,port:%d,Ret:%d.", Ipat(key).unit,
                                Ipat(key).port, ret);
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
                L2RES_LOG_TRACE, L2RES_LOG_IPAT,
                "L2ResIpatAddMutexProc unit:%d,port:%d,Type:%d,Stamp:%llu,FwdType:%d.",
                Ipat(req.key).unit, Ipat(req.key).port, srvType, req.Stamp, req.FwdType);
        },
    .refused =
        [](u32 srvType, const L2ResTokenReq &req, u32) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_ERROR, L2RES_LOG_IPAT,
                "L2ResIpatAddMutexProc Fail,unit:%d,port:%d,Type:%d,Stamp:%llu,FwdType:%d.",
                Ipat(req.key).unit, Ipat(req.key).port, srvType, req.Stamp, req.FwdType);
        },
    .closed =
        [](const L2ResVerdict &v, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_IPAT,
                                "L2ResIpatAddMutexProc,Op:%d,IsOp:%d,ReOp:%d,IsReOp:%d,ret:%d.",
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
                L2RES_LOG_TRACE, L2RES_LOG_IPAT,
                "L2ResIpatUpdateMutexProc,Unit:%d,Port:%d,Service:%d,Stamp:%llu,FwdType:%d.",
                Ipat(req.key).unit, Ipat(req.key).port, srvType, req.Stamp, req.FwdType);
        },
    .refused =
        [](u32 srvType, const L2ResTokenReq &req, u32) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_ERROR, L2RES_LOG_IPAT,
                "L2ResIpatUpdateMutexProc Fail,Unit:%d,Port:%d,Service:%d,Stamp:%llu,FwdType:%d.",
                Ipat(req.key).unit, Ipat(req.key).port, srvType, req.Stamp, req.FwdType);
        },
    .closed =
        [](const L2ResVerdict &v, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_IPAT,
                                "L2ResIpatUpdateMutexProc,Op:%d,IsOp:%d,ReOp:%d,IsReOp:%d,ret:%d.",
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
                L2RES_LOG_TRACE, L2RES_LOG_IPAT,
                "L2ResIpatDelMutexProc unit:%d,port:%d,Type:%d,Stamp:%llu,FwdType:%d.",
                Ipat(req.key).unit, Ipat(req.key).port, srvType, req.Stamp, req.FwdType);
        },
    .refused =
        [](u32 srvType, const L2ResTokenReq &req, u32) {
            // The opening line's text again, told apart by its level.
            QorL2ResDbgWriteLog(
                L2RES_LOG_ERROR, L2RES_LOG_IPAT,
                "L2ResIpatDelMutexProc unit:%d,port:%d,Type:%d,Stamp:%llu,FwdType:%d.",
                Ipat(req.key).unit, Ipat(req.key).port, srvType, req.Stamp, req.FwdType);
        },
    .closed =
        [](const L2ResVerdict &v, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_IPAT,
                                "L2ResIpatDelMutexProc,Op:%d,IsOp:%d,ReOp:%d,IsReOp:%d,ret:%d.",
                                v.OpCode, v.IsOp, v.ReOp, v.IsReOp, ret);
        },
};

} // namespace

constinit const CommonTable kIpatTable = {
    .tableId = L2RES_TABLE_IPAT,
    .keySize = sizeof(L2ResIpatKey),
    .opNodeSize = sizeof(OpNode),
    .opRecordOffset = offsetof(OpNode, record),
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
    .waitHash = &g_ipatReOpRecordHash,
    .waitMutex = &g_ipatReOpRecordMutex,
    .wait = &g_ipatWait,
    .createOpFailed = "Create IPAT CommTblOp HashTable Failed.",
    .createWaitFailed = "Create IPAT CommTblReOp HashTable Failed.",
    .lines = kIpatLines,
    .handler = {{}, kIpatAdd, kIpatUpdate, kIpatDelete},
};

u32 QorL2ResIpatHashFunc(const void *key)
{
    return key != nullptr ? Ipat(key).port & (kBucketCount - 1) : 0;
}

u32 QorL2ResIpatCompFunc(const void *a, const void *b)
{
    const bool equal = a != nullptr && b != nullptr && Ipat(a).unit == Ipat(b).unit &&
                       Ipat(a).port == Ipat(b).port;
    return equal ? 1 : 0;
}

u32 QorL2ResIpatOpHashInit(void)
{
    return CreateOpTable(kIpatTable);
}

u32 QorL2ResIpatReOpHashInit(void)
{
    return CreateWaitTable(kIpatTable);
}

L2ResOpRecord *QorL2ResIpatOpHashSearch(const L2ResIpatKey *key)
{
    return SearchOpRecord(kIpatTable, key);
}

u32 QorL2ResIpatOpHashUpdate(const L2ResIpatKey *key, const L2ResOpRecord *record)
{
    return StoreOpRecord(kIpatTable, key, record, nullptr) == Store::done ? QOR_OK : QOR_FAIL;
}

u32 QorL2ResIpatOpDel(const L2ResIpatKey *key)
{
    return RemoveOpRecord(kIpatTable, key);
}

L2ResIpatReOpRecord *QorL2ResIpatReOpHashSearch(const L2ResIpatKey *key)
{
    return static_cast<L2ResIpatReOpRecord *>(SearchWaitNode(kIpatTable, key));
}

u32 QorL2ResIpatReOpHashUpdate(const L2ResIpatKey *key, const L2ResOpRecord *record,
                               const void *data, u16 dataLen, u32 srvType)
{
    return AppendWaiter(kIpatTable, key, record, data, dataLen, srvType, nullptr);
}

u32 QorL2ResIpatReOpDel(const L2ResIpatKey *key, HASH_Handle hash)
{
    return key != nullptr && hash != nullptr ? RemoveWaiters(kIpatTable, key, hash) : QOR_FAIL;
}

u32 QorL2ResIpatAddMutexProc(u32 srvType, L2ResTokenReq *req)
{
    return HandleRequest(kIpatTable, L2RES_OP_ADD, srvType, req);
}

u32 QorL2ResIpatUpdateMutexProc(u32 srvType, L2ResTokenReq *req)
{
    return HandleRequest(kIpatTable, L2RES_OP_UPDATE, srvType, req);
}

u32 QorL2ResIpatDelMutexProc(u32 srvType, L2ResTokenReq *req)
{
    return HandleRequest(kIpatTable, L2RES_OP_DELETE, srvType, req);
}

u32 QorL2ResGetIpatToken(u32 srvType, u32 opType, L2ResTokenReq *req)
{
    if (req == nullptr) {
        return L2RES_TOKEN_REFUSED;
    }
    if (!TokenArgumentsValid(srvType, opType)) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "L2ResGetIpatres Fail, Service:%d,OpType:%d,Stamp:%llu,FwdType:%d.",
                            srvType, opType, req->Stamp, req->FwdType);
        return L2RES_TOKEN_REFUSED;
    }
    return QorL2resMutexProc(L2RES_TABLE_IPAT, srvType, opType, req);
}

u32 QorL2ResFreeIpatToken(u32 srvType, u32 opType, L2ResTokenReq *req)
{
    (void)srvType; // any token of the entry frees it
    (void)opType;
    if (req == nullptr || req->key == nullptr) {
        return QOR_FAIL;
    }
    (void)QorL2ResIpatOpDel(static_cast<const L2ResIpatKey *>(req->key));
    return QorL2ResIpatReOpProc(req);
}

u32 QorL2ResIpatReOpProc(L2ResTokenReq *req)
{
    return req != nullptr && req->key != nullptr ? ReleaseWaiters(kIpatTable, req->key) : QOR_OK;
}
