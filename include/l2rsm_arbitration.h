/*
 * Arbitration of the common tables ICIB and IPAT: who may write an entry now.
 *
 * A service asks for an entry's token before it writes the entry (position 3 or 7 of the exported
 * table) and frees the token when it is done (4 or 8). Per entry the module keeps the op record of
 * the request that holds it and up to ten waiting requests. When a token is freed, every waiter is
 * called back with event 0 (l2rsm_registry.h) and may ask again.
 *
 * An ICIB waiter whose entry is never freed is called back on the third tick of the re-op timer after
 * the first waiter of the entry arrived: after two to three seconds, later when the worker is held up
 * by callbacks or has no processor. IPAT has no such tick. A release takes all waiting requests of an
 * ICIB entry out of the list, of an IPAT entry only the latest: the others stay and are called again
 * by each later release, and a list of ten is never shortened: its requests, with the copies of their
 * data, stay as long as the process lives.
 *
 * Callbacks of a release run on the thread that frees the token, with no lock of the module held (but
 * what the caller holds, if it is itself a callback of the tick). While they run, the entry's other
 * requests are told by that thread alone: whoever frees the entry's next token meanwhile tells nobody,
 * and the tick leaves the entry alone. So a callback must not wait for another request of its entry.
 *
 * Callbacks of the tick run on the worker with the ICIB waiters' mutex held: until one returns, nobody else can
 * record, release or query waiting requests of ICIB. It may itself get and free tokens, as any other,
 * but must not wait for a thread that does.
 *
 * A request that must wait again when it is repeated from a callback joins the list that is being
 * notified and is called back again by the same release, until the list's ten places are used up; the
 * next one is answered but not recorded. So a callback that is told to wait again had better leave it
 * at that and ask later.
 *
 * Ownership: request, key and data belong to the caller and are only read during the call; the
 * module copies what it keeps. Threads: any, concurrently; a callback may get and free tokens,
 * also of the very entry it was told about. One entry's requests are judged one after the other.
 */
#ifndef L2RSM_ARBITRATION_H
#define L2RSM_ARBITRATION_H

#include "qor_types.h"

QOR_BEGIN_C

/* Op types of a request and op codes of a record. */
enum { L2RES_OP_NONE = 0, L2RES_OP_ADD = 1, L2RES_OP_UPDATE = 2, L2RES_OP_DELETE = 3 };

/* Token results. */
enum {
    L2RES_TOKEN_PROCEED = 0,         /* operate now; an update that has to wait is told this too */
    L2RES_TOKEN_REFUSED = 1,         /* bad arguments, or refused by the rules */
    L2RES_TOKEN_UPDATE_NO_ENTRY = 3, /* update of an entry nobody holds; recorded as waiting */
    L2RES_TOKEN_WAIT = 4 /* do not operate now: recorded as waiting, or a repeat without work */
};

/*
 * Per entry; a further request is answered but not recorded. A request that another thread is about to
 * judge again, because its entry has just been freed, may hold a place for a moment.
 */
enum { L2RES_WAITERS_MAX = 10 };

typedef struct {
    u64 Stamp;        /* time stamp chosen by the service; compared unsigned */
    u16 FwdType;      /* forwarding type: what the rules compare as the type of the requester */
    const void *key;  /* L2ResIcibKey or L2ResIpatKey */
    u16 dataLen;      /* bytes at data */
    const void *data; /* given back, copied, when the service is notified */
} L2ResTokenReq;
QOR_STATIC_ASSERT(sizeof(L2ResTokenReq) == 40, "token request");

typedef struct {
    u64 Stamp;   /* of the request that last wrote the record */
    u16 Op;      /* its op code */
    u16 SrvType; /* its FwdType */
    u32 Used;    /* ICIB: 1 from grant to free of the token; IPAT: always 0 */
} L2ResOpRecord;
QOR_STATIC_ASSERT(sizeof(L2ResOpRecord) == 16, "op record");

/* What a rule decides; all fields come in as 0. */
typedef struct {
    i8 OpCode; /* operation the requester may perform now: 0 none, 1 add, 2 update, 3 delete */
    i8 IsOp;   /* 1: the requester's op record replaces the holder's */
    i8 IsReOp; /* 1: the request must wait */
    i8 ReOp;   /* op code of the holder that an add of its own type overrules (2 or 3), else 0 */
} L2ResVerdict;
QOR_STATIC_ASSERT(sizeof(L2ResVerdict) == 4, "verdict");

