// The ground every table stands on: column definitions, row layout, the CRC-64
// helper, cell access (text forms and conversion errors of Field, detached
// values, date-time and board-list values), and the fixed-point decimal: text
// grammar and messages, ordering, rescaling, locale forms and variants. Decimal
// edges are hand-picked here; bulk results come from Python's decimal module
// (tests/gen_decimal_cases.py), and random input is the fuzz target's job.

#include <database/database.h>

#include <QDataStream>
#include <QFile>
#include <QtTest>

#include <cmath>
#include <cstring>
#include <ctime>

namespace {

// Frees a raw row block when the test leaves scope.
struct RowGuard
{
    const Table *table;
    unsigned char *row;
    ~RowGuard() { table->freeRow(row); }
};

// The message of what a call throws (Exception, QString or a C string), or a
// null string.
template <typename F> QString thrownText(F f)
{
    try {
        f();
    } catch (const Exception &e) {
        return e.message;
    } catch (const QString &message) {
        return message;
    } catch (const char *message) {
        return QString::fromLatin1(message);
    }
    return QString();
}

QString parseMessage(const QString &text)
{
    return QStringLiteral("Невозможно создать decimal по строке '%1'").arg(text);
}

// Switches the process's time zone for one scope.
struct TimeZone
{
    explicit TimeZone(const QByteArray &tz) { set(tz); }
    ~TimeZone() { set(previous); }
    static void set(const QByteArray &tz)
    {
        qputenv("TZ", tz);
        tzset();
    }
    const QByteArray previous = qgetenv("TZ");
};

boardlist boards(std::initializer_list<std::pair<int, int>> pairs)
{
    boardlist list;
    for (const auto &p : pairs)
        list.add(p.first, p.second);
    return list;
}

} // namespace

Q_DECLARE_METATYPE(FieldType::Type)

class tst_Spine : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void stringCells_data();
    void stringCells();
    void layout_data();
    void layout();
    void addColumnRefusals();
    void checksum64();
    void assignAndPrint_data();
    void assignAndPrint();
    void dateTimeInAnyZone_data();
    void dateTimeInAnyZone();
    void otherViews();
    void detachedValues();
    void constValues();
    void boardLists();
    void decimalParse_data();
    void decimalParse();
    void decimalReferenceCases();
    void decimalTextReadsBack();
    void decimalLayoutAndOrder();
    void decimalRounding();
    void decimalLocaleParse_data();
    void decimalLocaleParse();
    void decimalLocaleForms();
    void decimalVariants();
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

void tst_Spine::checksum64()
{
    QCOMPARE(qChecksum64("123456789", 9), Q_UINT64_C(0x62EC59E3F1A4F00A));
    QCOMPARE(qChecksum64("", 0), quint64(0));
}

void tst_Spine::assignAndPrint_data()
{
    QTest::addColumn<FieldType::Type>("type");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("printed"); // toString after the assignment
    QTest::addColumn<QString>("error");

    const auto row = [](const char *name, FieldType::Type type, const char *text,
                        const char *printed, const QString &error = QString()) {
        QTest::newRow(name) << type << text << printed << error;
    };
    const auto bad = [&](const char *name, FieldType::Type type, const char *text) {
        row(name, type, text, nullptr,
            QStringLiteral("Can't convert from '%1'' to %2").arg(text, FieldType::typeName(type)));
    };
    using T = FieldType;
    row("integer", T::Integer, "-42", "-42");
    bad("integer, bad", T::Integer, "12a");
    bad("integer, too big", T::Integer, "2147483648");
    row("integer64", T::Integer64, "9223372036854775807", "9223372036854775807");
    row("double, exponent", T::Double, "1e21", "1e+21");
    bad("double, bad", T::Double, "1,5");
    row("decimal", T::Decimal, "-12.50", "-12.50");
    row("decimal, bad", T::Decimal, "1,5", nullptr, "Невозможно создать decimal по строке '1,5'");
    row("varchar cut", T::VarChar, "abcdef", "abcd");
    row("datetime", T::DateTime, "2015.03.01 10:20:30.456", "2015.03.01 10:20:30.456");
    row("datetime, dashes", T::DateTime, "2015-03-01 10:20:30", "2015.03.01 10:20:30.000");
    row("date only", T::DateTime, "2015.03.01", "2015.03.01 00:00:00.000");
    row("datetime, unreadable is null", T::DateTime, "soon", nullptr);
    row("boardlist", T::BoardList, "1:2", nullptr, "Can't convert from VarChar to BoardList");
}

