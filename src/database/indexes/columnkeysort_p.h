#ifndef DATABASE_COLUMNKEYSORT_P_H
#define DATABASE_COLUMNKEYSORT_P_H

// ColumnKeySort: the stable order of a list of rows by a key of columns,
// found from integer sort keys instead of row comparisons.
//
// A build of a sorted index over columns (IndexSortColumns) collects its rows
// in master order and must order them stably by CellCompare::compareColumn,
// column by column, each ascending or descending. Comparing rows reads two
// row blocks per probe, scattered over the heap; here each row's cell is read
// once, in list order, and turned into an unsigned 64-bit key whose order is
// that of the cells. The order then comes from a stable least significant
// digit radix sort, a column at a time from the last key column to the first,
// with a stable pass on presence after each column that has nulls (nulls first
// ascending, last descending). The result is exactly the stable sort by the
// column comparison: equal keys keep their list order. The sort carries one
// 64-bit payload per row (the caller's handle), so that a single key column
// without nulls, the common index, needs no gather by position at the end.
//
// Keys by type (present cells):
//   Integer, Integer64, DateTime   the value with its sign bit flipped
//   Decimal                        the signed word with its sign bit flipped,
//                                  when every non-zero cell of the column has
//                                  one scale (zeros of any scale count as that
//                                  scale's zero); mixed scales cannot be keyed
//   Double                         the IEEE bits made monotonic, -0 as +0; a
//                                  NaN (which compares equal to everything)
//                                  cannot be keyed
//   BoardList                      no order: the column is passed over
//   VarChar                        cannot be keyed
// Descending columns use the complement of the key. When a column cannot be
// keyed, finish() says so and the caller sorts by comparison instead.
//
// Memory: 8 bytes and a bit per row and key column while collecting, 32
// bytes per row while sorting (one key column without nulls: 16). Threads: one object per build, on
// the building thread.

#include <database/columndef.h>

#include <QVector>

#include <vector>

class ColumnKeySort
{
public:
    struct Column
    {
        const TableColumnDef *def;
        bool descending;
    };

    // `expectedRows`: how many rows add() will see, to reserve for.
    ColumnKeySort(const QVector<Column> &columns, int expectedRows);

    // Notes the key of the next row of the list. REQUIRES: a row of the
    // columns' table.
    void add(const unsigned char *row);
    // Whether every key column could be keyed so far (a VarChar column never).
    bool usable() const { return m_usable; }
    // Completes the keys once every row is added; false when a column cannot
    // be keyed (then the caller sorts by comparison).
    bool finish();
    // Whether the rows added are already in key order. REQUIRES: finish().
    bool inOrder() const;
    // Rearranges `payloads`, one per row in the order the rows were added,
    // into stable key order. Once only: the keys may be used up.
    // REQUIRES: finish() returned true.
    void sort(std::vector<quint64> &payloads);

    // Sorts `keys` stably, rearranging `payloads` (one per key) alike: a
    // radix sort that skips the digits every key shares. With
    // KeysAfter::Unused the keys are used up (left in no order), which saves
    // the last pass moving them. Throws std::bad_alloc when its buffers
    // cannot be had (both unchanged then).
    enum class KeysAfter { Sorted, Unused };
    static void sortPairs(std::vector<quint64> &keys, std::vector<quint64> &payloads,
                          KeysAfter keysAfter = KeysAfter::Sorted);

private:
    struct ColumnKeys
    {
        Column column;
        std::vector<quint64> keys; // per row; a null cell's is `least`
        std::vector<bool> present;
        qint64 nulls = 0;
        // Decimal: the scale bits shared by the column's non-zero cells, and
        // the rows holding a zero, keyed once that scale is known.
        int scale = -1;
        std::vector<quint32> zeros;
        // The least key of a present cell. A null cell takes it, so that nulls
        // do not widen the bits the sort has to pass over.
        quint64 least;
    };
    int compareRows(quint32 a, quint32 b) const;
    // The positions of the rows in stable key order.
    std::vector<quint64> order() const;

    std::vector<ColumnKeys> m_columns;
    quint32 m_rows = 0;
    bool m_usable = true;
};

#endif // DATABASE_COLUMNKEYSORT_P_H
