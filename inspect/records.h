/*
 * How the values that cross the module's boundary stand in a record (docs/recording.md).
 *
 * A structure is an object of its fields under their own names, those that are 0 left out. Bytes
 * are hexadecimal. Texts are one character a byte, so that any byte comes back as it was.
 * Reading throws std::exception when a value is missing, or is not of the type or range expected.
 */
#ifndef INSPECT_RECORDS_H
#define INSPECT_RECORDS_H

#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

#include "l2rsm_component.h"
#include "l2rsm_services.h"

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

template <class Visit> void eachField(L2ResIcibKey &key, Visit visit)
{
    visit("keyType", key.keyType);
    visit("GlobalPort", key.GlobalPort);
    visit("Vsi", key.Vsi);
    visit("keyAttr1", key.keyAttr1);
    visit("OutVlan", key.OutVlan);
    visit("keyAttr2", key.keyAttr2);
    visit("InnerVlan", key.InnerVlan);
    visit("keyAttr3", key.keyAttr3);
    visit("Pri", key.Pri);
    visit("Vdc", key.Vdc);
}

template <class Visit> void eachField(L2ResIpatKey &key, Visit visit)
{
    visit("unit", key.unit);
    visit("port", key.port);
}

template <class Visit> void eachField(L2ResOpRecord &op, Visit visit)
{
    visit("Stamp", op.Stamp);
    visit("Op", op.Op);
    visit("SrvType", op.SrvType);
    visit("Used", op.Used);
}

template <class Visit> void eachField(L2ResQueryEntry &entry, Visit visit)
{
    visit("time", entry.time);
    visit("optype", entry.optype);
    visit("servicename", entry.servicename);
    visit("iswaiting", entry.iswaiting);
}

template <class Visit> void eachField(VlanEditInfo &info, Visit visit)
{
    visit("servType", info.servType);
    visit("tagFormat", info.tagFormat);
    visit("outerTag", info.outerTag);
    visit("innerTag", info.innerTag);
    visit("outerPri", info.outerPri);
    visit("innerPri", info.innerPri);
    visit("outerTpid", info.outerTpid);
    visit("innerTpid", info.innerTpid);
    visit("outerTpidAction", info.outerTpidAction);
    visit("innerTpidAction", info.innerTpidAction);
}

template <class Visit> void eachField(L2ResAlarmAttr &attr, Visit visit)
{
    visit("alarmKind", attr.alarmKind);
    visit("kindCode", attr.kindCode);
    visit("timeKind", attr.timeKind);
    visit("zero12", attr.zero12);
    visit("tableAlarmCode", attr.tableAlarmCode);
    visit("zero28", attr.zero28);
    visit("zero32", attr.zero32);
}

template <class Structure> Value fieldsOf(Structure value)
{
    Value object = Value::object();
    eachField(value, [&](const char *name, auto field) {
        if (field != 0) {
            object[name] = field;
        }
    });
    return object;
}

template <class Structure> Structure structureIn(const Value &object)
{
    Structure value{};
    eachField(value, [&](const char *name, auto &field) {
        if (object.contains(name)) {
            field = numberIn<std::remove_reference_t<decltype(field)>>(object, name);
        }
    });
    return value;
}

} // namespace inspect

#endif
