// The parallel stable sort over the partitioned record list: both paths sort
// fully and stably, and the eight-block path cuts where it should.

#include <database/database.h>

#include <QRandomGenerator>
#include <QThread>
#include <QtTest>

#include <vector>

namespace {

const int keyColumn = 0;
const int arrivalColumn = 1;

int keyOf(const Record &record)
{
    return record.data(keyColumn).get<qint32>();
}

int arrivalOf(const Record &record)
{
    return record.data(arrivalColumn).get<qint32>();
}

// Orders by key only; counts its calls and notes calls made off `home`.
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
        return keyOf(a) < keyOf(b);
    }
};

} // namespace

class tst_ConcurrentSort : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void sortsStably_data();
    void sortsStably();

private:
    Table *m_table = nullptr;
};

void tst_ConcurrentSort::initTestCase()
{
    m_table = new Table(QStringLiteral("quotes"), QString(), this);
    m_table->addColumn(QStringLiteral("key"), FieldType::Integer, 0, false);
    m_table->addColumn(QStringLiteral("arrival"), FieldType::Integer, 0, false);
}

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

// Every run is checked against a sequential model of the same steps on a plain
// vector: the same comparisons happen in both, so equal call counts show that
// the blocks were cut at n/8, n/4, ... and that 511 records were sorted whole.
void tst_ConcurrentSort::sortsStably()
{
    QFETCH(int, n);
    QFETCH(int, distinctKeys);
    QRandomGenerator random(quint32(n) + 1);
    PartitionList<Record> list;
    for (int i = 0; i < n; ++i) {
        Record record(m_table);
        record.data(keyColumn).set<qint32>(int(random.bounded(distinctKeys)));
        record.data(arrivalColumn).set<qint32>(i);
        list.append(record);
    }
    std::vector<Record> model(list.begin(), list.end());

    QAtomicInt calls;
    QAtomicInt foreignCalls;
    QAtomicInt modelCalls;
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
        for (int i = 0; i < 8; i += 2)
            std::inplace_merge(m(i), m(i + 1), m(i + 2), modelLess);
        std::inplace_merge(m(0), m(2), m(4), modelLess);
        std::inplace_merge(m(4), m(6), m(8), modelLess);
        std::inplace_merge(m(0), m(4), m(8), modelLess);
    }
    QCOMPARE(calls.loadRelaxed(), modelCalls.loadRelaxed());

    QCOMPARE(list.count(), n);
    for (int i = 1; i < n; ++i) {
        const Record &before = list.at(i - 1);
        const Record &after = list.at(i);
        QVERIFY2(keyOf(before) < keyOf(after)
                     || (keyOf(before) == keyOf(after) && arrivalOf(before) < arrivalOf(after)),
                 qPrintable(QStringLiteral("out of order at %1").arg(i)));
    }
    for (const Record &record : list)
        QCOMPARE(record.refCount(), 2); // the list and the model, nothing lost or doubled
}

QTEST_GUILESS_MAIN(tst_ConcurrentSort)
#include "tst_concurrentsort.moc"
