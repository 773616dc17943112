#include <database/indexlimit.h>

#include <database/masterindex_struct.h>
#include <database/table.h>

#include <QDebug>

#include <algorithm>

IndexLimit::IndexLimit(int limit, Table *table)
    : IndexSort(table, true)
    , m_limit(limit)
{
    if (table)
        table->setIndexName(QStringLiteral("IndexLimit"), this);
}

IndexLimit::~IndexLimit() = default;

const char *IndexLimit::getClassName() const
{
    return "IndexLimit";
}

int IndexLimit::limit() const
{
    return m_limit;
}

bool IndexLimit::containsRecord(const QList<Record> &list, const Record &record) const
{
    const Table *source = table();
    const MasterIndex *master = source ? source->masterIndex() : nullptr;
    if (!master)
        return false;
    const auto lower
        = std::lower_bound(list.cbegin(), list.cend(), record, IndexSort::LessThan(master));
    return lower != list.cend() && master->compare(*lower, record) == 0;
}

void IndexLimit::toRemove(int n, QList<Record> &out, const QList<Record> &keep)
{
    const int excess = n + count() - m_limit;
    if (excess <= 0 || count() == 0)
        return;
    const Table *source = table();
    const MasterIndex *master = source ? source->masterIndex() : nullptr;
    if (!master) {
        qWarning() << "IndexLimit::toRemove: the table has no master index";
        return;
    }
    const IndexSort::LessThan lessThan(master);
    const int examined = qMin(excess, count());
    auto it = begin();
    for (int i = 0; i < examined; ++i, ++it) {
        const Record &record = *it;
        if (containsRecord(out, record) || containsRecord(keep, record))
            continue;
        out.insert(std::upper_bound(out.begin(), out.end(), record, lessThan), record);
    }
}
