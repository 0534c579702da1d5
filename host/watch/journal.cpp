#include "watch/journal.h"

#include <pthread.h>

#include <algorithm>

namespace host {

void Journal::attach(Sink &sink, std::initializer_list<Kind> kinds)
{
    for (Kind kind : kinds) {
        sinks_[static_cast<std::size_t>(kind)].push_back(&sink);
    }
}

u64 Journal::write(Kind kind, std::string_view name, std::initializer_list<Field> fields, u32 code,
                   std::string_view meaning)
{
    return write(kind, name, std::span<const Field>(fields.begin(), fields.size()), code, meaning);
}

u64 Journal::write(Kind kind, std::string_view name, std::span<const Field> fields, u32 code,
                   std::string_view meaning)
{
    const u64 number = ++lastNumber_;
    dispatch({kind, number, {}, thread(), name, fields, code, meaning});
    return number;
}

void Journal::writeResult(u64 number, std::string_view name, u32 code, std::string_view meaning)
{
    dispatch({Kind::result, number, {}, thread(), name, {}, code, meaning});
}

void Journal::writeReason(const std::string &reason)
{
    write(Kind::text, "  because: " + reason, {});
}

bool Journal::isWanted(Kind kind) const
{
    return std::ranges::any_of(sinks_[static_cast<std::size_t>(kind)],
                               [&](const Sink *sink) { return sink->wants(kind); });
}

void Journal::dispatch(const Event &event)
{
    // Client threads under load must not queue up here for a sink that is not listening.
    if (!isWanted(event.kind)) {
        return;
    }
    // The time is read under the mutex, so that it never runs backwards in any sink.
    std::lock_guard lock(mutex_);
    if (stopped_) {
        return;
    }
    Event stamped = event;
    stamped.at = clock_.now();
    for (Sink *sink : sinks_[static_cast<std::size_t>(event.kind)]) {
        sink->on(stamped);
    }
}

void Journal::stop()
{
    std::lock_guard lock(mutex_);
    stopped_ = true;
}

unsigned Journal::thread()
{
    static std::atomic<unsigned> last = 0;
    thread_local const unsigned number = ++last;
    return number;
}

std::string Journal::threadName()
{
    char name[32] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

} // namespace host
