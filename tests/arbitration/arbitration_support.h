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
#include <sstream>

#include "support/journal.h"
#include "support/sides.h"

constexpr u32 kAdd = L2RES_OP_ADD, kUpdate = L2RES_OP_UPDATE, kDelete = L2RES_OP_DELETE;

/* The walk of the worker; messages and callbacks with a mutex held are in order meanwhile. */
void Walk(unsigned ticks = 1);

/* Mutexes of the module that this thread holds. */
int HeldMutexes();
/* How often a table's mutex has been locked so far. */
unsigned TableLocks();

/* Starts the module with every service registered on both tables (callbacks write "notify SERVICE
   DATA" and then run `onNotify`, if set) and a count hook for ICIB_PP that reports a table not full. */
class Arbitration : public testing::Test {
protected:
    Arbitration();
    ~Arbitration() override;
    /* Runs `body` for either table, named in failures, from an empty journal; then removes what it
       left at the key of MakeKey() and looks whether anything else stays. */
    void ForBoth(const std::function<void(const Side &)> &body) const;
    /* Tables and memory as they were when empty. */
    void ExpectNothingLeft() const;
};
extern std::function<u32(u32 srv, void *record, void *data)> g_onNotify;
extern unsigned g_countHookCalls;

/* Removes all there is of a key. */
void Clean(const Side &side, const Key &key = MakeKey());

template <class... Parts> std::string Text(const Parts &...parts)
{
    std::ostringstream text;
    (text << ... << parts);
    return text.str();
}

/* Messages and notifications since the last call. */
journal::Lines TakeLines();
/* How many messages begin with that text after "level/category ". */
unsigned CountOf(const std::string &prefix);
/* What the services were told since the last call: " SERVICE DATA" each. */
std::string Notifications();

/* Runs `act` once, on the writing thread, when it writes the next message that begins so. */
void AtMessage(const std::string &prefix, std::function<void()> act);
/* Runs `act` once, when the thread that unlocks that mutex of a table next holds no mutex any more. */
void AtUnlock(const ZIR_Mutex *mutex, std::function<void()> act);
/* Forgets the points that have not been passed; otherwise each must be. */
void ForgetPoints();

#endif
