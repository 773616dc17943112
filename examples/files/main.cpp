// Saving and loading table files: plain or gzip, with a progress report and a
// filter that keeps only some of the rows on the way in.

#include <database/database.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstdio>

//! [progress]
// The caller's hook into a load or save: operator() is called once per row
// (progress), filter() once per loaded row (keep it or drop it). Both run on
// the loading or saving thread.
class ProgressAndFilter : public FilterProgress
{
public:
    bool operator()(int current, int total) override
    {
        if (current % 250 == 0)
            std::printf("  row %d of %d\n", current, total);
        return true;
    }
    // Keeps the rows whose price is at least 100.
    bool filter(const Record &record) const override
    {
        return !(record.data(QStringLiteral("price")).get<decimal>() < decimal(100, 0));
    }
};
//! [progress]

int main()
{
    Table quotes(QStringLiteral("quotes"));
    quotes.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
    quotes.addColumn(QStringLiteral("price"), FieldType::Decimal, 2);
    quotes.setMasterIndex(new MasterIndex_Column_Pure(&quotes, QStringLiteral("id")));
    {
        TableUpdateBracket bracket(&quotes); // beginUpdate() now, endUpdate() on every way out
        RecordsTrans trans(&quotes);
        for (int id = 0; id < 1000; ++id) {
            RecordUpdater updater(&trans);
            Record fresh(&quotes);
            fresh.data(QStringLiteral("id")).set<qint32>(id);
            updater.insertInMap(fresh);
            updater.setValue(QStringLiteral("price"), decimal(id * 25, 2)); // 0.00 .. 249.75
        }
    }

    QTemporaryDir scratch;
    const QDir dir(scratch.path());

    //! [save]
    // A save to a directory writes the file named after the table. The form
    // is chosen per call; without a choice the host's process-wide switch
    // (ICore::compressTableFiles) decides. Saving one form removes the other.
    TableIO io(&quotes);
    if (!io.write(dir, TableIO::Compression::Plain)) {
        std::printf("save failed: %s\n", qPrintable(io.errorString()));
        return 1;
    }
    std::printf("plain: %lld bytes\n", QFile(io.fileName(dir)).size());

    ProgressAndFilter progress;
    if (!io.write(progress, dir, true, TableIO::Compression::Gzip)) {
        std::printf("save failed: %s\n", qPrintable(io.errorString()));
        return 1;
    }
    std::printf("gzip: %lld bytes, plain file left: %d\n", QFile(io.compressedFileName(dir)).size(),
                QFile::exists(io.fileName(dir)));
    //! [save]

    //! [load]
    // A load finds the plain file or else the ".gz" one, replaces the table's
    // rows and rebuilds its indexes once. Failures are values: false and
    // errorString(); a failed load leaves the table as it was when no file
    // could be opened.
    Table loaded(QStringLiteral("quotes"));
    loaded.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
    loaded.addColumn(QStringLiteral("price"), FieldType::Decimal, 2);
    loaded.setMasterIndex(new MasterIndex_Column_Pure(&loaded, QStringLiteral("id")));
    TableIO reader(&loaded);
    if (!reader.read(progress, dir, false)) {
        std::printf("load failed: %s\n", qPrintable(reader.errorString()));
        return 1;
    }
    std::printf("loaded %d of %d rows\n", loaded.rowCount(), quotes.rowCount());
    //! [load]

    return loaded.rowCount() == 600 ? 0 : 1;
}
