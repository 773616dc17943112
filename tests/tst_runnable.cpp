// The runtime services: background tasks and the rotating log file.

#include <database/logfile.h>
#include <database/runnable.h>

#include <QtTest>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

namespace {
std::atomic<int> g_runsEnded { 0 };
std::atomic<int> g_destroyed { 0 };

// A gated task spins until stopped; an ungated one polls canRun() through a
// bounded amount of work, so it ends early when stopped and on its own
// otherwise.
class Task : public Runnable
{
public:
    explicit Task(bool gated)
        : m_gated(gated)
    {
    }
    ~Task() override
    {
        // A slow destructor widens the gap between a task leaving the running
        // list and its deletion by the pool.
        if (slowDestructor)
            QThread::msleep(2);
        ++g_destroyed;
    }
    bool slowDestructor = false;

    void run() override
    {
        for (int polls = 0; canRun() && (m_gated || polls < 200); ++polls)
            QThread::yieldCurrentThread();
        ++g_runsEnded;
    }

private:
    const bool m_gated;
};

} // namespace

class TestRunnable : public QObject
{
    Q_OBJECT
private slots:
    void init() { g_runsEnded = g_destroyed = 0; }
    void stopWaitsForTheTask();
    void manyTasksFromSeveralThreads();
    void refusesNullsAndDestructorWaits();
    void logRotation_data();
    void logRotation();
};

void TestRunnable::stopWaitsForTheTask()
{
    QThreadPool pool;
    RunnableManager manager;
    QSignalSpy spy(&manager, &RunnableManager::finished);
    // Repeated, so that the pool deleting the wrapper while the waiter wakes
    // happens at least once under the sanitizers.
    for (int round = 0; round < 50; ++round) {
        void *other = manager.startRunnable(new Task(true), &pool);
        void *handle = manager.startRunnable(new Task(true), &pool);
        QVERIFY(manager.isRunning(handle));
        // The task can leave the list only once the waiter has released the
        // lock inside the wait, so it always ends during the wait.
        manager.stopRunnable(handle, true);
        QVERIFY(!manager.isRunning(handle) && manager.isRunning(other) && manager.isRunning());
        // finished is queued to this thread: not emitted from the pool, not yet delivered
        QCOMPARE(spy.count(), 2 * round);
        manager.stopRunnable(other, true);
        QVERIFY(!manager.isRunning());
        // Handles no longer running: a hang here is the failure.
        manager.stopRunnable(handle, true);
        manager.stopRunnables(true);
        while (spy.count() < 2 * round + 2)
            QVERIFY(spy.wait());
        QCOMPARE(spy.at(2 * round).at(0).value<void *>(), handle);
        QCOMPARE(spy.at(2 * round + 1).at(0).value<void *>(), other);
    }
    QVERIFY(pool.waitForDone(60000));
    QCOMPARE(g_destroyed.load(), 100);
}

void TestRunnable::manyTasksFromSeveralThreads()
{
    QThreadPool pool;
    pool.setMaxThreadCount(4);
    RunnableManager manager;
    QSignalSpy spy(&manager, &RunnableManager::finished);
    constexpr int kThreads = 3, kTasksPerThread = 200;
    std::vector<void *> started[kThreads];
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kTasksPerThread; ++i) {
                void *handle = manager.startRunnable(new Task(false), &pool, i % 5);
                started[t].push_back(handle);
                if (i % 4 == 0)
                    manager.stopRunnable(handle, i % 8 == 0);
                if (i % 50 == 49)
                    manager.stopRunnables(t == 0);
                manager.isRunning(started[t][i / 2]);
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    manager.stopRunnables(true);
    QVERIFY(!manager.isRunning());
    QCOMPARE(g_runsEnded.load(), kThreads * kTasksPerThread);
    while (spy.count() < kThreads * kTasksPerThread)
        QVERIFY(spy.wait());
    // Addresses of deleted wrappers may be reused, so compare as multisets.
    std::vector<void *> announced, all;
    std::transform(spy.begin(), spy.end(), std::back_inserter(announced),
                   [](const QList<QVariant> &args) { return args.at(0).value<void *>(); });
    for (const std::vector<void *> &handles : started)
        all.insert(all.end(), handles.begin(), handles.end());
    std::sort(announced.begin(), announced.end());
    std::sort(all.begin(), all.end());
    QVERIFY(announced == all);
    QVERIFY(pool.waitForDone(60000));
    QCOMPARE(g_destroyed.load(), kThreads * kTasksPerThread);
}

void TestRunnable::refusesNullsAndDestructorWaits()
{
    QThreadPool pool;
    pool.setMaxThreadCount(2);
    auto *manager = new RunnableManager;
    QTest::ignoreMessage(QtWarningMsg, "RunnableManager::startRunnable: null task");
    QCOMPARE(manager->startRunnable(nullptr, &pool), nullptr);
    QTest::ignoreMessage(QtWarningMsg,
                         "RunnableManager::startRunnable: null thread pool, task deleted");
    QCOMPARE(manager->startRunnable(new Task(false), nullptr), nullptr);
    for (int i = 0; i < 20; ++i) {
        auto *task = new Task(i % 2);
        task->slowDestructor = i >= 18;
        manager->startRunnable(task, &pool);
    }
    delete manager;
    QCOMPARE(g_runsEnded.load(), 20);
    // Every payload is gone before the destructor returns.
    QCOMPARE(g_destroyed.load(), 21);
    // The finished events posted to the deleted manager must be dropped.
    QCoreApplication::processEvents();
    QVERIFY(pool.waitForDone(60000));
    QCOMPARE(g_destroyed.load(), 21);
}

// A row reads "log: files before -> listing after". Each file that exists
// beforehand holds its own name, so the listing ("name=content", by name)
// shows where every file went; the new log holds "new".
void TestRunnable::logRotation_data()
{
    QTest::addColumn<QString>("row");
    QTest::newRow("no previous log") << "app.log: app.2.log -> app.2.log=app.2.log app.log=new";
    QTest::newRow("oldest dropped, gap kept")
        << "app.log: app.log app.1.log app.2.log app.4.log app.5.log -> app.1.log=app.log "
           "app.2.log=app.1.log app.3.log=app.2.log app.5.log=app.4.log app.log=new";
    QTest::newRow("no suffix") << "app: app app.1. -> app=new app.1.=app app.2.=app.1.";
    QTest::newRow("dots and percent")
        << "a%1.b.log: a%1.b.log -> a%1.b.1.log=a%1.b.log a%1.b.log=new";
}

void TestRunnable::logRotation()
{
    QFETCH(QString, row);
    const QStringList parts = row.split(QRegularExpression(": | -> "));
    QTemporaryDir dir;
    for (const QString &name : parts[1].split(' ')) {
        QFile file(dir.filePath(name));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(name.toUtf8()) > 0);
    }
    LogFile(dir.filePath(parts[0])) << "new";
    QStringList listing;
    for (const QString &name : QDir(dir.path()).entryList(QDir::Files, QDir::Name)) {
        QFile file(dir.filePath(name));
        listing << name + '=' + (file.open(QIODevice::ReadOnly) ? file.readAll() : "?");
    }
    QCOMPARE(listing.join(' '), parts[2]);
}

QTEST_GUILESS_MAIN(TestRunnable)
#include "tst_runnable.moc"
