#include "arbitration/icib.h"

#include <stddef.h>

#include "arbitration/op_records.h"
#include "arbitration/op_table.h"
#include "arbitration/rules.h"
#include "arbitration/token_ops.h"
#include "arbitration/waiters.h"
#include "l2rsm_registry.h"

// The handles are written in phase 1, read-only afterwards; the mutexes guard what they lead to.
ZIR_Mutex g_icibOpRecordMutex = {};
ZIR_Mutex g_icibReOpRecordMutex = {};
HASH_Handle g_icibOpRecordHash = nullptr;
HASH_Handle g_icibReOpRecordHash = nullptr;

namespace {

constinit WaitState g_icibWait = {};

struct OpNode {
    L2ResIcibKey key;
    L2ResOpRecord record;
};
static_assert(sizeof(OpNode) == 56 && offsetof(OpNode, record) == 40);
static_assert(offsetof(L2ResIcibReOpRecord, waiters) == 40);
static_assert(offsetof(L2ResIcibReOpRecord, waiters.reOpNum) == 360);
static_assert(offsetof(L2ResIcibReOpRecord, waiters.walkCountdown) == 362);

inline const L2ResIcibKey &Icib(const void *key)
{
    return *static_cast<const L2ResIcibKey *>(key);
}

// The lines are lambdas so that each literal stands in its row and the compiler still checks it
// against its arguments.

constexpr RecordLines kIcibLines = {
    .category = L2RES_LOG_ICIB,
    .searched =
        [](const void *key) {
            const L2ResIcibKey &k = Icib(key);
            QorL2ResDbgWriteLog(
                L2RES_LOG_TRACE, L2RES_LOG_ICIB,
                "L2ResIcibOpHashSearch,KeyType:%d,Port:%d,Vsi:%d,OutVlan:%d,InnerVlan:%d,Pri:%d,"
                "Vdc:%d.",
                k.keyType, k.GlobalPort, k.Vsi, k.OutVlan, k.InnerVlan, k.Pri, k.Vdc);
        },
    .found =
        [](const void *, const L2ResOpRecord &r) {
            QorL2ResDbgWriteLog(L2RES_LOG_TRACE, L2RES_LOG_ICIB,
                                "L2ResIcibOpHashSearch Data,Stamp:%llu,Op:%d,SrvType:%d,Used:%d.",
                                r.Stamp, r.Op, r.SrvType, r.Used);
        },
    .notFound =
        [](const void *) {
            QorL2ResDbgWriteLog(L2RES_LOG_TRACE, L2RES_LOG_ICIB, "L2ResIcibOpHashSearch No Data.");
        },
    .stored =
        [](const void *key, const L2ResOpRecord &r) {
            const L2ResIcibKey &k = Icib(key);
            QorL2ResDbgWriteLog(
                L2RES_LOG_TRACE, L2RES_LOG_ICIB,
                "L2ResIcibOpHashUpdate,KeyType:%d,Port:%d,Vsi:%d,OutVlan:%d,InnerVlan:%d,Pri:%d,"
                "Vdc:%d,Stamp:%llu,Op:%d,Srv:%d,Used:%d",
                k.keyType, k.GlobalPort, k.Vsi, k.OutVlan, k.InnerVlan, k.Pri, k.Vdc, r.Stamp, r.Op,
                r.SrvType, r.Used);
        },
    .removed =
        [](const void *key, u32 ret) {
            const L2ResIcibKey &k = Icib(key);
            QorL2ResDbgWriteLog(
                L2RES_LOG_TRACE, L2RES_LOG_ICIB,
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
                L2RES_LOG_EVENT, L2RES_LOG_ICIB,
                "icib reop hash save info:timeStamp:%llu,srvType:%d,opCode:%d,reOpNum:%d.", r.Stamp,
                r.SrvType, r.Op, reOpNum);
        },
    .appendFailed = "icib reop data memcpy failed",
    .firstFailed = "icib reop record memcpy failed",
    .noWaitNode = "icib reop hash node alloc failed",
    .noWaiters =
        [](const void *key) {
            const L2ResIcibKey &k = Icib(key);
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_ICIB,
                                "icib reop hash search failed,key info:keyType--%d, "
                                "GlobalPort--%d, OuterVlan--%d.",
                                k.keyType, k.GlobalPort, k.OutVlan);
        },
    .notified =
        [](const void *key, u32 srvType, u32 ret) {
            const L2ResIcibKey &k = Icib(key);
            QorL2ResDbgWriteLog(
                L2RES_LOG_ERROR, L2RES_LOG_ICIB,
                "Icib Notify, ret:%d srvType:%d keyType:%d, GlobalPort:%d, OuterVlan:%d", ret,
                srvType, k.keyType, k.GlobalPort, k.OutVlan);
        },
};

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
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_ICIB,
                                "icib add oper,srvType:%d timestamp:%llu", srvType, req.Stamp);
            QorL2ResDbgWriteLog(
                L2RES_LOG_EVENT, L2RES_LOG_ICIB,
                "icib add key,keytype:%d vsiId:%d globalPort:%d outVlan:%d innerVlan:%d pri:%d",
                k.keyType, k.Vsi, k.GlobalPort, k.OutVlan, k.InnerVlan, k.Pri);
        },
    .refused =
        [](u32 srvType, const L2ResTokenReq &req, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_ICIB,
                                "icib add oper proc, srvType:%d timestamp:%llu ret=%d", srvType,
                                req.Stamp, ret);
        },
    .closed =
        [](const L2ResVerdict &v, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_ICIB,
                                "L2ResIcibAddMutexProc,Op:%d,IsOp:%d,ReOp:%d,IsReOp:%d,ret=%d.",
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
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_ICIB,
                                "icib mod oper,srvType:%d timestamp:%llu", srvType, req.Stamp);
            QorL2ResDbgWriteLog(
                L2RES_LOG_EVENT, L2RES_LOG_ICIB,
                "icib mod key,keytype:%d vsiId:%d globalPort:%d outVlan:%d innerVlan:%d pri:%d",
                k.keyType, k.Vsi, k.GlobalPort, k.OutVlan, k.InnerVlan, k.Pri);
        },
    .refused =
        [](u32 srvType, const L2ResTokenReq &req, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_ICIB,
                                "icib mod oper proc,srvType:%d timestamp:%llu ret=%d", srvType,
                                req.Stamp, ret);
        },
    .closed =
        [](const L2ResVerdict &v, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_ICIB,
                                "icib mod oper proc,Op:%d,IsOp:%d,ReOp:%d,IsReOp:%d,ret:%d.",
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
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_ICIB,
                                "icib del oper,srvType:%d timestamp:%llu", srvType, req.Stamp);
            QorL2ResDbgWriteLog(
                L2RES_LOG_EVENT, L2RES_LOG_ICIB,
                "icib del key,keytype:%d vsiId:%d globalPort:%d outVlan:%d innerVlan:%d pri:%d",
                k.keyType, k.Vsi, k.GlobalPort, k.OutVlan, k.InnerVlan, k.Pri);
        },
    .refused =
        [](u32 srvType, const L2ResTokenReq &req, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_ICIB,
                                "icib del oper proc,srvType:%d timestamp:%llu ret=%d", srvType,
                                req.Stamp, ret);
        },
    .closed =
        [](const L2ResVerdict &v, u32 ret) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_ICIB,
                                "icib del oper proc,Op:%d,IsOp:%d,ReOp:%d,IsReOp:%d,ret:%d",
                                v.OpCode, v.IsOp, v.ReOp, v.IsReOp, ret);
        },
};

} // namespace

