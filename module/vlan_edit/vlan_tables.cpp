#include "vlan_edit/vlan_direction.h"

#include "bounded.h"
#include "frame/dbg_log.h"
#include "zir_memory.h"

namespace {

/*
 * The first index from `first` on whose entry passes the test, or the table's size. The searches are
 * most of what an assignment costs. Unrolled by seven, as 127 entries leave just one over.
 */
template <u32 size, typename Entry, typename Test>
inline u32 FirstFrom(const Entry *table, u32 first, const Test &test)
{
#pragma GCC unroll 7
    for (u32 i = first; i < size; i++) {
        if (test(table[i])) {
            return i;
        }
    }
    return size;
}

template <typename Test>
inline u32 FirstMapping(const VlanDirection *direction, u32 first, const Test &test)
{
    return FirstFrom<L2RES_VLAN_MAPPING_COUNT>(direction->mappings, first, test);
}

template <typename Test> inline u32 FirstCommand(const VlanDirection *direction, const Test &test)
{
    return FirstFrom<L2RES_VLAN_COMMAND_COUNT>(direction->commands, direction->firstCommand, test);
}

inline bool IsFree(const VlanEditMapping &entry)
{
    return entry.tagFormat == 0 && entry.profileId == 0;
}

/* The reserved id of the service type, or 64 when it has none in this direction. */
u16 ReservedProfile(const VlanDirection *direction, u32 servType, u32 outerTpid)
{
    for (const VlanReservedPair &pair : direction->reserved) {
        if (pair.servType != 0 && pair.servType == servType) {
            return outerTpid == 1 ? pair.firstId : static_cast<u16>(pair.firstId + 1);
        }
    }
    return L2RES_VLAN_NO_PROFILE;
}

/* The first profile id from `first` on that holds the value, or 64. */
u16 FindProfile(const VlanDirection *direction, u32 first, u32 value)
{
    const auto holdsValue = [value](u32 held) { return held == value; };
    return static_cast<u16>(
        FirstFrom<L2RES_VLAN_PROFILE_COUNT>(direction->profiles, first, holdsValue));
}

bool AllWithin(const u32 *values, u32 count, u32 low, u32 high)
{
    for (u32 i = 0; i < count; i++) {
        if (values[i] < low || values[i] > high) {
            return false;
        }
    }
    return true;
}

} // namespace

u16 VlanSelectProfile(const VlanDirection *direction, u32 servType, u32 outerTpid)
{
    const u16 reserved = ReservedProfile(direction, servType, outerTpid);
    if (reserved != L2RES_VLAN_NO_PROFILE) {
        /* A reserved id is the service's own: taken without a look at what it holds. */
        direction->profiles[reserved] = VLAN_FIRST_MARK + (outerTpid == 1 ? 0U : 1U);
        return reserved;
    }
    u16 id = FindProfile(direction, VLAN_FIRST_GENERAL_PROFILE, servType);
    if (id == L2RES_VLAN_NO_PROFILE) {
        id = FindProfile(direction, VLAN_FIRST_GENERAL_PROFILE, 0);
        if (id != L2RES_VLAN_NO_PROFILE) {
            direction->profiles[id] = servType;
        }
    }
    return id;
}

u16 VlanOwnedProfile(const VlanDirection *direction, u32 servType, u32 outerTpid)
{
    const u16 reserved = ReservedProfile(direction, servType, outerTpid);
    if (reserved == L2RES_VLAN_NO_PROFILE) {
        /* Marks equal the service types 2 and 3, so the reserved ids are not searched. */
        return FindProfile(direction, VLAN_FIRST_GENERAL_PROFILE, servType);
    }
    const bool marked = direction->profiles[reserved] != 0;
    return marked ? reserved : static_cast<u16>(L2RES_VLAN_NO_PROFILE);
}

u16 VlanFindCommand(const VlanDirection *direction, const VlanEditCommand *command)
{
    /* Most entries differ in their actions already, which spares the call. */
    const auto isSame = [command](const VlanEditCommand &entry) {
        return entry.outerTag == command->outerTag && entry.innerTag == command->innerTag &&
               entry.outerPri == command->outerPri && entry.innerPri == command->innerPri &&
               ZIR_MemCmp(&entry, command, sizeof entry) == 0;
    };
    return static_cast<u16>(FirstCommand(direction, isSame));
}

