/*
 * Looks at the module's state from outside: entries and waiting requests straight from its hash
 * tables, each under its own mutex and without a call that the module would log. What is returned
 * is a copy.
 *
 * Threads: look-ups of one key on any thread, also within a callback; entries() on the scenario's
 * thread only, because a hash table has a single iteration position and the worker's walk, which
 * calls components back, uses it.
 */
#ifndef INSPECT_MODULE_STATE_H
#define INSPECT_MODULE_STATE_H

#include <array>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "hash_table.h"
#include "inspect/symbols.h"
#include "inspect/words.h"
#include "l2rsm_arbitration.h"
#include "zir_memory.h"
#include "zir_mutex.h"

namespace inspect {

using EntryKey = std::variant<L2ResIcibKey, L2ResIpatKey>;

/* "port=3 outvlan=100"; equal for equal keys, different for different ones. */
std::string keyText(const EntryKey &key);
EntryKey copyKey(TokenTable table, const void *key);

struct EntryState {
    TokenTable table;
    EntryKey key;
    std::optional<L2ResOpRecord> holder{};
    std::vector<L2ResWaiter> waiters{}; // in arrival order; `data` is not to be followed
    i16 walksLeft = 0;                  // ICIB: ticks until the waiters are notified
};

/* The module gives a waiting request that it has notified the serial 0. */
inline bool wasNotified(const L2ResWaiter &waiter)
{
    return waiter.serial == 0;
}

class Inspector {
public:
    /* Throws when the module lacks one of the symbols. */
    void attach(const Symbols &module, u8 partition);

    std::optional<L2ResOpRecord> holder(TokenTable table, const void *key) const;
    std::vector<L2ResWaiter> waiters(TokenTable table, const void *key) const;
    /* Every entry that has a holder or waiting requests; ICIB first, each by key. */
    std::vector<EntryState> entries() const;

    struct Hash {
        const char *name;
        HASH_Stat stat;
    };
    struct Memory {
        u8 partition;
        ZIR_PartitionStat stat;
        std::array<Hash, 4> hashes;
        u32 queued; // messages for the worker

        u64 outsideTables() const; // bytes of the partition that no hash table accounts for
    };
    Memory memory() const;
    bool hasQueue() const; // the worker makes it when it starts

private:
    struct Table {
        HASH_Handle *ops = nullptr, *waits = nullptr;
        ZIR_Mutex *opMutex = nullptr, *waitMutex = nullptr;
        std::size_t recordOffset = 0, listOffset = 0; // in the nodes
    };
    const Table &of(TokenTable table) const
    {
        return table == TokenTable::icib ? icib_ : ipat_;
    }
    u64 queue() const;
    void collect(TokenTable which, std::vector<EntryState> &all) const;

    Table icib_, ipat_;
    const u64 *queue_ = nullptr;
    u8 partition_ = 0;
};

} // namespace inspect

#endif
