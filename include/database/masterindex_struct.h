#ifndef DATABASE_MASTERINDEX_STRUCT_H
#define DATABASE_MASTERINDEX_STRUCT_H

#include <database/indexsort.h>

#include <QList>
#include <QScopedPointer>
#include <QString>
#include <QStringList>

class MasterIndexPrivate;
class TableColumnDef;

// MasterIndex: a table's primary key. A sorted index over every row of its
// table (its filter accepts all), ordered by a key, with a text form of that
// key through which rows are found (Record(table, key), findRecord()).
//
// The table owns its master index (Table::setMasterIndex) and enumerates its
// rows through it: every other list index is built from it. A master index
// does not register itself in the table's index list.
//
// Key text: toText() writes a record's key, fromText() reads a key text into a
// fresh record of the table that is not in the table (a search key). The key
// columns, in key order, are keyColumns(); an index without a key (the ordered
// master) has none.
//
// The rows live in the master index, so it cannot be built from the table like
// the other indexes: build() and rebuild() re-establish its order with
// resort() and never empty it.
//
// Batches: a row's key decides its place, so a batch whose changed columns
// include no key column leaves its updated rows where they stand (no search,
// no move), also among rows with equal keys. An observed master index (an
// item model over it) takes the sorted index's full path, so its observers
// hear of every updated row; so does a master without key columns.
//
// Errors: construction and key-text errors are thrown (see each kind); all
// kinds report the class name "MasterIndex".
//
// Threads: as IndexSort; compare() runs on worker threads during resort() and
// reads row cells only.
class DATABASE_EXPORT MasterIndex : public IndexSort
{
public:
    explicit MasterIndex(Table *table);
    ~MasterIndex() override;

    const char *getClassName() const override;
    void build() override;
    void rebuild() override;
    // As IndexSort's, without the updated rows when the batch changed no key
    // column (see Batches above).
    void preprocess(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                    const QList<Record> &inserted, const QList<Record> &changed) override;
    void process(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                 const QList<Record> &inserted) override;

    // The record's key as text.
    virtual QString toText(const Record &record) const = 0;
    // A new record of the table holding the key read from `text`.
    virtual Record fromText(const QString &text) const = 0;

    // A new record of the table whose key columns hold `record`'s key values
    // (presence flags included); the other cells are as in a fresh row.
    Record keyRecord(const Record &record) const;
    // The row with the key `text` (fromText(), then find(key, -1)), or null.
    // Passes fromText()'s errors on.
    Record findRecord(const QString &text) const;
    // The names of the key columns, in key order.
    QStringList columnNames() const;
    const QList<const TableColumnDef *> &keyColumns() const;

protected:
    void setKeyColumns(const QList<const TableColumnDef *> &columns);
    // The comparison that needs no cell: 0 for the same row, a null record
    // before any row. True when it settles the order, with *result set.
    static bool compareWithoutCells(const Record &first, const Record &second, int *result);

private:
    Q_DISABLE_COPY(MasterIndex)
    bool keepsUpdatedRows(int first, int last) const;
    const QScopedPointer<MasterIndexPrivate> d;
};

// MasterIndexOrdered: a master index without a key. compare() is always 0, so
// every row goes after all others and the index keeps the order of arrival.
// toText() is empty and fromText() returns a fresh, empty record of the table,
// which compares equal to every row: findRecord() of any text therefore finds
// the first row, if any.
class DATABASE_EXPORT MasterIndexOrdered : public MasterIndex
{
public:
    explicit MasterIndexOrdered(Table *table);
    ~MasterIndexOrdered() override;

    int compare(const Record &a, const Record &b) const override;
    QString toText(const Record &record) const override;
    Record fromText(const QString &text) const override;

private:
    Q_DISABLE_COPY(MasterIndexOrdered)
};

#endif // DATABASE_MASTERINDEX_STRUCT_H
