// Model-based test of the index family: a table with a master index, three
// sorted indexes (one filtered) and a plain list goes through thousands of
// random appends, removals, updates, batches, moves and resorts (fixed seed).
// After every step each index must hold exactly the rows of its reference: a
// vector kept by std::stable_sort over the order in which rows (re)entered.

#include "indexchecker.h"
#include "testindexes.h"

#include <database/database.h>

#include <QtTest>

#include <algorithm>
#include <random>

using namespace TestIndexes;

namespace {

struct Reference
{
    IndexList *index;
    IndexSort *sorted; // null for the plain list: arrival order
    std::vector<Record> rows;

    std::vector<Record>::iterator find(const Record &row)
    {
        return std::find(rows.begin(), rows.end(), row);
    }
    void erase(const Record &row)
    {
        const auto it = find(row);
        if (it != rows.end())
            rows.erase(it);
    }
    // Enters after every equal key, as a stable sort of the arrival order.
    void enter(const Record &row)
    {
        if (!index->filter(row))
            return;
        if (sorted)
            rows.insert(
                std::upper_bound(rows.begin(), rows.end(), row, IndexSort::LessThan(sorted)), row);
        else
            rows.push_back(row);
    }
    // A single update: a row still in order between its neighbours stays.
    void update(const Record &row)
    {
        const auto it = find(row);
        if (sorted && it != rows.end() && index->filter(row)) {
            const bool afterPrevious = it == rows.begin() || sorted->compare(*(it - 1), row) <= 0;
            const bool beforeNext = it + 1 == rows.end() || sorted->compare(row, *(it + 1)) <= 0;
            if (afterPrevious && beforeNext)
                return;
        }
        erase(row);
        enter(row);
    }
    void batch(const QList<Record> &removed, const QList<Record> &updated,
               const QList<Record> &inserted)
    {
        for (const QList<Record> &list : { removed, updated })
            for (const Record &row : list)
                erase(row);
        for (const QList<Record> &list : { updated, inserted })
            for (const Record &row : list)
                if (index->filter(row))
                    rows.push_back(row);
        if (sorted)
            std::stable_sort(rows.begin(), rows.end(), IndexSort::LessThan(sorted));
    }
};

} // namespace

class tst_IndexModel : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void randomChanges();
};

