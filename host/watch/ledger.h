/*
 * The ledger: who asked for which entry, and when.
 *
 * The module's records name forwarding types and stamps; the ledger adds the service and the time
 * of each request that the module keeps, and explains each one that was refused or has to wait: one
 * line beneath the result. It looks at the module's own state right before and right after a call.
 * A waiting request is forgotten when it has been told, and beyond 65536 the oldest one.
 *
 * Threads: any.
 */
#ifndef HOST_LEDGER_H
#define HOST_LEDGER_H

#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "crossing/crossing.h"
#include "inspect/module_state.h"
#include "watch/explain.h"
#include "watch/journal.h"

namespace host {

class Ledger : public crossing::Listener {
public:
    Ledger(Journal &journal, const Inspector &inspector) : journal_(journal), inspector_(inspector)
    {
    }

    void pass(crossing::Passage &passage, const crossing::Next &next) override;

    struct Since {
        u32 service;
        DeviceTime at;
    };
    /* Of the request behind a record or a waiting request; none when it was not made here. */
    std::optional<Since> holderSince(TokenTable table, const EntryKey &key,
                                     const L2ResOpRecord &record) const;
    std::optional<DeviceTime> waiterSince(const EntryState &entry, const L2ResWaiter &waiter) const;

    /* While a Pause lives nothing is looked at or explained: for clients on many threads. */
    class Pause {
    public:
        explicit Pause(Ledger &ledger) : ledger_(ledger)
        {
            ++ledger_.paused_;
        }
        ~Pause()
        {
            --ledger_.paused_;
        }
        Pause(const Pause &) = delete;
        Pause &operator=(const Pause &) = delete;

    private:
        Ledger &ledger_;
    };

private:
    struct Before {
        Asked asked;
        EntryKey key;
        Ruling ruling;
    };
    struct Held {
        L2ResOpRecord record;
        Since since;
    };
    using Name = std::pair<TokenTable, std::string>; // of an entry

    Before lookBefore(const crossing::Token &call) const;
    void lookAfter(const Before &before, u32 result);
    void freed(TokenTable table, const void *key);
    void keepHolder(const Before &before, const Name &name);
    void keepWaiter(const Before &before, const Name &name);
    void forgetTold(TokenTable table, const void *key);
    void forgetOldest();

    Journal &journal_;
    const Inspector &inspector_;
    std::atomic<int> paused_ = 0;
    mutable std::mutex mutex_; // guards what follows; never held during a call or a look-up
    std::map<Name, Held> holders_;
    std::map<Name, std::map<u32, DeviceTime>> waiters_; // by the module's serial
    std::deque<std::pair<Name, u32>> arrivals_;         // of waiters, some of them forgotten
    std::size_t waiterCount_ = 0;
};

} // namespace host

#endif
