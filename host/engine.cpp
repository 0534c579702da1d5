#include "engine.h"

#include <stdexcept>
#include <string>
#include <utility>

namespace host {

static Engine *s_engine; // hooks carry no context; there is one engine in the process

const char *engineTableName(u32 type)
{
    for (const EngineTable &table : engineTables) {
        if (table.type == type) {
            return table.name;
        }
    }
    return "?";
}

const char *alarmTableName(u32 alarmCode)
{
    for (const EngineTable &table : engineTables) {
        if (table.alarmCode == alarmCode) {
            return table.name;
        }
    }
    return "?";
}

Engine::Engine(Journal &journal) : journal_(journal)
{
    s_engine = this;
}

Counts Engine::get(u32 type) const
{
    std::lock_guard lock(mutex_);
    return counts_.at(type);
}

void Engine::set(u32 type, const Counts &counts)
{
    std::lock_guard lock(mutex_);
    counts_.at(type) = counts;
}

void Engine::setVlanTranslation(VlanTranslation translation)
{
    vlanTranslation_ = std::move(translation);
}

u32 Engine::report(u32 type, u32 *total, u32 *used, u32 *idle)
{
    const Counts counts = get(type);
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

template <u32 Type> u32 Engine::countHook(u32 *total, u32 *used, u32 *idle)
{
    return s_engine->report(Type, total, used, idle);
}

u32 Engine::vlanHook(const VlanEditInfo *info, u16 profileId, u16 commandId, u32 flag)
{
    const u32 result = s_engine->vlanTranslation_(*info, profileId, commandId, flag);
    s_engine->journal_.write(Kind::hook, "hook.vlan",
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

void Engine::lendHooks(const L2RsmFunVtbl &module)
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
    if (vlanTranslation_) {
        lend(L2RES_HOOK_VLAN_TRANSLATION, &vlanHook);
    }
}

} // namespace host
