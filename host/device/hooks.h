/* The hooks that the module is lent: what leads it to the simulated engine. Called on any thread. */
#ifndef HOST_HOOKS_H
#define HOST_HOOKS_H

#include "engine/engine.h"
#include "engine/vlan_engine.h"
#include "l2rsm_component.h"

namespace host {

class Hooks {
public:
    Hooks(const Engine &engine, VlanEngine &vlanEngine);

    /* Lends them through the module's table. Throws when one is refused. */
    void lend(const L2RsmFunVtbl &module);

private:
    template <u32 Type> static u32 countHook(u32 *total, u32 *used, u32 *idle);
    static u32 vlanHook(const VlanEditInfo *info, u16 profileId, u16 commandId, u32 flag);

    const Engine &engine_;
    VlanEngine &vlanEngine_;
};

} // namespace host

#endif
