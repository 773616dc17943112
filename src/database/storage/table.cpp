#include <database/table.h>

#include "storage/index_p.h"
#include "storage/rowlayout_p.h"
#include "storage/rowslab_p.h"
#include "storage/table_p.h"
#include "storage/tabletesting_p.h"

#include <database/core/icore.h>
#include <database/index.h>
#include <database/record.h>

#include <QDebug>
#include <QSet>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

int roundUp8(qint64 size)
{
    return int((size + 7) & ~qint64(7));
}

int flagBytes(int columnCount)
{
    return (columnCount + 7) / 8;
}

} // namespace

Table::Table(const QString &name, const QString &title, QObject *parent)
    : QObject(parent)
    , d(new TablePrivate)
{
    d->name = name;
    d->title = title;
}

Table::~Table()
{
    DefaultCore::global()->forgetTable(this);
    // Indexes that outlive the table must not come back to it.
    QList<Index *> held = d->indexes + d->dependents + d->names.values();
    held.append(d->main);
    for (Index *index : qAsConst(held)) {
        if (index)
            index->d->tables.removeAll(this);
    }
    // The master index holds the rows: it goes while the table can still free them.
    Index *master = d->masterAsIndex;
    d->master = nullptr;
    d->masterAsIndex = nullptr;
    if (d->main == master)
        d->main = nullptr;
    delete master;
    qDeleteAll(d->columns);
}

QString Table::name() const
{
    return d->name;
}

QString Table::title() const
{
    return d->title;
}

void Table::setTitle(const QString &title)
{
    d->title = title;
}

MasterIndex *Table::masterIndex() const
{
    return d->master;
}

int Table::columnCount() const
{
    return d->columns.size();
}

QString Table::columnName(int column) const
{
    return d->columns.at(column)->name;
}

FieldType::Type Table::columnType(int column) const
{
    return d->columns.at(column)->type;
}

QString Table::columnTypeName(int column) const
{
    return QString::fromLatin1(FieldType::typeName(columnType(column)));
}

QString Table::columnTitle(int column) const
{
    const TableColumnDef *def = d->columns.at(column);
    return def->title.isEmpty() ? def->name : def->title;
}

void Table::setColumnTitle(int column, const QString &title)
{
    d->columns.at(column)->title = title;
}

QString Table::columnDescription(int column) const
{
    return d->columns.at(column)->description;
}

const TableColumnDef *Table::columnDef(int column) const
{
    return d->columns.value(column, nullptr);
}

const TableColumnDef *Table::columnDef(const QString &name) const
{
    return columnDef(columnIndex(name));
}

int Table::columnIndex(const QString &name) const
{
    return d->cacheColumn.value(name.toLower(), -1);
}

QStringList Table::columns() const
{
    QStringList names;
    names.reserve(d->columns.size());
    for (const TableColumnDef *def : qAsConst(d->columns))
        names << def->name;
    return names;
}

const QList<const TableColumnDef *> &Table::fieldDefs() const
{
    return d->readOnlyColumns;
}

int Table::rowLength() const
{
    return d->rowLength;
}

int Table::rowLengthUnaligned() const
{
    qint64 sum = 0;
    for (const TableColumnDef *def : qAsConst(d->columns))
        sum += def->size;
    return int(sum);
}

int Table::rowSize() const
{
    return d->rowSize;
}

// --- row primitives --------------------------------------------------------------

// Row blocks come straight from malloc, whose blocks are aligned for any cell
// (an aligned-allocation wrapper would add a pointer to every row), and go back
// with free(); TableIO::memoryUsage counts them at the heap's chunk size.
unsigned char *Table::allocRow() const
{
    auto *row = static_cast<unsigned char *>(std::malloc(size_t(d->rowSize)));
    if (row)
        initRow(row);
    return row;
}

void Table::initRow(unsigned char *row) const
{
    std::memset(row, 0, size_t(d->rowSize));
    RowLayout::setOwner(row, this);
    for (const TableColumnDef *def : qAsConst(d->columns)) {
        if (!def->nullable)
            RowLayout::flagByte(row, def) |= def->flagMask;
    }
}

