#include "crossing/journal.h"

#include <pthread.h>

#include <algorithm>
#include <cstdio>

namespace host {

void Clock::setSpeed(u32 speed)
{
    speed_ = speed;
}

DeviceTime Clock::now() const
{
    const auto real = std::chrono::steady_clock::now() - start_;
    return std::chrono::duration_cast<DeviceTime>(real * speed_);
}

std::chrono::steady_clock::time_point Clock::realTime(DeviceTime time) const
{
    return start_ + std::chrono::duration_cast<std::chrono::steady_clock::duration>(time) / speed_;
}

std::string formatTime(DeviceTime time)
{
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
    char text[64];
    std::snprintf(text, sizeof text, "%02lld:%02lld:%02lld.%03lld",
                  static_cast<long long>(ms / 3600000), static_cast<long long>(ms / 60000 % 60),
                  static_cast<long long>(ms / 1000 % 60), static_cast<long long>(ms % 1000));
    return text;
}

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

void Journal::dispatch(const Event &event)
{
    const auto &sinks = sinks_[static_cast<std::size_t>(event.kind)];
    // Client threads under load must not queue up here for a sink that is not listening.
    if (std::ranges::none_of(sinks, [&](const Sink *sink) { return sink->wants(event.kind); })) {
        return;
    }
    // The time is read under the mutex, so that it never runs backwards in any sink.
    std::lock_guard lock(mutex_);
    if (stopped_) {
        return;
    }
    Event stamped = event;
    stamped.at = clock_.now();
    for (Sink *sink : sinks) {
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
