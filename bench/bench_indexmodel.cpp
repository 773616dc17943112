// IndexModel against the usual hand-made alternative: 100k rows shown in a
// QTableView (offscreen), sorted by price, and batches of 100 price updates.
// The library keeps a sorted index and the model follows it from the positions
// the index reports; the peer is a QAbstractTableModel over a vector behind a
// QSortFilterProxyModel that re-sorts on dataChanged. Each iteration is one
// batch: the change, the model signals and the view's handling of them up to
// a processed event loop.

#include "ratioreporter.h"

#include <database/indexmodel.h>
#include <database/indexsortcolumns.h>
#include <database/masterindex_column.h>
#include <database/recordstrans.h>
#include <database/table.h>

#include <QApplication>
#include <QRandomGenerator>
#include <QSortFilterProxyModel>
#include <QTableView>

#include <cstdio>

namespace {

constexpr int rowCount = 100000;
constexpr int batchSize = 100;
constexpr int batches = 1000;
constexpr int idColumn = 0, priceColumn = 1, qtyColumn = 2;

void BM_IndexModelBatch(benchmark::State &state)
{
    Table table(QStringLiteral("quotes"));
    table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
    table.addColumn(QStringLiteral("price"), FieldType::Double, 0, false);
    table.addColumn(QStringLiteral("qty"), FieldType::Integer, 0, false);
    table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("id")));
    IndexSortColumns byPrice(&table, QStringLiteral("price"));
    QRandomGenerator random(1);
    QList<Record> rows;
    for (int id = 0; id < rowCount; ++id) {
        Record row(&table);
        row.data(idColumn).set<qint32>(id);
        row.data(priceColumn).set<double>(random.bounded(100000));
        row.data(qtyColumn).set<qint32>(id % 100);
        rows.append(row);
    }
    table.appendList(rows);
    rows.clear();
    IndexModel model(&byPrice);
    QTableView view;
    view.setModel(&model);
    view.resize(600, 400);
    view.show();
    QCoreApplication::processEvents();

    for (auto _ : state) {
        table.beginUpdate();
        {
            RecordsTrans trans(&table);
            for (int i = 0; i < batchSize; ++i) {
                RecordUpdater updater(&trans, table.masterIndex()->at(random.bounded(rowCount)));
                updater.updateInMap();
                updater.setValue(priceColumn, double(random.bounded(100000)));
            }
        }
        table.endUpdate();
        QCoreApplication::processEvents();
    }
    state.SetItemsProcessed(state.iterations() * batchSize);
}

// The peer: rows in a vector, a plain table model over it, sorted by a proxy.
class VectorModel : public QAbstractTableModel
{
public:
    struct Row
    {
        int id;
        double price;
        int qty;
    };
    QVector<Row> rows;
    int rowCount(const QModelIndex &parent = QModelIndex()) const override
    {
        return parent.isValid() ? 0 : rows.size();
    }
    int columnCount(const QModelIndex &parent = QModelIndex()) const override
    {
        return parent.isValid() ? 0 : 3;
    }
    QVariant data(const QModelIndex &index, int role) const override
    {
        if (role != Qt::DisplayRole && role != Qt::EditRole)
            return QVariant();
        const Row &row = rows.at(index.row());
        switch (index.column()) {
        case 0:
            return row.id;
        case 1:
            return row.price;
        default:
            return row.qty;
        }
    }
    void setPrice(int row, double price)
    {
        rows[row].price = price;
        emit dataChanged(index(row, 1), index(row, 1));
    }
};

void BM_ProxyModelBatchPeer(benchmark::State &state)
{
    VectorModel source;
    QRandomGenerator random(1);
    source.rows.reserve(rowCount);
    for (int id = 0; id < rowCount; ++id)
        source.rows.append({ id, double(random.bounded(100000)), id % 100 });
    QSortFilterProxyModel proxy;
    proxy.setSourceModel(&source);
    proxy.setDynamicSortFilter(true);
    proxy.sort(1);
    QTableView view;
    view.setModel(&proxy);
    view.resize(600, 400);
    view.show();
    QCoreApplication::processEvents();

    for (auto _ : state) {
        for (int i = 0; i < batchSize; ++i)
            source.setPrice(random.bounded(rowCount), random.bounded(100000));
        QCoreApplication::processEvents();
    }
    state.SetItemsProcessed(state.iterations() * batchSize);
}

BENCHMARK(BM_IndexModelBatch)->Unit(benchmark::kMicrosecond)->Iterations(batches)->UseRealTime();
BENCHMARK(BM_ProxyModelBatchPeer)
    ->Unit(benchmark::kMicrosecond)
    ->Iterations(batches)
    ->UseRealTime();

} // namespace

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double library = reporter.time("BM_IndexModelBatch");
    const double peer = reporter.time("BM_ProxyModelBatchPeer");
    if (library > 0 && peer > 0)
        std::printf("batch of %d updates over %d rows in a view: library %.1f us, proxy peer "
                    "%.1f us, peer/library %.1fx (goal: at least 10x)\n",
                    batchSize, rowCount, library, peer, peer / library);
    return 0;
}
