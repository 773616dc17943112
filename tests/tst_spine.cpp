// Column definitions, row layout and row primitives, and the CRC-64 helper:
// the ground every table stands on.

#include <database/database.h>

#include <QDataStream>
#include <QtTest>

#include <cstring>

namespace {

// Frees a raw row block when the test leaves scope.
struct RowGuard
{
    const Table *table;
    unsigned char *row;
    ~RowGuard() { table->freeRow(row); }
};

template <typename F> QString thrownText(F f)
{
    try {
        f();
    } catch (const QString &message) {
        return message;
    }
    return QString();
}

} // namespace

class tst_Spine : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void stringCells_data();
    void stringCells();
    void layout_data();
    void layout();
    void addColumnRefusals();
    void rowPrimitives();
    void columnRecord();
    void checksum64();
};

void tst_Spine::stringCells_data()
{
    QTest::addColumn<QString>("written");
    QTest::addColumn<QString>("read");
    QTest::newRow("cut") << QStringLiteral("abcdef") << QStringLiteral("abcd");
    QTest::newRow("exact fill, no terminator") << QStringLiteral("wxyz") << QStringLiteral("wxyz");
    QTest::newRow("short") << QStringLiteral("ab") << QStringLiteral("ab");
    QTest::newRow("empty") << QString() << QString(QLatin1String(""));
}

void tst_Spine::stringCells()
{
    QFETCH(QString, written);
    QFETCH(QString, read);
    // A guard unit after the cell catches writes past its end; the rest is
    // zero-filled.
    for (const bool fromUnits : { false, true }) {
        ushort cell[5] = { 1, 1, 1, 1, 0xBEEF };
        if (fromUnits)
            FieldType::setString(cell, 4, written.utf16(), written.size());
        else
            FieldType::setString(cell, 4, written);
        QCOMPARE(cell[4], ushort(0xBEEF));
        for (int i = written.size(); i < 4; ++i)
            QCOMPARE(cell[i], ushort(0));
        const QString got = FieldType::getString(cell, 4);
        QCOMPARE(got, read);
        QVERIFY(!got.isNull());
        QCOMPARE(FieldType::getSharedString(cell, 4), read);
    }
    // Reading stops at the first zero; the shared string reads the cell in place.
    const ushort cell[4] = { 'a', 0, 'c', 'd' };
    QCOMPARE(FieldType::getString(cell, 4), QStringLiteral("a"));
    QCOMPARE(FieldType::getSharedString(cell, 4).constData(),
             reinterpret_cast<const QChar *>(cell));
}

void tst_Spine::layout_data()
{
    QTest::addColumn<QVector<int>>("types");
    QTest::addColumn<QVector<int>>("offsets");
    QTest::addColumn<int>("rowLength");
    QTest::addColumn<int>("unaligned");
    QTest::addColumn<int>("rowSize");
    QTest::addColumn<QByteArray>("freshFlags");
    QTest::newRow("no columns") << QVector<int>() << QVector<int>() << 0 << 0 << 16 << QByteArray();
    QTest::newRow("int, varchar[3], double")
        << QVector<int> { FieldType::Integer, FieldType::VarChar, FieldType::Double }
        << QVector<int> { 0, 8, 16 } << 24 << 18 << 41 << QByteArray(1, 2);
    QTest::newRow("boardlist pads to 408")
        << QVector<int> { FieldType::BoardList, FieldType::Integer } << QVector<int> { 0, 408 }
        << 416 << 408 << 16 + 416 + 1 << QByteArray(1, 2);
    QTest::newRow("int64, decimal, datetime")
        << QVector<int> { FieldType::Integer64, FieldType::Decimal, FieldType::DateTime }
        << QVector<int> { 0, 8, 16 } << 24 << 24 << 41 << QByteArray(1, 2);
    // The ninth column opens a second flag byte.
    QTest::newRow("nine integers")
        << QVector<int>(9, FieldType::Integer) << QVector<int> { 0, 8, 16, 24, 32, 40, 48, 56, 64 }
        << 72 << 36 << 16 + 72 + 2 << QByteArray("\xAA\x01", 2);
}

void tst_Spine::layout()
{
    QFETCH(QVector<int>, types);
    QFETCH(QVector<int>, offsets);
    QFETCH(int, rowLength);
    // Odd columns and those past the eighth are not nullable: a fresh row has
    // them present.
    Table table(QStringLiteral("T"));
    for (int i = 0; i < types.size(); ++i)
        table.addColumn(QStringLiteral("c%1").arg(i), FieldType::Type(types[i]),
                        types[i] == FieldType::VarChar ? 3 : 0, i % 2 == 0 && i < 8);
    QTEST(table.rowLength(), "rowLength");
    QTEST(table.rowLengthUnaligned(), "unaligned");
    QTEST(table.rowSize(), "rowSize");
    RowGuard row { &table, table.allocRow() };
    QTEST(QByteArray(reinterpret_cast<const char *>(row.row) + 16 + rowLength,
                     table.rowSize() - 16 - rowLength),
          "freshFlags");
    for (int i = 0; i < types.size(); ++i) {
        const TableColumnDef *def = table.columnDef(i);
        QCOMPARE(def->offset, qint64(offsets[i]));
        QCOMPARE(def->index, i);
        QCOMPARE(table.dataPtr(row.row, i).isNull(), def->nullable);
    }
}

