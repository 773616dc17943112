#include "indexchecker.h"
#include "testindexes.h"
#include "transfixture.h"

#include <database/indexmodel.h>
#include <database/recordstrans.h>
#include <database/undo.h>

#include <QAbstractItemModelTester>
#include <QLoggingCategory>
#include <QRandomGenerator>
#include <QThread>
#include <QUndoStack>
#include <QtTest>

using namespace TransFixture;

namespace {

// The model shows exactly the first rows of the index, in order.
QString mirrorError(const IndexModel &model)
{
    const IndexIterative *index = model.shownIndex();
    const int limit = model.rowLimit();
    const int expected = limit < 0 ? index->count() : qMin(limit, index->count());
    if (model.rowCount() != expected)
        return QStringLiteral("rows %1, expected %2").arg(model.rowCount()).arg(expected);
    auto it = index->begin();
    for (int row = 0; row < expected; ++row, ++it) {
        if (model.record(row) != *it)
            return QStringLiteral("row %1 differs").arg(row);
    }
    return QString();
}
#define QVERIFY_MIRROR(model) QVERIFY2(mirrorError(model).isEmpty(), qPrintable(mirrorError(model)))

Quote randomQuote(QRandomGenerator &random)
{
    return { QString::number(random.bounded(100)), double(random.bounded(50)),
             int(random.bounded(100)) };
}

} // namespace

class tst_ItemModel : public QObject
{
    Q_OBJECT
private slots:
    void randomRunPassesModelTester_data();
    void randomRunPassesModelTester();
    void singleChangesGiveExactSignals();
    void batchesSignalAtBracketEnd();
    void cellsAndChangeRole();
    void headerSortPutsALiveIndexBehind();
    void changesFromAnotherThreadAreQueued();
};

void tst_ItemModel::randomRunPassesModelTester_data()
{
    QTest::addColumn<int>("limit");
    QTest::addColumn<int>("sortColumn");
    QTest::addColumn<int>("threshold");
    QTest::newRow("sorted index") << -1 << -1 << 1000;
    QTest::newRow("top ten") << 10 << -1 << 1000;
    QTest::newRow("header sort by qty") << -1 << int(Qty) << 1000;
    QTest::newRow("small layout threshold") << -1 << -1 << 4;
}

// Inserts, updates and removals one by one and in transactions, resorts, undo
// and redo, under Qt's model tester; after every step the model mirrors its
// index and persistent indexes still name the rows they were made on.
void tst_ItemModel::randomRunPassesModelTester()
{
    QFETCH(int, limit);
    QFETCH(int, sortColumn);
    QFETCH(int, threshold);
    // The model's own warnings (inconsistent positions) fail the run; the index
    // warnings of unknown-position updates are expected.
    const TestIndexes::WarningLog log;
    QRandomGenerator random(20261123);
    QuoteTable q;
    Model expected;
    for (int id = 0; id < 60; ++id)
        expected.insert(id, randomQuote(random));
    q.fill(expected);

    IndexModel model(q.view.get());
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    model.setRowLimit(limit);
    model.setLayoutThreshold(threshold);
    if (sortColumn >= 0)
        model.sort(sortColumn, Qt::DescendingOrder);
    QUndoStack stack;
    QVector<QPair<QPersistentModelIndex, Record>> followed;

    for (int step = 0; step < 1500; ++step) {
        const int kind = random.bounded(12);
        const int id = random.bounded(120);
        const Record row = q.find(id);
        if (kind == 0 && row.isNull()) {
            q.table.appendRow(q.table.cloneRow(q.row(id, randomQuote(random)).row()));
        } else if (kind == 1 && !row.isNull()) {
            q.table.remove(row);
        } else if (kind <= 3 && !row.isNull()) {
            row.data(Price).set<double>(random.bounded(50));
            q.table.updated(row, Price, Price, -1);
        } else if (kind <= 6) {
            q.table.beginUpdate();
            {
                RecordsTrans trans(&q.table);
                for (int n = random.bounded(kind == 6 ? 40 : 6); n > 0; --n) {
                    const int key = random.bounded(120);
                    RecordUpdater updater(&trans);
                    if (q.find(key).isNull()) {
                        updater.insertInMap(q.row(key, randomQuote(random)));
                    } else if (random.bounded(3) == 0) {
                        updater.setRecord(q.find(key));
                        updater.remove();
                    } else {
                        updater.setRecord(q.find(key));
                        updater.updateInMap();
                        updater.setValue(Price, double(random.bounded(50)));
                        updater.setValue(Qty, qint32(random.bounded(100)));
                    }
                }
            }
            q.table.endUpdate();
        } else if (kind == 7 && !row.isNull()) {
            const Record next = q.row(id, randomQuote(random));
            stack.push(new Undo::Update(&q.table, q.row(id, quoteOf(row)), next));
        } else if (kind == 8 && row.isNull()) {
            stack.push(new Undo::Insert(&q.table, q.row(id, randomQuote(random))));
        } else if (kind == 9 && stack.canUndo()) {
            stack.undo();
        } else if (kind == 10 && stack.canRedo()) {
            stack.redo();
        } else if (kind == 11 && step % 50 == 0) {
            static_cast<IndexSort *>(model.shownIndex())->resort();
        }
        QVERIFY_MIRROR(model);
        for (const auto &pair : qAsConst(followed)) {
            if (pair.first.isValid())
                QCOMPARE(model.record(pair.first.row()), pair.second);
        }
        if (model.rowCount() > 0 && step % 10 == 0) {
            const int r = random.bounded(model.rowCount());
            followed.append({ QPersistentModelIndex(model.index(r, 1)), model.record(r) });
        }
    }
    QVERIFY_INDEXES(&q.table);
    QCOMPARE(log.messages.filter(QRegularExpression("\\|IndexModel:")), QStringList());
}

