// Master indexes: look-up by key text, ordering and parsing by column type,
// the raw-byte key and its refusals, the integer key, the ordered master, and
// what a table does with its master index (ownership, re-laying rows when a
// column is added).

#include "indexchecker.h"
#include "testindexes.h"

#include <database/database.h>

#include <QtTest>

#include <algorithm>
#include <limits>

using namespace TestIndexes;

namespace {

// What `f` returns, or the message of the Exception or QString it throws.
template <typename F> QString outcome(F f)
{
    try {
        return f();
    } catch (const Exception &error) {
        return error.message;
    } catch (const QString &error) {
        return error;
    }
}

} // namespace

class tst_MasterIndex : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void lookupByKeyText();
    void keyText_data();
    void keyText();
    void integerKeyOrder_data();
    void integerKeyOrder();
    void integerKeyAsMaster();
    void integerKeySearch_data();
    void integerKeySearch();
    void orderedMaster();
    void addColumnRelaysRows();
    void batchesMoveRowsOnlyForKeyChanges();
};

void tst_MasterIndex::lookupByKeyText()
{
    for (const bool fast : { false, true }) {
        Table table(QStringLiteral("keys"));
        table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
        table.addColumn(QStringLiteral("code"), FieldType::VarChar, 4, false);
        const QStringList key = { QStringLiteral("id"), QStringLiteral("code") };
        MasterIndex *master = fast ? new MasterIndex_Fast_Pure(&table, key)
                                   : new MasterIndex_Column_Pure(&table, key);
        table.setMasterIndex(master);
        table.setMasterIndex(master); // the same index again: kept, not deleted
        const QStringList texts = { "3,AB", "1,ZZZZ", "3,AA", "-2,B" };
        QList<Record> rows;
        for (const QString &text : texts)
            rows << master->fromText(text);
        table.appendList(rows);
        QVERIFY_INDEXES(&table);
        for (int i = 0; i < rows.size(); ++i) {
            QCOMPARE(rows[i].toString(), texts[i]);
            QCOMPARE(Record(&table, texts[i]), rows[i]);
            const Record keyOnly = master->keyRecord(rows[i]);
            QVERIFY(keyOnly != rows[i] && master->compare(keyOnly, rows[i]) == 0);
        }
        QVERIFY(Record(&table, QStringLiteral("7,AB")).isNull());
        QVERIFY(master->toText(master->fromText("3,")).isEmpty()); // an empty part empties all
        // The raw key compares little-endian bytes: 256 (00 01 00 00) sorts before 1.
        QCOMPARE(master->compare(master->fromText("256,A"), master->fromText("1,A")),
                 fast ? -1 : 1);
    }
    QCOMPARE(outcome([] {
                 Table table(QStringLiteral("nine"));
                 return MasterIndex_Column_Pure(&table, QList<int>({ 9 })).toText({});
             }),
             "Column '9' not found to create index.");
}

void tst_MasterIndex::keyText_data()
{
    QTest::addColumn<int>("type"); // of the column "v"
    QTest::addColumn<QStringList>("key"); // column names; a leading "fast" picks the raw key
    QTest::addColumn<QString>("texts"); // two key texts, "a|b"
    QTest::addColumn<QString>("expected"); // compare(a, b), or the error
    const auto add = [](const char *name, FieldType::Type type, const char *texts,
                        const char *expected, QStringList key = { "v" }) {
        QTest::newRow(name) << int(type) << key << texts << expected;
    };
    add("null first", FieldType::Integer, "|-5", "-1");
    add("int signed", FieldType::Integer, "-5|3", "-1");
    add("int64", FieldType::Integer64, "9000000000|-1", "1");
    add("double", FieldType::Double, "1.5|1.25", "1");
    add("decimal scale", FieldType::Decimal, "1.50|1.5", "0");
    add("decimal sign", FieldType::Decimal, "-0.5|0", "-1");
    add("string case", FieldType::VarChar, "B|a", "-1");
    add("string prefix", FieldType::VarChar, "ab|abc", "-1");
    add("date-time", FieldType::DateTime, "2015-03-01|2015.02.28 23:59:59.999", "1");
    add("bad integer", FieldType::Integer, "x3|", "Can't convert from 'x3'' to Integer");
    add("bad date-time", FieldType::DateTime, "01/03/2015|",
        "Can't convert from '01/03/2015'' to DateTime");
    add("board list", FieldType::BoardList, "1:2|", "Can't convert from VarChar to BoardList");
    add("two parts", FieldType::Integer, "1,2|",
        "Master index can't restore from text. Incorrect columns numbers: 2 != 1");
    add("raw: type", FieldType::Integer, "|", "Type 'Double' unsuported for qty",
        { "fast", "id", "qty" });
    add("raw: nullable", FieldType::Integer, "|", "Columns can't be nullable grp",
        { "fast", "grp" });
    add("raw: sequence", FieldType::Integer, "|", "Columns must be sequenced: 4(code) / 1",
        { "fast", "id", "code" });
    add("missing column", FieldType::Integer, "|", "Column 'nope' not found to create index.",
        { "id", "nope" });
}

