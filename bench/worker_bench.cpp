/*
 * The way of a message to the worker: streaming, and to a worker that sleeps.
 *
 * write and read of the queue's eventfd are counted by defining both here, before the C library's:
 * that shows the wake-ups without any help from the platform. The platform's read of a queue is
 * defined here, too, to see when the worker has its message.
 */
#include <dlfcn.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "bench.h"
#include "frame/memory.h"
#include "frame/worker.h"
#include "qor_epoll.h"
#include "zir_memory.h"

#ifdef BENCH_GLIB
#include <glib.h>
#endif

namespace {
std::atomic<bool> g_counting{false};
std::atomic<u64> g_wakeUps{0};
std::atomic<u64> g_drains{0};

using Clock = std::chrono::steady_clock;

using QueueRead = decltype(&QorEpollQueRead);
QueueRead g_queueRead = nullptr; // the platform's
std::atomic<bool> g_stamping{false};
std::atomic<Clock::rep> g_taken{0}; // when the worker last had a message in hand
} // namespace

extern "C" ssize_t write(int descriptor, const void *data, size_t size)
{
    if (size == sizeof(u64) && g_counting.load(std::memory_order_relaxed)) {
        g_wakeUps.fetch_add(1, std::memory_order_relaxed);
    }
    return syscall(SYS_write, descriptor, data, size);
}

extern "C" ssize_t read(int descriptor, void *data, size_t size)
{
    if (size == sizeof(u64) && g_counting.load(std::memory_order_relaxed)) {
        g_drains.fetch_add(1, std::memory_order_relaxed);
    }
    return syscall(SYS_read, descriptor, data, size);
}

u32 QorEpollQueRead(QorQueueHandle queue, u32 option, void *element, u32 size)
{
    const u32 bytes = g_queueRead(queue, option, element, size);
    if (g_stamping.load(std::memory_order_relaxed)) {
        g_taken.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
    }
    return bytes;
}

