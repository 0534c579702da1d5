#include "vlan_edit/vlan_direction.h"

#include "frame/dbg_log.h"
#include "l2rsm_registry.h"
#include "registry/registry.h"

/* The exported operation: logs the request, picks the direction, reports a failure once more. */
u32 Qorl2ResAssignVlanEditProfile(VlanEditInfo *info, u16 *profileId, u32 flag)
{
    QorL2ResDbgWriteLog(L2RES_LOG_REPORT, L2RES_LOG_GENERAL, "Assign profile: flg:%d", flag);
    if (info == nullptr || profileId == nullptr) {
        return QOR_FAIL;
    }
    QorL2ResPrintVlanEditInfo(L2RES_LOG_REPORT, info);
    if (flag != L2RES_VLAN_INGRESS && flag != L2RES_VLAN_EGRESS) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "[AssignveProfile]Unknown ingress or egress flag, flag:%d", flag);
        return QOR_FAIL;
    }
    const VlanDirection *direction = VlanDirectionOf(flag);
    if (direction->assign(info, profileId) == QOR_OK && *profileId < L2RES_VLAN_PROFILE_COUNT) {
        return QOR_OK;
    }
    direction->texts.assignFailed(info->servType, *profileId);
    return QOR_FAIL;
}

namespace {

u32 Assign(const VlanDirection *direction, const VlanEditInfo *info, u16 *profileId)
{
    if (info == nullptr || profileId == nullptr) {
        return QOR_FAIL;
    }
    const VlanTexts &texts = direction->texts;
    texts.assignReceived(info);
    if (QorL2ResCheckVlanEditInfo(info) == 0) {
        texts.assignOutOfRange(info->servType);
        return QOR_FAIL;
    }
    const u16 id = VlanSelectProfile(direction, info->servType, info->outerTpid);
    if (id == L2RES_VLAN_NO_PROFILE) {
        texts.assignNoProfileLeft(info->servType, id);
        return QOR_FAIL;
    }
    *profileId = id;
    texts.assignProfile(info->servType, id);
    if (direction->setCommand(info, id) != QOR_OK) {
        /* The profile stays taken: it may be the service's from earlier assignments. */
        texts.assignCommandFailed(info->servType, id);
        return QOR_FAIL;
    }
    return QOR_OK;
}

/* The id of the request's command, stored first when it is new; 1 when no id is left. */
u32 TakeCommand(const VlanDirection *direction, const VlanEditInfo *info, u16 *commandId,
                bool *stored)
{
    const VlanEditCommand command = VlanCommandOf(info);
    *commandId = VlanFindCommand(direction, &command);
    *stored = *commandId == L2RES_VLAN_NO_COMMAND;
    if (!*stored) {
        return QOR_OK;
    }
    if (VlanStoreCommand(direction, &command, commandId) != QOR_OK) {
        return QOR_FAIL;
    }
    if (*commandId == L2RES_VLAN_NO_COMMAND) {
        direction->texts.commandTableFull(info->servType);
        return QOR_FAIL;
    }
    direction->texts.commandStored(info->servType, *commandId);
    return QOR_OK;
}

u32 SetCommand(const VlanDirection *direction, const VlanEditInfo *info, u16 profileId)
{
    u16 commandId = L2RES_VLAN_NO_COMMAND;
    bool newCommand = false;
    if (TakeCommand(direction, info, &commandId, &newCommand) != QOR_OK) {
        return QOR_FAIL;
    }
    const VlanEditMapping mapping = {profileId, info->tagFormat, commandId};
    const bool newMapping = !VlanBookMapping(direction, &mapping);

    u32 wanted = newCommand ? L2RES_VLAN_FLAG_NEW_COMMAND : 0;
    if (newMapping || direction->programsAgain) {
        wanted |= L2RES_VLAN_FLAG_NEW_MAPPING;
    }
    if (wanted == 0) {
        return QOR_OK;
    }
    const u32 commandFlag = direction->directionFlag | wanted;
    direction->texts.programming(info->servType, commandFlag);
    if (QorL2ResSetVlanTranslation(info, profileId, commandId, commandFlag) != QOR_OK) {
        /* What is booked stays booked, so that a release finds what it has to undo. */
        direction->texts.programmingFailed(info->servType, profileId, commandId);
    }
    return QOR_OK;
}

} // namespace

u32 QorL2ResAssignIveProfile(VlanEditInfo *info, u16 *profileId)
{
    return Assign(&g_vlanIngress, info, profileId);
}

u32 QorL2ResAssignEveProfile(VlanEditInfo *info, u16 *profileId)
{
    return Assign(&g_vlanEgress, info, profileId);
}

u32 QorL2ResSetIveCommand(const VlanEditInfo *info, u16 profileId)
{
    return SetCommand(&g_vlanIngress, info, profileId);
}

u32 QorL2ResSetEveCommand(const VlanEditInfo *info, u16 profileId)
{
    return SetCommand(&g_vlanEgress, info, profileId);
}

u32 QorL2ResSetVlanTranslation(const VlanEditInfo *info, u16 profileId, u16 commandId,
                               u32 commandFlag)
{
    const auto hook =
        reinterpret_cast<L2ResVlanTranslationHook>(HookOf(L2RES_HOOK_VLAN_TRANSLATION));
    if (hook == nullptr) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "[SetVlanTranslation]g_qorl2ResHookTbl Failed");
        return QOR_FAIL;
    }
    const u32 result = hook(info, profileId, commandId, commandFlag);
    if (result != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "[SetVlanTranslation]SetTranslation Failed, ret:%d", result);
    }
    return result;
}
