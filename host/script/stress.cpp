#include "script/stress.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <thread>

#include "hash_table.h"
#include "script/host.h"
#include "watch/progress.h"
#include "zir_memory.h"

namespace host {

namespace {

enum { ICIB, IPAT, TABLES };

/*
 * Requests a round may leave waiting at one entry. An eleventh would be answered but not recorded,
 * and IPAT waiters that have become ten are never taken off their list again.
 */
constexpr u32 waitBudget[TABLES] = {L2RES_WAITERS_MAX, L2RES_WAITERS_MAX - 1};

constexpr u32 ownKeys = 0x5354;     // keeps the keys apart from the scenario's
constexpr u64 messageBytes = 16;    // of the module's memory, for each message to its worker
constexpr u16 workerFwd = 99;       // the worker's callbacks ask under this type
constexpr u16 firstClientFwd = 100; // client 0's forwarding type
constexpr u32 maxNesting = 4;       // of requests made in callbacks
constexpr u32 requestsPerStep = 8;  // room for those, on average; further ones are left out

/* A round ends about when the entries cannot take more waiters. */
u32 stepsPerRound(const StressOptions &options)
{
    return 8 * options.keys;
}

struct Entry {
    std::atomic<u32> owner = 0; // forwarding type that was told to proceed
    std::atomic<u32> mayWait = 0;
};

/* A request of the current round, found by the data that it travels with. */
struct Request {
    u32 table = 0, key = 0;
    std::atomic<bool> waits = false;
    std::atomic<u32> notified = 0;
};

struct Data {
    u32 round, request, pattern;
};

struct Memory {
    u64 nodes, buffers, bytes; // bytes: of the partition, without the hash tables
};

struct Thread {
    u16 fwd = workerFwd;
    u32 nesting = 0;
    bool passive = false; // callbacks only take note
    std::minstd_rand random{1};

    u32 below(u32 limit)
    {
        return static_cast<u32>(random() % limit);
    }
    bool chance(u32 oneIn)
    {
        return below(oneIn) == 0;
    }
};
thread_local Thread t_thread;

class Stress {
public:
    Stress(Host &host, const StressOptions &options);
    StressReport run();

private:
    void round(u32 operations);
    void client(u32 index, u32 operations);
    void step(u32 service);
    void attempt(u32 table, u32 key, u32 service);
    bool holdsAfter(u32 table, u32 op, u32 result);
    void hold(u32 table, u32 key, u32 service);
    void query(u32 key);
    std::optional<u32> notified(u32 table, u32 service, u32 event, const void *record,
                                const void *data);
    std::vector<u32> freeServices() const;
    bool isOwnKey(u32 table, const void *record) const;
    u32 toldOf(Request &waiter, u32 table, u32 service);
    void checkRequests();
    void drain();
    bool takeOver(TokenRequest &request);
    Memory memory() const;
    Memory settledMemory() const;
    void checkMemory();

    TokenRequest request(u32 table, u32 key, u32 service, u32 op);
    u32 get(const TokenRequest &request);
    void violate(const std::string &text);
    std::string entryName(u32 table, u32 key) const;

