#include "script/show_output.h"

#include "script/host.h"

namespace host {

void Shown::section(const std::vector<Column> &columns, const std::vector<Object> &more)
{
    rows.insert(rows.end(), more.begin(), more.end());
    if (!more.empty()) {
        text += alignedTable(columns, more);
    }
}

/* ---- Lua ---- */

static void pushJson(lua_State *L, const Object &value);

static void pushMembers(lua_State *L, const Object &value)
{
    lua_newtable(L);
    lua_Integer position = 0;
    for (const auto &[key, member] : value.items()) {
        if (member.is_null()) {
            continue; // a field that is nil is none
        }
        pushJson(L, member);
        if (value.is_array()) {
            lua_rawseti(L, -2, ++position);
        } else {
            setTop(L, key.c_str());
        }
    }
}

static void pushJson(lua_State *L, const Object &value)
{
    if (!lua_checkstack(L, 8)) {
        throw ScriptError("show: called too deep in other calls");
    }
    if (value.is_structured()) {
        pushMembers(L, value);
    } else if (value.is_string()) {
        const auto &text = value.get_ref<const std::string &>();
        lua_pushlstring(L, text.data(), text.size());
    } else if (value.is_boolean()) {
        lua_pushboolean(L, value.get<bool>());
    } else if (value.is_number_float()) {
        lua_pushnumber(L, value.get<double>());
    } else {
        pushUnsigned(L, value.get<u64>());
    }
}

/* ---- answer ---- */

int answer(Call &call, const Shown &shown)
{
    std::string out;
    Object all = Object::array();
    const bool json = call.args.boolean("json", call.host.json);
    for (const Object &row : shown.rows) {
        Object object = {{"show", shown.name}};
        object.update(row);
        if (json) {
            out += object.dump(-1, ' ', false, Object::error_handler_t::replace) + "\n";
        }
        all.push_back(std::move(object));
    }
    if (!json) {
        out = shown.text.empty() ? std::string("no ") + shown.name + "\n" : shown.text;
    }
    call.host.printer.write(out);
    pushJson(call.L, all);
    return call.pushed();
}

} // namespace host
