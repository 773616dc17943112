// The partitioned record list (part split and join rules, run inserts, range
// removal, positions outside the list) and the range set that feeds its
// removals; a seeded random run against a QList checks the invariants.

#include <database/database.h>

#include <QRandomGenerator>
#include <QtTest>

#include <numeric>

using List = PartitionList<Record>;
using Counts = QVector<int>;

// Empty when every structural invariant holds, else what is wrong.
static QString broken(const List &list)
{
    const Counts counts = list.partCounts(), capacities = list.partCapacities();
    for (int i = 0; i < counts.size(); ++i) {
        if (counts[i] <= 0 || counts[i] >= List::partSize || capacities[i] < counts[i])
            return QStringLiteral("part %1 is empty, full or overfull").arg(i);
    }
    if (std::accumulate(counts.begin(), counts.end(), 0) != list.count()
        || list.end() - list.begin() != list.count())
        return QStringLiteral("the parts, count() and the iterators disagree");
    // at() goes through the start-position cache; iteration walks the parts.
    for (int pos = 0; pos < list.count(); pos += 61) {
        if (list.at(pos) != *(list.begin() + pos))
            return QStringLiteral("at(%1) disagrees with iteration").arg(pos);
    }
    return QString();
}

class tst_PartitionList : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false); }
    void partRules_data();
    void partRules();
    void edges();
    void randomAgainstQList();
    void batchInsertAndPartitionPoint();

private:
    Record row() { return Record(&table); }
    Table table { QStringLiteral("rows") };
};

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
    // A single insert splits a part that reaches partSize at half.
    add("insert splits at half", { 9999 }, "insert", { 9999 }, { 5000, 5000 });
    // Runs: a part pushed to partSize is cut into equal pieces below it.
    add("run reaches partSize", { 8000 }, "run", { 4000, 2000 }, { 5000, 5000 });
    add("run just below", { 8000 }, "run", { 8000, 1999 }, { 9999 });
    add("run into empty", {}, "run", { 0, 25000 }, { 8334, 8333, 8333 });
    // A remove joins with the next part, then the previous, below joinSize.
    add("sum of 5000 with next stays", { 2501, 2500 }, "remove", { 0 }, { 2500, 2500 });
    add("sum of 5000 with previous stays", { 2500, 2501 }, "remove", { 2500 }, { 2500, 2500 });
    add("sum of 4999 joins", { 2500, 2500 }, "remove", { 2500 }, { 4999 });
    add("next first", { 2500, 2500, 2500 }, "remove", { 2500 }, { 2500, 4999 });
    // Ranges (from, to pairs) across parts, a part emptied whole, one join pass.
    add("ranges", { 6000, 3000, 6000, 6000 }, "ranges", { -5, 2, 5000, 9500, 20990, 30000 },
        { 4998, 5500, 5990 });
    add("range join pass", { 3000, 3000, 3000 }, "ranges", { 2001, 3002 }, { 4999, 3000 });
}

// Contents are the random run's business; here the part counts after one
// operation on a list of the given shape.
void tst_PartitionList::partRules()
{
    QFETCH(Counts, before);
    QFETCH(QString, operation);
    QFETCH(QVector<int>, arguments);
    List list;
    for (int id = std::accumulate(before.begin(), before.end(), 0); id > 0; --id)
        list.append(row());
    // Appends fill parts of 9999; re-cut from the back with split().
    while (list.partCounts().size() > 1)
        list.join(1);
    for (int slot = before.size() - 1, end = list.count(); slot > 0; --slot)
        list.split(1, end -= before[slot]);
    QCOMPARE(list.partCounts(), before);

    const int pos = arguments.value(0);
    RangeSet<int> ranges;
    if (operation == "insert") {
        list.insert(pos, row());
    } else if (operation == "remove") {
        list.remove(pos);
    } else if (operation == "run") {
        list.insert(pos, QVector<Record>(arguments[1], row()).toList());
    } else {
        for (int i = 0; i < arguments.size(); i += 2)
            ranges.addRange(arguments[i], arguments[i + 1]);
        list.removeRanges(ranges);
    }
    QTEST(list.partCounts(), "after");
    QCOMPARE(broken(list), QString());
    for (int capacity : list.partCapacities())
        QVERIFY(operation != "run" || capacity == List::partSize + 2);
}

