// The partitioned record list (part split and join rules, run inserts, range
// removal, iterators across parts) and the range set that feeds its removals.

#include <database/database.h>

#include <QRandomGenerator>
#include <QtTest>

#include <algorithm>
#include <numeric>

using List = PartitionList<Record>;
using Counts = QVector<int>;

namespace {
const int idColumn = 0;

int idOf(const Record &record)
{
    return record.data(idColumn).get<qint32>();
}
} // namespace

class tst_PartitionList : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void insertSplitsAtHalf();
    void appendNeverSplits();
    void insertPositions();
    void removeJoins_data();
    void removeJoins();
    void runInsert_data();
    void runInsert();
    void removeRanges();
    void iteratorsCrossParts();
    void rangeSet_data();
    void rangeSet();
    void randomAgainstQList();

private:
    Record row(int id);
    // The ids of the list in order.
    QVector<int> ids(const List &list) const;
    // A list of `total` rows with ids 0.. cut into parts of the given counts.
    void shape(List &list, const Counts &counts);
    // Empty when every structural invariant holds, else what is wrong.
    static QString broken(const List &list);

    Table *m_table = nullptr;
};

Record tst_PartitionList::row(int id)
{
    Record record(m_table);
    record.data(idColumn).set<qint32>(id);
    return record;
}

QVector<int> tst_PartitionList::ids(const List &list) const
{
    QVector<int> result;
    for (const Record &record : list)
        result << idOf(record);
    return result;
}

void tst_PartitionList::shape(List &list, const Counts &counts)
{
    const int total = std::accumulate(counts.begin(), counts.end(), 0);
    for (int i = 0; i < total; ++i)
        list.append(row(i));
    // Appends fill parts of 9999; re-cut from the back with split().
    while (list.partCounts().size() > 1)
        list.join(1);
    for (int slot = counts.size() - 1, end = total; slot > 0; --slot) {
        end -= counts[slot];
        list.split(1, end);
    }
    QCOMPARE(list.partCounts(), counts);
}

