// import and convert: new table files from CSV and a schema, or from another
// table file whose columns are converted by the library's column conversion.
// Neither writes anything unless the whole command succeeds; neither touches
// its input.

#include "celltext.h"
#include "dbtool.h"
#include "tablefile.h"

#include <database/exception.h>
#include <database/fielddefconvertor.h>
#include <database/masterindex.h>

#include <QFile>
#include <QFileInfo>
#include <QHash>

namespace dbtool {

namespace {

const QCommandLineOption toOption(QStringLiteral("to"), QStringLiteral("The new table file."),
                                  QStringLiteral("FILE"));
const QCommandLineOption schemaOption(QStringLiteral("schema"),
                                      QStringLiteral("The table's columns and key: what 'dbtool "
                                                     "info FILE --json' prints."),
                                      QStringLiteral("SCHEMA.json"));
const QCommandLineOption gzipOption(QStringLiteral("gzip"),
                                    QStringLiteral("Write gzip-compressed (default: by a .gz "
                                                   "suffix of the output)."));
const QCommandLineOption plainOption(QStringLiteral("plain"),
                                     QStringLiteral("Write uncompressed."));

// The output's checks shared by import and convert: returns an exit code, or
// ExitOk.
int checkOutput(const QCommandLineParser &parser, const QString &input, Context &context)
{
    if (!parser.isSet(toOption))
        return context.fail(ExitUsage, QStringLiteral("give --to FILE, the table file to write"));
    if (parser.isSet(gzipOption) && parser.isSet(plainOption))
        return context.fail(ExitUsage, QStringLiteral("give --gzip or --plain, not both"));
    if (sameFile(input, parser.value(toOption)))
        return context.fail(ExitUsage,
                            QStringLiteral("--to: %1 is the input file; it is never changed")
                                .arg(parser.value(toOption)));
    return ExitOk;
}

QString tableNameOf(const QString &path)
{
    QString name = QFileInfo(path).fileName();
    if (name.endsWith(QLatin1String(".gz")))
        name.chop(3);
    return name;
}

} // namespace

// --- import ---------------------------------------------------------------------------------

void setupImport(QCommandLineParser &parser)
{
    parser.addOption(schemaOption);
    parser.addOption(toOption);
    parser.addOption(gzipOption);
    parser.addOption(plainOption);
    parser.addOption(QCommandLineOption(
        QStringLiteral("skip-bad"),
        QStringLiteral("Report bad rows and go on without them (default: stop, write nothing).")));
    parser.addPositionalArgument(QStringLiteral("IN.csv"),
                                 QStringLiteral("CSV whose first line names the columns; an "
                                                "empty unquoted field is null, \"\" is empty "
                                                "text."));
}

int runImport(const QCommandLineParser &parser, Context &context)
{
    const QStringList args = parser.positionalArguments();
    if (args.size() != 1 || !parser.isSet(schemaOption))
        return context.fail(ExitUsage, QStringLiteral("give one CSV file and --schema"));
    const QString input = args.first();
    if (const int code = checkOutput(parser, input, context))
        return code;
    const QString target = parser.value(toOption);
    const bool skipBad = parser.isSet(QStringLiteral("skip-bad"));
    QString error;
    QJsonObject schema;
    if (!readSchemaFile(parser.value(schemaOption), schema, error))
        return context.fail(ExitBadInput, error);
    std::unique_ptr<Table> table = tableFromSchema(schema, tableNameOf(target), error);
    if (!table)
        return context.fail(ExitBadInput,
                            QStringLiteral("%1: %2").arg(parser.value(schemaOption), error));

    QFile file(input);
    if (!file.open(QIODevice::ReadOnly))
        return context.fail(ExitBadInput,
                            QStringLiteral("%1: can't open: %2").arg(input, file.errorString()));
    QTextStream in(&file);
    in.setCodec("UTF-8");
    CsvReader reader(in);
    QVector<CsvField> fields;
    if (!reader.readRecord(fields))
        return context.fail(
            ExitBadInput,
            QStringLiteral("%1:%2: %3")
                .arg(input)
                .arg(reader.recordLine())
                .arg(reader.error().isEmpty() ? QStringLiteral("no header line") : reader.error()));
    // Column of the table for each CSV field; a table column the CSV lacks
    // keeps the state of a fresh row.
    QVector<int> columnOfField;
    QHash<int, int> seen;
    for (int i = 0; i < fields.size(); ++i) {
        const int column = table->columnIndex(fields.at(i).text);
        if (column < 0)
            return context.fail(
                ExitBadInput,
                QStringLiteral("%1:1: column '%2' is not in the "
                               "schema; its columns: %3")
                    .arg(input, fields.at(i).text, table->columns().join(QStringLiteral(", "))));
        if (seen.contains(column))
            return context.fail(
                ExitBadInput,
                QStringLiteral("%1:1: column '%2' appears twice").arg(input, fields.at(i).text));
        seen.insert(column, i);
        columnOfField << column;
    }

    ProgressBar bar(QStringLiteral("importing %1").arg(QFileInfo(input).fileName()), context.quiet);
    const qint64 inputSize = qMax<qint64>(1, file.size());
    qint64 imported = 0;
    qint64 skipped = 0;
    QList<Record> batch;
    auto flush = [&] {
        table->appendList(batch);
        batch.clear();
    };
    const MasterIndex *master = table->masterIndex();
    const bool checkKeys = !master->keyColumns().isEmpty();
    QHash<QString, int> keyLines;
    table->beginUpdate();
    while (reader.readRecord(fields)) {
        const int line = reader.recordLine();
        if (fields.size() == 1 && fields.first().text.isEmpty() && !fields.first().quoted
            && columnOfField.size() != 1)
            continue; // a blank line
        QString why;
        unsigned char *row = table->allocRow();
        if (!row) {
            table->endUpdate();
            return context.fail(ExitBadInput,
                                QStringLiteral("%1:%2: out of memory").arg(input).arg(line));
        }
        Record record(row);
        if (fields.size() != columnOfField.size()) {
            why = QStringLiteral("%1 fields, the header has %2")
                      .arg(fields.size())
                      .arg(columnOfField.size());
        } else {
            for (int i = 0; i < fields.size() && why.isEmpty(); ++i) {
                Field cell = table->dataPtr(row, columnOfField.at(i));
                if (!setCellText(cell, fields.at(i).cell(), why))
                    why = QStringLiteral("column %1: %2")
                              .arg(table->columnName(columnOfField.at(i)), why);
            }
        }
        // A key names one row: a second row with the same key is a bad row.
        if (why.isEmpty() && checkKeys) {
            const QString key = master->toText(record);
            const int first = keyLines.value(key, 0);
            if (!key.isEmpty() && first > 0)
                why = QStringLiteral("the key %1 is already on line %2").arg(key).arg(first);
            else if (!key.isEmpty())
                keyLines.insert(key, line);
        }
        if (!why.isEmpty()) {
            const QString message = QStringLiteral("%1:%2: %3").arg(input).arg(line).arg(why);
            if (!skipBad) {
                batch.clear();
                table->endUpdate();
                return context.fail(ExitBadInput,
                                    message
                                        + QStringLiteral(" (nothing written; --skip-bad "
                                                         "leaves such rows out)"));
            }
            context.warn(message + QStringLiteral(": skipped"));
            ++skipped;
            continue;
        }
        batch << record;
        ++imported;
        if (batch.size() >= TableIO::BatchSize)
            flush();
        if ((imported & 1023) == 0)
            bar.update(reader.charsRead(), inputSize);
    }
    flush();
    table->endUpdate();
    bar.finish();
    if (!reader.error().isEmpty())
        return context.fail(ExitBadInput,
                            QStringLiteral("%1:%2: %3 (nothing written)")
                                .arg(input)
                                .arg(reader.recordLine())
                                .arg(reader.error()));
    if (!writeTableFile(*table, target, outputIsGzip(parser, target), context.quiet, error))
        return context.fail(ExitWriteFailed, error);
    context.out << target << ": " << imported << " rows";
    if (skipped > 0)
        context.out << ", " << skipped << " bad rows skipped";
    context.out << '\n';
    return ExitOk;
}

// --- convert --------------------------------------------------------------------------------

void setupConvert(QCommandLineParser &parser)
{
    parser.addOption(toOption);
    parser.addOption(gzipOption);
    parser.addOption(plainOption);
    parser.addOption(QCommandLineOption(
        schemaOption.names(),
        QStringLiteral("The new file's columns and key; columns are matched by name and their "
                       "values converted between types (default: the source's own)."),
        QStringLiteral("SCHEMA.json")));
    parser.addPositionalArgument(QStringLiteral("FILE"),
                                 QStringLiteral("The source table file; it is never changed."));
}

int runConvert(const QCommandLineParser &parser, Context &context)
{
    const QStringList args = parser.positionalArguments();
    if (args.size() != 1)
        return context.fail(ExitUsage, QStringLiteral("give one table file and --to OUT"));
    if (const int code = checkOutput(parser, args.first(), context))
        return code;
    const QString target = parser.value(toOption);
    QString error;
    TableFile source;
    if (!source.locate(args.first(), error) || !source.readHeader(error))
        return context.fail(ExitBadInput, error);
    QJsonObject schema = source.toJson();
    if (parser.isSet(schemaOption) && !readSchemaFile(parser.value(schemaOption), schema, error))
        return context.fail(ExitBadInput, error);
    std::unique_ptr<Table> table = tableFromSchema(schema, tableNameOf(target), error);
    if (!table)
        return context.fail(
            ExitBadInput,
            QStringLiteral("%1: %2").arg(
                parser.isSet(schemaOption) ? parser.value(schemaOption) : source.path(), error));
    // The source's rows are loaded as they are and then converted, column by
    // column, into the new table's rows.
    if (!source.read(nullptr, context.quiet, error))
        return context.fail(ExitBadInput, error + QStringLiteral(" (nothing written)"));
    Table *from = source.table();
    QList<FieldDefConvertor *> convertors;
    TableIO io(table.get());
    try {
        io.make_fromDefs(convertors, from, TableIO::Convertors());
    } catch (const Exception &e) {
        return context.fail(ExitBadInput, QStringLiteral("%1: %2").arg(source.path(), e.message));
    }
    for (int column = 0; column < table->columnCount(); ++column) {
        if (from->columnIndex(table->columnName(column)) < 0)
            context.warn(QStringLiteral("column %1 is not in %2: it takes no values")
                             .arg(table->columnName(column), source.path()));
    }
    for (int column = 0; column < from->columnCount(); ++column) {
        if (table->columnIndex(from->columnName(column)) < 0)
            context.warn(QStringLiteral("column %1 of %2 is left out")
                             .arg(from->columnName(column), source.path()));
    }
    QList<Record> batch;
    table->beginUpdate();
    const MasterIndex *rows = from->masterIndex();
    for (auto it = rows->begin(); it != rows->end(); ++it) {
        unsigned char *row = table->allocRow();
        if (!row)
            break;
        Record record(row);
        TableIO::convertDefs(convertors, row, (*it).row());
        batch << record;
        if (batch.size() >= TableIO::BatchSize) {
            table->appendList(batch);
            batch.clear();
        }
    }
    table->appendList(batch);
    batch.clear();
    table->endUpdate();
    int failures = 0;
    for (FieldDefConvertor *convertor : qAsConst(convertors)) {
        if (convertor->failures() > 0)
            context.warn(QStringLiteral("column %1: %2 values could not be converted to %3 and "
                                        "are null")
                             .arg(convertor->target()->name)
                             .arg(convertor->failures())
                             .arg(FieldType::typeNameWithLength(convertor->target()->type,
                                                                convertor->target()->length)));
        failures += convertor->failures();
    }
    qDeleteAll(convertors);
    if (table->rowCount() != from->rowCount())
        return context.fail(ExitBadInput, QStringLiteral("out of memory (nothing written)"));
    if (!writeTableFile(*table, target, outputIsGzip(parser, target), context.quiet, error))
        return context.fail(ExitWriteFailed, error);
    context.out << target << ": " << table->rowCount() << " rows";
    if (failures > 0)
        context.out << ", " << failures << " values null after conversion";
    context.out << '\n';
    return ExitOk;
}

} // namespace dbtool
