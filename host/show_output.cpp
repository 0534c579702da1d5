#include "show_output.h"

#include <algorithm>
#include <cstdio>

#include "host.h"

namespace host {

/* ---- tables ---- */

static std::string cell(const Object &row, const char *key)
{
    const auto found = row.find(key);
    if (found == row.end() || found->is_null()) {
        return "-";
    }
    if (found->is_string()) {
        return found->get<std::string>();
    }
    if (found->is_boolean()) {
        return found->get<bool>() ? "yes" : "no";
    }
    if (found->is_number_float()) { // a time in seconds
        char text[64];
        std::snprintf(text, sizeof text, "%.3f", found->get<double>());
        return text;
    }
    return found->dump();
}

/* What a terminal cannot show is escaped as in the printer's lines. */
static std::string shownCell(const Object &row, const char *key)
{
    const std::string text = cell(row, key);
    const std::string inQuotes = host::quoted(text);
    return inQuotes.size() == text.size() + 2 ? text : inQuotes;
}

std::string alignedTable(const std::vector<Column> &columns, const std::vector<Object> &rows)
{
    std::vector<std::vector<std::string>> lines(1 + rows.size());
    std::vector<std::size_t> widths;
    std::vector<bool> right;
    for (const Column &column : columns) {
        lines[0].emplace_back(column.title);
        std::size_t width = lines[0].back().size();
        bool numbers = true;
        for (std::size_t i = 0; i < rows.size(); ++i) {
            const std::string &text = lines[i + 1].emplace_back(shownCell(rows[i], column.key));
            width = std::max(width, text.size());
            numbers =
                numbers && (text == "-" || text.find_first_not_of("0123456789.") == text.npos);
        }
        widths.push_back(width);
        right.push_back(numbers);
    }
    std::string out;
    for (const auto &line : lines) {
        std::string text;
        for (std::size_t i = 0; i < line.size(); ++i) {
            const std::string padding(widths[i] - line[i].size(), ' ');
            text += (i == 0 ? "" : "  ") + (right[i] ? padding + line[i] : line[i] + padding);
        }
        text.erase(text.find_last_not_of(' ') + 1);
        out += text + "\n";
    }
    return out;
}

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
