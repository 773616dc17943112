// The table object: change brackets, the order in which indexes learn of
// changes, the index registry and its signals, dependent-index forwarding and
// the rebuilding of a table's indexes.

#include <database/database.h>

#include <QSignalSpy>
#include <QtTest>

#include <functional>
#include <memory>
#include <thread>

namespace {

int idOf(const Record &record)
{
    return record.isNull() ? -1 : record.data(0).get<int>();
}

QString ids(const QList<Record> &records)
{
    QStringList parts;
    for (const Record &record : records)
        parts << QString::number(idOf(record));
    return parts.join(QLatin1Char(','));
}

// A test double that holds the rows it is given and logs every call it
// receives, with the record ids and positions, into a log shared by all the
// indexes of a test.
class RecordingIndex : public Index
{
public:
    RecordingIndex(const QString &name, QStringList *log, const char *className = "IndexList")
        : name(name)
        , log(log)
        , className(className)
    {
    }

    void clear() override
    {
        note(QStringLiteral("clear"));
        rows.clear();
    }
    void clear(bool rebuilding) override
    {
        note(QStringLiteral("clear(%1)").arg(rebuilding));
        rows.clear();
    }
    void build() override { note(QStringLiteral("build")); }
    void build(bool rebuilding) override { note(QStringLiteral("build(%1)").arg(rebuilding)); }
    void add(const Record &record) override
    {
        note(QStringLiteral("add(%1)").arg(idOf(record)));
        rows.append(record);
        if (onAdd)
            onAdd(record);
    }
    void preprocess(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                    const QList<Record> &inserted, const QList<Record> &changed) override
    {
        note(QStringLiteral("preprocess(%1|%2|%3,%4|%5|%6)")
                 .arg(ids(removed), ids(updated))
                 .arg(first)
                 .arg(last)
                 .arg(ids(inserted), ids(changed)));
    }
    void process(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                 const QList<Record> &inserted) override
    {
        note(QStringLiteral("process(%1|%2|%3,%4|%5)")
                 .arg(ids(removed), ids(updated))
                 .arg(first)
                 .arg(last)
                 .arg(ids(inserted)));
        for (const Record &record : removed)
            rows.removeOne(record);
        rows += inserted;
    }
    bool remove(const Record &record, int position) override
    {
        note(QStringLiteral("remove(%1,%2)").arg(idOf(record)).arg(position));
        return rows.removeOne(record);
    }
    bool filter(const Record &record) const override { return idOf(record) != rejected; }
    bool contains(const Record &record) const override { return rows.contains(record); }
    void update(const Record &record, int a, int b, int position) override
    {
        note(QStringLiteral("update(%1,%2,%3,%4)").arg(idOf(record)).arg(a).arg(b).arg(position));
    }
    int indexOf(const Record &record) const override { return rows.indexOf(record); }
    void beginUpdate() override { note(QStringLiteral("begin")); }
    void endUpdate() override { note(QStringLiteral("end")); }
    void dependentBeginUpdate(Table *table) override
    {
        note(QStringLiteral("depBegin(%1)").arg(table->name()));
    }
    void dependentEndUpdate(Table *table) override
    {
        note(QStringLiteral("depEnd(%1)").arg(table->name()));
    }
    const char *getClassName() const override { return className; }

    QString name;
    QStringList *log;
    const char *className;
    QList<Record> rows;
    int rejected = -1; // the id that filter() turns away
    std::function<void(const Record &)> onAdd;

private:
    void note(const QString &call) { log->append(name + QLatin1Char('.') + call); }
};

// A table with an integer id column and three data columns, a recording main
// index M and recording indexes A and B registered in that order.
struct Fixture
{
    Fixture()
        : table(QStringLiteral("T"))
        , main(QStringLiteral("M"), &log)
        , a(QStringLiteral("A"), &log)
        , b(QStringLiteral("B"), &log)
    {
        table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
        table.addColumn(QStringLiteral("x"), FieldType::Integer);
        table.addColumn(QStringLiteral("y"), FieldType::Integer);
        table.addColumn(QStringLiteral("z"), FieldType::Integer);
        table.testingSetMainIndex(&main);
        table.addIndex(&a);
        table.addIndex(&b);
    }
    ~Fixture() { table.testingSetMainIndex(nullptr); }

