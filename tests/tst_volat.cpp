#include <database/volat.h>

#include <QtTest>

#include <cmath>
#include <cstring>

namespace {
// Absolute error of the polynomial normal distribution with its coefficients
// rounded to seven digits: 2.1e-7 at x = 0.058, rounded up.
constexpr double kCdfError = 2.5e-7;

VolatInputParams input(double strike, double price, double sqrtTime)
{
    return VolatInputParams { strike, price, sqrtTime, 20, 5, 2, 3, 0.5, 0.1, 1, 100 };
}

// The call (or put) price at a volatility in percent.
double priceAt(const VolatInputParams &in, double volat, bool put = false)
{
    return theorPriceForOutOfTheMoney(volat / 100, in.sqrtTime, put, in.price, in.strike);
}
} // namespace

class TestVolat : public QObject
{
    Q_OBJECT
private slots:
    void againstReferences();
    void intrinsicSmileAndInvalidInputs();
    void impliedVolatility();
    void loopMatchesHelpers();
};

// The normal distribution against erfc, then prices and sensitivities against
// gen_volat_reference.py (exact normal distribution); each row of its table
// holds strike price sqrtTime sigma call put deltaCall deltaPut gamma vega theta.
void TestVolat::againstReferences()
{
    QVERIFY(norm_cdf(10.5) == 1.0 && norm_cdf(-10.5) == 0.0);
    double worst = 0;
    for (double x = -9.99; x < 10; x += 0.01)
        worst = std::max(worst, std::fabs(norm_cdf(x) - 0.5 * std::erfc(-x / std::sqrt(2.0))));
    QVERIFY2(worst < kCdfError, qPrintable(QString::number(worst)));
    // An at-the-money option priced by either route.
    QVERIFY(std::fabs(theorPriceForInTheMoney(0.5, 0.3, 100)
                      - theorPriceForOutOfTheMoney(0.3, 0.5, false, 100, 100))
            < 1e-12);

    QFile file(QStringLiteral(TESTDATA_DIR "/volat_reference.txt"));
    QVERIFY(file.open(QIODevice::ReadOnly | QIODevice::Text));
    QTextStream stream(&file);
    stream.readLine(); // the generator's note
    double v[11];
    int rows = 0;
    for (; (stream >> v[0]).status() == QTextStream::Ok; ++rows) {
        stream >> v[1] >> v[2] >> v[3] >> v[4] >> v[5] >> v[6] >> v[7] >> v[8] >> v[9] >> v[10];
        VolatOutputParams o {};
        calcVolatParams(o, input(v[0], v[1], v[2]), v[3] * 100);
        // Vega comes per percentage point.
        const double put = theorPriceForOutOfTheMoney(v[3], v[2], true, v[1], v[0]);
        const double got[] = { o.priceCall, o.pricePut, put,          o.deltaCall,
                               o.deltaPut,  o.gamma,    o.vega * 100, o.theta };
        const double want[] = { v[4], v[5], v[5], v[6], v[7], v[8], v[9], v[10] };
        for (int i = 0; i < 8; ++i) {
            const double tolerance = i < 3 ? (v[0] + v[1]) * kCdfError
                : i < 5                    ? kCdfError
                                           : 1e-9 * std::fabs(want[i]) + 1e-300;
            QVERIFY2(std::fabs(got[i] - want[i]) <= tolerance,
                     qPrintable(QString::asprintf("row %d, output %d", rows, i)));
        }
    }
    QCOMPARE(rows, 240);
}

void TestVolat::intrinsicSmileAndInvalidInputs()
{
    // A volatility of 0 sets only the prices, to the intrinsic values.
    VolatOutputParams out { 7, 7, 7, 7, 7, 7, 7 };
    calcVolatParams(out, input(90, 100, 0.5), 0);
    QVERIFY(out.priceCall == 10 && out.pricePut == 0 && out.deltaCall == 7 && out.vega == 7);
    calcVolatParams(out, input(100, 90, 0.5), 0);
    QVERIFY(out.priceCall == 0 && out.pricePut == 10);
    calcVolatParams(out, input(100, 100, 0.5), 0);
    QVERIFY(out.priceCall == 0 && out.pricePut == 0);
    // Inputs that cannot be priced change nothing.
    out = { 7, 7, 7, 7, 7, 7, 7 };
    for (const VolatInputParams &in :
         { input(0, 100, 0.5), input(100, -1, 0.5), input(100, 100, 0) }) {
        calcVolatParams(out, in, 20);
        calcVolatParamsNorm(out, in, 0.2);
        QCOMPARE(volatByTheorPrice(in, false, 0, 20, 1, 300, 1e-6, 1e-6), -1.0);
    }
    calcVolatParamsNorm(out, input(100, 100, 0.5), 0);
    QVERIFY(out.priceCall == 7 && out.gamma == 7);

    VolatInputParams in = input(110, 100, 0.5);
    QCOMPARE(volatByCurve(in), 20.35312505801888);
    QCOMPARE(volatByCurve(input(90, 100, 0.5)), 19.9532121982977);
    // A negative volatility prices at the smile's volatility.
    VolatOutputParams bySmile {}, byValue {};
    calcVolatParams(bySmile, in, -1);
    calcVolatParams(byValue, in, volatByCurve(in));
    QVERIFY(bySmile.priceCall == byValue.priceCall && bySmile.vega == byValue.vega);
    in.curveAmplitude = 1e6;
    QCOMPARE(volatByCurve(in), in.curveMax);
    in.curveAmplitude = -1e6;
    QCOMPARE(volatByCurve(in), in.curveMin);
}

