#include <database/indexlist.h>

#include <database/core/icore.h>
#include <database/masterindex_struct.h>
#include <database/table.h>

#include <QDebug>
#include <QPointer>

class IndexListPrivate
{
public:
    // Weak: the index must not call into a table that is already gone.
    QPointer<Table> table;
    PartitionList<Record> records;
    bool registered = false;
};

namespace {

Table *tableNamed(const QString &name)
{
    Table *table = ICore::instance()->findTable(name);
    if (!table)
        qWarning().noquote() << QStringLiteral("IndexList: no table named '%1'; the index stays "
                                               "empty and unregistered")
                                    .arg(name);
    return table;
}

} // namespace

IndexList::IndexList(Table *table, bool registered)
    : d(new IndexListPrivate)
{
    init(table, registered);
}

IndexList::IndexList(const QString &tableName, bool registered)
    : d(new IndexListPrivate)
{
    init(tableNamed(tableName), registered);
}

void IndexList::init(Table *table, bool registered)
{
    d->table = table;
    d->registered = registered && table;
    if (d->registered)
        registerWith(table);
}

// A registered index leaves its table's registry in ~Index().
IndexList::~IndexList() = default;

void IndexList::clear()
{
    d->records.clear();
}

void IndexList::build()
{
    const Table *source = d->table.data();
    if (!source)
        return;
    TableLocker locker(source);
    const MasterIndex *master = source->masterIndex();
    // The master index is where the rows live; it cannot be built from itself.
    if (!master || static_cast<const IndexList *>(master) == this)
        return;
    clear();
    for (auto it = master->begin(), end = master->end(); it != end; ++it)
        add(*it);
}

void IndexList::add(const Record &record)
{
    if (filter(record))
        d->records.append(record);
}

bool IndexList::remove(const Record &record, int position)
{
    PartitionList<Record> &list = d->records;
    if (position < 0 || position >= list.count() || list.at(position) != record)
        position = indexOf(record);
    if (position < 0)
        return false;
    list.remove(position);
    return true;
}

bool IndexList::filter(const Record &) const
{
    return true;
}

bool IndexList::contains(const Record &record) const
{
    return indexOf(record) != -1;
}

int IndexList::indexOf(const Record &record) const
{
    if (record.isNull())
        return -1;
    int position = 0;
    for (auto it = d->records.cbegin(), end = d->records.cend(); it != end; ++it, ++position) {
        if (*it == record)
            return position;
    }
    return -1;
}

const char *IndexList::getClassName() const
{
    return "IndexList";
}

int IndexList::count() const
{
    return d->records.count();
}

PartitionList<Record>::const_iterator IndexList::begin() const
{
    return d->records.cbegin();
}

PartitionList<Record>::const_iterator IndexList::end() const
{
    return d->records.cend();
}

Table *IndexList::table()
{
    return d->table.data();
}

const Table *IndexList::table() const
{
    return d->table.data();
}

void IndexList::move(int first, int last, int to)
{
    if (first == to || last == to)
        return;
    PartitionList<Record> &list = d->records;
    if (first < 0 || last < first || last >= list.count() || to < 0) {
        qWarning() << "IndexList::move: bad block" << first << last << "to" << to << "of"
                   << list.count();
        return;
    }
    QList<Record> block;
    block.reserve(last - first + 1);
    auto it = list.cbegin();
    it += first;
    for (int i = first; i <= last; ++i, ++it)
        block.append(*it);
    RangeSet<int> taken;
    taken.addRange(first, last + 1);
    list.removeRanges(taken);
    list.insert(qMin(to, list.count()), block);
}

void IndexList::removeRanges(const RangeSet<int> &ranges)
{
    d->records.removeRanges(ranges);
}

Record IndexList::at(int position) const
{
    if (position < 0 || position >= d->records.count())
        return Record();
    return d->records.at(position);
}

bool IndexList::isRegistered() const
{
    return d->registered;
}

qint64 IndexList::memoryUsage() const
{
    return records().memoryUsage();
}

PartitionList<Record> &IndexList::records()
{
    return d->records;
}

const PartitionList<Record> &IndexList::records() const
{
    return d->records;
}