namespace bench {
namespace {

constexpr size_t kDepth = 4096;
constexpr u32 kNobodysMessage = 3; /* a message type without work: read and freed */

u64 LiveBlocks()
{
    ZIR_PartitionStat stat = {};
    ZIR_PartitionGetStat(g_qorL2ResMemPtNo, &stat);
    return stat.liveBlocks;
}

/* ---- Streaming ---- */

constexpr benchmark::IterationCount kBatch = 16384;

void AwaitHandled()
{
    while (QorEpollQueGetMsgNum(g_qorl2resQueue) != 0) {
        std::this_thread::yield();
    }
}

/* The queue is empty a moment before the last message is freed and the eventfd drained. */
bool Settles(const std::function<bool()> &settled)
{
    for (u32 i = 0; i < 1000 && !settled(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return settled();
}

void Stream(benchmark::State &state)
{
    (void)Module();
    StartWorker();
    AwaitHandled();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const u64 blocksBefore = LiveBlocks();
    g_wakeUps = 0;
    g_drains = 0;
    g_counting = true;
    u64 posted = 0;
    while (state.KeepRunningBatch(kBatch)) {
        for (benchmark::IterationCount i = 0; i < kBatch; ++i) {
            while (QorL2ResMsgWrite(kNobodysMessage, nullptr, 0) != 0) {
                std::this_thread::yield();
            }
            ++posted;
        }
        AwaitHandled();
    }
    Expect(state, "messages posted", posted, state.iterations());
    Expect(state, "all messages freed",
           Settles([blocksBefore] { return LiveBlocks() == blocksBefore; }), true);
    // A queue is announced once, until it was found empty again and its eventfd read.
    Expect(state, "at most one wake-up per change to not empty",
           Settles([] { return g_wakeUps <= g_drains; }), true);
    g_counting = false;
    state.counters["wakeups"] =
        static_cast<double>(g_wakeUps) / static_cast<double>(state.iterations());
}

/* A bounded queue of the same depth, filled and emptied by the same rules. */
class StdQueue {
public:
    bool Post(L2ResQueueMsg *message)
    {
        const std::lock_guard lock(mutex_);
        if (queue_.size() >= kDepth) {
            return false;
        }
        queue_.push_back(message);
        if (queue_.size() == 1) {
            notEmpty_.notify_one();
        }
        return true;
    }

    L2ResQueueMsg *Take()
    {
        std::unique_lock lock(mutex_);
        notEmpty_.wait(lock, [this] { return !queue_.empty(); });
        L2ResQueueMsg *message = queue_.front();
        queue_.pop_front();
        return message;
    }

private:
    std::mutex mutex_;
    std::condition_variable notEmpty_;
    std::deque<L2ResQueueMsg *> queue_;
};

#ifdef BENCH_GLIB
class GlibQueue {
public:
    bool Post(L2ResQueueMsg *message)
    {
        if (g_async_queue_length(queue_) >= static_cast<gint>(kDepth)) {
            return false;
        }
        g_async_queue_push(queue_, message);
        return true;
    }

    L2ResQueueMsg *Take()
    {
        return static_cast<L2ResQueueMsg *>(g_async_queue_pop(queue_));
    }

private:
    GAsyncQueue *queue_ = g_async_queue_new();
};
#endif

/* Messages come from malloc and are freed by the taker; type 0 ends it. */
template <class Queue> void StreamOver(benchmark::State &state)
{
    static Queue queue;
    std::atomic<u64> handled{0};
    std::thread worker([&handled] {
        for (;;) {
            L2ResQueueMsg *message = queue.Take();
            const u32 type = message->msgType;
            free(message->data);
            free(message);
            handled.store(handled.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
            if (type == 0) {
                return;
            }
        }
    });
    const auto post = [](u32 type) {
        auto *message = static_cast<L2ResQueueMsg *>(malloc(sizeof(L2ResQueueMsg)));
        *message = {.msgType = type, .dataLen = 0, .data = nullptr};
        while (!queue.Post(message)) {
            std::this_thread::yield();
        }
    };
    u64 posted = 0;
    while (state.KeepRunningBatch(kBatch)) {
        for (benchmark::IterationCount i = 0; i < kBatch; ++i) {
            post(kNobodysMessage);
            ++posted;
        }
        while (handled < posted) {
            std::this_thread::yield();
        }
    }
    post(0);
    worker.join();
    Expect(state, "messages handled", handled.load(), state.iterations() + 1);
}

/* ---- Waking a sleeper ---- */

constexpr auto kFallAsleep = std::chrono::microseconds(60);

/*
 * Scope in which the calling thread stays on the first processor that it may use, as poster and
 * sleepers all do: where the scheduler puts them makes more difference than what they do.
 */
class OnFirstProcessor {
public:
    OnFirstProcessor()
    {
        (void)sched_getaffinity(0, sizeof before_, &before_);
        int first = 0;
        while (first + 1 < CPU_SETSIZE && !CPU_ISSET(first, &before_)) {
            ++first;
        }
        cpu_set_t only;
        CPU_ZERO(&only);
        CPU_SET(first, &only);
        (void)sched_setaffinity(0, sizeof only, &only);
    }
    ~OnFirstProcessor()
    {
        (void)sched_setaffinity(0, sizeof before_, &before_);
    }
    OnFirstProcessor(const OnFirstProcessor &) = delete;
    OnFirstProcessor &operator=(const OnFirstProcessor &) = delete;

private:
    cpu_set_t before_;
};

std::atomic<Clock::rep> g_probed{0};

/* The probe of a raised alarm calls the count hook: the first that is seen of a message's work. */
void PostProbe()
{
    (void)QorL2ResMsgWrite(L2RES_MSG_PROBE, nullptr, 0);
}

void StampProbe()
{
    g_probed.store(Clock::now().time_since_epoch().count());
}

/* Runs `act` on the worker. */
void OnWorker(void (*act)())
{
    static std::atomic<void (*)()> acts{nullptr};
    acts = act;
    const Clock::rep before = g_probed.load();
    g_onCount = [] {
        acts.load()();
        StampProbe();
    };
    PostProbe();
    while (g_probed.load() == before) {
        std::this_thread::yield();
    }
    AwaitHandled();
}

/* An eventfd in an epoll instance, a thread that sleeps there, and nothing else. */
class RawSleeper {
public:
    RawSleeper()
    {
        epoll_event wanted = {};
        wanted.events = EPOLLIN;
        (void)epoll_ctl(epoll_, EPOLL_CTL_ADD, event_, &wanted);
        thread_ = std::thread([this] { Serve(); });
    }
    ~RawSleeper()
    {
        ended_ = true;
        Post();
        thread_.join();
        (void)close(epoll_);
        (void)close(event_);
    }
    RawSleeper(const RawSleeper &) = delete;
    RawSleeper &operator=(const RawSleeper &) = delete;

    void Post() const
    {
        const u64 one = 1;
        (void)!::write(event_, &one, sizeof one);
    }
    std::atomic<Clock::rep> handled{0};

private:
    void Serve()
    {
        const OnFirstProcessor here;
        while (!ended_) {
            epoll_event ready[8] = {};
            if (epoll_wait(epoll_, ready, 8, -1) > 0) {
                u64 value = 0;
                (void)!::read(event_, &value, sizeof value);
                handled.store(Clock::now().time_since_epoch().count());
            }
        }
    }

    const int event_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    const int epoll_ = epoll_create1(EPOLL_CLOEXEC);
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

/* Posts to a sleeper and waits until `handled` is stamped on its thread; when it posted. */
template <class Post> Clock::rep Wake(const std::atomic<Clock::rep> &handled, Post post)
{
    std::this_thread::sleep_for(kFallAsleep);
    const Clock::rep before = handled.load();
    const Clock::rep start = Clock::now().time_since_epoch().count();
    post();
    while (handled.load() == before) {
        std::this_thread::yield(); // on the processor that the sleeper needs
    }
    return start;
}

double Median(std::vector<Clock::rep> samples)
{
    const auto middle = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 2);
    std::nth_element(samples.begin(), middle, samples.end());
    return static_cast<double>(*middle);
}

/*
 * From the post to the moment that the woken thread has what was posted: the worker its message, the
 * raw sleeper the eventfd's value. They take turns, so that both see the machine in the same mood.
 */
void WakeUp(benchmark::State &state)
{
    static std::optional<OnFirstProcessor> workers;
    (void)Module();
    StartWorker();
    const std::atomic_ref raised(g_qorl2ResAlarmTbl[L2RES_ALARM_ICIB_PP].raised);
    raised.store(1);
    OnWorker([] { workers.emplace(); });
    g_onCount = StampProbe;
    {
        const OnFirstProcessor here;
        RawSleeper raw;
        std::vector<Clock::rep> taken;
        std::vector<Clock::rep> probed;
        std::vector<Clock::rep> sleeper;
        g_stamping = true;
        for (auto _ : state) {
            const Clock::rep posted = Wake(g_probed, PostProbe);
            taken.push_back(g_taken - posted);
            probed.push_back(g_probed - posted);
            const Clock::rep written = Wake(raw.handled, [&raw] { raw.Post(); });
            sleeper.push_back(raw.handled - written);
        }
        g_stamping = false;
        state.counters["module"] = Median(taken);
        state.counters["probe"] = Median(probed);
        state.counters["raw"] = Median(sleeper);
    }
    AwaitHandled();
    OnWorker([] { workers.reset(); });
    raised.store(0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1)); // the last probe returns
    g_onCount = nullptr;
}

} // namespace

void AddWorker()
{
    g_queueRead = reinterpret_cast<QueueRead>(dlsym(RTLD_NEXT, "QorEpollQueRead"));
    Add("stream/module", Stream);
    Add("stream/std", StreamOver<StdQueue>);
#ifdef BENCH_GLIB
    Add("stream/glib", StreamOver<GlibQueue>);
#endif
    Add("wake/both", WakeUp);
}

} // namespace bench
