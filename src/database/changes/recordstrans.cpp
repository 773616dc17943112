#include <database/recordstrans.h>

#include <database/datetime.h>
#include <database/decimal.h>
#include <database/indexlimit.h>
#include <database/masterindex_struct.h>
#include <database/table.h>

#include <QDebug>

#include <cstdlib>
#include <new>
#include <vector>

// Fixed-size slots carved from blocks of about 64 KiB, with a free list for the
// slots of erased entries. The slot size is that of the first request (both
// maps have one node type); a request of another size goes to the heap.
// Invariant: every slot handed out and not given back lies in `blocks`; the
// blocks are freed only by release(), when no slot is in use.
class RecordsTrans::NodePool
{
public:
    NodePool() = default;
    ~NodePool() { release(); }

    void *allocate(std::size_t bytes)
    {
        if (m_slot == 0)
            m_slot = qMax(roundUp(bytes), roundUp(sizeof(FreeSlot)));
        if (roundUp(bytes) != m_slot)
            return ::operator new(bytes);
        ++m_used;
        if (FreeSlot *slot = m_free) {
            m_free = slot->next;
            return slot;
        }
        if (m_next == m_end) {
            auto *block = static_cast<char *>(std::malloc(BlockBytes));
            if (!block) {
                --m_used;
                throw std::bad_alloc();
            }
            m_blocks.push_back(block);
            m_next = block;
            m_end = block + BlockBytes / m_slot * m_slot;
        }
        void *slot = m_next;
        m_next += m_slot;
        return slot;
    }
    void deallocate(void *node, std::size_t bytes) noexcept
    {
        if (roundUp(bytes) != m_slot) {
            ::operator delete(node);
            return;
        }
        m_free = new (node) FreeSlot { m_free };
        --m_used;
    }
    // Frees every block. REQUIRES: no slot in use (both maps empty).
    void release() noexcept
    {
        Q_ASSERT(m_used == 0);
        for (char *block : m_blocks)
            std::free(block);
        m_blocks.clear();
        m_blocks.shrink_to_fit();
        m_free = nullptr;
        m_next = m_end = nullptr;
    }

private:
    struct FreeSlot
    {
        FreeSlot *next;
    };
    // Less than a power of two, so that the heap's own header fits in 64 KiB.
    static constexpr std::size_t BlockBytes = 65536 - 64;
    static std::size_t roundUp(std::size_t bytes)
    {
        return (bytes + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);
    }

    std::vector<char *> m_blocks;
    FreeSlot *m_free = nullptr;
    char *m_next = nullptr;
    char *m_end = nullptr;
    std::size_t m_slot = 0;
    qint64 m_used = 0;
};

class RecordsTransPrivate
{
public:
    explicit RecordsTransPrivate(Table *table)
        : first(table ? table->columnCount() : 0)
        , operations(RecordsTrans::NodeAllocator<RecordsTrans::OpMap::value_type>(&pool))
        , changes(operations.get_allocator())
        , table(table)
    {
    }

    int first;
    int last = -1;
    // Before the maps: they give their nodes back to it when destroyed.
    RecordsTrans::NodePool pool;
    RecordsTrans::OpMap operations;
    RecordsTrans::OpMap changes;
    Table *table;
};

namespace {

using OpMap = RecordsTrans::OpMap;

// Refuses a typed value that the column cannot hold: names the table, the
// column and the way out in the log, then throws Field's conversion Exception
// (whose text stays as it is).
[[noreturn]] void refuseValue(const Field &field, FieldType::Type given)
{
    qWarning("RecordUpdater::setValue: column '%s' of table '%s' is %s; a %s value can't be "
             "written to it. Pass a value of the column's type, or its text (setText())",
             qPrintable(field.def->name),
             field.def->table ? qPrintable(field.def->table->name()) : "(none)",
             FieldType::typeName(field.type()), FieldType::typeName(given));
    field.incompatibleType(given);
}

// The entry of `key` in `map`: the lower bound when its key also compares
// not-less than `key` (equal primary keys), else end().
OpMap::iterator findKey(OpMap &map, const RecordsTrans::MapKey &key)
{
    const OpMap::iterator bound = map.lower_bound(key);
    return bound != map.end() && !(key < bound->first) ? bound : map.end();
}

QList<Record> recordsOf(const OpMap &map, RecordsTrans::Op op)
{
    QList<Record> records;
    for (const auto &entry : map) {
        if (entry.second == op)
            records.append(entry.first.record());
    }
    return records;
}

Record cloneOrThrow(const Record &record)
{
    Record copy = record.clone();
    if (copy.isNull())
        throw std::bad_alloc();
    return copy;
}

} // namespace

