// info, describe and create: what a table file holds and how its rows are
// laid out, and a sample file to try the tool on.

#include "dbtool.h"
#include "tablefile.h"

#include <database/decimal.h>
#include <database/fieldtype.h>

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

namespace dbtool {

namespace {

const QCommandLineOption jsonOption(QStringLiteral("json"),
                                    QStringLiteral("Machine-readable output: the schema that "
                                                   "import and convert read."));

QString columnLine(int index, const TableColumnDef &c)
{
    return QStringLiteral("  %1 %2 %3 %4 %5%6\n")
        .arg(index, 2)
        .arg(c.name, -16)
        .arg(FieldType::typeNameWithLength(c.type, c.length), -14)
        .arg(c.size, 5)
        .arg(c.nullable ? QStringLiteral("nullable") : QStringLiteral("not null"), -8)
        .arg(c.title.isEmpty() ? QString() : QStringLiteral("  \"%1\"").arg(c.title));
}

// The table files of a directory, each with a one-line summary; files that
// are not table files are counted, not named.
int listDirectory(const QString &path, bool json, QJsonArray &objects, Context &context)
{
    const QDir dir(path);
    const QStringList names = dir.entryList(QDir::Files, QDir::Name);
    int others = 0;
    if (!json)
        context.out << path << ": directory\n";
    for (const QString &name : names) {
        TableFile file;
        QString error;
        if (!file.locate(dir.filePath(name), error) || !file.readHeader(error)) {
            ++others;
            continue;
        }
        if (json) {
            objects.append(file.toJson());
            continue;
        }
        context.out << QStringLiteral("  %1 %2 %3 columns, %4 rows, %5 bytes\n")
                           .arg(name, -24)
                           .arg(file.isGzip() ? QStringLiteral("gzip ") : QStringLiteral("plain"))
                           .arg(file.header().columnCount)
                           .arg(file.header().rowCount)
                           .arg(file.fileSize());
    }
    if (!json && others > 0)
        context.out << "  (" << others << " other files)\n";
    return ExitOk;
}

} // namespace

void setupInfo(QCommandLineParser &parser)
{
    parser.addOption(jsonOption);
    parser.addPositionalArgument(QStringLiteral("FILE"),
                                 QStringLiteral("Table files (plain or gzip, by content); a "
                                                "directory lists its table files."),
                                 QStringLiteral("FILE..."));
}

int runInfo(const QCommandLineParser &parser, Context &context)
{
    const QStringList paths = parser.positionalArguments();
    if (paths.isEmpty())
        return context.fail(ExitUsage, QStringLiteral("give one or more table files"));
    const bool json = parser.isSet(jsonOption);
    QJsonArray objects;
    int code = ExitOk;
    for (const QString &path : paths) {
        if (QFileInfo(path).isDir()) {
            listDirectory(path, json, objects, context);
            continue;
        }
        TableFile file;
        QString error;
        if (!file.locate(path, error) || !file.readHeader(error)) {
            code = context.fail(ExitBadInput, error);
            continue;
        }
        const bool loaded = file.read(nullptr, context.quiet, error);
        const qint64 memory = TableIO::memoryUsage(file.table());
        if (json) {
            QJsonObject object = file.toJson();
            object.insert(QStringLiteral("rowsRead"), double(file.rowsRead()));
            object.insert(QStringLiteral("memoryUsage"), double(memory));
            objects.append(object);
        } else {
            const TableIO::TableHeader &h = file.header();
            context.out << file.path() << ": table " << file.tableName() << ", "
                        << (file.isGzip() ? "gzip" : "plain") << ", " << h.rowCount << " rows, "
                        << h.columnCount << " columns\n";
            for (int i = 0; i < h.columns.size(); ++i)
                context.out << columnLine(i, h.columns.at(i));
            context.out << "  key columns: "
                        << (h.keyColumns.isEmpty() ? QStringLiteral("(none: file order)")
                                                   : h.keyColumns.join(QStringLiteral(", ")))
                        << '\n'
                        << "  stored row " << h.rowLength << " + " << h.flagBytes << " bytes, file "
                        << file.fileSize() << " bytes, in memory " << memory << " bytes\n";
        }
        if (!loaded)
            code = context.fail(ExitBadInput, error);
    }
    if (json) {
        const QJsonDocument document
            = objects.size() == 1 && paths.size() == 1 && !QFileInfo(paths.first()).isDir()
            ? QJsonDocument(objects.first().toObject())
            : QJsonDocument(objects);
        context.out << document.toJson(QJsonDocument::Indented);
    }
    return code;
}

// --- describe -------------------------------------------------------------------------------

namespace {

void buildSampleTable(Table &table)
{
    table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false, QStringLiteral("Id"));
    table.addColumn(QStringLiteral("instrument"), FieldType::VarChar, 12, false,
                    QStringLiteral("Instrument"));
    table.addColumn(QStringLiteral("price"), FieldType::Decimal, 4, true, QStringLiteral("Price"));
    table.addColumn(QStringLiteral("quantity"), FieldType::Double, 0, true,
                    QStringLiteral("Quantity"));
    table.addColumn(QStringLiteral("time"), FieldType::DateTime, 0, true, QStringLiteral("Time"));
    table.addColumn(QStringLiteral("volume"), FieldType::Integer64, 0, true,
                    QStringLiteral("Volume"));
    table.addColumn(QStringLiteral("side"), FieldType::VarChar, 1, true, QStringLiteral("Side"));
    table.addColumn(QStringLiteral("boards"), FieldType::BoardList, 0, true,
                    QStringLiteral("Boards"));
    table.addColumn(QStringLiteral("comment"), FieldType::VarChar, 32, true,
                    QStringLiteral("Comment"));
}

void fillSampleRows(Table &table, qint64 rows)
{
    const char *const instruments[] = { "ACME", "BOLT", "CORE", "DYNA", "ECHO" };
    for (qint64 i = 0; i < rows; ++i) {
        unsigned char *row = table.allocRow();
        if (!row)
            throw std::bad_alloc();
        table.dataPtr(row, 0).set<qint32>(qint32(i + 1));
        table.dataPtr(row, 1) = QString::fromLatin1(instruments[i % 5]);
        table.dataPtr(row, 2).set<quint64>(decimal(10000 + (i * 37) % 5000, 2).raw());
        table.dataPtr(row, 3).set<double>(double(i % 100) + 0.5);
        table.dataPtr(row, 4).set<qint64>(1700000000000LL + i * 1000LL);
        table.dataPtr(row, 5).set<qint64>(i * 10);
        table.dataPtr(row, 6) = QString(i % 2 ? QLatin1Char('B') : QLatin1Char('S'));
        if (i % 3 == 0) {
            boardlist boards;
            boards.add(1, int(i % 4));
            boards.add(2, int(i % 5));
            table.dataPtr(row, 7).set<boardlist>(boards);
        }
        if (i % 7 == 0)
            table.dataPtr(row, 8) = QStringLiteral("row %1").arg(i + 1);
        table.appendRow(row);
    }
}

} // namespace

