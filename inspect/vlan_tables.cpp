#include "inspect/vlan_tables.h"

namespace inspect {

VlanTables vlanTables(const Symbols &module, u32 direction)
{
    const bool egress = direction == L2RES_VLAN_EGRESS;
    const auto symbol = [&](const char *ingressName, const char *egressName) {
        return module.symbol(egress ? egressName : ingressName);
    };
    return {static_cast<const u32 *>(symbol("g_iveEditProfileItem", "g_eveEditProfileItem")),
            static_cast<const VlanEditCommand *>(
                symbol("g_iveEditCommandInfo", "g_eveEditCommandInfo")),
            static_cast<const VlanEditMapping *>(
                symbol("g_iveEditCommandItem", "g_eveEditCommandItem"))};
}

} // namespace inspect
