#ifndef DATABASE_FIELD_H
#define DATABASE_FIELD_H

#include <database/columndef.h>
#include <database/datetime.h>
#include <database/decimal.h>

#include <QChar>
#include <QString>
#include <QVariant>

#include <cstring>
#include <vector>

class QDebug;
class Table;

// Field: the typed accessor of one cell of one row.
//
// A Field is four pointers' worth of plain data: the column definition, the
// cell's first byte, the byte holding the cell's presence flag and the flag's
// bit. The cell holds a value when every bit of `mask` is set in *flags.
// Copying a Field copies the view, never the cell.
//
// A Field is produced by Table::dataPtr() or Record::data() and is valid only as
// long as the row block is alive and not re-laid by Table::addColumn(). A
// default-constructed Field views nothing: it is null, of type Invalid, and
// every conversion treats it so.
//
// Text forms of a cell (toString):
//   Integer, Integer64  "%1" in base 10          Decimal   decimal::toString()
//   Double              'g' with precision -1    VarChar   the cell's text
//   DateTime            "yyyy.MM.dd HH:mm:ss.zzz" in UTC wall-clock time
//   BoardList           "[BoardList]" (toSystemString gives the pairs)
//   a null cell and Invalid give a null QString.
//
// Errors: conversion failures throw Exception ("Can't convert from '%1'' to %2"
// for unreadable numbers, "Can't convert from %1 to %2" for types that text
// cannot become); a column type outside the enumeration and misuse of the
// character views throw a bare QString ("Incorrect type of field.", "String is
// null for QChar", "String length is not 1 for QChar: %1."); decimal text
// errors propagate as decimal throws them (QString).
//
// Thread-safety: none of its own; the row's table lock guards writes.
class DATABASE_EXPORT Field
{
public:
    Field() = default;
    Field(const TableColumnDef *def, unsigned char *data, unsigned char *flags, quint8 mask)
        : def(def)
        , data(data)
        , flags(flags)
        , mask(mask)
    {
    }

    bool isValid() const { return def && data && flags; }
    bool isNull() const { return !flags || (*flags & mask) != mask; }
    // Sets or clears the presence flag; the cell bytes are left as they are.
    void setPresent(bool present)
    {
        if (present)
            *flags |= mask;
        else
            *flags &= quint8(~mask);
    }
    FieldType::Type type() const { return def ? def->type : FieldType::Invalid; }

    // Raw typed access to the cell bytes. REQUIRES: T matches the column's type.
    template <typename T> T get() const
    {
        T value;
        std::memcpy(&value, data, sizeof(T));
        return value;
    }
    // Writes the cell and marks it present.
    template <typename T> void set(const T &value)
    {
        std::memcpy(data, &value, sizeof(T));
        setPresent(true);
    }

    // --- conversions ---
    // "Invalid", "Integer", "Integer64", "Double", "Decimal", "String",
    // "DateTime", otherwise "undefined".
    const char *typeName() const;
    // The text form above. Throws QString for a type outside the enumeration.
    QString toString() const;
    // The cell in the system locale: numbers with its separators (Double 'g'
    // with precision 6), Decimal by decimal::toSystemString(), DateTime as its
    // short date format, " ", "HH:mm:ss.zzz" (UTC wall-clock), BoardList as the
    // pairs' text. Null for a null cell. Throws QString for an unknown type.
    QString toSystemString() const;
    // int, qlonglong, double, decimal, QString (VarChar and the BoardList pairs'
    // text) or a UTC QDateTime; an invalid QVariant for a null cell, Invalid and
    // unknown types.
    QVariant toVariant() const;
    // The VarChar cell's text without a copy (FieldType::getSharedString): valid
    // only while the row is alive and unchanged. Null for a null cell; throws
    // QString for other types.
    QString asSharedString() const;
    // The one character of a VarChar(1) cell. Throws QString for a null cell,
    // another type or another length.
    QChar asChar() const;
    // As asChar(), but a null cell (of any type) and a VarChar(0) cell give the
    // null QChar.
    QChar toChar() const;
    // Reads text into the cell by the column's type and marks it present:
    // Integer (base 10), Integer64 (base 10), Double, Decimal (decimal's exact
    // grammar), VarChar (cut to the length), DateTime (the first matching of
    // "yyyy.MM.dd HH:mm:ss.zzz", "yyyy-MM-dd HH:mm:ss", "yyyy.MM.dd",
    // "yyyy-MM-dd", as UTC wall-clock time; an unreadable text stores the null
    // date). Throws Exception (and leaves the cell as it was) for unreadable
    // numbers and for the other types.
    Field &operator=(const QString &text);
    Field &operator=(const Field &other) = default;
    Field(const Field &other) = default;

