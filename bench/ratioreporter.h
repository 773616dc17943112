#ifndef BENCH_RATIOREPORTER_H
#define BENCH_RATIOREPORTER_H

// The benchmarks print their figures as ratios against a peer measured in the
// same run. RatioReporter prints the usual console table and keeps, per
// benchmark, its counters and its adjusted real time, so main() can form the
// ratios once every benchmark has run.
//
// Run with --benchmark_repetitions=N (N > 1) and the figures kept are each
// benchmark's medians over the repetitions, so that one burst of other work
// on the machine moves no ratio; otherwise they are those of its (last) run.

#include <benchmark/benchmark.h>

#include <map>
#include <string>

class RatioReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            // Aggregates come after their benchmark's repetitions, so the
            // median replaces the figures of the last one.
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type != Run::RT_Iteration && !median)
                continue;
            Figures &figures = m_figures[run.run_name.str()];
            figures.time = run.GetAdjustedRealTime();
            for (const auto &counter : run.counters)
                figures.counters[counter.first] = counter.second.value;
        }
    }

    // The named counter ("items_per_second", "bytes_per_second") of the
    // benchmark called `name` or `name/<arguments>`; 0 when there is none.
    double counter(const std::string &name, const char *counterName) const
    {
        const Figures *figures = find(name);
        if (!figures)
            return 0;
        const auto it = figures->counters.find(counterName);
        return it == figures->counters.end() ? 0 : it->second;
    }
    double rate(const std::string &name) const { return counter(name, "items_per_second"); }
    double time(const std::string &name) const
    {
        const Figures *figures = find(name);
        return figures ? figures->time : 0;
    }

private:
    struct Figures
    {
        double time = 0;
        std::map<std::string, double> counters;
    };
    const Figures *find(const std::string &name) const
    {
        for (const auto &entry : m_figures) {
            if (entry.first == name || entry.first.rfind(name + "/", 0) == 0)
                return &entry.second;
        }
        return nullptr;
    }
    std::map<std::string, Figures> m_figures;
};

#endif // BENCH_RATIOREPORTER_H
