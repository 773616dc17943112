#ifndef DATABASE_INDEXDEPEND_H
#define DATABASE_INDEXDEPEND_H

#include <database/index.h>

#include <QScopedPointer>

class TableIndexRebuilder;

// IndexDependBase: an index that holds no rows of its own and passes every
// notification on to a list of dependent indexes (the indexes of tables that
// depend on this one, as table joins have them).
//
// Forwarding: add, remove, update, preprocess and process call the same
// operation with the same arguments on every dependent, in list order, over a
// copy of the list taken at the start of the call: a dependent added during
// the call is not visited, one removed during it still is.
//
// Rebuilding (rebuild() is clear(true) then build(true)):
//   clear(true)  hands the dependents to table index rebuilders, one per table,
//                grouped by the table each dependent was added with (a hash
//                from table to its dependents, in list order; dependents
//                added without a table form one table-less group, which is
//                cleared and built in place). Each rebuilder unregisters its
//                indexes from their table and clears them.
//   build(true)  deletes every pending rebuilder, in the order they were made:
//                each builds its indexes and registers them again.
//   clear(true) with rebuilders still pending does nothing: the dependents
//   are already aside and empty.
// With the flag false (and through clear()/build()) every dependent gets
// clear()/build() in list order.
//
// Invariants:
//  1. The dependents are not owned; each must be removed from here before it
//     is destroyed.
//  2. The pending rebuilders are owned; the destructor deletes them, which
//     completes their rebuild.
//
// filter() accepts every record (the dependents decide for themselves);
// contains() is false and indexOf() -1, since no row is held here; remove()
// is true when any dependent held the record.
// Threads: as every index, the table's thread under its lock.
class IndexDependBasePrivate;

class DATABASE_EXPORT IndexDependBase : public Index
{
public:
    IndexDependBase();
    ~IndexDependBase() override;

    void addDependentIndex(Index *index);
    // As above, remembering the table that `index` is registered with, so that
    // a rebuild takes it aside from that table.
    void addDependentIndex(Index *index, Table *table);
    // Removes the first occurrence.
    void removeDependentIndex(Index *index);
    QList<Index *> dependentIndexes() const;
    // The number of rebuilders waiting for build(true).
    int pendingRebuilders() const;

    void clear() override;
    void clear(bool rebuilding) override;
    void build() override;
    void build(bool rebuilding) override;
    void add(const Record &record) override;
    void preprocess(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                    const QList<Record> &inserted, const QList<Record> &changed) override;
    void process(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                 const QList<Record> &inserted) override;
    bool remove(const Record &record, int position) override;
    bool filter(const Record &record) const override;
    bool contains(const Record &record) const override;
    void update(const Record &record, int a, int b, int position) override;
    const char *getClassName() const override;

private:
    Q_DISABLE_COPY(IndexDependBase)
    const QScopedPointer<IndexDependBasePrivate> d;
};

#endif // DATABASE_INDEXDEPEND_H
