/* engine, alarm: the simulated engine's counts, and the alarms they lead to. */
#include "script/host.h"
#include "script/lua_api.h"

namespace host {

static std::vector<Choice> tableChoices()
{
    std::vector<Choice> choices;
    for (const EngineTable &table : engineTables) {
        choices.push_back({table.name, table.type});
    }
    return choices;
}

static void print(Call &call, const char *what, u32 type, const Counts &counts)
{
    call.host.journal.write(Kind::text, what,
                            {{"table", engineTableName(type)},
                             {"total", counts.total},
                             {"used", counts.used},
                             {"idle", counts.idle},
                             {"result", counts.result, Field::Show::unlessEmpty}});
}

static int engineSet(Call &call)
{
    const u32 type = call.args.integer<u32>("table");
    Counts counts = call.host.engine.get(type);
    counts.total = static_cast<u32>(call.args.unsignedValue("total", counts.total));
    counts.used = static_cast<u32>(call.args.unsignedValue("used", counts.used));
    const u32 rest = counts.used < counts.total ? counts.total - counts.used : 0;
    counts.idle = static_cast<u32>(call.args.unsignedValue("idle", rest));
    counts.result = call.args.integer<u32>("result");
    call.host.engine.set(type, counts);
    print(call, "engine.set", type, counts);
    return 0;
}

static int engineGet(Call &call)
{
    const u32 type = call.args.integer<u32>("table");
    const Counts counts = call.host.engine.get(type);
    print(call, "engine.get", type, counts);
    lua_newtable(call.L);
    setField(call.L, "total", static_cast<u64>(counts.total));
    setField(call.L, "used", static_cast<u64>(counts.used));
    setField(call.L, "idle", static_cast<u64>(counts.idle));
    setField(call.L, "result", static_cast<u64>(counts.result));
    return call.pushed();
}

static int alarmList(Call &call)
{
    const bool all = call.args.boolean("all");
    call.host.journal.write(Kind::text, "alarm.list", {});
    lua_newtable(call.L);
    lua_Integer count = 0;
    for (const Alarm &alarm : call.host.services.alarms()) {
        if (!alarm.on && !all) {
            continue;
        }
        const std::string since = formatTime(alarm.since);
        const char *table = alarmTableName(alarm.code);
        lua_newtable(call.L);
        setField(call.L, "table", std::string_view(table));
        setField(call.L, "on", alarm.on);
        setField(call.L, "code", static_cast<u64>(alarm.code));
        setField(call.L, "slot", std::string_view(alarm.slot));
        setField(call.L, "threshold", static_cast<u64>(alarm.threshold));
        setField(call.L, "text", std::string_view(alarm.text));
        setField(call.L, "raised", static_cast<u64>(alarm.raised));
        lua_rawseti(call.L, -2, ++count);
        const std::string line = std::string("  ") + table + (alarm.on ? " on: " : " off: ");
        call.host.journal.write(Kind::text, line + alarm.slot,
                                {{"threshold", alarm.threshold},
                                 {"raised", alarm.raised},
                                 {"since", std::string_view(since)}});
    }
    if (count == 0) {
        call.host.journal.write(Kind::text, "  none", {});
    }
    return call.pushed();
}

static int alarmCheck(Call &call)
{
    return call.push(call.host.module.checkAlarm(call.args.integer<u32>("type")));
}

std::vector<Function> engineFunctions()
{
    const Param table = param::choice("table", "engine table", tableChoices());
    return {
        {"engine",
         "set",
         Style::named,
         {table, param::u32("total", "entries in all; as before when left out").optional(),
          param::u32("used", "entries in use; as before when left out").optional(),
          param::u32("idle", "entries free; total - used when left out").optional(),
          param::u32("result", "of the count hook; not 0: the module ignores the counts")
              .optional()},
         "Sets what the table's count hook reports.",
         "",
         engineSet},
        {"engine",
         "get",
         Style::named,
         {table},
         "What the table's count hook reports.",
         "{total, used, idle, result}",
         engineGet},
        {"alarm",
         "list",
         Style::named,
         {param::boolean("all", "true: those that are off, too").optional()},
         "The alarms that are on, by code; `raised` counts the raises since an alarm came on.",
         "{{table, on, code, slot, threshold, text, raised}, ...}",
         alarmList},
        {"alarm",
         "check",
         Style::named,
         {param::choiceOrU32("type", "alarm type", tableChoices())},
         "Has the module check the table and raise its alarm when it is full.",
         "code: 1 when the type is unknown or the raise failed",
         alarmCheck},
    };
}

} // namespace host
