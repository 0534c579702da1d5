#include "inspect/table_text.h"

#include <algorithm>
#include <cstdio>

#include "inspect/fields.h"

namespace inspect {

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
    const std::string inQuotes = inspect::quoted(text);
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

} // namespace inspect
