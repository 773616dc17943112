// Cell types, column definitions, row layout and row primitives, exceptions
// and the CRC-64 helper: the ground every table stands on.

#include <database/database.h>

#include <QBuffer>
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
    void typeLength_data();
    void typeLength();
    void typeNames();
    void stringCells_data();
    void stringCells();
    void stringCellStopsAtZero();
    void layout_data();
    void layout();
    void flagAreaGrowsOnNinthColumn();
    void addColumnRefusals();
    void rowPrimitives();
    void copyRangeCopiesAllFlags();
    void columnRecordRoundTrip();
    void exceptionStack();
    void checksum64();
};

void tst_Spine::typeLength_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("length");
    QTest::addColumn<int>("size");
    QTest::addColumn<QString>("error");
    QTest::newRow("integer") << int(FieldType::Integer) << 0 << 4 << QString();
    QTest::newRow("integer64") << int(FieldType::Integer64) << 0 << 8 << QString();
    QTest::newRow("double") << int(FieldType::Double) << 0 << 8 << QString();
    QTest::newRow("decimal ignores length") << int(FieldType::Decimal) << 12 << 8 << QString();
    QTest::newRow("varchar") << int(FieldType::VarChar) << 32 << 64 << QString();
    QTest::newRow("datetime") << int(FieldType::DateTime) << 0 << 8 << QString();
    QTest::newRow("boardlist") << int(FieldType::BoardList) << 77 << 404 << QString();
    QTest::newRow("varchar zero") << int(FieldType::VarChar) << 0 << 0
                                  << QStringLiteral("Length of string can't be zero");
    QTest::newRow("invalid") << int(FieldType::Invalid) << 4 << 0
                             << QStringLiteral("Type is undefined.");
    QTest::newRow("unknown") << 8 << 4 << 0 << QStringLiteral("Type is undefined.");
}

void tst_Spine::typeLength()
{
    QFETCH(int, type);
    QFETCH(int, length);
    QFETCH(int, size);
    QFETCH(QString, error);
    int got = -1;
    QCOMPARE(thrownText([&] { got = FieldType::typeLength(type, length); }), error);
    if (error.isEmpty())
        QCOMPARE(got, size);
}

void tst_Spine::typeNames()
{
    const char *expected[] = { "Undefined", "Integer",  "Integer64", "Double",   "Decimal",
                               "VarChar",   "DateTime", "BoardList", "Undefined" };
    for (int type = 0; type <= 8; ++type)
        QCOMPARE(FieldType::typeName(type), expected[type]);
    QCOMPARE(FieldType::typeNameWithLength(FieldType::VarChar, 32), QStringLiteral("VarChar[32]"));
    QCOMPARE(FieldType::typeNameWithLength(FieldType::Decimal, 2), QStringLiteral("Decimal[2]"));
    QCOMPARE(FieldType::typeNameWithLength(FieldType::DateTime, 5), QStringLiteral("DateTime"));
    QVERIFY(FieldType::typeHasLength(FieldType::Decimal));
    QVERIFY(!FieldType::typeHasLength(FieldType::BoardList));
}

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
    // Guard units after the cell catch writes past its end.
    ushort cell[6];
    std::fill(std::begin(cell), std::end(cell), ushort(0xBEEF));
    FieldType::setString(cell, 4, written);
    QCOMPARE(cell[4], ushort(0xBEEF));
    for (int i = written.size(); i < 4; ++i)
        QCOMPARE(cell[i], ushort(0));
    const QString got = FieldType::getString(cell, 4);
    QCOMPARE(got, read);
    QVERIFY(!got.isNull());
    QCOMPARE(FieldType::getSharedString(cell, 4), read);

    std::fill(std::begin(cell), std::end(cell), ushort(0xBEEF));
    FieldType::setString(cell, 4, written.utf16(), written.size());
    QCOMPARE(FieldType::getString(cell, 4), read);
    QCOMPARE(cell[4], ushort(0xBEEF));
}

void tst_Spine::stringCellStopsAtZero()
{
    const ushort cell[4] = { 'a', 0, 'c', 'd' };
    QCOMPARE(FieldType::getString(cell, 4), QStringLiteral("a"));
    const QString shared = FieldType::getSharedString(cell, 4);
    QCOMPARE(shared.constData(), reinterpret_cast<const QChar *>(cell));
}

