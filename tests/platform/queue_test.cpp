#include <atomic>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "platform_support.h"
#include "qor_epoll.h"

namespace {

QorQueueHandle create(u32 depth, u32 elementSize = sizeof(u64))
{
    QorQueueHandle queue = 0;
    EXPECT_EQ(QorEpollQueCreate("Q", depth, &queue, 0, elementSize), 0U);
    return queue;
}

u32 put(QorQueueHandle queue, u64 value, u32 timeoutMs = 0)
{
    return QorEpollQueWrite(queue, &value, sizeof(value), timeoutMs);
}

u64 take(QorQueueHandle queue)
{
    u64 value = ~0ULL;
    return QorEpollQueRead(queue, 0, &value, sizeof(value)) == sizeof(value) ? value : ~0ULL;
}

/* An epoll instance, open until the process ends, with the events that are ready in it now. */
struct Epoll {
    int fd = epoll_create1(EPOLL_CLOEXEC);
    epoll_event events[8] = {};
    u32 ready(int timeoutMs = 0)
    {
        const int count = epoll_wait(fd, events, 8, timeoutMs);
        return count > 0 ? static_cast<u32>(count) : 0; /* a stop of the process ends a wait, too */
    }
    u32 attach(QorQueueContext *context, u32 mask = EPOLLIN)
    {
        return QorEpollQueCtl(static_cast<u32>(fd), QOR_QUEUE_ATTACH, context->queue, mask,
                              context);
    }
};

TEST(QueueTest, IsFirstInFirstOutAndReadableWhileItHoldsElements)
{
    QorQueueHandle deeper = create(9); /* whose slot the queue gets, and with it its positions */
    for (u64 i = 0; i < 5; ++i) {
        EXPECT_EQ(put(deeper, i), 0U);
        EXPECT_EQ(take(deeper), i);
    }
    EXPECT_EQ(put(deeper, 5), 0U);
    EXPECT_EQ(QorEpollQueDelete(&deeper), 0U);
    QorQueueContext context = {create(3), {}, nullptr};
    const QorQueueHandle queue = context.queue;
    Epoll epoll;
    ASSERT_EQ(epoll.attach(&context, EPOLLIN | static_cast<u32>(EPOLLET)), 0U);
    EXPECT_EQ(epoll.ready(), 0U);
    for (u64 round = 0; round < 10; ++round) {
        for (u64 i = 0; i < 3; ++i) {
            EXPECT_EQ(put(queue, round * 3 + i), 0U);
        }
        EXPECT_EQ(put(queue, 99), u32{QOR_QUEUE_FULL});
        EXPECT_EQ(put(queue, 99, 2), u32{QOR_QUEUE_FULL});
        for (u64 i = 0; i < 3; ++i) {
            EXPECT_EQ(epoll.ready(), 1U) << "level-triggered whatever the mask says";
            EXPECT_EQ(epoll.events[0].data.ptr, &context);
            EXPECT_EQ(QorEpollQueGetMsgNum(queue), 3 - i);
            EXPECT_EQ(take(queue), round * 3 + i);
        }
        EXPECT_EQ(epoll.ready(), 0U);
        EXPECT_EQ(take(queue), ~0ULL);
    }
    EXPECT_EQ(put(queue, 1), 0U);
    EXPECT_EQ(QorEpollQueCtl(static_cast<u32>(epoll.fd), QOR_QUEUE_DETACH, queue, 0, nullptr), 0U);
    EXPECT_EQ(epoll.ready(), 0U);
}

TEST(QueueTest, RefusesBadArgumentsAndStaleHandles)
{
    QorQueueHandle queue = 0;
    EXPECT_EQ(QorEpollQueCreate(nullptr, 1, &queue, 0, 8), 1U);
    EXPECT_EQ(QorEpollQueCreate("Q", 1, nullptr, 0, 8), 1U);
    EXPECT_EQ(QorEpollQueCreate("Q", 0, &queue, 0, 8), 1U);
    EXPECT_EQ(QorEpollQueCreate("Q", 1, &queue, 0, 0), 1U);

    queue = create(4);
    u64 value = 5;
    EXPECT_EQ(put(queue, 5), 0U);
    EXPECT_EQ(QorEpollQueWrite(queue, nullptr, 8, 0), 1U);
    EXPECT_EQ(QorEpollQueWrite(queue, &value, 4, 0), 1U);
    EXPECT_EQ(QorEpollQueRead(queue, 0, nullptr, 8), 0U);
    EXPECT_EQ(QorEpollQueRead(queue, 0, &value, 4), 0U);
    EXPECT_EQ(QorEpollQueGetMsgNum(queue), 1U);
    QorQueueContext context = {queue, {}, nullptr};
    Epoll epoll;
    EXPECT_EQ(QorEpollQueCtl(static_cast<u32>(epoll.fd), 3, queue, 1, &context), 1U);
    EXPECT_EQ(QorEpollQueCtl(999999, QOR_QUEUE_ATTACH, queue, 1, &context), u32{EBADF});

    const QorQueueHandle deleted = queue;
    EXPECT_EQ(QorEpollQueDelete(&queue), 0U);
    EXPECT_EQ(queue, 0U);
    const QorQueueHandle successor = create(4);
    EXPECT_EQ(put(successor, 6), 0U);
    for (QorQueueHandle unknown : {QorQueueHandle{0}, deleted, ~0ULL}) {
        context.queue = unknown;
        QorQueueHandle copy = unknown;
        EXPECT_EQ(QorEpollQueGetMsgNum(unknown), 0U);
        EXPECT_EQ(put(unknown, 7, 1000), 1U);
        EXPECT_EQ(take(unknown), ~0ULL);
        EXPECT_EQ(epoll.attach(&context), 1U);
        EXPECT_EQ(QorEpollQueDelete(&copy), 1U);
    }
    EXPECT_EQ(QorEpollQueDelete(nullptr), 1U);
    EXPECT_EQ(take(successor), 6U);
}

TEST(QueueTest, BlockedWriterGoesOnWhenTheQueueEnds)
{
    QorQueueHandle queue = create(1);
    ASSERT_EQ(put(queue, 0), 0U);
    std::thread writer([queue] { EXPECT_EQ(put(queue, 1, 60000), 1U); });
    EXPECT_EQ(QorEpollQueDelete(&queue), 0U);
    writer.join();
}

/* Writers, a reader and a count that know the queue while it ends; its successor has its slot. */
TEST(QueueTest, MayEndWhileItIsUsed)
{
    for (u32 round = 0; round < 100; ++round) {
        const QorQueueHandle queue = create(2);
        onThreads(4, [queue](u32 thread) {
            if (thread == 0) {
                while (QorEpollQueGetMsgNum(queue) == 0) {
                    std::this_thread::yield();
                }
                QorQueueHandle ended = queue;
                EXPECT_EQ(QorEpollQueDelete(&ended), 0U);
                return;
            }
            while (put(queue, thread, thread == 1 ? 60000 : 0) != 1) {
                EXPECT_LE(QorEpollQueGetMsgNum(queue), 2U);
                const u64 value = thread == 3 ? take(queue) : 1;
                EXPECT_TRUE(value - 1 < 3 || value == ~0ULL);
            }
        });
    }
}

/* What the handlers of the following tests saw and do. */
struct Handler {
    QorQueueContext context;
    std::vector<u64> seen;
    u64 failAt = ~0ULL;
    u64 echoBelow = 0;

