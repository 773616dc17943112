#ifndef DATABASE_TABLE_H
#define DATABASE_TABLE_H

#include <database/columndef.h>
#include <database/field.h>

#include <QList>
#include <QObject>
#include <QScopedPointer>
#include <QStringList>
#include <QVector>

class Index;
class MasterIndex;
class Record;
class TablePrivate;

// Table: a typed table of fixed-layout rows and the registry of the live
// indexes over them.
//
// Row block layout (8-byte aligned):
//   [0..3]   reference count, int32, changed only atomically
//   [4..7]   zero padding
//   [8..15]  Table* of the table the row was made for
//   [16 ..]  data area: cells in column order, each at its column's offset and
//            padded to a multiple of 8 bytes (rowLength() bytes)
//   [..]     presence flags, bit i % 8 of byte i / 8 for column i
//            ((columnCount() + 7) / 8 bytes)
//
// Invariants:
//  1. rowLength() is the sum of the cell sizes rounded up to 8 each;
//     rowSize() == 16 + rowLength() + (columnCount() + 7) / 8.
//  2. Column names are unique, compared case-insensitively.
//  3. The table owns its column definitions and its master index; it does not
//     own its rows (they belong to the Record handles, chiefly the main index)
//     nor the indexes of its index list.
//  4. Additions and updates reach the main index first, removals reach it last,
//     so the main index holds a row as long as any other index may refer to it.
//  5. The main index never stands in the index list; it is notified on its own,
//     at the places stated below. Without a main index those steps are skipped.
//  6. updateDepth() counts the open change brackets: 0 outside any bracket.
//  7. Every index in the registries (index list, dependent list, name map,
//     main index) is alive: a destroyed index leaves them, without signals
//     (see Index). indexAdded() and indexRemoved() reach receivers only while
//     the index is whole: an index listed by its own constructor is announced
//     from the event loop, once complete.
//
// Change brackets:
//
//      depth 0 --beginUpdate--> depth 1 --beginUpdate--> depth 2 ...
//         ^   (notifies, locks)    |   (counts only)        |
//         |                        |                        |
//         +-----endUpdate----------+<------endUpdate--------+
//           (notifies, unlocks)          (counts only)
//
//   Every beginUpdate() first takes the table's recursive lock and holds it
//   until its endUpdate(), and only then counts: a bracket opened on another
//   thread waits until this thread's outermost bracket has closed, so two
//   threads never change the indexes at once and the depth always belongs to
//   the thread holding the lock. Only the outermost pair notifies.
//   beginUpdate(): the lock, then the dependent indexes
//   (dependentBeginUpdate(this)), then the main index and the index list
//   (beginUpdate()). endUpdate() mirrors it: the main index and the index list
//   (endUpdate()), the lock released, then the dependent indexes
//   (dependentEndUpdate(this)). The dependent indexes are thus told of the
//   opening under this table's lock: they must not wait for another table's
//   lock that a thread holding this one may want.
//   An unbalanced endUpdate() (no bracket of the calling thread open) warns,
//   still notifies the main index, the index list and the dependent indexes,
//   and leaves the depth at -1, so the table stays off by one until a spare
//   beginUpdate(): callers must pair the calls. It never releases a lock that
//   no bracket of the calling thread took.
//
// Notification order of the changes (every list is copied before it is walked,
// so an index may register or unregister indexes from inside a notification;
// an index added during a walk is first told of the next change):
//   appendRow    main add, then each listed index add
//   appendList   each listed index preprocess, main process, each listed process
//   process      each listed index preprocess, the copy of changed into updated,
//                main process, each listed index process
//   updated      main update(c), then each listed index update(-1)
//   remove       each listed index remove(-1), then main remove(position)
//   clear        each listed index clear(), then main clear(), in a bracket
//   build        each listed index build(); the main index is not built
// The dependent indexes of other tables learn of changes only through the
// brackets.
//
// Threads: a table is changed on one thread at a time, under its recursive lock
// (lock()/unlock(), also held by every open change bracket). Brackets may be
// opened from several threads: they take turns. The update depth is changed
// only under the lock; a nested bracket of the holding thread costs a
// recursive lock and one increment.
// TableLocker and TableUpdateBracket (below) hold the lock or a bracket for a
// scope, so that an exception cannot leave the table locked.
//
// Errors of definitions (addColumn) are thrown as a bare QString before anything
// changes.
class DATABASE_EXPORT Table : public QObject
{
    Q_OBJECT
public:
    explicit Table(const QString &name, const QString &title = QString(),
                   QObject *parent = nullptr);
    ~Table() override;

    QString name() const;
    QString title() const;
    void setTitle(const QString &title);

