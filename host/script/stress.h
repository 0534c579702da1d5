/*
 * Clients on threads of their own against the loaded module.
 *
 * Every client competes for a few ICIB and IPAT entries under a forwarding type of its own: it
 * adds, updates, deletes and frees, and half of its callbacks ask again for the entry they were
 * told about. Checked throughout:
 *   - an entry is never granted to one forwarding type while another holds it;
 *   - a holder's own update and delete are granted;
 *   - a callback brings the key and the data of the request that waited;
 * and after every round, when all clients have stopped:
 *   - every request that was told to wait was notified, an ICIB one exactly once;
 *   - records and waiting entries are gone, and memory is what it was after the first round.
 * Bounded by work: the clients' operations, in rounds; an interrupt ends it after a round.
 *
 * Entries and forwarding types are its own. The services are those that no loaded component has
 * registered for; what the scenario is told meanwhile about other entries it is told as always.
 */
#ifndef HOST_STRESS_H
#define HOST_STRESS_H

#include <string>
#include <utility>
#include <vector>

#include "qor_types.h"

namespace host {

struct Host;

struct StressOptions {
    u32 clients = 4;
    u32 operations = 10000; // of each client
    u32 keys = 8;           // in each table
    u32 seed = 1;
};

struct StressReport {
    std::string violation; // the first broken rule, "" for none
    std::vector<std::pair<std::string, u64>> counts;
};

/* On the scenario's thread. Of what the clients do nothing is printed. */
StressReport runStress(Host &host, const StressOptions &options);

} // namespace host

#endif
