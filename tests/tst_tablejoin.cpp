#include "indexchecker.h"
#include "testindexes.h"
#include "testsupport.h"

#include <database/masterindex.h>
#include <database/recordstrans.h>
#include <database/tableio.h>
#include <database/tablejoin.h>
#include <database/tablerebuilder.h>
#include <database/undo.h>

#include <QLoggingCategory>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QThread>
#include <QUndoStack>
#include <QtTest>

#include <memory>

using TestIndexes::ColumnSort;

namespace {

// Instruments (id, code, price) joined into orders (oid, inst, qty) by inst.
enum { Id, Code, Price };
enum { Oid, Inst, Qty, JoinedCode, JoinedPrice };

// Counts the batches and brackets a table hands its indexes.
class BatchCounter : public IndexList
{
public:
    using IndexList::IndexList;
    void beginUpdate() override { ++brackets; }
    void preprocess(const QList<Record> &, const QList<Record> &updated, int first, int last,
                    const QList<Record> &, const QList<Record> &) override
    {
        ++batches;
        rows += updated.size();
        columns = { first, last };
    }
    int brackets = 0, batches = 0, rows = 0;
    QPair<int, int> columns;
};

struct Tables
{
    Table instruments { "instruments" };
    Table orders { "orders" };
    Tables()
    {
        instruments.addColumn("id", FieldType::Integer, 0, false);
        instruments.addColumn("code", FieldType::VarChar, 8);
        instruments.addColumn("price", FieldType::Double);
        instruments.setMasterIndex(new MasterIndex_Column_Pure(&instruments, "id"));
        orders.addColumn("oid", FieldType::Integer, 0, false);
        orders.addColumn("inst", FieldType::Integer);
        orders.addColumn("qty", FieldType::Integer);
        orders.setMasterIndex(new MasterIndex_Column_Pure(&orders, "oid"));
    }
    std::unique_ptr<TableJoin> join()
    {
        return std::make_unique<TableJoin>(
            &orders, QStringList { "inst" }, &instruments,
            QList<TableJoin::Column> { { "code", "instCode" }, { "price", "instPrice" } });
    }
};

void appendInstrument(Table &t, int id, const QString &code, double price)
{
    unsigned char *row = t.allocRow();
    t.dataPtr(row, Id).set<qint32>(id);
    t.dataPtr(row, Code) = code;
    t.dataPtr(row, Price).set<double>(price);
    t.appendRow(row);
}

void appendOrder(Table &t, int oid, int inst, int qty = 1)
{
    unsigned char *row = t.allocRow();
    t.dataPtr(row, Oid).set<qint32>(oid);
    t.dataPtr(row, Inst).set<qint32>(inst);
    t.dataPtr(row, Qty).set<qint32>(qty);
    t.appendRow(row);
}

Record rowOf(const Table &t, int key)
{
    return t.masterIndex()->findRecord(QString::number(key));
}

// Every order's joined cells against a join recomputed from scratch.
QString naiveJoinMismatch(const Table &orders, const Table &instruments)
{
    for (const Record &order : *orders.masterIndex()) {
        const Field inst = order.data(Inst);
        const Record source = inst.isNull() ? Record() : rowOf(instruments, inst.get<qint32>());
        const QString code = source.isNull() ? QString() : source.data(Code).toString();
        const QString price = source.isNull() ? QString() : source.data(Price).toString();
        if (order.data(JoinedCode).toString() != code
            || order.data(JoinedPrice).toString() != price)
            return QStringLiteral("order %1: joined %2/%3, expected %4/%5")
                .arg(order.data(Oid).toString(), order.data(JoinedCode).toString(),
                     order.data(JoinedPrice).toString(), code, price);
    }
    return QString();
}

#define QVERIFY_JOINED(tables)                                                                     \
    do {                                                                                           \
        const QString mismatch = naiveJoinMismatch((tables).orders, (tables).instruments);         \
        QVERIFY2(mismatch.isEmpty(), qPrintable(mismatch));                                        \
        QVERIFY_INDEXES(&(tables).orders);                                                         \
        QVERIFY_INDEXES(&(tables).instruments);                                                    \
    } while (false)

} // namespace

class tst_TableJoin : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void createFillsExistingRows();
    void refusals_data();
    void refusals();
    void dependentBatchIsOneMainBatch();
    void randomAgainstNaiveJoin();
    void chainsAndSeveralJoins();
    void destructionStopsMaintenance();
    void saveLoadAndRebuild();
    void twoThreads();
};

