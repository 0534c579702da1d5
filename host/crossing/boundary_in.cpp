/* What is called in the module: for each operation how it is recorded, and how it is played. */
#include <array>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>

#include "comp_registry.h"
#include "crossing/boundary.h"
#include "l2rsm_entry.h"

namespace host::boundary {

static const L2RsmFunVtbl *s_table; // the module's

/* Replay: the exported table, which is there once phase 1 is over. */
static const L2RsmFunVtbl &table()
{
    if (s_table == nullptr) {
        void *found = nullptr;
        if (COMP_GetVTable(L2RES_COMPONENT_ID, L2RES_IID_FUNCTIONS, &found) != QOR_OK) {
            throw std::runtime_error("the module did not register component 3008");
        }
        s_table = static_cast<const L2RsmFunVtbl *>(found);
    }
    return *s_table;
}

template <class Function> static Function *filled(Function *position)
{
    if (position == nullptr) {
        throw std::runtime_error("this module has no such operation");
    }
    return position;
}

template <class Function> static Function *own(const char *symbol)
{
    return reinterpret_cast<Function *>(moduleSymbol(symbol));
}
#define OWN(function) own<decltype(function)>(#function)

/* Records the call; `more` adds to the results what came beside the code. */
template <class Call, class More>
static u32 entered(const char *operation, const Value &arguments, Call call, More more)
{
    u32 code = QOR_FAIL;
    crossings().in(operation, arguments, [&] {
        code = call();
        Value results = {{"code", code}};
        more(results);
        return results;
    });
    return code;
}

template <class Call> static u32 entered(const char *operation, const Value &arguments, Call call)
{
    return entered(operation, arguments, call, [](Value &) {});
}

static Value codeOf(u32 code)
{
    return {{"code", code}};
}

/* ---- registration ---- */

static u32 hookRegister(u32 type, L2ResHook given)
{
    return entered("hookRegister", {{"type", type}, {"hook", given != nullptr}},
                   [&] { return s_table->hookRegister(type, hook(type, given)); });
}

static Value playHookRegister(const Value &arguments)
{
    const u32 type = numberIn<u32>(arguments, "type");
    const bool some = arguments.at("hook").get<bool>();
    return codeOf(filled(table().hookRegister)(type, some ? replayedHook(type) : nullptr));
}

using Register = u32 (*)(u32 service, L2ResNotifyCallback callback);

template <Register L2RsmFunVtbl::*Position, u32 Row>
static u32 registerIn(const char *operation, u32 service, L2ResNotifyCallback given)
{
    return entered(operation, {{"service", service}, {"callback", given != nullptr}},
                   [&] { return (s_table->*Position)(service, callback(Row, service, given)); });
}

template <Register L2RsmFunVtbl::*Position, u32 Row>
static Value playRegister(const Value &arguments)
{
    const u32 service = numberIn<u32>(arguments, "service");
    const bool some = arguments.at("callback").get<bool>();
    return codeOf(
        filled(table().*Position)(service, some ? replayedCallback(Row, service) : nullptr));
}

static u32 icibRegister(u32 service, L2ResNotifyCallback given)
{
    return registerIn<&L2RsmFunVtbl::icibRegister, L2RES_TABLE_ICIB>("icibRegister", service,
                                                                     given);
}

static u32 ecibRegister(u32 service, L2ResNotifyCallback given)
{
    return registerIn<&L2RsmFunVtbl::ecibRegister, L2RES_TABLE_ECIB>("ecibRegister", service,
                                                                     given);
}

static u32 ipatRegister(u32 service, L2ResNotifyCallback given)
{
    return registerIn<&L2RsmFunVtbl::ipatRegister, L2RES_TABLE_IPAT>("ipatRegister", service,
                                                                     given);
}

static u32 notifyRegister(u32 row, u32 service, L2ResNotifyCallback given)
{
    return entered(
        "notifyRegister", {{"table", row}, {"service", service}, {"callback", given != nullptr}},
        [&] { return s_table->notifyRegister(row, service, callback(row, service, given)); });
}

static Value playNotifyRegister(const Value &arguments)
{
    const u32 row = numberIn<u32>(arguments, "table");
    const u32 service = numberIn<u32>(arguments, "service");
    const bool some = arguments.at("callback").get<bool>();
    return codeOf(filled(table().notifyRegister)(row, service,
                                                 some ? replayedCallback(row, service) : nullptr));
}

/* ---- tokens ---- */

using Token = u32 (*)(u32 service, u32 op, L2ResTokenReq *req);

/* Of a release the module reads the key alone; the rest need not even be initialised. */
template <class Key> static Value requestOf(const L2ResTokenReq *req, bool get)
{
    if (req == nullptr) {
        return nullptr;
    }
    Value out = Value::object();
    if (req->key != nullptr) {
        out["key"] = fieldsOf(*static_cast<const Key *>(req->key));
    }
    if (get) {
        out["Stamp"] = req->Stamp;
        out["FwdType"] = req->FwdType;
        out["dataLen"] = req->dataLen;
    }
    if (get && req->data != nullptr) {
        out["data"] = hexOf(req->data, req->dataLen);
    }
    return out;
}

template <class Key> struct PlayedRequest {
    explicit PlayedRequest(const Value &fields)
    {
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
    }
    PlayedRequest(const PlayedRequest &) = delete;
    PlayedRequest &operator=(const PlayedRequest &) = delete;

    Key key{};
    std::string data;
    L2ResTokenReq request{};
};

template <class Key>
static u32 tokenIn(const char *operation, Token token, bool get, u32 service, u32 op,
                   L2ResTokenReq *req)
{
    return entered(operation,
                   {{"service", service}, {"op", op}, {"request", requestOf<Key>(req, get)}},
                   [&] { return token(service, op, req); });
}

template <Token L2RsmFunVtbl::*Position, class Key> static Value playToken(const Value &arguments)
{
    const Value &fields = arguments.at("request");
    PlayedRequest<Key> request(fields);
    return codeOf(filled(table().*Position)(numberIn<u32>(arguments, "service"),
                                            numberIn<u32>(arguments, "op"),
                                            fields.is_null() ? nullptr : &request.request));
}

static u32 getIcibToken(u32 service, u32 op, L2ResTokenReq *req)
{
    return tokenIn<L2ResIcibKey>("getIcibToken", s_table->getIcibToken, true, service, op, req);
}

static u32 freeIcibToken(u32 service, u32 op, L2ResTokenReq *req)
{
    return tokenIn<L2ResIcibKey>("freeIcibToken", s_table->freeIcibToken, false, service, op, req);
}

static u32 getIpatToken(u32 service, u32 op, L2ResTokenReq *req)
{
    return tokenIn<L2ResIpatKey>("getIpatToken", s_table->getIpatToken, true, service, op, req);
}

static u32 freeIpatToken(u32 service, u32 op, L2ResTokenReq *req)
{
    return tokenIn<L2ResIpatKey>("freeIpatToken", s_table->freeIpatToken, false, service, op, req);
}

/* ---- VLAN edits ---- */

static Value infoOf(const VlanEditInfo *info)
{
    return info == nullptr ? Value() : fieldsOf(*info);
}

/* The module logs what it finds at the caller's place even when it puts nothing there. */
static Value placeOf(const u16 *profileId)
{
    return profileId == nullptr ? Value() : Value(*profileId);
}

static u32 assignVlan(VlanEditInfo *info, u16 *profileId, u32 flag)
{
    return entered(
        "assignVlanEditProfile",
        {{"info", infoOf(info)}, {"profile", placeOf(profileId)}, {"flag", flag}},
        [&] { return s_table->assignVlanEditProfile(info, profileId, flag); },
        [&](Value &results) { results["profile"] = placeOf(profileId); });
}

static Value playAssignVlan(const Value &arguments)
{
    const Value &fields = arguments.at("info");
    auto info = structureIn<VlanEditInfo>(fields);
    const bool place = !arguments.at("profile").is_null();
    u16 profileId = place ? numberIn<u16>(arguments, "profile") : u16{0};
    u16 *const given = place ? &profileId : nullptr;
    Value results = codeOf(filled(table().assignVlanEditProfile)(
        fields.is_null() ? nullptr : &info, given, numberIn<u32>(arguments, "flag")));
    results["profile"] = placeOf(given);
    return results;
}

static u32 freeVlan(VlanEditInfo *info, u32 flag)
{
    return entered("freeVlanEditProfile", {{"info", infoOf(info)}, {"flag", flag}},
                   [&] { return s_table->freeVlanEditProfile(info, flag); });
}

static Value playFreeVlan(const Value &arguments)
{
    const Value &fields = arguments.at("info");
    auto info = structureIn<VlanEditInfo>(fields);
    return codeOf(filled(table().freeVlanEditProfile)(fields.is_null() ? nullptr : &info,
                                                      numberIn<u32>(arguments, "flag")));
}

static void dumpVlan()
{
    crossings().in("QorL2ResPrintVlanEditRes", Value::object(), [] {
        OWN(QorL2ResPrintVlanEditRes)();
        return Value::object();
    });
}

static Value playDumpVlan(const Value &)
{
    OWN(QorL2ResPrintVlanEditRes)();
    return Value::object();
}

/* ---- alarms, phases, queries, patches ---- */

static u32 exceedCheck(u32 type)
{
    return entered("exceedCheckAndAlarm", {{"type", type}},
                   [&] { return s_table->exceedCheckAndAlarm(type); });
}

static Value playExceedCheck(const Value &arguments)
{
    return codeOf(filled(table().exceedCheckAndAlarm)(numberIn<u32>(arguments, "type")));
}

static u32 init(u32 first, u32 second, u32 phase)
{
    return entered("QorL2ResInit", {{"first", first}, {"second", second}, {"phase", phase}},
                   [&] { return OWN(QorL2ResInit)(first, second, phase); });
}

static Value playInit(const Value &arguments)
{
    return codeOf(OWN(QorL2ResInit)(numberIn<u32>(arguments, "first"),
                                    numberIn<u32>(arguments, "second"),
                                    numberIn<u32>(arguments, "phase")));
}

static void addEntries(Value &results, const L2ResQueryEntry *entries, const u16 *count)
{
    if (results["code"] == QOR_OK) {
        results["entries"] = Value::array();
        for (u16 i = 0; i < *count; ++i) {
            results["entries"].push_back(fieldsOf(entries[i]));
        }
    }
}

static u32 icibGet(const L2ResIcibKey *key, L2ResQueryEntry *entries, u16 *count)
{
    return entered(
        "QorL2ResIcibGet", {{"key", key == nullptr ? Value() : fieldsOf(*key)}},
        [&] { return OWN(QorL2ResIcibGet)(key, entries, count); },
        [&](Value &results) { addEntries(results, entries, count); });
}

static Value playIcibGet(const Value &arguments)
{
    const Value &fields = arguments.at("key");
    const auto key = structureIn<L2ResIcibKey>(fields);
    std::array<L2ResQueryEntry, L2RES_QUERY_MAX> entries{};
    u16 count = 0;
    Value results =
        codeOf(OWN(QorL2ResIcibGet)(fields.is_null() ? nullptr : &key, entries.data(), &count));
    addEntries(results, entries.data(), &count);
    return results;
}

static u32 patch(u32 operation, u64 unused, const void *information, u32 *handled)
{
    const char *library = static_cast<const char *>(information) + L2RES_PATCH_LIBRARY_OFFSET;
    return entered(
        "libqor_l2rsm_PAT_C2HSyncHookFunc",
        {{"operation", operation}, {"unused", unused}, {"library", textOf(library)}},
        [&] {
            return OWN(libqor_l2rsm_PAT_C2HSyncHookFunc)(operation, unused, information, handled);
        },
        [&](Value &results) { results["handled"] = *handled; });
}

static Value playPatch(const Value &arguments)
{
    const std::string information =
        std::string(L2RES_PATCH_LIBRARY_OFFSET, '\0') + textIn(arguments, "library");
    u32 handled = 0;
    Value results = codeOf(OWN(libqor_l2rsm_PAT_C2HSyncHookFunc)(
        numberIn<u32>(arguments, "operation"), numberIn<u64>(arguments, "unused"),
        information.c_str(), &handled));
    results["handled"] = handled;
    return results;
}

/* ---- the exported table and functions, recorded ---- */

template <class Function> static Function *unlessEmpty(Function *position, Function *recorded)
{
    return position == nullptr ? nullptr : recorded;
}

const L2RsmFunVtbl *exportedTable(const L2RsmFunVtbl *real)
{
    s_table = real;
    static const L2RsmFunVtbl recorded = {
        .queryInterface = real->queryInterface, // answers from constants
        .hookRegister = unlessEmpty(real->hookRegister, hookRegister),
        .icibRegister = unlessEmpty(real->icibRegister, icibRegister),
        .getIcibToken = unlessEmpty(real->getIcibToken, getIcibToken),
        .freeIcibToken = unlessEmpty(real->freeIcibToken, freeIcibToken),
        .ecibRegister = unlessEmpty(real->ecibRegister, ecibRegister),
        .ipatRegister = unlessEmpty(real->ipatRegister, ipatRegister),
        .getIpatToken = unlessEmpty(real->getIpatToken, getIpatToken),
        .freeIpatToken = unlessEmpty(real->freeIpatToken, freeIpatToken),
        .assignVlanEditProfile = unlessEmpty(real->assignVlanEditProfile, assignVlan),
        .freeVlanEditProfile = unlessEmpty(real->freeVlanEditProfile, freeVlan),
        .notifyRegister = unlessEmpty(real->notifyRegister, notifyRegister),
        .exceedCheckAndAlarm = unlessEmpty(real->exceedCheckAndAlarm, exceedCheck),
    };
    return &recorded;
}

void *replacement(const char *symbol)
{
    // Never freed: a component's thread may come here until the process is gone.
    static const auto &functions = *new std::map<std::string_view, void *>{
        {"QorL2ResInit", reinterpret_cast<void *>(init)},
        {"QorL2ResIcibGet", reinterpret_cast<void *>(icibGet)},
        {"QorL2ResPrintVlanEditRes", reinterpret_cast<void *>(dumpVlan)},
        {"libqor_l2rsm_PAT_C2HSyncHookFunc", reinterpret_cast<void *>(patch)},
    };
    const auto found = functions.find(symbol);
    return mode() == Mode::record && found != functions.end() ? found->second : nullptr;
}

/* ---- play ---- */

Value play(const std::string &operation, const Value &arguments)
{
    static const std::map<std::string_view, Value (*)(const Value &)> operations = {
        {"QorL2ResInit", playInit},
        {"QorL2ResIcibGet", playIcibGet},
        {"QorL2ResPrintVlanEditRes", playDumpVlan},
        {"libqor_l2rsm_PAT_C2HSyncHookFunc", playPatch},
        {"hookRegister", playHookRegister},
        {"icibRegister", playRegister<&L2RsmFunVtbl::icibRegister, L2RES_TABLE_ICIB>},
        {"getIcibToken", playToken<&L2RsmFunVtbl::getIcibToken, L2ResIcibKey>},
        {"freeIcibToken", playToken<&L2RsmFunVtbl::freeIcibToken, L2ResIcibKey>},
        {"ecibRegister", playRegister<&L2RsmFunVtbl::ecibRegister, L2RES_TABLE_ECIB>},
        {"ipatRegister", playRegister<&L2RsmFunVtbl::ipatRegister, L2RES_TABLE_IPAT>},
        {"getIpatToken", playToken<&L2RsmFunVtbl::getIpatToken, L2ResIpatKey>},
        {"freeIpatToken", playToken<&L2RsmFunVtbl::freeIpatToken, L2ResIpatKey>},
        {"assignVlanEditProfile", playAssignVlan},
        {"freeVlanEditProfile", playFreeVlan},
        {"notifyRegister", playNotifyRegister},
        {"exceedCheckAndAlarm", playExceedCheck},
        {"tick", [](const Value &of) { return playTick(numberIn<u32>(of, "period")); }},
        {"message", [](const Value &) { return playMessage(); }},
    };
    const auto found = operations.find(operation);
    if (found == operations.end()) {
        throw std::runtime_error("unknown operation " + operation);
    }
    return found->second(arguments);
}

} // namespace host::boundary
