#include "celltext.h"

#include <database/exception.h>
#include <database/fieldtype.h>

#include <QDateTime>
#include <QLocale>
#include <QRegularExpression>

#include <cmath>

namespace dbtool {

QString cellText(const Field &field)
{
    if (field.isNull())
        return QString();
    if (field.type() == FieldType::Double)
        return QString::number(field.get<double>(), 'g', QLocale::FloatingPointShortest);
    if (field.type() != FieldType::BoardList)
        return field.toString();
    const boardlist list = field.get<boardlist>();
    QStringList pairs;
    for (int i = 0; i < list.size(); ++i)
        pairs << QStringLiteral("%1:%2").arg(list.at(i).first).arg(list.at(i).second);
    return pairs.join(QLatin1Char(' '));
}

namespace {

bool readBoardList(const QString &text, boardlist &list)
{
    list.clear();
    for (const QString &pair : text.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        const int colon = pair.indexOf(QLatin1Char(':'));
        bool firstOk = false;
        bool secondOk = false;
        const qint32 first = pair.left(colon).toInt(&firstOk);
        const qint32 second = pair.mid(colon + 1).toInt(&secondOk);
        if (colon < 0 || !firstOk || !secondOk || !list.add(first, second))
            return false;
    }
    return true;
}

// A date, "yyyy.MM.dd" or "yyyy-MM-dd", and an optional time, "HH:mm:ss.zzz"
// or "HH:mm:ss", read as UTC wall-clock time (no local time zone involved).
bool readDateTime(const QString &text, qint64 &msecs)
{
    const QStringList parts = text.split(QLatin1Char(' '));
    if (parts.size() > 2)
        return false;
    QDate date = QDate::fromString(parts.at(0), QStringLiteral("yyyy.MM.dd"));
    if (!date.isValid())
        date = QDate::fromString(parts.at(0), QStringLiteral("yyyy-MM-dd"));
    QTime time(0, 0);
    if (parts.size() == 2) {
        time = QTime::fromString(parts.at(1), QStringLiteral("HH:mm:ss.zzz"));
        if (!time.isValid())
            time = QTime::fromString(parts.at(1), QStringLiteral("HH:mm:ss"));
    }
    if (!date.isValid() || !time.isValid())
        return false;
    msecs = QDateTime(date, time, Qt::UTC).toMSecsSinceEpoch();
    return true;
}

} // namespace

bool setCellText(Field &field, const QString &text, QString &error)
{
    if (text.isNull() || (text.isEmpty() && field.type() != FieldType::VarChar)) {
        if (!field.def->nullable && field.type() == FieldType::DateTime) {
            field.set<qint64>(0); // "no date", which has no text
            return true;
        }
        if (!field.def->nullable) {
            error = QStringLiteral("no value, and the column is not nullable");
            return false;
        }
        std::memset(field.data, 0, std::size_t(field.def->size));
        field.setPresent(false);
        return true;
    }
    bool ok = true;
    switch (field.type()) {
    case FieldType::Integer: {
        const qint32 value = text.toInt(&ok);
        if (ok)
            field.set<qint32>(value);
        break;
    }
    case FieldType::Integer64:
    case FieldType::DateTime: {
        qint64 value = 0;
        if (field.type() == FieldType::Integer64)
            value = text.toLongLong(&ok);
        else
            ok = readDateTime(text, value);
        if (ok)
            field.set<qint64>(value);
        break;
    }
    case FieldType::Double: {
        const double value = text.toDouble(&ok);
        if (ok)
            field.set<double>(value);
        break;
    }
    case FieldType::Decimal:
        try {
            field.set<decimal>(decimal::fromString(text));
        } catch (...) {
            ok = false;
        }
        break;
    case FieldType::VarChar:
        // A cell's text ends at its first zero unit: one inside would cut it.
        if (text.contains(QChar(0))) {
            error = QStringLiteral("a text with a zero character");
            return false;
        }
        if (text.size() > field.def->length) {
            error = QStringLiteral("'%1' is longer than the column's %2 characters")
                        .arg(text)
                        .arg(field.def->length);
            return false;
        }
        FieldType::setString(field.data, field.def->length, text);
        field.setPresent(true);
        break;
    case FieldType::BoardList: {
        boardlist list;
        ok = readBoardList(text, list);
        if (ok)
            field.set<boardlist>(list);
        break;
    }
    default:
        ok = false;
    }
    if (!ok)
        error = QStringLiteral("'%1' is not a valid %2")
                    .arg(text, QLatin1String(FieldType::typeName(field.type())));
    return ok;
}

int compareCells(const Field &a, const Field &b)
{
    const bool aNull = a.isNull();
    const bool bNull = b.isNull();
    if (aNull || bNull)
        return aNull == bNull ? 0 : (aNull ? -1 : 1);
    auto order = [](auto x, auto y) { return x < y ? -1 : (y < x ? 1 : 0); };
    switch (a.type()) {
    case FieldType::Integer:
        return order(a.get<qint32>(), b.get<qint32>());
    case FieldType::Integer64:
    case FieldType::DateTime:
        return order(a.get<qint64>(), b.get<qint64>());
    case FieldType::Double: {
        const double x = a.get<double>();
        const double y = b.get<double>();
        if (std::isnan(x) || std::isnan(y))
            return int(std::isnan(x)) - int(std::isnan(y));
        return order(x, y);
    }
    case FieldType::Decimal: {
        const int c = a.get<decimal>().compare(b.get<decimal>());
        return c < 0 ? -1 : (c > 0 ? 1 : 0);
    }
    default:
        return order(cellText(a), cellText(b));
    }
}

QString csvField(const QString &text)
{
    if (text.isNull())
        return QString();
    const bool quote = text.isEmpty() || text.startsWith(QLatin1Char(' '))
        || text.endsWith(QLatin1Char(' ')) || text.contains(QLatin1Char(','))
        || text.contains(QLatin1Char('"')) || text.contains(QLatin1Char('\n'))
        || text.contains(QLatin1Char('\r'));
    if (!quote)
        return text;
    QString quoted = text;
    quoted.replace(QLatin1Char('"'), QLatin1String("\"\""));
    return QLatin1Char('"') + quoted + QLatin1Char('"');
}

QString tsvField(const QString &text)
{
    QString escaped;
    escaped.reserve(text.size());
    for (const QChar c : text) {
        switch (c.unicode()) {
        case '\\':
            escaped += QLatin1String("\\\\");
            break;
        case '\t':
            escaped += QLatin1String("\\t");
            break;
        case '\n':
            escaped += QLatin1String("\\n");
            break;
        case '\r':
            escaped += QLatin1String("\\r");
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

QString jsonString(const QString &text)
{
    QString json = QStringLiteral("\"");
    for (const QChar c : text) {
        const ushort u = c.unicode();
        if (u == '"' || u == '\\')
            json += QLatin1Char('\\') + c;
        else if (u == '\n')
            json += QLatin1String("\\n");
        else if (u == '\r')
            json += QLatin1String("\\r");
        else if (u == '\t')
            json += QLatin1String("\\t");
        else if (u < 0x20)
            json += QStringLiteral("\\u%1").arg(u, 4, 16, QLatin1Char('0'));
        else
            json += c;
    }
    return json + QLatin1Char('"');
}

QString jsonCell(const Field &field)
{
    if (field.isNull())
        return QStringLiteral("null");
    switch (field.type()) {
    case FieldType::Integer:
    case FieldType::Integer64:
        return field.toString();
    case FieldType::Double:
        return std::isfinite(field.get<double>()) ? cellText(field) : jsonString(cellText(field));
    case FieldType::BoardList: {
        const boardlist list = field.get<boardlist>();
        QStringList pairs;
        for (int i = 0; i < list.size(); ++i)
            pairs << QStringLiteral("[%1,%2]").arg(list.at(i).first).arg(list.at(i).second);
        return QLatin1Char('[') + pairs.join(QLatin1Char(',')) + QLatin1Char(']');
    }
    default:
        return jsonString(field.toString());
    }
}

// --- CsvReader ------------------------------------------------------------------------------

CsvReader::CsvReader(QTextStream &in)
    : m_in(in)
{
}

bool CsvReader::nextChar(QChar &c)
{
    if (m_pos >= m_buffer.size()) {
        m_buffer = m_in.read(1 << 16);
        m_pos = 0;
        if (m_buffer.isEmpty())
            return false;
        if (m_charsRead == 0 && m_buffer.at(0) == QChar(0xFEFF))
            m_pos = 1;
        if (m_pos >= m_buffer.size())
            return nextChar(c);
    }
    c = m_buffer.at(m_pos++);
    ++m_charsRead;
    return true;
}

bool CsvReader::readRecord(QVector<CsvField> &fields)
{
    fields.clear();
    if (m_end || !m_error.isEmpty())
        return false;
    m_recordLine = m_line;
    QChar c;
    if (!nextChar(c)) {
        m_end = true;
        return false;
    }
    putBack();
    CsvField field;
    enum { FieldStart, Plain, Quoted, QuoteInQuoted } state = FieldStart;
    auto fail = [this](const QString &message) {
        m_error = message;
        return false;
    };
    while (true) {
        const bool have = nextChar(c);
        if (have && c == QLatin1Char('\n'))
            ++m_line;
        if (field.text.size() > MaxFieldLength)
            return fail(QStringLiteral("a field longer than %1 characters").arg(MaxFieldLength));
        if (state == Quoted) {
            if (!have)
                return fail(QStringLiteral("a quoted field is not closed"));
            if (c == QLatin1Char('"'))
                state = QuoteInQuoted;
            else
                field.text += c;
            continue;
        }
        if (state == QuoteInQuoted && have && c == QLatin1Char('"')) {
            field.text += c;
            state = Quoted;
            continue;
        }
        const bool endOfRecord = !have || c == QLatin1Char('\n') || c == QLatin1Char('\r');
        if (endOfRecord || c == QLatin1Char(',')) {
            fields.append(field);
            if (fields.size() > MaxFields)
                return fail(QStringLiteral("more than %1 fields").arg(MaxFields));
            field = CsvField();
            state = FieldStart;
            if (!endOfRecord)
                continue;
            if (have && c == QLatin1Char('\r')) {
                QChar next;
                if (nextChar(next)) {
                    if (next == QLatin1Char('\n'))
                        ++m_line;
                    else
                        putBack();
                }
            }
            return true;
        }
        if (state == QuoteInQuoted)
            return fail(QStringLiteral("text after the closing quote of a field"));
        if (c == QLatin1Char('"')) {
            if (state != FieldStart)
                return fail(QStringLiteral("a quote inside an unquoted field"));
            field.quoted = true;
            state = Quoted;
            continue;
        }
        field.text += c;
        state = Plain;
    }
}

} // namespace dbtool
