// dump and export: rows of a table file as text, TSV, CSV or JSON lines, with
// a choice of columns, a row condition, paging and a sort.
//
// Without --sort the rows stream from the file to the output and none is kept
// in memory; a file that breaks off shows the rows before the break, then the
// error (exit 2). With --sort the matching rows are loaded and walked through
// the library's sorted index over the column.

#include "celltext.h"
#include "dbtool.h"
#include "tablefile.h"

#include <database/field.h>
#include <database/indexsortcolumns.h>

#include <QFileInfo>
#include <QSaveFile>

namespace dbtool {

namespace {

enum class Format { Text, Tsv, Csv, Jsonl };

bool readFormat(const QString &text, Format &format, QString &error)
{
    static const QPair<const char *, Format> names[] = { { "text", Format::Text },
                                                         { "tsv", Format::Tsv },
                                                         { "csv", Format::Csv },
                                                         { "jsonl", Format::Jsonl } };
    for (const auto &name : names) {
        if (text == QLatin1String(name.first)) {
            format = name.second;
            return true;
        }
    }
    error = QStringLiteral("--format: '%1' is not text, tsv, csv or jsonl").arg(text);
    return false;
}

// The rows' text form, written row by row. Aligned text sets its column
// widths from the first page of rows; a later, wider cell widens its line only.
class RowWriter
{
public:
    static const int AlignPage = 1000;

    RowWriter(QTextStream &out, Format format, const Table *table, const QList<int> &columns)
        : m_out(out)
        , m_format(format)
        , m_table(table)
        , m_columns(columns)
    {
        QStringList names;
        for (int column : columns)
            names << table->columnName(column);
        if (format == Format::Text)
            m_page << names;
        else if (format == Format::Csv)
            writeLine(names, QStringLiteral(","), csvField);
        else if (format == Format::Tsv)
            writeLine(names, QStringLiteral("\t"), tsvField);
    }
    ~RowWriter() { flushPage(); }

    void write(const Record &record)
    {
        QStringList cells;
        if (m_format == Format::Jsonl) {
            for (int column : m_columns)
                cells << jsonString(m_table->columnName(column)) + QLatin1Char(':')
                        + jsonCell(record.data(column));
            m_out << '{' << cells.join(QLatin1Char(',')) << "}\n";
            return;
        }
        for (int column : m_columns)
            cells << cellText(record.data(column));
        if (m_format == Format::Csv)
            writeLine(cells, QStringLiteral(","), csvField);
        else if (m_format == Format::Tsv)
            writeLine(cells, QStringLiteral("\t"), tsvField);
        else if (m_widths.isEmpty() && m_page.size() <= AlignPage)
            m_page << cells;
        else
            writeAligned(cells);
        if (m_page.size() > AlignPage)
            flushPage();
    }

    void flushPage()
    {
        if (m_page.isEmpty())
            return;
        m_widths.fill(0, m_columns.size());
        for (const QStringList &cells : qAsConst(m_page)) {
            for (int i = 0; i < cells.size(); ++i)
                m_widths[i] = qMax(m_widths[i], displayed(cells.at(i)).size());
        }
        for (const QStringList &cells : qAsConst(m_page))
            writeAligned(cells);
        m_page.clear();
    }

private:
    static QString displayed(const QString &cell)
    {
        QString text = cell;
        return text.replace(QLatin1Char('\n'), QLatin1String("\\n"))
            .replace(QLatin1Char('\t'), QLatin1String("\\t"))
            .replace(QLatin1Char('\r'), QLatin1String("\\r"));
    }
    void writeAligned(const QStringList &cells)
    {
        QString line;
        for (int i = 0; i < cells.size(); ++i) {
            const bool numeric = m_table->columnType(m_columns.at(i)) != FieldType::VarChar
                && m_table->columnType(m_columns.at(i)) != FieldType::DateTime
                && m_table->columnType(m_columns.at(i)) != FieldType::BoardList;
            if (i > 0)
                line += QLatin1String("  ");
            const QString text = displayed(cells.at(i));
            // Numbers align right, under a left-aligned header.
            line += numeric && !m_headerPending ? text.rightJustified(m_widths.value(i))
                                                : text.leftJustified(m_widths.value(i));
        }
        m_headerPending = false;
        while (line.endsWith(QLatin1Char(' ')))
            line.chop(1);
        m_out << line << '\n';
    }
    void writeLine(const QStringList &cells, const QString &separator,
                   QString (*quote)(const QString &))
    {
        for (int i = 0; i < cells.size(); ++i) {
            if (i > 0)
                m_out << separator;
            m_out << quote(cells.at(i));
        }
        m_out << '\n';
    }

