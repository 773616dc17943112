// Master indexes: look-up by key text, ordering and parsing by column type,
// the raw-byte key and its refusals, the ordered master, and what a table does
// with its master index (ownership, re-laying rows when a column is added).

#include "indexchecker.h"
#include "testindexes.h"

#include <database/database.h>

#include <QtTest>

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
    void lookupByKeyText_data();
    void lookupByKeyText();
    void keyText_data();
    void keyText();
    void refusals_data();
    void refusals();
    void orderedMaster();
    void addColumnRelaysRows();
};

void tst_MasterIndex::lookupByKeyText_data()
{
    QTest::addColumn<bool>("fast");
    QTest::newRow("column") << false;
    QTest::newRow("fast") << true;
}

void tst_MasterIndex::lookupByKeyText()
{
    QFETCH(bool, fast);
    Table table(QStringLiteral("keys"));
    table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
    table.addColumn(QStringLiteral("code"), FieldType::VarChar, 4, false);
    const QStringList key = { QStringLiteral("id"), QStringLiteral("code") };
    MasterIndex *master
        = fast ? new MasterIndex_Fast_Pure(&table, key) : new MasterIndex_Column_Pure(&table, key);
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
        QCOMPARE(master->findRecord(texts[i]), rows[i]);
        QCOMPARE(Record(&table, texts[i]), rows[i]);
        const Record keyOnly = master->keyRecord(rows[i]);
        QVERIFY(keyOnly != rows[i] && master->compare(keyOnly, rows[i]) == 0);
    }
    QVERIFY(Record(&table, QStringLiteral("7,AB")).isNull());
    QVERIFY(master->toText(master->fromText("3,")).isEmpty()); // an empty part empties it all
    // The raw key compares little-endian bytes: 256 (00 01 00 00) sorts before 1.
    QCOMPARE(master->compare(master->fromText("256,A"), master->fromText("1,A")), fast ? -1 : 1);
}

void tst_MasterIndex::keyText_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("texts"); // two key texts, "a|b"
    QTest::addColumn<int>("expected"); // compare(a, b)
    QTest::addColumn<QString>("error");
    QTest::newRow("null first") << int(FieldType::Integer) << "|-5" << -1 << QString();
    QTest::newRow("int signed") << int(FieldType::Integer) << "-5|3" << -1 << QString();
    QTest::newRow("int64") << int(FieldType::Integer64) << "9000000000|-1" << 1 << QString();
    QTest::newRow("double") << int(FieldType::Double) << "1.5|1.25" << 1 << QString();
    QTest::newRow("decimal scale") << int(FieldType::Decimal) << "1.50|1.5" << 0 << QString();
    QTest::newRow("decimal sign") << int(FieldType::Decimal) << "-0.5|0" << -1 << QString();
    QTest::newRow("string case") << int(FieldType::VarChar) << "B|a" << -1 << QString();
    QTest::newRow("string prefix") << int(FieldType::VarChar) << "ab|abc" << -1 << QString();
    QTest::newRow("date-time") << int(FieldType::DateTime) << "2015-03-01|2015.02.28 23:59:59.999"
                               << 1 << QString();
    QTest::newRow("bad integer") << int(FieldType::Integer) << "x3|" << 0
                                 << "Can't convert from 'x3'' to Integer";
    QTest::newRow("bad date-time") << int(FieldType::DateTime) << "01/03/2015|" << 0
                                   << "Can't convert from '01/03/2015'' to DateTime";
    QTest::newRow("board list") << int(FieldType::BoardList) << "1:2|" << 0
                                << "Can't convert from VarChar to BoardList";
    QTest::newRow("two parts") << int(FieldType::Integer) << "1,2|" << 0
                               << "Master index can't restore from text. Incorrect columns "
                                  "numbers: 2 != 1";
}

// fromText converts each part by its column's type (an empty part stays null,
// and null sorts first); compare() orders the values by type.
void tst_MasterIndex::keyText()
{
    QFETCH(int, type);
    QFETCH(QString, texts);
    QFETCH(int, expected);
    QFETCH(QString, error);
    Table table(QStringLiteral("values"));
    table.addColumn(QStringLiteral("v"), FieldType::Type(type), type == FieldType::VarChar ? 6 : 0);
    MasterIndex_Column_Pure master(&table, QList<int>({ 0 }));
    QCOMPARE(outcome([&] {
                 const int order = master.compare(master.fromText(texts.section('|', 0, 0)),
                                                  master.fromText(texts.section('|', 1)));
                 return order == expected ? QString() : QStringLiteral("order %1").arg(order);
             }),
             error);
}

void tst_MasterIndex::refusals_data()
{
    QTest::addColumn<bool>("fast");
    QTest::addColumn<QStringList>("columns");
    QTest::addColumn<QString>("message");
    QTest::newRow("type") << true << QStringList({ "id", "qty" })
                          << "Type 'Double' unsuported for qty";
    QTest::newRow("nullable") << true << QStringList({ "grp" }) << "Columns can't be nullable grp";
    QTest::newRow("sequence") << true << QStringList({ "id", "code" })
                              << "Columns must be sequenced: 4(code) / 1";
    QTest::newRow("missing") << false << QStringList({ "id", "nope" })
                             << "Column 'nope' not found to create index.";
}

void tst_MasterIndex::refusals()
{
    QFETCH(bool, fast);
    QFETCH(QStringList, columns);
    QFETCH(QString, message);
    Table table(QStringLiteral("refusals"));
    addQuoteColumns(table);
    table.addColumn(QStringLiteral("code"), FieldType::Integer, 0, false);
    QCOMPARE(outcome([&] {
                 fast ? MasterIndex_Fast_Pure(&table, columns).count()
                      : MasterIndex_Column_Pure(&table, columns).count();
                 return QString();
             }),
             message);
    QCOMPARE(outcome([&] {
                 return MasterIndex_Column_Pure(&table, QList<int>({ 0, 9 })).toText({});
             }),
             "Column '9' not found to create index.");
}

void tst_MasterIndex::orderedMaster()
{
    Table table(QStringLiteral("ordered"));
    addQuoteColumns(table);
    table.setMasterIndex(new MasterIndexOrdered(&table));
    table.setMasterIndex(new MasterIndexOrdered(&table)); // the first one is deleted
    std::vector<Record> rows;
    for (int id : { 5, 2, 9, 2, 7 })
        rows.push_back(makeRow(table, id));
    table.appendList({ rows[0], rows[1] });
    table.appendList({ rows[2], rows[3], rows[4] });
    QCOMPARE(IndexChecker::sameOrder(table.masterIndex(), rows), QString());
    // Without a key every search key matches: the first row is found.
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
        table.appendRow(
            makeRow(table, id, id % 3 ? id : -1, QStringLiteral("n%1").arg(id % 7), id * 0.5)
                .row());

    table.addColumn(QStringLiteral("extra"), FieldType::Double);
    table.addColumn(QStringLiteral("must"), FieldType::Integer, 0, false);
    for (int c = table.columnCount(); c < 8; ++c)
        table.addColumn(QStringLiteral("c%1").arg(c), FieldType::Integer);
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
        QCOMPARE(row.data(Name).toString(), QStringLiteral("n%1").arg(id % 7));
        QCOMPARE(row.data(Quantity).get<double>(), id * 0.5);
        for (const char *added : { "extra", "must", "ninth" })
            QVERIFY(row.data(QLatin1String(added)).isNull());
    }
}

QTEST_GUILESS_MAIN(tst_MasterIndex)
#include "tst_masterindex.moc"
