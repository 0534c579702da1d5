#include "watch/lines.h"

#include <optional>

#include "device/module.h"
#include "inspect/records.h"
#include "l2rsm_entry.h"
#include "zir_memory.h"

namespace host {

using namespace crossing;

/* An event as the journal has it. Texts that are not the passage's own are literals. */
struct Line {
    Kind kind; // call, notify: a result follows
    std::string name;
    std::vector<Field> fields{};
    const char *(*meaning)(u32) = nullptr; // of the result
};

static const char *success(u32 code)
{
    return code == QOR_OK ? "" : "failed";
}

static std::vector<Field> joined(std::vector<Field> fields, const std::vector<Field> &more)
{
    fields.insert(fields.end(), more.begin(), more.end());
    return fields;
}

static std::string_view textOr(const char *text, std::string_view other)
{
    return text == nullptr ? other : text;
}

/* ---- into the module ---- */

static Line lineOf(const Phase &call)
{
    return {Kind::call, "module.init", {{"phase", call.phase}}, success};
}

static Line lineOf(const HookRegister &call)
{
    return {Kind::call, "engine.hook", {{"type", call.type}}, success};
}

static Line lineOf(const Register &call)
{
    std::vector<Field> fields = {{"service", call.service}};
    if (call.any) {
        fields.insert(fields.begin(), {"table", tableName(call.table)});
    }
    return {Kind::call, std::string(call.any ? "notify" : tableName(call.table)) + ".register",
            fields, success};
}

static const char *icibFreeMeaning(u32 code)
{
    return code == QOR_OK ? "freed" : "no such entry";
}

static const char *ipatFreeMeaning(u32 code)
{
    return code == QOR_OK ? "freed" : "freed, the last notification failed";
}

static std::vector<Field> keyOf(TokenTable table, const void *key)
{
    return key == nullptr              ? std::vector<Field>()
           : table == TokenTable::icib ? keyFields(*static_cast<const L2ResIcibKey *>(key))
                                       : keyFields(*static_cast<const L2ResIpatKey *>(key));
}

/* What was left null is left out. */
static Line lineOf(const Token &call)
{
    const L2ResTokenReq *request = call.request;
    Line line{Kind::call, std::string(tableName(call.table)) + ".", {{"service", call.service}}};
    line.name += call.get ? opName(call.op) : "free";
    line.meaning = call.get                         ? tokenMeaning
                   : call.table == TokenTable::icib ? icibFreeMeaning
                                                    : ipatFreeMeaning;
    if (!call.get) {
        line.fields.push_back({"op", opName(call.op)});
    } else if (request != nullptr) {
        line.fields.push_back({"fwd", request->FwdType});
        line.fields.push_back({"stamp", request->Stamp});
    }
    if (request != nullptr) {
        line.fields = joined(line.fields, keyOf(call.table, request->key));
    }
    if (call.get && request != nullptr && request->data != nullptr) {
        const auto *bytes = static_cast<const char *>(request->data);
        line.fields.push_back({"data", unpackData({bytes, request->dataLen})});
    }
    return line;
}

static std::vector<Field> editFields(const VlanEditInfo *info, u32 flag)
{
    return joined({{"direction", directionName(flag)}},
                  info == nullptr ? std::vector<Field>() : wordFields(*info));
}

static Line lineOf(const VlanAssign &call)
{
    return {Kind::call, "vlan.assign", editFields(call.info, call.flag), success};
}

static Line lineOf(const VlanRelease &call)
{
    return {Kind::call, "vlan.release", editFields(call.info, call.flag), success};
}

static Line lineOf(const AlarmCheck &call)
{
    const std::string_view name = engineTableName(call.type);
    return {Kind::call,
            "alarm.check",
            {name == "?" ? Field{"type", call.type} : Field{"type", name}},
            success};
}

static Line lineOf(const Query &call)
{
    return {Kind::call, "icib.show", keyOf(TokenTable::icib, call.key), success};
}

static Line lineOf(const VlanDump &)
{
    return {Kind::call, "vlan.dump", {}, success};
}

static Line lineOf(const Patch &call)
{
    return {Kind::call,
            "host.patch",
            {{"operation", call.code == L2RES_PATCH_ACTIVATE ? "activate" : "deactivate"},
             {"library", std::string_view(call.library)}},
            success};
}

/* ---- out of the module ---- */

static Field argument(const char *name, const char *text)
{
    return {name, textOr(text, "")};
}

static Field argument(const char *name, u64 number)
{
    return {name, number};
}

/* A service. */
static Line lineOf(const auto &call)
{
    Line line{Kind::service, call.operation};
    if constexpr (requires { call.each([](const char *, auto) {}); }) {
        call.each(
            [&](const char *name, auto value) { line.fields.push_back(argument(name, value)); });
    }
    if constexpr (requires { call.eachPlace([](const char *, auto &) {}); }) {
        call.eachPlace([&](const char *name, const auto &value) {
            line.fields.push_back(argument(name, value));
        });
    }
    return line;
}

static Line lineOf(const LogLine &call)
{
    const char *level = call.blackBox ? blackBoxLevelName(call.level) : debugLevelName(call.level);
    return {Kind::log,
            call.blackBox ? "blackbox" : "debuglog",
            {{"level", level}, {"module", call.id}, {"text", textOr(call.text, "")}}};
}

static Line lineOf(const CountHook &call)
{
    return {Kind::hook,
            "hook.count",
            {{"table", engineTableName(call.type)},
             {"total", *call.total},
             {"used", *call.used},
             {"idle", *call.idle}}};
}

static Line lineOf(const VlanHook &call)
{
    return {Kind::hook, "hook.vlan",
            joined(call.info == nullptr ? std::vector<Field>() : wordFields(*call.info),
                   {{"profile", call.profile}, {"command", call.command}, {"flag", call.flag}})};
}

static Line lineOf(const Notify &call)
{
    Line line{Kind::notify,
              "notify",
              {{"event", eventName(call.event)},
               {"table", tableName(call.table)},
               {"service", call.service}},
              [](u32) { return ""; }};
    // Both records begin with the entry's key.
    if (call.table == L2RES_TABLE_ICIB || call.table == L2RES_TABLE_IPAT) {
        const bool icib = call.table == L2RES_TABLE_ICIB;
        line.fields =
            joined(line.fields, keyOf(icib ? TokenTable::icib : TokenTable::ipat, call.record));
    }
    if (call.data != nullptr) {
        const auto *bytes = static_cast<const char *>(call.data);
        line.fields.push_back({"data", unpackData({bytes, ZIR_MemSize(call.data)})});
    }
    return line;
}

/* ---- all ---- */

template <class E> constexpr Kind kindOf()
{
    if constexpr (std::is_same_v<E, Notify>) {
        return Kind::notify;
    } else if constexpr (std::is_same_v<E, CountHook> || std::is_same_v<E, VlanHook>) {
        return Kind::hook;
    } else if constexpr (std::is_same_v<E, LogLine>) {
        return Kind::log;
    } else {
        return isInwards(E{}) ? Kind::call : Kind::service;
    }
}

static void tell(Journal &journal, const auto &event, Passage &passage, const Next &next)
{
    using E = std::remove_cvref_t<decltype(event)>;
    constexpr bool untold = std::is_same_v<E, Tick> || std::is_same_v<E, Message> ||
                            std::is_same_v<E, FindTable> || std::is_same_v<E, QueueCount> ||
                            std::is_same_v<E, QueueWrite>;
    const Kind kind = kindOf<E>();
    if (untold || !journal.isWanted(kind)) {
        next();
    } else if (kind == Kind::call || kind == Kind::notify) {
        const Line line = lineOf(event);
        const u64 number = journal.write(kind, line.name, std::span<const Field>(line.fields));
        next();
        journal.writeResult(number, line.name, passage.code, line.meaning(passage.code));
    } else {
        next();
        const Line line = lineOf(event); // with what was answered
        journal.write(kind, line.name, std::span<const Field>(line.fields), passage.code);
    }
}

void Lines::pass(Passage &passage, const Next &next)
{
    std::visit([&](const auto &event) { tell(journal_, event, passage, next); }, passage.event);
}

} // namespace host
