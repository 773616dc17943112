#ifndef DATABASE_MASTERINDEX_INTEGER_H
#define DATABASE_MASTERINDEX_INTEGER_H

#include <database/masterindex_column.h>

#include <cstring>

// MasterIndex_Integer: a primary key of one integer column, in numeric order.
//
// The key every trading table has first (an order or quote id) gets a master
// index whose compare() is two loads and a three-way compare: no per-type
// dispatch and no presence flags. Ids that arrive in ascending order therefore
// sort after every row already there and take the append path of batches and
// loads.
//
// Ordering: the key column's signed value, -1/0/1; the same order as
// MasterIndex_Column_Pure over that column (whose place it can take), since a
// key column here is never null. A null Record sorts before every row.
//
// Key column: exactly one, of type Integer (signed 32-bit), Integer64 or
// DateTime (signed 64-bit), and not nullable. The constructors throw Exception
// otherwise:
//  - "Column '%1' not found to create index." (the name or the position);
//  - "Type '%1' unsuported for %2" (type name, column name), as the raw-byte
//    key says it;
//  - "Columns can't be nullable %1" (column name).
// Key text, fromText() and keyRecord() are those of the column key.
//
// Search: search() and find() first find the key's part from the parts' first
// rows (which every look-up reads, so they stay in cache). In the part they
// guess the key's place from the keys at the ends of the range still open
// (interpolation) instead of halving it, and read a window of 32 rows around
// each guess, all fetched from memory at once. Ids are most often dense or
// evenly spread, and ids with gaps left by deletes put a guess a few places
// off, inside its window: a look-up by id then waits for memory about twice
// instead of about twenty times. A step that leaves more than half the range
// open is followed by a halving step, so unevenly spread keys cost at most
// about twice a binary search's steps. The result is the same position as
// IndexSort::search() finds (the key's first position).
//
// Sorting: resort() (a build, a load of rows out of order) sorts by a radix
// sort of the key values (IndexSort::setOrderKey()), reading each row once.
//
// The cell's position is read once at construction: a table adds columns after
// the existing ones, so it does not move.
//
// Threads: as MasterIndex; compare() reads two cells and nothing else.
class DATABASE_EXPORT MasterIndex_Integer : public MasterIndex_Column_Pure
{
public:
    MasterIndex_Integer(Table *table, const QString &column);
    MasterIndex_Integer(Table *table, int column);
    ~MasterIndex_Integer() override;

    int compare(const Record &a, const Record &b) const override;
    int search(const Record &key, int from) const override;

    // The key's signed value in the row block `row`. REQUIRES: a row of the table.
    qint64 keyOf(const unsigned char *row) const
    {
        quint64 word;
        std::memcpy(&word, row + m_offset, sizeof word);
        return qint64(word << m_shift);
    }

private:
    Q_DISABLE_COPY(MasterIndex_Integer)
    void setup();

    // Kept in the object, not behind a private pointer: compare() runs on
    // every probe of every search, and this saves it a dependent load.
    // The cell's offset in the row block, header included.
    qint32 m_offset = 0;
    // 32 for a 32-bit cell: its value moves to the top of the 64-bit word
    // loaded (the padding after it drops out), so one signed comparison of
    // the shifted words orders both widths; 0 for a 64-bit cell.
    quint32 m_shift = 0;
};

#endif // DATABASE_MASTERINDEX_INTEGER_H
