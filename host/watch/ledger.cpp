#include "watch/ledger.h"

#include <algorithm>

namespace host {

using namespace crossing;

constexpr std::size_t waitersKept = 65536;

/* ---- around a call ---- */

void Ledger::pass(Passage &passage, const Next &next)
{
    const auto *token = std::get_if<Token>(&passage.event);
    const auto *notify = std::get_if<Notify>(&passage.event);
    if (paused_ != 0 || (token == nullptr && notify == nullptr)) {
        next();
    } else if (token == nullptr) {
        next();
        // Both records begin with the entry's key.
        if (notify->table == L2RES_TABLE_ICIB || notify->table == L2RES_TABLE_IPAT) {
            forgetTold(notify->table == L2RES_TABLE_ICIB ? TokenTable::icib : TokenTable::ipat,
                       notify->record);
        }
    } else if (token->get) {
        const Before before = lookBefore(*token);
        next();
        lookAfter(before, passage.code);
    } else {
        next();
        freed(token->table, token->request != nullptr ? token->request->key : nullptr);
    }
}

Ledger::Before Ledger::lookBefore(const Token &call) const
{
    const L2ResTokenReq *request = call.request;
    const void *key = request != nullptr ? request->key : nullptr;
    const Asked asked = {.table = call.table,
                         .service = call.service,
                         .op = call.op,
                         .request = request != nullptr,
                         .key = key != nullptr,
                         .fwd = request != nullptr ? request->FwdType : u16{0},
                         .stamp = request != nullptr ? request->Stamp : u64{0}};
    if (key == nullptr) {
        return {asked, {}, ruleOn(asked, std::nullopt, 0)};
    }
    const auto holder = inspector_.holder(asked.table, key);
    Ruling ruling = ruleOn(asked, holder, 0);
    if (ruling.waits) { // only then the number of those who wait matters
        ruling = ruleOn(asked, holder, inspector_.waiters(asked.table, key).size());
    }
    return {asked, copyKey(asked.table, key), ruling};
}

void Ledger::lookAfter(const Before &before, u32 result)
{
    const Ruling &ruling = before.ruling;
    if (ruling.result == result) {
        const Name name = {before.asked.table, keyText(before.key)};
        if (ruling.holds) {
            keepHolder(before, name);
        }
        if (ruling.waits) {
            keepWaiter(before, name);
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

void Ledger::keepWaiter(const Before &before, const Name &name)
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
    if (mine == waiters.rend()) {
        return;
    }
    waiterCount_ += waiters_[name].insert_or_assign(mine->serial, now).second;
    arrivals_.emplace_back(name, mine->serial);
    if (waiterCount_ > waitersKept) {
        forgetOldest();
    }
}

void Ledger::forgetOldest()
{
    for (bool forgotten = false; !forgotten; arrivals_.pop_front()) {
        const auto &[name, serial] = arrivals_.front();
        const auto entry = waiters_.find(name);
        forgotten = entry != waiters_.end() && entry->second.erase(serial) != 0;
        if (forgotten && entry->second.empty()) {
            waiters_.erase(entry);
        }
    }
    --waiterCount_;
}

/* Of the entry's requests stays who the module still keeps waiting. */
void Ledger::forgetTold(TokenTable table, const void *key)
{
    if (key == nullptr) {
        return;
    }
    const Name name = {table, keyText(copyKey(table, key))};
    if (std::lock_guard lock(mutex_); !waiters_.contains(name)) {
        return; // most releases: the module need not be asked
    }
    const auto left = inspector_.waiters(table, key);
    std::lock_guard lock(mutex_);
    const auto entry = waiters_.find(name);
    if (entry == waiters_.end()) {
        return;
    }
    waiterCount_ -= std::erase_if(entry->second, [&](const auto &kept) {
        return std::ranges::find(left, kept.first, &L2ResWaiter::serial) == left.end();
    });
    if (entry->second.empty()) {
        waiters_.erase(entry);
    }
    if (waiters_.empty()) {
        arrivals_.clear();
    } else if (arrivals_.size() > 2 * waitersKept) {
        std::erase_if(arrivals_, [&](const auto &arrival) {
            const auto found = waiters_.find(arrival.first);
            return found == waiters_.end() || !found->second.contains(arrival.second);
        });
    }
}

/* A token of the entry was freed. */
void Ledger::freed(TokenTable table, const void *key)
{
    forgetTold(table, key);
    if (key != nullptr && !inspector_.holder(table, key)) {
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

std::optional<DeviceTime> Ledger::waiterSince(const EntryState &entry,
                                              const L2ResWaiter &waiter) const
{
    std::lock_guard lock(mutex_);
    const auto waiters = waiters_.find({entry.table, keyText(entry.key)});
    if (waiters == waiters_.end()) {
        return std::nullopt;
    }
    const auto found = waiters->second.find(waiter.serial);
    return found == waiters->second.end() ? std::nullopt : std::optional(found->second);
}

} // namespace host