void tst_IndexModel::randomChanges()
{
    Table table(QStringLiteral("model"));
    addQuoteColumns(table);
    table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("id")));
    ColumnSort byGroup(&table, { Group }, true);
    ColumnSort byNameQuantity(&table, { Name, Quantity }, true);
    ColumnSort positive(&table, { Quantity }, true,
                        [](const Record &row) { return row.data(Quantity).get<double>() > 0; });
    IndexList plain(&table, true);
    std::vector<Reference> references = { { table.masterIndex(), table.masterIndex(), {} },
                                          { &byGroup, &byGroup, {} },
                                          { &byNameQuantity, &byNameQuantity, {} },
                                          { &positive, &positive, {} },
                                          { &plain, nullptr, {} } };

    std::mt19937 random(20240611);
    const auto pick = [&](int n) { return int(random() % unsigned(n)); };
    int nextId = 0;
    const auto randomize = [&](const Record &row) {
        row.data(Group).set<qint32>(pick(10));
        if (pick(10) == 0)
            row.data(Group).setPresent(false);
        row.data(Name) = QStringLiteral("n%1").arg(pick(5));
        row.data(Quantity).set<double>(pick(5) * 0.5 - 0.5);
    };
    const auto fresh = [&] {
        const Record row = makeRow(table, nextId++);
        randomize(row);
        return row;
    };
    const auto someRows = [&](int n) {
        QList<Record> rows;
        const std::vector<Record> &all = references[0].rows;
        for (int i = 0; i < n && !all.empty(); ++i) {
            const Record &row = all[size_t(pick(int(all.size())))];
            if (!rows.contains(row))
                rows << row;
        }
        return rows;
    };

    WarningLog log;
    for (int step = 0; step < 4000; ++step) {
        const int rowCount = int(references[0].rows.size());
        int operation = step == 0 ? 3 : pick(rowCount < 300 ? 4 : 10);
        if (rowCount > 1500 && operation < 4)
            operation = 9;
        QString what;
        if (operation < 3) {
            what = QStringLiteral("append");
            const Record row = fresh();
            table.appendRow(row.row());
            for (Reference &reference : references)
                reference.enter(row);
        } else if (operation == 3) {
            what = QStringLiteral("appendList");
            QList<Record> rows;
            for (int i = step == 0 ? 1000 : pick(60); i >= 0; --i)
                rows << fresh();
            table.appendList(rows);
            for (Reference &reference : references)
                reference.batch({}, {}, rows);
        } else if (operation < 7) {
            what = QStringLiteral("update");
            const Record row = someRows(1).value(0);
            const bool positionKnown = pick(2);
            const int position = positionKnown ? table.masterIndex()->indexOf(row) : -1;
            if (pick(4))
                randomize(row);
            if (pick(8) == 0)
                row.data(Id).set<qint32>(nextId++); // the primary key changes too
            table.updated(row, 0, -1, position);
            for (Reference &reference : references)
                reference.update(row);
        } else if (operation == 7) {
            what = QStringLiteral("process");
            const QList<Record> updated = someRows(pick(40));
            QList<Record> removed;
            for (const Record &row : someRows(pick(40)))
                if (!updated.contains(row))
                    removed << row;
            QList<Record> changed;
            for (const Record &row : updated) {
                changed << row.clone();
                if (pick(3))
                    randomize(changed.last());
            }
            QList<Record> inserted;
            for (int i = pick(40); i > 0; --i)
                inserted << fresh();
            QList<Record> target = updated;
            table.process(removed, target, 0, -1, inserted, changed);
            for (Reference &reference : references)
                reference.batch(removed, updated, inserted);
        } else if (operation == 8) {
            what = QStringLiteral("move and resort");
            Reference &reference = references[size_t(1 + pick(4))];
            const int n = reference.index->count();
            if (n > 2) {
                const int first = pick(n - 1);
                const int last = first + pick(qMin(n - first, 50));
                const int to = pick(n - (last - first));
                reference.index->move(first, last, to);
                if (first != to && last != to) {
                    std::vector<Record> block(reference.rows.begin() + first,
                                              reference.rows.begin() + last + 1);
                    reference.rows.erase(reference.rows.begin() + first,
                                         reference.rows.begin() + last + 1);
                    reference.rows.insert(reference.rows.begin() + to, block.begin(), block.end());
                }
                QCOMPARE(IndexChecker::sameOrder(reference.index, reference.rows), QString());
                if (reference.sorted) {
                    reference.sorted->resort();
                    std::stable_sort(reference.rows.begin(), reference.rows.end(),
                                     IndexSort::LessThan(reference.sorted));
                }
            }
        } else {
            what = QStringLiteral("remove");
            const Record row = someRows(1).value(0);
            table.remove(row, pick(2) ? table.masterIndex()->indexOf(row) : -1);
            for (Reference &reference : references)
                reference.erase(row);
        }
        for (size_t i = 0; i < references.size(); ++i) {
            const QString error = IndexChecker::sameOrder(references[i].index, references[i].rows);
            QVERIFY2(error.isEmpty(),
                     qPrintable(QStringLiteral("step %1 (%2), index %3: %4")
                                    .arg(step)
                                    .arg(what)
                                    .arg(i)
                                    .arg(error)));
        }
        if (step % 100 == 0)
            QVERIFY_INDEXES(&table);
    }
    log.messages.removeAll(fullSearchWarning());
    QCOMPARE(log.messages, QStringList());
}

QTEST_GUILESS_MAIN(tst_IndexModel)
#include "tst_indexmodel.moc"