// Positions outside the list and reversed ranges are refused with a warning;
// ranges added in any order merge where they overlap or touch.
void tst_PartitionList::edges()
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

    RangeSet<int> set;
    const int added[] = { 8, 9, 1, 3, 5, 7, 2, 6, 4, 4, 9, 10, 12, 15, 13, 14 };
    for (int i = 0; i < 16; i += 2)
        set.addRange(added[i], added[i + 1]);
    QTest::ignoreMessage(QtWarningMsg, "RangeSet::addRange: reversed range ignored");
    set.addRange(3, 2);
    QCOMPARE(set.boundaries(), QVector<int>({ 1, 7, 8, 10, 12, 15 }));
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
            const int n = model.size(), kind = pick(n > 40000 ? 10 : 14), pos = pick(n + 1);
            if (kind < 3 && n > 0) { // single remove, sometimes out of range
                const int at = pick(8) == 0 ? n : pos % n;
                list.remove(at);
                if (at < n)
                    model.removeAt(at);
            } else if (kind < 5) { // range removal
                RangeSet<int> set;
                QVector<bool> gone(n + 2, false);
                for (int r = pick(6); r >= 0; --r) {
                    const int from = pick(n + 1), to = std::min(n + 2, from + pick(1 + n / 40));
                    set.addRange(from, to);
                    std::fill(gone.begin() + from, gone.begin() + to, true);
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
                model = model.mid(0, pos) + run + model.mid(pos);
            } else { // appends or scattered single inserts
                for (int i = kind < 8 ? 1 : pick(200); i > 0; --i) {
                    const int at = kind < 8 ? model.size() : pick(model.size() + 1);
                    model.insert(at, row());
                    kind < 8 ? list.append(model[at]) : list.insert(at, model[at]);
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
    }
    for (const Record &record : qAsConst(model))
        QCOMPARE(record.refCount(), 1);
}

// insertSorted() against QList inserts from the back, with batches that hit
// position 0, the end, part boundaries and one part with more than partSize
// values; partitionPoint() against std::partition_point from every kind of
// start.
void tst_PartitionList::batchInsertAndPartitionPoint()
{
    QRandomGenerator random(77);
    QList<Record> model;
    List list;
    for (int i = 0; i < 25000; ++i) {
        model << row();
        list.append(model.last());
    }
    for (int step = 0; step < 12; ++step) {
        const int n = model.size();
        const Counts counts = list.partCounts();
        QVector<int> targets;
        for (int i = int(random.bounded(step == 5 ? 12000 : 300)); i > 0; --i)
            targets << int(random.bounded(n + 1));
        targets << 0 << n << counts.first();
        if (step == 5)
            targets << QVector<int>(11000, counts.first() / 2);
        std::sort(targets.begin(), targets.end());
        QList<Record> values;
        for (int i = 0; i < targets.size(); ++i)
            values << row();
        list.insertSorted(targets, values);
        for (int i = targets.size() - 1; i >= 0; --i)
            model.insert(targets[i], values[i]);
        const QString error = broken(list);
        QVERIFY2(error.isEmpty(), qPrintable(QStringLiteral("step %1: ").arg(step) + error));
        QVERIFY2(std::equal(list.begin(), list.end(), model.begin(), model.end()),
                 qPrintable(QStringLiteral("contents differ at step %1").arg(step)));
    }
    // A partitioned predicate over the rows by their place in the model.
    QHash<const unsigned char *, int> place;
    for (int i = 0; i < model.size(); ++i)
        place.insert(model[i].row(), i);
    for (int cut : { 0, 1, 9999, 10000, model.size() / 2, model.size() - 1, model.size() }) {
        const auto before = [&](const Record &r) { return place.value(r.row()) < cut; };
        for (int from : { -1, 0, cut / 2, cut, model.size() - 1, model.size() + 5 }) {
            const int point = from >= model.size() ? model.size() : std::max({ from, cut, 0 });
            QCOMPARE(list.partitionPoint(from, before), point);
            // partitionPart(): the point's part, from `from` on, up to the
            // next part's first position.
            const std::pair<int, int> part = list.partitionPart(from, before);
            QVERIFY(part.first <= point && point <= part.second);
            QVERIFY(part.first >= std::min(std::max(from, 0), model.size()));
            QVERIFY(part.second - part.first <= List::partSize);
        }
    }
    // partitionPoints(): more queries than one lockstep group, cuts at both
    // ends and at part boundaries, each answered as partitionPoint(0) would.
    QVector<int> cuts { 0, model.size(), 1, model.size() - 1 };
    for (int start = 0; start < model.size(); start += list.partCounts().first())
        cuts << start << start + 1;
    for (int i = 0; i < 150; ++i)
        cuts << int(random.bounded(model.size() + 1));
    QVector<int> points(cuts.size(), -1);
    list.partitionPoints(
        cuts.size(), [&](const Record &r, int q) { return place.value(r.row()) < cuts.at(q); },
        [](const Record &) {}, points.data());
    QCOMPARE(points, cuts);
    QTest::ignoreMessage(QtWarningMsg,
                         "PartitionList::insertSorted: targets out of order or range; nothing "
                         "inserted");
    list.insertSorted({ 2, 1 }, { row(), row() });
    QCOMPARE(list.count(), model.size());
}

QTEST_GUILESS_MAIN(tst_PartitionList)
#include "tst_partitionlist.moc"
