// Cell access: text forms and conversion errors of Field, detached values
// (FieldValue, FieldConstValue), date-time and board-list values.

#include <database/database.h>

#include <QtTest>

#include <ctime>

namespace {

// The message of what a call throws (Exception or QString), or a null string.
template <typename F> QString thrownText(F f)
{
    try {
        f();
    } catch (const Exception &e) {
        return e.message;
    } catch (const QString &message) {
        return message;
    }
    return QString();
}

// Switches the process's time zone for one scope.
struct TimeZone
{
    explicit TimeZone(const QByteArray &tz)
        : previous(qgetenv("TZ"))
    {
        qputenv("TZ", tz);
        tzset();
    }
    ~TimeZone()
    {
        qputenv("TZ", previous);
        tzset();
    }
    QByteArray previous;
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

class tst_Field : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void assignAndPrint_data();
    void assignAndPrint();
    void dateTimeInAnyZone_data();
    void dateTimeInAnyZone();
    void otherViews();
    void chars();
    void valueLayoutAndCopies();
    void valueFromTable();
    void constValues();
    void boardLists();
    void debugStreamAndDump();
};

void tst_Field::initTestCase()
{
    // The zone rules below are POSIX strings, so they hold without a zone database.
    QVERIFY(QMetaType::type("decimal") != QMetaType::UnknownType);
}

void tst_Field::assignAndPrint_data()
{
    QTest::addColumn<FieldType::Type>("type");
    QTest::addColumn<int>("length");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("printed"); // toString after the assignment
    QTest::addColumn<QString>("error");

    using T = FieldType;
    const QString none;
    QTest::newRow("integer") << T::Integer << 0 << "-42"
                             << "-42" << none;
    QTest::newRow("integer, bad") << T::Integer << 0 << "12a" << QString()
                                  << "Can't convert from '12a'' to Integer";
    QTest::newRow("integer, too big") << T::Integer << 0 << "2147483648" << QString()
                                      << "Can't convert from '2147483648'' to Integer";
    QTest::newRow("integer64") << T::Integer64 << 0 << "9223372036854775807"
                               << "9223372036854775807" << none;
    QTest::newRow("integer64, bad")
        << T::Integer64 << 0 << "0x10" << QString() << "Can't convert from '0x10'' to Integer64";
    QTest::newRow("double") << T::Double << 0 << "0.1"
                            << "0.1" << none;
    QTest::newRow("double, exponent") << T::Double << 0 << "1e21"
                                      << "1e+21" << none;
    QTest::newRow("double, bad") << T::Double << 0 << "1,5" << QString()
                                 << "Can't convert from '1,5'' to Double";
    QTest::newRow("decimal") << T::Decimal << 4 << "-12.50"
                             << "-12.50" << none;
    QTest::newRow("decimal, bad") << T::Decimal << 4 << "1,5" << QString()
                                  << "Невозможно создать decimal по строке '1,5'";
    QTest::newRow("varchar cut") << T::VarChar << 4 << "abcdef"
                                 << "abcd" << none;
    QTest::newRow("varchar empty") << T::VarChar << 4 << ""
                                   << "" << none;
    QTest::newRow("datetime, first format") << T::DateTime << 0 << "2015.03.01 10:20:30.456"
                                            << "2015.03.01 10:20:30.456" << none;
    QTest::newRow("datetime, second format") << T::DateTime << 0 << "2015-03-01 10:20:30"
                                             << "2015.03.01 10:20:30.000" << none;
    QTest::newRow("datetime, date only") << T::DateTime << 0 << "2015.03.01"
                                         << "2015.03.01 00:00:00.000" << none;
    QTest::newRow("datetime, iso date") << T::DateTime << 0 << "2015-03-01"
                                        << "2015.03.01 00:00:00.000" << none;
    QTest::newRow("datetime, unreadable is null")
        << T::DateTime << 0 << "soon" << QString() << none;
    QTest::newRow("boardlist") << T::BoardList << 0 << "1:2" << QString()
                               << "Can't convert from VarChar to BoardList";
}

void tst_Field::assignAndPrint()
{
    QFETCH(FieldType::Type, type);
    QFETCH(int, length);
    QFETCH(QString, text);
    QFETCH(QString, printed);
    QFETCH(QString, error);

    FieldValue value(type, length);
    QVERIFY(value.isNull());
    QCOMPARE(value.toString(), QString()); // null prints as a null string, not "0"
    QCOMPARE(thrownText([&] { value.field() = text; }), error);
    QCOMPARE(value.isNull(), !error.isEmpty()); // a failed assignment leaves the cell
    QCOMPARE(value.toString(), printed);
    QCOMPARE(value.toString().isNull(), printed.isNull());
    if (error.isEmpty()) {
        FieldValue copy(type, length);
        copy.fromText(value.toText());
        QCOMPARE(copy.toText(), value.toText());
    }
    // An empty text makes any value null, the board list included.
    value.fromText(QString());
    QVERIFY(value.isNull());
}

void tst_Field::dateTimeInAnyZone_data()
{
    QTest::addColumn<QByteArray>("tz");
    QTest::newRow("utc") << QByteArray("UTC0");
    QTest::newRow("moscow") << QByteArray("MSK-3");
    QTest::newRow("new york, dst") << QByteArray("EST5EDT,M3.2.0,M11.1.0");
    QTest::newRow("central europe, dst") << QByteArray("CET-1CEST,M3.5.0,M10.5.0/3");
    QTest::newRow("kathmandu") << QByteArray("NPT-5:45");
    QTest::newRow("line islands") << QByteArray("LINT-14");
}

void tst_Field::dateTimeInAnyZone()
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
    QCOMPARE(value.get<qint64>(), Q_INT64_C(1427596200000));
    const QDateTime asVariant = value.toVariant().toDateTime();
    QCOMPARE(asVariant.timeSpec(), Qt::UTC);
    QCOMPARE(asVariant.toMSecsSinceEpoch(), Q_INT64_C(1427596200000));
    QVERIFY(value.toSystemString().endsWith(QLatin1String(" 02:30:00.000")));
    QCOMPARE(datetime(1427596200000).toLocaleString(QLocale(QStringLiteral("ru_RU"))),
             QStringLiteral("29.03.2015 02:30:00.000"));
}

