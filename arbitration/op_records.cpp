#include "arbitration/op_records.h"

#include "bounded.h"
#include "frame/dbg_log.h"
#include "frame/memory.h"

namespace {

// Where an entry's record and release count belong.
struct Place {
    ZIR_Mutex *mutex;
    u32 *releases;
};

inline Place PlaceOf(const CommonTable &table, const void *key)
{
    const u32 bucket = table.hash(key) % kBucketCount; // also of a hash that was patched
    OpStripe &stripe = table.opStripes[bucket % kOpStripes];
    return {&stripe.mutex, &stripe.releases[bucket / kOpStripes]};
}

// `place` is there for the analysis of locks alone.
inline L2ResOpRecord *FindRecord(const CommonTable &table, [[maybe_unused]] const Place &place,
                                 const void *key) QOR_REQUIRES(*place.mutex)
{
    void *node = HASH_FindElmtFromFirst(*table.opHash, key);
    return node != nullptr
               ? reinterpret_cast<L2ResOpRecord *>(static_cast<u8 *>(node) + table.opRecordOffset)
               : nullptr;
}

inline bool SameRecord(const L2ResOpRecord &a, const L2ResOpRecord &b)
{
    return a.Stamp == b.Stamp && a.Op == b.Op && a.SrvType == b.SrvType && a.Used == b.Used;
}

void WriteFailure(const CommonTable &table, const char *text)
{
    if (text != nullptr) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, table.lines.category, "%s", text);
    }
}

void WriteStored(const CommonTable &table, const void *key, const L2ResOpRecord &record)
{
    if (LogIsAttached()) {
        table.lines.stored(key, record);
    }
}

void WriteRemoved(const CommonTable &table, const void *key, u32 ret)
{
    if (LogIsAttached()) {
        table.lines.removed(key, ret);
    }
}

// The lines of one search, written after the fact; `found` is the record as it was then, or null.
void WriteSearch(const CommonTable &table, const void *key, const L2ResOpRecord *found)
{
    if (!LogIsAttached() || (table.silentBeforeInit && *table.opHash == nullptr)) {
        return;
    }
    table.lines.searched(key);
    if (found != nullptr) {
        table.lines.found(key, *found);
    } else {
        table.lines.notFound(key);
    }
}

} // namespace

u32 CreateOpTable(const CommonTable &table)
{
    *table.opHash = HASH_CreateNew(QorL2ResGetMemPtNo(), table.opNodeSize, kBucketCount, table.hash,
                                   table.compare, 0);
    if (*table.opHash == nullptr) {
        WriteFailure(table, table.createOpFailed);
        return QOR_FAIL;
    }
    (void)ZIR_MutexInit(table.opMutex, nullptr);
    return QOR_OK;
}

L2ResOpRecord *SearchOpRecord(const CommonTable &table, const void *key) QOR_NO_THREAD_SAFETY
{
    if (key == nullptr) {
        return nullptr;
    }
    L2ResOpRecord *record = FindRecord(table, {}, key);
    WriteSearch(table, key, record);
    return record;
}

namespace {

Holder CopyHolder(const CommonTable &table, const Place &place, const void *key)
    QOR_REQUIRES(*place.mutex)
{
    Holder holder = {};
    if (const L2ResOpRecord *record = FindRecord(table, place, key)) {
        holder.exists = true;
        holder.record = *record;
    }
    holder.releases = *place.releases;
    return holder;
}

} // namespace

Holder FindHolder(const CommonTable &table, const void *key)
{
    const Place place = PlaceOf(table, key);
    ZIR_MutexLock(place.mutex);
    const Holder holder = CopyHolder(table, place, key);
    ZIR_MutexUnlock(place.mutex);
    WriteSearch(table, key, holder.exists ? &holder.record : nullptr);
    return holder;
}

Holder QueryHolder(const CommonTable &table, const void *key)
{
    const Place place = PlaceOf(table, key);
    ZIR_MutexLock(table.opMutex);
    ZIR_MutexLock(place.mutex);
    const Holder holder = CopyHolder(table, place, key);
    ZIR_MutexUnlock(table.opMutex);
    ZIR_MutexUnlock(place.mutex);
    WriteSearch(table, key, holder.exists ? &holder.record : nullptr);
    return holder;
}

