/* How waiting requests are told: by the release of their entry, and by the walk. */
#include <thread>

#include "arbitration/waiters.h"
#include "l2rsm_registry.h"

namespace {

// Marks the entries from `first` to before `end` as handed out. Nobody writes them any more, so they
// can be read with the mutex free. Without its serial an entry cannot be taken back even when the
// release leaves it in the list.
inline void Claim(L2ResWaitList *list, u16 first, u16 end)
{
    list->claimed = 1;
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
            WriteLine(table.lines.notified, node, waiter.srvType, ret);
        }
        LockWaiters(table);
    }
    list->claimed = 0;
    return ret;
}

u32 NoWaiters(const CommonTable &table, const void *key)
{
    WriteLine(table.lines.noWaiters, key);
    return QOR_OK;
}

} // namespace

u32 ReleaseWaiters(const CommonTable &table, const void *key)
{
    void *node = nullptr;
    if (table.wait->nodes == 0 || !LockAndFindWaiters(table, key, &node)) { // most releases
        return NoWaiters(table, key);
    }
    if (node == nullptr) {
        ZIR_MutexUnlock(table.waitMutex);
        return NoWaiters(table, key);
    }
    u32 ret = QOR_OK;
    if (ListOf(table, node)->claimed == 0) {
        ret = NotifyAll(table, node);
        (void)DropWaiters(table, node, *table.waitHash);
    }
    ZIR_MutexUnlock(table.waitMutex);
    return ret;
}

namespace {

constexpr u32 kVisitsAHold = 1024; // some tens of microseconds
constexpr u32 kYields = 1000;      // a fraction of a millisecond
constexpr u32 kPatience = 100;     // a thread that cannot run must not hold up a tick for long

// With the mutex free until one of those who wait for it has had it: without that, a walk that takes
// it again at once would keep a sleeping thread out for as long as it lasts. `failure`: a line or null.
void GiveWay(const CommonTable &table, const char *failure) QOR_REQUIRES(*table.waitMutex)
{
    WaitState &wait = *table.wait;
    const u32 passed = wait.passed;
    u32 yields = wait.arrived != passed && wait.patience != 0 ? kYields : 0;
    const bool waits = yields != 0;
    ZIR_MutexUnlock(table.waitMutex);
    WriteFailure(table, failure);
    for (; yields != 0 && wait.passed == passed; --yields) {
        std::this_thread::yield();
    }
    ZIR_MutexLock(table.waitMutex);
    wait.patience -= waits && yields == 0 ? 1 : 0;
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
    const bool removed = DropWaiters(table, node, *table.waitHash) == QOR_OK;
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

// Goes over the table, or over as many nodes as it has: the position may be moved back meanwhile.
void VisitAll(const CommonTable &table, u32 visitsAHold) QOR_REQUIRES(*table.waitMutex)
{
    const u32 most = table.wait->nodes;
    u32 visits = 0;
    for (HASH_Element *element = HASH_GetFirstNode(*table.waitHash);
         element != nullptr && visits <= most; element = HASH_GetNextNode(*table.waitHash)) {
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
    wait.patience = kPatience;
    VisitAll(table, kVisitsAHold);
    // Somebody else iterated meanwhile and moved the position: again, without a pause between nodes
    // that are not due, until all have been visited.
    for (u32 left = wait.nodes + 1; wait.unvisited != 0 && wait.unvisited < left;) {
        left = wait.unvisited;
        VisitAll(table, wait.nodes + 1);
    }
    ZIR_MutexUnlock(table.waitMutex);
}
