/* Rows, which are JSON objects, as a table for a reader. */
#ifndef INSPECT_TABLE_TEXT_H
#define INSPECT_TABLE_TEXT_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace inspect {

using Object = nlohmann::ordered_json;

struct Column {
    const char *title;
    const char *key; // of the row's object
};

/* Rows under a header, in columns as wide as they need to be; numbers stand to the right. */
std::string alignedTable(const std::vector<Column> &columns, const std::vector<Object> &rows);

} // namespace inspect

#endif
