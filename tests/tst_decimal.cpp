// The fixed-point decimal: its text grammar and messages, ordering, rescaling,
// locale forms, variants; checked by hand at the edges and against reference
// results computed with Python's decimal module (tests/gen_decimal_cases.py).

#include <database/database.h>

#include <QDataStream>
#include <QFile>
#include <QRandomGenerator>
#include <QSequentialIterable>
#include <QtTest>

#include <cmath>

namespace {

// The QString a call throws, or a null string.
template <typename F> QString thrownText(F f)
{
    try {
        f();
    } catch (const QString &message) {
        return message;
    }
    return QString();
}

QString parseMessage(const QString &text)
{
    return QStringLiteral("Невозможно создать decimal по строке '%1'").arg(text);
}

const QString nbsp(QChar(0x00a0));
const QString narrowNbsp(QChar(0x202f));

} // namespace

class tst_Decimal : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void layout();
    void parse_data();
    void parse();
    void referenceCases();
    void compareEdges();
    void setScaleEdges();
    void fromDouble_data();
    void fromDouble();
    void localeParse_data();
    void localeParse();
    void localeForms();
    void variants();
    void randomInput();
};

void tst_Decimal::layout()
{
    const decimal d(-5, 1);
    QCOMPARE(d.raw() >> 63, quint64(1));
    QCOMPARE((d.raw() >> 56) & 0x7f, quint64(1));
    QCOMPARE(d.raw() & ((quint64(1) << 56) - 1), (quint64(1) << 56) - 5);
    QCOMPARE(decimal(3, -64).scale(), -64);
    QCOMPARE(decimal(3, 63).scale(), 63);
    QCOMPARE(decimal::fromRaw(decimal(-72057594037927935, 0).raw()).mantissa(),
             Q_INT64_C(-72057594037927935));
    // Out-of-range mantissas are brought in range the way integer texts are.
    QCOMPARE(decimal(std::numeric_limits<qint64>::min(), 0).toString(),
             QStringLiteral("-9223372036854775000"));
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
    ok("fraction keeps its zeros", "12.50", 1250, 2);
    ok("no integer digits", "-.5", -5, 1);
    ok("exponent", "1e3", 1, -3);
    ok("exponent and fraction", "+1.25e-2", 125, 4);
    ok("point before exponent", "5.e3", 5, -3);
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
    bad("integer past int64", "9223372036854775808", "9223372036854775808");
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
    QFETCH(qint64, mantissa);
    QFETCH(int, scale);
    QFETCH(QString, error);

    QCOMPARE(thrownText([&] { decimal::fromString(text); }), error);
    QCOMPARE(decimal::canConvert(text), error.isEmpty());
    if (error.isEmpty()) {
        const decimal d(text);
        QCOMPARE(d.mantissa(), mantissa);
        QCOMPARE(d.scale(), scale);
        if (d.scale() > -3) // larger whole numbers pass the 64-bit integer grammar
            QCOMPARE(decimal::fromString(d.toString()), d);
    }
}

void tst_Decimal::referenceCases()
{
    QFile file(QStringLiteral(TESTDATA_DIR "/decimal_cases.txt"));
    QVERIFY2(file.open(QIODevice::ReadOnly | QIODevice::Text), qPrintable(file.fileName()));
    int checked = 0;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        const QStringList f = line.split(QLatin1Char('\t'));
        const auto num = [&](int i) { return f.at(i).toLongLong(); };
        const QByteArray whereText = line.toUtf8();
        const char *where = whereText.constData();
        const QString kind = f.at(0);
        if (kind == QLatin1String("P")) {
            const decimal d = decimal::fromString(f.at(1));
            QVERIFY2(d.mantissa() == num(2) && d.scale() == num(3), where);
        } else if (kind == QLatin1String("E")) {
            QVERIFY2(
                thrownText([&] { decimal::fromString(f.at(1)); }).startsWith(parseMessage(f.at(1))),
                where);
        } else if (kind == QLatin1String("C")) {
            const decimal a(num(1), int(num(2))), b(num(3), int(num(4)));
            QVERIFY2(a.compare(b) == num(5) && b.compare(a) == -num(5), where);
        } else if (kind == QLatin1String("S")) {
            decimal d(num(1), int(num(2)));
            d.setScale(int(num(3)));
            QVERIFY2(d.mantissa() == num(4) && d.scale() == num(5), where);
        } else if (kind == QLatin1String("T")) {
            QVERIFY2(decimal(num(1), int(num(2))).toString() == f.at(3), where);
        } else {
            QFAIL(where);
        }
        ++checked;
    }
    QVERIFY(checked > 4000);
}

