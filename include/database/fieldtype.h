#ifndef DATABASE_FIELDTYPE_H
#define DATABASE_FIELDTYPE_H

#include <database/database_global.h>

#include <QString>

// FieldType names the eight cell types of a table column and owns the rules
// that turn a type and its declared length into a cell size, the type's display
// name, and the reading and writing of string cells.
//
// Invariants:
//  1. The enumeration values are fixed: they are stored in table files as a
//     signed byte and must never change.
//  2. A VarChar cell holds exactly `length` UTF-16 units in host byte order: the
//     text, then zero units up to the end; a text of exactly `length` units has
//     no terminating zero.
//
// Errors are thrown as a bare QString (not Exception): "Type is undefined.",
// "Length of string can't be zero" and "Length of string %1 exceeds 32767.".
//
// Thread-safety: all members are static and reentrant.
class DATABASE_EXPORT FieldType
{
public:
    enum Type : int {
        Invalid = 0,
        Integer = 1,
        Integer64 = 2,
        Double = 3,
        Decimal = 4,
        VarChar = 5,
        DateTime = 6,
        BoardList = 7
    };

    // The longest VarChar, in UTF-16 units: string cells are read with a
    // 16-bit counter.
    static const int MaxStringLength = 32767;

    // Cell size in bytes. VarChar: 2 * length (a negative length is not
    // checked here; Table::addColumn refuses it). Throws QString for a VarChar
    // of length 0 ("Length of string can't be zero") or above MaxStringLength
    // ("Length of string %1 exceeds 32767."), and for Invalid or unknown types.
    static int typeLength(int type, int length);
    // True exactly for Decimal and VarChar.
    static bool typeHasLength(int type);
    // "Undefined", "Integer", "Integer64", "Double", "Decimal", "VarChar",
    // "DateTime", "BoardList"; any other value is "Undefined".
    static const char *typeName(int type);
    // The type name followed by "[length]" when the type has a length.
    static QString typeNameWithLength(int type, int length);

    // The text of a string cell: units up to the first zero or `length`.
    static QString getString(const void *cell, int length);
    // As getString, but the result refers to the cell's bytes directly
    // (QString::fromRawData). REQUIRES: the row stays alive and unchanged while
    // the result is used.
    static QString getSharedString(const void *cell, int length);
    // Stores text into a cell: cut to `length` units, zero-filled after.
    static void setString(void *cell, int length, const QString &text);
    // Stores min(length, count) units, zero-filled after.
    static void setString(void *cell, int length, const ushort *units, int count);
};

#endif // DATABASE_FIELDTYPE_H