// Out of a bracket each change is told at once, at the right rows: an update
// that moves the row is a move (the persistent index follows), one that does
// not is dataChanged of the changed columns only.
void tst_ItemModel::singleChangesGiveExactSignals()
{
    QuoteTable q;
    q.fill({ { 1, { "a", 10, 1 } }, { 2, { "b", 20, 2 } }, { 3, { "c", 30, 3 } } });
    IndexModel model(q.view.get());
    model.setColumns({ QStringLiteral("qty"), QStringLiteral("price") });
    QSignalSpy inserted(&model, &QAbstractItemModel::rowsInserted);
    QSignalSpy removed(&model, &QAbstractItemModel::rowsRemoved);
    QSignalSpy moved(&model, &QAbstractItemModel::rowsMoved);
    QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);

    q.table.appendRow(q.table.cloneRow(q.row(4, { "d", 15, 4 }).row()));
    QCOMPARE(inserted.count(), 1);
    QCOMPARE(inserted.at(0).at(1).toInt(), 1);

    const Record one = q.find(1);
    QPersistentModelIndex followed(model.index(0, 0));
    one.data(Price).set<double>(25);
    q.table.updated(one, Price, Price, -1);
    QCOMPARE(moved.count(), 1);
    QCOMPARE(moved.at(0).at(1).toInt(), 0);
    QCOMPARE(moved.at(0).at(4).toInt(), 3); // before the row at 3 of the old list
    QCOMPARE(followed.row(), 2);
    QCOMPARE(model.record(2), one);

    changed.clear();
    one.data(Qty).set<qint32>(9);
    q.table.updated(one, Qty, Qty, -1);
    QCOMPARE(moved.count(), 1);
    QCOMPARE(changed.count(), 1);
    QCOMPARE(changed.at(0).at(0).toModelIndex(), model.index(2, 0));
    QCOMPARE(changed.at(0).at(1).toModelIndex(), model.index(2, 0));

    q.table.remove(q.find(2));
    QCOMPARE(removed.count(), 1);
    QCOMPARE(removed.at(0).at(1).toInt(), 1);
    QVERIFY_MIRROR(model);
}

// Nothing reaches the view inside the bracket; a big batch is one layout
// change that keeps the persistent indexes on their rows.
void tst_ItemModel::batchesSignalAtBracketEnd()
{
    QuoteTable q;
    Model start;
    for (int id = 0; id < 50; ++id)
        start.insert(id, { "x", double(id), id });
    q.fill(start);
    IndexModel model(q.view.get());
    model.setLayoutThreshold(10);
    QSignalSpy any(&model, &QAbstractItemModel::rowsAboutToBeMoved);
    QSignalSpy layout(&model, &QAbstractItemModel::layoutChanged);
    QSignalSpy reset(&model, &QAbstractItemModel::modelReset);
    const Record kept = q.find(7);
    QPersistentModelIndex followed(model.index(7, 2));

    for (int size : { 3, 30 }) {
        const int signalled = any.count() + layout.count();
        q.table.beginUpdate();
        {
            RecordsTrans trans(&q.table);
            for (int id = 0; id < size; ++id) {
                RecordUpdater updater(&trans, q.find(id));
                updater.updateInMap();
                updater.setValue(Price, 100.0 - id);
            }
        }
        const int inBracket = any.count() + layout.count() - signalled;
        q.table.endUpdate();
        QCOMPARE(inBracket, 0);
        QVERIFY_MIRROR(model);
        QCOMPARE(model.record(followed.row()), kept);
    }
    QCOMPARE(any.count(), 3);
    QCOMPARE(layout.count(), 1);
    QCOMPARE(reset.count(), 0);
}

