#include "arbitration/waiters.h"

#include <thread>

#include "bounded.h"
#include "frame/memory.h"
#include "l2rsm_registry.h"

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

namespace {

inline L2ResWaitList *ListOf(const CommonTable &table, void *node)
{
    return reinterpret_cast<L2ResWaitList *>(static_cast<u8 *>(node) + table.waitListOffset);
}

// Whoever comes for the mutex is counted, so that the walk can give way to him.
void Lock(const CommonTable &table) QOR_ACQUIRE(*table.waitMutex)
{
    ++table.wait->arrived;
    ZIR_MutexLock(table.waitMutex);
    ++table.wait->passed;
}

// The head of every operation: locks the table and finds the entry's node, null when there is none.
// False, with nothing locked, while there is no table.
bool LockAndFind(const CommonTable &table, const void *key, void **node)
    QOR_TRY_ACQUIRE(true, *table.waitMutex)
{
    *node = nullptr;
    if (*table.waitHash == nullptr) {
        return false;
    }
    Lock(table);
    *node = HASH_FindElmtFromFirst(*table.waitHash, key);
    return true;
}

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
    if (key != nullptr && LockAndFind(table, key, &node)) {
        ZIR_MutexUnlock(table.waitMutex);
    }
    return node;
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
    if (LockAndFind(table, key, &node)) {
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
    if (ret == QOR_OK && table.lines.appended != nullptr) {
        table.lines.appended(*record, reOpNum);
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
    if (!LockAndFind(table, key, &node)) {
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

// Round by round until nothing is left: what is appended meanwhile is notified as well. The mutex is
// held before and after, and free while a callback runs.
u32 NotifyAll(const CommonTable &table, void *node) QOR_REQUIRES(*table.waitMutex)
{
    u32 ret = QOR_OK;
    L2ResWaitList *list = ListOf(table, node);
    for (u16 i = 0; i < list->reOpNum;) {
        const u16 end = list->reOpNum;
        Claim(list, i, end);
        ZIR_MutexUnlock(table.waitMutex);
        for (; i < end; ++i) {
            const L2ResWaiter &waiter = list->entry[i];
            ret = Notify(table, waiter, node);
            table.lines.notified(node, waiter.srvType, ret);
        }
        Lock(table);
    }
    list->claimed = 0;
    return ret;
}

u32 NoWaiters(const CommonTable &table, const void *key)
{
    if (table.lines.noWaiters != nullptr) {
        table.lines.noWaiters(key);
    }
    return QOR_OK;
}

} // namespace

u32 ReleaseWaiters(const CommonTable &table, const void *key)
{
    void *node = nullptr;
    if (table.wait->nodes == 0 || !LockAndFind(table, key, &node)) { // most releases
        return NoWaiters(table, key);
    }
    if (node == nullptr) {
        ZIR_MutexUnlock(table.waitMutex);
        return NoWaiters(table, key);
    }
    u32 ret = QOR_OK;
    if (ListOf(table, node)->claimed == 0) {
        ret = NotifyAll(table, node);
        (void)(table.releaseEmptiesList ? EmptyNode(table, node)
                                        : DropLatest(table, node, *table.waitHash));
    }
    ZIR_MutexUnlock(table.waitMutex);
    return ret;
}

u32 RemoveWaiters(const CommonTable &table, const void *key, HASH_Handle hash)
{
    u32 ret = QOR_OK;
    void *node = nullptr;
    if (LockAndFind(table, key, &node)) {
        if (node != nullptr && ListOf(table, node)->claimed == 0) {
            ret = table.releaseEmptiesList ? EmptyNode(table, node) : DropLatest(table, node, hash);
        }
        ZIR_MutexUnlock(table.waitMutex);
    }
    return ret;
}

namespace {

constexpr u32 kVisitsAHold = 1024; // some tens of microseconds
constexpr u32 kPatience = 1000;    // yields; a fraction of a millisecond

// With the mutex free until one of those who wait for it has had it: without that, a walk that takes
// it again at once would keep a sleeping thread out for as long as it lasts. `failure`: a line or null.
void GiveWay(const CommonTable &table, const char *failure) QOR_REQUIRES(*table.waitMutex)
{
    const WaitState &wait = *table.wait;
    const u32 passed = wait.passed;
    const bool wanted = wait.arrived != passed;
    ZIR_MutexUnlock(table.waitMutex);
    WriteFailure(table, failure);
    for (u32 i = 0; wanted && wait.passed == passed && i < kPatience; ++i) {
        std::this_thread::yield();
    }
    ZIR_MutexLock(table.waitMutex);
}

// Notifies a node's requests, the mutex held: the element the walk stands on must not go away under a
// callback. Then they go, and the mutex is given back.
void ReleaseDue(const CommonTable &table, void *node) QOR_REQUIRES(*table.waitMutex)
{
    L2ResWaitList *list = ListOf(table, node);
    for (u16 i = 0; i < list->reOpNum; ++i) {
        Claim(list, i, static_cast<u16>(i + 1));
        const L2ResWaiter &waiter = list->entry[i];
        const u32 ret = Notify(table, waiter, node);
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, table.lines.category,
                            "Notify Available, srvType:%d ,ret:%u.", waiter.srvType, ret);
    }
    list->claimed = 0;
    const bool removed = EmptyNode(table, node) == QOR_OK;
    GiveWay(table, removed ? nullptr : "QorL2ResIcibReOpHashWalk Free ReopHash Fail.");
}

// Counts a node down, once a tick. True: its requests are due.
bool CountDown(const CommonTable &table, L2ResWaitList *list) QOR_REQUIRES(*table.waitMutex)
{
    if (list->tick == table.wait->tick) {
        return false;
    }
    list->tick = table.wait->tick;
    --table.wait->unvisited;
    return list->claimed == 0 && (list->walkCountdown < 1 || --list->walkCountdown == 0);
}

void VisitAll(const CommonTable &table, u32 visitsAHold) QOR_REQUIRES(*table.waitMutex)
{
    u32 visits = 0;
    for (HASH_Element *element = HASH_GetFirstNode(*table.waitHash); element != nullptr;
         element = HASH_GetNextNode(*table.waitHash)) {
        void *node = element->node;
        if (CountDown(table, ListOf(table, node))) {
            ReleaseDue(table, node);
        } else if (++visits % visitsAHold == 0) {
            GiveWay(table, nullptr);
        }
    }
}

} // namespace

void WalkWaiters(const CommonTable &table)
{
    WaitState &wait = *table.wait;
    if (*table.waitHash == nullptr || wait.nodes == 0) {
        return;
    }
    ZIR_MutexLock(table.waitMutex);
    ++wait.tick;
    wait.unvisited = wait.nodes;
    VisitAll(table, kVisitsAHold);
    // Somebody else iterated meanwhile and moved the position: once more, for the rest, in one hold.
    for (u32 left = wait.nodes + 1; wait.unvisited != 0 && wait.unvisited < left;) {
        left = wait.unvisited;
        VisitAll(table, wait.nodes + 1);
    }
    ZIR_MutexUnlock(table.waitMutex);
}

u16 CopyWaiters(const CommonTable &table, const void *key, bool *exists,
                L2ResOpRecord (&out)[L2RES_WAITERS_MAX])
{
    u16 count = 0;
    void *node = nullptr;
    *exists = false;
    if (LockAndFind(table, key, &node)) {
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
