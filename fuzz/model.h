/*
 * What the module keeps, as plain containers, and what an operation does to it. The model knows the
 * outcome tables, not how the module gets there: no locks, no nodes, no arbitration rules.
 *
 * One thread drives module and model. Foreign code that the module calls may call the module again;
 * the driver then tells the model of the inner operation first, in the order of their effects.
 */
#ifndef FUZZ_MODEL_H
#define FUZZ_MODEL_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "l2rsm_arbitration.h"

namespace model {

struct Record {
    u64 stamp;
    u32 op, type, used;
    bool operator==(const Record &) const = default;
};

/* What asking for a token leads to. */
struct Outcome {
    u32 result;
    Record record; /* the request's: replaces the holder's, or is what waits */
    bool stores = false;
    bool waits = false;
};

/* The complete outcome of a request, given the entry's holder. */
inline Outcome Judge(bool icib, u32 op, u16 type, u64 stamp, const std::optional<Record> &holder)
{
    const u32 code = !icib && op == L2RES_OP_UPDATE ? u32{L2RES_OP_ADD} : op;
    const Record granted = {stamp, code, type, icib ? 1u : 0u};
    const Record kept = {stamp, code, type, holder ? holder->used : 0};
    const Outcome grant = {0, granted, true};
    const Outcome refuse = {1, kept};
    if (!holder) {
        const Outcome waitForNobody[] = {{3, kept, !icib, true}, {4, kept, true, true}};
        return op == L2RES_OP_ADD ? grant : waitForNobody[op - L2RES_OP_UPDATE];
    }
    const bool newer = stamp > holder->stamp;
    const bool older = stamp < holder->stamp;
    const Outcome wait = {op == L2RES_OP_UPDATE ? 0u : 4u, kept, false, true};
    if (type != holder->type) {
        return op == L2RES_OP_ADD && !newer ? refuse : wait;
    }
    const Outcome repeat = {icib ? 4u : 0u, kept, true};
    const Outcome ifNewer = newer ? grant : refuse;
    const Outcome outcomes[3][3] = {
        /* holder: add, update, delete */
        {repeat, older ? grant : refuse, ifNewer}, /* add */
        {ifNewer, grant, newer ? wait : refuse},   /* update */
        {ifNewer, ifNewer, repeat},                /* delete */
    };
    return outcomes[op - 1][holder->op - 1];
}

struct Waiter {
    Record record;
    u32 service;
    std::string data;
};

/* Those who wait for one entry. */
struct List {
    std::vector<Waiter> waiters;
    int countdown = 0;
    bool young = false;     /* appeared during the walk under way, which may have met it */
    bool releasing = false; /* they are being notified, `told` of them so far */
    size_t told = 0;
    u32 lastResult = 0; /* of the notifications */
};

/* One of the two common tables; entries are named by the driver. */
struct CommonTable {
    bool icib;
    std::map<u32, Record> records;
    std::map<u32, List> lists;

    std::optional<Record> Holder(u32 entry) const
    {
        const auto record = records.find(entry);
        return record == records.end() ? std::nullopt : std::optional(record->second);
    }

    /* An outcome takes effect. An eleventh waiter is answered, but not recorded. */
    void Apply(u32 entry, u32 service, const Outcome &outcome, const std::string &data)
    {
        if (outcome.stores) {
            records[entry] = outcome.record;
        }
        if (!outcome.waits) {
            return;
        }
        List &list = lists[entry];
        if (list.waiters.empty()) {
            list.countdown = icib ? 3 : 0;
            list.young = true;
        }
        if (list.waiters.size() < L2RES_WAITERS_MAX) {
            list.waiters.push_back({outcome.record, service, data});
        }
    }

    /* The token of an entry is freed: is anybody told? */
    bool Free(u32 entry, u32 op)
    {
        const bool held = records.count(entry) != 0;
        if (icib && !held) {
            return false;
        }
        if (icib && (op == L2RES_OP_ADD || op == L2RES_OP_UPDATE)) {
            records[entry].used = 0;
        } else {
            records.erase(entry);
        }
        const auto list = lists.find(entry);
        return list != lists.end() && !list->second.releasing;
    }

    /* The notifications of an entry are over. */
    void Released(u32 entry)
    {
        List &list = lists[entry];
        list.releasing = false;
        list.told = 0;
        if (icib) {
            list.waiters.clear();
        } else if (list.waiters.size() < L2RES_WAITERS_MAX) {
            list.waiters.pop_back();
        }
        if (list.waiters.empty()) {
            lists.erase(entry);
        }
    }
};

} // namespace model

#endif
