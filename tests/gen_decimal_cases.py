#!/usr/bin/env python3
"""Writes tests/data/decimal_cases.txt: reference results for the decimal type,
computed with Python's decimal module on generated values (fixed seed).

Lines, fields separated by one tab:
  P  text  mantissa  scale         the text parses to mantissa / 10^scale
  E  text                          the text is refused
  C  m1  s1  m2  s2  order         compare(m1/10^s1, m2/10^s2) is order (-1, 0, 1)
  S  m  s  new  m2  s2             setScale(new) of m/10^s gives m2/10^s2
  T  m  s  text                    toString of m/10^s
"""
import decimal
import os
import random
import sys

D = decimal.Decimal
decimal.getcontext().prec = 400
LIMIT = 1 << 56

rng = random.Random(20240611)


def exact(m, s):
    """m / 10^s as an exact Decimal."""
    return D((0 if m >= 0 else 1, tuple(int(c) for c in str(abs(m))), -s))


def digits(n):
    return ''.join(rng.choice('0123456789') for _ in range(n))


def sign():
    return rng.choice(['', '', '-', '+'])


def mantissa():
    kind = rng.random()
    if kind < 0.1:
        return 0
    if kind < 0.2:
        m = LIMIT - 1 - rng.randrange(1000)
    else:
        m = rng.randrange(10 ** rng.randint(1, 17))
        m = min(m, LIMIT - 1)
    return -m if rng.random() < 0.4 else m


def scale():
    if rng.random() < 0.7:
        return rng.randint(-6, 18)
    return rng.randint(-64, 63)


def parse_case():
    form = rng.random()
    if form < 0.35:
        text = sign() + digits(rng.randint(1, 21))
        # Whole numbers of any length parse (digits past the mantissa are
        # dropped into a negative scale), so that toString() reads back.
        v = int(text)
        s = 0
        while abs(v) >= LIMIT:
            v = -(abs(v) // 10) if v < 0 else v // 10
            s -= 1
        return ('P', text, v, s)
    if form < 0.7:
        whole, frac = digits(rng.randint(0, 10)), digits(rng.randint(1, 19))
        text = sign() + whole + '.' + frac
        m, s = int(whole + frac), len(frac)
    else:
        whole = digits(rng.randint(1, 9))
        frac = digits(rng.randint(0, 8))
        point = '.' if frac or rng.random() < 0.5 else ''
        exp = rng.randint(-80, 80)
        exptext = ('+' if exp >= 0 and rng.random() < 0.3 else '') + str(exp)
        text = sign() + whole + point + frac + 'e' + exptext
        m, s = int(whole + frac), len(frac) - exp
    if m >= LIMIT or not -64 <= s <= 63:
        return ('E', text)
    if text.startswith('-'):
        m = -m
    assert exact(m, s) == D(text)
    return ('P', text, m, s)


def compare_case():
    m1, s1 = mantissa(), scale()
    if rng.random() < 0.3:
        m2, s2 = m1 * rng.choice([1, -1]), s1 + rng.randint(-18, 18)
        s2 = max(-64, min(63, s2))
    else:
        m2, s2 = mantissa(), scale()
    if rng.random() < 0.2:  # same value, other scale
        k = rng.randint(0, 3)
        if abs(m1) * 10 ** k < LIMIT and s1 + k <= 63:
            m2, s2 = m1 * 10 ** k, s1 + k
    a, b = exact(m1, s1), exact(m2, s2)
    return ('C', m1, s1, m2, s2, (a > b) - (a < b))


def set_scale_case():
    m, s = mantissa(), scale()
    new = max(-64, min(63, s + rng.randint(-20, 20)))
    if m == 0:
        return ('S', m, s, new, 0, new)
    if new < s:
        q = exact(m, s).quantize(D((0, (1,), -new)), rounding=decimal.ROUND_HALF_UP)
        m2 = int(q.scaleb(new))
        s2 = new
        while abs(m2) >= LIMIT and s2 > -63:
            m2 = -(abs(m2) // 10) if m2 < 0 else m2 // 10
            s2 -= 1
    else:
        m2, s2 = m, s
        while s2 < new and abs(m2) * 10 < LIMIT:
            m2, s2 = m2 * 10, s2 + 1
        assert exact(m2, s2) == exact(m, s)
    return ('S', m, s, new, m2, s2)


def to_string_case():
    m, s = mantissa(), scale()
    text = format(exact(m, s), 'f')
    if m == 0:
        text = '0' if s <= 0 else '0.' + '0' * s
    return ('T', m, s, text)


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(
        os.path.dirname(os.path.abspath(__file__)), 'data', 'decimal_cases.txt')
    lines = []
    for make, count in ((parse_case, 1500), (compare_case, 1500), (set_scale_case, 1000),
                        (to_string_case, 800)):
        lines += ['\t'.join(str(f) for f in make()) for _ in range(count)]
    with open(out, 'w') as f:
        f.write('\n'.join(lines) + '\n')


if __name__ == '__main__':
    main()
