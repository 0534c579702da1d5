#include "device/hooks.h"

#include <stdexcept>
#include <string>

namespace host {

static Hooks *s_hooks; // hooks carry no context; there is one engine in the process

Hooks::Hooks(const Engine &engine, VlanEngine &vlanEngine)
    : engine_(engine), vlanEngine_(vlanEngine)
{
    s_hooks = this;
}

template <u32 Type> u32 Hooks::countHook(u32 *total, u32 *used, u32 *idle)
{
    const Counts counts = s_hooks->engine_.get(Type);
    *total = counts.total;
    *used = counts.used;
    *idle = counts.idle;
    return counts.result;
}

u32 Hooks::vlanHook(const VlanEditInfo *info, u16 profileId, u16 commandId, u32 flag)
{
    return s_hooks->vlanEngine_.program(info, profileId, commandId, flag);
}

void Hooks::lend(const L2RsmFunVtbl &module)
{
    const auto lend = [&](u32 type, auto hook) {
        if (module.hookRegister(type, reinterpret_cast<L2ResHook>(hook)) != QOR_OK) {
            throw std::runtime_error("the module refused hook " + std::to_string(type));
        }
    };
    lend(L2RES_HOOK_ICIB_PP, &countHook<L2RES_HOOK_ICIB_PP>);
    lend(L2RES_HOOK_ECIB, &countHook<L2RES_HOOK_ECIB>);
    lend(L2RES_HOOK_ECIB_EXT, &countHook<L2RES_HOOK_ECIB_EXT>);
    lend(L2RES_HOOK_LEM, &countHook<L2RES_HOOK_LEM>);
    lend(L2RES_HOOK_SEM, &countHook<L2RES_HOOK_SEM>);
    lend(L2RES_HOOK_VLAN_TRANSLATION, &vlanHook);
}

} // namespace host
