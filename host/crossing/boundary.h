/*
 * The boundary: every crossing between the process and the module, as the machine sees it, with all
 * arguments, results and answers. Off unless a run is recorded or replayed.
 *
 * Inwards: the operations of the exported table, the exported functions that the host uses, and the
 * worker's life: a tick (the callback of one of the module's timers) and a message (the handler of
 * the module's queue). Outwards: the services of component 1000 and where they are found, hooks,
 * callbacks, and the queue that ticks are written to.
 *
 * How crossings are caught. This program defines some of the platform's functions itself; its
 * definitions are found before the platform's, and pass on to them:
 *   COMP_GetVTable      hands out tables of the boundary's own, for the module's operations to
 *                       whoever asks, for the services to the module;
 *   ZIR_ReltmrCbkStart, QorEpollQueCtl, QorEpollQueWrite, QorEpollQueGetMsgNum, QorEpollTaskCreate
 *                       the module's timers, queue and task.
 * What other libraries of the process call goes straight through.
 *
 * In a replay the module is alone: no timer runs and no task is created. Start-up of the worker
 * stops short of its loop, and ticks and messages come from the record.
 */
#ifndef HOST_BOUNDARY_H
#define HOST_BOUNDARY_H

#include <functional>
#include <string>

#include "inspect/records.h"

namespace host {

using namespace inspect;

/* Who watches the boundary (a recorder) or is its other side (a replayer). */
class Crossings {
public:
    using Run = std::function<Value()>; // makes the call; its results, an object

    virtual ~Crossings() = default;

    /* A call into the module. */
    virtual void in(const char *operation, const Value &arguments, const Run &run) = 0;

    /* A call out of the module; `real` makes it for a recorder. Returns the answer, an object. */
    virtual Value out(const char *operation, const Value &arguments, const Run &real) = 0;

    /* A call out of the module that has no answer. */
    virtual void tell(const char *operation, const Value &arguments,
                      const std::function<void()> &real) = 0;

    /* The answer does not fit the operation. Does not return: the module cannot be unwound. */
    [[noreturn]] virtual void badAnswer(const std::string &why) = 0;
};

namespace boundary {

/* Before the module is loaded. `crossings` lives as long as the process. */
void record(Crossings &crossings);
void replay(Crossings &crossings);

/* The loaded module, before anything in it is called. */
void setModule(void *handle);

/* What to use in place of the module's function of that name; null for the function itself. */
void *replacement(const char *symbol);

/*
 * Replay: makes the call; its results, as the recorder's `run` returned them. Throws when the
 * operation is unknown or arguments are not its own.
 */
Value play(const std::string &operation, const Value &arguments);

/* ---- between the files of the boundary ---- */

enum class Mode { off, record, replay };
Mode mode();
Crossings &crossings();
void *moduleSymbol(const char *name); // throws when it is missing
bool ofModule(const void *address);

/* What to register in place of the process's own; null stays null. */
L2ResHook hook(u32 type, L2ResHook real);
L2ResNotifyCallback callback(u32 table, u32 service, L2ResNotifyCallback real);
/* Replay: there is no process's own. */
L2ResHook replayedHook(u32 type);
L2ResNotifyCallback replayedCallback(u32 table, u32 service);

/* A service's table for the module; null for an interface that is unknown. */
const void *serviceTable(u32 interfaceId, const void *real);
/* The exported table for everybody else. */
const L2RsmFunVtbl *exportedTable(const L2RsmFunVtbl *real);

/* Goes out; `read` takes what is needed of the answer. */
template <class Read>
void cross(const char *operation, const Value &arguments, const Crossings::Run &real, Read read)
{
    const Value answer = crossings().out(operation, arguments, real);
    try {
        read(answer);
    } catch (const std::exception &error) {
        crossings().badAnswer(error.what());
    }
}

/* The same for an operation that answers with a code alone. */
template <class Real> u32 crossForCode(const char *operation, const Value &arguments, Real real)
{
    u32 code = QOR_FAIL;
    cross(
        operation, arguments,
        [&]() -> Value {
            return {{"code", real()}};
        },
        [&](const Value &answer) { code = numberIn<u32>(answer, "code"); });
    return code;
}

/* Replay: a tick of the timer with the period; a message. Their results. */
Value playTick(u32 period);
Value playMessage();

} // namespace boundary

} // namespace host

#endif
