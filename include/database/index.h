#ifndef DATABASE_INDEX_H
#define DATABASE_INDEX_H

#include <database/database_global.h>

#include <QList>
#include <QScopedPointer>

class IndexPrivate;
class Record;
class Table;

// Index: the abstract base of every live view over a table's rows.
//
// The table drives its indexes: add/remove/update for single changes,
// preprocess then process for a batch, all inside beginUpdate()/endUpdate();
// dependentBeginUpdate()/dependentEndUpdate() when another table this index
// depends on changes; rebuild() (or clear()/build()) when the whole content must
// be recomputed.
//
// The order of the virtual operations is part of the design: subclasses extend
// it at the end. A position of -1 always means "unknown: search for it".
// Indexes never throw for a missing record or a bad position: they ignore it.
//
// Lifetime: the table never owns an index of its lists (only its master
// index). One rule holds for every kind of index: an index that stands in a
// table's registry (index list, dependent list, name map or main index) leaves
// all of them when it is destroyed, so the table never calls into freed
// memory. It leaves silently: indexRemoved() and dependentIndexRemoved() are
// the signals of removeIndex()/removeDependentIndex(), which the owner calls
// while the index is whole; a receiver of a destructor-time signal could only
// see a half-destroyed object. Likewise an index that registers itself while
// it is being constructed (registerWith()) is announced by indexAdded() only
// once it is complete, from the event loop of the table's thread.
// REQUIRES: an index is destroyed on the thread that changes its tables (or
// under their locks), and not by another index in the middle of a table's
// notification.
//
// Threads: not synchronised; every call comes from the thread that changes the
// table, under the table's lock.
class DATABASE_EXPORT Index
{
public:
    Index();
    virtual ~Index();
    virtual void clear() = 0;
    virtual void clear(bool rebuilding);
    virtual void build() = 0;
    virtual void build(bool rebuilding);
    // clear(true) then build(true).
    virtual void rebuild();
    // A record that passed filter() enters the index.
    virtual void add(const Record &record) = 0;
    // Called before a batch is applied; does nothing by default.
    virtual void preprocess(const QList<Record> &removed, const QList<Record> &updated, int first,
                            int last, const QList<Record> &inserted, const QList<Record> &changed);
    // Removes `removed`, re-places `updated`, adds the `inserted` that pass filter().
    virtual void process(const QList<Record> &removed, const QList<Record> &updated, int first,
                         int last, const QList<Record> &inserted);
    // The record leaves the index; true when it was there.
    virtual bool remove(const Record &record, int position) = 0;
    virtual bool filter(const Record &record) const = 0;
    virtual bool contains(const Record &record) const = 0;
    // Default: remove, then add again when the record passes filter().
    virtual void update(const Record &record, int a, int b, int position);
    // Default: -1 (not found).
    virtual int indexOf(const Record &record) const;
    virtual void beginUpdate();
    virtual void endUpdate();
    virtual void dependentBeginUpdate(Table *table);
    virtual void dependentEndUpdate(Table *table);
    virtual const char *getClassName() const = 0;

protected:
    // For constructors: appends this index to the table's index list at once
    // and announces it (indexAdded) once construction is over, from the event
    // loop of the table's thread; an index destroyed before then is never
    // announced. A null table does nothing.
    void registerWith(Table *table);

private:
    friend class Table;
    Q_DISABLE_COPY(Index)
    const QScopedPointer<IndexPrivate> d;
};

#endif // DATABASE_INDEX_H
