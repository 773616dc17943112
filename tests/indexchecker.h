#ifndef TESTS_INDEXCHECKER_H
#define TESTS_INDEXCHECKER_H

// Invariant checker shared by the index, transaction and table-file tests:
// every live index agrees with the table's rows. An empty result means that
// everything holds; otherwise the text names the first disagreement.

#include <database/indexsort.h>
#include <database/masterindex.h>
#include <database/table.h>

#include <QString>

#include <algorithm>
#include <vector>

namespace IndexChecker {

inline std::vector<Record> rowsOf(const IndexIterative *index)
{
    return std::vector<Record>(index->begin(), index->end());
}

// The master index and every list index registered with the table: each holds
// the master's rows that pass its filter (as a multiset of row blocks), a
// sorted one in compare() order, and indexOf() finds every seventh row where it
// stands.
inline QString check(const Table *table)
{
    const MasterIndex *master = table->masterIndex();
    if (!master || master->count() != table->rowCount())
        return QStringLiteral("no master index, or rowCount() disagrees with it");
    QList<const IndexList *> lists = { master };
    for (Index *index : table->indexes()) {
        if (const auto *list = dynamic_cast<const IndexList *>(index))
            lists << list;
    }
    for (const IndexList *index : lists) {
        const QString name = QString::fromLatin1(index->getClassName()) + QStringLiteral(": ");
        const std::vector<Record> rows = rowsOf(index);
        std::vector<quintptr> expected, held;
        for (const Record &row : *master) {
            if (index->filter(row))
                expected.push_back(quintptr(row.row()));
        }
        for (const Record &row : rows)
            held.push_back(quintptr(row.row()));
        std::sort(expected.begin(), expected.end());
        std::sort(held.begin(), held.end());
        if (expected != held)
            return name + QStringLiteral("holds other rows than those that pass its filter");
        const auto *sorted = dynamic_cast<const IndexSort *>(index);
        for (size_t i = 0; i < rows.size(); ++i) {
            if (sorted && i > 0 && sorted->compare(rows[i - 1], rows[i]) > 0)
                return name + QStringLiteral("out of order at %1").arg(i);
            if (i % 7 == 0 && index->indexOf(rows[i]) != int(i))
                return name + QStringLiteral("indexOf() misses position %1").arg(i);
        }
    }
    return QString();
}

} // namespace IndexChecker

#define QVERIFY_INDEXES(table)                                                                     \
    do {                                                                                           \
        const QString indexError = IndexChecker::check(table);                                     \
        QVERIFY2(indexError.isEmpty(), qPrintable(indexError));                                    \
    } while (false)

#endif // TESTS_INDEXCHECKER_H
