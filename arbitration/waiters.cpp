#include "arbitration/waiters.h"

#include <atomic>

#include "bounded.h"
#include "frame/dbg_log.h"
#include "frame/memory.h"
#include "l2rsm_registry.h"

namespace {

inline L2ResWaitList *ListOf(const CommonTable &table, void *node)
{
    return reinterpret_cast<L2ResWaitList *>(static_cast<u8 *>(node) + table.waitListOffset);
}

inline void *FindNode(const CommonTable &table, const void *key) QOR_REQUIRES(*table.waitMutex)
{
    return HASH_FindElmtFromFirst(*table.waitHash, key);
}

inline std::atomic_ref<u32> WaitNodes(const CommonTable &table)
{
    return std::atomic_ref(*table.waitNodes);
}

u32 InsertNode(const CommonTable &table, void *node) QOR_REQUIRES(*table.waitMutex)
{
    const u32 ret = HASH_AddNode(*table.waitHash, node, node, 0);
    if (ret == QOR_OK) {
        WaitNodes(table).fetch_add(1);
    }
    return ret;
}

// `hash` is the caller's: only what leaves the table itself counts.
u32 RemoveNode(const CommonTable &table, HASH_Handle hash, const void *key)
    QOR_REQUIRES(*table.waitMutex)
{
    const u32 ret = HASH_RemoveElmtByKey(hash, key);
    if (ret == QOR_OK && hash == *table.waitHash) {
        WaitNodes(table).fetch_sub(1);
    }
    return ret;
}

void WriteFailure(const CommonTable &table, const char *text)
{
    if (text != nullptr) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, table.lines.category, "%s", text);
    }
}

} // namespace

u32 CreateWaitTable(const CommonTable &table)
{
    *table.waitHash = HASH_CreateNew(QorL2ResGetMemPtNo(), table.waitNodeSize, kBucketCount,
                                     table.hash, table.compare, 0);
    if (*table.waitHash == nullptr) {
        WriteFailure(table, table.createWaitFailed);
        return QOR_FAIL;
    }
    (void)ZIR_MutexInit(table.waitMutex, nullptr);
    WaitNodes(table).store(0);
    return QOR_OK;
}

void *SearchWaitNode(const CommonTable &table, const void *key) QOR_NO_THREAD_SAFETY
{
    return key != nullptr ? FindNode(table, key) : nullptr;
}

namespace {

constexpr u32 kHandedOut = 0; // serial of an entry that has been notified

struct Request {
    const void *key;
    const L2ResOpRecord *record;
    const void *data;
    u16 dataLen;
    u32 srvType;
};

// 0, 1 when memory is short, or the copy's code; a buffer that was obtained is always stored.
u32 CopyData(const Request &request, void **copy)
{
    *copy = nullptr;
    if (request.dataLen == 0) {
        return QOR_OK;
    }
    *copy = QorL2ResMemAlloc(request.dataLen);
    if (*copy == nullptr) {
        return QOR_FAIL;
    }
    return static_cast<u32>(memcpy_s(*copy, request.dataLen, request.data, request.dataLen));
}

void FreeData(void **copy)
{
    if (*copy != nullptr) {
        (void)QorL2ResMemFree(*copy);
        *copy = nullptr;
    }
}

// Writes the record into the place behind the valid entries; the entry is not valid yet.
void StartEntry(L2ResWaitList *list, const Request &request)
{
    L2ResWaiter &entry = list->entry[list->reOpNum];
    (void)memcpy_s(&entry.op, sizeof entry.op, request.record, sizeof *request.record);
}

void CompleteEntry(const CommonTable &table, L2ResWaitList *list, const Request &request,
                   void *copy) QOR_REQUIRES(*table.waitMutex)
{
    L2ResWaiter &entry = list->entry[list->reOpNum];
    entry.data = copy;
    entry.srvType = request.srvType;
    if (++*table.lastSerial == kHandedOut) {
        ++*table.lastSerial;
    }
    entry.serial = *table.lastSerial;
    ++list->reOpNum;
}

u32 AppendToNode(const CommonTable &table, L2ResWaitList *list, const Request &request,
                 const char **failure) QOR_REQUIRES(*table.waitMutex)
{
    if (list->reOpNum >= L2RES_WAITERS_MAX) {
        return QOR_FAIL;
    }
    StartEntry(list, request);
    void *copy = nullptr;
    const u32 ret = CopyData(request, &copy);
    if (ret != QOR_OK) {
        *failure = copy != nullptr ? table.lines.appendFailed : nullptr;
        FreeData(&copy);
        return ret;
    }
    CompleteEntry(table, list, request, copy);
    return QOR_OK;
}

// A first waiter whose data cannot be copied is recorded all the same, with an emptied copy.
u32 AddNode(const CommonTable &table, const Request &request, const char **failure)
    QOR_REQUIRES(*table.waitMutex)
{
    void *node = HASH_NewData(*table.waitHash, 0);
    if (node == nullptr) {
        *failure = table.lines.noWaitNode;
        return QOR_FAIL;
    }
    (void)memset_s(node, table.waitNodeSize, 0, table.waitNodeSize);
    if (memcpy_s(node, table.waitNodeSize, request.key, table.keySize) != 0) {
        // Under a wrong key no release would ever find it.
        *failure = table.lines.firstFailed;
        HASH_FreeData(*table.waitHash, node);
        return QOR_FAIL;
    }
    L2ResWaitList *list = ListOf(table, node);
    StartEntry(list, request);
    void *copy = nullptr;
    if (CopyData(request, &copy) != QOR_OK) {
        if (copy == nullptr) {
            HASH_FreeData(*table.waitHash, node);
            return QOR_FAIL;
        }
        *failure = table.lines.firstFailed;
    }
    CompleteEntry(table, list, request, copy);
    list->walkCountdown = table.walkCountdown;
    if (InsertNode(table, node) != QOR_OK) {
        FreeData(&copy);
        HASH_FreeData(*table.waitHash, node);
        return QOR_FAIL;
    }
    return QOR_OK;
}

} // namespace

