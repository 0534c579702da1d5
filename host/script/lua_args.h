/*
 * How a function of the Lua interface is written.
 *
 * A function is a row: topic and name (icib.add), its parameters with type and range, help texts,
 * and a body. The rows are what the interpreter is filled from and what the manual's reference is
 * generated from (l2rsm-host --manual), so they cannot drift apart.
 *
 *   {"icib", "register", Style::named,
 *    {param::u32("service", "service type, 0..8")},
 *    "Registers ...", "code", icibRegister}
 *
 * Before a body runs every argument was checked: unknown or missing field, wrong type, value out of
 * its C type's range end the script with one line. So a body reads values and never reports about
 * them, and nothing half-built reaches the module. A body fails by throwing ScriptError. An error
 * that Lua raises is an exception, too (the interpreter is its C++ build), of no type to be caught by;
 * it must not meet the module's frames, which know none: a handler runs in a protectedCall.
 */
#ifndef HOST_LUA_ARGS_H
#define HOST_LUA_ARGS_H

#include <cstdint>
#include <lua.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "qor_types.h"

namespace host {

struct Host;

/* Ends the script; the position in the script is put before the text, which becomes one line. */
struct ScriptError : std::runtime_error {
    explicit ScriptError(const std::string &text);
};

/* The same from a handler of the script: the text begins with its own position. */
struct HandlerError : ScriptError {
    using ScriptError::ScriptError;
};

/* A name that stands for a number: {"icib_pp", 0}. */
struct Choice {
    const char *name;
    u64 value;
};

struct Param {
    enum class Type { integer, number, text, boolean, choice, function, table, any };

    std::string name;
    Type type;
    std::string help;
    bool required = true;
    u64 max = 0;               // integer: 0..max; choice: the same, where numbers are taken, too
    std::size_t maxLength = 0; // text: in bytes
    std::vector<Choice> choices{}; // choice: by name
    bool orNumber = false;         // choice: a number will do

    /* The same parameter, but the script may leave it out. */
    Param optional() const
    {
        Param copy = *this;
        copy.required = false;
        return copy;
    }
};

namespace param {
Param u8(const char *name, const char *help);
Param u16(const char *name, const char *help);
Param u32(const char *name, const char *help);
Param u64(const char *name, const char *help);    // above 2^63-1: as a text, "18446744073709551615"
Param number(const char *name, const char *help); // not negative, with fraction
Param text(const char *name, const char *help, std::size_t maxLength = 65533);
Param boolean(const char *name, const char *help);
Param choice(const char *name, const char *help, std::vector<Choice> choices);
Param choiceOrU32(const char *name, const char *help, std::vector<Choice> choices);
Param function(const char *name, const char *help);
Param table(const char *name, const char *help); // the body reads it with readFields
Param any(const char *name, const char *help);   // the body reads it from the stack
} // namespace param

/* Checked values of a parameter list, read by name. A name that is not in the list is a bug. */
class Values {
public:
    bool has(std::string_view name) const;

    /* An optional parameter that is absent reads as 0, "", false. Choices read as their number. */
    template <class T> T integer(std::string_view name) const
    {
        return static_cast<T>(unsignedValue(name));
    }
    u64 unsignedValue(std::string_view name, u64 absent = 0) const;
    double number(std::string_view name, double absent = 0) const;
    std::string_view text(std::string_view name) const; // valid during the call
    bool boolean(std::string_view name, bool absent = false) const;
    int stackIndex(std::string_view name) const; // functions, tables, any; 0 when absent

private:
    friend Values readNamed(lua_State *, int, const std::vector<Param> &, const std::string &);
    friend Values readPositional(lua_State *, const std::vector<Param> &, const std::string &);

    using Value = std::variant<std::monostate, u64, double, std::string_view, bool, int>;
    const Value &find(std::string_view name) const;
    void set(lua_State *L, const Param &param, int index, const std::string &who);

    std::vector<std::pair<std::string, Value>> values_;
};

/* Reads the fields of the Lua table at `index`; `who` begins the complaints ("icib.add"). */
Values readNamed(lua_State *L, int index, const std::vector<Param> &params, const std::string &who);

/* Reads the arguments 1, 2, ... of the running function. */
Values readPositional(lua_State *L, const std::vector<Param> &params, const std::string &who);

/* The running function: its values, the host, and the way back. */
struct Call {
    lua_State *L;
    Host &host;
    const Values &args;

    /* A result of the function; returns how many there are so far. */
    int push(u64 value); // beyond Lua's integers: as a text
    int push(u32 value)
    {
        return push(static_cast<u64>(value));
    }
    int push(double value);
    int push(bool value);
    int push(std::string_view value);
    int pushed() // something the body left on the stack itself
    {
        return ++results;
    }
    int results = 0;
};

enum class Style { named, positional }; // f{a=1, b=2} or f(1, 2)

struct Function {
    const char *topic; // the Lua table, or "" for a global
    const char *name;
    Style style;
    std::vector<Param> params;
    const char *help;        // one sentence
    const char *returns;     // the results, "" when there are none
    int (*body)(Call &call); // returns the number of results

    std::string fullName() const;
};

/* An integer, or a text beyond Lua's integers. */
void pushUnsigned(lua_State *L, u64 value);

/* Sets a field of the table on top of the stack, without metamethods. */
void setField(lua_State *L, const char *name, u64 value);
void setField(lua_State *L, const char *name, std::string_view value);
void setField(lua_State *L, const char *name, bool value);
void setTop(lua_State *L, const char *name); // field = the value on top, which is popped

/* Makes rows callable in L. The rows must live as long as L. */
void defineFunctions(lua_State *L, Host &host, const std::vector<Function> &functions);

/* The string at the index, with the zero bytes that it may have. Valid while it is on the stack. */
std::string_view textAt(lua_State *L, int index);

/* A value as a complaint or the prompt shows it: {1, a="x"}. */
std::string showValue(lua_State *L, int index, int depth = 0);

/* "script.lua:12: " of the innermost script line that is running, or "". */
std::string where(lua_State *L);

/*
 * lua_pcall, but an error that does not say where it happened gets its position. After a failure
 * popError() takes the error off the stack, as one line.
 */
bool protectedCall(lua_State *L, int arguments, int results);
std::string popError(lua_State *L);

} // namespace host

#endif
