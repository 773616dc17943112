#ifndef DATABASE_ROWSLAB_P_H
#define DATABASE_ROWSLAB_P_H

#include <database/database_global.h>

#include <QtGlobal>

#include <cstddef>

class Table;

// RowSlabAllocator: row blocks carved from large allocations, for a load that
// makes a million rows at once. One allocation per slab instead of one per
// row, and rows freed in slab order cost an atomic decrement each instead of
// a trip through the heap.
//
// A slab is one block from the heap: a 16-byte header holding the number of
// its rows still alive (plus one while an allocator still carves from it) and
// the stride, then rows at that fixed stride. A row records where it lies in its slab in
// bytes 4..7 of its header (RowLayout::AllocationOffset): its distance from
// the slab's start in 8-byte units; 0 marks a row with a heap block of its
// own. freeRow() reads it to free either kind, so rows of both kinds mix in
// every table and are freed alike (Table::freeRow()).
//
// Invariants:
//  1. a slab's count is the number of its rows handed out and not yet freed,
//     plus one while its allocator carves from it; the slab is freed when the
//     count reaches zero;
//  2. a row's allocation marker is 0 exactly when it has a block of its own.
//
// Memory: a slab is freed only when its last row is. A table that keeps a few
// rows of each loaded slab keeps the slabs (at most the memory of the load);
// rows made later come from the heap, and slabs empty as rows are replaced.
// Rows larger than a slab's share come from the heap as Table::allocRow()'s do.
//
// Threads: an allocator is used by one thread. freeRow() may run on any
// thread at any time: the slab counts change atomically.
//
// Not installed; exported only from a library built with its tests.
class DATABASE_AUTOTEST_EXPORT RowSlabAllocator
{
public:
    // Carves rows of the layout of `layout`. REQUIRES: `layout` outlives the
    // allocator.
    explicit RowSlabAllocator(const Table *layout);
    // Lets go of the slab being carved (freed now if no row of it is alive).
    ~RowSlabAllocator();
    RowSlabAllocator(const RowSlabAllocator &) = delete;
    RowSlabAllocator &operator=(const RowSlabAllocator &) = delete;

    // A fresh row, initialised as Table::allocRow() makes it. Null when memory
    // is short.
    unsigned char *allocRow();

    // Frees a row block of either kind. REQUIRES: the row's count is zero and
    // no one refers to it.
    static void freeRow(unsigned char *row) noexcept;
    // Whether `row` lies in a slab.
    static bool inSlab(const unsigned char *row) noexcept;
    // The row in a block of `newSize` bytes with its first `oldSize` bytes, as
    // realloc() gives it: a row of its own is reallocated, a slab row moves to
    // a block of its own. Null when memory is short (the row is unchanged).
    // REQUIRES: no one refers to the row (it may move).
    static unsigned char *resizeRow(unsigned char *row, size_t oldSize, size_t newSize) noexcept;
    // Marks a row as a block of its own (a copy of a slab row's header).
    static void markOwnBlock(unsigned char *row) noexcept;

private:
    struct Slab;
    void dropSlab();

    const Table *m_layout;
    size_t m_rowSize;
    size_t m_stride;
    size_t m_rowsPerSlab;
    Slab *m_slab = nullptr;
    size_t m_used = 0; // rows of m_slab handed out
};

#endif // DATABASE_ROWSLAB_P_H