u32 VlanStoreCommand(const VlanDirection *direction, const VlanEditCommand *command, u16 *commandId)
{
    const u32 id =
        FirstCommand(direction, [](const VlanEditCommand &entry) { return entry.outerTag == 0; });
    if (id < L2RES_VLAN_COMMAND_COUNT && memcpy_s(&direction->commands[id], sizeof(VlanEditCommand),
                                                  command, sizeof(VlanEditCommand)) != 0) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL, "[CmpCommandInfo]memcpy fail");
        return QOR_FAIL;
    }
    *commandId = static_cast<u16>(id);
    return QOR_OK;
}

bool VlanBookMapping(const VlanDirection *direction, const VlanEditMapping *mapping)
{
    const auto isWanted = [mapping](const VlanEditMapping &entry) {
        return entry.commandId == mapping->commandId && entry.profileId == mapping->profileId &&
               entry.tagFormat == mapping->tagFormat;
    };
    if (FirstMapping(direction, VLAN_FIRST_MAPPING, isWanted) != L2RES_VLAN_NO_MAPPING) {
        return true;
    }
    const u32 freeEntry = FirstMapping(direction, VLAN_FIRST_MAPPING, IsFree);
    /* Entry 0 takes a mapping that no longer fits. */
    direction->mappings[freeEntry != L2RES_VLAN_NO_MAPPING ? freeEntry : 0] = *mapping;
    return false;
}

VlanSharing VlanFindSharing(const VlanDirection *direction, const VlanEditMapping *key)
{
    /* Free entries name profile 0: its mark outlives a release, and is rewritten anyway. */
    const auto sharesProfile = [key](const VlanEditMapping &entry) {
        return entry.profileId == key->profileId && entry.commandId != key->commandId;
    };
    const u32 other = FirstMapping(direction, VLAN_FIRST_MAPPING, sharesProfile);
    VlanSharing sharing = {L2RES_VLAN_NO_MAPPING, 0, other != L2RES_VLAN_NO_MAPPING ? 1U : 0U, 0};

    const auto namesCommand = [key](const VlanEditMapping &entry) {
        return entry.commandId == key->commandId;
    };
    for (u32 i = VLAN_FIRST_MAPPING;
         (i = FirstMapping(direction, i, namesCommand)) < L2RES_VLAN_MAPPING_COUNT; i++) {
        const VlanEditMapping &entry = direction->mappings[i];
        if (entry.profileId != key->profileId) {
            QorL2ResDbgWriteLog(L2RES_LOG_REPORT, L2RES_LOG_GENERAL,
                                "[L2RES]used cmd, cmdId:%u, prof:%u-%u,", entry.commandId,
                                entry.profileId, key->profileId);
            sharing.commandShared = 1;
        } else if (entry.tagFormat == key->tagFormat) {
            sharing.mappingId = i;
        } else if (!IsFree(entry)) {
            sharing.formatShared = 1;
        }
    }
    return sharing;
}

void VlanClear(const VlanDirection *direction, u32 mappingId, const VlanEditMapping *key,
               u32 commandShared, u32 profileShared)
{
    if (profileShared == 0 && key->profileId < L2RES_VLAN_PROFILE_COUNT) {
        direction->profiles[key->profileId] = 0;
    }
    if (commandShared == 0 && key->commandId < L2RES_VLAN_COMMAND_COUNT) {
        (void)memset_s(&direction->commands[key->commandId], sizeof(VlanEditCommand), 0,
                       sizeof(VlanEditCommand));
    }
    /* Last: the key may be this very entry. */
    if (mappingId < L2RES_VLAN_MAPPING_COUNT) {
        direction->mappings[mappingId] = {};
    }
}

/* The primitives for other components: the steps above under their exported names. */

void QorL2ResGetIveProfileId(u16 servType, u16 outerTpid, u16 *profileId)
{
    *profileId = VlanSelectProfile(&g_vlanIngress, servType, outerTpid);
}

void QorL2ResGetEveProfileId(u16 servType, u16 outerTpid, u16 *profileId)
{
    *profileId = VlanSelectProfile(&g_vlanEgress, servType, outerTpid);
}

namespace {

u32 GetProfileHolding(const VlanDirection *direction, u16 value, u16 *profileId)
{
    const u16 id = FindProfile(direction, 0, value);
    if (id == L2RES_VLAN_NO_PROFILE) {
        return 0;
    }
    *profileId = id;
    return 1;
}

u32 FindOrStoreCommand(const VlanDirection *direction, const VlanEditCommand *command,
                       u16 *commandId)
{
    if (command == nullptr || commandId == nullptr) {
        return 0;
    }
    const u16 id = VlanFindCommand(direction, command);
    if (id == L2RES_VLAN_NO_COMMAND) {
        (void)VlanStoreCommand(direction, command, commandId);
        return 0;
    }
    *commandId = id;
    return 1;
}

u32 GetStoredCommand(const VlanDirection *direction, const VlanEditCommand *command, u16 *commandId)
{
    const u16 id = VlanFindCommand(direction, command);
    if (id == L2RES_VLAN_NO_COMMAND) {
        return QOR_FAIL;
    }
    *commandId = id;
    return QOR_OK;
}

} // namespace

