/* Finding an entry, walking the waiting ones, and what a held entry costs in memory. */
#include <malloc.h>

#include <map>
#include <memory>

#include "bench.h"
#include "peer_tables.h"
#include "zir_memory.h"

namespace bench {
namespace {

/* Filled on first use and kept: contenders take turns, and a table is filled only once. */
template <class Table> Table &FilledTable(Keys keys, u32 entries)
{
    static std::map<std::pair<Keys, u32>, std::unique_ptr<Table>> tables;
    std::unique_ptr<Table> &table = tables[{keys, entries}];
    if (table == nullptr) {
        (void)Module();
        table = std::make_unique<Table>();
        // Entries come and go in a living table: the order in memory is not that of the keys.
        for (const u32 index : Shuffled(entries)) {
            table->Insert(KeyAt(keys, index), {.Stamp = index, .Op = 1, .SrvType = 2, .Used = 1});
        }
    }
    return *table;
}

/* Every entry is looked for equally often, in another random order than they were inserted. */
const std::vector<L2ResIcibKey> &Wanted(Keys keys, u32 entries)
{
    static std::map<std::pair<Keys, u32>, std::vector<L2ResIcibKey>> all;
    std::vector<L2ResIcibKey> &wanted = all[{keys, entries}];
    if (wanted.empty()) {
        const std::vector<u32> order = Shuffled(entries);
        for (auto index = order.rbegin(); index != order.rend(); ++index) {
            wanted.push_back(KeyAt(keys, (*index * 7 + 3) % entries));
        }
    }
    return wanted;
}

template <class Table> void Find(benchmark::State &state, Keys keys, u32 entries)
{
    Table &table = FilledTable<Table>(keys, entries);
    const std::vector<L2ResIcibKey> &wanted = Wanted(keys, entries);
    L2ResOpRecord record = {};
    u64 found = 0;
    size_t next = 0;
    for (auto _ : state) {
        found += table.Find(wanted[next], &record);
        benchmark::DoNotOptimize(record);
        next = next + 1 == wanted.size() ? 0 : next + 1;
    }
    Expect(state, "entries found", found, state.iterations());
}

template <class Table>
void AddFind(const std::string &group, const char *contender, Keys keys, u32 entries)
{
    Add(group + "/" + std::to_string(entries) + "/" + contender,
        [=](benchmark::State &state) { Find<Table>(state, keys, entries); });
}

void AddFindEverywhere(u32 entries)
{
    AddFind<ModuleTable>("find", "module", Keys::spread, entries);
    AddFind<StdTable>("find", "std", Keys::spread, entries);
    AddFind<StdTableOwnHash>("find", "stdown", Keys::spread, entries);
#ifdef BENCH_GLIB
    AddFind<GlibTable>("find", "glib", Keys::spread, entries);
#endif
#ifdef BENCH_TBB
    AddFind<TbbTable>("find", "tbb", Keys::spread, entries);
#endif
#ifdef BENCH_ABSL
    AddFind<AbslTable>("find", "absl", Keys::spread, entries);
#endif
#ifdef BENCH_BOOST
    AddFind<BoostTable>("find", "boost", Keys::spread, entries);
#endif
#ifdef BENCH_URCU
    AddFind<UrcuTable>("find", "urcu", Keys::spread, entries);
#endif
}

void AddFindInBucket(u32 entries)
{
    AddFind<ModuleTable>("bucket", "module", Keys::oneVlan, entries);
    AddFind<ListTable>("bucket", "list", Keys::oneVlan, entries);
    AddFind<ModuleTable>("inner", "module", Keys::innerVlans, entries);
    AddFind<ListTable>("inner", "list", Keys::innerVlans, entries);
}

/* ---- Walk ---- */

/* Waiting requests for that many entries, none of them due for the next 30,000 walks. */
class WaitingNodes {
public:
    explicit WaitingNodes(u32 count) : count_(count)
    {
        const L2ResOpRecord record = {.Stamp = 1, .Op = 1, .SrvType = 2, .Used = 0};
        for (const u32 index : Shuffled(count_)) {
            const L2ResIcibKey key = KeyAt(Keys::spread, index);
            (void)QorL2ResIcibReOpHashUpdate(&key, &record, &index, sizeof index, 1);
        }
        for (HASH_Element *element = HASH_GetFirstNode(g_icibReOpRecordHash); element != nullptr;
             element = HASH_GetNextNode(g_icibReOpRecordHash)) {
            ListOf(element->node).walkCountdown = kWalks;
        }
    }
    ~WaitingNodes()
    {
        for (u32 index = 0; index < count_; ++index) {
            const L2ResIcibKey key = KeyAt(Keys::spread, index);
            (void)QorL2ResIcibReOpDel(&key);
        }
    }
    WaitingNodes(const WaitingNodes &) = delete;
    WaitingNodes &operator=(const WaitingNodes &) = delete;

