#include "arbitration/op_table.h"

#include "arbitration/icib.h"
#include "arbitration/ipat.h"
#include "frame/dbg_log.h"
#include "l2rsm_registry.h"

const L2ResOpTableRow g_qorL2ResOpTable[L2RES_OP_TABLE_ROWS] = {
    {.tableId = L2RES_TABLE_ICIB,
     .add = QorL2ResIcibAddMutexProc,
     .update = QorL2ResIcibUpdateMutexProc,
     .del = QorL2ResIcibDelMutexProc},
    {.tableId = L2RES_TABLE_IPAT,
     .add = QorL2ResIpatAddMutexProc,
     .update = QorL2ResIpatUpdateMutexProc,
     .del = QorL2ResIpatDelMutexProc},
};

namespace {

L2ResOpHandler HandlerOf(const L2ResOpTableRow *row, u32 opType)
{
    if (row == nullptr) {
        return nullptr;
    }
    switch (opType) {
    case L2RES_OP_ADD:
        return row->add;
    case L2RES_OP_UPDATE:
        return row->update;
    case L2RES_OP_DELETE:
        return row->del;
    default:
        return nullptr;
    }
}

} // namespace

const L2ResOpTableRow *GetL2ResOpMutexFunc(u32 tableId)
{
    for (const L2ResOpTableRow &row : g_qorL2ResOpTable) {
        if (row.tableId == tableId) {
            return &row;
        }
    }
    return nullptr;
}

u32 QorL2resMutexProc(u32 tableId, u32 srvType, u32 opType, L2ResTokenReq *req)
{
    if (req == nullptr) {
        return L2RES_TOKEN_REFUSED;
    }
    const L2ResOpHandler handler = HandlerOf(GetL2ResOpMutexFunc(tableId), opType);
    const u32 ret = handler != nullptr ? handler(srvType, req) : u32{L2RES_TOKEN_REFUSED};
    QorL2ResDbgWriteLog(
        L2RES_LOG_REPORT, L2RES_LOG_GENERAL,
        "L2 res mutex proc,tblid:%d,srvType:%d,opType:%d,Stamp:%llu,FwdType:%d,Ret:%d.", tableId,
        srvType, opType, req->Stamp, req->FwdType, ret);
    return ret;
}

u32 QorL2ResHashTblInit(void)
{
    struct Step {
        u32 (*init)(void);
        HASH_Handle *table;
        ZIR_Mutex *mutex;
    };
    static constexpr Step kSteps[] = {
        {QorL2ResIcibOpHashInit, &g_icibOpRecordHash, &g_icibOpRecordMutex},
        {QorL2ResIcibReOpHashInit, &g_icibReOpRecordHash, &g_icibReOpRecordMutex},
        {QorL2ResIpatOpHashInit, &g_ipatOpRecordHash, &g_ipatOpRecordMutex},
        {QorL2ResIpatReOpHashInit, &g_ipatReOpRecordHash, &g_ipatReOpRecordMutex},
    };
    for (const Step &step : kSteps) {
        if (step.init() == QOR_OK) {
            continue;
        }
        for (const Step *created = kSteps; created != &step; ++created) {
            if (*created->table != nullptr) {
                ZIR_MutexLock(created->mutex);
                HASH_DeleteHash(created->table);
                *created->table = nullptr;
                ZIR_MutexUnlock(created->mutex);
            }
        }
        return QOR_FAIL;
    }
    return QOR_OK;
}

void QorL2ResHashDestroy(HASH_Handle handle)
{
    if (handle != nullptr) {
        HASH_DeleteHash(&handle);
    }
}
