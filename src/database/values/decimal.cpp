#include <database/decimal.h>

#include <QDataStream>
#include <QDebug>
#include <QHash>
#include <QObject>
#include <QStringView>

#include <cmath>
#include <limits>

namespace {

constexpr quint64 Mask56 = (quint64(1) << 56) - 1;
constexpr quint64 Limit = quint64(decimal::MantissaLimit);

bool isAsciiDigit(QChar c)
{
    return c.unicode() >= '0' && c.unicode() <= '9';
}

bool fits(qint64 mantissa)
{
    return mantissa < decimal::MantissaLimit && mantissa > -decimal::MantissaLimit;
}

int clampScale(int scale, const char *where)
{
    if (scale >= decimal::MinScale && scale <= decimal::MaxScale)
        return scale;
    qWarning("%s: scale %d is outside %d..%d", where, scale, decimal::MinScale, decimal::MaxScale);
    return qBound(decimal::MinScale, scale, decimal::MaxScale);
}

QString parseError(const QString &text)
{
    return QObject::tr("Невозможно создать decimal по строке '%1'").arg(text);
}

QString parseError(const QString &text, const QString &detail)
{
    // The two-argument arg() replaces both markers in one pass, so a '%2' typed
    // by the user inside `text` stays as it is.
    return QObject::tr("Невозможно создать decimal по строке '%1' (%2)").arg(text, detail);
}

// The outcome of matching the exact grammar: a value, no match at all, or a
// matching text whose digits or exponent cannot be represented (`detail` holds
// the offending part).
struct ParseResult
{
    enum Status { Ok, NoMatch, Unrepresentable };
    Status status = NoMatch;
    qint64 mantissa = 0;
    int scale = 0;
    QString detail;
};

// Accumulates ASCII digits into a magnitude; false when it would pass `limit`.
bool accumulate(QStringView digits, quint64 limit, quint64 *value)
{
    quint64 v = *value;
    for (QChar c : digits) {
        const quint64 d = quint64(c.unicode() - '0');
        if (v > (limit - d) / 10)
            return false;
        v = v * 10 + d;
    }
    *value = v;
    return true;
}

ParseResult parseExact(QStringView text)
{
    ParseResult r;
    const int n = int(text.size());
    int i = 0;
    bool negative = false;
    if (i < n && (text[i] == QLatin1Char('+') || text[i] == QLatin1Char('-'))) {
        negative = text[i] == QLatin1Char('-');
        ++i;
    }
    const int intStart = i;
    while (i < n && isAsciiDigit(text[i]))
        ++i;
    const QStringView intDigits = text.mid(intStart, i - intStart);

    if (i == n) {
        // A whole number of any length: the leading digits that fit the
        // mantissa are kept and each further digit lowers the scale by one
        // (truncating). toString() writes large values as whole numbers with
        // trailing zeros, so every text it makes reads back to an equal value.
        if (intDigits.isEmpty())
            return r;
        quint64 magnitude = 0;
        int scale = 0;
        for (QChar c : intDigits) {
            const quint64 d = quint64(c.unicode() - '0');
            // magnitude < 2^56, so the product cannot overflow.
            if (scale == 0 && magnitude * 10 + d < Limit) {
                magnitude = magnitude * 10 + d;
                continue;
            }
            if (--scale < decimal::MinScale) {
                r.status = ParseResult::Unrepresentable;
                r.detail = text.toString();
                return r;
            }
        }
        r.status = ParseResult::Ok;
        r.mantissa = negative ? -qint64(magnitude) : qint64(magnitude);
        r.scale = scale;
        return r;
    }

    QStringView fracDigits;
    if (text[i] == QLatin1Char('.')) {
        const int fracStart = ++i;
        while (i < n && isAsciiDigit(text[i]))
            ++i;
        fracDigits = text.mid(fracStart, i - fracStart);
        if (i == n && fracDigits.isEmpty())
            return r;
    }
    qint64 exponent = 0;
    QStringView exponentText;
    if (i < n) {
        if (text[i] != QLatin1Char('e') || intDigits.isEmpty())
            return r;
        const int expStart = ++i;
        bool expNegative = false;
        if (i < n && (text[i] == QLatin1Char('+') || text[i] == QLatin1Char('-'))) {
            expNegative = text[i] == QLatin1Char('-');
            ++i;
        }
        const int expDigits = i;
        while (i < n && isAsciiDigit(text[i]))
            ++i;
        if (i != n || i == expDigits)
            return r;
        exponentText = text.mid(expStart);
        quint64 magnitude = 0;
        if (!accumulate(text.mid(expDigits), expNegative ? 0x80000000u : 0x7fffffffu, &magnitude)) {
            r.status = ParseResult::Unrepresentable;
            r.detail = exponentText.toString();
            return r;
        }
        exponent = expNegative ? -qint64(magnitude) : qint64(magnitude);
    }

    quint64 magnitude = 0;
    if (!accumulate(intDigits, Limit - 1, &magnitude)
        || !accumulate(fracDigits, Limit - 1, &magnitude)) {
        r.status = ParseResult::Unrepresentable;
        r.detail = intDigits.toString() + fracDigits.toString();
        return r;
    }
    const qint64 scale = qint64(fracDigits.size()) - exponent;
    if (scale < decimal::MinScale || scale > decimal::MaxScale) {
        r.status = ParseResult::Unrepresentable;
        r.detail = exponentText.isEmpty() ? fracDigits.toString() : exponentText.toString();
        return r;
    }
    r.status = ParseResult::Ok;
    r.mantissa = negative ? -qint64(magnitude) : qint64(magnitude);
    r.scale = int(scale);
    return r;
}

[[noreturn]] void throwParseError(const QString &text, const ParseResult &r)
{
    if (r.status == ParseResult::Unrepresentable)
        throw parseError(text, r.detail);
    throw parseError(text);
}

bool isGroupOnly(QChar c, const QLocale &locale)
{
    if (c.isSpace() || c == QLatin1Char('\'') || c == QChar(0x2019))
        return true;
    const QChar group = locale.groupSeparator();
    return c == group && group != QLatin1Char('.') && group != QLatin1Char(',');
}

// Rewrites a text typed in `locale` into the exact grammar (see the header for
// the rules). False when the text cannot be read.
bool normalizeLocaleText(const QString &original, const QLocale &locale, QString *out)
{
    const QString text = original.trimmed();
    const int n = text.size();
    int i = 0;
    QString result;
    result.reserve(n);
    if (i < n) {
        const QChar c = text[i];
        if (c == QLatin1Char('-') || c == QChar(0x2212) || c == locale.negativeSign()) {
            result += QLatin1Char('-');
            ++i;
        } else if (c == QLatin1Char('+') || c == locale.positiveSign()) {
            ++i;
        }
    }

    // The mantissa as runs of digits and the marks between them.
    QVector<QString> runs(1);
    QVector<QChar> marks; // ' ' for a group-only mark, otherwise '.' or ','
    for (; i < n; ++i) {
        const QChar c = text[i];
        if (c == QLatin1Char('e') || c == QLatin1Char('E'))
            break;
        if (isAsciiDigit(c)) {
            runs.last() += c;
        } else if (c == QLatin1Char('.') || c == QLatin1Char(',') || isGroupOnly(c, locale)) {
            marks.append(c == QLatin1Char('.') || c == QLatin1Char(',') ? c : QLatin1Char(' '));
            runs.append(QString());
        } else {
            return false;
        }
    }

    // Which mark, if any, is the decimal separator.
    int decimalMark = -1;
    const int points = int(marks.count(QLatin1Char('.')));
    const int commas = int(marks.count(QLatin1Char(',')));
    if (points + commas > 0) {
        int last = int(marks.size()) - 1;
        while (marks[last] == QLatin1Char(' '))
            --last;
        const QChar kind = marks[last];
        const int ofKind = kind == QLatin1Char('.') ? points : commas;
        if (points > 0 && commas > 0) {
            if (ofKind != 1)
                return false;
            decimalMark = last;
        } else if (ofKind == 1) {
            const bool isLocaleGroup
                = kind == locale.groupSeparator() && kind != locale.decimalPoint();
            const bool groupShaped = runs[last + 1].size() == 3 && last + 1 == int(runs.size()) - 1
                && !runs[last].isEmpty() && runs[last].size() <= 3;
            if (!(isLocaleGroup && groupShaped))
                decimalMark = last;
        }
    }

    // Marks before the decimal separator (or all of them) must delimit groups
    // of three digits; none may follow the decimal separator.
    const int groupMarks = decimalMark < 0 ? int(marks.size()) : decimalMark;
    if (decimalMark >= 0 && decimalMark != int(marks.size()) - 1)
        return false;
    for (int m = 0; m < groupMarks; ++m) {
        const int before = int(runs[m].size());
        if ((m == 0 && (before < 1 || before > 3)) || (m > 0 && before != 3))
            return false;
        if (runs[m + 1].size() != 3)
            return false;
    }
    for (int r = 0; r <= groupMarks; ++r)
        result += runs[r];
    if (decimalMark >= 0)
        result += QLatin1Char('.') + runs.last();

    if (i < n) {
        result += QLatin1Char('e');
        for (++i; i < n; ++i) {
            const QChar c = text[i];
            if (!isAsciiDigit(c) && c != QLatin1Char('+') && c != QLatin1Char('-'))
                return false;
            result += c;
        }
    }
    *out = result;
    return true;
}

// Digits of the value split at the decimal point, without sign.
void splitDigits(const decimal &value, QString *integer, QString *fraction)
{
    const qint64 m = value.mantissa();
    const quint64 magnitude = m < 0 ? quint64(0) - quint64(m) : quint64(m);
    QString digits = QString::number(magnitude);
    const int scale = value.scale();
    if (scale <= 0) {
        if (magnitude != 0)
            digits += QString(-scale, QLatin1Char('0'));
        *integer = digits;
        fraction->clear();
        return;
    }
    if (digits.size() < scale + 1)
        digits.prepend(QString(scale + 1 - digits.size(), QLatin1Char('0')));
    *integer = digits.left(digits.size() - scale);
    *fraction = digits.right(scale);
}

enum class Form { Full, Short, Excel };

QString localeText(const decimal &value, const QLocale &locale, Form form)
{
    QString integer, fraction;
    splitDigits(value, &integer, &fraction);
    if (form == Form::Short) {
        int keep = fraction.size();
        while (keep > 0 && fraction[keep - 1] == QLatin1Char('0'))
            --keep;
        fraction.truncate(keep);
    }
    QString result;
    if (value.isNegative())
        result += form == Form::Excel ? QLatin1Char('-') : locale.negativeSign();
    const bool grouping
        = form != Form::Excel && !(locale.numberOptions() & QLocale::OmitGroupSeparator);
    if (grouping) {
        const QChar group = locale.groupSeparator();
        for (int k = 0; k < integer.size(); ++k) {
            if (k > 0 && (integer.size() - k) % 3 == 0)
                result += group;
            result += integer[k];
        }
    } else {
        result += integer;
    }
    if (!fraction.isEmpty())
        result += locale.decimalPoint() + fraction;
    return result;
}

} // namespace

