/*
 * l2rsm-bench [--quick] [--only GROUP,...] [--output DIRECTORY] [--benchmark_...]
 *
 * Measures the module and its peers and prints a table. --quick takes about a second and shows that
 * every benchmark still runs and does its work, not how fast. The exit status is 1 when a count was
 * wrong: then no table is printed.
 */
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "bench.h"
#include "figures.h"
#include "l2rsm_entry.h"

namespace {

struct Options {
    bool quick = false;
    std::string output;
    std::vector<std::string> groups = {"find",   "bucket", "inner",  "walk",    "memory",
                                       "tokens", "few",    "many",   "waiters", "crowd",
                                       "idle",   "hooks",  "log",    "block",   "large",
                                       "burst",  "vlan",   "stream", "wake",    "startup"};
    std::vector<char *> rest; // for the benchmark library
};

std::vector<std::string> Split(const std::string &list)
{
    std::vector<std::string> parts;
    std::istringstream stream(list);
    for (std::string part; std::getline(stream, part, ',');) {
        parts.push_back(part);
    }
    return parts;
}

Options Parse(int argc, char **argv)
{
    Options options;
    options.rest.push_back(argv[0]);
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0) {
            options.quick = true;
        } else if (std::strcmp(argv[i], "--output") == 0 && i + 1 < argc) {
            options.output = argv[++i];
        } else if (std::strcmp(argv[i], "--only") == 0 && i + 1 < argc) {
            options.groups = Split(argv[++i]);
        } else {
            options.rest.push_back(argv[i]);
        }
    }
    return options;
}

/* The library's own flags come after ours, so that they win. */
bool InitialiseLibrary(const Options &options)
{
    static std::string repetitions = "--benchmark_repetitions=";
    static std::string time = "--benchmark_min_time=";
    static std::string interleave = "--benchmark_enable_random_interleaving=true";
    repetitions += options.quick ? "1" : "11";
    time += options.quick ? "0.0005" : "0.04";
    std::vector<char *> arguments = options.rest;
    arguments.insert(arguments.begin() + 1, {repetitions.data(), time.data(), interleave.data()});
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    return !benchmark::ReportUnrecognizedArguments(count, arguments.data());
}

struct CpuTimes {
    unsigned long long all, stolen;
};

CpuTimes ReadCpuTimes()
{
    std::ifstream stat("/proc/stat");
    std::string label;
    stat >> label;
    CpuTimes times = {};
    constexpr int kSteal = 7;
    unsigned long long value = 0;
    for (int field = 0; field <= kSteal && stat >> value; ++field) {
        times.all += value;
        times.stolen = value;
    }
    return times;
}

std::filesystem::path PathOf(const void *symbol)
{
    Dl_info info = {};
    return dladdr(symbol, &info) != 0 ? std::filesystem::canonical(info.dli_fname)
                                      : std::filesystem::path();
}

/*
 * Each group has a process of its own: what another one left behind in tables and allocators would
 * show in its figures. 65,536 nodes taken and given back cost a wake-up half a microsecond.
 */
bool MeasureGroup(bench::Figures *figures, const std::string &group)
{
    int pipeEnds[2];
    const pid_t child = pipe(pipeEnds) == 0 ? fork() : -1;
    if (child == 0) {
        bench::Figures own;
        (void)benchmark::RunSpecifiedBenchmarks(&own, "^" + group + "/");
        FILE *output = fdopen(pipeEnds[1], "w");
        std::_Exit(output != nullptr && own.Write(output) && own.Errors() == 0 ? 0 : 1);
    }
    FILE *input = child > 0 && close(pipeEnds[1]) == 0 ? fdopen(pipeEnds[0], "r") : nullptr;
    const bool complete = input != nullptr && figures->Read(input);
    int status = 1;
    if (input == nullptr || std::fclose(input) != 0 || waitpid(child, &status, 0) != child ||
        !complete || status != 0) {
        std::fprintf(stderr, "l2rsm-bench: group %s failed\n", group.c_str());
        return false;
    }
    return true;
}

/* Start-up is only there once in a process: a small program of its own does it and tells. */
bool MeasureStartup(bench::Figures *figures, bool quick)
{
    const std::filesystem::path library = PathOf(reinterpret_cast<void *>(&QorL2ResInit));
    const std::filesystem::path program =
        std::filesystem::canonical("/proc/self/exe").parent_path() / "l2rsm-startup";
    figures->Sample("startup/size", static_cast<double>(std::filesystem::file_size(library)));
    const std::string command = program.string() + " " + library.string();
    for (int i = 0; i < (quick ? 1 : 21); ++i) {
        FILE *output = popen(command.c_str(), "r");
        double nanoseconds = 0;
        double bytes = 0;
        const bool complete =
            output != nullptr && std::fscanf(output, "%lf %lf", &nanoseconds, &bytes) == 2;
        if (output == nullptr || pclose(output) != 0 || !complete) {
            std::fprintf(stderr, "l2rsm-bench: %s failed\n", command.c_str());
            return false;
        }
        figures->Sample("startup/phases", nanoseconds);
        figures->Sample("startup/resident", bytes);
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = Parse(argc, argv);
    if (!InitialiseLibrary(options)) {
        return 2;
    }
    bench::AddTables(options.quick);
    bench::AddTokens(options.quick);
    bench::AddCrowd(options.quick);
    bench::AddLog();
    bench::AddMemory();
    bench::AddVlan();
    bench::AddWorker();

    bench::Figures figures;
    bool complete = true;
    const CpuTimes before = ReadCpuTimes();
    for (const std::string &group : options.groups) {
        std::fprintf(stderr, "%s\n", group.c_str());
        complete = (group == "startup" ? MeasureStartup(&figures, options.quick)
                                       : MeasureGroup(&figures, group)) &&
                   complete;
    }
    const CpuTimes after = ReadCpuTimes();
    if (!complete) {
        return 1;
    }
    if (options.quick) {
        std::puts("all counts right; too short for figures");
        return 0;
    }
    bench::PrintTable(figures, options.output);
    std::printf("steal time during the run: %.2f %%\n",
                100.0 * static_cast<double>(after.stolen - before.stolen) /
                    static_cast<double>(std::max(after.all - before.all, 1ULL)));
    std::printf("peers left out: %s\n", BENCH_MISSING_PEERS);
    return 0;
}
