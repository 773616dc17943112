#include <database/tablerebuilder.h>

#include "storage/table_p.h"
#include <database/index.h>
#include <database/table.h>

#include <QPointer>
#include <QStringList>

#include <algorithm>
#include <cstring>
#include <exception>

namespace {

bool classNameStartsWith(const Index *index, const char *prefix)
{
    if (!index)
        return false;
    const char *name = index->getClassName();
    return name && std::strncmp(name, prefix, std::strlen(prefix)) == 0;
}

// The groups in build order.
QList<QList<Index *>> buildOrder(const TableIndexRebuilder::IndexGroups &groups)
{
    return { groups.joins, groups.dependents, groups.others };
}

} // namespace

class TableIndexRebuilderPrivate
{
public:
    struct Entry
    {
        Index *index;
        bool registered;
        QStringList names;
    };

    QPointer<Table> table;
    QList<Index *> given;
    // Registered indexes in the table's list order, then the unlisted ones.
    QList<Entry> entries;

    void takeAside(Table *owner);
};

void TableIndexRebuilderPrivate::takeAside(Table *owner)
{
    const QList<Index *> listed = owner ? owner->d->indexes : QList<Index *>();
    for (Index *index : listed) {
        if (given.contains(index)
            && !std::any_of(entries.cbegin(), entries.cend(),
                            [index](const Entry &e) { return e.index == index; }))
            entries.append({ index, true, QStringList() });
    }
    for (Index *index : qAsConst(given)) {
        if (!listed.contains(index))
            entries.append({ index, false, QStringList() });
    }

    for (Entry &entry : entries) {
        if (!entry.registered)
            continue;
        QMap<QString, Index *> &names = owner->d->names;
        for (auto it = names.begin(); it != names.end();) {
            if (it.value() == entry.index) {
                entry.names.append(it.key());
                it = names.erase(it);
            } else {
                ++it;
            }
        }
        owner->removeIndex(entry.index);
    }

    const QList<QList<Index *>> order = buildOrder(TableIndexRebuilder::detectIndexGroup(given));
    for (int group = order.size() - 1; group >= 0; --group) {
        for (Index *index : order.at(group))
            index->clear(true);
    }
}

TableIndexRebuilder::TableIndexRebuilder(Table *table)
    : TableIndexRebuilder(table, table ? table->indexes() : QList<Index *>())
{
}

TableIndexRebuilder::TableIndexRebuilder(Table *table, const QList<Index *> &indexes)
    : d(new TableIndexRebuilderPrivate)
{
    d->table = table;
    for (Index *index : indexes) {
        if (index && !d->given.contains(index))
            d->given.append(index);
    }
    d->takeAside(table);
}

TableIndexRebuilder::~TableIndexRebuilder()
{
    for (const QList<Index *> &group : buildOrder(detectIndexGroup(d->given))) {
        for (Index *index : group) {
            // A destructor must not throw: a failed build leaves that index
            // empty but registered, and the others are still rebuilt.
            try {
                index->build(true);
            } catch (const std::exception &error) {
                qWarning("TableIndexRebuilder: building %s failed: %s", index->getClassName(),
                         error.what());
            } catch (...) {
                qWarning("TableIndexRebuilder: building %s failed", index->getClassName());
            }
        }
    }

    Table *table = d->table;
    if (!table)
        return;
    for (const TableIndexRebuilderPrivate::Entry &entry : qAsConst(d->entries)) {
        if (!entry.registered)
            continue;
        table->addIndex(entry.index);
        for (const QString &name : entry.names)
            table->setIndexName(name, entry.index);
    }
}

Table *TableIndexRebuilder::table() const
{
    return d->table;
}

QList<Index *> TableIndexRebuilder::indexes() const
{
    return d->given;
}

bool TableIndexRebuilder::isJoinIndex(const Index *index)
{
    return classNameStartsWith(index, "TableJoin");
}

bool TableIndexRebuilder::isDependentIndex(const Index *index)
{
    return classNameStartsWith(index, "IndexDepend");
}

TableIndexRebuilder::IndexGroups
TableIndexRebuilder::detectIndexGroup(const QList<Index *> &indexes)
{
    IndexGroups groups;
    for (Index *index : indexes) {
        if (isJoinIndex(index))
            groups.joins.append(index);
        else if (isDependentIndex(index))
            groups.dependents.append(index);
        else
            groups.others.append(index);
    }
    return groups;
}