decimal::decimal(qint64 mantissa, int scale)
{
    scale = clampScale(scale, "decimal::decimal");
    // Bring the magnitude in range without negating the most negative int64.
    while (!fits(mantissa) && scale > MinScale) {
        mantissa /= 10;
        --scale;
    }
    if (!fits(mantissa)) {
        qWarning("decimal::decimal: %lld with scale %d does not fit", mantissa, scale);
        mantissa = mantissa < 0 ? -(MantissaLimit - 1) : MantissaLimit - 1;
    }
    assign(mantissa, scale);
}

decimal::decimal(const QString &text)
    : decimal(fromString(text))
{
}

void decimal::assign(qint64 mantissa, int scale) noexcept
{
    m_word = (quint64(mantissa) & Mask56) | (quint64(scale & 0x7f) << 56)
        | (mantissa < 0 ? quint64(1) << 63 : 0);
}

qint64 decimal::mantissa() const noexcept
{
    const quint64 low = m_word & Mask56;
    if (m_word >> 63)
        return qint64(low | ~Mask56);
    return qint64(low);
}

decimal decimal::fromString(const QString &text)
{
    const ParseResult r = parseExact(text);
    if (r.status != ParseResult::Ok)
        throwParseError(text, r);
    decimal d;
    d.assign(r.mantissa, r.scale);
    return d;
}

