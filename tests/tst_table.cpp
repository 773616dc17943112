// The table object: change brackets (also from several threads), the order in
// which indexes learn of changes, the index registry, dependent-index
// forwarding, the rebuilding of a table's indexes and the slabs that loaded
// rows are carved from.

#include "indexchecker.h"
#include "storage/rowslab_p.h"
#include "storage/tabletesting_p.h"
#include "testsupport.h"
#include "transfixture.h"
#include <database/database.h>

#include <QSignalSpy>
#include <QThread>
#include <QtTest>

#include <atomic>
#include <list>

namespace {

using TestSupport::RecordingIndex;

// A table with an integer id column and three data columns, a recording main
// index M and recording indexes A and B registered in that order.
struct Fixture
{
    Fixture()
    {
        table.addColumn("id", FieldType::Integer, 0, false);
        for (const char *column : { "x", "y", "z" })
            table.addColumn(QString::fromLatin1(column), FieldType::Integer);
        testingSetMainIndex(&table, &main);
        table.addIndex(&a);
        table.addIndex(&b);
    }

    Record row(int id, int x = 0) const
    {
        const Record record(&table);
        record.data(0).set(id);
        record.data(1).set(x);
        return record;
    }
    // Appends a row with this id and returns the main index's handle to it.
    Record append(int id)
    {
        unsigned char *block = table.allocRow();
        table.dataPtr(block, 0).set(id);
        table.appendRow(block);
        return main.rows.last();
    }

    QString log;
    Table table { "T" };
    RecordingIndex main { "M", &log }, a { "A", &log }, b { "B", &log };
};

} // namespace

Q_DECLARE_METATYPE(Index *)

class tst_Table : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { qRegisterMetaType<Index *>(); }
    void indexDefaults();
    void brackets();
    void singleChanges();
    void processAndAppendList();
    void clearAndReferenceCounts();
    void recordsTravelInQueuedSignals();
    void indexNames();
    void registryChangesDuringNotification();
    void dependBaseRebuildHandover();
    void rebuilder();
    void bracketsFromSeveralThreads();
    void rowSlabs();
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
    QCOMPARE(f.log, "A.clear(1) A.build(1) A.clear A.build");

    f.log.clear();
    f.a.rejected = 2;
    f.a.Index::process({ one }, { two }, 0, 1, { two, three });
    QCOMPARE(f.log, "A.remove(1,-1) A.update(2,0,1,-1) A.add(3)");

    // The default update re-places a record only while it passes the filter.
    f.log.clear();
    f.a.Index::update(three, 0, 1, 5);
    f.a.Index::update(two, 0, 1, 4);
    QCOMPARE(f.log, "A.remove(3,5) A.add(3) A.remove(2,4)");
}

void tst_Table::brackets()
{
    Fixture f;
    RecordingIndex dep("D", &f.log);
    f.table.addDependentIndex(&dep);

    // Nested guards: only the outermost pair notifies; a throw closes what is
    // still open, once.
    try {
        TableUpdateBracket outer(&f.table);
        TableUpdateBracket inner(&f.table);
        QCOMPARE(f.table.updateDepth(), 2);
        QCOMPARE(f.log, "D.depBegin(T) M.begin A.begin B.begin");
        f.log.clear();
        inner.end();
        inner.end();
        QCOMPARE(f.table.updateDepth(), 1);
        QVERIFY(f.log.isEmpty());
        throw 1;
    } catch (int) {
    }
    QCOMPARE(f.log, "M.end A.end B.end D.depEnd(T)");
    QCOMPARE(f.table.updateDepth(), 0);
    QVERIFY(TestSupport::lockableElsewhere(f.table));
    {
        TableLocker locker(&f.table);
        locker.unlock();
        QVERIFY(TestSupport::lockableElsewhere(f.table));
        locker.relock(); // released again on leaving the scope
    }
    QVERIFY(TestSupport::lockableElsewhere(f.table));

    // Unbalanced: still notifies and leaves the table off by one, after which
    // every pair notifies (and warns at its end) with the lock kept balanced.
    const QRegularExpression warning("no update bracket is open on table 'T'");
    f.log.clear();
    QTest::ignoreMessage(QtWarningMsg, warning);
    f.table.endUpdate();
    QCOMPARE(f.table.updateDepth(), -1);
    QCOMPARE(f.log, "M.end A.end B.end D.depEnd(T)");
    f.log.clear();
    f.table.beginUpdate();
    QTest::ignoreMessage(QtWarningMsg, warning);
    f.table.endUpdate();
    QCOMPARE(f.table.updateDepth(), -1);
    QCOMPARE(f.log, "D.depBegin(T) M.begin A.begin B.begin M.end A.end B.end D.depEnd(T)");
    QVERIFY(TestSupport::lockableElsewhere(f.table));
}

