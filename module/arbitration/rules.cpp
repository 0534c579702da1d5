#include "arbitration/rules.h"

#include "frame/dbg_log.h"

namespace {

constexpr u32 kJudged = 0;
constexpr u32 kRefused = 1;

inline bool SameType(const L2ResOpRecord *req, const L2ResOpRecord *holder)
{
    return req->SrvType == holder->SrvType;
}

inline bool Newer(const L2ResOpRecord *req, const L2ResOpRecord *holder)
{
    return req->Stamp > holder->Stamp;
}

inline bool Older(const L2ResOpRecord *req, const L2ResOpRecord *holder)
{
    return req->Stamp < holder->Stamp;
}

inline void MustWait(L2ResVerdict *verdict)
{
    verdict->OpCode = L2RES_OP_NONE;
    verdict->IsReOp = 1;
}

// The holder's own type repeats itself: the record is refreshed, nothing is to be done.
inline void Refresh(L2ResVerdict *verdict)
{
    verdict->OpCode = L2RES_OP_NONE;
    verdict->IsOp = 1;
}

inline void Grant(L2ResVerdict *verdict, i8 opCode)
{
    verdict->OpCode = opCode;
    verdict->IsOp = 1;
}

// An add over the own type's update or delete: the verdict also tells what it overrules.
inline void GrantAddOver(L2ResVerdict *verdict, i8 overruled)
{
    Grant(verdict, L2RES_OP_ADD);
    verdict->ReOp = overruled;
}

// A request that waits meets the same text, at a lower level.
u32 AddError(const L2ResOpRecord *req, u32 result)
{
    QorL2ResDbgWriteLog(result == kRefused ? L2RES_LOG_ERROR : L2RES_LOG_STARTUP, L2RES_LOG_GENERAL,
                        "eth commtbl add error,srvtype:%d,timestamp:%llu.", req->SrvType,
                        req->Stamp);
    return result;
}

u32 JudgeAdd(const L2ResOpRecord *req, const L2ResOpRecord *holder, L2ResVerdict *verdict)
{
    if (!SameType(req, holder)) {
        if (!Newer(req, holder)) {
            verdict->OpCode = L2RES_OP_NONE;
            return AddError(req, kRefused);
        }
        MustWait(verdict);
        return AddError(req, kJudged);
    }
    switch (holder->Op) {
    case L2RES_OP_ADD:
        Refresh(verdict);
        return kJudged;
    case L2RES_OP_UPDATE: // the update presupposes an add: only an earlier one still makes sense
        if (!Older(req, holder)) {
            return AddError(req, kRefused);
        }
        GrantAddOver(verdict, L2RES_OP_UPDATE);
        return kJudged;
    case L2RES_OP_DELETE:
        if (!Newer(req, holder)) {
            return AddError(req, kRefused);
        }
        GrantAddOver(verdict, L2RES_OP_DELETE);
        return kJudged;
    default:
        return kJudged;
    }
}

u32 DelError(const L2ResOpRecord *req, u32 result)
{
    QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                        "eth commtbl del error,srvtype:%d,timestamp:%llu.", req->SrvType,
                        req->Stamp);
    return result;
}

u32 JudgeDel(const L2ResOpRecord *req, const L2ResOpRecord *holder, L2ResVerdict *verdict)
{
    if (!SameType(req, holder)) {
        MustWait(verdict);
        return DelError(req, kJudged);
    }
    switch (holder->Op) {
    case L2RES_OP_ADD:
    case L2RES_OP_UPDATE:
        if (!Newer(req, holder)) {
            return DelError(req, kRefused);
        }
        Grant(verdict, L2RES_OP_DELETE);
        return kJudged;
    case L2RES_OP_DELETE:
        Refresh(verdict);
        return kJudged;
    default:
        return kJudged;
    }
}

