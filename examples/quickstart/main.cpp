// Quick start: a table of quotes with a primary key, a view sorted by price,
// and a transaction that changes several rows as one batch.
//
// Build the examples with -DDATABASE_BUILD_EXAMPLES=ON; each one is also a test.

#include <database/database.h>

#include <QTextStream>

// Prints the view from cheapest to dearest.
static void print(const IndexSort &view, const char *title)
{
    QTextStream out(stdout);
    out << title << ":\n";
    for (auto it = view.begin(); it != view.end(); ++it)
        out << "  " << it->data(QStringLiteral("ticker")).toString() << "  "
            << it->data(QStringLiteral("price")).toString() << '\n';
}

int main()
{
    //! [table]
    // A table of typed columns. The primary key ("master index") identifies a
    // row across transactions, undo and files; every table that is changed
    // through transactions needs one.
    Table quotes(QStringLiteral("quotes"));
    quotes.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
    quotes.addColumn(QStringLiteral("ticker"), FieldType::VarChar, 12);
    quotes.addColumn(QStringLiteral("price"), FieldType::Decimal, 2);
    quotes.setMasterIndex(new MasterIndex_Column_Pure(&quotes, QStringLiteral("id")));
    //! [table]

    //! [view]
    // A sorted view over chosen columns. It follows every change of its table
    // by itself: inserts, updates and removals reach it at once, so it is
    // always in order. (For another order, subclass IndexSort and write
    // compare().) The table does not own its indexes: keep them alive as long
    // as the table (here, on the stack after the table).
    IndexSortColumns byPrice(&quotes, QStringLiteral("price"));
    //! [view]

    //! [transaction]
    // A transaction gathers changes by primary key and hands them to the table
    // (and every index) in one batch when it is destroyed. It lives inside an
    // update bracket, which also takes the table's lock.
    const struct
    {
        int id;
        const char *ticker;
        const char *price;
    } rows[] = { { 1, "SBER", "301.40" }, { 2, "GAZP", "164.05" }, { 3, "LKOH", "7120.50" } };
    {
        TableUpdateBracket bracket(&quotes); // beginUpdate() now, endUpdate() on every way out
        RecordsTrans trans(&quotes);
        for (const auto &row : rows) {
            RecordUpdater updater(&trans);
            Record fresh(&quotes);
            fresh.data(QStringLiteral("id")).set<qint32>(row.id);
            updater.insertInMap(fresh);
            updater.setText(QStringLiteral("ticker"), QString::fromLatin1(row.ticker));
            updater.setValue(QStringLiteral("price"), decimal(QString::fromLatin1(row.price)));
        }
    } // the batch runs, then the bracket closes
    //! [transaction]
    print(byPrice, "after the inserts");

    //! [update]
    // Changing a row: find it by key, register it as an update and edit the
    // working copy the updater switches to. The table's row stays untouched
    // until the batch runs; then the view moves the row to its new place.
    {
        TableUpdateBracket bracket(&quotes); // beginUpdate() now, endUpdate() on every way out
        RecordsTrans trans(&quotes);
        RecordUpdater updater(&trans, Record(&quotes, QStringLiteral("2")));
        updater.updateInMap();
        updater.setValue(QStringLiteral("price"), decimal(QStringLiteral("9999.99")));
    }
    //! [update]
    print(byPrice, "after the update");

    const bool ordered = byPrice.count() == 3
        && byPrice.at(2).data(QStringLiteral("ticker")).toString() == QLatin1String("GAZP");
    return ordered ? 0 : 1;
}
