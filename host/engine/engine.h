/*
 * The simulated forwarding engine, as far as the module sees it through its hooks: five tables with
 * a capacity and a use. Scenarios set the counts; the module only asks.
 *
 * Threads: any.
 */
#ifndef HOST_ENGINE_H
#define HOST_ENGINE_H

#include <array>
#include <mutex>

#include "l2rsm_registry.h"

namespace host {

struct Counts {
    u32 total = 4096;
    u32 used = 0;
    u32 idle = 4096;
    u32 result = 0; // of the hook; anything but 0 makes the module ignore the counts
};

class Engine {
public:
    Counts get(u32 type) const
    {
        std::lock_guard lock(mutex_);
        return counts_.at(type);
    }
    void set(u32 type, const Counts &counts)
    {
        std::lock_guard lock(mutex_);
        counts_.at(type) = counts;
    }

private:
    mutable std::mutex mutex_;
    std::array<Counts, L2RES_HOOK_COUNT> counts_; // by hook type
};

} // namespace host

#endif