void tst_Decimal::compareEdges()
{
    QCOMPARE(decimal("1.50"), decimal("1.5"));
    QVERIFY(decimal("-0.5") < decimal());
    QCOMPARE(decimal(0, 5).compare(decimal(0, -5)), 0);
    // Decided by the 17-digit shortcut, and just inside it.
    QCOMPARE(decimal(1, 0).compare(decimal(5, 17)), 1);
    QCOMPARE(decimal(-1, 0).compare(decimal(-5, 17)), -1);
    QCOMPARE(decimal(1, 0).compare(decimal(Q_INT64_C(72057594037927935), 16)), -1);
    QCOMPARE(decimal(Q_INT64_C(72057594037927935), -64).compare(decimal(1, 63)), 1);
    QVERIFY(decimal("-1e3") < decimal("-999.999"));
    QCOMPARE(qHash(decimal("1.5")), qHash(decimal("1.500")));
}

void tst_Decimal::setScaleEdges()
{
    QCOMPARE(decimal("2.5").withScale(0).toString(), QStringLiteral("3"));
    QCOMPARE(decimal("-2.5").withScale(0).toString(), QStringLiteral("-3"));
    QCOMPARE(decimal("2.49").withScale(0).toString(), QStringLiteral("2"));
    QCOMPARE(decimal("0.95").withScale(-1).toString(), QStringLiteral("0"));
    // A raise stops where the mantissa would leave its range.
    const decimal big = decimal("72057594037927.93").withScale(10);
    QCOMPARE(big.scale(), 3);
    QCOMPARE(decimal(0, 3).withScale(-7).scale(), -7);
    QTest::ignoreMessage(QtWarningMsg, "decimal::setScale: scale 100 is outside -64..63");
    QCOMPARE(decimal(1, 0).withScale(100).scale(), 16);
}

void tst_Decimal::fromDouble_data()
{
    QTest::addColumn<double>("value");
    QTest::addColumn<int>("scale");
    QTest::addColumn<QString>("text"); // empty: overflow
    QTest::newRow("rounds half away") << 2.5 << 0 << "3";
    QTest::newRow("negative half") << -2.5 << 0 << "-3";
    QTest::newRow("scale 2") << 1.005001 << 2 << "1.01";
    QTest::newRow("negative scale") << 12345.0 << -2 << "12300";
    QTest::newRow("zero") << 0.0 << 3 << "0.000";
    QTest::newRow("just below the limit") << 7.2e16 << 0 << "72000000000000000";
    QTest::newRow("1e17") << 1e17 << 0 << QString();
    QTest::newRow("-1e17") << -1e17 << 0 << QString();
    QTest::newRow("by scale") << 1.0 << 17 << QString();
    QTest::newRow("nan") << std::nan("") << 0 << QString();
    QTest::newRow("infinity") << HUGE_VAL << 0 << QString();
}

void tst_Decimal::fromDouble()
{
    QFETCH(double, value);
    QFETCH(int, scale);
    QFETCH(QString, text);
    const char *thrown = nullptr;
    QString result;
    try {
        result = decimal::fromDouble(value, qint16(scale)).toString();
    } catch (const char *e) {
        thrown = e;
    }
    if (text.isEmpty())
        QCOMPARE(thrown, "decimal:overflow");
    else
        QCOMPARE(result, text);
}

void tst_Decimal::localeParse_data()
{
    QTest::addColumn<QString>("locale");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("scale");
    QTest::addColumn<QString>("result"); // toString, or empty when refused

    const int keep = decimal::TextScale;
    QTest::newRow("ru groups, comma") << "ru_RU"
                                      << "1 234,50" << keep << "1234.50";
    QTest::newRow("ru nbsp") << "ru_RU"
                             << "1" + nbsp + "234" + nbsp + "567,5" << keep << "1234567.5";
    QTest::newRow("ru narrow nbsp") << "ru_RU"
                                    << "-1" + narrowNbsp + "234,5" << keep << "-1234.5";
    QTest::newRow("ru point") << "ru_RU"
                              << "1.5" << keep << "1.5";
    QTest::newRow("ru 1,234 is a fraction") << "ru_RU"
                                            << "1,234" << keep << "1.234";
    QTest::newRow("en 1,234 is grouped") << "en_US"
                                         << "1,234" << keep << "1234";
    QTest::newRow("en comma") << "en_US"
                              << "1,5" << keep << "1.5";
    QTest::newRow("en grouped") << "en_US"
                                << " -1,234,567.25 " << keep << "-1234567.25";
    QTest::newRow("de grouped point") << "de_DE"
                                      << "1.234.567,5" << keep << "1234567.5";
    QTest::newRow("de both, last wins") << "de_DE"
                                        << "1,234.5" << keep << "1234.5";
    QTest::newRow("swiss apostrophe") << "de_CH"
                                      << "1'234.5" << keep << "1234.5";
    QTest::newRow("exponent E") << "en_US"
                                << "1,5E3" << keep << "1500";
    QTest::newRow("minus sign") << "ru_RU" << QString(QChar(0x2212)) + "5" << keep << "-5";
    QTest::newRow("to scale") << "ru_RU"
                              << "1,555" << 2 << "1.56";
    QTest::newRow("bad groups") << "en_US"
                                << "12,34,567" << keep << QString();
    QTest::newRow("group after point") << "en_US"
                                       << "1.234 5" << keep << QString();
    QTest::newRow("two decimals") << "en_US"
                                  << "1.2,3.4" << keep << QString();
    QTest::newRow("spaced digits") << "ru_RU"
                                   << "1 2" << keep << QString();
    QTest::newRow("empty") << "ru_RU"
                           << "" << keep << QString();
    QTest::newRow("letters") << "ru_RU"
                             << "12р" << keep << QString();
    QTest::newRow("lone comma") << "ru_RU"
                                << "," << keep << QString();
}

