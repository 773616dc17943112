#ifndef DATABASE_UNDO_H
#define DATABASE_UNDO_H

#include <database/database_global.h>
#include <database/record.h>

#include <QScopedPointer>
#include <QUndoCommand>

class RecordsTrans;
class RecordUpdater;
class Table;

// Undo: the commands that the host pushes on an undo stack when a user changes
// a table.
//
// Every command finds "its" row again by primary key through the table's
// master index (search/find from -1), never by a stored row pointer: the row in
// the table may have been replaced since the command was made. A command holds
// its records by counted reference; it never owns its table, which must
// outlive it. Commands never merge (id() is -1).
//
// Every command gets a text for an undo view when it is made, naming the row
// by its primary key and the table by its name ("Insert row 42 into quotes",
// "Delete row 42 from quotes", "Change row 42 of quotes", "Clear quotes",
// "Change quotes"; the children of a Transaction omit the table). The texts are
// translatable in the context "Undo"; setText() replaces them.
//
// Update and TransUpdate need a copy of the old row, made before the change
// (Record::clone()). Given the live row as the old record, undo copies the
// row over itself and silently restores nothing; the constructors warn when
// the old and the new record are the same row block. Transaction::fromBatch
// makes the copies itself.
//
// Direct commands (Insert, Delete, Update, Clear) act on the table inside its
// update bracket, which is closed again also when an exception leaves the
// command; exceptions of the table pass through. A row that cannot be found by
// key is skipped.
//
// Transaction replays its children (TransInsert, TransDelete, TransUpdate)
// through one RecordsTrans inside one update bracket, so that the table and its
// indexes see one batch, even an empty one. A child that cannot find its row
// registers its key record as an insert instead.
//
// A QUndoStack runs redo() as soon as a command is pushed, so every redo() is
// safe when the row already has its redone state (a duplicate key is the
// table's concern). Each undo()/redo() ends with the base QUndoCommand's,
// which runs the children (only a Transaction has any).
//
// The replay is deliberately literal, and hosts rely on it; in particular:
//  - Insert::redo and Delete::undo append a fresh clone each time: the stored
//    record never enters the table. The transaction children, by contrast,
//    register their own stored record as the new row when its key is missing,
//    so later edits of that row are edits of the command's record. Should the
//    row be replaced by a clone meanwhile (Delete::undo, Clear::undo), the
//    edits undone on the clone stay in the record, and a later replay of the
//    child brings them back: keep direct commands and transaction children of
//    one row apart.
//  - Insert::undo after the row's key was changed elsewhere removes nothing.
//  - Clear's saved rows are taken by redo() and handed back (and forgotten) by
//    undo(): a second undo() without a redo() between restores nothing. Rows
//    whose key is still in the table are only reported as updated, with their
//    content unchanged.
//  - TransUpdate::undo without a row for the new key inserts the command's new
//    record, overwritten with the old content.
//  - An empty Transaction still gives the table one (empty) Table::process().
//
// REQUIRES: the table has a master index whenever a command looks a row up
// (without one the command warns and skips its work).
//
// Threads: the thread that owns the table's changes (the undo stack's thread).
namespace Undo {

class InsertPrivate;
class DeletePrivate;
class UpdatePrivate;
class ClearPrivate;
class TransactionPrivate;
class TransCommandPrivate;
class TransInsertPrivate;
class TransDeletePrivate;
class TransUpdatePrivate;

// Appends a clone of the record on redo; removes the row with its key on undo.
class DATABASE_EXPORT Insert : public QUndoCommand
{
public:
    Insert(Table *table, const Record &record);
    ~Insert() override;
    void undo() override;
    void redo() override;

private:
    Q_DISABLE_COPY(Insert)
    const QScopedPointer<InsertPrivate> d;
};

// The mirror of Insert: removes the row with the record's key on redo, appends
// a clone of the record on undo.
class DATABASE_EXPORT Delete : public QUndoCommand
{
public:
    Delete(Table *table, const Record &record);
    ~Delete() override;
    void undo() override;
    void redo() override;

private:
    Q_DISABLE_COPY(Delete)
    const QScopedPointer<DeletePrivate> d;
};

// Copies the new content into the row with the old record's key on redo, the
// old content into the row with the new record's key on undo, and reports all
// columns of the row as updated (Table::updated).
// `oldRecord` must be a copy of the row made before the change.
class DATABASE_EXPORT Update : public QUndoCommand
{
public:
    Update(Table *table, const Record &oldRecord, const Record &newRecord);
    ~Update() override;
    void undo() override;
    void redo() override;

private:
    Q_DISABLE_COPY(Update)
    const QScopedPointer<UpdatePrivate> d;
};

// Empties the table on redo, keeping clones of its rows in master-index order;
// gives them back through one transaction on undo.
//
//     (saved empty) --redo--> (saved: clones of the rows; table empty)
//          ^                              |
//          +-----------undo---------------+  (rows handed back, list emptied)
//
// A redo() without undo() between appends to the saved list; an undo()
// without redo() between has nothing to give back.
class DATABASE_EXPORT Clear : public QUndoCommand
{
public:
    explicit Clear(Table *table);
    ~Clear() override;
    void undo() override;
    void redo() override;

