// The parallel stable sort over the partitioned record list: both paths sort
// fully and stably at the edges of its blocks, runs and parts, and never
// change a row's reference count. Also the handles themselves on two threads,
// as the sort's pool threads use them.

#include <database/database.h>

#include <QRandomGenerator>
#include <QThread>
#include <QtTest>

#include <atomic>
#include <thread>

class tst_ConcurrentSort : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void sortsStably_data();
    void sortsStably();
    void rowsSharedByTwoThreads();
};

enum Order { Random, Ascending, Descending };
Q_DECLARE_METATYPE(Order)

void tst_ConcurrentSort::sortsStably_data()
{
    QTest::addColumn<int>("n");
    QTest::addColumn<int>("distinctKeys");
    QTest::addColumn<Order>("order");
    QTest::newRow("empty") << 0 << 1 << Random;
    QTest::newRow("511, calling thread") << 511 << 7 << Random;
    QTest::newRow("512, blocks of 64") << 512 << 7 << Random;
    QTest::newRow("blocks of 65, one run over") << 520 << 3 << Random;
    QTest::newRow("unequal blocks") << 1003 << 5 << Random;
    QTest::newRow("all keys equal") << 4099 << 1 << Random;
    QTest::newRow("one part less one") << 9999 << 50 << Random;
    QTest::newRow("two parts") << 10000 << 50 << Random;
    QTest::newRow("blocks across parts") << 30011 << 50 << Random;
    QTest::newRow("ascending, 512") << 512 << 512 << Ascending;
    QTest::newRow("ascending with ties") << 20007 << 300 << Ascending;
    QTest::newRow("descending with ties") << 20007 << 300 << Descending;
    QTest::newRow("descending, distinct") << 4096 << 4096 << Descending;
}

// The result is compared with a one-thread stable sort of the same rows on a
// plain vector: stability makes the order unique, so the very same rows must
// be at the same places.
void tst_ConcurrentSort::sortsStably()
{
    QFETCH(int, n);
    QFETCH(int, distinctKeys);
    QFETCH(Order, order);
    Table table(QStringLiteral("quotes"));
    table.addColumn(QStringLiteral("key"), FieldType::Integer, 0, false);
    QRandomGenerator random(quint32(n) + 1);
    PartitionList<Record> list;
    for (int i = 0; i < n; ++i) {
        int key = int(random.bounded(distinctKeys));
        if (order != Random)
            key = qint64(i) * distinctKeys / n;
        list.append(Record(&table));
        list.at(i).data(0).set<qint32>(order == Descending ? -key : key);
    }
    std::vector<Record> model(list.begin(), list.end());
    std::atomic<int> foreignCalls { 0 };
    QThread *const home = QThread::currentThread();
    const auto less = [&](const Record &a, const Record &b) {
        foreignCalls += QThread::currentThread() != home;
        return a.data(0).get<qint32>() < b.data(0).get<qint32>();
    };
    ConcurrentSort::stableSortHelper(list.begin(), list.end(), less);
    if (n < 512)
        QCOMPARE(foreignCalls.load(), 0);
    std::stable_sort(model.begin(), model.end(), less);
    QVERIFY(std::equal(list.begin(), list.end(), model.begin(), model.end()));
    // Each row is held by the list and the model only: the sort moved the
    // handles without losing or duplicating a reference.
    for (const Record &row : model)
        QCOMPARE(row.refCount(), 2);
}

// Two threads copy and drop handles to the same rows at once, as the sort's
// pool threads may: no increment or decrement is lost (each count is back to
// one afterwards) and the rows the other thread dropped last are freed once
// (the address sanitizer reports a double free or a leak otherwise).
void tst_ConcurrentSort::rowsSharedByTwoThreads()
{
    Table table(QStringLiteral("quotes"));
    table.addColumn(QStringLiteral("key"), FieldType::Integer, 0, false);
    constexpr int kRows = 500;
    constexpr int kRounds = 40;
    std::vector<Record> mine;
    for (int i = 0; i < kRows; ++i)
        mine.emplace_back(&table);
    std::vector<Record> theirs = mine;
    std::vector<Record> shared = mine; // dropped by whichever thread gets there
    std::atomic<bool> go { false };
    const auto churn = [](const std::vector<Record> &rows) {
        for (int round = 0; round < kRounds; ++round) {
            for (const Record &row : rows) {
                Record copy = row;
                Record other = std::move(copy);
                copy = other;
            }
        }
    };
    std::thread other([&] {
        while (!go.load())
            std::this_thread::yield();
        churn(theirs);
        for (Record &row : theirs)
            qAsConst(row).data(0).set<qint32>(1);
        theirs.clear();
        for (int i = 0; i < kRows; i += 2)
            shared[i] = Record();
    });
    go = true;
    churn(mine);
    for (int i = 1; i < kRows; i += 2)
        shared[i] = Record();
    other.join();
    shared.clear();
    QVERIFY(std::all_of(mine.begin(), mine.end(), [](const Record &row) {
        return row.refCount() == 1 && row.data(0).get<qint32>() == 1;
    }));
}

QTEST_GUILESS_MAIN(tst_ConcurrentSort)
#include "tst_concurrentsort.moc"
