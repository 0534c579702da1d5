/*
 * What ingress and egress have in common, and all that they differ in.
 *
 * Every operation on VLAN edit resources exists once, over a direction's descriptor. The
 * descriptors are constant; the tables behind them have no lock (see l2rsm_vlan_edit.h).
 *
 * A booked mapping keeps its profile and its command taken: both are freed by the release of the
 * last mapping, among entries 1..127, that names them. There are no counters.
 */
#ifndef VLAN_EDIT_VLAN_DIRECTION_H
#define VLAN_EDIT_VLAN_DIRECTION_H

#include "l2rsm_vlan_edit.h"

enum { VLAN_FIRST_GENERAL_PROFILE = 4, VLAN_FIRST_MAPPING = 1 };

/* A reserved pair of profile ids: the first for outerTpid 1, the one after it for any other. */
struct VlanReservedPair {
    u32 servType; /* 0: no pair */
    u16 firstId;
};
enum { VLAN_RESERVED_PAIRS = 2, VLAN_FIRST_MARK = 2 /* the second id of a pair holds mark 3 */ };

/* The log lines of a direction, each at its level and with everything that belongs to it. */
struct VlanTexts {
    void (*assignReceived)(const VlanEditInfo *info);
    void (*assignOutOfRange)(u32 servType);
    void (*assignNoProfileLeft)(u32 servType, u32 profileId);
    void (*assignProfile)(u32 servType, u32 profileId);
    void (*assignCommandFailed)(u32 servType, u32 profileId);
    void (*assignFailed)(u32 servType, u32 profileId);
    void (*commandStored)(u32 servType, u32 commandId);
    void (*commandTableFull)(u32 servType);
    void (*programming)(u32 servType, u32 commandFlag);
    void (*programmingFailed)(u32 servType, u32 profileId, u32 commandId);
    void (*releaseReceived)(void);
    void (*releaseUnknownService)(void);
    void (*releaseNoProfile)(const VlanEditInfo *info);
    void (*releaseHookFailed)(u32 profileId, u32 commandId, u32 result);
    void (*releasing)(u32 mappingId, u32 profFlg, u32 profileId, u32 cmdFlg, u32 commandId);
};

struct VlanDirection {
    u32 *profiles;
    VlanEditCommand *commands;
    VlanEditMapping *mappings;
    VlanReservedPair reserved[VLAN_RESERVED_PAIRS];
    u16 firstCommand;   /* lowest command id that is handed out */
    u32 directionFlag;  /* the direction's bit in the hook's command flag */
    bool programsAgain; /* a mapping that is booked already is programmed again */
    /* The exported operations of the direction, which may have been replaced by a patch. */
    u32 (*assign)(VlanEditInfo *info, u16 *profileId);
    u32 (*setCommand)(const VlanEditInfo *info, u16 profileId);
    u32 (*release)(VlanEditInfo *info);
    const char *profileHeader; /* of the dump */
    const char *mappingHeader;
    const char *commandHeader;
    VlanTexts texts;
};

extern const VlanDirection g_vlanIngress;
extern const VlanDirection g_vlanEgress;

inline const VlanDirection *VlanDirectionOf(u32 flag)
{
    return flag == L2RES_VLAN_EGRESS ? &g_vlanEgress : &g_vlanIngress;
}

/* The command block of a request: its third to tenth field. */
inline VlanEditCommand VlanCommandOf(const VlanEditInfo *info)
{
    return {info->outerTag,  info->innerTag,  info->outerPri,        info->innerPri,
            info->outerTpid, info->innerTpid, info->outerTpidAction, info->innerTpidAction};
}

/* The steps that assignment, release and the exported primitives are made of. */

/* Selects a profile id and takes it: an id, or 64 when none is left. */
u16 VlanSelectProfile(const VlanDirection *direction, u32 servType, u32 outerTpid);

/* The profile id that the same selection took before: an id, or 64 when there is none. */
u16 VlanOwnedProfile(const VlanDirection *direction, u32 servType, u32 outerTpid);

/* The first equal command: its id, or 128. */
u16 VlanFindCommand(const VlanDirection *direction, const VlanEditCommand *command);

/*
 * Stores a command in the first free entry: 0 with its id, or with 128 when there is none; 1 when
 * the copy failed, which is logged: the entry is then still free and no id is written.
 */
u32 VlanStoreCommand(const VlanDirection *direction, const VlanEditCommand *command,
                     u16 *commandId);

/* Books a mapping unless it is booked: true when it was. With no free entry it goes to entry 0. */
bool VlanBookMapping(const VlanDirection *direction, const VlanEditMapping *mapping);

/* Who else needs the profile and the command of a mapping. The flags are 0 or 1. */
struct VlanSharing {
    u32 mappingId;     /* the highest entry equal to the mapping, or 128 */
    u32 commandShared; /* another profile's mapping names the command */
    u32 profileShared; /* the profile's mapping to another command, or, for profile 0, a free entry */
    u32 formatShared; /* a mapping names both under another tag format */
};
VlanSharing VlanFindSharing(const VlanDirection *direction, const VlanEditMapping *key);

/* Clears the mapping entry (below 128) and, when nobody shares them, profile and command. */
void VlanClear(const VlanDirection *direction, u32 mappingId, const VlanEditMapping *key,
               u32 commandShared, u32 profileShared);

#endif
