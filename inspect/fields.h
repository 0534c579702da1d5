/* Named values as a person reads them: " service=1 outvlan=100". */
#ifndef INSPECT_FIELDS_H
#define INSPECT_FIELDS_H

#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "qor_types.h"

namespace inspect {

/* Texts belong to whoever made the field. */
struct Field {
    enum class Show { always, unlessEmpty };

    std::string_view name;
    std::variant<u64, std::string_view> value;
    Show show = Show::always; // unlessEmpty: not worth printing when 0 or ""
};

std::string formatFields(std::span<const Field> fields);

/* "text" with what a terminal cannot show escaped, in double quotes. */
std::string quoted(std::string_view text);

/* "service 9 is not 0 to 8" */
std::string notWithin(const std::string &what, u64 value, u64 low, u64 high);

} // namespace inspect

#endif
