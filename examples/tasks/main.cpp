// Background tasks and the log: work runs on a thread pool under a
// RunnableManager, which reports the end of each task in the thread that owns
// it; a LogFile keeps this run's log and the five before it.

#include <database/database.h>

#include <QAtomicInt>
#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>
#include <QThreadPool>

#include <cstdio>

//! [task]
// A task puts its work in run() and polls canRun() in every loop that may
// take long: stopping is cooperative, so a task that never polls runs to its
// end. The manager owns the task once started and deletes it when it ends.
class SumTask : public Runnable
{
public:
    SumTask(int upTo, QAtomicInt *total)
        : m_upTo(upTo)
        , m_total(total)
    {
    }
    void run() override
    {
        for (int i = 1; i <= m_upTo && canRun(); ++i)
            m_total->fetchAndAddRelaxed(i);
    }

private:
    int m_upTo;
    QAtomicInt *m_total;
};
//! [task]

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QTemporaryDir scratch;
    const QString logPath = scratch.filePath(QStringLiteral("tasks.log"));

    //! [run]
    // Opening a LogFile moves an older log of that name aside (tasks.1.log ..
    // tasks.5.log); write to it as to any QTextStream.
    LogFile log(logPath);
    RunnableManager manager;
    QThreadPool pool;
    QAtomicInt total;
    QList<void *> handles;
    int finished = 0;
    // finished(handle) is queued to the manager's thread: it arrives through
    // the event loop, after the task has ended.
    QObject::connect(&manager, &RunnableManager::finished, [&](void *handle) {
        log << "task " << handles.indexOf(handle) << " finished" << Qt::endl;
        if (++finished == handles.size())
            app.quit();
    });
    for (int i = 0; i < 4; ++i)
        handles << manager.startRunnable(new SumTask(1000, &total), &pool);
    app.exec();
    //! [run]

    // stopRunnables(true) asks every running task to stop and waits for them;
    // the manager's destructor does the same.
    manager.stopRunnables(true);
    log.flush();

    QFile file(logPath);
    file.open(QIODevice::ReadOnly);
    const QByteArray written = file.readAll();
    std::printf("%ssum %d\n", written.constData(), total.loadRelaxed());
    return total.loadRelaxed() == 4 * 500500 && written.count('\n') == 4 ? 0 : 1;
}
