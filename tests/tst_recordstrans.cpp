#include "indexchecker.h"
#include "transfixture.h"

#include <database/exception.h>
#include <database/recordstrans.h>

#include <QtTest>

#include <algorithm>
#include <numeric>
#include <random>

using namespace TransFixture;

class tst_RecordsTrans : public QObject
{
    Q_OBJECT
private slots:
    void stateMovesPerKey();
    void manyKeysKeepTheirLists();
    void limitedViewIsTrimmed();
    void executeEarlyThenEmptyBatch();
    void writersAndMisuse();
};

// Each key's operation moves through its states within one batch, and the
// table's rows change only when the batch runs.
void tst_RecordsTrans::stateMovesPerKey()
{
    QuoteTable q;
    q.fill({ { 1, { "a", 10, 1 } }, { 2, { "b", 20, 2 } }, { 3, { "c", 30, 3 } } });
    const Record one = q.find(1), two = q.find(2), three = q.find(3);
    {
        RecordsTrans trans(&q.table);
        // Two updaters of one row edit one working copy.
        RecordUpdater first(&trans, one);
        first.updateInMap();
        first.setValue("price", 11.5);
        RecordUpdater second(&trans, q.find(1));
        second.updateInMap();
        QVERIFY(first.record() != one);
        QCOMPARE(second.record(), first.record());
        second["qty"] = 7;
        QCOMPARE(quoteOf(one).price, 10.0);

        // insert -> remove withdraws the row.
        RecordUpdater withdrawn(&trans);
        withdrawn.insertInMap(q.row(5, { "e", 50, 5 }));
        withdrawn.updateInMap();
        withdrawn.remove();
        QVERIFY(!withdrawn.isUpdated() && !withdrawn.isRegistered());

        // update -> remove drops the copy.
        RecordUpdater gone(&trans, three);
        gone.updateInMap();
        gone.setValue(Price, 99.0);
        gone.remove();

        // remove -> update comes back with a fresh copy of the table's row.
        RecordUpdater back(&trans, two);
        back.updateInMap();
        back.setValue(Price, 21.0);
        back.remove();
        RecordUpdater again(&trans, two);
        again.updateInMap();
        QVERIFY(again.record() != back.record());
        again.setValue(Qty, 4);

        // insertInMap of a pending key, whatever its operation, edits that
        // entry's row and registers nothing new.
        RecordUpdater added(&trans);
        added.insertInMap(q.row(6, { "f", 60, 6 }));
        for (const auto &pending : { std::make_pair(1, one), std::make_pair(3, three),
                                     std::make_pair(6, added.record()) }) {
            RecordUpdater late(&trans);
            late.insertInMap(q.row(pending.first, { "x", 0, 0 }));
            QCOMPARE(late.record(), pending.second);
        }
    }
    QCOMPARE(q.find(1), one);
    const Model expected { { 1, { "a", 11.5, 7 } }, { 2, { "b", 20, 4 } }, { 6, { "f", 60, 6 } } };
    QCOMPARE(modelOf(q.table), expected);
    QCOMPARE(q.view->batches, (QVector<Batch> { { 1, 2, 1, 2, Price, Qty } }));
    QVERIFY_INDEXES(&q.table);
}

// A batch far larger than one block of the transaction's bookkeeping, with
// withdrawn inserts whose room is used again and removals that a later insert
// of the key leaves standing: the lists come out in key order, one entry per
// key, and the table takes them.
void tst_RecordsTrans::manyKeysKeepTheirLists()
{
    QuoteTable q;
    Model model;
    for (int id = 0; id < 6000; id += 2)
        model.insert(id, { "old", 0, 0 });
    q.fill(model);
    std::vector<int> ids(6000);
    std::iota(ids.begin(), ids.end(), 0);
    std::shuffle(ids.begin(), ids.end(), std::mt19937(3));
    QList<int> expected[3]; // inserted, removed, updated
    q.table.beginUpdate();
    {
        RecordsTrans trans(&q.table);
        for (int id : ids) {
            RecordUpdater updater(&trans, q.find(id));
            if (id % 2) { // a new key; every third withdrawn, a half of those back below
                updater.insertInMap(q.row(id, { "new", 0, 1 }));
            } else {
                updater.updateInMap();
                updater.setValue(Qty, 2);
            }
            if (id % 3 == 0)
                updater.remove();
            if (id % 6 == 0)
                RecordUpdater(&trans).insertInMap(q.row(id, { "new", 0, 1 }));
        }
        for (int id = 3; id < 6000; id += 12)
            RecordUpdater(&trans).insertInMap(q.row(id, { "new", 0, 1 }));
        for (int id = 0; id < 6000; ++id) {
            const int list = id % 2 ? (id % 3 == 0 && id % 12 != 3 ? -1 : 0) : (id % 3 ? 2 : 1);
            if (list >= 0)
                expected[list] << id;
        }
        const QList<Record> lists[]
            = { trans.insertList(), trans.removeList(), trans.updateList(), trans.changeList() };
        for (int i = 0; i < 4; ++i) {
            QList<int> listed;
            for (const Record &row : lists[i])
                listed << row.data(Id).get<qint32>();
            QCOMPARE(listed, expected[qMin(i, 2)]);
        }
    }
    q.table.endUpdate();
    QCOMPARE(q.table.rowCount(), 3000 + expected[0].size() - expected[1].size());
    QCOMPARE(q.find(4).data(Qty).get<qint32>(), 2);
    QVERIFY_INDEXES(&q.table);
}

// The limited view names the rows that sort first (lowest price) to make room
// for the net growth, sparing the updated ones: of the first two rows (excess
// 1 + 4 - 3), row 3 is updated, so only row 1 leaves besides the removed row 4.
void tst_RecordsTrans::limitedViewIsTrimmed()
{
    QuoteTable q;
    ByPrice<IndexLimit> limit(3, &q.table);
    q.fill({ { 1, { "a", 10, 1 } },
             { 2, { "b", 20, 2 } },
             { 3, { "c", 5, 3 } },
             { 4, { "d", 30, 4 } } });
    q.table.beginUpdate();
    {
        RecordsTrans trans(&q.table);
        RecordUpdater kept(&trans, q.find(3));
        kept.updateInMap();
        kept.setValue(Qty, 30);
        RecordUpdater gone(&trans, q.find(4));
        gone.updateInMap();
        gone.remove();
        for (int id : { 7, 8 }) {
            RecordUpdater added(&trans);
            added.insertInMap(q.row(id, { "n", 100.0 + id, id }));
        }
    }
    q.table.endUpdate();
    QCOMPARE(modelOf(q.table).keys(), (QList<int> { 2, 3, 7, 8 }));
    QCOMPARE(q.view->batches, (QVector<Batch> { { 2, 1, 2, 1, Qty, Qty } }));
    QVERIFY_INDEXES(&q.table);
}

// A batch with no column marked covers every column; an early execute() leaves
// the destructor an empty batch to hand over.
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
    const QVector<Batch> batches { { 0, 0, 1, 0, Id, Qty }, { 0, 0, 0, 0, Id, Qty } };
    QCOMPARE(q.view->batches, batches);
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
    updater = q.row(1, { "z", 1, 1 }); // a whole row marks every column
    QCOMPARE(trans.firstColumn(), int(Id));
}

QTEST_GUILESS_MAIN(tst_RecordsTrans)
#include "tst_recordstrans.moc"
