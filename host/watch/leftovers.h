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

#include "device/module.h"
#include "engine/vlan_engine.h"
#include "inspect/module_state.h"
#include "watch/ledger.h"

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

} // namespace host

#endif
