#include "record/passages.h"

#include <array>
#include <cstring>

#include "zir_memory.h"

namespace host {

using namespace crossing;

template <class Record> static Value fieldsOrNull(const Record *record)
{
    return record == nullptr ? Value() : fieldsOf(*record);
}

/* ---- names ---- */

static const char *name(const Register &call)
{
    return call.any                         ? "notifyRegister"
           : call.table == L2RES_TABLE_ICIB ? "icibRegister"
           : call.table == L2RES_TABLE_ECIB ? "ecibRegister"
                                            : "ipatRegister";
}

static const char *name(const Token &call)
{
    const bool icib = call.table == TokenTable::icib;
    return call.get ? (icib ? "getIcibToken" : "getIpatToken")
                    : (icib ? "freeIcibToken" : "freeIpatToken");
}

static const char *name(const LogLine &line)
{
    return line.blackBox ? "blackbox.print" : "debuglog.print";
}

static const char *name(const auto &event)
{
    return event.operation;
}

const char *operationOf(const Event &event)
{
    return std::visit([](const auto &one) { return name(one); }, event);
}

/* ---- arguments ---- */

static Value valueOf(const char *text)
{
    return textOf(text == nullptr ? "" : text);
}

template <class Number> static Value valueOf(Number number)
{
    return number;
}

static Value arguments(const auto &event)
{
    Value out = Value::object();
    if constexpr (requires { event.each([](const char *, auto) {}); }) {
        event.each([&](const char *name, auto value) { out[name] = valueOf(value); });
    }
    return out;
}

static Value arguments(const Register &call)
{
    Value out = {{"service", call.service}, {"callback", call.some}};
    if (call.any) {
        out["table"] = call.table;
    }
    return out;
}

static Value keyOf(TokenTable table, const void *key)
{
    return table == TokenTable::icib ? fieldsOf(*static_cast<const L2ResIcibKey *>(key))
                                     : fieldsOf(*static_cast<const L2ResIpatKey *>(key));
}

/* Of a release the module reads the key alone; the rest need not even be initialised. */
static Value requestOf(const Token &call)
{
    const L2ResTokenReq *request = call.request;
    if (request == nullptr) {
        return nullptr;
    }
    Value out = Value::object();
    if (request->key != nullptr) {
        out["key"] = keyOf(call.table, request->key);
    }
    if (call.get) {
        out["Stamp"] = request->Stamp;
        out["FwdType"] = request->FwdType;
        out["dataLen"] = request->dataLen;
    }
    if (call.get && request->data != nullptr) {
        out["data"] = hexOf(request->data, request->dataLen);
    }
    return out;
}

static Value arguments(const Token &call)
{
    return {{"service", call.service}, {"op", call.op}, {"request", requestOf(call)}};
}

/* The module logs what it finds at the caller's place even when it puts nothing there. */
static Value arguments(const VlanAssign &call)
{
    return {{"info", fieldsOrNull(call.info)},
            {"profile", call.profile == nullptr ? Value() : Value(call.before)},
            {"flag", call.flag}};
}

static Value arguments(const VlanRelease &call)
{
    return {{"info", fieldsOrNull(call.info)}, {"flag", call.flag}};
}

static Value arguments(const Query &call)
{
    return {{"key", fieldsOrNull(call.key)}};
}

static Value arguments(const AlarmAttributes &call)
{
    Value out = {{"object", call.object}};
    if (call.attr != nullptr) {
        out["attr"] = fieldsOf(*call.attr);
        if (call.attr->time != nullptr) {
            out["time"] = hexOf(call.attr->time, sizeof *call.attr->time);
        }
    }
    return out;
}

static Value arguments(const AlarmParameter &call)
{
    Value out = {{"object", call.object}, {"type", call.type}, {"length", call.length}};
    if (call.value != nullptr) {
        out["value"] = hexOf(call.value, call.length);
    }
    return out;
}

static Value arguments(const LogLine &line)
{
    return {{"id", line.id}, {"level", line.level}, {"text", valueOf(line.text)}};
}

static Value arguments(const VlanHook &call)
{
    return {{"info", fieldsOrNull(call.info)},
            {"profile", call.profile},
            {"command", call.command},
            {"flag", call.flag}};
}

/* Key and waiters, as far as a callback may read: up to the notified service's own. */
template <class Record> static Value recordOf(const Notify &call)
{
    const auto &reOp = *static_cast<const Record *>(call.record);
    Value waiters = Value::array();
    for (const L2ResWaiter &entry : reOp.waiters.entry) {
        Value waiter = fieldsOf(entry.op);
        waiter["service"] = entry.srvType;
        waiters.push_back(std::move(waiter));
        if (entry.srvType == call.service && entry.data == call.data) {
            break;
        }
    }
    return {{"key", fieldsOf(reOp.key)}, {"waiters", waiters}};
}

static Value arguments(const Notify &call)
{
    Value out = {{"table", call.table}, {"service", call.service}, {"event", call.event}};
    if (call.record != nullptr && call.table == L2RES_TABLE_ICIB) {
        out["record"] = recordOf<L2ResIcibReOpRecord>(call);
    } else if (call.record != nullptr && call.table == L2RES_TABLE_IPAT) {
        out["record"] = recordOf<L2ResIpatReOpRecord>(call);
    }
    if (call.data != nullptr) {
        const u64 size = ZIR_MemSize(call.data);
        out["data"] = size != 0 ? hexOf(call.data, size) : "not of the module's memory";
    }
    return out;
}

Value argumentsOf(const Event &event)
{
    return std::visit([](const auto &one) { return arguments(one); }, event);
}

/* ---- results and answers ---- */

/* visit(name, place) for what comes beside the code. */
static void eachPlace(const auto &event, auto visit)
{
    if constexpr (requires { event.eachPlace(visit); }) {
        event.eachPlace(visit);
    }
}

static Value results(const auto &event, u32 code)
{
    Value out = {{"code", code}};
    eachPlace(event, [&](const char *name, auto &place) { out[name] = place; });
    return out;
}

static Value results(const VlanAssign &call, u32 code)
{
    return {{"code", code}, {"profile", call.profile == nullptr ? Value() : Value(*call.profile)}};
}

static Value results(const Query &call, u32 code)
{
    Value out = {{"code", code}};
    if (code == QOR_OK) {
        out["entries"] = Value::array();
        for (u16 i = 0; i < *call.count; ++i) {
            out["entries"].push_back(fieldsOf(call.entries[i]));
        }
    }
    return out;
}

static Value results(const VlanDump &, u32)
{
    return Value::object();
}

static Value results(const Tick &, u32)
{
    return Value::object();
}

static Value results(const Patch &call, u32 code)
{
    return {{"code", code}, {"handled", *call.handled}};
}

static Value results(const SysTime &call, u32 code)
{
    return {{"code", code}, {"time", hexOf(call.now, sizeof *call.now)}};
}

static Value results(const QueueCount &, u32 code)
{
    return {{"count", code}};
}

Value resultsOf(const Passage &passage)
{
    return std::visit([&](const auto &event) { return results(event, passage.code); },
                      passage.event);
}

static u32 readAnswer(const auto &event, const Value &recorded)
{
    eachPlace(event, [&](const char *name, auto &place) {
        place = numberIn<std::remove_reference_t<decltype(place)>>(recorded, name);
    });
    return numberIn<u32>(recorded, "code");
}

static u32 readAnswer(const SysTime &call, const Value &recorded)
{
    const std::string bytes = bytesIn(recorded, "time");
    if (bytes.size() != sizeof *call.now) {
        throw std::runtime_error("time is not of 20 bytes");
    }
    std::memcpy(call.now, bytes.data(), sizeof *call.now);
    return numberIn<u32>(recorded, "code");
}

static u32 readAnswer(const QueueCount &, const Value &recorded)
{
    return numberIn<u32>(recorded, "count");
}

void answer(Passage &passage, const Value &recorded)
{
    passage.code =
        std::visit([&](const auto &event) { return readAnswer(event, recorded); }, passage.event);
}

} // namespace host
