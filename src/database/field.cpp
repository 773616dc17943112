#include "database/field.h"

#include <QDebug>

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
    case FieldType::Integer:
        return QStringLiteral("%1").arg(get<qint32>());
    case FieldType::Integer64:
        return QStringLiteral("%1").arg(get<qint64>());
    case FieldType::Double:
        return QStringLiteral("%1").arg(get<double>(), 0, 'g', -1);
    case FieldType::VarChar:
        return FieldType::getString(data, def->length);
    default:
        return QString();
    }
}

QDebug operator<<(QDebug debug, const Field &field)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << "Field(" << field.typeName() << ", " << field.toString() << ')';
    return debug;
}
