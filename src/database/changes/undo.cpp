#include <database/undo.h>

#include <database/masterindex_struct.h>
#include <database/recordstrans.h>
#include <database/table.h>

#include <QCoreApplication>
#include <QDebug>

#include <memory>
#include <new>

namespace {

MasterIndex *masterOf(const Table *table, const char *command)
{
    MasterIndex *master = table ? table->masterIndex() : nullptr;
    if (!master)
        qWarning("Undo::%s: table '%s' has no master index; the command is skipped", command,
                 table ? qPrintable(table->name()) : "(none)");
    return master;
}

// The table's row with the record's primary key, or the null record.
Record rowWithKey(const MasterIndex *master, const Record &key)
{
    const int position = master->search(key, -1);
    return position == -1 ? Record() : master->at(position);
}

// Appends a fresh clone of `record` to the record's own table.
void appendClone(Table *bracketed, const Record &record, const char *command)
{
    if (record.isNull()) {
        qWarning("Undo::%s: the command holds no record", command);
        return;
    }
    const TableUpdateBracket bracket(bracketed);
    Table *table = record.table();
    unsigned char *row = table->cloneRow(record.row());
    if (!row)
        throw std::bad_alloc();
    table->appendRow(row);
}

// Removes the table's row with the record's primary key, if there is one.
void removeByKey(Table *table, const Record &record, const char *command)
{
    const TableUpdateBracket bracket(table);
    const MasterIndex *master = masterOf(table, command);
    if (!master || record.isNull())
        return;
    const Record row = rowWithKey(master, record);
    if (!row.isNull())
        table->remove(row, -1);
}

// Copies `content` into the table's row with the primary key of `key` and
// reports every column of it as updated.
void overwriteByKey(Table *table, const Record &key, const Record &content, const char *command)
{
    const TableUpdateBracket bracket(table);
    const MasterIndex *master = masterOf(table, command);
    if (!master || key.isNull())
        return;
    Record row = rowWithKey(master, key);
    if (row.isNull())
        return;
    row.copy(content);
    table->updated(row, 0, table->columnCount() - 1, -1);
}

Record cloneOrThrow(const Record &record)
{
    Record copy = record.clone();
    if (copy.isNull() && !record.isNull())
        throw std::bad_alloc();
    return copy;
}

// A command's text for an undo view: `pattern` (translatable in the context
// "Undo") with %1 the row's primary key and, when a table is given, %2 its
// name.
QString commandText(const char *pattern, const Record &record, const Table *table)
{
    QString key;
    if (!record.isNull() && record.table()->masterIndex())
        key = record.toString();
    const QString text = QCoreApplication::translate("Undo", pattern);
    return (table ? text.arg(key, table->name()) : text.arg(key)).simplified();
}

// The text of a command on a whole table: %1 is the table's name.
QString tableText(const char *pattern, const Table *table)
{
    return QCoreApplication::translate("Undo", pattern).arg(table ? table->name() : QString());
}

// An update command keeps the old content to write back on undo. Given the
// live row as both versions it would write the row over itself: the change
// could never be undone, and nothing else would say so.
void warnSameRow(const char *command, const Record &oldRecord, const Record &newRecord)
{
    if (oldRecord.isNull() || oldRecord != newRecord)
        return;
    qWarning("Undo::%s: the old and the new record are the same row of table '%s', so undo "
             "has nothing to restore. Keep a copy of the row made before the change "
             "(Record::clone()) and pass that as the old record",
             command, qPrintable(oldRecord.table()->name()));
}

} // namespace