u32 AppendWaiter(const CommonTable &table, const void *key, const L2ResOpRecord &record,
                 const void *data, u16 dataLen, u32 srvType, u32 *serial)
{
    if (key == nullptr) {
        return QOR_FAIL;
    }
    const Request request = {key, &record, data, dataLen, srvType};
    const char *failure = nullptr;
    u16 reOpNum = 1;
    ZIR_MutexLock(table.waitMutex);
    u32 ret = QOR_OK;
    if (void *node = FindNode(table, key)) {
        L2ResWaitList *list = ListOf(table, node);
        ret = AppendToNode(table, list, request, &failure);
        reOpNum = list->reOpNum;
    } else {
        ret = AddNode(table, request, &failure);
    }
    if (serial != nullptr) {
        *serial = *table.lastSerial;
    }
    ZIR_MutexUnlock(table.waitMutex);

    WriteFailure(table, failure);
    if (ret == QOR_OK && table.lines.appended != nullptr) {
        table.lines.appended(record, reOpNum);
    }
    return ret;
}

namespace {

// Frees the data of every waiting request, latest first, and removes the node.
u32 EmptyNode(const CommonTable &table, L2ResWaitList *list, const void *key)
    QOR_REQUIRES(*table.waitMutex)
{
    while (list->reOpNum > 0) {
        --list->reOpNum;
        FreeData(&list->entry[list->reOpNum].data);
    }
    return RemoveNode(table, *table.waitHash, key);
}

// A full node stays as it is; one left empty by a failed removal is tried again.
u32 DropLatest(const CommonTable &table, L2ResWaitList *list, const void *key, HASH_Handle hash)
    QOR_REQUIRES(*table.waitMutex)
{
    if (list->reOpNum >= L2RES_WAITERS_MAX) {
        return QOR_FAIL;
    }
    if (list->reOpNum > 0) {
        L2ResWaiter &latest = list->entry[list->reOpNum - 1];
        (void)memset_s(&latest.op, sizeof latest.op, 0, sizeof latest.op);
        FreeData(&latest.data);
        --list->reOpNum;
    }
    return list->reOpNum == 0 ? RemoveNode(table, hash, key) : QOR_OK;
}

} // namespace

bool TakeBackWaiter(const CommonTable &table, const void *key, u32 serial)
{
    bool taken = false;
    ZIR_MutexLock(table.waitMutex);
    if (void *node = FindNode(table, key)) {
        L2ResWaitList *list = ListOf(table, node);
        u16 i = list->claimed;
        while (i < list->reOpNum && list->entry[i].serial != serial) {
            ++i;
        }
        if (i < list->reOpNum) {
            taken = true;
            FreeData(&list->entry[i].data);
            for (; i + 1 < list->reOpNum; ++i) {
                list->entry[i] = list->entry[i + 1];
            }
            --list->reOpNum;
            if (list->reOpNum == 0) { // so it is not claimed
                (void)RemoveNode(table, *table.waitHash, key);
            }
        }
    }
    ZIR_MutexUnlock(table.waitMutex);
    return taken;
}

namespace {

// Marks the entries from `first` to before `end` as handed out. Nobody writes them any more, so they
// can be read with the mutex free. Without its serial an entry cannot be taken back even when the
// release leaves it in the list.
inline void Claim(L2ResWaitList *list, u16 first, u16 end)
{
    list->claimed = end;
    for (u16 i = first; i < end; ++i) {
        list->entry[i].serial = kHandedOut;
    }
}

inline u32 Notify(const CommonTable &table, const L2ResWaiter &waiter, void *node)
{
    return QorL2ResNotifyWaitingProc(table.tableId, waiter.srvType, L2RES_EVENT_ENTRY_FREE, node,
                                     waiter.data);
}

u32 NoWaiters(const CommonTable &table, const void *key)
{
    if (table.lines.noWaiters != nullptr && LogIsAttached()) {
        table.lines.noWaiters(key);
    }
    return QOR_OK;
}

} // namespace