bool decimal::canConvert(const QString &text, bool anyForm)
{
    if (anyForm) {
        bool ok = false;
        fromAnyString(text, &ok);
        return ok;
    }
    return parseExact(text).status == ParseResult::Ok;
}

decimal decimal::fromLocaleString(const QString &text, const QLocale &locale, int scale)
{
    QString normalized;
    if (!normalizeLocaleText(text, locale, &normalized))
        throw parseError(text);
    const ParseResult r = parseExact(normalized);
    if (r.status != ParseResult::Ok)
        throwParseError(text, r);
    decimal d;
    d.assign(r.mantissa, r.scale);
    if (scale != TextScale)
        d.setScale(scale);
    return d;
}

decimal decimal::fromSystemString(const QString &text, int scale)
{
    return fromLocaleString(text, QLocale::system(), scale);
}

decimal decimal::fromAnyString(const QString &text, bool *ok)
{
    ParseResult r = parseExact(text);
    if (r.status != ParseResult::Ok) {
        QString normalized;
        if (normalizeLocaleText(text, QLocale::system(), &normalized))
            r = parseExact(normalized);
    }
    if (ok)
        *ok = r.status == ParseResult::Ok;
    decimal d;
    if (r.status == ParseResult::Ok)
        d.assign(r.mantissa, r.scale);
    return d;
}

