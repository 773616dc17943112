#include "indexchecker.h"
#include "transfixture.h"

#include <database/exception.h>
#include <database/indexlimit.h>
#include <database/recordstrans.h>

#include <QRandomGenerator>
#include <QtTest>

using namespace TransFixture;

// A view of the three cheapest quotes.
class PriceLimit : public IndexLimit
{
public:
    PriceLimit(int limit, Table *table)
        : IndexLimit(limit, table)
    {
    }
    int compare(const Record &a, const Record &b) const override { return comparePrice(a, b); }
};

class tst_RecordsTrans : public QObject
{
    Q_OBJECT
private slots:
    void editsOfOneKeyShareOneCopy();
    void removalStateMoves();
    void insertInMapReusesPendingKey_data();
    void insertInMapReusesPendingKey();
    void columnRange_data();
    void columnRange();
    void limitedViewIsTrimmed();
    void executeEarlyThenEmptyBatch();
    void writersAndMisuse();
    void randomBatchesMatchModel();
};

// Two updaters on one row edit one working copy; the table row changes only
// when the batch runs, and then takes both edits.
void tst_RecordsTrans::editsOfOneKeyShareOneCopy()
{
    QuoteTable q;
    q.fill({ { 1, { "a", 10, 1 } }, { 2, { "b", 20, 2 } } });
    const Record row = q.find(1);
    {
        RecordsTrans trans(&q.table);
        RecordUpdater first(&trans, row);
        first.updateInMap();
        QVERIFY(first.record() != row);
        first.setValue("price", 11.5);
        RecordUpdater second(&trans, q.find(1));
        second.updateInMap();
        QCOMPARE(second.record(), first.record());
        second["qty"] = 7;
        QCOMPARE(int(trans.changes().size()), 1);
        QCOMPARE(trans.updateList(), QList<Record>() << row);
        QCOMPARE(quoteOf(row).price, 10.0);
    }
    QCOMPARE(q.find(1), row);
    QCOMPARE(quoteOf(row), (Quote { "a", 11.5, 7 }));
    const RecordingIndex::Batch batch = q.recorder->batches.value(0);
    QCOMPARE(batch.updated, 1);
    QCOMPARE(batch.changed, 1);
    QCOMPARE(batch.first, int(Price));
    QCOMPARE(batch.last, int(Qty));
    QVERIFY_INDEXES(&q.table);
}

// insert -> remove withdraws; update -> remove drops the copy; remove ->
// update comes back as an update with a fresh copy of the table's row.
void tst_RecordsTrans::removalStateMoves()
{
    QuoteTable q;
    q.fill({ { 1, { "a", 10, 1 } }, { 2, { "b", 20, 2 } } });
    const Record two = q.find(2);
    {
        RecordsTrans trans(&q.table);
        RecordUpdater added(&trans);
        added.insertInMap(q.row(5, { "e", 50, 5 }));
        added.updateInMap();
        QVERIFY(added.isUpdated());
        added.remove();
        QVERIFY(!added.isUpdated());
        QVERIFY(!added.isRegistered());

        RecordUpdater gone(&trans, q.find(1));
        gone.updateInMap();
        gone.setValue(Price, 99.0);
        gone.remove();
        QVERIFY(trans.changes().empty());

        RecordUpdater back(&trans, two);
        back.updateInMap();
        back.setValue(Price, 21.0);
        back.remove();
        RecordUpdater again(&trans, two);
        again.updateInMap();
        QVERIFY(again.record() != back.record());
        QCOMPARE(quoteOf(again.record()).price, 20.0);
        again.setValue(Qty, 3);

        QVERIFY(trans.insertList().isEmpty());
        QCOMPARE(trans.removeList().size(), 1);
        QCOMPARE(trans.updateList(), QList<Record>() << two);
        QCOMPARE(trans.changeList(), QList<Record>() << again.record());
    }
    QCOMPARE(modelOf(q.table), (Model { { 2, { "b", 20, 3 } } }));
    QVERIFY_INDEXES(&q.table);
}

void tst_RecordsTrans::insertInMapReusesPendingKey_data()
{
    QTest::addColumn<int>("pending");
    QTest::newRow("insert") << int(RecordsTrans::OpInsert);
    QTest::newRow("update") << int(RecordsTrans::OpUpdate);
    QTest::newRow("remove") << int(RecordsTrans::OpRemove);
}

void tst_RecordsTrans::insertInMapReusesPendingKey()
{
    QFETCH(int, pending);
    QuoteTable q;
    q.fill({ { 1, { "a", 10, 1 } } });
    RecordsTrans trans(&q.table);
    RecordUpdater first(&trans, q.find(1));
    if (pending == RecordsTrans::OpInsert) {
        first.insertInMap(q.row(4, { "d", 40, 4 }));
    } else {
        first.updateInMap();
        if (pending == RecordsTrans::OpRemove)
            first.remove();
    }
    const Record held = trans.operations().begin()->first.record();
    RecordUpdater second(&trans);
    second.insertInMap(q.row(pending == RecordsTrans::OpInsert ? 4 : 1, { "x", 0, 0 }));
    QCOMPARE(second.record(), held);
    QCOMPARE(int(trans.operations().size()), 1);
    QCOMPARE(int(trans.operations().begin()->second), pending);
}

