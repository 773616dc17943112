// List, sorted and limited indexes: appends and parts, removal by position and
// identity, block moves, builds under the table's lock, look-up by table name,
// the binary searches, single and batch changes, eviction by a limited index.

#include "indexchecker.h"
#include "testindexes.h"

#include <core/icore.h>
#include <database/database.h>

#include <QtConcurrent>
#include <QtTest>

#include <algorithm>

using namespace TestIndexes;

namespace {

// Exposes the partitioned list for checks of its parts.
class ListProbe : public IndexList
{
public:
    using IndexList::IndexList;
    QVector<int> parts() const { return records().partCounts(); }
};

QList<int> ids(const IndexIterative &index)
{
    QList<int> result;
    for (auto it = index.begin(); it != index.end(); ++it)
        result << idOf(*it);
    return result;
}

} // namespace

class tst_IndexSort : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();
    void listAppendRemoveMove();
    void listBuildAndTableByName();
    void searches();
    void update_data();
    void update();
    void process();
    void limitEviction();

private:
    Table *table = nullptr;
};

void tst_IndexSort::init()
{
    table = new Table(QStringLiteral("quotes"));
    addQuoteColumns(*table);
    table->setMasterIndex(new MasterIndex_Column_Pure(table, QStringLiteral("id")));
}

void tst_IndexSort::cleanup()
{
    delete table;
}

void tst_IndexSort::listAppendRemoveMove()
{
    ListProbe list(table, false);
    for (int i = 0; i < 10000; ++i)
        list.add(makeRow(*table, i));
    QCOMPARE(list.parts(), QVector<int>({ 9999, 1 }));

    ListProbe small(table, false);
    QList<Record> rows;
    for (int i = 0; i < 8; ++i) {
        rows << makeRow(*table, i);
        small.add(rows.last());
    }
    // A position holding another record falls back to the identity search.
    QVERIFY(small.remove(rows[2], 5));
    QVERIFY(!small.remove(makeRow(*table, 2), -1)); // same key, other row
    QCOMPARE(small.indexOf(rows[2]), -1);
    QCOMPARE(small.indexOf(rows[3]), 2);
    QCOMPARE(ids(small), QList<int>({ 0, 1, 3, 4, 5, 6, 7 }));

    small.move(2, 4, 2);
    small.move(1, 3, 3);
    QCOMPARE(ids(small), QList<int>({ 0, 1, 3, 4, 5, 6, 7 }));
    small.move(1, 2, 3); // 0 4 5 | 1 3 | 6 7
    QCOMPARE(ids(small), QList<int>({ 0, 4, 5, 1, 3, 6, 7 }));
    small.move(5, 6, 0);
    QCOMPARE(ids(small), QList<int>({ 6, 7, 0, 4, 5, 1, 3 }));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("IndexList::move: bad block"));
    small.move(5, 9, 0);
    QCOMPARE(small.count(), 7);
}

void tst_IndexSort::listBuildAndTableByName()
{
    table->appendList(
        { makeRow(*table, 5), makeRow(*table, 3), makeRow(*table, 9), makeRow(*table, 1) });
    DefaultCore::global()->addTable(table);
    {
        IndexList byName(QStringLiteral("quotes"), true);
        QVERIFY(table->indexes().contains(&byName));
        byName.build();
        byName.build(); // a build is complete, not additive
        QCOMPARE(ids(byName), QList<int>({ 1, 3, 5, 9 }));
        QVERIFY_INDEXES(table);
    }
    QVERIFY(table->indexes().isEmpty());
    DefaultCore::global()->removeTable(QStringLiteral("quotes"));

    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("no table named 'nowhere'"));
    IndexList inert(QStringLiteral("nowhere"), true);
    QVERIFY(!inert.table());
    QVERIFY(!inert.isRegistered());
    inert.build();
    QCOMPARE(inert.count(), 0);

    // A filter that throws leaves the table unlocked for other threads.
    ColumnSort throwing(table, { Id }, false, [](const Record &row) -> bool {
        if (idOf(row) == 5)
            throw QStringLiteral("refused");
        return true;
    });
    QVERIFY_EXCEPTION_THROWN(throwing.build(), QString);
    QtConcurrent::run([this] {
        table->lock();
        table->unlock();
    }).waitForFinished();
}