void tst_TableJoin::createFillsExistingRows()
{
    Tables t;
    appendInstrument(t.instruments, 1, "SBER", 250.5);
    appendOrder(t.orders, 10, 1);
    appendOrder(t.orders, 11, 2);
    ColumnSort byQty(&t.orders, { Qty }, true);
    const auto join = t.join();
    QVERIFY2(join->isValid(), qPrintable(join->errorString()));
    QCOMPARE(join->mainColumns(), QList<int>({ JoinedCode, JoinedPrice }));
    QCOMPARE(t.orders.columnDef(JoinedCode)->length, 8);
    QVERIFY_JOINED(t); // order 11 has no instrument: its joined cells are null

    // Decimal keys match by value whatever their scales.
    Table strikes("strikes"), legs("legs");
    for (Table *table : { &strikes, &legs }) {
        table->addColumn("strike", FieldType::Decimal, 0, false);
        table->setMasterIndex(new MasterIndex_Column_Pure(table, "strike"));
    }
    strikes.addColumn("vol", FieldType::Double);
    const int key = 0, vol = 1;
    Record strike(&strikes), leg(&legs);
    strike.data(key).set(decimal("1.5"));
    strike.data(vol).set<double>(0.25);
    leg.data(key).set(decimal("1.500"));
    strikes.appendList({ strike });
    legs.appendList({ leg });
    leg = Record(); // the join re-lays the legs' rows
    TableJoin byStrike(&legs, { "strike" }, &strikes, { { "vol", QString() } });
    QCOMPARE(legs.masterIndex()->begin()->data(vol).get<double>(), 0.25);
}

void tst_TableJoin::refusals_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("column");
    QTest::addColumn<QString>("as");
    QTest::addColumn<QString>("error");
    const auto row = [](const char *tag, const char *key, const char *column, const char *as,
                        const char *error) { QTest::newRow(tag) << key << column << as << error; };
    row("unknown dependent column", "inst", "bid", "", "'bid' not found");
    row("unknown key column", "instrument", "code", "", "'instrument' not found");
    row("key type", "code", "price", "", "cannot match");
    row("name clash", "inst", "code", "QTY", "'QTY' already exists");
    row("no master", "inst", "code", "c2", "no master index"); // cycles: chainsAndSeveralJoins
}

void tst_TableJoin::refusals()
{
    QFETCH(QString, key);
    QFETCH(QString, column);
    QFETCH(QString, as);
    QFETCH(QString, error);
    Tables t;
    t.orders.addColumn("code", FieldType::VarChar, 8);
    appendOrder(t.orders, 1, 1);
    if (QLatin1String(QTest::currentDataTag()) == QLatin1String("no master"))
        t.instruments.setMasterIndex(nullptr);
    const QStringList ordersBefore = t.orders.columns();
    const QStringList instrumentsBefore = t.instruments.columns();
    const QList<Index *> indexesBefore = t.orders.indexes();
    TableJoin join(&t.orders, { key }, &t.instruments, { { column, as } });
    QVERIFY(!join.isValid());
    QVERIFY2(join.errorString().contains(error), qPrintable(join.errorString()));
    QCOMPARE(t.orders.columns(), ordersBefore);
    QCOMPARE(t.instruments.columns(), instrumentsBefore);
    QCOMPARE(t.orders.indexes(), indexesBefore);
    QVERIFY(t.instruments.dependentIndexes().isEmpty());
}

