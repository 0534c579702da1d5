#include "watch/client_table.h"

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <utility>

#include "engine/engine.h"
#include "watch/explain.h"
#include "watch/leftovers.h"
#include "watch/notifications.h"

namespace host {

static const Module *s_library; // functions of a C table carry no context
static const L2RsmFunVtbl *s_module;
static Journal *s_journal;
static Ledger *s_ledger;

template <class Operation>
static u32 traced(const char *name, const std::vector<Field> &fields, const char *(*meaning)(u32),
                  Operation operation)
{
    const u64 number = s_journal->write(Kind::call, name, std::span<const Field>(fields));
    const u32 result = operation();
    s_journal->writeResult(number, name, result, meaning(result));
    return result;
}

/* ---- callbacks into the component ---- */

constexpr u32 SERVICES = L2RES_SERVICE_COUNT;
constexpr u32 CELLS = L2RES_TABLE_COUNT * SERVICES;

static std::array<std::atomic<L2ResNotifyCallback>, CELLS> s_callbacks;

static std::vector<Field> recordKey(u32 table, const void *record)
{
    if (record != nullptr && table == L2RES_TABLE_ICIB) {
        return keyFields(static_cast<const L2ResIcibReOpRecord *>(record)->key);
    }
    if (record != nullptr && table == L2RES_TABLE_IPAT) {
        return keyFields(static_cast<const L2ResIpatReOpRecord *>(record)->key);
    }
    return {};
}

/* The data is the component's own, of a length only it knows. */
template <std::size_t Cell> static u32 cellCallback(u32 event, void *record, void *data)
{
    constexpr u32 table = Cell / SERVICES;
    std::vector<Field> fields = {{"event", event == L2RES_EVENT_ENTRY_FREE ? "free" : "idle"},
                                 {"table", tableName(table)},
                                 {"service", Cell % SERVICES}};
    const auto key = recordKey(table, record);
    fields.insert(fields.end(), key.begin(), key.end());
    const u64 number = s_journal->write(Kind::notify, "notify", std::span<const Field>(fields));
    const u32 result = s_callbacks[Cell].load()(event, record, data);
    s_journal->writeResult(number, "notify", result, "");
    return result;
}

template <std::size_t... Cell>
static constexpr std::array<L2ResNotifyCallback, CELLS> makeCallbacks(std::index_sequence<Cell...>)
{
    return {&cellCallback<Cell>...};
}

/* What to register instead. Null stays null: it silences. */
static L2ResNotifyCallback wrap(u32 table, u32 service, L2ResNotifyCallback callback)
{
    static constexpr auto wrappers = makeCallbacks(std::make_index_sequence<CELLS>());
    if (callback == nullptr || table >= L2RES_TABLE_COUNT || service >= SERVICES) {
        return callback; // numbers out of range the module refuses itself
    }
    const u32 cell = table * SERVICES + service;
    s_callbacks[cell] = callback;
    return wrappers[cell];
}

/* ---- registration ---- */

static const char *success(u32 result)
{
    return result == QOR_OK ? "" : "failed";
}

static u32 hookRegister(u32 hookType, L2ResHook hook)
{
    return traced("engine.hook", {{"type", hookType}}, success,
                  [&] { return s_module->hookRegister(hookType, hook); });
}

static u32 explained(u32 result, const std::function<std::string()> &reason)
{
    if (result != QOR_OK) {
        s_journal->writeReason(reason());
    }
    return result;
}

template <class Operation>
static u32 registered(const char *name, const std::vector<Field> &fields, u32 table, u32 service,
                      Operation operation)
{
    return explained(traced(name, fields, success, operation),
                     [&] { return explainRegistration(table, service); });
}

/* What a table has its own operation for. */
template <u32 Table, u32 (*L2RsmFunVtbl::*Position)(u32, L2ResNotifyCallback)>
static u32 tableRegister(u32 service, L2ResNotifyCallback callback)
{
    const std::string name = std::string(tableName(Table)) + ".register";
    return registered(name.c_str(), {{"service", service}}, Table, service, [&] {
        return (s_module->*Position)(service, wrap(Table, service, callback));
    });
}

static u32 notifyRegister(u32 table, u32 service, L2ResNotifyCallback callback)
{
    return registered(
        "notify.register", {{"table", tableName(table)}, {"service", service}}, table, service,
        [&] { return s_module->notifyRegister(table, service, wrap(table, service, callback)); });
}

/* ---- tokens ---- */

/* The fields of a request; what the component left null is left out. */
static std::vector<Field> requestFields(TokenTable table, bool get, u32 service, u32 op,
                                        const L2ResTokenReq *req)
{
    std::vector<Field> fields = {{"service", service}};
    if (!get) {
        fields.push_back({"op", opName(op)});
    } else if (req != nullptr) {
        fields.push_back({"fwd", req->FwdType});
        fields.push_back({"stamp", req->Stamp});
    }
    if (req != nullptr && req->key != nullptr) {
        const auto key = table == TokenTable::icib
                             ? keyFields(*static_cast<const L2ResIcibKey *>(req->key))
                             : keyFields(*static_cast<const L2ResIpatKey *>(req->key));
        fields.insert(fields.end(), key.begin(), key.end());
    }
    if (get && req != nullptr && req->data != nullptr) {
        fields.push_back(
            {"data", std::string_view(static_cast<const char *>(req->data), req->dataLen)});
    }
    return fields;
}

static const char *freeMeaning(u32 result)
{
    return result == QOR_OK ? "freed" : "failed";
}

template <TokenTable Table, bool Get> static u32 token(u32 service, u32 op, L2ResTokenReq *req)
{
    const auto operation = Table == TokenTable::icib
                               ? (Get ? s_module->getIcibToken : s_module->freeIcibToken)
                               : (Get ? s_module->getIpatToken : s_module->freeIpatToken);
    const std::string name =
        std::string(Table == TokenTable::icib ? "icib." : "ipat.") + (Get ? opName(op) : "free");
    const void *key = req != nullptr ? req->key : nullptr;
    const auto call = [&] {
        return traced(name.c_str(), requestFields(Table, Get, service, op, req),
                      Get ? tokenMeaning : freeMeaning,
                      [&] { return operation(service, op, req); });
    };
    if (Get) {
        return s_ledger->get({.table = Table,
                              .service = service,
                              .op = op,
                              .request = req != nullptr,
                              .key = key != nullptr,
                              .fwd = req != nullptr ? req->FwdType : u16{0},
                              .stamp = req != nullptr ? req->Stamp : u64{0}},
                             key, call);
    }
    const u32 result = call();
    s_ledger->freed(Table, key);
    return result;
}

/* ---- VLAN edits, alarms ---- */

static std::vector<Field> vlanFields(const VlanEditInfo *info, u32 flag)
{
    std::vector<Field> fields = {{"direction", flag == L2RES_VLAN_EGRESS ? "egress" : "ingress"}};
    if (info != nullptr) {
        fields.insert(fields.end(), {{"service", info->servType},
                                     {"format", info->tagFormat},
                                     {"outer_tag", info->outerTag},
                                     {"inner_tag", info->innerTag},
                                     {"outer_pri", info->outerPri},
                                     {"inner_pri", info->innerPri},
                                     {"outer_tpid", info->outerTpid},
                                     {"inner_tpid", info->innerTpid},
                                     {"outer_tpid_action", info->outerTpidAction},
                                     {"inner_tpid_action", info->innerTpidAction}});
    }
    return fields;
}

static u32 assignVlan(VlanEditInfo *info, u16 *profileId, u32 flag)
{
    u16 selected = L2RES_VLAN_NO_PROFILE; // the module writes it when it has selected one
    const u32 result = traced("vlan.assign", vlanFields(info, flag), success, [&] {
        return s_module->assignVlanEditProfile(info, profileId != nullptr ? &selected : nullptr,
                                               flag);
    });
    if (selected != L2RES_VLAN_NO_PROFILE) {
        *profileId = selected;
    }
    return explained(result, [&]() -> std::string {
        return info != nullptr && profileId == nullptr ? "there is no place for the profile id"
                                                       : explainAssign(info, flag, selected);
    });
}

static u32 freeVlan(VlanEditInfo *info, u32 flag)
{
    const u32 result = traced("vlan.release", vlanFields(info, flag), success,
                              [&] { return s_module->freeVlanEditProfile(info, flag); });
    return explained(
        result, [&] { return explainRelease(info, flag, vlanTables(*s_library, flag), result); });
}

static u32 checkAlarm(u32 type)
{
    return traced("alarm.check", {{"type", engineTableName(type)}}, success,
                  [&] { return s_module->exceedCheckAndAlarm(type); });
}

/* ---- the table ---- */

template <class Operation> static Operation *unlessEmpty(Operation *position, Operation *wrapper)
{
    return position == nullptr ? nullptr : wrapper;
}

const L2RsmFunVtbl *clientTable(const Module &library, Journal &journal, Ledger &ledger)
{
    // Once: threads of components loaded before read them.
    if (s_library == nullptr) {
        s_library = &library;
        s_module = &library.table();
        s_journal = &journal;
        s_ledger = &ledger;
    }
    const L2RsmFunVtbl &module = *s_module;
    static const L2RsmFunVtbl table = {
        .queryInterface = module.queryInterface,
        .hookRegister = unlessEmpty(module.hookRegister, hookRegister),
        .icibRegister = unlessEmpty(module.icibRegister,
                                    tableRegister<L2RES_TABLE_ICIB, &L2RsmFunVtbl::icibRegister>),
        .getIcibToken = unlessEmpty(module.getIcibToken, token<TokenTable::icib, true>),
        .freeIcibToken = unlessEmpty(module.freeIcibToken, token<TokenTable::icib, false>),
        .ecibRegister = unlessEmpty(module.ecibRegister,
                                    tableRegister<L2RES_TABLE_ECIB, &L2RsmFunVtbl::ecibRegister>),
        .ipatRegister = unlessEmpty(module.ipatRegister,
                                    tableRegister<L2RES_TABLE_IPAT, &L2RsmFunVtbl::ipatRegister>),
        .getIpatToken = unlessEmpty(module.getIpatToken, token<TokenTable::ipat, true>),
        .freeIpatToken = unlessEmpty(module.freeIpatToken, token<TokenTable::ipat, false>),
        .assignVlanEditProfile = unlessEmpty(module.assignVlanEditProfile, assignVlan),
        .freeVlanEditProfile = unlessEmpty(module.freeVlanEditProfile, freeVlan),
        .notifyRegister = unlessEmpty(module.notifyRegister, notifyRegister),
        .exceedCheckAndAlarm = unlessEmpty(module.exceedCheckAndAlarm, checkAlarm),
    };
    return &table;
}

} // namespace host