void tst_Spine::assignAndPrint()
{
    QFETCH(FieldType::Type, type);
    QFETCH(QString, text);
    QFETCH(QString, printed);
    QFETCH(QString, error);

    FieldValue value(type, 4); // the length of the text and decimal cells
    QCOMPARE(value.toString(), QString()); // null prints as a null string, not "0"
    QCOMPARE(thrownText([&] { value.field() = text; }), error);
    QCOMPARE(value.isNull(), !error.isEmpty()); // a failed assignment leaves the cell
    QCOMPARE(value.toString(), printed);
    QCOMPARE(value.toString().isNull(), printed.isNull());
    if (error.isEmpty()) {
        FieldValue copy(type, 4);
        copy.fromText(value.toText());
        QCOMPARE(copy.toText(), value.toText());
    }
    // An empty text makes any value null, the board list included.
    value.fromText(QString());
    QVERIFY(value.isNull());
}

// The zone rules are POSIX strings, so they hold without a zone database.
void tst_Spine::dateTimeInAnyZone_data()
{
    QTest::addColumn<QByteArray>("tz");
    for (const char *tz : { "UTC0", "MSK-3", "EST5EDT,M3.2.0,M11.1.0", "CET-1CEST,M3.5.0,M10.5.0/3",
                            "NPT-5:45", "LINT-14" })
        QTest::newRow(tz) << QByteArray(tz);
}

void tst_Spine::dateTimeInAnyZone()
{
    QFETCH(QByteArray, tz);
    const TimeZone zone(tz);

    QCOMPARE(datetime(1).toString(), QStringLiteral("1970.01.01 00:00:00.001"));
    QCOMPARE(datetime(-1).toString(), QStringLiteral("1969.12.31 23:59:59.999"));
    QCOMPARE(datetime().toString(), QString());
    // The whole 64-bit range is a calendar date (and no overflow on the way).
    QCOMPARE(datetime(std::numeric_limits<qint64>::max()).toString(),
             QStringLiteral("292278994.08.17 07:12:55.807"));
    QVERIFY(!datetime(std::numeric_limits<qint64>::min()).toString().isEmpty());

    FieldValue value(FieldType::DateTime, 0);
    // 02:30 on the spring-forward night does not exist in local time in
    // central Europe, but it does in UTC.
    value.field() = QStringLiteral("2015.03.29 02:30:00.000");
    QCOMPARE(value.toString(), QStringLiteral("2015.03.29 02:30:00.000"));
    const QDateTime asVariant = value.toVariant().toDateTime();
    QCOMPARE(asVariant.timeSpec(), Qt::UTC);
    QCOMPARE(asVariant.toMSecsSinceEpoch(), Q_INT64_C(1427596200000));
    QVERIFY(value.toSystemString().endsWith(QLatin1String(" 02:30:00.000")));
    QCOMPARE(datetime(1427596200000).toLocaleString(QLocale(QStringLiteral("ru_RU"))),
             QStringLiteral("29.03.2015 02:30:00.000"));
}

// The views besides the text form: variants, characters, board-list texts.
void tst_Spine::otherViews()
{
    FieldValue integer(FieldType::Integer, 0);
    integer.set(qint32(1234567));
    QCOMPARE(integer.toVariant(), QVariant(1234567));
    FieldValue one(FieldType::VarChar, 1), two(FieldType::VarChar, 2);
    one.field() = QStringLiteral("xyz");
    two.field() = QStringLiteral("xy");
    QCOMPARE(one.asChar(), QChar('x'));
    QCOMPARE(thrownText([&] { two.toChar(); }), "String length is not 1 for QChar: 2.");

    FieldValue number(FieldType::Decimal, 2);
    number.set(decimal("1.50"));
    QCOMPARE(number.toVariant().value<decimal>().toString(), QStringLiteral("1.50"));

    FieldValue board(FieldType::BoardList, 0);
    board.set(boards({ { 2, 7 }, { 1, 5 } }));
    QCOMPARE(board.toString(), QStringLiteral("[BoardList]"));
    QCOMPARE(board.toSystemString(), QStringLiteral("1:5 2:7"));
    QCOMPARE(board.toVariant(), QVariant(QStringLiteral("1:5 2:7")));
    QCOMPARE(thrownText([&] { FieldValue().fromText(QStringLiteral("x")); }),
             "Can't convert from VarChar to Undefined");
}

