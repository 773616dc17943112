#include <database/masterindex_integer.h>

#include "storage/rowlayout_p.h"
#include <database/exception.h>

MasterIndex_Integer::MasterIndex_Integer(Table *table, const QString &column)
    : MasterIndex_Column_Pure(table, QStringList { column })
{
    setup();
}

MasterIndex_Integer::MasterIndex_Integer(Table *table, int column)
    : MasterIndex_Column_Pure(table, QList<int> { column })
{
    setup();
}

MasterIndex_Integer::~MasterIndex_Integer() = default;

void MasterIndex_Integer::setup()
{
    const TableColumnDef *column = keyColumns().constFirst();
    switch (column->type) {
    case FieldType::Integer:
        m_shift = 32;
        break;
    case FieldType::Integer64:
    case FieldType::DateTime:
        m_shift = 0;
        break;
    default:
        throw Exception(
            QStringLiteral("Type '%1' unsuported for %2")
                .arg(QString::fromLatin1(FieldType::typeName(column->type)), column->name));
    }
    if (column->nullable)
        throw Exception(QStringLiteral("Columns can't be nullable %1").arg(column->name));
    m_offset = RowLayout::HeaderSize + column->offset;
}

int MasterIndex_Integer::compare(const Record &first, const Record &second) const
{
    const unsigned char *a = first.row();
    const unsigned char *b = second.row();
    if (Q_UNLIKELY(!a || !b))
        return int(a != nullptr) - int(b != nullptr);
    const qint64 x = keyOf(a);
    const qint64 y = keyOf(b);
    return int(x > y) - int(x < y);
}
