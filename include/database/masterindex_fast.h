#ifndef DATABASE_MASTERINDEX_FAST_H
#define DATABASE_MASTERINDEX_FAST_H

#include <database/masterindex_column.h>

class MasterIndexFastPrivate;

// MasterIndex_Fast_Pure: the column key of MasterIndex_Column_Pure compared as
// one run of raw row bytes (memcmp of the key bytes of the two rows).
//
// The order is that of the stored bytes, not of the values: little-endian
// integers, for instance, do not sort numerically. The index serves identity
// and lookup by key, not a display order. Key text is as for the column key.
//
// The key columns must be adjacent and fixed in place; the constructors check,
// in key order, and throw Exception:
//  - "Type '%1' unsuported for %2": a type other than Integer, Integer64,
//    Decimal, VarChar or DateTime (type name, column name);
//  - "Columns can't be nullable %1": a nullable column (column name);
//  - "Columns must be sequenced: %1(%3) / %2": a column that does not directly
//    follow the previous key column (its position, the position expected, its
//    name).
// The key bytes start at the first key column's cell and span each key cell
// rounded up to 8 bytes.
class DATABASE_EXPORT MasterIndex_Fast_Pure : public MasterIndex_Column_Pure
{
public:
    MasterIndex_Fast_Pure(Table *table, const QStringList &columns);
    MasterIndex_Fast_Pure(Table *table, const QList<int> &columns);
    ~MasterIndex_Fast_Pure() override;

    int compare(const Record &a, const Record &b) const override;

    // Offset of the key within the row block (header included) and its length.
    qint64 keyOffset() const;
    qint64 keyLength() const;

private:
    Q_DISABLE_COPY(MasterIndex_Fast_Pure)
    void setup();
    const QScopedPointer<MasterIndexFastPrivate> d;
};

#endif // DATABASE_MASTERINDEX_FAST_H