// FieldValue owns its cell and its column definition: copies never share them.
void tst_Spine::detachedValues()
{
    FieldValue original(FieldType::Integer, 0);
    original.set(qint32(5));
    FieldValue copy = original;
    QVERIFY(copy.data != original.data && copy.def != original.def);
    copy.set(qint32(6));
    QCOMPARE(original.toString(), QStringLiteral("5"));
    copy = original;
    copy = copy.field(); // from a view of its own buffer
    QCOMPARE(copy.toString(), QStringLiteral("5"));

    QTest::ignoreMessage(QtWarningMsg, "FieldValue::init: null column definition");
    copy.init(nullptr);
    QCOMPARE(copy.type(), FieldType::Invalid);

    // Made from a table's column or cell, a value keeps no pointer to the table.
    Table table(QStringLiteral("quotes"));
    table.addColumn(QStringLiteral("price"), FieldType::Decimal, 4, false);
    table.addColumn(QStringLiteral("name"), FieldType::VarChar, 8);
    Record row(&table);
    Field price = row.data(QStringLiteral("price"));
    price = QStringLiteral("10.25");
    const FieldValue byName(&table, QStringLiteral("NAME"));
    QCOMPARE(byName.columnDef().length, 8);
    const FieldValue copied(price);
    QCOMPARE(copied.toText(), QStringLiteral("10.25"));
    QVERIFY(!byName.columnDef().table && !copied.columnDef().table);
    QTest::ignoreMessage(QtWarningMsg, "FieldValue: no column -1 in table quotes");
    QCOMPARE(FieldValue(&table, QStringLiteral("volume")).type(), FieldType::Invalid);
}

void tst_Spine::constValues()
{
    QVERIFY(FieldConstValue().isNull());

    // Each constructor picks its type; fromValue gives back an equal constant.
    const auto check = [](const FieldConstValue &value, FieldType::Type type, const char *text) {
        const FieldConstValue back = FieldConstValue::fromValue(value);
        QCOMPARE(value.type(), type);
        QCOMPARE(back.type(), type);
        QCOMPARE(back.toText(), QString::fromUtf8(text));
    };
    using T = FieldType;
    check(FieldConstValue(1LL << 40), T::Integer64, "1099511627776");
    check(FieldConstValue(decimal("-1.50")), T::Decimal, "-1.50");
    check(FieldConstValue(datetime(1)), T::DateTime, "1970.01.01 00:00:00.001");
    check(FieldConstValue(QChar('z')), T::VarChar, "z");
    check(FieldConstValue("caf\xe9"), T::VarChar, "café"); // a C string is Latin-1
    FieldValue board(FieldType::BoardList, 0); // no constant of a board list
    board.set(boardlist());
    QVERIFY(FieldConstValue::fromValue(board).isNull());
}

void tst_Spine::boardLists()
{
    QCOMPARE(boards({ { 2, 7 }, { 1, 5 }, { 2, 3 } }).toString(), QStringLiteral("1:5 2:3,7"));
    // Text order, not numeric order.
    QCOMPARE(boards({ { 9, 1 }, { 10, 2 }, { 1, 10 }, { 1, 9 } }).toString(),
             QStringLiteral("10:2 1:10,9 9:1"));

    boardlist list;
    for (int i = 0; i < boardlist::Capacity; ++i)
        QVERIFY(list.add(i, -i));
    QVERIFY(!list.add(99, 99));
    QVERIFY(list.contains(49, -49));

    // A count read from a damaged row never reaches past the pairs.
    for (qint32 count : { -5, 1000 }) {
        boardlist damaged = boards({ { 1, 2 } });
        std::memcpy(static_cast<void *>(&damaged), &count, sizeof(count));
        QCOMPARE(damaged.size(), count < 0 ? 0 : boardlist::Capacity);
        QVERIFY(!damaged.add(3, 4) || count < 0);
        damaged.toString();
    }
}

