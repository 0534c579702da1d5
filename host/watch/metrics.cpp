#include "watch/metrics.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "device/module.h"
#include "device/services.h"
#include "inspect/words.h"
#include "qor_epoll.h"
#include "watch/leftovers.h"
#include "zir_memory.h"

namespace host {

constexpr std::chrono::seconds writePeriod{2}; // of real time

/* What the module logs when a timer's message finds no room. */
static const struct {
    std::string_view line;
    const char *timer;
} s_droppedTicks[] = {{"QorL2ResTimerOut Write Queue Fail.", "walk"},
                      {"L2Res Icib probe msg EnQue Fail.", "probe"}};

Metrics::Metrics(const Module &module, const Services &services)
    : module_(module), services_(services)
{
    for (const char *level : {"error", "warning", "info"}) {
        lines_.values[{{"log", "debuglog"}, {"level", level}}] = 0;
    }
    for (const char *level : {"error", "event"}) {
        lines_.values[{{"log", "blackbox"}, {"level", level}}] = 0;
    }
    for (const auto &row : s_droppedTicks) {
        dropped_.values[{{"timer", row.timer}}] = 0;
    }
}

/* ---- counting ---- */

static std::string labelOf(const Event &event, std::string_view name)
{
    for (const Field &field : event.fields) {
        if (field.name == name) {
            const u64 *number = std::get_if<u64>(&field.value);
            return number != nullptr ? std::to_string(*number)
                                     : std::string(std::get<std::string_view>(field.value));
        }
    }
    return "";
}

/* A script may try any number: those that are none share a series. */
static std::string serviceOf(const Event &event)
{
    const std::string service = labelOf(event, "service");
    return service.size() == 1 && service[0] < '0' + char{L2RES_SERVICE_COUNT} ? service : "other";
}

/* "icib" of "icib.add"; "" for what is no request for a token. */
static std::string tokenTable(std::string_view call)
{
    for (const std::string_view table : {"icib", "ipat"}) {
        for (const std::string_view op : {".add", ".update", ".delete"}) {
            if (call == std::string(table).append(op)) {
                return std::string(table);
            }
        }
    }
    return "";
}

static const char *outcome(u32 result)
{
    return result == L2RES_TOKEN_PROCEED   ? "granted"
           : result == L2RES_TOKEN_REFUSED ? "refused"
                                           : "waiting";
}

void Metrics::on(const Event &event)
{
    std::lock_guard lock(mutex_);
    if (event.kind == Kind::result) {
        onResult(event);
    } else if (event.kind == Kind::notify) {
        open_[event.number] = {true,
                               {{"table", labelOf(event, "table")},
                                {"service", serviceOf(event)},
                                {"event", labelOf(event, "event")}}};
    } else if (event.kind == Kind::log) {
        ++lines_.values[{{"log", std::string(event.name)}, {"level", labelOf(event, "level")}}];
        for (const auto &row : s_droppedTicks) {
            // The black box has every error a second time.
            if (event.name == "debuglog" && labelOf(event, "text") == row.line) {
                ++dropped_.values[{{"timer", row.timer}}];
            }
        }
    } else if (const std::string table = tokenTable(event.name); !table.empty()) {
        open_[event.number] = {false, {{"table", table}, {"service", serviceOf(event)}}};
    }
}

void Metrics::onResult(const Event &event)
{
    if (event.name == "vlan.assign" || event.name == "vlan.release") {
        countVlan(); // here nobody changes the tables: callers take turns
        return;
    }
    const auto call = open_.extract(event.number);
    if (call.empty()) {
        return;
    }
    Labels labels = std::move(call.mapped().labels);
    if (call.mapped().notification) {
        ++notifications_.values[labels];
        failures_.values[labels] += event.code != 0;
        return;
    }
    labels.emplace_back("result", outcome(event.code));
    ++tokens_.values[labels];
}

void Metrics::countVlan()
{
    for (const u32 direction : {L2RES_VLAN_INGRESS, L2RES_VLAN_EGRESS}) {
        const VlanTables tables = vlanTables(module_, direction);
        const auto set = [&](const char *kind, auto count) {
            vlan_.values[{{"kind", kind},
                          {"direction", direction == L2RES_VLAN_EGRESS ? "egress" : "ingress"}}] =
                static_cast<u64>(count);
        };
        set("profile", std::count_if(tables.profiles, tables.profiles + L2RES_VLAN_PROFILE_COUNT,
                                     [](u32 owner) { return owner != 0; }));
        set("command", std::count_if(tables.commands, tables.commands + L2RES_VLAN_COMMAND_COUNT,
                                     [](const auto &entry) { return entry.outerTag != 0; }));
        set("mapping",
            std::count_if(tables.mappings + 1, tables.mappings + L2RES_VLAN_MAPPING_COUNT,
                          [](const VlanEditMapping &entry) {
                              return entry.tagFormat != 0 || entry.profileId != 0;
                          }));
    }
}

/* Counted so far, and what a look around now tells; none of the others' locks is taken in ours. */
std::string Metrics::current()
{
    std::map<u32, Alarm> alarms;
    for (const Alarm &alarm : services_.alarms()) {
        alarms[alarm.code] = alarm;
    }
    ZIR_PartitionStat partition{};
    ZIR_PartitionGetStat(services_.partition(), &partition);
    auto &queue = *static_cast<QorQueueHandle *>(module_.symbol("g_qorl2resQueue"));
    const u32 queued = QorEpollQueGetMsgNum(std::atomic_ref(queue).load(std::memory_order_acquire));

    std::lock_guard lock(mutex_);
    for (const EngineTable &table : engineTables) {
        const Alarm &alarm = alarms[table.alarmCode];
        alarms_.values[{{"table", table.name}}] = alarm.on;
        alarmChanges_.values[{{"table", table.name}, {"change", "raised"}}] = alarm.raises;
        alarmChanges_.values[{{"table", table.name}, {"change", "resent"}}] = alarm.resends;
        alarmChanges_.values[{{"table", table.name}, {"change", "cleared"}}] = alarm.clears;
    }
    const Labels number = {{"partition", std::to_string(services_.partition())}};
    blocks_.values[number] = partition.liveBlocks;
    bytes_.values[number] = partition.liveBytes;
    queued_.values[Labels{}] = queued;
    return text();
}

/* ---- the file ---- */

/* `text` between the quotes of a label value. */
static std::string labelValue(std::string_view text)
{
    std::string out;
    for (const char c : text) {
        if (c == '\\' || c == '"') {
            out += '\\';
        }
        out += c == '\n' ? "\\n" : std::string(1, c);
    }
    return out;
}

std::string Metrics::text() const
{
    std::string out;
    for (const Family *family :
         {&run_, &tokens_, &notifications_, &failures_, &alarms_, &alarmChanges_, &vlan_, &blocks_,
          &bytes_, &queued_, &lines_, &dropped_}) {
        const std::string name = family->name;
        out += "# HELP " + name + " " + family->help + "\n";
        out += "# TYPE " + name + " " + family->type + "\n";
        for (const auto &[labels, value] : family->values) {
            std::string list;
            for (const auto &[label, text] : labels) {
                list += (list.empty() ? "{" : ",") + std::string(label) + "=\"" + labelValue(text) +
                        "\"";
            }
            out += name + list + (list.empty() ? " " : "} ") + std::to_string(value) + "\n";
        }
    }
    return out;
}

/* Throws. The mutex is free: a slow disk must not hold up the journal. */
void Metrics::write()
{
    const std::string content = current();
    const std::string temporary = path_ + ".tmp";
    errno = 0;
    std::ofstream file(temporary, std::ios::trunc);
    file << content;
    file.close();
    if (!file) {
        throw std::runtime_error(temporary + ": " + std::strerror(errno));
    }
    if (std::rename(temporary.c_str(), path_.c_str()) != 0) {
        throw std::runtime_error(path_ + ": " + std::strerror(errno));
    }
}

void Metrics::start(const std::string &path, const std::string &script, const std::string &library)
{
    // A device would be replaced by a file.
    if (std::filesystem::exists(path) && !std::filesystem::is_regular_file(path)) {
        throw std::runtime_error(path + ": not a regular file");
    }
    path_ = path;
    {
        std::lock_guard lock(mutex_);
        run_.values[{{"script", script}, {"module", library}}] = 1;
        countVlan(); // before there are callers
    }
    write();
    writer_ = std::thread([this] { keepWriting(); });
}

void Metrics::keepWriting()
{
    for (bool last = false; !last;) {
        {
            std::unique_lock lock(mutex_);
            last = ended_.wait_for(lock, writePeriod, [this] { return stop_; });
        }
        std::string failure;
        try {
            write();
        } catch (const std::exception &error) {
            failure = error.what();
        }
        std::lock_guard lock(mutex_);
        failure_ = failure;
    }
}

void Metrics::finish()
{
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
        ended_.notify_one();
    }
    if (writer_.joinable()) {
        writer_.join();
    }
}

std::string Metrics::failure() const
{
    std::lock_guard lock(mutex_);
    return failure_;
}

} // namespace host
