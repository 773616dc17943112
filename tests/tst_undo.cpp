#include "indexchecker.h"
#include "transfixture.h"

#include <database/recordstrans.h>
#include <database/undo.h>

#include <QLoggingCategory>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QUndoStack>
#include <QtTest>

using namespace TransFixture;

class tst_Undo : public QObject
{
    Q_OBJECT
private slots:
    void randomUndoRedoMatchesModel_data();
    void randomUndoRedoMatchesModel();
    void insertFindsItsRowByKeyOnly();
    void clearGivesItsRowsBackOnce();
    void transactionOddities();
    void bracketClosesWhenTableThrows();
    void batchBecomesOneCommand();
    void sameRowWarning();
};

void tst_Undo::randomUndoRedoMatchesModel_data()
{
    QTest::addColumn<bool>("clears");
    QTest::newRow("direct commands and clears") << true;
    QTest::newRow("direct commands and transactions") << false;
}

// A random history is pushed on a real stack, then walked back and forth at
// random: after every step the table equals the state recorded for the stack's
// index and every index agrees with it. Transaction children register their
// own records as rows, which direct commands replace by clones (whose later
// edits the record would miss), so direct commands take even keys,
// transactions odd ones, and clears run only without transactions.
void tst_Undo::randomUndoRedoMatchesModel()
{
    QFETCH(bool, clears);
    // A direct Update reports its row with an unknown position, so the price
    // view notes its full search on every replay.
    QLoggingCategory::setFilterRules(QStringLiteral("default.warning=false"));
    const auto restore = qScopeGuard([] { QLoggingCategory::setFilterRules(QString()); });
    QRandomGenerator random(424242);
    auto quote = [&] {
        return Quote { QString::number(random.bounded(1000)), double(random.bounded(60)),
                       int(random.bounded(100)) };
    };
    QuoteTable q;
    Model model;
    for (int id = 0; id < 40; ++id)
        model.insert(id, quote());
    q.fill(model);

    QUndoStack stack;
    QVector<Model> states { model };
    while (stack.count() < 150) {
        const int kind = random.bounded(16);
        if (clears && kind == 0) {
            stack.push(new Undo::Clear(&q.table));
            model.clear();
        } else if (clears || kind < 8) {
            const int id = random.bounded(100) * 2;
            if (!model.contains(id)) {
                model.insert(id, quote());
                stack.push(new Undo::Insert(&q.table, q.row(id, model[id])));
            } else if (kind % 2) {
                stack.push(new Undo::Delete(&q.table, q.find(id)));
                model.remove(id);
            } else {
                const Record old = q.row(id, model[id]);
                model.insert(id, quote());
                stack.push(new Undo::Update(&q.table, old, q.row(id, model[id])));
            }
        } else { // children on distinct odd keys
            auto *trans = new Undo::Transaction(&q.table);
            const int base = random.bounded(100);
            for (int n = random.bounded(6); n > 0; --n) {
                const int id = (base + 7 * n) % 100 * 2 + 1;
                const int step = random.bounded(3);
                const Quote next = quote();
                if (!model.contains(id)) {
                    new Undo::TransInsert(q.row(id, next), trans);
                    model.insert(id, next);
                    if (step == 1) { // dropped in the same batch
                        new Undo::TransDelete(q.row(id, next), trans);
                        model.remove(id);
                    } else if (step == 2) { // edited in the same batch
                        model.insert(id, quote());
                        new Undo::TransUpdate(q.row(id, next), q.row(id, model[id]), trans);
                    }
                } else if (step == 0) {
                    new Undo::TransDelete(q.find(id), trans);
                    model.remove(id);
                } else {
                    new Undo::TransUpdate(q.row(id, model[id]), q.row(id, next), trans);
                    model.insert(id, next);
                }
            }
            stack.push(trans);
        }
        states.append(model);
        QCOMPARE(modelOf(q.table), model);
        QVERIFY_INDEXES(&q.table);
    }

    for (int step = 0; step < 2000; ++step) {
        if (stack.canUndo() && (!stack.canRedo() || random.bounded(2)))
            stack.undo();
        else
            stack.redo();
        QCOMPARE(modelOf(q.table), states[stack.index()]);
        QVERIFY_INDEXES(&q.table);
    }
}

// Insert appends a clone, never the stored record, and its undo looks the row
// up by key: once the key changed elsewhere, nothing is removed.
void tst_Undo::insertFindsItsRowByKeyOnly()
{
    QuoteTable q;
    const Record stored = q.row(5, { "e", 5, 5 });
    Undo::Insert insert(&q.table, stored);
    insert.redo();
    const Record row = q.find(5);
    QVERIFY(!row.isNull() && row != stored);

    const Record again = q.find(5);
    const int position = q.table.masterIndex()->indexOf(again);
    again.data(Id).set<qint32>(6);
    q.table.updated(again, Id, Id, position);
    insert.undo();
    QCOMPARE(modelOf(q.table).keys(), QList<int>() << 6);
    QVERIFY_INDEXES(&q.table);
}

