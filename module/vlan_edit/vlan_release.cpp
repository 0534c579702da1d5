#include "vlan_edit/vlan_direction.h"

#include "frame/dbg_log.h"

/* The exported operation: logs the request, picks the direction, reports a failure once more. */
u32 Qorl2ResFreeVlanEditProfile(VlanEditInfo *info, u32 flag)
{
    QorL2ResDbgWriteLog(L2RES_LOG_REPORT, L2RES_LOG_GENERAL, "Release profile: flg:%d", flag);
    if (info == nullptr) {
        return QOR_FAIL;
    }
    QorL2ResPrintVlanEditInfo(L2RES_LOG_REPORT, info);
    if (flag != L2RES_VLAN_INGRESS && flag != L2RES_VLAN_EGRESS) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "[FreeVeProfile]Unknown ingress or egress flag, flag:%d, srvType:%u",
                            flag, info->servType);
        return QOR_FAIL;
    }
    const u32 result = VlanDirectionOf(flag)->release(info);
    if (result != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "[FreeVeProfile]Assign Profile Failed, servType:%d, ret:%u",
                            info->servType, result);
    }
    return result;
}

namespace {

/* Removes a booked mapping from the engine, then from the tables with what nobody else needs. */
u32 RemoveMapping(const VlanDirection *direction, const VlanEditInfo *info,
                  const VlanEditMapping *key, const VlanSharing *sharing)
{
    /* The engine first: while it still holds the mapping, the release must stay repeatable. */
    const u32 result =
        QorL2ResSetVlanTranslation(info, key->profileId, key->commandId,
                                   direction->directionFlag | L2RES_VLAN_FLAG_REMOVE_MAPPING);
    if (result != QOR_OK) {
        direction->texts.releaseHookFailed(key->profileId, key->commandId, result);
        QorL2ResPrintVlanEditInfo(L2RES_LOG_ERROR, info);
        return result;
    }
    /* Another tag format needs both, although the exported sharing test counts it for neither. */
    const u32 profFlg = sharing->profileShared | sharing->formatShared;
    const u32 cmdFlg = sharing->commandShared | sharing->formatShared;
    direction->texts.releasing(sharing->mappingId, profFlg, key->profileId, cmdFlg, key->commandId);
    VlanClear(direction, sharing->mappingId, key, cmdFlg, profFlg);
    return QOR_OK;
}

u32 Release(const VlanDirection *direction, const VlanEditInfo *info)
{
    if (info == nullptr) {
        return QOR_FAIL;
    }
    direction->texts.releaseReceived();
    QorL2ResPrintVlanEditInfo(L2RES_LOG_REPORT, info);
    if (info->servType < 1 || info->servType > 12) {
        direction->texts.releaseUnknownService();
        QorL2ResPrintVlanEditInfo(L2RES_LOG_ERROR, info);
        return QOR_FAIL;
    }
    const u16 profileId = VlanOwnedProfile(direction, info->servType, info->outerTpid);
    if (profileId == L2RES_VLAN_NO_PROFILE) {
        direction->texts.releaseNoProfile(info);
        return QOR_OK;
    }
    const VlanEditCommand command = VlanCommandOf(info);
    const u16 commandId = VlanFindCommand(direction, &command);
    if (commandId == L2RES_VLAN_NO_COMMAND) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL, "[L2RES]No assign ive cmd");
        QorL2ResPrintVlanEditInfo(L2RES_LOG_ERROR, info);
        return QOR_FAIL;
    }
    const VlanEditMapping key = {profileId, info->tagFormat, commandId};
    const VlanSharing sharing = VlanFindSharing(direction, &key);
    if (sharing.mappingId == L2RES_VLAN_NO_MAPPING) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "[[L2RES]]Find mapping data fail, profileId:%d, cmdId:%d", profileId,
                            commandId);
        QorL2ResPrintVlanEditInfo(L2RES_LOG_ERROR, info);
        return QOR_FAIL;
    }
    return RemoveMapping(direction, info, &key, &sharing);
}

} // namespace

u32 QorL2ResFreeIveProfile(VlanEditInfo *info)
{
    return Release(&g_vlanIngress, info);
}

u32 QorL2ResFreeEveProfile(VlanEditInfo *info)
{
    return Release(&g_vlanEgress, info);
}
