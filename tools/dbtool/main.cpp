// dbtool: the command-line companion of the database library.
//
//   dbtool describe     describes the layout of the sample quote table: each
//                       column's type, offset, cell size, flag byte and mask,
//                       and the row size.
//   dbtool create <dir> [--rows N] [--gzip]
//                       writes the sample quote table with N rows (default
//                       100) as a table file in <dir>, gzip-compressed with
//                       --gzip.
//   dbtool info <dir|file> [<table>]
//                       shows a table file's header (columns, types, key
//                       columns, row count) and the memory its rows and
//                       indexes take once loaded. Given a file, the table is
//                       the file's name without ".gz".
//   dbtool dump <dir|file> [<table>] [--limit N]
//                       prints the first N rows (default 100, 0 for all) as
//                       text, one per line, cells separated by tabs; an empty
//                       cell is null.
//
// Bad files and arguments end with a message on stderr and a non-zero exit:
// 1 for a file that cannot be read, 2 for a usage error.

#include <database/core/icore.h>
#include <database/database.h>
#include <database/decimal.h>
#include <database/masterindex.h>
#include <database/tableio.h>

#include <QCoreApplication>
#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTextStream>

#include <memory>

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

void describe(const Table &table, QTextStream &out)
{
    out << "table " << table.name() << ": " << table.columnCount() << " columns\n";
    out << QStringLiteral("%1 %2 %3 %4 %5 %6 %7\n")
               .arg(QStringLiteral("#"), 2)
               .arg(QStringLiteral("column"), -12)
               .arg(QStringLiteral("type"), -14)
               .arg(QStringLiteral("offset"), 6)
               .arg(QStringLiteral("size"), 5)
               .arg(QStringLiteral("flag byte"), 9)
               .arg(QStringLiteral("mask"), 6);
    for (int i = 0; i < table.columnCount(); ++i) {
        const TableColumnDef *def = table.columnDef(i);
        out << QStringLiteral("%1 %2 %3 %4 %5 %6 %7%8\n")
                   .arg(i, 2)
                   .arg(def->name, -12)
                   .arg(FieldType::typeNameWithLength(def->type, def->length), -14)
                   .arg(def->offset, 6)
                   .arg(def->size, 5)
                   .arg(16 + def->flagOffset, 9)
                   .arg(QStringLiteral("0x"), 4)
                   .arg(def->flagMask, 2, 16, QLatin1Char('0'));
    }
    out << "row length " << table.rowLength() << " (unaligned " << table.rowLengthUnaligned()
        << "), flag bytes " << (table.columnCount() + 7) / 8 << ", row size " << table.rowSize()
        << " bytes (16-byte header included)\n";
}

void fillSampleRows(Table &table, int rows)
{
    const char *const instruments[] = { "ACME", "BOLT", "CORE", "DYNA", "ECHO" };
    for (int i = 0; i < rows; ++i) {
        unsigned char *row = table.allocRow();
        table.dataPtr(row, 0).set<qint32>(i + 1);
        table.dataPtr(row, 1) = QString::fromLatin1(instruments[i % 5]);
        table.dataPtr(row, 2).set<quint64>(decimal(10000 + (i * 37) % 5000, 2).raw());
        table.dataPtr(row, 3).set<double>((i % 100) + 0.5);
        table.dataPtr(row, 4).set<qint64>(1700000000000LL + i * 1000LL);
        table.dataPtr(row, 5).set<qint64>(qint64(i) * 10);
        table.dataPtr(row, 6) = QString(i % 2 ? QLatin1Char('B') : QLatin1Char('S'));
        if (i % 7 == 0)
            table.dataPtr(row, 8) = QStringLiteral("row %1").arg(i + 1);
        table.appendRow(row);
    }
}

// Where a table file is: its directory and the table's name.
struct Location
{
    QDir dir;
    QString table;
};

bool locate(const QStringList &args, Location &where, QTextStream &err)
{
    const QFileInfo info(args.value(0));
    if (info.isFile()) {
        where.dir = info.absoluteDir();
        QString name = info.fileName();
        if (name.endsWith(QLatin1String(".gz")))
            name.chop(3);
        where.table = args.value(1, name);
        if (where.table.startsWith(QLatin1String("--")))
            where.table = name;
        return true;
    }
    if (!info.isDir() || args.size() < 2 || args.at(1).startsWith(QLatin1String("--"))) {
        err << "dbtool: give a table file, or a directory and a table name\n";
        return false;
    }
    where.dir = QDir(info.absoluteFilePath());
    where.table = args.at(1);
    return true;
}