u32 ReleaseWaiters(const CommonTable &table, const void *key)
{
    if (WaitNodes(table).load() == 0) { // most releases: spares the mutex
        return NoWaiters(table, key);
    }
    u32 ret = QOR_OK;
    ZIR_MutexLock(table.waitMutex);
    void *node = FindNode(table, key);
    if (node == nullptr) {
        ZIR_MutexUnlock(table.waitMutex);
        return NoWaiters(table, key);
    }
    L2ResWaitList *list = ListOf(table, node);
    if (list->claimed != 0) {
        ZIR_MutexUnlock(table.waitMutex);
        return QOR_OK;
    }
    // Round by round until nothing is left: what is appended meanwhile is notified as well.
    for (u16 i = 0; i < list->reOpNum;) {
        const u16 end = list->reOpNum;
        Claim(list, i, end);
        ZIR_MutexUnlock(table.waitMutex);
        for (; i < end; ++i) { // no lock held
            const L2ResWaiter &waiter = list->entry[i];
            ret = Notify(table, waiter, node);
            if (LogIsAttached()) {
                table.lines.notified(key, waiter.srvType, ret);
            }
        }
        ZIR_MutexLock(table.waitMutex);
    }
    list->claimed = 0;
    (void)(table.releaseEmptiesList ? EmptyNode(table, list, key)
                                    : DropLatest(table, list, key, *table.waitHash));
    ZIR_MutexUnlock(table.waitMutex);
    return ret;
}

u32 RemoveAllWaiters(const CommonTable &table, const void *key)
{
    u32 ret = QOR_OK;
    ZIR_MutexLock(table.waitMutex);
    void *node = FindNode(table, key);
    if (node != nullptr && ListOf(table, node)->claimed == 0) {
        ret = EmptyNode(table, ListOf(table, node), key);
    }
    ZIR_MutexUnlock(table.waitMutex);
    return ret;
}

u32 RemoveLatestWaiter(const CommonTable &table, const void *key, HASH_Handle hash)
{
    u32 ret = QOR_OK;
    ZIR_MutexLock(table.waitMutex);
    void *node = FindNode(table, key);
    if (node != nullptr && ListOf(table, node)->claimed == 0) {
        ret = DropLatest(table, ListOf(table, node), key, hash);
    }
    ZIR_MutexUnlock(table.waitMutex);
    return ret;
}

namespace {

void WalkNode(const CommonTable &table, void *node) QOR_REQUIRES(*table.waitMutex)
{
    L2ResWaitList *list = ListOf(table, node);
    if (list->claimed != 0 || (list->walkCountdown >= 1 && --list->walkCountdown != 0)) {
        return;
    }
    // The mutex stays held: the element the walk stands on must not go away under a callback.
    for (u16 i = 0; i < list->reOpNum; ++i) {
        Claim(list, i, static_cast<u16>(i + 1));
        const L2ResWaiter &waiter = list->entry[i];
        const u32 ret = Notify(table, waiter, node);
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, table.lines.category,
                            "Notify Available, srvType:%d ,ret:%u.", waiter.srvType, ret);
    }
    list->claimed = 0;
    if (EmptyNode(table, list, node) != QOR_OK) {
        ZIR_MutexUnlock(table.waitMutex);
        WriteFailure(table, "QorL2ResIcibReOpHashWalk Free ReopHash Fail.");
        ZIR_MutexLock(table.waitMutex);
    }
}

} // namespace

void WalkWaiters(const CommonTable &table)
{
    if (*table.waitHash == nullptr) {
        return;
    }
    ZIR_MutexLock(table.waitMutex);
    for (HASH_Element *element = HASH_GetFirstNode(*table.waitHash); element != nullptr;
         element = HASH_GetNextNode(*table.waitHash)) {
        WalkNode(table, element->node);
    }
    ZIR_MutexUnlock(table.waitMutex);
}

u16 CopyWaiters(const CommonTable &table, const void *key, bool *exists,
                L2ResOpRecord (&out)[L2RES_WAITERS_MAX])
{
    u16 count = 0;
    ZIR_MutexLock(table.waitMutex);
    void *node = FindNode(table, key);
    *exists = node != nullptr;
    if (node != nullptr) {
        const L2ResWaitList *list = ListOf(table, node);
        count = list->reOpNum;
        for (u16 i = 0; i < count && i < L2RES_WAITERS_MAX; ++i) {
            out[i] = list->entry[i].op;
        }
    }
    ZIR_MutexUnlock(table.waitMutex);
    return count;
}
