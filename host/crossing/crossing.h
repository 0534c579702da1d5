/*
 * The crossing: the one wrapper of everything that passes between the process and the module.
 *
 * Inwards: the operations of the exported table, the exported functions that the host uses, and the
 * worker's life: a tick (the callback of one of the module's timers) and a message (the handler of
 * the module's queue). Outwards: the services of component 1000 and where they are found, hooks,
 * callbacks, and the queue that ticks are written to.
 *
 * How crossings are caught. This program defines some of the platform's functions itself; its
 * definitions are found before the platform's, and pass on to them:
 *   COMP_GetVTable      hands out tables of the crossing's own: for the module's operations to
 *                       whoever asks, for the services to the module;
 *   ZIR_ReltmrCbkStart, QorEpollQueCtl, QorEpollQueWrite, QorEpollQueGetMsgNum, QorEpollTaskCreate
 *                       the module's timers, queue and task.
 * What other libraries of the process call goes straight through. So a component is seen however it
 * came by the module's table.
 *
 * Each passage runs through the listeners like through the skins of an onion: what a listener does
 * before next() comes before the call, what it does after it comes after. The first to have been
 * attached is the outermost, for calls in both directions.
 *
 * Threads: passages on any, also within one another.
 */
#ifndef HOST_CROSSING_H
#define HOST_CROSSING_H

#include <span>

#include "crossing/events.h"

namespace host::crossing {

struct Passage {
    const Event event;
    u32 code = QOR_FAIL; // the call's, once it has been made; 0 where it has none
};

class Next;

class Listener {
public:
    virtual ~Listener() = default;

    /* Calls next() once, or answers in its place: sets code and the event's places. */
    virtual void pass(Passage &passage, const Next &next) = 0;
};

/* The way from a listener to the call itself. */
class Next {
public:
    template <class Call>
    Next(std::span<Listener *const> listeners, Passage &passage, Call &call)
        : listeners_(listeners), passage_(passage), context_(&call),
          call_([](void *context) -> u32 { return (*static_cast<Call *>(context))(); })
    {
    }

    void operator()() const
    {
        if (listeners_.empty()) {
            passage_.code = call_(context_);
            return;
        }
        Next rest = *this;
        rest.listeners_ = listeners_.subspan(1);
        listeners_.front()->pass(passage_, rest);
    }

private:
    std::span<Listener *const> listeners_;
    Passage &passage_;
    void *context_;
    u32 (*call_)(void *context);
};

/* Before the module is loaded. The listener lives as long as the process. */
void attach(Listener &listener);

/*
 * The module will be alone, for a replay: no timer runs and no task is created. Start-up of the worker
 * stops short of its loop, and ticks and messages come from playTick and playMessage. Before it is
 * loaded.
 */
void leaveAlone();

/* The loaded module, before anything in it is called. */
void setModule(void *handle);

/* The exported table as everybody gets it, once phase 1 is over. Throws when it is not there. */
const L2RsmFunVtbl &table();

/* An exported symbol of the module; functions that are calls into it as passages. Null when missing. */
void *symbol(const char *name);

/* What was registered for a table and service, or hook type, by whoever; null for nothing. */
L2ResNotifyCallback registered(u32 table, u32 service);

/* The notification that the thread is in: for a callback that serves several tables and services. */
const Notify &notification();

void playTick(u32 period); // throws when there is no such timer
void playMessage();

/* ---- between the files of the crossing ---- */

std::span<Listener *const> listeners();
bool isAlone();
bool ofModule(const void *address);
void *ownSymbol(const char *name); // the module's own; null when missing

template <class Call> u32 pass(const Event &event, Call call)
{
    Passage passage{event};
    Next(listeners(), passage, call)();
    return passage.code;
}

/* What to register in place of the process's own; null stays null. */
L2ResHook hook(u32 type, L2ResHook real);
L2ResNotifyCallback callback(u32 table, u32 service, L2ResNotifyCallback real);

/* A service's table for the module; null for an interface that is unknown. */
const void *serviceTable(u32 interfaceId, const void *real);
/* The exported table for everybody else. */
const L2RsmFunVtbl *exportedTable(const L2RsmFunVtbl *real);

} // namespace host::crossing

#endif