// The packed word, and order by value whatever the scales.
void tst_Spine::decimalLayoutAndOrder()
{
    const decimal d(-5, 1);
    QCOMPARE(d.raw() >> 63, quint64(1));
    QCOMPARE((d.raw() >> 56) & 0x7f, quint64(1));
    QCOMPARE(d.raw() & ((quint64(1) << 56) - 1), (quint64(1) << 56) - 5);
    QCOMPARE(decimal::fromRaw(decimal(-72057594037927935, 0).raw()).mantissa(),
             Q_INT64_C(-72057594037927935));
    // Out-of-range mantissas are brought in range the way integer texts are.
    QCOMPARE(decimal(std::numeric_limits<qint64>::min(), 0).toString(),
             QStringLiteral("-9223372036854775000"));

    QCOMPARE(decimal(0, 5).compare(decimal(0, -5)), 0);
    // Decided by the 17-digit shortcut, and just inside it.
    QCOMPARE(decimal(1, 0).compare(decimal(5, 17)), 1);
    QCOMPARE(decimal(-1, 0).compare(decimal(-5, 17)), -1);
    QCOMPARE(decimal(1, 0).compare(decimal(Q_INT64_C(72057594037927935), 16)), -1);
    QCOMPARE(decimal(Q_INT64_C(72057594037927935), -64).compare(decimal(1, 63)), 1);
    QCOMPARE(qHash(decimal("1.5")), qHash(decimal("1.500")));
}

void tst_Spine::decimalParse_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<qint64>("mantissa");
    QTest::addColumn<int>("scale");
    QTest::addColumn<QString>("error"); // the message, or empty when it parses

    const auto ok = [](const char *name, const QString &text, qint64 m, int s) {
        QTest::newRow(name) << text << m << s << QString();
    };
    const auto bad = [](const char *name, const QString &text, const QString &detail) {
        QTest::newRow(name) << text << qint64(0) << 0
                            << (detail.isNull() ? parseMessage(text)
                                                : parseMessage(text) + " (" + detail + ")");
    };
    ok("negative zero", "-0", 0, 0);
    ok("largest mantissa", "72057594037927935", Q_INT64_C(72057594037927935), 0);
    ok("integer past the mantissa", "72057594037927936", Q_INT64_C(7205759403792793), -1);
    ok("smallest int64", "-9223372036854775808", Q_INT64_C(-9223372036854775), -3);
    ok("leading zeros", "0000000000000000000000042", 42, 0);
    ok("scale at the bottom", "1e64", 1, -64);
    ok("scale at the top", "1e-63", 1, 63);

    for (const char *text :
         { "",    "-",  "+",  ".",    "1,5", "abc", "1.2.3", "1E3", " 1",   "1 ",
           "12a", "1.", "e5", ".5e3", "1e",  "1e+", "1.5e",  "--1", "0x10", "١٢" })
        bad(text, QString::fromUtf8(text), QString());
    bad("whole number past scale -64", "1" + QString(82, '0'), "1" + QString(82, '0'));
    bad("fraction past the mantissa", "0.72057594037927936", "072057594037927936");
    bad("overlong fraction", "1." + QString(300, '1'), "1" + QString(300, '1'));
    bad("scale past the top", "0." + QString(64, '0'), QString(64, '0'));
    bad("exponent past the bottom", "1e65", "65");
    bad("exponent past the top", "1e-64", "-64");
    bad("exponent past int", "1e99999999999", "99999999999");
    bad("a %2 in the text stays", "1%2", QString());
}

void tst_Spine::decimalParse()
{
    QFETCH(QString, text);
    QFETCH(QString, error);

    QCOMPARE(thrownText([&] { decimal::fromString(text); }), error);
    QCOMPARE(decimal::canConvert(text), error.isEmpty());
    if (error.isEmpty()) {
        const decimal d(text);
        QTEST(d.mantissa(), "mantissa");
        QTEST(d.scale(), "scale");
    }
}

// Every text toString() makes reads back to an equal value, also the whole
// numbers above 2^63 that negative scales make.
void tst_Spine::decimalTextReadsBack()
{
    const qint64 big = decimal::MantissaLimit - 1;
    for (qint64 mantissa : { qint64(1), qint64(-7), big, -big, qint64(123456789) })
        for (int scale = decimal::MinScale; scale <= decimal::MaxScale; ++scale) {
            const decimal value(mantissa, scale);
            const decimal back = decimal::fromString(value.toString());
            QVERIFY2(back.compare(value) == 0, qPrintable(value.toString()));
        }
}

