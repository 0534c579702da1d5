#include "watch/printer.h"

#include <cstdio>
#include <utility>

namespace host {

static std::string formatResult(const Event &event)
{
    std::string out = " -> " + std::to_string(event.code);
    if (!event.meaning.empty()) {
        out += " " + std::string(event.meaning);
    }
    return out;
}

thread_local int Printer::threadQuiet_ = 0;

/* Asked on the thread that the event is of. */
bool Printer::wants(Kind kind) const
{
    // A result is needed in quiet, too, while a call waits for it.
    return threadQuiet_ == 0 || kind == Kind::alarm || (kind == Kind::result && open_ != 0);
}

void Printer::on(const Event &event)
{
    if (!wants(event.kind)) {
        return;
    }
    Stack &stack = stacks_[event.thread];
    const std::string text = std::string(event.name) + formatFields(event.fields);
    switch (event.kind) {
    case Kind::call:
    case Kind::notify:
        open(event, stack);
        break;
    case Kind::result:
        close(event, stack);
        break;
    case Kind::text: // whole lines already
        printOpen(event.at, stack);
        print(event.at, stack.size(), text);
        break;
    case Kind::alarm:
        printOpen(event.at, stack);
        print(event.at, stack.size(), "ALARM " + text);
        break;
    case Kind::hook:
    case Kind::service:
    case Kind::log:
    case Kind::count:
        printOpen(event.at, stack);
        print(event.at, stack.size(), "(" + text + formatResult(event) + ")");
        break;
    }
}

void Printer::open(const Event &event, Stack &stack)
{
    printOpen(event.at, stack);
    std::string line = std::string(event.name) + formatFields(event.fields);
    if (event.thread != 1) {
        line += " (on " + Journal::threadName() + ")";
    }
    stack.push_back({event.number, std::move(line)});
    ++open_;
}

void Printer::close(const Event &event, Stack &stack)
{
    if (stack.empty() || stack.back().number != event.number) {
        return; // the call was made in quiet
    }
    const Open call = std::move(stack.back());
    stack.pop_back();
    --open_;
    if (threadQuiet_ == 0) {
        print(event.at, stack.size(),
              (call.printed ? "= " + std::string(event.name) : call.line) + formatResult(event));
    }
}

void Printer::printOpen(DeviceTime at, Stack &stack)
{
    if (!stack.empty() && !stack.back().printed) {
        stack.back().printed = true;
        print(at, stack.size() - 1, stack.back().line);
    }
}

void Printer::print(DeviceTime at, std::size_t depth, const std::string &line)
{
    const std::string text =
        "[" + formatTime(at) + "] " + std::string(2 * depth, ' ') + line + "\n";
    emit(events_, text);
}

void Printer::emit(std::FILE *stream, const std::string &text)
{
    std::lock_guard lock(outputMutex_);
    if (holding_) {
        held_.emplace_back(stream, text);
    } else {
        std::fwrite(text.data(), 1, text.size(), stream);
    }
}

void Printer::write(const std::string &lines)
{
    if (threadQuiet_ == 0) {
        ++written_;
        emit(stdout, lines);
    }
}

void Printer::writeEvent(const std::string &lines)
{
    emit(events_, lines);
}

void Printer::sendEventsToStandardError()
{
    events_ = stderr;
}

static void printLines(const std::vector<std::pair<std::FILE *, std::string>> &lines)
{
    for (const auto &[stream, text] : lines) {
        std::fwrite(text.data(), 1, text.size(), stream);
        std::fflush(stream);
    }
}

void Printer::hold(bool held)
{
    std::lock_guard lock(outputMutex_);
    holding_ = held;
    if (!held) { // before what others print next
        printLines(std::exchange(held_, {}));
    }
}

bool Printer::hasHeld()
{
    std::lock_guard lock(outputMutex_);
    return !held_.empty();
}

void Printer::printHeld()
{
    std::lock_guard lock(outputMutex_);
    printLines(std::exchange(held_, {}));
}

} // namespace host
