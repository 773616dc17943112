#ifndef DATABASE_INDEXSORT_H
#define DATABASE_INDEXSORT_H

#include <database/indexlist.h>

#include <QScopedPointer>
#include <QVector>

class IndexSortPrivate;

// IndexSort: the rows of a table that pass filter(), kept in the order of the
// subclass's compare() at all times, found by binary search over positions.
//
// compare(a, b) is negative when a sorts before b, zero for equal keys and
// positive when a sorts after b; it must be a strict weak ordering of the
// rows' current content and must not change any state (resort() calls it from
// worker threads).
//
// Invariants (outside a caller's move(), which may break 1 on purpose):
//  1. Positions are in non-decreasing compare() order.
//  2. Equal keys keep their arrival order: a record entering the index goes
//     after every record with an equal key, a batch's records enter in their
//     order among themselves, and resort() is stable.
//  3. Identity is the row block, never key equality: indexOf(), remove() and
//     update() look for the very row.
//
// Changes of a row's key: the caller changes the row in place and then tells
// the index (update(), or process() for a batch). Until then the row may stand
// out of order; the searches cope with one such row and the identity look-ups
// fall back to a scan. update() with an unknown position (-1) of a row whose
// key changed finds it by that scan and reports the cost once per call with
// the warning "update Full search can impact the performance"; passing the
// row's position avoids both.
//
// An update that leaves the row in order relative to its neighbours does not
// move it, even where an equal neighbour arrived later; a batch (process())
// always re-enters its updated rows after their equal keys.
//
// Batches (process()) take their rows out by ranges and merge the entering
// rows by one merge pass over each part they enter. An updated row that the
// merge would put back exactly where it stands (strictly between staying
// neighbours, no other entering row with an equal key) is left in place: the
// same result without moving it. The positions of the leaving
// rows are noted by preprocess(), which the table calls before it copies the
// batch's new cells into the rows; without it (or when the index changed in
// between) they are searched for, rows whose keys moved by one shared scan.
//
// build() takes every master-index row that passes filter() under the table's
// lock and appends it (one handle copy per row, in master order); rows already
// in compare() order stay as they are (one pass, no sort), others are sorted
// stably once: the order that adding them one by one would give, at the cost
// of one sort instead of a binary insertion each. An index with an order key
// (setOrderKey(); MasterIndex_Integer, and IndexSortColumns over one integer,
// timestamp or decimal column) sorts by a radix sort of keys read once per
// row. Any other IndexSortColumns (exactly that class,
// whose compare() is known) is sorted by integer keys of all its columns; a
// key it cannot express (text, a NaN, decimals of mixed scales in one column)
// or memory short for the keys falls back on the comparison sort. It does not
// go through add().
//
// Threads: as IndexList; resort() sorts on the global thread pool (by order
// keys: on the calling thread) and returns when the sort is complete.
class DATABASE_EXPORT IndexSort : public IndexList
{
public:
    // Strict ordering for lower bounds and sorting: compare(a, b) < 0.
    struct LessThan
    {
        explicit LessThan(const IndexSort *index)
            : index(index)
        {
        }
        bool operator()(const Record &a, const Record &b) const { return index->compare(a, b) < 0; }
        const IndexSort *index;
    };
    // The raw compare(element, key) result, for the binary searches.
    struct Compare
    {
        explicit Compare(const IndexSort *index)
            : index(index)
        {
        }
        int operator()(const Record &element, const Record &key) const
        {
            return index->compare(element, key);
        }
        const IndexSort *index;
    };

    explicit IndexSort(Table *table, bool registered = true);
    explicit IndexSort(const QString &tableName, bool registered = true);
    ~IndexSort() override;

    void clear() override;
    void build() override;
    // Inserts at indexOfAdd(): after every record with a key <= the record's.
    // A record that fails filter() is ignored.
    void add(const Record &record) override;
    // Notes where the removed and updated records stand while their cells
    // still hold the keys they were placed by: process() then needs no search
    // for rows whose keys the batch changes.
    void preprocess(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                    const QList<Record> &inserted, const QList<Record> &changed) override;
    // Removes the updated and removed records by ranges, then merges the
    // updated and inserted records that pass filter() in runs.
    void process(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                 const QList<Record> &inserted) override;
    // Moves the changed record to its place; `position` (or -1) is its current
    // position. A record that fails filter() leaves; one not found is added.
    void update(const Record &record, int a, int b, int position) override;
    int indexOf(const Record &record) const override;
    const char *getClassName() const override;

    virtual int compare(const Record &a, const Record &b) const = 0;
    // The record at search(key, from), or the null record.
    virtual Record find(const Record &key, int from) const;
    // The first position after `from` whose key equals key's, or -1.
    virtual int search(const Record &key, int from) const;
    // The last position after `from` whose key equals key's, or -1.
    virtual int searchLast(const Record &key, int from) const;
    // Linear scan from from + 1 for the first equal key. The result counts the
    // records stepped over from from + 1, so it is the position only for
    // from == -1; -1 when there is none.
    virtual int searchFull(const Record &key, int from) const;
    // Re-establishes compare() order over the whole list, stably.
    virtual void resort();

    // The upper bound of the record's key: where add() would insert it.
    int indexOfAdd(const Record &record) const;
    // indexOf() of each record, in the given order (-1 for the missing ones).
    // Rows out of key order are found by one shared scan of the list.
    QVector<int> indexOfs(const QList<Record> &records) const;

protected:
    // An order key: a 64-bit integer per row that orders as compare() does
    // wherever it differs. Contract, for the subclass to keep:
    //  1. compare(a, b) < 0 implies keyOf(a) <= keyOf(b);
    //  2. equal even keys imply compare() == 0; an odd key is one that had to
    //     round, and an equal one settles nothing (a key that can never
    //     settle equality is always odd);
    //  3. keyOf() reads what compare() reads, nothing else, and may run on
    //     any thread.
    // `context` is passed to keyOf() and must live as long as the index.
    using OrderKeyFunction = quint64 (*)(const void *context, const Record &record);
    // Gives resort() (and so build()) the order key: it then sorts by a radix
    // sort of the keys, reading each row once, and compares rows only within
    // runs of equal odd keys. The result is the same stable order. A null
    // function goes back to the comparison sort.
    void setOrderKey(OrderKeyFunction keyOf, const void *context);

private:
    Q_DISABLE_COPY(IndexSort)
    // resort() by the order key. False when memory for the keys is short
    // (then nothing changed).
    bool resortByKeys();
    int lowerBound(const Record &record) const;
    int upperBound(const Record &record, int low) const;
    // lowerBound() (or upper bounds) of every record, searched together.
    QVector<int> bounds(const QList<Record> &records, bool upper) const;
    // Moves the record at `position` to its upper bound; columns first..last
    // changed (told to the observers).
    void reposition(const Record &record, int position, int first, int last);
    // Which updated rows the merge would put back where they stand;
    // `positions` are those of removed + updated, the updated from `offset`.
    QVector<bool> staying(const QList<Record> &updated, const QVector<int> &positions, int offset,
                          const QList<Record> &inserted) const;
    // The positions noted by preprocess() for exactly these rows, if they
    // still hold them; otherwise indexOfs().
    QVector<int> leavingPositions(const QList<Record> &leaving) const;

    const QScopedPointer<IndexSortPrivate> d;
};

#endif // DATABASE_INDEXSORT_H
