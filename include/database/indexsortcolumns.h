#ifndef DATABASE_INDEXSORTCOLUMNS_H
#define DATABASE_INDEXSORTCOLUMNS_H

#include <database/indexsort.h>

#include <QMetaType>
#include <QString>
#include <QVector>

class IndexSortColumnsPrivate;

// One key column of an IndexSortColumns: the column's name (matched
// case-insensitively, as the table does) and its direction.
struct SortColumn
{
    QString name;
    Qt::SortOrder order = Qt::AscendingOrder;
};
Q_DECLARE_METATYPE(SortColumn)

// IndexSortColumns: a sorted index whose key is a list of the table's columns,
// each ascending or descending; the index a user would otherwise write by hand
// as an IndexSort subclass reading cells.
//
// Ordering (compare): the first key column whose cells differ decides, its
// direction applied. Within one column, ascending: a null cell sorts before a
// present one and two nulls are equal; present cells compare by value:
// Integer, Integer64 and DateTime as signed integers, Double as a
// floating-point number, Decimal by value (1.5 == 1.50), VarChar as text by
// UTF-16 units. Cells of other types (BoardList) are equal. Descending
// reverses the whole column, nulls included. Rows with equal keys keep their
// arrival order (IndexSort's invariant 2). The same row compares 0 and the
// null record sorts before every row.
//
// Batches: a batch whose changed columns (first..last) include no key column
// leaves its updated rows where they stand, neither re-examined for order nor
// for filter(): it costs this index only its removed and inserted rows. A
// subclass whose filter() reads other columns sees those rows as of their
// last placement. Otherwise, and always while the index has observers (an
// item model must hear of every updated row), batches are IndexSort's.
//
// Sorting: with one key column of type Integer, Integer64, DateTime or
// Decimal, resort() (and build()) orders by a 64-bit key of its cells: a
// radix sort of keys read once per row, rows compared only where two rounded
// keys tie. With more key columns a build sorts by integer keys of all of
// them and a resort compares rows (IndexSort). Decimals are keyed at the largest
// scale among the first 256 rows of the list (for a build: of the master
// index, since the build reads each key as it takes the row); a cell of a larger scale gets a
// rounded key and is ordered by comparison among its ties. The order is the
// stable comparison order either way. A subclass (which may override
// compare()) sorts by comparison alone.
//
// Construction: the key columns are resolved once, by name. A name the table
// does not have is reported with a warning and left out of the key; with no
// key column left, every row compares equal and the index keeps arrival order.
// The table's column definitions are not owned; the index must not outlive
// its table.
//
// Threads: as IndexSort.
class DATABASE_EXPORT IndexSortColumns : public IndexSort
{
public:
    IndexSortColumns(Table *table, const QVector<SortColumn> &columns, bool registered = true);
    IndexSortColumns(Table *table, const QString &column, Qt::SortOrder order = Qt::AscendingOrder,
                     bool registered = true);
    ~IndexSortColumns() override;

    // The key columns in effect, in key order (unknown names left out), each
    // with the table's spelling of its name.
    QVector<SortColumn> columns() const;
    int compare(const Record &a, const Record &b) const override;
    void preprocess(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                    const QList<Record> &inserted, const QList<Record> &changed) override;
    void process(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                 const QList<Record> &inserted) override;
    const char *getClassName() const override;
    void build() override;
    void resort() override;

private:
    Q_DISABLE_COPY(IndexSortColumns)
    const QScopedPointer<IndexSortColumnsPrivate> d;
};

#endif // DATABASE_INDEXSORTCOLUMNS_H