    QTextStream &m_out;
    Format m_format;
    const Table *m_table;
    QList<int> m_columns;
    QList<QStringList> m_page;
    QVector<int> m_widths;
    bool m_headerPending = true;
};

// The options that dump and export share, read against the file's columns.
struct Selection
{
    QList<int> columns;
    int conditionColumn = -1;
    QString conditionOp;
    std::unique_ptr<FieldValue> conditionValue;
    qint64 offset = 0;
    qint64 limit = -1;

    bool matches(const Record &record) const
    {
        if (conditionColumn < 0)
            return true;
        const int c = compareCells(record.data(conditionColumn), *conditionValue);
        if (conditionOp == QLatin1String("="))
            return c == 0;
        if (conditionOp == QLatin1String("!="))
            return c != 0;
        if (conditionOp == QLatin1String("<"))
            return c < 0;
        if (conditionOp == QLatin1String(">"))
            return c > 0;
        if (conditionOp == QLatin1String("<="))
            return c <= 0;
        return c >= 0;
    }
};

const QCommandLineOption columnsOption(QStringLiteral("columns"),
                                       QStringLiteral("Only these columns, in this order."),
                                       QStringLiteral("a,b"));
const QCommandLineOption whereOption(
    QStringLiteral("where"),
    QStringLiteral("Only rows whose COLUMN compares so with VALUE (=, !=, <, >, <=, >=), by the "
                   "column's type; an empty VALUE is null."),
    QStringLiteral("COLUMN=VALUE"));
const QCommandLineOption limitOption(QStringLiteral("limit"),
                                     QStringLiteral("At most N rows (default all)."),
                                     QStringLiteral("N"));
const QCommandLineOption offsetOption(QStringLiteral("offset"),
                                      QStringLiteral("Skip the first N matching rows."),
                                      QStringLiteral("N"));
const QCommandLineOption sortOption(QStringLiteral("sort"),
                                    QStringLiteral("Rows in the order of COLUMN (equal values "
                                                   "keep the file's order)."),
                                    QStringLiteral("COLUMN[:desc]"));
const QCommandLineOption formatOption(QStringLiteral("format"),
                                      QStringLiteral("text (aligned, default), tsv, csv or jsonl."),
                                      QStringLiteral("FORMAT"));
const QCommandLineOption toOption(QStringLiteral("to"),
                                  QStringLiteral("The output file: .csv, .tsv or .jsonl."),
                                  QStringLiteral("OUT"));

int columnOf(const TableFile &file, const QString &name, QString &error)
{
    const QList<TableColumnDef> &columns = file.header().columns;
    for (int i = 0; i < columns.size(); ++i) {
        if (columns.at(i).name.compare(name, Qt::CaseInsensitive) == 0)
            return i;
    }
    QStringList names;
    for (const TableColumnDef &column : columns)
        names << column.name;
    error = QStringLiteral("%1 has no column '%2'; its columns: %3")
                .arg(file.path(), name, names.join(QStringLiteral(", ")));
    return -1;
}

// Reads the shared options; returns the exit code of a refusal, or ExitOk.
int readSelection(const QCommandLineParser &parser, const TableFile &file, Selection &selection,
                  Context &context)
{
    QString error;
    if (parser.isSet(limitOption)
        && !readCount(QStringLiteral("limit"), parser.value(limitOption), selection.limit, error))
        return context.fail(ExitUsage, error);
    if (parser.isSet(offsetOption)
        && !readCount(QStringLiteral("offset"), parser.value(offsetOption), selection.offset,
                      error))
        return context.fail(ExitUsage, error);
    QStringList names;
    if (parser.isSet(columnsOption)) {
        if (!readColumnList(parser.value(columnsOption), names, error))
            return context.fail(ExitUsage, error);
    } else {
        for (const TableColumnDef &column : file.header().columns)
            names << column.name;
    }
    for (const QString &name : qAsConst(names)) {
        const int column = columnOf(file, name, error);
        if (column < 0)
            return context.fail(ExitUsage, error);
        selection.columns << column;
    }
    if (parser.isSet(whereOption)) {
        Condition condition;
        if (!readCondition(parser.value(whereOption), condition, error))
            return context.fail(ExitUsage, error);
        selection.conditionColumn = columnOf(file, condition.column, error);
        if (selection.conditionColumn < 0)
            return context.fail(ExitUsage, error);
        const TableColumnDef &def = file.header().columns.at(selection.conditionColumn);
        selection.conditionOp = condition.op;
        selection.conditionValue = std::make_unique<FieldValue>(def.type, def.length, true);
        const QString text = condition.value.isEmpty() ? QString() : condition.value;
        if (!setCellText(*selection.conditionValue, text, error))
            return context.fail(ExitUsage,
                                QStringLiteral("--where: column %1: %2").arg(def.name, error));
    }
    return ExitOk;
}

// Streams (or sorts) the selected rows of `file` into `writer`. Returns the
// exit code; a bad file is reported after the rows that could be read.
int writeRows(const QCommandLineParser &parser, TableFile &file, Selection &selection,
              RowWriter &writer, Context &context)
{
    QString error;
    qint64 matched = 0;
    qint64 written = 0;
    const bool sorted = parser.isSet(sortOption);
    SortKey key;
    int sortColumn = -1;
    if (sorted) {
        if (!readSortKey(parser.value(sortOption), key, error))
            return context.fail(ExitUsage, error);
        sortColumn = columnOf(file, key.column, error);
        if (sortColumn < 0)
            return context.fail(ExitUsage, error);
    }
    QList<Record> kept;
    auto onRow = [&](const Record &record) {
        if (!selection.matches(record))
            return TableFile::Drop;
        if (sorted) {
            kept << record;
            return TableFile::Keep;
        }
        if (matched++ < selection.offset)
            return TableFile::Drop;
        if (selection.limit >= 0 && written >= selection.limit)
            return TableFile::Stop;
        writer.write(record);
        ++written;
        return TableFile::Drop;
    };
    const bool loaded = file.read(onRow, context.quiet, error);
    if (sorted) {
        if (loaded && file.table()->rowCount() == kept.size()) {
            IndexSortColumns index(file.table(), file.table()->columnName(sortColumn),
                                   key.descending ? Qt::DescendingOrder : Qt::AscendingOrder,
                                   false);
            index.build();
            kept.clear();
            for (auto it = index.begin(); it != index.end(); ++it)
                kept << *it;
        } else if (!kept.isEmpty()) {
            context.warn(QStringLiteral("the file is damaged: the rows read are shown in file "
                                        "order"));
        }
        for (qint64 i = selection.offset; i < kept.size(); ++i) {
            if (selection.limit >= 0 && i - selection.offset >= selection.limit)
                break;
            writer.write(kept.at(int(i)));
        }
    }
    writer.flushPage();
    context.out.flush();
    return loaded ? ExitOk : context.fail(ExitBadInput, error);
}

void addSelectionOptions(QCommandLineParser &parser)
{
    parser.addOption(columnsOption);
    parser.addOption(whereOption);
    parser.addOption(limitOption);
    parser.addOption(offsetOption);
    parser.addOption(sortOption);
}

} // namespace

void setupDump(QCommandLineParser &parser)
{
    parser.addOption(formatOption);
    addSelectionOptions(parser);
    parser.addPositionalArgument(QStringLiteral("FILE"),
                                 QStringLiteral("A table file (plain or gzip, by content)."));
}

int runDump(const QCommandLineParser &parser, Context &context)
{
    const QStringList args = parser.positionalArguments();
    if (args.size() != 1)
        return context.fail(ExitUsage, QStringLiteral("give one table file"));
    Format format = Format::Text;
    QString error;
    if (parser.isSet(formatOption) && !readFormat(parser.value(formatOption), format, error))
        return context.fail(ExitUsage, error);
    TableFile file;
    if (!file.locate(args.first(), error) || !file.readHeader(error))
        return context.fail(ExitBadInput, error);
    Selection selection;
    if (const int code = readSelection(parser, file, selection, context))
        return code;
    const std::unique_ptr<Table> layout = file.makeTable(error);
    if (!layout)
        return context.fail(ExitBadInput, error);
    RowWriter writer(context.out, format, layout.get(), selection.columns);
    return writeRows(parser, file, selection, writer, context);
}

void setupExport(QCommandLineParser &parser)
{
    parser.addOption(toOption);
    parser.addOption(formatOption);
    addSelectionOptions(parser);
    parser.addPositionalArgument(QStringLiteral("FILE"),
                                 QStringLiteral("A table file (plain or gzip, by content)."));
}

int runExport(const QCommandLineParser &parser, Context &context)
{
    const QStringList args = parser.positionalArguments();
    if (args.size() != 1 || !parser.isSet(toOption))
        return context.fail(ExitUsage, QStringLiteral("give one table file and --to OUT"));
    const QString target = parser.value(toOption);
    Format format = Format::Csv;
    QString error;
    if (parser.isSet(formatOption)) {
        if (!readFormat(parser.value(formatOption), format, error))
            return context.fail(ExitUsage, error);
    } else {
        const QString suffix = QFileInfo(target).suffix().toLower();
        if (!readFormat(suffix == QLatin1String("txt") ? QStringLiteral("text") : suffix, format,
                        error))
            return context.fail(ExitUsage,
                                QStringLiteral("--to: give a .csv, .tsv or .jsonl file, or "
                                               "--format"));
    }
    if (sameFile(args.first(), target))
        return context.fail(ExitUsage, QStringLiteral("--to: %1 is the input file").arg(target));
    TableFile file;
    if (!file.locate(args.first(), error) || !file.readHeader(error))
        return context.fail(ExitBadInput, error);
    Selection selection;
    if (const int code = readSelection(parser, file, selection, context))
        return code;
    QSaveFile output(target);
    if (!output.open(QIODevice::WriteOnly))
        return context.fail(
            ExitWriteFailed,
            QStringLiteral("%1: can't write: %2").arg(target, output.errorString()));
    QTextStream stream(&output);
    stream.setCodec("UTF-8");
    const std::unique_ptr<Table> layout = file.makeTable(error);
    if (!layout) {
        output.cancelWriting();
        return context.fail(ExitBadInput, error);
    }
    int code;
    {
        RowWriter writer(stream, format, layout.get(), selection.columns);
        Context quiet { context.command, stream, context.err, context.quiet };
        code = writeRows(parser, file, selection, writer, quiet);
    }
    stream.flush();
    if (code != ExitOk) {
        output.cancelWriting();
        return code;
    }
    if (stream.status() != QTextStream::Ok || !output.commit())
        return context.fail(
            ExitWriteFailed,
            QStringLiteral("%1: can't write: %2").arg(target, output.errorString()));
    return ExitOk;
}

} // namespace dbtool
