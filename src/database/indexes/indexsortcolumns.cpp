#include <database/indexsortcolumns.h>

#include "indexes/cellcompare_p.h"
#include "indexes/orderkey_p.h"
#include <database/masterindex.h>
#include <database/table.h>

#include <QMessageLogger>

#include <algorithm>
#include <typeinfo>

class IndexSortColumnsPrivate
{
public:
    struct Key
    {
        const TableColumnDef *column;
        bool descending;
    };
    QVector<Key> keys;

    // Decimal cells are keyed at this many decimal places: the largest scale
    // among the first rows when the list was last sorted or built (see
    // sampleDecimalKeyScale()).
    int decimalKeyScale = 0;

    void sampleDecimalKeyScale(PartitionList<Record>::const_iterator it,
                               PartitionList<Record>::const_iterator end);

    // Whether the first key column's type has an order key.
    bool firstColumnKeyed() const
    {
        if (keys.isEmpty())
            return false;
        switch (keys.constFirst().column->type) {
        case FieldType::Integer:
        case FieldType::Integer64:
        case FieldType::DateTime:
        case FieldType::Decimal:
            return true;
        default:
            return false;
        }
    }

    // The order key of the first key column's cell (OrderKey).
    static quint64 orderKey(const void *context, const Record &record)
    {
        const Key &key = static_cast<const IndexSortColumnsPrivate *>(context)->keys.constFirst();
        const unsigned char *row = record.row();
        if (!row || !CellCompare::isPresent(row, key.column))
            return OrderKey::nullKey(key.descending);
        const qint64 offset = key.column->offset;
        switch (key.column->type) {
        case FieldType::Integer:
            return OrderKey::ofInteger(CellCompare::cellValue<qint32>(row, offset), key.descending);
        case FieldType::Decimal:
            return OrderKey::ofDecimal(
                CellCompare::cellValue<quint64>(row, offset),
                static_cast<const IndexSortColumnsPrivate *>(context)->decimalKeyScale,
                key.descending);
        default:
            return OrderKey::ofInteger(CellCompare::cellValue<qint64>(row, offset), key.descending);
        }
    }

    // Whether a batch changing columns first..last (-1: open end) can
    // change any key cell.
    bool touchesKey(int first, int last) const
    {
        for (const Key &key : keys) {
            if (CellCompare::batchChanges(key.column->index, first, last))
                return true;
        }
        return false;
    }
};

IndexSortColumns::IndexSortColumns(Table *table, const QVector<SortColumn> &columns,
                                   bool registered)
    : IndexSort(table, registered)
    , d(new IndexSortColumnsPrivate)
{
    for (const SortColumn &sortColumn : columns) {
        const TableColumnDef *column = table ? table->columnDef(sortColumn.name) : nullptr;
        if (!column) {
            qWarning("IndexSortColumns: no column '%s' in the table; it is left out of the key",
                     qPrintable(sortColumn.name));
            continue;
        }
        d->keys.append({ column, sortColumn.order == Qt::DescendingOrder });
    }
    // With more key columns the build's column sort orders them all, and a
    // resort compares rows on all threads.
    if (d->keys.size() == 1 && d->firstColumnKeyed())
        setOrderKey(&IndexSortColumnsPrivate::orderKey, d.data());
}

IndexSortColumns::IndexSortColumns(Table *table, const QString &column, Qt::SortOrder order,
                                   bool registered)
    : IndexSortColumns(table, QVector<SortColumn> { SortColumn { column, order } }, registered)
{
}

IndexSortColumns::~IndexSortColumns() = default;

const char *IndexSortColumns::getClassName() const
{
    return "IndexSortColumns";
}

QVector<SortColumn> IndexSortColumns::columns() const
{
    QVector<SortColumn> result;
    result.reserve(d->keys.size());
    for (const IndexSortColumnsPrivate::Key &key : qAsConst(d->keys))
        result.append(
            { key.column->name, key.descending ? Qt::DescendingOrder : Qt::AscendingOrder });
    return result;
}

int IndexSortColumns::compare(const Record &first, const Record &second) const
{
    const unsigned char *a = first.row();
    const unsigned char *b = second.row();
    if (a == b)
        return 0;
    if (!a || !b)
        return a ? 1 : -1;
    for (const IndexSortColumnsPrivate::Key &key : qAsConst(d->keys)) {
        const int c = CellCompare::compareColumn(a, b, key.column);
        if (c != 0)
            return key.descending ? -c : c;
    }
    return 0;
}

// Decimal cells are keyed at the largest scale among the first rows of
// [it, end): the rows about to be sorted, or the master index's before a build.
void IndexSortColumnsPrivate::sampleDecimalKeyScale(PartitionList<Record>::const_iterator it,
                                                    PartitionList<Record>::const_iterator end)
{
    const TableColumnDef *first = keys.isEmpty() ? nullptr : keys.constFirst().column;
    if (!first || first->type != FieldType::Decimal)
        return;
    constexpr int sample = 256;
    int scale = 0;
    for (int seen = 0; it != end && seen < sample; ++it, ++seen) {
        const unsigned char *row = it->row();
        if (!CellCompare::isPresent(row, first))
            continue;
        const decimal value = decimal::fromRaw(CellCompare::cellValue<quint64>(row, first->offset));
        if (!value.isZero())
            scale = std::max(scale, value.scale());
    }
    decimalKeyScale = std::min(scale, 18);
}

void IndexSortColumns::build()
{
    // The build reads each row's key as it takes the row from the master
    // index, so the key scale comes from the master's first rows.
    if (typeid(*this) != typeid(IndexSortColumns)) {
        setOrderKey(nullptr, nullptr);
    } else if (const Table *source = table()) {
        TableLocker locker(source);
        if (const MasterIndex *master = source->masterIndex())
            d->sampleDecimalKeyScale(master->begin(), master->end());
    }
    IndexSort::build();
}

void IndexSortColumns::resort()
{
    // A subclass may order otherwise than the key columns say: its rows are
    // sorted by its compare() alone.
    if (typeid(*this) != typeid(IndexSortColumns))
        setOrderKey(nullptr, nullptr);
    d->sampleDecimalKeyScale(begin(), end());
    IndexSort::resort();
}

void IndexSortColumns::preprocess(const QList<Record> &removed, const QList<Record> &updated,
                                  int first, int last, const QList<Record> &inserted,
                                  const QList<Record> &changed)
{
    // An observed index tells its observers of every updated row (an item
    // model repaints them), so only an unobserved one may pass them over.
    if (d->touchesKey(first, last) || observers())
        IndexSort::preprocess(removed, updated, first, last, inserted, changed);
    else
        IndexSort::preprocess(removed, QList<Record>(), first, last, inserted, QList<Record>());
}

void IndexSortColumns::process(const QList<Record> &removed, const QList<Record> &updated,
                               int first, int last, const QList<Record> &inserted)
{
    if (d->touchesKey(first, last) || observers())
        IndexSort::process(removed, updated, first, last, inserted);
    else
        IndexSort::process(removed, QList<Record>(), first, last, inserted);
}