// Reads and checks the header of the table file at `where`.
bool readFileHeader(const Location &where, TableIO::TableHeader &header, QString &error)
{
    Table probe(where.table);
    TableIO io(&probe);
    QFile plain(io.fileName(where.dir));
    QFile gzip(io.compressedFileName(where.dir));
    std::unique_ptr<DeflateDevice> decompressor;
    QIODevice *device = &plain;
    if (!plain.open(QIODevice::ReadOnly)) {
        if (!gzip.open(QIODevice::ReadOnly)) {
            error = QStringLiteral("no table file %1 (nor %2)")
                        .arg(io.fileName(where.dir), io.compressedFileName(where.dir));
            return false;
        }
        decompressor.reset(
            new DeflateDevice(&gzip, TableIO::CompressionLevel, TableIO::CompressionBufferSize));
        decompressor->setStreamFormat(DeflateDevice::GzipFormat);
        if (!decompressor->open(QIODevice::ReadOnly)) {
            error = decompressor->errorString();
            return false;
        }
        device = decompressor.get();
    }
    QDataStream stream(device);
    if (!io.readHeader(header, stream) || !io.checkHeader(header)) {
        error = QStringLiteral("%1: %2").arg(decompressor ? io.compressedFileName(where.dir)
                                                          : io.fileName(where.dir),
                                             io.errorString());
        return false;
    }
    return true;
}

// A table shaped by the header, keyed as the header says, loaded from the file.
std::unique_ptr<Table> loadTable(const Location &where, const TableIO::TableHeader &header,
                                 QString &error)
{
    auto table = std::make_unique<Table>(where.table);
    try {
        for (const TableColumnDef &column : header.columns)
            table->addColumn(column);
        if (header.keyColumns.isEmpty())
            table->setMasterIndex(new MasterIndexOrdered(table.get()));
        else
            table->setMasterIndex(new MasterIndex_Column_Pure(table.get(), header.keyColumns));
    } catch (const QString &message) {
        error = message;
        return nullptr;
    } catch (const Exception &e) {
        error = e.message;
        return nullptr;
    }
    TableIO io(table.get());
    if (!io.read(QDir(where.dir), false)) {
        error = io.errorString();
        return nullptr;
    }
    return table;
}

int intOption(const QStringList &args, const QString &name, int fallback, bool *ok)
{
    const int at = args.indexOf(name);
    if (at < 0)
        return fallback;
    const int value = args.value(at + 1).toInt(ok);
    if (value < 0)
        *ok = false;
    return value;
}

int create(const QStringList &args, QTextStream &out, QTextStream &err)
{
    bool ok = true;
    const int rows = intOption(args, QStringLiteral("--rows"), 100, &ok);
    if (args.isEmpty() || args.at(0).startsWith(QLatin1String("--")) || !ok) {
        err << "usage: dbtool create <dir> [--rows N] [--gzip]\n";
        return 2;
    }
    const QDir dir(args.at(0));
    if (!dir.exists() && !QDir().mkpath(dir.path())) {
        err << "dbtool: can't create the directory " << dir.path() << '\n';
        return 1;
    }
    Table table(QStringLiteral("quotes"), QStringLiteral("Quotes"));
    try {
        buildSampleTable(table);
        table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("id")));
        fillSampleRows(table, rows);
    } catch (const QString &message) {
        err << "dbtool: " << message << '\n';
        return 1;
    }
    DefaultCore::global()->setCompressTableFiles(args.contains(QStringLiteral("--gzip")));
    TableIO io(&table);
    if (!io.write(dir)) {
        err << "dbtool: " << io.errorString() << '\n';
        return 1;
    }
    out << (args.contains(QStringLiteral("--gzip")) ? io.compressedFileName(dir) : io.fileName(dir))
        << ": " << rows << " rows\n";
    return 0;
}

