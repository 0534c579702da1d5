/*
 * What the two common tables share and where they differ.
 *
 * Both keep two hash tables: op records (who holds an entry) and waiting requests (who wants it).
 * One implementation serves both: op_records.cpp, waiters.cpp, token_ops.cpp. A CommonTable names
 * everything in which ICIB and IPAT differ; icib.cpp and ipat.cpp hold the two rows.
 *
 * Every platform call on a hash table is made under that table's mutex, by us as by anybody else who
 * looks into an exported table. No code holds mutexes of two tables at once, foreign code runs under
 * none, and messages are written with none held, in the order of the steps they report. The exception
 * is the ICIB walk: its callbacks, and the line after each, come under the waiting requests' mutex.
 *
 * How one entry's requests stay exact between threads:
 *   - A request is judged against a copy of the entry's record. It replaces the record only if that
 *     is still the one it was judged against, else it is judged again.
 *   - A request that must wait is recorded first and looks at the record then. If that is no longer
 *     the one it was judged against, it is taken back and judged again. A request that stored a record
 *     of its own and waits (nobody held the entry) looks only whether the entry has a record: judged
 *     again, its own one would make it pass for a repeat.
 *   - A release changes the record first and looks for waiting requests then. It claims them, calls
 *     back with no lock held, and removes them in the same hold of the mutex that found no further
 *     one. Whoever meets claimed requests leaves them to the claimer; what is appended meanwhile is
 *     notified by the claimer too.
 *
 * Why nobody waits for ever and nobody is told twice. Say request W is recorded at time r and looks
 * at the record at time l, after r.
 *   - A release that changes the record after l looks for waiting requests after r: it finds W.
 *   - A release that changed it before l may have missed W. Then W sees at l what that release left.
 *     No record: W is taken back. Another record than the one judged: W is taken back, or, if it
 *     stored one of its own, waits for the release of the one that stands there. A record equal to the
 *     one judged, freed and made again alike: the rules read nothing but records, so they would decide
 *     at l as they did; W waits for the release of the record that stands there at l.
 *   - So W waits for a record that stands there at l, and whoever frees that one finds W. (An ICIB
 *     record that is not in use may never be freed; there the walk tells W.)
 *   - The list has ten places, and a request that is about to be taken back holds one of them: who
 *     finds them taken at that moment is answered like an eleventh.
 *   - A request once claimed is not taken back any more, and one taken back cannot be claimed: both
 *     happen under the mutex. So a request told by a release is not judged and recorded again.
 */
#ifndef ARBITRATION_TABLES_H
#define ARBITRATION_TABLES_H

#include <atomic>

#include "frame/dbg_log.h"
#include "hash_table.h"
#include "l2rsm_arbitration.h"
#include "qor_thread_safety.h"
#include "zir_mutex.h"

constexpr u32 kBucketCount = 1024;

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

/* What a table keeps of its waiting requests beside the nodes; guarded by waitMutex but for atomics. */
struct WaitState {
    u32 lastSerial;         /* of a waiting request */
    std::atomic<u32> nodes; /* in waitHash; a release and a tick look at it without the mutex */
    u16 tick;               /* of the walk; a node carries the one that visited or created it */
    u32 unvisited;          /* nodes that this tick has not visited yet */
    u32 patience;           /* how often this tick still waits in vain for somebody to pass */
    std::atomic<u32> arrived, passed; /* those who came for the mutex, those who got it */
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
    /* A hash table is null, and its mutex not initialised, until phase 1 has created it. */
    HASH_Handle *opHash;
    ZIR_Mutex *opMutex;
    HASH_Handle *waitHash;
    ZIR_Mutex *waitMutex;
    WaitState *wait;

    const char *createOpFailed, *createWaitFailed;
    RecordLines lines;
    HandlerRow handler[4]; /* by op type; row 0 unused */
};

extern const CommonTable kIcibTable;
extern const CommonTable kIpatTable;

/* A line out of a descriptor's row, null where the row has none. Its dozen arguments are not even
   gathered when nobody would see it: without services that is half of what a request costs. */
template <typename... Parameters, typename... Arguments>
inline void WriteLine(void (*line)(Parameters...), const Arguments &...arguments)
{
    if (line != nullptr && LogIsAttached()) {
        line(arguments...);
    }
}

inline void WriteFailure(const CommonTable &table, const char *text)
{
    if (text != nullptr) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, table.lines.category, "%s", text);
    }
}

#endif
