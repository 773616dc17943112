#ifndef DATABASE_RECORDSTRANS_H
#define DATABASE_RECORDSTRANS_H

#include <database/database_global.h>
#include <database/record.h>

#include <QList>
#include <QScopedPointer>
#include <QString>

#include <cstddef>
#include <map>

class decimal;
class datetime;
class RecordsTransPrivate;
class RecordUpdater;
class Table;

// RecordsTrans: a batch of row changes against one table, gathered by primary
// key and handed to the table in one Table::process() call, so that every index
// of the table is brought up to date once.
//
// Per primary key the batch holds one operation (insert, remove or update) and,
// for an update, one working copy of the row: the row in the table stays
// untouched until the batch runs, and then takes the copy's content in the
// columns that the updaters marked as changed. Rows are told apart by the
// compare() of their table's master index, never by row identity.
//
// Ownership: the table is not owned and must outlive the transaction. Every map
// entry holds one counted reference to its row; the references are dropped when
// the batch has been handed over.
//
// Life: made on the stack inside the table's update bracket
// (Table::beginUpdate()/endUpdate()) and destroyed before the bracket closes.
// The destructor always executes the batch; there is no way to discard it.
// execute() may be called earlier: the maps are emptied and the destructor then
// hands the table a second, empty batch (one extra Table::process() call).
//
// Invariants:
//  1. operations() holds at most one entry per primary key; changes() likewise,
//     and every entry of changes() has OpUpdate.
//  2. Both maps iterate in ascending primary-key order, so updateList() and
//     changeList() pair the old and the new version of each row by position.
//  3. firstColumn() only decreases and lastColumn() only increases until the
//     batch is executed with nothing marked, which widens them to every column.
//
// REQUIRES: the table has a master index for as long as updaters work on the
// transaction (without one the updaters warn and register nothing). The key
// columns of a working copy are not changed: the copy's key places it in the
// maps.
//
// Errors: an exception that leaves the batch in execute() propagates to its
// caller; one that leaves it in the destructor ends the program
// (std::terminate), since a half-applied batch leaves the table's indexes out
// of step and there is nobody to tell. Call execute() explicitly where the
// batch may fail (only an allocation failure can, with the library's indexes).
//
// Threads: none of its own; the transaction and its updaters are used by the
// thread that holds the table's update bracket.
class DATABASE_EXPORT RecordsTrans
{
public:
    enum Op : qint32 { OpInsert = 1, OpRemove = 2, OpUpdate = 3 };

    // A map key: a counted reference to a row, ordered by the primary key. A
    // is less than B when A's table's master index compares A before B; keys
    // with equal primary keys are equal.
    class DATABASE_EXPORT MapKey
    {
    public:
        MapKey() = default;
        explicit MapKey(const Record &record)
            : m_record(record)
        {
        }
        const Record &record() const { return m_record; }
        bool operator<(const MapKey &other) const;

    private:
        Record m_record;
    };

    // The maps' nodes come from blocks of many owned by the transaction, not
    // from one heap allocation each: a batch of a million keys would otherwise
    // leave a million small holes between the rows allocated in between,
    // memory the process keeps for good. The blocks go back when the batch is
    // handed over (execute()).
    class NodePool;
    template <typename T> class NodeAllocator
    {
    public:
        using value_type = T;
        explicit NodeAllocator(NodePool *pool) noexcept
            : m_pool(pool)
        {
        }
        template <typename U>
        NodeAllocator(const NodeAllocator<U> &other) noexcept
            : m_pool(other.pool())
        {
        }
        T *allocate(std::size_t n) { return static_cast<T *>(allocateNode(m_pool, n * sizeof(T))); }
        void deallocate(T *p, std::size_t n) noexcept { deallocateNode(m_pool, p, n * sizeof(T)); }
        NodePool *pool() const noexcept { return m_pool; }
        template <typename U> bool operator==(const NodeAllocator<U> &other) const noexcept
        {
            return m_pool == other.pool();
        }
        template <typename U> bool operator!=(const NodeAllocator<U> &other) const noexcept
        {
            return m_pool != other.pool();
        }

    private:
        NodePool *m_pool;
    };
    using OpMap
        = std::map<MapKey, Op, std::less<MapKey>, NodeAllocator<std::pair<const MapKey, Op>>>;

    explicit RecordsTrans(Table *table);
    // Executes the batch (see the class comment for exceptions).
    ~RecordsTrans();

    Table *table() const;

    // The rows registered for insertion, removal and update, in ascending key
    // order. updateList() holds the rows as they are in the table.
    QList<Record> insertList() const;
    QList<Record> removeList() const;
    QList<Record> updateList() const;
    // The working copies of the updated rows, in the order of updateList().
    QList<Record> changeList() const;

    // The range of changed columns: starts as columnCount()..-1 (nothing).
    int firstColumn() const;
    int lastColumn() const;
    // Widens the range to cover columns first..last.
    void markColumns(int first, int last);

    // Read access to the maps, for diagnostics and tests.
    const OpMap &operations() const;
    const OpMap &changes() const;

    // Runs the batch, in this order:
    //  1. builds the four lists from the maps;
    //  2. empties both maps (the column range stays as it is);
    //  3. if the table has an index named "IndexLimit", lets it append to the
    //     remove list the rows that must leave for the net growth
    //     (inserts - removes), the updated rows excepted (IndexLimit::toRemove);
    //  4. if no column was marked, marks them all;
    //  5. Table::process(remove, update, first, last, insert, change).
    void execute();

private:
    friend class RecordUpdater;
    Q_DISABLE_COPY(RecordsTrans)
    static void *allocateNode(NodePool *pool, std::size_t bytes);
    static void deallocateNode(NodePool *pool, void *node, std::size_t bytes) noexcept;
    const QScopedPointer<RecordsTransPrivate> d;
};

