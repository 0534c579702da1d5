/*
 * Writes everything that passes the crossing to a file (docs/recording.md).
 *
 * The order in the file is the order of execution: calls into the module are made one at a time,
 * each with everything that happens inside it, the worker's messages and the timers' ticks among
 * them. Threads pass in the order they came. A callback must therefore not wait for another thread
 * that calls the module; one that does for a minute ends the program.
 *
 * Each line is written at once: whatever ends the program, all lines but the last are whole.
 */
#ifndef HOST_RECORDER_H
#define HOST_RECORDER_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "crossing/crossing.h"
#include "device/services.h"
#include "inspect/record_json.h"

namespace host {

inline constexpr const char *recordFormat = "l2rsm-record";
inline constexpr u32 recordVersion = 1;

class Recorder : public crossing::Listener {
public:
    explicit Recorder(const Clock &clock) : clock_(clock)
    {
    }

    /* Writes the header and starts recording. Before the module is loaded. Throws. */
    void start(const std::string &path, const Value &options);

    /* Waits for the call that is going on and writes the last line; nothing is recorded after. */
    void finish();

    /* What went wrong with the file, "" for nothing. */
    std::string failure() const
    {
        return file_.failure();
    }

    void pass(crossing::Passage &passage, const crossing::Next &next) override;

private:
    /* One thread at a time, as often as it likes; the others in the order they came. */
    class Gate {
    public:
        void enter();
        void leave();

    private:
        std::mutex mutex_;
        std::condition_variable changed_;
        std::thread::id owner_;
        u32 depth_ = 0;
        u64 nextTicket_ = 0, serving_ = 0;
    };

    void recordIn(crossing::Passage &passage, const crossing::Next &next);
    void recordOut(crossing::Passage &passage, const crossing::Next &next);
    u64 write(const char *kind, const Value &what, const Value &fields);

    const Clock &clock_;
    LineFile file_;
    Gate gate_;
    std::mutex mutex_; // guards what follows
    bool stopped_ = true;
    u64 lastNumber_ = 0, inputs_ = 0, outputs_ = 0;
};

} // namespace host

#endif
