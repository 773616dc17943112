#ifndef DATABASE_DECIMAL_H
#define DATABASE_DECIMAL_H

#include <database/database_global.h>

#include <QLocale>
#include <QMetaType>
#include <QString>
#include <QVariant>

class QDataStream;
class QDebug;

// decimal: the exact fixed-point number used for prices and quantities.
//
// It occupies one 64-bit word, so that a Decimal cell of a row holds it in
// place, and it carries its own scale, so that values of different precision
// compare and convert exactly:
//
//   bit  63      sign of the mantissa
//   bits 62..56  scale, a signed 7-bit number (-64 .. 63)
//   bits 55..0   low 56 bits of the mantissa
//
// The value is mantissa / 10^scale (a negative scale multiplies). The mantissa
// is a 57-bit two's complement number: for a negative value bits 56..63 of the
// 64-bit mantissa are all ones.
//
// Invariants of every value this class makes:
//  1. |mantissa| < 2^56 (MantissaLimit).
//  2. A zero mantissa is stored without the sign bit; its scale carries no
//     meaning for comparisons (every zero equals every other zero).
//  3. Values of different scale compare by value: 1.5 == 1.50.
//
// Errors: the text parsers throw a QString ("Невозможно создать decimal по
// строке '%1'" or, when a part of a matching text cannot be represented, the
// same message followed by " (%2)" with that part: the digits that overflow the
// mantissa or the exponent that leaves the scale range). fromDouble() throws the
// character string "decimal:overflow" (a const char *) when the value does not
// fit the mantissa.
//
// Thread-safety: a value type; the static parsers are reentrant.
class DATABASE_EXPORT decimal
{
public:
    static constexpr qint64 MantissaLimit = Q_INT64_C(72057594037927936); // 2^56
    static constexpr int MinScale = -64;
    static constexpr int MaxScale = 63;
    // Passed as `scale` to the locale parsers: keep the scale the text has.
    static constexpr int TextScale = -128;

    // Zero with scale 0.
    constexpr decimal() noexcept = default;
    // mantissa / 10^scale. A mantissa out of range is brought in range by
    // dividing by 10 (truncating) and lowering the scale, as an integer text
    // is; a scale outside MinScale..MaxScale is a misuse: it is clamped (with
    // a warning) and the value is rescaled to it.
    decimal(qint64 mantissa, int scale);
    // Same as fromString().
    explicit decimal(const QString &text);

    // The raw 64-bit word, as it lies in a row cell or a file.
    static decimal fromRaw(quint64 word) noexcept
    {
        decimal d;
        d.m_word = word;
        return d;
    }
    quint64 raw() const noexcept { return m_word; }

    // --- text -----------------------------------------------------------------
    // The exact grammar, one of (each matching the whole text, no spaces):
    //   [+-]digits                 scale 0; a number that does not fit the
    //                              mantissa is divided by 10 (truncating) and
    //                              its scale lowered until it fits, whatever
    //                              its length (refused past scale -64), so
    //                              that every toString() reads back to an
    //                              equal value, also above 2^63
    //   [+-][digits].digits        scale = number of fraction digits
    //   [+-]digits[.][digits]e[+-]digits
    //                              scale = fraction digits - exponent
    // Throws QString otherwise, and when the digits of a fraction or exponent
    // form do not fit the mantissa or the scale leaves -64..63.
    static decimal fromString(const QString &text);
    // True when the text parses. With `anyForm` false the text must follow
    // fromString()'s grammar; with `anyForm` true the rules of fromAnyString().
    static bool canConvert(const QString &text, bool anyForm = false);
    static bool canConvert(const char *text, bool anyForm = false)
    {
        return canConvert(QString::fromUtf8(text), anyForm);
    }

    // Text as a person types it in `locale`:
    //  - surrounding white space is ignored; a sign (+, -, U+2212 or the
    //    locale's signs) may lead;
    //  - spaces of any kind between digits are group separators (space, no-break
    //    space U+00A0, narrow no-break space U+202F, thin space), and so are the
    //    apostrophes ' and U+2019 and the locale's own group separator when it
    //    is not a point or a comma;
    //  - of the point and the comma: when both appear, the last one is the
    //    decimal separator and the other one separates groups of three digits;
    //    a separator appearing more than once separates groups; a single one is
    //    the decimal separator unless it is the locale's group separator and
    //    stands before exactly three last digits ("1,234" is 1234 in an English
    //    locale and 1.234 in a Russian one; "1,5" is 1.5 in both);
    //  - group separators must delimit groups of three digits (the first group 1
    //    to 3 digits), otherwise the text is refused;
    //  - an exponent e or E may follow, as in fromString().
    // With `scale` other than TextScale the result is brought to that scale
    // (setScale()). Throws the parse QString quoting the original text.
    static decimal fromLocaleString(const QString &text, const QLocale &locale,
                                    int scale = TextScale);
    // fromLocaleString() with the system locale.
    static decimal fromSystemString(const QString &text, int scale = TextScale);
    // Any form a user may give: the exact grammar, else the system-locale rules
    // above. Never throws: a text that fails gives zero and *ok = false.
    static decimal fromAnyString(const QString &text, bool *ok = nullptr);

