#ifndef BENCH_COLUMNVIEW_H
#define BENCH_COLUMNVIEW_H

// A registered sorted view ordered like a column key over the given columns,
// as a host would define one: the benchmarks' secondary indexes.

#include <database/indexsort.h>
#include <database/masterindex.h>

class ByColumns : public IndexSort
{
public:
    ByColumns(Table *table, const QStringList &columns)
        : IndexSort(table, true)
        , m_key(table, columns)
    {
    }
    int compare(const Record &a, const Record &b) const override { return m_key.compare(a, b); }
    // For shuffling before a resort.
    PartitionList<Record> &list() { return records(); }

private:
    MasterIndex_Column_Pure m_key;
};

#endif // BENCH_COLUMNVIEW_H
