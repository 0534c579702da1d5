/* What is called in the module: its table and its functions. */
#include <map>
#include <stdexcept>
#include <string_view>

#include "comp_registry.h"
#include "crossing/crossing.h"
#include "l2rsm_entry.h"

namespace host::crossing {

static const L2RsmFunVtbl *s_module; // its own table

template <class Function> static Function *own(const char *name)
{
    return reinterpret_cast<Function *>(ownSymbol(name));
}
#define OWN(function) own<decltype(function)>(#function)

/* ---- the exported table ---- */

static u32 hookRegister(u32 type, L2ResHook given)
{
    return pass(HookRegister{type, given != nullptr},
                [&] { return s_module->hookRegister(type, hook(type, given)); });
}

/* What a table has its own operation for. */
template <u32 Table, u32 (*L2RsmFunVtbl::*Position)(u32, L2ResNotifyCallback)>
static u32 tableRegister(u32 service, L2ResNotifyCallback given)
{
    return pass(Register{Table, service, given != nullptr, false},
                [&] { return (s_module->*Position)(service, callback(Table, service, given)); });
}

static u32 notifyRegister(u32 table, u32 service, L2ResNotifyCallback given)
{
    return pass(Register{table, service, given != nullptr, true}, [&] {
        return s_module->notifyRegister(table, service, callback(table, service, given));
    });
}

template <TokenTable Table, bool Get, u32 (*L2RsmFunVtbl::*Position)(u32, u32, L2ResTokenReq *)>
static u32 token(u32 service, u32 op, L2ResTokenReq *request)
{
    return pass(Token{Table, Get, service, op, request},
                [&] { return (s_module->*Position)(service, op, request); });
}

static u32 assignVlan(VlanEditInfo *info, u16 *profile, u32 flag)
{
    return pass(VlanAssign{info, profile, flag, profile != nullptr ? *profile : u16{0}},
                [&] { return s_module->assignVlanEditProfile(info, profile, flag); });
}

static u32 freeVlan(VlanEditInfo *info, u32 flag)
{
    return pass(VlanRelease{info, flag}, [&] { return s_module->freeVlanEditProfile(info, flag); });
}

static u32 checkAlarm(u32 type)
{
    return pass(AlarmCheck{type}, [&] { return s_module->exceedCheckAndAlarm(type); });
}

/* A position that the module leaves empty stays empty. */
template <class Operation> static Operation *unlessEmpty(Operation *position, Operation *wrapper)
{
    return position == nullptr ? nullptr : wrapper;
}

const L2RsmFunVtbl *exportedTable(const L2RsmFunVtbl *real)
{
    using V = L2RsmFunVtbl;
    constexpr auto icib = TokenTable::icib, ipat = TokenTable::ipat;
    static const L2RsmFunVtbl wrapped = [&] {
        s_module = real;
        return L2RsmFunVtbl{
            .queryInterface = real->queryInterface, // answers from constants
            .hookRegister = unlessEmpty(real->hookRegister, hookRegister),
            .icibRegister =
                unlessEmpty(real->icibRegister, tableRegister<L2RES_TABLE_ICIB, &V::icibRegister>),
            .getIcibToken = unlessEmpty(real->getIcibToken, token<icib, true, &V::getIcibToken>),
            .freeIcibToken =
                unlessEmpty(real->freeIcibToken, token<icib, false, &V::freeIcibToken>),
            .ecibRegister =
                unlessEmpty(real->ecibRegister, tableRegister<L2RES_TABLE_ECIB, &V::ecibRegister>),
            .ipatRegister =
                unlessEmpty(real->ipatRegister, tableRegister<L2RES_TABLE_IPAT, &V::ipatRegister>),
            .getIpatToken = unlessEmpty(real->getIpatToken, token<ipat, true, &V::getIpatToken>),
            .freeIpatToken =
                unlessEmpty(real->freeIpatToken, token<ipat, false, &V::freeIpatToken>),
            .assignVlanEditProfile = unlessEmpty(real->assignVlanEditProfile, assignVlan),
            .freeVlanEditProfile = unlessEmpty(real->freeVlanEditProfile, freeVlan),
            .notifyRegister = unlessEmpty(real->notifyRegister, notifyRegister),
            .exceedCheckAndAlarm = unlessEmpty(real->exceedCheckAndAlarm, checkAlarm),
        };
    }();
    return &wrapped;
}

const L2RsmFunVtbl &table()
{
    void *found = nullptr;
    if (COMP_GetVTable(L2RES_COMPONENT_ID, L2RES_IID_FUNCTIONS, &found) != QOR_OK) {
        throw std::runtime_error("the module did not register component 3008");
    }
    return *static_cast<const L2RsmFunVtbl *>(found);
}

/* ---- exported functions ---- */

static u32 init(u32 first, u32 second, u32 phase)
{
    return pass(Phase{first, second, phase},
                [&] { return OWN(QorL2ResInit)(first, second, phase); });
}

static u32 icibGet(const L2ResIcibKey *key, L2ResQueryEntry *entries, u16 *count)
{
    return pass(Query{key, entries, count},
                [&] { return OWN(QorL2ResIcibGet)(key, entries, count); });
}

static void dumpVlan()
{
    pass(VlanDump{}, []() -> u32 {
        OWN(QorL2ResPrintVlanEditRes)();
        return QOR_OK;
    });
}

static u32 patch(u32 operation, u64 unused, const void *information, u32 *handled)
{
    const char *library = static_cast<const char *>(information) + L2RES_PATCH_LIBRARY_OFFSET;
    return pass(Patch{operation, unused, library, handled}, [&] {
        return OWN(libqor_l2rsm_PAT_C2HSyncHookFunc)(operation, unused, information, handled);
    });
}

void *symbol(const char *name)
{
    // Never freed: a component's thread may come here until the process is gone.
    static const auto &functions = *new std::map<std::string_view, void *>{
        {"QorL2ResInit", reinterpret_cast<void *>(init)},
        {"QorL2ResIcibGet", reinterpret_cast<void *>(icibGet)},
        {"QorL2ResPrintVlanEditRes", reinterpret_cast<void *>(dumpVlan)},
        {"libqor_l2rsm_PAT_C2HSyncHookFunc", reinterpret_cast<void *>(patch)},
    };
    void *address = ownSymbol(name);
    const auto function = functions.find(name);
    return address == nullptr || function == functions.end() ? address : function->second;
}

} // namespace host::crossing
