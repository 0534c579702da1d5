/* The last lines of the module's logs, for show.log. Any thread. */
#ifndef HOST_LOG_HISTORY_H
#define HOST_LOG_HISTORY_H

#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "watch/journal.h"

namespace host {

class LogHistory : public Sink {
public:
    enum { LINES_KEPT = 1000 };

    struct Line {
        DeviceTime at;
        std::string log;   // "debuglog", "blackbox"
        std::string level; // "error", "warning", "info"; "event" in the black box
        std::string text;
    };

    std::vector<Line> lines() const // oldest first
    {
        std::lock_guard lock(mutex_);
        return {lines_.begin(), lines_.end()};
    }

    void on(const Event &event) override
    {
        Line line{event.at, std::string(event.name), "", ""};
        for (const Field &field : event.fields) {
            if (field.name == "level") {
                line.level = std::get<std::string_view>(field.value);
            } else if (field.name == "text") {
                line.text = std::get<std::string_view>(field.value);
            }
        }
        std::lock_guard lock(mutex_);
        lines_.push_back(std::move(line));
        if (lines_.size() > LINES_KEPT) {
            lines_.pop_front();
        }
    }

private:
    mutable std::mutex mutex_;
    std::deque<Line> lines_;
};

} // namespace host

#endif