void tst_Decimal::localeParse()
{
    QFETCH(QString, locale);
    QFETCH(QString, text);
    QFETCH(int, scale);
    QFETCH(QString, result);
    const QString error = thrownText([&] { decimal::fromLocaleString(text, QLocale(locale)); });
    if (result.isEmpty()) {
        QCOMPARE(error, parseMessage(text));
        return;
    }
    QCOMPARE(error, QString());
    QCOMPARE(decimal::fromLocaleString(text, QLocale(locale), scale).toString(), result);
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

void tst_Decimal::variants()
{
    const QVariant a = decimal("1.50").toVariant(), b = decimal("1.5").toVariant();
    QCOMPARE(a.userType(), decimal::metatypeId());
    QCOMPARE(QMetaType::typeName(decimal::metatypeId()), "decimal");
    QVERIFY(a == b);
    int order = 0;
    QVERIFY(QMetaType::compare(decimal("1.49").toVariant().constData(), b.constData(),
                               decimal::metatypeId(), &order));
    QCOMPARE(order, -1);
    QCOMPARE(a.toString(), QStringLiteral("1.50"));

    QByteArray bytes;
    {
        QDataStream out(&bytes, QIODevice::WriteOnly);
        out << a << QVariant::fromValue(datetime(1));
    }
    QDataStream in(bytes);
    QVariant readBack, readDate;
    in >> readBack >> readDate;
    QCOMPARE(readBack.value<decimal>().toString(), QStringLiteral("1.50"));
    QCOMPARE(readDate.toString(), QStringLiteral("1970.01.01 00:00:00.001"));
    QVERIFY(QVariant::fromValue(datetime(1)) != QVariant::fromValue(datetime(2)));

    bool ok = false;
    QCOMPARE(decimal::fromVariant(QVariant(0.1), &ok).toString(), QStringLiteral("0.1"));
    QVERIFY(ok);
    QCOMPARE(decimal::fromVariant(QVariant(qlonglong(-42)), &ok).toString(), QStringLiteral("-42"));
    QCOMPARE(decimal::fromVariant(QVariant(QStringLiteral("1,5")), &ok).toString(),
             QStringLiteral("1.5"));
    QVERIFY(ok);
    QCOMPARE(decimal::fromVariant(QVariant(true), &ok), decimal());
    QVERIFY(!ok);
    QVERIFY(!decimal::canConvert(QVariant(std::nan(""))));
    QVERIFY(decimal::canConvert(QVariant(7)));

    const QVariant vector = QVariant::fromValue(QVector<int> { 1, 2, 3 });
    QVERIFY(vector.canConvert<QVariantList>());
    int sum = 0;
    for (const QVariant &v : vector.value<QSequentialIterable>())
        sum += v.toInt();
    QCOMPARE(sum, 6);
}

void tst_Decimal::randomInput()
{
    // Random bytes and mutated numbers: every parser either gives a value that
    // reads back from its own text, or refuses with its message.
    QRandomGenerator rng(12345);
    const QByteArray alphabet("0123456789.,e+- E'");
    const QLocale ru(QStringLiteral("ru_RU")), en(QStringLiteral("en_US"));
    for (int i = 0; i < 6000; ++i) {
        QByteArray bytes;
        const int length = int(rng.bounded(i % 3 == 0 ? 80 : 24));
        for (int k = 0; k < length; ++k)
            bytes += i % 2 ? char(rng.bounded(256)) : alphabet[int(rng.bounded(alphabet.size()))];
        const QString text = QString::fromUtf8(bytes);
        const auto check = [&](auto parse) {
            try {
                const decimal d = parse();
                const QString back = d.toString();
                QVERIFY2(back.size() > 18 || decimal::fromString(back) == d,
                         bytes.toHex().constData());
            } catch (const QString &message) {
                QVERIFY2(message.startsWith(parseMessage(text)), bytes.toHex().constData());
            }
        };
        check([&] { return decimal::fromString(text); });
        check([&] { return decimal::fromLocaleString(text, ru); });
        check([&] { return decimal::fromLocaleString(text, en, 2); });
        bool ok = false;
        const decimal any = decimal::fromAnyString(text, &ok);
        QCOMPARE(ok, decimal::canConvert(text, true));
        QVERIFY(ok || any.isZero());
    }
}

QTEST_GUILESS_MAIN(tst_Decimal)
#include "tst_decimal.moc"
