// Loading a table file of many columns: the cost must grow linearly with the
// number of columns. Figures: time per column at 32767 columns against time
// per column at 2048 (1 means linear), and the load of a wide file against a
// QHash taking the same names (the peer: the least any name check costs).

#include "ratioreporter.h"

#include <database/database.h>

#include <QDataStream>
#include <QHash>

#include <cstdio>

namespace {

QByteArray wideFile(int columns)
{
    Table table(QStringLiteral("wide"));
    QList<TableColumnDef> defs;
    TableColumnDef def;
    def.type = FieldType::Integer;
    for (int i = 0; i < columns; ++i) {
        def.name = QStringLiteral("column number %1").arg(i);
        defs.append(def);
    }
    table.addColumns(defs);
    table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("column number 0")));
    table.appendRow(table.allocRow());
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    TableIO(&table).write(out, true);
    return bytes;
}

void BM_LoadWideFile(benchmark::State &state)
{
    const QByteArray bytes = wideFile(int(state.range(0)));
    for (auto _ : state) {
        Table target(QStringLiteral("wide"));
        QDataStream in(bytes);
        if (!TableIO(&target).read(in, true))
            state.SkipWithError("load failed");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_HashNames(benchmark::State &state)
{
    QStringList names;
    for (int i = 0; i < state.range(0); ++i)
        names << QStringLiteral("column number %1").arg(i);
    for (auto _ : state) {
        QHash<QString, int> hash;
        for (int i = 0; i < names.size(); ++i)
            hash.insert(names.at(i).toLower(), i);
        benchmark::DoNotOptimize(hash.size());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

BENCHMARK(BM_LoadWideFile)->Arg(2048)->Arg(32767)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HashNames)->Arg(32767)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double small = reporter.rate("BM_LoadWideFile/2048");
    const double large = reporter.rate("BM_LoadWideFile/32767");
    const double hash = reporter.rate("BM_HashNames/32767");
    std::printf("\nratios\n");
    if (small > 0 && large > 0)
        std::printf("%-60s %8.3f\n", "time per column, 32767 columns / 2048 columns (1 = linear)",
                    small / large);
    if (large > 0 && hash > 0)
        std::printf("%-60s %8.3f\n", "load of 32767 columns / hashing their names", hash / large);
    benchmark::Shutdown();
    return 0;
}
