/*
 * VLAN edit profiles, commands and mappings.
 *
 * Per direction the forwarding engine has 64 edit profiles (one per service type, shared by all its
 * requests), 128 edit commands (shared by identical command blocks) and 128 mappings of profile and
 * tag format to command. The module books in six tables what it has handed out and programs the
 * engine through the VLAN translation hook (hook type 3).
 *
 * Threads: no lock. Callers serialise assignment, release and the primitives among themselves.
 * The hook runs synchronously on the caller's thread. The request belongs to the caller.
 */
#ifndef L2RSM_VLAN_EDIT_H
#define L2RSM_VLAN_EDIT_H

#include "qor_types.h"

QOR_BEGIN_C

/* Direction, the `flag` of the operations. The primitives take every value but 2 as ingress. */
enum { L2RES_VLAN_INGRESS = 1, L2RES_VLAN_EGRESS = 2 };

enum {
    L2RES_VLAN_PROFILE_COUNT = 64,
    L2RES_VLAN_COMMAND_COUNT = 128,
    L2RES_VLAN_MAPPING_COUNT = 128,
    L2RES_VLAN_NO_PROFILE = 64,  /* no profile id is left */
    L2RES_VLAN_NO_COMMAND = 128, /* no command id is left */
    L2RES_VLAN_NO_MAPPING = 128  /* no mapping matches */
};

/* Command flags of the VLAN translation hook: what it is to program. */
enum {
    L2RES_VLAN_FLAG_INGRESS = 0x01,
    L2RES_VLAN_FLAG_EGRESS = 0x02,
    L2RES_VLAN_FLAG_REMOVE_MAPPING = 0x08,
    L2RES_VLAN_FLAG_NEW_COMMAND = 0x14,
    L2RES_VLAN_FLAG_NEW_MAPPING = 0x20
};

/* The edit proper: a request's fields 3 to 10. Compared and stored as one block of 32 bytes. */
typedef struct {
    u32 outerTag;        /* 1..4; 0 marks a free entry of a command table */
    u32 innerTag;        /* 1..4 */
    u32 outerPri;        /* 1..4 */
    u32 innerPri;        /* 1..4 */
    u32 outerTpid;       /* 0..3 */
    u32 innerTpid;       /* 0..3 */
    u32 outerTpidAction; /* 1..4 */
    u32 innerTpidAction; /* 1..4 */
} VlanEditCommand;
QOR_STATIC_ASSERT(sizeof(VlanEditCommand) == 32, "command block");

/* A client's request. The action codes mean what the hook's supplier makes of them. */
typedef struct {
    u32 servType;  /* 1..12, the client's service type */
    u32 tagFormat; /* 1..7, tag format of the packets the edit applies to */
    u32 outerTag;  /* the eight fields of VlanEditCommand, in its order */
    u32 innerTag;
    u32 outerPri;
    u32 innerPri;
    u32 outerTpid;
    u32 innerTpid;
    u32 outerTpidAction;
    u32 innerTpidAction;
} VlanEditInfo;
QOR_STATIC_ASSERT(sizeof(VlanEditInfo) == 40, "the command block follows the tag format");

/* Free when tagFormat and profileId are both 0. */
typedef struct {
    u16 profileId;
    u32 tagFormat;
    u16 commandId;
} VlanEditMapping;
QOR_STATIC_ASSERT(sizeof(VlanEditMapping) == 12, "mapping entry");

/*
 * The VLAN translation hook. info is the caller's record unchanged; commandFlag: flags above.
 * Returns 0 when the engine was programmed. On an assignment a failure is only logged; on a release
 * it is passed to the caller and nothing is freed.
 */
typedef u32 (*L2ResVlanTranslationHook)(const VlanEditInfo *info, u16 profileId, u16 commandId,
                                        u32 commandFlag);

/* Indexed by profile id: 0 free, else the owning service type or a reserved mark (2 or 3). */
QOR_API extern u32 g_iveEditProfileItem[L2RES_VLAN_PROFILE_COUNT];
QOR_API extern u32 g_eveEditProfileItem[L2RES_VLAN_PROFILE_COUNT];
/* Indexed by command id. Ingress uses 1..127, egress 2..127. */
QOR_API extern VlanEditCommand g_iveEditCommandInfo[L2RES_VLAN_COMMAND_COUNT];
QOR_API extern VlanEditCommand g_eveEditCommandInfo[L2RES_VLAN_COMMAND_COUNT];
/* Entries 1..127; entry 0 only takes what no longer fits, and no search reads it. */
QOR_API extern VlanEditMapping g_iveEditCommandItem[L2RES_VLAN_MAPPING_COUNT];
QOR_API extern VlanEditMapping g_eveEditCommandItem[L2RES_VLAN_MAPPING_COUNT];

/*
 * Assigns an edit profile. 0 with *profileId 0..63; 1 for a null argument, a flag other than 1 and
 * 2, a field out of its range, or when no profile or command id is left. A failing or missing hook
 * is logged and the assignment stands. Nothing is rolled back.
 */