// --- RecordsTrans ------------------------------------------------------------------

void *RecordsTrans::allocateNode(NodePool *pool, std::size_t bytes)
{
    return pool->allocate(bytes);
}

void RecordsTrans::deallocateNode(NodePool *pool, void *node, std::size_t bytes) noexcept
{
    pool->deallocate(node, bytes);
}

bool RecordsTrans::MapKey::operator<(const MapKey &other) const
{
    return m_record.table()->masterIndex()->compare(m_record, other.m_record) < 0;
}

RecordsTrans::RecordsTrans(Table *table)
    : d(new RecordsTransPrivate(table))
{
    if (!table)
        qWarning("RecordsTrans: no table given; the transaction does nothing");
}

RecordsTrans::~RecordsTrans()
{
    execute();
}

Table *RecordsTrans::table() const
{
    return d->table;
}

QList<Record> RecordsTrans::insertList() const
{
    return recordsOf(d->operations, OpInsert);
}

QList<Record> RecordsTrans::removeList() const
{
    return recordsOf(d->operations, OpRemove);
}

QList<Record> RecordsTrans::updateList() const
{
    return recordsOf(d->operations, OpUpdate);
}

QList<Record> RecordsTrans::changeList() const
{
    return recordsOf(d->changes, OpUpdate);
}

int RecordsTrans::firstColumn() const
{
    return d->first;
}

int RecordsTrans::lastColumn() const
{
    return d->last;
}

void RecordsTrans::markColumns(int first, int last)
{
    d->first = qMin(d->first, first);
    d->last = qMax(d->last, last);
}

const RecordsTrans::OpMap &RecordsTrans::operations() const
{
    return d->operations;
}

const RecordsTrans::OpMap &RecordsTrans::changes() const
{
    return d->changes;
}

void RecordsTrans::execute()
{
    if (!d->table)
        return;

    QList<Record> inserted;
    QList<Record> removed;
    QList<Record> updated;
    for (const auto &entry : d->operations) {
        switch (entry.second) {
        case OpInsert:
            inserted.append(entry.first.record());
            break;
        case OpRemove:
            removed.append(entry.first.record());
            break;
        case OpUpdate:
            updated.append(entry.first.record());
            break;
        }
    }
    const QList<Record> changed = changeList();

    // The lists now hold the rows; the maps' references go with them.
    {
        OpMap operations(d->operations.get_allocator());
        OpMap changes(d->operations.get_allocator());
        operations.swap(d->operations);
        changes.swap(d->changes);
    }
    d->pool.release();

    if (Index *named = d->table->namedIndex(QStringLiteral("IndexLimit"))) {
        if (auto *limit = dynamic_cast<IndexLimit *>(named))
            limit->toRemove(inserted.size() - removed.size(), removed, updated);
        else
            qWarning("RecordsTrans: the index named \"IndexLimit\" of table '%s' is a %s; no "
                     "rows are trimmed",
                     qPrintable(d->table->name()), named->getClassName());
    }

    if (d->last < d->first) {
        d->first = 0;
        d->last = d->table->columnCount() - 1;
    }

    d->table->process(removed, updated, d->first, d->last, inserted, changed);
}

// --- RecordUpdater -------------------------------------------------------------------

RecordUpdater::RecordUpdater(RecordsTrans *trans)
    : m_trans(trans)
{
    if (m_trans)
        m_position = m_trans->d->operations.end();
}

RecordUpdater::RecordUpdater(RecordsTrans *trans, const Record &record)
    : RecordUpdater(trans)
{
    m_record = record;
}

RecordUpdater::~RecordUpdater() = default;

bool RecordUpdater::isRegistered() const
{
    return m_trans && m_position != m_trans->d->operations.end();
}

