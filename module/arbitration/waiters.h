/*
 * Waiting requests: who wants an entry that somebody holds. One implementation for both tables.
 *
 * States of an entry's list: none, waiting, claimed (a release or the walk is notifying it). Only the
 * claimer removes a claimed list; an entry already handed out is never moved.
 */
#ifndef ARBITRATION_WAITERS_H
#define ARBITRATION_WAITERS_H

#include "arbitration/tables.h"

/* Creates hash table and mutex: 0 or 1. */
u32 CreateWaitTable(const CommonTable &table);

constexpr u32 kHandedOut = 0; /* serial of an entry that has been notified */

inline L2ResWaitList *ListOf(const CommonTable &table, void *node)
{
    return reinterpret_cast<L2ResWaitList *>(static_cast<u8 *>(node) + table.waitListOffset);
}

/* Whoever comes for the mutex is counted, so that the walk can give way to him. */
void LockWaiters(const CommonTable &table) QOR_ACQUIRE(*table.waitMutex);

/*
 * The head of every operation: locks the table and finds the entry's node, null when there is none.
 * False, with nothing locked, while there is no table.
 */
bool LockAndFindWaiters(const CommonTable &table, const void *key, void **node)
    QOR_TRY_ACQUIRE(true, *table.waitMutex);

/*
 * Takes out what a release of the table takes out, told or not: all requests, or the latest unless the
 * list is full; with the last one the node goes from `hash`. The removal's result.
 */
u32 DropWaiters(const CommonTable &table, void *node, HASH_Handle hash)
    QOR_REQUIRES(*table.waitMutex);

/* The search without a line: a node, or null. */
void *SearchWaitNode(const CommonTable &table, const void *key);

/*
 * Appends a waiting request with a copy of its data. 0 with *serial set (unless null), 1 when it is
 * not recorded (null key or record, ten are waiting, no memory), or the failed copy's code.
 */
u32 AppendWaiter(const CommonTable &table, const void *key, const L2ResOpRecord *record,
                 const void *data, u16 dataLen, u32 srvType, u32 *serial);

/* Takes a request back that nobody has been notified of. False: it was handed out already. */
bool TakeBackWaiter(const CommonTable &table, const void *key, u32 serial);

/*
 * Notifies the key's waiting requests in arrival order, no mutex held but the caller's, then removes
 * them as the table does. The last callback's result; 0 when there is none or another release is at it.
 */
u32 ReleaseWaiters(const CommonTable &table, const void *key);

/* DropWaiters, by a key: 0 also when nobody waits or the list is claimed. */
u32 RemoveWaiters(const CommonTable &table, const void *key, HASH_Handle hash);

/*
 * One tick of the timed release: counts down every unclaimed node and notifies those that run out,
 * with the table's mutex held. It gives the mutex back, and way to those who wait for it in the
 * module's functions, after each node that was due and after so many others. A tick with nobody waiting
 * touches nothing.
 *
 * A table has one iteration position. Whoever else iterates it holds its mutex from the first node to
 * the last, so the walk does not derail him; him derailing the walk shows in the nodes, each of which
 * carries the tick that visited it, and the walk goes over the table again for the rest. A node that
 * comes during a tick counts as visited: its countdown begins with the next one.
 */
void WalkWaiters(const CommonTable &table);

/* Copies the requests waiting for a key: their number, 0 when there is no node. */
u16 CopyWaiters(const CommonTable &table, const void *key, bool *exists,
                L2ResOpRecord (&out)[L2RES_WAITERS_MAX]);

#endif
