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

#include "watch/journal.h"

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

    /* What went wrong when the file was last written, "" for nothing. */
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
    Family run_{"l2rsm_run_info", "gauge", "1, with what is running."};
    Family tokens_{"l2rsm_token_requests_total", "counter",
                   "Requests for tokens by what the service was told."};
    Family notifications_{"l2rsm_notifications_total", "counter", "Callbacks of services."};
    Family failures_{"l2rsm_notification_failures_total", "counter",
                     "Callbacks that returned anything but 0."};
    Family alarms_{"l2rsm_alarm_on", "gauge", "1 while the table's alarm is on."};
    Family alarmChanges_{"l2rsm_alarm_changes_total", "counter",
                         "Alarms raised, sent again while on, and cleared."};
    Family vlan_{"l2rsm_vlan_ids", "gauge", "VLAN edit ids in use."};
    Family blocks_{"l2rsm_partition_blocks", "gauge", "Live blocks of the module's partition."};
    Family bytes_{"l2rsm_partition_bytes", "gauge", "Live bytes of the module's partition."};
    Family queued_{"l2rsm_queue_messages", "gauge", "Messages waiting for the worker."};
    Family lines_{"l2rsm_log_lines_total", "counter", "Lines written by the module."};
    Family dropped_{"l2rsm_ticks_dropped_total", "counter",
                    "Ticks that found no room in the queue."};
    std::thread writer_;
};

} // namespace host

#endif
