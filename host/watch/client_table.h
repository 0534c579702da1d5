/*
 * The module's table as a loaded component sees it.
 *
 * Same positions, same results; but what the component calls, and what the module calls in the
 * component, passes the journal like the calls and notifications of a script. A position that the
 * module leaves empty stays empty.
 *
 * Threads: the table may be used on any thread, as the module's own.
 */
#ifndef HOST_CLIENT_TABLE_H
#define HOST_CLIENT_TABLE_H

#include "crossing/journal.h"
#include "l2rsm_component.h"
#include "watch/ledger.h"
#include "watch/module.h"

namespace host {

/* There is one, for one module, journal and ledger; all outlive it. */
const L2RsmFunVtbl *clientTable(const Module &library, Journal &journal, Ledger &ledger);

} // namespace host

#endif
