#ifndef TESTS_TESTINDEXES_H
#define TESTS_TESTINDEXES_H

// A small quote table and a sorted index over its columns, shared by the
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

// Ordered like a column key over the given columns (nulls first), optionally
// filtered.
class ColumnSort : public IndexSort
{
public:
    using Filter = std::function<bool(const Record &)>;
    ColumnSort(Table *table, const QList<int> &columns, bool registered, Filter filter = {})
        : IndexSort(table, registered)
        , m_key(table, columns)
        , m_filter(std::move(filter))
    {
    }
    int compare(const Record &a, const Record &b) const override { return m_key.compare(a, b); }
    bool filter(const Record &record) const override { return !m_filter || m_filter(record); }

private:
    MasterIndex_Column_Pure m_key;
    Filter m_filter;
};

// Collects the warnings written while it lives, as "file:line|function|text".
struct WarningLog
{
    WarningLog() { messages.clear(); }
    ~WarningLog() { qInstallMessageHandler(previous); }
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        if (type == QtWarningMsg)
            messages << QString::asprintf("%s:%d|%s|", context.file, context.line, context.function)
                    + text;
    }
    static inline QStringList messages;
    const QtMessageHandler previous = qInstallMessageHandler(handle);
};

inline const QString fullSearchWarning
    = QStringLiteral("indexsort:230|virtual void IndexSort::update(const Record&, int, int, int)|"
                     "update Full search can impact the performance");

} // namespace TestIndexes

#endif // TESTS_TESTINDEXES_H