unsigned char *Table::cloneRow(const unsigned char *row) const
{
    auto *copy = static_cast<unsigned char *>(std::malloc(size_t(d->rowSize)));
    if (!copy)
        return nullptr;
    std::memcpy(copy, row, size_t(d->rowSize));
    const int zero = 0;
    std::memcpy(copy, &zero, sizeof(zero));
    RowSlabAllocator::markOwnBlock(copy);
    return copy;
}

void Table::copyRowContent(unsigned char *dst, const unsigned char *src) const
{
    std::memcpy(RowLayout::dataArea(dst), RowLayout::dataArea(src),
                size_t(d->rowSize - RowLayout::HeaderSize));
}

void Table::copyRowContent(unsigned char *dst, const unsigned char *src, int first, int last) const
{
    if (d->columns.isEmpty())
        return;
    if (first < 0)
        first = 0;
    if (last < 0 || last >= d->columns.size())
        last = d->columns.size() - 1;
    if (first > last)
        return;
    const TableColumnDef *from = d->columns.at(first);
    const TableColumnDef *to = d->columns.at(last);
    const qint64 length = to->offset + roundUp8(to->size) - from->offset;
    std::memcpy(RowLayout::cell(dst, from), RowLayout::cell(src, from), size_t(length));
    std::memcpy(RowLayout::flagArea(dst, d->rowLength), RowLayout::flagArea(src, d->rowLength),
                size_t(flagBytes(d->columns.size())));
}

void Table::freeRow(unsigned char *row) const
{
    RowSlabAllocator::freeRow(row);
}

Field Table::dataPtr(const unsigned char *row, int column) const
{
    const TableColumnDef *def = d->columns.at(column);
    auto *block = const_cast<unsigned char *>(row);
    return Field(def, RowLayout::cell(block, def), &RowLayout::flagByte(block, def), def->flagMask);
}

// --- columns -----------------------------------------------------------------------

void Table::addColumn(const QString &name, FieldType::Type type, int length, bool nullable,
                      const QString &title, bool auxFlag, const QString &description)
{
    TableColumnDef def(this);
    def.name = name;
    def.type = type;
    def.length = length;
    def.nullable = nullable;
    def.title = title;
    def.auxFlag = auxFlag;
    def.description = description;
    addColumn(def);
}

void Table::addColumn(const QString &name, const FieldDef &fieldDef, bool nullable,
                      const QString &title, bool auxFlag, const QString &description)
{
    addColumn(name, fieldDef.type, fieldDef.length, nullable, title, auxFlag, description);
}

void Table::addColumn(const TableColumnDef &source)
{
    addColumns(QList<TableColumnDef>() << source);
}

