// verify and stats: every row of a file read once, none kept.

#include "celltext.h"
#include "dbtool.h"
#include "tablefile.h"

#include <database/checksum.h>

#include <QSet>

namespace dbtool {

void setupVerify(QCommandLineParser &parser)
{
    parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("Table files."),
                                 QStringLiteral("FILE..."));
}

int runVerify(const QCommandLineParser &parser, Context &context)
{
    const QStringList paths = parser.positionalArguments();
    if (paths.isEmpty())
        return context.fail(ExitUsage, QStringLiteral("give one or more table files"));
    int code = ExitOk;
    for (const QString &path : paths) {
        TableFile file;
        QString error;
        const bool whole = file.locate(path, error)
            && file.read([](const Record &) { return TableFile::Drop; }, context.quiet, error);
        if (!whole) {
            code = context.fail(ExitBadInput, error);
            continue;
        }
        if (file.rowsRead() != file.header().rowCount) {
            code = context.fail(ExitBadInput,
                                QStringLiteral("%1: %2 rows read, the header says %3")
                                    .arg(file.path())
                                    .arg(file.rowsRead())
                                    .arg(file.header().rowCount));
            continue;
        }
        context.out << file.path() << ": ok, " << file.rowsRead() << " rows\n";
    }
    return code;
}

// --- stats ----------------------------------------------------------------------------------

namespace {

// One column's figures. Distinct values are counted exactly up to
// MaxDistinct (by a 64-bit hash of the cell), which bounds the memory.
struct ColumnStats
{
    static const int MaxDistinct = 100000;

    explicit ColumnStats(const TableColumnDef &def)
        : min(&def)
        , max(&def)
    {
    }
    void add(const Field &cell)
    {
        if (cell.isNull()) {
            ++nulls;
            return;
        }
        if (!seen) {
            min = cell;
            max = cell;
            seen = true;
        } else {
            if (compareCells(cell, min) < 0)
                min = cell;
            if (compareCells(cell, max) > 0)
                max = cell;
        }
        if (distinct.size() < MaxDistinct) {
            // A VarChar's bytes after its text are not part of the value.
            const QByteArray bytes = cell.type() == FieldType::VarChar
                ? cellText(cell).toUtf8()
                : QByteArray(reinterpret_cast<const char *>(cell.data), int(cell.def->size));
            distinct.insert(qChecksum64(bytes.constData(), bytes.size()));
        } else {
            overflow = true;
        }
    }

    qint64 nulls = 0;
    bool seen = false;
    FieldValue min;
    FieldValue max;
    QSet<quint64> distinct;
    bool overflow = false;
};

} // namespace

void setupStats(QCommandLineParser &parser)
{
    parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("A table file."));
}

int runStats(const QCommandLineParser &parser, Context &context)
{
    const QStringList paths = parser.positionalArguments();
    if (paths.size() != 1)
        return context.fail(ExitUsage, QStringLiteral("give one table file"));
    TableFile file;
    QString error;
    if (!file.locate(paths.first(), error) || !file.readHeader(error))
        return context.fail(ExitBadInput, error);
    std::vector<ColumnStats> columns;
    for (const TableColumnDef &def : file.header().columns)
        columns.emplace_back(def);
    const bool whole = file.read(
        [&columns](const Record &record) {
            for (int i = 0; i < int(columns.size()); ++i)
                columns[std::size_t(i)].add(record.data(i));
            return TableFile::Drop;
        },
        context.quiet, error);
    QTextStream &out = context.out;
    out << file.path() << ": " << file.rowsRead() << " rows\n";
    out << QStringLiteral("%1  %2  %3  %4  %5  %6\n")
               .arg(QStringLiteral("column"), -16)
               .arg(QStringLiteral("type"), -14)
               .arg(QStringLiteral("nulls"), 8)
               .arg(QStringLiteral("distinct"), 9)
               .arg(QStringLiteral("min"), -24)
               .arg(QStringLiteral("max"));
    for (std::size_t i = 0; i < columns.size(); ++i) {
        const ColumnStats &s = columns[i];
        const TableColumnDef &def = file.header().columns.at(int(i));
        const bool ordered = def.type != FieldType::BoardList;
        out << QStringLiteral("%1  %2  %3  %4  %5  %6\n")
                   .arg(def.name, -16)
                   .arg(FieldType::typeNameWithLength(def.type, def.length), -14)
                   .arg(s.nulls, 8)
                   .arg(s.overflow ? QStringLiteral(">%1").arg(ColumnStats::MaxDistinct)
                                   : QString::number(s.distinct.size()),
                        9)
                   .arg(s.seen && ordered ? cellText(s.min) : QStringLiteral("-"), -24)
                   .arg(s.seen && ordered ? cellText(s.max) : QStringLiteral("-"));
    }
    return whole ? ExitOk : context.fail(ExitBadInput, error);
}

} // namespace dbtool
