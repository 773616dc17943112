#include <database/fieldtype.h>

#include <cstring>

namespace {

int stringCellLength(const ushort *units, int length)
{
    if (length < 1 || units[0] == 0)
        return 0;
    int count = 0;
    while (count < length && units[count] != 0)
        ++count;
    return count;
}

} // namespace

int FieldType::typeLength(int type, int length)
{
    switch (type) {
    case Integer:
        return 4;
    case Integer64:
    case Double:
    case Decimal:
    case DateTime:
        return 8;
    case VarChar:
        if (length == 0)
            throw QString(QStringLiteral("Length of string can't be zero"));
        if (length > MaxStringLength)
            throw QString(
                QStringLiteral("Length of string %1 exceeds %2.").arg(length).arg(MaxStringLength));
        return 2 * length;
    case BoardList:
        return 404;
    default:
        throw QString(QStringLiteral("Type is undefined."));
    }
}

bool FieldType::typeHasLength(int type)
{
    return type == Decimal || type == VarChar;
}

const char *FieldType::typeName(int type)
{
    switch (type) {
    case Integer:
        return "Integer";
    case Integer64:
        return "Integer64";
    case Double:
        return "Double";
    case Decimal:
        return "Decimal";
    case VarChar:
        return "VarChar";
    case DateTime:
        return "DateTime";
    case BoardList:
        return "BoardList";
    default:
        return "Undefined";
    }
}

QString FieldType::typeNameWithLength(int type, int length)
{
    QString name = QString::fromLatin1(typeName(type));
    if (typeHasLength(type))
        name += QStringLiteral("[%1]").arg(length);
    return name;
}

QString FieldType::getString(const void *cell, int length)
{
    const ushort *units = static_cast<const ushort *>(cell);
    const int count = stringCellLength(units, length);
    if (count == 0)
        return QString(QLatin1String(""));
    return QString(reinterpret_cast<const QChar *>(units), count);
}

QString FieldType::getSharedString(const void *cell, int length)
{
    const ushort *units = static_cast<const ushort *>(cell);
    const int count = stringCellLength(units, length);
    if (count == 0)
        return QString(QLatin1String(""));
    return QString::fromRawData(reinterpret_cast<const QChar *>(units), count);
}

void FieldType::setString(void *cell, int length, const QString &text)
{
    setString(cell, length, text.utf16(), text.size());
}

void FieldType::setString(void *cell, int length, const ushort *units, int count)
{
    if (length < 1)
        return;
    const int copied = qMax(0, qMin(length, count));
    ushort *target = static_cast<ushort *>(cell);
    if (copied > 0)
        std::memcpy(target, units, size_t(copied) * sizeof(ushort));
    std::memset(target + copied, 0, size_t(length - copied) * sizeof(ushort));
}