    Record row(int id, int x = 0) const
    {
        const Record record(&table);
        record.data(0).set(id);
        record.data(1).set(x);
        return record;
    }
    // Appends a row with this id and returns a handle to it, log cleared.
    Record append(int id)
    {
        unsigned char *block = table.allocRow();
        table.dataPtr(block, 0).set(id);
        table.appendRow(block);
        log.clear();
        return main.rows.last();
    }

    QStringList log;
    Table table;
    RecordingIndex main, a, b;
};

// Whether another thread can take the table's lock now (a leaked bracket lock
// would hang here, caught by the test timeout).
bool lockIsFree(Table &table)
{
    bool locked = false;
    std::thread([&] {
        table.lock();
        locked = true;
        table.unlock();
    }).join();
    return locked;
}

QStringList split(const char *calls)
{
    return QString::fromLatin1(calls).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

} // namespace

Q_DECLARE_METATYPE(Index *)

class tst_Table : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { qRegisterMetaType<Index *>(); }
    void indexDefaults();
    void brackets();
    void singleChangeOrder();
    void keeperPassesPositions();
    void processAndAppendList();
    void registryChangesInsideNotification();
    void clearAndReferenceCounts();
    void signalsAndNames();
    void dependBaseForwardsOverCopy();
    void dependBaseRebuildHandover();
    void rebuilderGroups();
    void rebuilderTakesAsideAndRestores();
};

// The base operations that the index family inherits, called on the double
// through their qualified names.
void tst_Table::indexDefaults()
{
    Fixture f;
    const Record one = f.row(1), two = f.row(2), three = f.row(3);
    f.a.rebuild();
    f.a.Index::clear(true);
    f.a.Index::build(false);
    QCOMPARE(f.log, split("A.clear(1) A.build(1) A.clear A.build"));

    f.log.clear();
    f.a.Index::process({}, {}, 0, 1, {});
    QVERIFY(f.log.isEmpty());
    f.a.rejected = 2;
    f.a.Index::process({ one }, { two }, 0, 1, { two, three });
    QCOMPARE(f.log, split("A.remove(1,-1) A.update(2,0,1,-1) A.add(3)"));

    // The default update re-places a record only while it passes the filter.
    f.log.clear();
    f.a.Index::update(three, 0, 1, 5);
    f.a.Index::update(two, 0, 1, 4);
    QCOMPARE(f.log, split("A.remove(3,5) A.add(3) A.remove(2,4)"));
    QCOMPARE(f.a.rows, QList<Record>({ three }));
    QCOMPARE(f.a.Index::indexOf(three), -1);
}

void tst_Table::brackets()
{
    Fixture f;
    RecordingIndex dep(QStringLiteral("D"), &f.log);
    f.table.addDependentIndex(&dep);

    f.table.beginUpdate();
    f.table.beginUpdate();
    QCOMPARE(f.table.updateDepth(), 2);
    QCOMPARE(f.log, split("D.depBegin(T) M.begin A.begin B.begin"));
    f.log.clear();
    f.table.endUpdate();
    QVERIFY(f.log.isEmpty());
    f.table.endUpdate();
    QCOMPARE(f.log, split("M.end A.end B.end D.depEnd(T)"));
    QCOMPARE(f.table.updateDepth(), 0);
    QVERIFY(lockIsFree(f.table));

    // Unbalanced: still notifies and leaves the table off by one, after which
    // every pair notifies (and warns at its end) with the lock kept balanced.
    const QRegularExpression warning(QStringLiteral("no update bracket is open on table 'T'"));
    f.log.clear();
    QTest::ignoreMessage(QtWarningMsg, warning);
    f.table.endUpdate();
    QCOMPARE(f.table.updateDepth(), -1);
    QCOMPARE(f.log, split("M.end A.end B.end D.depEnd(T)"));
    f.log.clear();
    f.table.beginUpdate();
    QTest::ignoreMessage(QtWarningMsg, warning);
    f.table.endUpdate();
    QCOMPARE(f.table.updateDepth(), -1);
    QCOMPARE(f.log, split("D.depBegin(T) M.begin A.begin B.begin M.end A.end B.end D.depEnd(T)"));
    QVERIFY(lockIsFree(f.table));
}