void tst_Field::otherViews()
{
    FieldValue integer(FieldType::Integer, 0);
    integer.set(qint32(1234567));
    QCOMPARE(integer.toVariant(), QVariant(1234567));

    FieldValue number(FieldType::Decimal, 2);
    number.set(decimal("1.50"));
    QCOMPARE(number.toVariant().value<decimal>().toString(), QStringLiteral("1.50"));
    QCOMPARE(number.toVariant().toString(), QStringLiteral("1.50"));

    FieldValue board(FieldType::BoardList, 0);
    QCOMPARE(board.toVariant(), QVariant());
    board.set(boards({ { 2, 7 }, { 1, 5 } }));
    QCOMPARE(board.toString(), QStringLiteral("[BoardList]"));
    QCOMPARE(board.toSystemString(), QStringLiteral("1:5 2:7"));
    QCOMPARE(board.toVariant(), QVariant(QStringLiteral("1:5 2:7")));

    FieldValue text(FieldType::VarChar, 3);
    text.field() = QStringLiteral("ab");
    QCOMPARE(text.asSharedString(), QStringLiteral("ab"));
    QCOMPARE(text.toVariant(), QVariant(QStringLiteral("ab")));
    QCOMPARE(thrownText([&] { integer.asSharedString(); }), "Incorrect type of field.");

    // An Invalid value and a type outside the enumeration.
    const FieldValue invalid;
    QCOMPARE(invalid.toVariant(), QVariant());
    QCOMPARE(thrownText([&] { FieldValue(invalid).fromText(QStringLiteral("x")); }),
             "Can't convert from VarChar to Undefined");
    TableColumnDef odd;
    odd.type = FieldType::Type(9);
    quint64 cell = 0;
    unsigned char flag = 1;
    const Field unknown(&odd, reinterpret_cast<unsigned char *>(&cell), &flag, 1);
    QCOMPARE(thrownText([&] { unknown.toString(); }), "Incorrect type of field.");
    QCOMPARE(thrownText([&] { unknown.toSystemString(); }), "Incorrect type of field.");
    QCOMPARE(unknown.toVariant(), QVariant());
    QCOMPARE(unknown.typeName(), "undefined");
    QCOMPARE(thrownText([&] { Field::incompatibleType(FieldType::Decimal, FieldType::Double); }),
             "Can't convert from Double to Decimal");
}