bool RecordUpdater::canRegister(const char *operation) const
{
    if (!m_trans || !m_trans->d->table) {
        qWarning("RecordUpdater::%s: no transaction on a table", operation);
        return false;
    }
    if (!m_trans->d->table->masterIndex()) {
        qWarning("RecordUpdater::%s: table '%s' has no master index (primary key), so the "
                 "transaction cannot tell its rows apart; nothing is registered. Install one "
                 "with Table::setMasterIndex() before changing rows through a transaction",
                 operation, qPrintable(m_trans->d->table->name()));
        return false;
    }
    return true;
}

void RecordUpdater::insertInMap(const Record &record)
{
    if (!canRegister("insertInMap"))
        return;
    if (record.isNull()) {
        qWarning("RecordUpdater::insertInMap: null record");
        return;
    }
    OpMap &operations = m_trans->d->operations;
    RecordsTrans::MapKey key(record);
    const OpMap::iterator bound = operations.lower_bound(key);
    if (bound != operations.end() && !(key < bound->first)) {
        m_position = bound;
        m_record = bound->first.record();
        return;
    }
    // The row handling stays literal (a second row with that key arrives), but
    // a new user who meant an update gets told what happened and what to do.
    // A key past the table's last one (ids arriving in ascending order) needs
    // no search to know that it is new.
    const Table *table = m_trans->d->table;
    const MasterIndex *master = table->masterIndex();
    const int rows = master->count();
    const bool pastLast = rows == 0 || master->compare(master->at(rows - 1), record) < 0;
    if (!pastLast && master->search(record, -1) != -1)
        qWarning("RecordUpdater::insertInMap: table '%s' already holds a row with key '%s'; "
                 "the batch adds a second row with that key. To change the existing row, "
                 "find it (Record(table, key)) and call updateInMap() instead",
                 qPrintable(table->name()), qPrintable(record.toString()));
    m_record = record;
    m_position = operations.emplace_hint(bound, std::move(key), RecordsTrans::OpInsert);
}

void RecordUpdater::updateInMap()
{
    if (!canRegister("updateInMap"))
        return;
    if (m_record.isNull()) {
        qWarning("RecordUpdater::updateInMap: the updater has no record");
        return;
    }
    RecordsTransPrivate *const t = m_trans->d.data();
    const RecordsTrans::MapKey key(m_record);

    // The working copy replaces the updater's record; a key already in the
    // changes keeps its own record.
    auto switchToCopy = [this, t](const Record &copy) {
        m_record = copy;
        const auto added = t->changes.emplace(RecordsTrans::MapKey(copy), RecordsTrans::OpUpdate);
        if (!added.second)
            added.first->second = RecordsTrans::OpUpdate;
    };

    const OpMap::iterator bound = t->operations.lower_bound(key);
    if (bound == t->operations.end() || key < bound->first) {
        const Record copy = cloneOrThrow(m_record);
        m_position = t->operations.emplace_hint(bound, key, RecordsTrans::OpUpdate);
        switchToCopy(copy);
    } else {
        m_position = bound;
        switch (bound->second) {
        case RecordsTrans::OpRemove: {
            const Record copy = cloneOrThrow(m_record);
            bound->second = RecordsTrans::OpUpdate;
            switchToCopy(copy);
            break;
        }
        case RecordsTrans::OpUpdate: {
            const OpMap::iterator working = findKey(t->changes, key);
            if (working != t->changes.end())
                m_record = working->first.record();
            else
                switchToCopy(cloneOrThrow(m_record));
            break;
        }
        case RecordsTrans::OpInsert:
            break;
        }
    }
    m_updated = true;
}

void RecordUpdater::remove()
{
    if (!isRegistered()) {
        qWarning("RecordUpdater::remove: the row was not registered with insertInMap() or "
                 "updateInMap()");
        return;
    }
    RecordsTransPrivate *const t = m_trans->d.data();
    if (m_position->second == RecordsTrans::OpInsert) {
        t->operations.erase(m_position);
        m_position = t->operations.end();
        m_updated = false;
        return;
    }
    m_position->second = RecordsTrans::OpRemove;
    const RecordsTrans::MapKey &key = m_position->first;
    for (OpMap::iterator it = findKey(t->changes, key); it != t->changes.end();
         it = findKey(t->changes, key))
        t->changes.erase(it);
}

