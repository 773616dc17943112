#include <database/masterindex_column.h>

#include "indexes/cellcompare_p.h"

#include <database/decimal.h>
#include <database/exception.h>
#include <database/table.h>

#include <QDateTime>

namespace {

QList<const TableColumnDef *> columnsByName(const Table *table, const QStringList &names)
{
    QList<const TableColumnDef *> columns;
    for (const QString &name : names) {
        const TableColumnDef *column = table ? table->columnDef(name) : nullptr;
        if (!column)
            throw Exception(QStringLiteral("Column '%1' not found to create index.").arg(name));
        columns << column;
    }
    return columns;
}

QList<const TableColumnDef *> columnsByPosition(const Table *table, const QList<int> &positions)
{
    QList<const TableColumnDef *> columns;
    for (int position : positions) {
        const TableColumnDef *column = table ? table->columnDef(position) : nullptr;
        if (!column)
            throw Exception(QStringLiteral("Column '%1' not found to create index.").arg(position));
        columns << column;
    }
    return columns;
}

[[noreturn]] void cannotConvert(const QString &part, FieldType::Type type)
{
    throw Exception(QStringLiteral("Can't convert from '%1'' to %2")
                        .arg(part, QString::fromLatin1(FieldType::typeName(type))));
}

qint64 parseDateTime(const QString &part)
{
    static const char *const formats[]
        = { "yyyy.MM.dd HH:mm:ss.zzz", "yyyy-MM-dd HH:mm:ss", "yyyy.MM.dd", "yyyy-MM-dd" };
    for (const char *format : formats) {
        const QDateTime parsed = QDateTime::fromString(part, QLatin1String(format));
        if (parsed.isValid())
            return QDateTime(parsed.date(), parsed.time(), Qt::UTC).toMSecsSinceEpoch();
    }
    cannotConvert(part, FieldType::DateTime);
}

void assignPart(Field field, const QString &part)
{
    if (part.isEmpty())
        return;
    const FieldType::Type type = field.type();
    bool ok = true;
    switch (type) {
    case FieldType::Integer: {
        const qint32 value = part.toInt(&ok, 10);
        if (ok)
            field.set(value);
        break;
    }
    case FieldType::Integer64: {
        const qint64 value = part.toLongLong(&ok, 10);
        if (ok)
            field.set(value);
        break;
    }
    case FieldType::Double: {
        const double value = part.toDouble(&ok);
        if (ok)
            field.set(value);
        break;
    }
    case FieldType::Decimal:
        try {
            field.set(decimal(part));
        } catch (const QString &) {
            ok = false;
        }
        break;
    case FieldType::VarChar:
        FieldType::setString(field.data, field.def->length, part);
        field.setPresent(true);
        break;
    case FieldType::DateTime:
        field.set(parseDateTime(part));
        break;
    default:
        field.incompatibleType(FieldType::VarChar);
    }
    if (!ok)
        cannotConvert(part, type);
}

} // namespace

MasterIndex_Column_Pure::MasterIndex_Column_Pure(Table *table, const QString &column)
    : MasterIndex_Column_Pure(table, QStringList { column })
{
}

MasterIndex_Column_Pure::MasterIndex_Column_Pure(Table *table, const QStringList &columns)
    : MasterIndex(table)
{
    setKeyColumns(columnsByName(table, columns));
}

MasterIndex_Column_Pure::MasterIndex_Column_Pure(Table *table, const QList<int> &columns)
    : MasterIndex(table)
{
    setKeyColumns(columnsByPosition(table, columns));
}

MasterIndex_Column_Pure::~MasterIndex_Column_Pure() = default;

int MasterIndex_Column_Pure::compare(const Record &first, const Record &second) const
{
    // compareWithoutCells(), inline: this runs once per probe of a search.
    const unsigned char *a = first.row();
    const unsigned char *b = second.row();
    if (a == b)
        return 0;
    if (!a || !b)
        return a ? 1 : -1;
    for (const TableColumnDef *column : keyColumns()) {
        const int c = CellCompare::compareColumn(a, b, column);
        if (c != 0)
            return c;
    }
    return 0;
}

QString MasterIndex_Column_Pure::toText(const Record &record) const
{
    if (record.isNull())
        return QString();
    const Table *source = table();
    QString text;
    bool firstPart = true;
    for (const TableColumnDef *column : keyColumns()) {
        const QString part = source->dataPtr(record.row(), column->index).toString();
        if (part.isEmpty())
            return QString();
        if (!firstPart)
            text += QLatin1Char(',');
        text += part;
        firstPart = false;
    }
    return text;
}

Record MasterIndex_Column_Pure::fromText(const QString &text) const
{
    const QStringList parts = text.split(QLatin1Char(','), Qt::KeepEmptyParts);
    const QList<const TableColumnDef *> &columns = keyColumns();
    if (parts.size() != columns.size())
        throw QString(QStringLiteral("Master index can't restore from text. Incorrect columns "
                                     "numbers: %1 != %2")
                          .arg(parts.size())
                          .arg(columns.size()));
    const Table *source = table();
    Record key(source);
    if (key.isNull())
        return key;
    for (int i = 0; i < columns.size(); ++i)
        assignPart(source->dataPtr(key.row(), columns.at(i)->index), parts.at(i));
    return key;
}