void tst_IndexSort::searches()
{
    ColumnSort byGroup(table, { Group }, false);
    // Arrival: ids 0..9 with groups 2 1 2 3 2 1 0 2 3 1.
    const int groups[] = { 2, 1, 2, 3, 2, 1, 0, 2, 3, 1 };
    for (int id = 0; id < 10; ++id)
        byGroup.add(makeRow(*table, id, groups[id]));
    QCOMPARE(ids(byGroup), QList<int>({ 6, 1, 5, 9, 0, 2, 4, 7, 3, 8 }));
    const Record two = makeRow(*table, 100, 2);
    QCOMPARE(byGroup.search(two, -1), 4);
    QCOMPARE(byGroup.searchLast(two, -1), 7);
    QCOMPARE(byGroup.search(two, 5), 6); // looks only after `from`
    QCOMPARE(byGroup.search(two, 7), -1);
    QCOMPARE(byGroup.searchLast(two, 7), -1);
    QCOMPARE(byGroup.indexOfAdd(two), 8);
    QCOMPARE(idOf(byGroup.find(two, -1)), 0);
    QVERIFY(byGroup.find(makeRow(*table, 100, 7), -1).isNull());
    QVERIFY(byGroup.find(makeRow(*table, 100, -1), -1).isNull());
    // The linear search counts from from + 1.
    QCOMPARE(byGroup.searchFull(two, -1), 4);
    QCOMPARE(byGroup.searchFull(makeRow(*table, 100, 3), 2), 5);
    QCOMPARE(byGroup.searchFull(two, 7), -1);
    for (int position = 0; position < byGroup.count(); ++position)
        QCOMPARE(byGroup.indexOf(byGroup.at(position)), position);
    QCOMPARE(byGroup.indexOf(two), -1);
}

void tst_IndexSort::update_data()
{
    QTest::addColumn<int>("id");
    QTest::addColumn<int>("newGroup");
    QTest::addColumn<int>("position"); // -2: the record's own position
    QTest::addColumn<QList<int>>("expected");
    QTest::addColumn<int>("warnings");
    // Start: groups 10 20 30 40 50 for ids 1..5, plus the unindexed id 6.
    QTest::newRow("key kept") << 3 << 30 << -1 << QList<int>({ 1, 2, 3, 4, 5 }) << 0;
    QTest::newRow("equal to next neighbour stays")
        << 3 << 40 << -1 << QList<int>({ 1, 2, 3, 4, 5 }) << 0;
    QTest::newRow("changed, position unknown")
        << 2 << 45 << -1 << QList<int>({ 1, 3, 4, 2, 5 }) << 1;
    QTest::newRow("changed, position known") << 2 << 45 << -2 << QList<int>({ 1, 3, 4, 2, 5 }) << 0;
    QTest::newRow("wrong position is ignored")
        << 2 << 45 << 4 << QList<int>({ 1, 3, 4, 2, 5 }) << 1;
    QTest::newRow("changed to an equal key goes last")
        << 5 << 10 << -2 << QList<int>({ 1, 5, 2, 3, 4 }) << 0;
    QTest::newRow("not in the index is added")
        << 6 << 25 << -1 << QList<int>({ 1, 2, 6, 3, 4, 5 }) << 0;
    QTest::newRow("failing the filter leaves") << 4 << 99 << -1 << QList<int>({ 1, 2, 3, 5 }) << 0;
}

