#include "support/faults.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <mutex>
#include <type_traits>

#include "bounded.h"
#include "comp_registry.h"
#include "frame/worker.h"
#include "hash_table.h"
#include "support/journal.h"
#include "zir_memory.h"
#include "zir_mutex.h"

namespace faults {
namespace {

constexpr auto kOps = static_cast<size_t>(Op::kCount);

constexpr size_t Index(Op op)
{
    return static_cast<size_t>(op);
}

struct Plan {
    unsigned nth = 0; /* the call that fails, counted from now; 0: none */
    std::optional<long long> result;
};

std::array<std::atomic<unsigned long>, kOps> g_calls;
std::atomic<bool> g_active{false}; /* there is something in g_plan */

/* Guarded by g_mutex. Never destroyed: a worker task may still call while the process exits. */
struct Plans {
    std::array<Plan, kOps> single;
    Plan overall;
    std::set<Op> overallOps;
    std::set<Op> recorded;
    std::shared_ptr<const std::function<void(Op)>> observer;
    Op failedOp = Op::kCount;
};
std::mutex g_mutex;
auto &g_plan = *new Plans;

thread_local unsigned t_inside = 0; /* within a forwarded call or an observer */

/* The platform's own calls are none of ours. */
bool IsPlatform(const void *caller)
{
    static const dl_find_object platform = [] {
        dl_find_object object{};
        _dl_find_object(dlsym(RTLD_NEXT, "ZIR_MemAlloc"), &object);
        return object;
    }();
    return caller >= platform.dlfo_map_start && caller < platform.dlfo_map_end;
}

bool Take(Plan &plan)
{
    return plan.nth != 0 && --plan.nth == 0;
}

/* One call passing through. */
class Point {
public:
    template <class... Details> Point(Op op, const void *caller, const Details &...details)
    {
        if (t_inside == 0 && !IsPlatform(caller)) {
            g_calls[Index(op)].fetch_add(1, std::memory_order_relaxed);
            if (g_active.load(std::memory_order_relaxed)) {
                Consult(op, [&] { return journal::Join(Name(op), details...); });
            }
        }
        // The dispatcher calls back into the module, whose calls are to be seen.
        nested_ = op != Op::QOR_Epoll_EvtProc;
        t_inside += nested_;
    }
    ~Point()
    {
        t_inside -= nested_;
    }
    Point(const Point &) = delete;
    Point &operator=(const Point &) = delete;

    bool fails() const
    {
        return fails_;
    }

    template <class R> R result(R own) const
    {
        if (!result_) {
            return own;
        }
        if constexpr (std::is_pointer_v<R>) {
            return reinterpret_cast<R>(*result_);
        } else {
            return static_cast<R>(*result_);
        }
    }

private:
    template <class Text> void Consult(Op op, const Text &text)
    {
        std::shared_ptr<const std::function<void(Op)>> observer;
        {
            std::lock_guard lock(g_mutex);
            observer = g_plan.observer;
            if (g_plan.recorded.count(op) != 0) {
                journal::Write(journal::kCall, text());
            }
        }
        if (observer != nullptr) {
            ++t_inside;
            (*observer)(op);
            --t_inside;
        }
        std::lock_guard lock(g_mutex);
        Plan &plan = g_plan.single[Index(op)];
        if (Take(plan)) {
            result_ = plan.result;
            fails_ = true;
        } else if (g_plan.overallOps.count(op) != 0 && Take(g_plan.overall)) {
            fails_ = true;
        }
        if (fails_) {
            g_plan.failedOp = op;
        }
    }

