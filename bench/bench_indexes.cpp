// Throughput of the live indexes on a quote table of a million rows (integer
// key, instrument, decimal price, double quantity, date-time, short string),
// with a master index and two sorted indexes. Each operation runs against a
// peer on standard containers measured in the same run:
//   bulk append (Table::appendList)      three std::stable_sort of the rows
//   single updates (Table::updated)      erase and insert in three std::multiset
//   batch of 1000 updates (process)      the same rows as single updates
//   removal by key (Record(table, key))  erase in three std::multiset
//   resort of one index (parallel)       std::stable_sort(std::execution::par)
//                                        on a vector of the same handles, its
//                                        backend on all processors too; random
//                                        and already-sorted keys
// The ratios printed at the end are library rows per second over peer rows
// per second (above 1: the library is faster).

// Before any Qt header: the parallel algorithms' backend has members named
// like one of Qt's keyword macros.
#include <execution>

#include <database/database.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "columnview.h"
#include "ratioreporter.h"

namespace {

constexpr int kRows = 1000000;
enum Column { Id, Instrument, Price, Quantity, Time, Side };

struct Quotes
{
    explicit Quotes(bool fill)
        : table(QStringLiteral("quotes"))
    {
        table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
        table.addColumn(QStringLiteral("instrument"), FieldType::VarChar, 12, false);
        table.addColumn(QStringLiteral("price"), FieldType::Decimal, 0, false);
        table.addColumn(QStringLiteral("qty"), FieldType::Double);
        table.addColumn(QStringLiteral("time"), FieldType::DateTime);
        table.addColumn(QStringLiteral("side"), FieldType::VarChar, 4);
        table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("id")));
        byInstrument.reset(new ByColumns(&table, { "instrument", "price" }));
        byTime.reset(new ByColumns(&table, { "time" }));
        std::mt19937 random(7);
        rows.reserve(kRows);
        for (int i = 0; i < kRows; ++i) {
            const Record row(&table);
            row.data(Id).set<qint32>(int((i * 2654435761u) % 2147483647u)); // unique, unordered
            row.data(Instrument) = QStringLiteral("INS%1").arg(random() % 500);
            change(row, random);
            row.data(Quantity).set<double>(random() % 10000);
            row.data(Side) = QString::fromLatin1(i % 2 ? "BUY" : "SELL");
            rows.append(row);
        }
        if (fill)
            table.appendList(rows);
    }
    static void change(const Record &row, std::mt19937 &random)
    {
        row.data(Price).set(decimal(qint64(random() % 1000000), 2));
        row.data(Time).set<qint64>(1700000000000LL + qint64(random() % 86400000));
    }
    // Every index's ordering, master first.
    std::vector<IndexSort *> orderings()
    {
        return { table.masterIndex(), byInstrument.get(), byTime.get() };
    }

    Table table;
    std::unique_ptr<ByColumns> byInstrument;
    std::unique_ptr<ByColumns> byTime;
    QList<Record> rows;
};

Quotes &loaded()
{
    static Quotes quotes(true);
    return quotes;
}

// The peers' own rows (the same content), so that they never disturb the
// table's indexes.
Quotes &peerRows()
{
    static Quotes quotes(false);
    return quotes;
}

using Tree = std::multiset<Record, IndexSort::LessThan>;

// Three trees holding the peer rows in each index's order.
std::vector<Tree> &trees()
{
    static std::vector<Tree> all = [] {
        std::vector<Tree> result;
        const QList<Record> &rows = peerRows().rows;
        for (IndexSort *index : peerRows().orderings())
            result.emplace_back(rows.cbegin(), rows.cend(), IndexSort::LessThan(index));
        return result;
    }();
    return all;
}

void eraseRow(Tree &tree, const Record &row)
{
    auto range = tree.equal_range(row);
    for (auto it = range.first; it != range.second; ++it) {
        if (*it == row) {
            tree.erase(it);
            return;
        }
    }
}

void BM_AppendList(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        auto quotes = std::make_unique<Quotes>(false);
        state.ResumeTiming();
        quotes->table.appendList(quotes->rows);
        state.PauseTiming();
        quotes.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRows);
}

void BM_AppendListPeer(benchmark::State &state)
{
    Quotes &quotes = loaded();
    for (auto _ : state) {
        for (IndexSort *index : quotes.orderings()) {
            std::vector<Record> sorted(quotes.rows.cbegin(), quotes.rows.cend());
            std::stable_sort(sorted.begin(), sorted.end(), IndexSort::LessThan(index));
            benchmark::DoNotOptimize(sorted.data());
        }
    }
    state.SetItemsProcessed(state.iterations() * kRows);
}

