/*
 * The simulated forwarding engine, as far as the module sees it through its hooks: five tables with
 * a capacity and a use. Scenarios set the counts; the module only asks.
 *
 * Threads: the hooks are called on any thread, also while the scenario sets the counts.
 */
#ifndef HOST_ENGINE_H
#define HOST_ENGINE_H

#include <array>
#include <functional>
#include <mutex>

#include "journal.h"
#include "l2rsm_component.h"

namespace host {

/* The alarm type of a table is the number of its count hook. */
struct EngineTable {
    const char *name;
    u32 type;
    u32 alarmCode;
};

inline constexpr std::array<EngineTable, 5> engineTables = {{
    {"icib_pp", L2RES_HOOK_ICIB_PP, 581},
    {"ecib", L2RES_HOOK_ECIB, 587},
    {"ecib_ext", L2RES_HOOK_ECIB_EXT, 588},
    {"lem", L2RES_HOOK_LEM, 170},
    {"sem", L2RES_HOOK_SEM, 583},
}};

/* "icib_pp" for type 0, for an alarm code 581; "?" for a number that is none. */
const char *engineTableName(u32 type);
const char *alarmTableName(u32 alarmCode);

struct Counts {
    u32 total = 4096;
    u32 used = 0;
    u32 idle = 4096;
    u32 result = 0; // of the hook; anything but 0 makes the module ignore the counts
};

class Engine {
public:
    using VlanTranslation =
        std::function<u32(const VlanEditInfo &info, u16 profileId, u16 commandId, u32 flag)>;

    explicit Engine(Journal &journal);

    Counts get(u32 type) const;
    void set(u32 type, const Counts &counts);

    /* What hook type 3 does. Set before the hooks are lent; without one the hook is not lent. */
    void setVlanTranslation(VlanTranslation translation);

    /* Lends the hooks to the module through its table. Throws when one is refused. */
    void lendHooks(const L2RsmFunVtbl &module);

private:
    template <u32 Type> static u32 countHook(u32 *total, u32 *used, u32 *idle);
    static u32 vlanHook(const VlanEditInfo *info, u16 profileId, u16 commandId, u32 flag);
    u32 report(u32 type, u32 *total, u32 *used, u32 *idle);

    Journal &journal_;
    mutable std::mutex mutex_;
    std::array<Counts, L2RES_HOOK_COUNT> counts_;
    VlanTranslation vlanTranslation_;
};

} // namespace host

#endif
