// Cost of keeping joined columns live. An order table of a million rows
// (integer key, instrument) joins the price of an instrument table of 10k rows
// (each instrument is held by 100 orders), and has a sorted index over the
// joined price. Measured in the same run:
//   - the join: instrument prices changed in transactions of 100 rows, each
//     reaching its 100 orders through the join (10k order rows refreshed per
//     batch, one order batch per instrument batch);
//   - the peer: a copy of the order table without the join, whose price is
//     a column of its own with the same sorted index; the same rows get the
//     same new prices directly, in one transaction per batch;
//   - the naive refresh: after each instrument batch, every order's joined
//     cell recomputed by a key lookup (in place, the sorted index not even
//     told, so its cost is a lower bound).
// Printed at the end: order rows refreshed per second by each, and the cost of
// a row refreshed by the join over its cost through the direct transaction
// (goal: at most 1.5) and over the naive refresh.

#include <database/database.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <random>
#include <vector>

#include "columnview.h"
#include "ratioreporter.h"

namespace {

constexpr int kOrders = 1000000;
constexpr int kInstruments = 10000;
constexpr int kBatch = 100;
constexpr int kOrdersPerInstrument = kOrders / kInstruments;
enum { Id, Price };
enum { Oid, Inst, JoinedPrice };

struct Desk
{
    Desk()
        : instruments(QStringLiteral("instruments"))
        , orders(QStringLiteral("orders"))
        , peer(QStringLiteral("peer"))
    {
        instruments.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
        instruments.addColumn(QStringLiteral("price"), FieldType::Double);
        instruments.setMasterIndex(new MasterIndex_Column_Pure(&instruments, QStringLiteral("id")));
        QList<Record> rows;
        for (int i = 0; i < kInstruments; ++i) {
            const Record row(&instruments);
            row.data(Id).set<qint32>(i);
            row.data(Price).set<double>(random() % 100000);
            rows.append(row);
        }
        instruments.appendList(rows);

        fillOrders(orders);
        join.reset(new TableJoin(&orders, { QStringLiteral("inst") }, &instruments,
                                 { { QStringLiteral("price"), QStringLiteral("instPrice") } }));
        byPrice.reset(new ByColumns(&orders, { QStringLiteral("instPrice") }));
        byPrice->build();

        fillOrders(peer);
        peer.addColumn(QStringLiteral("instPrice"), FieldType::Double);
        for (const Record &row : *peer.masterIndex()) {
            const Record source = instruments.masterIndex()->findRecord(
                QString::number(row.data(Inst).get<qint32>()));
            row.data(JoinedPrice).set<double>(source.data(Price).get<double>());
        }
        peerByPrice.reset(new ByColumns(&peer, { QStringLiteral("instPrice") }));
        peerByPrice->build();
    }

    // oid and inst, before any other column.
    static void fillOrders(Table &table)
    {
        table.addColumn(QStringLiteral("oid"), FieldType::Integer, 0, false);
        table.addColumn(QStringLiteral("inst"), FieldType::Integer);
        table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("oid")));
        QList<Record> rows;
        rows.reserve(kOrders);
        for (int i = 0; i < kOrders; ++i) {
            const Record row(&table);
            row.data(Oid).set<qint32>(i);
            row.data(Inst).set<qint32>(i % kInstruments);
            rows.append(row);
        }
        table.appendList(rows);
    }

    // Distinct instruments for one batch, and a new price for each.
    std::vector<std::pair<int, double>> nextBatch()
    {
        std::vector<std::pair<int, double>> batch;
        const int first = int(random() % kInstruments);
        for (int k = 0; k < kBatch; ++k)
            batch.emplace_back((first + k * 97) % kInstruments, double(random() % 100000));
        return batch;
    }

    Table instruments;
    Table orders;
    std::unique_ptr<TableJoin> join;
    std::unique_ptr<ByColumns> byPrice;
    Table peer;
    std::unique_ptr<ByColumns> peerByPrice;
    std::mt19937 random { 14 };
};

Desk &desk()
{
    static Desk instance;
    return instance;
}

void BM_JoinRefresh(benchmark::State &state)
{
    Desk &desk = ::desk();
    Record key(&desk.instruments);
    for (auto _ : state) {
        desk.instruments.beginUpdate();
        {
            RecordsTrans trans(&desk.instruments);
            for (const auto &change : desk.nextBatch()) {
                key.data(Id).set<qint32>(change.first);
                RecordUpdater updater(&trans, desk.instruments.masterIndex()->find(key, -1));
                updater.updateInMap();
                updater.setValue(Price, change.second);
            }
        }
        desk.instruments.endUpdate();
    }
    state.SetItemsProcessed(state.iterations() * kBatch * kOrdersPerInstrument);
}

void BM_DirectTransaction(benchmark::State &state)
{
    Desk &desk = ::desk();
    Record key(&desk.peer);
    for (auto _ : state) {
        desk.peer.beginUpdate();
        {
            RecordsTrans trans(&desk.peer);
            for (const auto &change : desk.nextBatch()) {
                for (int k = 0; k < kOrdersPerInstrument; ++k) {
                    key.data(Oid).set<qint32>(change.first + k * kInstruments);
                    RecordUpdater updater(&trans, desk.peer.masterIndex()->find(key, -1));
                    updater.updateInMap();
                    updater.setValue(JoinedPrice, change.second);
                }
            }
        }
        desk.peer.endUpdate();
    }
    state.SetItemsProcessed(state.iterations() * kBatch * kOrdersPerInstrument);
}

void BM_NaiveRefresh(benchmark::State &state)
{
    Desk &desk = ::desk();
    const MasterIndex *instruments = desk.instruments.masterIndex();
    Record key(&desk.instruments);
    for (auto _ : state) {
        for (const Record &order : *desk.orders.masterIndex()) {
            key.data(Id).set<qint32>(order.data(Inst).get<qint32>());
            const Record source = instruments->find(key, -1);
            Field cell = order.data(JoinedPrice);
            if (source.isNull())
                cell.setPresent(false);
            else
                cell.set<double>(source.data(Price).get<double>());
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch * kOrdersPerInstrument);
}

BENCHMARK(BM_JoinRefresh)->Unit(benchmark::kMillisecond)->Iterations(100);
BENCHMARK(BM_DirectTransaction)->Unit(benchmark::kMillisecond)->Iterations(100);
BENCHMARK(BM_NaiveRefresh)->Unit(benchmark::kMillisecond)->Iterations(5);

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    desk(); // build the tables and the join before the clock runs
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double join = reporter.rate("BM_JoinRefresh");
    const double direct = reporter.rate("BM_DirectTransaction");
    const double naive = reporter.rate("BM_NaiveRefresh");
    if (join > 0 && direct > 0 && naive > 0)
        std::printf("joined rows refreshed: join %.4g rows/s, direct transaction %.4g rows/s, "
                    "naive refresh %.4g rows/s; cost per row ratio join / direct %.2f (goal <= "
                    "1.5), naive / join %.1f\n",
                    join, direct, naive, direct / join, join / naive);
    return 0;
}
