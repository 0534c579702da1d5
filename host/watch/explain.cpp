#include "watch/explain.h"

#include "l2rsm_registry.h"

namespace host {

/* ---- words ---- */

static std::string by(u32 type, u64 stamp)
{
    return " by type " + std::to_string(type) + ", stamp " + std::to_string(stamp);
}

/* "the add held by type 10, stamp 100"; a released record still stands for its last holder. */
static std::string describe(TokenTable table, const L2ResOpRecord &holder)
{
    const bool released = table == TokenTable::icib && holder.Used == 0;
    return std::string("the ") + opName(holder.Op) + (released ? " last made" : " held") +
           by(holder.SrvType, holder.Stamp) + (released ? " (released)" : "");
}

static std::string own(const L2ResOpRecord &holder)
{
    return std::string("the type's own ") + opName(holder.Op) + ", stamp " +
           std::to_string(holder.Stamp);
}

/* ---- arguments ---- */

/* In the order in which the module looks at them. */
static std::string argumentFault(const Asked &asked)
{
    if (!asked.request) {
        return "there is no request";
    }
    if (asked.service >= L2RES_SERVICE_COUNT) {
        return "service " + std::to_string(asked.service) + " is not 0 to 8";
    }
    if (asked.op < L2RES_OP_ADD || asked.op > L2RES_OP_DELETE) {
        return "operation " + std::to_string(asked.op) + " is not 1 to 3";
    }
    return asked.key ? "" : "the request has no key";
}

/* ---- the rules ---- */

enum class Stamp { older, equal, newer };

static Stamp compare(const Asked &asked, const L2ResOpRecord &holder)
{
    return asked.stamp < holder.Stamp    ? Stamp::older
           : asked.stamp == holder.Stamp ? Stamp::equal
                                         : Stamp::newer;
}

/* What a rule decides, and its reason behind "add by type 30, stamp 50, ". */
struct Decision {
    enum class Kind { grant, refuse, wait, repeat, nothing } kind;
    std::string reason{};
};
using Outcome = Decision::Kind;

static Decision notNewer(const std::string &than)
{
    return {Outcome::refuse, "is not newer than " + than};
}

static Decision otherType(const Asked &asked, const L2ResOpRecord &holder)
{
    const std::string held = describe(asked.table, holder);
    if (asked.op == L2RES_OP_ADD && compare(asked, holder) != Stamp::newer) {
        return notNewer(held);
    }
    return {Outcome::wait, "waits for " + held};
}

static Decision ownType(const Asked &asked, const L2ResOpRecord &holder)
{
    const Stamp stamp = compare(asked, holder);
    const Decision repeat = {Outcome::repeat,
                             "repeats " + own(holder) + ": nothing to do, the stamp is taken over"};
    switch (asked.op * 4 + (holder.Op <= L2RES_OP_DELETE ? holder.Op : 0U)) {
    case L2RES_OP_ADD * 4 + L2RES_OP_ADD:
    case L2RES_OP_DELETE * 4 + L2RES_OP_DELETE:
        return repeat;
    case L2RES_OP_ADD * 4 + L2RES_OP_UPDATE: // the update presupposes an add before it
        if (stamp != Stamp::older) {
            return {Outcome::refuse, "is not older than " + own(holder)};
        }
        return {Outcome::grant};
    case L2RES_OP_UPDATE * 4 + L2RES_OP_UPDATE:
        return {Outcome::grant};
    case L2RES_OP_ADD * 4 + L2RES_OP_DELETE:
    case L2RES_OP_DELETE * 4 + L2RES_OP_ADD:
    case L2RES_OP_DELETE * 4 + L2RES_OP_UPDATE:
    case L2RES_OP_UPDATE * 4 + L2RES_OP_ADD:
        return stamp == Stamp::newer ? Decision{Outcome::grant} : notNewer(own(holder));
    case L2RES_OP_UPDATE * 4 + L2RES_OP_DELETE:
        return stamp == Stamp::newer ? Decision{Outcome::wait, "waits for " + own(holder)}
                                     : notNewer(own(holder));
    default:
        return {Outcome::nothing, "meets a record of operation " + std::to_string(holder.Op) +
                                      ", which no rule knows: nothing is granted or recorded"};
    }
}

/* Nobody holds the entry: an add takes it, the others wait for somebody to add it. */
static Decision unheld(const Asked &asked)
{
    if (asked.op == L2RES_OP_ADD) {
        return {Outcome::grant};
    }
    return {Outcome::wait, "finds no holder and waits"};
}

/* ---- the answer ---- */

/* The tables answer alike but for what needs no work: ICIB says wait, IPAT proceed. */
static u32 answer(const Asked &asked, Outcome kind, bool held)
{
    switch (kind) {
    case Outcome::grant:
        return L2RES_TOKEN_PROCEED;
    case Outcome::refuse:
        return L2RES_TOKEN_REFUSED;
    case Outcome::wait:
        if (asked.op == L2RES_OP_UPDATE) {
            return held ? L2RES_TOKEN_PROCEED : L2RES_TOKEN_UPDATE_NO_ENTRY;
        }
        return L2RES_TOKEN_WAIT;
    case Outcome::repeat:
    case Outcome::nothing:
        break;
    }
    const bool proceeds = asked.table == TokenTable::ipat || asked.op == L2RES_OP_UPDATE;
    return proceeds ? L2RES_TOKEN_PROCEED : L2RES_TOKEN_WAIT;
}

Ruling ruleOn(const Asked &asked, const std::optional<L2ResOpRecord> &holder, std::size_t waiting)
{
    const std::string fault = argumentFault(asked);
    if (!fault.empty()) {
        return {.result = L2RES_TOKEN_REFUSED, .reason = fault};
    }
    const Decision decision = !holder                        ? unheld(asked)
                              : holder->SrvType != asked.fwd ? otherType(asked, *holder)
                                                             : ownType(asked, *holder);
    Ruling ruling{.result = answer(asked, decision.kind, holder.has_value())};
    const bool waits = decision.kind == Outcome::wait;
    // An ICIB update is the one request that finds nobody and leaves no record of itself.
    const bool leavesRecord =
        waits && !holder && !(asked.table == TokenTable::icib && asked.op == L2RES_OP_UPDATE);
    ruling.holds =
        decision.kind == Outcome::grant || decision.kind == Outcome::repeat || leavesRecord;
    ruling.waits = waits && waiting < L2RES_WAITERS_MAX;
    if (decision.kind == Outcome::grant ||
        (decision.kind == Outcome::repeat && ruling.result == L2RES_TOKEN_PROCEED)) {
        return ruling;
    }
    ruling.reason =
        std::string(opName(asked.op)) + by(asked.fwd, asked.stamp) + ", " + decision.reason;
    if (leavesRecord) {
        ruling.reason += "; the entry's record is its own now";
    }
    if (waits && ruling.result == L2RES_TOKEN_PROCEED) {
        ruling.reason += "; an update that waits is told 0, too";
    }
    if (waits && !ruling.waits) {
        ruling.reason += "; ten requests wait already, this one will not be notified";
    }
    return ruling;
}

} // namespace host
