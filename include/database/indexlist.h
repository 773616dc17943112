#ifndef DATABASE_INDEXLIST_H
#define DATABASE_INDEXLIST_H

#include <database/index.h>
#include <database/partitionlist.h>
#include <database/rangeset.h>
#include <database/record.h>

#include <QScopedPointer>
#include <QString>

class IndexListPrivate;

// IndexIterative: the interface of an index whose rows can be walked in order.
//
// begin()/end() bound the index's rows in index order; count() is the number
// of rows between them; table() is the table indexed. Other parts of the
// library (index builds, table files, transactions) read the master index and
// the list indexes only through it.
//
// The interface is not an owner: objects are never deleted through it, hence
// the protected, non-virtual destructor.
class DATABASE_EXPORT IndexIterative
{
public:
    virtual PartitionList<Record>::const_iterator begin() const = 0;
    virtual PartitionList<Record>::const_iterator end() const = 0;
    virtual int count() const = 0;
    virtual Table *table() = 0;
    virtual const Table *table() const = 0;

protected:
    IndexIterative() = default;
    IndexIterative(const IndexIterative &) = default;
    IndexIterative &operator=(const IndexIterative &) = default;
    ~IndexIterative() = default;
};

// IndexList: the records of one table that pass filter(), in the order in
// which they were added, held in a partitioned list.
//
// Ownership: the index holds one reference to each of its rows (they outlive
// the index only if someone else holds them too). It does not own its table.
// A registered index (constructor flag) puts itself into its table's index list
// at once; indexAdded() follows once it is complete (Index::registerWith()).
// Like every index it leaves the registry when destroyed.
//
// Invariants:
//  1. count() equals the number of records between begin() and end().
//  2. A part filled only by add() holds at most 9999 records: appending never
//     splits a part (see PartitionList for the bounds of inserts).
//  3. Identity inside the index is the identity of the row block; the same
//     row may be present more than once only if it was added more than once.
//
// Positions: remove() and the other position-taking operations accept -1 for
// "unknown"; a position that does not hold the given record is treated as
// unknown. Records that are not found and positions out of range are ignored,
// never thrown about.
//
// The by-name constructor asks the host core (ICore::instance()->findTable)
// for its table. When no table of that name exists the index logs a warning
// and stays inert: table() is null, nothing is registered and build() leaves
// the index empty. Records may still be added to it by hand.
//
// build() empties the index and then fills it from the table's master index,
// under the table's lock (released also when filter() or add() throws): a
// build is complete and idempotent, whoever calls it.
//
// Threads: not synchronised; as every index, driven by the thread that changes
// the table, under the table's lock.
class DATABASE_EXPORT IndexList : public Index, public IndexIterative
{
public:
    explicit IndexList(Table *table, bool registered = true);
    explicit IndexList(const QString &tableName, bool registered = true);
    ~IndexList() override;

    void clear() override;
    void build() override;
    // Appends at the end. A record that fails filter() is ignored: the table
    // hands single appends to every index unfiltered.
    void add(const Record &record) override;
    bool remove(const Record &record, int position) override;
    // Accepts every record.
    bool filter(const Record &record) const override;
    bool contains(const Record &record) const override;
    // The position of this very row (linear scan), or -1.
    int indexOf(const Record &record) const override;
    const char *getClassName() const override;

    int count() const override;
    PartitionList<Record>::const_iterator begin() const override;
    PartitionList<Record>::const_iterator end() const override;
    Table *table() override;
    const Table *table() const override;
    // Moves positions first..last (inclusive) so that the block, in its inner
    // order, is inserted at `to` of the list that remains once the block has
    // been taken out. Nothing happens when first or last equals to.
    // REQUIRES: 0 <= first <= last < count() and to >= 0 (otherwise a warning
    // and nothing happens); a `to` beyond the rest appends.
    virtual void move(int first, int last, int to);
    // Removes every position of the set in one pass.
    virtual void removeRanges(const RangeSet<int> &ranges);

    // The record at `position`, or the null record when out of range.
    Record at(int position) const;
    // Whether the index put itself into its table's registry.
    bool isRegistered() const;
    // Bytes held by the record list (PartitionList::memoryUsage), not the rows.
    qint64 memoryUsage() const;

protected:
    PartitionList<Record> &records();
    const PartitionList<Record> &records() const;

private:
    Q_DISABLE_COPY(IndexList)
    void init(Table *table, bool registered);
    const QScopedPointer<IndexListPrivate> d;
};

#endif // DATABASE_INDEXLIST_H
