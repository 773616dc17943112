#include <database/volat.h>

#include <QFile>
#include <QtTest>

#include <cmath>

namespace {
// Absolute error of the polynomial normal distribution with its coefficients
// rounded to seven digits: 2.1e-7 at x = 0.058, rounded up.
constexpr double kCdfError = 2.5e-7;

VolatInputParams input(double strike, double price, double sqrtTime)
{
    return VolatInputParams { strike, price, sqrtTime, 20, 5, 2, 3, 0.5, 0.1, 1, 100 };
}

bool closeRel(double actual, double expected, double rel)
{
    return std::fabs(actual - expected) <= rel * std::fabs(expected) + 1e-300;
}
} // namespace

class TestVolat : public QObject
{
    Q_OBJECT
private slots:
    void normalDistribution();
    void againstReference();
    void impliedVolatilityRoundTrip();
    void intrinsicAndInvalidInputs();
    void smile();
    void solverPhases();
};

void TestVolat::normalDistribution()
{
    QCOMPARE(norm_cdf(10.5), 1.0);
    QCOMPARE(norm_cdf(-10.5), 0.0);
    QCOMPARE(norm_pdf(0), 0.3989422804014327);
    double worst = 0;
    for (double x = -9.99; x < 10; x += 0.01)
        worst = std::max(worst, std::fabs(norm_cdf(x) - 0.5 * std::erfc(-x / std::sqrt(2.0))));
    QVERIFY2(worst < kCdfError, qPrintable(QString::number(worst)));
    // An at-the-money option priced by either route.
    QVERIFY(std::fabs(theorPriceForInTheMoney(0.5, 0.3, 100)
                      - theorPriceForOutOfTheMoney(0.3, 0.5, false, 100, 100))
            < 1e-12);
}

void TestVolat::againstReference()
{
    QFile file(QStringLiteral(TESTDATA_DIR "/volat_reference.txt"));
    QVERIFY(file.open(QIODevice::ReadOnly | QIODevice::Text));
    int rows = 0;
    while (!file.atEnd()) {
        const QByteArray line = file.readLine().trimmed();
        if (line.isEmpty() || line.startsWith('#'))
            continue;
        const QList<QByteArray> f = line.split(' ');
        QCOMPARE(f.size(), 11);
        double v[11];
        for (int i = 0; i < 11; ++i)
            v[i] = f[i].toDouble();
        const VolatInputParams in = input(v[0], v[1], v[2]);
        const double sigma = v[3];
        const double priceError = (in.strike + in.price) * kCdfError;
        const QString where = QString::fromLatin1(line);

        VolatOutputParams norm {};
        calcVolatParamsNorm(norm, in, sigma);
        VolatOutputParams pct {};
        calcVolatParams(pct, in, sigma * 100);
        for (const VolatOutputParams &out : { norm, pct }) {
            QVERIFY2(std::fabs(out.priceCall - v[4]) <= priceError, qPrintable(where));
            QVERIFY2(std::fabs(out.pricePut - v[5]) <= priceError, qPrintable(where));
            QVERIFY2(std::fabs(out.deltaCall - v[6]) <= kCdfError, qPrintable(where));
            QVERIFY2(std::fabs(out.deltaPut - v[7]) <= kCdfError, qPrintable(where));
            QVERIFY2(closeRel(out.gamma, v[8], 1e-9), qPrintable(where));
            QVERIFY2(closeRel(out.theta, v[10], 1e-9), qPrintable(where));
        }
        QVERIFY2(closeRel(norm.vega, v[9], 1e-9), qPrintable(where));
        QVERIFY2(closeRel(pct.vega, v[9] / 100, 1e-9), qPrintable(where));
        const double put
            = theorPriceForOutOfTheMoney(sigma, in.sqrtTime, true, in.price, in.strike);
        QVERIFY2(std::fabs(put - v[5]) <= priceError, qPrintable(where));
        ++rows;
    }
    QCOMPARE(rows, 240);
}

void TestVolat::impliedVolatilityRoundTrip()
{
    const double priceTolerance = 1e-9;
    const double volatTolerance = 1e-7;
    for (double strike : { 60.0, 95.0, 100.0, 130.0, 200.0 })
        for (double days : { 3.0, 45.0, 400.0 })
            for (double volat : { 4.0, 25.0, 90.0, 250.0 })
                for (bool put : { false, true })
                    for (double start : { 0.0, 10.0, 150.0 }) {
                        const VolatInputParams in = input(strike, 100, std::sqrt(days / 365));
                        const double target = theorPriceForOutOfTheMoney(volat / 100, in.sqrtTime,
                                                                         put, in.price, in.strike);
                        const double found = volatByTheorPrice(in, put, target, start, 1, 300,
                                                               priceTolerance, volatTolerance);
                        const double priceThere = theorPriceForOutOfTheMoney(
                            found / 100, in.sqrtTime, put, in.price, in.strike);
                        const QString where
                            = QStringLiteral("K=%1 days=%2 v=%3 put=%4 start=%5 -> %6")
                                  .arg(strike)
                                  .arg(days)
                                  .arg(volat)
                                  .arg(put)
                                  .arg(start)
                                  .arg(found, 0, 'g', 17);
                        QVERIFY2(found > 0, qPrintable(where));
                        QVERIFY2(std::fabs(priceThere - target) <= priceTolerance
                                     || std::fabs(found - volat) <= volatTolerance,
                                 qPrintable(where));
                    }
}

