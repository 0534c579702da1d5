#include "watch/ledger.h"

#include <algorithm>

namespace host {

constexpr std::size_t waitersKept = 65536; // times of requests; the oldest go first

/* ---- around a call ---- */

Ledger::Before Ledger::lookBefore(const Asked &asked, const void *key) const
{
    if (key == nullptr) {
        return {asked, {}, ruleOn(asked, std::nullopt, 0)};
    }
    const auto holder = inspector_.holder(asked.table, key);
    const auto waiting = inspector_.waiters(asked.table, key).size();
    return {asked, copyKey(asked.table, key), ruleOn(asked, holder, waiting)};
}

void Ledger::lookAfter(const Before &before, u32 result)
{
    const Ruling &ruling = before.ruling;
    if (ruling.result == result) {
        if (ruling.holds) {
            keepHolder(before, {before.asked.table, keyText(before.key)});
        }
        if (ruling.waits) {
            keepWaiter(before);
        }
        if (!ruling.reason.empty()) {
            journal_.writeReason(ruling.reason);
        }
    } else if (result != L2RES_TOKEN_PROCEED) {
        journal_.writeReason("another thread changed the entry while this was judged");
    }
}

static bool same(const L2ResOpRecord &a, const L2ResOpRecord &b)
{
    return a.Stamp == b.Stamp && a.Op == b.Op && a.SrvType == b.SrvType;
}

static const void *address(const EntryKey &key)
{
    return std::visit([](const auto &one) -> const void * { return &one; }, key);
}

void Ledger::keepHolder(const Before &before, const Name &name)
{
    // As the module has it: an IPAT update is recorded as an add.
    const auto record = inspector_.holder(name.first, address(before.key));
    const DeviceTime now = journal_.clock().now();
    std::lock_guard lock(mutex_);
    if (record && record->Stamp == before.asked.stamp && record->SrvType == before.asked.fwd) {
        holders_[name] = {*record, {before.asked.service, now}};
    } else if (!record) {
        holders_.erase(name);
    }
}

void Ledger::keepWaiter(const Before &before)
{
    const auto waiters = inspector_.waiters(before.asked.table, address(before.key));
    const DeviceTime now = journal_.clock().now();
    std::lock_guard lock(mutex_);
    // The latest that fits; it is gone when it has been notified meanwhile.
    const auto mine =
        std::find_if(waiters.rbegin(), waiters.rend(), [&](const L2ResWaiter &waiter) {
            return waiter.srvType == before.asked.service &&
                   waiter.op.Stamp == before.asked.stamp && waiter.op.SrvType == before.asked.fwd &&
                   !wasNotified(waiter);
        });
    if (mine != waiters.rend()) {
        waiters_[{before.asked.table, mine->serial}] = now;
    }
    if (waiters_.size() > waitersKept) {
        waiters_.erase(waiters_.begin());
    }
}

void Ledger::freed(TokenTable table, const void *key)
{
    if (paused_ == 0 && key != nullptr && !inspector_.holder(table, key)) {
        std::lock_guard lock(mutex_);
        holders_.erase({table, keyText(copyKey(table, key))});
    }
}

/* ---- what is known ---- */

std::optional<Ledger::Since> Ledger::holderSince(TokenTable table, const EntryKey &key,
                                                 const L2ResOpRecord &record) const
{
    std::lock_guard lock(mutex_);
    const auto held = holders_.find({table, keyText(key)});
    if (held == holders_.end() || !same(held->second.record, record)) {
        return std::nullopt;
    }
    return held->second.since;
}

std::optional<DeviceTime> Ledger::waiterSince(TokenTable table, const L2ResWaiter &waiter) const
{
    std::lock_guard lock(mutex_);
    const auto found = waiters_.find({table, waiter.serial});
    return found == waiters_.end() ? std::nullopt : std::optional(found->second);
}

} // namespace host
