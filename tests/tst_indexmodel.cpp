// The index family. A model test: a master index, three sorted indexes (one
// filtered) and a plain list go through thousands of seeded random appends,
// removals, updates, batches, moves and resorts. After every step each index
// holds exactly its reference, a vector kept in std::stable_sort order over the
// order in which rows (re)entered, and the searches find a random key's equal
// range in it. Then the light indexes (the contiguous sorted vector and the
// change watcher) and the lifetime rule shared by every kind of index.

#include "indexchecker.h"
#include "testindexes.h"

#include <database/database.h>

#include <QtTest>

#include <random>

using namespace TestIndexes;

namespace {

struct Reference
{
    IndexList *index;
    IndexSort *sorted; // null for the plain list: arrival order
    std::vector<Record> rows;

    // The leaving rows go; the entering ones that pass the filter are merged
    // in stably, after the equal keys already there.
    void batch(const QList<Record> &leaving, const QList<Record> &entering)
    {
        for (const Record &row : leaving)
            rows.erase(std::remove(rows.begin(), rows.end(), row), rows.end());
        for (const Record &row : entering) {
            if (index->filter(row))
                rows.insert(sorted ? std::upper_bound(rows.begin(), rows.end(), row,
                                                      IndexSort::LessThan(sorted))
                                   : rows.end(),
                            row);
        }
    }
    // A single update leaves a row alone while it stays in order between its
    // neighbours.
    void update(const Record &row)
    {
        const auto it = std::find(rows.begin(), rows.end(), row);
        const auto after = [&](auto a, auto b) { return sorted->compare(*a, *b) > 0; };
        if (!sorted || it == rows.end() || !index->filter(row)
            || (it != rows.begin() && after(it - 1, it))
            || (it + 1 != rows.end() && after(it, it + 1)))
            batch({ row }, { row });
    }
};

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

class tst_IndexModel : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void randomChanges();
    void vectorKeepsArrivalOrderAmongEqualKeys();
    void watchBookkeeping();
    void destroyedIndexLeavesTheRegistry_data();
    void destroyedIndexLeavesTheRegistry();
    void selfRegisteredIndexIsAnnouncedWhole();
};

