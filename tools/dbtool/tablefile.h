#ifndef DBTOOL_TABLEFILE_H
#define DBTOOL_TABLEFILE_H

// Table files as dbtool sees them: the file named on the command line (never
// another form of it), its header, its rows streamed through a callback or
// loaded into a table, and atomic writes of new files.
//
// A file is plain or gzip by its content (the gzip magic bytes), not by its
// name.
//
// Streaming: read() hands every row to the caller's callback as the library
// loads it and keeps no row unless the callback says so, so info, verify, stats and
// dump without a sort run in bounded memory. Rows seen before a failure have
// already reached the callback: a truncated file shows what could be read.
//
// Ownership: a TableFile owns its table. Threads: main thread only.

#include <database/record.h>
#include <database/table.h>
#include <database/tableio.h>

#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QJsonObject>
#include <QString>

#include <functional>
#include <memory>

class QIODevice;

namespace dbtool {

// The progress bar on stderr: drawn only when stderr is a terminal, the
// command is not --quiet, and the work has run for a second; erased at the end.
class ProgressBar
{
public:
    ProgressBar(const QString &label, bool quiet);
    ~ProgressBar();
    void update(qint64 done, qint64 total);
    void finish();

private:
    QString m_label;
    bool m_enabled;
    bool m_drawn = false;
    int m_lastPermille = -1;
    QElapsedTimer m_clock;
};

class TableFile
{
public:
    // What becomes of a loaded row: dropped at once, kept in the table, or
    // dropped and the load ended early (not an error).
    enum RowAction { Drop, Keep, Stop };
    typedef std::function<RowAction(const Record &)> RowCallback;

    // The file named `path`, which must exist and not be a directory.
    bool locate(const QString &path, QString &error);
    // Reads and checks the header only.
    bool readHeader(QString &error);
    // Builds the table from the header and loads the rows: each goes to `onRow`,
    // which decides its fate; without `onRow` every row is kept. A load that
    // fails reports in `error` the file, the row and the offset of the first
    // bad row, and why.
    bool read(const RowCallback &onRow, bool quiet, QString &error);

    QString path() const { return m_path; }
    // The table's name: the file's name without ".gz".
    QString tableName() const { return m_tableName; }
    bool isGzip() const { return m_gzip; }
    qint64 fileSize() const { return m_fileSize; }
    const TableIO::TableHeader &header() const { return m_header; }
    // The bytes of the header in the (uncompressed) stream.
    qint64 headerSize() const;
    // An empty table with the header's columns, laid out once; null, with
    // `error` naming the file, when the library refuses a definition.
    // REQUIRES: readHeader() succeeded.
    std::unique_ptr<Table> makeTable(QString &error) const;
    qint64 storedRowSize() const { return qint64(m_header.rowLength) + m_header.flagBytes; }
    Table *table() const { return m_table.get(); }
    // Rows handed to the callback by the last read().
    qint64 rowsRead() const { return m_rowsRead; }

    // The file's description, which import and convert read back as a
    // schema (columns and key columns; the rest is informative).
    QJsonObject toJson() const;

private:
    bool openStream(QIODevice *&device, QString &error);

    QString m_path;
    QString m_tableName;
    bool m_gzip = false;
    qint64 m_fileSize = 0;
    TableIO::TableHeader m_header;
    std::unique_ptr<Table> m_table;
    qint64 m_rowsRead = 0;
    std::unique_ptr<QIODevice> m_file;
    std::unique_ptr<QIODevice> m_decompressor;
};

// A table built from a schema (the JSON of `info --json`): its columns in
// order and its key. Returns null with `error` for a schema that does not
// describe a valid table.
std::unique_ptr<Table> tableFromSchema(const QJsonObject &schema, const QString &name,
                                       QString &error);
// Reads a schema file. Accepts the object that `info FILE --json` prints, or
// an array holding one such object.
bool readSchemaFile(const QString &path, QJsonObject &schema, QString &error);
// Builds `table`'s master index from key column names (none: file order).
bool setKeyColumns(Table &table, const QStringList &keyColumns, QString &error);

// Writes `table` (header and rows, in its master index's order) to `path`
// through QSaveFile, gzip-compressed when `gzip`. False with `error` leaves
// no file behind and any existing file as it was.
bool writeTableFile(Table &table, const QString &path, bool gzip, bool quiet, QString &error);

// The form chosen for an output: --gzip or --plain when given, else by the
// ".gz" suffix of the path.
bool outputIsGzip(const QCommandLineParser &parser, const QString &path);

// Whether two paths name the same existing file.
bool sameFile(const QString &a, const QString &b);

} // namespace dbtool

#endif // DBTOOL_TABLEFILE_H