void TestVolat::impliedVolatility()
{
    // Round trips: the price at the found volatility matches, or the
    // volatility itself does.
    for (double strike : { 60.0, 95.0, 100.0, 130.0, 200.0 })
        for (double days : { 3.0, 45.0, 400.0 })
            for (double volat : { 4.0, 25.0, 90.0, 250.0 })
                for (bool put : { false, true })
                    for (double start : { 0.0, 10.0, 150.0 }) {
                        const VolatInputParams in = input(strike, 100, std::sqrt(days / 365));
                        const double target = priceAt(in, volat, put);
                        const double found
                            = volatByTheorPrice(in, put, target, start, 1, 300, 1e-9, 1e-7);
                        QVERIFY2(found > 0
                                     && (std::fabs(priceAt(in, found, put) - target) <= 1e-9
                                         || std::fabs(found - volat) <= 1e-7),
                                 qPrintable(QString::asprintf("K=%g days=%g v=%g put=%d start=%g",
                                                              strike, days, volat, put, start)));
                    }

    const VolatInputParams in = input(110, 100, 0.5);
    // Start 0 means 50 %; an exact hit there succeeds even with tolerance 0.
    QCOMPARE(volatByTheorPrice(in, false, priceAt(in, 50), 0, 1, 300, 0, 1e-6), 50.0);
    // Newton accepts a difference equal to the tolerance.
    const double target = priceAt(in, 30) + 0.01;
    QCOMPARE(volatByTheorPrice(in, false, target, 30, 1, 300, target - priceAt(in, 30), 1e-6),
             30.0);
    // A start outside [40, 100] goes straight to bisection, whose first probe
    // is half the width, 30 %, below the interval; the midpoint would converge
    // to 40 instead. The bisection accepts only a difference strictly below
    // the tolerance.
    const double atProbe = priceAt(in, 30), nearProbe = atProbe + 1e-3;
    QCOMPARE(volatByTheorPrice(in, false, atProbe, 120, 40, 100, 1e-9, 1e-6), 30.0);
    QCOMPARE(volatByTheorPrice(in, false, nearProbe, 120, 40, 100, 2e-3, 1e-6), 30.0);
    QVERIFY(volatByTheorPrice(in, false, nearProbe, 120, 40, 100, nearProbe - atProbe, 1e-6) > 39);
    // An unreachable price: the bisection ends at the nearer end of the
    // interval when it may run, and -1 when either tolerance rules it out.
    QVERIFY(std::fabs(volatByTheorPrice(in, false, in.price, 20, 1, 300, 1e-9, 1e-6) - 300) < 1e-5);
    const VolatInputParams inTheMoney = input(90, 100, 0.5);
    QVERIFY(std::fabs(volatByTheorPrice(inTheMoney, false, 5, 20, 1, 300, 1e-9, 1e-6) - 1) < 1e-5);
    QCOMPARE(volatByTheorPrice(in, false, in.price, 20, 1, 300, 0, 1e-6), -1.0);
    QCOMPARE(volatByTheorPrice(in, false, in.price, 20, 1, 300, 1e-9, 0), -1.0);
    QCOMPARE(volatByTheorPrice(in, false, priceAt(in, 20), 20, 60, 50, 1e-9, 1e-6), -1.0);
}

// The price and greeks loop shares one exponential between N(d1) and the
// density; its outputs stay bit for bit those of the exported helpers composed
// one by one, across the range where N is exactly 0 or 1 too.
void TestVolat::loopMatchesHelpers()
{
    int checked = 0;
    for (double strike : { 1.0, 60.0, 100.0, 140.0, 1e4 }) {
        for (double sqrtTime : { 0.01, 0.3, 1.0, 4.0 }) {
            for (double sigma : { 1e-3, 0.05, 0.2, 1.5, 20.0 }) {
                const VolatInputParams in = input(strike, 100, sqrtTime);
                VolatOutputParams o {};
                calcVolatParamsNorm(o, in, sigma);
                const double d1 = d_1(in, sigma);
                const double nd1 = norm_cdf(d1);
                const double pdf = norm_pdf(d1);
                const QPair<double, double> prices
                    = theorPriceCallPut(in, nd1, norm_cdf(d_2(in, sigma, d1)));
                const double got[] = { o.priceCall, o.pricePut, o.deltaCall, o.deltaPut,
                                       o.gamma,     o.vega,     o.theta };
                const double want[]
                    = { prices.first,  prices.second,        nd1, nd1 - 1.0, gamma(in, sigma, pdf),
                        vega(in, pdf), theta(in, sigma, pdf) };
                for (int i = 0; i < 7; ++i)
                    QVERIFY2(std::memcmp(&got[i], &want[i], sizeof(double)) == 0,
                             qPrintable(QString::asprintf("K %g t %g sigma %g, output %d", strike,
                                                          sqrtTime, sigma, i)));
                ++checked;
            }
        }
    }
    QCOMPARE(checked, 100);
}

QTEST_APPLESS_MAIN(TestVolat)
#include "tst_volat.moc"
