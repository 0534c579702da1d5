/*
 * A file of metrics in Prometheus' text format, for as long as the host runs.
 *
 * Requests, notifications and log lines are counted from the journal; alarms, memory and the queue
 * are looked at when the file is written. It is written whole to FILE.tmp and renamed, every two
 * seconds of real time and at the end: a reader sees one state or the next.
 */
#ifndef HOST_METRICS_H
#define HOST_METRICS_H

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "journal.h"

namespace host {

class Module;
class Services;

class Metrics : public Sink {
public:
    Metrics(const Module &module, const Services &services);

    /* Writes the file for the first time; throws when it cannot. After the module's start. */
    void start(const std::string &path, const std::string &script, const std::string &library);

    /* The last time. */
    void finish();

    /* What went wrong with the file, "" for nothing. */
    std::string failure() const;

    void on(const Event &event) override;

private:
    using Labels = std::vector<std::pair<const char *, std::string>>;
    struct Family {
        const char *name, *type, *help;
        std::map<Labels, u64> values{};
    };
    struct Open { // a call or notification until its result comes
        bool notification;
        Labels labels;
    };

    void onResult(const Event &event);
    void countVlan();
    std::string current();
    std::string text() const;
    void write();
    void keepWriting();

    const Module &module_;
    const Services &services_;
    std::string path_;
    mutable std::mutex mutex_; // guards what follows
    std::condition_variable ended_;
    bool stop_ = false;
    std::string failure_;
    std::map<u64, Open> open_; // by number
    Family run_, tokens_, notifications_, failures_, alarms_, alarmChanges_, vlan_, blocks_, bytes_,
        queued_, lines_, dropped_;
    std::thread writer_;
};

} // namespace host

#endif
