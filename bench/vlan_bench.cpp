/* Assigning and releasing a VLAN edit profile. */
#include <cstring>

#include "bench.h"
#include "l2rsm_vlan_edit.h"

namespace bench {
namespace {

/* Requests that differ in their command, all of one service. */
VlanEditInfo InfoAt(u32 index)
{
    const auto action = [&index] {
        const u32 value = 1 + index % 4;
        index /= 4;
        return value;
    };
    VlanEditInfo info = {};
    info.servType = 7;
    info.tagFormat = 3;
    info.outerTag = action();
    info.innerTag = action();
    info.outerPri = action();
    info.innerPri = action();
    info.outerTpidAction = action();
    info.innerTpidAction = 1;
    return info;
}

u32 MappingsBooked()
{
    u32 booked = 0;
    for (const VlanEditMapping &mapping : g_iveEditCommandItem) {
        booked += mapping.tagFormat != 0;
    }
    return booked;
}

/* One more request than `others`, assigned and released again and again. */
void AssignAndRelease(benchmark::State &state, u32 others)
{
    const L2RsmFunVtbl &module = Module();
    u16 profile = 0;
    u64 refused = 0;
    for (u32 i = 1; i <= others; ++i) {
        VlanEditInfo other = InfoAt(i);
        refused += module.assignVlanEditProfile(&other, &profile, L2RES_VLAN_INGRESS);
    }
    VlanEditInfo info = InfoAt(0);
    const u64 before = g_translations;
    for (auto _ : state) {
        refused += module.assignVlanEditProfile(&info, &profile, L2RES_VLAN_INGRESS);
        refused += module.freeVlanEditProfile(&info, L2RES_VLAN_INGRESS);
    }
    Expect(state, "calls of the hook", g_translations - before,
           2 * static_cast<u64>(state.iterations()));
    Expect(state, "mappings booked by others", MappingsBooked(), others);
    for (u32 i = 1; i <= others; ++i) {
        VlanEditInfo other = InfoAt(i);
        refused += module.freeVlanEditProfile(&other, L2RES_VLAN_INGRESS);
    }
    Expect(state, "mappings left", MappingsBooked(), 0);
    Expect(state, "requests refused", refused, 0);
}

} // namespace

void AddVlan()
{
    Add("vlan/empty", [](benchmark::State &state) { AssignAndRelease(state, 0); });
    // 127 entries can be booked: the measured one takes the last.
    Add("vlan/full", [](benchmark::State &state) { AssignAndRelease(state, 126); });
}

} // namespace bench
