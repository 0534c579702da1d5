/*
 * From single measurements to the table and the curves.
 *
 * A measurement is known by the name of its benchmark, "group/size/contender". All contenders of a
 * group take turns, several times; the figure is the median of its repetitions: nanoseconds per
 * operation, or the benchmark's counter "figure". Nanoseconds are CPU time, which other programs
 * disturb less; "name/wall" is the wall time, for what several threads do together.
 */
#ifndef BENCH_FIGURES_H
#define BENCH_FIGURES_H

#include <benchmark/benchmark.h>

#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace bench {

class Figures : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &) override
    {
        return true;
    }
    void ReportRuns(const std::vector<Run> &runs) override;

    void Sample(const std::string &name, double value);

    /* All samples as text, for another process to add to its own. False: the file failed. */
    bool Write(std::FILE *file) const;
    bool Read(std::FILE *file);

    /* The median, or nothing when there is no such measurement. */
    std::optional<double> operator()(const std::string &name) const;

    /* Names of the sizes of a group that were measured for a contender, ascending. */
    std::vector<unsigned> Sizes(const std::string &group) const;

    /* Benchmarks that found their counts wrong. */
    unsigned Errors() const
    {
        return errors_;
    }

private:
    std::map<std::string, std::vector<double>> samples_;
    unsigned errors_ = 0;
};

/* Prints the table to standard output and, when `directory` is given, table.md and the curves. */
void PrintTable(const Figures &figures, const std::string &directory);

} // namespace bench

#endif
