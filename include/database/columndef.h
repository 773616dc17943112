#ifndef DATABASE_COLUMNDEF_H
#define DATABASE_COLUMNDEF_H

#include <database/fieldtype.h>

#include <QString>

class QDataStream;
class Table;

// FieldDef: the type and declared length of a column, as a pair.
struct DATABASE_EXPORT FieldDef
{
    FieldDef() = default;
    FieldDef(FieldType::Type type, int length)
        : type(type)
        , length(length)
    {
    }
    FieldType::Type type = FieldType::Invalid;
    qint32 length = 0;
    bool operator==(const FieldDef &o) const { return type == o.type && length == o.length; }
};

// ColumnDef: the declared part of a column, a plain value.
//  - length is the string capacity in UTF-16 units for VarChar, carried along
//    for Decimal, 0 otherwise;
//  - name is unique within a table, compared case-insensitively;
//  - a nullable column starts a new row without a value; a column that is not
//    nullable starts with its (zero) value present;
//  - an empty title means the name serves as the title;
//  - auxFlag is an application attribute: stored, copied and saved with the
//    column, never read by the table core.
class DATABASE_EXPORT ColumnDef
{
public:
    FieldType::Type type = FieldType::Invalid;
    qint32 length = 0;
    QString name;
    bool nullable = true;
    QString title;
    bool auxFlag = true;
    QString description;
};

// TableColumnDef: a column bound to one table's row layout.
//
// Invariants, once the column belongs to a table (Table::addColumn):
//  1. offset is the byte offset of the cell within the row's data area and a
//     multiple of 8; size == FieldType::typeLength(type, length).
//  2. index is the column's position; flagOffset == table->rowLength() + index / 8
//     and flagMask == 1 << (index % 8).
//
// The table owns its TableColumnDef objects. A definition with a null table
// describes a detached value (FieldValue).
class DATABASE_EXPORT TableColumnDef : public ColumnDef
{
public:
    explicit TableColumnDef(Table *table = nullptr);
    // Copies name, title, description, type, length, size, nullable and
    // auxFlag; offset, index and the flag fields start at 0.
    TableColumnDef(Table *table, const TableColumnDef &other);

    // The column record: name, title, description (QString), length (qint32),
    // type (qint8), size (qint32), nullable, auxFlag (bool).
    void write(QDataStream &stream) const;
    // Reads the eight fields of the record; table, offset, index and flag
    // fields are left untouched.
    void read(QDataStream &stream);

    FieldDef fieldDef() const { return FieldDef(type, length); }

    Table *table = nullptr;
    qint64 offset = 0;
    qint64 size = 0;
    qint32 index = 0;
    qint64 flagOffset = 0;
    quint8 flagMask = 0;
};

#endif // DATABASE_COLUMNDEF_H
