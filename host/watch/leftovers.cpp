#include "watch/leftovers.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "qor_epoll.h"

namespace host {

static const char *tableOf(const EntryState &entry)
{
    return entry.table == TokenTable::icib ? "icib " : "ipat ";
}

static std::string named(u32 service)
{
    return "service " + std::to_string(service) + ", ";
}

static std::string typeAndStamp(const L2ResOpRecord &record)
{
    return "type " + std::to_string(record.SrvType) + ", stamp " + std::to_string(record.Stamp);
}

/* ---- tokens and waiting requests ---- */

static void listEntry(const EntryState &entry, const Ledger &ledger,
                      std::vector<std::string> &lines)
{
    const std::string name = tableOf(entry) + keyText(entry.key) + ": ";
    // IPAT has no mark of use: a record there is a token that is out.
    if (entry.holder && (entry.table == TokenTable::ipat || entry.holder->Used != 0)) {
        const auto since = ledger.holderSince(entry.table, entry.key, *entry.holder);
        lines.push_back(name + "token for " + opName(entry.holder->Op) + " never freed (" +
                        (since ? named(since->service) : "") + typeAndStamp(*entry.holder) + ")");
    }
    for (const L2ResWaiter &waiter : entry.waiters) {
        if (!wasNotified(waiter)) {
            lines.push_back(name + "waiting " + opName(waiter.op.Op) + " never notified (" +
                            named(waiter.srvType) + typeAndStamp(waiter.op) + ")");
        }
    }
}

/* ---- VLAN edits ---- */

/* The ids below belong to certain services for good; they hold a mark, which may stay. */
constexpr u32 firstGeneralProfile = 4;

static std::set<u32> takenProfiles(const VlanTables &tables)
{
    std::set<u32> taken;
    for (u32 id = 0; id < L2RES_VLAN_PROFILE_COUNT; ++id) {
        if (tables.profiles[id] != 0) {
            taken.insert(id);
        }
    }
    return taken;
}

static void listVlan(const char *direction, const VlanTables &tables,
                     const std::set<u32> &takenBefore, std::vector<std::string> &lines)
{
    std::set<u32> bare = takenProfiles(tables);
    const auto profile = [&](u32 id) {
        const std::string name =
            std::string("vlan ") + direction + ": profile " + std::to_string(id);
        return id < firstGeneralProfile
                   ? name + " (reserved)"
                   : name + " (service " +
                         std::to_string(tables.profiles[id % L2RES_VLAN_PROFILE_COUNT]) + ")";
    };
    for (u32 i = 1; i < L2RES_VLAN_MAPPING_COUNT; ++i) {
        const VlanEditMapping &mapping = tables.mappings[i];
        if (mapping.tagFormat != 0 || mapping.profileId != 0) {
            bare.erase(mapping.profileId);
            lines.push_back(profile(mapping.profileId) + ", format " +
                            std::to_string(mapping.tagFormat) + ", command " +
                            std::to_string(mapping.commandId) + " never released");
        }
    }
    for (u32 id : bare) {
        if (id >= firstGeneralProfile && !takenBefore.contains(id)) {
            lines.push_back(profile(id) + " still taken, without a mapping");
        }
    }
}

/* ---- memory ---- */

/* A script may be over before the worker has what it keeps; without it nothing can be told. */
static void awaitWorker(const Inspector &inspector, u64 atStart)
{
    for (int look = 0; look < 1000; ++look) {
        if (inspector.hasQueue() && inspector.memory().outsideTables() >= atStart) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

/*
 * Bytes in use beyond what the started module has. The worker's messages come and go, and stay as long
 * as it stands still; where no request has `blocks` of data, nothing else should be left.
 */
static u64 bytesKept(const Inspector &inspector, u64 atStart, u64 blocks)
{
    awaitWorker(inspector, atStart);
    u64 least = ~u64{0};
    for (int look = 0, calm = 0; look < 3000 && calm < 20 && least != 0; ++look) {
        const Inspector::Memory memory = inspector.memory();
        const u64 now = memory.outsideTables();
        least = std::min(least, now > atStart ? now - atStart : 0);
        calm += blocks != 0 && memory.queued == 0;
        if (least != 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return least;
}

static void listMemory(const Inspector &inspector, u64 atStart,
                       const std::vector<EntryState> &entries, std::vector<std::string> &lines)
{
    u64 blocks = 0;
    for (const EntryState &entry : entries) {
        blocks += static_cast<u64>(std::ranges::count_if(
            entry.waiters, [](const L2ResWaiter &waiter) { return waiter.data != nullptr; }));
    }
    const Inspector::Memory memory = inspector.memory();
    const u64 bytes = bytesKept(inspector, atStart, blocks);
    if (bytes != 0) {
        lines.push_back("memory: " + std::to_string(bytes) + " bytes of partition " +
                        std::to_string(memory.partition) + " not given back (data of requests: " +
                        std::to_string(blocks) + " blocks)");
    }
    for (const Inspector::Hash &hash : memory.hashes) {
        if (hash.stat.buffers != 0) {
            lines.push_back("memory: " + std::to_string(hash.stat.buffers) + " node buffers of " +
                            hash.name + " not given back");
        }
    }
}

/* ---- all ---- */

void Leftovers::remember(const Module &module)
{
    profiles_ = {takenProfiles(vlanTables(module, L2RES_VLAN_INGRESS)),
                 takenProfiles(vlanTables(module, L2RES_VLAN_EGRESS))};
}

std::vector<std::string> Leftovers::list(const Module &module, const Inspector &inspector,
                                         const Ledger &ledger) const
{
    std::vector<std::string> lines;
    const std::vector<EntryState> entries = inspector.entries();
    for (const EntryState &entry : entries) {
        listEntry(entry, ledger, lines);
    }
    listVlan("ingress", vlanTables(module, L2RES_VLAN_INGRESS), profiles_[0], lines);
    listVlan("egress", vlanTables(module, L2RES_VLAN_EGRESS), profiles_[1], lines);
    // All that the worker keeps is a context for its queue.
    listMemory(inspector, sizeof(QorQueueContext), entries, lines);
    return lines;
}

} // namespace host
