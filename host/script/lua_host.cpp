/* host, expect: time, waiting, patches, load, and what the scenario is to show. */
#include <algorithm>
#include <cmath>

#include "script/host.h"
#include "script/lua_api.h"
#include "script/stress.h"

namespace host {

/* ---- time ---- */

static DeviceTime later(const Host &host, double seconds)
{
    return host.clock.now() + DeviceTime(static_cast<DeviceTime::rep>(std::llround(seconds * 1e6)));
}

static double seconds(DeviceTime time)
{
    return static_cast<double>(time.count()) / 1e6;
}

static void rejectInHandler(const Call &call, const char *name)
{
    if (call.host.scenario.inHandler()) {
        throw ScriptError(std::string(name) + ": a handler cannot wait, the module waits for it");
    }
}

static int hostTime(Call &call)
{
    return call.push(seconds(call.host.clock.now()));
}

static int hostWait(Call &call)
{
    rejectInHandler(call, "host.wait");
    const double span = call.args.number("seconds");
    call.host.scenario.wait(later(call.host, span), [] { return false; });
    return 0;
}

/* A condition of the script; what it looks up is not worth a line each time. */
static bool conditionHolds(Call &call, int function)
{
    const Printer::Quiet quiet;
    lua_pushvalue(call.L, function);
    if (!protectedCall(call.L, 0, 1)) {
        throw HandlerError(popError(call.L));
    }
    const bool holds = lua_toboolean(call.L, -1) != 0;
    lua_pop(call.L, 1);
    return holds;
}

static int hostWaitFor(Call &call)
{
    rejectInHandler(call, "host.wait_for");
    Host &host = call.host;
    const int what = call.args.stackIndex("what");
    std::function<bool()> done;
    if (lua_type(call.L, what) == LUA_TFUNCTION) {
        done = [&] { return conditionHolds(call, what); };
    } else {
        const std::string_view event =
            lua_type(call.L, what) == LUA_TSTRING ? textAt(call.L, what) : "";
        const u64 before =
            event == "alarm" ? host.services.alarmChanges() : host.scenario.delivered();
        if (event == "alarm") {
            done = [&host, before] { return host.services.alarmChanges() != before; };
        } else if (event == "notify") {
            done = [&host, before] { return host.scenario.delivered() != before; };
        } else {
            throw ScriptError("host.wait_for: what must be a function, \"notify\" or \"alarm\"");
        }
    }
    return call.push(host.scenario.wait(later(host, call.args.number("timeout")), done));
}

/* ---- patches, load ---- */

static int hostPatch(Call &call)
{
    const std::string library =
        call.args.has("library") ? std::string(call.args.text("library")) : "libqor_l2rsm.so";
    bool handled = false;
    call.push(call.host.module.patch(call.args.integer<u32>("operation"), library, &handled));
    return call.push(handled);
}

static int hostStress(Call &call)
{
    rejectInHandler(call, "host.stress");
    StressOptions options;
    options.clients = static_cast<u32>(call.args.unsignedValue("clients", options.clients));
    options.operations =
        static_cast<u32>(call.args.unsignedValue("operations", options.operations));
    options.keys = static_cast<u32>(call.args.unsignedValue("keys", options.keys));
    options.seed = static_cast<u32>(call.args.unsignedValue("seed", options.seed));
    if (options.clients < 1 || options.clients > 8 || options.keys < 1 || options.keys > 256) {
        throw ScriptError("host.stress: takes 1..8 clients and 1..256 keys");
    }
    const StressReport report = runStress(call.host, options);
    for (const auto &[what, count] : report.counts) {
        const std::string line = "stress: " + what;
        call.host.journal.write(Kind::text, line, {{"count", count}});
    }
    if (!report.violation.empty()) {
        throw ScriptError("host.stress: " + report.violation);
    }
    lua_newtable(call.L);
    for (const auto &[what, count] : report.counts) {
        setField(call.L, what.c_str(), count);
    }
    return call.pushed();
}

/* ---- expectations ---- */

static bool equal(lua_State *L, int a, int b, int depth);

/* Every field of table a is in b, and equal. */
static bool contains(lua_State *L, int a, int b, int depth)
{
    bool same = true;
    lua_pushnil(L);
    while (same && lua_next(L, a) != 0) {
        lua_pushvalue(L, -2);
        lua_rawget(L, b);
        same = equal(L, lua_gettop(L) - 1, lua_gettop(L), depth + 1);
        lua_pop(L, 2);
    }
    if (!same) {
        lua_pop(L, 1);
    }
    return same;
}

static bool equal(lua_State *L, int a, int b, int depth)
{
    if (lua_rawequal(L, a, b)) {
        return true;
    }
    if (!lua_istable(L, a) || !lua_istable(L, b)) {
        return false;
    }
    if (depth > 16 || !lua_checkstack(L, 8)) {
        throw ScriptError("expect: tables nested too deep");
    }
    return contains(L, a, b, depth) && contains(L, b, a, depth);
}

static int expect(Call &call)
{
    const int value = call.args.stackIndex("value");
    const int wanted = call.args.stackIndex("wanted");
    const bool met = equal(call.L, value, wanted, 0);
    std::string complaint;
    if (!met) {
        complaint = "expected " + showValue(call.L, wanted) + ", got " + showValue(call.L, value);
        if (call.args.has("what")) {
            complaint = std::string(call.args.text("what")) + ": " + complaint;
        }
    }
    call.host.scenario.countExpectation(met, complaint);
    return 0;
}

std::vector<Function> hostFunctions()
{
    return {
        {"host",
         "time",
         Style::positional,
         {},
         "The device's time since its start.",
         "seconds",
         hostTime},
        {"host",
         "wait",
         Style::positional,
         {param::number("seconds", "device time to wait")},
         "Lets the device's time pass; handlers run as notifications come.",
         "",
         hostWait},
        {"host",
         "wait_for",
         Style::positional,
         {param::any("what", "a function that returns true when it has come, \"notify\" or "
                             "\"alarm\" for the next of its kind"),
          param::number("timeout", "device seconds to wait at most")},
         "Waits for something to happen.",
         "whether it did",
         hostWaitFor},
        {"host",
         "patch",
         Style::positional,
         {param::choice(
              "operation", "what the patch mechanism does",
              {{"activate", L2RES_PATCH_ACTIVATE}, {"deactivate", L2RES_PATCH_DEACTIVATE}}),
          param::text("library", "library the patch is for; \"libqor_l2rsm.so\" when left out", 114)
              .optional()},
         "Calls the module's hot-patch synchronisation hook.",
         "code, handled: whether the module took it for its own",
         hostPatch},
        {"host",
         "stress",
         Style::named,
         {param::u32("clients", "threads, 1..8; 4 when left out").optional(),
          param::u32("operations", "of each client; 10000 when left out").optional(),
          param::u32("keys", "entries they compete for in each table, 1..256; 8 when left out")
              .optional(),
          param::u32("seed", "of the clients' choices; 1 when left out").optional()},
         "Clients on threads of their own compete for ICIB and IPAT entries, also from within "
         "their callbacks; fails when an entry is granted twice, a waiter is lost or memory is "
         "not given back.",
         "a table of what was counted",
         hostStress},
        {"",
         "expect",
         Style::positional,
         {param::any("value", "what came"), param::any("wanted", "what should have come"),
          param::text("what", "named in the complaint").optional()},
         "Fails the scenario unless the two are equal; tables are compared by content.",
         "",
         expect},
    };
}

} // namespace host
