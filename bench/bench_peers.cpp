// The library against two peers on the same generated rows and workloads:
// an ordered multi-index container and an in-memory SQL engine. A million
// rows (integer id key, decimal price repeating about 500 times, timestamp,
// quantity, side, symbol) with a primary key plus sorted indexes on price and
// on ts, reached through each system's public API:
//   - insert 1M rows in one transaction, and in transactions of 1000 rows;
//   - 1M random price updates, 1000 per transaction;
//   - 100k deletes by key, 1000 per transaction;
//   - resident bytes per row after the 1M insert (against the library's own
//     TableIO::memoryUsage for the library).
// Each workload starts from a fresh system outside the clock. Printed at the
// end: the library's rate over the best peer's, per workload.

#include <database/database.h>

#include <benchmark/benchmark.h>
#include <boost/multi_index/member.hpp>
#include <boost/multi_index/ordered_index.hpp>
#include <boost/multi_index_container.hpp>
#include <sqlite3.h>

#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <random>
#include <vector>

#include "ratioreporter.h"

namespace {

constexpr int kRows = 1000000;
constexpr int kBatch = 1000;
constexpr int kDeletes = 100000;
enum Column { Id, Price, Ts, Qty, Side, Symbol };

struct Source
{
    qint32 id;
    qint64 priceCents;
    qint64 ts;
    double qty;
    qint32 side;
    char symbol[8];
};

// The rows and the random choices every system replays identically.
struct Workload
{
    Workload()
    {
        std::mt19937 random(7);
        rows.resize(kRows);
        for (int i = 0; i < kRows; ++i) {
            Source &row = rows[size_t(i)];
            row.id = i;
            row.priceCents = 10000 + qint64(random() % 2000);
            row.ts = 1700000000000LL + qint64(random() % 3600000000LL);
            row.qty = double(random() % 10000);
            row.side = int(random() % 2);
            std::snprintf(row.symbol, sizeof row.symbol, "S%05u", unsigned(random() % 3000));
        }
        for (int i = 0; i < kRows; ++i)
            updates.push_back({ int(random() % kRows), 10000 + qint64(random() % 2000) });
        std::vector<int> ids(kRows);
        for (int i = 0; i < kRows; ++i)
            ids[size_t(i)] = i;
        std::shuffle(ids.begin(), ids.end(), random);
        deletes.assign(ids.begin(), ids.begin() + kDeletes);
    }
    std::vector<Source> rows;
    std::vector<std::pair<int, qint64>> updates;
    std::vector<int> deletes;
};

const Workload &workload()
{
    static const Workload instance;
    return instance;
}

// Hands free heap back to the system before a workload builds its system, so
// that every system starts as in a fresh process. Without it, a peer's rate
// depended on which workloads had run before it: the multi-index container's
// 1000-row inserts ran half as fast again after the other workloads as alone.
void freshHeap()
{
    malloc_trim(0);
}

// Resident bytes of the process, after handing free heap back to the system
// so that what earlier workloads freed is not counted as reused.
qint64 residentBytes()
{
    freshHeap();
    std::ifstream statm("/proc/self/statm");
    qint64 size = 0;
    qint64 resident = 0;
    statm >> size >> resident;
    return resident * 4096;
}

// --- the library ------------------------------------------------------------------

struct Library
{
    Library()
        : table(QStringLiteral("quotes"))
    {
        table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
        table.addColumn(QStringLiteral("price"), FieldType::Decimal, 0, false);
        table.addColumn(QStringLiteral("ts"), FieldType::DateTime, 0, false);
        table.addColumn(QStringLiteral("qty"), FieldType::Double);
        table.addColumn(QStringLiteral("side"), FieldType::Integer);
        table.addColumn(QStringLiteral("symbol"), FieldType::VarChar, 8);
        table.setMasterIndex(new MasterIndex_Integer(&table, QStringLiteral("id")));
        byPrice.reset(new IndexSortColumns(&table, QStringLiteral("price")));
        byTs.reset(new IndexSortColumns(&table, QStringLiteral("ts")));
        key = Record(&table);
    }
    Record makeRow(const Source &source) const
    {
        Record row(&table);
        row.data(Id).set<qint32>(source.id);
        row.data(Price).set(decimal(source.priceCents, 2));
        row.data(Ts).set<qint64>(source.ts);
        row.data(Qty).set<double>(source.qty);
        row.data(Side).set<qint32>(source.side);
        row.data(Symbol) = QString::fromLatin1(source.symbol);
        return row;
    }
    void insert(int from, int to)
    {
        const std::vector<Source> &rows = workload().rows;
        table.beginUpdate();
        {
            RecordsTrans trans(&table);
            for (int i = from; i < to; ++i)
                RecordUpdater(&trans).insertInMap(makeRow(rows[size_t(i)]));
        }
        table.endUpdate();
    }
    Record find(int id)
    {
        key.data(Id).set<qint32>(id);
        return table.masterIndex()->find(key, -1);
    }
    void update(int from, int to)
    {
        const auto &updates = workload().updates;
        table.beginUpdate();
        {
            RecordsTrans trans(&table);
            for (int i = from; i < to; ++i) {
                RecordUpdater updater(&trans, find(updates[size_t(i)].first));
                updater.updateInMap();
                updater.setValue(Price, decimal(updates[size_t(i)].second, 2));
            }
        }
        table.endUpdate();
    }
    void erase(int from, int to)
    {
        const auto &deletes = workload().deletes;
        table.beginUpdate();
        {
            RecordsTrans trans(&table);
            for (int i = from; i < to; ++i) {
                RecordUpdater updater(&trans, find(deletes[size_t(i)]));
                updater.updateInMap();
                updater.remove();
            }
        }
        table.endUpdate();
    }

