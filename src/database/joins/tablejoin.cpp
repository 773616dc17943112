#include <database/tablejoin.h>

#include "joins/tablejoin_p.h"

#include <database/masterindex.h>
#include <database/record.h>
#include <database/recordstrans.h>
#include <database/table.h>

#include <QMutex>
#include <QMutexLocker>

#include <cstring>

namespace {

// Every active join, for the refusal of cycles.
QMutex registryMutex;
QList<TableJoinPrivate *> registry;

// Key types that match each other; 0 for a type that cannot be a join key.
int keyTypeClass(FieldType::Type type)
{
    switch (type) {
    case FieldType::Integer:
    case FieldType::Integer64:
        return 1;
    case FieldType::Double:
        return 2;
    case FieldType::Decimal:
        return 3;
    case FieldType::VarChar:
        return 4;
    case FieldType::DateTime:
        return 5;
    default:
        return 0;
    }
}

template <typename T> void appendBytes(QByteArray &out, const T &value)
{
    out.append(reinterpret_cast<const char *>(&value), int(sizeof(T)));
}

// Whether `target` can be reached from `from` along the joins (main -> dependent).
bool reaches(const Table *from, const Table *target)
{
    QList<const Table *> queue { from };
    QSet<const Table *> seen { from };
    while (!queue.isEmpty()) {
        const Table *table = queue.takeFirst();
        if (table == target)
            return true;
        for (const TableJoinPrivate *join : qAsConst(registry)) {
            if (join->main == table && !seen.contains(join->dependent)) {
                seen.insert(join->dependent);
                queue.append(join->dependent);
            }
        }
    }
    return false;
}

template <typename Visit> void forEachMasterRow(const Table *table, Visit visit)
{
    const MasterIndex *master = table->masterIndex();
    if (!master)
        return;
    for (auto it = master->begin(), end = master->end(); it != end; ++it)
        visit(it->row());
}

} // namespace

MainTableLocker::MainTableLocker(const TableJoinPrivate *join)
    : m_table(join->main)
{
    if (m_table)
        m_table->lock();
}

MainTableLocker::~MainTableLocker()
{
    if (m_table)
        m_table->unlock();
}

// --- creation ----------------------------------------------------------------------------

bool TableJoinPrivate::validate(const QStringList &mainKeyColumns,
                                const QList<TableJoin::Column> &columns)
{
    if (!main || !dependent) {
        qWarning("TableJoin: null table");
        error = QStringLiteral("TableJoin: both tables are required");
        return false;
    }
    const QString mainName = main->name();
    const QString dependentName = dependent->name();
    if (main == dependent) {
        error = QStringLiteral("TableJoin: table '%1' cannot be joined into itself").arg(mainName);
        return false;
    }
    if (reaches(dependent, main)) {
        error = QStringLiteral("TableJoin: joining '%1' into '%2' would close a cycle of joins")
                    .arg(dependentName, mainName);
        return false;
    }
    if (!main->masterIndex()) {
        error = QStringLiteral("TableJoin: main table '%1' has no master index").arg(mainName);
        return false;
    }
    const MasterIndex *master = dependent->masterIndex();
    if (!master || master->keyColumns().isEmpty()) {
        error
            = QStringLiteral("TableJoin: dependent table '%1' has no master index with key columns")
                  .arg(dependentName);
        return false;
    }
    const QList<const TableColumnDef *> &key = master->keyColumns();
    if (key.size() != mainKeyColumns.size()) {
        error = QStringLiteral("TableJoin: %1 key columns given for the %2 key columns of '%3'")
                    .arg(mainKeyColumns.size())
                    .arg(key.size())
                    .arg(dependentName);
        return false;
    }
    for (int i = 0; i < key.size(); ++i) {
        const int mainColumn = main->columnIndex(mainKeyColumns.at(i));
        if (mainColumn < 0) {
            error = QStringLiteral("TableJoin: column '%1' not found in table '%2'")
                        .arg(mainKeyColumns.at(i), mainName);
            return false;
        }
        const FieldType::Type mainType = main->columnType(mainColumn);
        const FieldType::Type dependentType = key.at(i)->type;
        if (keyTypeClass(dependentType) == 0
            || keyTypeClass(mainType) != keyTypeClass(dependentType)) {
            error
                = QStringLiteral("TableJoin: key column '%1' (%2) cannot match '%3' (%4) of '%5'")
                      .arg(main->columnName(mainColumn),
                           QString::fromLatin1(FieldType::typeName(mainType)), key.at(i)->name,
                           QString::fromLatin1(FieldType::typeName(dependentType)), dependentName);
            return false;
        }
        mainKey.append(mainColumn);
        dependentKey.append(dependent->columnIndex(key.at(i)->name));
    }
    if (columns.isEmpty()) {
        error = QStringLiteral("TableJoin: no columns to join");
        return false;
    }
    QSet<QString> names;
    for (const TableJoin::Column &column : columns) {
        const int dependentColumn = dependent->columnIndex(column.dependent);
        if (dependentColumn < 0) {
            error = QStringLiteral("TableJoin: column '%1' not found in table '%2'")
                        .arg(column.dependent, dependentName);
            return false;
        }
        const QString name = column.main.isEmpty() ? column.dependent : column.main;
        if (main->columnIndex(name) >= 0 || names.contains(name.toLower())) {
            error = QStringLiteral("TableJoin: column '%1' already exists in table '%2'")
                        .arg(name, mainName);
            return false;
        }
        names.insert(name.toLower());
        dependentColumns.append(dependentColumn);
    }
    return true;
}

