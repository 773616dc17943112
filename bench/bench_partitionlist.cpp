// The partitioned record list against a flat QVector<Record> of a million
// rows: inserting and removing in the middle, and binary-search probes by
// position (each probe of the list finds its part through the start-position
// cache; the walk peer subtracts part counts one by one as a plain chain of
// parts would). Prints each pair's ratio at the end.

#include <database/database.h>

#include <benchmark/benchmark.h>

#include <QVector>

#include <algorithm>
#include <cstdio>

#include "ratioreporter.h"

namespace {

const int rowCount = 1000000;

struct Rows
{
    Table table { QStringLiteral("bench") };
    PartitionList<Record> list;
    QVector<Record> vector;
    QVector<int> partCounts;
    Record extra;

    Rows()
    {
        table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
        vector.reserve(rowCount);
        for (int i = 0; i < rowCount; ++i)
            vector.append(Record(&table));
        // Ordered by block address, so both containers can be searched.
        std::sort(vector.begin(), vector.end(),
                  [](const Record &a, const Record &b) { return a.row() < b.row(); });
        for (const Record &record : qAsConst(vector))
            list.append(record);
        partCounts = list.partCounts();
        extra = Record(&table);
    }
};

Rows &rows()
{
    static Rows instance;
    return instance;
}

int middle(benchmark::IterationCount i)
{
    return rowCount / 2 - 500 + int(i % 1000);
}

void BM_MiddleInsertRemove_PartitionList(benchmark::State &state)
{
    Rows &r = rows();
    benchmark::IterationCount i = 0;
    for (auto _ : state) {
        const int pos = middle(i++);
        r.list.insert(pos, r.extra);
        r.list.remove(pos);
    }
}

void BM_MiddleInsertRemove_QVector(benchmark::State &state)
{
    Rows &r = rows();
    benchmark::IterationCount i = 0;
    for (auto _ : state) {
        const int pos = middle(i++);
        r.vector.insert(pos, r.extra);
        r.vector.remove(pos);
    }
}

// Lower bound of a row by address, probing positions like a sorted index does.
template <typename At> int lowerBound(int count, const unsigned char *key, At at)
{
    int low = 0;
    int high = count;
    while (low < high) {
        const int mid = low + (high - low) / 2;
        if (at(mid).row() < key)
            low = mid + 1;
        else
            high = mid;
    }
    return low;
}

void BM_Probe_PartitionListAt(benchmark::State &state)
{
    Rows &r = rows();
    int i = 0;
    for (auto _ : state) {
        const unsigned char *key = r.vector[(i++ * 7919) % rowCount].row();
        benchmark::DoNotOptimize(
            lowerBound(rowCount, key, [&](int pos) -> const Record & { return r.list.at(pos); }));
    }
}

void BM_Probe_PartWalk(benchmark::State &state)
{
    Rows &r = rows();
    int i = 0;
    for (auto _ : state) {
        const unsigned char *key = r.vector[(i++ * 7919) % rowCount].row();
        benchmark::DoNotOptimize(lowerBound(rowCount, key, [&](int pos) -> const Record & {
            int part = 0;
            int offset = pos;
            while (offset >= r.partCounts[part])
                offset -= r.partCounts[part++];
            benchmark::DoNotOptimize(offset);
            return r.vector[pos];
        }));
    }
}

void BM_Probe_QVector(benchmark::State &state)
{
    Rows &r = rows();
    int i = 0;
    for (auto _ : state) {
        const unsigned char *key = r.vector[(i++ * 7919) % rowCount].row();
        benchmark::DoNotOptimize(
            lowerBound(rowCount, key, [&](int pos) -> const Record & { return r.vector[pos]; }));
    }
}

BENCHMARK(BM_MiddleInsertRemove_PartitionList);
BENCHMARK(BM_MiddleInsertRemove_QVector);
BENCHMARK(BM_Probe_PartitionListAt);
BENCHMARK(BM_Probe_PartWalk);
BENCHMARK(BM_Probe_QVector);

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto ratio = [&](const char *what, const char *name, const char *peer) {
        const double a = reporter.time(name);
        const double b = reporter.time(peer);
        if (a > 0 && b > 0)
            std::printf("%-52s %8.3f\n", what, a / b);
    };
    std::printf("\nratios (time / peer time; below 1 is faster)\n");
    ratio("middle insert+remove: partitioned / QVector", "BM_MiddleInsertRemove_PartitionList",
          "BM_MiddleInsertRemove_QVector");
    ratio("probe: partitioned at() / QVector", "BM_Probe_PartitionListAt", "BM_Probe_QVector");
    ratio("probe: partitioned at() / walking part counts", "BM_Probe_PartitionListAt",
          "BM_Probe_PartWalk");
    benchmark::Shutdown();
    return 0;
}
