// The light indexes (the contiguous sorted vector and the change watcher) and
// the lifetime rule shared by every kind of index.

#include "testindexes.h"

#include <database/indexdepend.h>
#include <database/indexlimit.h>
#include <database/indexvector.h>
#include <database/watchindex.h>

#include <QtTest>

using namespace TestIndexes;

namespace {

// Sorted by group only, so rows of one group are equal keys.
class GroupVector : public IndexVector
{
public:
    using IndexVector::IndexVector;
    int compare(const Record &a, const Record &b) const override
    {
        const int x = a.data(Group).get<qint32>();
        const int y = b.data(Group).get<qint32>();
        return x < y ? -1 : (x > y ? 1 : 0);
    }
};

class GroupLimit : public IndexLimit
{
public:
    using IndexLimit::IndexLimit;
    int compare(const Record &a, const Record &b) const override
    {
        return a.data(Group).get<qint32>() - b.data(Group).get<qint32>();
    }
};

QList<int> ids(const QVector<Record> &records)
{
    QList<int> result;
    for (const Record &record : records)
        result << idOf(record);
    return result;
}

QList<int> ids(const QList<Record> &records)
{
    return ids(records.toVector());
}

} // namespace

class tst_VectorWatch : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void vectorKeepsArrivalOrderAmongEqualKeys();
    void vectorFollowsTheTable();
    void watchBookkeeping();
    void destroyedIndexLeavesTheRegistry_data();
    void destroyedIndexLeavesTheRegistry();
    void selfRegisteredIndexIsAnnouncedWhole();
};

void tst_VectorWatch::vectorKeepsArrivalOrderAmongEqualKeys()
{
    Table table(QStringLiteral("t"));
    addQuoteColumns(table);
    GroupVector vector(&table);
    // Keys 2, 3, 1, 2 arriving as rows 1..4 must read 1, 2a, 2b, 3.
    const int groups[] = { 2, 3, 1, 2 };
    for (int id = 1; id <= 4; ++id)
        vector.add(makeRow(table, id, groups[id - 1]));
    QCOMPARE(ids(vector.records()), (QList<int> { 3, 1, 4, 2 }));

    // contains() is key equality: a fresh row of group 2 counts as contained.
    QVERIFY(vector.contains(makeRow(table, 99, 2)));
    QVERIFY(!vector.contains(makeRow(table, 99, 7)));
    QCOMPARE(vector.search(makeRow(table, 0, 2), 1), 2);

    // Removal is by identity: a row with an equal key is not removed.
    QVERIFY(!vector.remove(makeRow(table, 1, 2), 0));
    const Record second = vector.at(2);
    QVERIFY(vector.remove(second, -1));
    QCOMPARE(ids(vector.records()), (QList<int> { 3, 1, 2 }));

    // resort() is stable after keys changed in place.
    vector.at(0).data(Group).set<qint32>(5);
    vector.resort();
    QCOMPARE(ids(vector.records()), (QList<int> { 1, 2, 3 }));
    QVERIFY(!IndexVector::sortIndex);
}

void tst_VectorWatch::vectorFollowsTheTable()
{
    Table table(QStringLiteral("t"));
    addQuoteColumns(table);
    table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("id")));
    for (int id = 1; id <= 5; ++id)
        table.appendList({ makeRow(table, id, 10 - id) });
    GroupVector vector(&table);
    vector.build();
    QCOMPARE(ids(vector.records()), (QList<int> { 5, 4, 3, 2, 1 }));
    table.addIndex(&vector);

    Record row = table.masterIndex()->find(makeRow(table, 5), -1);
    row.data(Group).set<qint32>(20);
    table.updated(row, Group, Group, -1);
    table.remove(table.masterIndex()->find(makeRow(table, 3), -1));
    QCOMPARE(ids(vector.records()), (QList<int> { 4, 2, 1, 5 }));
    table.removeIndex(&vector);
}