void tst_RecordsTrans::columnRange_data()
{
    QTest::addColumn<int>("edit");
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("last");
    QTest::newRow("nothing marked: every column") << 0 << 0 << 3;
    QTest::newRow("one column") << 1 << 2 << 2;
    QTest::newRow("whole row") << 2 << 0 << 3;
}

void tst_RecordsTrans::columnRange()
{
    QFETCH(int, edit);
    QuoteTable q;
    q.fill({ { 1, { "a", 10, 1 } } });
    {
        RecordsTrans trans(&q.table);
        RecordUpdater updater(&trans, q.find(1));
        updater.updateInMap();
        if (edit == 1)
            updater.setValue("price", 12.0);
        else if (edit == 2)
            updater = q.row(1, { "z", 1, 1 });
    }
    QCOMPARE(q.recorder->batches.size(), 1);
    QTEST(q.recorder->batches[0].first, "first");
    QTEST(q.recorder->batches[0].last, "last");
}

// The limited view evicts the rows that sort first (lowest price) to make room
// for the net growth, sparing updated rows; without it the table just grows.
void tst_RecordsTrans::limitedViewIsTrimmed()
{
    for (const bool limited : { true, false }) {
        QuoteTable q;
        std::unique_ptr<PriceLimit> limit(limited ? new PriceLimit(3, &q.table) : nullptr);
        q.fill({ { 1, { "a", 10, 1 } }, { 2, { "b", 20, 2 } }, { 3, { "c", 5, 3 } } });
        q.table.beginUpdate();
        {
            RecordsTrans trans(&q.table);
            RecordUpdater kept(&trans, q.find(3));
            kept.updateInMap();
            kept.setValue(Qty, 30);
            for (int id : { 7, 8 }) {
                RecordUpdater added(&trans);
                added.insertInMap(q.row(id, { "n", 100.0 + id, id }));
            }
        }
        q.table.endUpdate();
        const QList<int> expected
            = limited ? QList<int> { 2, 3, 7, 8 } : QList<int> { 1, 2, 3, 7, 8 };
        QCOMPARE(modelOf(q.table).keys(), expected);
        QCOMPARE(q.recorder->batches.value(0).removed, limited ? 1 : 0);
        QVERIFY_INDEXES(&q.table);
    }
}

void tst_RecordsTrans::executeEarlyThenEmptyBatch()
{
    QuoteTable q;
    {
        RecordsTrans trans(&q.table);
        RecordUpdater added(&trans);
        added.insertInMap(q.row(1, { "a", 1, 1 }));
        trans.execute();
        QVERIFY(trans.operations().empty());
    }
    QCOMPARE(q.recorder->batches.size(), 2);
    QCOMPARE(q.recorder->batches[0].inserted, 1);
    QCOMPARE(q.recorder->batches[1].inserted, 0);
    QCOMPARE(q.recorder->batches[1].last, 3);
    QCOMPARE(q.table.rowCount(), 1);
}

void tst_RecordsTrans::writersAndMisuse()
{
    QuoteTable q;
    q.fill({ { 1, { "a", 10, 1 } } });
    RecordsTrans trans(&q.table);
    RecordUpdater updater(&trans, q.find(1));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("remove: the row was not registered"));
    updater.remove();
    updater.updateInMap();
    updater.setText("name", "renamed").setValue(Qty, 4);
    QCOMPARE(quoteOf(updater.record()), (Quote { "renamed", 10, 4 }));
    QVERIFY_EXCEPTION_THROWN(updater.setValue(Qty, 3.5), Exception);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("has no column 'nope'"));
    updater.setValue("nope", 1.0);
    QCOMPARE(trans.firstColumn(), int(Name));
    QCOMPARE(trans.lastColumn(), int(Qty));
}

// Random batches of inserts, updates and removals by key against a model; the
// table and its indexes agree with the model after every batch.
void tst_RecordsTrans::randomBatchesMatchModel()
{
    QRandomGenerator random(20240611);
    QuoteTable q;
    Model model;
    for (int batch = 0; batch < 60; ++batch) {
        q.table.beginUpdate();
        {
            RecordsTrans trans(&q.table);
            for (int n = random.bounded(1, 25); n > 0; --n) {
                const int id = random.bounded(40);
                const Quote quote { QString::number(id), double(random.bounded(50)), batch };
                RecordUpdater updater(&trans, q.find(id));
                if (updater.record().isNull())
                    updater.insertInMap(q.row(id, quote));
                else
                    updater.updateInMap();
                updater.setValue(Price, quote.price).setValue(Qty, batch);
                model.insert(id, quote);
                if (random.bounded(3) == 0) {
                    updater.remove();
                    model.remove(id);
                }
            }
        }
        q.table.endUpdate();
        QCOMPARE(modelOf(q.table), model);
        QVERIFY_INDEXES(&q.table);
    }
}

QTEST_GUILESS_MAIN(tst_RecordsTrans)
#include "tst_recordstrans.moc"