void tst_Table::singleChangeOrder()
{
    Fixture f;
    unsigned char *block = f.table.allocRow();
    f.table.dataPtr(block, 0).set(7);
    f.table.appendRow(block);
    QCOMPARE(f.log, split("M.add(7) A.add(7) B.add(7)"));
    const Record seven = f.main.rows.first();

    f.log.clear();
    f.table.updated(seven, 1, 2, 5);
    QCOMPARE(f.log, split("M.update(7,1,2,5) A.update(7,1,2,-1) B.update(7,1,2,-1)"));

    f.log.clear();
    QVERIFY(f.table.remove(seven, 0));
    QCOMPARE(f.log, split("A.remove(7,-1) B.remove(7,-1) M.remove(7,0)"));
    QVERIFY(!f.table.remove(seven));

    f.table.testingSetMainIndex(nullptr);
    f.log.clear();
    QVERIFY(!f.table.remove(seven));
    QCOMPARE(f.log, split("A.remove(7,-1) B.remove(7,-1)"));
}

void tst_Table::keeperPassesPositions()
{
    Fixture f;
    f.append(1);
    const Record two = f.append(2);
    f.b.rows.removeFirst(); // B holds only row 2, at position 0

    const QVector<int> keeper = f.table.buildKeeper(two);
    QCOMPARE(keeper, QVector<int>({ 1, 1, 0 }));
    f.table.updated(two, keeper, 3, 4);
    QCOMPARE(f.log, split("M.update(2,3,4,1) A.update(2,3,4,1) B.update(2,3,4,0)"));

    // A keeper from before a registry change falls back to unknown positions.
    RecordingIndex c(QStringLiteral("C"), &f.log);
    f.table.addIndex(&c);
    f.log.clear();
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("does not match")));
    f.table.updated(two, keeper, 3, 4);
    QCOMPARE(f.log,
             split("M.update(2,3,4,-1) A.update(2,3,4,-1) B.update(2,3,4,-1) C.update(2,3,4,-1)"));
}

void tst_Table::processAndAppendList()
{
    Fixture f;
    const Record one = f.append(1);
    const Record two = f.append(2);
    const Record three = f.append(3);
    for (const Record &record : { one, two })
        for (int column = 1; column <= 3; ++column)
            record.data(column).set(10 * column);

    // The working copies change every column; only 1..2 is to be taken over.
    QList<Record> changed { one.clone(), two.clone() };
    for (const Record &copy : changed)
        for (int column = 1; column <= 3; ++column)
            copy.data(column).set(copy.data(column).get<int>() + idOf(copy));
    QList<Record> updated { one, two };
    const QList<Record> inserted { f.row(4) };
    f.table.process({ three }, updated, 1, 2, inserted, changed);

    QCOMPARE(f.log,
             split("A.preprocess(3|1,2|1,2|4|1,2) B.preprocess(3|1,2|1,2|4|1,2) "
                   "M.process(3|1,2|1,2|4) A.process(3|1,2|1,2|4) B.process(3|1,2|1,2|4)"));
    QCOMPARE(one.data(1).get<int>(), 11);
    QCOMPARE(one.data(2).get<int>(), 21);
    QCOMPARE(one.data(3).get<int>(), 30);
    QCOMPARE(two.data(2).get<int>(), 22);
    QCOMPARE(two.data(3).get<int>(), 30);

    // Fewer working copies than updated rows: only the pairs are copied.
    f.log.clear();
    QList<Record> partly { one, two };
    f.table.process({}, partly, -1, -1, {}, { f.row(1, 99) });
    QCOMPARE(one.data(1).get<int>(), 99);
    QCOMPARE(two.data(1).get<int>(), 12);

    f.log.clear();
    f.table.appendList({ f.row(5), f.row(6) });
    QCOMPARE(f.log,
             split("A.preprocess(||-1,-1|5,6|) B.preprocess(||-1,-1|5,6|) "
                   "M.process(||-1,-1|5,6) A.process(||-1,-1|5,6) B.process(||-1,-1|5,6)"));
}

