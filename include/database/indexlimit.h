#ifndef DATABASE_INDEXLIMIT_H
#define DATABASE_INDEXLIMIT_H

#include <database/indexsort.h>

// IndexLimit REMOVES ROWS FROM ITS TABLE: it keeps the table itself to at most
// limit() rows (a trades table kept to its last N entries). Every transaction
// on the table deletes, from the table and all its indexes, the rows that it
// lists as over the limit. It is not a top-N view: to show only the first N
// rows of a sorted index without touching the table, use the item model's row
// limit (IndexModel::setRowLimit).
//
// As an index it is a sorted view that should hold at most limit() rows, and
// that tells its caller which rows must leave to make room for new ones.
//
// The index registers itself with its table and stands in the table's name
// registry as "IndexLimit". It does not evict anything by itself: whoever adds
// n rows asks toRemove() first and removes the rows it lists (transactions do
// so before they hand their batch to the table).
//
// The key lists that toRemove() reads and fills are ordered by the table's
// master index. The master index is looked up when needed rather than kept
// from construction, so that replacing it (Table::setMasterIndex deletes the
// old one) cannot leave a dangling pointer behind. Without a master index
// toRemove() warns and lists nothing.
//
// Threads: as IndexSort.
class DATABASE_EXPORT IndexLimit : public IndexSort
{
public:
    IndexLimit(int limit, Table *table);
    ~IndexLimit() override;

    const char *getClassName() const override;

    // The rows to evict before n rows are added: of the positions
    // 0 .. n + count() - limit() - 1 (the rows that sort first), each row that
    // is not already in `out` or in `keep` (by master key) is inserted into
    // `out` in master-key order, after equal keys. Exactly those positions are
    // examined: a skipped row is not replaced by a later one, so `out` may
    // gain fewer rows than the excess.
    // REQUIRES: `out` and `keep` are sorted by the master index's compare().
    virtual void toRemove(int n, QList<Record> &out, const QList<Record> &keep);

    // Whether `list` (sorted by the master index) holds a record with the
    // master key of `record` (binary search).
    bool containsRecord(const QList<Record> &list, const Record &record) const;

    int limit() const;

private:
    Q_DISABLE_COPY(IndexLimit)
    const int m_limit;
};

#endif // DATABASE_INDEXLIMIT_H