// One transaction of k instruments reaches the orders as one batch in one
// bracket, marking only the joined column that changed.
void tst_TableJoin::dependentBatchIsOneMainBatch()
{
    Tables t;
    for (int i = 0; i < 10; ++i)
        appendInstrument(t.instruments, i, QStringLiteral("I%1").arg(i), i);
    for (int i = 0; i < 50; ++i)
        appendOrder(t.orders, i, i % 10);
    const auto join = t.join();
    ColumnSort byPrice(&t.orders, { JoinedPrice }, true);
    byPrice.build();
    BatchCounter counter(&t.orders, true);
    counter.build();
    t.instruments.beginUpdate();
    {
        RecordsTrans trans(&t.instruments);
        for (int i = 0; i < 4; ++i) {
            RecordUpdater updater(&trans, rowOf(t.instruments, i));
            updater.updateInMap();
            updater.setValue(Price, 100.0 - i);
        }
    }
    QCOMPARE(counter.batches, 0); // the main rows follow when the bracket closes
    t.instruments.endUpdate();
    QCOMPARE(counter.brackets, 1);
    QCOMPARE(counter.batches, 1);
    QCOMPARE(counter.rows, 20);
    QCOMPARE(counter.columns, qMakePair(int(JoinedPrice), int(JoinedPrice)));
    QVERIFY_JOINED(t);

    // An update that leaves the joined values as they are costs the orders nothing.
    t.instruments.updated(rowOf(t.instruments, 5), Code, Code, -1);
    QCOMPARE(counter.batches, 1);
    t.instruments.remove(rowOf(t.instruments, 5));
    QCOMPARE(counter.batches, 2);
    QVERIFY_JOINED(t);
}

void tst_TableJoin::randomAgainstNaiveJoin()
{
    Tables t;
    QRandomGenerator random(20261123);
    const auto pick = [&random](int n) { return int(random.bounded(n)); };
    for (int i = 0; i < 20; i += 2)
        appendInstrument(t.instruments, i, QStringLiteral("I%1").arg(i), i);
    for (int i = 0; i < 60; ++i)
        appendOrder(t.orders, i, pick(24));
    const auto join = t.join();
    ColumnSort byPrice(&t.orders, { JoinedPrice }, true);
    byPrice.build();
    ColumnSort byInstrumentPrice(&t.instruments, { Price }, true);
    byInstrumentPrice.build();
    QUndoStack undo;
    int nextOrder = 60;
    // Direct updates report their rows with unknown positions, so the price
    // views note a full search on every re-keyed order.
    QLoggingCategory::setFilterRules("default.warning=false");
    const auto restore = qScopeGuard([] { QLoggingCategory::setFilterRules(QString()); });

    for (int step = 0; step < 400; ++step) {
        const int action = pick(9);
        Table &table = action < 4 ? t.instruments : t.orders;
        const int keySpace = action < 4 ? 24 : nextOrder;
        const Record existing = rowOf(table, pick(keySpace));
        if (action == 0) {
            const int id = pick(24);
            if (rowOf(table, id).isNull())
                appendInstrument(table, id, QStringLiteral("N%1").arg(step), step);
        } else if (action == 1 || action == 5) {
            // A batch of inserts, value or key updates and removals, made undoable.
            auto *command = new Undo::Transaction(&table);
            for (int k = 0; k < 1 + pick(6); ++k) {
                const Record row = rowOf(table, pick(keySpace));
                if (row.isNull())
                    continue;
                Record changed = row.clone();
                if (pick(4) == 0) {
                    new Undo::TransDelete(row.clone(), command);
                    continue;
                }
                if (action == 1)
                    changed.data(Price).set<double>(pick(50));
                else
                    changed.data(pick(2) ? Inst : Qty).set<qint32>(pick(24));
                new Undo::TransUpdate(row.clone(), changed, command);
            }
            undo.push(command);
        } else if (action == 2 && !existing.isNull()) {
            table.remove(existing);
        } else if ((action == 3 || action == 6) && !existing.isNull()) {
            // In place, as a host edits a row: a direct undoable update.
            const Record before = existing.clone();
            // Instruments get a new code or, when the id is free, a new key.
            const int id = pick(24);
            const bool rekey = action == 3 && rowOf(table, id).isNull();
            Field field = existing.data(action == 6 ? int(Inst) : rekey ? int(Id) : int(Code));
            if (action == 3 && !rekey)
                field = QStringLiteral("C%1").arg(step);
            else
                field.set<qint32>(id);
            table.updated(existing, 0, table.columnCount() - 1, -1);
            undo.push(new Undo::Update(&table, before, existing.clone()));
        } else if (action == 4) {
            QList<Record> rows;
            for (int k = 0; k < 1 + pick(4); ++k) {
                Record row(&t.orders);
                row.data(Oid).set<qint32>(nextOrder++);
                row.data(Inst).set<qint32>(pick(24));
                rows << row;
            }
            t.orders.appendList(rows);
        } else if (action == 7 && !existing.isNull()) {
            t.orders.remove(existing);
        } else if (action == 8 && undo.count() > 0) {
            if (pick(2) && undo.canUndo())
                undo.undo();
            else if (undo.canRedo())
                undo.redo();
        }
        const QString mismatch = naiveJoinMismatch(t.orders, t.instruments);
        QVERIFY2(mismatch.isEmpty(), qPrintable(QStringLiteral("step %1: ").arg(step) + mismatch));
        QVERIFY_INDEXES(&t.orders);
        QVERIFY_INDEXES(&t.instruments);
    }
}

