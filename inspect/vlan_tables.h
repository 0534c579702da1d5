/* The module's tables of VLAN edits, where they stand in the module. */
#ifndef INSPECT_VLAN_TABLES_H
#define INSPECT_VLAN_TABLES_H

#include "inspect/symbols.h"
#include "l2rsm_vlan_edit.h"

namespace inspect {

/* Of one direction. The module does not guard them: not beside an assignment or release. */
struct VlanTables {
    const u32 *profiles;
    const VlanEditCommand *commands;
    const VlanEditMapping *mappings;
};

VlanTables vlanTables(const Symbols &module, u32 direction);

} // namespace inspect

#endif
