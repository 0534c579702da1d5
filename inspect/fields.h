/* Named values as a person reads them: " service=1 outvlan=100". */
#ifndef INSPECT_FIELDS_H
#define INSPECT_FIELDS_H

#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "l2rsm_arbitration.h"
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

/* A key's; zeroes of an ICIB key are not printed. */
std::vector<Field> keyFields(const L2ResIcibKey &key);
std::vector<Field> keyFields(const L2ResIpatKey &key);

} // namespace inspect

#endif