u32 QorL2ResFreeGetIveProfileId(u16 value, u16 *profileId)
{
    return GetProfileHolding(&g_vlanIngress, value, profileId);
}

u32 QorL2ResFreeGetEveProfileId(u16 value, u16 *profileId)
{
    return GetProfileHolding(&g_vlanEgress, value, profileId);
}

u32 QorL2ResCmpIveCommandInfo(const VlanEditCommand *command, u16 *commandId)
{
    return FindOrStoreCommand(&g_vlanIngress, command, commandId);
}

u32 QorL2ResCmpEveCommandInfo(const VlanEditCommand *command, u16 *commandId)
{
    return FindOrStoreCommand(&g_vlanEgress, command, commandId);
}

u32 QorL2ResGetIveCommandId(const VlanEditCommand *command, u16 *commandId)
{
    return GetStoredCommand(&g_vlanIngress, command, commandId);
}

u32 QorL2ResGetEveCommandId(const VlanEditCommand *command, u16 *commandId)
{
    return GetStoredCommand(&g_vlanEgress, command, commandId);
}

u32 QorL2ResCmpIveCommandMapping(u32 tagFormat, u16 profileId, u16 commandId)
{
    if (commandId < g_vlanIngress.firstCommand || commandId >= L2RES_VLAN_COMMAND_COUNT) {
        return 0;
    }
    const VlanEditMapping mapping = {profileId, tagFormat, commandId};
    return VlanBookMapping(&g_vlanIngress, &mapping) ? 1 : 0;
}

void QorL2ResGetIveMappingInfo(u32 tagFormat, u16 profileId, u16 commandId, u32 index)
{
    if (index < L2RES_VLAN_MAPPING_COUNT) {
        g_iveEditCommandItem[index] = {profileId, tagFormat, commandId};
    }
}

u32 QorL2ResFindVEMapping(u32 flag, const VlanEditMapping *key, u32 *cmdFlg, u32 *profFlg)
{
    const VlanSharing sharing = VlanFindSharing(VlanDirectionOf(flag), key);
    *cmdFlg = sharing.commandShared;
    *profFlg = sharing.profileShared;
    return sharing.mappingId;
}

u32 QorL2ReleaseVlanEditRes(u32 flag, u32 mappingId, const VlanEditMapping *key, u32 cmdFlg,
                            u32 profFlg)
{
    VlanClear(VlanDirectionOf(flag), mappingId, key, cmdFlg, profFlg);
    return QOR_OK;
}

u32 QorL2ResCheckVlanAction(const VlanEditCommand *command)
{
    if (command == nullptr) {
        return 0;
    }
    const u32 actions[] = {command->outerTag, command->innerTag,        command->outerPri,
                           command->innerPri, command->outerTpidAction, command->innerTpidAction};
    const u32 tpids[] = {command->outerTpid, command->innerTpid};
    return AllWithin(actions, 6, 1, 4) && AllWithin(tpids, 2, 0, 3) ? 1 : 0;
}

u32 QorL2ResCheckVlanEditInfo(const VlanEditInfo *info)
{
    if (info == nullptr || !AllWithin(&info->servType, 1, 1, 12) ||
        !AllWithin(&info->tagFormat, 1, 1, 7)) {
        return 0;
    }
    const VlanEditCommand command = VlanCommandOf(info);
    return QorL2ResCheckVlanAction(&command);
}

void QorL2ResPrintVlanEditInfo(u32 level, const VlanEditInfo *info)
{
    if (info == nullptr) {
        return;
    }
    QorL2ResDbgWriteLog(level, L2RES_LOG_GENERAL,
                        "Vlan edit info: srvType:%u, fmt:%u, o/iTag:%u/%u, oTpid/Act:%u/%u, "
                        "iTpid/Act:%u/%u, o/iPri:%u/%u",
                        info->servType, info->tagFormat, info->outerTag, info->innerTag,
                        info->outerTpid, info->outerTpidAction, info->innerTpid,
                        info->innerTpidAction, info->outerPri, info->innerPri);
}
