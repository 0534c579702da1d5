#include "figures.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>

namespace bench {

void Figures::ReportRuns(const std::vector<Run> &runs)
{
    for (const Run &run : runs) {
        if (run.error_occurred) {
            ++errors_;
            std::fprintf(stderr, "l2rsm-bench: %s: %s\n", run.benchmark_name().c_str(),
                         run.error_message.c_str());
        } else if (run.run_type == Run::RT_Iteration) {
            const std::string &name = run.run_name.function_name;
            const auto figure = run.counters.find("figure");
            Sample(name,
                   figure != run.counters.end() ? figure->second.value : run.GetAdjustedCPUTime());
            Sample(name + "/wall", run.GetAdjustedRealTime());
            for (const auto &[counter, value] : run.counters) {
                Sample(name + "/" + counter, value.value);
            }
        }
    }
}

void Figures::Sample(const std::string &name, double value)
{
    samples_[name].push_back(value);
}

bool Figures::Write(std::FILE *file) const
{
    for (const auto &[name, samples] : samples_) {
        for (const double sample : samples) {
            std::fprintf(file, "%s %.17g\n", name.c_str(), sample);
        }
    }
    return std::fflush(file) == 0;
}

bool Figures::Read(std::FILE *file)
{
    char name[128];
    double sample = 0;
    int fields = 0;
    while ((fields = std::fscanf(file, "%127s %lf", name, &sample)) == 2) {
        Sample(name, sample);
    }
    return fields == EOF && std::ferror(file) == 0;
}

std::optional<double> Figures::operator()(const std::string &name) const
{
    const auto found = samples_.find(name);
    if (found == samples_.end()) {
        return {};
    }
    std::vector<double> samples = found->second;
    const auto middle = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 2);
    std::nth_element(samples.begin(), middle, samples.end());
    return *middle;
}

std::vector<unsigned> Figures::Sizes(const std::string &group) const
{
    std::set<unsigned> sizes;
    for (const auto &[name, samples] : samples_) {
        if (name.rfind(group + "/", 0) == 0) {
            sizes.insert(static_cast<unsigned>(std::stoul(name.substr(group.size() + 1))));
        }
    }
    return {sizes.begin(), sizes.end()};
}

