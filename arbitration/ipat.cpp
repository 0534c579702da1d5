#include "arbitration/ipat.h"

#include "arbitration/op_records.h"
#include "arbitration/op_table.h"
#include "arbitration/token_ops.h"
#include "arbitration/waiters.h"
#include "frame/dbg_log.h"
#include "l2rsm_registry.h"

u32 QorL2ResIpatHashFunc(const void *key)
{
    return key != nullptr ? static_cast<const L2ResIpatKey *>(key)->port & (kBucketCount - 1) : 0;
}

u32 QorL2ResIpatCompFunc(const void *a, const void *b)
{
    if (a == nullptr || b == nullptr) {
        return 0;
    }
    const auto &x = *static_cast<const L2ResIpatKey *>(a);
    const auto &y = *static_cast<const L2ResIpatKey *>(b);
    return x.unit == y.unit && x.port == y.port ? 1 : 0;
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
    return key != nullptr && record != nullptr ? StoreOpRecord(kIpatTable, key, *record) : QOR_FAIL;
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
    return key != nullptr && record != nullptr
               ? AppendWaiter(kIpatTable, key, *record, data, dataLen, srvType, nullptr)
               : QOR_FAIL;
}

u32 QorL2ResIpatReOpDel(const L2ResIpatKey *key, HASH_Handle hash)
{
    return key != nullptr && hash != nullptr ? RemoveLatestWaiter(kIpatTable, key, hash) : QOR_FAIL;
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
