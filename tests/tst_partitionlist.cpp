// The partitioned record list (part split and join rules, run inserts, range
// removal, positions outside the list) and the range set that feeds its
// removals; a seeded random run against a QList checks the invariants.

#include <database/database.h>

#include <QRandomGenerator>
#include <QtTest>

#include <numeric>

using List = PartitionList<Record>;
using Counts = QVector<int>;

class tst_PartitionList : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void partRules_data();
    void partRules();
    void positionsOutside();
    void rangeSet();
    void randomAgainstQList();

private:
    Record row() const { return Record(m_table); }
    // Empty when every structural invariant holds, else what is wrong.
    static QString broken(const List &list);

    Table *m_table = nullptr;
};

QString tst_PartitionList::broken(const List &list)
{
    const Counts counts = list.partCounts();
    const Counts capacities = list.partCapacities();
    for (int i = 0; i < counts.size(); ++i) {
        if (counts[i] <= 0 || counts[i] >= List::partSize || capacities[i] < counts[i])
            return QStringLiteral("part %1 holds %2 of %3")
                .arg(i)
                .arg(counts[i])
                .arg(capacities[i]);
    }
    if (std::accumulate(counts.begin(), counts.end(), 0) != list.count()
        || list.end() - list.begin() != list.count())
        return QStringLiteral("the parts, count() and the iterators disagree");
    // at() goes through the start-position cache; iteration walks the parts.
    int pos = 0;
    for (const Record &record : list) {
        if (pos % 61 == 0 && list.at(pos) != record)
            return QStringLiteral("at(%1) disagrees with iteration").arg(pos);
        ++pos;
    }
    return QString();
}

void tst_PartitionList::initTestCase()
{
    m_table = new Table(QStringLiteral("rows"), QString(), this);
    m_table->addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
}

void tst_PartitionList::partRules_data()
{
    QTest::addColumn<Counts>("before"); // ids 0.. cut into parts of these counts
    QTest::addColumn<QString>("operation");
    QTest::addColumn<QVector<int>>("arguments");
    QTest::addColumn<Counts>("after");
    const auto add = [](const char *name, Counts before, const char *operation,
                        QVector<int> arguments, Counts after) {
        QTest::newRow(name) << before << QString::fromLatin1(operation) << arguments << after;
    };
    // Single inserts split a part that reaches partSize at half; appends never.
    add("insert splits at half", { 9999 }, "insert", { 9999 }, { 5000, 5000 });
    add("insert at a part's end", { 3, 4 }, "insert", { 3 }, { 4, 4 });
    add("insert beyond the end", { 3, 4 }, "insert", { 12 }, { 3, 4, 1 });
    add("append opens a part", { 9999 }, "append", {}, { 9999, 1 });
    add("append fills a half", { 5000, 5000 }, "append", {}, { 5000, 5001 });
    // Runs: a part pushed to partSize is cut into equal pieces below it.
    add("run fits", { 100, 100 }, "run", { 100, 50 }, { 150, 100 });
    add("run reaches partSize", { 8000 }, "run", { 4000, 2000 }, { 5000, 5000 });
    add("run just below", { 8000 }, "run", { 8000, 1999 }, { 9999 });
    add("run into empty", {}, "run", { 0, 25000 }, { 8334, 8333, 8333 });
    add("run beyond the end", { 10 }, "run", { 11, 3 }, { 10, 3 });
    // A remove joins with the next part, then the previous, below joinSize.
    add("last of a part", { 9999, 1 }, "remove", { 9999 }, { 9999 });
    add("2600 next to 2300", { 2600, 2300 }, "remove", { 0 }, { 4899 });
    add("sum of 5000 with next stays", { 2501, 2500 }, "remove", { 0 }, { 2500, 2500 });
    add("sum of 5000 with previous stays", { 2500, 2501 }, "remove", { 2500 }, { 2500, 2500 });
    add("sum of 4999 joins", { 2500, 2500 }, "remove", { 2500 }, { 4999 });
    add("next first", { 2500, 2500, 2500 }, "remove", { 2500 }, { 2500, 4999 });
    add("both sides", { 1000, 1000, 1000 }, "remove", { 1500 }, { 2999 });
    add("sole record", { 1 }, "remove", { 0 }, {});
    // Ranges (from, to pairs) across parts, a part emptied whole, one join pass.
    add("ranges", { 6000, 3000, 6000, 6000 }, "ranges", { -5, 2, 5000, 9500, 20990, 30000 },
        { 4998, 5500, 5990 });
    add("range join pass", { 3000, 3000, 3000 }, "ranges", { 2001, 3002 }, { 4999, 3000 });
    add("range sum of 5000 stays", { 3000, 3000 }, "ranges", { 2000, 3000 }, { 2000, 3000 });
}

