#include "vlan_edit/vlan_direction.h"

#include "frame/dbg_log.h"

/* The six tables: changed by assignment, release and the primitives; callers serialise these. */
u32 g_iveEditProfileItem[L2RES_VLAN_PROFILE_COUNT];
u32 g_eveEditProfileItem[L2RES_VLAN_PROFILE_COUNT];
VlanEditCommand g_iveEditCommandInfo[L2RES_VLAN_COMMAND_COUNT];
VlanEditCommand g_eveEditCommandInfo[L2RES_VLAN_COMMAND_COUNT];
VlanEditMapping g_iveEditCommandItem[L2RES_VLAN_MAPPING_COUNT];
VlanEditMapping g_eveEditCommandItem[L2RES_VLAN_MAPPING_COUNT];

namespace {

/* Each row is a function so that the compiler holds every text against its arguments. */
constexpr VlanTexts INGRESS_TEXTS = {
    .assignReceived =
        [](const VlanEditInfo *info) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_EVENT, L2RES_LOG_GENERAL,
                "[IveRsmCommand]Receive Ive Profile Info, servType:%d, tagFormat:%d, outerTag:%d,"
                "innerTag:%d, outerPri:%d, innerPri:%d, outerTpid:%d, innerTpid:%d, "
                "outerTpidAction:%d, innerTpidAction:%d.",
                info->servType, info->tagFormat, info->outerTag, info->innerTag, info->outerPri,
                info->innerPri, info->outerTpid, info->innerTpid, info->outerTpidAction,
                info->innerTpidAction);
        },
    .assignOutOfRange =
        [](u32 servType) {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                                "[CheckVlanEditInfo]Receive Unknown Ive Profile Value, servType:%d",
                                servType);
        },
    .assignNoProfileLeft =
        [](u32 servType, u32 profileId) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                "The IVE profile resource overflows, servType:%d, iveEditProfile:%d", servType,
                profileId);
        },
    .assignProfile =
        [](u32 servType, u32 profileId) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_GENERAL,
                                "Assign IVE, servType:%d, iveEditProfile:%d.", servType, profileId);
        },
    .assignCommandFailed =
        [](u32 servType, u32 profileId) {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                                "The IVE Set Command Fail, servType:%d, iveEditProfile:%d.",
                                servType, profileId);
        },
    .assignFailed =
        [](u32 servType, u32 profileId) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                "[AssignveProfile]Assign Ive Profile Failed, servType:%d, profileId:%d", servType,
                profileId);
        },
    .commandStored =
        [](u32 servType, u32 commandId) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_GENERAL,
                                "QorL2ResSetIveCommand, servType:%d, commandId:%d.", servType,
                                commandId);
        },
    .commandTableFull =
        [](u32 servType) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_GENERAL,
                                "QorL2ResSetIveCommand, servType:%d, commandId:%d.", servType,
                                L2RES_VLAN_NO_COMMAND);
        },
    .programming = [](u32, u32) {}, /* written for egress only */
    .programmingFailed =
        [](u32 servType, u32 profileId, u32 commandId) {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                                "[QorL2ResSetIveCommand]Set Translation Fail, serviceType:%d, "
                                "profileId:%d, commandId:%d",
                                servType, profileId, commandId);
        },
    .releaseReceived =
        [] { QorL2ResDbgWriteLog(L2RES_LOG_REPORT, L2RES_LOG_GENERAL, "[L2RES]FreeIveProfile"); },
    .releaseUnknownService =
        [] {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                                "[L2RES]FreeIveProfile unknown servType");
        },
    .releaseNoProfile =
        [](const VlanEditInfo *info) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_GENERAL,
                                "[L2RES]No assign ive profileId");
            QorL2ResPrintVlanEditInfo(L2RES_LOG_EVENT, info);
        },
    .releaseHookFailed =
        [](u32 profileId, u32 commandId, u32 result) {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                                "[[L2RES]]Free Translation Fail, profileId:%d, cmdId:%d, ret:%u",
                                profileId, commandId, result);
        },
    .releasing =
        [](u32 mappingId, u32 profFlg, u32 profileId, u32 cmdFlg, u32 commandId) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_REPORT, L2RES_LOG_GENERAL,
                "[L2RES]FreeIveProfile, mappingId:%u, profFlg:%u, profId:%u, cmdFlg:%u, cmdId:%u",
                mappingId, profFlg, profileId, cmdFlg, commandId);
        },
};