u32 JudgeUpdate(const L2ResOpRecord *req, const L2ResOpRecord *holder, L2ResVerdict *verdict)
{
    if (!SameType(req, holder)) {
        MustWait(verdict);
        // "timestamp" has always carried the holder's type here; readers of the log know it so.
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "eth commtbl update mutex,srvtype is not same.srvtype:%d,timestamp:%d.",
                            req->SrvType, holder->SrvType);
        return kJudged;
    }
    switch (holder->Op) {
    case L2RES_OP_ADD:
        if (!Newer(req, holder)) {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                                "eth commtbl set and add mutex error,srvtype:%d,timestamp:%llu,"
                                "oldsrvtype:%d,oldtimestamp:%llu.",
                                req->SrvType, req->Stamp, holder->SrvType, holder->Stamp);
            return kRefused;
        }
        Grant(verdict, L2RES_OP_UPDATE);
        return kJudged;
    case L2RES_OP_UPDATE:
        Grant(verdict, L2RES_OP_UPDATE);
        return kJudged;
    case L2RES_OP_DELETE:
        if (!Newer(req, holder)) {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                                "eth commtbl set and del mutex error,srvtype:%d,timestamp:%llu,"
                                "oldsrvtype:%d,oldtimestamp:%llu.",
                                req->SrvType, req->Stamp, holder->SrvType, holder->Stamp);
            return kRefused;
        }
        MustWait(verdict);
        return kJudged;
    default:
        return kJudged;
    }
}

} // namespace

u32 QorL2ResAddMutex(const L2ResOpRecord *req, const L2ResOpRecord *holder, L2ResVerdict *verdict)
{
    QorL2ResDbgWriteLog(
        L2RES_LOG_STARTUP, L2RES_LOG_GENERAL,
        "L2ResAddMutex,type:%d,stamp:%llu,Op:%d,Used:%d,oldtype:%d,oldstamp:%llu,oldop:%d,"
        "oldUsed:%d,OpCode:%d,IsOp:%d,IsReOp:%d,ReCode:%d.",
        req->SrvType, req->Stamp, req->Op, req->Used, holder->SrvType, holder->Stamp, holder->Op,
        holder->Used, verdict->OpCode, verdict->IsOp, verdict->IsReOp, verdict->ReOp);
    if (JudgeAdd(req, holder, verdict) != kJudged) {
        return kRefused;
    }
    QorL2ResDbgWriteLog(L2RES_LOG_STARTUP, L2RES_LOG_GENERAL,
                        "L2ResAddMutex Op:%d,IsOp:%d,ReOp:%d,IsReOp:%d.", verdict->OpCode,
                        verdict->IsOp, verdict->ReOp, verdict->IsReOp);
    return kJudged;
}

u32 QorL2ResDelMutex(const L2ResOpRecord *req, const L2ResOpRecord *holder, L2ResVerdict *verdict)
{
    QorL2ResDbgWriteLog(L2RES_LOG_TRACE, L2RES_LOG_GENERAL,
                        "L2ResDelMutex,Stamp:%llu,Op:%d,SrvType:%d,Used:%d,OldStamp:%llu,OldOp:%d,"
                        "OldSrvType:%d,OldUsed:%d.",
                        req->Stamp, req->Op, req->SrvType, req->Used, holder->Stamp, holder->Op,
                        holder->SrvType, holder->Used);
    if (JudgeDel(req, holder, verdict) != kJudged) {
        return kRefused;
    }
    QorL2ResDbgWriteLog(L2RES_LOG_TRACE, L2RES_LOG_GENERAL,
                        "L2ResDelMutex Op:%d,IsOp:%d,ReOp:%d,IsReOp:%d.", verdict->OpCode,
                        verdict->IsOp, verdict->ReOp, verdict->IsReOp);
    return kJudged;
}

u32 QorL2ResUpdateMutex(const L2ResOpRecord *req, const L2ResOpRecord *holder,
                        L2ResVerdict *verdict)
{
    QorL2ResDbgWriteLog(L2RES_LOG_TRACE, L2RES_LOG_GENERAL,
                        "L2ResUpdateMutex,Stamp:%llu,Op:%d,SrvType:%d,Used:%d,OldStamp:%llu,"
                        "OldOp:%d,OldSrvType:%d,OldUsed:%d.",
                        req->Stamp, req->Op, req->SrvType, req->Used, holder->Stamp, holder->Op,
                        holder->SrvType, holder->Used);
    if (JudgeUpdate(req, holder, verdict) != kJudged) {
        return kRefused;
    }
    QorL2ResDbgWriteLog(L2RES_LOG_TRACE, L2RES_LOG_GENERAL,
                        "L2ResUpdateMutex Op:%d,IsOp:%d,ReOp:%d,IsReOp:%d.", verdict->OpCode,
                        verdict->IsOp, verdict->ReOp, verdict->IsReOp);
    return kJudged;
}
