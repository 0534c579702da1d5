#include "script/lua_api.h"

#include <algorithm>
#include <limits>
#include <ostream>

namespace host {

const std::vector<Function> &allFunctions()
{
    // Never freed: closures in the interpreter point to the rows.
    static const auto *const all = [] {
        auto *rows = new std::vector<Function>;
        for (const auto &part : {tokenFunctions(), engineFunctions(), vlanFunctions(),
                                 hostFunctions(), clientFunctions(), showFunctions()}) {
            rows->insert(rows->end(), part.begin(), part.end());
        }
        return rows;
    }();
    return *all;
}

/* ---- the manual ---- */

static std::string typeText(const Param &param)
{
    switch (param.type) {
    case Param::Type::integer:
        return param.max == std::numeric_limits<u64>::max() ? "0..2^64-1"
                                                            : "0.." + std::to_string(param.max);
    case Param::Type::number:
        return "number";
    case Param::Type::text:
        return "text";
    case Param::Type::boolean:
        return "true, false";
    case Param::Type::choice: {
        std::string text;
        for (const Choice &choice : param.choices) {
            text += (text.empty() ? "" : ", ") + std::string("\"") + choice.name + "\"";
        }
        return text + (param.orNumber ? ", or 0.." + std::to_string(param.max) : "");
    }
    case Param::Type::function:
        return "function";
    case Param::Type::table:
        return "table";
    case Param::Type::any:
        return "any value";
    }
    return "";
}

static std::string signature(const Function &function)
{
    std::string text = function.fullName();
    if (function.style == Style::named) {
        return text + "{...}";
    }
    text += "(";
    for (const Param &param : function.params) {
        text += (text.back() == '(' ? "" : ", ") + param.name;
    }
    return text + ")";
}

/* ---- help ---- */

static void describe(std::ostream &out, const Function &function)
{
    out << signature(function) << "\n  " << function.help << "\n";
    std::size_t names = 0, values = 0;
    for (const Param &param : function.params) {
        names = std::max(names, param.name.size());
        values = std::max(values, std::min<std::size_t>(typeText(param).size(), 24));
    }
    const auto padded = [](std::string text, std::size_t width) {
        text.resize(std::max(width, text.size()), ' ');
        return text;
    };
    for (const Param &param : function.params) {
        out << "  " << padded(param.name, names) << "  " << padded(typeText(param), values) << "  "
            << (param.required ? "" : "[optional] ") << param.help << "\n";
    }
    if (*function.returns != '\0') {
        out << "  returns " << function.returns << "\n";
    }
}

void writeHelp(std::ostream &out, const std::string &name)
{
    bool found = false;
    for (const Function &function : allFunctions()) {
        if (function.fullName() == name) {
            describe(out, function);
            return;
        }
        if (name.empty() || name == function.topic) {
            found = true;
            const std::string help = function.help;
            out << "  " << signature(function) << "  " << help.substr(0, help.find(". ")) << "\n";
        }
    }
    if (!found) {
        out << "no function or topic \"" << name << "\"; `help` lists them all\n";
    }
}

void writeManual(std::ostream &out)
{
    for (const Function &function : allFunctions()) {
        out << "### `" << signature(function) << "`\n\n" << function.help << "\n\n";
        if (!function.params.empty()) {
            out << "| Field | Value | Required | Meaning |\n|---|---|---|---|\n";
        }
        for (const Param &param : function.params) {
            out << "| `" << param.name << "` | " << typeText(param) << " | "
                << (param.required ? "yes" : "") << " | " << param.help << " |\n";
        }
        out << (function.params.empty() ? "" : "\n")
            << (*function.returns == '\0' ? ""
                                          : "Returns " + std::string(function.returns) + ".\n\n");
    }
}

} // namespace host
