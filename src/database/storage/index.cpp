#include <database/index.h>

#include "storage/index_p.h"

#include <database/record.h>
#include <database/table.h>

Index::Index()
    : d(new IndexPrivate)
{
}

Index::~Index()
{
    const QList<Table *> tables = d->tables;
    for (Table *table : tables)
        table->forgetIndex(this);
}

void Index::registerWith(Table *table)
{
    if (table)
        table->addIndexUnannounced(this);
}

void Index::clear(bool)
{
    clear();
}

void Index::build(bool)
{
    build();
}

void Index::rebuild()
{
    clear(true);
    build(true);
}

void Index::preprocess(const QList<Record> &, const QList<Record> &, int, int,
                       const QList<Record> &, const QList<Record> &)
{
}

// An updated record goes through update() with an unknown position; for an
// index that keeps the default update() this is exactly "remove, then add back
// if it still passes the filter".
void Index::process(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                    const QList<Record> &inserted)
{
    for (const Record &record : removed)
        remove(record, -1);
    for (const Record &record : updated)
        update(record, first, last, -1);
    for (const Record &record : inserted) {
        if (filter(record))
            add(record);
    }
}

void Index::update(const Record &record, int, int, int position)
{
    remove(record, position);
    if (filter(record))
        add(record);
}

int Index::indexOf(const Record &) const
{
    return -1;
}

void Index::beginUpdate()
{
}

void Index::endUpdate()
{
}

void Index::dependentBeginUpdate(Table *)
{
}

void Index::dependentEndUpdate(Table *)
{
}