    Table table;
    std::unique_ptr<IndexSortColumns> byPrice;
    std::unique_ptr<IndexSortColumns> byTs;
    Record key;
};

// --- ordered multi-index container ------------------------------------------------

namespace mi = boost::multi_index;
using Container = mi::multi_index_container<
    Source,
    mi::indexed_by<mi::ordered_unique<mi::member<Source, qint32, &Source::id>>,
                   mi::ordered_non_unique<mi::member<Source, qint64, &Source::priceCents>>,
                   mi::ordered_non_unique<mi::member<Source, qint64, &Source::ts>>>>;

struct MultiIndex
{
    void insert(int from, int to)
    {
        const std::vector<Source> &rows = workload().rows;
        for (int i = from; i < to; ++i)
            container.insert(rows[size_t(i)]);
    }
    void update(int from, int to)
    {
        const auto &updates = workload().updates;
        auto &byId = container.get<0>();
        for (int i = from; i < to; ++i) {
            const auto it = byId.find(updates[size_t(i)].first);
            const qint64 price = updates[size_t(i)].second;
            byId.modify(it, [price](Source &row) { row.priceCents = price; });
        }
    }
    void erase(int from, int to)
    {
        const auto &deletes = workload().deletes;
        for (int i = from; i < to; ++i)
            container.get<0>().erase(deletes[size_t(i)]);
    }
    Container container;
};

// --- in-memory SQL engine ---------------------------------------------------------

struct Sql
{
    Sql()
    {
        sqlite3_open(":memory:", &db);
        exec("PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;"
             "CREATE TABLE quotes(id INTEGER PRIMARY KEY, price INTEGER, ts INTEGER, qty REAL,"
             " side INTEGER, symbol TEXT);"
             "CREATE INDEX by_price ON quotes(price); CREATE INDEX by_ts ON quotes(ts);");
        sqlite3_prepare_v2(db, "INSERT INTO quotes VALUES(?,?,?,?,?,?)", -1, &insertRow, nullptr);
        sqlite3_prepare_v2(db, "UPDATE quotes SET price=? WHERE id=?", -1, &updateRow, nullptr);
        sqlite3_prepare_v2(db, "DELETE FROM quotes WHERE id=?", -1, &deleteRow, nullptr);
    }
    ~Sql()
    {
        sqlite3_finalize(insertRow);
        sqlite3_finalize(updateRow);
        sqlite3_finalize(deleteRow);
        sqlite3_close(db);
    }
    void exec(const char *sql) { sqlite3_exec(db, sql, nullptr, nullptr, nullptr); }
    static void step(sqlite3_stmt *statement)
    {
        sqlite3_step(statement);
        sqlite3_reset(statement);
    }
    void insert(int from, int to)
    {
        const std::vector<Source> &rows = workload().rows;
        exec("BEGIN");
        for (int i = from; i < to; ++i) {
            const Source &row = rows[size_t(i)];
            sqlite3_bind_int(insertRow, 1, row.id);
            sqlite3_bind_int64(insertRow, 2, row.priceCents);
            sqlite3_bind_int64(insertRow, 3, row.ts);
            sqlite3_bind_double(insertRow, 4, row.qty);
            sqlite3_bind_int(insertRow, 5, row.side);
            sqlite3_bind_text(insertRow, 6, row.symbol, -1, SQLITE_STATIC);
            step(insertRow);
        }
        exec("COMMIT");
    }
    void update(int from, int to)
    {
        const auto &updates = workload().updates;
        exec("BEGIN");
        for (int i = from; i < to; ++i) {
            sqlite3_bind_int64(updateRow, 1, updates[size_t(i)].second);
            sqlite3_bind_int(updateRow, 2, updates[size_t(i)].first);
            step(updateRow);
        }
        exec("COMMIT");
    }
    void erase(int from, int to)
    {
        const auto &deletes = workload().deletes;
        exec("BEGIN");
        for (int i = from; i < to; ++i) {
            sqlite3_bind_int(deleteRow, 1, deletes[size_t(i)]);
            step(deleteRow);
        }
        exec("COMMIT");
    }
    sqlite3 *db = nullptr;
    sqlite3_stmt *insertRow = nullptr;
    sqlite3_stmt *updateRow = nullptr;
    sqlite3_stmt *deleteRow = nullptr;
};

// --- workloads --------------------------------------------------------------------

// Resident bytes per row after the last 1M insert of each system, and the
// library's own account of its memory.
double g_resident[3];
double g_libraryOwn;

template <typename System> int systemIndex();
template <> int systemIndex<Library>()
{
    return 0;
}
template <> int systemIndex<MultiIndex>()
{
    return 1;
}
template <> int systemIndex<Sql>()
{
    return 2;
}

template <typename System> void BM_InsertOne(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        const qint64 before = residentBytes();
        auto system = std::make_unique<System>();
        state.ResumeTiming();
        system->insert(0, kRows);
        state.PauseTiming();
        g_resident[systemIndex<System>()] = double(residentBytes() - before) / kRows;
        if constexpr (std::is_same_v<System, Library>)
            g_libraryOwn = double(TableIO::memoryUsage(&system->table)) / kRows;
        system.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRows);
}