namespace {

// What a store did, for the lines written once the mutex is free.
struct StoreReport {
    L2ResOpRecord before; // valid when existed
    bool existed;
    const char *failure; // line to write, or null
};

u32 Overwrite(const CommonTable &table, L2ResOpRecord *stored, const L2ResOpRecord &record,
              StoreReport *report)
{
    if (memcpy_s(stored, sizeof *stored, &record, sizeof record) != 0) {
        report->failure = table.lines.overwriteFailed;
    }
    return QOR_OK;
}

u32 Insert(const CommonTable &table, const void *key, const L2ResOpRecord &record,
           StoreReport *report) QOR_REQUIRES(*table.opMutex)
{
    void *node = HASH_NewData(*table.opHash, 0);
    if (node == nullptr) {
        report->failure = table.lines.noNode;
        return QOR_FAIL;
    }
    void *recordPlace = static_cast<u8 *>(node) + table.opRecordOffset;
    (void)memset_s(node, table.opNodeSize, 0, table.opNodeSize);
    if (memcpy_s(node, table.opNodeSize, key, table.keySize) != 0) {
        // Under a wrong key nobody would ever find and remove it.
        report->failure = table.lines.insertFailed;
        HASH_FreeData(*table.opHash, node);
        return QOR_FAIL;
    }
    if (memcpy_s(recordPlace, sizeof record, &record, sizeof record) != 0) {
        report->failure = table.lines.insertFailed;
    }
    if (HASH_AddNode(*table.opHash, node, node, 0) != QOR_OK) {
        HASH_FreeData(*table.opHash, node);
        return QOR_FAIL;
    }
    return QOR_OK;
}

// `judged` null: store whatever is there now.
Replacement Store(const CommonTable &table, const void *key, const L2ResOpRecord &record,
                  Holder *judged)
{
    const Place place = PlaceOf(table, key);
    StoreReport report = {};
    ZIR_MutexLock(table.opMutex);
    ZIR_MutexLock(place.mutex);
    L2ResOpRecord *stored = FindRecord(table, place, key);
    if (stored != nullptr) {
        report.existed = true;
        report.before = *stored;
    }
    const bool overtaken =
        judged != nullptr && (judged->exists != report.existed ||
                              (report.existed && !SameRecord(judged->record, report.before)));
    if (judged != nullptr && !overtaken) {
        judged->releases = *place.releases;
    }
    u32 ret = QOR_OK;
    if (!overtaken) {
        ret = report.existed ? Overwrite(table, stored, record, &report)
                             : Insert(table, key, record, &report);
    }
    ZIR_MutexUnlock(table.opMutex);
    ZIR_MutexUnlock(place.mutex);
    if (overtaken) {
        return Replacement::overtaken;
    }

    WriteSearch(table, key, report.existed ? &report.before : nullptr);
    WriteFailure(table, report.failure);
    if (ret != QOR_OK) {
        return Replacement::failed;
    }
    WriteStored(table, key, record);
    return Replacement::stored;
}

} // namespace

u32 StoreOpRecord(const CommonTable &table, const void *key, const L2ResOpRecord &record)
{
    return Store(table, key, record, nullptr) == Replacement::stored ? QOR_OK : QOR_FAIL;
}

Replacement ReplaceJudged(const CommonTable &table, const void *key, const L2ResOpRecord &record,
                          Holder *judged)
{
    return Store(table, key, record, judged);
}

u32 RemoveOpRecord(const CommonTable &table, const void *key)
{
    if (key == nullptr) {
        return QOR_FAIL;
    }
    const Place place = PlaceOf(table, key);
    ZIR_MutexLock(place.mutex);
    const u32 ret = HASH_RemoveElmtByKey(*table.opHash, key);
    ++*place.releases;
    ZIR_MutexUnlock(place.mutex);
    WriteRemoved(table, key, ret);
    return ret;
}

bool MarkReleased(const CommonTable &table, const void *key)
{
    const Place place = PlaceOf(table, key);
    StoreReport report = {};
    L2ResOpRecord released = {};
    ZIR_MutexLock(table.opMutex);
    ZIR_MutexLock(place.mutex);
    L2ResOpRecord *stored = FindRecord(table, place, key);
    if (stored != nullptr) {
        report.existed = true;
        report.before = *stored;
        released = *stored;
        released.Used = 0;
        (void)Overwrite(table, stored, released, &report);
        ++*place.releases;
    }
    ZIR_MutexUnlock(table.opMutex);
    ZIR_MutexUnlock(place.mutex);

    WriteSearch(table, key, report.existed ? &report.before : nullptr);
    if (!report.existed) {
        return false;
    }
    WriteSearch(table, key, &report.before); // found, then found again to be overwritten
    WriteFailure(table, report.failure);
    WriteStored(table, key, released);
    return true;
}

bool RemoveReleased(const CommonTable &table, const void *key, u32 *ret)
{
    const Place place = PlaceOf(table, key);
    L2ResOpRecord before = {};
    ZIR_MutexLock(place.mutex);
    const L2ResOpRecord *stored = FindRecord(table, place, key);
    const bool existed = stored != nullptr;
    if (existed) {
        before = *stored;
        *ret = HASH_RemoveElmtByKey(*table.opHash, key);
        ++*place.releases;
    }
    ZIR_MutexUnlock(place.mutex);

    WriteSearch(table, key, existed ? &before : nullptr);
    if (existed) {
        WriteRemoved(table, key, *ret);
    }
    return existed;
}

bool ReleasedSince(const CommonTable &table, const void *key, const Holder &judged)
{
    const Place place = PlaceOf(table, key);
    ZIR_MutexLock(place.mutex);
    const bool released = *place.releases != judged.releases;
    ZIR_MutexUnlock(place.mutex);
    return released;
}

// A loop over mutexes is beyond the analysis.
void LockOpTable(const CommonTable &table) QOR_NO_THREAD_SAFETY
{
    ZIR_MutexLock(table.opMutex);
    for (u32 i = 0; i < kOpStripes; ++i) {
        ZIR_MutexLock(&table.opStripes[i].mutex);
    }
}

void UnlockOpTable(const CommonTable &table) QOR_NO_THREAD_SAFETY
{
    for (u32 i = 0; i < kOpStripes; ++i) {
        ZIR_MutexUnlock(&table.opStripes[i].mutex);
    }
    ZIR_MutexUnlock(table.opMutex);
}
