#include "record/recorder.h"

#include <unistd.h>

#include <cstdio>

#include "record/passages.h"
#include "watch/journal.h"

namespace host {

/* Calls into the module that the thread is in. */
static thread_local u32 t_depth = 0;

/* ---- the gate ---- */

void Recorder::Gate::enter()
{
    std::unique_lock lock(mutex_);
    if (owner_ == std::this_thread::get_id()) {
        ++depth_;
        return;
    }
    const u64 ticket = nextTicket_++;
    while (!changed_.wait_for(lock, std::chrono::minutes(1), [&] { return serving_ == ticket; })) {
        if (ticket != serving_ + 1) {
            continue; // in a long queue it is the first one that complains
        }
        std::fprintf(stderr, "l2rsm-host: recording: a call into the module has been going on for "
                             "a minute while another thread waits to make one\n");
        _exit(1);
    }
    owner_ = std::this_thread::get_id();
    depth_ = 1;
}

void Recorder::Gate::leave()
{
    std::lock_guard lock(mutex_);
    if (--depth_ == 0) {
        owner_ = {};
        ++serving_;
        changed_.notify_all();
    }
}

/* ---- the file ---- */

void Recorder::start(const std::string &path, const Value &options)
{
    file_.open(path, false);
    const Value header = {
        {"format", recordFormat}, {"version", recordVersion}, {"options", options}};
    file_.write(header.dump(-1, ' ', false, Value::error_handler_t::replace) + "\n");
    stopped_ = false;
    crossing::attach(*this);
}

/* Number, time, thread and kind come first, for whoever reads the file. Returns the number. */
u64 Recorder::write(const char *kind, const Value &what, const Value &fields)
{
    const std::string rest = fields.dump(-1, ' ', false, Value::error_handler_t::replace);
    std::lock_guard lock(mutex_);
    if (stopped_) {
        return 0;
    }
    const bool input = kind == std::string_view("in") || kind == std::string_view("answer");
    inputs_ += input;
    outputs_ += !input;
    std::string line = "{\"n\":" + std::to_string(++lastNumber_) +
                       ",\"t\":" + std::to_string(clock_.now().count()) +
                       ",\"th\":" + std::to_string(Journal::thread()) + ",\"" + kind +
                       "\":" + what.dump();
    line += fields.empty() ? "}" : "," + rest.substr(1);
    file_.write(line + "\n");
    return lastNumber_;
}

void Recorder::finish()
{
    gate_.enter();
    {
        std::lock_guard lock(mutex_);
        if (!stopped_) {
            const Value end = {{"end", lastNumber_}, {"inputs", inputs_}, {"outputs", outputs_}};
            file_.write(end.dump() + "\n");
        }
        stopped_ = true;
    }
    gate_.leave();
}

/* ---- passages ---- */

void Recorder::pass(crossing::Passage &passage, const crossing::Next &next)
{
    if (crossing::isInwards(passage.event)) {
        recordIn(passage, next);
    } else {
        recordOut(passage, next);
    }
}

void Recorder::recordIn(crossing::Passage &passage, const crossing::Next &next)
{
    gate_.enter();
    const u64 number = write("in", operationOf(passage.event), argumentsOf(passage.event));
    ++t_depth;
    next();
    --t_depth;
    write("result", number, resultsOf(passage));
    gate_.leave();
}

void Recorder::recordOut(crossing::Passage &passage, const crossing::Next &next)
{
    // Outside any call, at the worker's start-up, the module may hold what a call waits for: no
    // gate, and nothing that a replay could put in its place.
    const bool stray = t_depth == 0;
    const u64 number =
        write(stray ? "stray" : "out", operationOf(passage.event), argumentsOf(passage.event));
    next();
    if (!stray && !std::holds_alternative<crossing::LogLine>(passage.event)) {
        write("answer", number, resultsOf(passage));
    }
}

} // namespace host
