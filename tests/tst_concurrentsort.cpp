// The parallel stable sort over the partitioned record list: both paths sort
// fully and stably, and the eight-block path cuts where it should.

#include <database/database.h>

#include <QRandomGenerator>
#include <QThread>
#include <QtTest>

#include <vector>

namespace {

const int keyColumn = 0;

// Orders by key only; counts its calls and those made off the test's thread.
struct CountingLess
{
    QAtomicInt *calls;
    QAtomicInt *foreignCalls;
    QThread *home;
    bool operator()(const Record &a, const Record &b) const
    {
        calls->fetchAndAddRelaxed(1);
        if (QThread::currentThread() != home)
            foreignCalls->fetchAndAddRelaxed(1);
        return a.data(keyColumn).get<qint32>() < b.data(keyColumn).get<qint32>();
    }
};

} // namespace

class tst_ConcurrentSort : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void sortsStably_data();
    void sortsStably();
};

void tst_ConcurrentSort::sortsStably_data()
{
    QTest::addColumn<int>("n");
    QTest::addColumn<int>("distinctKeys");
    QTest::newRow("empty") << 0 << 1;
    QTest::newRow("511, calling thread") << 511 << 7;
    QTest::newRow("512, eight blocks") << 512 << 7;
    QTest::newRow("unequal blocks") << 1003 << 5;
    QTest::newRow("all keys equal") << 4099 << 1;
    QTest::newRow("blocks across parts") << 30011 << 50;
}

// Each run is replayed sequentially on a plain vector: the same comparisons
// happen in both, so equal call counts show that the blocks were cut at n/8,
// n/4, ... and that 511 records were sorted whole.
void tst_ConcurrentSort::sortsStably()
{
    QFETCH(int, n);
    QFETCH(int, distinctKeys);
    Table table(QStringLiteral("quotes"));
    table.addColumn(QStringLiteral("key"), FieldType::Integer, 0, false);
    QRandomGenerator random(quint32(n) + 1);
    PartitionList<Record> list;
    for (int i = 0; i < n; ++i) {
        list.append(Record(&table));
        list.at(i).data(keyColumn).set<qint32>(int(random.bounded(distinctKeys)));
    }
    std::vector<Record> model(list.begin(), list.end());

    QAtomicInt calls, foreignCalls, modelCalls;
    const CountingLess less { &calls, &foreignCalls, QThread::currentThread() };
    const CountingLess modelLess { &modelCalls, &foreignCalls, QThread::currentThread() };
    ConcurrentSort::stableSortHelper(list.begin(), list.end(), less);

    const auto m = [&](int eighths) { return model.begin() + ((eighths * qint64(n)) >> 3); };
    if (n < 512) {
        std::stable_sort(model.begin(), model.end(), modelLess);
        QCOMPARE(foreignCalls.loadRelaxed(), 0);
    } else {
        for (int i = 0; i < 8; ++i)
            std::stable_sort(m(i), m(i + 1), modelLess);
        for (int width = 1; width < 8; width *= 2) {
            for (int i = 0; i < 8; i += 2 * width)
                std::inplace_merge(m(i), m(i + width), m(i + 2 * width), modelLess);
        }
    }
    QCOMPARE(calls.loadRelaxed(), modelCalls.loadRelaxed());
    // The replay is a stable sort by key: the list holds the very same rows.
    QVERIFY(std::equal(list.begin(), list.end(), model.begin(), model.end()));
    for (const Record &record : list)
        QCOMPARE(record.refCount(), 2); // the list and the model, nothing lost or doubled
}

QTEST_GUILESS_MAIN(tst_ConcurrentSort)
#include "tst_concurrentsort.moc"
