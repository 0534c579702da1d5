/* The platform's functions through which the module's crossings are caught. */
#include <dlfcn.h>
#include <link.h>

#include <array>
#include <stdexcept>

#include "bounded.h"
#include "comp_registry.h"
#include "crossing/boundary.h"
#include "qor_epoll.h"
#include "zir_timer.h"

namespace host::boundary {

/* Written before the module is loaded and its threads exist. */
static Mode s_mode = Mode::off;
static Crossings *s_crossings;
static void *s_module;

static void start(Crossings &crossings, Mode mode)
{
    s_crossings = &crossings;
    s_mode = mode;
}

void record(Crossings &crossings)
{
    start(crossings, Mode::record);
}

void replay(Crossings &crossings)
{
    start(crossings, Mode::replay);
}

void setModule(void *handle)
{
    s_module = handle;
}

Mode mode()
{
    return s_mode;
}

Crossings &crossings()
{
    return *s_crossings;
}

void *moduleSymbol(const char *name)
{
    void *address = dlsym(s_module, name);
    if (address == nullptr) {
        throw std::runtime_error(std::string("the module has no ") + name);
    }
    return address;
}

bool ofModule(const void *address)
{
    Dl_info library{};
    return s_module != nullptr && dladdr(address, &library) != 0 &&
           reinterpret_cast<ElfW(Addr)>(library.dli_fbase) ==
               static_cast<const link_map *>(s_module)->l_addr;
}

/* The platform's own definition. */
template <class Function> static Function *platform(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}
#define PLATFORM(function)                                                                         \
    static const auto real = host::boundary::platform<decltype(function)>(#function)

/* ---- timers ---- */

struct Timer {
    u32 period;
    ZIR_TimerCallback callback;
};
static std::array<Timer, 4> s_timers; // one each of the module's; written when it starts them
static std::size_t s_timerCount = 0;

template <std::size_t Index> static void tick()
{
    const Timer &timer = s_timers[Index];
    crossings().in("tick", {{"period", timer.period}}, [&] {
        timer.callback();
        return Value::object();
    });
}

static ZIR_TimerCallback caughtTick(u32 period, ZIR_TimerCallback callback)
{
    static constexpr std::array<ZIR_TimerCallback, 4> ticks = {tick<0>, tick<1>, tick<2>, tick<3>};
    if (s_timerCount == s_timers.size()) {
        return callback;
    }
    s_timers[s_timerCount] = {period, callback};
    return ticks[s_timerCount++];
}

Value playTick(u32 period)
{
    for (const Timer &timer : s_timers) {
        if (timer.callback != nullptr && timer.period == period) {
            timer.callback();
            return Value::object();
        }
    }
    throw std::runtime_error("the module has no timer of " + std::to_string(period) + " ms");
}

/* ---- the queue ---- */

static QorQueueContext *s_queueContext; // the module's

static Value handleMessage()
{
    return {{"code", s_queueContext->handler(0, s_queueContext)}};
}

static u32 caughtMessage(u64, QorQueueContext *)
{
    u32 code = QOR_FAIL;
    crossings().in("message", Value::object(), [&] {
        const Value result = handleMessage();
        code = result["code"].get<u32>();
        return result;
    });
    return code;
}

Value playMessage()
{
    if (s_queueContext == nullptr) {
        throw std::runtime_error("the module has no queue");
    }
    return handleMessage();
}

/* The worker's start-up without its loop. */
static u32 startWorker()
{
    const auto timers = reinterpret_cast<u32 (*)()>(moduleSymbol("QorL2ResTimerInit"));
    const auto queue = reinterpret_cast<u32 (*)(u32)>(moduleSymbol("QorL2ResQueCreate"));
    const u32 started = timers();
    return started != QOR_OK ? started : queue(static_cast<u32>(epoll_create_s(1)));
}

} // namespace host::boundary

/* ---- the platform's functions ---- */

using namespace host;
using namespace host::boundary;

extern "C" {

u32 COMP_GetVTable(u32 componentId, u32 interfaceId, void **table)
{
    PLATFORM(COMP_GetVTable);
    const bool module = mode() != Mode::off && ofModule(__builtin_return_address(0));
    if (module && componentId == L2RES_SERVICE_COMPONENT) {
        const u32 code = crossForCode("component.table",
                                      {{"component", componentId}, {"interface", interfaceId}},
                                      [&] { return real(componentId, interfaceId, table); });
        *table = code == QOR_OK ? const_cast<void *>(serviceTable(interfaceId, *table)) : nullptr;
        return code;
    }
    const u32 code = real(componentId, interfaceId, table);
    if (mode() == Mode::record && code == QOR_OK && componentId == L2RES_COMPONENT_ID &&
        interfaceId == L2RES_IID_FUNCTIONS) {
        *table =
            const_cast<L2RsmFunVtbl *>(exportedTable(static_cast<const L2RsmFunVtbl *>(*table)));
    }
    return code;
}

u32 ZIR_ReltmrCbkStart(ZIR_TimerHandle *handle, u32 memHandle, u32 periodMs, u32 parameter,
                       void *context, u32 timerMode, ZIR_TimerCallback callback)
{
    PLATFORM(ZIR_ReltmrCbkStart);
    if (mode() == Mode::off || !ofModule(reinterpret_cast<const void *>(callback))) {
        return real(handle, memHandle, periodMs, parameter, context, timerMode, callback);
    }
    const ZIR_TimerCallback caught = caughtTick(periodMs, callback);
    if (mode() == Mode::replay) {
        *handle = s_timerCount;
        return QOR_OK;
    }
    return real(handle, memHandle, periodMs, parameter, context, timerMode, caught);
}

u32 QorEpollTaskCreate(const char *name, u32 *taskId, u32 (*entry)(void *), void *arg)
{
    PLATFORM(QorEpollTaskCreate);
    if (mode() != Mode::replay || !ofModule(reinterpret_cast<const void *>(entry))) {
        return real(name, taskId, entry, arg);
    }
    *taskId = 1;
    return startWorker();
}

u32 QorEpollQueCtl(u32 epollFd, u32 operation, QorQueueHandle queue, u32 events,
                   QorQueueContext *context)
{
    PLATFORM(QorEpollQueCtl);
    if (mode() == Mode::off || operation != QOR_QUEUE_ATTACH || context == nullptr ||
        !ofModule(reinterpret_cast<const void *>(context->handler))) {
        return real(epollFd, operation, queue, events, context);
    }
    static QorQueueContext caught;
    caught = *context;
    caught.handler = caughtMessage;
    s_queueContext = context;
    return real(epollFd, operation, queue, events, &caught);
}

/*
 * How full the queue is, and whether a write succeeds, hangs on how far the worker has come: a
 * replay must be told.
 */
u32 QorEpollQueGetMsgNum(QorQueueHandle queue)
{
    PLATFORM(QorEpollQueGetMsgNum);
    if (mode() == Mode::off || !ofModule(__builtin_return_address(0))) {
        return real(queue);
    }
    u32 count = 0;
    cross(
        "queue.count", Value::object(),
        [&]() -> Value {
            return {{"count", real(queue)}};
        },
        [&](const Value &answer) { count = numberIn<u32>(answer, "count"); });
    return count;
}

u32 QorEpollQueWrite(QorQueueHandle queue, const void *element, u32 size, u32 timeoutMs)
{
    PLATFORM(QorEpollQueWrite);
    if (mode() == Mode::off || !ofModule(__builtin_return_address(0))) {
        return real(queue, element, size, timeoutMs);
    }
    const u32 code = crossForCode("queue.write", {{"size", size}, {"timeout", timeoutMs}},
                                  [&] { return real(queue, element, size, timeoutMs); });
    // What the record says was written must be there to be read.
    return mode() == Mode::replay && code == QOR_OK ? real(queue, element, size, 0) : code;
}

} // extern "C"