void Table::addColumns(const QList<TableColumnDef> &sources)
{
    // Every definition is checked before anything changes. The names are
    // looked up in the lower-cased name cache, so adding n columns costs O(n).
    QSet<QString> batchNames;
    QVector<int> sizes;
    sizes.reserve(sources.size());
    qint64 newRowLength = d->rowLength;
    for (const TableColumnDef &source : sources) {
        if (source.name.isEmpty())
            throw QString(QStringLiteral("Column name can't be empty."));
        const QString key = source.name.toLower();
        if (d->cacheColumn.contains(key) || batchNames.contains(key))
            throw QString(QStringLiteral("Column '%1' already exists for table '%2'.")
                              .arg(source.name, d->name));
        batchNames.insert(key);
        if (source.type == FieldType::VarChar && source.length < 0)
            throw QString(QStringLiteral("Length of string %1 is negative.").arg(source.length));
        const int size = FieldType::typeLength(source.type, source.length);
        sizes.append(size);
        newRowLength += roundUp8(size);
    }
    const int oldColumnCount = d->columns.size();
    const int newColumnCount = oldColumnCount + sources.size();
    if (RowLayout::HeaderSize + newRowLength + flagBytes(newColumnCount) > MaxRowSize)
        throw QString(QStringLiteral("Rows of table '%1' would exceed %2 bytes.")
                          .arg(d->name)
                          .arg(MaxRowSize));
    if (sources.isEmpty())
        return;

    const int oldRowLength = d->rowLength;
    const int newRowSize = RowLayout::HeaderSize + int(newRowLength) + flagBytes(newColumnCount);

    // The listed indexes are built again at the end; emptied now, none of them
    // keeps a handle to a block that the re-laying may move.
    const QList<Index *> listed = d->indexes;
    for (Index *index : listed)
        index->clear();
    QList<Record> rows = takeMainRows();
    QList<unsigned char *> blocks;
    blocks.reserve(rows.size());
    for (Record &record : rows) {
        unsigned char *row = record.row();
        const int left = record.releaseWithoutFree();
        if (left != 0)
            qDebug() << "Table::addColumn : Ref count in realloc is " << left;
        row = RowSlabAllocator::resizeRow(row, size_t(d->rowSize), size_t(newRowSize));
        if (!row)
            qFatal("Table::addColumn: out of memory while re-laying rows");
        const int oldFlagBytes = flagBytes(oldColumnCount);
        unsigned char *flags = RowLayout::flagArea(row, int(newRowLength));
        std::memmove(flags, RowLayout::flagArea(row, oldRowLength), size_t(oldFlagBytes));
        std::memset(flags + oldFlagBytes, 0, size_t(flagBytes(newColumnCount) - oldFlagBytes));
        std::memset(RowLayout::dataArea(row) + oldRowLength, 0,
                    size_t(newRowLength - oldRowLength));
        for (int i = 0; i < sources.size(); ++i) {
            const int column = oldColumnCount + i;
            if (sources.at(i).nullable)
                flags[column / 8] &= quint8(~(1u << (column % 8)));
        }
        const int zero = 0;
        std::memcpy(row, &zero, sizeof(zero));
        blocks.append(row);
    }
    rows.clear();

    int offset = oldRowLength;
    for (int i = 0; i < sources.size(); ++i) {
        const TableColumnDef &source = sources.at(i);
        auto *def = new TableColumnDef(this);
        def->type = source.type;
        def->length = source.length;
        def->name = source.name;
        def->description = source.description;
        def->title = source.title;
        def->auxFlag = source.auxFlag;
        def->nullable = source.nullable;
        def->offset = offset;
        def->size = sizes.at(i);
        offset += roundUp8(def->size);
        d->cacheColumn.insert(def->name.toLower(), d->columns.size());
        d->columns.append(def);
        d->readOnlyColumns.append(def);
    }
    d->rowSize = newRowSize;
    d->rowLength = int(newRowLength);
    for (int i = 0; i < d->columns.size(); ++i) {
        TableColumnDef *column = d->columns.at(i);
        column->index = i;
        column->flagOffset = int(newRowLength) + i / 8;
        column->flagMask = quint8(1u << (i % 8));
    }

    for (unsigned char *row : qAsConst(blocks))
        rows.append(Record(row));
    restoreMainRows(rows);
    build();
}

// --- the main index ------------------------------------------------------------------
// setMasterIndex(), takeMainRows() and rowCount() need the master index's
// concrete type: they are defined with it (indexes/tablemaster.cpp), so this
// layer knows indexes only through the Index interface.

bool Table::hasMainIndex() const
{
    return d->main != nullptr;
}

void Table::restoreMainRows(const QList<Record> &rows)
{
    if (!d->main)
        return;
    for (const Record &row : rows)
        d->main->add(row);
}

// --- locking -------------------------------------------------------------------------

void Table::lock() const
{
    d->mutex.lock();
}

void Table::unlock() const
{
    d->mutex.unlock();
}

// --- index registry --------------------------------------------------------------------

QList<Index *> Table::indexes() const
{
    return d->indexes;
}

QList<Index *> Table::dependentIndexes() const
{
    return d->dependents;
}

