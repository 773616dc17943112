#ifndef DATABASE_CELLCOMPARE_P_H
#define DATABASE_CELLCOMPARE_P_H

// Comparison of two rows' cells of one column by value, shared by the column
// indexes. Inline so that a sort's inner loop runs without calls.

#include "storage/rowlayout_p.h"
#include <database/columndef.h>
#include <database/decimal.h>

#include <cstring>

namespace CellCompare {

template <typename T> inline T cellValue(const unsigned char *row, qint64 offset)
{
    T value;
    std::memcpy(&value, row + RowLayout::HeaderSize + offset, sizeof(T));
    return value;
}

template <typename T> inline int order(const T &a, const T &b)
{
    return a < b ? -1 : (b < a ? 1 : 0);
}

inline bool isPresent(const unsigned char *row, const TableColumnDef *column)
{
    return RowLayout::isPresent(row, column);
}

// Ordinal comparison of two string cells of `length` UTF-16 units, each text
// ending at its first zero unit or at the end of the cell.
inline int compareUnits(const unsigned char *a, const unsigned char *b, int length)
{
    for (int i = 0; i < length; ++i) {
        ushort ua;
        ushort ub;
        std::memcpy(&ua, a + 2 * i, sizeof(ua));
        std::memcpy(&ub, b + 2 * i, sizeof(ub));
        if (ua != ub)
            return ua < ub ? -1 : 1;
        if (ua == 0)
            return 0;
    }
    return 0;
}

// -1, 0 or 1 for two present cells of `column`; 0 for types without an order.
inline int compareCells(const unsigned char *a, const unsigned char *b,
                        const TableColumnDef *column)
{
    const qint64 offset = column->offset;
    switch (column->type) {
    case FieldType::Integer:
        return order(cellValue<qint32>(a, offset), cellValue<qint32>(b, offset));
    case FieldType::Integer64:
    case FieldType::DateTime:
        return order(cellValue<qint64>(a, offset), cellValue<qint64>(b, offset));
    case FieldType::Double:
        return order(cellValue<double>(a, offset), cellValue<double>(b, offset));
    case FieldType::Decimal: {
        // Equal scales (the common case in one column) compare as the signed
        // words, as decimal::compare does; only mixed scales need the call.
        const quint64 wa = cellValue<quint64>(a, offset);
        const quint64 wb = cellValue<quint64>(b, offset);
        if (((wa ^ wb) & (quint64(0x7f) << 56)) == 0)
            return order(qint64(wa), qint64(wb));
        const int c = decimal::fromRaw(wa).compare(decimal::fromRaw(wb));
        return c < 0 ? -1 : (c > 0 ? 1 : 0);
    }
    case FieldType::VarChar:
        return compareUnits(a + RowLayout::HeaderSize + offset, b + RowLayout::HeaderSize + offset,
                            column->length);
    default:
        return 0;
    }
}

// Whether a batch that changed columns first..last (-1: an open end) may
// have changed the cells of column `column`.
inline bool batchChanges(int column, int first, int last)
{
    return (first < 0 || column >= first) && (last < 0 || column <= last);
}

// Presence first: a null cell sorts before a present one, two nulls are equal.
inline int compareColumn(const unsigned char *a, const unsigned char *b,
                         const TableColumnDef *column)
{
    const bool aPresent = isPresent(a, column);
    const bool bPresent = isPresent(b, column);
    if (aPresent != bPresent)
        return aPresent ? 1 : -1;
    return aPresent ? compareCells(a, b, column) : 0;
}

} // namespace CellCompare

#endif // DATABASE_CELLCOMPARE_P_H
