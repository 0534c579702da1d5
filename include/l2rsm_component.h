/*
 * How other components reach the module: COMP_GetVTable(3008, 3016, &table) yields a
 * `const L2RsmFunVtbl *`. The table is complete once phase 1 has returned and never changes.
 */
#ifndef L2RSM_COMPONENT_H
#define L2RSM_COMPONENT_H

#include "l2rsm_alarms.h"
#include "l2rsm_arbitration.h"
#include "l2rsm_registry.h"
#include "l2rsm_vlan_edit.h"
#include "qor_component.h"
#include "qor_types.h"

QOR_BEGIN_C

enum { L2RES_COMPONENT_ID = 3008, L2RES_IID_FUNCTIONS = 3016 };

/* Stores the interface object in *out and returns 0 for interface 3016; else stores null, 1. */
typedef u32 (*L2ResQueryInterface)(void *self, u32 interfaceId, void **out);

/* The exported table: each operation is described where it is declared. */
typedef struct {
    L2ResQueryInterface queryInterface;                                                /* 0 */
    u32 (*hookRegister)(u32 hookType, L2ResHook hook);                                 /* 1 */
    u32 (*icibRegister)(u32 serviceType, L2ResNotifyCallback callback);                /* 2 */
    u32 (*getIcibToken)(u32 srvType, u32 opType, L2ResTokenReq *req);                  /* 3 */
    u32 (*freeIcibToken)(u32 srvType, u32 opType, L2ResTokenReq *req);                 /* 4 */
    u32 (*ecibRegister)(u32 serviceType, L2ResNotifyCallback callback);                /* 5 */
    u32 (*ipatRegister)(u32 serviceType, L2ResNotifyCallback callback);                /* 6 */
    u32 (*getIpatToken)(u32 srvType, u32 opType, L2ResTokenReq *req);                  /* 7 */
    u32 (*freeIpatToken)(u32 srvType, u32 opType, L2ResTokenReq *req);                 /* 8 */
    u32 (*assignVlanEditProfile)(VlanEditInfo *info, u16 *profileId, u32 flag);        /* 9 */
    u32 (*freeVlanEditProfile)(VlanEditInfo *info, u32 flag);                          /* 10 */
    u32 (*notifyRegister)(u32 tableId, u32 serviceType, L2ResNotifyCallback callback); /* 11 */
    u32 (*exceedCheckAndAlarm)(u32 alarmType);                                         /* 12 */
} L2RsmFunVtbl;
QOR_STATIC_ASSERT(sizeof(L2RsmFunVtbl) == 13 * sizeof(void *), "13 positions");

/* The interface object: its only field is the table. There is exactly one. */
typedef struct {
    L2RsmFunVtbl *vtbl;
} L2RsmInterface;

QOR_API extern L2RsmFunVtbl g_l2RsmFunVtbl;
QOR_API extern L2RsmInterface g_l2ResFun;
QOR_API extern const QorFactoryVtbl g_l2resFactoryVtbl;
QOR_API extern QorFactory g_l2resFactory;
QOR_API extern const QorComponentInfo g_l2RsmCompInfo;

QOR_API u32 QOR_ETH_QueryInterface_l2rsm(void *self, u32 interfaceId, void **out);
QOR_API u32 QOR_ETH_FactoryCreateInstance_l2rsm(void *factory, u32 interfaceId, void **out);
QOR_API u32 QOR_ETH_FactoryQueryInterface_l2rsm(void *factory, u32 interfaceId, void **out);

QOR_END_C

#endif