template <typename System> void BM_InsertBatches(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        freshHeap();
        auto system = std::make_unique<System>();
        state.ResumeTiming();
        for (int from = 0; from < kRows; from += kBatch)
            system->insert(from, from + kBatch);
        state.PauseTiming();
        system.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRows);
}

template <typename System> void BM_Updates(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        freshHeap();
        auto system = std::make_unique<System>();
        system->insert(0, kRows);
        state.ResumeTiming();
        for (int from = 0; from < kRows; from += kBatch)
            system->update(from, from + kBatch);
        state.PauseTiming();
        system.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRows);
}

template <typename System> void BM_Deletes(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        freshHeap();
        auto system = std::make_unique<System>();
        system->insert(0, kRows);
        state.ResumeTiming();
        for (int from = 0; from < kDeletes; from += kBatch)
            system->erase(from, from + kBatch);
        state.PauseTiming();
        system.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kDeletes);
}

// Rates over the CPU time of the whole process: the library sorts on worker
// threads, and with other work on the machine CPU time is the fairer clock.
void once(benchmark::internal::Benchmark *b)
{
    b->Unit(benchmark::kMillisecond)->Iterations(1)->MeasureProcessCPUTime();
}

#define PEER_BENCH(workload)                                                                       \
    BENCHMARK_TEMPLATE(workload, Library)->Apply(once);                                            \
    BENCHMARK_TEMPLATE(workload, MultiIndex)->Apply(once);                                         \
    BENCHMARK_TEMPLATE(workload, Sql)->Apply(once)

PEER_BENCH(BM_InsertOne);
PEER_BENCH(BM_InsertBatches);
PEER_BENCH(BM_Updates);
PEER_BENCH(BM_Deletes);

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    workload(); // generate the rows before the clock runs
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const char *const names[] = { "BM_InsertOne", "BM_InsertBatches", "BM_Updates", "BM_Deletes" };
    for (const char *name : names) {
        const std::string base(name);
        const double library = reporter.rate(base + "<Library>");
        const double multi = reporter.rate(base + "<MultiIndex>");
        const double sql = reporter.rate(base + "<Sql>");
        if (library > 0 && std::max(multi, sql) > 0)
            std::printf("%-17s library %.3gM/s, multi-index %.3gM/s, SQL %.3gM/s, ratio to the "
                        "best peer %.2f\n",
                        name, library / 1e6, multi / 1e6, sql / 1e6,
                        library / std::max(multi, sql));
    }
    if (g_libraryOwn > 0)
        std::printf("resident bytes per row after the 1M insert: library %.0f (own account %.0f, "
                    "ratio %.2f), multi-index %.0f, SQL %.0f\n",
                    g_resident[0], g_libraryOwn, g_resident[0] / g_libraryOwn, g_resident[1],
                    g_resident[2]);
    return 0;
}