void Table::setIndexes(const QList<Index *> &indexes)
{
    const QList<Index *> before = d->indexes;
    d->indexes = indexes;
    for (Index *index : before + indexes)
        trackRegistration(index);
}

void Table::addIndex(Index *index)
{
    d->indexes.append(index);
    trackRegistration(index);
    Q_EMIT indexAdded(index);
}

void Table::removeIndex(Index *index)
{
    d->indexes.removeOne(index);
    if (!d->indexes.contains(index))
        d->unannounced.removeAll(index);
    const QString name = indexName(index);
    if (!name.isEmpty())
        d->names.remove(name);
    trackRegistration(index);
    Q_EMIT indexRemoved(index);
}

void Table::addDependentIndex(Index *index)
{
    d->dependents.append(index);
    trackRegistration(index);
    Q_EMIT dependentIndexAdded(index);
}

void Table::removeDependentIndex(Index *index)
{
    d->dependents.removeOne(index);
    trackRegistration(index);
    Q_EMIT dependentIndexRemoved(index);
}

void Table::trackRegistration(Index *index)
{
    if (!index)
        return;
    const bool held = d->main == index || d->indexes.contains(index)
        || d->dependents.contains(index)
        || std::find(d->names.cbegin(), d->names.cend(), index) != d->names.cend();
    QList<Table *> &tables = index->d->tables;
    if (!held)
        tables.removeAll(this);
    else if (!tables.contains(this))
        tables.append(this);
}

void Table::addIndexUnannounced(Index *index)
{
    d->indexes.append(index);
    trackRegistration(index);
    if (d->unannounced.isEmpty())
        QMetaObject::invokeMethod(this, &Table::announceAddedIndexes, Qt::QueuedConnection);
    d->unannounced.append(index);
}

void Table::announceAddedIndexes()
{
    lock();
    const QList<Index *> pending = d->unannounced;
    d->unannounced.clear();
    for (Index *index : pending) {
        if (d->indexes.contains(index))
            Q_EMIT indexAdded(index);
    }
    unlock();
}

void Table::forgetIndex(Index *index)
{
    lock();
    d->indexes.removeAll(index);
    d->dependents.removeAll(index);
    d->unannounced.removeAll(index);
    for (auto it = d->names.begin(); it != d->names.end();) {
        if (it.value() == index)
            it = d->names.erase(it);
        else
            ++it;
    }
    if (d->main == index)
        d->main = nullptr;
    if (d->masterAsIndex == index) {
        d->master = nullptr;
        d->masterAsIndex = nullptr;
    }
    index->d->tables.removeAll(this);
    unlock();
}

Index *Table::namedIndex(const QString &name) const
{
    return d->names.value(name, nullptr);
}

void Table::setIndexName(const QString &name, Index *index)
{
    Index *previous = d->names.value(name, nullptr);
    d->names.insert(name, index);
    trackRegistration(previous);
    trackRegistration(index);
    Q_EMIT indexNameUpdated(index, name);
}

QString Table::indexName(Index *index) const
{
    for (auto it = d->names.cbegin(); it != d->names.cend(); ++it) {
        if (it.value() == index)
            return it.key();
    }
    return QString();
}

// --- the main index hook ------------------------------------------------------------

void Table::setMainIndex(Index *index)
{
    Index *previous = d->main;
    d->main = index;
    trackRegistration(previous);
    trackRegistration(index);
}

void testingSetMainIndex(Table *table, Index *index)
{
    if (table->d->master) {
        qWarning("testingSetMainIndex: table '%s' has a master index", qPrintable(table->d->name));
        return;
    }
    table->setMainIndex(index);
}

// --- change brackets -------------------------------------------------------------------

int Table::updateDepth() const
{
    return d->updateDepth.loadAcquire();
}

void Table::beginUpdate()
{
    // The lock comes first: a bracket of another thread makes this one wait
    // here, before it counts, so the depth belongs to one thread at a time.
    // Every beginUpdate() holds one level of the recursive lock until its
    // endUpdate().
    lock();
    ++d->bracketLocks;
    if (d->updateDepth.fetchAndAddOrdered(1) >= 1)
        return;

    const QList<Index *> dependents = d->dependents;
    for (Index *index : dependents)
        index->dependentBeginUpdate(this);

    if (d->main)
        d->main->beginUpdate();
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->beginUpdate();
}

