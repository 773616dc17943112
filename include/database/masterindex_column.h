#ifndef DATABASE_MASTERINDEX_COLUMN_H
#define DATABASE_MASTERINDEX_COLUMN_H

#include <database/masterindex_struct.h>

// MasterIndex_Column_Pure: a primary key made of columns, compared column by
// column by value.
//
// Ordering (compare): the first key column that differs decides. A null cell
// sorts before a non-null one and two nulls are equal. Non-null cells compare
// by type: Integer as signed 32-bit, Integer64 and DateTime as signed 64-bit,
// Double as a floating-point number, Decimal by decimal::compare, VarChar by
// case-sensitive comparison of the texts (UTF-16 units). Cells of any other
// type are equal. The result is -1, 0 or 1; 0 for an empty key.
//
// Key text: the texts of the key cells (Field::toString) joined by "," without
// spaces. If any key cell's text is empty the whole text is empty: such a key
// cannot be written, only matched by a search key made otherwise.
//
// Reading a key text (fromText): the text is split at every ",", empty parts
// kept. The number of parts must equal the number of key columns, otherwise a
// bare QString "Master index can't restore from text. Incorrect columns
// numbers: %1 != %2" is thrown (parts, columns). Each part is converted by its
// column's type into a fresh record of the table:
//  - Integer, Integer64, Double: base-10 integers and floating-point numbers;
//  - Decimal: the decimal text grammar;
//  - VarChar: the text, cut to the column's length;
//  - DateTime: the first of "yyyy.MM.dd HH:mm:ss.zzz", "yyyy-MM-dd HH:mm:ss",
//    "yyyy.MM.dd", "yyyy-MM-dd" that parses, read as UTC wall-clock time.
// A part that does not convert throws Exception "Can't convert from '%1'' to
// %2" (the part, the type name). A key column of a type without a text form
// (BoardList) throws Field's type-mismatch Exception. An empty part leaves its
// cell as a fresh row has it: null for a nullable column, a present zero value
// otherwise. A key text never names a value with a comma inside.
//
// Construction: key columns by name or by position; a column that does not
// exist throws Exception "Column '%1' not found to create index." (the name,
// or the position as a number). The columns are not owned; the index must not
// outlive its table.
class DATABASE_EXPORT MasterIndex_Column_Pure : public MasterIndex
{
public:
    MasterIndex_Column_Pure(Table *table, const QString &column);
    MasterIndex_Column_Pure(Table *table, const QStringList &columns);
    MasterIndex_Column_Pure(Table *table, const QList<int> &columns);
    ~MasterIndex_Column_Pure() override;

    int compare(const Record &a, const Record &b) const override;
    QString toText(const Record &record) const override;
    Record fromText(const QString &text) const override;

private:
    Q_DISABLE_COPY(MasterIndex_Column_Pure)
};

#endif // DATABASE_MASTERINDEX_COLUMN_H
