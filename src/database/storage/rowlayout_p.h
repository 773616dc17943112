#ifndef DATABASE_ROWLAYOUT_P_H
#define DATABASE_ROWLAYOUT_P_H

// The byte layout of a row block, in one place: not installed.
//
//   [0..3]   reference count, int32, changed only atomically
//   [4..7]   allocation marker: 0 for a block of its own from the heap, else
//            the row's place in a slab (RowSlabAllocator)
//   [8..15]  Table* of the table the row was made for
//   [16 ..]  data area: each cell at its column's offset (Table::rowLength() bytes)
//   [..]     presence flags, one bit per column (flagOffset/flagMask)
//
// Column offsets and flag offsets (TableColumnDef) count from the start of the
// data area, so every access to a cell or a flag goes through these helpers.

#include <database/columndef.h>

#include <cstring>

class Table;

namespace RowLayout {

constexpr int RefCountOffset = 0;
constexpr int AllocationOffset = 4;
constexpr int TableOffset = 8;
// Bytes before the data area; a multiple of 8, so cells stay 8-byte aligned.
constexpr int HeaderSize = 16;

inline unsigned char *dataArea(unsigned char *row)
{
    return row + HeaderSize;
}
inline const unsigned char *dataArea(const unsigned char *row)
{
    return row + HeaderSize;
}
inline unsigned char *cell(unsigned char *row, const TableColumnDef *column)
{
    return row + HeaderSize + column->offset;
}
inline const unsigned char *cell(const unsigned char *row, const TableColumnDef *column)
{
    return row + HeaderSize + column->offset;
}
// The first byte of the presence flags of a table whose data area is
// `rowLength` bytes long.
inline unsigned char *flagArea(unsigned char *row, int rowLength)
{
    return row + HeaderSize + rowLength;
}
inline const unsigned char *flagArea(const unsigned char *row, int rowLength)
{
    return row + HeaderSize + rowLength;
}
inline unsigned char &flagByte(unsigned char *row, const TableColumnDef *column)
{
    return row[HeaderSize + column->flagOffset];
}
inline bool isPresent(const unsigned char *row, const TableColumnDef *column)
{
    return (row[HeaderSize + column->flagOffset] & column->flagMask) != 0;
}

inline Table *owner(const unsigned char *row)
{
    Table *table = nullptr;
    std::memcpy(&table, row + TableOffset, sizeof(table));
    return table;
}
inline void setOwner(unsigned char *row, const Table *table)
{
    std::memcpy(row + TableOffset, &table, sizeof(table));
}

} // namespace RowLayout

#endif // DATABASE_ROWLAYOUT_P_H
