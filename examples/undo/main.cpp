// Undo and redo: every change of a table made through a command on a
// QUndoStack can be taken back, and a whole transaction becomes one command.
//
// The undo commands derive from QUndoCommand, so this example links
// Database::undo (QtWidgets) besides Database::database.

#include <database/database.h>
#include <database/undo.h>

#include <QUndoStack>

#include <cstdio>

static QString priceOf(const Table &table, const char *key)
{
    return Record(&table, QString::fromLatin1(key)).data(QStringLiteral("price")).toString();
}

int main()
{
    Table quotes(QStringLiteral("quotes"));
    quotes.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
    quotes.addColumn(QStringLiteral("price"), FieldType::Decimal, 2);
    quotes.setMasterIndex(new MasterIndex_Column_Pure(&quotes, QStringLiteral("id")));

    QUndoStack stack;

    //! [single]
    // Single changes: the stack runs redo() as soon as a command is pushed, so
    // pushing Undo::Insert is what inserts the row (a clone of `row`).
    Record row(&quotes);
    row.data(QStringLiteral("id")).set<qint32>(1);
    row.data(QStringLiteral("price")) = QStringLiteral("100.00");
    stack.push(new Undo::Insert(&quotes, row));

    // An update needs the old content as a copy made before the change: given
    // the live row twice, undo would have nothing to restore (and says so).
    const Record live(&quotes, QStringLiteral("1"));
    const Record before = live.clone();
    Record after = live.clone();
    after.data(QStringLiteral("price")) = QStringLiteral("101.50");
    stack.push(new Undo::Update(&quotes, before, after));
    //! [single]

    //! [batch]
    // A transaction made as usual, then turned into one command: the command
    // holds copies of every inserted, updated and removed row, taken before
    // the batch runs; it is pushed once the batch has run.
    Undo::Transaction *command = nullptr;
    {
        TableUpdateBracket bracket(&quotes); // beginUpdate() now, endUpdate() on every way out
        RecordsTrans trans(&quotes);
        for (int id = 2; id <= 4; ++id) {
            RecordUpdater updater(&trans);
            Record fresh(&quotes);
            fresh.data(QStringLiteral("id")).set<qint32>(id);
            updater.insertInMap(fresh);
            updater.setValue(QStringLiteral("price"), decimal(QStringLiteral("50.00")));
        }
        RecordUpdater first(&trans, Record(&quotes, QStringLiteral("1")));
        first.updateInMap();
        first.setValue(QStringLiteral("price"), decimal(QStringLiteral("99.00")));
        command = Undo::Transaction::fromBatch(trans);
    } // the batch runs, then the bracket closes
    stack.push(command);
    //! [batch]

    for (int i = 0; i < stack.count(); ++i)
        std::printf("%d: %s\n", i, qPrintable(stack.text(i)));

    //! [undo]
    stack.undo(); // the whole batch: three rows leave, row 1 is 101.50 again
    const bool batchUndone = quotes.rowCount() == 1 && priceOf(quotes, "1") == "101.50";
    stack.undo(); // the single update
    const bool updateUndone = priceOf(quotes, "1") == "100.00";
    stack.redo();
    stack.redo(); // and forward again
    const bool redone = quotes.rowCount() == 4 && priceOf(quotes, "1") == "99.00";
    //! [undo]

    std::printf("batch undone: %d, update undone: %d, redone: %d\n", batchUndone, updateUndone,
                redone);
    return batchUndone && updateUndone && redone ? 0 : 1;
}
