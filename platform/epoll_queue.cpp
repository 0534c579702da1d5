/*
 * Message queues and the event dispatcher.
 *
 * A queue is a ring of elements in a slot of a fixed table. The slot, with its mutex, outlives its
 * queues, so a stale handle is refused by its generation instead of leading into freed memory.
 *
 * The eventfd of a queue is readable while the queue holds elements. Whoever appends to an empty
 * queue writes it, once the mutex is free again: the reader it wakes would else only run into the
 * mutex, and be put to sleep and woken a second time. Whoever takes the last element clears it, under
 * the mutex. A write that comes after that wakes a reader for nothing, who then clears it; a wake-up
 * cannot be lost, as every append to an empty queue is followed by a write.
 */
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "qor_epoll.h"

namespace {

constexpr u32 MAX_QUEUES = 256;

/* Elements handled per event before other descriptors get their turn. */
constexpr u32 DISPATCH_BATCH = 64;

struct Queue {
    pthread_mutex_t mutex =
        PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;      /* guards all but the atomics' reads */
    pthread_cond_t room = PTHREAD_COND_INITIALIZER; /* an element left, or the queue ended */
    std::atomic<u32> generation{0};                 /* odd while the slot holds a queue */
    std::atomic<u32> count{0};                      /* elements waiting; written under the mutex */
    std::atomic<u32> signallers{0};                 /* about to write the eventfd, mutex released */
    u32 waitingWriters = 0;
    u32 depth = 0;
    u32 elementSize = 0;
    u32 oldest = 0; /* position of the oldest element */
    unsigned char *ring = nullptr;
    /* The attached record, which otherwise only the kernel would know: a leak check finds it here. */
    QorQueueContext *context = nullptr;
    int eventFd = -1;
};

std::mutex g_createMutex; /* one creation at a time looks for a free slot */
Queue g_queues[MAX_QUEUES];

/* Scope in which a queue's mutex is held. */
struct QueueLock {
    explicit QueueLock(Queue *held) : queue(held)
    {
        (void)pthread_mutex_lock(&queue->mutex);
    }
    ~QueueLock()
    {
        (void)pthread_mutex_unlock(&queue->mutex);
    }
    QueueLock(const QueueLock &) = delete;
    QueueLock &operator=(const QueueLock &) = delete;
    Queue *queue;
};

u32 generationOf(QorQueueHandle handle)
{
    return static_cast<u32>(handle >> 32);
}

/* The slot a handle speaks of, or null; whether its queue still lives is checked under its mutex. */
Queue *slotOf(QorQueueHandle handle)
{
    const u32 index = static_cast<u32>(handle) - 1;
    return index < MAX_QUEUES && (generationOf(handle) & 1) != 0 ? &g_queues[index] : nullptr;
}

bool lives(const Queue *queue, QorQueueHandle handle)
{
    return queue->generation.load(std::memory_order_relaxed) == generationOf(handle);
}

u32 countWaiting(QorQueueHandle handle)
{
    const Queue *queue = slotOf(handle);
    return queue != nullptr && lives(queue, handle) ? queue->count.load(std::memory_order_relaxed)
                                                    : 0;
}

void signalNonEmpty(const Queue *queue)
{
    const u64 one = 1;
    while (write(queue->eventFd, &one, sizeof(one)) < 0 && errno == EINTR) {
    }
}

void signalEmpty(const Queue *queue)
{
    u64 value;
    while (read(queue->eventFd, &value, sizeof(value)) < 0 && errno == EINTR) {
    }
}

timespec deadlineIn(u32 milliseconds)
{
    timespec deadline;
    (void)clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += milliseconds / 1000;
    deadline.tv_nsec += milliseconds % 1000 * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_nsec -= 1000000000L;
        ++deadline.tv_sec;
    }
    return deadline;
}

/* Waits, with the mutex held, until the queue has room. 0, 1 when the queue ended, or QOR_QUEUE_FULL. */
u32 waitForRoom(Queue *queue, QorQueueHandle handle, u32 timeoutMs)
{
    const timespec deadline = deadlineIn(timeoutMs);
    int waited = timeoutMs == 0 ? ETIMEDOUT : 0;
    while (lives(queue, handle) && queue->count == queue->depth) {
        if (waited == ETIMEDOUT) {
            return QOR_QUEUE_FULL;
        }
        ++queue->waitingWriters;
        waited = pthread_cond_clockwait(&queue->room, &queue->mutex, CLOCK_MONOTONIC, &deadline);
        --queue->waitingWriters;
    }
    return lives(queue, handle) ? QOR_OK : QOR_FAIL;
}

/* True: the queue was empty, and the caller is now one of the signallers. */
bool append(Queue *queue, const void *element)
{
    const u32 count = queue->count.load(std::memory_order_relaxed);
    const u64 position = (static_cast<u64>(queue->oldest) + count) % queue->depth;
    (void)memcpy(queue->ring + position * queue->elementSize, element, queue->elementSize);
    queue->count.store(count + 1, std::memory_order_relaxed);
    if (count != 0) {
        return false;
    }
    ++queue->signallers;
    return true;
}

void takeOldest(Queue *queue, void *element)
{
    const u32 count = queue->count.load(std::memory_order_relaxed) - 1;
    (void)memcpy(element, queue->ring + static_cast<u64>(queue->oldest) * queue->elementSize,
                 queue->elementSize);
    queue->oldest = queue->oldest + 1 == queue->depth ? 0 : queue->oldest + 1;
    queue->count.store(count, std::memory_order_relaxed);
    if (count == 0) {
        signalEmpty(queue);
    }
    if (queue->waitingWriters > 0) {
        (void)pthread_cond_signal(&queue->room);
    }
}

