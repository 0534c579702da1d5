#include "arbitration/icib.h"

#include "arbitration/op_records.h"
#include "arbitration/op_table.h"
#include "arbitration/token_ops.h"
#include "arbitration/waiters.h"
#include "frame/dbg_log.h"
#include "l2rsm_registry.h"

u32 QorL2ResIcibHashFunc(const void *key)
{
    return key != nullptr ? static_cast<const L2ResIcibKey *>(key)->OutVlan & (kBucketCount - 1)
                          : 0;
}

u32 QorL2ResIcibCompFunc(const void *a, const void *b)
{
    if (a == nullptr || b == nullptr) {
        return 0;
    }
    const auto &x = *static_cast<const L2ResIcibKey *>(a);
    const auto &y = *static_cast<const L2ResIcibKey *>(b);
    // First what mostly differs between the entries of one outer VLAN, that is of one bucket.
    return x.InnerVlan == y.InnerVlan && x.Vsi == y.Vsi && x.GlobalPort == y.GlobalPort &&
                   x.Pri == y.Pri && x.keyType == y.keyType && x.keyAttr1 == y.keyAttr1 &&
                   x.OutVlan == y.OutVlan && x.keyAttr2 == y.keyAttr2 && x.keyAttr3 == y.keyAttr3 &&
                   x.Vdc == y.Vdc
               ? 1
               : 0;
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
    return key != nullptr && record != nullptr ? StoreOpRecord(kIcibTable, key, *record) : QOR_FAIL;
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
    return key != nullptr && record != nullptr
               ? AppendWaiter(kIcibTable, key, *record, data, dataLen, srvType, nullptr)
               : QOR_FAIL;
}

u32 QorL2ResIcibReOpDel(const L2ResIcibKey *key)
{
    return key != nullptr ? RemoveAllWaiters(kIcibTable, key) : QOR_FAIL;
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
    const Holder holder = QueryHolder(kIcibTable, key);
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
