#include <database/watchindex.h>

WatchIndex::WatchIndex(Table *table)
    : m_table(table)
{
}

WatchIndex::~WatchIndex() = default;

void WatchIndex::clear()
{
    m_added.clear();
    m_removed.clear();
    m_updated.clear();
}

void WatchIndex::build()
{
    clear();
}

void WatchIndex::add(const Record &record)
{
    if (m_removed.removeOne(record))
        m_updated.append(record);
    else
        m_added.append(record);
}

bool WatchIndex::remove(const Record &record, int)
{
    m_removed.append(record);
    return true;
}

bool WatchIndex::filter(const Record &) const
{
    return true;
}

bool WatchIndex::contains(const Record &record) const
{
    return m_added.lastIndexOf(record) != -1 || m_updated.lastIndexOf(record) != -1;
}

void WatchIndex::update(const Record &record, int, int, int)
{
    m_updated.append(record);
}

const char *WatchIndex::getClassName() const
{
    return "WatchIndex";
}
