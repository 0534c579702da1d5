/*
 * Platform calls that fail on demand, are counted, recorded and observed.
 *
 * Linked into an executable with l2rsm_add_test(... FAULTS ...), this defines the platform functions
 * listed below (and epoll_wait) in the executable, so that the module's calls come here first; each
 * forwards to the platform unless a plan says otherwise. Calls that the platform makes itself are
 * forwarded unseen; the test's own calls are seen like the module's.
 *
 *     faults::Fail(Op::HASH_NewData);            the next call fails as the platform would
 *     faults::Fail(Op::QorEpollQueWrite, 3, 77); the third call from now on returns 77
 *     for (unsigned n = 1; ; ++n) {              every call of some operations fails once
 *         faults::FailOverall(n, operations);
 *         ...                                    act, check that nothing leaked, undo
 *         if (faults::Failed() == 0) break;      there is no n-th call any more
 *     }
 *
 * A failing call does nothing but return its result: null, -1 (the formatting calls and the three
 * descriptor calls), 0 (QorEpollQueRead and QorEpollQueGetMsgNum) or else 1; the bounded calls empty
 * their destination, COMP_GetVTable stores null. Any thread may call; without a plan a call costs
 * one relaxed increment.
 */
#ifndef TESTS_SUPPORT_FAULTS_H
#define TESTS_SUPPORT_FAULTS_H

#include <functional>
#include <initializer_list>
#include <optional>
#include <set>
#include <vector>

#include "qor_epoll.h"
#include "qor_types.h"
#include "zir_timer.h"

/* Those that can fail, then one that is only counted, recorded and observed. */
// clang-format off
#define FAULTS_OPERATIONS(X) \
    X(ZIR_HandleInitialize) X(ZIR_MemAlloc) X(ZIR_MemFree) X(ZIR_MutexInit) \
    X(ZIR_ReltmrCbkStart) X(ZIR_ReltmrStop) X(HASH_CreateNew) X(HASH_NewData) \
    X(HASH_AddNode) X(HASH_RemoveElmtByKey) X(COMP_RegisterComponentInfo) X(COMP_GetVTable) \
    X(memcpy_s) X(memset_s) X(strcpy_s) X(strcat_s) X(sprintf_s) X(snprintf_s) \
    X(vsnprintf_s) X(epoll_create_s) X(close_s) X(epoll_wait) X(QorEpollTaskCreate) \
    X(QorEpollQueCreate) X(QorEpollQueCtl) X(QorEpollQueDelete) X(QorEpollQueGetMsgNum) \
    X(QorEpollQueWrite) X(QorEpollQueRead) X(QOR_Epoll_EvtProc) X(HASH_DeleteHash)
// clang-format on

namespace faults {

enum class Op {
#define X(name) name,
    FAULTS_OPERATIONS(X)
#undef X
        kCount
};

const char *Name(Op op);

/* Lets the nth call from now (1 the next one) fail, with that result. */
void Fail(Op op, unsigned nth = 1, std::optional<long long> result = {});

/* Lets the nth call from now of any of these operations fail. */
void FailOverall(unsigned nth, const std::set<Op> &operations);

/* The operation last made to fail since Fail, FailOverall or Reset; kCount: none. */
Op FailedOp();
/* Whether there is one: 1 or 0. */
unsigned Failed();

/* Calls since the process started. */
unsigned long Calls(Op op);

/* Writes calls of these operations to the journal as kCall entries: the name, and for some the
   arguments that tell calls apart (faults.cpp), "close_s", "ZIR_MemAlloc 40". */
void Record(std::initializer_list<Op> operations);

/* Called at the very beginning of every call, before it is failed or forwarded. May call the module;
   what it calls in turn is not observed. Empty: nobody. */
void Observe(std::function<void(Op)> observer);

/* No plan, no record, no observer. */
void Reset();

} // namespace faults

/* Timers that only the test moves. */
namespace timers {

struct Timer {
    ZIR_TimerHandle *handle;
    u32 memHandle;
    u32 periodMs;
    u32 parameter;
    void *context;
    u32 mode;
    ZIR_TimerCallback callback;
    bool running;
    bool operator==(const Timer &) const = default;
};

/* From now on started timers are kept here instead of being started; stopping one is written to the
   journal as a kCall entry with its period, "stopped 1000". */
void Capture();
std::vector<Timer> All();
/* Runs, in start order, the callbacks of the running timers of that period. */
void Tick(u32 periodMs);

} // namespace timers

/* The worker's queue without its task: messages are handled when the test says so. */
namespace worker {

/* Creates an epoll instance and the module's queue in it. */
void Open();
/* The record that the module attached to its queue last, or null. */
QorQueueContext *Context();
/* Handles one message; false when there was none. */
bool Step();
/* Handles all that wait; how many. */
unsigned Drain();

} // namespace worker

#endif
