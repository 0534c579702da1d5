/*
 * What the module asks of a platform, declared by another hand than ours (docs/platform.md): the
 * headers of the platform in this folder, with a larger mutex, and with no word about locks for the
 * compiler. The last two functions are the tests'.
 */
#ifndef PLAIN_H
#define PLAIN_H

#include <pthread.h>
#include <stdarg.h>
#include <stddef.h>
#include <sys/epoll.h>

#include "qor_component.h"
#include "qor_types.h"

QOR_BEGIN_C

QOR_API int memcpy_s(void *dest, size_t destSize, const void *src, size_t count);
QOR_API int memset_s(void *dest, size_t destSize, int value, size_t count);
QOR_API int strcpy_s(char *dest, size_t destSize, const char *src);
QOR_API int strcat_s(char *dest, size_t destSize, const char *src);
QOR_API int sprintf_s(char *dest, size_t destSize, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
QOR_API int snprintf_s(char *dest, size_t destSize, size_t limit, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
QOR_API int vsnprintf_s(char *dest, size_t destSize, size_t limit, const char *format,
                        va_list arguments) __attribute__((format(printf, 4, 0)));
QOR_API int epoll_create_s(int sizeHint);
QOR_API int close_s(int descriptor);

QOR_API u32 ZIR_HandleInitialize(const char *name, u32 *handle);
QOR_API void *ZIR_MemAlloc(u32 handle, u8 partition, u64 size);
QOR_API u32 ZIR_MemFree(u32 handle, void *block);
QOR_API int ZIR_MemCmp(const void *a, const void *b, u64 size);

typedef struct ZIR_Mutex {
    struct ZIR_Mutex *self; /* set by ZIR_MutexInit */
    u64 bit;                /* its own among all mutexes */
    u64 depth;
    pthread_mutex_t mutex;
    u64 room[16];
} ZIR_Mutex;
QOR_API u32 ZIR_MutexInit(ZIR_Mutex *mutex, const void *attributes);
QOR_API void ZIR_MutexLock(ZIR_Mutex *mutex);
QOR_API void ZIR_MutexUnlock(ZIR_Mutex *mutex);

typedef u64 ZIR_TimerHandle;
typedef void (*ZIR_TimerCallback)(void);
enum { ZIR_TIMER_ONCE = 0, ZIR_TIMER_REPEAT = 1 };
QOR_API u32 ZIR_ReltmrCbkStart(ZIR_TimerHandle *handle, u32 memHandle, u32 periodMs, u32 parameter,
                               void *context, u32 mode, ZIR_TimerCallback callback);
QOR_API u32 ZIR_ReltmrStop(ZIR_TimerHandle *handle);

typedef void *HASH_Handle;
typedef u32 (*HASH_HashFunc)(const void *key);
typedef u32 (*HASH_CompFunc)(const void *a, const void *b);
typedef struct {
    void *node;
} HASH_Element;
QOR_API HASH_Handle HASH_CreateNew(u8 partition, u32 nodeSize, u32 bucketCount, HASH_HashFunc hash,
                                   HASH_CompFunc compare, u32 option);
QOR_API void *HASH_NewData(HASH_Handle table, u32 option);
QOR_API void HASH_FreeData(HASH_Handle table, void *data);
QOR_API u32 HASH_AddNode(HASH_Handle table, const void *key, void *data, u32 option);
QOR_API void *HASH_FindElmtFromFirst(HASH_Handle table, const void *key);
QOR_API u32 HASH_RemoveElmtByKey(HASH_Handle table, const void *key);
QOR_API HASH_Element *HASH_GetFirstNode(HASH_Handle table);
QOR_API HASH_Element *HASH_GetNextNode(HASH_Handle table);
QOR_API void HASH_DeleteHash(HASH_Handle *table);

QOR_API u32 COMP_RegisterComponentInfo(const QorComponentInfo *info);
QOR_API u32 COMP_GetVTable(u32 componentId, u32 interfaceId, void **table);

typedef u64 QorQueueHandle;
typedef struct QorQueueContext {
    QorQueueHandle queue;
    u64 reserved[3];
    u32 (*handler)(u64 first, struct QorQueueContext *context);
} QorQueueContext;
enum { QOR_QUEUE_ATTACH = 1, QOR_QUEUE_DETACH = 2 };
QOR_API u32 QorEpollTaskCreate(const char *name, u32 *taskId, u32 (*entry)(void *), void *arg);
QOR_API u32 QorEpollQueCreate(const char *name, u32 depth, QorQueueHandle *queue, u32 option,
                              u32 elementSize);
QOR_API u32 QorEpollQueCtl(u32 epollFd, u32 operation, QorQueueHandle queue, u32 events,
                           QorQueueContext *context);
QOR_API u32 QorEpollQueDelete(QorQueueHandle *queue);
QOR_API u32 QorEpollQueGetMsgNum(QorQueueHandle queue);
QOR_API u32 QorEpollQueWrite(QorQueueHandle queue, const void *element, u32 size, u32 timeoutMs);
QOR_API u32 QorEpollQueRead(QorQueueHandle queue, u32 option, void *element, u32 size);
QOR_API u32 QOR_Epoll_EvtProc(struct epoll_event *events, u32 count);

typedef struct {
    u64 nodes, buffers, bytes; /* bytes: 0, nodes are not counted in a partition */
} HASH_Stat;
QOR_API void HASH_GetStat(HASH_Handle table, HASH_Stat *stat);
typedef struct {
    u64 liveBlocks, liveBytes;
} ZIR_PartitionStat;
QOR_API void ZIR_PartitionGetStat(u8 partition, ZIR_PartitionStat *stat);

QOR_END_C

#endif