decimal decimal::fromDouble(double value, qint16 requestedScale)
{
    const int scale = clampScale(requestedScale, "decimal::fromDouble");
    double scaled = value;
    for (int k = 0; k < scale; ++k)
        scaled *= 10;
    for (int k = 0; k > scale; --k)
        scaled /= 10;
    scaled += scaled > 0 ? 0.5 : -0.5;
    const double limit = double(MantissaLimit);
    if (!(scaled > -limit && scaled < limit)) // NaN fails here too
        throw "decimal:overflow";
    decimal d;
    d.assign(qint64(scaled), scale);
    return d;
}

int decimal::compare(const decimal &other) const noexcept
{
    const int scaleA = scale();
    const int scaleB = other.scale();
    if (scaleA == scaleB) {
        const qint64 a = qint64(m_word);
        const qint64 b = qint64(other.m_word);
        return a < b ? -1 : (a > b ? 1 : 0);
    }
    const qint64 a = mantissa();
    const qint64 b = other.mantissa();
    if (a == 0 || b == 0) {
        const qint64 nonZero = a == 0 ? b : a;
        const int sign = nonZero > 0 ? 1 : (nonZero < 0 ? -1 : 0);
        return a == 0 ? -sign : sign;
    }
    if ((a < 0) != (b < 0))
        return a < 0 ? -1 : 1;
    const int sign = a < 0 ? -1 : 1;
    // A mantissa has at most 17 digits, so 17 more digits of scale always
    // make a value smaller in magnitude.
    const int d = scaleB - scaleA;
    if (d >= 17)
        return sign;
    if (d <= -17)
        return -sign;
    quint64 magA = a < 0 ? quint64(0) - quint64(a) : quint64(a);
    quint64 magB = b < 0 ? quint64(0) - quint64(b) : quint64(b);
    // Raise the magnitude of smaller scale; stop as soon as it passes the
    // other, which also keeps every product below 2^63.
    quint64 *raised = d > 0 ? &magA : &magB;
    const quint64 *fixed = d > 0 ? &magB : &magA;
    int steps = d > 0 ? d : -d;
    if (steps % 2) {
        *raised *= 10;
        --steps;
    }
    while (steps > 0 && *raised <= *fixed) {
        *raised *= 100;
        steps -= 2;
    }
    const int order = magA < magB ? -1 : (magA > magB ? 1 : 0);
    return order * sign;
}

