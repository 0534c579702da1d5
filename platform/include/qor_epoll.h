/*
 * Tasks, message queues and the event dispatcher of the host forwarding manager.
 *
 * A queue holds elements of a fixed size, first in, first out, bounded by its depth. Attached to an
 * epoll instance it makes the instance readable while it holds elements; the dispatcher then calls
 * the handler stored in the attached record, one element a call, and not for an empty queue. Any
 * thread may write; reads may come from any thread.
 */
#ifndef QOR_EPOLL_H
#define QOR_EPOLL_H

#include <stddef.h>
#include <sys/epoll.h>

#include "qor_types.h"

QOR_BEGIN_C

typedef u64 QorQueueHandle; /* 0 is no queue */

/* The record attached to a queue, handed back to its handler. The attacher owns it. */
typedef struct QorQueueContext {
    QorQueueHandle queue;
    u64 reserved[3];
    u32 (*handler)(u64 first, struct QorQueueContext *context); /* 0: one element was handled */
} QorQueueContext;
QOR_STATIC_ASSERT(sizeof(QorQueueContext) == 40 && offsetof(QorQueueContext, handler) == 32,
                  "queue context record");

enum { QOR_QUEUE_ATTACH = 1, QOR_QUEUE_DETACH = 2 }; /* as EPOLL_CTL_ADD, EPOLL_CTL_DEL */

/* Starts a thread named `name` that runs entry(arg). 0 with *taskId set, or the system's code. */
QOR_API u32 QorEpollTaskCreate(const char *name, u32 *taskId, u32 (*entry)(void *), void *arg);

/* 0 with *queue set; 1: null argument, depth or element size 0; or the system's code. */
QOR_API u32 QorEpollQueCreate(const char *name, u32 depth, QorQueueHandle *queue, u32 option,
                              u32 elementSize);

/*
 * Attaches the queue to (or detaches it from) an epoll instance with an event mask; `context`
 * travels in the epoll event. 0, 1 for an unknown queue or operation, or the system's code.
 */
QOR_API u32 QorEpollQueCtl(u32 epollFd, u32 operation, QorQueueHandle queue, u32 events,
                           QorQueueContext *context);

/* Deletes a queue that nobody uses any more, elements included, and sets *queue to 0. 0 or 1. */
QOR_API u32 QorEpollQueDelete(QorQueueHandle *queue);

/* Elements waiting; 0 for an unknown queue. */
QOR_API u32 QorEpollQueGetMsgNum(QorQueueHandle queue);

/*
 * Appends one element of `size` bytes, waiting up to timeoutMs for room. 0; 1: unknown queue, null
 * element or another size; QOR_QUEUE_FULL after the time-out.
 */
enum { QOR_QUEUE_FULL = 2 };
QOR_API u32 QorEpollQueWrite(QorQueueHandle queue, const void *element, u32 size, u32 timeoutMs);

/* Takes the oldest element: its size, or 0 when there is none (never waits). */
QOR_API u32 QorEpollQueRead(QorQueueHandle queue, u32 option, void *element, u32 size);

/*
 * Hands each ready event to its record's handler; a full queue is drained in bounded batches. A queue
 * whose last element a handler took may stay readable until the dispatcher is done with it.
 */
QOR_API u32 QOR_Epoll_EvtProc(struct epoll_event *events, u32 count);

QOR_END_C

#endif
