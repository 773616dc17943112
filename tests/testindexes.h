#ifndef TESTS_TESTINDEXES_H
#define TESTS_TESTINDEXES_H

// A small quote table and a configurable sorted index over it, shared by the
// index tests.

#include <database/indexsort.h>
#include <database/masterindex.h>
#include <database/table.h>

#include <QStringList>

#include <functional>

namespace TestIndexes {

enum Column { Id, Group, Name, Quantity };

// id Integer (not null), grp Integer (nullable), name VarChar(8), qty Double.
inline void addQuoteColumns(Table &table)
{
    table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
    table.addColumn(QStringLiteral("grp"), FieldType::Integer);
    table.addColumn(QStringLiteral("name"), FieldType::VarChar, 8);
    table.addColumn(QStringLiteral("qty"), FieldType::Double);
}

// A fresh, unattached row. A negative group leaves grp null.
inline Record makeRow(const Table &table, int id, int group = 0, const QString &name = QString(),
                      double quantity = 0)
{
    Record row(&table);
    row.data(Id).set<qint32>(id);
    if (group >= 0)
        row.data(Group).set<qint32>(group);
    row.data(Name) = name;
    row.data(Quantity).set<double>(quantity);
    return row;
}

inline int idOf(const Record &row)
{
    return row.data(Id).get<qint32>();
}

// Sorted by the given integer/string/double columns, nulls first; an optional
// filter.
class ColumnSort : public IndexSort
{
public:
    using Filter = std::function<bool(const Record &)>;
    ColumnSort(Table *table, const QList<int> &columns, bool registered, Filter filter = {})
        : IndexSort(table, registered)
        , m_columns(columns)
        , m_filter(std::move(filter))
    {
    }
    int compare(const Record &a, const Record &b) const override
    {
        for (int column : m_columns) {
            const Field fa = a.data(column);
            const Field fb = b.data(column);
            if (fa.isNull() != fb.isNull())
                return fa.isNull() ? -1 : 1;
            if (fa.isNull())
                continue;
            int c = 0;
            switch (fa.type()) {
            case FieldType::Integer:
                c = order(fa.get<qint32>(), fb.get<qint32>());
                break;
            case FieldType::Double:
                c = order(fa.get<double>(), fb.get<double>());
                break;
            default:
                c = fa.toString().compare(fb.toString());
                c = c < 0 ? -1 : (c > 0 ? 1 : 0);
            }
            if (c != 0)
                return c;
        }
        return 0;
    }
    bool filter(const Record &record) const override { return !m_filter || m_filter(record); }

private:
    template <typename T> static int order(T a, T b) { return a < b ? -1 : (b < a ? 1 : 0); }
    QList<int> m_columns;
    Filter m_filter;
};

// Collects the warnings written while it lives ("file:line|function|text"),
// instead of printing them.
class WarningLog
{
public:
    WarningLog()
        : m_previous(qInstallMessageHandler(&WarningLog::handle))
    {
        current() = this;
    }
    ~WarningLog()
    {
        qInstallMessageHandler(m_previous);
        current() = nullptr;
    }
    QStringList messages;

private:
    static WarningLog *&current()
    {
        static WarningLog *log = nullptr;
        return log;
    }
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        if (type == QtWarningMsg && current())
            current()->messages << QStringLiteral("%1:%2|%3|%4")
                                       .arg(QString::fromLatin1(context.file))
                                       .arg(context.line)
                                       .arg(QString::fromLatin1(context.function), text);
    }
    QtMessageHandler m_previous;
};

inline const QString fullSearchWarning()
{
    return QStringLiteral("indexsort:230|virtual void IndexSort::update(const Record&, int, int, "
                          "int)|update Full search can impact the performance");
}

} // namespace TestIndexes

#endif // TESTS_TESTINDEXES_H