void tst_ItemModel::cellsAndChangeRole()
{
    QuoteTable q;
    q.table.setColumnTitle(Price, QStringLiteral("Цена"));
    q.fill({ { 1, { "a", 10, 1 } }, { 2, { "b", 20, 2 } } });
    q.find(2).data(Name).setPresent(false);
    IndexModel model(q.view.get());
    QCOMPARE(model.headerData(Price, Qt::Horizontal).toString(), QStringLiteral("Цена"));
    QCOMPARE(model.data(model.index(0, Price)).toString(), QStringLiteral("10"));
    QCOMPARE(model.data(model.index(0, Price), Qt::EditRole).type(), QVariant::Double);
    QVERIFY(!model.data(model.index(1, Name)).isValid());

    model.setChangeHighlightPeriod(1000);
    q.table.beginUpdate();
    {
        RecordsTrans trans(&q.table);
        RecordUpdater up(&trans, q.find(1)), down(&trans, q.find(2));
        up.updateInMap();
        up.setValue(Price, 11.0);
        down.updateInMap();
        down.setValue(Price, 19.0);
    }
    q.table.endUpdate();
    const QModelIndex upCell = model.index(0, Price), downCell = model.index(1, Price);
    QCOMPARE(model.data(upCell, IndexModel::ChangeDirectionRole).toInt(), 1);
    QCOMPARE(model.data(downCell, IndexModel::ChangeDirectionRole).toInt(), -1);
    QVERIFY(!model.data(model.index(0, Qty), IndexModel::ChangeDirectionRole).isValid());
    model.testingAdvanceClock(400);
    QVERIFY(model.data(upCell, IndexModel::ChangeAgeRole).toInt() >= 400);
    model.testingAdvanceClock(700);
    QVERIFY(!model.data(upCell, IndexModel::ChangeDirectionRole).isValid());
}

void tst_ItemModel::headerSortPutsALiveIndexBehind()
{
    QuoteTable q;
    q.fill({ { 1, { "a", 10, 3 } }, { 2, { "b", 20, 1 } }, { 3, { "c", 30, 2 } } });
    IndexModel model(q.view.get());
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    QCoreApplication::processEvents(); // the fixture's own indexes are announced first
    QSignalSpy added(&q.table, &Table::indexAdded);
    QSignalSpy removed(&q.table, &Table::indexRemoved);
    QPersistentModelIndex followed(model.index(0, 0));
    model.sort(Qty, Qt::DescendingOrder);
    QTRY_COMPARE(added.count(), 1); // announced once the index is complete
    QVERIFY(model.shownIndex() != model.sourceIndex());
    QCOMPARE(model.record(0), q.find(1));
    QCOMPARE(model.record(2), q.find(2));
    QCOMPARE(followed.row(), 0);

    const Record two = q.find(2);
    two.data(Qty).set<qint32>(9);
    q.table.updated(two, Qty, Qty, -1);
    QCOMPARE(model.record(0), two);
    QVERIFY_MIRROR(model);
    QVERIFY_INDEXES(&q.table);

    model.sort(-1);
    QCOMPARE(removed.count(), 1);
    QCOMPARE(model.shownIndex(), model.sourceIndex());
    QVERIFY_MIRROR(model);

    // The original index goes while sorted: the model empties and the table
    // still works with the sort index that read its filter.
    model.sort(Price);
    q.view.reset();
    QCOMPARE(model.rowCount(), 0);
    QVERIFY(!model.shownIndex());
    q.table.appendRow(q.table.cloneRow(q.row(8, { "h", 5, 5 }).row()));
    QVERIFY_INDEXES(&q.table);
}

// A writer thread changes the table in brackets while the model's thread
// runs its event loop: the model catches up through its queued path.
void tst_ItemModel::changesFromAnotherThreadAreQueued()
{
    QuoteTable q;
    Model start;
    for (int id = 0; id < 100; ++id)
        start.insert(id, { "x", double(id), id });
    q.fill(start);
    IndexModel model(q.view.get());
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    model.setRowLimit(20);
    std::unique_ptr<QThread> writer(QThread::create([&q] {
        QRandomGenerator random(7);
        for (int round = 0; round < 300; ++round) {
            q.table.beginUpdate();
            {
                RecordsTrans trans(&q.table);
                for (int n = 0; n < 5; ++n) {
                    RecordUpdater updater(&trans, q.find(random.bounded(100)));
                    updater.updateInMap();
                    updater.setValue(Price, double(random.bounded(1000)));
                }
            }
            q.table.endUpdate();
        }
    }));
    writer->start();
    while (!writer->isFinished())
        QCoreApplication::processEvents();
    writer->wait();
    QCoreApplication::processEvents();
    q.table.lock();
    const QString error = mirrorError(model);
    q.table.unlock();
    QVERIFY2(error.isEmpty(), qPrintable(error));
}

QTEST_GUILESS_MAIN(tst_ItemModel)
#include "tst_itemmodel.moc"
