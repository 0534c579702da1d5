#include "watch/module.h"

#include <dlfcn.h>

#include <array>
#include <cstring>
#include <span>
#include <stdexcept>

#include "comp_registry.h"
#include "crossing/boundary.h"
#include "inspect/words.h"
#include "watch/ledger.h"
#include "watch/leftovers.h"
#include "watch/notifications.h"

namespace host {

static const char *successMeaning(u32 result)
{
    return result == QOR_OK ? "" : "failed";
}

/* ---- start ---- */

void Module::start(const std::string &path)
{
    path_ = path;
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        throw std::runtime_error(std::string("cannot load the module: ") + dlerror());
    }
    boundary::setModule(handle_);
    const auto init = reinterpret_cast<decltype(&QorL2ResInit)>(symbol("QorL2ResInit"));
    for (u32 phase : {L2RES_PHASE_INIT, L2RES_PHASE_START, L2RES_PHASE_PATCH}) {
        const std::array<Field, 1> fields = {{{"phase", phase}}};
        const u32 result =
            traced("module.init", fields, successMeaning, [&] { return init(0, 0, phase); });
        if (result != QOR_OK) {
            throw std::runtime_error("phase " + std::to_string(phase) +
                                     " of the module failed with " + std::to_string(result));
        }
    }
    void *table = nullptr;
    if (COMP_GetVTable(L2RES_COMPONENT_ID, L2RES_IID_FUNCTIONS, &table) != QOR_OK) {
        throw std::runtime_error("the module did not register component 3008");
    }
    table_ = static_cast<const L2RsmFunVtbl *>(table);
}

void *Module::symbol(const char *name) const
{
    void *address = dlsym(handle_, name);
    if (address == nullptr) {
        throw std::runtime_error(path_ + " has no " + name);
    }
    void *recorded = boundary::replacement(name);
    return recorded != nullptr ? recorded : address;
}

/* ---- calls ---- */

template <class Operation>
u32 Module::traced(const char *name, std::span<const Field> fields, const char *(*meaning)(u32),
                   Operation operation)
{
    const u64 number = journal_.write(Kind::call, name, fields);
    const u32 result = operation();
    journal_.writeResult(number, name, result, meaning(result));
    return result;
}

/* A position of the exported table, which a build may leave empty. */
template <class Operation> static Operation *filled(Operation *position, const char *name)
{
    if (position == nullptr) {
        throw std::runtime_error(std::string(name) + ": this module has no such operation");
    }
    return position;
}

u32 Module::registered(u32 table, u32 service, u32 result)
{
    if (result != QOR_OK) {
        journal_.writeReason(explainRegistration(table, service));
    }
    return result;
}

u32 Module::icibRegister(u32 service)
{
    const auto operation = filled(table_->icibRegister, "icib.register");
    const std::array<Field, 1> fields = {{{"service", service}}};
    const u32 result = traced("icib.register", fields, successMeaning, [&] {
        return operation(service, Notifications::callback(L2RES_TABLE_ICIB, service));
    });
    return registered(L2RES_TABLE_ICIB, service, result);
}

u32 Module::ecibRegister(u32 service)
{
    const auto operation = filled(table_->ecibRegister, "ecib.register");
    const std::array<Field, 1> fields = {{{"service", service}}};
    const u32 result = traced("ecib.register", fields, successMeaning, [&] {
        return operation(service, Notifications::callback(L2RES_TABLE_ECIB, service));
    });
    return registered(L2RES_TABLE_ECIB, service, result);
}

u32 Module::ipatRegister(u32 service)
{
    const auto operation = filled(table_->ipatRegister, "ipat.register");
    const std::array<Field, 1> fields = {{{"service", service}}};
    const u32 result = traced("ipat.register", fields, successMeaning, [&] {
        return operation(service, Notifications::callback(L2RES_TABLE_IPAT, service));
    });
    return registered(L2RES_TABLE_IPAT, service, result);
}

u32 Module::notifyRegister(u32 tableId, u32 service)
{
    const auto operation = filled(table_->notifyRegister, "notify.register");
    const std::array<Field, 2> fields = {{{"table", tableName(tableId)}, {"service", service}}};
    const u32 result = traced("notify.register", fields, successMeaning, [&] {
        return operation(tableId, service, Notifications::callback(tableId, service));
    });
    return registered(tableId, service, result);
}

/* ---- tokens ---- */

static const char *freeMeaning(u32 result)
{
    return result == QOR_OK ? "freed" : "no such entry";
}

static const char *ipatFreeMeaning(u32 result)
{
    return result == QOR_OK ? "freed" : "freed, the last notification failed";
}

static std::vector<Field> requestFields(const TokenRequest &request, bool get)
{
    std::vector<Field> fields = {{"service", request.service}};
    if (!get) {
        fields.push_back({"op", opName(request.op)});
    } else {
        fields.push_back({"fwd", request.fwd});
        fields.push_back({"stamp", request.stamp});
    }
    const auto key =
        request.table == TokenTable::icib ? keyFields(request.icib) : keyFields(request.ipat);
    fields.insert(fields.end(), key.begin(), key.end());
    if (!request.data.empty()) {
        // Without the length that packData put in front.
        fields.push_back({"data", std::string_view(request.data).substr(sizeof(u16))});
    }
    return fields;
}

