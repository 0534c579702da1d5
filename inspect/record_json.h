/*
 * How the values that cross the module's boundary stand in JSON (docs/recording.md).
 *
 * A structure is an object of its fields under their own names, those that are 0 left out. Bytes
 * are hexadecimal. Texts are one character a byte, so that any byte comes back as it was.
 * Reading throws std::exception when a value is missing, or is not of the type or range expected.
 */
#ifndef INSPECT_RECORD_JSON_H
#define INSPECT_RECORD_JSON_H

#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

#include "inspect/records.h"

namespace inspect {

using Value = nlohmann::json;

/* ---- numbers, bytes, texts ---- */

template <class T> T numberIn(const Value &object, const char *name)
{
    const Value &value = object.at(name);
    if (!value.is_number_unsigned() || value.get<u64>() > std::numeric_limits<T>::max()) {
        throw std::runtime_error(std::string(name) + " is " + value.dump());
    }
    return static_cast<T>(value.get<u64>());
}

std::string hexOf(const void *bytes, std::size_t size);
std::string bytesIn(const Value &object, const char *name); // of a value made by hexOf

std::string textOf(std::string_view text);
std::string textIn(const Value &object, const char *name);

/* ---- structures ---- */

template <class Structure> Value fieldsOf(Structure value)
{
    Value object = Value::object();
    eachField(value, [&](const Row &row, auto field) {
        if (field != 0) {
            object[row.name] = field;
        }
    });
    return object;
}

template <class Structure> Structure structureIn(const Value &object)
{
    Structure value{};
    eachField(value, [&](const Row &row, auto &field) {
        if (object.contains(row.name)) {
            field = numberIn<std::remove_reference_t<decltype(field)>>(object, row.name);
        }
    });
    return value;
}

} // namespace inspect

#endif