    // Throw the conversion Exception "Can't convert from <source> to
    // <target>", with FieldType::typeName of both; the first form targets the
    // field's own type.
    [[noreturn]] void incompatibleType(int source) const;
    [[noreturn]] static void incompatibleType(int target, int source);

    const TableColumnDef *def = nullptr;
    unsigned char *data = nullptr;
    unsigned char *flags = nullptr;
    quint8 mask = 0;
};

// Writes Field(<typeName>, <text>), with "null" for a null cell and the pairs'
// text for a board list: Field(Integer, 5), Field(String, null).
DATABASE_EXPORT QDebug operator<<(QDebug debug, const Field &field);

// FieldValue: a value of a column's type that owns its cell, detached from any
// row; used where a value must outlive or precede a row (filters, edits, key
// parsing).
//
// It owns a TableColumnDef describing its type (bound to no table) and a
// buffer laid out as
//   [0 .. cell)     the cell: the type's size rounded up to a multiple of 8
//   [cell]          the presence flag byte (mask 1)
// and views them through its Field base: data at the buffer's start, flags at
// the byte after the cell, mask 1.
//
// Invariants:
//  1. def points at the value's own definition, data and flags into its own
//     buffer; copies get their own definition and buffer (a deep copy).
//  2. A new value is all zeros, so it starts null whatever `nullable` says.
//  3. The cell size follows the type: FieldType::typeLength, except that
//     Invalid and a VarChar of length 0 (an empty text constant) have no cell.
// A Field copied out of a FieldValue (slicing) is a view into the value's buffer
// and is valid only while the value lives.
//
// Errors: a type outside the enumeration throws "Type is undefined." (QString)
// when the value is built; conversions throw as Field's do.
//
// Thread-safety: a value; distinct objects may be used on distinct threads.
class DATABASE_EXPORT FieldValue : public Field
{
public:
    // An Invalid value without a cell; null.
    FieldValue();
    FieldValue(FieldType::Type type, int length, bool nullable = true);
    // A copy of a column's definition (unbound from its table); null def gives
    // the Invalid value (with a warning).
    explicit FieldValue(const TableColumnDef *def);
    // The type of a table's column; an unknown column gives the Invalid value
    // (with a warning).
    FieldValue(const Table *table, int column);
    FieldValue(const Table *table, const QString &column);
    // Copies the field's type and content (its presence flag included).
    explicit FieldValue(const Field &field);
    FieldValue(const FieldValue &other);
    FieldValue &operator=(const FieldValue &other);
    FieldValue &operator=(const Field &field);
    // Text is read as Field's assignment reads it (an empty text is not null
    // here; fromText() makes it so).
    using Field::operator=;
    virtual ~FieldValue();

    // Lays the value out for `def` (a copy is kept) and makes it null.
    void init(const TableColumnDef *def);

    const TableColumnDef &columnDef() const { return m_def; }
    const Field &field() const { return *this; }
    Field &field() { return *this; }

    // Field::toString() of the value.
    QString toText() const;
    // An empty text makes the value null (whatever its type); any other text
    // is read as Field's assignment reads it.
    void fromText(const QString &text);

private:
    void layout();

    TableColumnDef m_def;
    std::vector<quint64> m_buffer;
};

// FieldConstValue: a constant of one of the value types, for comparisons and
// filters. Each constructor but the first writes its value and marks it present.
class DATABASE_EXPORT FieldConstValue : public FieldValue
{
public:
    // An Integer of length 0, nullable, left null: "no constant".
    FieldConstValue();
    // A VarChar(1) holding the character.
    FieldConstValue(QChar value);
    // A VarChar as long as the text (in UTF-16 units) holding it.
    FieldConstValue(const QString &value);
    // A VarChar of strlen(value) Latin-1 characters (length 0 for a null pointer).
    FieldConstValue(const char *value);
    FieldConstValue(const decimal &value);
    FieldConstValue(const datetime &value);
    FieldConstValue(int value);
    FieldConstValue(long long value);
    FieldConstValue(double value);

    // The constant equal to a field: the null constant for a null, Invalid,
    // BoardList or unknown field; the QChar constant of toChar() for VarChar(1);
    // the QString constant of toString() for other VarChar; else the typed value.
    static FieldConstValue fromValue(const Field &field);
};

#endif // DATABASE_FIELD_H