void BM_UpdateSingle(benchmark::State &state)
{
    Quotes &quotes = loaded();
    std::mt19937 random(11);
    for (auto _ : state) {
        const Record row = quotes.rows.at(int(random() % kRows));
        const QVector<int> keeper = quotes.table.buildKeeper(row);
        Quotes::change(row, random);
        quotes.table.updated(row, keeper, Price, Time);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_UpdateSinglePeer(benchmark::State &state)
{
    Quotes &quotes = peerRows();
    std::vector<Tree> &all = trees();
    std::mt19937 random(11);
    for (auto _ : state) {
        const Record row = quotes.rows.at(int(random() % kRows));
        for (Tree &tree : all)
            eraseRow(tree, row);
        Quotes::change(row, random);
        for (Tree &tree : all)
            tree.insert(row);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_Process1000(benchmark::State &state)
{
    Quotes &quotes = loaded();
    std::mt19937 random(13);
    int64_t rows = 0;
    for (auto _ : state) {
        state.PauseTiming();
        QList<Record> updated;
        QList<Record> changed;
        for (int i = 0; i < 1000; ++i) {
            const Record &row = quotes.rows.at(int(random() % kRows));
            if (updated.contains(row))
                continue;
            updated << row;
            changed << row.clone();
            Quotes::change(changed.last(), random);
        }
        state.ResumeTiming();
        quotes.table.process({}, updated, Price, Time, {}, changed);
        rows += updated.size();
    }
    state.SetItemsProcessed(rows);
}

void BM_RemoveByKey(benchmark::State &state)
{
    Quotes &quotes = loaded();
    int next = 0;
    for (auto _ : state) {
        const Record &source = quotes.rows.at(next++);
        const QString key = QString::number(source.data(Id).get<qint32>());
        const Record row(&quotes.table, key);
        quotes.table.remove(row, -1);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_RemoveByKeyPeer(benchmark::State &state)
{
    Quotes &quotes = peerRows();
    std::vector<Tree> &all = trees();
    int next = 0;
    for (auto _ : state) {
        const Record &source = quotes.rows.at(next++);
        const QString key = QString::number(source.data(Id).get<qint32>());
        const Record row = *all.front().find(quotes.table.masterIndex()->fromText(key));
        for (Tree &tree : all)
            eraseRow(tree, row);
    }
    state.SetItemsProcessed(state.iterations());
}

// Shuffles the rows first unless the keys are to arrive already sorted (the
// argument is 1); the library and the peer shuffle the same order alike.
void BM_Resort(benchmark::State &state)
{
    Quotes &quotes = loaded();
    std::mt19937 random(17);
    for (auto _ : state) {
        state.PauseTiming();
        PartitionList<Record> &list = quotes.byInstrument->list();
        if (!state.range(0))
            std::shuffle(list.begin(), list.end(), random);
        state.ResumeTiming();
        quotes.byInstrument->resort();
    }
    state.SetItemsProcessed(state.iterations() * quotes.byInstrument->count());
}

void BM_ResortPeer(benchmark::State &state)
{
    Quotes &quotes = loaded();
    std::vector<Record> rows(quotes.byInstrument->begin(), quotes.byInstrument->end());
    std::mt19937 random(17);
    for (auto _ : state) {
        state.PauseTiming();
        if (!state.range(0))
            std::shuffle(rows.begin(), rows.end(), random);
        state.ResumeTiming();
        std::stable_sort(std::execution::par, rows.begin(), rows.end(),
                         IndexSort::LessThan(quotes.byInstrument.get()));
    }
    state.SetItemsProcessed(state.iterations() * int64_t(rows.size()));
}

BENCHMARK(BM_AppendList)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_AppendListPeer)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_UpdateSingle)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_UpdateSinglePeer)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Process1000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RemoveByKey)->Unit(benchmark::kMicrosecond)->Iterations(100000);
BENCHMARK(BM_RemoveByKeyPeer)->Unit(benchmark::kMicrosecond)->Iterations(100000);
BENCHMARK(BM_Resort)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
BENCHMARK(BM_ResortPeer)
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5)
    ->UseRealTime();

void quiet(QtMsgType, const QMessageLogContext &, const QString &)
{
}

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    qInstallMessageHandler(quiet);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto ratio = [&](const char *library, const char *peer, const char *what) {
        const double a = reporter.rate(library);
        const double b = reporter.rate(peer);
        if (a > 0 && b > 0)
            std::printf("%-40s library %10.4g rows/s, peer %10.4g rows/s, ratio %.2f\n", what, a, b,
                        a / b);
    };
    ratio("BM_AppendList", "BM_AppendListPeer", "bulk append (vs 3 stable sorts)");
    ratio("BM_UpdateSingle", "BM_UpdateSinglePeer", "single update (vs 3 multisets)");
    ratio("BM_Process1000", "BM_UpdateSingle", "batch of 1000 (vs single updates)");
    ratio("BM_RemoveByKey", "BM_RemoveByKeyPeer", "removal by key (vs 3 multisets)");
    ratio("BM_Resort/0", "BM_ResortPeer/0", "resort, random (vs parallel stable sort)");
    ratio("BM_Resort/1", "BM_ResortPeer/1", "resort, sorted (vs parallel stable sort)");
    return 0;
}