void tst_Spine::layout_data()
{
    QTest::addColumn<QList<int>>("types");
    QTest::addColumn<QList<int>>("offsets");
    QTest::addColumn<int>("rowLength");
    QTest::addColumn<int>("unaligned");
    QTest::addColumn<int>("rowSize");
    QTest::newRow("no columns") << QList<int>() << QList<int>() << 0 << 0 << 16;
    QTest::newRow("int, varchar[3], double")
        << QList<int> { FieldType::Integer, FieldType::VarChar, FieldType::Double }
        << QList<int> { 0, 8, 16 } << 24 << 18 << 41;
    QTest::newRow("boardlist pads to 408")
        << QList<int> { FieldType::BoardList, FieldType::Integer } << QList<int> { 0, 408 } << 416
        << 408 << 16 + 416 + 1;
}

void tst_Spine::layout()
{
    QFETCH(QList<int>, types);
    QFETCH(QList<int>, offsets);
    Table table(QStringLiteral("T"));
    for (int i = 0; i < types.size(); ++i)
        table.addColumn(QStringLiteral("c%1").arg(i), FieldType::Type(types[i]),
                        types[i] == FieldType::VarChar ? 3 : 0);
    for (int i = 0; i < types.size(); ++i) {
        QCOMPARE(table.columnDef(i)->offset, qint64(offsets[i]));
        QCOMPARE(table.columnDef(i)->index, i);
    }
    QTEST(table.rowLength(), "rowLength");
    QTEST(table.rowLengthUnaligned(), "unaligned");
    QTEST(table.rowSize(), "rowSize");
}

void tst_Spine::flagAreaGrowsOnNinthColumn()
{
    Table table(QStringLiteral("T"));
    for (int i = 0; i < 8; ++i)
        table.addColumn(QStringLiteral("c%1").arg(i), FieldType::Integer, 0, i % 2 == 0);
    QCOMPARE(table.rowSize(), 16 + 64 + 1);
    table.addColumn(QStringLiteral("c8"), FieldType::Integer, 0, false);
    QCOMPARE(table.rowSize(), 16 + 72 + 2);
    for (int i = 0; i < 9; ++i) {
        QCOMPARE(table.columnDef(i)->flagOffset, qint64(72 + i / 8));
        QCOMPARE(table.columnDef(i)->flagMask, quint8(1u << (i % 8)));
    }
    // A fresh row has exactly the non-nullable columns present: 1, 3, 5, 7, 8.
    RowGuard row { &table, table.allocRow() };
    QCOMPARE(row.row[16 + 72], quint8(0xAA));
    QCOMPARE(row.row[16 + 73], quint8(0x01));
    QVERIFY(table.dataPtr(row.row, 0).isNull());
    QVERIFY(!table.dataPtr(row.row, 8).isNull());
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
    // Refusals leave the table as it was.
    QCOMPARE(table.columnCount(), 1);
    QCOMPARE(table.rowSize(), size);
    QCOMPARE(table.columnIndex(QStringLiteral("s")), -1);
    QCOMPARE(table.columnIndex(QStringLiteral("PRICE")), 0);
    table.addColumn(QStringLiteral("qty"), FieldDef(FieldType::Integer, 0), true,
                    QStringLiteral("Quantity"), false, QStringLiteral("lots"));
    QCOMPARE(table.columnTitle(0), QStringLiteral("price"));
    QCOMPARE(table.columnTitle(1), QStringLiteral("Quantity"));
    QCOMPARE(table.columnTypeName(1), QStringLiteral("Integer"));
    QCOMPARE(table.columnDescription(1), QStringLiteral("lots"));
    QVERIFY(!table.columnDef(1)->auxFlag);
    QCOMPARE(table.columns(), (QStringList { QStringLiteral("price"), QStringLiteral("qty") }));
}

void tst_Spine::rowPrimitives()
{
    Table table(QStringLiteral("T"));
    table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
    table.addColumn(QStringLiteral("name"), FieldType::VarChar, 5);
    RowGuard a { &table, table.allocRow() };
    Table *owner = nullptr;
    std::memcpy(&owner, a.row + 8, sizeof(owner));
    QCOMPARE(owner, &table);
    QCOMPARE(quintptr(a.row) % 8, quintptr(0));

    Field id = table.dataPtr(a.row, 0);
    id.set<qint32>(42);
    Field name = table.dataPtr(a.row, 1);
    QVERIFY(name.isNull());
    FieldType::setString(name.data, 5, QStringLiteral("abc"));
    name.setPresent(true);
    std::memset(a.row, 0x7F, 4); // a reference count the clone must not inherit

    RowGuard b { &table, table.cloneRow(a.row) };
    QCOMPARE(std::memcmp(a.row + 4, b.row + 4, size_t(table.rowSize() - 4)), 0);
    QCOMPARE(*reinterpret_cast<int *>(b.row), 0);

    RowGuard c { &table, table.allocRow() };
    table.copyRowContent(c.row, a.row);
    QCOMPARE(table.dataPtr(c.row, 0).get<qint32>(), 42);
    QCOMPARE(table.dataPtr(c.row, 1).toString(), QStringLiteral("abc"));
    QCOMPARE(*reinterpret_cast<int *>(c.row), 0);
}

