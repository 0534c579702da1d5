#include "frame/worker.h"

#include <sys/epoll.h>

#include <atomic>

#include "alarms/exceed_check.h"
#include "arbitration/icib.h"
#include "bounded.h"
#include "frame/dbg_log.h"
#include "frame/memory.h"

QorQueueHandle g_qorl2resQueue = 0;
ZIR_TimerHandle g_icibReOpTimer = 0;
ZIR_TimerHandle g_IcibppCountPorobeTimer = 0;

namespace {

constexpr u32 kQueueDepth = 4096;
constexpr u32 kPostTimeoutMs = 3000;
constexpr int kEpollSizeHint = 8;
constexpr int kEventsPerWait = 8;
constexpr u32 kReOpPeriodMs = 1000;
constexpr u32 kReOpParameter = 0xFFFFFF02;
constexpr u32 kProbePeriodMs = 5000;
constexpr u32 kProbeParameter = 0;

constexpr u32 kProbedAlarms[] = {L2RES_ALARM_ICIB_PP, L2RES_ALARM_ECIB, L2RES_ALARM_ECIB_EXT,
                                 L2RES_ALARM_LEM, L2RES_ALARM_SEM};

// The timer context may read the handle while the worker's start-up writes it.
inline QorQueueHandle Queue()
{
    return std::atomic_ref(g_qorl2resQueue).load(std::memory_order_acquire);
}

inline void PublishQueue(QorQueueHandle queue)
{
    std::atomic_ref(g_qorl2resQueue).store(queue, std::memory_order_release);
}

// Unpublished first: a post that still holds the handle is refused by the queue service.
void DeleteQueue(QorQueueHandle queue)
{
    PublishQueue(0);
    (void)QorEpollQueDelete(&queue);
}

[[noreturn]] void ServeEvents(int epollFd)
{
    for (;;) {
        struct epoll_event events[kEventsPerWait] = {};
        const int count = epoll_wait(epollFd, events, kEventsPerWait, -1);
        if (count > 0) { // -1 is a signal: wait again
            (void)QOR_Epoll_EvtProc(events, static_cast<u32>(count));
        }
    }
}

} // namespace

u32 QorL2ResMain(void *arg)
{
    (void)arg;
    if (QorL2ResTimerInit() != QOR_OK) {
        // The re-op timer, if it runs, is left running: its posts fail softly without a queue.
        QorL2ResDbgWriteLog(L2RES_LOG_STARTUP, L2RES_LOG_GENERAL,
                            "[QOR-L2RSM] L2Rsm Create Timer Failed.");
        return QOR_FAIL;
    }
    const int epollFd = epoll_create_s(kEpollSizeHint);
    if (epollFd == -1) {
        QorL2ResTimerDeInit();
        QorL2ResDbgWriteLog(L2RES_LOG_STARTUP, L2RES_LOG_GENERAL,
                            "[QOR-L2RSM] L2Rsm Proc Epoll Create Failed.");
        return QOR_FAIL;
    }
    const u32 ret = QorL2ResQueCreate(static_cast<u32>(epollFd));
    if (ret != QOR_OK) {
        QorL2ResTimerDeInit();
        (void)close_s(epollFd);
        return ret;
    }
    ServeEvents(epollFd);
}

u32 QorL2ResTimerInit(void)
{
    if (ZIR_ReltmrCbkStart(&g_icibReOpTimer, g_qorL2ResMemHandle, kReOpPeriodMs, kReOpParameter,
                           nullptr, ZIR_TIMER_REPEAT, QorL2ResTimerOut) != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "QorL2ResTimerInit Create Timer Fail.");
    }
    return ZIR_ReltmrCbkStart(&g_IcibppCountPorobeTimer, g_qorL2ResMemHandle, kProbePeriodMs,
                              kProbeParameter, nullptr, ZIR_TIMER_REPEAT, QorL2ResIcibResProbe);
}

void QorL2ResTimerDeInit(void)
{
    (void)ZIR_ReltmrStop(&g_icibReOpTimer);
    (void)ZIR_ReltmrStop(&g_IcibppCountPorobeTimer);
}

void QorL2ResTimerOut(void)
{
    if (QorL2ResMsgWrite(L2RES_MSG_WALK, nullptr, 0) != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "QorL2ResTimerOut Write Queue Fail.");
    }
}

void QorL2ResIcibResProbe(void)
{
    if (QorL2ResMsgWrite(L2RES_MSG_PROBE, nullptr, 0) != QOR_OK) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL, "L2Res Icib probe msg EnQue Fail.");
    }
}

u32 QorL2ResQueCreate(u32 epollFd)
{
    QorQueueHandle queue = 0;
    u32 ret = QorEpollQueCreate("L2RSM_Q_DATA", kQueueDepth, &queue, 0, sizeof(L2ResQueueMsg *));
    if (ret != QOR_OK) {
        return ret;
    }
    PublishQueue(queue);
    auto *context = static_cast<QorQueueContext *>(QorL2ResMemAlloc(sizeof(QorQueueContext)));
    if (context == nullptr) {
        QorL2ResDbgWriteLog(L2RES_LOG_STARTUP, L2RES_LOG_GENERAL,
                            "[QOR-L2RSM] EventQueue Malloc Failed.");
        DeleteQueue(queue);
        return QOR_FAIL;
    }
    (void)memset_s(context, sizeof *context, 0, sizeof *context);
    context->queue = queue;
    context->handler = QorL2ResMsgProc;
    ret = QorEpollQueCtl(epollFd, QOR_QUEUE_ATTACH, queue, EPOLLIN, context);
    if (ret != QOR_OK) {
        DeleteQueue(queue);
        (void)QorL2ResMemFree(context);
    }
    return ret;
}

u32 QorL2ResMsgWrite(u32 msgType, void *data, u32 dataLen)
{
    const QorQueueHandle queue = Queue();
    // A worker that is stuck must not fill the partition with messages.
    if (QorEpollQueGetMsgNum(queue) >= kQueueDepth) {
        QorL2ResDbgWriteLog(L2RES_LOG_ERROR, L2RES_LOG_GENERAL,
                            "[QOR-L2RSM] Write Que Full,msgtype:%d,dataLen:%d.", msgType, dataLen);
        return QOR_FAIL;
    }
    auto *message = static_cast<L2ResQueueMsg *>(QorL2ResMemAlloc(sizeof(L2ResQueueMsg)));
    if (message == nullptr) {
        return QOR_FAIL;
    }
    *message = {.msgType = msgType, .dataLen = dataLen, .data = data};
    const u32 ret = QorEpollQueWrite(queue, &message, sizeof message, kPostTimeoutMs);
    if (ret != QOR_OK) {
        (void)QorL2ResMemFree(message);
    }
    return ret;
}

u32 QorL2ResMsgProc(u64 first, QorQueueContext *context)
{
    (void)first;
    if (context == nullptr || context->queue == 0) {
        return QOR_FAIL;
    }
    L2ResQueueMsg *message = nullptr;
    if (QorEpollQueRead(context->queue, 0, &message, sizeof message) == 0 || message == nullptr) {
        return QOR_FAIL;
    }
    switch (message->msgType) {
    case L2RES_MSG_WALK:
        QorL2ResIcibReOpHashWalk();
        break;
    case L2RES_MSG_PROBE:
        for (const u32 alarmType : kProbedAlarms) {
            QorL2ResProbeProc(alarmType);
        }
        break;
    default:
        break;
    }
    (void)QorL2ResMemFree(message->data); // null is refused, which is what we want here
    (void)QorL2ResMemFree(message);
    return QOR_OK;
}
