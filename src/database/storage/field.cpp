#include <database/field.h>

#include <database/exception.h>
#include <database/table.h>

#include <QDebug>
#include <QLocale>

namespace {

QString incorrectType()
{
    return QStringLiteral("Incorrect type of field.");
}

QString badCharLength(int length)
{
    return QStringLiteral("String length is not 1 for QChar: %1.").arg(length);
}

[[noreturn]] void cannotRead(const QString &text, int type)
{
    throw Exception(QStringLiteral("Can't convert from '%1'' to %2")
                        .arg(text, QLatin1String(FieldType::typeName(type))));
}

// Reads `text` into `field` by its type; every success marks the cell present.
void assignText(Field &field, const QString &text)
{
    bool ok = false;
    switch (field.type()) {
    case FieldType::Integer: {
        const qint32 value = text.toInt(&ok, 10);
        if (!ok)
            cannotRead(text, field.type());
        field.set(value);
        break;
    }
    case FieldType::Integer64: {
        const qint64 value = text.toLongLong(&ok, 10);
        if (!ok)
            cannotRead(text, field.type());
        field.set(value);
        break;
    }
    case FieldType::Double: {
        const double value = text.toDouble(&ok);
        if (!ok)
            cannotRead(text, field.type());
        field.set(value);
        break;
    }
    case FieldType::Decimal:
        field.set(decimal(text));
        break;
    case FieldType::VarChar:
        FieldType::setString(field.data, field.def->length, text);
        field.setPresent(true);
        break;
    case FieldType::DateTime:
        field.set(datetime::fromText(text));
        break;
    default:
        field.incompatibleType(FieldType::VarChar);
    }
}

} // namespace

const char *Field::typeName() const
{
    switch (type()) {
    case FieldType::Invalid:
        return "Invalid";
    case FieldType::Integer:
        return "Integer";
    case FieldType::Integer64:
        return "Integer64";
    case FieldType::Double:
        return "Double";
    case FieldType::Decimal:
        return "Decimal";
    case FieldType::VarChar:
        return "String";
    case FieldType::DateTime:
        return "DateTime";
    default:
        return "undefined";
    }
}

QString Field::toString() const
{
    if (isNull())
        return QString();
    switch (type()) {
    case FieldType::Invalid:
        return QString();
    case FieldType::Integer:
        return QStringLiteral("%1").arg(get<qint32>());
    case FieldType::Integer64:
        return QStringLiteral("%1").arg(get<qint64>());
    case FieldType::Double:
        return QStringLiteral("%1").arg(get<double>(), 0, 'g', -1);
    case FieldType::Decimal:
        return get<decimal>().toString();
    case FieldType::VarChar:
        return FieldType::getString(data, def->length);
    case FieldType::DateTime:
        return get<datetime>().toString();
    case FieldType::BoardList:
        return QStringLiteral("[BoardList]");
    default:
        throw incorrectType();
    }
}

QString Field::toSystemString() const
{
    if (isNull())
        return QString();
    const QLocale locale = QLocale::system();
    switch (type()) {
    case FieldType::Invalid:
        return QString();
    case FieldType::Integer:
        return locale.toString(get<qint32>());
    case FieldType::Integer64:
        return locale.toString(get<qint64>());
    case FieldType::Double:
        return locale.toString(get<double>(), 'g', 6);
    case FieldType::Decimal:
        return get<decimal>().toSystemString();
    case FieldType::VarChar:
        return FieldType::getString(data, def->length);
    case FieldType::DateTime:
        return get<datetime>().toLocaleString(locale, true, QLocale::ShortFormat);
    case FieldType::BoardList:
        return get<boardlist>().toString();
    default:
        throw incorrectType();
    }
}

QVariant Field::toVariant() const
{
    if (isNull())
        return QVariant();
    switch (type()) {
    case FieldType::Integer:
        return QVariant(int(get<qint32>()));
    case FieldType::Integer64:
        return QVariant(qlonglong(get<qint64>()));
    case FieldType::Double:
        return QVariant(get<double>());
    case FieldType::Decimal:
        return get<decimal>().toVariant();
    case FieldType::VarChar:
        return QVariant(toString());
    case FieldType::DateTime:
        return QVariant(QDateTime::fromMSecsSinceEpoch(get<qint64>(), Qt::UTC));
    case FieldType::BoardList:
        return QVariant(get<boardlist>().toString());
    default:
        return QVariant();
    }
}

QString Field::asSharedString() const
{
    if (isNull())
        return QString();
    if (type() != FieldType::VarChar)
        throw incorrectType();
    return FieldType::getSharedString(data, def->length);
}

QChar Field::asChar() const
{
    if (isNull())
        throw QStringLiteral("String is null for QChar");
    if (type() != FieldType::VarChar)
        throw incorrectType();
    if (def->length != 1)
        throw badCharLength(def->length);
    return get<QChar>();
}

QChar Field::toChar() const
{
    if (isNull())
        return QChar();
    if (type() != FieldType::VarChar)
        throw incorrectType();
    if (def->length == 0)
        return QChar();
    if (def->length != 1)
        throw badCharLength(def->length);
    return get<QChar>();
}

Field &Field::operator=(const QString &text)
{
    assignText(*this, text);
    return *this;
}

void Field::incompatibleType(int source) const
{
    incompatibleType(type(), source);
}

void Field::incompatibleType(int target, int source)
{
    throw Exception(QStringLiteral("Can't convert from %1 to %2")
                        .arg(QLatin1String(FieldType::typeName(source)),
                             QLatin1String(FieldType::typeName(target))));
}

