// The built-in column-keyed sorted index: ordering of every cell type by
// value with directions and nulls, unknown columns, and a batch that moves
// keys keeping the index in order.

#include "indexchecker.h"

#include <database/database.h>

#include <QtTest>

enum Column { Id, Price };

class tst_IndexSortColumns : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup()
    {
        delete table;
        table = nullptr;
    }
    void ordering_data();
    void ordering();
    void unknownColumn();
    void batchKeepsOrder();

private:
    // Row ids in the index's order, as "1 3 5".
    static QString ids(const IndexSortColumns &index);
    Table *table = nullptr;
};

void tst_IndexSortColumns::init()
{
    table = new Table(QStringLiteral("t"));
    table->addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
    table->addColumn(QStringLiteral("price"), FieldType::Decimal, 0);
    table->addColumn(QStringLiteral("name"), FieldType::VarChar, 6);
    table->addColumn(QStringLiteral("ts"), FieldType::DateTime);
    table->addColumn(QStringLiteral("qty"), FieldType::Double);
    table->setMasterIndex(new MasterIndex_Column_Pure(table, QStringLiteral("id")));
    // id, price, name, ts, qty; "-" leaves a cell null.
    const char *const rows[][5] = {
        { "1", "1.50", "b", "300", "2.5" }, { "2", "-", "a", "100", "-" },
        { "3", "10", "ab", "-", "-1" },     { "4", "1.5", "B", "200", "2.5" },
        { "5", "-2", "-", "100", "0" },
    };
    QList<Record> records;
    for (const auto &cells : rows) {
        Record row(table);
        for (int c = 0; c < 5; ++c) {
            if (qstrcmp(cells[c], "-") == 0)
                continue;
            const QString text = QString::fromLatin1(cells[c]);
            Field field = row.data(c);
            switch (c) {
            case 0:
                field.set<qint32>(text.toInt());
                break;
            case 1:
                field.set(decimal(text));
                break;
            case 2:
                field = text;
                break;
            case 3:
                field.set<qint64>(text.toLongLong());
                break;
            default:
                field.set<double>(text.toDouble());
            }
        }
        records << row;
    }
    table->appendList(records);
}

QString tst_IndexSortColumns::ids(const IndexSortColumns &index)
{
    QStringList result;
    for (const Record &row : IndexChecker::rowsOf(&index))
        result << QString::number(row.data(Id).get<qint32>());
    return result.join(' ');
}

void tst_IndexSortColumns::ordering_data()
{
    QTest::addColumn<QVector<SortColumn>>("key");
    QTest::addColumn<QString>("expected");
    const Qt::SortOrder up = Qt::AscendingOrder;
    const Qt::SortOrder down = Qt::DescendingOrder;
    // 1.50 == 1.5: equal decimals keep arrival order, in both directions.
    QTest::newRow("decimal by value") << QVector<SortColumn> { { "price", up } } << "2 5 1 4 3";
    QTest::newRow("decimal descending, nulls last")
        << QVector<SortColumn> { { "PRICE", down } } << "3 1 4 5 2";
    QTest::newRow("text by units") << QVector<SortColumn> { { "name", up } } << "5 4 2 3 1";
    QTest::newRow("datetime, then double descending")
        << QVector<SortColumn> { { "ts", up }, { "qty", down } } << "3 5 2 4 1";
    QTest::newRow("double, then id descending")
        << QVector<SortColumn> { { "qty", up }, { "id", down } } << "2 3 5 4 1";
}

void tst_IndexSortColumns::ordering()
{
    QFETCH(QVector<SortColumn>, key);
    QFETCH(QString, expected);
    IndexSortColumns index(table, key);
    index.build();
    QCOMPARE(ids(index), expected);
    QCOMPARE(index.columns().size(), key.size());
    QCOMPARE(index.columns().constFirst().order, key.constFirst().order);
    QVERIFY2(IndexChecker::check(table).isEmpty(), qPrintable(IndexChecker::check(table)));
}

void tst_IndexSortColumns::unknownColumn()
{
    QTest::ignoreMessage(
        QtWarningMsg, "IndexSortColumns: no column 'nope' in the table; it is left out of the key");
    IndexSortColumns index(table,
                           { { "nope", Qt::AscendingOrder }, { "Name", Qt::DescendingOrder } });
    QCOMPARE(index.columns().size(), 1);
    QCOMPARE(index.columns().constFirst().name, QStringLiteral("name"));
    QCOMPARE(QString::fromLatin1(index.getClassName()), QStringLiteral("IndexSortColumns"));
    index.build();
    QCOMPARE(ids(index), QStringLiteral("1 3 2 4 5"));
}

void tst_IndexSortColumns::batchKeepsOrder()
{
    IndexSortColumns byPrice(table, QStringLiteral("price"));
    IndexSortColumns byTs(table, QStringLiteral("ts"), Qt::DescendingOrder);
    byPrice.build();
    byTs.build();
    table->beginUpdate();
    {
        RecordsTrans trans(table);
        for (int id : { 2, 4 }) {
            RecordUpdater updater(&trans, table->masterIndex()->findRecord(QString::number(id)));
            updater.updateInMap();
            updater.setValue(Price, decimal(QStringLiteral("1.5")));
        }
        Record fresh(table);
        fresh.data(Id).set<qint32>(6);
        fresh.data(Price).set(decimal(QStringLiteral("-3")));
        RecordUpdater(&trans).insertInMap(fresh);
        RecordUpdater leaving(&trans, table->masterIndex()->findRecord(QStringLiteral("3")));
        leaving.updateInMap();
        leaving.remove();
    }
    table->endUpdate();
    // Rows re-entering after a batch go after their equal keys; a batch that
    // leaves the key columns alone leaves its rows where they stand.
    QCOMPARE(ids(byPrice), QStringLiteral("6 5 1 2 4"));
    QCOMPARE(ids(byTs), QStringLiteral("1 4 2 5 6"));
    QVERIFY2(IndexChecker::check(table).isEmpty(), qPrintable(IndexChecker::check(table)));
}

QTEST_GUILESS_MAIN(tst_IndexSortColumns)
#include "tst_indexsortcolumns.moc"
