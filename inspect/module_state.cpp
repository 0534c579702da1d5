#include "inspect/module_state.h"

#include <algorithm>
#include <cstddef>
#include <map>

#include "inspect/records.h"
#include "qor_epoll.h"

namespace inspect {

/* ---- keys ---- */

static std::vector<Field> fieldsOf(const EntryKey &key)
{
    return std::visit([](const auto &one) { return keyFields(one); }, key);
}

std::string keyText(const EntryKey &key)
{
    const std::string text = formatFields(fieldsOf(key));
    return text.empty() ? "all 0" : text.substr(1);
}

EntryKey copyKey(TokenTable table, const void *key)
{
    if (table == TokenTable::icib) {
        return *static_cast<const L2ResIcibKey *>(key);
    }
    return *static_cast<const L2ResIpatKey *>(key);
}

/* ---- the tables ---- */

void Inspector::attach(const Symbols &module, u8 partition)
{
    const auto symbol = [&](const std::string &name, auto &place) {
        place = static_cast<std::remove_reference_t<decltype(place)>>(module.symbol(name.c_str()));
    };
    const auto find = [&](const std::string &name, Table &table) {
        symbol("g_" + name + "OpRecordHash", table.ops);
        symbol("g_" + name + "ReOpRecordHash", table.waits);
        symbol("g_" + name + "OpRecordMutex", table.opMutex);
        symbol("g_" + name + "ReOpRecordMutex", table.waitMutex);
    };
    find("icib", icib_);
    find("ipat", ipat_);
    // A record stands behind its key, aligned to 8 bytes.
    icib_.recordOffset = (sizeof(L2ResIcibKey) + 7) / 8 * 8;
    icib_.listOffset = offsetof(L2ResIcibReOpRecord, waiters);
    ipat_.recordOffset = sizeof(L2ResIpatKey);
    ipat_.listOffset = offsetof(L2ResIpatReOpRecord, waiters);
    symbol("g_qorl2resQueue", queue_);
    partition_ = partition;
}

template <class Type> static const Type &at(const void *node, std::size_t offset)
{
    return *reinterpret_cast<const Type *>(static_cast<const std::byte *>(node) + offset);
}

static std::vector<L2ResWaiter> copyWaiters(const L2ResWaitList &list)
{
    return {list.entry, list.entry + std::min<u32>(list.reOpNum, L2RES_WAITERS_MAX)};
}

std::optional<L2ResOpRecord> Inspector::holder(TokenTable table, const void *key) const
{
    const Table &t = of(table);
    std::optional<L2ResOpRecord> record;
    ZIR_MutexLock(t.opMutex);
    if (const void *node = HASH_FindElmtFromFirst(*t.ops, key)) {
        record = at<L2ResOpRecord>(node, t.recordOffset);
    }
    ZIR_MutexUnlock(t.opMutex);
    return record;
}

std::vector<L2ResWaiter> Inspector::waiters(TokenTable table, const void *key) const
{
    const Table &t = of(table);
    std::vector<L2ResWaiter> waiters;
    ZIR_MutexLock(t.waitMutex);
    if (const void *node = HASH_FindElmtFromFirst(*t.waits, key)) {
        waiters = copyWaiters(at<L2ResWaitList>(node, t.listOffset));
    }
    ZIR_MutexUnlock(t.waitMutex);
    return waiters;
}

void Inspector::collect(TokenTable which, std::vector<EntryState> &all) const
{
    const Table &t = of(which);
    std::map<std::string, EntryState> found;
    const auto entry = [&](const void *node) -> EntryState & {
        const EntryKey key = copyKey(which, node);
        return found.try_emplace(keyText(key), EntryState{which, key}).first->second;
    };
    ZIR_MutexLock(t.opMutex);
    for (auto *at1 = HASH_GetFirstNode(*t.ops); at1 != nullptr; at1 = HASH_GetNextNode(*t.ops)) {
        entry(at1->node).holder = at<L2ResOpRecord>(at1->node, t.recordOffset);
    }
    ZIR_MutexUnlock(t.opMutex);
    ZIR_MutexLock(t.waitMutex);
    for (auto *at2 = HASH_GetFirstNode(*t.waits); at2 != nullptr;
         at2 = HASH_GetNextNode(*t.waits)) {
        const auto &list = at<L2ResWaitList>(at2->node, t.listOffset);
        EntryState &state = entry(at2->node);
        state.waiters = copyWaiters(list);
        state.walksLeft = list.walkCountdown;
    }
    ZIR_MutexUnlock(t.waitMutex);
    for (auto &[text, state] : found) {
        all.push_back(std::move(state));
    }
}

std::vector<EntryState> Inspector::entries() const
{
    std::vector<EntryState> all;
    collect(TokenTable::icib, all);
    collect(TokenTable::ipat, all);
    return all;
}

/* ---- memory ---- */

/* The worker writes it when it starts. */
u64 Inspector::queue() const
{
    return __atomic_load_n(queue_, __ATOMIC_ACQUIRE);
}

u64 Inspector::Memory::outsideTables() const
{
    u64 tables = 0;
    for (const Hash &hash : hashes) {
        tables += hash.stat.bytes;
    }
    return stat.liveBytes - tables;
}

Inspector::Memory Inspector::memory() const
{
    Memory memory{};
    memory.partition = partition_;
    const auto statOf = [](const char *name, HASH_Handle *table, ZIR_Mutex *mutex) {
        Hash hash{name, {}};
        ZIR_MutexLock(mutex);
        HASH_GetStat(*table, &hash.stat);
        ZIR_MutexUnlock(mutex);
        return hash;
    };
    memory.hashes = {statOf("icib holders", icib_.ops, icib_.opMutex),
                     statOf("icib waiters", icib_.waits, icib_.waitMutex),
                     statOf("ipat holders", ipat_.ops, ipat_.opMutex),
                     statOf("ipat waiters", ipat_.waits, ipat_.waitMutex)};
    ZIR_PartitionGetStat(partition_, &memory.stat);
    memory.queued = QorEpollQueGetMsgNum(queue());
    return memory;
}

bool Inspector::hasQueue() const
{
    return queue() != 0;
}

} // namespace inspect
