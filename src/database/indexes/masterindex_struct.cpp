#include <database/masterindex_struct.h>

#include "indexes/cellcompare_p.h"
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

bool MasterIndex::keepsUpdatedRows(int first, int last) const
{
    if (observers() || d->keyColumns.isEmpty())
        return false;
    for (const TableColumnDef *column : qAsConst(d->keyColumns)) {
        if (CellCompare::batchChanges(column->index, first, last))
            return false;
    }
    return true;
}

void MasterIndex::preprocess(const QList<Record> &removed, const QList<Record> &updated, int first,
                             int last, const QList<Record> &inserted, const QList<Record> &changed)
{
    if (keepsUpdatedRows(first, last))
        IndexSort::preprocess(removed, QList<Record>(), first, last, inserted, QList<Record>());
    else
        IndexSort::preprocess(removed, updated, first, last, inserted, changed);
}

void MasterIndex::process(const QList<Record> &removed, const QList<Record> &updated, int first,
                          int last, const QList<Record> &inserted)
{
    if (keepsUpdatedRows(first, last))
        IndexSort::process(removed, QList<Record>(), first, last, inserted);
    else
        IndexSort::process(removed, updated, first, last, inserted);
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