void TableJoinPrivate::attach(const QList<TableJoin::Column> &columns)
{
    // The dependent table first, then the main one: the order of every join.
    dependent->lock();
    main->lock();
    main->beginUpdate();
    try {
        for (int i = 0; i < columns.size(); ++i) {
            const TableColumnDef *def = dependent->columnDef(dependentColumns.at(i));
            const QString name = columns.at(i).main.isEmpty() ? def->name : columns.at(i).main;
            main->addColumn(name, def->type, def->length, true, def->title, def->auxFlag,
                            def->description);
            const int column = main->columnIndex(name);
            mainColumns.append(column);
            offsets.append(cellBytes);
            sizes.append(main->columnDef(column)->size);
            cellBytes += sizes.last();
        }
    } catch (...) {
        main->endUpdate();
        main->unlock();
        dependent->unlock();
        throw;
    }

    state = Active;
    dependentIndex = new TableJoinDep(this);
    mainIndex = new TableJoinMain(this);
    buildDependent();
    dependent->addIndex(dependentIndex);
    dependent->addDependentIndex(dependentIndex);
    main->addIndex(mainIndex);
    moveMainIndexFirst();
    buildMain();

    main->endUpdate();
    main->unlock();
    dependent->unlock();
}

void TableJoinPrivate::moveMainIndexFirst()
{
    // First in the list: every later index sees entering rows already filled.
    QList<Index *> listed = main->indexes();
    if (listed.value(0) == mainIndex || !listed.removeOne(mainIndex))
        return;
    listed.prepend(mainIndex);
    main->setIndexes(listed);
}

void TableJoinPrivate::detach()
{
    if (state != Active)
        return;
    if (dependent) {
        dependent->lock();
        dependent->removeIndex(dependentIndex);
        dependent->removeDependentIndex(dependentIndex);
    }
    if (main) {
        main->lock();
        main->removeIndex(mainIndex);
        // A bracket of the dependent table that is still open would never
        // close the main table's bracket now.
        for (; openBrackets > 0; --openBrackets) {
            main->endUpdate();
            main->unlock();
        }
        main->unlock();
    }
    if (dependent)
        dependent->unlock();
    openBrackets = 0;
    state = Detached;
    entries.clear();
    mainKeyOf.clear();
    dependentKeyOf.clear();
    pending.clear();
    QMutexLocker locker(&registryMutex);
    registry.removeOne(this);
}

