// Cost of changing rows through record transactions. A quote table of a
// million rows (integer key, instrument, decimal price, double quantity) has a
// master index on the key, two sorted indexes (by instrument and price, by
// price) and a limited view by price. A million random price changes are made
//   - in transactions of 1000 rows (RecordsTrans + RecordUpdater, one
//     Table::process per batch), and
//   - by the peer, measured in the same run: the same changes one row at a
//     time, in place, each reported by Table::updated with the row's positions
//     taken beforehand (buildKeeper), inside one update bracket per 1000 rows.
// Printed at the end: rows per second of each, and the cost of a row in a
// transaction over its cost in the plain loop.
//
// Integer primary keys: a million rows with ascending ids inserted in one
// transaction into an empty table, then a million random look-ups by key,
// with the integer master index against the column master index over the
// same column; printed as the integer key's rate over the column key's.

#include <database/database.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "columnview.h"
#include "ratioreporter.h"

namespace {

constexpr int kRows = 1000000;
constexpr int kBatch = 1000;
constexpr int kBatches = kRows / kBatch;
enum Column { Id, Instrument, Price, Quantity };

// A view that may hold every row: the transactions ask it for evictions on
// every batch, and it never has any to make.
class PriceLimit : public IndexLimit
{
public:
    explicit PriceLimit(Table *table)
        : IndexLimit(kRows, table)
        , m_key(table, QStringLiteral("price"))
    {
    }
    int compare(const Record &a, const Record &b) const override { return m_key.compare(a, b); }

private:
    MasterIndex_Column_Pure m_key;
};

struct Quotes
{
    Quotes()
        : table(QStringLiteral("quotes"))
    {
        table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
        table.addColumn(QStringLiteral("instrument"), FieldType::VarChar, 12, false);
        table.addColumn(QStringLiteral("price"), FieldType::Decimal, 0, false);
        table.addColumn(QStringLiteral("qty"), FieldType::Double);
        table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("id")));
        byInstrument.reset(new ByColumns(&table, { "instrument", "price" }));
        byPrice.reset(new ByColumns(&table, { "price" }));
        limited.reset(new PriceLimit(&table));
        QList<Record> rows;
        rows.reserve(kRows);
        for (int i = 0; i < kRows; ++i) {
            const Record row(&table);
            row.data(Id).set<qint32>(i);
            row.data(Instrument) = QStringLiteral("INS%1").arg(random() % 500);
            row.data(Price).set(nextPrice());
            row.data(Quantity).set<double>(random() % 10000);
            rows.append(row);
        }
        table.appendList(rows);
    }
    decimal nextPrice() { return decimal(qint64(random() % 1000000), 2); }
    int nextId() { return int(random() % kRows); }

    Table table;
    std::unique_ptr<ByColumns> byInstrument;
    std::unique_ptr<ByColumns> byPrice;
    std::unique_ptr<PriceLimit> limited;
    std::mt19937 random { 11 };
};

Quotes &quotes()
{
    static Quotes instance;
    return instance;
}

void BM_TransactionUpdates(benchmark::State &state)
{
    Quotes &q = quotes();
    const MasterIndex *master = q.table.masterIndex();
    Record key(&q.table);
    for (auto _ : state) {
        q.table.beginUpdate();
        {
            RecordsTrans trans(&q.table);
            for (int i = 0; i < kBatch; ++i) {
                key.data(Id).set<qint32>(q.nextId());
                RecordUpdater updater(&trans, master->find(key, -1));
                updater.updateInMap();
                updater.setValue(Price, q.nextPrice());
            }
        }
        q.table.endUpdate();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_UpdatedLoop(benchmark::State &state)
{
    Quotes &q = quotes();
    const MasterIndex *master = q.table.masterIndex();
    Record key(&q.table);
    for (auto _ : state) {
        q.table.beginUpdate();
        for (int i = 0; i < kBatch; ++i) {
            key.data(Id).set<qint32>(q.nextId());
            const Record row = master->find(key, -1);
            const QVector<int> keeper = q.table.buildKeeper(row);
            row.data(Price).set(q.nextPrice());
            q.table.updated(row, keeper, Price, Price);
        }
        q.table.endUpdate();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

enum KeyKind { ColumnKey, IntegerKey };

std::unique_ptr<Table> keyedTable(KeyKind kind)
{
    auto table = std::make_unique<Table>(QStringLiteral("orders"));
    table->addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
    table->addColumn(QStringLiteral("price"), FieldType::Decimal, 0, false);
    table->addColumn(QStringLiteral("qty"), FieldType::Double);
    if (kind == IntegerKey)
        table->setMasterIndex(new MasterIndex_Integer(table.get(), QStringLiteral("id")));
    else
        table->setMasterIndex(new MasterIndex_Column_Pure(table.get(), QStringLiteral("id")));
    return table;
}

template <KeyKind kind> void BM_KeyInsert(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        auto table = keyedTable(kind);
        std::vector<Record> rows;
        rows.reserve(kRows);
        for (int i = 0; i < kRows; ++i) {
            rows.emplace_back(table.get());
            rows.back().data(Id).set<qint32>(i);
        }
        state.ResumeTiming();
        table->beginUpdate();
        {
            RecordsTrans trans(table.get());
            for (const Record &row : rows)
                RecordUpdater(&trans).insertInMap(row);
        }
        table->endUpdate();
        state.PauseTiming();
        rows.clear();
        table.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRows);
}

template <KeyKind kind> void BM_KeyFind(benchmark::State &state)
{
    auto table = keyedTable(kind);
    QList<Record> rows;
    for (int i = 0; i < kRows; ++i) {
        rows.append(Record(table.get()));
        rows.back().data(Id).set<qint32>(i);
    }
    table->appendList(rows);
    rows.clear();
    const MasterIndex *master = table->masterIndex();
    Record key(table.get());
    std::mt19937 random(5);
    qint64 found = 0;
    for (auto _ : state) {
        for (int i = 0; i < kRows; ++i) {
            key.data(Id).set<qint32>(qint32(random() % kRows));
            found += !master->find(key, -1).isNull();
        }
    }
    benchmark::DoNotOptimize(found);
    state.SetItemsProcessed(state.iterations() * kRows);
}

BENCHMARK_TEMPLATE(BM_KeyInsert, ColumnKey)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK_TEMPLATE(BM_KeyInsert, IntegerKey)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK_TEMPLATE(BM_KeyFind, ColumnKey)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK_TEMPLATE(BM_KeyFind, IntegerKey)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_TransactionUpdates)->Unit(benchmark::kMillisecond)->Iterations(kBatches);
BENCHMARK(BM_UpdatedLoop)->Unit(benchmark::kMillisecond)->Iterations(kBatches);

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    quotes(); // build the table before the clock runs
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    for (const char *name : { "BM_KeyInsert", "BM_KeyFind" }) {
        const double column = reporter.rate(std::string(name) + "<ColumnKey>");
        const double integer = reporter.rate(std::string(name) + "<IntegerKey>");
        if (column > 0 && integer > 0)
            std::printf("%s of %d integer keys: integer master %.4g rows/s, column master %.4g "
                        "rows/s, ratio %.2f\n",
                        name, kRows, integer, column, integer / column);
    }
    const double trans = reporter.rate("BM_TransactionUpdates");
    const double loop = reporter.rate("BM_UpdatedLoop");
    if (trans > 0 && loop > 0)
        std::printf("price updates: transactions of %d %.4g rows/s, Table::updated loop %.4g "
                    "rows/s, cost per row ratio (transaction / loop) %.2f\n",
                    kBatch, trans, loop, loop / trans);
    return 0;
}