// fromText converts each part by its column's type (an empty part stays null,
// and null sorts first); compare() orders the values by type. The raw-byte key
// refuses columns it cannot compare as bytes.
void tst_MasterIndex::keyText()
{
    QFETCH(int, type);
    QFETCH(QStringList, key);
    QFETCH(QString, texts);
    QFETCH(QString, expected);
    Table table(QStringLiteral("values"));
    addQuoteColumns(table);
    table.addColumn(QStringLiteral("code"), FieldType::Integer, 0, false);
    table.addColumn(QStringLiteral("v"), FieldType::Type(type), type == FieldType::VarChar ? 6 : 0);
    QCOMPARE(outcome([&] {
                 std::unique_ptr<MasterIndex> master(
                     key.value(0) == "fast" ? new MasterIndex_Fast_Pure(&table, key.mid(1))
                                            : new MasterIndex_Column_Pure(&table, key));
                 return QString::number(master->compare(master->fromText(texts.section('|', 0, 0)),
                                                        master->fromText(texts.section('|', 1))));
             }),
             expected);
}

void tst_MasterIndex::integerKeyOrder_data()
{
    QTest::addColumn<int>("type"); // of the key column "v"
    QTest::addColumn<bool>("nullable");
    QTest::addColumn<QString>("texts"); // two key texts, "a|b"
    QTest::addColumn<QString>("expected"); // compare(a, b), or the error
    const auto add = [](const char *name, FieldType::Type type, const char *texts,
                        const char *expected, bool nullable = false) {
        QTest::newRow(name) << int(type) << nullable << texts << expected;
    };
    add("int sign", FieldType::Integer, "-1|0", "-1");
    add("int byte order", FieldType::Integer, "256|1", "1");
    add("int extremes", FieldType::Integer, "2147483647|-2147483648", "1");
    add("int64 extremes", FieldType::Integer64, "-9223372036854775808|9223372036854775807", "-1");
    add("int64 high word", FieldType::Integer64, "4294967296|4294967295", "1");
    add("date-time before 1970", FieldType::DateTime, "1969-12-31|1970-01-02", "-1");
    add("double", FieldType::Double, "|", "Type 'Double' unsuported for v");
    add("nullable", FieldType::Integer, "|", "Columns can't be nullable v", true);
}

// Numeric order of both widths, whatever the bytes look like, as the column
// key over the same column gives it.
void tst_MasterIndex::integerKeyOrder()
{
    QFETCH(int, type);
    QFETCH(bool, nullable);
    QFETCH(QString, texts);
    QFETCH(QString, expected);
    Table table(QStringLiteral("values"));
    table.addColumn(QStringLiteral("name"), FieldType::VarChar, 4);
    table.addColumn(QStringLiteral("v"), FieldType::Type(type), 0, nullable);
    QCOMPARE(outcome([&] {
                 MasterIndex_Integer master(&table, QStringLiteral("v"));
                 const Record a = master.fromText(texts.section('|', 0, 0));
                 const Record b = master.fromText(texts.section('|', 1));
                 const int c = master.compare(a, b);
                 const bool agrees = c == MasterIndex_Column_Pure(&table, "v").compare(a, b)
                     && -c == master.compare(b, a);
                 return agrees ? QString::number(c) : QStringLiteral("disagrees");
             }),
             expected);
}