    bool nested_ = false;
    bool fails_ = false;
    std::optional<long long> result_;
};

template <class Function> Function *Next(const char *name)
{
    void *address = dlsym(RTLD_NEXT, name);
    if (address == nullptr) {
        ADD_FAILURE() << "no " << name << " behind the executable's";
        abort();
    }
    return reinterpret_cast<Function *>(address);
}

} // namespace

const char *Name(Op op)
{
    static constexpr const char *kNames[] = {
#define X(name) #name,
        FAULTS_OPERATIONS(X)
#undef X
    };
    return kNames[Index(op)];
}

void Fail(Op op, unsigned nth, std::optional<long long> result)
{
    std::lock_guard lock(g_mutex);
    g_plan.single[Index(op)] = {nth, result};
    g_plan.failedOp = Op::kCount;
    g_active = true;
}

void FailOverall(unsigned nth, const std::set<Op> &operations)
{
    std::lock_guard lock(g_mutex);
    g_plan.overallOps = operations;
    g_plan.overall = {nth, {}};
    g_plan.failedOp = Op::kCount;
    g_active = true;
}

Op FailedOp()
{
    std::lock_guard lock(g_mutex);
    return g_plan.failedOp;
}

unsigned Failed()
{
    return FailedOp() == Op::kCount ? 0 : 1;
}

unsigned long Calls(Op op)
{
    return g_calls[Index(op)].load(std::memory_order_relaxed);
}

void Record(std::initializer_list<Op> operations)
{
    std::lock_guard lock(g_mutex);
    g_plan.recorded = operations;
    g_active = true;
}

void Observe(std::function<void(Op)> observer)
{
    std::lock_guard lock(g_mutex);
    g_plan.observer =
        observer ? std::make_shared<const std::function<void(Op)>>(std::move(observer)) : nullptr;
    g_active = true;
}

void Reset()
{
    std::lock_guard lock(g_mutex);
    g_plan = {};
    g_active = false;
}

} // namespace faults

using faults::Next;
using faults::Op;
using faults::Point;

