/*
 * Is everything the module keeps well formed? For a moment when no thread is inside the module.
 *
 * Problem() looks at all of it: the four arbitration tables, the six VLAN edit tables and the
 * partition's memory. It returns "" or what is wrong first. A census tells how much there is.
 */
#ifndef TESTS_FAULTS_CONSISTENCY_H
#define TESTS_FAULTS_CONSISTENCY_H

#include <set>

#include "l2rsm_vlan_edit.h"
#include "support/sides.h"
#include "zir_memory.h"

namespace consistency {

struct Census {
    u64 records[2] = {}; /* op records: ICIB, IPAT */
    u64 lists[2] = {};   /* entries somebody waits for */
    u64 waiters = 0;
    u64 mappings = 0;    /* VLAN edit mappings booked in entries 1..127 */
    u64 moduleBytes = 0; /* live in the partition beside the hash tables' own memory */

    bool empty() const
    {
        return records[0] + records[1] + lists[0] + lists[1] + waiters + mappings == 0;
    }
};

/* Looks at what stands behind the key of each node; false: malformed. */
template <class Look>
bool EachNode(const Side &side, HASH_Handle table, ZIR_Mutex *mutex, const Look &look)
{
    if (table == nullptr) {
        return true;
    }
    const Hold hold(mutex);
    for (auto *element = HASH_GetFirstNode(table); element != nullptr;
         element = HASH_GetNextNode(table)) {
        if (HASH_FindElmtFromFirst(table, element->node) != element->node ||
            !look(side.Behind(element->node))) {
            return false;
        }
    }
    return true;
}

inline std::string SideProblem(int which, Census *census)
{
    const Side &side = *kSides[which];
    const auto wellFormed = [&side](const L2ResOpRecord &record) {
        return record.Op <= L2RES_OP_DELETE && record.Used <= (side.icib ? 1u : 0u);
    };
    if (!EachNode(side, *side.opHash, side.opMutex, [&](const void *record) {
            ++census->records[which];
            return wellFormed(*static_cast<const L2ResOpRecord *>(record));
        })) {
        return "an op record is malformed or not found under its own key";
    }
    std::set<const void *> copies;
    if (!EachNode(side, *side.waitHash, side.waitMutex, [&](const void *behind) {
            const auto &list = *static_cast<const L2ResWaitList *>(behind);
            bool good = list.reOpNum <= L2RES_WAITERS_MAX && list.claimed == 0 &&
                        list.walkCountdown <= (side.icib ? 3 : 0) && list.walkCountdown >= 0;
            for (u16 i = 0; good && i < list.reOpNum; ++i) {
                const L2ResWaiter &waiter = list.entry[i];
                good = waiter.srvType <= 8 && wellFormed(waiter.op) &&
                       (waiter.data == nullptr || copies.insert(waiter.data).second);
            }
            ++census->lists[which];
            census->waiters += list.reOpNum;
            return good;
        })) {
        return "a list of waiters is malformed, shares data or is not found under its own key";
    }
    return "";
}

inline std::string VlanProblem(const u32 *profiles, const VlanEditCommand *commands,
                               const VlanEditMapping *mappings, Census *census)
{
    std::set<u16> named;
    for (u32 i = 1; i < L2RES_VLAN_MAPPING_COUNT; ++i) {
        const auto &[profile, format, command] = mappings[i];
        if (profile == 0 && format == 0) {
            continue;
        }
        if (profile >= L2RES_VLAN_PROFILE_COUNT || command >= L2RES_VLAN_COMMAND_COUNT ||
            profiles[profile] == 0 || commands[command].outerTag == 0) {
            return "a mapping names a profile or a command that is not taken";
        }
        named.insert(command);
        ++census->mappings;
    }
    for (u16 id = 0; id < L2RES_VLAN_COMMAND_COUNT; ++id) {
        if (commands[id].outerTag != 0 && named.count(id) == 0 && mappings[0].tagFormat == 0) {
            return "a command is stored that no mapping names";
        }
    }
    return "";
}

inline std::string Problem(Census *census)
{
    *census = {};
    ZIR_PartitionStat partition;
    ZIR_PartitionGetStat(g_qorL2ResMemPtNo, &partition);
    census->moduleBytes = partition.liveBytes;
    std::string problem;
    for (int which : {0, 1}) {
        for (HASH_Handle table : {*kSides[which]->opHash, *kSides[which]->waitHash}) {
            HASH_Stat stat = {};
            if (table != nullptr) {
                HASH_GetStat(table, &stat);
            }
            problem += stat.buffers != 0 ? "a node is neither in its table nor given back" : "";
            census->moduleBytes -= stat.bytes;
        }
        problem += SideProblem(which, census);
    }
    problem +=
        VlanProblem(g_iveEditProfileItem, g_iveEditCommandInfo, g_iveEditCommandItem, census);
    problem +=
        VlanProblem(g_eveEditProfileItem, g_eveEditCommandInfo, g_eveEditCommandItem, census);
    return problem;
}

} // namespace consistency

#endif
