#ifndef DATABASE_INDEXES_MASTERKEYREFUSALS_P_H
#define DATABASE_INDEXES_MASTERKEYREFUSALS_P_H

#include <database/columndef.h>
#include <database/exception.h>
#include <database/fieldtype.h>

// The refusals that the raw-byte key and the integer key share, worded as the
// raw-byte key has always worded them (callers match the texts).
namespace MasterKeyRefusals {

[[noreturn]] inline void unsupportedType(const TableColumnDef *column)
{
    throw Exception(QStringLiteral("Type '%1' unsuported for %2")
                        .arg(QString::fromLatin1(FieldType::typeName(column->type)), column->name));
}

inline void refuseNullable(const TableColumnDef *column)
{
    if (column->nullable)
        throw Exception(QStringLiteral("Columns can't be nullable %1").arg(column->name));
}

} // namespace MasterKeyRefusals

#endif // DATABASE_INDEXES_MASTERKEYREFUSALS_P_H