constinit const CommonTable kIcibTable = {
    .tableId = L2RES_TABLE_ICIB,
    .keySize = sizeof(L2ResIcibKey),
    .opNodeSize = sizeof(OpNode),
    .opRecordOffset = offsetof(OpNode, record),
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
    .waitHash = &g_icibReOpRecordHash,
    .waitMutex = &g_icibReOpRecordMutex,
    .wait = &g_icibWait,
    .createOpFailed = "Create ICIB CommTblOp HashTable Failed.",
    .createWaitFailed = "Create ICIB CommTblReOp HashTable Failed.",
    .lines = kIcibLines,
    .handler = {{}, kIcibAdd, kIcibUpdate, kIcibDelete},
};

u32 QorL2ResIcibHashFunc(const void *key)
{
    return key != nullptr ? Icib(key).OutVlan & (kBucketCount - 1) : 0;
}

u32 QorL2ResIcibCompFunc(const void *a, const void *b)
{
    if (a == nullptr || b == nullptr) {
        return 0;
    }
    const L2ResIcibKey &x = Icib(a), &y = Icib(b);
    const bool equal = x.keyType == y.keyType && x.GlobalPort == y.GlobalPort && x.Vsi == y.Vsi &&
                       x.keyAttr1 == y.keyAttr1 && x.OutVlan == y.OutVlan &&
                       x.keyAttr2 == y.keyAttr2 && x.InnerVlan == y.InnerVlan &&
                       x.keyAttr3 == y.keyAttr3 && x.Pri == y.Pri && x.Vdc == y.Vdc;
    return equal ? 1 : 0;
}

u32 QorL2ResIcibOpHashInit(void)
{
    return CreateOpTable(kIcibTable);
}

u32 QorL2ResIcibReOpHashInit(void)
{
    return CreateWaitTable(kIcibTable);
}

L2ResOpRecord *QorL2ResIcibOpHashSearch(const L2ResIcibKey *key)
{
    return SearchOpRecord(kIcibTable, key);
}

u32 QorL2ResIcibOpHashUpdate(const L2ResIcibKey *key, const L2ResOpRecord *record)
{
    return StoreOpRecord(kIcibTable, key, record, nullptr) == Store::done ? QOR_OK : QOR_FAIL;
}

u32 QorL2ResIcibOpDel(const L2ResIcibKey *key)
{
    return RemoveOpRecord(kIcibTable, key);
}

L2ResIcibReOpRecord *QorL2ResIcibReOpHashSearch(const L2ResIcibKey *key)
{
    return static_cast<L2ResIcibReOpRecord *>(SearchWaitNode(kIcibTable, key));
}