void tst_Field::chars()
{
    FieldValue one(FieldType::VarChar, 1), empty(FieldType::VarChar, 0), two(FieldType::VarChar, 2),
        integer(FieldType::Integer, 0);
    // Null cells: toChar gives the null character whatever the type.
    QCOMPARE(integer.toChar(), QChar());
    QCOMPARE(thrownText([&] { integer.asChar(); }), "String is null for QChar");

    one.field() = QStringLiteral("xyz");
    empty.field() = QStringLiteral("x");
    two.field() = QStringLiteral("xy");
    integer.set(qint32(7));
    QCOMPARE(one.asChar(), QChar('x'));
    QCOMPARE(one.toChar(), QChar('x'));
    QCOMPARE(empty.toChar(), QChar());
    QCOMPARE(thrownText([&] { empty.asChar(); }), "String length is not 1 for QChar: 0.");
    QCOMPARE(thrownText([&] { two.toChar(); }), "String length is not 1 for QChar: 2.");
    QCOMPARE(thrownText([&] { integer.toChar(); }), "Incorrect type of field.");
}

void tst_Field::valueLayoutAndCopies()
{
    const FieldValue text(FieldType::VarChar, 5); // 10 bytes, rounded to 16
    QCOMPARE(text.flags - text.data, 16);
    QCOMPARE(text.mask, quint8(1));
    QCOMPARE(text.def, &text.columnDef());
    QCOMPARE(text.columnDef().table, nullptr);

    FieldValue original(FieldType::Integer, 0);
    original.set(qint32(5));
    FieldValue copy = original;
    QVERIFY(copy.data != original.data && copy.def != original.def);
    copy.set(qint32(6));
    QCOMPARE(original.toString(), QStringLiteral("5"));
    copy = original;
    QCOMPARE(copy.toString(), QStringLiteral("5"));
    // Assigning a value from a view of its own buffer keeps the content.
    copy = copy.field();
    QCOMPARE(copy.toString(), QStringLiteral("5"));

    copy.init(&text.columnDef());
    QCOMPARE(copy.type(), FieldType::VarChar);
    QVERIFY(copy.isNull());
    QTest::ignoreMessage(QtWarningMsg, "FieldValue::init: null column definition");
    copy.init(nullptr);
    QCOMPARE(copy.type(), FieldType::Invalid);
}

void tst_Field::valueFromTable()
{
    Table table(QStringLiteral("quotes"));
    table.addColumn(QStringLiteral("price"), FieldType::Decimal, 4, false);
    table.addColumn(QStringLiteral("name"), FieldType::VarChar, 8);
    Record row(&table);
    row.data(QStringLiteral("price")) = QStringLiteral("10.25");
    row.data(1) = QStringLiteral("SBER");

    const FieldValue byName(&table, QStringLiteral("NAME"));
    QCOMPARE(byName.type(), FieldType::VarChar);
    QCOMPARE(byName.columnDef().length, 8);
    QVERIFY(byName.isNull());
    const int price = 0;
    const FieldValue copied(row.data(price));
    QCOMPARE(copied.toText(), QStringLiteral("10.25"));
    QCOMPARE(copied.columnDef().name, QStringLiteral("price"));
    QCOMPARE(FieldValue(&table, 1).columnDef().table, nullptr);
    QTest::ignoreMessage(QtWarningMsg, "FieldValue: no column -1 in table quotes");
    QCOMPARE(FieldValue(&table, QStringLiteral("volume")).type(), FieldType::Invalid);
}

