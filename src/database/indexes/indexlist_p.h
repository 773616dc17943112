#ifndef DATABASE_INDEXLIST_P_H
#define DATABASE_INDEXLIST_P_H

// Private helpers of the list-index family: not installed.

#include <database/table.h>

// Holds a table's lock for a scope, also when an exception leaves it.
class TableLocker
{
public:
    explicit TableLocker(const Table *table)
        : m_table(table)
    {
        m_table->lock();
    }
    ~TableLocker() { m_table->unlock(); }
    TableLocker(const TableLocker &) = delete;
    TableLocker &operator=(const TableLocker &) = delete;

private:
    const Table *m_table;
};

#endif // DATABASE_INDEXLIST_P_H
