#include "arbitration/op_records.h"

#include "bounded.h"
#include "frame/memory.h"

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

namespace {

// The head of every operation: locks the table and finds the entry's record, null when there is
// none. False, with nothing locked, while there is no table.
bool LockAndFind(const CommonTable &table, const void *key, L2ResOpRecord **record)
    QOR_TRY_ACQUIRE(true, *table.opMutex)
{
    *record = nullptr;
    if (*table.opHash == nullptr) {
        return false;
    }
    ZIR_MutexLock(table.opMutex);
    if (void *node = HASH_FindElmtFromFirst(*table.opHash, key)) {
        *record = reinterpret_cast<L2ResOpRecord *>(static_cast<u8 *>(node) + table.opRecordOffset);
    }
    return true;
}

inline Holder CopyOf(const L2ResOpRecord *record)
{
    return record != nullptr ? Holder{true, *record} : Holder{};
}

// The lines of one search, written after the fact: what it found then.
void WriteSearch(const CommonTable &table, const void *key, const Holder &found)
{
    if (table.silentBeforeInit && *table.opHash == nullptr) {
        return;
    }
    WriteLine(table.lines.searched, key);
    if (found.exists) {
        WriteLine(table.lines.found, key, found.record);
    } else {
        WriteLine(table.lines.notFound, key);
    }
}

} // namespace

L2ResOpRecord *SearchOpRecord(const CommonTable &table, const void *key)
{
    if (key == nullptr) {
        return nullptr;
    }
    Holder found = {};
    L2ResOpRecord *record = nullptr;
    if (LockAndFind(table, key, &record)) {
        found = CopyOf(record);
        ZIR_MutexUnlock(table.opMutex);
    }
    WriteSearch(table, key, found);
    return record;
}

Holder PeekHolder(const CommonTable &table, const void *key)
{
    Holder holder = {};
    L2ResOpRecord *record = nullptr;
    if (LockAndFind(table, key, &record)) {
        holder = CopyOf(record);
        ZIR_MutexUnlock(table.opMutex);
    }
    return holder;
}

Holder FindHolder(const CommonTable &table, const void *key)
{
    const Holder holder = PeekHolder(table, key);
    WriteSearch(table, key, holder);
    return holder;
}

namespace {

void Overwrite(const CommonTable &table, L2ResOpRecord *stored, const L2ResOpRecord &record,
               const char **failure)
{
    if (memcpy_s(stored, sizeof *stored, &record, sizeof record) != 0) {
        *failure = table.lines.overwriteFailed;
    }
}

u32 Insert(const CommonTable &table, const void *key, const L2ResOpRecord &record,
           const char **failure) QOR_REQUIRES(*table.opMutex)
{
    void *node = HASH_NewData(*table.opHash, 0);
    if (node == nullptr) {
        *failure = table.lines.noNode;
        return QOR_FAIL;
    }
    void *recordPlace = static_cast<u8 *>(node) + table.opRecordOffset;
    (void)memset_s(node, table.opNodeSize, 0, table.opNodeSize);
    if (memcpy_s(node, table.opNodeSize, key, table.keySize) != 0) {
        // Under a wrong key nobody would ever find and remove it.
        *failure = table.lines.insertFailed;
        HASH_FreeData(*table.opHash, node);
        return QOR_FAIL;
    }
    if (memcpy_s(recordPlace, sizeof record, &record, sizeof record) != 0) {
        *failure = table.lines.insertFailed;
    }
    if (HASH_AddNode(*table.opHash, node, node, 0) != QOR_OK) {
        HASH_FreeData(*table.opHash, node);
        return QOR_FAIL;
    }
    return QOR_OK;
}

} // namespace

Store StoreOpRecord(const CommonTable &table, const void *key, const L2ResOpRecord *record,
                    const Holder *judged)
{
    if (key == nullptr || record == nullptr) {
        return Store::failed;
    }
    Holder before = {};
    const char *failure = nullptr;
    u32 ret = QOR_OK;
    L2ResOpRecord *stored = nullptr;
    if (LockAndFind(table, key, &stored)) {
        before = CopyOf(stored);
        if (judged != nullptr && !(before == *judged)) {
            ZIR_MutexUnlock(table.opMutex);
            return Store::overtaken;
        }
        if (stored != nullptr) {
            Overwrite(table, stored, *record, &failure);
        } else {
            ret = Insert(table, key, *record, &failure);
        }
        ZIR_MutexUnlock(table.opMutex);
    } else {
        failure = table.lines.noNode;
        ret = QOR_FAIL;
    }

    WriteSearch(table, key, before);
    WriteFailure(table, failure);
    if (ret != QOR_OK) {
        return Store::failed;
    }
    WriteLine(table.lines.stored, key, *record);
    return Store::done;
}

u32 RemoveOpRecord(const CommonTable &table, const void *key)
{
    if (key == nullptr) {
        return QOR_FAIL;
    }
    u32 ret = QOR_FAIL;
    if (*table.opHash != nullptr) {
        ZIR_MutexLock(table.opMutex);
        ret = HASH_RemoveElmtByKey(*table.opHash, key);
        ZIR_MutexUnlock(table.opMutex);
    }
    WriteLine(table.lines.removed, key, ret);
    return ret;
}

bool MarkReleased(const CommonTable &table, const void *key)
{
    Store result = Store::overtaken;
    while (result == Store::overtaken) {
        const Holder holder = FindHolder(table, key);
        if (!holder.exists) {
            return false;
        }
        L2ResOpRecord released = holder.record;
        released.Used = 0;
        result = StoreOpRecord(table, key, &released, &holder);
    }
    return true;
}

bool RemoveReleased(const CommonTable &table, const void *key, u32 *ret)
{
    Holder before = {};
    L2ResOpRecord *record = nullptr;
    if (LockAndFind(table, key, &record)) {
        before = CopyOf(record);
        if (before.exists) {
            *ret = HASH_RemoveElmtByKey(*table.opHash, key);
        }
        ZIR_MutexUnlock(table.opMutex);
    }
    WriteSearch(table, key, before);
    if (before.exists) {
        WriteLine(table.lines.removed, key, *ret);
    }
    return before.exists;
}
