#ifndef DATABASE_TABLEJOIN_H
#define DATABASE_TABLEJOIN_H

#include <database/index.h>

#include <QList>
#include <QScopedPointer>
#include <QString>
#include <QStringList>

class Table;
class TableJoinPrivate;

// TableJoin: shows chosen columns of a dependent table (instruments, quotes)
// in a main table (orders, positions) as if they were the main table's own,
// and keeps them filled while either table changes.
//
// Matching: a main row is joined to the dependent row whose primary key (the
// key columns of the dependent table's master index, in key order) equals the
// values of the main row's key columns, given by the host in the same order.
// Key values match by value: Integer and Integer64 with each other, Double,
// Decimal (1.5 == 1.50), VarChar (case-sensitive) and DateTime each with its
// own type; two null cells match. A main row without a matching dependent row
// has null joined cells. Should the dependent table hold two rows with one key,
// the one that arrived first supplies the values.
//
// Creating a join (the constructor) checks everything first and changes
// nothing when a check fails: isValid() is false and errorString() says why
// (unknown column, a table without a master index or a dependent master
// index without key columns, key columns of unmatched count or type, a name
// that clashes with a main column, a join that would close a cycle of joins,
// the same table on both sides). On success it appends the joined columns to
// the main table (name given by the host, type and length copied, nullable,
// title and description copied), fills them for every main row, and registers
// two indexes: TableJoinMain at the head of the main table's index list (and
// back there whenever it is registered again, after a rebuild), and
// TableJoinDep on the dependent table, both in its index list and among its
// dependent indexes.
//
// Maintenance:
//  - main side: an inserted main row gets its joined cells while it enters
//    the table (TableJoinMain stands first in the index list, so every later
//    index sees the filled row); an update whose key changed, or whose joined
//    cells no longer agree with the dependent row (an undo restoring an old
//    copy of the row), has them rewritten in place. Nothing else is touched.
//  - dependent side: inserted, updated and removed dependent rows are noted as
//    they arrive; when the dependent table's outermost update bracket closes
//    (or at once, for a change made outside any bracket), the main rows of the
//    affected keys are refreshed in one RecordsTrans on the main table: one
//    batch, inside one bracket of the main table, marking only the joined
//    columns whose cells changed. The cost follows the rows that change: a
//    live map from key to main rows finds them.
//  - chains (A joins B, B joins C) propagate through the brackets: C's bracket
//    opens B's, which opens A's; the refresh of B, made in B's bracket, reaches
//    A when that bracket closes, before C's bracket returns to the host.
// The joined cells of the main table are therefore current whenever no
// bracket of the dependent table is open.
//
// Locking order: a dependent table's lock before its main table's. The join
// takes the main table's lock (and opens its bracket) when the dependent
// table's outermost bracket begins, and releases both when it ends; main-side
// maintenance reads only the join's own copy of the dependent values, which
// the join changes under the main table's lock, so it never needs the
// dependent table's lock. Across a chain the order is the order of the joins
// (C, then B, then A), which the refusal of cycles keeps a strict order. Hosts
// that change tables from several threads take a table's lock before opening
// its bracket (lock(), beginUpdate(), ..., endUpdate(), unlock()).
//
// State of a join:
//
//   constructor --checks fail--> Invalid (nothing changed; errorString())
//        |
//        +--------------------> Active --either table destroyed--> Detached
//                                  |                                  |
//                                  +----------- destructor -----------+--> gone
//
//   Active: both indexes registered, columns maintained. Detached: the
//   surviving table's registry no longer holds the join's index; its
//   columns keep their last values. The destructor unregisters what is still
//   registered; the main table keeps the joined columns and their values.
//
// Ownership: the host owns the join; the join owns its two indexes and never
// owns the tables. REQUIRES: the join is destroyed on a thread that may change
// both tables, and not from inside a bracket of either table opened by another
// thread. Index rebuilders (TableIndexRebuilder) may take either index aside;
// the join must outlive such a rebuilder.
//
// Invariants while Active:
//  1. Every main row (of the main table's master index) is in the key map
//     under the key read from its key columns, exactly once.
//  2. The join's copy of each key's dependent values equals the joined
//     columns of the dependent row with that key (null when there is none).
//  3. Outside the dependent table's brackets, every main row's joined cells
//     equal its key's copy.
//  4. The graph of active joins (main -> dependent) has no cycle.
class DATABASE_EXPORT TableJoin
{
public:
    // One joined column: the dependent table's column and the name it gets in
    // the main table (empty: the same name).
    struct Column
    {
        QString dependent;
        QString main;
    };

    TableJoin(Table *main, const QStringList &mainKeyColumns, Table *dependent,
              const QList<Column> &columns);
    ~TableJoin();

    // True while Active; false when refused or detached.
    bool isValid() const;
    QString errorString() const;

    Table *mainTable() const;
    Table *dependentTable() const;
    // Positions of the joined columns in the main table, in the order given.
    QList<int> mainColumns() const;

    // Whether `index` is one of the join indexes (TableJoinMain, TableJoinDep).
    // The table's index rebuilder builds these before all others, since other
    // indexes may sort or filter on the joined cells.
    static bool isJoinIndex(const Index *index);

private:
    Q_DISABLE_COPY(TableJoin)
    const QScopedPointer<TableJoinPrivate> d;
};

// TableJoinMain: the join's index on the main table. It holds no rows; it
// keeps the key map and fills joined cells of entering and re-keyed rows.
// Made and owned by TableJoin. Threads: the main table's, under its lock.
class DATABASE_EXPORT TableJoinMain : public Index
{
public:
    explicit TableJoinMain(TableJoinPrivate *join);
    ~TableJoinMain() override;

    void clear() override;
    void build() override;
    void add(const Record &record) override;
    void process(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                 const QList<Record> &inserted) override;
    bool remove(const Record &record, int position) override;
    bool filter(const Record &record) const override;
    // Whether the row is in the key map.
    bool contains(const Record &record) const override;
    void update(const Record &record, int a, int b, int position) override;
    const char *getClassName() const override;

private:
    Q_DISABLE_COPY(TableJoinMain)
    TableJoinPrivate *const d;
};

// TableJoinDep: the join's index on the dependent table. It holds no rows; it
// copies the joined values of changed dependent rows and, at the end of the
// dependent table's bracket, has the main rows refreshed. Made and owned by
// TableJoin. Threads: the dependent table's; it takes the main table's lock.
class DATABASE_EXPORT TableJoinDep : public Index
{
public:
    explicit TableJoinDep(TableJoinPrivate *join);
    ~TableJoinDep() override;

    void clear() override;
    void build() override;
    void add(const Record &record) override;
    void process(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                 const QList<Record> &inserted) override;
    bool remove(const Record &record, int position) override;
    bool filter(const Record &record) const override;
    // Whether the row supplies or shadows a key's values.
    bool contains(const Record &record) const override;
    void update(const Record &record, int a, int b, int position) override;
    void dependentBeginUpdate(Table *table) override;
    void dependentEndUpdate(Table *table) override;
    const char *getClassName() const override;

private:
    Q_DISABLE_COPY(TableJoinDep)
    TableJoinPrivate *const d;
};

#endif // DATABASE_TABLEJOIN_H
