#ifndef DATABASE_INDEX_P_H
#define DATABASE_INDEX_P_H

// Private part of Index: not installed, may change without notice.

#include <database/index.h>

#include <QList>

class IndexPrivate
{
public:
    // The tables whose registries hold the index (each table once), kept in
    // step by the table; the index leaves each of them when destroyed.
    QList<Table *> tables;
};

#endif // DATABASE_INDEX_P_H
