#include <database/volat.h>

#include <cmath>

namespace {
// 1 / sqrt(2 pi) to full precision, for the density itself.
constexpr double kInvSqrt2Pi = 0.3989422804014327;
// The distribution approximation below uses the constant rounded to seven
// digits, like its coefficients. Its results are kept bit for bit, so this
// differs from kInvSqrt2Pi on purpose.
constexpr double kCdfDensity = 0.3989423;

// Limits beyond which the distribution function is exactly 1 or 0.
constexpr double kCdfLimit = 10.0;

constexpr int kMaxNewtonSteps = 100;
constexpr int kMaxBisectionSteps = 100;
// Below this vega a Newton step is meaningless.
constexpr double kMinVega = 1e-12;
// A start volatility this close to 0 means "no guess".
constexpr double kNoStart = 1e-12;
constexpr double kDefaultSigma = 0.5;

bool isPriceable(const VolatInputParams &in)
{
    return in.strike > 0 && in.price > 0 && in.sqrtTime > 0;
}

// The small helpers live here as inline functions so that the pricing loop
// (calcVolatParamsNorm, called for every option and every Newton step) has
// no call inside it; the exported functions below are thin wrappers and give
// the very same bits.

// exp(-x^2 / 2), shared by the density and the distribution function at the
// same point. Halving is exact, so -0.5 * x * x and -x * x * 0.5 round alike.
inline double gaussExp(double x)
{
    return std::exp(-0.5 * x * x);
}

inline double densityFromExp(double e)
{
    return e * kInvSqrt2Pi;
}

// The distribution function given gaussExp(x), which it uses only when
// |x| <= kCdfLimit.
inline double cdfFromExp(double x, double e)
{
    if (x > kCdfLimit)
        return 1.0;
    if (x < -kCdfLimit)
        return 0.0;
    const double k = 1.0 / (1.0 + 0.2316419 * std::fabs(x));
    const double tail = e * kCdfDensity * k
        * (0.3193815 + k * (-0.3565638 + k * (1.781478 + k * (-1.821256 + k * 1.330274))));
    return x > 0 ? 1.0 - tail : tail;
}

inline double cdf(double x)
{
    if (x > kCdfLimit)
        return 1.0;
    if (x < -kCdfLimit)
        return 0.0;
    return cdfFromExp(x, gaussExp(x));
}

inline double d1Of(const VolatInputParams &in, double sigma)
{
    const double t = in.sqrtTime;
    return (std::log(in.price / in.strike) + 0.5 * sigma * sigma * t * t) / (sigma * t);
}

inline double d2Of(const VolatInputParams &in, double sigma, double d1)
{
    return d1 - sigma * in.sqrtTime;
}

inline double vegaOf(const VolatInputParams &in, double pdf)
{
    return pdf * in.price * in.sqrtTime;
}

inline double gammaOf(const VolatInputParams &in, double sigma, double pdf)
{
    return pdf / (in.sqrtTime * (sigma * in.price));
}

inline double thetaOf(const VolatInputParams &in, double sigma, double pdf)
{
    return -(sigma * in.price * pdf / (in.sqrtTime + in.sqrtTime)) / 365.0;
}

inline QPair<double, double> pricesOf(const VolatInputParams &in, double nd1, double nd2)
{
    const double call = nd1 * in.price - nd2 * in.strike;
    const double put = call - in.price + in.strike;
    return qMakePair(call, put);
}

inline QPair<double, double> pricesAt(const VolatInputParams &in, double sigma)
{
    const double d1 = d1Of(in, sigma);
    return pricesOf(in, cdf(d1), cdf(d2Of(in, sigma, d1)));
}
} // namespace

double norm_pdf(double x)
{
    return densityFromExp(gaussExp(x));
}

double norm_cdf(double x)
{
    return cdf(x);
}

double volatByCurve(const VolatInputParams &in)
{
    const double x = std::log(in.strike / in.price) / in.sqrtTime - in.curveShift;
    const double v = in.curveBase + in.curveAmplitude * (1.0 - std::exp(-in.curveDecay * x * x))
        + std::atan(in.curveSkewScale * x) * in.curveSkew / in.curveSkewScale;
    return std::max(in.curveMin, std::min(in.curveMax, v));
}

double d_1(const VolatInputParams &in, double sigma)
{
    return d1Of(in, sigma);
}

double d_2(const VolatInputParams &in, double sigma, double d1)
{
    return d2Of(in, sigma, d1);
}

double vega(const VolatInputParams &in, double pdf)
{
    return vegaOf(in, pdf);
}

double gamma(const VolatInputParams &in, double sigma, double pdf)
{
    return gammaOf(in, sigma, pdf);
}

double theta(const VolatInputParams &in, double sigma, double pdf)
{
    return thetaOf(in, sigma, pdf);
}

