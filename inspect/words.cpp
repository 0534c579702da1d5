#include "inspect/words.h"

#include <iterator>

#include "l2rsm_component.h"

namespace inspect {

const char *tableName(TokenTable table)
{
    return table == TokenTable::icib ? "icib" : "ipat";
}

const char *tableName(u32 table)
{
    static const char *const names[] = {"icib", "ecib", "none", "ipat", "lem", "sem"};
    return table < std::size(names) ? names[table] : "?";
}

const char *opName(u32 op)
{
    static const char *const names[] = {"none", "add", "update", "delete"};
    return op < std::size(names) ? names[op] : "?";
}

const char *eventName(u32 event)
{
    return event == L2RES_EVENT_ENTRY_FREE ? "free" : "idle";
}

const char *directionName(u32 direction)
{
    return direction == L2RES_VLAN_EGRESS ? "egress" : "ingress";
}

const char *debugLevelName(u32 level)
{
    static const char *const names[] = {"?", "?", "error", "warning", "info"};
    return level < std::size(names) ? names[level] : "?";
}

const char *blackBoxLevelName(u32 level)
{
    return level == 0 ? "event" : "error";
}

const char *tokenMeaning(u32 result)
{
    switch (result) {
    case L2RES_TOKEN_PROCEED:
        return "proceed";
    case L2RES_TOKEN_REFUSED:
        return "refused";
    case L2RES_TOKEN_UPDATE_NO_ENTRY:
        return "no entry, waiting";
    case L2RES_TOKEN_WAIT:
        return "wait";
    default:
        return "unknown result";
    }
}

const std::array<EngineTable, 5> engineTables = {{
    {"icib_pp", L2RES_HOOK_ICIB_PP, 581},
    {"ecib", L2RES_HOOK_ECIB, 587},
    {"ecib_ext", L2RES_HOOK_ECIB_EXT, 588},
    {"lem", L2RES_HOOK_LEM, 170},
    {"sem", L2RES_HOOK_SEM, 583},
}};

static const char *nameWhere(u32 EngineTable::*number, u32 value)
{
    for (const EngineTable &table : engineTables) {
        if (table.*number == value) {
            return table.name;
        }
    }
    return "?";
}

const char *engineTableName(u32 type)
{
    return nameWhere(&EngineTable::type, type);
}

const char *alarmTableName(u32 alarmCode)
{
    return nameWhere(&EngineTable::alarmCode, alarmCode);
}

} // namespace inspect