TableJoin::TableJoin(Table *main, const QStringList &mainKeyColumns, Table *dependent,
                     const QList<Column> &columns)
    : d(new TableJoinPrivate)
{
    d->main = main;
    d->dependent = dependent;
    QMutexLocker locker(&registryMutex);
    if (!d->validate(mainKeyColumns, columns))
        return;
    try {
        d->attach(columns);
    } catch (const QString &message) {
        // Only a failed allocation of the new cells can get here.
        d->error = message;
        d->state = TableJoinPrivate::Invalid;
        return;
    }
    registry.append(d.data());
    locker.unlock();

    TableJoinPrivate *join = d.data();
    QObject::connect(
        main, &QObject::destroyed, &d->watcher,
        [join] {
            join->main = nullptr;
            join->openBrackets = 0;
            join->detach();
        },
        Qt::DirectConnection);
    // An index rebuilder that took the main index aside registers it again at
    // the end of the list.
    QObject::connect(
        main, &Table::indexAdded, &d->watcher,
        [join](Index *index) {
            if (index == join->mainIndex)
                join->moveMainIndexFirst();
        },
        Qt::DirectConnection);
    QObject::connect(
        dependent, &QObject::destroyed, &d->watcher,
        [join] {
            join->dependent = nullptr;
            join->detach();
        },
        Qt::DirectConnection);
}

TableJoin::~TableJoin()
{
    d->detach();
    delete d->mainIndex;
    delete d->dependentIndex;
}

bool TableJoin::isValid() const
{
    return d->state == TableJoinPrivate::Active;
}

QString TableJoin::errorString() const
{
    return d->error;
}

Table *TableJoin::mainTable() const
{
    return d->main;
}

Table *TableJoin::dependentTable() const
{
    return d->dependent;
}

QList<int> TableJoin::mainColumns() const
{
    return d->mainColumns.toList();
}

bool TableJoin::isJoinIndex(const Index *index)
{
    // By class name, so that stand-ins of the join indexes group the same way.
    static const char prefix[] = "TableJoin";
    const char *name = index ? index->getClassName() : nullptr;
    return name && std::strncmp(name, prefix, sizeof(prefix) - 1) == 0;
}

// --- keys and cells ------------------------------------------------------------------------

QByteArray TableJoinPrivate::keyOf(const Table *table, const unsigned char *row,
                                   const QVector<int> &columns) const
{
    QByteArray key;
    key.reserve(columns.size() * 12);
    for (int column : columns) {
        const Field field = table->dataPtr(row, column);
        if (field.isNull()) {
            key.append('\0');
            continue;
        }
        key.append('\1');
        switch (field.type()) {
        case FieldType::Integer:
            appendBytes(key, qint64(field.get<qint32>()));
            break;
        case FieldType::Integer64:
        case FieldType::DateTime:
            appendBytes(key, field.get<qint64>());
            break;
        case FieldType::Double: {
            const double value = field.get<double>();
            appendBytes(key, value == 0.0 ? 0.0 : value);
            break;
        }
        case FieldType::Decimal: {
            // Equal values of different scale get one form: no trailing zeros.
            const decimal value = decimal::fromRaw(field.get<quint64>());
            qint64 mantissa = value.mantissa();
            qint32 scale = mantissa == 0 ? 0 : value.scale();
            while (mantissa != 0 && mantissa % 10 == 0 && scale > decimal::MinScale) {
                mantissa /= 10;
                --scale;
            }
            appendBytes(key, mantissa);
            appendBytes(key, scale);
            break;
        }
        default: {
            const QString text = field.toString();
            appendBytes(key, qint32(text.size()));
            key.append(reinterpret_cast<const char *>(text.utf16()), text.size() * 2);
            break;
        }
        }
    }
    return key;
}

QByteArray TableJoinPrivate::valuesOf(const unsigned char *dependentRow) const
{
    QByteArray values(cellBytes + dependentColumns.size(), '\0');
    for (int i = 0; i < dependentColumns.size(); ++i) {
        const Field field = dependent->dataPtr(dependentRow, dependentColumns.at(i));
        if (field.isNull())
            continue;
        std::memcpy(values.data() + offsets.at(i), field.data, size_t(sizes.at(i)));
        values[cellBytes + i] = '\1';
    }
    return values;
}

