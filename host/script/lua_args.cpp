#include "script/lua_args.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "script/host.h"

namespace host {

/* What ends a line, or a text of C, is escaped. */
static std::string oneLine(const std::string &text)
{
    std::string line;
    for (const char c : text) {
        line += c == '\n' ? " " : c == '\0' ? "\\x00" : std::string(1, c);
    }
    return line;
}

ScriptError::ScriptError(const std::string &text) : runtime_error(oneLine(text))
{
}

namespace param {

static Param integer(const char *name, const char *help, ::u64 max)
{
    Param p{.name = name, .type = Param::Type::integer, .help = help};
    p.max = max;
    return p;
}

Param u8(const char *name, const char *help)
{
    return integer(name, help, std::numeric_limits<::u8>::max());
}

Param u16(const char *name, const char *help)
{
    return integer(name, help, std::numeric_limits<::u16>::max());
}

Param u32(const char *name, const char *help)
{
    return integer(name, help, std::numeric_limits<::u32>::max());
}

Param u64(const char *name, const char *help)
{
    return integer(name, help, std::numeric_limits<::u64>::max());
}

Param number(const char *name, const char *help)
{
    return {.name = name, .type = Param::Type::number, .help = help};
}

Param text(const char *name, const char *help, std::size_t maxLength)
{
    Param p{.name = name, .type = Param::Type::text, .help = help};
    p.maxLength = maxLength;
    return p;
}

Param boolean(const char *name, const char *help)
{
    return {.name = name, .type = Param::Type::boolean, .help = help};
}

Param choice(const char *name, const char *help, std::vector<Choice> choices)
{
    Param p{.name = name, .type = Param::Type::choice, .help = help};
    p.choices = std::move(choices);
    return p;
}

Param choiceOrU32(const char *name, const char *help, std::vector<Choice> choices)
{
    Param p = choice(name, help, std::move(choices));
    p.orNumber = true;
    p.max = std::numeric_limits<::u32>::max();
    return p;
}

Param function(const char *name, const char *help)
{
    return {.name = name, .type = Param::Type::function, .help = help};
}

Param table(const char *name, const char *help)
{
    return {.name = name, .type = Param::Type::table, .help = help};
}

Param any(const char *name, const char *help)
{
    return {.name = name, .type = Param::Type::any, .help = help};
}

} // namespace param

/* ---- reading ---- */

std::string_view textAt(lua_State *L, int index)
{
    std::size_t length = 0;
    const char *text = lua_tolstring(L, index, &length);
    return {text, length};
}

static std::string typeName(lua_State *L, int index)
{
    return lua_typename(L, lua_type(L, index));
}

/* "9999999999" as the message shows it; a number is never converted in place. */
static std::string showNumber(lua_State *L, int index)
{
    if (lua_isinteger(L, index)) {
        return std::to_string(lua_tointeger(L, index));
    }
    char text[64];
    std::snprintf(text, sizeof text, "%.14g", lua_tonumber(L, index));
    return text;
}

static u64 readInteger(lua_State *L, const Param &param, int index, const std::string &what)
{
    const auto outOfRange = [&](const std::string &value) {
        return ScriptError(what + " must be 0.." + std::to_string(param.max) + ", not " + value);
    };
    // Lua's integers end at 2^63-1; what is above comes as a text.
    if (lua_type(L, index) == LUA_TSTRING && param.max == std::numeric_limits<u64>::max()) {
        const std::string_view text = textAt(L, index);
        u64 value = 0;
        const auto [end, error] = std::from_chars(text.begin(), text.end(), value);
        if (error != std::errc() || end != text.end()) {
            throw outOfRange(quoted(text));
        }
        return value;
    }
    if (lua_type(L, index) != LUA_TNUMBER) {
        throw ScriptError(what + " must be an integer, not a " + typeName(L, index));
    }
    int isInteger = 0;
    const lua_Integer value = lua_tointegerx(L, index, &isInteger);
    if (!isInteger && lua_tonumber(L, index) == std::floor(lua_tonumber(L, index))) {
        throw outOfRange(showNumber(L, index));
    }
    if (!isInteger) {
        throw ScriptError(what + " must be an integer, not " + showNumber(L, index));
    }
    if (value < 0 || static_cast<u64>(value) > param.max) {
        throw outOfRange(showNumber(L, index));
    }
    return static_cast<u64>(value);
}

static u64 readChoice(lua_State *L, const Param &param, int index, const std::string &what)
{
    if (param.orNumber && lua_type(L, index) == LUA_TNUMBER) {
        return readInteger(L, param, index, what);
    }
    std::string wanted;
    const bool text = lua_type(L, index) == LUA_TSTRING;
    const std::string_view name = text ? textAt(L, index) : "";
    for (const Choice &choice : param.choices) {
        if (name == choice.name) {
            return choice.value;
        }
        wanted += std::string(wanted.empty() ? "\"" : ", \"") + choice.name + "\"";
    }
    throw ScriptError(what + " must be one of " + wanted + (param.orNumber ? " or a number" : "") +
                      ", not " + (text ? quoted(name) : "a " + typeName(L, index)));
}

static void expectType(lua_State *L, int index, int type, const std::string &what)
{
    if (lua_type(L, index) != type) {
        throw ScriptError(what + " must be a " + lua_typename(L, type) + ", not a " +
                          typeName(L, index));
    }
}

void Values::set(lua_State *L, const Param &param, int index, const std::string &who)
{
    const std::string what = who + ": " + param.name;
    Value value;
    switch (param.type) {
    case Param::Type::integer:
        value = readInteger(L, param, index, what);
        break;
    case Param::Type::choice:
        value = readChoice(L, param, index, what);
        break;
    case Param::Type::number:
        expectType(L, index, LUA_TNUMBER, what);
        if (!(lua_tonumber(L, index) >= 0 && lua_tonumber(L, index) <= 1e9)) {
            throw ScriptError(what + " must be 0..1000000000, not " + showNumber(L, index));
        }
        value = lua_tonumber(L, index);
        break;
    case Param::Type::text: {
        expectType(L, index, LUA_TSTRING, what);
        const std::string_view text = textAt(L, index);
        if (text.size() > param.maxLength) {
            throw ScriptError(what + " must have at most " + std::to_string(param.maxLength) +
                              " bytes, not " + std::to_string(text.size()));
        }
        value = text;
        break;
    }
    case Param::Type::boolean:
        expectType(L, index, LUA_TBOOLEAN, what);
        value = lua_toboolean(L, index) != 0;
        break;
    case Param::Type::function:
        expectType(L, index, LUA_TFUNCTION, what);
        value = index;
        break;
    case Param::Type::table:
        expectType(L, index, LUA_TTABLE, what);
        value = index;
        break;
    case Param::Type::any:
        value = index;
        break;
    }
    values_.emplace_back(param.name, value);
}

static void rejectUnknown(lua_State *L, int index, const std::vector<Param> &params,
                          const std::string &who)
{
    lua_pushnil(L);
    while (lua_next(L, index) != 0) {
        lua_pop(L, 1);
        if (lua_type(L, -1) != LUA_TSTRING) {
            throw ScriptError(who + ": takes named fields, as in " + who + "{" +
                              (params.empty() ? "" : params.front().name + "=...") + "}");
        }
        const std::string_view name = textAt(L, -1);
        if (std::ranges::none_of(params, [&](const Param &p) { return p.name == name; })) {
            throw ScriptError(who + ": unknown field " + quoted(name));
        }
    }
}

Values readNamed(lua_State *L, int index, const std::vector<Param> &params, const std::string &who)
{
    rejectUnknown(L, index, params, who);
    Values values;
    for (const Param &param : params) {
        // The value stays on the stack, where texts, functions and tables are read from.
        lua_pushlstring(L, param.name.data(), param.name.size());
        if (lua_rawget(L, index) != LUA_TNIL) {
            values.set(L, param, lua_gettop(L), who);
        } else if (param.required) {
            throw ScriptError(who + ": field \"" + param.name + "\" is missing");
        } else {
            values.values_.emplace_back(param.name, std::monostate());
        }
    }
    return values;
}

Values readPositional(lua_State *L, const std::vector<Param> &params, const std::string &who)
{
    const int given = lua_gettop(L);
    if (given > static_cast<int>(params.size())) {
        throw ScriptError(who + ": takes at most " + std::to_string(params.size()) +
                          " arguments, not " + std::to_string(given));
    }
    Values values;
    int index = 0;
    for (const Param &param : params) {
        // nil is a value for `any`, and for the others the same as nothing.
        const bool any = param.type == Param::Type::any;
        if (++index <= given && (any || !lua_isnil(L, index))) {
            values.set(L, param, index, who);
        } else if (param.required) {
            throw ScriptError(who + ": argument \"" + param.name + "\" is missing");
        } else {
            values.values_.emplace_back(param.name, std::monostate());
        }
    }
    return values;
}

const Values::Value &Values::find(std::string_view name) const
{
    for (const auto &[candidate, value] : values_) {
        if (candidate == name) {
            return value;
        }
    }
    throw std::logic_error("no parameter " + std::string(name));
}

bool Values::has(std::string_view name) const
{
    return !std::holds_alternative<std::monostate>(find(name));
}

u64 Values::unsignedValue(std::string_view name, u64 absent) const
{
    return has(name) ? std::get<u64>(find(name)) : absent;
}

double Values::number(std::string_view name, double absent) const
{
    return has(name) ? std::get<double>(find(name)) : absent;
}

std::string_view Values::text(std::string_view name) const
{
    return has(name) ? std::get<std::string_view>(find(name)) : std::string_view();
}

bool Values::boolean(std::string_view name, bool absent) const
{
    return has(name) ? std::get<bool>(find(name)) : absent;
}

int Values::stackIndex(std::string_view name) const
{
    return has(name) ? std::get<int>(find(name)) : 0;
}

/* ---- results ---- */

void pushUnsigned(lua_State *L, u64 value)
{
    if (value <= static_cast<u64>(std::numeric_limits<lua_Integer>::max())) {
        lua_pushinteger(L, static_cast<lua_Integer>(value));
    } else {
        const std::string text = std::to_string(value);
        lua_pushlstring(L, text.data(), text.size());
    }
}

int Call::push(u64 value)
{
    pushUnsigned(L, value);
    return pushed();
}

int Call::push(double value)
{
    lua_pushnumber(L, value);
    return pushed();
}

int Call::push(bool value)
{
    lua_pushboolean(L, value);
    return pushed();
}

int Call::push(std::string_view value)
{
    lua_pushlstring(L, value.data(), value.size());
    return pushed();
}

void setTop(lua_State *L, const char *name)
{
    lua_pushstring(L, name);
    lua_insert(L, -2);
    lua_rawset(L, -3);
}

void setField(lua_State *L, const char *name, u64 value)
{
    pushUnsigned(L, value);
    setTop(L, name);
}

void setField(lua_State *L, const char *name, std::string_view value)
{
    lua_pushlstring(L, value.data(), value.size());
    setTop(L, name);
}

void setField(lua_State *L, const char *name, bool value)
{
    lua_pushboolean(L, value);
    setTop(L, name);
}

/* ---- showing ---- */

std::string showValue(lua_State *L, int index, int depth)
{
    switch (lua_type(L, index)) {
    case LUA_TNIL:
        return "nil";
    case LUA_TBOOLEAN:
        return lua_toboolean(L, index) ? "true" : "false";
    case LUA_TNUMBER: {
        lua_pushvalue(L, index); // lua_tostring would change a key in place
        const std::string text = lua_tostring(L, -1);
        lua_pop(L, 1);
        return text;
    }
    case LUA_TSTRING:
        return quoted(textAt(L, index));
    case LUA_TTABLE:
        break;
    default:
        return std::string("a ") + lua_typename(L, lua_type(L, index));
    }
    // In the order of the keys, so that a complaint reads the same every time.
    std::vector<std::string> parts;
    lua_pushnil(L);
    while (lua_next(L, index) != 0) {
        const int value = lua_gettop(L);
        std::string part;
        if (lua_type(L, value - 1) == LUA_TSTRING) {
            const std::string name(textAt(L, value - 1)), inQuotes = host::quoted(name);
            part = (inQuotes.size() == name.size() + 2 ? name : "[" + inQuotes + "]") + "=";
        }
        part += depth < 3 && lua_checkstack(L, 8) ? showValue(L, value, depth + 1) : "...";
        parts.push_back(std::move(part));
        lua_pop(L, 1);
    }
    if (lua_rawlen(L, index) == 0) {
        std::ranges::sort(parts);
    }
    std::string text;
    for (const std::string &part : parts) {
        text += (text.empty() ? "" : ", ") + part;
    }
    return "{" + text + "}";
}

/* ---- errors ---- */

std::string where(lua_State *L)
{
    lua_Debug frame;
    for (int level = 0; lua_getstack(L, level, &frame) != 0; ++level) {
        lua_getinfo(L, "Sl", &frame);
        if (frame.currentline > 0) {
            return std::string(frame.short_src) + ":" + std::to_string(frame.currentline) + ": ";
        }
    }
    return "";
}

/* Only error("...") adds a position; error({}) comes as the bare table. */
static int addPosition(lua_State *L)
{
    if (lua_type(L, -1) != LUA_TSTRING) {
        const std::string text =
            where(L) + "error without a message (a " + typeName(L, -1) + " value)";
        lua_pushlstring(L, text.data(), text.size());
    }
    return 1;
}

bool protectedCall(lua_State *L, int arguments, int results)
{
    const int handler = lua_gettop(L) - arguments;
    lua_pushcfunction(L, addPosition);
    lua_insert(L, handler);
    const int status = lua_pcall(L, arguments, results, handler);
    lua_remove(L, handler);
    return status == LUA_OK;
}

std::string popError(lua_State *L)
{
    const std::string text =
        lua_isstring(L, -1) ? oneLine(std::string(textAt(L, -1))) : "unknown error";
    lua_pop(L, 1);
    return text;
}

/* ---- calling ---- */

std::string Function::fullName() const
{
    return *topic == '\0' ? name : std::string(topic) + "." + name;
}

static Values readArguments(lua_State *L, const Function &function)
{
    const std::string who = function.fullName();
    if (function.style == Style::positional) {
        return readPositional(L, function.params, who);
    }
    // f{...}; f() when nothing is required.
    if (lua_gettop(L) == 0) {
        lua_newtable(L);
    }
    if (lua_gettop(L) != 1 || !lua_istable(L, 1)) {
        throw ScriptError(who + ": takes one table of named fields, as in " + who + "{...}");
    }
    return readNamed(L, 1, function.params, who);
}

/* Runs the row. */
static int runFunction(lua_State *L)
{
    const auto &function = *static_cast<const Function *>(lua_touserdata(L, lua_upvalueindex(1)));
    Host &host = *static_cast<Host *>(lua_touserdata(L, lua_upvalueindex(2)));
    std::string complaint;
    try {
        if (!lua_checkstack(L, 64)) {
            throw ScriptError(function.fullName() + ": called too deep in other calls");
        }
        const Values args = readArguments(L, function);
        Scenario::Running running(host.scenario, L);
        running.deliver();
        Call call{L, host, args};
        const int results = function.body(call);
        running.finish();
        return results;
    } catch (const HandlerError &error) {
        complaint = error.what();
    } catch (const std::exception &error) {
        complaint = where(L) + error.what();
    }
    lua_pushlstring(L, complaint.data(), complaint.size());
    return lua_error(L);
}

void defineFunctions(lua_State *L, Host &host, const std::vector<Function> &functions)
{
    for (const Function &function : functions) {
        const bool global = *function.topic == '\0';
        lua_pushglobaltable(L);
        if (!global) {
            // The topic's table, made when its first function comes.
            lua_pushstring(L, function.topic);
            if (lua_rawget(L, -2) != LUA_TTABLE) {
                lua_pop(L, 1);
                lua_newtable(L);
                lua_pushvalue(L, -1);
                lua_insert(L, -3);
                setTop(L, function.topic);
                lua_pop(L, 1);
            } else {
                lua_remove(L, -2);
            }
        }
        lua_pushlightuserdata(L, const_cast<Function *>(&function));
        lua_pushlightuserdata(L, &host);
        lua_pushcclosure(L, runFunction, 2);
        setTop(L, function.name);
        lua_pop(L, 1);
    }
}

} // namespace host
