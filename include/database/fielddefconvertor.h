#ifndef DATABASE_FIELDDEFCONVERTOR_H
#define DATABASE_FIELDDEFCONVERTOR_H

#include <database/field.h>

// FieldDefConvertor: fills one column of a row from one column of another
// row, possibly of another type. Table files use it to bring rows stored with
// an older column layout into the table's current one (TableIO::read).
//
// A convertor is bound to a source column (of the scratch table that mirrors
// the file) and a target column (of the loaded table); convert() is then
// called once per row with Fields over those two columns.
//
// Conversion table (rows: source type, columns: target type). "copy" is a
// plain byte copy of the cell; every other entry converts the value. A null
// source always gives a null target (cell zeroed, presence bit cleared).
//
//   from \ to  Integer  Integer64  Double  Decimal  VarChar  DateTime  BoardList
//   Integer    copy     exact      exact   exact    text     refused   refused
//   Integer64  range    copy       nearest range    text     msecs     refused
//   Double     integral integral   copy    shortest text     refused   refused
//   Decimal    integral integral   nearest copy     text     refused   refused
//   VarChar    parse    parse      parse   parse    text/cp  parse     refused
//   DateTime   refused  msecs      refused refused  text     copy      refused
//   BoardList  refused  refused    refused refused  refused  refused   copy
//
//   copy      same type and cell size: the cell's bytes are copied and the
//             presence bit is set exactly when the source's is (so a Decimal
//             whose declared length changed is still a copy, and a VarChar of
//             the same length is one);
//   text/cp   VarChar to VarChar of another length goes through the text, cut
//             to the target's length;
//   exact     every value is represented exactly;
//   nearest   the nearest double (Integer64 beyond 2^53, Decimal fractions);
//   range     exact when the value fits the target (Integer's 32 bits, a
//             Decimal's mantissa below 2^56), otherwise null;
//   integral  exact when the value is a whole number that fits the target,
//             otherwise null (no silent rounding of prices into integers);
//   shortest  the shortest decimal text that reads back as the same double,
//             parsed as a decimal (0.1 becomes 0.1, not 0.1000000000000000055);
//             NaN, infinities and values beyond the mantissa give null;
//   text      the source's text form (Field::toString), cut to the target's
//             length;
//   parse     the text parsed as the target type reads text (base-10
//             integers, doubles, the decimal grammar, the date-time formats of
//             Field's assignment from text); an empty text gives null, and so
//             does one that does not parse;
//   msecs     a DateTime is its count of milliseconds since the epoch;
//   refused   create() throws Exception: "Can't convert double to datetime.",
//             "Can't convert from decimal to datetime.", otherwise Field's
//             "Can't convert from %1 to %2" with the two type names.
//
// A value that a "range", "integral", "shortest" or "parse" entry cannot
// represent (an empty text excepted) leaves the target null and is counted
// (failures()); the loader logs the count, so nothing is lost without a word.
//
// Ownership: a convertor does not own its column definitions; they must
// outlive it. Threads: a convertor is used by one thread at a time (it counts
// failures).
class DATABASE_EXPORT FieldDefConvertor
{
public:
    FieldDefConvertor(const TableColumnDef *source, const TableColumnDef *target);
    virtual ~FieldDefConvertor();

    const TableColumnDef *source() const { return m_source; }
    const TableColumnDef *target() const { return m_target; }
    // Rebinds to other columns (used when a caller's convertor is cloned for
    // a load). REQUIRES: the new columns have the types the convertor handles.
    void bind(const TableColumnDef *source, const TableColumnDef *target);

    // Fills `target` from `source`. REQUIRES: both view the bound columns.
    virtual void convert(Field &target, const Field &source) = 0;
    // A new convertor of the same kind and binding; the caller owns it.
    virtual FieldDefConvertor *clone() const = 0;

    // Values that could not be represented in the target and were left null.
    int failures() const { return m_failures; }

    // The convertor that the conversion table above gives for the two columns.
    // Throws Exception for a refused pair. The caller owns the result.
    static FieldDefConvertor *create(const TableColumnDef *source, const TableColumnDef *target);
    // Whether create() accepts a pair of these types (without throwing).
    static bool canConvert(int sourceType, int targetType);

protected:
    void countFailure() { ++m_failures; }

private:
    const TableColumnDef *m_source;
    const TableColumnDef *m_target;
    int m_failures = 0;
};

// Byte copy of a 4-byte cell and its presence bit.
class DATABASE_EXPORT FieldDefConvertor_Copy4 : public FieldDefConvertor
{
public:
    using FieldDefConvertor::FieldDefConvertor;
    void convert(Field &target, const Field &source) override;
    FieldDefConvertor *clone() const override;
};

// Byte copy of an 8-byte cell and its presence bit.
class DATABASE_EXPORT FieldDefConvertor_Copy8 : public FieldDefConvertor
{
public:
    using FieldDefConvertor::FieldDefConvertor;
    void convert(Field &target, const Field &source) override;
    FieldDefConvertor *clone() const override;
};

// Byte copy of a cell of the size it stores (taken from the target column at
// construction) and its presence bit.
class DATABASE_EXPORT FieldDefConvertor_CopySized : public FieldDefConvertor
{
public:
    FieldDefConvertor_CopySized(const TableColumnDef *source, const TableColumnDef *target);
    void convert(Field &target, const Field &source) override;
    FieldDefConvertor *clone() const override;
    qint64 size() const { return m_size; }

private:
    qint64 m_size;
};

// Conversion of a value between two types by the conversion table above.
class DATABASE_EXPORT FieldDefConvertor_Value : public FieldDefConvertor
{
public:
    // Throws Exception for a pair that the table refuses.
    FieldDefConvertor_Value(const TableColumnDef *source, const TableColumnDef *target);
    void convert(Field &target, const Field &source) override;
    FieldDefConvertor *clone() const override;

private:
    // Returns false when the value cannot be represented in the target.
    typedef bool (*Function)(Field &target, const Field &source);
    Function m_function;
};

#endif // DATABASE_FIELDDEFCONVERTOR_H
