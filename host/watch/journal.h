/*
 * The journal: the one place that every event between host and module passes.
 *
 * What passes: calls into the module and their results, callbacks out of it, hook and service
 * operations, lines of the module's logs, alarms, and the scenario's own text. Each event carries
 * the device's time, the thread it happened on and its fields; a sink (the printer; a recorder, a
 * metrics file) sees the kinds it asked for, one event at a time, in one order for all threads.
 *
 * Threads: any. A sink runs with the journal's mutex held: it must not call the module.
 * Events are built on the caller's stack; a sink copies what it keeps.
 */
#ifndef HOST_JOURNAL_H
#define HOST_JOURNAL_H

#include <array>
#include <atomic>
#include <initializer_list>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "device/clock.h"
#include "inspect/fields.h"
#include "qor_types.h"

namespace host {

using namespace inspect;

enum class Kind : u32 {
    call,    // into the module; ends with a result
    notify,  // callback out of the module; ends with a result
    result,  // of the call or notification with the same number
    hook,    // the module asked the engine; with what it was told
    service, // the module used a service of component 1000
    log,     // a line of the module's debug log or black box
    alarm,   // an alarm was raised or cleared
    text,    // printed by the scenario, or what a query found
    count
};

struct Event {
    Kind kind;
    u64 number; // of the event; a result has the number of what it ends
    DeviceTime at;
    unsigned thread; // 1 the scenario's, others in the order of their first event
    std::string_view name;
    std::span<const Field> fields;
    u32 code = 0;                  // results, hooks, services
    std::string_view meaning = ""; // of the code, in words
};

class Sink {
public:
    virtual ~Sink() = default;
    virtual void on(const Event &event) = 0;
    /* Asked without the mutex before an event of the kind is handed over. */
    virtual bool wants(Kind) const
    {
        return true;
    }
};

class Journal {
public:
    explicit Journal(const Clock &clock) : clock_(clock)
    {
    }

    /* Both before the module is loaded. The sink must live as long as the journal. */
    void attach(Sink &sink, std::initializer_list<Kind> kinds);

    /* Whether an event of the kind would reach anybody. */
    bool isWanted(Kind kind) const;

    /* One event. Returns its number. */
    u64 write(Kind kind, std::string_view name, std::initializer_list<Field> fields, u32 code = 0,
              std::string_view meaning = "");
    u64 write(Kind kind, std::string_view name, std::span<const Field> fields, u32 code = 0,
              std::string_view meaning = "");
    /* Nothing is passed on any more: what the worker still does comes after the end. */
    void stop();

    void writeResult(u64 number, std::string_view name, u32 code, std::string_view meaning);
    /* Beneath a result: why it was not granted. */
    void writeReason(const std::string &reason);

    /* The calling thread's number, and its name as the system knows it. */
    static unsigned thread();
    static std::string threadName();

    const Clock &clock() const
    {
        return clock_;
    }

private:
    void dispatch(const Event &event);

    const Clock &clock_;
    std::mutex mutex_;
    bool stopped_ = false;
    std::atomic<u64> lastNumber_ = 0;
    std::array<std::vector<Sink *>, static_cast<std::size_t>(Kind::count)> sinks_;
};

} // namespace host

#endif