    // The main index: holds every row of the table. Owned; setting a new one
    // deletes the previous one.
    MasterIndex *masterIndex() const;
    void setMasterIndex(MasterIndex *index);
    // Whether a main index holds the rows (the master index, or a test
    // double): without one, appended rows are dropped.
    bool hasMainIndex() const;

    // --- columns ---
    int columnCount() const;
    QString columnName(int column) const;
    FieldType::Type columnType(int column) const;
    QString columnTypeName(int column) const;
    // The title, or the name when the title is empty.
    QString columnTitle(int column) const;
    void setColumnTitle(int column, const QString &title);
    QString columnDescription(int column) const;
    const TableColumnDef *columnDef(int column) const;
    const TableColumnDef *columnDef(const QString &name) const;
    // The column's position, case-insensitive; -1 when there is none.
    int columnIndex(const QString &name) const;
    // The column names in column order.
    QStringList columns() const;
    // The column definitions in column order (owned by the table), read-only:
    // offsets, sizes and flags are the layout of every row.
    const QList<const TableColumnDef *> &fieldDefs() const;

    // Adds a column, re-laying every existing row (rows may move in memory):
    // the listed indexes are emptied, the rows taken out of the main index in
    // its order, grown, put back, and the listed indexes built again. A row
    // still held elsewhere is reported in the debug log and re-laid anyway.
    // Throws QString: "Column name can't be empty.", "Column '%1' already exists
    // for table '%2'.", "Length of string %1 is negative.", "Rows of table '%1'
    // would exceed %2 bytes." (MaxRowSize), and the cell-size errors of
    // FieldType::typeLength (a zero or too long VarChar, an unknown type).
    // REQUIRES: no Record, raw row pointer or Field of this table's rows is
    // held outside its indexes.
    void addColumn(const TableColumnDef &def);
    // Adds several columns at once, in order, re-laying the rows once: linear
    // in the number of columns (a file of thousands of columns loads through
    // it). Every definition is checked before anything changes; the errors are
    // those of addColumn, and a name given twice in `defs` is a duplicate.
    void addColumns(const QList<TableColumnDef> &defs);
    void addColumn(const QString &name, FieldType::Type type, int length = 0, bool nullable = true,
                   const QString &title = QString(), bool auxFlag = true,
                   const QString &description = QString());
    void addColumn(const QString &name, const FieldDef &fieldDef, bool nullable = true,
                   const QString &title = QString(), bool auxFlag = true,
                   const QString &description = QString());

    // --- layout and row primitives ---
    // The largest row block a table may have (header, cells and flags): row
    // sizes are ints, and no real table comes near it.
    static const int MaxRowSize = 1 << 30;
    int rowLength() const;
    int rowLengthUnaligned() const;
    int rowSize() const;
    // Rows held by the main index (0 without one).
    int rowCount() const;

    // A fresh row: zeroed, this table in its header, the presence flags of the
    // non-nullable columns set, reference count 0. Null when allocation fails.
    unsigned char *allocRow() const;
    void initRow(unsigned char *row) const;
    // A copy of the whole block (header included) with reference count 0.
    unsigned char *cloneRow(const unsigned char *row) const;
    // Copies cells and presence flags, never the header.
    void copyRowContent(unsigned char *dst, const unsigned char *src) const;
    // Copies the cells of columns first..last (-1: first/last column) and the
    // whole presence-flag area. REQUIRES: first is not after last.
    void copyRowContent(unsigned char *dst, const unsigned char *src, int first, int last) const;
    // Frees a block of any table: one from allocRow() or cloneRow(), or one
    // of the rows a table file's load carves from larger blocks (the header
    // tells which). REQUIRES: its reference count is zero.
    void freeRow(unsigned char *row) const;
    // The accessor of one cell. REQUIRES: 0 <= column < columnCount().
    Field dataPtr(const unsigned char *row, int column) const;

    // --- locking ---
    void lock() const;
    void unlock() const;

    // --- index registry ---
    QList<Index *> indexes() const;
    QList<Index *> dependentIndexes() const;
    void setIndexes(const QList<Index *> &indexes);
    void addIndex(Index *index);
    void removeIndex(Index *index);
    void addDependentIndex(Index *index);
    void removeDependentIndex(Index *index);
    Index *namedIndex(const QString &name) const;
    void setIndexName(const QString &name, Index *index);
    QString indexName(Index *index) const;

