// Fuzz target of dbtool's input parsing. The first byte chooses:
//  - even: the rest is a command line, arguments separated by newlines, the
//    first naming the command. Each command's parser reads it, and the
//    readers of option values (counts, numbers, conditions, sort keys, column
//    lists) read every value given. Nothing runs: no file is read or written.
//  - odd: the rest is a CSV file. Every record read goes into a cell of each
//    type; a record read means every field within the reader's bounds, and a
//    cell that accepted a text must give a text that reads back the same.
#include "celltext.h"
#include "dbtool.h"

#include <database/field.h>

#include <QByteArray>
#include <QCommandLineParser>
#include <QCoreApplication>

#include <cstdint>
#include <cstdlib>

namespace {

void parseArguments(const QString &text)
{
    const QStringList arguments = text.split(QLatin1Char('\n'));
    for (const dbtool::Command &command : dbtool::commands()) {
        QCommandLineParser parser;
        QString error;
        if (!dbtool::parseCommandLine(command, parser, arguments.mid(1), error)) {
            if (error.isEmpty())
                std::abort();
            continue;
        }
        for (const QString &name : parser.optionNames()) {
            const QString value = parser.value(name);
            qint64 count;
            double number;
            dbtool::Condition condition;
            dbtool::SortKey key;
            QStringList columns;
            if (dbtool::readCount(name, value, count, error) && count < 0)
                std::abort();
            dbtool::readNumber(name, value, true, number, error);
            if (dbtool::readCondition(value, condition, error)
                && (condition.column.isEmpty() && condition.op.isEmpty()))
                std::abort();
            if (dbtool::readSortKey(value, key, error) && key.column.isEmpty())
                std::abort();
            dbtool::readColumnList(value, columns, error);
        }
    }
}

void readCsv(const QByteArray &data)
{
    static const FieldType::Type types[]
        = { FieldType::Integer, FieldType::Integer64, FieldType::Double,   FieldType::Decimal,
            FieldType::VarChar, FieldType::DateTime,  FieldType::BoardList };
    QTextStream in(data);
    in.setCodec("UTF-8");
    dbtool::CsvReader reader(in);
    QVector<dbtool::CsvField> fields;
    int records = 0;
    while (reader.readRecord(fields) && ++records < 1000) {
        if (fields.isEmpty() || fields.size() > dbtool::CsvReader::MaxFields)
            std::abort();
        for (const dbtool::CsvField &field : qAsConst(fields)) {
            if (field.text.size() > dbtool::CsvReader::MaxFieldLength + 1)
                std::abort();
            for (FieldType::Type type : types) {
                FieldValue cell(type, type == FieldType::VarChar ? 16 : 0, true);
                QString error;
                if (!dbtool::setCellText(cell, field.cell(), error))
                    continue;
                FieldValue again(type, type == FieldType::VarChar ? 16 : 0, true);
                const QString text = dbtool::cellText(cell);
                if (!dbtool::setCellText(again, text, error) || dbtool::cellText(again) != text)
                    std::abort();
            }
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    static int argc = 1;
    static char name[] = "fuzz_dbtool";
    static char *argv[] = { name, nullptr };
    static QCoreApplication *app
        = QCoreApplication::instance() ? nullptr : new QCoreApplication(argc, argv);
    (void)app;
    const QByteArray rest(reinterpret_cast<const char *>(data) + 1, int(size - 1));
    if (data[0] % 2 == 0)
        parseArguments(QString::fromUtf8(rest));
    else
        readCsv(rest);
    return 0;
}