// Contents are the random run's business; here the part counts after one
// operation on a list of the given shape.
void tst_PartitionList::partRules()
{
    QFETCH(Counts, before);
    QFETCH(QString, operation);
    QFETCH(QVector<int>, arguments);
    QFETCH(Counts, after);
    List list;
    const int total = std::accumulate(before.begin(), before.end(), 0);
    for (int id = 0; id < total; ++id)
        list.append(row());
    // Appends fill parts of 9999; re-cut from the back with split().
    while (list.partCounts().size() > 1)
        list.join(1);
    for (int slot = before.size() - 1, end = total; slot > 0; --slot)
        list.split(1, end -= before[slot]);
    QCOMPARE(list.partCounts(), before);

    const int pos = arguments.value(0);
    QList<Record> run;
    RangeSet<int> ranges;
    if (operation == QLatin1String("insert")) {
        list.insert(pos, row());
    } else if (operation == QLatin1String("append")) {
        list.append(row());
    } else if (operation == QLatin1String("remove")) {
        list.remove(pos);
    } else if (operation == QLatin1String("run")) {
        while (run.size() < arguments[1])
            run << row();
        list.insert(pos, run);
    } else {
        for (int i = 0; i < arguments.size(); i += 2)
            ranges.addRange(arguments[i], arguments[i + 1]);
        list.removeRanges(ranges);
    }
    QCOMPARE(list.partCounts(), after);
    QCOMPARE(broken(list), QString());
    for (int capacity : list.partCapacities())
        QVERIFY(operation != QLatin1String("run") || capacity == List::partSize + 2);
}

void tst_PartitionList::positionsOutside()
{
    List list;
    list.append(row());
    list.remove(1);
    list.remove(-1);
    QTest::ignoreMessage(QtWarningMsg, "PartitionList::insert: negative position -1 ignored");
    list.insert(-1, row());
    QCOMPARE(list.count(), 1);
    QTest::ignoreMessage(QtWarningMsg, "PartitionList::at: position 1 outside 0..0");
    QVERIFY(list.at(1).isNull());
}

// Ranges in any order merge where they overlap or touch; empty ones vanish.
void tst_PartitionList::rangeSet()
{
    RangeSet<int> set;
    const int added[] = { 8, 9, 1, 3, 5, 7, 2, 6, 4, 4, 9, 10, 12, 15, 13, 14 };
    for (int i = 0; i < 16; i += 2)
        set.addRange(added[i], added[i + 1]);
    QTest::ignoreMessage(QtWarningMsg, "RangeSet::addRange: reversed range ignored");
    set.addRange(3, 2);
    QCOMPARE(set.boundaries(), QVector<int>({ 1, 7, 8, 10, 12, 15 }));
    QVector<int> walked;
    for (const RangeSet<int>::Range &range : set)
        walked << range.from << range.to;
    QCOMPARE(walked, set.boundaries());
    QCOMPARE(set.count(), 3);
}

// The list and a QList side by side: after every step the contents and the
// part invariants agree, and no row is lost or held twice.
void tst_PartitionList::randomAgainstQList()
{
    QRandomGenerator random(20240611);
    const auto pick = [&](int n) { return int(random.bounded(n)); };
    QList<Record> model;
    int mostParts = 0;
    {
        List list;
        for (int step = 0; step < 2000; ++step) {
            const int n = model.size();
            const int kind = pick(n > 40000 ? 10 : 14);
            const int pos = pick(n + 1);
            if (kind < 3 && n > 0) { // single remove, sometimes out of range
                const int at = pick(8) == 0 ? n : pos % n;
                list.remove(at);
                if (at < n)
                    model.removeAt(at);
            } else if (kind < 5) { // range removal
                RangeSet<int> set;
                QVector<bool> gone(n, false);
                for (int r = pick(6); r >= 0; --r) {
                    const int from = pick(n + 1);
                    const int to = std::min(n + 2, from + pick(1 + n / 40));
                    set.addRange(from, to);
                    std::fill(gone.begin() + from, gone.begin() + std::min(n, to), true);
                }
                list.removeRanges(set);
                for (int i = n - 1; i >= 0; --i) {
                    if (gone[i])
                        model.removeAt(i);
                }
            } else if (kind < 7) { // run insert
                QList<Record> run;
                for (int i = pick(20) == 0 ? 12000 : pick(300); i > 0; --i)
                    run << row();
                list.insert(pos, run);
                for (int i = 0; i < run.size(); ++i)
                    model.insert(pos + i, run[i]);
            } else if (kind < 8) {
                model.append(row());
                list.append(model.last());
            } else {
                for (int i = pick(200); i > 0; --i) {
                    const int at = pick(model.size() + 1);
                    model.insert(at, row());
                    list.insert(at, model[at]);
                }
            }
            const QString error = broken(list);
            QVERIFY2(error.isEmpty(), qPrintable(QStringLiteral("step %1: ").arg(step) + error));
            QVERIFY2(std::equal(list.begin(), list.end(), model.begin(), model.end()),
                     qPrintable(QStringLiteral("contents differ at step %1").arg(step)));
            mostParts = std::max(mostParts, list.partCounts().size());
        }
        QVERIFY(mostParts > 3);
        for (const Record &record : qAsConst(model))
            QCOMPARE(record.refCount(), 2);
        list.clear();
        QCOMPARE(list.partCounts(), Counts {});
        list.append(row());
    }
    for (const Record &record : qAsConst(model))
        QCOMPARE(record.refCount(), 1);
}

QTEST_GUILESS_MAIN(tst_PartitionList)
#include "tst_partitionlist.moc"
