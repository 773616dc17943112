#ifndef DATABASE_TABLE_P_H
#define DATABASE_TABLE_P_H

// Private part of Table: not installed, may change without notice.

#include <database/table.h>

#include <QAtomicInt>
#include <QHash>
#include <QMap>
#include <QRecursiveMutex>

class TablePrivate
{
public:
    QString name;
    QString title;
    MasterIndex *master = nullptr;
    QList<Index *> indexes;
    QMap<QString, Index *> names;
    QList<Index *> dependents;
    QList<TableColumnDef *> columns;
    int rowLength = 0;
    int rowSize = 16;
    // Lower-cased column name -> column position, for columnIndex().
    QHash<QString, int> cacheColumn;
    mutable QRecursiveMutex mutex;
    QAtomicInt updateDepth;
};

#endif // DATABASE_TABLE_P_H
