/* show: the module's state, the engine and the services, as tables or JSON. */
#include "inspect/records.h"
#include "script/host.h"
#include "script/lua_api.h"
#include "script/notifications.h"
#include "script/show_output.h"
#include "watch/leftovers.h"

namespace host {

static double secondsSince(const Call &call, DeviceTime at)
{
    return static_cast<double>((call.host.clock.now() - at).count()) / 1e6;
}

/* ---- entries and waiting requests ---- */

static const char *tableOf(const EntryState &entry)
{
    return entry.table == TokenTable::icib ? "icib" : "ipat";
}

static Object keyObject(const EntryKey &key)
{
    Object object = Object::object();
    const auto fields = std::visit([](const auto &one) { return keyFields(one); }, key);
    for (const Field &field : fields) {
        object[std::string(field.name)] = std::get<u64>(field.value);
    }
    return object;
}

static Object requestObject(u64 fwd, u32 op, u64 stamp)
{
    return {{"service", nullptr}, {"fwd", fwd},       {"op", opName(op)},
            {"stamp", stamp},     {"state", nullptr}, {"age", nullptr}};
}

static Object holderObject(const Call &call, const EntryState &entry)
{
    if (!entry.holder) {
        return nullptr;
    }
    const L2ResOpRecord &record = *entry.holder;
    Object object = requestObject(record.SrvType, record.Op, record.Stamp);
    const bool inUse = entry.table == TokenTable::ipat || record.Used != 0;
    object["state"] = inUse ? "in progress" : "released";
    if (const auto since = call.host.ledger.holderSince(entry.table, entry.key, record)) {
        object["service"] = since->service;
        object["age"] = secondsSince(call, since->at);
    }
    return object;
}

static Object waiterObject(const Call &call, const EntryState &entry, const L2ResWaiter &waiter)
{
    Object object = requestObject(waiter.op.SrvType, waiter.op.Op, waiter.op.Stamp);
    object["service"] = waiter.srvType;
    object["state"] = wasNotified(waiter) ? "notified" : "waiting";
    if (const auto since = call.host.ledger.waiterSince(entry, waiter)) {
        object["age"] = secondsSince(call, *since);
    }
    return object;
}

/* What the script asked for, "" for everything. */
static bool isWanted(const Call &call, const EntryState &entry)
{
    return !call.args.has("table") ||
           call.args.integer<u32>("table") == (entry.table == TokenTable::icib ? 0U : 3U);
}

static Object readerRow(const EntryState &entry, const char *role, const Object &request)
{
    Object row = {{"table", tableOf(entry)}, {"key", keyText(entry.key)}, {"role", role}};
    row.update(request);
    return row;
}

static const std::vector<Column> s_entryColumns = {
    {"TABLE", "table"},     {"KEY", "key"},     {"ROLE", "role"},
    {"SERVICE", "service"}, {"TYPE", "fwd"},    {"OP", "op"},
    {"STAMP", "stamp"},     {"STATE", "state"}, {"AGE", "age"}};

static int showEntries(Call &call)
{
    Shown shown{"entries"};
    std::vector<Object> lines;
    for (const EntryState &entry : call.host.inspector.entries()) {
        if (!isWanted(call, entry)) {
            continue;
        }
        const Object holder = holderObject(call, entry);
        if (!holder.is_null()) {
            lines.push_back(readerRow(entry, "holder", holder));
        }
        Object waiters = Object::array();
        for (const L2ResWaiter &waiter : entry.waiters) {
            waiters.push_back(waiterObject(call, entry, waiter));
            lines.push_back(readerRow(entry, "waiter", waiters.back()));
        }
        shown.rows.push_back({{"table", tableOf(entry)},
                              {"key", keyObject(entry.key)},
                              {"holder", holder},
                              {"waiters", waiters}});
    }
    shown.text = lines.empty() ? "" : alignedTable(s_entryColumns, lines);
    return answer(call, shown);
}

static int showWaiters(Call &call)
{
    Shown shown{"waiters"};
    std::vector<Object> lines;
    for (const EntryState &entry : call.host.inspector.entries()) {
        u32 position = 0;
        for (const L2ResWaiter &waiter : entry.waiters) {
            if (!isWanted(call, entry)) {
                continue;
            }
            const bool timed = entry.table == TokenTable::icib && entry.walksLeft >= 0;
            const Object request = waiterObject(call, entry, waiter);
            Object row = {
                {"table", tableOf(entry)}, {"key", keyObject(entry.key)}, {"position", ++position}};
            row.update(request);
            row["ticks_left"] = timed ? Object(static_cast<u64>(entry.walksLeft)) : Object(nullptr);
            lines.push_back(row);
            lines.back()["key"] = keyText(entry.key);
            shown.rows.push_back(std::move(row));
        }
    }
    if (!lines.empty()) {
        shown.text = alignedTable({{"TABLE", "table"},
                                   {"KEY", "key"},
                                   {"#", "position"},
                                   {"SERVICE", "service"},
                                   {"TYPE", "fwd"},
                                   {"OP", "op"},
                                   {"STAMP", "stamp"},
                                   {"STATE", "state"},
                                   {"AGE", "age"},
                                   {"TICKS LEFT", "ticks_left"}},
                                  lines);
    }
    return answer(call, shown);
}

/* ---- alarms ---- */

static std::vector<Object> changeRows(const Alarm &alarm)
{
    std::vector<Object> rows;
    for (const Alarm::Change &change : alarm.changes) {
        rows.push_back({{"at", static_cast<double>(change.at.count()) / 1e6},
                        {"change", change.what},
                        {"threshold", change.threshold}});
    }
    return rows;
}

static Object alarmRow(const Call &call, const EngineTable &table, const Alarm &alarm)
{
    const Counts counts = call.host.engine.get(table.type);
    const bool everOn = alarm.raises != 0;
    return {{"table", table.name},
            {"state", alarm.on ? "on" : "off"},
            {"slot", everOn ? Object(alarm.slot) : Object(nullptr)},
            {"threshold", everOn ? Object(alarm.threshold) : Object(nullptr)},
            {"used", counts.used},
            {"total", counts.total},
            {"raised", alarm.raises},
            {"resent", alarm.resends},
            {"cleared", alarm.clears},
            {"time_in_state", secondsSince(call, alarm.since)}};
}

static int showAlarms(Call &call)
{
    const std::vector<Alarm> alarms = call.host.services.alarms();
    Shown shown{"alarms"};
    std::string changesText;
    for (const EngineTable &table : engineTables) {
        if (call.args.has("table") && call.args.integer<u32>("table") != table.type) {
            continue;
        }
        // A table whose alarm never came is off since the start.
        const auto known = std::ranges::find(alarms, table.alarmCode, &Alarm::code);
        const Alarm alarm =
            known == alarms.end() ? Alarm{.code = table.alarmCode, .slot = "", .text = ""} : *known;
        Object row = alarmRow(call, table, alarm);
        if (call.args.boolean("changes")) {
            const std::vector<Object> changes = changeRows(alarm);
            row["changes"] = changes;
            if (!changes.empty()) {
                changesText +=
                    std::string("changes of ") + table.name + "\n" +
                    alignedTable({{"  AT", "at"}, {"CHANGE", "change"}, {"THRESHOLD", "threshold"}},
                                 changes);
            }
        }
        shown.rows.push_back(std::move(row));
    }
    shown.text = alignedTable({{"TABLE", "table"},
                               {"STATE", "state"},
                               {"SLOT", "slot"},
                               {"THRESHOLD", "threshold"},
                               {"USED", "used"},
                               {"TOTAL", "total"},
                               {"RAISED", "raised"},
                               {"RE-SENT", "resent"},
                               {"CLEARED", "cleared"},
                               {"IN STATE", "time_in_state"}},
                              shown.rows) +
                 changesText;
    return answer(call, shown);
}

/* ---- VLAN edits, engine ---- */

static Object commandRow(const char *direction, u32 id, const VlanEditCommand &command)
{
    Object row = {{"direction", direction}, {"kind", "command"}, {"id", id}};
    for (const Field &field : wordFields(command)) {
        row[std::string(field.name)] = std::get<u64>(field.value);
    }
    return row;
}

static const std::vector<Column> s_commandColumns = {{"DIRECTION", "direction"},
                                                     {"KIND", "kind"},
                                                     {"ID", "id"},
                                                     {"OUTER TAG", "outer_tag"},
                                                     {"INNER TAG", "inner_tag"},
                                                     {"OUTER PRI", "outer_pri"},
                                                     {"INNER PRI", "inner_pri"},
                                                     {"OUTER TPID", "outer_tpid"},
                                                     {"INNER TPID", "inner_tpid"},
                                                     {"OUTER TPID ACTION", "outer_tpid_action"},
                                                     {"INNER TPID ACTION", "inner_tpid_action"}};

static int showVlan(Call &call)
{
    std::vector<Object> profiles, commands, mappings;
    for (u32 direction : {L2RES_VLAN_INGRESS, L2RES_VLAN_EGRESS}) {
        const char *name = direction == L2RES_VLAN_EGRESS ? "egress" : "ingress";
        const VlanTables tables = vlanTables(call.host.module, direction);
        for (u32 id = 0; id < L2RES_VLAN_PROFILE_COUNT; ++id) {
            if (tables.profiles[id] != 0) {
                profiles.push_back({{"direction", name},
                                    {"kind", "profile"},
                                    {"id", id},
                                    {"service", tables.profiles[id]}});
            }
        }
        for (u32 id = 0; id < L2RES_VLAN_COMMAND_COUNT; ++id) {
            if (tables.commands[id].outerTag != 0) {
                commands.push_back(commandRow(name, id, tables.commands[id]));
            }
        }
        for (u32 id = 0; id < L2RES_VLAN_MAPPING_COUNT; ++id) {
            const auto [profile, format, command] = tables.mappings[id];
            if (profile != 0 || format != 0) {
                mappings.push_back({{"direction", name},
                                    {"kind", "mapping"},
                                    {"id", id},
                                    {"profile", profile},
                                    {"format", format},
                                    {"command", command}});
            }
        }
    }
    Shown shown{"vlan"};
    const Column direction = {"DIRECTION", "direction"}, kind = {"KIND", "kind"}, id = {"ID", "id"};
    shown.section({direction, kind, id, {"SERVICE", "service"}}, profiles);
    shown.section(s_commandColumns, commands);
    shown.section(
        {direction, kind, id, {"PROFILE", "profile"}, {"FORMAT", "format"}, {"COMMAND", "command"}},
        mappings);
    return answer(call, shown);
}

static int showEngine(Call &call)
{
    std::vector<Object> counts, commands, mappings;
    for (const EngineTable &table : engineTables) {
        const Counts now = call.host.engine.get(table.type);
        counts.push_back({{"kind", "table"},
                          {"table", table.name},
                          {"total", now.total},
                          {"used", now.used},
                          {"idle", now.idle},
                          {"result", now.result}});
    }
    for (u32 direction : {L2RES_VLAN_INGRESS, L2RES_VLAN_EGRESS}) {
        const char *name = direction == L2RES_VLAN_EGRESS ? "egress" : "ingress";
        for (const auto &[id, command] : call.host.vlanEngine.commands(direction)) {
            commands.push_back(commandRow(name, id, command));
        }
        for (const VlanEngine::Mapping &mapping : call.host.vlanEngine.mappings(direction)) {
            mappings.push_back({{"direction", name},
                                {"kind", "mapping"},
                                {"profile", mapping.profileId},
                                {"format", mapping.tagFormat},
                                {"command", mapping.commandId},
                                {"overflow", mapping.overflow}});
        }
    }
    Shown shown{"engine"};
    shown.section({{"TABLE", "table"},
                   {"TOTAL", "total"},
                   {"USED", "used"},
                   {"IDLE", "idle"},
                   {"RESULT", "result"}},
                  counts);
    shown.section(s_commandColumns, commands);
    shown.section({{"DIRECTION", "direction"},
                   {"KIND", "kind"},
                   {"PROFILE", "profile"},
                   {"FORMAT", "format"},
                   {"COMMAND", "command"},
                   {"OVERFLOW", "overflow"}},
                  mappings);
    return answer(call, shown);
}

/* ---- services ---- */

template <class Type> static Type *moduleFunction(const Call &call, const char *name)
{
    return reinterpret_cast<Type *>(call.host.module.symbol(name));
}

static std::vector<Object> registrations(const Call &call)
{
    const auto isRegistered =
        moduleFunction<decltype(QOR_L2RES_IsRegister)>(call, "QOR_L2RES_IsRegister");
    const auto callbackOf =
        moduleFunction<decltype(QOR_L2RES_GetRegFunc)>(call, "QOR_L2RES_GetRegFunc");
    std::vector<Object> rows;
    for (u32 table = 0; table < L2RES_TABLE_COUNT; ++table) {
        for (u32 service = 0; service < L2RES_SERVICE_COUNT; ++service) {
            if (isRegistered(table, service) == 0) {
                continue;
            }
            rows.push_back(
                {{"kind", "registration"},
                 {"table", tableName(table)},
                 {"service", service},
                 {"callback", Notifications::ownerOf(callbackOf(table, service), table, service)}});
        }
    }
    return rows;
}

static std::vector<Object> hooks(const Call &call)
{
    const auto hookOf = moduleFunction<decltype(QorL2ResGetHook)>(call, "QorL2ResGetHook");
    std::vector<Object> rows;
    for (u32 type = 0; type < L2RES_HOOK_COUNT; ++type) {
        const bool vlan = type == L2RES_HOOK_VLAN_TRANSLATION;
        rows.push_back({{"kind", "hook"},
                        {"hook", type},
                        {"name", vlan ? "vlan_translation" : engineTableName(type)},
                        {"lent", hookOf(type) != nullptr}});
    }
    return rows;
}

/* The services of component 1000 and whether the module has found their tables. */
static std::vector<Object> platformServices(const Call &call)
{
    const auto table = [&](const char *name, std::size_t index) {
        return static_cast<void *const *>(call.host.module.symbol(name))[index] != nullptr;
    };
    static const struct {
        u32 interfaceId;
        const char *name, *symbol;
        std::size_t index;
    } services[] = {
        {L2RES_IID_ORCHESTRATION, "orchestration", "g_qorL2ResOrchmFunVtbl", 0},
        {L2RES_IID_MEMORY_MANAGER, "memory manager", "g_qorL2ResMemmFunVtbl", 0},
        {L2RES_IID_DEBUG_LOG, "debug log", "g_qorL2resFuncVtbl", 0},
        {L2RES_IID_LOG, "log", "g_qorL2ResLogFunVtbl", 0},
        {L2RES_IID_TIME, "time", "g_qorL2ResTimeFunVtbl", 0},
        {L2RES_IID_BLACK_BOX, "black box", "g_qorL2resFuncVtbl", 1},
    };
    std::vector<Object> rows;
    for (const auto &service : services) {
        rows.push_back({{"kind", "service"},
                        {"interface", service.interfaceId},
                        {"name", service.name},
                        {"found", table(service.symbol, service.index)}});
    }
    return rows;
}

static int showServices(Call &call)
{
    Shown shown{"services"};
    shown.section({{"TABLE", "table"}, {"SERVICE", "service"}, {"CALLBACK", "callback"}},
                  registrations(call));
    shown.section({{"HOOK", "hook"}, {"NAME", "name"}, {"LENT", "lent"}}, hooks(call));
    shown.section({{"INTERFACE", "interface"}, {"NAME", "name"}, {"FOUND", "found"}},
                  platformServices(call));
    return answer(call, shown);
}

/* ---- memory, log ---- */

static int showMemory(Call &call)
{
    const Inspector::Memory memory = call.host.inspector.memory();
    Shown shown{"memory"};
    shown.section(
        {{"PARTITION", "partition"}, {"BLOCKS", "blocks"}, {"BYTES", "bytes"}, {"LIMIT", "limit"}},
        {{{"kind", "partition"},
          {"partition", memory.partition},
          {"blocks", memory.stat.liveBlocks},
          {"bytes", memory.stat.liveBytes},
          {"limit", memory.stat.limitBytes}}});
    std::vector<Object> hashes;
    for (const Inspector::Hash &hash : memory.hashes) {
        hashes.push_back({{"kind", "hash"},
                          {"name", hash.name},
                          {"nodes", hash.stat.nodes},
                          {"buffers", hash.stat.buffers},
                          {"bytes", hash.stat.bytes}});
    }
    shown.section(
        {{"HASH TABLE", "name"}, {"NODES", "nodes"}, {"BUFFERS", "buffers"}, {"BYTES", "bytes"}},
        hashes);
    shown.section({{"QUEUE", "name"}, {"DEPTH", "depth"}},
                  {{{"kind", "queue"}, {"name", "L2RSM_Q_DATA"}, {"depth", memory.queued}}});
    return answer(call, shown);
}

/* "error" is worse than "warning", which is worse than the rest. */
static u64 severity(const std::string &level)
{
    return level == "error" ? 2 : level == "warning" ? 3 : 4;
}

static int showLog(Call &call)
{
    const u64 level = call.args.unsignedValue("level", severity("info"));
    const u64 last = call.args.unsignedValue("last", LogHistory::LINES_KEPT);
    std::vector<Object> rows;
    for (const LogHistory::Line &line : call.host.logHistory.lines()) {
        if (severity(line.level) <= level) {
            rows.push_back({{"at", static_cast<double>(line.at.count()) / 1e6},
                            {"log", line.log},
                            {"level", line.level},
                            {"text", line.text}});
        }
    }
    if (rows.size() > last) {
        rows.erase(rows.begin(), rows.end() - static_cast<std::ptrdiff_t>(last));
    }
    Shown shown{"log"};
    shown.section({{"AT", "at"}, {"LOG", "log"}, {"LEVEL", "level"}, {"TEXT", "text"}}, rows);
    return answer(call, shown);
}

/* ---- rows ---- */

static Param engineTableParam()
{
    std::vector<Choice> choices;
    for (const EngineTable &table : engineTables) {
        choices.push_back({table.name, table.type});
    }
    return param::choice("table", "only this engine table", choices).optional();
}

std::vector<Function> showFunctions()
{
    const Param json =
        param::boolean("json", "true: one JSON object a line; as --json says when left out")
            .optional();
    const Param table = param::choice("table", "only this table",
                                      {{"icib", L2RES_TABLE_ICIB}, {"ipat", L2RES_TABLE_IPAT}})
                            .optional();
    return {
        {"show",
         "entries",
         Style::named,
         {table, json},
         "Every entry with its holder and its waiting requests. `state` of a holder: \"in "
         "progress\" from grant to release of the token (IPAT: always), else \"released\"; of a "
         "waiter: \"waiting\", or \"notified\" where IPAT keeps it in the list. `age` is in seconds "
         "of device time; service and age are left out (JSON: null) where the request did not pass "
         "the host.",
         "{{show, table, key={...}, holder={service, fwd, op, stamp, state, age}, "
         "waiters={{service, fwd, op, stamp, state, age}, ...}}, ...}",
         showEntries},
        {"show",
         "waiters",
         Style::named,
         {table, json},
         "Every waiting request. `position` is its place in the entry's list, `ticks_left` (ICIB) "
         "the worker's ticks of one second until it is notified without a release.",
         "{{show, table, key={...}, position, service, fwd, op, stamp, state, age, ticks_left}, "
         "...}",
         showWaiters},
        {"show",
         "alarms",
         Style::named,
         {engineTableParam(),
          param::boolean("changes", "true: the last 32 changes of each, too").optional(), json},
         "The alarm of each engine table: \"on\" or \"off\", the slot and threshold it was last "
         "sent with, the table's use now, how often it was raised, re-sent and cleared, and the "
         "device seconds in its state. A `change` is \"raised\", \"re-sent\" or \"cleared\".",
         "{{show, table, state, slot, threshold, used, total, raised, resent, cleared, "
         "time_in_state, changes={{at, change, threshold}, ...}}, ...}",
         showAlarms},
        {"show",
         "vlan",
         Style::named,
         {json},
         "What the module has booked of VLAN edits: rows of kind \"profile\" (with the owner's "
         "service type, or the mark 2 or 3 of the reserved ids 0..3), \"command\" and "
         "\"mapping\".",
         "{{show, direction, kind, id, service | outer_tag, inner_tag, outer_pri, inner_pri, "
         "outer_tpid, inner_tpid, outer_tpid_action, inner_tpid_action | profile, format, "
         "command}, ...}",
         showVlan},
        {"show",
         "engine",
         Style::named,
         {json},
         "The simulated engine: a row of kind \"table\" for each count hook, and what is "
         "programmed, \"command\" and \"mapping\".",
         "{{show, kind, table, total, used, idle, result | direction, kind, id, outer_tag, "
         "inner_tag, outer_pri, inner_pri, outer_tpid, inner_tpid, outer_tpid_action, "
         "inner_tpid_action | direction, kind, profile, format, command, overflow}, ...}",
         showEngine},
        {"show",
         "services",
         Style::named,
         {json},
         "Who is registered for what (kind \"registration\"; `callback` is \"scenario\", "
         "\"component\" or \"none\"), which hooks are lent (\"hook\"), and which services of "
         "component 1000 the module has found (\"service\").",
         "{{show, kind, table, service, callback | hook, name, lent | interface, name, found}, "
         "...}",
         showServices},
        {"show",
         "memory",
         Style::named,
         {json},
         "The module's memory: its partition (`limit` 0: none), its hash tables (`buffers`: nodes "
         "handed out but not inserted), the messages that wait for its worker.",
         "{{show, kind, partition, blocks, bytes, limit | name, nodes, buffers, bytes | name, "
         "depth}, ...}",
         showMemory},
        {"show",
         "log",
         Style::named,
         {param::choice("level", "at least this bad; \"info\" (all) when left out",
                        {{"error", 2}, {"warning", 3}, {"info", 4}})
              .optional(),
          param::u32("last", "so many lines at most; all that are kept when left out").optional(),
          json},
         "The last lines of debug log and black box; 1000 are kept, whatever --debug-level says. "
         "`at` is in seconds of device time.",
         "{{show, at, log, level, text}, ...}",
         showLog},
    };
}

} // namespace host
