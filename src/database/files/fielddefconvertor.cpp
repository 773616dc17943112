#include <database/fielddefconvertor.h>

#include <database/datetime.h>
#include <database/decimal.h>
#include <database/exception.h>

#include <QLocale>

#include <cmath>
#include <cstring>
#include <limits>

namespace {

void copyPresence(Field &target, const Field &source)
{
    target.setPresent(!source.isNull());
}

// A null target: zero cell, presence bit cleared.
void clearTarget(Field &target)
{
    std::memset(target.data, 0, size_t(target.def->size));
    target.setPresent(false);
}

// --- readers of a non-null source --------------------------------------------------

qint64 integerOf(const Field &source)
{
    return source.type() == FieldType::Integer ? qint64(source.get<qint32>())
                                               : source.get<qint64>();
}

// A double that is a whole number within [min, max] as an integer.
bool integralDouble(double value, double min, double max, qint64 *out)
{
    if (!std::isfinite(value) || value != std::trunc(value) || value < min || value > max)
        return false;
    *out = qint64(value);
    return true;
}

// A decimal that is a whole number, as a 64-bit integer.
bool integralDecimal(const decimal &value, qint64 *out)
{
    qint64 mantissa = value.mantissa();
    int scale = value.scale();
    for (; scale > 0; --scale) {
        if (mantissa % 10 != 0)
            return false;
        mantissa /= 10;
    }
    for (; scale < 0; ++scale) {
        if (mantissa > std::numeric_limits<qint64>::max() / 10
            || mantissa < std::numeric_limits<qint64>::min() / 10)
            return false;
        mantissa *= 10;
    }
    *out = mantissa;
    return true;
}

bool storeInteger(Field &target, qint64 value)
{
    switch (target.type()) {
    case FieldType::Integer:
        if (value < std::numeric_limits<qint32>::min()
            || value > std::numeric_limits<qint32>::max())
            return false;
        target.set<qint32>(qint32(value));
        return true;
    case FieldType::Integer64:
    case FieldType::DateTime:
        target.set<qint64>(value);
        return true;
    case FieldType::Double:
        target.set<double>(double(value));
        return true;
    case FieldType::Decimal:
        if (value <= -decimal::MantissaLimit || value >= decimal::MantissaLimit)
            return false;
        target.set<quint64>(decimal(value, 0).raw());
        return true;
    default:
        return false;
    }
}

bool parseText(Field &target, const QString &text)
{
    if (text.isEmpty())
        return false;
    bool ok = false;
    switch (target.type()) {
    case FieldType::Integer: {
        const int value = text.toInt(&ok, 10);
        if (ok)
            target.set<qint32>(value);
        return ok;
    }
    case FieldType::Integer64: {
        const qlonglong value = text.toLongLong(&ok, 10);
        if (ok)
            target.set<qint64>(value);
        return ok;
    }
    case FieldType::Double: {
        const double value = text.toDouble(&ok);
        if (ok)
            target.set<double>(value);
        return ok;
    }
    case FieldType::Decimal:
        try {
            target.set<quint64>(decimal::fromString(text).raw());
            return true;
        } catch (const QString &) {
            return false;
        }
    case FieldType::DateTime: {
        const datetime value = datetime::fromText(text, &ok);
        if (ok)
            target.set<qint64>(value.msecs());
        return ok;
    }
    default:
        return false;
    }
}

// --- the conversion functions of the table ---------------------------------------------

bool fromInteger(Field &target, const Field &source)
{
    return storeInteger(target, integerOf(source));
}

bool fromDouble(Field &target, const Field &source)
{
    const double value = source.get<double>();
    qint64 integer = 0;
    switch (target.type()) {
    case FieldType::Integer:
        return integralDouble(value, std::numeric_limits<qint32>::min(),
                              std::numeric_limits<qint32>::max(), &integer)
            && storeInteger(target, integer);
    case FieldType::Integer64:
        // 2^63 itself is not an Integer64; the largest double below it is.
        return integralDouble(value, -9223372036854775808.0, 9223372036854774784.0, &integer)
            && storeInteger(target, integer);
    case FieldType::Decimal:
        if (!std::isfinite(value))
            return false;
        try {
            const QString text = QString::number(value, 'g', QLocale::FloatingPointShortest);
            target.set<quint64>(decimal::fromString(text).raw());
            return true;
        } catch (const QString &) {
            return false;
        }
    default:
        return false;
    }
}

bool fromDecimal(Field &target, const Field &source)
{
    const decimal value = decimal::fromRaw(source.get<quint64>());
    if (target.type() == FieldType::Double) {
        target.set<double>(value.toDouble());
        return true;
    }
    qint64 integer = 0;
    return integralDecimal(value, &integer) && storeInteger(target, integer);
}

bool fromDateTime(Field &target, const Field &source)
{
    target.set<qint64>(source.get<qint64>());
    return true;
}

bool toText(Field &target, const Field &source)
{
    FieldType::setString(target.data, target.def->length, source.toString());
    target.setPresent(true);
    return true;
}

// An empty text is an absent value, not a failure.
bool fromText(Field &target, const Field &source)
{
    const QString text = FieldType::getString(source.data, source.def->length);
    if (text.isEmpty()) {
        clearTarget(target);
        return true;
    }
    return parseText(target, text);
}

typedef bool (*ConvertFunction)(Field &target, const Field &source);

bool isNumber(int type)
{
    return type == FieldType::Integer || type == FieldType::Integer64 || type == FieldType::Double
        || type == FieldType::Decimal;
}

// The table's entry for two different (or differently sized) types; null when
// the pair is refused.
ConvertFunction functionFor(int sourceType, int targetType)
{
    if (targetType == FieldType::BoardList || sourceType == FieldType::BoardList)
        return nullptr;
    if (targetType == FieldType::VarChar)
        return sourceType == FieldType::Invalid ? nullptr : toText;
    if (sourceType == FieldType::VarChar)
        return isNumber(targetType) || targetType == FieldType::DateTime ? fromText : nullptr;
    switch (sourceType) {
    case FieldType::Integer:
        return isNumber(targetType) ? fromInteger : nullptr;
    case FieldType::Integer64:
        return isNumber(targetType) || targetType == FieldType::DateTime ? fromInteger : nullptr;
    case FieldType::Double:
        return isNumber(targetType) ? fromDouble : nullptr;
    case FieldType::Decimal:
        return isNumber(targetType) ? fromDecimal : nullptr;
    case FieldType::DateTime:
        return targetType == FieldType::Integer64 ? fromDateTime : nullptr;
    default:
        return nullptr;
    }
}

[[noreturn]] void refuse(int sourceType, int targetType)
{
    if (targetType == FieldType::DateTime && sourceType == FieldType::Double)
        throw Exception(QStringLiteral("Can't convert double to datetime."));
    if (targetType == FieldType::DateTime && sourceType == FieldType::Decimal)
        throw Exception(QStringLiteral("Can't convert from decimal to datetime."));
    Field::incompatibleType(targetType, sourceType);
}

} // namespace