RecordUpdater &RecordUpdater::operator=(const Record &other)
{
    if (m_record.isNull()) {
        qWarning("RecordUpdater::operator=: the updater has no record");
        return *this;
    }
    const Table *table = m_record.table();
    if (!other.isNull() && other.table()->rowSize() != table->rowSize()) {
        qWarning("RecordUpdater::operator=: a row of table '%s' does not fit table '%s'",
                 qPrintable(other.table()->name()), qPrintable(table->name()));
        return *this;
    }
    m_record.copy(other);
    if (m_trans)
        m_trans->markColumns(0, table->columnCount() - 1);
    return *this;
}

int RecordUpdater::columnOf(const QString &name) const
{
    if (m_record.isNull()) {
        qWarning("RecordUpdater: no record to write column '%s' of", qPrintable(name));
        return -1;
    }
    const int column = m_record.table()->columnIndex(name);
    if (column < 0)
        qWarning("RecordUpdater: table '%s' has no column '%s'; nothing is written. Its "
                 "columns are: %s. Check the name, or add the column with Table::addColumn()",
                 qPrintable(m_record.table()->name()), qPrintable(name),
                 qPrintable(m_record.table()->columns().join(QStringLiteral(", "))));
    return column;
}

Field RecordUpdater::writable(int column)
{
    if (m_record.isNull()) {
        qWarning("RecordUpdater: no record to write column %d of", column);
        return Field();
    }
    const Table *table = m_record.table();
    if (column < 0 || column >= table->columnCount()) {
        qWarning("RecordUpdater: table '%s' has no column %d", qPrintable(table->name()), column);
        return Field();
    }
    if (m_trans)
        m_trans->markColumns(column, column);
    return m_record.data(column);
}

RecordUpdater &RecordUpdater::setValue(int column, qint32 value)
{
    Field field = writable(column);
    if (!field.isValid())
        return *this;
    switch (field.type()) {
    case FieldType::Integer:
        field.set<qint32>(value);
        break;
    case FieldType::Integer64:
        field.set<qint64>(value);
        break;
    case FieldType::Double:
        field.set<double>(value);
        break;
    default:
        refuseValue(field, FieldType::Integer);
    }
    return *this;
}

RecordUpdater &RecordUpdater::setValue(int column, qint64 value)
{
    Field field = writable(column);
    if (!field.isValid())
        return *this;
    switch (field.type()) {
    case FieldType::Integer64:
        field.set<qint64>(value);
        break;
    case FieldType::Double:
        field.set<double>(double(value));
        break;
    default:
        refuseValue(field, FieldType::Integer64);
    }
    return *this;
}

RecordUpdater &RecordUpdater::setValue(int column, double value)
{
    Field field = writable(column);
    if (!field.isValid())
        return *this;
    if (field.type() != FieldType::Double)
        refuseValue(field, FieldType::Double);
    field.set<double>(value);
    return *this;
}

RecordUpdater &RecordUpdater::setValue(int column, const decimal &value)
{
    Field field = writable(column);
    if (!field.isValid())
        return *this;
    if (field.type() != FieldType::Decimal)
        refuseValue(field, FieldType::Decimal);
    field.set<decimal>(value);
    return *this;
}

RecordUpdater &RecordUpdater::setValue(int column, const datetime &value)
{
    Field field = writable(column);
    if (!field.isValid())
        return *this;
    if (field.type() != FieldType::DateTime)
        refuseValue(field, FieldType::DateTime);
    field.set<datetime>(value);
    return *this;
}

RecordUpdater &RecordUpdater::setValue(int column, const QString &value)
{
    Field field = writable(column);
    if (field.isValid())
        field = value;
    return *this;
}

RecordUpdater &RecordUpdater::setNull(int column)
{
    Field field = writable(column);
    if (!field.isValid())
        return *this;
    if (!field.def->nullable) {
        qWarning("RecordUpdater::setNull: column '%s' is not nullable",
                 qPrintable(field.def->name));
        return *this;
    }
    field.setPresent(false);
    return *this;
}

RecordUpdater &RecordUpdater::setNull(const QString &column)
{
    const int index = columnOf(column);
    return index < 0 ? *this : setNull(index);
}

Field RecordUpdater::FieldRef::field() const
{
    const Record &record = m_updater->record();
    if (record.isNull() || m_column < 0 || m_column >= record.table()->columnCount())
        return Field();
    return record.data(m_column);
}
