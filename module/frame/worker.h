/*
 * The worker task "QOR_L2RSM": everything the module does periodically.
 *
 * Two timers post messages into the queue "L2RSM_Q_DATA"; the worker waits on its epoll instance and
 * the host's dispatcher hands it one message at a time. A posted message and its data belong to the
 * queue from a successful write on, and are freed by the worker. Timer callbacks run in the
 * platform's timer context and only post; everything else here runs on the worker. While the worker
 * stands still its messages wait, up to the queue's 4096; ticks beyond these are lost.
 */
#ifndef FRAME_WORKER_H
#define FRAME_WORKER_H

#include "qor_epoll.h"
#include "qor_types.h"
#include "zir_timer.h"

QOR_BEGIN_C

enum {
    L2RES_MSG_WALK = 1, /* walk the waiting ICIB requests */
    L2RES_MSG_PROBE = 2 /* probe the five tables */
};

typedef struct {
    u32 msgType;
    u32 dataLen; /* bytes at data */
    void *data;  /* from QorL2ResMemAlloc, or null */
} L2ResQueueMsg;
QOR_STATIC_ASSERT(sizeof(L2ResQueueMsg) == 16, "queue message");

/* Each is written once, by the worker's start-up. */
QOR_API extern QorQueueHandle g_qorl2resQueue; /* 0 until the queue exists */
QOR_API extern ZIR_TimerHandle g_icibReOpTimer;
QOR_API extern ZIR_TimerHandle g_IcibppCountPorobeTimer;

/* The task's entry. Returns only when start-up fails: 1, or the host's code. */
QOR_API u32 QorL2ResMain(void *arg);

/* Starts both timers; the result of the probe timer's start. */
QOR_API u32 QorL2ResTimerInit(void);
QOR_API void QorL2ResTimerDeInit(void);

/* Timer callbacks: every 1000 ms, every 5000 ms. */
QOR_API void QorL2ResTimerOut(void);
QOR_API void QorL2ResIcibResProbe(void);

/* Creates the queue and attaches it to the epoll instance: 0, 1 or the host's code. */
QOR_API u32 QorL2ResQueCreate(u32 epollFd);

/* Posts a message: 0, 1 or the host's code. On failure `data` stays the caller's. */
QOR_API u32 QorL2ResMsgWrite(u32 msgType, void *data, u32 dataLen);

/* The queue handler: handles and frees one message. 0, or 1 when there was none. */
QOR_API u32 QorL2ResMsgProc(u64 first, QorQueueContext *context);

QOR_END_C

#endif
