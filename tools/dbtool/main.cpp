// dbtool: the command-line companion of the database library.
//
//   dbtool describe     describes the layout of the sample quote table: each
//                       column's type, offset, cell size, flag byte and mask,
//                       and the row size.

#include <database/database.h>

#include <QCoreApplication>
#include <QTextStream>

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

} // namespace

int main(int argc, char **argv)
{
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
    err << "usage: dbtool [describe]\n";
    return 2;
}