void tst_Spine::addColumnRefusals()
{
    Table table(QStringLiteral("quotes"));
    table.addColumn(QStringLiteral("price"), FieldType::Double);
    const int size = table.rowSize();
    QCOMPARE(thrownText([&] { table.addColumn(QString(), FieldType::Integer); }),
             QStringLiteral("Column name can't be empty."));
    QCOMPARE(thrownText([&] { table.addColumn(QStringLiteral("Price"), FieldType::Integer); }),
             QStringLiteral("Column 'Price' already exists for table 'quotes'."));
    QCOMPARE(thrownText([&] { table.addColumn(QStringLiteral("s"), FieldType::VarChar, 0); }),
             QStringLiteral("Length of string can't be zero"));
    QCOMPARE(thrownText([&] { table.addColumn(QStringLiteral("x"), FieldType::Invalid); }),
             QStringLiteral("Type is undefined."));
    QCOMPARE(thrownText([&] { table.addColumn(QStringLiteral("s"), FieldType::VarChar, -4); }),
             QStringLiteral("Length of string -4 is negative."));
    QCOMPARE(thrownText([&] { table.addColumn(QStringLiteral("s"), FieldType::VarChar, 1 << 30); }),
             QStringLiteral("Length of string 1073741824 exceeds 32767."));
    // A batch is refused whole: a name given twice, a row past MaxRowSize.
    TableColumnDef a, b;
    a.name = QStringLiteral("a");
    a.type = FieldType::Integer;
    b = a;
    b.name = QStringLiteral("A");
    QCOMPARE(thrownText([&] {
                 table.addColumns({ a, b });
             }),
             QStringLiteral("Column 'A' already exists for table 'quotes'."));
    QList<TableColumnDef> wide;
    for (int i = 0; i < 40000; ++i) {
        b.name = QString::number(i);
        b.type = FieldType::VarChar;
        b.length = FieldType::MaxStringLength;
        wide.append(b);
    }
    QVERIFY(thrownText([&] { table.addColumns(wide); }).startsWith("Rows of table 'quotes'"));
    // Refusals leave the table as it was.
    QCOMPARE(table.columns(), QStringList { QStringLiteral("price") });
    QCOMPARE(table.rowSize(), size);
    QCOMPARE(table.columnIndex(QStringLiteral("PRICE")), 0);
}

// Clones and content copies start with a zero reference count; a column range
// copies its cells but every presence flag.
void tst_Spine::rowPrimitives()
{
    Table table(QStringLiteral("T"));
    table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
    table.addColumn(QStringLiteral("name"), FieldType::VarChar, 5);
    table.addColumn(QStringLiteral("qty"), FieldType::Integer64);
    RowGuard a { &table, table.allocRow() };
    QCOMPARE(quintptr(a.row) % 8, quintptr(0));
    table.dataPtr(a.row, 1) = QStringLiteral("abc");
    table.dataPtr(a.row, 2).set<qint64>(7);
    std::memset(a.row, 0x7F, 4); // a reference count the copies must not inherit

    RowGuard b { &table, table.cloneRow(a.row) };
    QCOMPARE(std::memcmp(a.row + 4, b.row + 4, size_t(table.rowSize() - 4)), 0);
    QCOMPARE(*reinterpret_cast<int *>(b.row), 0);

    RowGuard c { &table, table.allocRow() };
    table.copyRowContent(c.row, a.row, 1, 1);
    QCOMPARE(table.dataPtr(c.row, 1).toString(), QStringLiteral("abc"));
    QCOMPARE(table.dataPtr(c.row, 2).get<qint64>(), qint64(0));
    QVERIFY(!table.dataPtr(c.row, 2).isNull());
    table.copyRowContent(c.row, a.row);
    QCOMPARE(table.dataPtr(c.row, 2).get<qint64>(), qint64(7));
    QCOMPARE(*reinterpret_cast<int *>(c.row), 0);
}

void tst_Spine::columnRecord()
{
    auto recordOf = [](const TableColumnDef &column) {
        QByteArray bytes;
        QDataStream out(&bytes, QIODevice::WriteOnly);
        column.write(out);
        return bytes;
    };
    TableColumnDef def;
    def.name = QStringLiteral("price");
    def.title = QStringLiteral("Цена");
    def.description = QStringLiteral("last trade");
    def.type = FieldType::Decimal;
    def.length = 4;
    def.size = 8;
    def.nullable = def.auxFlag = false;
    const QByteArray bytes = recordOf(def);
    // name, title, description, then length (4), type (1), size (4), two bools.
    QCOMPARE(bytes.right(11).toHex(), QByteArray("0000000404000000080000"));
    TableColumnDef back;
    back.offset = 99; // not part of the record
    QDataStream in(bytes);
    back.read(in);
    QCOMPARE(recordOf(back), bytes);
    QCOMPARE(back.offset, qint64(99));
}

void tst_Spine::checksum64()
{
    QCOMPARE(qChecksum64("123456789", 9), Q_UINT64_C(0x62EC59E3F1A4F00A));
    QCOMPARE(qChecksum64("", 0), quint64(0));
}

QTEST_GUILESS_MAIN(tst_Spine)
#include "tst_spine.moc"