// quotes -> instruments -> orders, and quotes joined straight into orders too.
void tst_TableJoin::chainsAndSeveralJoins()
{
    Tables t;
    Table quotes("quotes");
    quotes.addColumn("code", FieldType::VarChar, 8, false);
    quotes.addColumn("bid", FieldType::Decimal);
    quotes.setMasterIndex(new MasterIndex_Column_Pure(&quotes, "code"));
    const auto setBid = [&quotes](const QString &code, const QString &bid) {
        Record row = quotes.masterIndex()->findRecord(code);
        const bool fresh = row.isNull();
        if (fresh) {
            row = Record(&quotes);
            row.data("code") = code;
        }
        row.data(1).set(decimal(bid));
        if (fresh)
            quotes.appendList({ row });
        else
            quotes.updated(row, 1, 1, -1);
    };
    setBid("SBER", "1.50");
    appendInstrument(t.instruments, 1, "SBER", 1);
    appendOrder(t.orders, 7, 1);

    TableJoin quotesIntoInstruments(&t.instruments, { "code" }, &quotes, { { "bid", QString() } });
    const auto instrumentsIntoOrders = t.join();
    TableJoin bidIntoOrders(&t.orders, { "instCode" }, &quotes, { { "bid", "directBid" } });
    TableJoin bidViaInstrument(&t.orders, { "inst" }, &t.instruments, { { "bid", "chainBid" } });
    QVERIFY(quotesIntoInstruments.isValid() && bidIntoOrders.isValid());
    QVERIFY2(bidViaInstrument.isValid(), qPrintable(bidViaInstrument.errorString()));
    const Record order = rowOf(t.orders, 7);
    QCOMPARE(order.data("chainBid").toString(), "1.50");

    setBid("SBER", "2.25");
    QCOMPARE(order.data("chainBid").toString(), "2.25");
    QCOMPARE(order.data("directBid").toString(), "2.25");
    // Re-keying the instrument (its code) moves both bids.
    setBid("GAZP", "3");
    Record instrument = rowOf(t.instruments, 1);
    instrument.data(Code) = "GAZP";
    t.instruments.updated(instrument, Code, Code, -1);
    QCOMPARE(order.data("directBid").toString(), "3");
    QCOMPARE(order.data("chainBid").toString(), "3");
    QVERIFY_JOINED(t);

    TableJoin cycle(&quotes, { "code" }, &t.orders, { { "qty", QString() } });
    QVERIFY(!cycle.isValid());
    QVERIFY(cycle.errorString().contains(QLatin1String("cycle")));
    QCOMPARE(quotes.columnCount(), 2);
}

void tst_TableJoin::destructionStopsMaintenance()
{
    auto t = std::make_unique<Tables>();
    appendInstrument(t->instruments, 1, "SBER", 5);
    appendOrder(t->orders, 1, 1);
    auto join = t->join();
    join.reset();
    QVERIFY(t->orders.indexes().isEmpty());
    QVERIFY(t->instruments.indexes().isEmpty() && t->instruments.dependentIndexes().isEmpty());
    QCOMPARE(t->orders.columnCount(), 5);
    QCOMPARE(rowOf(t->orders, 1).data(JoinedCode).toString(), "SBER");
    t->instruments.remove(rowOf(t->instruments, 1));
    QCOMPARE(rowOf(t->orders, 1).data(JoinedCode).toString(), "SBER");

    // Destroying the dependent table detaches the join; the orders go on.
    auto instruments = std::make_unique<Table>("quotes");
    instruments->addColumn("id", FieldType::Integer64, 0, false);
    instruments->addColumn("lot", FieldType::Integer);
    instruments->setMasterIndex(
        new MasterIndex_Column_Pure(instruments.get(), QStringList() << "id"));
    TableJoin second(&t->orders, { "inst" }, instruments.get(), { { "lot", QString() } });
    QVERIFY2(second.isValid(), qPrintable(second.errorString()));
    instruments.reset();
    QVERIFY(!second.isValid());
    QVERIFY(t->orders.indexes().isEmpty());
    appendOrder(t->orders, 2, 1);

    // And destroying the main table cleans the dependent table's registry.
    auto orders = std::make_unique<Table>("orders2");
    orders->addColumn("oid", FieldType::Integer, 0, false);
    orders->setMasterIndex(new MasterIndex_Column_Pure(orders.get(), "oid"));
    TableJoin third(orders.get(), { "oid" }, &t->instruments, { { "code", QString() } });
    QVERIFY(third.isValid());
    QCOMPARE(t->instruments.dependentIndexes().size(), 1);
    orders.reset();
    QVERIFY(!third.isValid());
    QVERIFY(t->instruments.indexes().isEmpty() && t->instruments.dependentIndexes().isEmpty());
    appendInstrument(t->instruments, 3, "X", 1);
}