void tst_Table::singleChanges()
{
    Fixture f;
    const Record seven = f.append(7);
    QCOMPARE(f.log, "M.add(7) A.add(7) B.add(7)");
    f.log.clear();
    f.table.updated(seven, 1, 2, 5);
    QCOMPARE(f.log, "M.update(7,1,2,5) A.update(7,1,2,-1) B.update(7,1,2,-1)");

    // A keeper carries the row's position in each index...
    const Record eight = f.append(8);
    f.b.rows.removeFirst(); // B holds only row 8, at position 0
    const QVector<int> keeper = f.table.buildKeeper(eight);
    f.log.clear();
    f.table.updated(eight, keeper, 3, 4);
    QCOMPARE(f.log, "M.update(8,3,4,1) A.update(8,3,4,1) B.update(8,3,4,0)");
    // ...and one from before a registry change falls back to unknown positions.
    RecordingIndex c("C", &f.log);
    f.table.addIndex(&c);
    f.log.clear();
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("does not match")));
    f.table.updated(eight, keeper, 3, 4);
    QCOMPARE(f.log, "M.update(8,3,4,-1) A.update(8,3,4,-1) B.update(8,3,4,-1) C.update(8,3,4,-1)");

    f.log.clear();
    QVERIFY(f.table.remove(seven, 0));
    QCOMPARE(f.log, "A.remove(7,-1) B.remove(7,-1) C.remove(7,-1) M.remove(7,0)");
    QVERIFY(!f.table.remove(seven));
}

void tst_Table::processAndAppendList()
{
    Fixture f;
    const Record one = f.append(1), two = f.append(2), three = f.append(3);
    f.log.clear();
    for (const Record &record : { one, two })
        for (int column = 1; column <= 3; ++column)
            record.data(column).set(10 * column);

    // The working copies change every column; only 1..2 is to be taken over.
    QList<Record> changed { one.clone(), two.clone() };
    for (const Record &copy : changed)
        for (int column = 1; column <= 3; ++column)
            copy.data(column).set(copy.data(column).get<int>() + RecordingIndex::idOf(copy));
    QList<Record> updated { one, two };
    const QList<Record> inserted { f.row(4) };
    f.table.process({ three }, updated, 1, 2, inserted, changed);

    QCOMPARE(f.log,
             "M.preprocess([3],[1,2],1,2,[4],[1,2]) A.preprocess([3],[1,2],1,2,[4],[1,2]) "
             "B.preprocess([3],[1,2],1,2,[4],[1,2]) M.process([3],[1,2],1,2,[4]) "
             "A.process([3],[1,2],1,2,[4]) "
             "B.process([3],[1,2],1,2,[4])");
    for (int column = 1; column <= 3; ++column)
        QCOMPARE(two.data(column).get<int>() - one.data(column).get<int>(), column < 3 ? 1 : 0);
    QCOMPARE(one.data(2).get<int>(), 21);

    // Fewer working copies than updated rows: only the pairs are copied.
    f.log.clear();
    QList<Record> partly { one, two };
    f.table.process({}, partly, -1, -1, {}, { f.row(1, 99) });
    QCOMPARE(one.data(1).get<int>(), 99);
    QCOMPARE(two.data(1).get<int>(), 12);

    f.log.clear();
    f.table.appendList({ f.row(5), f.row(6) });
    QVERIFY(f.log.contains(QLatin1String("M.process([],[],-1,-1,[5,6])")));
}

void tst_Table::clearAndReferenceCounts()
{
    Fixture f;
    Record watched = f.append(2);
    QVERIFY(watched.dump().contains(QLatin1String("ref:4"))); // M, A, B and `watched`

    // A row that no index keeps is freed as appendRow returns (ASan watches).
    testingSetMainIndex(&f.table, nullptr);
    f.table.setIndexes({});
    f.table.appendRow(f.table.allocRow());
    testingSetMainIndex(&f.table, &f.main);
    f.table.setIndexes({ &f.a, &f.b });

    f.log.clear();
    f.table.clear();
    QCOMPARE(f.log, "M.begin A.begin B.begin A.clear B.clear M.clear M.end A.end B.end");
    QCOMPARE(watched.refCount(), 1);
}

