// Update brackets opened from several threads take turns on the table's lock:
// four writers run transactions in brackets while a fifth thread reads the
// price view under the lock and saves the table.

#include "indexchecker.h"
#include "testsupport.h"
#include "transfixture.h"

#include <database/recordstrans.h>
#include <database/tableio.h>

#include <QThread>
#include <QtTest>

#include <atomic>
#include <functional>

using namespace TransFixture;

class tst_TableThreads : public QObject
{
    Q_OBJECT
private slots:
    void bracketsFromSeveralThreads();
};

namespace {

const int kWriters = 4;
const int kKeysPerWriter = 50;
const int kRounds = 150;

// Writer w owns the keys w * 1000 .. w * 1000 + kKeysPerWriter - 1: each round
// updates all of them in one transaction, and withdraws and re-inserts one.
void writeRounds(QuoteTable &q, int writer)
{
    for (int round = 0; round < kRounds; ++round) {
        q.table.beginUpdate();
        q.table.beginUpdate(); // nested: counts only
        {
            RecordsTrans trans(&q.table);
            for (int k = 0; k < kKeysPerWriter; ++k) {
                const int id = writer * 1000 + k;
                RecordUpdater updater(&trans, q.find(id));
                updater.updateInMap();
                updater.setValue(Price, double((round * 7 + k * 13) % 101));
                updater.setValue(Qty, round);
            }
            const int moved = writer * 1000 + round % kKeysPerWriter;
            RecordUpdater gone(&trans, q.find(moved));
            gone.updateInMap();
            gone.remove();
        }
        q.table.endUpdate();
        {
            RecordsTrans trans(&q.table);
            RecordUpdater back(&trans);
            back.insertInMap(q.row(writer * 1000 + round % kKeysPerWriter, { "w", 0, round }));
        }
        q.table.endUpdate();
    }
}

} // namespace

void tst_TableThreads::bracketsFromSeveralThreads()
{
    QuoteTable q;
    Model start;
    for (int w = 0; w < kWriters; ++w)
        for (int k = 0; k < kKeysPerWriter; ++k)
            start.insert(w * 1000 + k, { "w", 1.0, 0 });
    q.fill(start);

    std::atomic<bool> writing { true };
    std::atomic<int> saves { 0 }, disorders { 0 };
    QThread *reader = QThread::create([&] {
        while (writing.load()) {
            q.table.lock();
            double last = -1;
            for (const Record &row : *q.view) {
                const double price = row.data(Price).get<double>();
                if (price < last)
                    ++disorders;
                last = price;
            }
            q.table.unlock();
            if (!TestSupport::savedBytes(q.table).isEmpty())
                ++saves;
        }
    });
    QList<QThread *> writers;
    for (int w = 0; w < kWriters; ++w)
        writers.append(QThread::create([&q, w] { writeRounds(q, w); }));
    reader->start();
    for (QThread *writer : qAsConst(writers))
        writer->start();
    for (QThread *writer : qAsConst(writers)) {
        QVERIFY(writer->wait(120000));
        delete writer;
    }
    writing.store(false);
    QVERIFY(reader->wait(120000));
    delete reader;

    QCOMPARE(q.table.updateDepth(), 0);
    QCOMPARE(disorders.load(), 0);
    QVERIFY(saves.load() > 0);
    QCOMPARE(q.table.rowCount(), kWriters * kKeysPerWriter);
    QVERIFY_INDEXES(&q.table);
    // A save after the writers neither blocks nor misses a row.
    QVERIFY(!TestSupport::savedBytes(q.table).isEmpty());
    const Model end = modelOf(q.table);
    for (int w = 0; w < kWriters; ++w)
        QCOMPARE(end.value(w * 1000 + kKeysPerWriter - 1).qty, kRounds - 1);
}

QTEST_GUILESS_MAIN(tst_TableThreads)
#include "tst_tablethreads.moc"
