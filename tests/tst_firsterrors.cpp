// The errors a new user meets first each name the table, the column and the
// way out. The texts are pinned here; texts that the library defined before
// (the conversion Exception) stay word for word beside the new warnings.

#include "testsupport.h"
#include "transfixture.h"

#include <database/database.h>

#include <QtTest>

#include <functional>

using namespace TransFixture;
using Provoke = std::function<void(QuoteTable &)>;
Q_DECLARE_METATYPE(Provoke)

class tst_FirstErrors : public QObject
{
    Q_OBJECT
private slots:
    void messagesNameTableColumnAndRemedy_data();
    void messagesNameTableColumnAndRemedy();
    void loadsOfAnotherLayoutSayWhatIsLeftOut();
    void exceptionIsAStandardException();
};

void tst_FirstErrors::messagesNameTableColumnAndRemedy_data()
{
    QTest::addColumn<Provoke>("provoke");
    QTest::addColumn<QString>("message");

    QTest::newRow("unknown column of a record")
        << Provoke([](QuoteTable &q) {
               const Record row = q.row(1, {});
               Field field = row.data(QStringLiteral("prise"));
               QVERIFY(!field.isValid());
               // The invalid field refuses text instead of writing anywhere.
               QVERIFY_EXCEPTION_THROWN(field = QStringLiteral("1"), Exception);
           })
        << "Record::data: table 'quotes' has no column 'prise'. Its columns are: id, name, "
           "price, qty. Check the name, or add the column with Table::addColumn()";
    QTest::newRow("unknown column through an updater")
        << Provoke([](QuoteTable &q) {
               RecordsTrans trans(&q.table);
               RecordUpdater updater(&trans);
               updater.insertInMap(q.row(1, {}));
               updater.setValue(QStringLiteral("prise"), 1.0);
           })
        << "RecordUpdater: table 'quotes' has no column 'prise'; nothing is written. Its "
           "columns are: id, name, price, qty. Check the name, or add the column with "
           "Table::addColumn()";
    QTest::newRow("transaction without a primary key")
        << Provoke([](QuoteTable &) {
               Table bare(QStringLiteral("bare"));
               bare.addColumn(QStringLiteral("id"), FieldType::Integer);
               RecordsTrans trans(&bare);
               RecordUpdater updater(&trans);
               updater.insertInMap(Record(&bare));
               QVERIFY(!updater.isRegistered());
           })
        << "RecordUpdater::insertInMap: table 'bare' has no master index (primary key), so "
           "the transaction cannot tell its rows apart; nothing is registered. Install one "
           "with Table::setMasterIndex() before changing rows through a transaction";
    QTest::newRow("value of the wrong type")
        << Provoke([](QuoteTable &q) {
               RecordsTrans trans(&q.table);
               RecordUpdater updater(&trans);
               updater.insertInMap(q.row(1, {}));
               try {
                   updater.setValue(QStringLiteral("price"), decimal(QStringLiteral("1.5")));
                   QFAIL("no exception");
               } catch (const Exception &e) {
                   QCOMPARE(e.message, QStringLiteral("Can't convert from Decimal to Double"));
               }
           })
        << "RecordUpdater::setValue: column 'price' of table 'quotes' is Double; a Decimal "
           "value can't be written to it. Pass a value of the column's type, or its text "
           "(setText())";
    QTest::newRow("insert of a key the table holds")
        << Provoke([](QuoteTable &q) {
               q.fill({ { 7, { "held", 1, 1 } } });
               {
                   RecordsTrans trans(&q.table);
                   RecordUpdater(&trans).insertInMap(q.row(7, { "again", 2, 2 }));
               }
               QCOMPARE(q.table.rowCount(), 2); // the row handling stays as it was
           })
        << "RecordUpdater::insertInMap: table 'quotes' already holds a row with key '7'; "
           "the batch adds a second row with that key. To change the existing row, find it "
           "(Record(table, key)) and call updateInMap() instead";
}

void tst_FirstErrors::messagesNameTableColumnAndRemedy()
{
    QFETCH(Provoke, provoke);
    QFETCH(QString, message);
    QuoteTable q;
    QTest::ignoreMessage(QtWarningMsg, qPrintable(message));
    q.table.beginUpdate();
    provoke(q);
    q.table.endUpdate();
}

// A file saved before a column was renamed: the load goes on, and says which
// columns it left out on either side.
void tst_FirstErrors::loadsOfAnotherLayoutSayWhatIsLeftOut()
{
    QuoteTable saved;
    saved.fill({ { 1, { "a", 1, 1 } } });

    Table renamed(QStringLiteral("quotes"));
    renamed.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
    renamed.addColumn(QStringLiteral("ticker"), FieldType::VarChar, 12);
    renamed.setMasterIndex(new MasterIndex_Column_Pure(&renamed, QStringLiteral("id")));
    QTest::ignoreMessage(QtWarningMsg,
                         "TableIO: table 'quotes': the file's columns name, price, qty are not in "
                         "the table and are not loaded. Read with addColumns to add them, or map "
                         "them to columns of the table with TableIO::Convertors");
    QTest::ignoreMessage(QtWarningMsg,
                         "TableIO: table 'quotes': the columns ticker are not in the file and "
                         "keep the value of a fresh row. Map them from a file column with "
                         "TableIO::Convertors if they were renamed");
    QVERIFY(TestSupport::loadBytes(renamed, TestSupport::savedBytes(saved.table)));
    QCOMPARE(renamed.rowCount(), 1);
}

// An uncaught Exception names its message; handlers of std::exception see it.
void tst_FirstErrors::exceptionIsAStandardException()
{
    try {
        throw Exception(QStringLiteral("Column not found in translation."));
    } catch (const std::exception &e) {
        QCOMPARE(e.what(), "Column not found in translation.");
    }
    Exception copy(QStringLiteral("Ä"));
    QCOMPARE(QString::fromUtf8(copy.what()), QStringLiteral("Ä"));
}

QTEST_GUILESS_MAIN(tst_FirstErrors)
#include "tst_firsterrors.moc"
