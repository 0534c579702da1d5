/* The sink that tells a person at the terminal what happens, one line an event. */
#ifndef HOST_PRINTER_H
#define HOST_PRINTER_H

#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "watch/journal.h"

namespace host {

/*
 * A call and its result share a line unless something happens in between; then the call's line
 * comes first, what happened is indented under it and the result closes it.
 */
class Printer : public Sink {
public:
    void on(const Event &event) override;
    bool wants(Kind kind) const override;

    /* What a show function found, as it is; nothing from a thread that is quiet. */
    void write(const std::string &lines);
    /* Lines without a time in front, where the events go. */
    void writeEvent(const std::string &lines);
    u64 written() const // how often write() was called
    {
        return written_;
    }
    /* Events go to standard error; what write() is given stays on standard output. */
    void sendEventsToStandardError();

    /*
     * While lines are held they are kept for the next printHeld(): a prompt is being edited. What is
     * left at the end is printed then.
     */
    void hold(bool held);
    bool hasHeld();
    void printHeld();

    /*
     * While a Quiet lives, nothing of its thread is printed but alarms. What other threads do
     * meanwhile, the worker above all, is.
     */
    class Quiet {
    public:
        Quiet()
        {
            ++threadQuiet_;
        }
        ~Quiet()
        {
            --threadQuiet_;
        }
        Quiet(const Quiet &) = delete;
        Quiet &operator=(const Quiet &) = delete;
    };
    /* While a Loud lives, a Quiet is without effect on its thread. */
    class Loud {
    public:
        Loud() : before_(std::exchange(threadQuiet_, 0))
        {
        }
        ~Loud()
        {
            threadQuiet_ = before_;
        }
        Loud(const Loud &) = delete;
        Loud &operator=(const Loud &) = delete;

    private:
        const int before_;
    };

private:
    struct Open {
        u64 number;
        std::string line;
        bool printed = false;
    };
    using Stack = std::vector<Open>;

    void open(const Event &event, Stack &stack);
    void close(const Event &event, Stack &stack);
    void print(DeviceTime at, std::size_t depth, const std::string &line);
    void printOpen(DeviceTime at, Stack &stack);

    std::map<unsigned, Stack> stacks_; // by thread
    static thread_local int threadQuiet_;
    std::atomic<int> open_ = 0; // calls in all stacks

    void emit(std::FILE *stream, const std::string &text);
    std::atomic<u64> written_ = 0;
    std::mutex outputMutex_; // guards what follows
    std::FILE *events_ = stdout;
    bool holding_ = false;
    std::vector<std::pair<std::FILE *, std::string>> held_;
};

} // namespace host

#endif
