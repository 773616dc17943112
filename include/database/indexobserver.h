#ifndef DATABASE_INDEXOBSERVER_H
#define DATABASE_INDEXOBSERVER_H

#include <database/database_global.h>
#include <database/record.h>

#include <QList>
#include <QVector>

// IndexObserver: told by a list-family index (IndexList and its subclasses)
// where its rows went, after each change, so that a view over the index can
// follow positions without searching for them. IndexModel is the observer the
// library ships; any other may register with IndexList::addObserver().
//
// Every callback runs after the index changed, on the thread that changed it,
// under the table's lock. Positions are those of the index at that moment:
//  - indexRowInserted: `record` now stands at `position`;
//  - indexRowRemoved: `record` left `position` (of the list before the removal);
//  - indexRowUpdated: `record` was at `from` and now stands at `to` (equal
//    when it did not move); cells of columns first..last changed (-1: the
//    first or last column of the table);
//  - indexBatchProcessed: one batch: the leaving records left the given
//    positions of the list before the batch (-1: was not there; every record
//    of `leaving` that is also in `entering` was updated), then the entering
//    records stand at the given positions of the list after the batch, in
//    ascending order. An empty enteringPositions with a non-empty entering list
//    means that the positions are not known (read the index instead);
//  - indexReset: the index was rearranged by an operation that reports no
//    positions (clear, build, resort, move, removeRanges): read it again;
//  - indexBeginUpdate / indexEndUpdate: the table's outermost change bracket;
//  - indexDestroyed: the index is being destroyed; do not touch it again.
//
// Cost: an index without observers tests one pointer per change and does
// nothing else.
class DATABASE_EXPORT IndexObserver
{
public:
    struct Batch
    {
        QList<Record> leaving;
        QVector<int> leavingPositions;
        QList<Record> entering;
        QVector<int> enteringPositions;
        int firstColumn = -1;
        int lastColumn = -1;
    };

    virtual void indexRowInserted(int position, const Record &record) = 0;
    virtual void indexRowRemoved(int position, const Record &record) = 0;
    virtual void indexRowUpdated(int from, int to, const Record &record, int firstColumn,
                                 int lastColumn)
        = 0;
    virtual void indexBatchProcessed(const Batch &batch) = 0;
    virtual void indexReset() = 0;
    virtual void indexBeginUpdate() = 0;
    virtual void indexEndUpdate() = 0;
    virtual void indexDestroyed() = 0;

protected:
    IndexObserver() = default;
    IndexObserver(const IndexObserver &) = default;
    IndexObserver &operator=(const IndexObserver &) = default;
    ~IndexObserver() = default;
};

#endif // DATABASE_INDEXOBSERVER_H
