#ifndef DATABASE_ORDERKEY_P_H
#define DATABASE_ORDERKEY_P_H

// OrderKey: the 64-bit order keys of the column indexes (IndexSort's
// setOrderKey()), by which a resort orders rows with a radix sort, reading
// each row once instead of comparing rows.
//
// A key stands for one cell's value brought to an integer x (an integer as it
// is; a decimal scaled to the index's key scale and rounded down), and says in
// its lowest bit whether that rounding lost anything:
//
//   0                       a null cell (ascending)
//   1                       present, x below -2^61 (always "rounded")
//   ((x + 2^61 + 1) << 1)   present, -2^61 <= x < 2^61, | 1 when rounded
//   2^64 - 3                present, x at or above 2^61 (always "rounded")
//   2^64 - 2                a null cell (descending)
//
// Invariants:
//  1. The key never decreases as the value grows (ascending): a lesser key
//     means a lesser value. Nulls sort before every present cell.
//  2. Equal even keys mean equal values; equal odd keys decide nothing (two
//     values rounded to the same x).
// A descending column keys the negated value (rounded down as well, so that
// 1 and 2 hold for the reversed order) and puts nulls last.

#include <database/decimal.h>

#include <QtGlobal>

namespace OrderKey {

constexpr qint64 Range = Q_INT64_C(1) << 61;
constexpr quint64 Below = 1;
constexpr quint64 Above = ~quint64(0) - 2;

inline quint64 nullKey(bool descending)
{
    return descending ? ~quint64(0) - 1 : 0;
}

// The key of floor(value) = x, plus `rounded` when value lies strictly
// between x and x + 1. `x` may be anything; out of range it saturates.
inline quint64 ofFloor(qint64 x, bool rounded, bool descending)
{
    if (descending) {
        // floor(-value) = -x - 1 when rounded, -x otherwise.
        if (x < -Range || x >= Range)
            return x < 0 ? Above : Below;
        x = rounded ? -x - 1 : -x;
    }
    if (x < -Range)
        return Below;
    if (x >= Range)
        return Above;
    return (quint64(x + Range + 1) << 1) | quint64(rounded);
}

inline quint64 ofInteger(qint64 value, bool descending)
{
    return ofFloor(value, false, descending);
}

// A decimal's raw word, scaled to `keyScale` decimal places.
inline quint64 ofDecimal(quint64 word, int keyScale, bool descending)
{
    constexpr quint64 low56 = (quint64(1) << 56) - 1;
    const qint64 mantissa = qint64((word >> 63) ? (word | ~low56) : (word & low56));
    if (mantissa == 0)
        return ofFloor(0, false, descending);
    const int scale = int(qint8(quint8((word >> 56) & 0x7f) << 1) >> 1);
    const int shift = keyScale - scale; // value * 10^keyScale = mantissa * 10^shift
    if (shift >= 0) {
        // |mantissa| >= 1, so from 10^19 on the product is out of range.
        if (shift > 18)
            return ofFloor(mantissa > 0 ? Range : -Range - 1, true, descending);
        __int128 scaled = mantissa;
        for (int i = 0; i < shift; ++i)
            scaled *= 10;
        if (scaled >= Range || scaled < -Range)
            return ofFloor(scaled > 0 ? Range : -Range - 1, true, descending);
        return ofFloor(qint64(scaled), false, descending);
    }
    // |mantissa| < 2^56 < 10^17: dividing by 10^18 or more leaves 0 or -1.
    if (-shift > 17)
        return ofFloor(mantissa > 0 ? 0 : -1, true, descending);
    qint64 divisor = 1;
    for (int i = 0; i < -shift; ++i)
        divisor *= 10;
    qint64 quotient = mantissa / divisor;
    const qint64 remainder = mantissa % divisor;
    if (remainder < 0)
        --quotient; // towards minus infinity
    return ofFloor(quotient, remainder != 0, descending);
}

} // namespace OrderKey

#endif // DATABASE_ORDERKEY_P_H
