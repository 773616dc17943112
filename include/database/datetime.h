#ifndef DATABASE_DATETIME_H
#define DATABASE_DATETIME_H

#include <database/database_global.h>

#include <QDateTime>
#include <QLocale>
#include <QMetaType>
#include <QString>

class QDataStream;
class QDebug;

// datetime: a point in time as one signed 64-bit count of milliseconds since
// 1970-01-01T00:00:00 UTC, held in place in a DateTime cell of a row.
//
// Invariants:
//  1. sizeof(datetime) == 8; the count is the whole state.
//  2. The count 0 means "no date" (null); it is never a real instant.
//  3. Ordering and equality are those of the counts.
//
// Text forms always show UTC wall-clock time, whatever the machine's time
// zone, so that a value prints the same on every desk and reads back as it
// was typed.
//
// Thread-safety: a value type.
class DATABASE_EXPORT datetime
{
public:
    constexpr datetime() noexcept = default;
    constexpr explicit datetime(qint64 msecsSinceEpoch) noexcept
        : m_msecs(msecsSinceEpoch)
    {
    }
    // The instant of `value`; an invalid QDateTime gives the null datetime.
    static datetime fromDateTime(const QDateTime &value);
    // The wall-clock date and time taken as UTC; an invalid date gives null.
    static datetime fromUtc(const QDate &date, const QTime &time = QTime(0, 0));
    // Reads the first of the formats "yyyy.MM.dd HH:mm:ss.zzz", "yyyy-MM-dd
    // HH:mm:ss", "yyyy.MM.dd", "yyyy-MM-dd" that matches, as UTC wall-clock time.
    // A text that matches none gives the null datetime (and *ok = false).
    static datetime fromText(const QString &text, bool *ok = nullptr);

    qint64 msecs() const noexcept { return m_msecs; }
    bool isNull() const noexcept { return m_msecs == 0; }
    // A UTC QDateTime; invalid for the null value.
    QDateTime toDateTime() const;

    // "yyyy.MM.dd HH:mm:ss.zzz".
    static const QString &defaultFormat();
    // The value in defaultFormat() as UTC wall-clock time; null for null.
    QString toString() const;
    // The value in the system locale: its date format of the given type, " ",
    // then "HH:mm:ss.zzz" (or "HH:mm:ss" without milliseconds). UTC wall-clock
    // time; null for null.
    QString toSystemString(bool withMilliseconds = true,
                           QLocale::FormatType dateFormat = QLocale::ShortFormat) const;
    // As toSystemString() for a given locale.
    QString toLocaleString(const QLocale &locale, bool withMilliseconds = true,
                           QLocale::FormatType dateFormat = QLocale::ShortFormat) const;

    bool operator==(const datetime &o) const noexcept { return m_msecs == o.m_msecs; }
    bool operator!=(const datetime &o) const noexcept { return m_msecs != o.m_msecs; }
    bool operator<(const datetime &o) const noexcept { return m_msecs < o.m_msecs; }
    bool operator<=(const datetime &o) const noexcept { return m_msecs <= o.m_msecs; }
    bool operator>(const datetime &o) const noexcept { return m_msecs > o.m_msecs; }
    bool operator>=(const datetime &o) const noexcept { return m_msecs >= o.m_msecs; }

private:
    qint64 m_msecs = 0;
};

static_assert(sizeof(datetime) == 8, "a datetime is one 64-bit count");

DATABASE_EXPORT QDataStream &operator<<(QDataStream &stream, const datetime &value);
DATABASE_EXPORT QDataStream &operator>>(QDataStream &stream, datetime &value);
DATABASE_EXPORT QDebug operator<<(QDebug debug, const datetime &value);

// boardlist: a fixed-capacity list of integer pairs (a board and a value on
// it), held in place in a BoardList cell of a row:
//
//   bytes 0..3    count, int32: the pairs in use
//   bytes 4..403  50 pairs of int32 (first, second), in insertion order
//
// Invariants of a list built through this interface:
//  1. 0 <= count <= Capacity; pairs past count are zero.
//  2. sizeof(boardlist) == 404.
// A list read from a row or a file may carry any count; every member treats a
// count below 0 as 0 and above Capacity as Capacity, so nothing reads or
// writes past the 50 pairs.
//
// Thread-safety: a value type.
class DATABASE_EXPORT boardlist
{
public:
    static constexpr int Capacity = 50;
    struct Pair
    {
        qint32 first;
        qint32 second;
    };

    boardlist() noexcept;

    // The pairs in use, bounded to 0..Capacity.
    int size() const noexcept;
    bool isEmpty() const noexcept { return size() == 0; }
    bool isFull() const noexcept { return size() == Capacity; }
    // REQUIRES: 0 <= i < size(); out of range gives {0, 0} with a warning.
    Pair at(int i) const;
    bool contains(qint32 first, qint32 second) const noexcept;
    // Appends a pair; false (and no change) when the list is full.
    bool add(qint32 first, qint32 second) noexcept;
    // Removes every pair and zeroes the storage.
    void clear() noexcept;

    // Groups by first number: "1:5 2:3,7" for (2,7), (1,5), (2,3). Groups and
    // the members of each group are sorted as text ("10" before "9"); an empty
    // list gives an empty string.
    QString toString() const;

    // Same pairs in the same order.
    bool operator==(const boardlist &o) const noexcept;
    bool operator!=(const boardlist &o) const noexcept { return !(*this == o); }

private:
    qint32 m_count;
    Pair m_pairs[Capacity];
};

static_assert(sizeof(boardlist) == 404, "a boardlist is a count and 50 pairs");

DATABASE_EXPORT QDebug operator<<(QDebug debug, const boardlist &value);

Q_DECLARE_METATYPE(datetime)
Q_DECLARE_TYPEINFO(datetime, Q_PRIMITIVE_TYPE);

#endif // DATABASE_DATETIME_H