void tst_VectorWatch::watchBookkeeping()
{
    Table table(QStringLiteral("t"));
    addQuoteColumns(table);
    table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("id")));
    WatchIndex watch(&table);
    table.addIndex(&watch);

    table.appendList({ makeRow(table, 1), makeRow(table, 2) });
    const Record one = table.masterIndex()->find(makeRow(table, 1), -1);
    const Record two = table.masterIndex()->find(makeRow(table, 2), -1);
    table.updated(two, -1, -1, -1);
    table.updated(two, -1, -1, -1);
    QCOMPARE(ids(watch.addedRecords()), (QList<int> { 1, 2 }));
    QCOMPARE(ids(watch.updatedRecords()), (QList<int> { 2, 2 }));

    // A row removed and added back counts as updated, not as added.
    table.remove(one);
    QCOMPARE(ids(watch.removedRecords()), (QList<int> { 1 }));
    QVERIFY(watch.contains(one)); // still listed as added: removals are not consulted
    table.appendList({ one });
    QVERIFY(watch.removedRecords().isEmpty());
    QCOMPARE(ids(watch.updatedRecords()), (QList<int> { 2, 2, 1 }));
    QCOMPARE(watch.addedRecords().size(), 2);

    watch.rebuild();
    QVERIFY(watch.isEmpty());
    QVERIFY(!watch.contains(one));
    table.removeIndex(&watch);
}

// Every kind of index, however it was registered, leaves every registry of the
// table when deleted, without signals; the table then changes safely (ASan).
void tst_VectorWatch::destroyedIndexLeavesTheRegistry_data()
{
    QTest::addColumn<QString>("kind");
    for (const char *kind :
         { "list", "sort", "limit", "vector", "watch", "dependent", "named", "master" })
        QTest::newRow(kind) << QString::fromLatin1(kind);
}

void tst_VectorWatch::destroyedIndexLeavesTheRegistry()
{
    QFETCH(QString, kind);
    Table table(QStringLiteral("t"));
    addQuoteColumns(table);
    table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("id")));
    table.appendList({ makeRow(table, 1, 1), makeRow(table, 2, 2) });
    WatchIndex stays(&table);
    table.addIndex(&stays);

    Index *index = nullptr;
    if (kind == "list")
        index = new IndexList(&table);
    else if (kind == "sort")
        index = new ColumnSort(&table, { Group }, true);
    else if (kind == "limit")
        index = new GroupLimit(1, &table);
    else if (kind == "vector")
        table.addIndex(index = new GroupVector(&table));
    else if (kind == "watch")
        table.addIndex(index = new WatchIndex(&table));
    else if (kind == "dependent")
        table.addDependentIndex(index = new IndexDependBase);
    else if (kind == "named")
        table.setIndexName(QStringLiteral("loose"), index = new WatchIndex(&table));
    else
        index = table.masterIndex();
    index->build();
    table.setIndexName(QStringLiteral("n"), index);

    int signalled = 0;
    connect(&table, &Table::indexRemoved, this, [&] { ++signalled; });
    connect(&table, &Table::dependentIndexRemoved, this, [&] { ++signalled; });
    delete index;
    QVERIFY(!table.indexes().contains(index));
    QVERIFY(!table.dependentIndexes().contains(index));
    QCOMPARE(table.namedIndex(QStringLiteral("n")), nullptr);
    QCOMPARE(table.indexName(index), QString());
    QCOMPARE(signalled, 0);
    QCOMPARE(table.masterIndex() == index, false);

    table.beginUpdate();
    table.appendList({ makeRow(table, 3, 3) });
    Record row = table.masterIndex() ? table.masterIndex()->find(makeRow(table, 1), -1) : Record();
    if (!row.isNull()) {
        table.updated(row, Group, Group, -1);
        table.remove(row);
    }
    table.endUpdate();
    QCOMPARE(ids(stays.addedRecords()), QList<int>({ 3 }));
}

// A receiver of indexAdded may call the index's virtual functions: an index
// that registers itself in its constructor is announced once it is complete.
void tst_VectorWatch::selfRegisteredIndexIsAnnouncedWhole()
{
    Table table(QStringLiteral("t"));
    addQuoteColumns(table);
    QStringList heard;
    connect(&table, &Table::indexAdded, this, [&](Index *index) {
        heard << QString::fromLatin1(index->getClassName())
                + (dynamic_cast<ColumnSort *>(index) ? "+sort" : "");
    });
    ColumnSort sort(&table, { Group }, true);
    QCOMPARE(table.indexes(), QList<Index *>({ &sort }));
    QVERIFY(heard.isEmpty());
    delete new ColumnSort(&table, { Id }, true); // gone before the event loop: never announced
    QCoreApplication::processEvents();
    QCOMPARE(heard, QStringList({ "IndexSort+sort" }));
    QCoreApplication::processEvents();
    QCOMPARE(heard.size(), 1);
}

QTEST_GUILESS_MAIN(tst_VectorWatch)
#include "tst_vectorwatch.moc"
