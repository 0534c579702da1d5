/*
 * What the two common tables share and where they differ.
 *
 * Both keep two hash tables: op records (who holds an entry) and waiting requests (who wants it).
 * One implementation serves both: op_records.cpp, waiters.cpp, token_ops.cpp. A CommonTable names
 * everything in which ICIB and IPAT differ; the two rows stand side by side in tables.cpp.
 *
 * How one entry's requests stay exact between threads:
 *   - A request is judged against a copy of the holder's record. It replaces the record only if that
 *     is still the one it was judged against, else it is judged again.
 *   - A stripe's mutex guards what belongs to its buckets: their records and their release counts.
 *     Whoever inserts or overwrites a record takes the table's mutex first, which guards what all
 *     buckets share; look-ups and removals need none of that (hash_table.h). So requests for
 *     different entries meet in one short hold only, and whoever holds the table's mutex keeps
 *     writers waiting but no look-up and no removal.
 *   - Every release of a token counts up its bucket's `releases`. A request that was told to wait is
 *     recorded first and looks at the count then: had a release come in between, it is taken back
 *     and judged again, unless that release has notified it already.
 *   - A release looks for waiting requests after it has counted. It may do so without their mutex: a
 *     request that it misses was recorded later than it counted, so that request sees the count.
 *   - A release claims the entry's waiting requests, calls back with no lock held, and removes them
 *     in the same hold of the mutex that found no further one. Whoever meets a claimed entry leaves
 *     it to the claimer; requests appended meanwhile are notified by the claimer too.
 *   - No code holds mutexes of op records and of waiting requests at once, and foreign code runs
 *     under none, but in the ICIB walk.
 * Messages are written with no mutex held, in the order of the steps they report.
 */
#ifndef ARBITRATION_TABLES_H
#define ARBITRATION_TABLES_H

#include "hash_table.h"
#include "l2rsm_arbitration.h"
#include "zir_mutex.h"

constexpr u32 kBucketCount = 1024;
constexpr u32 kOpStripes = 64; // neighbouring buckets belong to different ones

/* What belongs to every 64th bucket, on cache lines of its own. */
struct alignas(64) OpStripe {
    ZIR_Mutex mutex;
    u32 releases[kBucketCount / kOpStripes]; /* of each bucket, guarded by `mutex` */
};

/* How one op type's handler behaves and what it writes. */
struct HandlerRow {
    u32 (*rule)(const L2ResOpRecord *req, const L2ResOpRecord *holder, L2ResVerdict *verdict);
    u16 recordedOp;         /* op code stored in the record */
    L2ResVerdict unheld;    /* verdict when nobody holds the entry */
    u32 unheldResult;       /* and the token result with it */
    u32 notGrantedResult;   /* token result when the holder's rule grants nothing */
    bool waitChangesResult; /* a recorded wait is answered with L2RES_TOKEN_WAIT */
    bool checksUsage;       /* checks the engine's table before the record is stored */
    void (*opened)(u32 srvType, const L2ResTokenReq &req);
    void (*refused)(u32 srvType, const L2ResTokenReq &req, u32 ret);
    void (*closed)(const L2ResVerdict &verdict, u32 ret);
};

/* Lines of the record functions; null where the table writes none. */
struct RecordLines {
    u32 category;
    void (*searched)(const void *key);
    void (*found)(const void *key, const L2ResOpRecord &record);
    void (*notFound)(const void *key);
    void (*stored)(const void *key, const L2ResOpRecord &record);
    void (*removed)(const void *key, u32 ret);
    const char *overwriteFailed, *insertFailed, *noNode; /* op records */
    void (*appended)(const L2ResOpRecord &record, u16 reOpNum);
    const char *appendFailed, *firstFailed, *noWaitNode; /* waiting requests */
    void (*noWaiters)(const void *key);
    void (*notified)(const void *key, u32 srvType, u32 ret);
};

struct CommonTable {
    u32 tableId;
    /* Nodes begin with the key. */
    u32 keySize;
    u32 opNodeSize, opRecordOffset;
    u32 waitNodeSize, waitListOffset;
    i16 walkCountdown;       /* of a new node of waiting requests */
    bool tracksUse;          /* `Used` tells whether the token is out */
    bool releaseEmptiesList; /* a release removes every waiting request, else the latest only */
    bool silentBeforeInit;   /* a search writes nothing while there is no hash table */

    u32 (*hash)(const void *key);
    u32 (*compare)(const void *a, const void *b);
    HASH_Handle *opHash;
    ZIR_Mutex *opMutex;
    OpStripe *opStripes; /* kOpStripes of them */
    HASH_Handle *waitHash;
    ZIR_Mutex *waitMutex;
    u32 *lastSerial; /* of a waiting request, guarded by waitMutex */
    u32 *waitNodes;  /* nodes in waitHash; written under waitMutex, read by a release without it */

    const char *createOpFailed, *createWaitFailed;
    RecordLines lines;
    HandlerRow handler[4]; /* by op type; row 0 unused */
};

extern const CommonTable kIcibTable;
extern const CommonTable kIpatTable;

#endif
