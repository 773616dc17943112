// A program outside the source tree that uses only the installed package.
#include <database/database.h>

#include <cstdio>

int main()
{
    Table table(QStringLiteral("quotes"), QString(), nullptr);
    table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false, QString(), true, QString());
    table.addColumn(QStringLiteral("name"), FieldType::VarChar, 12, true, QString(), true,
                    QString());
    if (table.columnCount() != 2 || table.rowSize() != 16 + 8 + 24 + 1) {
        std::fprintf(stderr, "unexpected layout\n");
        return 1;
    }
    return 0;
}
