/*
 * Is everything the module keeps well formed? For a moment when no thread is inside the module.
 *
 * Problem() looks at all of it: the four arbitration tables, the six VLAN edit tables and the
 * partition's memory. It returns "" or what is wrong first. A census tells how much there is.
 */
#ifndef TESTS_FAULTS_CONSISTENCY_H
#define TESTS_FAULTS_CONSISTENCY_H

#include <cstring>
#include <set>
#include <string>

#include "arbitration/icib.h"
#include "arbitration/ipat.h"
#include "frame/memory.h"
#include "l2rsm_vlan_edit.h"
#include "zir_memory.h"

namespace consistency {

struct Census {
    u64 records[2] = {}; /* op records: ICIB, IPAT */
    u64 lists[2] = {};   /* entries somebody waits for */
    u64 waiters = 0;
    u64 mappings = 0;     /* VLAN edit mappings booked in entries 1..127 */
    u64 moduleBytes = 0;  /* live in the partition beside the hash tables' own memory */
    u64 moduleBlocks = 0; /* data copies of the waiters */

    bool empty() const
    {
        return records[0] + records[1] + lists[0] + lists[1] + waiters + mappings == 0;
    }
};

struct WaitTable {
    HASH_Handle table;
    size_t listOffset;
    i16 countdown; /* of a new list */
};

inline WaitTable Waits(int which)
{
    return which == 0 ? WaitTable{g_icibReOpRecordHash, offsetof(L2ResIcibReOpRecord, waiters), 3}
                      : WaitTable{g_ipatReOpRecordHash, offsetof(L2ResIpatReOpRecord, waiters), 0};
}

inline std::string OpTableProblem(int which, Census *census)
{
    const HASH_Handle table = which == 0 ? g_icibOpRecordHash : g_ipatOpRecordHash;
    const size_t offset = which == 0 ? 40 : 8; /* the record stands behind the key */
    for (auto *element = HASH_GetFirstNode(table); element != nullptr;
         element = HASH_GetNextNode(table)) {
        L2ResOpRecord record;
        memcpy(&record, static_cast<char *>(element->node) + offset, sizeof record);
        if (HASH_FindElmtFromFirst(table, element->node) != element->node) {
            return "an op record is not found under its own key";
        }
        if (record.Op > L2RES_OP_DELETE || record.Used > (which == 0 ? 1u : 0u)) {
            return "an op record is malformed";
        }
        ++census->records[which];
    }
    return "";
}

inline std::string WaitTableProblem(int which, Census *census)
{
    const WaitTable waits = Waits(which);
    std::set<const void *> copies;
    for (auto *element = HASH_GetFirstNode(waits.table); element != nullptr;
         element = HASH_GetNextNode(waits.table)) {
        const auto *list = reinterpret_cast<const L2ResWaitList *>(
            static_cast<const char *>(element->node) + waits.listOffset);
        if (HASH_FindElmtFromFirst(waits.table, element->node) != element->node) {
            return "a list of waiters is not found under its own key";
        }
        if (list->reOpNum > L2RES_WAITERS_MAX || list->claimed != 0 ||
            list->walkCountdown > waits.countdown || list->walkCountdown < 0) {
            return "a list of waiters is malformed";
        }
        for (u16 i = 0; i < list->reOpNum; ++i) {
            const L2ResWaiter &waiter = list->entry[i];
            if (waiter.srvType > 8 || waiter.op.Op > L2RES_OP_DELETE || waiter.op.Used > 1) {
                return "a waiter is malformed";
            }
            if (waiter.data != nullptr && !copies.insert(waiter.data).second) {
                return "two waiters share a data copy";
            }
        }
        ++census->lists[which];
        census->waiters += list->reOpNum;
    }
    census->moduleBlocks += copies.size();
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
    u64 tableBytes = 0;
    for (HASH_Handle table :
         {g_icibOpRecordHash, g_icibReOpRecordHash, g_ipatOpRecordHash, g_ipatReOpRecordHash}) {
        HASH_Stat stat = {};
        if (table != nullptr) {
            HASH_GetStat(table, &stat);
        }
        if (stat.buffers != 0) {
            return "a node is neither in its table nor given back";
        }
        tableBytes += stat.bytes;
    }
    for (int which : {0, 1}) {
        if (std::string problem = OpTableProblem(which, census); !problem.empty()) {
            return problem;
        }
        if (std::string problem = WaitTableProblem(which, census); !problem.empty()) {
            return problem;
        }
    }
    ZIR_PartitionStat stat;
    ZIR_PartitionGetStat(g_qorL2ResMemPtNo, &stat);
    census->moduleBytes = stat.liveBytes - tableBytes;
    std::string problem =
        VlanProblem(g_iveEditProfileItem, g_iveEditCommandInfo, g_iveEditCommandItem, census);
    return problem.empty() ? VlanProblem(g_eveEditProfileItem, g_eveEditCommandInfo,
                                         g_eveEditCommandItem, census)
                           : problem;
}

} // namespace consistency

#endif
