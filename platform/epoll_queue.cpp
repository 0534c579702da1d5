/*
 * Message queues and the event dispatcher.
 *
 * A queue is a ring of elements in a slot of a fixed table. The slot, with its mutexes, outlives its
 * queues, so a stale handle is refused by its generation instead of leading into freed memory.
 *
 * Posting and taking have a mutex each, so that a poster and a reader stay out of each other's way;
 * whoever needs both locks the taking one first. `posted` and `taken` count what ever was: a position
 * moves under the mutex of its side, once the element is in place or copied. The other side's is
 * looked at only when the ring seems full or empty by what was seen last.
 *
 * The eventfd of a queue is readable while the queue holds elements. `announced` says, under the
 * posting mutex, that it was written since it was last cleared, or is about to be: a poster that finds
 * it unset sets it, and writes the eventfd once the mutex is free, as the reader it wakes would else
 * run into the mutex, and be put to sleep and woken a second time. Only an empty queue is cleared,
 * under both mutexes. So no wake-up is lost: nobody clears while an element waits, and the first to
 * post after a clearing announces again. A write that comes after its element was taken and the
 * eventfd cleared wakes a reader for nothing, who clears it once more.
 *
 * A dispatcher clears when it leaves the queue, and not each time that its handler took the last
 * element; other readers do it at once.
 *
 * Who waits for room does so under the taking mutex, which is held by whoever makes room.
 */
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "qor_epoll.h"
#include "word_mutex.h"

namespace {

constexpr u32 MAX_QUEUES = 256;

/* Elements handled per event before other descriptors get their turn. */
constexpr u32 DISPATCH_BATCH = 64;

constexpr size_t CACHE_LINE = 64;

/* Posters and readers write lines of their own: one that both write costs each some 30 ns or more. */
struct Queue {
    /* Written with both mutexes held, but for the attached record: the taking one will do. */
    std::atomic<u32> generation{0}; /* odd while the slot holds a queue */
    u32 depth = 0;
    u32 elementSize = 0;
    int eventFd = 0; /* while the slot holds a queue; 0, that a slot takes no room in the file */
    unsigned char *ring = nullptr;
    /* The attached record, which otherwise only the kernel would know: a leak check finds it here. */
    QorQueueContext *context = nullptr;
    std::atomic<u32> signallers{0}; /* about to write the eventfd, posting mutex released */

    alignas(CACHE_LINE) WordMutex postMutex{};
    std::atomic<u64> posted{0};
    u64 takenSeen = 0;      /* `taken` when last looked at */
    u32 next = 0;           /* index of the next element to come */
    bool announced = false; /* the eventfd is written, or about to be */

    alignas(CACHE_LINE) WordMutex takeMutex{};
    std::atomic<u64> postedSeen{0}; /* `posted` when last looked at; read without the mutex, too */
    u32 oldest = 0;                 /* index of the oldest element */
    u32 waitingWriters = 0;
    std::atomic<u32> roomMade{0}; /* counts what they sleep for: room, or the end of the queue */

