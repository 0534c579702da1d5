#include "device/hooks.h"

#include <stdexcept>
#include <string>

#include "inspect/words.h"

namespace host {

static Hooks *s_hooks; // hooks carry no context; there is one engine in the process

Hooks::Hooks(Journal &journal, const Engine &engine, VlanEngine &vlanEngine)
    : journal_(journal), engine_(engine), vlanEngine_(vlanEngine)
{
    s_hooks = this;
}

u32 Hooks::report(u32 type, u32 *total, u32 *used, u32 *idle)
{
    const Counts counts = engine_.get(type);
    *total = counts.total;
    *used = counts.used;
    *idle = counts.idle;
    journal_.write(Kind::hook, "hook.count",
                   {{"table", engineTableName(type)},
                    {"total", counts.total},
                    {"used", counts.used},
                    {"idle", counts.idle}},
                   counts.result);
    return counts.result;
}

template <u32 Type> u32 Hooks::countHook(u32 *total, u32 *used, u32 *idle)
{
    return s_hooks->report(Type, total, used, idle);
}

u32 Hooks::vlanHook(const VlanEditInfo *info, u16 profileId, u16 commandId, u32 flag)
{
    const u32 result = s_hooks->vlanEngine_.program(info, profileId, commandId, flag);
    s_hooks->journal_.write(Kind::hook, "hook.vlan",
                            {{"service", info->servType},
                             {"format", info->tagFormat},
                             {"outer_tag", info->outerTag},
                             {"inner_tag", info->innerTag},
                             {"outer_pri", info->outerPri},
                             {"inner_pri", info->innerPri},
                             {"outer_tpid", info->outerTpid},
                             {"inner_tpid", info->innerTpid},
                             {"outer_tpid_action", info->outerTpidAction},
                             {"inner_tpid_action", info->innerTpidAction},
                             {"profile", profileId},
                             {"command", commandId},
                             {"flag", flag}},
                            result);
    return result;
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