void tst_IndexSort::update()
{
    QFETCH(int, id);
    QFETCH(int, newGroup);
    QFETCH(int, position);
    QFETCH(QList<int>, expected);
    QFETCH(int, warnings);
    ColumnSort byGroup(table, { Group }, false,
                       [](const Record &row) { return row.data(Group).get<qint32>() < 90; });
    QList<Record> rows;
    for (int i = 1; i <= 6; ++i) {
        rows << makeRow(*table, i, 10 * i);
        if (i < 6)
            byGroup.add(rows.last());
    }
    const Record &row = rows[id - 1];
    if (position == -2)
        position = byGroup.indexOf(row);
    row.data(Group).set<qint32>(newGroup);
    WarningLog log;
    byGroup.update(row, 0, 0, position);
    QCOMPARE(ids(byGroup), expected);
    QStringList expectedLog;
    while (expectedLog.size() < warnings)
        expectedLog << fullSearchWarning();
    QCOMPARE(log.messages, expectedLog);
}

void tst_IndexSort::process()
{
    ColumnSort byGroup(table, { Group }, false,
                       [](const Record &row) { return row.data(Group).get<qint32>() >= 0; });
    std::vector<Record> expected;
    QList<Record> rows;
    for (int id = 0; id < 40; ++id) {
        rows << makeRow(*table, id, id % 4);
        byGroup.add(rows.last());
    }
    const QList<Record> removed = { rows[0], rows[13], rows[39], makeRow(*table, 99, 1) };
    // Two keys change (one to fail the filter), one stays.
    rows[5].data(Group).set<qint32>(3);
    rows[6].data(Group).set<qint32>(-1);
    const QList<Record> updated = { rows[5], rows[6], rows[10] };
    const QList<Record> inserted = { makeRow(*table, 50, 2), makeRow(*table, 51, 0),
                                     makeRow(*table, 52, 2), makeRow(*table, 53, -5) };
    for (auto it = byGroup.begin(); it != byGroup.end(); ++it) {
        if (!removed.contains(*it) && !updated.contains(*it))
            expected.push_back(*it);
    }
    for (const QList<Record> &list : { updated, inserted }) {
        for (const Record &row : list) {
            if (byGroup.filter(row))
                expected.push_back(row);
        }
    }
    std::stable_sort(expected.begin(), expected.end(), IndexSort::LessThan(&byGroup));
    const QVector<int> positions = byGroup.indexOfs(removed + updated);
    QCOMPARE(positions[3], -1);
    // Rows whose key moved are found by the shared scan at their old places.
    QCOMPARE(positions[4], 11);
    QCOMPARE(positions[5], 21);
    QCOMPARE(positions[6], byGroup.indexOf(rows[10]));

    WarningLog log;
    byGroup.process(removed, updated, -1, -1, inserted);
    QCOMPARE(IndexChecker::sameOrder(&byGroup, expected), QString());
    QVERIFY(log.messages.isEmpty());
}

void tst_IndexSort::limitEviction()
{
    class Newest : public IndexLimit
    {
    public:
        using IndexLimit::IndexLimit;
        int compare(const Record &a, const Record &b) const override
        {
            return table()->masterIndex()->compare(a, b);
        }
    };
    Newest limited(10, table);
    QCOMPARE(table->namedIndex(QStringLiteral("IndexLimit")), &limited);
    QCOMPARE(limited.getClassName(), "IndexLimit");
    QList<Record> rows;
    for (int id = 0; id < 9; ++id) {
        rows << makeRow(*table, id);
    }
    table->appendList(rows);
    QList<Record> out;
    limited.toRemove(1, out, {});
    QVERIFY(out.isEmpty());
    // Excess 2: positions 0 and 1 only; 0 is kept, so only 1 leaves.
    limited.toRemove(3, out, { makeRow(*table, 0) });
    QCOMPARE(out.size(), 1);
    QCOMPARE(out[0], rows[1]);
    // Rows already listed are not listed twice; the list stays in key order.
    out = { rows[1], rows[7] };
    limited.toRemove(5, out, {});
    QList<int> outIds;
    for (const Record &row : out)
        outIds << idOf(row);
    QCOMPARE(outIds, QList<int>({ 0, 1, 2, 3, 7 }));
}

QTEST_GUILESS_MAIN(tst_IndexSort)
#include "tst_indexsort.moc"