#define REAL(name)                                                                                 \
    ([]() {                                                                                        \
        static auto *const real = Next<decltype(name)>(#name);                                     \
        return real;                                                                               \
    }())

namespace timers {
namespace {

std::mutex g_mutex;
bool g_capture = false;
auto &g_timers = *new std::vector<Timer>;

u32 Start(const Timer &timer)
{
    std::lock_guard lock(g_mutex);
    if (!g_capture) {
        return REAL(ZIR_ReltmrCbkStart)(timer.handle, timer.memHandle, timer.periodMs,
                                        timer.parameter, timer.context, timer.mode, timer.callback);
    }
    g_timers.push_back(timer);
    *timer.handle = g_timers.size();
    return QOR_OK;
}

u32 Stop(ZIR_TimerHandle *handle)
{
    std::lock_guard lock(g_mutex);
    if (!g_capture) {
        return REAL(ZIR_ReltmrStop)(handle);
    }
    if (*handle < 1 || *handle > g_timers.size()) {
        return QOR_FAIL;
    }
    Timer &timer = g_timers[*handle - 1];
    timer.running = false;
    journal::Write(journal::kCall, journal::Join("stopped", timer.periodMs));
    *handle = 0;
    return QOR_OK;
}

} // namespace

void Capture()
{
    std::lock_guard lock(g_mutex);
    g_capture = true;
}

std::vector<Timer> All()
{
    std::lock_guard lock(g_mutex);
    return g_timers;
}

void Tick(u32 periodMs)
{
    for (const Timer &timer : All()) {
        if (timer.running && timer.periodMs == periodMs) {
            timer.callback();
        }
    }
}

} // namespace timers

namespace worker {
namespace {

std::atomic<QorQueueContext *> g_context{nullptr};

u32 Attach(u32 epollFd, u32 operation, QorQueueHandle queue, u32 events, QorQueueContext *context)
{
    g_context = context;
    return REAL(QorEpollQueCtl)(epollFd, operation, queue, events, context);
}

} // namespace

void Open()
{
    const int epollFd = epoll_create_s(8);
    ASSERT_NE(epollFd, -1);
    ASSERT_EQ(QorL2ResQueCreate(static_cast<u32>(epollFd)), 0u);
}

QorQueueContext *Context()
{
    return g_context;
}

bool Step()
{
    return QorL2ResMsgProc(0, Context()) == 0;
}

unsigned Drain()
{
    unsigned handled = 0;
    while (Step()) {
        ++handled;
    }
    return handled;
}

} // namespace worker

/* ---- the definitions that come before the platform's ---- */

/* FAULT_TO(result type, name, (parameters), result when failing, what else it does then,
   the call it is forwarded to, details of a record...) */
#define FAULT_TO(type, name, parameters, own, effect, call, ...)                                   \
    extern "C" QOR_API type name parameters                                                        \
    {                                                                                              \
        const Point point(Op::name, __builtin_return_address(0) __VA_OPT__(, ) __VA_ARGS__);       \
        if (point.fails()) {                                                                       \
            effect;                                                                                \
            return point.result<type>(own);                                                        \
        }                                                                                          \
        return call;                                                                               \
    }

/* The same, with (arguments) for the platform's own. */
#define FAULT(type, name, parameters, arguments, own, effect, ...)                                 \
    FAULT_TO(type, name, parameters, own, effect, REAL(name) arguments __VA_OPT__(, ) __VA_ARGS__)

#define NOTHING static_cast<void>(0)
#define ZEROED                                                                                     \
    if (dest != nullptr) {                                                                         \
        memset(dest, 0, destSize);                                                                 \
    }
#define EMPTIED                                                                                    \
    if (dest != nullptr && destSize > 0) {                                                         \
        dest[0] = '\0';                                                                            \
    }

FAULT(u32, ZIR_HandleInitialize, (const char *name, u32 *handle), (name, handle), 1, NOTHING, name)
FAULT(void *, ZIR_MemAlloc, (u32 handle, u8 partition, u64 size), (handle, partition, size),
      nullptr, NOTHING, size)
FAULT(u32, ZIR_MemFree, (u32 handle, void *block), (handle, block), 1, NOTHING)
FAULT(u32, ZIR_MutexInit, (ZIR_Mutex * mutex, const void *attributes), (mutex, attributes), 1,
      NOTHING)
FAULT(HASH_Handle, HASH_CreateNew,
      (u8 partition, u32 nodeSize, u32 bucketCount, HASH_HashFunc hash, HASH_CompFunc compare,
       u32 option),
      (partition, nodeSize, bucketCount, hash, compare, option), nullptr, NOTHING, "partition",
      +partition, "node", nodeSize, "of", bucketCount)
FAULT(void *, HASH_NewData, (HASH_Handle table, u32 option), (table, option), nullptr, NOTHING)
FAULT(u32, HASH_AddNode, (HASH_Handle table, const void *key, void *data, u32 option),
      (table, key, data, option), 1, NOTHING)
FAULT(u32, HASH_RemoveElmtByKey, (HASH_Handle table, const void *key), (table, key), 1, NOTHING)
FAULT(u32, COMP_RegisterComponentInfo, (const QorComponentInfo *info), (info), 1, NOTHING)
FAULT(u32, COMP_GetVTable, (u32 componentId, u32 interfaceId, void **table),
      (componentId, interfaceId, table), 1, *table = nullptr)
FAULT(int, memcpy_s, (void *dest, size_t destSize, const void *src, size_t count),
      (dest, destSize, src, count), 1, ZEROED)
FAULT(int, memset_s, (void *dest, size_t destSize, int value, size_t count),
      (dest, destSize, value, count), 1, ZEROED)
FAULT(int, strcpy_s, (char *dest, size_t destSize, const char *src), (dest, destSize, src), 1,
      EMPTIED)
FAULT(int, strcat_s, (char *dest, size_t destSize, const char *src), (dest, destSize, src), 1,
      EMPTIED)
FAULT(int, vsnprintf_s,
      (char *dest, size_t destSize, size_t limit, const char *format, va_list arguments),
      (dest, destSize, limit, format, arguments), -1, EMPTIED)
FAULT(int, epoll_create_s, (int sizeHint), (sizeHint), -1, NOTHING, sizeHint)
FAULT(int, close_s, (int descriptor), (descriptor), -1, NOTHING)
FAULT(u32, QorEpollTaskCreate, (const char *name, u32 *taskId, u32 (*entry)(void *), void *arg),
      (name, taskId, entry, arg), 1, NOTHING, name)
FAULT(u32, QorEpollQueCreate,
      (const char *name, u32 depth, QorQueueHandle *queue, u32 option, u32 elementSize),
      (name, depth, queue, option, elementSize), 1, NOTHING, name, depth, option, elementSize)
FAULT(u32, QorEpollQueDelete, (QorQueueHandle * queue), (queue), 1, NOTHING)
FAULT(u32, QorEpollQueGetMsgNum, (QorQueueHandle queue), (queue), 0, NOTHING)
FAULT(u32, QorEpollQueWrite, (QorQueueHandle queue, const void *element, u32 size, u32 timeoutMs),
      (queue, element, size, timeoutMs), 1, NOTHING, size, "within", timeoutMs)
FAULT(u32, QorEpollQueRead, (QorQueueHandle queue, u32 option, void *element, u32 size),
      (queue, option, element, size), 0, NOTHING)
FAULT(u32, QOR_Epoll_EvtProc, (struct epoll_event * events, u32 count), (events, count), 0, NOTHING)

/* The timer calls may end with captured timers instead. */
FAULT_TO(u32, ZIR_ReltmrCbkStart,
         (ZIR_TimerHandle * handle, u32 memHandle, u32 periodMs, u32 parameter, void *context,
          u32 mode, ZIR_TimerCallback callback),
         1, NOTHING,
         timers::Start({handle, memHandle, periodMs, parameter, context, mode, callback, true}))
FAULT_TO(u32, ZIR_ReltmrStop, (ZIR_TimerHandle * handle), 1, NOTHING, timers::Stop(handle))
FAULT_TO(u32, QorEpollQueCtl,
         (u32 epollFd, u32 operation, QorQueueHandle queue, u32 events, QorQueueContext *context),
         1, NOTHING, worker::Attach(epollFd, operation, queue, events, context), operation, events)

extern "C" QOR_API void HASH_DeleteHash(HASH_Handle *table)
{
    const Point point(Op::HASH_DeleteHash, __builtin_return_address(0));
    REAL(HASH_DeleteHash)(table);
}

#define FAULT_FORMATTED(name, parameters, limit)                                                   \
    extern "C" QOR_API int name parameters                                                         \
    {                                                                                              \
        const Point point(Op::name, __builtin_return_address(0));                                  \
        if (point.fails()) {                                                                       \
            EMPTIED;                                                                               \
            return point.result<int>(-1);                                                          \
        }                                                                                          \
        va_list arguments;                                                                         \
        va_start(arguments, format);                                                               \
        const int length = REAL(vsnprintf_s)(dest, destSize, limit, format, arguments);            \
        va_end(arguments);                                                                         \
        return length;                                                                             \
    }

FAULT_FORMATTED(sprintf_s, (char *dest, size_t destSize, const char *format, ...), destSize)
FAULT_FORMATTED(snprintf_s, (char *dest, size_t destSize, size_t limit, const char *format, ...),
                limit)

/* The sanitizers' own epoll_wait, where there is one: it knows what waiting hands over. */
extern "C" int __interceptor_epoll_wait(int, struct epoll_event *, int, int) __attribute__((weak));

FAULT_TO(int, epoll_wait, (int epollFd, struct epoll_event *events, int count, int timeout), -1,
         NOTHING,
         (__interceptor_epoll_wait != nullptr ? __interceptor_epoll_wait
                                              : REAL(epoll_wait))(epollFd, events, count, timeout),
         count, timeout)