// As a table's master: batches in any order (one past every key is appended)
// and lookup by key text at the extremes.
void tst_MasterIndex::integerKeyAsMaster()
{
    Table table(QStringLiteral("ids"));
    table.addColumn(QStringLiteral("id"), FieldType::Integer64, 0, false);
    table.setMasterIndex(new MasterIndex_Integer(&table, 0));
    QList<qint64> ids;
    const auto append = [&](const QList<qint64> &batch) {
        QList<Record> rows;
        for (qint64 id : batch)
            rows << table.masterIndex()->fromText(QString::number(id));
        table.appendList(rows);
        ids << batch;
    };
    append({ 300, -5, 65536, 0 });
    append({ 70000, 70007, 1LL << 40, std::numeric_limits<qint64>::max() });
    append({ std::numeric_limits<qint64>::min(), 255, 256, -1 });
    std::sort(ids.begin(), ids.end());
    QStringList texts;
    for (qint64 id : ids)
        texts << QString::number(id);
    QStringList keys;
    for (const Record &row : IndexChecker::rowsOf(table.masterIndex()))
        keys << row.toString();
    QCOMPARE(keys, texts);
    QVERIFY_INDEXES(&table);
    for (const QString &text : { texts.first(), texts.last(), QStringLiteral("-1") })
        QCOMPARE(Record(&table, text).toString(), text);
}

void tst_MasterIndex::integerKeySearch_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QList<qint64>>("keys");
    QList<qint64> dense, repeated, skewed, wide;
    for (qint64 i = 0; i < 3000; ++i) {
        dense << i * 3;
        repeated << i / 7 * 2;
        skewed << (i < 2990 ? i : (qint64(1) << (i - 2960)));
        wide << (i % 2 ? i * 1000003 : -i * 999983);
    }
    wide << std::numeric_limits<qint64>::min() << std::numeric_limits<qint64>::max();
    QTest::newRow("dense") << int(FieldType::Integer) << dense;
    QTest::newRow("equal keys") << int(FieldType::Integer) << repeated;
    QTest::newRow("a few far keys") << int(FieldType::Integer64) << skewed;
    QTest::newRow("both signs, extremes") << int(FieldType::Integer64) << wide;
    QTest::newRow("one row") << int(FieldType::Integer) << QList<qint64> { 5 };
    // Past one part: the parts' first keys narrow the search first, equal
    // keys straddle part boundaries, deleted ids leave uneven gaps.
    QList<qint64> gaps, runs;
    for (qint64 i = 0; i < 25000; ++i) {
        if ((i * 7919) % 10 != 3)
            gaps << i;
        runs << i / 13;
    }
    QTest::newRow("parts, gaps") << int(FieldType::Integer64) << gaps;
    QTest::newRow("parts, equal keys across") << int(FieldType::Integer) << runs;
}

// The interpolating search finds what the plain binary search finds, from any
// start, for keys present and absent however they are spread.
void tst_MasterIndex::integerKeySearch()
{
    QFETCH(int, type);
    QFETCH(QList<qint64>, keys);
    Table table(QStringLiteral("ids"));
    table.addColumn(QStringLiteral("id"), FieldType::Type(type), 0, false);
    auto *master = new MasterIndex_Integer(&table, 0);
    table.setMasterIndex(master);
    QList<Record> rows;
    for (qint64 key : keys)
        rows << master->fromText(QString::number(key));
    table.appendList(rows);
    QCOMPARE(master->count(), keys.size());
    QList<qint64> probes = keys;
    for (qint64 key : keys) {
        if (key > std::numeric_limits<qint64>::min())
            probes << key - 1;
        if (key < std::numeric_limits<qint64>::max())
            probes << key + 1;
    }
    const int n = master->count();
    for (int i = 0; i < probes.size(); i += 1 + probes.size() / 2000) {
        const Record key = master->fromText(QString::number(probes.at(i)));
        for (int from : { -1, n / 3, 9998, n - 2, n - 1 })
            QCOMPARE(master->search(key, from), master->IndexSort::search(key, from));
    }
}