QOR_API u32 Qorl2ResAssignVlanEditProfile(VlanEditInfo *info, u16 *profileId, u32 flag);
QOR_API u32 QorL2ResAssignIveProfile(VlanEditInfo *info, u16 *profileId);
QOR_API u32 QorL2ResAssignEveProfile(VlanEditInfo *info, u16 *profileId);

/* Books command and mapping for a profile and programs them. 0, or 1 when no command id is left. */
QOR_API u32 QorL2ResSetIveCommand(const VlanEditInfo *info, u16 profileId);
QOR_API u32 QorL2ResSetEveCommand(const VlanEditInfo *info, u16 profileId);

/* Calls the VLAN translation hook: its result, or 1 when none is registered. */
QOR_API u32 QorL2ResSetVlanTranslation(const VlanEditInfo *info, u16 profileId, u16 commandId,
                                       u32 commandFlag);

/*
 * Undoes an assignment; info is the record that was assigned. 0, also when the service type holds
 * no profile; 1 for a bad argument or when command or mapping are not booked; or the hook's
 * non-zero result, and then the tables are left so that the release can be tried again.
 */
QOR_API u32 Qorl2ResFreeVlanEditProfile(VlanEditInfo *info, u32 flag);
QOR_API u32 QorL2ResFreeIveProfile(VlanEditInfo *info);
QOR_API u32 QorL2ResFreeEveProfile(VlanEditInfo *info);

/* Primitives on the tables, for other components of the forwarding manager. */

/* Selects (and takes) a profile id: *profileId 0..63, or 64 when none is left. */
QOR_API void QorL2ResGetIveProfileId(u16 servType, u16 outerTpid, u16 *profileId);
QOR_API void QorL2ResGetEveProfileId(u16 servType, u16 outerTpid, u16 *profileId);

/* First profile id 0..63 whose entry equals value: 1 with *profileId, or 0 and nothing written. */
QOR_API u32 QorL2ResFreeGetIveProfileId(u16 value, u16 *profileId);
QOR_API u32 QorL2ResFreeGetEveProfileId(u16 value, u16 *profileId);

/*
 * Finds or stores a command. 1: an equal one was stored already. 0: stored now, *commandId is 128
 * when the table is full, and is not written when the copy failed or command is null.
 */
QOR_API u32 QorL2ResCmpIveCommandInfo(const VlanEditCommand *command, u16 *commandId);
QOR_API u32 QorL2ResCmpEveCommandInfo(const VlanEditCommand *command, u16 *commandId);

/* Finds a stored command: 0 with *commandId, or 1 and nothing written. */
QOR_API u32 QorL2ResGetIveCommandId(const VlanEditCommand *command, u16 *commandId);
QOR_API u32 QorL2ResGetEveCommandId(const VlanEditCommand *command, u16 *commandId);

/* Finds or books an ingress mapping. 1: it was there. 0: booked now, or commandId not 1..127. */
QOR_API u32 QorL2ResCmpIveCommandMapping(u32 tagFormat, u16 profileId, u16 commandId);

/* Overwrites the ingress mapping entry at index (0..127). */
QOR_API void QorL2ResGetIveMappingInfo(u32 tagFormat, u16 profileId, u16 commandId, u32 index);

/*
 * Who still needs the key's profile and command: *cmdFlg 1 when another profile's mapping names the
 * command, *profFlg 1 when another command's mapping names the profile. Returns the highest entry
 * equal to the key, or 128.
 */
QOR_API u32 QorL2ResFindVEMapping(u32 flag, const VlanEditMapping *key, u32 *cmdFlg, u32 *profFlg);

/*
 * Clears mapping entry mappingId (if below 128), the key's profile (if profFlg is 0) and command
 * (if cmdFlg is 0). Always 0. key->profileId must be below 64 and key->commandId below 128.
 */
QOR_API u32 QorL2ReleaseVlanEditRes(u32 flag, u32 mappingId, const VlanEditMapping *key, u32 cmdFlg,
                                    u32 profFlg);

/* 1 when every field is in its range, else 0 (also for null). */
QOR_API u32 QorL2ResCheckVlanEditInfo(const VlanEditInfo *info);
QOR_API u32 QorL2ResCheckVlanAction(const VlanEditCommand *command);

/* Writes the request as one line at the given log level. */
QOR_API void QorL2ResPrintVlanEditInfo(u32 level, const VlanEditInfo *info);

/* Writes the six tables to the debug log, lines of at most 119 characters. */
QOR_API void QorL2ResPrintVlanEditRes(void);
/* One table of one direction (2 egress, else ingress). */
QOR_API void QorL2ResPrintVlanEditProfileRes(u32 direction);
QOR_API void QorL2ResPrintVlanEditMappingRes(u32 direction);
QOR_API void QorL2ResPrintVlanEditCmdRes(u32 direction);

QOR_END_C

#endif
