/*
 * Says beneath the result why a registration or a VLAN edit was refused. The tokens' reasons are the
 * ledger's.
 */
#ifndef HOST_REASONS_H
#define HOST_REASONS_H

#include "crossing/crossing.h"
#include "inspect/symbols.h"
#include "watch/journal.h"

namespace host {

class Reasons : public crossing::Listener {
public:
    Reasons(Journal &journal, const Symbols &module) : journal_(journal), module_(module)
    {
    }

    void pass(crossing::Passage &passage, const crossing::Next &next) override;

private:
    Journal &journal_;
    const Symbols &module_;
};

} // namespace host

#endif