constexpr VlanTexts EGRESS_TEXTS = {
    .assignReceived =
        [](const VlanEditInfo *info) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_EVENT, L2RES_LOG_GENERAL,
                "[IveRsmCommand]Receive Eve Profile Info, servType:%d, tagFormat:%d, outerTag:%d,"
                "innerTag:%d, outerPri:%d, innerPri:%d, outerTpid:%d, innerTpid:%d, "
                "outerTpidAction:%d, innerTpidAction:%d. ",
                info->servType, info->tagFormat, info->outerTag, info->innerTag, info->outerPri,
                info->innerPri, info->outerTpid, info->innerTpid, info->outerTpidAction,
                info->innerTpidAction);
        },
    .assignOutOfRange =
        [](u32 servType) {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                                "[CheckVlanEditInfo]Receive Unknown Eve Profile Value, servType:%d",
                                servType);
        },
    .assignNoProfileLeft =
        [](u32 servType, u32 profileId) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                "The EVE profile resource overflows, servType:%d, iveEditProfile:%d", servType,
                profileId);
        },
    .assignProfile =
        [](u32 servType, u32 profileId) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_GENERAL,
                                "Assign EVE, servType:%d, eveEditProfile:%d.", servType, profileId);
        },
    .assignCommandFailed =
        [](u32 servType, u32 profileId) {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                                "The EVE Set Command Fail, servType:%d, iveEditProfile:%d.",
                                servType, profileId);
        },
    .assignFailed =
        [](u32 servType, u32 profileId) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                "[AssignveProfile]Assign Eve Profile Failed, servType:%d, profileId:%d", servType,
                profileId);
        },
    .commandStored =
        [](u32 servType, u32 commandId) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_GENERAL,
                                "SetEveComman, servType:%d, commandId:%d.", servType, commandId);
        },
    .commandTableFull = [](u32) {}, /* the failure lines of the callers say enough */
    .programming =
        [](u32 servType, u32 commandFlag) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_GENERAL,
                                "SetEveComman, servType:%d, commandFlag:%d.", servType,
                                commandFlag);
        },
    .programmingFailed =
        [](u32 servType, u32 profileId, u32 commandId) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                "[SetEveComman]Set Translation Fail, serviceType:%d, profileId:%d, commandId:%d",
                servType, profileId, commandId);
        },
    .releaseReceived =
        [] { QorL2ResDbgWriteLog(L2RES_LOG_REPORT, L2RES_LOG_GENERAL, "[L2RES]FreeEveProfile"); },
    .releaseUnknownService =
        [] {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                                "[L2RES]FreeEveProfile unknown servType");
        },
    .releaseNoProfile =
        [](const VlanEditInfo *info) {
            QorL2ResDbgWriteLog(L2RES_LOG_EVENT, L2RES_LOG_GENERAL,
                                "No assign profileId, srvType:%d", info->servType);
        },
    .releaseHookFailed =
        [](u32 profileId, u32 commandId, u32) {
            QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                                "[FreeEveProfile]Free Translation Fail, profileId:%d, commandId:%d",
                                profileId, commandId);
        },
    .releasing =
        [](u32 mappingId, u32 profFlg, u32 profileId, u32 cmdFlg, u32 commandId) {
            QorL2ResDbgWriteLog(
                L2RES_LOG_REPORT, L2RES_LOG_GENERAL,
                "[L2RES]FreeEveProfile, mappingId:%u, profFlg:%u, profId:%u, cmdFlg:%u, cmdId:%u",
                mappingId, profFlg, profileId, cmdFlg, commandId);
        },
};

} // namespace

constinit const VlanDirection g_vlanIngress = {
    .profiles = g_iveEditProfileItem,
    .commands = g_iveEditCommandInfo,
    .mappings = g_iveEditCommandItem,
    .reserved = {{.servType = 2, .firstId = 0}, {.servType = 0, .firstId = 0}},
    .firstCommand = 1,
    .directionFlag = L2RES_VLAN_FLAG_INGRESS,
    .programsAgain = false,
    .assign = QorL2ResAssignIveProfile,
    .setCommand = QorL2ResSetIveCommand,
    .release = QorL2ResFreeIveProfile,
    .profileHeader = "[L2RSM]IveProfile: ",
    .mappingHeader = "[L2RSM]IveCmdMapping: ",
    .commandHeader = "[L2RSM]IveCmd: ",
    .texts = INGRESS_TEXTS,
};

constinit const VlanDirection g_vlanEgress = {
    .profiles = g_eveEditProfileItem,
    .commands = g_eveEditCommandInfo,
    .mappings = g_eveEditCommandItem,
    .reserved = {{.servType = 2, .firstId = 0}, {.servType = 7, .firstId = 2}},
    .firstCommand = 2,
    .directionFlag = L2RES_VLAN_FLAG_EGRESS,
    .programsAgain = true,
    .assign = QorL2ResAssignEveProfile,
    .setCommand = QorL2ResSetEveCommand,
    .release = QorL2ResFreeEveProfile,
    .profileHeader = "[L2RSM]EveProfile: ",
    .mappingHeader = "[L2RSM]EveCmdMapping: ",
    .commandHeader = "[L2RSM]EveCmd: ",
    .texts = EGRESS_TEXTS,
};
