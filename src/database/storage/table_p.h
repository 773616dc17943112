#ifndef DATABASE_TABLE_P_H
#define DATABASE_TABLE_P_H

// Private part of Table: not installed, may change without notice.

#include <database/table.h>

#include "storage/rowlayout_p.h"

#include <QAtomicInt>
#include <QHash>
#include <QMap>
#include <QRecursiveMutex>

#include <atomic>

class TablePrivate
{
public:
    QString name;
    QString title;
    // The master index (owned) and the same object seen as the Index that is
    // notified; `main` may also be a test double with `master` null.
    MasterIndex *master = nullptr;
    // The master index as the Index it is (set with `master`), so that this
    // layer owns and compares it without the index family's headers.
    Index *masterAsIndex = nullptr;
    Index *main = nullptr;
    QList<Index *> indexes;
    QMap<QString, Index *> names;
    QList<Index *> dependents;
    // Indexes listed by their constructors and not yet announced (indexAdded).
    QList<Index *> unannounced;
    QList<TableColumnDef *> columns;
    // The same definitions, as fieldDefs() hands them out.
    QList<const TableColumnDef *> readOnlyColumns;
    int rowLength = 0;
    int rowSize = RowLayout::HeaderSize;
    // Lower-cased column name -> column position, for columnIndex().
    QHash<QString, int> cacheColumn;
    mutable QRecursiveMutex mutex;
    QAtomicInt updateDepth;
    // Locks taken by outermost brackets and not yet released, and the thread
    // that holds them. Written only by that thread, under the lock.
    int bracketLocks = 0;
    std::atomic<Qt::HANDLE> bracketOwner { nullptr };
};

#endif // DATABASE_TABLE_P_H
