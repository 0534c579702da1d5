/*
 * l2rsm-startup LIBRARY: loads the module and runs phases 1 and 2, as a host would. Prints the time
 * of the phases, in ns until the worker has its queue, and the resident memory added, in bytes.
 */
#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "comp_registry.h"
#include "frame/worker.h"
#include "l2rsm_entry.h"
#include "l2rsm_services.h"

namespace {

u32 InitPartition(u32, const char *)
{
    return 0;
}

u32 PartitionNumber(u32, const char *)
{
    return 7;
}

L2ResMemmVtbl g_memm = {{}, InitPartition, PartitionNumber};

/* The memory manager is all that the module cannot do without. */
u32 CreateInstance(void *, u32 interfaceId, void **out)
{
    static void *object = &g_memm;
    *out = interfaceId == L2RES_IID_MEMORY_MANAGER ? &object : nullptr;
    return *out != nullptr ? 0 : 1;
}

u32 QueryFactory(void *, u32, void **)
{
    return QOR_E_NO_INTERFACE;
}

/* Bytes; exact, unlike /proc/self/statm. */
long Resident()
{
    std::ifstream rollup("/proc/self/smaps_rollup");
    for (std::string word; rollup >> word;) {
        if (word == "Rss:") {
            long kilobytes = 0;
            rollup >> kilobytes;
            return kilobytes * 1024;
        }
    }
    return 0;
}

using Clock = std::chrono::steady_clock;

} // namespace

int main(int argc, char **argv)
{
    static const QorFactoryVtbl vtbl = {QueryFactory, CreateInstance};
    static QorFactory factory = {&vtbl};
    static const QorComponentInfo info = {L2RES_SERVICE_COMPONENT, "BENCH", "BENCH", 1, &factory};
    if (argc != 2 || COMP_RegisterComponentInfo(&info) != 0) {
        return 1;
    }
    (void)Resident(); // what reading the file itself needs is resident now
    const long before = Resident();

    void *library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    const auto init = reinterpret_cast<decltype(&QorL2ResInit)>(dlsym(library, "QorL2ResInit"));
    auto *queue = static_cast<QorQueueHandle *>(dlsym(library, "g_qorl2resQueue"));
    const Clock::time_point start = Clock::now();
    if (init(0, 0, L2RES_PHASE_INIT) != 0 || init(0, 0, L2RES_PHASE_START) != 0) {
        return 1;
    }
    while (std::atomic_ref(*queue).load() == 0) {
        std::this_thread::yield();
    }
    const Clock::time_point end = Clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(2)); // until the worker sleeps
    std::printf("%lld %ld\n", static_cast<long long>((end - start).count()), Resident() - before);
    std::fflush(stdout);
    std::_Exit(0); // the worker never ends
}
