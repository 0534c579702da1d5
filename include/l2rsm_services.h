/*
 * The services of component 1000 that the module calls, as tables of function pointers.
 *
 * The module finds each table once, in phase 1, with COMP_GetVTable(1000, interface id) and keeps
 * its address for ever. Position 0 and the positions named `reserved` are never called. Every
 * operation may be called from several threads at once. A missing table or operation is tolerated
 * everywhere except in the memory manager's.
 *
 * The operations keep the rules of foreign code in l2rsm_registry.h. Those of the debug log, the
 * black box, the log service and the time service may be called with the ICIB waiters' mutex held.
 */
#ifndef L2RSM_SERVICES_H
#define L2RSM_SERVICES_H

#include "qor_types.h"

QOR_BEGIN_C

enum { L2RES_SERVICE_COMPONENT = 1000 };

enum {
    L2RES_IID_ORCHESTRATION = 1003,
    L2RES_IID_MEMORY_MANAGER = 1004,
    L2RES_IID_DEBUG_LOG = 1008,
    L2RES_IID_LOG = 1009,
    L2RES_IID_TIME = 1010,
    L2RES_IID_BLACK_BOX = 1024
};

typedef void (*QorServiceReserved)(void);

typedef struct {
    QorServiceReserved reserved0[3];
    u32 (*initPartition)(u32 memoryId, const char *name);      /* 0 on success */
    u32 (*getPartitionNumber)(u32 memoryId, const char *name); /* low 8 bits are used */
} L2ResMemmVtbl;

/* Filled by the time service; the layout is its own. */
typedef struct {
    u8 opaque[20];
} L2ResAlarmTime;
QOR_STATIC_ASSERT(sizeof(L2ResAlarmTime) == 20, "time record");

typedef struct {
    QorServiceReserved reserved0[3];
    u32 (*getSysTime)(L2ResAlarmTime *now); /* 0 on success */
} L2ResTimeVtbl;

/* Handle of an alarm object. */
typedef u64 L2ResAlarmHandle;

enum { L2RES_ALARM_RAISE = 1, L2RES_ALARM_CLEAR = 2 };

/* Common attributes of an alarm. */
typedef struct {
    u32 alarmKind; /* L2RES_ALARM_RAISE or L2RES_ALARM_CLEAR */
    u32 kindCode;  /* 255 with a raise, 1 with a clear */
    u32 timeKind;  /* 2 */
    u32 zero12;
    L2ResAlarmTime *time; /* valid during the call */
    u32 tableAlarmCode;
    u32 zero28;
    u64 zero32;
} L2ResAlarmAttr;
QOR_STATIC_ASSERT(sizeof(L2ResAlarmAttr) == 40, "common attribute record");

enum { L2RES_PARA_NUMBER = 6, L2RES_PARA_TEXT = 25 };

/* A created object is sent, or freed when it cannot be sent; a sent one is the service's. */
typedef struct {
    QorServiceReserved reserved0;
    u32 (*objCreate)(u32 objectKind, u32 alarmId, L2ResAlarmHandle *object);
    u32 (*setAlarmComAttr)(L2ResAlarmHandle object, L2ResAlarmAttr *attr);
    QorServiceReserved reserved3;
    u32 (*addPara)(L2ResAlarmHandle object, u32 paraType, u32 length, const void *value);
    u32 (*send)(L2ResAlarmHandle object);
    u32 (*objFree)(L2ResAlarmHandle object);
} L2ResLogVtbl;

typedef struct {
    QorServiceReserved reserved0[2];
    u32 (*getSelfSlot)(void); /* board slot number */
} L2ResOrchmVtbl;

/* Levels 2 error, 3 warning, 4 information. */
typedef struct {
    QorServiceReserved reserved0;
    u32 (*registerModule)(const char *name, u32 *id); /* 0 on success */
    QorServiceReserved reserved2[3];
    void (*print)(u32 id, u32 level, const char *text);
} L2ResDbgLogVtbl;

/* Levels 0 event, 1 error. */
typedef struct {
    QorServiceReserved reserved0;
    u32 (*registerModule)(const char *name, const char *description, u32 *id); /* 0 on success */
    void (*print)(u32 id, u32 level, const char *text);
} L2ResBlackBoxVtbl;

QOR_END_C

#endif