// RecordUpdater: a cursor over one row inside a RecordsTrans. It registers the
// row with the transaction and, for an update, redirects every edit to the
// transaction's working copy of the row.
//
// Use: make it on the transaction, give it the row (setRecord(), or the
// two-argument constructor), then register the row:
//  - insertInMap(row): a new row, appended when the batch runs;
//  - updateInMap(): the given row of the table is to change; the updater
//    switches to the working copy (one copy per key, however many updaters
//    edit that key);
//  - remove(): after one of the two, the row is to leave the table, or a
//    pending insert is withdrawn.
// Then edit through the updater (setValue(), setText(), setNull(), the
// operator[] proxy, or operator= for a whole row): each write first widens the
// transaction's range of changed columns, then writes the cell, so a write
// that throws leaves the column marked (harmless: the table copies it
// unchanged). Writing through record() directly marks nothing; call
// RecordsTrans::markColumns() then.
//
// Operation of one primary key inside the transaction:
//
//                insertInMap            remove
//      (none) -------------> OpInsert --------> (none, the row never arrives)
//        |
//        | updateInMap                  remove                updateInMap
//        +-------------> OpUpdate ------------> OpRemove -----------------+
//                        (copy made)            (copy dropped)            |
//                           ^                                             |
//                           +------------- fresh copy of the row ---------+
//
//  insertInMap of a key that already has an entry, whatever its operation,
//  makes the updater edit that entry's row and registers nothing new. An
//  insertInMap of a key that the table already holds (and the transaction
//  does not) is registered as asked, so the batch adds a second row with that
//  key, but it warns: the usual intent is an update (updateInMap()). An
//  updateInMap that meets a pending insert keeps editing the updater's own
//  record.
//
// The updater is a small value living on the stack for the edit of one row; it
// holds its state inline (no allocation) because a batch makes one per row.
// It holds one reference to its row; the transaction must outlive it.
//
// Errors: misuse (no transaction, no master index, no row, remove() before any
// registration, an unknown column) gets a warning that names the table (and
// column) and the remedy, and changes nothing. Typed writers of the wrong type
// for the column warn likewise, then throw the conversion Exception of Field
// ("Can't convert from <source> to <target>"); setText() throws as Field's
// text assignment does.
class DATABASE_EXPORT RecordUpdater
{
public:
    // Writes a value to one column through the updater: updater["price"] = x.
    class DATABASE_EXPORT FieldRef
    {
    public:
        template <typename T> FieldRef &operator=(const T &value)
        {
            m_updater->setValue(m_column, value);
            return *this;
        }
        // The cell as it is now (a null Field for a bad column or no row).
        Field field() const;
        operator Field() const { return field(); }

    private:
        friend class RecordUpdater;
        FieldRef(RecordUpdater *updater, int column)
            : m_updater(updater)
            , m_column(column)
        {
        }
        RecordUpdater *m_updater;
        int m_column;
    };

    explicit RecordUpdater(RecordsTrans *trans);
    RecordUpdater(RecordsTrans *trans, const Record &record);
    ~RecordUpdater();

    // The row being edited: the caller's row, or the working copy after
    // updateInMap().
    const Record &record() const { return m_record; }
    // Points the updater at another row (the handle, not its content).
    void setRecord(const Record &record) { m_record = record; }
    RecordsTrans *transaction() const { return m_trans; }
    // Whether updateInMap() has run (and no pending insert was withdrawn since).
    bool isUpdated() const { return m_updated; }
    // Whether the updater has an entry in its transaction.
    bool isRegistered() const;

    void insertInMap(const Record &record);
    void updateInMap();
    void remove();

    // Copies the whole content of `other` into the updater's row and marks
    // every column as changed. REQUIRES: same table layout.
    RecordUpdater &operator=(const Record &other);

    // Column writers. Each marks the column, then writes the value and marks
    // the cell present. The value must suit the column: integers for Integer
    // (32-bit only), Integer64 and Double columns; double for Double; decimal
    // for Decimal; datetime for DateTime; text for any column (read by the
    // column's type, as Field's text assignment does).
    RecordUpdater &setValue(int column, qint32 value);
    RecordUpdater &setValue(int column, qint64 value);
    RecordUpdater &setValue(int column, double value);
    RecordUpdater &setValue(int column, const decimal &value);
    RecordUpdater &setValue(int column, const datetime &value);
    RecordUpdater &setValue(int column, const QString &value);
    template <typename T> RecordUpdater &setValue(const QString &column, const T &value)
    {
        const int index = columnOf(column);
        return index < 0 ? *this : setValue(index, value);
    }
    RecordUpdater &setText(int column, const QString &text) { return setValue(column, text); }
    RecordUpdater &setText(const QString &column, const QString &text)
    {
        return setValue(column, text);
    }
    // Marks the column and clears the cell's presence flag.
    RecordUpdater &setNull(int column);
    RecordUpdater &setNull(const QString &column);

    FieldRef operator[](int column) { return FieldRef(this, column); }
    FieldRef operator[](const QString &column) { return FieldRef(this, columnOf(column)); }

private:
    Q_DISABLE_COPY(RecordUpdater)
    // The column's index in the row's table, or -1 with a warning.
    int columnOf(const QString &name) const;
    // Marks the column and returns its cell; an invalid Field (with a
    // warning) when there is no row or no such column.
    Field writable(int column);
    bool canRegister(const char *operation) const;

    Record m_record;
    RecordsTrans *m_trans;
    bool m_updated = false;
    RecordsTrans::OpMap::iterator m_position;
};

#endif // DATABASE_RECORDSTRANS_H
