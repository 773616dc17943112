// The fixed-point decimal: text grammar and messages, ordering, rescaling,
// locale forms and variants. Hand-picked edges here; bulk results come from
// Python's decimal module (tests/gen_decimal_cases.py), and random input is the
// fuzz target's job.

#include <database/database.h>

#include <QDataStream>
#include <QFile>
#include <QtTest>

#include <cmath>

namespace {

// What a call throws as E, or E() when it returns.
template <typename E = QString, typename F> E thrown(F f)
{
    try {
        f();
    } catch (const E &e) {
        return e;
    }
    return E();
}

QString parseMessage(const QString &text)
{
    return QStringLiteral("Невозможно создать decimal по строке '%1'").arg(text);
}

} // namespace

class tst_Decimal : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void parse_data();
    void parse();
    void referenceCases();
    void textReadsBack();
    void layoutAndOrder();
    void rounding();
    void localeParse_data();
    void localeParse();
    void localeForms();
    void variants();
};

// The packed word, and order by value whatever the scales.
void tst_Decimal::layoutAndOrder()
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

void tst_Decimal::parse_data()
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

void tst_Decimal::parse()
{
    QFETCH(QString, text);
    QFETCH(QString, error);

    QCOMPARE(thrown([&] { decimal::fromString(text); }), error);
    QCOMPARE(decimal::canConvert(text), error.isEmpty());
    if (error.isEmpty()) {
        const decimal d(text);
        QTEST(d.mantissa(), "mantissa");
        QTEST(d.scale(), "scale");
    }
}

// Every text toString() makes reads back to an equal value, also the whole
// numbers above 2^63 that negative scales make.
void tst_Decimal::textReadsBack()
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
void tst_Decimal::referenceCases()
{
    QFile file(QStringLiteral(TESTDATA_DIR "/decimal_cases.txt"));
    QVERIFY2(file.open(QIODevice::ReadOnly | QIODevice::Text), qPrintable(file.fileName()));
    const auto refused = [](const QString &text) {
        return thrown([&] { decimal::fromString(text); }).startsWith(parseMessage(text));
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
void tst_Decimal::rounding()
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
        QCOMPARE(thrown<const char *>([&] { text(value, scale); }), "decimal:overflow");
}

void tst_Decimal::localeParse_data()
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

void tst_Decimal::localeParse()
{
    QFETCH(QString, locale);
    QFETCH(QString, text);
    QFETCH(int, scale);
    QFETCH(QString, result);
    const auto parse = [&] { return decimal::fromLocaleString(text, QLocale(locale), scale); };
    if (result.isNull())
        QCOMPARE(thrown([&] { parse(); }), parseMessage(text));
    else
        QCOMPARE(parse().toString(), result);
}

void tst_Decimal::localeForms()
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
void tst_Decimal::variants()
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

QTEST_GUILESS_MAIN(tst_Decimal)
#include "tst_decimal.moc"