    explicit Handler(u32 depth) : context{create(depth), {}, handle}
    {
    }
    static u32 handle(u64 first, QorQueueContext *context)
    {
        auto *self = reinterpret_cast<Handler *>(context);
        EXPECT_EQ(first, context->queue);
        const u64 value = take(context->queue);
        if (value == ~0ULL) {
            return 1;
        }
        self->seen.push_back(value);
        if (value < self->echoBelow) {
            EXPECT_EQ(put(context->queue, value + 1), 0U);
        }
        return value == self->failAt ? 1 : 0;
    }
};

TEST(DispatcherTest, HandsOutBoundedBatches)
{
    Handler busy(500);
    Handler failing(5);
    Handler echoing(5);
    failing.failAt = 2;
    echoing.echoBelow = 10;
    Epoll epoll;
    for (Handler *handler : {&busy, &failing, &echoing}) {
        ASSERT_EQ(epoll.attach(&handler->context), 0U);
    }
    for (u64 i = 0; i < 200; ++i) {
        ASSERT_EQ(put(busy.context.queue, i), 0U);
        ASSERT_TRUE(i >= 4 || put(failing.context.queue, i) == 0);
    }
    ASSERT_EQ(put(echoing.context.queue, 0), 0U);

    const u32 ready = epoll.ready();
    ASSERT_EQ(ready, 3U);
    EXPECT_EQ(QOR_Epoll_EvtProc(epoll.events, ready), 0U);
    EXPECT_GT(busy.seen.size(), 1U);
    EXPECT_LT(busy.seen.size(), 200U);
    EXPECT_EQ(failing.seen, (std::vector<u64>{0, 1, 2}));
    EXPECT_EQ(echoing.seen.size(), 11U);
    while (const u32 again = epoll.ready()) {
        EXPECT_EQ(QOR_Epoll_EvtProc(epoll.events, again), 0U);
    }
    EXPECT_EQ(busy.seen.size(), 200U);
    EXPECT_EQ(failing.seen.size(), 4U);
}

u32 deleteQueueAndRecord(u64, QorQueueContext *context)
{
    EXPECT_EQ(QorEpollQueDelete(&context->queue), 0U);
    delete context;
    return 0;
}

TEST(DispatcherTest, ToleratesRecordsThatAreMissingOrVanish)
{
    QorQueueContext handlerless = {create(1), {}, nullptr};
    auto *vanishing = new QorQueueContext{create(2), {}, deleteQueueAndRecord};
    EXPECT_EQ(put(vanishing->queue, 1), 0U);
    EXPECT_EQ(put(vanishing->queue, 2), 0U);
    epoll_event events[3] = {};
    events[1].data.ptr = &handlerless;
    events[2].data.ptr = vanishing;
    EXPECT_EQ(QOR_Epoll_EvtProc(events, 3), 0U);
    EXPECT_EQ(QOR_Epoll_EvtProc(nullptr, 3), 1U);
}

TEST(DispatcherTest, IsQuietWhenItWasWokenForNothing)
{
    const int eventFd = dup(0); /* the number that the queue's eventfd gets */
    close(eventFd);
    Handler handler(5);
    Epoll epoll;
    ASSERT_EQ(epoll.attach(&handler.context), 0U);
    const u64 late = 1;
    ASSERT_EQ(write(eventFd, &late, sizeof(late)), 8);
    ASSERT_EQ(epoll.ready(), 1U);
    handler.context.handler = [](u64, QorQueueContext *) -> u32 {
        ADD_FAILURE() << "called for an empty queue";
        return 0;
    };
    EXPECT_EQ(QOR_Epoll_EvtProc(epoll.events, 1), 0U);
    EXPECT_EQ(epoll.ready(), 0U);
    ASSERT_EQ(write(eventFd, &late, sizeof(late)), 8);
    EXPECT_EQ(take(handler.context.queue), ~0ULL);
    EXPECT_EQ(epoll.ready(), 0U) << "a reader without a dispatcher clears, too";
}

struct Counter {
    QorQueueContext context;
    std::atomic<u64> count{0};

