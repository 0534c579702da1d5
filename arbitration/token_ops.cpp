#include "arbitration/token_ops.h"

#include "arbitration/op_records.h"
#include "arbitration/waiters.h"
#include "frame/dbg_log.h"
#include "l2rsm_alarms.h"
#include "l2rsm_registry.h"

namespace {

struct Judgement {
    L2ResOpRecord record; // the requester's, as it is to be stored
    L2ResVerdict verdict;
    u32 ret; // token result, before a wait changes it
};

// False: refused.
bool Judge(const CommonTable &table, const HandlerRow &row, u32 opType, const L2ResTokenReq &req,
           const Holder &holder, Judgement *judgement)
{
    *judgement = {};
    L2ResOpRecord &record = judgement->record;
    record.Stamp = req.Stamp;
    record.Op = row.recordedOp;
    record.SrvType = req.FwdType;

    if (!holder.exists) {
        judgement->verdict = row.unheld;
        judgement->ret = row.unheldResult;
    } else {
        if (row.rule(&record, &holder.record, &judgement->verdict) != QOR_OK) {
            return false;
        }
        judgement->ret = row.notGrantedResult;
    }
    const bool granted = static_cast<u32>(judgement->verdict.OpCode) == opType;
    if (granted) {
        judgement->ret = L2RES_TOKEN_PROCEED;
    }
    if (table.tracksUse) {
        record.Used = granted ? 1 : holder.record.Used;
    }
    return true;
}

// False: a release overtook the request; it is taken back and must be judged again.
bool RecordWait(const CommonTable &table, const L2ResTokenReq &req, u32 srvType,
                const L2ResOpRecord &record, const Holder &holder)
{
    u32 serial = 0;
    if (AppendWaiter(table, req.key, record, req.data, req.dataLen, srvType, &serial) != QOR_OK) {
        // Answered like a recorded one although nobody will be notified, but not if the entry has
        // been freed meanwhile.
        return !ReleasedSince(table, req.key, holder);
    }
    return !ReleasedSince(table, req.key, holder) || !TakeBackWaiter(table, req.key, serial);
}

// Stores and waits as judged. False: another thread overtook the request; judge it again.
bool CarryOut(const CommonTable &table, const HandlerRow &row, const L2ResTokenReq &req,
              u32 srvType, Judgement *judgement, Holder *holder)
{
    for (;;) {
        if (judgement->verdict.IsOp == 1 &&
            ReplaceJudged(table, req.key, judgement->record, holder) == Replacement::overtaken) {
            return false;
        }
        if (judgement->verdict.IsReOp != 1) {
            return true;
        }
        if (RecordWait(table, req, srvType, judgement->record, *holder)) {
            judgement->ret = row.waitChangesResult ? u32{L2RES_TOKEN_WAIT} : judgement->ret;
            return true;
        }
        if (judgement->verdict.IsOp != 1) {
            return false;
        }
        // Stored and waiting: nobody held the entry, so what was released is the request's own
        // record. If it is still there the request waits again; judged against itself it would pass
        // for a repeat and wait for nothing.
        holder->exists = true;
        holder->record = judgement->record;
    }
}

} // namespace

u32 HandleRequest(const CommonTable &table, u32 opType, u32 srvType, const L2ResTokenReq *req)
{
    if (req == nullptr || req->key == nullptr) {
        return L2RES_TOKEN_REFUSED;
    }
    const HandlerRow &row = table.handler[opType];
    const bool logged = LogIsAttached();
    if (logged) {
        row.opened(srvType, *req);
    }
    for (;;) {
        Holder holder = FindHolder(table, req->key);
        Judgement judgement;
        if (!Judge(table, row, opType, *req, holder, &judgement)) {
            row.refused(srvType, *req, L2RES_TOKEN_REFUSED);
            return L2RES_TOKEN_REFUSED;
        }
        if (row.checksUsage) { // calls a hook and the alarm services: no lock held
            (void)QorL2ResExceedCheckAndAlarm(L2RES_ALARM_ICIB_PP);
        }
        if (CarryOut(table, row, *req, srvType, &judgement, &holder)) {
            if (logged) {
                row.closed(judgement.verdict, judgement.ret);
            }
            return judgement.ret;
        }
    }
}

bool TokenArgumentsValid(u32 srvType, u32 opType)
{
    return srvType < L2RES_SERVICE_COUNT && opType <= L2RES_OP_DELETE;
}