bool TableJoinPrivate::present(const QByteArray &values, int i) const
{
    return !values.isEmpty() && values.at(cellBytes + i) != '\0';
}

bool TableJoinPrivate::cellAgrees(const unsigned char *mainRow, const QByteArray &values,
                                  int i) const
{
    const Field field = main->dataPtr(mainRow, mainColumns.at(i));
    if (!present(values, i))
        return field.isNull();
    return !field.isNull()
        && std::memcmp(field.data, values.constData() + offsets.at(i), size_t(sizes.at(i))) == 0;
}

bool TableJoinPrivate::cellsAgree(const unsigned char *mainRow, const QByteArray &values) const
{
    for (int i = 0; i < mainColumns.size(); ++i) {
        if (!cellAgrees(mainRow, values, i))
            return false;
    }
    return true;
}

void TableJoinPrivate::writeCell(unsigned char *row, const QByteArray &values, int i) const
{
    Field field = main->dataPtr(row, mainColumns.at(i));
    if (present(values, i)) {
        std::memcpy(field.data, values.constData() + offsets.at(i), size_t(sizes.at(i)));
        field.setPresent(true);
    } else {
        std::memset(field.data, 0, size_t(sizes.at(i)));
        field.setPresent(false);
    }
}

void TableJoinPrivate::pruneIfUnused(Entries::iterator entry)
{
    if (entry->mainRows.isEmpty() && entry->dependentRows.isEmpty())
        entries.erase(entry);
}

// --- main side ---------------------------------------------------------------------------

void TableJoinPrivate::attachMain(unsigned char *row)
{
    const QByteArray key = keyOf(main, row, mainKey);
    Entries::iterator entry = entries.find(key);
    if (entry == entries.end())
        entry = entries.insert(key, Entry());
    mainKeyOf.insert(row, entry.key());
    entry->mainRows.insert(row);
    if (!cellsAgree(row, entry->values)) {
        for (int i = 0; i < mainColumns.size(); ++i)
            writeCell(row, entry->values, i);
    }
}

bool TableJoinPrivate::detachMain(const unsigned char *row)
{
    const auto known = mainKeyOf.find(row);
    if (known == mainKeyOf.end())
        return false;
    const Entries::iterator entry = entries.find(known.value());
    mainKeyOf.erase(known);
    if (entry != entries.end()) {
        entry->mainRows.remove(const_cast<unsigned char *>(row));
        pruneIfUnused(entry);
    }
    return true;
}

void TableJoinPrivate::checkMain(unsigned char *row)
{
    const auto known = mainKeyOf.constFind(row);
    if (known != mainKeyOf.cend() && known.value() == keyOf(main, row, mainKey)) {
        const Entries::const_iterator entry = entries.constFind(known.value());
        if (entry != entries.cend() && !cellsAgree(row, entry->values)) {
            for (int i = 0; i < mainColumns.size(); ++i)
                writeCell(row, entry->values, i);
        }
        return;
    }
    detachMain(row);
    attachMain(row);
}

void TableJoinPrivate::clearMain()
{
    for (Entries::iterator entry = entries.begin(); entry != entries.end();) {
        entry->mainRows.clear();
        if (entry->dependentRows.isEmpty())
            entry = entries.erase(entry);
        else
            ++entry;
    }
    mainKeyOf.clear();
}

void TableJoinPrivate::buildMain()
{
    if (!mainKeyOf.isEmpty())
        clearMain();
    forEachMasterRow(main, [this](unsigned char *row) { attachMain(row); });
}

// --- dependent side ----------------------------------------------------------------------

void TableJoinPrivate::setValues(Entries::iterator entry, const QByteArray &values)
{
    if (entry->values == values)
        return;
    entry->values = values;
    if (!entry->mainRows.isEmpty())
        pending.insert(entry.key());
}

