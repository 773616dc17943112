// Option pricing: theoretical prices and greeks of a European option, and the
// implied volatility that reproduces a market price.

#include <database/database.h>

#include <cmath>
#include <cstdio>

int main()
{
    //! [price]
    // Volatilities are in percent (20 means 20 %); time enters as the square
    // root of the years to expiry. The smile fields matter only when the
    // volatility is taken from the smile (a negative volatility argument).
    VolatInputParams in {};
    in.strike = 100;
    in.price = 105;
    in.sqrtTime = std::sqrt(30.0 / 365.0);
    VolatOutputParams out {};
    calcVolatParams(out, in, 20.0);
    std::printf("call %.4f put %.4f delta %.4f gamma %.4f vega %.4f theta %.4f\n", out.priceCall,
                out.pricePut, out.deltaCall, out.gamma, out.vega, out.theta);
    //! [price]

    //! [implied]
    // The volatility at which the call is worth its market price, searched in
    // 1 .. 300 %: Newton's method from 50 %, then bisection.
    const double implied = volatByTheorPrice(in, false, out.priceCall, 50, 1, 300, 1e-6, 1e-6);
    std::printf("implied volatility %.4f %%\n", implied);

    // -1 means the input was unusable (no strike, price or time, an empty
    // range). A price that no volatility in the range reaches is different:
    // the search ends at the nearer bound, so compare with the bounds.
    const double tooDear = volatByTheorPrice(in, false, 90.0, 50, 1, 300, 1e-6, 1e-6);
    std::printf("a call priced at 90: %.2f (the upper bound)\n", tooDear);
    //! [implied]

    return std::fabs(implied - 20.0) < 1e-3 && std::fabs(tooDear - 300.0) < 1e-3 ? 0 : 1;
}