// Records are a registered meta-type: a queued signal holds a counted
// reference to the row until it is delivered.
class RecordSender : public QObject
{
    Q_OBJECT
Q_SIGNALS:
    void sent(const Record &record);
};

void tst_Table::recordsTravelInQueuedSignals()
{
    Fixture f;
    Record row = f.row(7);
    RecordSender sender;
    Record received;
    connect(
        &sender, &RecordSender::sent, this, [&](const Record &r) { received = r; },
        Qt::QueuedConnection);
    const unsigned char *block = row.row();
    Q_EMIT sender.sent(row);
    row = Record(); // the pending event keeps the row alive
    QTRY_VERIFY(!received.isNull());
    QCOMPARE(received.row(), block);
    QCOMPARE(received.refCount(), 1);
}

// An index may carry several names: indexName() gives the first in name order
// and removing the index drops only that one; a name may be taken over.
void tst_Table::indexNames()
{
    Fixture f;
    RecordingIndex c("C", &f.log);
    f.table.addIndex(&c);
    f.table.setIndexName("zeta", &c);
    f.table.setIndexName("alpha", &c);
    f.table.setIndexName("beta", &f.a);
    QCOMPARE(f.table.indexName(&c), "alpha");
    f.table.removeIndex(&c);
    QCOMPARE(f.table.namedIndex("alpha"), nullptr);
    QCOMPARE(f.table.namedIndex("zeta"), &c);
    f.table.setIndexName("zeta", &f.a);
    QCOMPARE(f.table.namedIndex("zeta"), &f.a);
    QCOMPARE(f.table.indexName(&f.a), "beta");
}

// The table and the dependent-index base notify over a copy of their lists, so
// an index may change the registry during a call; the base forwards every call.
void tst_Table::registryChangesDuringNotification()
{
    Fixture f;
    RecordingIndex c("C", &f.log);
    f.a.onAdd = [&](const Record &) {
        if (f.table.indexes().contains(&f.b)) {
            f.table.removeIndex(&f.b);
            f.table.addIndex(&c);
        }
    };
    const Record one = f.append(1);
    QCOMPARE(f.log, "M.add(1) A.add(1) B.add(1)");

    f.log.clear();
    f.table.beginUpdate();
    f.table.endUpdate();
    QCOMPARE(f.log, "M.begin A.begin C.begin M.end A.end C.end");

    f.log.clear();
    IndexDependBase depend;
    RecordingIndex d1("D1", &f.log), d2("D2", &f.log), d3("D3", &f.log);
    depend.addDependentIndex(&d1);
    depend.addDependentIndex(&d2);
    d1.onAdd = [&](const Record &) {
        depend.removeDependentIndex(&d2);
        depend.addDependentIndex(&d3);
    };
    depend.add(one);
    QCOMPARE(f.log, "D1.add(1) D2.add(1)");
    QCOMPARE(depend.dependentIndexes(), QList<Index *>({ &d1, &d3 }));

    d1.onAdd = nullptr;
    f.log.clear();
    QVERIFY(depend.remove(one, 4)); // d1 held it
    QVERIFY(!depend.remove(one, 4));
    depend.process({}, { one }, 0, 1, {});
    QCOMPARE(f.log,
             "D1.remove(1,4) D3.remove(1,4) D1.remove(1,4) D3.remove(1,4) "
             "D1.process([],[1],0,1,[]) D3.process([],[1],0,1,[])");
}

void tst_Table::dependBaseRebuildHandover()
{
    QString log;
    Table t1("T1"), t2("T2");
    RecordingIndex d1("D1", &log), d2("D2", &log), d3("D3", &log), loose("L", &log),
        stays("S", &log);
    t1.addIndex(&stays);
    t1.addIndex(&d1);
    t1.addIndex(&d2);
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
    depend.clear(true); // already aside: nothing more happens
    QCOMPARE(depend.pendingRebuilders(), 3);
    QCOMPARE(log, "D1.clear(1) D2.clear(1) D3.clear(1) L.clear(1)");

    log.clear();
    depend.build(true);
    QCOMPARE(depend.pendingRebuilders(), 0);
    QCOMPARE(log, "D1.build(1) D2.build(1) D3.build(1) L.build(1)");
    QCOMPARE(t1.indexes(), QList<Index *>({ &stays, &d1, &d2 }));
    QCOMPARE(t2.indexes(), QList<Index *>({ &d3 }));
}