// Rows stay in arrival order; without a key every search key matches the first.
void tst_MasterIndex::orderedMaster()
{
    Table table(QStringLiteral("ordered"));
    addQuoteColumns(table);
    table.setMasterIndex(new MasterIndexOrdered(&table));
    table.setMasterIndex(new MasterIndexOrdered(&table)); // the first one is deleted
    const QList<Record> rows = { makeRow(table, 5), makeRow(table, 2), makeRow(table, 2) };
    table.appendList(rows.mid(0, 1));
    table.appendList(rows.mid(1));
    QVERIFY(IndexChecker::rowsOf(table.masterIndex())
            == std::vector<Record>(rows.begin(), rows.end()));
    QCOMPARE(table.masterIndex()->findRecord(QStringLiteral("anything")), rows[0]);
    QVERIFY(table.remove(rows[2]) && !rows[2].inTable());
}

// A registered index is emptied before the rows move and built again after; a
// row still held elsewhere is reported and re-laid anyway.
void tst_MasterIndex::addColumnRelaysRows()
{
    Table table(QStringLiteral("relay"));
    addQuoteColumns(table);
    table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("id")));
    ColumnSort byName(&table, { Name, Id }, true);
    for (int id = 0; id < 30; ++id)
        table.appendRow(makeRow(table, id, id % 3 ? id : -1, QString::number(id % 7), id).row());
    for (int c = table.columnCount(); c < 8; ++c)
        table.addColumn(QStringLiteral("c%1").arg(c), FieldType::Integer, 0, c != 5);
    QCOMPARE(table.rowSize(), 16 + table.rowLength() + 1);
    Record held(&table, QStringLiteral("4"));
    __atomic_add_fetch(reinterpret_cast<int *>(held.row()), 1, __ATOMIC_SEQ_CST);
    held.releaseWithoutFree(); // the bumped count stands in for the holder
    QTest::ignoreMessage(QtDebugMsg, "Table::addColumn : Ref count in realloc is  1");
    table.addColumn(QStringLiteral("ninth"), FieldType::Integer64); // grows the flag area
    QCOMPARE(table.rowSize(), 16 + table.rowLength() + 2);
    QCOMPARE(byName.count(), 30);
    QVERIFY_INDEXES(&table);
    for (int id = 0; id < 30; ++id) {
        const Record row(&table, QString::number(id));
        QCOMPARE(row.refCount(), 3); // master, byName, this handle
        QCOMPARE(row.data(Group).isNull(), id % 3 == 0);
        QCOMPARE(row.toString(), QString::number(id));
        QCOMPARE(row.data(Name).toString() + row.data(Quantity).toString(),
                 QString::number(id % 7) + QString::number(id));
        for (int c = 4; c < 9; ++c)
            QVERIFY(row.data(c).isNull());
    }
}

// A batch that changes no key column leaves updated rows in place, also
// behind an equal key (a full re-merge would move them after it); a batch
// over the key columns re-places them.
void tst_MasterIndex::batchesMoveRowsOnlyForKeyChanges()
{
    Table table(QStringLiteral("batch"));
    addQuoteColumns(table);
    table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("id")));
    const QList<Record> rows = { makeRow(table, 1), makeRow(table, 1), makeRow(table, 2) };
    table.appendList(rows);
    const auto order = [&table] { return IndexChecker::rowsOf(table.masterIndex()); };
    const std::vector<Record> before = order();
    QList<Record> updated { before.front() };
    const Record changed = before.front().clone();
    changed.data(Quantity).set<double>(7);
    table.process({}, updated, Quantity, Quantity, {}, { changed });
    QVERIFY(order() == before);
    QCOMPARE(before.front().data(Quantity).get<double>(), 7.0);

    before.front().data(Id).set<qint32>(3);
    table.process({}, updated, Id, Id, {}, {});
    QVERIFY(order() == std::vector<Record>({ before[1], before[2], before[0] }));
    QVERIFY_INDEXES(&table);
}

QTEST_GUILESS_MAIN(tst_MasterIndex)
#include "tst_masterindex.moc"
