#include "inspect/fields.h"

#include <cstdio>

namespace inspect {

std::string quoted(std::string_view text)
{
    std::string out = "\"";
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20 || byte == 0x7F) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02x", byte);
            out += escape;
        } else {
            out += c;
        }
    }
    return out + '"';
}

/* Words stand as they are: op=add, but data="cfg-7". */
static std::string formatValue(const Field &field)
{
    if (const u64 *number = std::get_if<u64>(&field.value)) {
        return std::to_string(*number);
    }
    const auto text = std::get<std::string_view>(field.value);
    const bool word = field.name != "data" && field.name != "text" && !text.empty() &&
                      text.find_first_of(" \"\\\n\t") == std::string_view::npos;
    return word ? std::string(text) : quoted(text);
}

static bool isEmpty(const Field &field)
{
    const u64 *number = std::get_if<u64>(&field.value);
    return number ? *number == 0 : std::get<std::string_view>(field.value).empty();
}

std::string formatFields(std::span<const Field> fields)
{
    std::string out;
    for (const Field &field : fields) {
        if (field.show == Field::Show::always || !isEmpty(field)) {
            out += " " + std::string(field.name) + "=" + formatValue(field);
        }
    }
    return out;
}

std::string notWithin(const std::string &what, u64 value, u64 low, u64 high)
{
    return what + " " + std::to_string(value) + " is not " + std::to_string(low) + " to " +
           std::to_string(high);
}

} // namespace inspect