// A saved main table loads with joined cells taken from the dependent table,
// and rebuilding either table's indexes keeps the join right.
void tst_TableJoin::saveLoadAndRebuild()
{
    Tables t;
    appendInstrument(t.instruments, 1, "SBER", 5);
    appendInstrument(t.instruments, 2, "GAZP", 6);
    appendOrder(t.orders, 1, 1);
    appendOrder(t.orders, 2, 2);
    const auto join = t.join();
    ColumnSort byPrice(&t.orders, { JoinedPrice }, true);
    byPrice.build();
    const QByteArray file = TestSupport::savedBytes(t.orders);

    Record sber = rowOf(t.instruments, 1);
    sber.data(Price).set<double>(50);
    t.instruments.updated(sber, Price, Price, -1);
    t.instruments.remove(rowOf(t.instruments, 2));
    QVERIFY(TestSupport::loadBytes(t.orders, file));
    QCOMPARE(t.orders.rowCount(), 2);
    QVERIFY(TableJoin::isJoinIndex(t.orders.indexes().value(0)));
    QVERIFY_JOINED(t);

    appendInstrument(t.instruments, 2, "GAZP", 1);
    {
        TableIndexRebuilder rebuilder(&t.instruments);
    }
    {
        // A rebuild of the join index alone puts it back at the head of the list.
        TableIndexRebuilder rebuilder(&t.orders, { t.orders.indexes().value(0) });
    }
    QVERIFY(TableJoin::isJoinIndex(t.orders.indexes().value(0)));
    QCOMPARE(rowOf(t.orders, 2).data(JoinedPrice).get<double>(), 1.0);
    QVERIFY_JOINED(t);
}

// One thread edits instruments while another adds and re-keys orders, each
// under its table's lock; the lock order keeps them apart without deadlock.
void tst_TableJoin::twoThreads()
{
    Tables t;
    for (int i = 0; i < 20; ++i)
        appendInstrument(t.instruments, i, QStringLiteral("I%1").arg(i), i);
    const auto join = t.join();
    ColumnSort byPrice(&t.orders, { JoinedPrice }, true);
    byPrice.build();
    std::unique_ptr<QThread> writer(QThread::create([&t] {
        for (int round = 0; round < 200; ++round) {
            t.instruments.lock();
            t.instruments.beginUpdate();
            {
                RecordsTrans trans(&t.instruments);
                for (int k = 0; k < 5; ++k) {
                    RecordUpdater updater(&trans, rowOf(t.instruments, (round + k) % 20));
                    updater.updateInMap();
                    updater.setValue(Price, double(round * 10 + k));
                }
            }
            t.instruments.endUpdate();
            t.instruments.unlock();
        }
    }));
    writer->start();
    for (int i = 0; i < 300; ++i) {
        t.orders.lock();
        t.orders.beginUpdate();
        appendOrder(t.orders, i, i % 23);
        if (i > 10) {
            Record row = rowOf(t.orders, i - 10);
            const QVector<int> keeper = t.orders.buildKeeper(row);
            row.data(Inst).set<qint32>(i % 20);
            t.orders.updated(row, keeper, Inst, Inst);
        }
        t.orders.endUpdate();
        t.orders.unlock();
    }
    QVERIFY(writer->wait(60000));
    QVERIFY_JOINED(t);
}

QTEST_GUILESS_MAIN(tst_TableJoin)
#include "tst_tablejoin.moc"