// The rebuilder sorts indexes into groups by class name, takes them off the
// table and puts them back, joins first, with their names.
void tst_Table::rebuilder()
{
    Fixture f;
    std::list<RecordingIndex> owned;
    QList<Index *> indexes;
    for (const char *className : { "IndexSort", "TableJoinDep", "IndexDependBase", "tablejoinX",
                                   "TableJoinMain", "indexDependX", "IndexDependX", "TableJoi" })
        indexes << &owned.emplace_back(className, &f.log, className);
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

    RecordingIndex join("J", &f.log, "TableJoinMain");
    IndexDependBase depend;
    f.table.addIndex(&join);
    f.table.addIndex(&depend);
    f.table.setIndexName("a1", &f.a);
    f.table.setIndexName("a2", &f.a);
    f.table.setIndexName("j", &join);
    QSignalSpy removed(&f.table, &Table::indexRemoved);
    QSignalSpy added(&f.table, &Table::indexAdded);
    const QList<Index *> before = f.table.indexes();

    {
        TableIndexRebuilder rebuilder(&f.table);
        QCOMPARE(f.table.indexes(), QList<Index *>());
        QCOMPARE(removed.count(), 4);
        QCOMPARE(f.log, "A.clear(1) B.clear(1) J.clear(1)");

        // Aside, the indexes hear nothing; the main index still does.
        f.log.clear();
        f.append(1);
        f.table.beginUpdate();
        f.table.endUpdate();
        QCOMPARE(f.log, "M.add(1) M.begin M.end");
        f.log.clear();
    }
    QCOMPARE(f.log, "J.build(1) A.build(1) B.build(1)");
    QCOMPARE(f.table.indexes(), before);
    QCOMPARE(added.count(), 4);
    QCOMPARE(f.table.namedIndex("a1"), &f.a);
    QCOMPARE(f.table.namedIndex("a2"), &f.a);
    QCOMPARE(f.table.namedIndex("j"), &join);

    // A table destroyed first leaves the rebuilder only the building.
    auto *gone = new Table("G");
    RecordingIndex lone("G1", &f.log);
    gone->addIndex(&lone);
    f.log.clear();
    {
        TableIndexRebuilder rebuilder(gone);
        delete gone;
        QCOMPARE(rebuilder.table(), nullptr);
    }
    QCOMPARE(f.log, "G1.clear(1) G1.build(1)");
}

using namespace TransFixture;

namespace {

const int kWriters = 4;
const int kKeysPerWriter = 50;
const int kRounds = 150;

// Writer w owns the keys w * 1000 .. w * 1000 + kKeysPerWriter - 1: each round
// updates all of them in one transaction, and withdraws and re-inserts one.
void writeRounds(QuoteTable &q, int writer)
{
    for (int round = 0; round < kRounds; ++round) {
        q.table.beginUpdate();
        q.table.beginUpdate(); // nested: counts only
        {
            RecordsTrans trans(&q.table);
            for (int k = 0; k < kKeysPerWriter; ++k) {
                const int id = writer * 1000 + k;
                RecordUpdater updater(&trans, q.find(id));
                updater.updateInMap();
                updater.setValue(Price, double((round * 7 + k * 13) % 101));
                updater.setValue(Qty, round);
            }
            const int moved = writer * 1000 + round % kKeysPerWriter;
            RecordUpdater gone(&trans, q.find(moved));
            gone.updateInMap();
            gone.remove();
        }
        q.table.endUpdate();
        {
            RecordsTrans trans(&q.table);
            RecordUpdater back(&trans);
            back.insertInMap(q.row(writer * 1000 + round % kKeysPerWriter, { "w", 0, round }));
        }
        q.table.endUpdate();
    }
}

} // namespace

