#include <database/datetime.h>

#include <QDataStream>
#include <QDebug>
#include <QMap>
#include <QStringList>

#include <algorithm>
#include <cstring>

datetime datetime::fromDateTime(const QDateTime &value)
{
    return value.isValid() ? datetime(value.toMSecsSinceEpoch()) : datetime();
}

datetime datetime::fromUtc(const QDate &date, const QTime &time)
{
    if (!date.isValid() || !time.isValid())
        return datetime();
    return datetime(QDateTime(date, time, Qt::UTC).toMSecsSinceEpoch());
}

datetime datetime::fromText(const QString &text, bool *ok)
{
    // Date and time are read apart and joined as UTC: reading them as one local
    // date-time would depend on the machine's zone and fail in its DST gaps.
    struct Format
    {
        const char *date;
        const char *time;
    };
    static const Format formats[] = { { "yyyy.MM.dd", "HH:mm:ss.zzz" },
                                      { "yyyy-MM-dd", "HH:mm:ss" },
                                      { "yyyy.MM.dd", nullptr },
                                      { "yyyy-MM-dd", nullptr } };
    const int space = text.indexOf(QLatin1Char(' '));
    for (const Format &format : formats) {
        QDate date;
        QTime time(0, 0);
        if (format.time) {
            if (space < 0)
                continue;
            date = QDate::fromString(text.left(space), QLatin1String(format.date));
            time = QTime::fromString(text.mid(space + 1), QLatin1String(format.time));
        } else {
            date = QDate::fromString(text, QLatin1String(format.date));
        }
        if (date.isValid() && time.isValid()) {
            if (ok)
                *ok = true;
            return fromUtc(date, time);
        }
    }
    if (ok)
        *ok = false;
    return datetime();
}

QDateTime datetime::toDateTime() const
{
    return isNull() ? QDateTime() : QDateTime::fromMSecsSinceEpoch(m_msecs, Qt::UTC);
}

const QString &datetime::defaultFormat()
{
    static const QString format = QStringLiteral("yyyy.MM.dd HH:mm:ss.zzz");
    return format;
}

QString datetime::toString() const
{
    if (isNull())
        return QString();
    return toDateTime().toString(defaultFormat());
}

QString datetime::toSystemString(bool withMilliseconds, QLocale::FormatType dateFormat) const
{
    return toLocaleString(QLocale::system(), withMilliseconds, dateFormat);
}

QString datetime::toLocaleString(const QLocale &locale, bool withMilliseconds,
                                 QLocale::FormatType dateFormat) const
{
    if (isNull())
        return QString();
    const QString format = locale.dateFormat(dateFormat) + QLatin1Char(' ')
        + (withMilliseconds ? QLatin1String("HH:mm:ss.zzz") : QLatin1String("HH:mm:ss"));
    return locale.toString(toDateTime(), format);
}

QDataStream &operator<<(QDataStream &stream, const datetime &value)
{
    return stream << qint64(value.msecs());
}

QDataStream &operator>>(QDataStream &stream, datetime &value)
{
    qint64 msecs = 0;
    stream >> msecs;
    value = datetime(msecs);
    return stream;
}

QDebug operator<<(QDebug debug, const datetime &value)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << "datetime(" << (value.isNull() ? QStringLiteral("null") : value.toString())
                    << ')';
    return debug;
}

boardlist::boardlist() noexcept
{
    clear();
}

int boardlist::size() const noexcept
{
    return qBound(0, int(m_count), Capacity);
}

boardlist::Pair boardlist::at(int i) const
{
    if (i < 0 || i >= size()) {
        qWarning("boardlist::at: index %d out of range 0..%d", i, size() - 1);
        return Pair { 0, 0 };
    }
    return m_pairs[i];
}

bool boardlist::contains(qint32 first, qint32 second) const noexcept
{
    const int n = size();
    for (int i = 0; i < n; ++i) {
        if (m_pairs[i].first == first && m_pairs[i].second == second)
            return true;
    }
    return false;
}

bool boardlist::add(qint32 first, qint32 second) noexcept
{
    const int n = size();
    if (n >= Capacity)
        return false;
    m_pairs[n] = Pair { first, second };
    m_count = n + 1;
    return true;
}

void boardlist::clear() noexcept
{
    std::memset(static_cast<void *>(this), 0, sizeof(*this));
}

QString boardlist::toString() const
{
    QMap<QString, QStringList> groups;
    const int n = size();
    for (int i = 0; i < n; ++i)
        groups[QString::number(m_pairs[i].first)].append(QString::number(m_pairs[i].second));
    QStringList texts;
    texts.reserve(groups.size());
    for (auto it = groups.begin(); it != groups.end(); ++it) {
        QStringList members = it.value();
        std::sort(members.begin(), members.end());
        texts.append(it.key() + QLatin1Char(':') + members.join(QLatin1Char(',')));
    }
    std::sort(texts.begin(), texts.end());
    return texts.join(QLatin1Char(' '));
}

bool boardlist::operator==(const boardlist &o) const noexcept
{
    const int n = size();
    if (n != o.size())
        return false;
    for (int i = 0; i < n; ++i) {
        if (m_pairs[i].first != o.m_pairs[i].first || m_pairs[i].second != o.m_pairs[i].second)
            return false;
    }
    return true;
}

QDebug operator<<(QDebug debug, const boardlist &value)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << "boardlist(" << value.toString() << ')';
    return debug;
}