void setupDescribe(QCommandLineParser &parser)
{
    parser.addPositionalArgument(QStringLiteral("FILE"),
                                 QStringLiteral("A table file; without it, the sample quote "
                                                "table that 'create' writes."),
                                 QStringLiteral("[FILE]"));
}

int runDescribe(const QCommandLineParser &parser, Context &context)
{
    const QStringList paths = parser.positionalArguments();
    if (paths.size() > 1)
        return context.fail(ExitUsage, QStringLiteral("give one table file, or none"));
    std::unique_ptr<Table> table;
    if (paths.isEmpty()) {
        table = std::make_unique<Table>(QStringLiteral("quotes"));
        buildSampleTable(*table);
    } else {
        TableFile file;
        QString error;
        if (!file.locate(paths.first(), error) || !file.readHeader(error))
            return context.fail(ExitBadInput, error);
        table = file.makeTable(error);
        if (!table)
            return context.fail(ExitBadInput, error);
    }
    QTextStream &out = context.out;
    out << "table " << table->name() << ": " << table->columnCount() << " columns\n";
    out << QStringLiteral("%1 %2 %3 %4 %5 %6 %7\n")
               .arg(QStringLiteral("#"), 2)
               .arg(QStringLiteral("column"), -16)
               .arg(QStringLiteral("type"), -14)
               .arg(QStringLiteral("offset"), 6)
               .arg(QStringLiteral("size"), 5)
               .arg(QStringLiteral("flag byte"), 9)
               .arg(QStringLiteral("mask"), 6);
    for (int i = 0; i < table->columnCount(); ++i) {
        const TableColumnDef *def = table->columnDef(i);
        out << QStringLiteral("%1 %2 %3 %4 %5 %6   0x%7\n")
                   .arg(i, 2)
                   .arg(def->name, -16)
                   .arg(FieldType::typeNameWithLength(def->type, def->length), -14)
                   .arg(def->offset, 6)
                   .arg(def->size, 5)
                   .arg(16 + def->flagOffset, 9)
                   .arg(def->flagMask, 2, 16, QLatin1Char('0'));
    }
    out << "row length " << table->rowLength() << " (unaligned " << table->rowLengthUnaligned()
        << "), flag bytes " << (table->columnCount() + 7) / 8 << ", row size " << table->rowSize()
        << " bytes (16-byte header included)\n";
    return ExitOk;
}