void tst_Field::constValues()
{
    QCOMPARE(FieldConstValue().type(), FieldType::Integer);
    QVERIFY(FieldConstValue().isNull());
    QCOMPARE(FieldConstValue(QChar('q')).columnDef().length, 1);
    QCOMPARE(FieldConstValue(QStringLiteral("abc")).toText(), QStringLiteral("abc"));
    QCOMPARE(FieldConstValue(QString()).toText(), QStringLiteral(""));
    QCOMPARE(FieldConstValue("caf\xe9").toText(), QStringLiteral("café"));
    QCOMPARE(FieldConstValue(static_cast<const char *>(nullptr)).columnDef().length, 0);
    QCOMPARE(FieldConstValue(decimal("0.5")).toText(), QStringLiteral("0.5"));
    QCOMPARE(FieldConstValue(datetime(1)).toText(), QStringLiteral("1970.01.01 00:00:00.001"));
    QCOMPARE(FieldConstValue(7).type(), FieldType::Integer);
    QCOMPARE(FieldConstValue(7LL).type(), FieldType::Integer64);
    QCOMPARE(FieldConstValue(0.25).toText(), QStringLiteral("0.25"));

    // fromValue gives back an equal constant of the field's type.
    const FieldConstValue samples[] = { FieldConstValue(-3),
                                        FieldConstValue(1LL << 40),
                                        FieldConstValue(2.5),
                                        FieldConstValue(decimal("-1.50")),
                                        FieldConstValue(datetime(86400000)),
                                        FieldConstValue(QChar('z')),
                                        FieldConstValue(QStringLiteral("long text")) };
    for (const FieldConstValue &sample : samples) {
        const FieldConstValue back = FieldConstValue::fromValue(sample);
        QCOMPARE(back.type(), sample.type());
        QCOMPARE(back.columnDef().length, sample.columnDef().length);
        QCOMPARE(back.toText(), sample.toText());
    }
    FieldValue board(FieldType::BoardList, 0);
    board.set(boardlist());
    QVERIFY(FieldConstValue::fromValue(board).isNull());
    QVERIFY(FieldConstValue::fromValue(FieldValue(FieldType::Double, 0)).isNull());
}

void tst_Field::boardLists()
{
    QCOMPARE(boards({ { 2, 7 }, { 1, 5 }, { 2, 3 } }).toString(), QStringLiteral("1:5 2:3,7"));
    // Text order, not numeric order.
    QCOMPARE(boards({ { 9, 1 }, { 10, 2 }, { 1, 10 }, { 1, 9 } }).toString(),
             QStringLiteral("10:2 1:10,9 9:1"));
    QCOMPARE(boardlist().toString(), QString());

    boardlist list;
    for (int i = 0; i < boardlist::Capacity; ++i)
        QVERIFY(list.add(i, -i));
    QVERIFY(!list.add(99, 99));
    QCOMPARE(list.size(), boardlist::Capacity);
    QVERIFY(list.contains(49, -49));
    QVERIFY(!list.contains(99, 99));
    list.clear();
    QVERIFY(list.isEmpty());
    QCOMPARE(list, boardlist());

    // A count read from a damaged row never reaches past the pairs.
    for (qint32 count : { -5, 1000 }) {
        boardlist damaged = boards({ { 1, 2 } });
        std::memcpy(static_cast<void *>(&damaged), &count, sizeof(count));
        QCOMPARE(damaged.size(), count < 0 ? 0 : boardlist::Capacity);
        QVERIFY(!damaged.add(3, 4) || count < 0);
        damaged.toString();
    }
}

void tst_Field::debugStreamAndDump()
{
    FieldValue integer(FieldType::Integer, 0);
    QTest::ignoreMessage(QtDebugMsg, "Field(Integer, null)");
    qDebug() << integer.field();
    integer.set(qint32(5));
    QTest::ignoreMessage(QtDebugMsg, "Field(Integer, 5)");
    qDebug() << integer.field();
    FieldValue board(FieldType::BoardList, 0);
    board.set(boards({ { 1, 2 } }));
    QTest::ignoreMessage(QtDebugMsg, "Field(undefined, 1:2)");
    qDebug() << board.field();

    Table table(QStringLiteral("t"));
    table.addColumn(QStringLiteral("d"), FieldType::Decimal, 2, false);
    table.addColumn(QStringLiteral("when"), FieldType::DateTime);
    Record row(&table);
    row.data(QStringLiteral("d")) = QStringLiteral("1.5");
    QVERIFY(row.dump().endsWith(QLatin1String("{ d=1.5 when=\"\" }")));
}

QTEST_GUILESS_MAIN(tst_Field)
#include "tst_field.moc"
