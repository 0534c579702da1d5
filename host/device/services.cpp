#include "device/services.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "comp_registry.h"
#include "inspect/words.h"

namespace host {

static Services *s_services; // service operations carry no context; there is one component 1000

/* ---- files ---- */

LineFile::~LineFile()
{
    if (descriptor_ >= 0) {
        ::close(descriptor_);
    }
}

void LineFile::open(const std::string &path, bool append)
{
    path_ = path;
    descriptor_ =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (append ? O_APPEND : O_TRUNC), 0644);
    if (descriptor_ < 0) {
        throw std::runtime_error(path + ": " + std::strerror(errno));
    }
}

void LineFile::write(const std::string &line)
{
    std::lock_guard lock(mutex_);
    if (descriptor_ < 0 || !failure_.empty()) {
        return;
    }
    std::string_view rest = line;
    while (!rest.empty()) {
        const ssize_t written = ::write(descriptor_, rest.data(), rest.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            failure_ = path_ + ": " + std::strerror(errno);
            return;
        }
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
}

std::string LineFile::failure() const
{
    std::lock_guard lock(mutex_);
    return failure_;
}

/* ---- operations of the tables ---- */

static TimeRecord timeRecord(DeviceTime now)
{
    using namespace std::chrono;
    const auto start = sys_days{year{2000} / January / 1};
    const auto time = floor<milliseconds>(start + now);
    const auto day = floor<days>(time);
    const year_month_day date{day};
    const hh_mm_ss clock{time - day};
    return {static_cast<u16>(static_cast<int>(date.year())),
            static_cast<u16>(static_cast<unsigned>(date.month())),
            static_cast<u16>(static_cast<unsigned>(date.day())),
            static_cast<u16>(clock.hours().count()),
            static_cast<u16>(clock.minutes().count()),
            static_cast<u16>(clock.seconds().count()),
            static_cast<u16>(clock.subseconds().count()),
            {}};
}

/* A code of the services' own: a handle or argument that is none. */
enum { BAD_ARGUMENT = 22 };

struct Services::Tables {
    static u32 initPartition(u32, const char *)
    {
        return QOR_OK;
    }

    static u32 getPartitionNumber(u32, const char *)
    {
        return s_services->options_.partition;
    }

    static u32 getSysTime(L2ResAlarmTime *now)
    {
        const TimeRecord record = timeRecord(s_services->clock_.now());
        std::memcpy(now, &record, sizeof record);
        return QOR_OK;
    }

    static u32 getSelfSlot()
    {
        return s_services->options_.slot;
    }

    static u32 objCreate(u32, u32 alarmId, L2ResAlarmHandle *object)
    {
        std::lock_guard lock(s_services->mutex_);
        *object = ++s_services->lastHandle_;
        s_services->objects_[*object].id = alarmId;
        return QOR_OK;
    }

    /* Applies `change` to a live object; the operation's result. */
    template <class Change> static u32 withObject(L2ResAlarmHandle handle, Change change)
    {
        std::lock_guard lock(s_services->mutex_);
        const auto object = s_services->objects_.find(handle);
        return object == s_services->objects_.end() ? u32{BAD_ARGUMENT} : change(object->second);
    }

    static u32 setAlarmComAttr(L2ResAlarmHandle handle, L2ResAlarmAttr *attributes)
    {
        return withObject(handle, [&](AlarmObject &object) -> u32 {
            if (attributes == nullptr || attributes->time == nullptr) {
                return BAD_ARGUMENT;
            }
            object.attributes = *attributes;
            object.attributes->time = nullptr; // the caller's; gone when the alarm is sent
            return 0;
        });
    }

    static u32 addPara(L2ResAlarmHandle handle, u32 type, u32 length, const void *value)
    {
        return withObject(handle, [&](AlarmObject &object) -> u32 {
            if (value == nullptr || (type == L2RES_PARA_NUMBER && length != sizeof(u32)) ||
                (type != L2RES_PARA_NUMBER && type != L2RES_PARA_TEXT)) {
                return BAD_ARGUMENT;
            }
            if (type == L2RES_PARA_NUMBER) {
                std::memcpy(&object.numbers.emplace_back(), value, sizeof(u32));
            } else {
                object.texts.emplace_back(static_cast<const char *>(value), length);
            }
            return 0;
        });
    }

    static u32 send(L2ResAlarmHandle handle)
    {
        return s_services->send(handle);
    }

    static u32 objFree(L2ResAlarmHandle handle)
    {
        std::lock_guard lock(s_services->mutex_);
        return s_services->objects_.erase(handle) != 0 ? u32{QOR_OK} : u32{BAD_ARGUMENT};
    }

    static u32 registerLog(const char *, u32 *id)
    {
        std::lock_guard lock(s_services->mutex_);
        *id = ++s_services->logModules_;
        return QOR_OK;
    }

    static void printLog(u32, u32 level, const char *text)
    {
        s_services->printLog(level, text);
    }

    static u32 registerBlackBox(const char *, const char *, u32 *id)
    {
        std::lock_guard lock(s_services->mutex_);
        *id = ++s_services->blackBoxModules_;
        return QOR_OK;
    }

    static void printBlackBox(u32, u32 level, const char *text)
    {
        s_services->printBlackBox(level, text);
    }

    static u32 queryInterface(void *factory, u32 interfaceId, void **out);
    static u32 createInstance(void *factory, u32 interfaceId, void **out);
};

/* ---- component 1000 ---- */

/* An interface object: its only field is its table. */
struct ServiceObject {
    const void *table;
};

u32 Services::Tables::queryInterface(void *factory, u32 interfaceId, void **out)
{
    if (factory == nullptr || (interfaceId != QOR_IID_BASE && interfaceId != QOR_IID_FACTORY)) {
        return QOR_E_NO_INTERFACE;
    }
    *out = factory;
    return QOR_OK;
}

u32 Services::Tables::createInstance(void *, u32 interfaceId, void **out)
{
    static const L2ResOrchmVtbl orchestration = {{}, getSelfSlot};
    static const L2ResMemmVtbl memory = {{}, initPartition, getPartitionNumber};
    static const L2ResDbgLogVtbl debugLog = {{}, registerLog, {}, Tables::printLog};
    static const L2ResLogVtbl log = {{},      objCreate,    setAlarmComAttr, {},
                                     addPara, Tables::send, objFree};
    static const L2ResTimeVtbl time = {{}, getSysTime};
    static const L2ResBlackBoxVtbl blackBox = {{}, registerBlackBox, Tables::printBlackBox};
    static const struct {
        u32 interfaceId;
        ServiceObject object;
    } objects[] = {
        {L2RES_IID_ORCHESTRATION, {&orchestration}},
        {L2RES_IID_MEMORY_MANAGER, {&memory}},
        {L2RES_IID_DEBUG_LOG, {&debugLog}},
        {L2RES_IID_LOG, {&log}},
        {L2RES_IID_TIME, {&time}},
        {L2RES_IID_BLACK_BOX, {&blackBox}},
    };
    for (const auto &row : objects) {
        if (row.interfaceId == interfaceId) {
            *out = const_cast<ServiceObject *>(&row.object);
            return QOR_OK;
        }
    }
    *out = nullptr;
    return QOR_FAIL;
}

Services::Services(const Clock &clock, OnChange onChange)
    : clock_(clock), onChange_(std::move(onChange))
{
    s_services = this;
}

void Services::start(const ServiceOptions &options)
{
    options_ = options;
    if (!options_.debugLog.empty()) {
        debugLog_.open(options_.debugLog, false);
    }
    if (!options_.blackBox.empty()) {
        blackBox_.open(options_.blackBox, true);
    }
    static const QorFactoryVtbl factoryTable = {Tables::queryInterface, Tables::createInstance};
    static QorFactory factory = {&factoryTable};
    static const QorComponentInfo component = {L2RES_SERVICE_COMPONENT, "HOST_SERVICES", "HOST", 1,
                                               &factory};
    if (COMP_RegisterComponentInfo(&component) != QOR_OK) {
        throw std::runtime_error("the component registry refused component 1000");
    }
}

/* ---- alarms ---- */

u32 Services::send(L2ResAlarmHandle handle)
{
    AlarmObject object;
    {
        std::lock_guard lock(mutex_);
        const auto node = objects_.extract(handle); // sent or not, the object is ours now
        if (node.empty()) {
            return BAD_ARGUMENT;
        }
        object = std::move(node.mapped());
    }
    // What the module sends of a table: slot and description, threshold and table code.
    const bool complete =
        object.attributes && object.texts.size() == 2 && object.numbers.size() == 2;
    if (complete) {
        changeAlarm(object);
    }
    return complete ? u32{QOR_OK} : u32{BAD_ARGUMENT};
}

static void noteChange(Alarm &alarm, bool raise, u32 threshold, DeviceTime now)
{
    const bool again = raise && alarm.on;
    ++(again ? alarm.resends : raise ? alarm.raises : alarm.clears);
    alarm.changes.push_back({now, again ? "re-sent" : raise ? "raised" : "cleared", threshold});
    if (alarm.changes.size() > Alarm::CHANGES_KEPT) {
        alarm.changes.pop_front();
    }
}

void Services::changeAlarm(const AlarmObject &object)
{
    const bool raise = object.attributes->alarmKind == L2RES_ALARM_RAISE;
    const u32 code = object.attributes->tableAlarmCode;
    std::string what = std::string(alarmTableName(code)) + (raise ? " raised" : " cleared");
    // Held until it is written: who sees the change may print, or end the scenario, at once.
    std::lock_guard lock(mutex_);
    Alarm &alarm = alarms_[code];
    what += raise && alarm.on ? " again" : "";
    alarm.raised = raise ? (alarm.on ? alarm.raised + 1 : 1) : alarm.raised;
    if (alarm.on != raise) {
        alarm.since = clock_.now();
    }
    noteChange(alarm, raise, object.numbers[0], clock_.now());
    alarm.on = raise;
    alarm.code = code;
    alarm.threshold = object.numbers[0];
    alarm.slot = object.texts[0];
    alarm.text = object.texts[1];
    ++alarmChanges_;
    what += ": " + object.texts[0];
    onChange_(what, alarm);
}

std::vector<Alarm> Services::alarms() const
{
    std::lock_guard lock(mutex_);
    std::vector<Alarm> all;
    for (const auto &[code, alarm] : alarms_) {
        all.push_back(alarm);
    }
    return all;
}

u64 Services::alarmChanges() const
{
    std::lock_guard lock(mutex_);
    return alarmChanges_;
}

/* ---- logs ---- */

static std::string logLine(DeviceTime now, const char *level, const char *text)
{
    return "[" + formatTime(now) + "] " + level + " " + text + "\n";
}

void Services::printLog(u32 level, const char *text)
{
    if (level <= options_.debugLevel) {
        debugLog_.write(logLine(clock_.now(), debugLevelName(level), text));
    }
}

void Services::printBlackBox(u32 level, const char *text)
{
    blackBox_.write(logLine(clock_.now(), blackBoxLevelName(level), text));
}

std::string Services::failure() const
{
    const std::string failure = blackBox_.failure();
    return failure.empty() ? debugLog_.failure() : failure;
}

} // namespace host