    /* How often each node was walked, summed up. */
    u64 Walked() const
    {
        u64 walked = 0;
        for (HASH_Element *element = HASH_GetFirstNode(g_icibReOpRecordHash); element != nullptr;
             element = HASH_GetNextNode(g_icibReOpRecordHash)) {
            walked += static_cast<u64>(kWalks - ListOf(element->node).walkCountdown);
        }
        return walked;
    }

    static constexpr i16 kWalks = 30000;

private:
    static L2ResWaitList &ListOf(void *node)
    {
        return static_cast<L2ResIcibReOpRecord *>(node)->waiters;
    }
    u32 count_;
};

void Walk(benchmark::State &state, u32 count)
{
    (void)Module();
    const WaitingNodes nodes(count);
    for (auto _ : state) {
        QorL2ResIcibReOpHashWalk();
    }
    Expect(state, "nodes walked", nodes.Walked(), count * static_cast<u64>(state.iterations()));
}

/* The same by the standard library: records of the same size, a countdown in each. */
void WalkMap(benchmark::State &state, u32 count)
{
    static std::map<u32, std::unordered_map<L2ResIcibKey, L2ResWaitList, KeyHash, KeyEqual>> maps;
    static std::mutex mutex;
    auto &map = maps[count];
    for (const u32 index : Shuffled(map.empty() ? count : 0)) {
        map[KeyAt(Keys::spread, index)].reOpNum = 1;
    }
    for (auto &[key, list] : map) {
        list.walkCountdown = WaitingNodes::kWalks;
    }
    u64 due = 0;
    for (auto _ : state) {
        const std::lock_guard lock(mutex);
        for (auto &[key, list] : map) {
            if (--list.walkCountdown == 0) {
                ++due;
            }
        }
    }
    Expect(state, "nodes due", due, 0);
}

void AddWalk(u32 count)
{
    constexpr benchmark::IterationCount kMost = WaitingNodes::kWalks - 1;
    const auto iterations = std::min<benchmark::IterationCount>(kMost, 1 + 8 * 65536 / count);
    const std::string group = "walk/" + std::to_string(count);
    Add(group + "/module", [=](benchmark::State &state) {
        Walk(state, count);
    })->Iterations(iterations);
    Add(group + "/std", [=](benchmark::State &state) {
        WalkMap(state, count);
    })->Iterations(iterations);
}

/* ---- Memory ---- */

/* What the platform's header and the C library's add to a block of the partition. */
constexpr u64 kBlockOverhead = 16 + 8;

template <class Table> u64 MemoryInUse()
{
    if constexpr (std::is_same_v<Table, ModuleTable>) {
        ZIR_PartitionStat stat = {};
        ZIR_PartitionGetStat(g_qorL2ResMemPtNo, &stat);
        return stat.liveBytes + kBlockOverhead * stat.liveBlocks;
    }
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

/* Bytes per entry above the node's 56. */
template <class Table> void Memory(benchmark::State &state, u32 entries)
{
    (void)Module();
    double perEntry = 0;
    for (auto _ : state) {
        const auto table = std::make_unique<Table>();
        const u64 before = MemoryInUse<Table>();
        for (u32 index = 0; index < entries; ++index) {
            table->Insert(KeyAt(Keys::spread, index), {});
        }
        perEntry = static_cast<double>(MemoryInUse<Table>() - before) / entries - 56;
    }
    state.counters["figure"] = perEntry;
}

template <class Table> void AddMemoryOf(const char *contender, u32 entries)
{
    Add("memory/" + std::to_string(entries) + "/" + contender, [=](benchmark::State &state) {
        Memory<Table>(state, entries);
    })->Iterations(1);
}

} // namespace

void AddTables(bool quick)
{
    for (const u32 entries : {64u, 1000u, 4096u, 16384u, 65536u, 262144u}) {
        if (!quick || entries == 1000 || entries == 65536) {
            AddFindEverywhere(entries);
        }
    }
    for (const u32 entries : {64u, 256u, 1024u, 4096u, 16384u}) {
        if (!quick || entries == 64 || entries == 16384) {
            AddFindInBucket(entries);
        }
    }
    for (const u32 count : {64u, 1024u, 16384u, 65536u}) {
        if (!quick || count == 65536) {
            AddWalk(count);
        }
    }
    for (const u32 entries : {1000u, 65536u}) {
        AddMemoryOf<ModuleTable>("module", entries);
        AddMemoryOf<StdTable>("std", entries);
    }
}

} // namespace bench
