/*
 * One step at a time: clients whose every call to the platform is a point at which another may go on.
 *
 * The executable defines the platform's mutexes, hash tables and memory itself, as plain ones in which
 * one client runs at a time. A client that wants a mutex of another's cannot run until it is free. What
 * is given back is overwritten and set aside until the run is over, so a late write is seen, and
 * a late read by its pattern or by ASan.
 *
 * A run is told by its choices: which way at each point that has more than one. Way 0 is to go on, or,
 * where a client cannot, the next one that can. To leave a client that could go on is a preemption;
 * a run has at most so many.
 */
#ifndef TESTS_SCHEDULES_SCHEDULER_H
#define TESTS_SCHEDULES_SCHEDULER_H

#include <functional>
#include <string>

#include "hash_table.h"
#include "zir_mutex.h"

namespace scheduler {

constexpr int kClients = 3, kMain = kClients; /* kMain, the test itself, runs between the runs */

/* Who runs. */
int Now();

/* A point at which another may go on. A search may try those between two steps of a call only. `text`
   stays as it is. */
void At(const char *text, const void *object = nullptr, bool betweenSteps = false);

/* What is wrong with this run; the first one counts. */
void Fail(const std::string &reason);

struct Search {
    int clients;
    bool stepsOnly; /* at points between steps, else at all */
    unsigned preemptions;
    std::string replay;                 /* if not "": this schedule only */
    std::function<void()> reset, check; /* before and after each run, which gives all memory back */
    std::function<void(int)> client;
};

/*
 * Runs every schedule, depth first, until one fails; how many. A failure may leave clients where they
 * are: then the process can explore no more.
 */
unsigned long Explore(const Search &search);

/* Why the last run failed, "" if it did not; its schedule; its steps, one a line. */
const std::string &Failure();
std::string Schedule();
std::string Steps();

/* Names an object in the steps; a table with the mutex that guards it. */
void Name(const void *object, const std::string &name);
void Name(HASH_Handle table, ZIR_Mutex *mutex, const std::string &name);

} // namespace scheduler

#endif