u32 Module::token(const TokenRequest &request, bool get)
{
    const bool icib = request.table == TokenTable::icib;
    const std::string name =
        std::string(icib ? "icib." : "ipat.") + (get ? opName(request.op) : "free");
    const auto operation = filled(icib ? (get ? table_->getIcibToken : table_->freeIcibToken)
                                       : (get ? table_->getIpatToken : table_->freeIpatToken),
                                  name.c_str());
    L2ResTokenReq req{};
    req.Stamp = request.stamp;
    req.FwdType = request.fwd;
    req.key = icib ? static_cast<const void *>(&request.icib) : &request.ipat;
    req.dataLen = static_cast<u16>(request.data.size());
    req.data = request.data.empty() ? nullptr : request.data.data();
    const auto meaning = get ? tokenMeaning : icib ? freeMeaning : ipatFreeMeaning;
    const auto call = [&] {
        return traced(name.c_str(), requestFields(request, get), meaning,
                      [&] { return operation(request.service, request.op, &req); });
    };
    if (get) {
        return ledger_->get({.table = request.table,
                             .service = request.service,
                             .op = request.op,
                             .fwd = request.fwd,
                             .stamp = request.stamp},
                            req.key, call);
    }
    const u32 result = call();
    ledger_->freed(request.table, req.key);
    return result;
}

u32 Module::getToken(const TokenRequest &request)
{
    return token(request, true);
}

u32 Module::freeToken(const TokenRequest &request)
{
    return token(request, false);
}

u32 Module::icibGet(const L2ResIcibKey &key, std::vector<L2ResQueryEntry> *entries)
{
    const auto get = reinterpret_cast<decltype(&QorL2ResIcibGet)>(symbol("QorL2ResIcibGet"));
    u16 count = 0;
    entries->resize(L2RES_QUERY_MAX);
    const u32 result = traced("icib.show", keyFields(key), successMeaning,
                              [&] { return get(&key, entries->data(), &count); });
    entries->resize(result == QOR_OK ? count : 0);
    return result;
}

/* ---- alarms, patches ---- */

u32 Module::checkAlarm(u32 alarmType)
{
    const auto operation = filled(table_->exceedCheckAndAlarm, "alarm.check");
    const std::string_view name = engineTableName(alarmType);
    std::array<Field, 1> fields = {{{"type", alarmType}}};
    if (name != "?") {
        fields[0].value = name;
    }
    return traced("alarm.check", fields, successMeaning, [&] { return operation(alarmType); });
}

u32 Module::patch(u32 operation, const std::string &library, bool *handled)
{
    const auto hook = reinterpret_cast<decltype(&libqor_l2rsm_PAT_C2HSyncHookFunc)>(
        symbol("libqor_l2rsm_PAT_C2HSyncHookFunc"));
    // The rest of a patch information record is the patch mechanism's own.
    std::array<char, 512> record{};
    std::strncpy(record.data() + L2RES_PATCH_LIBRARY_OFFSET, library.c_str(),
                 record.size() - L2RES_PATCH_LIBRARY_OFFSET - 1);
    u32 flag = 0;
    const std::array<Field, 2> fields = {
        {{"operation", operation == L2RES_PATCH_ACTIVATE ? "activate" : "deactivate"},
         {"library", std::string_view(library)}}};
    const u32 result = traced("host.patch", fields, successMeaning,
                              [&] { return hook(operation, 0, record.data(), &flag); });
    *handled = flag != 0;
    return result;
}

/* ---- VLAN edits ---- */

static std::vector<Field> vlanFields(const VlanEditInfo &info, u32 direction)
{
    return {{"direction", direction == L2RES_VLAN_EGRESS ? "egress" : "ingress"},
            {"service", info.servType},
            {"format", info.tagFormat},
            {"outer_tag", info.outerTag},
            {"inner_tag", info.innerTag},
            {"outer_pri", info.outerPri},
            {"inner_pri", info.innerPri},
            {"outer_tpid", info.outerTpid},
            {"inner_tpid", info.innerTpid},
            {"outer_tpid_action", info.outerTpidAction},
            {"inner_tpid_action", info.innerTpidAction}};
}

u32 Module::assignVlan(VlanEditInfo info, u16 *profileId, u32 direction)
{
    const auto operation = filled(table_->assignVlanEditProfile, "vlan.assign");
    *profileId = L2RES_VLAN_NO_PROFILE; // the module writes it when it has selected one
    const u32 result = traced("vlan.assign", vlanFields(info, direction), successMeaning,
                              [&] { return operation(&info, profileId, direction); });
    if (result != QOR_OK) {
        journal_.writeReason(explainAssign(&info, direction, *profileId));
    }
    return result;
}

u32 Module::freeVlan(VlanEditInfo info, u32 direction)
{
    const auto operation = filled(table_->freeVlanEditProfile, "vlan.release");
    const u32 result = traced("vlan.release", vlanFields(info, direction), successMeaning,
                              [&] { return operation(&info, direction); });
    if (result != QOR_OK) {
        journal_.writeReason(
            explainRelease(&info, direction, vlanTables(*this, direction), result));
    }
    return result;
}

void Module::dumpVlan()
{
    const auto dump =
        reinterpret_cast<decltype(&QorL2ResPrintVlanEditRes)>(symbol("QorL2ResPrintVlanEditRes"));
    traced("vlan.dump", {}, successMeaning, [&]() -> u32 {
        dump();
        return QOR_OK;
    });
}

} // namespace host