// --- FieldDefConvertor ------------------------------------------------------------------

FieldDefConvertor::FieldDefConvertor(const TableColumnDef *source, const TableColumnDef *target)
    : m_source(source)
    , m_target(target)
{
}

FieldDefConvertor::~FieldDefConvertor() = default;

void FieldDefConvertor::bind(const TableColumnDef *source, const TableColumnDef *target)
{
    m_source = source;
    m_target = target;
}

bool FieldDefConvertor::canConvert(int sourceType, int targetType)
{
    if (sourceType == targetType)
        return sourceType > FieldType::Invalid && sourceType <= FieldType::BoardList;
    return functionFor(sourceType, targetType) != nullptr;
}

FieldDefConvertor *FieldDefConvertor::create(const TableColumnDef *source,
                                             const TableColumnDef *target)
{
    if (source->type == target->type && source->size == target->size) {
        if (target->size == 4)
            return new FieldDefConvertor_Copy4(source, target);
        if (target->size == 8)
            return new FieldDefConvertor_Copy8(source, target);
        return new FieldDefConvertor_CopySized(source, target);
    }
    return new FieldDefConvertor_Value(source, target);
}

// --- copies -------------------------------------------------------------------------------

void FieldDefConvertor_Copy4::convert(Field &target, const Field &source)
{
    std::memcpy(target.data, source.data, 4);
    copyPresence(target, source);
}

FieldDefConvertor *FieldDefConvertor_Copy4::clone() const
{
    return new FieldDefConvertor_Copy4(source(), target());
}

void FieldDefConvertor_Copy8::convert(Field &target, const Field &source)
{
    std::memcpy(target.data, source.data, 8);
    copyPresence(target, source);
}

FieldDefConvertor *FieldDefConvertor_Copy8::clone() const
{
    return new FieldDefConvertor_Copy8(source(), target());
}

FieldDefConvertor_CopySized::FieldDefConvertor_CopySized(const TableColumnDef *source,
                                                         const TableColumnDef *target)
    : FieldDefConvertor(source, target)
    , m_size(qMin(source->size, target->size))
{
}

void FieldDefConvertor_CopySized::convert(Field &target, const Field &source)
{
    std::memcpy(target.data, source.data, size_t(m_size));
    copyPresence(target, source);
}

FieldDefConvertor *FieldDefConvertor_CopySized::clone() const
{
    return new FieldDefConvertor_CopySized(source(), target());
}

// --- value conversions ------------------------------------------------------------------------

FieldDefConvertor_Value::FieldDefConvertor_Value(const TableColumnDef *source,
                                                 const TableColumnDef *target)
    : FieldDefConvertor(source, target)
    , m_function(functionFor(source->type, target->type))
{
    if (!m_function)
        refuse(source->type, target->type);
}

void FieldDefConvertor_Value::convert(Field &target, const Field &source)
{
    if (source.isNull()) {
        clearTarget(target);
        return;
    }
    if (!m_function(target, source)) {
        clearTarget(target);
        countFailure();
    }
}

FieldDefConvertor *FieldDefConvertor_Value::clone() const
{
    return new FieldDefConvertor_Value(source(), target());
}
