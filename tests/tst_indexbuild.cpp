// Index builds: a column index built from its table orders its rows exactly
// as a stable sort of the master rows by its compare() does (equal keys in
// master order), whether the build sorts by keys (rounded ones among them:
// values beyond the keys' range, decimals finer than the key scale), falls
// back on comparisons (text, NaN, decimals of mixed scales) or finds the rows
// already in order.

#include <database/database.h>

#include <QtTest>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

namespace {

enum Column { Id, Group, Price, Qty, Ts, Name };

// Rows in id order with few distinct values per column, nulls in every
// nullable column, negative numbers, zeros of two decimal scales and -0.0.
// `wide`: some prices and timestamps at the ends of their ranges, and after
// the first 300 rows prices finer than any before them.
void fill(Table &table, int rows, bool mixedScales, bool nan, bool wide = false)
{
    std::mt19937 random(11);
    const qint64 big = qint64(1) << 61;
    const qint64 extremes[] = { std::numeric_limits<qint64>::min(), -big - 1, -big, big - 1, big,
                                std::numeric_limits<qint64>::max() };
    const decimal wideDecimals[] = { decimal(decimal::MantissaLimit - 1, 0),
                                     decimal(1 - decimal::MantissaLimit, 0),
                                     decimal(1 - decimal::MantissaLimit, -5),
                                     decimal(-5, 18),
                                     decimal(5, 18),
                                     decimal(123456789, 9) };
    for (int id = 0; id < rows; ++id) {
        Record row(&table);
        row.data(Id).set<qint32>(id);
        if (random() % 7)
            row.data(Group).set<qint32>(int(random() % 5) - 2);
        if (wide && random() % 3 == 0) {
            row.data(Price).set(wideDecimals[random() % (id < 300 ? 3 : 6)]);
        } else if (random() % 5) {
            const qint64 cents = qint64(random() % 9) - 4;
            const int scale = (mixedScales || cents == 0) && random() % 2 ? 3 : 2;
            row.data(Price).set(decimal(scale == 3 ? cents * 10 : cents, scale));
        }
        if (random() % 6) {
            const double values[] = { -1.5, -0.0, 0.0, 2.25, 1e300 };
            row.data(Qty).set<double>(nan && id == rows / 2 ? std::nan("") : values[random() % 5]);
        }
        row.data(Ts).set<qint64>(wide && random() % 3 == 0 ? extremes[random() % 6]
                                                           : qint64(random() % 4) * 1000 - 1500);
        row.data(Name) = QStringLiteral("n%1").arg(random() % 4);
        table.appendRow(row.row());
    }
}

// The same index under another class: built by comparisons alone.
class ComparedColumns : public IndexSortColumns
{
public:
    using IndexSortColumns::IndexSortColumns;
};

QList<Record> rowsOf(const IndexIterative &index)
{
    QList<Record> rows;
    for (auto it = index.begin(); it != index.end(); ++it)
        rows << *it;
    return rows;
}

} // namespace

Q_DECLARE_METATYPE(QVector<SortColumn>)

class tst_IndexBuild : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void sameOrderAsStableSort_data();
    void sameOrderAsStableSort();
};

void tst_IndexBuild::sameOrderAsStableSort_data()
{
    QTest::addColumn<QVector<SortColumn>>("key");
    QTest::addColumn<bool>("mixedScales");
    QTest::addColumn<bool>("nan");
    QTest::addColumn<bool>("wide");
    const auto asc = Qt::AscendingOrder;
    const auto desc = Qt::DescendingOrder;
    QTest::newRow("decimal") << QVector<SortColumn> { { "price", asc } } << false << false << false;
    QTest::newRow("decimal descending")
        << QVector<SortColumn> { { "price", desc } } << false << false << false;
    QTest::newRow("decimal of mixed scales")
        << QVector<SortColumn> { { "price", asc } } << true << false << false;
    QTest::newRow("double, -0 and +0")
        << QVector<SortColumn> { { "qty", desc } } << false << false << false;
    QTest::newRow("double with a NaN")
        << QVector<SortColumn> { { "qty", asc } } << false << true << false;
    QTest::newRow("three columns")
        << QVector<SortColumn> { { "grp", asc }, { "qty", desc }, { "ts", asc } } << false << false
        << false;
    QTest::newRow("text") << QVector<SortColumn> { { "name", asc } } << false << false << false;
    QTest::newRow("already in order")
        << QVector<SortColumn> { { "id", asc } } << false << false << false;
    QTest::newRow("in reverse order")
        << QVector<SortColumn> { { "id", desc } } << false << false << false;
    QTest::newRow("wide values") << QVector<SortColumn> { { "price", asc } } << false << false
                                 << true;
    QTest::newRow("wide values descending")
        << QVector<SortColumn> { { "price", desc } } << false << false << true;
    QTest::newRow("wide timestamps")
        << QVector<SortColumn> { { "ts", asc } } << false << false << true;
    QTest::newRow("wide timestamps, then decimals")
        << QVector<SortColumn> { { "ts", desc }, { "price", asc } } << false << false << true;
}

void tst_IndexBuild::sameOrderAsStableSort()
{
    QFETCH(QVector<SortColumn>, key);
    QFETCH(bool, mixedScales);
    QFETCH(bool, nan);
    QFETCH(bool, wide);
    Table table(QStringLiteral("quotes"));
    table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
    table.addColumn(QStringLiteral("grp"), FieldType::Integer);
    table.addColumn(QStringLiteral("price"), FieldType::Decimal, 4);
    table.addColumn(QStringLiteral("qty"), FieldType::Double);
    table.addColumn(QStringLiteral("ts"), FieldType::DateTime, 0, false);
    table.addColumn(QStringLiteral("name"), FieldType::VarChar, 4);
    table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("id")));
    fill(table, 3000, mixedScales, nan, wide);

    IndexSortColumns built(&table, key);
    ComparedColumns compared(&table, key);
    built.build();
    compared.build();
    QList<Record> expected = rowsOf(*table.masterIndex());
    std::stable_sort(expected.begin(), expected.end(),
                     [&](const Record &a, const Record &b) { return built.compare(a, b) < 0; });
    QCOMPARE(rowsOf(built), rowsOf(compared));
    // A NaN orders nothing: only the two builds must agree.
    if (!nan)
        QCOMPARE(rowsOf(built), expected);

    // A rebuild over the same rows gives the same order again.
    built.rebuild();
    QCOMPARE(rowsOf(built), rowsOf(compared));
}

QTEST_GUILESS_MAIN(tst_IndexBuild)
#include "tst_indexbuild.moc"