namespace {

using Value = std::optional<double>;

Value Quotient(Value a, Value b)
{
    return a && b ? Value(*a / *b) : Value();
}

Value Difference(Value a, Value b)
{
    return a && b ? Value(*a - *b) : Value();
}

struct Peer {
    const char *name; // null: the row has no peer
    Value figure;
};

/* A bound is a figure of our own, or a multiple of the peer's. */
enum class Bound { figure, timesPeer };

struct Row {
    const char *operation;
    const char *unit;
    Value ours;
    Peer peer; // the one that the ratio is against
    std::vector<Peer> others;
    Bound bound;
    double must, aim;  // NAN: none
    bool more = false; // the more, the better
};

/* Every row of the table, with what was measured. */
std::vector<Row> Rows(const Figures &f)
{
    const auto nodeCost = [&f](const char *group, const char *contender, unsigned entries) {
        const Value found = f(std::string(group) + "/" + std::to_string(entries) + "/" + contender);
        return found ? Value(*found / ((entries + 1) / 2.0)) : Value();
    };
    const auto speedUp = [&f](const std::string &contender) {
        return Quotient(f("tokens/1/" + contender + "/wall"), f("tokens/2/" + contender + "/wall"));
    };
    const std::vector<Peer> mutexTables = {{"GLib", speedUp("glib")}, {"TBB", speedUp("tbb")}};
    const auto find = [&f](const char *title, const std::string &group) {
        return Row{title,
                   "ns",
                   f(group + "/module"),
                   {"std::mutex + unordered_map", f(group + "/std")},
                   {{"GLib", f(group + "/glib")},
                    {"TBB", f(group + "/tbb")},
                    {"absl::flat_hash_map", f(group + "/absl")},
                    {"boost::unordered_flat_map", f(group + "/boost")},
                    {"liburcu, no lock", f(group + "/urcu")},
                    {"unordered_map, hash written for the key", f(group + "/stdown")}},
                   Bound::timesPeer,
                   1.0,
                   Quotient(f(group + "/glib"), f(group + "/std")).value_or(NAN)};
    };
    const auto bucket = [&](const char *title, const char *group) {
        return std::vector<Row>{
            {title,
             "ns/node",
             nodeCost(group, "module", 16384),
             {"chained list", nodeCost(group, "list", 16384)},
             {},
             Bound::timesPeer,
             0.1,
             Quotient(1.2, nodeCost(group, "list", 16384)).value_or(NAN)},
            {"- cost per node at 16,384 against 64",
             "times",
             Quotient(nodeCost(group, "module", 16384), nodeCost(group, "module", 64)),
             {"chained list",
              Quotient(nodeCost(group, "list", 16384), nodeCost(group, "list", 64))},
             {},
             Bound::figure,
             1.5,
             NAN}};
    };
    const auto line = [&f](const char *title, const std::string &group) {
        return Row{title,
                   "ns",
                   f(group + "/module"),
                   {"vsnprintf", f(group + "/vsnprintf")},
                   {{"spdlog", f(group + "/spdlog")}},
                   Bound::timesPeer,
                   1.1,
                   0.5};
    };

    /* A burst's figure is for all its blocks. */
    const auto large = [&f](const char *title, const std::string &group, double blocks) {
        const auto each = [&](const char *contender) {
            const Value all = f(group + contender);
            return all ? Value(*all / blocks) : all;
        };
        return Row{title,
                   "ns",
                   each("/module"),
                   {"mimalloc", each("/mimalloc")},
                   {{"malloc + free", each("/malloc")}},
                   Bound::timesPeer,
                   2.0,
                   1.0};
    };

    std::vector<Row> rows = {find("find, 1,000 entries over the buckets", "find/1000"),
                             find("find, 65,536 entries over the buckets", "find/65536")};
    for (const Row &row : bucket("find, 16,384 entries in one bucket", "bucket")) {
        rows.push_back(row);
    }
    for (const Row &row : bucket("the same, keys differ in inner VLAN only", "inner")) {
        rows.push_back(row);
    }
    const std::vector<Row> rest = {
        {"ICIB get + free, log off",
         "ns",
         f("tokens/1/off"),
         {"std::mutex + unordered_map", f("tokens/1/std")},
         {{"GLib", f("tokens/1/glib")}, {"TBB", f("tokens/1/tbb")}},
         Bound::timesPeer,
         1.8,
         1.3},
        {"ICIB get + free, log on",
         "ns",
         f("tokens/1/on"),
         {"vsnprintf of its lines", f("tokens/1/vsnprintf")},
         {},
         Bound::timesPeer,
         0.5,
         0.35},
        {"- log off, 1 M entries held against 1,000",
         "times",
         Quotient(f("many/held"), f("few/held")),
         {},
         {},
         Bound::figure,
         3.0,
         2.0},
        line("log line of 6 numbers", "log/6"),
        line("log line of 11 numbers", "log/11"),
        {"message at a level not written", "ns", f("log/none/level"), {}, {}, Bound::figure, 7, 1},
        {"message without services", "ns", f("log/none/service"), {}, {}, Bound::figure, 7, 1},
        {"two threads against one, log off",
         "times",
         speedUp("off"),
         {"std::mutex + unordered_map", speedUp("std")},
         mutexTables,
         Bound::figure,
         NAN,
         NAN,
         true},
        {"two threads against one, log on",
         "times",
         speedUp("on"),
         {"std::mutex + unordered_map", speedUp("std")},
         mutexTables,
         Bound::figure,
         1.5,
         1.8,
         true},
        {"release of ten waiters, dispatch",
         "ns",
         Difference(f("waiters/10/release"), f("waiters/10/remove")),
         {"GObject signal", f("waiters/10/glib")},
         {{"vector of std::function", f("waiters/10/std")}},
         Bound::figure,
         187,
         60},
        {"walk over 65,536 waiting nodes, none due",
         "ns",
         f("walk/65536/module"),
         {"unordered_map", f("walk/65536/std")},
         {},
         Bound::figure,
         0.8e6,
         0.36e6},
        {"longest call beside a tick, 1 M waiting, none due",
         "ns",
         f("crowd/none"),
         {},
         {},
         Bound::figure,
         2e6,
         0.5e6},
        {"- all due", "ns", f("crowd/all"), {}, {}, Bound::figure, 10e6, 2e6},
        {"tick with nobody waiting, after 1 M have waited",
         "ns",
         f("idle/tick"),
         {"before anybody waited", f("idle/tick/before")},
         {},
         Bound::timesPeer,
         2,
         NAN},
        {"usage checks of a waiting request, most, 8 threads on its VLAN",
         "",
         f("hooks/8"),
         {},
         {},
         Bound::figure,
         1,
         NAN},
        {"message to the worker, streaming",
         "ns",
         f("stream/module/wall"),
         {"std::mutex + condition_variable", f("stream/std/wall")},
         {{"GAsyncQueue", f("stream/glib/wall")}},
         Bound::figure,
         79,
         53},
        {"- wake-ups per message", "", f("stream/module/wakeups"), {}, {}, Bound::figure, 1, NAN},
        {"wake-up of the sleeping worker",
         "ns",
         f("wake/both/module"),
         {"eventfd + epoll", f("wake/both/raw")},
         {},
         Bound::timesPeer,
         1.05,
         NAN},
        {"- until its handler calls the first hook",
         "ns",
         f("wake/both/probe"),
         {"eventfd + epoll", f("wake/both/raw")},
         {},
         Bound::timesPeer,
         NAN,
         NAN},
        {"368-byte block, get + give back",
         "ns",
         f("block/module"),
         {"malloc + free", f("block/malloc")},
         {},
         Bound::timesPeer,
         1.0,
         Quotient(4.0, f("block/malloc")).value_or(NAN)},
        large("3,000-byte block, give back + get, 64 live", "large/64", 1),
        large("3,000-byte block, give back + get, 1,000 live", "large/1000", 1),
        large("64 3,000-byte blocks got, then given back, each", "burst/64", 64),
        large("1,000 3,000-byte blocks got, then given back, each", "burst/1000", 1000),
        {"memory per held entry above its node, 65,536",
         "bytes",
         f("memory/65536/module"),
         {"unordered_map", f("memory/65536/std")},
         {},
         Bound::figure,
         22,
         16},
        {"memory per held entry above its node, 1,000",
         "bytes",
         f("memory/1000/module"),
         {"unordered_map", f("memory/1000/std")},
         {},
         Bound::figure,
         57,
         16},
        {"VLAN assign + release, empty tables",
         "ns",
         f("vlan/empty"),
         {},
         {},
         Bound::figure,
         300,
         100},
        {"VLAN assign + release, nearly full tables",
         "ns",
         f("vlan/full"),
         {},
         {},
         Bound::figure,
         1000,
         300},
        {"phases 1 and 2", "ns", f("startup/phases"), {}, {}, Bound::figure, 5e6, 1e6},
        {"resident memory added",
         "bytes",
         f("startup/resident"),
         {},
         {},
         Bound::figure,
         2e6,
         0.5e6},
        {"size of libqor_l2rsm.so",
         "bytes",
         f("startup/size"),
         {},
         {},
         Bound::figure,
         200e3,
         100e3},
    };
    rows.insert(rows.end(), rest.begin(), rest.end());
    return rows;
}

std::string Number(double value)
{
    char text[32];
    const double size = std::fabs(value);
    std::snprintf(text, sizeof text, size < 10 ? "%.2f" : size < 100 ? "%.1f" : "%.0f", value);
    return text;
}

/* A figure in the unit that reads best. */
std::string Show(Value value, const std::string &unit)
{
    if (!value || std::isnan(*value)) {
        return "-";
    }
    if (unit == "ns" && *value >= 1e4) {
        return *value >= 1e6 ? Number(*value / 1e6) + " ms" : Number(*value / 1e3) + " us";
    }
    if (unit == "bytes" && *value >= 1e4) {
        return Number(*value / 1e3) + " KB";
    }
    return Number(*value) + (unit == "times" || unit.empty() ? "" : " " + unit);
}

std::string Verdict(const Row &row)
{
    Value reached = row.bound == Bound::figure ? row.ours : Quotient(row.ours, row.peer.figure);
    if (!reached) {
        return "not measured";
    }
    if (std::isnan(row.must)) {
        return "-";
    }
    const auto within = [&](double bound) {
        return row.more ? *reached >= bound : *reached <= bound;
    };
    if (!within(row.must)) {
        return "MISSED";
    }
    return std::isnan(row.aim) || within(row.aim) ? "aim" : "must";
}

std::string ShowBound(const Row &row, double bound)
{
    if (std::isnan(bound)) {
        return "-";
    }
    return row.bound == Bound::figure ? Show(bound, row.unit) : Number(bound) + " x";
}

void PrintRows(const std::vector<Row> &rows, std::ostream &out, const char *separator, bool aligned)
{
    const auto cell = [&](const std::string &text, size_t width) {
        out << separator << text;
        for (size_t i = text.size(); aligned && i < width; ++i) {
            out << ' ';
        }
    };
    const auto line = [&](const std::vector<std::string> &cells) {
        constexpr size_t kWidths[] = {46, 13, 27, 13, 7, 10, 10, 8};
        for (size_t i = 0; i < cells.size(); ++i) {
            cell(cells[i], i < std::size(kWidths) ? kWidths[i] : 0);
        }
        out << (aligned ? "\n" : " |\n");
    };
    line({"operation", "ours", "peer", "peer's", "ratio", "must", "aim", "reached", "others"});
    if (!aligned) {
        out << "|---|---|---|---|---|---|---|---|---|\n";
    }
    for (const Row &row : rows) {
        std::string others;
        for (const Peer &peer : row.others) {
            if (peer.figure) {
                others += (others.empty() ? "" : ", ") + std::string(peer.name) + " " +
                          Show(peer.figure, row.unit);
            }
        }
        line({row.operation, Show(row.ours, row.unit),
              row.peer.name != nullptr ? row.peer.name : "", Show(row.peer.figure, row.unit),
              Show(Quotient(row.ours, row.peer.figure), "times"), ShowBound(row, row.must),
              ShowBound(row, row.aim), Verdict(row), others});
    }
}

/* One file per curve: a line per size, a column per contender, "?" where there is no figure. */
void WriteCurve(const Figures &figures, const std::string &directory, const std::string &group,
                const std::vector<std::string> &contenders)
{
    std::ofstream file(directory + "/" + group + ".dat");
    file << group;
    for (const std::string &contender : contenders) {
        file << ' ' << contender;
    }
    file << '\n';
    for (const unsigned size : figures.Sizes(group)) {
        file << size;
        for (const std::string &contender : contenders) {
            const Value value = figures(group + "/" + std::to_string(size) + "/" + contender);
            file << ' ' << (value ? std::to_string(*value) : "?");
        }
        file << '\n';
    }
}

} // namespace

void PrintTable(const Figures &figures, const std::string &directory)
{
    const std::vector<Row> rows = Rows(figures);
    std::ostringstream text;
    PrintRows(rows, text, " ", true);
    std::fputs(text.str().c_str(), stdout);
    if (directory.empty()) {
        return;
    }
    std::ofstream table(directory + "/table.md");
    PrintRows(rows, table, "| ", false);
    WriteCurve(figures, directory, "find",
               {"module", "std", "glib", "tbb", "stdown", "absl", "boost", "urcu"});
    WriteCurve(figures, directory, "bucket", {"module", "list"});
    WriteCurve(figures, directory, "inner", {"module", "list"});
    WriteCurve(figures, directory, "tokens",
               {"off/wall", "on/wall", "std/wall", "glib/wall", "tbb/wall"});
    WriteCurve(figures, directory, "waiters", {"release", "remove", "std", "glib"});
    WriteCurve(figures, directory, "walk", {"module", "std"});
}

} // namespace bench