void tst_Table::registryChangesInsideNotification()
{
    Fixture f;
    RecordingIndex c(QStringLiteral("C"), &f.log);
    f.a.onAdd = [&](const Record &) {
        if (f.table.indexes().contains(&f.b)) {
            f.table.removeIndex(&f.b);
            f.table.addIndex(&c);
        }
    };
    unsigned char *block = f.table.allocRow();
    f.table.dataPtr(block, 0).set(1);
    f.table.appendRow(block);
    QCOMPARE(f.log, split("M.add(1) A.add(1) B.add(1)"));

    f.log.clear();
    f.table.beginUpdate();
    f.table.endUpdate();
    QCOMPARE(f.log, split("M.begin A.begin C.begin M.end A.end C.end"));
}

void tst_Table::clearAndReferenceCounts()
{
    Fixture f;
    f.append(1);
    Record watched = f.append(2);
    QVERIFY(watched.dump().contains(QLatin1String("ref:4"))); // M, A, B and `watched`

    // A row that no index keeps is freed as appendRow returns (ASan watches).
    f.table.testingSetMainIndex(nullptr);
    f.table.setIndexes({});
    f.table.appendRow(f.table.allocRow());
    f.table.testingSetMainIndex(&f.main);
    f.table.setIndexes({ &f.a, &f.b });

    f.log.clear();
    f.table.clear();
    QCOMPARE(f.log, split("M.begin A.begin B.begin A.clear B.clear M.clear M.end A.end B.end"));
    QCOMPARE(f.table.updateDepth(), 0);
    QCOMPARE(watched.refCount(), 1);
    QVERIFY(f.main.rows.isEmpty());
}

void tst_Table::signalsAndNames()
{
    Fixture f;
    RecordingIndex c(QStringLiteral("C"), &f.log);
    QStringList order;
    connect(&f.table, &Table::indexAdded, this, [&](Index *) { order << "added"; });
    connect(&f.table, &Table::indexRemoved, this, [&](Index *) { order << "removed"; });
    connect(&f.table, &Table::indexNameUpdated, this,
            [&](Index *, const QString &name) { order << "named:" + name; });
    connect(&f.table, &Table::dependentIndexAdded, this, [&](Index *) { order << "depAdded"; });
    connect(&f.table, &Table::dependentIndexRemoved, this, [&](Index *) { order << "depRemoved"; });
    QSignalSpy removedSpy(&f.table, &Table::indexRemoved);

    f.table.addIndex(&c);
    f.table.setIndexName(QStringLiteral("zeta"), &c);
    f.table.setIndexName(QStringLiteral("alpha"), &c);
    f.table.setIndexName(QStringLiteral("beta"), &f.a);
    f.table.addDependentIndex(&f.b);
    f.table.removeDependentIndex(&f.b);
    QCOMPARE(order,
             QStringList(
                 { "added", "named:zeta", "named:alpha", "named:beta", "depAdded", "depRemoved" }));
    QCOMPARE(f.table.indexName(&c), QStringLiteral("alpha"));
    QCOMPARE(f.table.namedIndex(QStringLiteral("zeta")), &c);
    QCOMPARE(f.table.namedIndex(QStringLiteral("never")), nullptr);
    QCOMPARE(f.table.indexName(&f.b), QString());

    // Removing drops only the first name; a name may be taken over.
    f.table.removeIndex(&c);
    QCOMPARE(removedSpy.count(), 1);
    QCOMPARE(removedSpy.at(0).at(0).value<Index *>(), &c);
    QCOMPARE(f.table.indexes(), QList<Index *>({ &f.a, &f.b }));
    QCOMPARE(f.table.namedIndex(QStringLiteral("alpha")), nullptr);
    QCOMPARE(f.table.namedIndex(QStringLiteral("zeta")), &c);
    f.table.setIndexName(QStringLiteral("zeta"), &f.a);
    QCOMPARE(f.table.namedIndex(QStringLiteral("zeta")), &f.a);
    QCOMPARE(f.table.indexName(&f.a), QStringLiteral("beta"));
}