namespace Undo {

// --- Insert and Delete ---------------------------------------------------------------

class InsertPrivate
{
public:
    Table *table;
    Record record;
};

Insert::Insert(Table *table, const Record &record)
    : d(new InsertPrivate { table, record })
{
    setText(commandText(QT_TRANSLATE_NOOP("Undo", "Insert row %1 into %2"), record, table));
}

Insert::~Insert() = default;

void Insert::redo()
{
    appendClone(d->table, d->record, "Insert::redo");
    QUndoCommand::redo();
}

void Insert::undo()
{
    removeByKey(d->table, d->record, "Insert::undo");
    QUndoCommand::undo();
}

class DeletePrivate
{
public:
    Table *table;
    Record record;
};

Delete::Delete(Table *table, const Record &record)
    : d(new DeletePrivate { table, record })
{
    setText(commandText(QT_TRANSLATE_NOOP("Undo", "Delete row %1 from %2"), record, table));
}

Delete::~Delete() = default;

void Delete::redo()
{
    removeByKey(d->table, d->record, "Delete::redo");
    QUndoCommand::redo();
}

void Delete::undo()
{
    appendClone(d->table, d->record, "Delete::undo");
    QUndoCommand::undo();
}

// --- Update ----------------------------------------------------------------------------

class UpdatePrivate
{
public:
    Table *table;
    Record oldRecord;
    Record newRecord;
};

Update::Update(Table *table, const Record &oldRecord, const Record &newRecord)
    : d(new UpdatePrivate { table, oldRecord, newRecord })
{
    warnSameRow("Update", oldRecord, newRecord);
    setText(commandText(QT_TRANSLATE_NOOP("Undo", "Change row %1 of %2"), oldRecord, table));
}

Update::~Update() = default;

void Update::undo()
{
    overwriteByKey(d->table, d->newRecord, d->oldRecord, "Update::undo");
    QUndoCommand::undo();
}

void Update::redo()
{
    overwriteByKey(d->table, d->oldRecord, d->newRecord, "Update::redo");
    QUndoCommand::redo();
}

// --- Clear -----------------------------------------------------------------------------

class ClearPrivate
{
public:
    Table *table;
    QList<Record> saved;
};

Clear::Clear(Table *table)
    : d(new ClearPrivate { table, QList<Record>() })
{
    setText(tableText(QT_TRANSLATE_NOOP("Undo", "Clear %1"), table));
}

Clear::~Clear() = default;

int Clear::savedCount() const
{
    return d->saved.size();
}

void Clear::redo()
{
    if (d->table) {
        const TableUpdateBracket bracket(d->table);
        if (const MasterIndex *master = d->table->masterIndex()) {
            for (auto it = master->begin(), end = master->end(); it != end; ++it)
                d->saved.append(cloneOrThrow(*it));
        }
        d->table->clear();
    }
    QUndoCommand::redo();
}

void Clear::undo()
{
    const TableUpdateBracket bracket(d->table);
    const MasterIndex *master = masterOf(d->table, "Clear::undo");
    if (!master) {
        QUndoCommand::undo();
        return;
    }
    RecordsTrans trans(d->table);
    for (const Record &saved : qAsConst(d->saved)) {
        const Record copy = cloneOrThrow(saved);
        RecordUpdater updater(&trans, master->find(copy, -1));
        if (!updater.record().isNull())
            updater.updateInMap();
        else
            updater.insertInMap(copy);
    }
    d->saved.clear();
    QUndoCommand::undo();
}

// --- Transaction -------------------------------------------------------------------------

class TransactionPrivate
{
public:
    Table *table;
};

namespace {

// Lends the record transaction to the children for one replay.
class TransLoan
{
public:
    TransLoan(Transaction *command, RecordsTrans *trans)
        : m_command(command)
    {
        m_command->prepareTrans(trans);
    }
    ~TransLoan() { m_command->prepareTrans(nullptr); }

private:
    Q_DISABLE_COPY(TransLoan)
    Transaction *m_command;
};

} // namespace

Transaction::Transaction(Table *table)
    : d(new TransactionPrivate { table })
{
    setText(tableText(QT_TRANSLATE_NOOP("Undo", "Change %1"), table));
}

Transaction *Transaction::fromBatch(const RecordsTrans &trans)
{
    Table *table = trans.table();
    // Owned here until complete: a failed copy must not leak the command.
    std::unique_ptr<Transaction> command(new Transaction(table));
    if (!table)
        return command.release();
    // Copies, not the rows themselves: the batch is about to overwrite the
    // updated rows in place, and the command must keep the content it undoes
    // to (or redoes) whatever happens to the table's rows later.
    const QList<Record> inserted = trans.insertList();
    const QList<Record> removed = trans.removeList();
    const QList<Record> before = trans.updateList();
    const QList<Record> after = trans.changeList();
    for (const Record &record : removed)
        new TransDelete(cloneOrThrow(record), command.get());
    for (int i = 0; i < before.size() && i < after.size(); ++i)
        new TransUpdate(cloneOrThrow(before.at(i)), cloneOrThrow(after.at(i)), command.get());
    for (const Record &record : inserted)
        new TransInsert(cloneOrThrow(record), command.get());
    command->setText(
        QCoreApplication::translate("Undo", "Change %1: %2 inserted, %3 changed, %4 deleted")
            .arg(table->name(), QString::number(inserted.size()), QString::number(before.size()),
                 QString::number(removed.size())));
    return command.release();
}

Transaction::~Transaction() = default;

Table *Transaction::table() const
{
    return d->table;
}

int Transaction::prepareTrans(RecordsTrans *trans)
{
    const int children = childCount();
    for (int i = 0; i < children; ++i) {
        // The children are ours; child() hands them out as const only.
        auto *command = dynamic_cast<TransCommand *>(const_cast<QUndoCommand *>(child(i)));
        if (command)
            command->setRecordTrans(trans);
    }
    return children;
}

void Transaction::redo()
{
    const TableUpdateBracket bracket(d->table);
    RecordsTrans trans(d->table);
    const TransLoan loan(this, &trans);
    QUndoCommand::redo();
}

void Transaction::undo()
{
    const TableUpdateBracket bracket(d->table);
    RecordsTrans trans(d->table);
    const TransLoan loan(this, &trans);
    QUndoCommand::undo();
}

// --- TransCommand --------------------------------------------------------------------------

class TransCommandPrivate
{
public:
    RecordsTrans *trans = nullptr;
};

TransCommand::TransCommand(Transaction *parent)
    : QUndoCommand(parent)
    , d(new TransCommandPrivate)
{
}

TransCommand::~TransCommand() = default;

void TransCommand::setRecordTrans(RecordsTrans *trans)
{
    d->trans = trans;
}

RecordsTrans *TransCommand::recordTrans() const
{
    return d->trans;
}

bool TransCommand::locate(RecordUpdater &updater, const Record &key) const
{
    RecordsTrans *trans = updater.transaction();
    if (!trans) {
        qWarning("Undo::TransCommand: replayed outside its transaction; nothing is done");
        return false;
    }
    const MasterIndex *master = masterOf(trans->table(), "TransCommand");
    if (!master)
        return false;
    if (key.isNull()) {
        qWarning("Undo::TransCommand: the command holds no record");
        return false;
    }
    updater.setRecord(master->find(key, -1));
    if (!updater.record().isNull())
        updater.updateInMap();
    else
        updater.insertInMap(key);
    return true;
}

// --- TransInsert and TransDelete -------------------------------------------------------------

class TransInsertPrivate
{
public:
    Record record;
};

TransInsert::TransInsert(const Record &record, Transaction *parent)
    : TransCommand(parent)
    , d(new TransInsertPrivate { record })
{
    setText(commandText(QT_TRANSLATE_NOOP("Undo", "Insert row %1"), record, nullptr));
}

TransInsert::~TransInsert() = default;

void TransInsert::redo()
{
    RecordUpdater updater(recordTrans());
    locate(updater, d->record);
    QUndoCommand::redo();
}

void TransInsert::undo()
{
    RecordUpdater updater(recordTrans());
    if (locate(updater, d->record))
        updater.remove();
    QUndoCommand::undo();
}

class TransDeletePrivate
{
public:
    Record record;
};

TransDelete::TransDelete(const Record &record, Transaction *parent)
    : TransCommand(parent)
    , d(new TransDeletePrivate { record })
{
    setText(commandText(QT_TRANSLATE_NOOP("Undo", "Delete row %1"), record, nullptr));
}

TransDelete::~TransDelete() = default;

void TransDelete::redo()
{
    RecordUpdater updater(recordTrans());
    if (locate(updater, d->record))
        updater.remove();
    QUndoCommand::redo();
}

void TransDelete::undo()
{
    RecordUpdater updater(recordTrans());
    locate(updater, d->record);
    QUndoCommand::undo();
}

// --- TransUpdate -------------------------------------------------------------------------------

class TransUpdatePrivate
{
public:
    Record oldRecord;
    Record newRecord;
};

TransUpdate::TransUpdate(const Record &oldRecord, const Record &newRecord, Transaction *parent)
    : TransCommand(parent)
    , d(new TransUpdatePrivate { oldRecord, newRecord })
{
    warnSameRow("TransUpdate", oldRecord, newRecord);
    setText(commandText(QT_TRANSLATE_NOOP("Undo", "Change row %1"), oldRecord, nullptr));
}

TransUpdate::~TransUpdate() = default;

void TransUpdate::undo()
{
    RecordUpdater updater(recordTrans());
    if (locate(updater, d->newRecord))
        updater = d->oldRecord;
    QUndoCommand::undo();
}

void TransUpdate::redo()
{
    RecordUpdater updater(recordTrans());
    if (locate(updater, d->oldRecord))
        updater = d->newRecord;
    QUndoCommand::redo();
}

} // namespace Undo