void TableJoinPrivate::attachDependent(unsigned char *row)
{
    const QByteArray key = keyOf(dependent, row, dependentKey);
    Entries::iterator entry = entries.find(key);
    if (entry == entries.end())
        entry = entries.insert(key, Entry());
    dependentKeyOf.insert(row, entry.key());
    entry->dependentRows.append(row);
    if (entry->dependentRows.size() == 1)
        setValues(entry, valuesOf(row));
}

bool TableJoinPrivate::detachDependent(unsigned char *row)
{
    const auto known = dependentKeyOf.find(row);
    if (known == dependentKeyOf.end())
        return false;
    const Entries::iterator entry = entries.find(known.value());
    dependentKeyOf.erase(known);
    if (entry == entries.end())
        return true;
    const int position = entry->dependentRows.indexOf(row);
    if (position >= 0)
        entry->dependentRows.remove(position);
    if (position == 0) {
        setValues(entry,
                  entry->dependentRows.isEmpty() ? QByteArray()
                                                 : valuesOf(entry->dependentRows.first()));
    }
    pruneIfUnused(entry);
    return true;
}

void TableJoinPrivate::checkDependent(unsigned char *row)
{
    const auto known = dependentKeyOf.constFind(row);
    if (known != dependentKeyOf.cend() && known.value() == keyOf(dependent, row, dependentKey)) {
        const Entries::iterator entry = entries.find(known.value());
        if (entry != entries.end() && entry->dependentRows.value(0) == row)
            setValues(entry, valuesOf(row));
        return;
    }
    detachDependent(row);
    attachDependent(row);
}

void TableJoinPrivate::clearDependent()
{
    for (Entries::iterator entry = entries.begin(); entry != entries.end();) {
        entry->dependentRows.clear();
        setValues(entry, QByteArray());
        if (entry->mainRows.isEmpty())
            entry = entries.erase(entry);
        else
            ++entry;
    }
    dependentKeyOf.clear();
}

void TableJoinPrivate::buildDependent()
{
    if (!dependentKeyOf.isEmpty())
        clearDependent();
    forEachMasterRow(dependent, [this](unsigned char *row) { attachDependent(row); });
}

void TableJoinPrivate::flush()
{
    if (pending.isEmpty() || state != Active || !main)
        return;
    QSet<QByteArray> keys;
    keys.swap(pending);

    struct Refresh
    {
        unsigned char *row;
        QByteArray values;
    };
    QVector<Refresh> refreshes;
    for (const QByteArray &key : qAsConst(keys)) {
        const Entries::const_iterator entry = entries.constFind(key);
        if (entry == entries.cend())
            continue;
        for (unsigned char *row : entry->mainRows) {
            if (!cellsAgree(row, entry->values))
                refreshes.append({ row, entry->values });
        }
    }
    if (refreshes.isEmpty())
        return;

    main->lock();
    main->beginUpdate();
    {
        RecordsTrans trans(main);
        for (const Refresh &refresh : qAsConst(refreshes)) {
            RecordUpdater updater(&trans, Record(refresh.row));
            updater.updateInMap();
            unsigned char *copy = updater.record().row();
            for (int i = 0; i < mainColumns.size(); ++i) {
                if (cellAgrees(copy, refresh.values, i))
                    continue;
                writeCell(copy, refresh.values, i);
                trans.markColumns(mainColumns.at(i), mainColumns.at(i));
            }
        }
    }
    main->endUpdate();
    main->unlock();
}

void TableJoinPrivate::flushIfIdle()
{
    if (openBrackets == 0)
        flush();
}

// --- TableJoinMain -------------------------------------------------------------------------

TableJoinMain::TableJoinMain(TableJoinPrivate *join)
    : d(join)
{
}

TableJoinMain::~TableJoinMain() = default;

void TableJoinMain::clear()
{
    if (d->state == TableJoinPrivate::Active)
        d->clearMain();
}

void TableJoinMain::build()
{
    if (d->state != TableJoinPrivate::Active)
        return;
    MainTableLocker locker(d);
    d->buildMain();
}