void Table::endUpdate()
{
    // Taken for the bookkeeping; free for the thread whose bracket this ends.
    lock();
    // Under the lock, an open bracket can only be this thread's.
    const bool paired = d->bracketLocks > 0;
    if (paired)
        --d->bracketLocks;
    const int before = d->updateDepth.fetchAndSubOrdered(1);
    if (before >= 2) {
        unlock();
        if (paired)
            unlock();
        return;
    }
    if (before <= 0 || !paired)
        qWarning("Table::endUpdate: no update bracket is open on table '%s'", qPrintable(d->name));

    if (d->main)
        d->main->endUpdate();
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->endUpdate();

    unlock();
    if (paired)
        unlock();

    const QList<Index *> dependents = d->dependents;
    for (Index *index : dependents)
        index->dependentEndUpdate(this);
}

// --- notifications -----------------------------------------------------------------------

void Table::appendRow(unsigned char *row)
{
    const Record record(row);
    if (d->main)
        d->main->add(record);
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->add(record);
}

void Table::appendList(const QList<Record> &records)
{
    QList<Record> updated;
    process(QList<Record>(), updated, -1, -1, records, QList<Record>());
}

bool Table::remove(const Record &record, int position)
{
    // `record` may be a handle inside one of the indexes: hold the row until
    // every index has let go of it.
    const Record keep(record);
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->remove(keep, -1);
    return d->main ? d->main->remove(keep, position) : false;
}

void Table::updated(const Record &record, int a, int b, int c)
{
    // An update may take the record out of an index and put it back, and
    // `record` may be a handle inside that index: hold the row meanwhile.
    const Record keep(record);
    if (d->main)
        d->main->update(keep, a, b, c);
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->update(keep, a, b, -1);
}

QVector<int> Table::buildKeeper(const Record &record) const
{
    QVector<int> keeper;
    keeper.reserve(1 + d->indexes.size());
    keeper.append(d->main ? d->main->indexOf(record) : -1);
    for (const Index *index : qAsConst(d->indexes))
        keeper.append(index->indexOf(record));
    return keeper;
}

void Table::updated(const Record &record, const QVector<int> &keeper, int a, int b)
{
    const QList<Index *> indexes = d->indexes;
    QVector<int> positions = keeper;
    if (positions.size() != 1 + indexes.size()) {
        qWarning("Table::updated: the keeper of %d positions does not match the %d indexes of "
                 "table '%s'",
                 int(keeper.size()), int(1 + indexes.size()), qPrintable(d->name));
        positions.fill(-1, 1 + indexes.size());
    }
    const Record keep(record);
    if (d->main)
        d->main->update(keep, a, b, positions.at(0));
    for (int i = 0; i < indexes.size(); ++i)
        indexes.at(i)->update(keep, a, b, positions.at(i + 1));
}

void Table::process(const QList<Record> &removed, QList<Record> &updated, int first, int last,
                    const QList<Record> &inserted, const QList<Record> &changed)
{
    if (d->main)
        d->main->preprocess(removed, updated, first, last, inserted, changed);
    const QList<Index *> preprocessed = d->indexes;
    for (Index *index : preprocessed)
        index->preprocess(removed, updated, first, last, inserted, changed);

    const int copies = qMin(updated.size(), changed.size());
    for (int i = 0; i < copies; ++i)
        updated[i].copy(changed.at(i), first, last);

    if (d->main)
        d->main->process(removed, updated, first, last, inserted);
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->process(removed, updated, first, last, inserted);
}

void Table::build()
{
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->build();
}

void Table::clear()
{
    beginUpdate();
    const QList<Index *> indexes = d->indexes;
    for (Index *index : indexes)
        index->clear();
    if (d->main)
        d->main->clear();
    endUpdate();
}
