#include <database/indexdepend.h>

#include <database/record.h>
#include <database/tablerebuilder.h>

#include <QHash>

class IndexDependBasePrivate
{
public:
    struct Dependent
    {
        Index *index;
        Table *table;
    };

    QList<Dependent> dependents;
    QList<TableIndexRebuilder *> rebuilders;

    QList<Index *> indexes() const
    {
        QList<Index *> result;
        result.reserve(dependents.size());
        for (const Dependent &dependent : dependents)
            result.append(dependent.index);
        return result;
    }
};

IndexDependBase::IndexDependBase()
    : d(new IndexDependBasePrivate)
{
}

IndexDependBase::~IndexDependBase()
{
    qDeleteAll(d->rebuilders);
}

void IndexDependBase::addDependentIndex(Index *index)
{
    addDependentIndex(index, nullptr);
}

void IndexDependBase::addDependentIndex(Index *index, Table *table)
{
    if (!index) {
        qWarning("IndexDependBase::addDependentIndex: null index");
        return;
    }
    d->dependents.append({ index, table });
}

void IndexDependBase::removeDependentIndex(Index *index)
{
    for (int i = 0; i < d->dependents.size(); ++i) {
        if (d->dependents.at(i).index == index) {
            d->dependents.removeAt(i);
            return;
        }
    }
}

QList<Index *> IndexDependBase::dependentIndexes() const
{
    return d->indexes();
}

int IndexDependBase::pendingRebuilders() const
{
    return d->rebuilders.size();
}

void IndexDependBase::clear()
{
    clear(false);
}

void IndexDependBase::clear(bool rebuilding)
{
    const QList<IndexDependBasePrivate::Dependent> dependents = d->dependents;
    if (!rebuilding) {
        for (const IndexDependBasePrivate::Dependent &dependent : dependents)
            dependent.index->clear();
        return;
    }
    if (!d->rebuilders.isEmpty())
        return;

    QHash<Table *, QList<Index *>> byTable;
    QList<Table *> tables;
    for (const IndexDependBasePrivate::Dependent &dependent : dependents) {
        auto it = byTable.find(dependent.table);
        if (it == byTable.end()) {
            tables.append(dependent.table);
            it = byTable.insert(dependent.table, QList<Index *>());
        }
        it->append(dependent.index);
    }
    for (Table *table : qAsConst(tables))
        d->rebuilders.append(new TableIndexRebuilder(table, byTable.value(table)));
}

void IndexDependBase::build()
{
    build(false);
}

void IndexDependBase::build(bool rebuilding)
{
    if (!rebuilding) {
        const QList<Index *> dependents = d->indexes();
        for (Index *index : dependents)
            index->build();
        return;
    }
    const QList<TableIndexRebuilder *> rebuilders = d->rebuilders;
    d->rebuilders.clear();
    qDeleteAll(rebuilders);
}

void IndexDependBase::add(const Record &record)
{
    const QList<Index *> dependents = d->indexes();
    for (Index *index : dependents)
        index->add(record);
}

void IndexDependBase::preprocess(const QList<Record> &removed, const QList<Record> &updated,
                                 int first, int last, const QList<Record> &inserted,
                                 const QList<Record> &changed)
{
    const QList<Index *> dependents = d->indexes();
    for (Index *index : dependents)
        index->preprocess(removed, updated, first, last, inserted, changed);
}

void IndexDependBase::process(const QList<Record> &removed, const QList<Record> &updated, int first,
                              int last, const QList<Record> &inserted)
{
    const QList<Index *> dependents = d->indexes();
    for (Index *index : dependents)
        index->process(removed, updated, first, last, inserted);
}

bool IndexDependBase::remove(const Record &record, int position)
{
    bool removed = false;
    const QList<Index *> dependents = d->indexes();
    for (Index *index : dependents)
        removed = index->remove(record, position) || removed;
    return removed;
}

bool IndexDependBase::filter(const Record &) const
{
    return true;
}

bool IndexDependBase::contains(const Record &) const
{
    return false;
}

void IndexDependBase::update(const Record &record, int a, int b, int position)
{
    const QList<Index *> dependents = d->indexes();
    for (Index *index : dependents)
        index->update(record, a, b, position);
}

const char *IndexDependBase::getClassName() const
{
    return "IndexDependBase";
}
