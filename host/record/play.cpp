/* Recorded calls into the module, made again through the crossing. */
#include <array>
#include <map>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "l2rsm_entry.h"
#include "record/passages.h"

namespace host {

template <class Function> static Function *filled(Function *position)
{
    if (position == nullptr) {
        throw std::runtime_error("this module has no such operation");
    }
    return position;
}

#define FUNCTION(name) filled(reinterpret_cast<decltype(&name)>(crossing::symbol(#name)))

/* In a replay there is no process's own: the crossing answers before they are reached. */
static u32 absentHook()
{
    return QOR_FAIL;
}

static u32 absentCallback(u32, void *, void *)
{
    return QOR_FAIL;
}

static bool isSome(const Value &arguments, const char *name)
{
    return arguments.at(name).get<bool>();
}

static void hookRegister(const Value &arguments)
{
    const auto hook = reinterpret_cast<L2ResHook>(absentHook);
    filled(crossing::table().hookRegister)(numberIn<u32>(arguments, "type"),
                                           isSome(arguments, "hook") ? hook : nullptr);
}

template <u32 (*L2RsmFunVtbl::*Position)(u32, L2ResNotifyCallback)>
static void tableRegister(const Value &arguments)
{
    filled(crossing::table().*Position)(numberIn<u32>(arguments, "service"),
                                        isSome(arguments, "callback") ? absentCallback : nullptr);
}

static void notifyRegister(const Value &arguments)
{
    filled(crossing::table().notifyRegister)(
        numberIn<u32>(arguments, "table"), numberIn<u32>(arguments, "service"),
        isSome(arguments, "callback") ? absentCallback : nullptr);
}

template <u32 (*L2RsmFunVtbl::*Position)(u32, u32, L2ResTokenReq *), class Key>
static void token(const Value &arguments)
{
    const Value &fields = arguments.at("request");
    Key key{};
    std::string data;
    L2ResTokenReq request{};
    if (fields.contains("key")) {
        key = structureIn<Key>(fields["key"]);
        request.key = &key;
    }
    if (fields.contains("Stamp")) {
        request.Stamp = numberIn<u64>(fields, "Stamp");
        request.FwdType = numberIn<u16>(fields, "FwdType");
        request.dataLen = numberIn<u16>(fields, "dataLen");
    }
    if (fields.contains("data")) {
        data = bytesIn(fields, "data");
        if (data.size() != request.dataLen) {
            throw std::runtime_error("data is not of dataLen bytes");
        }
        request.data = data.data();
    }
    filled(crossing::table().*Position)(numberIn<u32>(arguments, "service"),
                                        numberIn<u32>(arguments, "op"),
                                        fields.is_null() ? nullptr : &request);
}

static void assignVlan(const Value &arguments)
{
    const Value &fields = arguments.at("info");
    auto info = structureIn<VlanEditInfo>(fields);
    const bool place = !arguments.at("profile").is_null();
    u16 profile = place ? numberIn<u16>(arguments, "profile") : u16{0};
    filled(crossing::table().assignVlanEditProfile)(fields.is_null() ? nullptr : &info,
                                                    place ? &profile : nullptr,
                                                    numberIn<u32>(arguments, "flag"));
}

static void freeVlan(const Value &arguments)
{
    const Value &fields = arguments.at("info");
    auto info = structureIn<VlanEditInfo>(fields);
    filled(crossing::table().freeVlanEditProfile)(fields.is_null() ? nullptr : &info,
                                                  numberIn<u32>(arguments, "flag"));
}

static void checkAlarm(const Value &arguments)
{
    filled(crossing::table().exceedCheckAndAlarm)(numberIn<u32>(arguments, "type"));
}

static void init(const Value &arguments)
{
    FUNCTION(QorL2ResInit)
    (numberIn<u32>(arguments, "first"), numberIn<u32>(arguments, "second"),
     numberIn<u32>(arguments, "phase"));
}

static void icibGet(const Value &arguments)
{
    const Value &fields = arguments.at("key");
    const auto key = structureIn<L2ResIcibKey>(fields);
    std::array<L2ResQueryEntry, L2RES_QUERY_MAX> entries{};
    u16 count = 0;
    FUNCTION(QorL2ResIcibGet)(fields.is_null() ? nullptr : &key, entries.data(), &count);
}

static void dumpVlan(const Value &)
{
    FUNCTION(QorL2ResPrintVlanEditRes)();
}

static void patch(const Value &arguments)
{
    const std::string information =
        std::string(L2RES_PATCH_LIBRARY_OFFSET, '\0') + textIn(arguments, "library");
    u32 handled = 0;
    FUNCTION(libqor_l2rsm_PAT_C2HSyncHookFunc)
    (numberIn<u32>(arguments, "operation"), numberIn<u64>(arguments, "unused"), information.c_str(),
     &handled);
}

void play(const std::string &operation, const Value &arguments)
{
    using V = L2RsmFunVtbl;
    static const std::map<std::string_view, void (*)(const Value &)> operations = {
        {"QorL2ResInit", init},
        {"QorL2ResIcibGet", icibGet},
        {"QorL2ResPrintVlanEditRes", dumpVlan},
        {"libqor_l2rsm_PAT_C2HSyncHookFunc", patch},
        {"hookRegister", hookRegister},
        {"icibRegister", tableRegister<&V::icibRegister>},
        {"getIcibToken", token<&V::getIcibToken, L2ResIcibKey>},
        {"freeIcibToken", token<&V::freeIcibToken, L2ResIcibKey>},
        {"ecibRegister", tableRegister<&V::ecibRegister>},
        {"ipatRegister", tableRegister<&V::ipatRegister>},
        {"getIpatToken", token<&V::getIpatToken, L2ResIpatKey>},
        {"freeIpatToken", token<&V::freeIpatToken, L2ResIpatKey>},
        {"assignVlanEditProfile", assignVlan},
        {"freeVlanEditProfile", freeVlan},
        {"notifyRegister", notifyRegister},
        {"exceedCheckAndAlarm", checkAlarm},
        {"tick", [](const Value &of) { crossing::playTick(numberIn<u32>(of, "period")); }},
        {"message", [](const Value &) { crossing::playMessage(); }},
    };
    const auto found = operations.find(operation);
    if (found == operations.end()) {
        throw std::runtime_error("unknown operation " + operation);
    }
    found->second(arguments);
}

} // namespace host