    alignas(CACHE_LINE) std::atomic<u64> taken{0}; /* posters ask for the count */
};

std::mutex g_createMutex; /* one creation at a time looks for a free slot */
Queue g_queues[MAX_QUEUES];

/* The queue that the thread's dispatcher is at, and will clear when it leaves. */
__attribute__((tls_model("initial-exec"))) thread_local QorQueueHandle t_dispatched = 0;

/* Scope in which one of a queue's mutexes is held. */
struct QueueLock {
    explicit QueueLock(WordMutex *held) : mutex(held)
    {
        lock(mutex);
    }
    ~QueueLock()
    {
        unlock(mutex);
    }
    QueueLock(const QueueLock &) = delete;
    QueueLock &operator=(const QueueLock &) = delete;
    WordMutex *mutex;
};

u32 generationOf(QorQueueHandle handle)
{
    return static_cast<u32>(handle >> 32);
}

/* The slot a handle speaks of, or null; whether its queue still lives is checked under a mutex. */
Queue *slotOf(QorQueueHandle handle)
{
    const u32 index = static_cast<u32>(handle) - 1;
    return index < MAX_QUEUES && (generationOf(handle) & 1) != 0 ? &g_queues[index] : nullptr;
}

bool lives(const Queue *queue, QorQueueHandle handle)
{
    return queue->generation.load(std::memory_order_relaxed) == generationOf(handle);
}

/* Exact for the moment that `posted` was read: nothing was taken around it. Needs no mutex. */
u32 countWaiting(const Queue *queue)
{
    u64 taken = queue->taken;
    u64 posted = queue->posted;
    for (u64 again = queue->taken; again != taken; again = queue->taken) {
        taken = again;
        posted = queue->posted;
    }
    return static_cast<u32>(posted - taken);
}

void signalNonEmpty(const Queue *queue)
{
    const u64 one = 1;
    while (write(queue->eventFd, &one, sizeof(one)) < 0 && errno == EINTR) {
    }
}

/* Clears the eventfd if the queue is empty, announced or not. Needs the taking mutex. */
void clearIfEmpty(Queue *queue)
{
    const QueueLock held(&queue->postMutex);
    if (queue->posted != queue->taken) {
        return;
    }
    queue->announced = false;
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

/* There is room, or the queue ended. Needs the taking mutex. */
void tellWriters(Queue *queue, int count)
{
    ++queue->roomMade;
    wakeSleepers(&queue->roomMade, count);
}

/* False: there was still no room at the deadline. True: there was, or the queue ended. */
bool waitForRoom(Queue *queue, QorQueueHandle handle, const timespec *deadline)
{
    const QueueLock held(&queue->takeMutex);
    bool isLate = false;
    while (lives(queue, handle) && queue->posted - queue->taken == queue->depth) {
        if (isLate) {
            return false;
        }
        ++queue->waitingWriters;
        const u32 seen = queue->roomMade;
        unlock(&queue->takeMutex);
        isLate = !sleepUntil(&queue->roomMade, seen, deadline);
        lock(&queue->takeMutex);
        --queue->waitingWriters;
    }
    return true;
}

/* Needs the posting mutex. */
bool hasRoom(Queue *queue)
{
    const u64 posted = queue->posted.load(std::memory_order_relaxed);
    if (posted - queue->takenSeen == queue->depth) {
        queue->takenSeen = queue->taken;
    }
    return posted - queue->takenSeen != queue->depth;
}

unsigned char *elementAt(const Queue *queue, u32 index)
{
    return queue->ring + static_cast<u64>(index) * queue->elementSize;
}

u32 following(const Queue *queue, u32 index)
{
    return index + 1 == queue->depth ? 0 : index + 1;
}

/* Mostly the address of a message: then without a call. */
void copyElement(const Queue *queue, void *to, const void *from)
{
    if (queue->elementSize == sizeof(void *)) {
        (void)memcpy(to, from, sizeof(void *));
    } else {
        (void)memcpy(to, from, queue->elementSize);
    }
}

/* Needs the posting mutex, and room. */
void append(Queue *queue, const void *element)
{
    copyElement(queue, elementAt(queue, queue->next), element);
    queue->next = following(queue, queue->next);
    queue->posted.store(queue->posted.load(std::memory_order_relaxed) + 1,
                        std::memory_order_release);
}

/* 0, 1: no such queue or another size, or QOR_QUEUE_FULL. */
u32 post(Queue *queue, QorQueueHandle handle, const void *element, u32 size)
{
    {
        const QueueLock held(&queue->postMutex);
        if (!lives(queue, handle) || size != queue->elementSize) {
            return QOR_FAIL;
        }
        if (!hasRoom(queue)) {
            return QOR_QUEUE_FULL;
        }
        append(queue, element);
        if (queue->announced) {
            return QOR_OK;
        }
        queue->announced = true;
        ++queue->signallers;
    }
    signalNonEmpty(queue);
    --queue->signallers;
    return QOR_OK;
}

/* Whether there is an element to take. Needs the taking mutex. */
bool hasElement(Queue *queue)
{
    const u64 taken = queue->taken.load(std::memory_order_relaxed);
    if (taken == queue->postedSeen.load(std::memory_order_relaxed)) {
        queue->postedSeen.store(queue->posted.load(std::memory_order_acquire),
                                std::memory_order_relaxed);
    }
    return taken != queue->postedSeen.load(std::memory_order_relaxed);
}

/* Needs the taking mutex, and an element. */
void takeOldest(Queue *queue, void *element)
{
    copyElement(queue, element, elementAt(queue, queue->oldest));
    queue->oldest = following(queue, queue->oldest);
    queue->taken.store(queue->taken.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    if (queue->waitingWriters > 0) {
        tellWriters(queue, 1);
    }
}

/* As hasElement, for want of the mutex only true of a moment. */
bool seesElement(const Queue *queue, QorQueueHandle handle)
{
    const u64 taken = queue->taken;
    return lives(queue, handle) &&
           (taken < queue->postedSeen.load(std::memory_order_relaxed) || taken != queue->posted);
}

/* What the reads of the dispatcher's handlers left undone. */
void leave(Queue *queue, QorQueueHandle handle)
{
    if (seesElement(queue, handle)) {
        return;
    }
    const QueueLock held(&queue->takeMutex);
    if (lives(queue, handle)) {
        clearIfEmpty(queue);
    }
}

void dispatch(QorQueueContext *context)
{
    /* Copied: the handler may free its record once its queue is gone. */
    const QorQueueHandle handle = context->queue;
    const auto handler = context->handler;
    Queue *queue = slotOf(handle);
    if (queue == nullptr || !lives(queue, handle)) {
        (void)handler(handle, context); /* what it makes of such a handle is up to it */
        return;
    }
    const QorQueueHandle outer = t_dispatched;
    t_dispatched = handle;
    bool goesOn = seesElement(queue, handle);
    for (u32 handled = 0; goesOn && handled < DISPATCH_BATCH; ++handled) {
        goesOn = handler(handle, context) == 0 && seesElement(queue, handle);
    }
    t_dispatched = outer;
    leave(queue, handle);
}

/*
 * Positions go on from where the slot's last queue left them, so that a count under way for that one
 * never goes wrong. Needs both mutexes.
 */
void beginEmpty(Queue *queue)
{
    const u64 position = queue->posted;
    queue->taken = position;
    queue->takenSeen = position;
    queue->postedSeen = position;
    queue->next = 0;
    queue->oldest = 0;
    queue->announced = false;
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

    const QueueLock takeLock(&slot->takeMutex);
    const QueueLock postLock(&slot->postMutex);
    slot->depth = depth;
    slot->elementSize = elementSize;
    slot->ring = ring;
    slot->eventFd = eventFd;
    beginEmpty(slot);
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

    const QueueLock held(&slot->takeMutex);
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
    const QueueLock takeLock(&slot->takeMutex);
    const QueueLock postLock(&slot->postMutex);
    if (!lives(slot, *queue)) {
        return QOR_FAIL;
    }
    ++slot->generation;
    free(slot->ring);
    slot->ring = nullptr;
    slot->context = nullptr;
    /* Their number only falls now, and they need no mutex. */
    while (slot->signallers != 0) {
        (void)sched_yield();
    }
    (void)close(slot->eventFd);
    slot->eventFd = -1;
    tellWriters(slot, INT_MAX);
    *queue = 0;
    return QOR_OK;
}

u32 QorEpollQueGetMsgNum(QorQueueHandle queue)
{
    const Queue *slot = slotOf(queue);
    return slot != nullptr && lives(slot, queue) ? countWaiting(slot) : 0;
}

u32 QorEpollQueWrite(QorQueueHandle queue, const void *element, u32 size, u32 timeoutMs)
{
    Queue *slot = slotOf(queue);
    if (slot == nullptr || element == nullptr) {
        return QOR_FAIL;
    }
    u32 result = post(slot, queue, element, size);
    if (result != QOR_QUEUE_FULL || timeoutMs == 0) {
        return result;
    }
    const timespec deadline = deadlineIn(timeoutMs);
    /* Another writer may be faster than one that was told of room. */
    while (result == QOR_QUEUE_FULL && waitForRoom(slot, queue, &deadline)) {
        result = post(slot, queue, element, size);
    }
    return result;
}

u32 QorEpollQueRead(QorQueueHandle queue, u32 option, void *element, u32 size)
{
    (void)option;
    Queue *slot = slotOf(queue);
    if (slot == nullptr || element == nullptr) {
        return 0;
    }
    const QueueLock held(&slot->takeMutex);
    if (!lives(slot, queue) || size < slot->elementSize) {
        return 0;
    }
    const bool found = hasElement(slot);
    if (found) {
        takeOldest(slot, element);
    }
    if (t_dispatched != queue && !hasElement(slot)) {
        clearIfEmpty(slot);
    }
    return found ? slot->elementSize : 0;
}

u32 QOR_Epoll_EvtProc(struct epoll_event *events, u32 count)
{
    if (events == nullptr) {
        return QOR_FAIL;
    }
    for (u32 i = 0; i < count; ++i) {
        auto *context = static_cast<QorQueueContext *>(events[i].data.ptr);
        if (context != nullptr && context->handler != nullptr) {
            dispatch(context);
        }
    }
    return QOR_OK;
}