void tst_Table::dependBaseForwardsOverCopy()
{
    QStringList log;
    Fixture f;
    const Record one = f.row(1);

    IndexDependBase empty;
    empty.add(one);
    QVERIFY(!empty.remove(one, 0));
    empty.update(one, 1, 2, 3);
    empty.process({ one }, { one }, 0, 1, { one });
    empty.rebuild();
    QCOMPARE(empty.getClassName(), "IndexDependBase");

    IndexDependBase depend;
    RecordingIndex d1(QStringLiteral("D1"), &log), d2(QStringLiteral("D2"), &log),
        d3(QStringLiteral("D3"), &log);
    depend.addDependentIndex(&d1);
    depend.addDependentIndex(&d2);
    d1.onAdd = [&](const Record &) {
        depend.removeDependentIndex(&d2);
        depend.addDependentIndex(&d3);
    };
    depend.add(one);
    QCOMPARE(log, split("D1.add(1) D2.add(1)"));
    QCOMPARE(depend.dependentIndexes(), QList<Index *>({ &d1, &d3 }));

    d1.onAdd = nullptr;
    log.clear();
    QVERIFY(depend.remove(one, 4)); // d1 held it
    QVERIFY(!depend.remove(one, 4));
    depend.update(one, 1, 2, 3);
    depend.preprocess({ one }, {}, 0, 1, {}, { one });
    depend.process({}, { one }, 0, 1, {});
    depend.clear();
    depend.build(false);
    QCOMPARE(log,
             split("D1.remove(1,4) D3.remove(1,4) D1.remove(1,4) D3.remove(1,4) "
                   "D1.update(1,1,2,3) D3.update(1,1,2,3) "
                   "D1.preprocess(1||0,1||1) D3.preprocess(1||0,1||1) "
                   "D1.process(|1|0,1|) D3.process(|1|0,1|) D1.clear D3.clear D1.build D3.build"));
}

void tst_Table::dependBaseRebuildHandover()
{
    QStringList log;
    Table t1(QStringLiteral("T1")), t2(QStringLiteral("T2"));
    RecordingIndex d1(QStringLiteral("D1"), &log), d2(QStringLiteral("D2"), &log),
        d3(QStringLiteral("D3"), &log), loose(QStringLiteral("L"), &log),
        stays(QStringLiteral("S"), &log);
    t1.addIndex(&stays);
    t1.addIndex(&d1);
    t1.addIndex(&d2);
    t1.setIndexName(QStringLiteral("one"), &d1);
    t1.setIndexName(QStringLiteral("first"), &d1);
    t2.addIndex(&d3);

    IndexDependBase depend;
    depend.addDependentIndex(&d1, &t1);
    depend.addDependentIndex(&d3, &t2);
    depend.addDependentIndex(&loose);
    depend.addDependentIndex(&d2, &t1);

    depend.clear(true);
    QCOMPARE(depend.pendingRebuilders(), 3);
    QCOMPARE(t1.indexes(), QList<Index *>({ &stays }));
    QCOMPARE(t2.indexes(), QList<Index *>());
    QCOMPARE(t1.namedIndex(QStringLiteral("first")), nullptr);
    QCOMPARE(log, split("D1.clear(1) D2.clear(1) D3.clear(1) L.clear(1)"));
    depend.clear(true); // already aside: nothing more happens
    QCOMPARE(depend.pendingRebuilders(), 3);

    log.clear();
    depend.build(true);
    QCOMPARE(depend.pendingRebuilders(), 0);
    QCOMPARE(log, split("D1.build(1) D2.build(1) D3.build(1) L.build(1)"));
    QCOMPARE(t1.indexes(), QList<Index *>({ &stays, &d1, &d2 }));
    QCOMPARE(t2.indexes(), QList<Index *>({ &d3 }));
    QCOMPARE(t1.namedIndex(QStringLiteral("one")), &d1);
    QCOMPARE(t1.namedIndex(QStringLiteral("first")), &d1);
}

