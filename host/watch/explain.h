/*
 * Why a request for a token got the answer it got.
 *
 * The arbitration rules once more, in words: from the request, the record of the entry's holder and
 * the number of requests that wait already, what the module answers and why. Pure functions; the
 * ledger compares the foretold answer with the module's, and says so when they differ.
 */
#ifndef HOST_EXPLAIN_H
#define HOST_EXPLAIN_H

#include <optional>
#include <string>

#include "inspect/words.h"
#include "l2rsm_arbitration.h"

namespace host {

using namespace inspect;

/* A request as it reached the module; what a component left null is absent. */
struct Asked {
    TokenTable table;
    u32 service = 0;
    u32 op = 0;
    bool request = true, key = true;
    u16 fwd = 0;
    u64 stamp = 0;
};

struct Ruling {
    u32 result = L2RES_TOKEN_PROCEED;
    bool holds = false;   // the request's record is the entry's from now on
    bool waits = false;   // it is recorded as waiting
    std::string reason{}; // "" for a request that was simply granted
};

/* waiting: requests in the entry's list before this one. */
Ruling ruleOn(const Asked &asked, const std::optional<L2ResOpRecord> &holder, std::size_t waiting);

} // namespace host

#endif