// --- create ---------------------------------------------------------------------------------

void setupCreate(QCommandLineParser &parser)
{
    parser.addOption(QCommandLineOption(QStringLiteral("rows"),
                                        QStringLiteral("Rows to write (default 100)."),
                                        QStringLiteral("N"), QStringLiteral("100")));
    parser.addOption(QCommandLineOption(QStringLiteral("gzip"),
                                        QStringLiteral("Write DIR/quotes.gz, gzip-compressed.")));
    parser.addPositionalArgument(QStringLiteral("DIR"),
                                 QStringLiteral("Directory of the new table file 'quotes' "
                                                "(created when missing)."));
}

int runCreate(const QCommandLineParser &parser, Context &context)
{
    QString error;
    qint64 rows = 0;
    if (!readCount(QStringLiteral("rows"), parser.value(QStringLiteral("rows")), rows, error))
        return context.fail(ExitUsage, error);
    if (rows > 10000000)
        return context.fail(ExitUsage, QStringLiteral("--rows: at most 10000000"));
    const QStringList args = parser.positionalArguments();
    if (args.size() != 1)
        return context.fail(ExitUsage, QStringLiteral("give the directory to write into"));
    const QDir dir(args.first());
    if (!dir.exists() && !QDir().mkpath(dir.path()))
        return context.fail(ExitWriteFailed,
                            QStringLiteral("%1: can't create the directory").arg(dir.path()));
    Table table(QStringLiteral("quotes"), QStringLiteral("Quotes"));
    buildSampleTable(table);
    if (!setKeyColumns(table, QStringList { QStringLiteral("id") }, error))
        return context.fail(ExitBadInput, error);
    fillSampleRows(table, rows);
    const bool gzip = parser.isSet(QStringLiteral("gzip"));
    const QString path
        = dir.filePath(gzip ? QStringLiteral("quotes.gz") : QStringLiteral("quotes"));
    if (!writeTableFile(table, path, gzip, context.quiet, error))
        return context.fail(ExitWriteFailed, error);
    context.out << path << ": " << rows << " rows\n";
    return ExitOk;
}

} // namespace dbtool
