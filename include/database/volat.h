#ifndef DATABASE_VOLAT_H
#define DATABASE_VOLAT_H

#include <database/database_global.h>

#include <QPair>

// Pricing of European options by the Black-Scholes formula without interest
// rates or dividends: the normal distribution, theoretical prices, the
// sensitivities (delta, gamma, vega, theta), a parametric volatility smile and
// the implied volatility that reproduces a given price.
//
// Units: volatilities cross this interface in percent (20 means 20 %) except
// where a parameter is named sigma, which is a fraction (0.2). Time enters as
// the square root of the time to expiry in years. Theta is per calendar day.
//
// Failures: no exceptions and no messages. Invalid inputs leave the outputs
// untouched or yield -1, as each function states.
//
// Thread-safety: all functions are pure; they may run concurrently.

// Input of the calculations; the caller fills it and it is only read.
struct DATABASE_EXPORT VolatInputParams
{
    double strike; // strike price K
    double price; // price of the underlying S
    double sqrtTime; // square root of the time to expiry in years
    double curveBase; // smile: base level, percent
    double curveAmplitude; // smile: height of the bell-shaped part, percent
    double curveDecay; // smile: width factor of the bell
    double curveSkew; // smile: weight of the arctangent part, percent
    double curveSkewScale; // smile: scale inside the arctangent, not 0
    double curveShift; // smile: shift of the moneyness axis
    double curveMin; // smile: lower bound of the result, percent
    double curveMax; // smile: upper bound of the result, percent
};

// Output of the calculations.
struct DATABASE_EXPORT VolatOutputParams
{
    double deltaCall;
    double deltaPut;
    double gamma;
    double vega; // per unit of fractional volatility, or per percentage point (calcVolatParams)
    double theta; // per calendar day
    double priceCall;
    double pricePut;
};

// Standard normal density.
DATABASE_EXPORT double norm_pdf(double x);
// Standard normal distribution function by a fifth-order polynomial
// approximation (absolute error below about 1e-7); exactly 1 above 10 and
// exactly 0 below -10.
DATABASE_EXPORT double norm_cdf(double x);

// Smile volatility in percent at the input's moneyness x = ln(K/S)/sqrtTime -
// curveShift: curveBase + curveAmplitude * (1 - exp(-curveDecay * x^2)) +
// atan(curveSkewScale * x) * curveSkew / curveSkewScale, clamped to
// [curveMin, curveMax].
// REQUIRES: strike, price and sqrtTime positive; curveSkewScale not 0.
DATABASE_EXPORT double volatByCurve(const VolatInputParams &in);

// The d1 and d2 terms of the formula for a fractional sigma.
DATABASE_EXPORT double d_1(const VolatInputParams &in, double sigma);
DATABASE_EXPORT double d_2(const VolatInputParams &in, double sigma, double d1);

// Sensitivities from the density at d1 (pdf = norm_pdf(d1)). vega is per
// unit of fractional volatility; theta is per calendar day.
DATABASE_EXPORT double vega(const VolatInputParams &in, double pdf);
DATABASE_EXPORT double gamma(const VolatInputParams &in, double sigma, double pdf);
DATABASE_EXPORT double theta(const VolatInputParams &in, double sigma, double pdf);

// (call, put) prices from nd1 = N(d1) and nd2 = N(d2); the put follows from
// put-call parity without interest.
DATABASE_EXPORT QPair<double, double> theorPriceCallPut(const VolatInputParams &in, double nd1,
                                                        double nd2);
// (call, put) prices for a fractional sigma.
DATABASE_EXPORT QPair<double, double> theorPriceCallPut(const VolatInputParams &in, double sigma);

// Fills every output for a fractional sigma (vega per unit of sigma).
// Does nothing unless strike, price, sqrtTime and sigma are all positive.
DATABASE_EXPORT void calcVolatParamsNorm(VolatOutputParams &out, const VolatInputParams &in,
                                         double sigma);

// Fills the outputs for a volatility in percent; a negative volat means "take
// it from the smile" (volatByCurve). Vega is per percentage point.
// Does nothing unless strike and price are positive and sqrtTime is not 0.
// Otherwise both prices are first set to 0. A volatility of 0 gives the
// intrinsic values (call S - K when S >= K, put K - S when K >= S) and leaves
// the other outputs untouched. A nonzero volatility fills every output through
// calcVolatParamsNorm; when that refuses the input (negative sqrtTime or
// volatility) only the prices (0) change and vega is still rescaled.
DATABASE_EXPORT void calcVolatParams(VolatOutputParams &out, const VolatInputParams &in,
                                     double volat);

// c * N(0.5 * b * a) - c * N(0.5 * b * a - b * a): the call (and put) price of
// an at-the-money option, S = K = c, whose sigma times sqrtTime is a * b.
DATABASE_EXPORT double theorPriceForInTheMoney(double a, double b, double c);

// The put price when put is true, else the call price, for a fractional sigma.
DATABASE_EXPORT double theorPriceForOutOfTheMoney(double sigma, double sqrtTime, bool put,
                                                  double price, double strike);

// The volatility in percent at which the call (or put) price of the input
// equals target, or -1.
//
// A Newton phase starts at start percent (50 % when start is 0) if that lies
// in [minVolat, maxVolat]; it accepts |price - target| <= priceTolerance, and
// gives up after 100 steps, on a vanishing vega or on leaving the interval.
// A bisection phase then searches [minVolat, maxVolat]; its first probe is at
// half the interval's width (not its midpoint), and it accepts
// |price - target| < priceTolerance (strictly) or an interval narrower than
// volatTolerance percent, and fails after 100 steps.
//
// Returns -1 when strike, price or sqrtTime is not positive, when
// minVolat > maxVolat, or when the bisection is needed and volatTolerance or
// priceTolerance is not positive: with priceTolerance 0 only an exact Newton
// hit succeeds.
//
// A target that no volatility in the range reaches (a price below the one at
// minVolat, or above the one at maxVolat) does not give -1: the bisection
// closes in on the nearer bound and returns it once the interval is narrower
// than volatTolerance, so the result is minVolat or maxVolat (1 or 300 for a
// search over 1 .. 300 %). Callers that must tell such a price from a real
// answer compare the result with the bounds.
DATABASE_EXPORT double volatByTheorPrice(const VolatInputParams &in, bool put, double target,
                                         double start, double minVolat, double maxVolat,
                                         double priceTolerance, double volatTolerance);

#endif // DATABASE_VOLAT_H
