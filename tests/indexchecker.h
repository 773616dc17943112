#ifndef TESTS_INDEXCHECKER_H
#define TESTS_INDEXCHECKER_H

// Invariant checker shared by the index, transaction and table-file tests:
// "every live index agrees with the table's rows".
//
//   QVERIFY_INDEXES(table);            // the whole table
//   QString error = IndexChecker::sameOrder(index, expected);
//
// An empty result means that everything holds; otherwise the text names the
// first disagreement.

#include <database/indexsort.h>
#include <database/masterindex.h>
#include <database/table.h>

#include <QHash>
#include <QString>
#include <QStringList>

#include <vector>

namespace IndexChecker {

inline QString describe(const Record &record)
{
    return record.isNull() ? QStringLiteral("null") : record.dump();
}

// The rows of an iterative index, walked from begin() to end().
inline std::vector<Record> rowsOf(const IndexIterative *index)
{
    std::vector<Record> rows;
    rows.reserve(size_t(index->count()));
    for (auto it = index->begin(), end = index->end(); it != end; ++it)
        rows.push_back(*it);
    return rows;
}

// The index holds exactly `expected`, in that order (row identity).
inline QString sameOrder(const IndexIterative *index, const std::vector<Record> &expected)
{
    const std::vector<Record> rows = rowsOf(index);
    if (index->count() != int(rows.size()))
        return QStringLiteral("count() %1 but %2 rows walked").arg(index->count()).arg(rows.size());
    for (size_t i = 0; i < qMin(rows.size(), expected.size()); ++i) {
        if (rows[i] != expected[i])
            return QStringLiteral("position %1 holds %2, expected %3")
                .arg(i)
                .arg(describe(rows[i]), describe(expected[i]));
    }
    if (rows.size() != expected.size())
        return QStringLiteral("%1 rows, expected %2").arg(rows.size()).arg(expected.size());
    return QString();
}

// One list index against the master rows: the same rows as those that pass
// its filter (as a multiset of row blocks); a sorted index also in compare()
// order, and every `stride`-th row found where it stands by indexOf().
inline QString checkIndex(const IndexList *index, const std::vector<Record> &masterRows, int stride)
{
    const std::vector<Record> rows = rowsOf(index);
    const QString name = QString::fromLatin1(index->getClassName());
    if (index->count() != int(rows.size()))
        return name + QStringLiteral(": count() disagrees with the walk");
    QHash<const unsigned char *, int> balance;
    for (const Record &row : masterRows) {
        if (index->filter(row))
            ++balance[row.row()];
    }
    for (const Record &row : rows)
        --balance[row.row()];
    for (auto it = balance.cbegin(); it != balance.cend(); ++it) {
        if (it.value() != 0)
            return name
                + QStringLiteral(": a row is %1 (%2 times)")
                      .arg(it.value() > 0 ? QStringLiteral("missing") : QStringLiteral("extra"))
                      .arg(qAbs(it.value()));
    }
    const auto *sorted = dynamic_cast<const IndexSort *>(index);
    for (size_t i = 0; i < rows.size(); ++i) {
        if (sorted && i > 0 && sorted->compare(rows[i - 1], rows[i]) > 0)
            return name + QStringLiteral(": out of order at %1: %2").arg(i).arg(describe(rows[i]));
        if (stride > 0 && i % size_t(stride) == 0 && index->indexOf(rows[i]) != int(i))
            return name
                + QStringLiteral(": indexOf() of position %1 gives %2")
                      .arg(i)
                      .arg(index->indexOf(rows[i]));
    }
    return QString();
}

// The master index and every list index registered with the table.
inline QString check(const Table *table, int stride = 7)
{
    const MasterIndex *master = table->masterIndex();
    if (!master)
        return QStringLiteral("no master index");
    const std::vector<Record> masterRows = rowsOf(master);
    if (table->rowCount() != int(masterRows.size()))
        return QStringLiteral("rowCount() %1 but the master holds %2")
            .arg(table->rowCount())
            .arg(masterRows.size());
    QString error = checkIndex(master, masterRows, stride);
    for (Index *index : table->indexes()) {
        if (!error.isEmpty())
            break;
        if (const auto *list = dynamic_cast<const IndexList *>(index))
            error = checkIndex(list, masterRows, stride);
    }
    return error;
}

} // namespace IndexChecker

#define QVERIFY_INDEXES(table)                                                                     \
    do {                                                                                           \
        const QString indexError = IndexChecker::check(table);                                     \
        QVERIFY2(indexError.isEmpty(), qPrintable(indexError));                                    \
    } while (false)

#endif // TESTS_INDEXCHECKER_H