Queue *findFreeSlot()
{
    for (Queue &queue : g_queues) {
        if ((queue.generation & 1) == 0) {
            return &queue;
        }
    }
    return nullptr;
}

} // namespace

u32 QorEpollQueCreate(const char *name, u32 depth, QorQueueHandle *queue, u32 option,
                      u32 elementSize)
{
    (void)option;
    if (name == nullptr || queue == nullptr || depth == 0 || elementSize == 0) {
        return QOR_FAIL;
    }
    const std::lock_guard creating(g_createMutex);
    Queue *slot = findFreeSlot();
    if (slot == nullptr) {
        return EMFILE;
    }
    auto *ring = static_cast<unsigned char *>(malloc(static_cast<u64>(depth) * elementSize));
    if (ring == nullptr) {
        return ENOMEM;
    }
    const int eventFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (eventFd < 0) {
        const int error = errno;
        free(ring);
        return static_cast<u32>(error);
    }

    const QueueLock lock(slot);
    slot->depth = depth;
    slot->elementSize = elementSize;
    slot->oldest = 0;
    slot->count = 0;
    slot->ring = ring;
    slot->eventFd = eventFd;
    const u32 generation = ++slot->generation;
    *queue = static_cast<u64>(generation) << 32 | static_cast<u64>(slot - g_queues + 1);
    return QOR_OK;
}

u32 QorEpollQueCtl(u32 epollFd, u32 operation, QorQueueHandle queue, u32 events,
                   QorQueueContext *context)
{
    Queue *slot = slotOf(queue);
    if (slot == nullptr || (operation != QOR_QUEUE_ATTACH && operation != QOR_QUEUE_DETACH)) {
        return QOR_FAIL;
    }
    /* Level-triggered in any case: a batch may leave elements that no later write announces. */
    epoll_event event{};
    event.events = events & ~static_cast<u32>(EPOLLET);
    event.data.ptr = context;

    const QueueLock lock(slot);
    if (!lives(slot, queue)) {
        return QOR_FAIL;
    }
    const int result =
        epoll_ctl(static_cast<int>(epollFd), static_cast<int>(operation), slot->eventFd, &event);
    if (result != 0) {
        return static_cast<u32>(errno);
    }
    slot->context = operation == QOR_QUEUE_ATTACH ? context : nullptr;
    return QOR_OK;
}

u32 QorEpollQueDelete(QorQueueHandle *queue)
{
    Queue *slot = queue != nullptr ? slotOf(*queue) : nullptr;
    if (slot == nullptr) {
        return QOR_FAIL;
    }
    const QueueLock lock(slot);
    if (!lives(slot, *queue)) {
        return QOR_FAIL;
    }
    ++slot->generation;
    slot->count = 0;
    free(slot->ring);
    slot->ring = nullptr;
    slot->context = nullptr;
    /* Their number only falls now, and they need no mutex. */
    while (slot->signallers != 0) {
        (void)sched_yield();
    }
    (void)close(slot->eventFd);
    slot->eventFd = -1;
    (void)pthread_cond_broadcast(&slot->room);
    *queue = 0;
    return QOR_OK;
}

u32 QorEpollQueGetMsgNum(QorQueueHandle queue)
{
    return countWaiting(queue);
}

u32 QorEpollQueWrite(QorQueueHandle queue, const void *element, u32 size, u32 timeoutMs)
{
    Queue *slot = slotOf(queue);
    if (slot == nullptr || element == nullptr) {
        return QOR_FAIL;
    }
    {
        const QueueLock lock(slot);
        if (!lives(slot, queue) || size != slot->elementSize) {
            return QOR_FAIL;
        }
        if (slot->count == slot->depth) {
            const u32 result = waitForRoom(slot, queue, timeoutMs);
            if (result != QOR_OK) {
                return result;
            }
        }
        if (!append(slot, element)) {
            return QOR_OK;
        }
    }
    signalNonEmpty(slot);
    --slot->signallers;
    return QOR_OK;
}

u32 QorEpollQueRead(QorQueueHandle queue, u32 option, void *element, u32 size)
{
    (void)option;
    Queue *slot = slotOf(queue);
    if (slot == nullptr || element == nullptr) {
        return 0;
    }
    const QueueLock lock(slot);
    if (!lives(slot, queue) || size < slot->elementSize) {
        return 0;
    }
    if (slot->count == 0) {
        signalEmpty(slot); /* woken for nothing */
        return 0;
    }
    takeOldest(slot, element);
    return slot->elementSize;
}

u32 QOR_Epoll_EvtProc(struct epoll_event *events, u32 count)
{
    if (events == nullptr) {
        return QOR_FAIL;
    }
    for (u32 i = 0; i < count; ++i) {
        auto *context = static_cast<QorQueueContext *>(events[i].data.ptr);
        if (context == nullptr || context->handler == nullptr) {
            continue;
        }
        /* Copied: the handler may free its record once its queue is gone. */
        const QorQueueHandle queue = context->queue;
        const auto handler = context->handler;
        for (u32 handled = 0; handled < DISPATCH_BATCH; ++handled) {
            if (handler(queue, context) != 0 || countWaiting(queue) == 0) {
                break;
            }
        }
    }
    return QOR_OK;
}