    static u32 handle(u64, QorQueueContext *context)
    {
        auto *self = reinterpret_cast<Counter *>(context);
        self->count += take(context->queue) != ~0ULL;
        return 0;
    }
};

/*
 * Each element meets a queue that two dispatchers, and the writer itself now and then, have just
 * emptied and are about to clear.
 */
TEST(DispatcherTest, LosesNoWakeUpWhileItClears)
{
    constexpr u64 MESSAGES = 20000;
    Counter counter = {{create(4), {}, Counter::handle}};
    const QorQueueHandle queue = counter.context.queue;
    std::atomic<bool> ended{false};
    std::atomic<u32> left{0};
    onThreads(3, [&](u32 thread) {
        Epoll epoll;
        ASSERT_EQ(epoll.attach(&counter.context), 0U);
        while (thread != 0) {
            const u32 ready = epoll.ready(-1);
            if (ended) {
                ++left;
                return;
            }
            EXPECT_EQ(QOR_Epoll_EvtProc(epoll.events, ready), 0U);
        }
        for (u64 i = 0; i < MESSAGES; ++i) {
            EXPECT_EQ(put(queue, i), 0U);
            counter.count += i % 3 == 0 && take(queue) != ~0ULL;
            /* A wake-up that does not come shows as the test's time-out. */
            while (counter.count <= i) {
                std::this_thread::yield();
            }
        }
        EXPECT_EQ(counter.count, MESSAGES);
        ended = true;
        /* A dispatcher that has not seen it yet may take what was to wake the other. */
        while (left < 2) {
            (void)put(queue, MESSAGES);
            std::this_thread::yield();
        }
    });
}

/* Four writers that often wait for room; one dispatcher. Nothing lost, doubled or out of order. */
TEST(DispatcherTest, IsExactUnderLoad)
{
    constexpr u64 MESSAGES = 20000;
    Handler handler(16);
    Epoll epoll;
    ASSERT_EQ(epoll.attach(&handler.context), 0U);
    onThreads(5, [&](u32 thread) {
        for (u64 i = 0; thread < 4 && i < MESSAGES; ++i) {
            EXPECT_EQ(put(handler.context.queue, u64{thread} << 32 | i, 60000), 0U);
        }
        /* A wake-up that does not come shows as the test's time-out. */
        while (thread == 4 && handler.seen.size() < 4 * MESSAGES) {
            ASSERT_EQ(QOR_Epoll_EvtProc(epoll.events, epoll.ready(-1)), 0U);
        }
    });
    u64 next[4] = {};
    for (u64 value : handler.seen) {
        ASSERT_EQ(value & 0xFFFFFFFF, next[value >> 32]++);
    }
    EXPECT_EQ(QorEpollQueGetMsgNum(handler.context.queue), 0U);
    /* A wake-up may have come after the last message was taken. */
    EXPECT_EQ(QOR_Epoll_EvtProc(epoll.events, epoll.ready()), 0U);
    EXPECT_EQ(handler.seen.size(), 4 * MESSAGES);
    EXPECT_EQ(epoll.ready(), 0U);
}

} // namespace