// Clear hands its rows back once: a key still in the table is only reported as
// updated (its content kept), and a second undo restores nothing.
void tst_Undo::clearGivesItsRowsBackOnce()
{
    QuoteTable q;
    q.fill({ { 1, { "a", 1, 1 } }, { 2, { "b", 2, 2 } }, { 3, { "c", 3, 3 } } });
    Undo::Clear clear(&q.table);
    clear.redo();
    q.table.appendRow(q.table.cloneRow(q.row(1, { "x", 9, 9 }).row()));
    clear.undo();
    const Model restored { { 1, { "x", 9, 9 } }, { 2, { "b", 2, 2 } }, { 3, { "c", 3, 3 } } };
    QCOMPARE(modelOf(q.table), restored);
    QCOMPARE(q.view->batches.last(), (Batch { 0, 1, 2, 1, Id, Qty }));

    q.table.remove(q.find(2));
    clear.undo();
    QCOMPARE(q.table.rowCount(), 2);
    QVERIFY_INDEXES(&q.table);
}

// An empty Transaction still hands the table an (empty) batch on every replay.
// Without a row for the new key, TransUpdate::undo registers its own new record
// as an insert and writes the old content over it.
void tst_Undo::transactionOddities()
{
    QuoteTable q;
    QUndoStack stack;
    stack.push(new Undo::Transaction(&q.table));
    stack.undo();
    const Batch empty { 0, 0, 0, 0, Id, Qty };
    QCOMPARE(q.view->batches, (QVector<Batch> { empty, empty }));

    const Record newRecord = q.row(5, { "new", 2, 2 });
    Undo::Transaction trans(&q.table);
    new Undo::TransUpdate(q.row(5, { "old", 1, 1 }), newRecord, &trans);
    trans.undo();
    QCOMPARE(q.find(5), newRecord);
    QCOMPARE(modelOf(q.table), (Model { { 5, { "old", 1, 1 } } }));
    QCOMPARE(q.table.updateDepth(), 0);
    QVERIFY_INDEXES(&q.table);
}

void tst_Undo::bracketClosesWhenTableThrows()
{
    QuoteTable q;
    q.view->throwOnAdd = true;
    Undo::Insert insert(&q.table, q.row(1, { "a", 1, 1 }));
    QVERIFY_EXCEPTION_THROWN(insert.redo(), QString);
    QCOMPARE(q.table.updateDepth(), 0);
}

// A gathered batch becomes one command holding copies of the rows: pushed
// after the batch ran, its redo changes nothing, and undo/redo move the table
// between the two states although the batch rewrote the updated rows in place.
void tst_Undo::batchBecomesOneCommand()
{
    QuoteTable q;
    const Model before { { 1, { "a", 1, 1 } }, { 2, { "b", 2, 2 } }, { 3, { "c", 3, 3 } } };
    q.fill(before);
    Undo::Transaction *command = nullptr;
    q.table.beginUpdate();
    {
        RecordsTrans trans(&q.table);
        RecordUpdater insert(&trans);
        insert.insertInMap(q.row(4, { "d", 4, 4 }));
        RecordUpdater update(&trans, q.find(1));
        update.updateInMap();
        update.setValue(QStringLiteral("price"), 9.0);
        RecordUpdater remove(&trans, q.find(2));
        remove.updateInMap();
        remove.remove();
        command = Undo::Transaction::fromBatch(trans);
    }
    q.table.endUpdate();
    const Model after = modelOf(q.table);
    QCOMPARE(command->text(), QStringLiteral("Change quotes: 1 inserted, 1 changed, 1 deleted"));
    QCOMPARE(command->childCount(), 3);

    QUndoStack stack;
    stack.push(command);
    QCOMPARE(modelOf(q.table), after);
    stack.undo();
    QCOMPARE(modelOf(q.table), before);
    QVERIFY_INDEXES(&q.table);
    stack.redo();
    QCOMPARE(modelOf(q.table), after);
    QVERIFY_INDEXES(&q.table);
}

// An update given the live row as its old record could never restore it: the
// constructors say so.
void tst_Undo::sameRowWarning()
{
    QuoteTable q;
    q.fill({ { 42, { "a", 1, 1 } } });
    const Record live = q.find(42);
    Undo::Transaction trans(&q.table);

    const char *warning = "Undo::%1: the old and the new record are the same row of table "
                          "'quotes', so undo has nothing to restore. Keep a copy of the row made "
                          "before the change (Record::clone()) and pass that as the old record";
    QTest::ignoreMessage(QtWarningMsg, qPrintable(QString::fromLatin1(warning).arg("TransUpdate")));
    QCOMPARE((new Undo::TransUpdate(live, live, &trans))->text(), QStringLiteral("Change row 42"));
    QTest::ignoreMessage(QtWarningMsg, qPrintable(QString::fromLatin1(warning).arg("Update")));
    Undo::Update(&q.table, live, live);
}

QTEST_GUILESS_MAIN(tst_Undo)
#include "tst_undo.moc"
