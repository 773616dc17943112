// The parallel stable sort over the partitioned record list: both paths sort
// fully and stably, and the eight-block path cuts where it should.

#include <database/database.h>

#include <QRandomGenerator>
#include <QThread>
#include <QtTest>

#include <atomic>

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
// n/4, ... and that 511 records were sorted whole on the calling thread.
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
        list.at(i).data(0).set<qint32>(int(random.bounded(distinctKeys)));
    }
    std::vector<Record> model(list.begin(), list.end());
    std::atomic<int> calls { 0 }, foreignCalls { 0 };
    QThread *const home = QThread::currentThread();
    const auto less = [&](const Record &a, const Record &b) {
        ++calls;
        foreignCalls += QThread::currentThread() != home;
        return a.data(0).get<qint32>() < b.data(0).get<qint32>();
    };
    ConcurrentSort::stableSortHelper(list.begin(), list.end(), less);
    const int listCalls = calls.exchange(0);
    const auto m = [&](int eighths) { return model.begin() + ((eighths * qint64(n)) >> 3); };
    if (n < 512) {
        QCOMPARE(foreignCalls.load(), 0);
        std::stable_sort(model.begin(), model.end(), less);
    } else {
        for (int i = 0; i < 8; ++i)
            std::stable_sort(m(i), m(i + 1), less);
        for (int width = 1; width < 8; width *= 2) {
            for (int i = 0; i < 8; i += 2 * width)
                std::inplace_merge(m(i), m(i + width), m(i + 2 * width), less);
        }
    }
    QCOMPARE(listCalls, calls.load());
    // The replay is a stable sort by key: the list holds the very same rows.
    QVERIFY(std::equal(list.begin(), list.end(), model.begin(), model.end()));
}

QTEST_GUILESS_MAIN(tst_ConcurrentSort)
#include "tst_concurrentsort.moc"
