// The members of Table and Record that need the master index's concrete type.
// They live with the index family, so that the storage layer below it knows
// indexes only through the Index interface and the two layers form no cycle.

#include <database/masterindex_struct.h>
#include <database/record.h>
#include <database/table.h>

#include "storage/table_p.h"

void Table::setMasterIndex(MasterIndex *index)
{
    if (d->master && d->master != index)
        delete d->master; // leaves the registry in ~Index()
    d->master = index;
    d->masterAsIndex = index;
    setMainIndex(index);
}

// A test double installed as the main index is walked only if it can be
// (IndexIterative).
QList<Record> Table::takeMainRows()
{
    QList<Record> rows;
    const auto *iterative = dynamic_cast<const IndexIterative *>(d->main);
    if (!iterative)
        return rows;
    rows.reserve(iterative->count());
    for (auto it = iterative->begin(), end = iterative->end(); it != end; ++it)
        rows.append(*it);
    d->main->clear();
    return rows;
}

int Table::rowCount() const
{
    if (d->master)
        return d->master->count();
    const auto *iterative = dynamic_cast<const IndexIterative *>(d->main);
    return iterative ? iterative->count() : 0;
}

Record::Record(const Table *table, const QString &key)
{
    if (!table || key.isEmpty())
        return;
    if (const MasterIndex *master = table->masterIndex())
        *this = master->findRecord(key);
}

bool Record::inTable() const
{
    if (!m_row)
        return false;
    const MasterIndex *master = table()->masterIndex();
    return master && master->contains(*this);
}

QString Record::toString() const
{
    if (!m_row)
        return QString();
    const MasterIndex *master = table()->masterIndex();
    return master ? master->toText(*this) : QString();
}