int info(const QStringList &args, QTextStream &out, QTextStream &err)
{
    Location where;
    if (!locate(args, where, err))
        return 2;
    TableIO::TableHeader header;
    QString error;
    if (!readFileHeader(where, header, error)) {
        err << "dbtool: " << error << '\n';
        return 1;
    }
    out << "table " << where.table << ": " << header.columnCount << " columns, " << header.rowCount
        << " rows, " << header.rowLength << " + " << header.flagBytes << " bytes per stored row\n";
    for (int i = 0; i < header.columns.size(); ++i) {
        const TableColumnDef &c = header.columns.at(i);
        out << QStringLiteral("%1 %2 %3 %4%5\n")
                   .arg(i, 2)
                   .arg(c.name, -12)
                   .arg(FieldType::typeNameWithLength(c.type, c.length), -14)
                   .arg(c.nullable ? QStringLiteral("nullable") : QStringLiteral("not null"), -9)
                   .arg(c.title.isEmpty() ? QString() : QStringLiteral(" \"%1\"").arg(c.title));
    }
    out << "key columns: " << header.keyColumns.join(QStringLiteral(", ")) << '\n';
    const std::unique_ptr<Table> table = loadTable(where, header, error);
    if (!table) {
        err << "dbtool: " << error << '\n';
        return 1;
    }
    out << "loaded " << table->rowCount() << " rows, memory " << TableIO::memoryUsage(table.get())
        << " bytes\n";
    return 0;
}

int dump(const QStringList &args, QTextStream &out, QTextStream &err)
{
    bool ok = true;
    const int limit = intOption(args, QStringLiteral("--limit"), 100, &ok);
    Location where;
    if (!ok) {
        err << "usage: dbtool dump <dir|file> [<table>] [--limit N]\n";
        return 2;
    }
    if (!locate(args, where, err))
        return 2;
    TableIO::TableHeader header;
    QString error;
    std::unique_ptr<Table> table;
    if (readFileHeader(where, header, error))
        table = loadTable(where, header, error);
    if (!table) {
        err << "dbtool: " << error << '\n';
        return 1;
    }
    out << table->columns().join(QLatin1Char('\t')) << '\n';
    int printed = 0;
    const MasterIndex *master = table->masterIndex();
    for (auto it = master->begin(), end = master->end();
         it != end && (limit == 0 || printed < limit); ++it, ++printed) {
        QStringList cells;
        for (int c = 0; c < table->columnCount(); ++c)
            cells << (*it).data(c).toString();
        out << cells.join(QLatin1Char('\t')) << '\n';
    }
    if (printed < table->rowCount())
        out << "... " << table->rowCount() - printed << " more rows\n";
    return 0;
}

// The tool reports the errors of table files itself, once, with its own
// prefix; the library's warnings about them would say it twice.
QtMessageHandler standardHandler = nullptr;

void dropTableFileWarnings(QtMsgType type, const QMessageLogContext &context,
                           const QString &message)
{
    if (type == QtWarningMsg && message.startsWith(QLatin1String("TableIO: ")))
        return;
    if (standardHandler)
        standardHandler(type, context, message);
}

} // namespace

int main(int argc, char **argv)
{
    standardHandler = qInstallMessageHandler(dropTableFileWarnings);
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    QTextStream err(stderr);
    const QStringList args = app.arguments().mid(1);
    const QString command = args.value(0, QStringLiteral("describe"));
    if (command == QLatin1String("describe")) {
        Table table(QStringLiteral("quotes"), QStringLiteral("Quotes"));
        try {
            buildSampleTable(table);
        } catch (const QString &message) {
            err << "dbtool: " << message << '\n';
            return 1;
        }
        describe(table, out);
        return 0;
    }
    const QStringList rest = args.mid(1);
    if (command == QLatin1String("create"))
        return create(rest, out, err);
    if (command == QLatin1String("info"))
        return info(rest, out, err);
    if (command == QLatin1String("dump"))
        return dump(rest, out, err);
    const bool asked = command == QLatin1String("help") || command == QLatin1String("--help")
        || command == QLatin1String("-h");
    QTextStream &usage = asked ? out : err;
    if (!asked)
        usage << "dbtool: unknown command '" << command << "'\n";
    usage
        << "usage: dbtool [describe | create <dir> [--rows N] [--gzip] | info <dir|file> [<table>]"
           " | dump <dir|file> [<table>] [--limit N] | help]\n";
    return asked ? 0 : 2;
}