typedef struct {
    u32 keyType;
    u16 GlobalPort;
    u16 Vsi;
    u32 keyAttr1; /* keyAttr1..3 belong to the identity and are never interpreted */
    u16 OutVlan;  /* selects the hash bucket */
    u32 keyAttr2;
    u16 InnerVlan;
    u32 keyAttr3;
    u32 Pri;
    u32 Vdc;
} L2ResIcibKey; /* the padding behind OutVlan and InnerVlan is not compared */
QOR_STATIC_ASSERT(sizeof(L2ResIcibKey) == 36, "ICIB key");

typedef struct {
    u32 unit;
    u32 port; /* selects the hash bucket */
} L2ResIpatKey;
QOR_STATIC_ASSERT(sizeof(L2ResIpatKey) == 8, "IPAT key");

/* One waiting request. */
typedef struct {
    L2ResOpRecord op; /* of the waiting request */
    u32 srvType;      /* service to notify */
    u32 serial;       /* the module's own */
    void *data;       /* the module's copy of the request's data, or null */
} L2ResWaiter;
QOR_STATIC_ASSERT(sizeof(L2ResWaiter) == 32, "waiting entry");

typedef struct {
    L2ResWaiter entry[L2RES_WAITERS_MAX]; /* 0 to reOpNum-1 valid, in arrival order */
    u16 reOpNum;
    i16 walkCountdown; /* ICIB: ticks left until the waiters are notified, 3 at first; IPAT: 0 */
    u16 claimed, tick; /* the module's own */
} L2ResWaitList;
QOR_STATIC_ASSERT(sizeof(L2ResWaitList) == 328, "waiting entries with their counters");

/* Re-op records: what a callback receives with event 0. */
typedef struct {
    L2ResIcibKey key;
    u32 reserved;
    L2ResWaitList waiters;
} L2ResIcibReOpRecord;
QOR_STATIC_ASSERT(sizeof(L2ResIcibReOpRecord) == 368, "ICIB re-op record");

typedef struct {
    L2ResIpatKey key;
    L2ResWaitList waiters;
} L2ResIpatReOpRecord;
QOR_STATIC_ASSERT(sizeof(L2ResIpatReOpRecord) == 336, "IPAT re-op record");

/* One line of the ICIB query. */
typedef struct {
    u64 time;        /* Stamp of the op record */
    u16 optype;      /* its Op */
    u16 servicename; /* its SrvType */
    u32 iswaiting;   /* 0 the holder, 1 a waiting request */
} L2ResQueryEntry;
QOR_STATIC_ASSERT(sizeof(L2ResQueryEntry) == 16, "query entry");

enum { L2RES_QUERY_MAX = 1 + L2RES_WAITERS_MAX };

/*
 * Asks for a token. srvType 0..8, opType 1..3. A token result; 1 for a null request or key and for
 * arguments out of range.
 */
QOR_API u32 QorL2ResGetIcibToken(u32 srvType, u32 opType, L2ResTokenReq *req);
QOR_API u32 QorL2ResGetIpatToken(u32 srvType, u32 opType, L2ResTokenReq *req);

/*
 * Frees a token and notifies the entry's waiters on this thread. Only req->key is read, and whether
 * the caller holds the token is not checked.
 *   ICIB: 0, or 1 when the entry has no op record (its waiters are then left as they are). opType 1
 *         and 2 keep the record as released, any other removes it.
 *   IPAT: always removes the record; the result of the last notification, or 0, also while another
 *         free of the entry is notifying.
 */
QOR_API u32 QorL2ResFreeIcibToken(u32 srvType, u32 opType, L2ResTokenReq *req);
QOR_API u32 QorL2ResFreeIpatToken(u32 srvType, u32 opType, L2ResTokenReq *req);

/*
 * Holder and waiters of an ICIB entry, holder first, waiters in arrival order. entries must have
 * room for L2RES_QUERY_MAX. 0 with *count written; 1 for a null argument, *count untouched.
 */
QOR_API u32 QorL2ResIcibGet(const L2ResIcibKey *key, L2ResQueryEntry *entries, u16 *count);

QOR_END_C

#endif
