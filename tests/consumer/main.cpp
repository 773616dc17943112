// A program outside the source tree that uses only the installed package.
#include <database/database.h>

#include <cstdio>
#include <cstring>

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
    static_assert(DATABASE_VERSION
                      == DATABASE_VERSION_CHECK(DATABASE_VERSION_MAJOR, DATABASE_VERSION_MINOR,
                                                DATABASE_VERSION_PATCH),
                  "version macros disagree");
    if (std::strcmp(databaseVersion(), DATABASE_VERSION_STR) != 0) {
        std::fprintf(stderr, "headers %s, library %s\n", DATABASE_VERSION_STR, databaseVersion());
        return 1;
    }
    return 0;
}
