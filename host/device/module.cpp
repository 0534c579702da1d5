#include "device/module.h"

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

#include "crossing/crossing.h"
#include "l2rsm_entry.h"

namespace host {

/* ---- data ---- */

std::string packData(std::string_view data)
{
    const u16 length = static_cast<u16>(data.size());
    std::string packed(sizeof length, '\0');
    std::memcpy(packed.data(), &length, sizeof length);
    return packed.append(data);
}

std::string_view unpackData(std::string_view bytes)
{
    u16 length = 0;
    std::memcpy(&length, bytes.data(), std::min(sizeof length, bytes.size()));
    return bytes.size() == sizeof length + length ? bytes.substr(sizeof length) : bytes;
}

/* ---- start ---- */

template <class Function> static Function *function(const Module &module, const char *name)
{
    return reinterpret_cast<Function *>(module.symbol(name));
}
#define MODULE_FUNCTION(name) function<decltype(name)>(*this, #name)

void Module::start(const std::string &path)
{
    path_ = path;
    void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        throw std::runtime_error(std::string("cannot load the module: ") + dlerror());
    }
    crossing::setModule(handle);
    for (u32 phase : {L2RES_PHASE_INIT, L2RES_PHASE_START, L2RES_PHASE_PATCH}) {
        const u32 result = MODULE_FUNCTION(QorL2ResInit)(0, 0, phase);
        if (result != QOR_OK) {
            throw std::runtime_error("phase " + std::to_string(phase) +
                                     " of the module failed with " + std::to_string(result));
        }
    }
    table_ = &crossing::table();
}

void *Module::symbol(const char *name) const
{
    void *address = crossing::symbol(name);
    if (address == nullptr) {
        throw std::runtime_error(path_ + " has no " + name);
    }
    return address;
}

/* ---- calls ---- */

/* A position of the exported table, which a build may leave empty. */
template <class Operation> static Operation *filled(Operation *position, const std::string &name)
{
    if (position == nullptr) {
        throw std::runtime_error(name + ": this module has no such operation");
    }
    return position;
}

u32 Module::icibRegister(u32 service, L2ResNotifyCallback callback)
{
    return filled(table_->icibRegister, "icib.register")(service, callback);
}

u32 Module::ecibRegister(u32 service, L2ResNotifyCallback callback)
{
    return filled(table_->ecibRegister, "ecib.register")(service, callback);
}

u32 Module::ipatRegister(u32 service, L2ResNotifyCallback callback)
{
    return filled(table_->ipatRegister, "ipat.register")(service, callback);
}

u32 Module::notifyRegister(u32 tableId, u32 service, L2ResNotifyCallback callback)
{
    return filled(table_->notifyRegister, "notify.register")(tableId, service, callback);
}

using Token = u32 (*)(u32 service, u32 op, L2ResTokenReq *request);

static u32 callToken(Token operation, const TokenRequest &request, const char *name)
{
    L2ResTokenReq req{};
    req.Stamp = request.stamp;
    req.FwdType = request.fwd;
    req.key = request.table == TokenTable::icib ? static_cast<const void *>(&request.icib)
                                                : &request.ipat;
    req.dataLen = static_cast<u16>(request.data.size());
    req.data = request.data.empty() ? nullptr : request.data.data();
    return filled(operation, std::string(tableName(request.table)) + name)(request.service,
                                                                           request.op, &req);
}

u32 Module::getToken(const TokenRequest &request)
{
    const bool icib = request.table == TokenTable::icib;
    return callToken(icib ? table_->getIcibToken : table_->getIpatToken, request, ".add");
}

u32 Module::freeToken(const TokenRequest &request)
{
    const bool icib = request.table == TokenTable::icib;
    return callToken(icib ? table_->freeIcibToken : table_->freeIpatToken, request, ".free");
}

u32 Module::assignVlan(VlanEditInfo info, u16 *profileId, u32 direction)
{
    *profileId = L2RES_VLAN_NO_PROFILE; // the module writes it when it has selected one
    return filled(table_->assignVlanEditProfile, "vlan.assign")(&info, profileId, direction);
}

u32 Module::freeVlan(VlanEditInfo info, u32 direction)
{
    return filled(table_->freeVlanEditProfile, "vlan.release")(&info, direction);
}

u32 Module::checkAlarm(u32 alarmType)
{
    return filled(table_->exceedCheckAndAlarm, "alarm.check")(alarmType);
}

u32 Module::icibGet(const L2ResIcibKey &key, std::vector<L2ResQueryEntry> *entries)
{
    u16 count = 0;
    entries->resize(L2RES_QUERY_MAX);
    const u32 result = MODULE_FUNCTION(QorL2ResIcibGet)(&key, entries->data(), &count);
    entries->resize(result == QOR_OK ? count : 0);
    return result;
}

u32 Module::patch(u32 operation, const std::string &library, bool *handled)
{
    // The rest of a patch information record is the patch mechanism's own.
    std::array<char, 512> record{};
    std::strncpy(record.data() + L2RES_PATCH_LIBRARY_OFFSET, library.c_str(),
                 record.size() - L2RES_PATCH_LIBRARY_OFFSET - 1);
    u32 flag = 0;
    const u32 result =
        MODULE_FUNCTION(libqor_l2rsm_PAT_C2HSyncHookFunc)(operation, 0, record.data(), &flag);
    *handled = flag != 0;
    return result;
}

void Module::dumpVlan()
{
    MODULE_FUNCTION(QorL2ResPrintVlanEditRes)();
}

} // namespace host
