#include <database/indexvector.h>

#include <database/masterindex.h>
#include <database/table.h>

#include <QMutex>

#include <algorithm>

const IndexVector *IndexVector::sortIndex = nullptr;

IndexVector::IndexVector(Table *table)
    : m_table(table)
{
}

IndexVector::~IndexVector() = default;

void IndexVector::clear()
{
    m_records.clear();
}

void IndexVector::build()
{
    const MasterIndex *master = m_table ? m_table->masterIndex() : nullptr;
    if (!master)
        return;
    const TableLocker locker(m_table);
    for (auto it = master->begin(), end = master->end(); it != end; ++it) {
        if (filter(*it))
            add(*it);
    }
}

void IndexVector::add(const Record &record)
{
    auto position = std::find_if(m_records.begin(), m_records.end(),
                                 [&](const Record &stored) { return compare(stored, record) > 0; });
    m_records.insert(position, record);
}

bool IndexVector::remove(const Record &record, int)
{
    const int position = m_records.indexOf(record);
    if (position < 0)
        return false;
    m_records.remove(position);
    return true;
}

bool IndexVector::filter(const Record &) const
{
    return true;
}

bool IndexVector::contains(const Record &record) const
{
    return search(record, -1) != -1;
}

const char *IndexVector::getClassName() const
{
    return "IndexVector";
}

int IndexVector::search(const Record &key, int from) const
{
    for (int i = qMax(0, from + 1); i < m_records.size(); ++i) {
        if (compare(key, m_records.at(i)) == 0)
            return i;
    }
    return -1;
}

bool IndexVector::lessThan(const Record &a, const Record &b)
{
    return sortIndex->compare(a, b) < 0;
}

void IndexVector::resort()
{
    static QMutex resortMutex;
    QMutexLocker locker(&resortMutex);
    sortIndex = this;
    std::stable_sort(m_records.begin(), m_records.end(), &IndexVector::lessThan);
    sortIndex = nullptr;
}