void tst_Spine::copyRangeCopiesAllFlags()
{
    Table table(QStringLiteral("T"));
    for (int i = 0; i < 3; ++i)
        table.addColumn(QStringLiteral("c%1").arg(i), FieldType::Integer64);
    RowGuard src { &table, table.allocRow() };
    RowGuard dst { &table, table.allocRow() };
    for (int i = 0; i < 3; ++i)
        table.dataPtr(src.row, i).set<qint64>(100 + i);
    table.copyRowContent(dst.row, src.row, 1, 1);
    QCOMPARE(table.dataPtr(dst.row, 1).get<qint64>(), qint64(101));
    // Cells outside the range stay zero, but every presence flag was copied.
    QCOMPARE(table.dataPtr(dst.row, 0).get<qint64>(), qint64(0));
    QCOMPARE(table.dataPtr(dst.row, 2).get<qint64>(), qint64(0));
    QVERIFY(!table.dataPtr(dst.row, 0).isNull());
    QVERIFY(!table.dataPtr(dst.row, 2).isNull());
    table.copyRowContent(dst.row, src.row, -1, -1);
    QCOMPARE(table.dataPtr(dst.row, 2).get<qint64>(), qint64(102));
}

void tst_Spine::columnRecordRoundTrip()
{
    TableColumnDef def;
    def.name = QStringLiteral("price");
    def.title = QStringLiteral("Цена");
    def.description = QStringLiteral("last trade");
    def.type = FieldType::Decimal;
    def.length = 4;
    def.size = 8;
    def.nullable = false;
    def.auxFlag = false;
    QByteArray bytes;
    {
        QDataStream out(&bytes, QIODevice::WriteOnly);
        def.write(out);
    }
    // name, title, description, then length (4), type (1), size (4), two bools.
    QCOMPARE(bytes.right(11).toHex(), QByteArray("0000000404000000080000"));
    TableColumnDef back;
    back.offset = 99;
    QDataStream in(bytes);
    back.read(in);
    QCOMPARE(back.name, def.name);
    QCOMPARE(back.title, def.title);
    QCOMPARE(back.description, def.description);
    QCOMPARE(back.type, def.type);
    QCOMPARE(back.length, 4);
    QCOMPARE(back.size, qint64(8));
    QVERIFY(!back.nullable && !back.auxFlag);
    QCOMPARE(back.offset, qint64(99));

    TableColumnDef bound(nullptr, def);
    QCOMPARE(bound.size, qint64(8));
    QCOMPARE(bound.offset, qint64(0));
    QCOMPARE(bound.name, def.name);
}

void tst_Spine::exceptionStack()
{
    QStringList stack;
    try {
        throw Exception(QStringLiteral("boom"));
    } catch (const Exception &e) {
        QCOMPARE(e.message, QStringLiteral("boom"));
        QVERIFY(!e.stack.isEmpty());
        stack = e.stack;
        // The copy shares the lines: no second capture.
        Exception copy(e);
        QCOMPARE(copy.stack, e.stack);
        for (const QString &line : copy.stack)
            QTest::ignoreMessage(QtDebugMsg,
                                 qPrintable(QLatin1Char('"') + line + QLatin1Char('"')));
        for (const QString &line : e.stack)
            QTest::ignoreMessage(QtDebugMsg,
                                 qPrintable(QLatin1Char('"') + line + QLatin1Char('"')));
    }
    QVERIFY(!stack.isEmpty());

    Exception empty(QStringLiteral("quiet"));
    empty.stack.clear(); // destroying it must log nothing
}

void tst_Spine::checksum64()
{
    QCOMPARE(qChecksum64("123456789", 9), Q_UINT64_C(0x62EC59E3F1A4F00A));
    QCOMPARE(qChecksum64("", 0), quint64(0));
    QVERIFY(qChecksum64("a", 1) != qChecksum64("b", 1));
}

QTEST_GUILESS_MAIN(tst_Spine)
#include "tst_spine.moc"