void TableJoinMain::add(const Record &record)
{
    if (d->state == TableJoinPrivate::Active && !record.isNull())
        d->attachMain(record.row());
}

void TableJoinMain::process(const QList<Record> &removed, const QList<Record> &updated, int, int,
                            const QList<Record> &inserted)
{
    if (d->state != TableJoinPrivate::Active)
        return;
    for (const Record &record : removed)
        d->detachMain(record.row());
    for (const Record &record : updated)
        d->checkMain(record.row());
    for (const Record &record : inserted)
        d->attachMain(record.row());
}

bool TableJoinMain::remove(const Record &record, int)
{
    return d->state == TableJoinPrivate::Active && d->detachMain(record.row());
}

bool TableJoinMain::filter(const Record &) const
{
    return true;
}

bool TableJoinMain::contains(const Record &record) const
{
    return d->mainKeyOf.contains(record.row());
}

void TableJoinMain::update(const Record &record, int, int, int)
{
    if (d->state == TableJoinPrivate::Active && !record.isNull())
        d->checkMain(record.row());
}

const char *TableJoinMain::getClassName() const
{
    return "TableJoinMain";
}

// --- TableJoinDep ----------------------------------------------------------------------------

TableJoinDep::TableJoinDep(TableJoinPrivate *join)
    : d(join)
{
}

TableJoinDep::~TableJoinDep() = default;

void TableJoinDep::clear()
{
    if (d->state != TableJoinPrivate::Active)
        return;
    // The refresh waits for build() or the end of the bracket: a clear that a
    // build follows (a rebuild, a new column) costs the main table nothing.
    MainTableLocker locker(d);
    d->clearDependent();
}

void TableJoinDep::build()
{
    if (d->state != TableJoinPrivate::Active)
        return;
    MainTableLocker locker(d);
    d->buildDependent();
    d->flushIfIdle();
}

void TableJoinDep::add(const Record &record)
{
    if (d->state != TableJoinPrivate::Active || record.isNull())
        return;
    MainTableLocker locker(d);
    d->attachDependent(record.row());
    d->flushIfIdle();
}

void TableJoinDep::process(const QList<Record> &removed, const QList<Record> &updated, int, int,
                           const QList<Record> &inserted)
{
    if (d->state != TableJoinPrivate::Active)
        return;
    MainTableLocker locker(d);
    for (const Record &record : removed)
        d->detachDependent(record.row());
    for (const Record &record : updated)
        d->checkDependent(record.row());
    for (const Record &record : inserted)
        d->attachDependent(record.row());
    d->flushIfIdle();
}

bool TableJoinDep::remove(const Record &record, int)
{
    if (d->state != TableJoinPrivate::Active)
        return false;
    MainTableLocker locker(d);
    const bool known = d->detachDependent(record.row());
    d->flushIfIdle();
    return known;
}

bool TableJoinDep::filter(const Record &) const
{
    return true;
}

bool TableJoinDep::contains(const Record &record) const
{
    MainTableLocker locker(d);
    return d->dependentKeyOf.contains(record.row());
}

void TableJoinDep::update(const Record &record, int, int, int)
{
    if (d->state != TableJoinPrivate::Active || record.isNull())
        return;
    MainTableLocker locker(d);
    d->checkDependent(record.row());
    d->flushIfIdle();
}

void TableJoinDep::dependentBeginUpdate(Table *table)
{
    if (d->state != TableJoinPrivate::Active || table != d->dependent || !d->main)
        return;
    d->main->lock();
    d->main->beginUpdate();
    ++d->openBrackets;
}

void TableJoinDep::dependentEndUpdate(Table *table)
{
    if (d->state != TableJoinPrivate::Active || table != d->dependent || !d->main)
        return;
    MainTableLocker locker(d);
    d->flush();
    if (d->openBrackets == 0)
        return;
    --d->openBrackets;
    d->main->endUpdate();
    d->main->unlock();
}

const char *TableJoinDep::getClassName() const
{
    return "TableJoinDep";
}