QString tst_PartitionList::broken(const List &list)
{
    const Counts counts = list.partCounts();
    const Counts capacities = list.partCapacities();
    int sum = 0;
    for (int i = 0; i < counts.size(); ++i) {
        if (counts[i] <= 0 || counts[i] >= List::partSize || capacities[i] < counts[i])
            return QStringLiteral("part %1 holds %2 of %3")
                .arg(i)
                .arg(counts[i])
                .arg(capacities[i]);
        sum += counts[i];
    }
    if (sum != list.count())
        return QStringLiteral("parts hold %1, count() says %2").arg(sum).arg(list.count());
    if (list.end() - list.begin() != list.count())
        return QStringLiteral("iterators span %1").arg(list.end() - list.begin());
    // at() goes through the start-position cache; iteration walks the parts.
    int pos = 0;
    for (const Record &record : list) {
        if (pos % 61 == 0 && !(list.at(pos) == record))
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

void tst_PartitionList::insertSplitsAtHalf()
{
    List list;
    for (int i = 0; i < 9999; ++i)
        list.insert(i, row(i));
    QCOMPARE(list.partCounts(), Counts { 9999 });
    list.insert(9999, row(9999));
    QCOMPARE(list.partCounts(), (Counts { 5000, 5000 }));
    QCOMPARE(list.partCapacities(), (Counts { 10002, 10002 }));
    QCOMPARE(ids(list).last(), 9999);
    QCOMPARE(idOf(list.at(5000)), 5000);
}

void tst_PartitionList::appendNeverSplits()
{
    List list;
    for (int i = 0; i < 10000; ++i)
        list.append(row(i));
    QCOMPARE(list.partCounts(), (Counts { 9999, 1 }));
    QCOMPARE(idOf(list.at(9999)), 9999);
    // Appending to a part that the split left at 5000 keeps filling it.
    List halves;
    for (int i = 0; i < 10000; ++i)
        halves.insert(i, row(i));
    halves.append(row(10000));
    QCOMPARE(halves.partCounts(), (Counts { 5000, 5001 }));
}

void tst_PartitionList::insertPositions()
{
    List list;
    shape(list, { 3, 4 });
    list.insert(3, row(100)); // the end of part 0, not the start of part 1
    QCOMPARE(list.partCounts(), (Counts { 4, 4 }));
    list.insert(list.count() + 5, row(101)); // beyond the end: a new last part
    QCOMPARE(list.partCounts(), (Counts { 4, 4, 1 }));
    QTest::ignoreMessage(QtWarningMsg, "PartitionList::insert: negative position -1 ignored");
    list.insert(-1, row(102));
    QCOMPARE(ids(list), (QVector<int> { 0, 1, 2, 100, 3, 4, 5, 6, 101 }));

    list.remove(list.count());
    list.remove(-1);
    QCOMPARE(list.count(), 9);
    QTest::ignoreMessage(QtWarningMsg, "PartitionList::at: position 9 outside 0..8");
    QVERIFY(list.at(9).isNull());
}

void tst_PartitionList::removeJoins_data()
{
    QTest::addColumn<Counts>("before");
    QTest::addColumn<int>("pos");
    QTest::addColumn<Counts>("after");
    QTest::newRow("last record of a part deletes it")
        << Counts { 9999, 1 } << 9999 << Counts { 9999 };
    QTest::newRow("2600 next to 2300") << Counts { 2600, 2300 } << 0 << Counts { 4899 };
    QTest::newRow("sum of 5000 with previous stays")
        << Counts { 2500, 2501 } << 2500 << Counts { 2500, 2500 };
    QTest::newRow("sum of 4999 with previous joins")
        << Counts { 2500, 2500 } << 2500 << Counts { 4999 };
    QTest::newRow("next first, then previous")
        << Counts { 2500, 2500, 2500 } << 2500 << Counts { 2500, 4999 };
    QTest::newRow("both sides") << Counts { 1000, 1000, 1000 } << 1500 << Counts { 2999 };
    QTest::newRow("sole record") << Counts { 1 } << 0 << Counts {};
}

void tst_PartitionList::removeJoins()
{
    QFETCH(Counts, before);
    QFETCH(int, pos);
    QFETCH(Counts, after);
    List list;
    shape(list, before);
    QVector<int> expected = ids(list);
    expected.remove(pos);
    list.remove(pos);
    QCOMPARE(list.partCounts(), after);
    QCOMPARE(ids(list), expected);
    QCOMPARE(list.count(), expected.size());
}

void tst_PartitionList::runInsert_data()
{
    QTest::addColumn<Counts>("before");
    QTest::addColumn<int>("pos");
    QTest::addColumn<int>("runLength");
    QTest::addColumn<Counts>("after");
    QTest::newRow("fits") << Counts { 100, 100 } << 100 << 50 << Counts { 150, 100 };
    QTest::newRow("reaches partSize") << Counts { 8000 } << 4000 << 2000 << Counts { 5000, 5000 };
    QTest::newRow("just below") << Counts { 8000 } << 8000 << 1999 << Counts { 9999 };
    QTest::newRow("into empty, three pieces")
        << Counts {} << 0 << 25000 << Counts { 8334, 8333, 8333 };
    QTest::newRow("beyond the end") << Counts { 10 } << 11 << 3 << Counts { 10, 3 };
}

void tst_PartitionList::runInsert()
{
    QFETCH(Counts, before);
    QFETCH(int, pos);
    QFETCH(int, runLength);
    QFETCH(Counts, after);
    List list;
    shape(list, before);
    QVector<int> expected = ids(list);
    QList<Record> run;
    for (int i = 0; i < runLength; ++i)
        run << row(-1 - i);
    list.insert(pos, run);
    const int at = std::min(pos, expected.size());
    for (int i = 0; i < runLength; ++i)
        expected.insert(at + i, -1 - i);
    QCOMPARE(list.partCounts(), after);
    QCOMPARE(ids(list), expected);
    for (int capacity : list.partCapacities())
        QCOMPARE(capacity, List::partSize + 2);
}

void tst_PartitionList::removeRanges()
{
    List list;
    shape(list, { 20 });
    RangeSet<int> set;
    set.addRange(4, 5);
    set.addRange(5, 6);
    set.addRange(9, 10);
    list.removeRanges(set);
    QCOMPARE(list.count(), 17);
    QCOMPARE(ids(list).mid(3, 5), (QVector<int> { 3, 6, 7, 8, 10 }));

    // Ranges across parts, a part emptied whole, then one join pass.
    List big;
    shape(big, { 6000, 3000, 6000, 6000 });
    RangeSet<int> cut;
    cut.addRange(5000, 9500); // 1000 of part 0, all of part 1, 500 of part 2
    cut.addRange(-5, 2);
    cut.addRange(20990, 30000);
    big.removeRanges(cut);
    QCOMPARE(big.partCounts(), (Counts { 4998, 5500, 5990 }));
    QVector<int> expected;
    for (int i = 2; i < 21000; ++i)
        if (i < 5000 || (i >= 9500 && i < 20990))
            expected << i;
    QCOMPARE(ids(big), expected);
}

void tst_PartitionList::iteratorsCrossParts()
{
    List list;
    shape(list, { 3, 5, 2 });
    List::iterator it = list.begin();
    it += 4;
    QCOMPARE(idOf(*it), 4);
    it += 5;
    QCOMPARE(idOf(*it), 9);
    QVERIFY(++it == list.end());
    it -= 7;
    QCOMPARE(idOf(it[0]), 3);
    QCOMPARE(it - list.begin(), 3);
    QCOMPARE(list.begin() - list.end(), -10);
    QVERIFY(list.begin() < it && list.end() > it && it >= it - 1);
    --it;
    QCOMPARE(idOf(*it), 2);
    List::const_iterator cit = list.end();
    QCOMPARE(idOf(*(cit - 1)), 9);

    const List &view = list;
    const Record key = row(6);
    auto lessById = [](const Record &a, const Record &b) { return idOf(a) < idOf(b); };
    QCOMPARE(std::lower_bound(view.begin(), view.end(), key, lessById) - view.begin(), 6);
    const List empty;
    QVERIFY(empty.begin() == empty.end());
}

void tst_PartitionList::rangeSet_data()
{
    QTest::addColumn<QVector<int>>("added"); // from, to pairs
    QTest::addColumn<QVector<int>>("boundaries");
    QTest::newRow("disjoint, any order")
        << QVector<int> { 8, 9, 1, 3, 5, 6 } << QVector<int> { 1, 3, 5, 6, 8, 9 };
    QTest::newRow("overlapping two") << QVector<int> { 1, 3, 5, 7, 2, 6 } << QVector<int> { 1, 7 };
    QTest::newRow("covering all") << QVector<int> { 2, 3, 5, 7, 0, 9 } << QVector<int> { 0, 9 };
    QTest::newRow("nested") << QVector<int> { 1, 9, 3, 4 } << QVector<int> { 1, 9 };
    QTest::newRow("touching fuses") << QVector<int> { 4, 5, 5, 6, 3, 4 } << QVector<int> { 3, 6 };
    QTest::newRow("ends inside") << QVector<int> { 5, 8, 2, 6 } << QVector<int> { 2, 8 };
    QTest::newRow("empty ignored") << QVector<int> { 4, 4 } << QVector<int> {};
}

void tst_PartitionList::rangeSet()
{
    QFETCH(QVector<int>, added);
    QFETCH(QVector<int>, boundaries);
    RangeSet<int> set;
    for (int i = 0; i < added.size(); i += 2)
        set.addRange(added[i], added[i + 1]);
    QCOMPARE(set.boundaries(), boundaries);
    QCOMPARE(set.count(), boundaries.size() / 2);
    QCOMPARE(set.isEmpty(), boundaries.isEmpty());
    QVector<int> walked;
    for (const RangeSet<int>::Range &range : set)
        walked << range.from << range.to;
    QCOMPARE(walked, boundaries);

    QTest::ignoreMessage(QtWarningMsg, "RangeSet::addRange: reversed range ignored");
    set.addRange(3, 2);
    QCOMPARE(set.boundaries(), boundaries);
}

// Drives the list and a QList side by side; after every step the contents,
// the part invariants and the reference counts must agree.
void tst_PartitionList::randomAgainstQList()
{
    QRandomGenerator random(20240611);
    QList<Record> model;
    int nextId = 0;
    int mostParts = 0;
    {
        List list;
        for (int step = 0; step < 2000; ++step) {
            const int n = model.size();
            const int kind = int(random.bounded(n > 40000 ? 10 : 14));
            const int pos = int(random.bounded(n + 1));
            if (kind < 3 && n > 0) { // single remove, sometimes out of range
                const int at = random.bounded(8) == 0 ? n : pos % n;
                list.remove(at);
                if (at < n)
                    model.removeAt(at);
            } else if (kind < 5) { // range removal
                RangeSet<int> set;
                QVector<bool> gone(n, false);
                for (int r = int(random.bounded(6)); r >= 0; --r) {
                    const int from = int(random.bounded(n + 1));
                    const int to = std::min(n + 2, from + int(random.bounded(1 + n / 40)));
                    set.addRange(from, to);
                    for (int i = from; i < std::min(n, to); ++i)
                        gone[i] = true;
                }
                list.removeRanges(set);
                for (int i = n - 1; i >= 0; --i)
                    if (gone[i])
                        model.removeAt(i);
            } else if (kind < 7) { // run insert
                QList<Record> run;
                const int length = random.bounded(20) == 0 ? 12000 : int(random.bounded(300));
                for (int i = 0; i < length; ++i)
                    run << row(nextId++);
                list.insert(pos, run);
                for (int i = 0; i < length; ++i)
                    model.insert(pos + i, run[i]);
            } else if (kind < 8) {
                model.append(row(nextId++));
                list.append(model.last());
            } else {
                const int count = int(random.bounded(200));
                for (int i = 0; i < count; ++i) {
                    const int at = int(random.bounded(model.size() + 1));
                    model.insert(at, row(nextId++));
                    list.insert(at, model[at]);
                }
            }
            const QString error = broken(list);
            QVERIFY2(error.isEmpty(),
                     qPrintable(QStringLiteral("step %1: %2").arg(step).arg(error)));
            QCOMPARE(list.count(), model.size());
            mostParts = std::max(mostParts, list.partCounts().size());
            QVERIFY2(std::equal(list.begin(), list.end(), model.begin()),
                     qPrintable(QStringLiteral("contents differ at step %1").arg(step)));
        }
        QVERIFY(mostParts > 3);
        QVERIFY(list.memoryUsage() >= qint64(list.partCounts().size()) * 10002 * 8);
        for (const Record &record : qAsConst(model))
            QCOMPARE(record.refCount(), 2);
        list.clear();
        QCOMPARE(list.partCounts(), Counts {});
        QCOMPARE(list.count(), 0);
        list.append(row(0));
    }
    for (const Record &record : qAsConst(model))
        QCOMPARE(record.refCount(), 1);
}

QTEST_GUILESS_MAIN(tst_PartitionList)
#include "tst_partitionlist.moc"
