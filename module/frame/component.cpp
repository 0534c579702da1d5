#include "frame/component.h"

#include "comp_registry.h"

L2RsmFunVtbl g_l2RsmFunVtbl = {
    .queryInterface = nullptr, // filled by QOR_L2RES_FactoryInit
    .hookRegister = QorL2ResHookRegister,
    .icibRegister = QorL2ResIcibRegister,
    .getIcibToken = QorL2ResGetIcibToken,
    .freeIcibToken = QorL2ResFreeIcibToken,
    .ecibRegister = QorL2ResEcibRegister,
    .ipatRegister = QorL2ResIpatRegister,
    .getIpatToken = QorL2ResGetIpatToken,
    .freeIpatToken = QorL2ResFreeIpatToken,
    .assignVlanEditProfile = Qorl2ResAssignVlanEditProfile,
    .freeVlanEditProfile = Qorl2ResFreeVlanEditProfile,
    .notifyRegister = QorL2ResNotifyRegister,
    .exceedCheckAndAlarm = QorL2ResExceedCheckAndAlarm,
};

L2RsmInterface g_l2ResFun = {&g_l2RsmFunVtbl};

const QorFactoryVtbl g_l2resFactoryVtbl = {
    .queryInterface = QOR_ETH_FactoryQueryInterface_l2rsm,
    .createInstance = QOR_ETH_FactoryCreateInstance_l2rsm,
};

QorFactory g_l2resFactory = {&g_l2resFactoryVtbl};

const QorComponentInfo g_l2RsmCompInfo = {
    .componentId = L2RES_COMPONENT_ID,
    .name = "QOR_L2RES",
    .shortName = "L2RES",
    .one = 1,
    .factory = &g_l2resFactory,
};

namespace {

u32 HandOutInterface(bool accepted, void **out)
{
    if (out == nullptr) {
        return QOR_FAIL;
    }
    *out = accepted ? &g_l2ResFun : nullptr;
    return accepted ? QOR_OK : QOR_FAIL;
}

} // namespace

u32 QOR_L2RES_FactoryInit(void)
{
    QOR_L2RES_FactoryGetVtbl()->vtbl->queryInterface = QOR_ETH_QueryInterface_l2rsm;
    return COMP_RegisterComponentInfo(&g_l2RsmCompInfo) == QOR_OK ? QOR_OK : QOR_FAIL;
}

L2RsmInterface *QOR_L2RES_FactoryGetVtbl(void)
{
    return &g_l2ResFun;
}

L2RsmInterface *QOR_L2RES_FactoryGetFunc(void)
{
    return &g_l2ResFun;
}

u32 QOR_ETH_QueryInterface_l2rsm(void *self, u32 interfaceId, void **out)
{
    (void)self;
    return HandOutInterface(interfaceId == L2RES_IID_FUNCTIONS, out);
}

u32 QOR_ETH_FactoryCreateInstance_l2rsm(void *factory, u32 interfaceId, void **out)
{
    (void)factory;
    return HandOutInterface(interfaceId == QOR_IID_BASE || interfaceId == L2RES_IID_FUNCTIONS, out);
}

u32 QOR_ETH_FactoryQueryInterface_l2rsm(void *factory, u32 interfaceId, void **out)
{
    if (factory == nullptr || out == nullptr ||
        (interfaceId != QOR_IID_BASE && interfaceId != QOR_IID_FACTORY)) {
        return QOR_E_NO_INTERFACE; // *out stays as it was
    }
    *out = factory;
    return QOR_OK;
}
