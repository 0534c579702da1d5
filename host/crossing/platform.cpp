/* The platform's functions through which the module's crossings are caught. */
#include <dlfcn.h>
#include <link.h>

#include <array>
#include <stdexcept>
#include <string>
#include <vector>

#include "bounded.h"
#include "comp_registry.h"
#include "crossing/crossing.h"
#include "qor_epoll.h"
#include "zir_timer.h"

namespace host::crossing {

/* Written before the module is loaded and its threads exist. */
static std::vector<Listener *> &s_listeners = *new std::vector<Listener *>; // never freed
static bool s_alone = false;
static void *s_module;

void attach(Listener &listener)
{
    s_listeners.push_back(&listener);
}

std::span<Listener *const> listeners()
{
    return s_listeners;
}

void leaveAlone()
{
    s_alone = true;
}

bool isAlone()
{
    return s_alone;
}

void setModule(void *handle)
{
    s_module = handle;
}

void *ownSymbol(const char *name)
{
    return dlsym(s_module, name);
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
    static const auto real = host::crossing::platform<decltype(function)>(#function)

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
    pass(Tick{timer.period}, [&]() -> u32 {
        timer.callback();
        return QOR_OK;
    });
}

static constexpr std::array<ZIR_TimerCallback, 4> s_ticks = {tick<0>, tick<1>, tick<2>, tick<3>};

static ZIR_TimerCallback caughtTick(u32 period, ZIR_TimerCallback callback)
{
    if (s_timerCount == s_timers.size()) {
        return callback;
    }
    s_timers[s_timerCount] = {period, callback};
    return s_ticks[s_timerCount++];
}

void playTick(u32 period)
{
    for (std::size_t i = 0; i < s_timerCount; ++i) {
        if (s_timers[i].period == period) {
            s_ticks[i]();
            return;
        }
    }
    throw std::runtime_error("the module has no timer of " + std::to_string(period) + " ms");
}

/* ---- the queue ---- */

static QorQueueContext *s_queueContext; // the module's

static u32 caughtMessage(u64, QorQueueContext *)
{
    return pass(Message{}, [] { return s_queueContext->handler(0, s_queueContext); });
}

void playMessage()
{
    if (s_queueContext == nullptr) {
        throw std::runtime_error("the module has no queue");
    }
    caughtMessage(0, nullptr);
}

/* The worker's start-up without its loop. */
static u32 startWorker()
{
    const auto timers = reinterpret_cast<u32 (*)()>(ownSymbol("QorL2ResTimerInit"));
    const auto queue = reinterpret_cast<u32 (*)(u32)>(ownSymbol("QorL2ResQueCreate"));
    const u32 started = timers();
    return started != QOR_OK ? started : queue(static_cast<u32>(epoll_create_s(1)));
}

} // namespace host::crossing

/* ---- the platform's functions ---- */

using namespace host::crossing;

extern "C" {

u32 COMP_GetVTable(u32 componentId, u32 interfaceId, void **table)
{
    PLATFORM(COMP_GetVTable);
    if (componentId == L2RES_SERVICE_COMPONENT && ofModule(__builtin_return_address(0))) {
        *table = nullptr;
        const u32 code = pass(FindTable{componentId, interfaceId},
                              [&] { return real(componentId, interfaceId, table); });
        *table = code == QOR_OK ? const_cast<void *>(serviceTable(interfaceId, *table)) : nullptr;
        return code;
    }
    const u32 code = real(componentId, interfaceId, table);
    if (code == QOR_OK && componentId == L2RES_COMPONENT_ID && interfaceId == L2RES_IID_FUNCTIONS) {
        *table =
            const_cast<L2RsmFunVtbl *>(exportedTable(static_cast<const L2RsmFunVtbl *>(*table)));
    }
    return code;
}

u32 ZIR_ReltmrCbkStart(ZIR_TimerHandle *handle, u32 memHandle, u32 periodMs, u32 parameter,
                       void *context, u32 timerMode, ZIR_TimerCallback callback)
{
    PLATFORM(ZIR_ReltmrCbkStart);
    if (!ofModule(reinterpret_cast<const void *>(callback))) {
        return real(handle, memHandle, periodMs, parameter, context, timerMode, callback);
    }
    const ZIR_TimerCallback caught = caughtTick(periodMs, callback);
    if (isAlone()) {
        *handle = s_timerCount;
        return QOR_OK;
    }
    return real(handle, memHandle, periodMs, parameter, context, timerMode, caught);
}

u32 QorEpollTaskCreate(const char *name, u32 *taskId, u32 (*entry)(void *), void *arg)
{
    PLATFORM(QorEpollTaskCreate);
    if (!isAlone() || !ofModule(reinterpret_cast<const void *>(entry))) {
        return real(name, taskId, entry, arg);
    }
    *taskId = 1;
    return startWorker();
}

u32 QorEpollQueCtl(u32 epollFd, u32 operation, QorQueueHandle queue, u32 events,
                   QorQueueContext *context)
{
    PLATFORM(QorEpollQueCtl);
    if (operation != QOR_QUEUE_ATTACH || context == nullptr ||
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
    if (!ofModule(__builtin_return_address(0))) {
        return real(queue);
    }
    return pass(QueueCount{}, [&] { return real(queue); });
}

u32 QorEpollQueWrite(QorQueueHandle queue, const void *element, u32 size, u32 timeoutMs)
{
    PLATFORM(QorEpollQueWrite);
    if (!ofModule(__builtin_return_address(0))) {
        return real(queue, element, size, timeoutMs);
    }
    const u32 code =
        pass(QueueWrite{size, timeoutMs}, [&] { return real(queue, element, size, timeoutMs); });
    // What the record says was written must be there to be read.
    return isAlone() && code == QOR_OK ? real(queue, element, size, 0) : code;
}

} // extern "C"