// Update brackets opened from several threads take turns on the table's lock:
// four writers run transactions in brackets while a fifth thread reads the
// price view under the lock and saves the table.
void tst_Table::bracketsFromSeveralThreads()
{
    QuoteTable q;
    Model start;
    for (int w = 0; w < kWriters; ++w)
        for (int k = 0; k < kKeysPerWriter; ++k)
            start.insert(w * 1000 + k, { "w", 1.0, 0 });
    q.fill(start);

    std::atomic<bool> writing { true };
    std::atomic<int> saves { 0 }, disorders { 0 };
    QThread *reader = QThread::create([&] {
        while (writing.load()) {
            q.table.lock();
            double last = -1;
            for (const Record &row : *q.view) {
                const double price = row.data(Price).get<double>();
                if (price < last)
                    ++disorders;
                last = price;
            }
            q.table.unlock();
            if (!TestSupport::savedBytes(q.table).isEmpty())
                ++saves;
        }
    });
    QList<QThread *> writers;
    for (int w = 0; w < kWriters; ++w)
        writers.append(QThread::create([&q, w] { writeRounds(q, w); }));
    reader->start();
    for (QThread *writer : qAsConst(writers))
        writer->start();
    for (QThread *writer : qAsConst(writers)) {
        QVERIFY(writer->wait(120000));
        delete writer;
    }
    writing.store(false);
    QVERIFY(reader->wait(120000));
    delete reader;

    QCOMPARE(q.table.updateDepth(), 0);
    QCOMPARE(disorders.load(), 0);
    QVERIFY(saves.load() > 0);
    QCOMPARE(q.table.rowCount(), kWriters * kKeysPerWriter);
    QVERIFY_INDEXES(&q.table);
    // A save after the writers neither blocks nor misses a row.
    QVERIFY(!TestSupport::savedBytes(q.table).isEmpty());
    const Model end = modelOf(q.table);
    for (int w = 0; w < kWriters; ++w)
        QCOMPARE(end.value(w * 1000 + kKeysPerWriter - 1).qty, kRounds - 1);
}

// Rows carved from slabs live and die as rows of their own do: freed in any
// order and on any thread, copied into blocks of their own, moved out of
// their slab when the table grows a column. The sanitizer builds catch a slab
// freed early (use after free) or never (leak).
void tst_Table::rowSlabs()
{
    Table table("S");
    table.addColumn("id", FieldType::Integer, 0, false);
    table.addColumn("name", FieldType::VarChar, 40);
    table.setMasterIndex(new MasterIndex_Integer(&table, "id"));
    constexpr int rows = 40000; // several slabs
    QList<Record> loaded;
    {
        RowSlabAllocator slabs(&table);
        for (int i = 0; i < rows; ++i) {
            unsigned char *block = slabs.allocRow();
            QVERIFY(block && RowSlabAllocator::inSlab(block));
            table.dataPtr(block, 0).set(i);
            table.dataPtr(block, 1) = QStringLiteral("row %1").arg(i);
            loaded.append(Record(block));
        }
    }
    table.appendList(loaded);

    // A copy is a block of its own.
    unsigned char *copy = table.cloneRow(loaded.at(7).row());
    QVERIFY(!RowSlabAllocator::inSlab(copy));
    table.freeRow(copy);

    // The even rows leave the table and die on another thread.
    QList<Record> elsewhere;
    for (int i = 0; i < rows; i += 2)
        elsewhere.append(loaded.at(i));
    loaded.clear();
    for (const Record &record : qAsConst(elsewhere))
        QVERIFY(table.remove(record, -1));
    QThread *dropper = QThread::create([&elsewhere] { elsewhere.clear(); });
    dropper->start();
    QVERIFY(dropper->wait(60000));
    delete dropper;

    // Growing the table moves slab rows into blocks of their own, values kept.
    table.addColumn("extra", FieldType::Integer);
    QCOMPARE(table.rowCount(), rows - rows / 2);
    for (auto it = table.masterIndex()->begin(); it != table.masterIndex()->end(); ++it) {
        QVERIFY(!RowSlabAllocator::inSlab(it->row()));
        QCOMPARE(it->data(1).toString(), QStringLiteral("row %1").arg(it->data(0).get<qint32>()));
    }

    // A row too large to share a slab gets a block of its own.
    Table wide("W");
    for (int column = 0; column < 9; ++column)
        wide.addColumn(QStringLiteral("text%1").arg(column), FieldType::VarChar,
                       FieldType::MaxStringLength);
    RowSlabAllocator slabs(&wide);
    unsigned char *big = slabs.allocRow();
    QVERIFY(big && !RowSlabAllocator::inSlab(big));
    wide.freeRow(big);
}

QTEST_GUILESS_MAIN(tst_Table)
#include "tst_table.moc"
