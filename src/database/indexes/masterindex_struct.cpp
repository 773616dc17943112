#include <database/masterindex_struct.h>

#include "storage/rowlayout_p.h"
#include <database/table.h>

#include <cstring>

class MasterIndexPrivate
{
public:
    QList<const TableColumnDef *> keyColumns;
};

MasterIndex::MasterIndex(Table *table)
    : IndexSort(table, false)
    , d(new MasterIndexPrivate)
{
}

MasterIndex::~MasterIndex() = default;

bool MasterIndex::compareWithoutCells(const Record &first, const Record &second, int *result)
{
    if (first.row() == second.row())
        *result = 0;
    else if (first.isNull() || second.isNull())
        *result = first.isNull() ? -1 : 1;
    else
        return false;
    return true;
}

const char *MasterIndex::getClassName() const
{
    return "MasterIndex";
}

void MasterIndex::build()
{
    resort();
}

void MasterIndex::rebuild()
{
    resort();
}

Record MasterIndex::keyRecord(const Record &record) const
{
    if (record.isNull())
        return Record();
    Record key(table());
    if (key.isNull())
        return key;
    const unsigned char *source = record.row();
    unsigned char *target = key.row();
    for (const TableColumnDef *column : qAsConst(d->keyColumns)) {
        std::memcpy(RowLayout::cell(target, column), RowLayout::cell(source, column),
                    size_t(column->size));
        unsigned char &flags = RowLayout::flagByte(target, column);
        if (RowLayout::isPresent(source, column))
            flags |= column->flagMask;
        else
            flags &= quint8(~column->flagMask);
    }
    return key;
}

Record MasterIndex::findRecord(const QString &text) const
{
    return find(fromText(text), -1);
}

QStringList MasterIndex::columnNames() const
{
    QStringList names;
    names.reserve(d->keyColumns.size());
    for (const TableColumnDef *column : qAsConst(d->keyColumns))
        names << column->name;
    return names;
}

const QList<const TableColumnDef *> &MasterIndex::keyColumns() const
{
    return d->keyColumns;
}

void MasterIndex::setKeyColumns(const QList<const TableColumnDef *> &columns)
{
    d->keyColumns = columns;
}

MasterIndexOrdered::MasterIndexOrdered(Table *table)
    : MasterIndex(table)
{
}

MasterIndexOrdered::~MasterIndexOrdered() = default;

int MasterIndexOrdered::compare(const Record &, const Record &) const
{
    return 0;
}

QString MasterIndexOrdered::toText(const Record &) const
{
    return QString();
}

Record MasterIndexOrdered::fromText(const QString &) const
{
    return Record(table());
}
