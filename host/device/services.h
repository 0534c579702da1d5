/*
 * Component 1000: the six services that the module expects from the rest of the device.
 *
 *   memory manager  gives the module its partition;
 *   time            fills time records from the device's clock;
 *   log             collects alarm objects and keeps which alarms are on;
 *   orchestration   says which slot the board is in;
 *   debug log       writes lines to a file, those at or above a level;
 *   black box       appends events and errors to a file, each on its own, never buffered.
 *
 * Threads: the module calls the services from any thread.
 */
#ifndef HOST_SERVICES_H
#define HOST_SERVICES_H

#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "device/clock.h"
#include "inspect/words.h"
#include "l2rsm_services.h"

namespace host {

using namespace inspect;

/* The time service's record. Year 2000 is when the device was started. */
struct TimeRecord {
    u16 year, month, day;
    u16 hour, minute, second, millisecond;
    u16 reserved[3];
};
static_assert(sizeof(TimeRecord) == sizeof(L2ResAlarmTime));

/* A file of lines. The first failure is kept; what was written before stays written. */
class LineFile {
public:
    ~LineFile();
    void open(const std::string &path, bool append); // throws when it cannot
    void write(const std::string &line);
    std::string failure() const; // "" or "FILE: reason"

private:
    mutable std::mutex mutex_;
    std::string path_;
    int descriptor_ = -1;
    std::string failure_;
};

struct Alarm {
    u32 code = 0; // tells the tables apart
    u32 threshold = 0;
    std::string slot; // as the module sent it: "slot 3"
    std::string text;
    bool on = false;
    u32 raised = 0; // how often a raise came since the alarm was last off
    DeviceTime since{};

    struct Change {
        DeviceTime at;
        const char *what; // "raised", "re-sent", "cleared"
        u32 threshold;
    };
    enum { CHANGES_KEPT = 32 };
    u64 raises = 0, resends = 0, clears = 0; // since the start
    std::deque<Change> changes{};            // the last ones, oldest first
};

struct ServiceOptions {
    u32 slot = 1;
    u8 partition = 7;
    u32 debugLevel = 4;             // 2 error, 3 warning, 4 information
    std::string debugLog, blackBox; // file names, "" for none
};

class Services {
public:
    /* Told of each change, before anybody else can see it: with the services' mutex held. */
    using OnChange = std::function<void(std::string_view what, const Alarm &alarm)>;

    Services(const Clock &clock, OnChange onChange);

    /* Opens the files and registers component 1000. Throws when a file or the registry fails. */
    void start(const ServiceOptions &options);

    u8 partition() const
    {
        return options_.partition;
    }
    std::vector<Alarm> alarms() const; // every alarm that was ever on, by code
    u64 alarmChanges() const;          // raises and clears so far
    /* What went wrong with the log files, "" for nothing. */
    std::string failure() const;

private:
    struct AlarmObject {
        u32 id = 0;
        std::optional<L2ResAlarmAttr> attributes;
        std::vector<u32> numbers;
        std::vector<std::string> texts;
    };
    struct Tables; // the functions behind the six tables

    u32 send(L2ResAlarmHandle handle);
    void changeAlarm(const AlarmObject &object);
    void printLog(u32 level, const char *text);
    void printBlackBox(u32 level, const char *text);

    const Clock &clock_;
    const OnChange onChange_;
    ServiceOptions options_;
    LineFile debugLog_, blackBox_;
    mutable std::mutex mutex_; // guards what follows
    L2ResAlarmHandle lastHandle_ = 0;
    std::map<L2ResAlarmHandle, AlarmObject> objects_;
    std::map<u32, Alarm> alarms_;
    u32 logModules_ = 0, blackBoxModules_ = 0; // registered
    u64 alarmChanges_ = 0;
};

} // namespace host

#endif
