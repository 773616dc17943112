#ifndef DATABASE_INDEXMODEL_H
#define DATABASE_INDEXMODEL_H

#include <database/database_global.h>
#include <database/indexobserver.h>

#include <QAbstractTableModel>
#include <QScopedPointer>
#include <QStringList>

class IndexIterative;
class IndexModelPrivate;
class Record;

// IndexModel: a live Qt table model over an index whose rows can be walked in
// order (list, sorted, limited and master indexes), for QTableView and friends.
//
// Columns: the table's columns in table order, or the subset and order given to
// setColumns(); headers are the column titles. Qt::DisplayRole is the cell's
// text (Field::toString(); board lists as their pairs), Qt::EditRole the typed
// value (Field::toVariant()), Qt::TextAlignmentRole right-aligned for numbers.
// A null cell shows nothing. RecordRole gives the row's Record.
//
// Live and exact: the model observes its index (IndexObserver) and turns every
// change into the matching model signals: inserted rows, removed rows, moved
// rows (selections and persistent indexes follow the row) and dataChanged for
// the changed columns of rows that stayed. A change made inside the table's
// update bracket reaches the view once, when the outermost bracket closes.
// A bracket that changes more than layoutThreshold() rows (default 16) is
// shown as one layoutChanged with the persistent indexes remapped (a row that
// left the index loses its persistent indexes): views answer one layout
// change far faster than many moves, each of which makes a header view walk
// all its sections. clear, build, resort and IndexList::move/removeRanges are
// shown the same way. Changes of the data never reset the model; only
// setColumns() does.
//
//     idle --change outside a bracket--> signals at once --> idle
//       |                                                     ^
//       +--beginUpdate--> collecting --endUpdate--> signals --+
//
// REQUIRES: no Table::addColumn() on the table while a model shows it (the
// model holds Records, which addColumn() must not find outside the indexes).
//
// The model keeps its own list of the rows the view was last told about (one
// counted Record each), so a view never reads a row that was freed and rows
// are handed to the view in the state the signals describe.
//
// Row limit: setRowLimit(n) shows only the first n rows of the index (a top-N
// view: the best ten price levels of a sorted index). Rows beyond the limit
// stay in the index and in the table. A limited index (IndexLimit) is
// different: it removes rows from its table.
//
// Header sort: sort(column, order) puts a sorted index over that column behind
// the model, built once and then kept live by the table like every index;
// sort(-1) returns to the index given at construction. The sorted index holds
// the rows that the original index's filter() accepts. The model owns it.
//
// Change role: for a cell changed within changeHighlightPeriod() ms (default
// 3000), ChangeDirectionRole is +1 when its number went up, -1 when it went
// down and 0 when it changed otherwise (text, or a number the model had not
// seen before); ChangeAgeRole is the age of the change in ms. Both are an
// invalid QVariant for other cells. The model emits nothing as changes age: a
// delegate that fades a flash repaints on its own timer.
//
// Threads: the model lives in its QObject thread (the GUI thread) and must be
// used there. The table may be changed on another thread, inside its update
// brackets (which hold its lock): the model then notes what changed and
// applies it on its own thread through one queued call per burst, comparing
// its rows with the index under the table's lock. Reading cells takes the
// table's lock, so a view never sees a row half-written.
//
// Ownership: neither the index nor its table is owned. The index may be
// destroyed before the model (the model then shows no rows and forgets the
// table); otherwise the table must outlive the model. The header-sort index
// is owned.
//
// Invariants:
//  1. Outside the signals, rowCount() is count() of the shown index (capped by
//     the row limit) and row r shows the index's record at position r.
//  2. The model holds one reference to each row it shows.
class DATABASE_EXPORT IndexModel : public QAbstractTableModel, private IndexObserver
{
    Q_OBJECT
public:
    enum Role {
        RecordRole = Qt::UserRole + 1,
        ChangeDirectionRole,
        ChangeAgeRole,
    };

    // REQUIRES: `index` is a list-family index (IndexList or a subclass);
    // another index gives a warning and an empty model.
    explicit IndexModel(IndexIterative *index, QObject *parent = nullptr);
    ~IndexModel() override;

    // The index given at construction, and the one shown now (the header-sort
    // index while sorted).
    IndexIterative *sourceIndex() const;
    IndexIterative *shownIndex() const;

    // Chooses and orders the columns by name; an empty list shows every column.
    // Unknown names are left out with a warning.
    void setColumns(const QStringList &names);
    QStringList columns() const;
    // The table column behind a model column, or -1.
    int tableColumn(int column) const;

    // Shows at most `limit` rows (the first of the index); negative: no limit.
    void setRowLimit(int limit);
    int rowLimit() const;

    void setLayoutThreshold(int rows);
    int layoutThreshold() const;

    void setChangeHighlightPeriod(int milliseconds);
    int changeHighlightPeriod() const;

    // The record shown at `row`, or the null record.
    Record record(int row) const;

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    int columnCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;
    void sort(int column, Qt::SortOrder order = Qt::AscendingOrder) override;

    // Test hook: moves the model's clock for the change role forward.
    void testingAdvanceClock(int milliseconds);

private:
    void indexRowInserted(int position, const Record &record) override;
    void indexRowRemoved(int position, const Record &record) override;
    void indexRowUpdated(int from, int to, const Record &record, int firstColumn,
                         int lastColumn) override;
    void indexBatchProcessed(const Batch &batch) override;
    void indexReset() override;
    void indexBeginUpdate() override;
    void indexEndUpdate() override;
    void indexDestroyed() override;
    Q_INVOKABLE void applyForeignChanges();
    Q_INVOKABLE void sourceDestroyed();

    friend class IndexModelPrivate;
    Q_DISABLE_COPY(IndexModel)
    const QScopedPointer<IndexModelPrivate> d;
};

#endif // DATABASE_INDEXMODEL_H
