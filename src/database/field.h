#ifndef DATABASE_FIELD_H
#define DATABASE_FIELD_H

#include <database/columndef.h>

#include <QChar>
#include <QString>
#include <QVariant>

#include <cstring>

class QDebug;

// Field: the typed accessor of one cell of one row.
//
// A Field is four pointers' worth of plain data: the column definition, the
// cell's first byte, the byte holding the cell's presence flag and the flag's
// bit. The cell holds a value when every bit of `mask` is set in *flags.
//
// A Field is produced by Table::dataPtr() or Record::data() and is valid only as
// long as the row block is alive and not re-laid by Table::addColumn().
//
// Conversion failures throw Exception; layout faults throw a bare QString.
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

    // --- conversions (see field.cpp for the rules of each) ---
    const char *typeName() const;
    QString toString() const;
    QString toSystemString() const;
    QVariant toVariant() const;
    QString asSharedString() const;
    QChar asChar() const;
    QChar toChar() const;
    Field &operator=(const QString &text);
    Field &operator=(const Field &other) = default;
    Field(const Field &other) = default;

    [[noreturn]] void incompatibleType(int source) const;
    [[noreturn]] static void incompatibleType(int target, int source);

    const TableColumnDef *def = nullptr;
    unsigned char *data = nullptr;
    unsigned char *flags = nullptr;
    quint8 mask = 0;
};

DATABASE_EXPORT QDebug operator<<(QDebug debug, const Field &field);

#endif // DATABASE_FIELD_H