u32 QorL2ResIcibReOpHashUpdate(const L2ResIcibKey *key, const L2ResOpRecord *record,
                               const void *data, u16 dataLen, u32 srvType)
{
    return AppendWaiter(kIcibTable, key, record, data, dataLen, srvType, nullptr);
}

u32 QorL2ResIcibReOpDel(const L2ResIcibKey *key)
{
    return key != nullptr ? RemoveWaiters(kIcibTable, key, g_icibReOpRecordHash) : QOR_FAIL;
}

u32 QorL2ResIcibAddMutexProc(u32 srvType, L2ResTokenReq *req)
{
    return HandleRequest(kIcibTable, L2RES_OP_ADD, srvType, req);
}

u32 QorL2ResIcibUpdateMutexProc(u32 srvType, L2ResTokenReq *req)
{
    return HandleRequest(kIcibTable, L2RES_OP_UPDATE, srvType, req);
}

u32 QorL2ResIcibDelMutexProc(u32 srvType, L2ResTokenReq *req)
{
    return HandleRequest(kIcibTable, L2RES_OP_DELETE, srvType, req);
}

u32 QorL2ResGetIcibToken(u32 srvType, u32 opType, L2ResTokenReq *req)
{
    if (req == nullptr) {
        return L2RES_TOKEN_REFUSED;
    }
    if (!TokenArgumentsValid(srvType, opType)) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_ICIB,
                            "L2ResGetIcib Fail,Service:%d,OpType:%d,Stamp:%llu,FwdType:%d.",
                            srvType, opType, req->Stamp, req->FwdType);
        return L2RES_TOKEN_REFUSED;
    }
    return QorL2resMutexProc(L2RES_TABLE_ICIB, srvType, opType, req);
}

u32 QorL2ResFreeIcibToken(u32 srvType, u32 opType, L2ResTokenReq *req)
{
    if (req == nullptr || req->key == nullptr) {
        return QOR_FAIL;
    }
    u32 ret = QOR_OK;
    const bool staysReleased = opType == L2RES_OP_ADD || opType == L2RES_OP_UPDATE;
    const bool existed = staysReleased ? MarkReleased(kIcibTable, req->key)
                                       : RemoveReleased(kIcibTable, req->key, &ret);
    if (!existed) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_ICIB,
                            "icib op record is not exist.srvType:%d,opType:%d", srvType, opType);
        return QOR_FAIL;
    }
    if (ret != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_ICIB,
                            "icib op free  failed.srvType:%d,opType:%d", srvType, opType);
    }
    return QorL2ResIcibReOpProc(req);
}

u32 QorL2ResIcibReOpProc(L2ResTokenReq *req)
{
    if (req != nullptr && req->key != nullptr) {
        (void)ReleaseWaiters(kIcibTable, req->key);
    }
    return QOR_OK;
}

void QorL2ResIcibReOpHashWalk(void)
{
    WalkWaiters(kIcibTable);
}

u32 QorL2ResIcibGet(const L2ResIcibKey *key, L2ResQueryEntry *entries, u16 *count)
{
    if (key == nullptr) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_ICIB, "Query key is invalid.");
        return QOR_FAIL;
    }
    if (entries == nullptr) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_ICIB, "Query buffer is invalid.");
        return QOR_FAIL;
    }
    if (count == nullptr) {
        return QOR_FAIL;
    }
    u16 filled = 0;
    const Holder holder = FindHolder(kIcibTable, key);
    if (holder.exists) {
        QorL2ResIcibSet(&entries[filled++], &holder.record, 0);
    } else {
        QorL2ResDbgWriteLog(L2RES_LOG_REPORT, L2RES_LOG_ICIB,
                            "Query op record is not exist. keytype:%d, portid:%d.", key->keyType,
                            key->GlobalPort);
    }

    bool anyWaiting = false;
    L2ResOpRecord waiting[L2RES_WAITERS_MAX];
    const u16 waiters = CopyWaiters(kIcibTable, key, &anyWaiting, waiting);
    if (!anyWaiting) {
        QorL2ResDbgWriteLog(L2RES_LOG_REPORT, L2RES_LOG_ICIB,
                            "Query waitinfo is not exist. keytype:%d, portid:%d.", key->keyType,
                            key->GlobalPort);
    } else if (waiters > L2RES_WAITERS_MAX) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_ICIB, "Reop record num invalid.");
        return QOR_FAIL;
    }
    for (u16 i = 0; i < waiters; ++i) {
        QorL2ResIcibSet(&entries[filled++], &waiting[i], 1);
    }
    *count = filled;
    return QOR_OK;
}

void QorL2ResIcibSet(L2ResQueryEntry *out, const L2ResOpRecord *record, u32 isWaiting)
{
    out->time = record->Stamp;
    out->optype = record->Op;
    out->servicename = record->SrvType;
    out->iswaiting = isWaiting;
    QorL2ResDbgWriteLog(L2RES_LOG_REPORT, L2RES_LOG_ICIB,
                        "Query icib used-info: servicename:%d, optype:%d, time:%llu, iswaiting:%d.",
                        record->SrvType, record->Op, record->Stamp, isWaiting);
}
