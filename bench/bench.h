/*
 * What the benchmarks share: the module under test, its services, keys, and checks.
 *
 * The module and the platform are the real ones. Services only count what they are handed, per
 * thread, so that they cost next to nothing and two threads do not meet in them. The log services
 * are detached ("log off") by taking their tables away, as in a process that has none.
 */
#ifndef BENCH_BENCH_H
#define BENCH_BENCH_H

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "l2rsm_component.h"

namespace bench {

/* The exported table; the first call runs phase 1. */
const L2RsmFunVtbl &Module();

/* Phase 2, once; returns when the worker waits for messages. */
void StartWorker();

void AttachLog(bool attached);

/* Lines that this thread's calls have handed to the two services. */
struct Lines {
    u64 debugLog, blackBox;
};
Lines LinesOfThread();

/* The debug-log texts that one call of `work` writes. */
std::vector<std::string> TextsOf(const std::function<void()> &work);

/* Called by the resource count hook of the ICIB table, which then reports it full. */
extern void (*g_onCount)();
/* Calls of the VLAN translation hook. */
extern u64 g_translations;

/*
 * Key number `index` of a set. `spread`: over all buckets, and differing from its neighbours in
 * port and VSI. `oneVlan`: same outer VLAN, so one bucket, ports and VSIs differ. `innerVlans`:
 * one bucket, and only the inner VLAN and what comes after it differ, as behind one port that
 * carries many customers' inner VLANs.
 */
enum class Keys { spread, oneVlan, innerVlans };
L2ResIcibKey KeyAt(Keys keys, u32 index);

/* The numbers 0 to count-1 in an order that is random but always the same. */
std::vector<u32> Shuffled(u32 count);

/*
 * A figure is only worth printing when the work was done: on a mismatch the benchmark ends in
 * error, which fails the program.
 */
template <class A, class B>
bool Expect(benchmark::State &state, const char *what, const A &got, const B &expected)
{
    if (got == static_cast<A>(expected)) {
        return true;
    }
    state.SkipWithError(
        (std::string(what) + ": " + std::to_string(got) + ", expected " + std::to_string(expected))
            .c_str());
    return false;
}

template <class Function>
benchmark::internal::Benchmark *Add(const std::string &name, Function &&function)
{
    return benchmark::RegisterBenchmark(name.c_str(), std::forward<Function>(function))
        ->UseRealTime();
}

/* The same for a function that takes the time itself. */
template <class Function> void AddManual(const std::string &name, Function &&function)
{
    benchmark::RegisterBenchmark(name.c_str(), std::forward<Function>(function))->UseManualTime();
}

/* Each registers the benchmarks of a file. `quick`: without the sizes that only a curve needs. */
void AddTables(bool quick);
void AddTokens(bool quick);
void AddCrowd(bool quick);
void AddLog();
void AddMemory();
void AddVlan();
void AddWorker();

} // namespace bench

#endif
