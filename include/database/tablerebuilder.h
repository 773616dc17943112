#ifndef DATABASE_TABLEREBUILDER_H
#define DATABASE_TABLEREBUILDER_H

#include <database/database_global.h>

#include <QList>
#include <QScopedPointer>

class Index;
class Table;

// TableIndexRebuilder: takes indexes of a table aside for the length of its
// own life and builds them again when it is destroyed.
//
//   constructed --(taken aside: unregistered, cleared)--> waiting
//   waiting --destructor--> built (build(true)), registered again, names restored
//
// Taking aside: every index is unregistered (removeIndex, which emits
// indexRemoved; all its names leave the name map, so namedIndex() never hands
// out an index that is aside) and then cleared with clear(true). While aside
// the table does not notify it of changes; it is rebuilt from the table's
// current rows at the end.
//
// Which indexes: the table's whole index list, or the given subset. The main
// index is never taken aside: it holds the rows and is the source of every
// build. An index of the subset that the table does not list is still cleared
// and built, but not registered at the end. Without a table (null) the given
// indexes are only cleared and built again.
//
// Order: the indexes are sorted by detectIndexGroup() and built group by
// group: join indexes first (they fill the joined columns that other indexes
// may sort or filter on), then dependent indexes (which pass the rebuild on to
// the tables that depend on this one), then all others. Clearing runs in the
// reverse group order. Registration runs after every build, in the order the
// indexes had in the table's index list, so the table notifies them in the
// same order as before; then every name each index had is set again
// (setIndexName, overriding a name given to another index meanwhile).
//
// Join indexes: this library has no join subsystem of its own; an index counts
// as a join index when its getClassName() starts with "TableJoin" (the class
// names of the join indexes). Dependent indexes: getClassName() starts with
// "IndexDepend". Both comparisons are case-sensitive.
//
// Ownership: owns nothing; the indexes stay with their owners. If the table is
// destroyed first, the destructor only builds the indexes.
// REQUIRES: the indexes outlive the rebuilder; they are not registered again
// by anybody else meanwhile. Threads: the table's, under its discipline (a
// change bracket around the rebuilder's life keeps views from seeing the gap).
class TableIndexRebuilderPrivate;

class DATABASE_EXPORT TableIndexRebuilder
{
public:
    struct IndexGroups
    {
        QList<Index *> joins;
        QList<Index *> dependents;
        QList<Index *> others;
    };

    // Takes aside every index of the table's index list.
    explicit TableIndexRebuilder(Table *table);
    // Takes aside `indexes` only (duplicates ignored).
    TableIndexRebuilder(Table *table, const QList<Index *> &indexes);
    ~TableIndexRebuilder();

    Table *table() const;
    // The indexes taken aside, in the order given.
    QList<Index *> indexes() const;

    // Sorts `indexes` into the three groups, keeping their order within each.
    static IndexGroups detectIndexGroup(const QList<Index *> &indexes);
    static bool isJoinIndex(const Index *index);
    static bool isDependentIndex(const Index *index);

private:
    Q_DISABLE_COPY(TableIndexRebuilder)
    const QScopedPointer<TableIndexRebuilderPrivate> d;
};

#endif // DATABASE_TABLEREBUILDER_H
