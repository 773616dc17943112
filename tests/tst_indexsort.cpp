// List, sorted and limited indexes where the randomized model test does not
// reach: builds by table name and under the table's lock, misuse, the
// full-search warning of single updates, and eviction by a limited index.

#include "indexchecker.h"
#include "testindexes.h"
#include "testsupport.h"

#include <database/core/icore.h>
#include <database/database.h>

#include <QtTest>

using namespace TestIndexes;

// The ids of the index's rows in order, as "1 3 5".
static QString ids(const IndexIterative &index)
{
    QStringList result;
    for (const Record &row : IndexChecker::rowsOf(&index))
        result << QString::number(idOf(row));
    return result.join(' ');
}

class tst_IndexSort : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup()
    {
        rows.clear(); // rows go before their table
        delete table;
    }
    void listByNameAndLock();
    void update_data();
    void update();
    void limitEviction();

private:
    Table *table = nullptr;
    QList<Record> rows; // ids 1..6 in groups 10..60
};

void tst_IndexSort::init()
{
    table = new Table(QStringLiteral("quotes"));
    addQuoteColumns(*table);
    table->setMasterIndex(new MasterIndex_Column_Pure(table, QStringLiteral("id")));
    for (int id = 1; id <= 6; ++id)
        rows << makeRow(*table, id, 10 * id);
}

void tst_IndexSort::listByNameAndLock()
{
    table->appendList({ rows[4], rows[2], rows[0] });
    DefaultCore::global()->addTable(table->name(), table);
    {
        IndexList byName(QStringLiteral("quotes"), true);
        QVERIFY(table->indexes().contains(&byName));
        byName.build();
        byName.build(); // a build is complete, not additive
        QCOMPARE(ids(byName), QStringLiteral("1 3 5"));
        QVERIFY(!byName.remove(makeRow(*table, 5), -1)); // same key, other row
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("IndexList::move: bad block"));
        byName.move(1, 3, 0);
        QCOMPARE(byName.count(), 3);
    }
    QVERIFY(table->indexes().isEmpty());
    DefaultCore::global()->removeTable(QStringLiteral("quotes"));

    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("no table named 'nowhere'"));
    IndexList inert(QStringLiteral("nowhere"), true);
    QVERIFY(!inert.table() && !inert.isRegistered());

    // A filter that throws leaves the table unlocked for other threads.
    ColumnSort throwing(table, { Id }, false, [](const Record &row) -> bool {
        return idOf(row) == 3 ? throw QStringLiteral("refused") : true;
    });
    QVERIFY_EXCEPTION_THROWN(throwing.build(), QString);
    QVERIFY(TestSupport::lockableElsewhere(*table));
}

void tst_IndexSort::update_data()
{
    QTest::addColumn<int>("id"); // ids 1..5 are in the index, 6 is not
    QTest::addColumn<int>("newGroup");
    QTest::addColumn<int>("position"); // -2: the row's own position
    QTest::addColumn<QString>("expected");
    QTest::addColumn<bool>("warned");
    QTest::newRow("key kept") << 3 << 30 << -1 << "1 2 3 4 5" << false;
    QTest::newRow("moved, position unknown") << 2 << 45 << -1 << "1 3 4 2 5" << true;
    QTest::newRow("moved, position known") << 2 << 45 << -2 << "1 3 4 2 5" << false;
    QTest::newRow("wrong position ignored") << 2 << 45 << 4 << "1 3 4 2 5" << true;
    QTest::newRow("absent is added") << 6 << 25 << -1 << "1 2 6 3 4 5" << false;
    QTest::newRow("filtered out leaves") << 4 << 99 << -1 << "1 2 3 5" << false;
}

// Only an update that has to scan for its row reports the cost, once.
void tst_IndexSort::update()
{
    QFETCH(int, id);
    QFETCH(int, newGroup);
    QFETCH(int, position);
    QFETCH(bool, warned);
    ColumnSort byGroup(table, { Group }, false,
                       [](const Record &row) { return row.data(Group).get<qint32>() < 90; });
    for (int i = 0; i < 5; ++i)
        byGroup.add(rows[i]);
    const Record &row = rows[id - 1];
    if (position == -2)
        position = byGroup.indexOf(row);
    row.data(Group).set<qint32>(newGroup);
    WarningLog log;
    byGroup.update(row, 0, 0, position);
    QTEST(ids(byGroup), "expected");
    QCOMPARE(log.messages, warned ? QStringList(fullSearchWarning) : QStringList());
}

// toRemove() examines the rows at the excess positions only, skips the kept
// ones, and merges the rest into the list in key order without doubles.
void tst_IndexSort::limitEviction()
{
    struct Newest : IndexLimit
    {
        using IndexLimit::IndexLimit;
        int compare(const Record &a, const Record &b) const override
        {
            return table()->masterIndex()->compare(a, b);
        }
    } limited(8, table);
    QCOMPARE(table->namedIndex(QStringLiteral("IndexLimit")), &limited);
    table->appendList(rows);
    QList<Record> out;
    limited.toRemove(4, out, { makeRow(*table, 1) }); // excess 2: ids 1 (kept) and 2
    QCOMPARE(out, QList<Record>({ rows[1] }));
    out = { rows[1], rows[5] };
    limited.toRemove(5, out, {});
    QCOMPARE(out, QList<Record>({ rows[0], rows[1], rows[2], rows[5] }));
}

QTEST_GUILESS_MAIN(tst_IndexSort)
#include "tst_indexsort.moc"