void TestVolat::intrinsicAndInvalidInputs()
{
    const double untouched = 7;
    const VolatOutputParams filled { untouched, untouched, untouched, untouched,
                                     untouched, untouched, untouched };
    struct Case
    {
        double strike, price, call, put;
    };
    for (const Case c :
         { Case { 100, 100, 0, 0 }, Case { 90, 100, 10, 0 }, Case { 100, 90, 0, 10 } }) {
        VolatOutputParams out = filled;
        calcVolatParams(out, input(c.strike, c.price, 0.5), 0);
        QCOMPARE(out.priceCall, c.call);
        QCOMPARE(out.pricePut, c.put);
        QCOMPARE(out.deltaCall, untouched);
        QCOMPARE(out.vega, untouched);
    }
    for (const VolatInputParams &in :
         { input(0, 100, 0.5), input(100, -1, 0.5), input(100, 100, 0) }) {
        VolatOutputParams out = filled;
        calcVolatParams(out, in, 20);
        calcVolatParamsNorm(out, in, 0.2);
        QCOMPARE(out.priceCall, untouched);
        QCOMPARE(out.gamma, untouched);
        QCOMPARE(volatByTheorPrice(in, false, 0, 20, 1, 300, 1e-6, 1e-6), -1.0);
    }
    VolatOutputParams out = filled;
    calcVolatParamsNorm(out, input(100, 100, 0.5), 0);
    QCOMPARE(out.priceCall, untouched);
}

void TestVolat::smile()
{
    // A negative volatility prices at the smile's volatility.
    const VolatInputParams in = input(110, 100, 0.5);
    QCOMPARE(volatByCurve(in), 20.35312505801888);
    QCOMPARE(volatByCurve(input(90, 100, 0.5)), 19.9532121982977);
    VolatOutputParams bySmile {};
    VolatOutputParams byValue {};
    calcVolatParams(bySmile, in, -1);
    calcVolatParams(byValue, in, volatByCurve(in));
    QCOMPARE(bySmile.priceCall, byValue.priceCall);
    QCOMPARE(bySmile.vega, byValue.vega);

    VolatInputParams clamped = in;
    clamped.curveAmplitude = 1e6;
    QCOMPARE(volatByCurve(clamped), clamped.curveMax);
    clamped.curveAmplitude = -1e6;
    QCOMPARE(volatByCurve(clamped), clamped.curveMin);
}

void TestVolat::solverPhases()
{
    const VolatInputParams in = input(110, 100, 0.5);
    const auto call = [&](double sigma) {
        return theorPriceForOutOfTheMoney(sigma, in.sqrtTime, false, in.price, in.strike);
    };
    // Start 0 means 50 %; an exact hit there succeeds even with tolerance 0.
    QCOMPARE(volatByTheorPrice(in, false, call(0.5), 0, 1, 300, 0, 1e-6), 50.0);
    // Newton accepts a difference equal to the tolerance.
    const double target = call(0.3) + 0.01;
    QCOMPARE(volatByTheorPrice(in, false, target, 30, 1, 300, target - call(0.3), 1e-6), 30.0);

    // A start outside [40, 100] goes straight to bisection, whose first probe
    // is half the width, 30 %, below the interval itself; the midpoint would
    // converge to 40 instead.
    const double probe = (100.0 / 100 - 40.0 / 100) * 0.5;
    const double atProbe = call(probe);
    QCOMPARE(volatByTheorPrice(in, false, atProbe, 120, 40, 100, 1e-9, 1e-6), probe * 100);
    // The bisection accepts only a difference strictly below the tolerance.
    const double nearProbe = atProbe + 1e-3;
    QCOMPARE(volatByTheorPrice(in, false, nearProbe, 120, 40, 100, 2e-3, 1e-6), probe * 100);
    QVERIFY(volatByTheorPrice(in, false, nearProbe, 120, 40, 100, nearProbe - atProbe, 1e-6) > 39);

    // An unreachable price: the bisection ends at the top of the interval when
    // it may run, and -1 when either tolerance rules it out.
    const double tooHigh = in.price;
    QVERIFY(std::fabs(volatByTheorPrice(in, false, tooHigh, 20, 1, 300, 1e-9, 1e-6) - 300) < 1e-5);
    QCOMPARE(volatByTheorPrice(in, false, tooHigh, 20, 1, 300, 0, 1e-6), -1.0);
    QCOMPARE(volatByTheorPrice(in, false, tooHigh, 20, 1, 300, 1e-9, 0), -1.0);
    QCOMPARE(volatByTheorPrice(in, false, call(0.2), 20, 60, 50, 1e-9, 1e-6), -1.0);
}

QTEST_APPLESS_MAIN(TestVolat)
#include "tst_volat.moc"
