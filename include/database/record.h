#ifndef DATABASE_RECORD_H
#define DATABASE_RECORD_H

#include <database/field.h>

#include <QMetaType>
#include <QString>

class Table;

// Record: the counted handle through which everything holds a row block.
//
// A Record is exactly one pointer: the row block or null (the null record).
// The reference count is the int32 at the start of the block and the owning
// table is the pointer in the block's header; the record stores neither.
// Copying shares the row and adds a reference; the last handle to let go frees
// the block through its table (Table::freeRow).
//
// Thread-safety: reference counts change only through atomic increments and
// decrements, so handles to one row may be copied and dropped on several
// threads at once. An increment is relaxed: whoever copies a handle already
// holds one, so the row cannot go away meanwhile. A decrement releases and
// acquires, so that every use of the row on any thread happens before the last
// handle frees it. The row's content is not protected: writers hold the
// table's lock.
//
// Cost: copying, assigning, moving and destroying a handle are inline (one
// atomic instruction on the count at most); only the freeing of a row is a
// call into the library.
class DATABASE_EXPORT Record
{
public:
    Record() noexcept = default;
    // A fresh row of `table` (Table::allocRow); null when allocation fails.
    explicit Record(const Table *table);
    // The row whose master key has the text `key`, or null when the key is
    // empty, the table has no master index or no row has that key. A key text
    // that the master index cannot parse raises that index's error.
    Record(const Table *table, const QString &key);
    // Adopts a block: takes one reference to `row` (which may be null).
    explicit Record(unsigned char *row) noexcept;
    Record(const Record &other) noexcept
        : m_row(other.m_row)
    {
        ref();
    }
    Record(Record &&other) noexcept
        : m_row(other.m_row)
    {
        other.m_row = nullptr;
    }
    // Drops the old row first (freeing it if this was its last handle), then
    // shares the new one; nothing happens when both hold the same row.
    Record &operator=(const Record &other) noexcept
    {
        if (m_row != other.m_row) {
            deref();
            m_row = other.m_row;
            ref();
        }
        return *this;
    }
    Record &operator=(Record &&other) noexcept
    {
        if (this != &other) {
            if (m_row == other.m_row) {
                other.deref();
            } else {
                deref();
                m_row = other.m_row;
            }
            other.m_row = nullptr;
        }
        return *this;
    }
    ~Record() { deref(); }

    bool isNull() const noexcept { return m_row == nullptr; }
    unsigned char *row() const noexcept { return m_row; }
    // The table in the row's header; null for the null record.
    Table *table() const noexcept;
    // The current reference count of the row (0 for the null record).
    int refCount() const noexcept;

    // Identity: two records are equal when they hold the same row block.
    bool operator==(const Record &other) const noexcept { return m_row == other.m_row; }
    bool operator!=(const Record &other) const noexcept { return m_row != other.m_row; }

    // A new row with the same content and table (count 1, held by the result).
    Record clone() const;
    // Copies all cells and presence flags of `other`. REQUIRES: same layout.
    void copy(const Record &other);
    // Copies columns first..last (-1: first/last column) and every presence flag.
    void copy(const Record &other, int first, int last);

    // The accessor of column `name`. An unknown name, or a null record, logs a
    // warning naming the table and its columns and gives the invalid Field():
    // it reads as null and refuses text with Exception; its raw get()/set()
    // must not be used.
    Field data(const QString &name);
    Field data(const QString &name) const;
    Field data(int column) const;

    // Whether the master index of the record's table holds this very row.
    // REQUIRES: the table has a master index.
    bool inTable() const;
    // The master key text; a null string for the null record.
    // REQUIRES: the table has a master index.
    QString toString() const;
    // "T:(ptr:0x... ref:N) { a=5 b=\"\" }": the whole row, for diagnostics.
    QString dump() const;

    // Drops the handle's reference without freeing the row when it was the
    // last one, and detaches the handle. Returns the remaining count. Used by
    // Table::addColumn, which re-lays blocks in place.
    int releaseWithoutFree() noexcept;

private:
    // The reference count: the int32 at the start of the row block.
    static int *countOf(unsigned char *row) noexcept { return reinterpret_cast<int *>(row); }
    void ref() const noexcept
    {
        if (m_row)
            __atomic_fetch_add(countOf(m_row), 1, __ATOMIC_RELAXED);
    }
    void deref() noexcept
    {
        if (!m_row)
            return;
        unsigned char *row = m_row;
        m_row = nullptr;
        if (__atomic_sub_fetch(countOf(row), 1, __ATOMIC_ACQ_REL) == 0)
            freeRow(row);
    }
    // Frees a row whose last handle has let go, through its table.
    static void freeRow(unsigned char *row) noexcept;

    unsigned char *m_row = nullptr;
};

// A released record decrements the count at the start of its row: fetch that
// line for writing (the rows of a sorted index lie at random addresses).
inline void prefetchForRelease(const Record &record)
{
    __builtin_prefetch(record.row(), 1);
}

Q_DECLARE_METATYPE(Record)
Q_DECLARE_TYPEINFO(Record, Q_MOVABLE_TYPE);

#endif // DATABASE_RECORD_H