    // The number of rows saved by redo() and not yet given back.
    int savedCount() const;

private:
    Q_DISABLE_COPY(Clear)
    const QScopedPointer<ClearPrivate> d;
};

class TransCommand;

// A batch: its children (TransCommand subclasses) are replayed through one
// RecordsTrans on the table inside one update bracket: redo in the order they
// were added, undo in reverse.
class DATABASE_EXPORT Transaction : public QUndoCommand
{
public:
    explicit Transaction(Table *table);
    ~Transaction() override;
    void undo() override;
    void redo() override;

    Table *table() const;

    // One undoable command for a whole batch: a Transaction on the batch's
    // table with a TransDelete, TransUpdate or TransInsert child per row that
    // `trans` removes, updates or inserts, each holding copies of the rows
    // (the old and new versions of an update) as they are at this call, and a
    // text counting them. The caller owns the result. Push it on a QUndoStack
    // once the batch has run: push() calls redo(), which replays the batch
    // over the table as it now stands and so changes nothing.
    // REQUIRES: `trans` has not executed yet (execute() and its destructor
    // empty it): call this after the last updater's edit, before the batch
    // runs.
    static Transaction *fromBatch(const RecordsTrans &trans);

    // Hands `trans` to every child that is a TransCommand (by dynamic type);
    // returns the number of children.
    int prepareTrans(RecordsTrans *trans);

private:
    Q_DISABLE_COPY(Transaction)
    const QScopedPointer<TransactionPrivate> d;
};

// A child of a Transaction: works on the record transaction that its parent
// hands it for the length of one replay (null outside a replay; a child
// replayed without one warns and does nothing). undo() and redo() are the
// base's.
class DATABASE_EXPORT TransCommand : public QUndoCommand
{
public:
    explicit TransCommand(Transaction *parent);
    ~TransCommand() override;

    void setRecordTrans(RecordsTrans *trans);
    RecordsTrans *recordTrans() const;

protected:
    // Registers the row with `key`'s primary key with the updater's record
    // transaction: the table's row as an update (the updater then edits the
    // working copy) or, when the table has none, `key` itself as an insert.
    // False, with a warning, when the updater has no record transaction, the
    // table no master index, or `key` is null.
    bool locate(RecordUpdater &updater, const Record &key) const;

private:
    Q_DISABLE_COPY(TransCommand)
    const QScopedPointer<TransCommandPrivate> d;
};

// Registers the record on redo (inserted if its key is missing, else reported
// as updated); removes the row with its key on undo.
class DATABASE_EXPORT TransInsert : public TransCommand
{
public:
    TransInsert(const Record &record, Transaction *parent);
    ~TransInsert() override;
    void undo() override;
    void redo() override;

private:
    Q_DISABLE_COPY(TransInsert)
    const QScopedPointer<TransInsertPrivate> d;
};

// The mirror of TransInsert.
class DATABASE_EXPORT TransDelete : public TransCommand
{
public:
    TransDelete(const Record &record, Transaction *parent);
    ~TransDelete() override;
    void undo() override;
    void redo() override;

private:
    Q_DISABLE_COPY(TransDelete)
    const QScopedPointer<TransDeletePrivate> d;
};

// Writes the whole new record over the row with the old record's key on redo,
// the old record over the row with the new record's key on undo. `oldRecord`
// must be a copy of the row made before the change, not the live row.
class DATABASE_EXPORT TransUpdate : public TransCommand
{
public:
    TransUpdate(const Record &oldRecord, const Record &newRecord, Transaction *parent);
    ~TransUpdate() override;
    void undo() override;
    void redo() override;

private:
    Q_DISABLE_COPY(TransUpdate)
    const QScopedPointer<TransUpdatePrivate> d;
};

} // namespace Undo

#endif // DATABASE_UNDO_H