    // The nearest value with the given scale, halves rounded away from zero.
    // Throws "decimal:overflow" (const char *) when the scaled value is not a
    // finite number below 2^56 in magnitude. A scale outside -64..63 is clamped
    // with a warning.
    static decimal fromDouble(double value, qint16 scale);

    // --- value ----------------------------------------------------------------
    qint64 mantissa() const noexcept;
    int scale() const noexcept
    {
        const int bits = int((m_word >> 56) & 0x7f);
        return bits >= 64 ? bits - 128 : bits;
    }
    bool isZero() const noexcept { return mantissa() == 0; }
    bool isNegative() const noexcept { return mantissa() < 0; }

    // -1, 0 or 1: this value against `other`, by value whatever the scales.
    int compare(const decimal &other) const noexcept;

    // Changes the scale keeping the value: dropped digits round half away from
    // zero; a raise stops early where the mantissa would leave its range. A scale
    // outside -64..63 is clamped with a warning.
    void setScale(int scale);
    // A copy with the new scale (see setScale()).
    decimal withScale(int scale) const
    {
        decimal d = *this;
        d.setScale(scale);
        return d;
    }

    double toDouble() const;

    // "-12.50": the digits of the mantissa with a point before the last `scale`
    // of them (zero-padded to at least one integer digit); a scale of 0 or less
    // writes the whole number ("1000" for mantissa 1, scale -3).
    QString toString() const;
    // The system locale's form with all digits of the scale: its decimal point,
    // its group separator and its minus sign ("1 234,50" in a Russian locale).
    QString toSystemString() const;
    // As toSystemString(), without the trailing zeros of the fraction (and the
    // decimal point when nothing is left after it): "1 234,5".
    QString toSystemStringShort() const;
    // The form a spreadsheet imports as a number in the system locale: no group
    // separators, the locale's decimal point, plain '-' ("-1234,50").
    QString toExcelString() const;
    // The forms above for a given locale.
    QString toLocaleString(const QLocale &locale) const;
    QString toLocaleStringShort(const QLocale &locale) const;
    QString toExcelString(const QLocale &locale) const;

    // --- variants -------------------------------------------------------------
    static int metatypeId();
    // True for a decimal variant, an integer or floating-point variant, and a
    // variant whose text fromAnyString() accepts.
    static bool canConvert(const QVariant &variant);
    QVariant toVariant() const;
    // A decimal variant as it is; integers with scale 0; floating point numbers
    // by their shortest exact text ("0.1" gives 1 with scale 1); text by
    // fromAnyString(). Anything else gives zero with *ok = false.
    static decimal fromVariant(const QVariant &variant, bool *ok = nullptr);

    bool operator==(const decimal &o) const noexcept { return compare(o) == 0; }
    bool operator!=(const decimal &o) const noexcept { return compare(o) != 0; }
    bool operator<(const decimal &o) const noexcept { return compare(o) < 0; }
    bool operator<=(const decimal &o) const noexcept { return compare(o) <= 0; }
    bool operator>(const decimal &o) const noexcept { return compare(o) > 0; }
    bool operator>=(const decimal &o) const noexcept { return compare(o) >= 0; }

private:
    void assign(qint64 mantissa, int scale) noexcept;

    quint64 m_word = 0;
};

static_assert(sizeof(decimal) == 8, "a decimal is one 64-bit word");

// Equal values hash alike whatever their scales.
DATABASE_EXPORT uint qHash(const decimal &value, uint seed = 0) noexcept;
// The raw word, as a quint64.
DATABASE_EXPORT QDataStream &operator<<(QDataStream &stream, const decimal &value);
DATABASE_EXPORT QDataStream &operator>>(QDataStream &stream, decimal &value);
DATABASE_EXPORT QDebug operator<<(QDebug debug, const decimal &value);

Q_DECLARE_METATYPE(decimal)
Q_DECLARE_TYPEINFO(decimal, Q_PRIMITIVE_TYPE);

#endif // DATABASE_DECIMAL_H
