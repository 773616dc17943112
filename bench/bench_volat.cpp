// Throughput of the option-pricing functions against a plain loop of the
// textbook formula using std::erfc, measured in the same run. Prints the
// ratios library/textbook at the end (above 1 means the library is faster).

#include <database/volat.h>

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "ratioreporter.h"

namespace {
constexpr int kInputs = 1000000;

struct Case
{
    VolatInputParams in;
    double volat; // percent
    bool put;
    double target; // price at volat
};

double textbookCdf(double x)
{
    return 0.5 * std::erfc(-x / std::sqrt(2.0));
}

// Call and put prices, deltas, gamma, vega and theta for a fractional sigma.
VolatOutputParams textbookGreeks(const VolatInputParams &in, double sigma)
{
    const double t = in.sqrtTime;
    const double d1 = (std::log(in.price / in.strike) + 0.5 * sigma * sigma * t * t) / (sigma * t);
    const double d2 = d1 - sigma * t;
    const double nd1 = textbookCdf(d1);
    const double pdf = std::exp(-0.5 * d1 * d1) / std::sqrt(2 * M_PI);
    VolatOutputParams out;
    out.priceCall = in.price * nd1 - in.strike * textbookCdf(d2);
    out.pricePut = in.strike * textbookCdf(-d2) - in.price * textbookCdf(-d1);
    out.deltaCall = nd1;
    out.deltaPut = nd1 - 1;
    out.gamma = pdf / (in.price * sigma * t);
    out.vega = in.price * pdf * t;
    out.theta = -in.price * pdf * sigma / (2 * t) / 365;
    return out;
}

// Newton iteration on the textbook price, with bisection as a fallback.
double textbookImplied(const Case &c)
{
    double lo = 0.01, hi = 3.0, sigma = 0.5;
    for (int i = 0; i < 100; ++i) {
        const VolatOutputParams out = textbookGreeks(c.in, sigma);
        const double diff = c.target - (c.put ? out.pricePut : out.priceCall);
        if (std::fabs(diff) <= 1e-8)
            return sigma * 100;
        if (diff > 0)
            lo = sigma;
        else
            hi = sigma;
        double next = sigma + diff / out.vega;
        if (!(out.vega > 1e-12) || next <= lo || next >= hi)
            next = 0.5 * (lo + hi);
        sigma = next;
    }
    return sigma * 100;
}

const std::vector<Case> &cases()
{
    static const std::vector<Case> all = [] {
        std::mt19937_64 random(20240501);
        std::uniform_real_distribution<double> strike(50, 150), days(1, 720), volat(5, 150);
        std::vector<Case> v;
        v.reserve(kInputs);
        for (int i = 0; i < kInputs; ++i) {
            Case c;
            c.in = VolatInputParams {
                strike(random), 100, std::sqrt(days(random) / 365), 20, 5, 2, 3, 0.5, 0.1, 1, 100
            };
            c.volat = volat(random);
            c.put = i % 2;
            c.target = theorPriceForOutOfTheMoney(c.volat / 100, c.in.sqrtTime, c.put, c.in.price,
                                                  c.in.strike);
            v.push_back(c);
        }
        return v;
    }();
    return all;
}

template <typename Body> void runOverCases(benchmark::State &state, Body body)
{
    const std::vector<Case> &all = cases();
    for (auto _ : state) {
        for (const Case &c : all)
            body(c);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(all.size()));
}

void BM_GreeksLibrary(benchmark::State &state)
{
    runOverCases(state, [](const Case &c) {
        VolatOutputParams out {};
        calcVolatParams(out, c.in, c.volat);
        benchmark::DoNotOptimize(out);
    });
}

void BM_GreeksTextbook(benchmark::State &state)
{
    runOverCases(state, [](const Case &c) {
        VolatOutputParams out = textbookGreeks(c.in, c.volat / 100);
        benchmark::DoNotOptimize(out);
    });
}

void BM_ImpliedLibrary(benchmark::State &state)
{
    runOverCases(state, [](const Case &c) {
        benchmark::DoNotOptimize(volatByTheorPrice(c.in, c.put, c.target, 0, 1, 300, 1e-8, 1e-6));
    });
}

void BM_ImpliedTextbook(benchmark::State &state)
{
    runOverCases(state, [](const Case &c) { benchmark::DoNotOptimize(textbookImplied(c)); });
}

BENCHMARK(BM_GreeksLibrary)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GreeksTextbook)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ImpliedLibrary)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ImpliedTextbook)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    cases(); // generate the inputs outside the measurements
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto ratio = [&](const char *library, const char *textbook, const char *what) {
        const double a = reporter.rate(library);
        const double b = reporter.rate(textbook);
        if (a > 0 && b > 0)
            std::printf("%s: library %.3g/s, textbook %.3g/s, ratio %.2f\n", what, a, b, a / b);
    };
    ratio("BM_GreeksLibrary", "BM_GreeksTextbook", "calcVolatParams (prices and greeks)");
    ratio("BM_ImpliedLibrary", "BM_ImpliedTextbook", "volatByTheorPrice (implied volatility)");
    return 0;
}
