#ifndef DBTOOL_CELLTEXT_H
#define DBTOOL_CELLTEXT_H

// Cells as text, and the text formats of rows: CSV, TSV, JSON lines.
//
// Text of a cell (cellText) is what export writes and import reads back to
// the same cell: Field::toString() for every type but these: Double in its
// shortest exact form, BoardList as its pairs in stored order, "first:second"
// joined by spaces ("1:5 2:3"). A null cell has no text (a null QString).
//
// CSV (RFC 4180): fields separated by ",", records by "\n" ("\r\n" is read
// too); a field holding ",", '"', CR or LF, or starting or ending with a
// space, is quoted with '"' doubled inside. Null and empty text differ: a null
// cell is an empty unquoted field, an empty text is "". The first record
// names the columns.
//
// Reading CSV is bounded: a field longer than CsvReader::MaxFieldLength or a
// record of more than MaxFields fields is an error, never unbounded memory.

#include <database/field.h>

#include <QString>
#include <QStringList>
#include <QTextStream>
#include <QVector>

namespace dbtool {

QString cellText(const Field &field);
// Reads `text` into the cell by its column's type; a null `text` makes the
// cell null, and so does an empty text for any type but VarChar (a DateTime
// that may not be null takes "no date", the zero that has no text). Refuses
// (false, with `error`) what does not read back exactly: unreadable numbers
// and dates, a text longer than the VarChar's length or holding a zero
// character, a malformed board list.
bool setCellText(Field &field, const QString &text, QString &error);

// Orders two cells of the same type: null first, then by value (VarChar and
// BoardList by their text; NaN after every other double).
int compareCells(const Field &a, const Field &b);

QString csvField(const QString &text);
// TSV: a null cell is empty; backslash, tab, CR and LF are escaped as \\, \t,
// \r and \n.
QString tsvField(const QString &text);
// JSON: numbers as numbers (Double's NaN and infinities as strings), texts,
// dates and decimals as strings, board lists as arrays of pairs, null as null.
QString jsonCell(const Field &field);
QString jsonString(const QString &text);

struct CsvField
{
    QString text;
    bool quoted = false;
    // The cell's text: null for an empty unquoted field.
    QString cell() const
    {
        if (!text.isEmpty())
            return text;
        return quoted ? QString(QLatin1String("")) : QString();
    }
};

class CsvReader
{
public:
    static const int MaxFieldLength = 1 << 20;
    static const int MaxFields = 4096;

    explicit CsvReader(QTextStream &in);
    // Reads the next record. False at the end of the input (atEnd()) or on an
    // error (error() not empty; the reader stops there).
    bool readRecord(QVector<CsvField> &fields);
    bool atEnd() const { return m_end; }
    QString error() const { return m_error; }
    // The line on which the last record read (or the error) starts.
    int recordLine() const { return m_recordLine; }
    qint64 charsRead() const { return m_charsRead; }

private:
    bool nextChar(QChar &c);
    void putBack()
    {
        --m_pos;
        --m_charsRead;
    }

    QTextStream &m_in;
    QString m_buffer;
    int m_pos = 0;
    int m_line = 1;
    int m_recordLine = 1;
    qint64 m_charsRead = 0;
    bool m_end = false;
    QString m_error;
};

} // namespace dbtool

#endif // DBTOOL_CELLTEXT_H
