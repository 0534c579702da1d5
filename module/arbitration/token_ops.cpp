#include "arbitration/token_ops.h"

#include "arbitration/op_records.h"
#include "arbitration/waiters.h"
#include "l2rsm_alarms.h"
#include "l2rsm_registry.h"

namespace {

// The token result as long as the request need not wait; also settles whether the record that may be
// stored is in use.
u32 ResultOf(const CommonTable &table, const HandlerRow &row, u32 opType, const Holder &holder,
             const L2ResVerdict &verdict, L2ResOpRecord *record)
{
    const bool granted = static_cast<u32>(verdict.OpCode) == opType;
    if (table.tracksUse) {
        record->Used = granted ? 1 : holder.record.Used;
    }
    if (granted) {
        return L2RES_TOKEN_PROCEED;
    }
    return holder.exists ? row.notGrantedResult : row.unheldResult;
}

// Records the request as waiting; `stored`: it has stored a record of its own, else it was judged
// against `holder`. False: whoever it waits for is gone, it is taken back and must be judged again.
// One that finds no place is answered like a recorded one, although nobody will be notified.
bool Wait(const CommonTable &table, const L2ResTokenReq &req, u32 srvType,
          const L2ResOpRecord &record, const Holder &holder, bool stored)
{
    u32 serial = 0;
    const u32 ret = AppendWaiter(table, req.key, &record, req.data, req.dataLen, srvType, &serial);
    const Holder now = PeekHolder(table, req.key);
    if (stored ? now.exists : now == holder) {
        return true;
    }
    return ret == QOR_OK && !TakeBackWaiter(table, req.key, serial);
}

} // namespace

u32 HandleRequest(const CommonTable &table, u32 opType, u32 srvType, const L2ResTokenReq *req)
{
    if (req == nullptr || req->key == nullptr) {
        return L2RES_TOKEN_REFUSED;
    }
    const HandlerRow &row = table.handler[opType];
    bool checksUsage = row.checksUsage;
    WriteLine(row.opened, srvType, *req);
    for (;;) { // again when the holder's record is no longer the one the request was judged against
        L2ResVerdict verdict = {};
        L2ResOpRecord record = {
            .Stamp = req->Stamp, .Op = row.recordedOp, .SrvType = req->FwdType, .Used = 0};
        const Holder holder = FindHolder(table, req->key);
        if (!holder.exists) {
            verdict = row.unheld;
        } else if (row.rule(&record, &holder.record, &verdict) != QOR_OK) {
            WriteLine(row.refused, srvType, *req, L2RES_TOKEN_REFUSED);
            return L2RES_TOKEN_REFUSED;
        }
        u32 ret = ResultOf(table, row, opType, holder, verdict, &record);
        if (checksUsage) { // calls a hook and the alarm services: once a request, no lock held
            (void)QorL2ResExceedCheckAndAlarm(L2RES_ALARM_ICIB_PP);
            checksUsage = false;
        }
        bool stored = false;
        if (verdict.IsOp == 1) {
            const Store store = StoreOpRecord(table, req->key, &record, &holder);
            if (store == Store::overtaken) {
                continue;
            }
            stored = store == Store::done;
        }
        if (verdict.IsReOp == 1) {
            if (!Wait(table, *req, srvType, record, holder, stored)) {
                continue;
            }
            ret = row.waitChangesResult ? u32{L2RES_TOKEN_WAIT} : ret;
        }
        WriteLine(row.closed, verdict, ret);
        return ret;
    }
}

bool TokenArgumentsValid(u32 srvType, u32 opType)
{
    return srvType < L2RES_SERVICE_COUNT && opType <= L2RES_OP_DELETE;
}