    Host &host_;
    const StressOptions options_;
    std::vector<u32> services_; // the clients'
    std::array<std::vector<Entry>, TABLES> entries_;
    std::vector<Request> requests_;
    std::atomic<u32> requestCount_ = 0;
    std::atomic<u32> round_ = 0;
    std::atomic<u64> stamp_ = 1000000; // above what scenarios use
    std::atomic<bool> draining_ = false;
    Memory before_{};
    std::mutex violationMutex_;
    std::string violation_;
    std::atomic<bool> violated_ = false;
    std::atomic<u64> operations_ = 0, granted_ = 0, refused_ = 0, waited_ = 0, notifications_ = 0,
                     nested_ = 0, queries_ = 0;
};

Stress::Stress(Host &host, const StressOptions &options)
    : host_(host), options_(options), entries_{std::vector<Entry>(options.keys),
                                               std::vector<Entry>(options.keys)},
      requests_(static_cast<std::size_t>(requestsPerStep) * stepsPerRound(options) *
                options.clients)
{
    services_ = freeServices();
    services_.resize(std::min<std::size_t>(services_.size(), options.clients));
}

void Stress::violate(const std::string &text)
{
    std::lock_guard lock(violationMutex_);
    if (!violated_) {
        violation_ = text;
        violated_ = true;
    }
}

std::string Stress::entryName(u32 table, u32 key) const
{
    return std::string(table == ICIB ? "ICIB" : "IPAT") + " entry " + std::to_string(key);
}

/* ---- requests ---- */

/* Keys of one bucket and of different ones: the low ten bits repeat every fourth key. */
TokenRequest Stress::request(u32 table, u32 key, u32 service, u32 op)
{
    TokenRequest out{.table = table == ICIB ? TokenTable::icib : TokenTable::ipat,
                     .service = service,
                     .op = op,
                     .fwd = t_thread.fwd,
                     .stamp = ++stamp_};
    out.icib.keyType = ownKeys;
    out.icib.OutVlan = static_cast<u16>(key % 4);
    out.icib.keyAttr3 = key;
    out.ipat = {(ownKeys << 16) + key, key % 4};
    return out;
}

u32 Stress::get(const TokenRequest &request)
{
    ++operations_;
    const u32 result = host_.module.getToken(request);
    ++(result == L2RES_TOKEN_PROCEED   ? granted_
       : result == L2RES_TOKEN_REFUSED ? refused_
                                       : waited_);
    return result;
}

/* An add or update of an entry that this thread does not hold; what is granted is given back. */
void Stress::attempt(u32 table, u32 key, u32 service)
{
    Entry &entry = entries_[table][key];
    if (entry.mayWait.fetch_add(1) >= waitBudget[table]) {
        --entry.mayWait;
        query(key);
        return;
    }
    const u32 index = requestCount_++;
    if (index >= requests_.size()) {
        return;
    }
    requests_[index].table = table;
    requests_[index].key = key;
    const u32 op = t_thread.chance(4) ? L2RES_OP_UPDATE : L2RES_OP_ADD;
    TokenRequest token = request(table, key, service, op);
    const Data data{round_, index, ~index};
    token.data.assign(reinterpret_cast<const char *>(&data), sizeof data);
    const u32 result = get(token);
    // An update that waits behind another type is told to proceed.
    const bool waits = result == L2RES_TOKEN_WAIT || result == L2RES_TOKEN_UPDATE_NO_ENTRY ||
                       (op == L2RES_OP_UPDATE && result == L2RES_TOKEN_PROCEED);
    requests_[index].waits = waits;
    if (!waits) {
        --entry.mayWait;
    }
    if (holdsAfter(table, op, result)) {
        hold(table, key, service);
    }
}

bool Stress::holdsAfter(u32 table, u32 op, u32 result)
{
    // An IPAT update claims an entry that nobody holds, although it waits itself.
    return op == L2RES_OP_ADD ? result == L2RES_TOKEN_PROCEED
                              : table == IPAT && result == L2RES_TOKEN_UPDATE_NO_ENTRY;
}

/* The entry is this thread's: nobody else may be told so until it is deleted and freed. */
void Stress::hold(u32 table, u32 key, u32 service)
{
    Entry &entry = entries_[table][key];
    u32 owner = 0;
    if (!entry.owner.compare_exchange_strong(owner, t_thread.fwd)) {
        violate(entryName(table, key) + " was granted to forwarding type " +
                std::to_string(t_thread.fwd) + " while " + std::to_string(owner) + " holds it");
        return;
    }
    nested_ += t_thread.nesting != 0;
    const auto own = [&](u32 op) {
        const u32 result = get(request(table, key, service, op));
        if (result != L2RES_TOKEN_PROCEED) {
            violate(entryName(table, key) + ": the holder's own " + opName(op) +
                    " was answered with " + std::to_string(result));
        }
    };
    if (t_thread.chance(3)) {
        own(L2RES_OP_UPDATE);
    }
    // Freed as added, an ICIB entry stays with its type; its own repeat would be turned away, so
    // the callbacks of this release do not ask again.
    if (table == ICIB && t_thread.chance(4)) {
        t_thread.passive = true;
        host_.module.freeToken(request(table, key, service, L2RES_OP_ADD));
        t_thread.passive = false;
    }
    own(L2RES_OP_DELETE);
    entry.owner = 0;
    host_.module.freeToken(request(table, key, service, L2RES_OP_DELETE));
}

void Stress::query(u32 key)
{
    ++queries_;
    std::vector<L2ResQueryEntry> entries;
    if (host_.module.icibGet(request(ICIB, key, 0, L2RES_OP_NONE).icib, &entries) != QOR_OK) {
        violate(entryName(ICIB, key) + ": the query was refused");
    }
    for (std::size_t i = 1; i < entries.size(); ++i) {
        if (!entries[i].iswaiting) {
            violate(entryName(ICIB, key) + " has two holders in a query");
        }
    }
}

/* ---- clients ---- */

void Stress::step(u32 service)
{
    const u32 table = t_thread.below(TABLES);
    const u32 key = t_thread.below(options_.keys);
    if (t_thread.chance(16)) {
        query(key);
    } else {
        attempt(table, key, service);
    }
}

void Stress::client(u32 index, u32 operations)
{
    const Printer::Quiet quiet;
    t_thread.fwd = static_cast<u16>(firstClientFwd + index);
    t_thread.random.seed(options_.seed * 7919 + index * 104729 + round_ + 1);
    for (u32 i = 0; i < operations && !violated_; ++i) {
        step(services_[index % services_.size()]);
    }
}

bool Stress::isOwnKey(u32 table, const void *record) const
{
    return table == L2RES_TABLE_ICIB
               ? static_cast<const L2ResIcibReOpRecord *>(record)->key.keyType == ownKeys
               : table == L2RES_TABLE_IPAT &&
                     static_cast<const L2ResIpatReOpRecord *>(record)->key.unit >> 16 == ownKeys;
}

/* None for what is not of the clients: a table's idle notice, another entry. */
std::optional<u32> Stress::notified(u32 table, u32 service, u32 event, const void *record,
                                    const void *data)
{
    if (event != L2RES_EVENT_ENTRY_FREE || record == nullptr || !isOwnKey(table, record)) {
        return std::nullopt;
    }
    if (data == nullptr) {
        return QOR_OK; // asked by drain()
    }
    ++notifications_;
    Data sent{};
    const bool whole = ZIR_MemSize(data) == sizeof sent;
    std::memcpy(&sent, data, whole ? sizeof sent : 0);
    if (!whole || sent.pattern != ~sent.request || sent.request >= requests_.size() ||
        sent.round != round_) {
        violate("a callback of service " + std::to_string(service) + " brought damaged data");
        return QOR_FAIL;
    }
    Request &waiter = requests_[sent.request];
    const u32 row = table == L2RES_TABLE_ICIB ? ICIB : IPAT;
    const TokenRequest asked = request(row, waiter.key, service, L2RES_OP_NONE);
    const bool sameKey =
        row == ICIB ? static_cast<const L2ResIcibReOpRecord *>(record)->key.keyAttr3 == waiter.key
                    : std::memcmp(record, &asked.ipat, sizeof asked.ipat) == 0;
    if (waiter.table != row || !sameKey) {
        violate("a callback of service " + std::to_string(service) +
                " brought another entry's key");
        return QOR_FAIL;
    }
    return toldOf(waiter, row, service);
}

u32 Stress::toldOf(Request &waiter, u32 table, u32 service)
{
    const Printer::Quiet quiet; // it may be the worker's thread
    ++waiter.notified;
    if (!draining_ && !t_thread.passive && t_thread.nesting < maxNesting && t_thread.chance(2)) {
        ++t_thread.nesting;
        attempt(table, waiter.key, service);
        --t_thread.nesting;
    }
    return t_thread.chance(8) ? QOR_FAIL : QOR_OK; // the module only reports it
}

/* ---- rounds ---- */

/* Takes an ICIB entry, waiting for the worker's callbacks to be done with it. */
bool Stress::takeOver(TokenRequest &request)
{
    for (u32 tries = 0; tries < 100000; ++tries) {
        request.stamp = ++stamp_;
        if (host_.module.getToken(request) == L2RES_TOKEN_PROCEED) {
            return true;
        }
        std::this_thread::yield();
    }
    return false;
}

/* Everything that still waits is notified and taken off, with callbacks that only take note. */
void Stress::drain()
{
    draining_ = true;
    for (u32 key = 0; key < options_.keys && !violated_; ++key) {
        TokenRequest icib = request(ICIB, key, 0, L2RES_OP_ADD);
        if (!takeOver(icib)) {
            violate(entryName(ICIB, key) + " is held after its holders have freed it");
            break;
        }
        host_.module.getToken(request(ICIB, key, 0, L2RES_OP_DELETE));
        host_.module.freeToken(request(ICIB, key, 0, L2RES_OP_DELETE));
        // Each release of an IPAT entry takes off one waiter.
        for (u32 i = 0; i < L2RES_WAITERS_MAX; ++i) {
            host_.module.freeToken(request(IPAT, key, 0, L2RES_OP_DELETE));
        }
    }
}

Memory Stress::memory() const
{
    const Inspector::Memory all = host_.inspector.memory();
    Memory sum{};
    for (const Inspector::Hash &hash : all.hashes) {
        sum.nodes += hash.stat.nodes;
        sum.buffers += hash.stat.buffers;
    }
    // A worker that stands still has more of them with each tick.
    sum.bytes = all.outsideTables() - u64{all.queued} * messageBytes;
    return sum;
}

/* What is in use once nothing changes any more: without a tick's message or a last notification. */
Memory Stress::settledMemory() const
{
    Memory last = memory();
    for (u32 same = 0; same < 20;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const Memory now = memory();
        same = now.bytes == last.bytes && now.nodes == last.nodes ? same + 1 : 0;
        last = now;
    }
    return last;
}

void Stress::checkMemory()
{
    // The worker may be at a tick's message, or at the last of its notifications.
    Memory now{};
    for (u32 tries = 0; tries < 2000; ++tries) {
        now = memory();
        if (now.nodes <= before_.nodes && now.buffers == 0 && now.bytes <= before_.bytes) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    violate("after round " + std::to_string(round_) + " " + std::to_string(now.nodes) +
            " nodes and " + std::to_string(now.bytes) + " bytes are in use, before it were " +
            std::to_string(before_.nodes) + " and " + std::to_string(before_.bytes));
}

void Stress::checkRequests()
{
    for (u32 i = 0; i < std::min<std::size_t>(requestCount_, requests_.size()); ++i) {
        const Request &request = requests_[i];
        const u32 notified = request.notified;
        const std::string name = entryName(request.table, request.key);
        if (request.waits && notified == 0) {
            violate(name + ": a waiting request was never notified");
        } else if (request.waits && request.table == ICIB && notified != 1) {
            violate(name + ": a waiting request was notified " + std::to_string(notified) +
                    " times");
        } else if (!request.waits && notified != 0) {
            violate(name + ": a request that does not wait was notified");
        }
    }
}

void Stress::round(u32 operations)
{
    ++round_;
    draining_ = false;
    requestCount_ = 0;
    for (Request &request : requests_) {
        request.waits = false;
        request.notified = 0;
    }
    for (auto &table : entries_) {
        for (Entry &entry : table) {
            entry.mayWait = 0;
        }
    }
    std::vector<std::thread> clients;
    for (u32 i = 0; i < options_.clients; ++i) {
        clients.emplace_back([this, i, operations] { client(i, operations); });
    }
    for (std::thread &thread : clients) {
        thread.join();
    }
    drain();
    if (round_ == 1) {
        // Not before: the worker may still have been starting.
        before_ = settledMemory();
    }
    checkMemory();
    checkRequests();
}

/* A component's callback, once replaced, would be lost. */
std::vector<u32> Stress::freeServices() const
{
    const auto callbackOf = reinterpret_cast<decltype(&QOR_L2RES_GetRegFunc)>(
        host_.module.symbol("QOR_L2RES_GetRegFunc"));
    std::vector<u32> free;
    for (u32 service = 0; service < L2RES_SERVICE_COUNT; ++service) {
        const auto isTaken = [&](u32 table) {
            const char *owner = Notifications::ownerOf(callbackOf(table, service), table, service);
            return std::string_view(owner) == "component";
        };
        if (!isTaken(L2RES_TABLE_ICIB) && !isTaken(L2RES_TABLE_IPAT)) {
            free.push_back(service);
        }
    }
    return free;
}

StressReport Stress::run()
{
    if (services_.empty()) {
        return {"components have registered for every service", {}};
    }
    const Printer::Quiet quiet;
    const Ledger::Pause pause(host_.ledger);
    for (const u32 service : services_) {
        host_.module.icibRegister(service, Notifications::callback);
        host_.module.ipatRegister(service, Notifications::callback);
    }
    host_.notifications.intercept(
        [this](u32 table, u32 service, u32 event, void *record, void *data) {
            return notified(table, service, event, record, data);
        });
    const u32 perRound = stepsPerRound(options_);
    Progress progress("stress", options_.operations);
    for (u64 done = 0; done < options_.operations && !violated_; done += perRound) {
        progress.update(done);
        round(static_cast<u32>(std::min<u64>(perRound, options_.operations - done)));
        if (host_.scenario.interrupted()) {
            violate("interrupted");
        }
    }
    host_.notifications.stopIntercepting();
    return {violation_,
            {{"rounds", round_},
             {"requests", operations_},
             {"granted", granted_},
             {"refused", refused_},
             {"waiting", waited_},
             {"notifications", notifications_},
             {"granted_in_callbacks", nested_},
             {"queries", queries_}}};
}

} // namespace

StressReport runStress(Host &host, const StressOptions &options)
{
    Stress stress(host, options);
    return stress.run();
}

} // namespace host
