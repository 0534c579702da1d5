/*
 * Both common tables under one interface, and the points at which a test may act "on another
 * thread": at a message and at the release of a mutex.
 *
 * The executable defines QorL2ResDbgWriteLog, ZIR_MutexLock and ZIR_MutexUnlock, which come before
 * the module's and the platform's. A message appears in the journal as "level/category text", and
 * one that is written with a mutex held fails the test, except inside Walk().
 */
#ifndef TESTS_ARBITRATION_SUPPORT_H
#define TESTS_ARBITRATION_SUPPORT_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "arbitration/icib.h"
#include "arbitration/ipat.h"
#include "l2rsm_registry.h"
#include "support/journal.h"

constexpr u32 kAdd = L2RES_OP_ADD, kUpdate = L2RES_OP_UPDATE, kDelete = L2RES_OP_DELETE;

/* A key of either table. Keys of one bucket differ in `other` only. */
struct Key {
    L2ResIcibKey icib;
    L2ResIpatKey ipat;
};
Key MakeKey(u16 bucket = 100, u32 other = 5);

struct Ask {
    u32 srv;
    u16 fwd;
    u64 stamp;
    std::string data = {};
};

/* One common table. */
struct Side {
    const char *name;
    u32 tableId;
    HASH_Handle *opHash, *waitHash;
    ZIR_Mutex *opMutex, *waitMutex;
    u32 (*getToken)(u32, u32, L2ResTokenReq *);
    u32 (*freeToken)(u32, u32, L2ResTokenReq *);
    bool icib;

    u32 Get(u32 op, const Ask &ask, const Key &key = MakeKey()) const;
    u32 Free(u32 op, const Key &key = MakeKey(), u32 srv = 1) const;
    const void *Of(const Key &key) const;
    /* The record functions by their exported names. */
    u32 Store(const L2ResOpRecord &record, const Key &key = MakeKey()) const;
    u32 DeleteRecord(const Key &key = MakeKey()) const;
    u32 Append(const Ask &ask, const void *data, u16 dataLen, const Key &key = MakeKey()) const;
    u32 DeleteWaiting(const Key &key = MakeKey()) const;
    /* What is stored, read without a message; null when there is nothing. */
    const L2ResOpRecord *Record(const Key &key = MakeKey()) const;
    L2ResWaitList *Waiting(const Key &key = MakeKey()) const;
    unsigned WaitingCount(const Key &key = MakeKey()) const;
    /* Removes all there is of a key. */
    void Clean(const Key &key = MakeKey()) const;
};
extern const Side kIcib, kIpat;

/* Runs the whole of `body` for either table, named in failures. */
void ForBoth(const std::function<void(const Side &)> &body);

/* The walk of the worker; messages and callbacks with a mutex held are in order meanwhile. */
void Walk(unsigned ticks = 1);

/* Mutexes of the module that this thread holds. */
int HeldMutexes();

/* Starts the module with every service registered on both tables (callbacks write "notify SERVICE
   DATA" and then run `onNotify`, if set) and a count hook for ICIB_PP that reports a table not full. */
class Arbitration : public testing::Test {
protected:
    Arbitration();
    ~Arbitration() override;
    /* Live blocks, and nodes and buffers of the four hash tables, as they were when empty. */
    void ExpectNothingLeft() const;
};
extern std::function<u32(u32 srv, void *record, void *data)> g_onNotify;
extern unsigned g_countHookCalls;

/* Messages and notifications since the last call. */
journal::Lines TakeLines();
/* How many messages begin with that text after "level/category ". */
unsigned CountOf(const std::string &prefix);

/* Runs `act` once, on the writing thread, when it writes the nth message that begins so. */
void AtMessage(const std::string &prefix, std::function<void()> act, unsigned nth = 1);
/* Runs `act` once, just after the nth unlocking of that mutex from now. */
void AtUnlock(const ZIR_Mutex *mutex, std::function<void()> act, unsigned nth = 1);

L2ResTokenReq Request(const Side &side, const Ask &ask, const Key &key);

#endif