QDebug operator<<(QDebug debug, const Field &field)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << "Field(" << field.typeName() << ", ";
    if (field.isNull()) {
        debug << "null";
    } else {
        try {
            debug.noquote() << (field.type() == FieldType::BoardList ? field.toSystemString()
                                                                     : field.toString());
        } catch (const QString &message) {
            debug << message;
        }
    }
    debug << ')';
    return debug;
}

// --- FieldValue ---------------------------------------------------------------

FieldValue::FieldValue()
{
    layout();
}

FieldValue::FieldValue(FieldType::Type type, int length, bool nullable)
{
    m_def.type = type;
    m_def.length = length;
    m_def.nullable = nullable;
    layout();
}

FieldValue::FieldValue(const TableColumnDef *def)
{
    init(def);
}

FieldValue::FieldValue(const Table *table, int column)
{
    if (table && column >= 0 && column < table->columnCount()) {
        init(table->columnDef(column));
    } else {
        qWarning("FieldValue: no column %d in table %s", column,
                 table ? qPrintable(table->name()) : "(null)");
        layout();
    }
}

FieldValue::FieldValue(const Table *table, const QString &column)
    : FieldValue(table, table ? table->columnIndex(column) : -1)
{
}

FieldValue::FieldValue(const Field &field)
{
    *this = field;
}

FieldValue::FieldValue(const FieldValue &other)
    : Field()
{
    *this = static_cast<const Field &>(other);
}

FieldValue &FieldValue::operator=(const FieldValue &other)
{
    return *this = static_cast<const Field &>(other);
}

FieldValue &FieldValue::operator=(const Field &field)
{
    if (&field == static_cast<Field *>(this))
        return *this;
    if (!field.def) {
        init(nullptr);
        return *this;
    }
    // Copy first: `field` may view this very buffer (a slice of this value).
    const TableColumnDef def(nullptr, *field.def);
    const bool present = !field.isNull();
    std::vector<unsigned char> cell(field.data ? std::size_t(qMax<qint64>(field.def->size, 0)) : 0);
    if (!cell.empty())
        std::memcpy(cell.data(), field.data, cell.size());
    init(&def);
    const std::size_t bytes = qMin<std::size_t>(cell.size(), std::size_t(m_def.size));
    if (bytes > 0)
        std::memcpy(data, cell.data(), bytes);
    setPresent(present);
    return *this;
}

FieldValue::~FieldValue() = default;

void FieldValue::init(const TableColumnDef *def)
{
    if (def) {
        m_def = TableColumnDef(nullptr, *def);
    } else {
        qWarning("FieldValue::init: null column definition");
        m_def = TableColumnDef();
    }
    layout();
}

void FieldValue::layout()
{
    const bool noCell = m_def.type == FieldType::Invalid
        || (m_def.type == FieldType::VarChar && m_def.length <= 0);
    m_def.size = noCell ? 0 : FieldType::typeLength(m_def.type, m_def.length);
    const std::size_t cell = (std::size_t(m_def.size) + 7) / 8 * 8;
    m_buffer.assign(cell / 8 + 1, 0);
    unsigned char *bytes = reinterpret_cast<unsigned char *>(m_buffer.data());
    m_def.table = nullptr;
    m_def.offset = 0;
    m_def.index = 0;
    m_def.flagOffset = qint64(cell);
    m_def.flagMask = 1;
    def = &m_def;
    data = bytes;
    flags = bytes + cell;
    mask = 1;
}

QString FieldValue::toText() const
{
    return toString();
}

void FieldValue::fromText(const QString &text)
{
    if (text.isEmpty()) {
        setPresent(false);
        return;
    }
    assignText(*this, text);
}

// --- FieldConstValue -----------------------------------------------------------

FieldConstValue::FieldConstValue()
    : FieldValue(FieldType::Integer, 0, true)
{
}

FieldConstValue::FieldConstValue(QChar value)
    : FieldValue(FieldType::VarChar, 1, false)
{
    set(value);
}

FieldConstValue::FieldConstValue(const QString &value)
    : FieldValue(FieldType::VarChar, value.size(), false)
{
    FieldType::setString(data, value.size(), value);
    setPresent(true);
}

FieldConstValue::FieldConstValue(const char *value)
    : FieldConstValue(QString::fromLatin1(value))
{
}

FieldConstValue::FieldConstValue(const decimal &value)
    : FieldValue(FieldType::Decimal, 0, false)
{
    set(value);
}

FieldConstValue::FieldConstValue(const datetime &value)
    : FieldValue(FieldType::DateTime, 0, false)
{
    set(value);
}

FieldConstValue::FieldConstValue(int value)
    : FieldValue(FieldType::Integer, 0, false)
{
    set(qint32(value));
}

FieldConstValue::FieldConstValue(long long value)
    : FieldValue(FieldType::Integer64, 0, false)
{
    set(qint64(value));
}

FieldConstValue::FieldConstValue(double value)
    : FieldValue(FieldType::Double, 0, false)
{
    set(value);
}

FieldConstValue FieldConstValue::fromValue(const Field &field)
{
    if (field.isNull())
        return FieldConstValue();
    switch (field.type()) {
    case FieldType::Integer:
        return FieldConstValue(int(field.get<qint32>()));
    case FieldType::Integer64:
        return FieldConstValue(static_cast<long long>(field.get<qint64>()));
    case FieldType::Double:
        return FieldConstValue(field.get<double>());
    case FieldType::Decimal:
        return FieldConstValue(field.get<decimal>());
    case FieldType::DateTime:
        return FieldConstValue(field.get<datetime>());
    case FieldType::VarChar:
        if (field.def->length == 1)
            return FieldConstValue(field.toChar());
        return FieldConstValue(field.toString());
    default:
        return FieldConstValue();
    }
}