    // --- changes (the notification order is in the class comment) ---
    void beginUpdate();
    void endUpdate();
    // The number of open change brackets (-1 after an unbalanced endUpdate()).
    int updateDepth() const;
    // Wraps a block of allocRow() in a Record and hands it to the indexes; a
    // row that no index kept is freed on return. REQUIRES: `row` is a block of
    // this table with reference count 0.
    void appendRow(unsigned char *row);
    // The batch form of appendRow(): process() with `records` as the inserted
    // list, the other lists empty and the column range -1..-1.
    void appendList(const QList<Record> &records);
    // Tells the listed indexes (position unknown) and then the main index (at
    // `position`, -1 when unknown). Returns the main index's answer, false
    // without a main index.
    bool remove(const Record &record, int position = -1);
    // `record`'s cells changed; a and b describe the change and pass through
    // to update(). `c` is the record's position in the main index (-1 when
    // unknown); the listed indexes always get -1.
    void updated(const Record &record, int a, int b, int c);
    // The positions of `record` in the main index and in each listed index,
    // in that order (-1 where absent or unknown). Taken before the record's
    // cells change, it lets updated(record, keeper, a, b) spare every index
    // the search for the record's old place.
    QVector<int> buildKeeper(const Record &record) const;
    // As updated(record, a, b, c) but each index, the main index first, gets
    // its position from `keeper`. REQUIRES: `keeper` comes from buildKeeper()
    // for this record, and neither the registry nor any index's content
    // changed in between. A keeper whose size does not match the registry
    // warns and falls back to unknown positions (-1) for every index.
    void updated(const Record &record, const QVector<int> &keeper, int a, int b);
    // The batch entry of transactions. `changed[i]` is the working copy of
    // `updated[i]`: after preprocessing, columns first..last (-1: first/last
    // column) of each changed[i] are copied into updated[i] (for i below both
    // counts), so the rows the indexes hold take the new content; then the
    // main index and the listed indexes process the batch.
    void process(const QList<Record> &removed, QList<Record> &updated, int first, int last,
                 const QList<Record> &inserted, const QList<Record> &changed);
    // Builds every listed index; the main index is the source and is left alone.
    void build();
    // Empties every index: the listed ones, then the main index (the last
    // holder of the rows), inside one change bracket.
    void clear();

Q_SIGNALS:
    void indexAdded(Index *index);
    void indexRemoved(Index *index);
    void indexNameUpdated(Index *index, const QString &name);
    void dependentIndexAdded(Index *index);
    void dependentIndexRemoved(Index *index);

private:
    friend class TableIndexRebuilderPrivate;
    friend class Index;
    friend void testingSetMainIndex(Table *table, Index *index);

    // Keeps the index's record of the registries holding it in step with this
    // table, after any change of the index list, dependent list, names or main.
    void trackRegistration(Index *index);
    // Index::registerWith(): listed now, indexAdded() from the event loop.
    void addIndexUnannounced(Index *index);
    void announceAddedIndexes();
    // The index is being destroyed: every trace of it leaves the registries,
    // without signals.
    void forgetIndex(Index *index);

    // The index through which rows are notified as the main index; the master
    // index installs itself here (setMasterIndex), a test double through
    // testingSetMainIndex() (storage/tabletesting_p.h).
    void setMainIndex(Index *index);

    // Every row of the main index in index order, the main index left empty.
    QList<Record> takeMainRows();
    // Adds the rows back to the main index, in order.
    void restoreMainRows(const QList<Record> &rows);

    Q_DISABLE_COPY(Table)
    const QScopedPointer<TablePrivate> d;
};

// TableLocker: holds a table's lock (Table::lock()) for a scope and releases it
// on every way out, exceptions included. unlock() and relock() work as
// QMutexLocker's; a null table makes every call a no-op.
// Threads: used on the thread that made it.
class TableLocker
{
public:
    explicit TableLocker(const Table *table)
        : m_table(table)
    {
        relock();
    }
    ~TableLocker() { unlock(); }

    void unlock()
    {
        if (m_locked) {
            m_locked = false;
            m_table->unlock();
        }
    }
    void relock()
    {
        if (m_table && !m_locked) {
            m_table->lock();
            m_locked = true;
        }
    }
    const Table *table() const { return m_table; }

private:
    Q_DISABLE_COPY(TableLocker)
    const Table *m_table;
    bool m_locked = false;
};

// TableUpdateBracket: one change bracket (Table::beginUpdate()) for a scope,
// closed by endUpdate() on every way out, so a throw between the two cannot
// leave the table locked or its indexes waiting for the end of a batch.
// end() closes it early (once); a null table makes every call a no-op.
// Threads: used on the thread that made it (the bracket holds the table's lock).
class TableUpdateBracket
{
public:
    explicit TableUpdateBracket(Table *table)
        : m_table(table)
    {
        if (m_table)
            m_table->beginUpdate();
    }
    ~TableUpdateBracket() { end(); }

    void end()
    {
        if (m_table) {
            Table *table = m_table;
            m_table = nullptr;
            table->endUpdate();
        }
    }
    // The table while the bracket is open, null once it has ended.
    Table *table() const { return m_table; }

private:
    Q_DISABLE_COPY(TableUpdateBracket)
    Table *m_table;
};

#endif // DATABASE_TABLE_H