// Each line of the reference file is one case; its layout is described in
// gen_decimal_cases.py.
void tst_Spine::decimalReferenceCases()
{
    QFile file(QStringLiteral(TESTDATA_DIR "/decimal_cases.txt"));
    QVERIFY2(file.open(QIODevice::ReadOnly | QIODevice::Text), qPrintable(file.fileName()));
    const auto refused = [](const QString &text) {
        return thrownText([&] { decimal::fromString(text); }).startsWith(parseMessage(text));
    };
    int checked = 0;
    for (; !file.atEnd(); ++checked) {
        const QByteArray line = file.readLine().trimmed();
        const QStringList f = QString::fromUtf8(line).split(QLatin1Char('\t'));
        const auto n = [&](int i) { return f.at(i).toLongLong(); };
        const auto d = [&](int i) { return decimal(n(i), int(n(i + 1))); };
        const auto is = [&](const decimal &v, int i) {
            return v.mantissa() == n(i) && v.scale() == n(i + 1);
        };
        const char kind = line.at(0);
        const bool ok = kind == 'P' ? is(decimal::fromString(f.at(1)), 2)
            : kind == 'E'           ? refused(f.at(1))
            : kind == 'C'           ? d(1).compare(d(3)) == n(5) && d(3).compare(d(1)) == -n(5)
            : kind == 'S'           ? is(d(1).withScale(int(n(3))), 4)
                                    : kind == 'T' && d(1).toString() == f.at(3);
        QVERIFY2(ok, line.constData());
    }
    QVERIFY(checked > 4000);
}

// Rescaling and conversion from double round halves away from zero.
void tst_Spine::decimalRounding()
{
    // Rescaling results are among the reference cases. A raise stops where the mantissa would leave
    // its range.
    QCOMPARE(decimal("72057594037927.93").withScale(10).scale(), 3);
    QTest::ignoreMessage(QtWarningMsg, "decimal::setScale: scale 100 is outside -64..63");
    QCOMPARE(decimal(1, 0).withScale(100).scale(), 16);

    const auto text = [](double value, int scale) {
        return decimal::fromDouble(value, qint16(scale)).toString();
    };
    QCOMPARE(text(2.5, 0), QStringLiteral("3"));
    QCOMPARE(text(-2.5, 0), QStringLiteral("-3"));
    QCOMPARE(text(1.005001, 2), QStringLiteral("1.01"));
    QCOMPARE(text(12345.0, -2), QStringLiteral("12300"));
    QCOMPARE(text(7.2e16, 0), QStringLiteral("72000000000000000"));
    const std::pair<double, int> overflows[]
        = { { 1e17, 0 }, { -1e17, 0 }, { 1.0, 17 }, { std::nan(""), 0 }, { HUGE_VAL, 0 } };
    for (const auto &[value, scale] : overflows)
        QCOMPARE(thrownText([&] { text(value, scale); }), "decimal:overflow");
}

void tst_Spine::decimalLocaleParse_data()
{
    QTest::addColumn<QString>("locale");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("scale");
    QTest::addColumn<QString>("result"); // toString, or null when refused

    const auto row = [](const char *locale, const QString &text, const char *result,
                        int scale = decimal::TextScale) {
        QTest::addRow("%s '%s'", locale, qPrintable(text)) << locale << text << scale << result;
    };
    const QString nbsp(QChar(0x00a0)), narrowNbsp(QChar(0x202f));
    row("ru_RU", "1 234,50", "1234.50");
    row("ru_RU", "1" + nbsp + "234" + nbsp + "567,5", "1234567.5");
    row("ru_RU", "-1" + narrowNbsp + "234,5", "-1234.5");
    row("ru_RU", "1.5", "1.5");
    row("ru_RU", "1,234", "1.234"); // one comma: the decimal point here...
    row("en_US", "1,234", "1234"); // ...but groups three digits here
    row("en_US", "1,5", "1.5");
    row("en_US", " -1,234,567.25 ", "-1234567.25");
    row("de_DE", "1,234.5", "1234.5"); // both: the last one is the point
    row("de_CH", "1'234.5", "1234.5");
    row("en_US", "1,5E3", "1500");
    row("ru_RU", QString(QChar(0x2212)) + "5", "-5");
    row("ru_RU", "1,555", "1.56", 2);
    for (const char *text : { "12,34,567", "1.234 5", "1.2,3.4" })
        row("en_US", text, nullptr);
    for (const char *text : { "1 2", "", "12р", "," })
        row("ru_RU", text, nullptr);
}