void tst_IndexModel::randomChanges()
{
    Table table(QStringLiteral("model"));
    addQuoteColumns(table);
    table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("id")));
    ColumnSort byGroup(&table, { Group }, true), byNameQuantity(&table, { Name, Quantity }, true);
    ColumnSort positive(&table, { Quantity }, true,
                        [](const Record &row) { return row.data(Quantity).get<double>() > 0; });
    IndexList plain(&table, true);
    std::vector<Reference> references = { { table.masterIndex(), table.masterIndex(), {} },
                                          { &byGroup, &byGroup, {} },
                                          { &byNameQuantity, &byNameQuantity, {} },
                                          { &positive, &positive, {} },
                                          { &plain, nullptr, {} } };
    const std::vector<Record> &all = references[0].rows;

    std::mt19937 random(20240611);
    const auto pick = [&](int n) { return int(random() % unsigned(n)); };
    int nextId = 0;
    const auto randomize = [&](const Record &row) {
        row.data(Group).set<qint32>(pick(10));
        row.data(Group).setPresent(pick(10) != 0);
        row.data(Name) = QStringLiteral("n%1").arg(pick(5));
        row.data(Quantity).set<double>(pick(5) * 0.5 - 0.5);
        if (pick(8) == 0)
            row.data(Id).set<qint32>(nextId++); // the master key changes too
    };
    const auto fresh = [&](int n) {
        QList<Record> rows;
        while (rows.size() < n) {
            rows << makeRow(table, nextId++);
            randomize(rows.last());
        }
        return rows;
    };
    const auto someRows = [&](int n) { // neighbours by id: scattered in the other indexes
        const auto from = all.begin() + pick(int(all.size()));
        return QList<Record>(from, from + qMin(n, int(all.end() - from)));
    };
    // Where the master holds a row: known, unknown (-1) or wrong.
    const auto positionOf = [&](const Record &row) {
        const int choices[] = { table.masterIndex()->indexOf(row), -1, pick(int(all.size())) };
        return choices[pick(3)];
    };

    WarningLog log;
    for (int step = 0; step < 4000; ++step) {
        int operation = step == 0 ? 3 : pick(all.size() < 300 ? 4 : 10);
        if (all.size() > 1500 && operation < 4)
            operation = 9;
        QList<Record> leaving, entering;
        if (operation < 3) {
            table.appendRow((entering = fresh(1))[0].row());
        } else if (operation == 3) {
            table.appendList(entering = fresh(step == 0 ? 1001 : 1 + pick(60)));
        } else if (operation < 7) {
            const Record row = someRows(1)[0];
            const int position = positionOf(row);
            if (pick(4))
                randomize(row);
            table.updated(row, 0, -1, position);
            for (Reference &reference : references)
                reference.update(row);
        } else if (operation == 7) { // a batch; the master finds its changed rows by a scan
            const QList<Record> picked = someRows(pick(80));
            QList<Record> updated = picked.mid(0, picked.size() / 2), changed;
            const QList<Record> removed = picked.mid(updated.size()), inserted = fresh(pick(40));
            for (const Record &row : updated) {
                changed << row.clone();
                if (pick(3))
                    randomize(changed.last());
            }
            leaving = removed + updated;
            entering = updated + inserted;
            table.process(removed, updated, 0, -1, inserted, changed);
        } else if (operation == 8) { // a block moved out of order, then a resort
            Reference &reference = references[size_t(1 + pick(4))];
            std::vector<Record> &rows = reference.rows;
            const int n = int(rows.size());
            const int first = pick(n - 1), last = first + pick(qMin(n - first, 50));
            const int to = pick(n - (last - first));
            reference.index->move(first, last, to);
            if (first != to && last != to) {
                std::vector<Record> block(rows.begin() + first, rows.begin() + last + 1);
                rows.erase(rows.begin() + first, rows.begin() + last + 1);
                rows.insert(rows.begin() + to, block.begin(), block.end());
            }
            QVERIFY(IndexChecker::rowsOf(reference.index) == rows);
            if (reference.sorted) {
                reference.sorted->resort();
                std::stable_sort(rows.begin(), rows.end(), IndexSort::LessThan(reference.sorted));
            }
        } else {
            leaving = someRows(1);
            table.remove(leaving[0], positionOf(leaving[0]));
        }
        for (Reference &reference : references) {
            reference.batch(leaving, entering);
            QVERIFY2(IndexChecker::rowsOf(reference.index) == reference.rows,
                     qPrintable(QString::asprintf("step %d, operation %d, %s", step, operation,
                                                  reference.index->getClassName())));
        }
        // The searches of a sorted index agree with a key's equal range.
        const Reference &searched = references[size_t(pick(4))];
        const Record key = someRows(1)[0].clone();
        if (pick(2))
            randomize(key);
        const IndexSort::LessThan less(searched.sorted);
        const auto rows = searched.rows.begin(), rowsEnd = searched.rows.end();
        const int low = int(std::lower_bound(rows, rowsEnd, key, less) - rows);
        const int high = int(std::upper_bound(rows, rowsEnd, key, less) - rows);
        const int from = pick(int(searched.rows.size()) + 1) - 1, first = qMax(low, from + 1);
        QCOMPARE(searched.sorted->search(key, from), first < high ? first : -1);
        QCOMPARE(searched.sorted->searchLast(key, from), first < high ? high - 1 : -1);
        QCOMPARE(searched.sorted->searchFull(key, from), first < high ? first - from - 1 : -1);
        QCOMPARE(searched.sorted->indexOfAdd(key), high);
        if (step % 100 == 0)
            QVERIFY_INDEXES(&table);
    }
    log.messages.removeAll(fullSearchWarning);
    QCOMPARE(log.messages, QStringList());
}

void tst_IndexModel::vectorKeepsArrivalOrderAmongEqualKeys()
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

void tst_IndexModel::watchBookkeeping()
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
void tst_IndexModel::destroyedIndexLeavesTheRegistry_data()
{
    QTest::addColumn<QString>("kind");
    for (const char *kind :
         { "list", "sort", "limit", "vector", "watch", "dependent", "named", "master" })
        QTest::newRow(kind) << QString::fromLatin1(kind);
}

void tst_IndexModel::destroyedIndexLeavesTheRegistry()
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
void tst_IndexModel::selfRegisteredIndexIsAnnouncedWhole()
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

QTEST_GUILESS_MAIN(tst_IndexModel)
#include "tst_indexmodel.moc"
