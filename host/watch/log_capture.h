/* Keeps the lines that one call makes the module write to its debug log. */
#ifndef HOST_LOG_CAPTURE_H
#define HOST_LOG_CAPTURE_H

#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "watch/journal.h"

namespace host {

/* Other threads' lines, the worker's above all, are not the call's. One capture at a time. */
class LogCapture : public Sink {
public:
    template <class Call> std::vector<std::string> during(Call call)
    {
        thread_ = Journal::thread();
        call();
        thread_ = 0;
        return std::exchange(lines_, {});
    }

    bool wants(Kind) const override
    {
        return thread_ == Journal::thread();
    }

    void on(const Event &event) override
    {
        for (const Field &field : event.fields) {
            if (event.name == "debuglog" && field.name == "text" && wants(event.kind)) {
                lines_.emplace_back(std::get<std::string_view>(field.value));
            }
        }
    }

private:
    std::atomic<unsigned> thread_ = 0; // 0 is no thread
    std::vector<std::string> lines_;   // of that thread alone
};

} // namespace host

#endif
