#include "complete.h"

#include <algorithm>
#include <cctype>

#include "script/lua_api.h"

namespace host {

static bool isWordCharacter(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '.';
}

/* The word that ends right before `end`, without blanks in between. */
static std::string_view wordBefore(std::string_view line, std::size_t end)
{
    while (end > 0 && line[end - 1] == ' ') {
        --end;
    }
    std::size_t begin = end;
    while (begin > 0 && isWordCharacter(line[begin - 1])) {
        --begin;
    }
    return line.substr(begin, end - begin);
}

/* The function whose braces are open at the end of the text, or null. */
static const Function *openCall(std::string_view text)
{
    int depth = 0;
    for (std::size_t i = text.size(); i-- > 0;) {
        depth += text[i] == '}' ? 1 : text[i] == '{' ? -1 : 0;
        if (depth < 0) {
            const std::string_view name = wordBefore(text, i);
            const auto found = std::ranges::find(allFunctions(), name, &Function::fullName);
            return found == allFunctions().end() ? nullptr : &*found;
        }
    }
    return nullptr;
}

static void addMatching(std::vector<std::string> &list, std::string_view word,
                        const std::string &candidate)
{
    if (candidate.starts_with(word)) {
        list.push_back(candidate);
    }
}

static std::vector<std::string> functionNames(std::string_view word, bool callable)
{
    std::vector<std::string> names;
    for (const Function &function : allFunctions()) {
        const char *open = !callable ? "" : function.style == Style::named ? "{" : "(";
        addMatching(names, word, function.fullName() + open);
    }
    return names;
}

static std::vector<std::string> fieldNames(const Function &function, std::string_view word)
{
    std::vector<std::string> names;
    for (const Param &param : function.params) {
        addMatching(names, word, param.name + "=");
    }
    return names;
}

/* Behind `table="`: the names that the field takes. */
static std::vector<std::string> choiceNames(const Function &function, std::string_view before,
                                            std::string_view word)
{
    std::vector<std::string> names;
    std::size_t end = before.size() - 1; // the quote
    while (end > 0 && before[end - 1] == ' ') {
        --end;
    }
    if (end == 0 || before[end - 1] != '=') {
        return names;
    }
    const std::string_view field = wordBefore(before, end - 1);
    for (const Param &param : function.params) {
        for (const Choice &choice : param.choices) {
            if (param.name == field) {
                addMatching(names, word, choice.name); // the editor closes the quotes
            }
        }
    }
    return names;
}

std::vector<std::string> completions(std::string_view line, std::size_t start,
                                     std::string_view word)
{
    const std::string_view before = line.substr(0, start);
    if (before.starts_with("help ")) {
        return functionNames(word, false);
    }
    const Function *function = openCall(before);
    const bool inQuotes = !before.empty() && (before.back() == '"' || before.back() == '\'');
    if (function != nullptr && inQuotes) {
        return choiceNames(*function, before, word);
    }
    // A value can be a call, a field cannot: what follows "=" is a value.
    const std::size_t last = before.find_last_not_of(' ');
    const bool value = last != before.npos && before[last] == '=';
    return function != nullptr && !value ? fieldNames(*function, word) : functionNames(word, true);
}

} // namespace host