void decimal::setScale(int requested)
{
    const int target = clampScale(requested, "decimal::setScale");
    int current = scale();
    if (current == target)
        return;
    qint64 m = mantissa();
    if (m == 0) {
        assign(0, target);
        return;
    }
    if (target < current) {
        for (int k = current - target; k > 1; --k)
            m /= 10;
        m = m > 0 ? (m + 5) / 10 : (m - 5) / 10;
        current = target;
    } else {
        const qint64 raisable = (MantissaLimit - 1) / 10;
        while (current < target && m <= raisable && m >= -raisable) {
            m *= 10;
            ++current;
        }
    }
    while (!fits(m) && current > MinScale + 1) {
        m /= 10;
        --current;
    }
    assign(m, current);
}

double decimal::toDouble() const
{
    return double(mantissa()) / std::pow(10.0, scale());
}

QString decimal::toString() const
{
    QString integer, fraction;
    splitDigits(*this, &integer, &fraction);
    QString result;
    result.reserve(integer.size() + fraction.size() + 2);
    if (isNegative())
        result += QLatin1Char('-');
    result += integer;
    if (!fraction.isEmpty())
        result += QLatin1Char('.') + fraction;
    return result;
}

QString decimal::toSystemString() const
{
    return toLocaleString(QLocale::system());
}

QString decimal::toSystemStringShort() const
{
    return toLocaleStringShort(QLocale::system());
}

QString decimal::toExcelString() const
{
    return toExcelString(QLocale::system());
}

QString decimal::toLocaleString(const QLocale &locale) const
{
    return localeText(*this, locale, Form::Full);
}

QString decimal::toLocaleStringShort(const QLocale &locale) const
{
    return localeText(*this, locale, Form::Short);
}

QString decimal::toExcelString(const QLocale &locale) const
{
    return localeText(*this, locale, Form::Excel);
}

int decimal::metatypeId()
{
    return qMetaTypeId<decimal>();
}

bool decimal::canConvert(const QVariant &variant)
{
    bool ok = false;
    fromVariant(variant, &ok);
    return ok;
}

QVariant decimal::toVariant() const
{
    return QVariant::fromValue(*this);
}

decimal decimal::fromVariant(const QVariant &variant, bool *ok)
{
    bool converted = true;
    decimal result;
    const int type = variant.userType();
    if (type == metatypeId()) {
        result = variant.value<decimal>();
    } else {
        switch (type) {
        case QMetaType::Int:
        case QMetaType::Short:
        case QMetaType::Char:
        case QMetaType::SChar:
        case QMetaType::Long:
        case QMetaType::LongLong:
            result = decimal(variant.toLongLong(), 0);
            break;
        case QMetaType::UInt:
        case QMetaType::UShort:
        case QMetaType::UChar:
        case QMetaType::ULong:
        case QMetaType::ULongLong: {
            const qulonglong u = variant.toULongLong();
            result = u > quint64(std::numeric_limits<qint64>::max()) ? decimal(qint64(u / 10), -1)
                                                                     : decimal(qint64(u), 0);
            break;
        }
        case QMetaType::Double:
        case QMetaType::Float: {
            const double v = variant.toDouble();
            if (std::isfinite(v))
                result = fromAnyString(QString::number(v, 'g', QLocale::FloatingPointShortest),
                                       &converted);
            else
                converted = false;
            break;
        }
        default:
            if (variant.canConvert<QString>())
                result = fromAnyString(variant.toString().trimmed(), &converted);
            else
                converted = false;
        }
    }
    if (ok)
        *ok = converted;
    return converted ? result : decimal();
}

uint qHash(const decimal &value, uint seed) noexcept
{
    // Equal values must hash alike: drop trailing zeros of the mantissa so
    // that 1.5 and 1.50 meet on the same (mantissa, scale).
    qint64 m = value.mantissa();
    int scale = value.scale();
    if (m == 0)
        return ::qHash(qint64(0), seed);
    while (m % 10 == 0) {
        m /= 10;
        --scale;
    }
    return ::qHash(qMakePair(m, scale), seed);
}

QDataStream &operator<<(QDataStream &stream, const decimal &value)
{
    return stream << quint64(value.raw());
}

QDataStream &operator>>(QDataStream &stream, decimal &value)
{
    quint64 word = 0;
    stream >> word;
    value = decimal::fromRaw(word);
    return stream;
}

QDebug operator<<(QDebug debug, const decimal &value)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << "decimal(" << value.toString() << ')';
    return debug;
}
