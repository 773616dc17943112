#include <database/runnable.h>

#include <QSignalSpy>
#include <QThreadPool>
#include <QtTest>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace {
std::atomic<int> g_runsEnded { 0 };
std::atomic<int> g_destroyed { 0 };

// Gated: blocks until stopped. Polling: polls canRun() through a bounded amount
// of work, so it ends early when stopped and on its own otherwise. Short: never
// polls.
enum class Mode { Gated, Polling, Short };

class Task : public Runnable
{
public:
    explicit Task(Mode mode)
        : m_mode(mode)
    {
    }
    ~Task() override { ++g_destroyed; }

    void run() override
    {
        if (m_mode == Mode::Gated) {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_wake.wait(lock, [this] { return !canRun(); });
        } else {
            for (int i = 0; i < 2000 && (m_mode == Mode::Short || canRun()); ++i)
                m_work.fetch_add(1, std::memory_order_relaxed);
        }
        ++g_runsEnded;
    }
    void stop() override
    {
        Runnable::stop();
        {
            std::lock_guard<std::mutex> lock(m_mutex);
        }
        m_wake.notify_all();
    }

private:
    const Mode m_mode;
    std::atomic<int> m_work { 0 };
    std::mutex m_mutex;
    std::condition_variable m_wake;
};

void resetCounters()
{
    g_runsEnded = 0;
    g_destroyed = 0;
}
} // namespace

class TestRunnable : public QObject
{
    Q_OBJECT
private slots:
    void init() { resetCounters(); }
    void stopWaitsForTheTask();
    void finishedHandleIsIgnored();
    void manyTasksFromSeveralThreads();
    void destructorStopsAndWaits();
};

void TestRunnable::stopWaitsForTheTask()
{
    QThreadPool pool;
    RunnableManager manager;
    QSignalSpy spy(&manager, &RunnableManager::finished);
    QThread *emittedIn = nullptr;
    connect(
        &manager, &RunnableManager::finished, this,
        [&emittedIn] { emittedIn = QThread::currentThread(); }, Qt::DirectConnection);

    // Repeated, so that the pool deleting the wrapper while the waiter wakes
    // is likely to happen at least once under the sanitizers.
    for (int round = 0; round < 50; ++round) {
        void *other = manager.startRunnable(new Task(Mode::Gated), &pool);
        void *handle = manager.startRunnable(new Task(Mode::Gated), &pool);
        QVERIFY(manager.isRunning());
        QVERIFY(manager.isRunning(handle));
        // The task can leave the list only once the waiter has released the
        // lock inside the wait, so it always ends during the wait.
        manager.stopRunnable(handle, true);
        QVERIFY(!manager.isRunning(handle));
        QVERIFY(manager.isRunning(other));
        QCOMPARE(spy.count(), 2 * round); // finished is queued, not yet delivered
        manager.stopRunnable(other, true);
        QVERIFY(!manager.isRunning());
        while (spy.count() < 2 * round + 2)
            QVERIFY(spy.wait());
        QCOMPARE(spy.at(2 * round).at(0).value<void *>(), handle);
        QCOMPARE(spy.at(2 * round + 1).at(0).value<void *>(), other);
    }
    QCOMPARE(emittedIn, QThread::currentThread());
    pool.waitForDone();
    QCOMPARE(g_destroyed.load(), 100);
}

void TestRunnable::finishedHandleIsIgnored()
{
    QThreadPool pool;
    RunnableManager manager;
    QSignalSpy spy(&manager, &RunnableManager::finished);
    void *handle = manager.startRunnable(new Task(Mode::Short), &pool);
    manager.stopRunnable(handle, true);
    QVERIFY(!manager.isRunning(handle));
    // The handle is gone and nothing else runs: neither call may wait, and a
    // hang here is the failure.
    manager.stopRunnable(handle, true);
    manager.stopRunnables(true);
    QVERIFY(spy.wait());
    QCOMPARE(spy.at(0).at(0).value<void *>(), handle);
}

void TestRunnable::manyTasksFromSeveralThreads()
{
    QThreadPool pool;
    pool.setMaxThreadCount(4);
    RunnableManager manager;
    QSignalSpy spy(&manager, &RunnableManager::finished);

    constexpr int kThreads = 3;
    constexpr int kTasksPerThread = 200;
    std::vector<std::vector<void *>> started(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kTasksPerThread; ++i) {
                void *handle = manager.startRunnable(new Task(i % 3 ? Mode::Polling : Mode::Short),
                                                     &pool, i % 5);
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
    std::vector<void *> announced;
    for (const QList<QVariant> &args : spy)
        announced.push_back(args.at(0).value<void *>());
    std::vector<void *> all;
    for (const std::vector<void *> &handles : started)
        all.insert(all.end(), handles.begin(), handles.end());
    // Addresses of deleted wrappers may be reused, so compare as multisets.
    std::sort(announced.begin(), announced.end());
    std::sort(all.begin(), all.end());
    QVERIFY(announced == all);
    pool.waitForDone();
    QCOMPARE(g_destroyed.load(), kThreads * kTasksPerThread);
}

void TestRunnable::destructorStopsAndWaits()
{
    QThreadPool pool;
    pool.setMaxThreadCount(2);
    auto *manager = new RunnableManager;
    for (int i = 0; i < 20; ++i)
        manager->startRunnable(new Task(i % 2 ? Mode::Gated : Mode::Short), &pool);
    delete manager;
    QCOMPARE(g_runsEnded.load(), 20);
    // The finished events posted to the deleted manager must be dropped.
    QCoreApplication::processEvents();
    pool.waitForDone();
    QCOMPARE(g_destroyed.load(), 20);
}

QTEST_GUILESS_MAIN(TestRunnable)
#include "tst_runnable.moc"