QPair<double, double> theorPriceCallPut(const VolatInputParams &in, double nd1, double nd2)
{
    return pricesOf(in, nd1, nd2);
}

QPair<double, double> theorPriceCallPut(const VolatInputParams &in, double sigma)
{
    return pricesAt(in, sigma);
}

namespace {
// The price and greeks loop of calcVolatParamsNorm, inlined into its callers.
inline void fillGreeks(VolatOutputParams &out, const VolatInputParams &in, double sigma)
{
    if (!(isPriceable(in) && sigma > 0))
        return;
    const double d1 = d1Of(in, sigma);
    const double d2 = d2Of(in, sigma, d1);
    // One exponential serves both N(d1) and the density at d1.
    const double e1 = gaussExp(d1);
    const double c1 = cdfFromExp(d1, e1);
    const double c2 = cdf(d2);
    const QPair<double, double> prices = pricesOf(in, c1, c2);
    out.priceCall = prices.first;
    out.pricePut = prices.second;
    out.deltaCall = c1;
    out.deltaPut = c1 - 1.0;
    const double p = densityFromExp(e1);
    out.gamma = gammaOf(in, sigma, p);
    out.vega = vegaOf(in, p);
    out.theta = thetaOf(in, sigma, p);
}
} // namespace

void calcVolatParamsNorm(VolatOutputParams &out, const VolatInputParams &in, double sigma)
{
    fillGreeks(out, in, sigma);
}

void calcVolatParams(VolatOutputParams &out, const VolatInputParams &in, double volat)
{
    if (!(in.strike > 0 && in.price > 0 && in.sqrtTime != 0))
        return;
    if (volat < 0)
        volat = volatByCurve(in);
    out.priceCall = 0;
    out.pricePut = 0;
    if (volat != 0) {
        fillGreeks(out, in, volat / 100);
        out.vega /= 100;
        return;
    }
    const double intrinsic = std::fabs(in.strike - in.price);
    if (in.price >= in.strike)
        out.priceCall = intrinsic;
    if (in.strike >= in.price)
        out.pricePut = intrinsic;
}

double theorPriceForInTheMoney(double a, double b, double c)
{
    return c * cdf(0.5 * b * a) - cdf(0.5 * b * a - b * a) * c;
}

double theorPriceForOutOfTheMoney(double sigma, double sqrtTime, bool put, double price,
                                  double strike)
{
    // The smile fields do not enter the price; they are set to neutral values
    // so that no field is left uninitialised.
    const VolatInputParams params {
        strike, price, sqrtTime, 50.0, 0, 1.0, 0, 1.0, 0, 0.01, 1000.0
    };
    const QPair<double, double> prices = pricesAt(params, sigma);
    return put ? prices.second : prices.first;
}

double volatByTheorPrice(const VolatInputParams &in, bool put, double target, double start,
                         double minVolat, double maxVolat, double priceTolerance,
                         double volatTolerance)
{
    if (!isPriceable(in))
        return -1;

    // The outputs are recomputed only when sigma changes; before the first
    // computation they are all zero.
    VolatOutputParams out {};
    double computedSigma = -1;
    const auto priceAt = [&](double sigma) {
        if (sigma != computedSigma) {
            fillGreeks(out, in, sigma);
            computedSigma = sigma;
        }
        return put ? out.pricePut : out.priceCall;
    };

    double sigma = std::fabs(start) <= kNoStart ? kDefaultSigma : start / 100;
    double lo = minVolat / 100;
    double hi = maxVolat / 100;

    if (lo <= sigma && sigma <= hi) {
        double diff = target - priceAt(sigma);
        if (std::fabs(diff) <= priceTolerance)
            return sigma * 100;
        for (int step = 0;; ++step) {
            const double slope = out.vega;
            if (std::fabs(slope) <= kMinVega || step == kMaxNewtonSteps)
                break;
            sigma += diff / slope;
            if (sigma < lo || sigma > hi)
                break;
            diff = target - priceAt(sigma);
            if (std::fabs(diff) <= priceTolerance)
                return sigma * 100;
        }
    }

    if (lo > hi)
        return -1;
    const double volTol = volatTolerance / 100;
    if (volTol <= 0 || priceTolerance <= 0)
        return -1;
    // The first probe is at half the interval's width, not at its midpoint
    // (they differ unless minVolat is 0). Results that callers have stored
    // depend on this exact sequence of probes, so it is kept.
    sigma = (hi - lo) * 0.5;
    for (int step = 0; step < kMaxBisectionSteps; ++step) {
        const double half = (hi - lo) * 0.5;
        if (std::fabs(half) < volTol)
            return sigma * 100;
        const double diff = target - priceAt(sigma);
        if (std::fabs(diff) < priceTolerance)
            return sigma * 100;
        if (diff > 0)
            lo += half;
        else
            hi -= half;
        sigma = (lo + hi) * 0.5;
    }
    return -1;
}