void tst_Table::rebuilderGroups()
{
    QStringList log;
    std::vector<std::unique_ptr<RecordingIndex>> owned;
    QList<Index *> indexes;
    for (const char *className : { "IndexSort", "TableJoinDep", "IndexDependBase", "tablejoinX",
                                   "TableJoinMain", "indexDependX", "IndexDependX", "TableJoi" }) {
        owned.push_back(std::make_unique<RecordingIndex>(className, &log, className));
        indexes << owned.back().get();
    }
    const TableIndexRebuilder::IndexGroups found = TableIndexRebuilder::detectIndexGroup(indexes);
    QStringList parts;
    for (const QList<Index *> &group : { found.joins, found.dependents, found.others }) {
        QStringList members;
        for (Index *index : group)
            members << QString::fromLatin1(index->getClassName());
        parts << members.join(QLatin1Char(','));
    }
    QCOMPARE(parts,
             QStringList({ "TableJoinDep,TableJoinMain", "IndexDependBase,IndexDependX",
                           "IndexSort,tablejoinX,indexDependX,TableJoi" }));
}

void tst_Table::rebuilderTakesAsideAndRestores()
{
    Fixture f;
    RecordingIndex join(QStringLiteral("J"), &f.log, "TableJoinMain");
    IndexDependBase depend;
    f.table.addIndex(&join);
    f.table.addIndex(&depend);
    f.table.setIndexName(QStringLiteral("a1"), &f.a);
    f.table.setIndexName(QStringLiteral("a2"), &f.a);
    f.table.setIndexName(QStringLiteral("j"), &join);
    QSignalSpy removed(&f.table, &Table::indexRemoved);
    QSignalSpy added(&f.table, &Table::indexAdded);
    const QList<Index *> before = f.table.indexes();

    {
        TableIndexRebuilder rebuilder(&f.table);
        QCOMPARE(rebuilder.indexes(), before);
        QCOMPARE(f.table.indexes(), QList<Index *>());
        QCOMPARE(f.table.namedIndex(QStringLiteral("a2")), nullptr);
        QCOMPARE(removed.count(), 4);
        QCOMPARE(f.log, split("A.clear(1) B.clear(1) J.clear(1)"));

        // Aside, the indexes hear nothing; the main index still does.
        f.log.clear();
        f.append(1);
        f.table.beginUpdate();
        f.table.endUpdate();
        QCOMPARE(f.log, split("M.begin M.end"));
        f.log.clear();
    }
    QCOMPARE(f.log, split("J.build(1) A.build(1) B.build(1)"));
    QCOMPARE(f.table.indexes(), before);
    QCOMPARE(added.count(), 4);
    QCOMPARE(f.table.namedIndex(QStringLiteral("a1")), &f.a);
    QCOMPARE(f.table.namedIndex(QStringLiteral("a2")), &f.a);
    QCOMPARE(f.table.namedIndex(QStringLiteral("j")), &join);

    // A table destroyed first leaves the rebuilder only the building.
    auto *gone = new Table(QStringLiteral("G"));
    RecordingIndex lone(QStringLiteral("G1"), &f.log);
    gone->addIndex(&lone);
    f.log.clear();
    {
        TableIndexRebuilder rebuilder(gone);
        delete gone;
        QCOMPARE(rebuilder.table(), nullptr);
    }
    QCOMPARE(f.log, split("G1.clear(1) G1.build(1)"));
}

QTEST_GUILESS_MAIN(tst_Table)
#include "tst_table.moc"
