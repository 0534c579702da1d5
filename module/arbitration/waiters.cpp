#include "arbitration/waiters.h"

#include "bounded.h"
#include "frame/memory.h"

u32 CreateWaitTable(const CommonTable &table)
{
    *table.waitHash = HASH_CreateNew(QorL2ResGetMemPtNo(), table.waitNodeSize, kBucketCount,
                                     table.hash, table.compare, 0);
    if (*table.waitHash == nullptr) {
        WriteFailure(table, table.createWaitFailed);
        return QOR_FAIL;
    }
    (void)ZIR_MutexInit(table.waitMutex, nullptr);
    table.wait->nodes = 0;
    return QOR_OK;
}

void LockWaiters(const CommonTable &table)
{
    ++table.wait->arrived;
    ZIR_MutexLock(table.waitMutex);
    ++table.wait->passed;
}

bool LockAndFindWaiters(const CommonTable &table, const void *key, void **node)
{
    *node = nullptr;
    if (*table.waitHash == nullptr) {
        return false;
    }
    LockWaiters(table);
    *node = HASH_FindElmtFromFirst(*table.waitHash, key);
    return true;
}

namespace {

u32 InsertNode(const CommonTable &table, void *node) QOR_REQUIRES(*table.waitMutex)
{
    // Its countdown begins with the next tick.
    ListOf(table, node)->tick = table.wait->tick;
    const u32 ret = HASH_AddNode(*table.waitHash, node, node, 0);
    if (ret == QOR_OK) {
        ++table.wait->nodes;
    }
    return ret;
}

// By the node's own key: the caller's may hold another one since foreign code has run. `hash` is the
// caller's, too: only what leaves the table itself counts.
u32 RemoveNode(const CommonTable &table, HASH_Handle hash, void *node)
    QOR_REQUIRES(*table.waitMutex)
{
    const bool unvisited = ListOf(table, node)->tick != table.wait->tick;
    const u32 ret = HASH_RemoveElmtByKey(hash, node);
    if (ret == QOR_OK && hash == *table.waitHash) {
        --table.wait->nodes;
        table.wait->unvisited -= unvisited ? 1 : 0;
    }
    return ret;
}

} // namespace

void *SearchWaitNode(const CommonTable &table, const void *key)
{
    void *node = nullptr;
    if (key != nullptr && LockAndFindWaiters(table, key, &node)) {
        ZIR_MutexUnlock(table.waitMutex);
    }
    return node;
}

namespace {

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
    u32 &serial = table.wait->lastSerial;
    if (++serial == kHandedOut) {
        ++serial;
    }
    entry.serial = serial;
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

u32 AppendWaiter(const CommonTable &table, const void *key, const L2ResOpRecord *record,
                 const void *data, u16 dataLen, u32 srvType, u32 *serial)
{
    if (key == nullptr || record == nullptr) {
        return QOR_FAIL;
    }
    const Request request = {key, record, data, dataLen, srvType};
    const char *failure = nullptr;
    u16 reOpNum = 1;
    u32 ret = QOR_OK;
    void *node = nullptr;
    if (LockAndFindWaiters(table, key, &node)) {
        if (node != nullptr) {
            L2ResWaitList *list = ListOf(table, node);
            ret = AppendToNode(table, list, request, &failure);
            reOpNum = list->reOpNum;
        } else {
            ret = AddNode(table, request, &failure);
        }
        if (serial != nullptr) {
            *serial = table.wait->lastSerial;
        }
        ZIR_MutexUnlock(table.waitMutex);
    } else {
        failure = table.lines.noWaitNode;
        ret = QOR_FAIL;
    }

    WriteFailure(table, failure);
    if (ret == QOR_OK) {
        WriteLine(table.lines.appended, *record, reOpNum);
    }
    return ret;
}

namespace {

// Frees the data of every waiting request, latest first, and removes the node.
u32 EmptyNode(const CommonTable &table, void *node) QOR_REQUIRES(*table.waitMutex)
{
    L2ResWaitList *list = ListOf(table, node);
    while (list->reOpNum > 0) {
        --list->reOpNum;
        FreeData(&list->entry[list->reOpNum].data);
    }
    return RemoveNode(table, *table.waitHash, node);
}

// A full node stays as it is; one left empty by a failed removal is tried again.
u32 DropLatest(const CommonTable &table, void *node, HASH_Handle hash)
    QOR_REQUIRES(*table.waitMutex)
{
    L2ResWaitList *list = ListOf(table, node);
    if (list->reOpNum >= L2RES_WAITERS_MAX) {
        return QOR_FAIL;
    }
    if (list->reOpNum > 0) {
        L2ResWaiter &latest = list->entry[list->reOpNum - 1];
        (void)memset_s(&latest.op, sizeof latest.op, 0, sizeof latest.op);
        FreeData(&latest.data);
        --list->reOpNum;
    }
    return list->reOpNum == 0 ? RemoveNode(table, hash, node) : QOR_OK;
}

} // namespace

u32 DropWaiters(const CommonTable &table, void *node, HASH_Handle hash)
{
    return table.releaseEmptiesList ? EmptyNode(table, node) : DropLatest(table, node, hash);
}

namespace {

// An entry of the list goes, those behind it move up.
void TakeOut(L2ResWaitList *list, u16 place)
{
    FreeData(&list->entry[place].data);
    for (u16 i = place; i + 1 < list->reOpNum; ++i) {
        list->entry[i] = list->entry[i + 1];
    }
    --list->reOpNum;
}

} // namespace

bool TakeBackWaiter(const CommonTable &table, const void *key, u32 serial)
{
    bool taken = false;
    void *node = nullptr;
    if (!LockAndFindWaiters(table, key, &node)) {
        return false;
    }
    L2ResWaitList *list = node != nullptr ? ListOf(table, node) : nullptr;
    for (u16 i = 0; list != nullptr && !taken && i < list->reOpNum; ++i) {
        if (list->entry[i].serial == serial) {
            taken = true;
            TakeOut(list, i);
        }
    }
    if (taken && list->reOpNum == 0) { // so it is not claimed
        (void)RemoveNode(table, *table.waitHash, node);
    }
    ZIR_MutexUnlock(table.waitMutex);
    return taken;
}

u32 RemoveWaiters(const CommonTable &table, const void *key, HASH_Handle hash)
{
    u32 ret = QOR_OK;
    void *node = nullptr;
    if (LockAndFindWaiters(table, key, &node)) {
        if (node != nullptr && ListOf(table, node)->claimed == 0) {
            ret = DropWaiters(table, node, hash);
        }
        ZIR_MutexUnlock(table.waitMutex);
    }
    return ret;
}

u16 CopyWaiters(const CommonTable &table, const void *key, bool *exists,
                L2ResOpRecord (&out)[L2RES_WAITERS_MAX])
{
    u16 count = 0;
    void *node = nullptr;
    *exists = false;
    if (LockAndFindWaiters(table, key, &node)) {
        *exists = node != nullptr;
        if (node != nullptr) {
            const L2ResWaitList *list = ListOf(table, node);
            count = list->reOpNum;
            for (u16 i = 0; i < count && i < L2RES_WAITERS_MAX; ++i) {
                out[i] = list->entry[i].op;
            }
        }
        ZIR_MutexUnlock(table.waitMutex);
    }
    return count;
}
