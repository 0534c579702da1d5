/*
 * What a session leaves behind in the module: tokens never freed and by whom, waiting requests that
 * nobody was told about, VLAN edits never released, memory not given back.
 */
#ifndef HOST_LEFTOVERS_H
#define HOST_LEFTOVERS_H

#include <array>
#include <set>
#include <string>
#include <vector>

#include "inspect.h"
#include "ledger.h"
#include "module.h"
#include "vlan_engine.h"

namespace host {

class Leftovers {
public:
    /* Remembers how the started module looks before anybody uses it. */
    void remember(const Module &module);

    /* One line each, none when nothing is left. On the scenario's thread. */
    std::vector<std::string> list(const Module &module, const Inspector &inspector,
                                  const Ledger &ledger) const;

private:
    std::array<std::set<u32>, 2> profiles_; // taken from the start: ingress, egress
};

/* The module's VLAN tables of a direction. */
VlanTables vlanTables(const Module &module, u32 direction);

} // namespace host

#endif
