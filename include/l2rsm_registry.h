/*
 * Service registry, hook table and the notifications sent to client services.
 *
 * Who registers: client services (notify callbacks, per table and service type) and the driver
 * side (hooks). Nothing is ever unregistered; registering again replaces the callback or hook, and
 * a null one silences it. Any thread may register at any time: a look-up on another thread sees a
 * registration whole or not at all.
 *
 * Where callbacks run:
 *   event 0 from freeing a token   the freeing client's thread, no lock of the module held;
 *   event 0 from the third tick    the worker task, holding the ICIB waiters' mutex: the callback
 *                                  may get and free tokens, but must not wait for another thread
 *                                  that does;
 *   event 2                        the worker task, no lock of the module held.
 * What a callback on the third tick does through the module runs under that mutex as well: callbacks
 * of the tokens it frees, hooks, log and alarm services. Whatever may be reached this way must not
 * wait for another thread that uses the module either.
 *
 * Foreign code, that is callbacks, hooks and the services of l2rsm_services.h, stays loaded for the
 * life of the process and returns to the module: an exception, a longjmp, a pthread_exit or a
 * cancellation that passes through would leave its mutexes locked and requests half handled. A thread
 * that may be cancelled disables that before it calls the module.
 */
#ifndef L2RSM_REGISTRY_H
#define L2RSM_REGISTRY_H

#include "l2rsm_vlan_edit.h"
#include "qor_types.h"

QOR_BEGIN_C

/* Table ids: rows of the registration table and, for 0 and 3, of the op table. */
enum {
    L2RES_TABLE_ICIB = 0,
    L2RES_TABLE_ECIB = 1,
    L2RES_TABLE_IPAT = 3,
    L2RES_TABLE_LEM = 4,
    L2RES_TABLE_SEM = 5,
    L2RES_TABLE_COUNT = 6
};

/* Service types 0 to 8 may register and take tokens. */
enum { L2RES_SERVICE_COUNT = 9 };

enum {
    L2RES_EVENT_ENTRY_FREE = 0, /* record: the entry's re-op record; data: the waiter's data copy */
    L2RES_EVENT_TABLE_IDLE = 2  /* record and data null: a full table has idle entries again */
};

/*
 * Returns 0 for success; anything else is only reported, never retried. record and data belong to
 * the module and are gone when the notifications are over: copy what is to be kept. In record only
 * the key and the entries up to the callback's own may be read.
 */
typedef u32 (*L2ResNotifyCallback)(u32 event, void *record, void *data);

/* Hook types. All but 3 are resource count hooks. */
enum {
    L2RES_HOOK_ICIB_PP = 0,
    L2RES_HOOK_ECIB = 1,
    L2RES_HOOK_ECIB_EXT = 2,
    L2RES_HOOK_VLAN_TRANSLATION = 3,
    L2RES_HOOK_LEM = 4,
    L2RES_HOOK_SEM = 5,
    L2RES_HOOK_COUNT = 6
};

/* Any hook as the hook table stores it; cast to the signature of its type. */
typedef void (*L2ResHook)(void);

/*
 * Reports a forwarding-engine table's entries: total, used, idle (counts). Returns 0 when they are
 * valid. Called once per judged ICIB add (type 0), so it must be cheap.
 */
typedef u32 (*L2ResCountHook)(u32 *total, u32 *used, u32 *idle);

/* One cell of the registration table. Other components read it through the look-ups below. */
typedef struct {
    u32 registered; /* 0, then 1 for ever */
    L2ResNotifyCallback callback;
} L2ResRegistration;
QOR_STATIC_ASSERT(sizeof(L2ResRegistration) == 16, "registration cell");

typedef struct {
    u32 type; /* the entry's own index once registered */
    L2ResHook hook;
} L2ResHookEntry;
QOR_STATIC_ASSERT(sizeof(L2ResHookEntry) == 16, "hook entry");

QOR_API extern L2ResRegistration g_qorl2resRegTbl[L2RES_TABLE_COUNT][L2RES_SERVICE_COUNT];
QOR_API extern L2ResHookEntry g_qorl2ResHookTbl[L2RES_HOOK_COUNT];

/* Registration. 0, or 1 when the table id is above 5 or the service type above 8. */
QOR_API u32 QOR_L2RES_Register(u32 tableId, u32 serviceType, L2ResNotifyCallback callback);
QOR_API u32 QorL2ResIcibRegister(u32 serviceType, L2ResNotifyCallback callback);
QOR_API u32 QorL2ResEcibRegister(u32 serviceType, L2ResNotifyCallback callback);
QOR_API u32 QorL2ResIpatRegister(u32 serviceType, L2ResNotifyCallback callback);
QOR_API u32 QorL2ResNotifyRegister(u32 tableId, u32 serviceType, L2ResNotifyCallback callback);

/* Look-ups; null or 0 when out of range or not registered. */
QOR_API L2ResNotifyCallback QOR_L2RES_GetRegFunc(u32 tableId, u32 serviceType);
QOR_API u32 QOR_L2RES_IsRegister(u32 tableId, u32 serviceType);

/* Hooks. Register: 0, or 1 when the hook type is above 5. Get: null when there is none. */
QOR_API u32 QorL2ResHookRegister(u32 hookType, L2ResHook hook);
QOR_API L2ResHook QorL2ResGetHook(u32 hookType);

/*
 * Tells one service that its awaited entry is free. The callback's result; without a callback 1
 * when the service is registered (nobody could be told), 0 when it is not (nobody wants to know).
 */
QOR_API u32 QorL2ResNotifyWaitingProc(u32 tableId, u32 serviceType, u32 event, void *record,
                                      void *data);

/* Tells every service of the row, in ascending order, that the table has idle entries. Returns 0. */
QOR_API u32 QorL2ResIdleNotifyProc(u32 tableId);

QOR_END_C

#endif
