#include <database/masterindex_fast.h>

#include "indexes/masterkeyrefusals_p.h"
#include "storage/rowlayout_p.h"
#include <database/exception.h>

#include <cstring>

class MasterIndexFastPrivate
{
public:
    qint64 offset = 0;
    qint64 length = 0;
};

MasterIndex_Fast_Pure::MasterIndex_Fast_Pure(Table *table, const QStringList &columns)
    : MasterIndex_Column_Pure(table, columns)
    , d(new MasterIndexFastPrivate)
{
    setup();
}

MasterIndex_Fast_Pure::MasterIndex_Fast_Pure(Table *table, const QList<int> &columns)
    : MasterIndex_Column_Pure(table, columns)
    , d(new MasterIndexFastPrivate)
{
    setup();
}

MasterIndex_Fast_Pure::~MasterIndex_Fast_Pure() = default;

void MasterIndex_Fast_Pure::setup()
{
    const TableColumnDef *previous = nullptr;
    for (const TableColumnDef *column : keyColumns()) {
        switch (column->type) {
        case FieldType::Integer:
        case FieldType::Integer64:
        case FieldType::Decimal:
        case FieldType::VarChar:
        case FieldType::DateTime:
            break;
        default:
            MasterKeyRefusals::unsupportedType(column);
        }
        MasterKeyRefusals::refuseNullable(column);
        if (previous && column->index != previous->index + 1)
            throw Exception(QStringLiteral("Columns must be sequenced: %1(%3) / %2")
                                .arg(column->index)
                                .arg(previous->index + 1)
                                .arg(column->name));
        if (!previous)
            d->offset = RowLayout::HeaderSize + column->offset;
        d->length += (column->size + 7) & ~qint64(7);
        previous = column;
    }
}

int MasterIndex_Fast_Pure::compare(const Record &first, const Record &second) const
{
    int settled;
    if (compareWithoutCells(first, second, &settled))
        return settled;
    const unsigned char *a = first.row();
    const unsigned char *b = second.row();
    const int c = std::memcmp(a + d->offset, b + d->offset, size_t(d->length));
    return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

qint64 MasterIndex_Fast_Pure::keyOffset() const
{
    return d->offset;
}

qint64 MasterIndex_Fast_Pure::keyLength() const
{
    return d->length;
}