void tst_Spine::decimalLocaleParse()
{
    QFETCH(QString, locale);
    QFETCH(QString, text);
    QFETCH(int, scale);
    QFETCH(QString, result);
    const auto parse = [&] { return decimal::fromLocaleString(text, QLocale(locale), scale); };
    if (result.isNull())
        QCOMPARE(thrownText([&] { parse(); }), parseMessage(text));
    else
        QCOMPARE(parse().toString(), result);
}

void tst_Spine::decimalLocaleForms()
{
    const QLocale ru(QStringLiteral("ru_RU")), en(QStringLiteral("en_US"));
    const decimal d("-1234567.50");
    const QString g = ru.groupSeparator();
    QCOMPARE(d.toLocaleString(ru), "-1" + g + "234" + g + "567,50");
    QCOMPARE(d.toLocaleStringShort(ru), "-1" + g + "234" + g + "567,5");
    QCOMPARE(d.toExcelString(ru), QStringLiteral("-1234567,50"));
    QCOMPARE(d.toLocaleString(en), QStringLiteral("-1,234,567.50"));
    QCOMPARE(decimal("3.000").toLocaleStringShort(en), QStringLiteral("3"));
    QCOMPARE(decimal("1e3").toLocaleString(en), QStringLiteral("1,000"));
    // Every locale form reads back as the same value.
    for (const char *text : { "0", "-0.001", "999.5", "1e5", "-72057594037927.935" }) {
        for (const QLocale &locale : { ru, en, QLocale(QStringLiteral("de_DE")) }) {
            const decimal v(QString::fromLatin1(text));
            QCOMPARE(decimal::fromLocaleString(v.toLocaleString(locale), locale), v);
            QCOMPARE(decimal::fromLocaleString(v.toLocaleStringShort(locale), locale), v);
            QCOMPARE(decimal::fromLocaleString(v.toExcelString(locale), locale), v);
        }
    }
}

// The library registers its value types with the meta-type system on load.
void tst_Spine::decimalVariants()
{
    const QVariant a = decimal("1.50").toVariant(), b = decimal("1.5").toVariant();
    QCOMPARE(QMetaType::typeName(decimal::metatypeId()), "decimal");
    QVERIFY(a == b);
    int order = 0;
    QVERIFY(QMetaType::compare(decimal("1.49").toVariant().constData(), b.constData(),
                               decimal::metatypeId(), &order));
    QCOMPARE(order, -1);
    QCOMPARE(a.toString(), QStringLiteral("1.50"));

    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out << a << QVariant::fromValue(datetime(1));
    QDataStream in(bytes);
    QVariant readBack, readDate;
    in >> readBack >> readDate;
    QCOMPARE(readBack.value<decimal>().toString(), QStringLiteral("1.50"));
    QCOMPARE(readDate.toString(), QStringLiteral("1970.01.01 00:00:00.001"));
    QVERIFY(QVariant::fromValue(datetime(1)) != QVariant::fromValue(datetime(2)));

    bool ok = false;
    QCOMPARE(decimal::fromVariant(QVariant(0.1)).toString(), QStringLiteral("0.1"));
    QCOMPARE(decimal::fromVariant(QVariant(qlonglong(-42))).toString(), QStringLiteral("-42"));
    QCOMPARE(decimal::fromVariant(QVariant(QStringLiteral("1,5")), &ok).toString(),
             QStringLiteral("1.5"));
    QVERIFY(ok);
    QCOMPARE(decimal::fromVariant(QVariant(true), &ok), decimal());
    QVERIFY(!ok);
    QVERIFY(!decimal::canConvert(QVariant(std::nan(""))));
    QVERIFY(decimal::canConvert(QVariant(7)));
}

QTEST_GUILESS_MAIN(tst_Spine)
#include "tst_spine.moc"
