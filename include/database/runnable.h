#ifndef DATABASE_RUNNABLE_H
#define DATABASE_RUNNABLE_H

#include <database/database_global.h>

#include <QList>
#include <QMutex>
#include <QObject>
#include <QReadWriteLock>
#include <QRunnable>
#include <QSharedPointer>

class QThreadPool;
class QWaitCondition;
class RunnableManager;
class RunnableTracker;

// Runnable is a cancellable unit of work for a thread pool. Subclasses put the
// work in run() and, in every loop that may take long, poll canRun() and leave
// early once it turns false. Stopping is cooperative: a run() that never polls
// canRun() runs to its end.
//
// Thread-safety: stop() and canRun() may be called from any thread; the flag is
// guarded by the object's own mutex.
//
// Invariants:
//  1. The may-run flag starts true and, once false, never becomes true again.
class DATABASE_EXPORT Runnable : public QRunnable
{
public:
    Runnable();
    ~Runnable() override;

    // Asks the work to end; returns at once without waiting.
    virtual void stop();
    // False once stop() has been called.
    virtual bool canRun() const;

private:
    Q_DISABLE_COPY(Runnable)

    mutable QMutex m_mutex;
    bool m_mayRun;
};

// RunnableWrapper is what the thread pool actually runs for a task started by a
// RunnableManager: it runs the payload, announces the end to the manager and
// takes itself off the manager's running list. Its address is the task's
// handle. Users do not create wrappers themselves; RunnableManager does.
//
// Ownership: the wrapper owns its payload and deletes it in its destructor. It
// stays in auto-delete mode, so the pool deletes the wrapper after run().
//
// Lifetime: the wrapper lives from startRunnable until the pool deletes it,
// which happens after it has left the running list. Anyone holding the
// manager's lock while the wrapper is on the list may use it safely.
//
// Invariants:
//  1. The wait condition is shared, so a waiter that took a reference to it
//     may outlive the wrapper.
//  2. The wait condition is woken exactly once, under the manager's write lock,
//     right after the wrapper has left the running list.
class DATABASE_EXPORT RunnableWrapper : public QRunnable
{
public:
    // REQUIRES: payload, manager, list and lock are not null; list and lock are
    // the manager's own and outlive the wrapper.
    RunnableWrapper(Runnable *payload, RunnableManager *manager, QList<void *> *list,
                    QReadWriteLock *lock);
    ~RunnableWrapper() override;

    Runnable *payload() const;

    // Runs the payload, posts the manager's finished(this) as a queued call,
    // then, under the write lock, leaves the running list and wakes all
    // waiters.
    void run() override;

    // Blocks until this wrapper has left the running list.
    // REQUIRES: the caller holds the manager's lock for reading and the wrapper
    // is still on the running list. The lock is released while waiting and
    // taken for reading again before returning; by then the wrapper may have
    // been deleted, so the caller must not use it afterwards.
    void wait();

private:
    Q_DISABLE_COPY(RunnableWrapper)

    friend class RunnableManager;

    Runnable *const m_payload;
    const QSharedPointer<QWaitCondition> m_waitCondition;
    // Set by the manager that started the wrapper: told when the wrapper and
    // its payload are gone. Shared, so it outlives whichever goes last.
    QSharedPointer<RunnableTracker> m_tracker;
    RunnableManager *const m_manager;
    QList<void *> *const m_list;
    QReadWriteLock *const m_lock;
};

// RunnableManager starts Runnable tasks on a thread pool, keeps the handles of
// those still running in start order, stops one or all of them cooperatively,
// can wait until they have ended, and announces the end of each task with
// finished(handle), emitted in the manager's own thread.
//
// Handles: a handle is the address of the task's RunnableWrapper. It is valid
// while isRunning(handle) is true; after that the pool may delete the wrapper
// and a later task may even get the same address. finished(handle) arrives
// after the task has ended, so receivers use the handle only as an identity
// (to match it against the value returned by startRunnable). finished is
// posted just before the task leaves the running list, so a receiver may
// still, briefly, see isRunning(handle) true.
//
// Thread-safety: every member function may be called from any thread. The
// running list is guarded by the manager's read-write lock; the pool threads
// write it, the stop and query operations read it, and waiting happens on a
// wait condition with that lock held for reading.
//
// REQUIRES: stop...(wait = true) and the destructor are not called from inside
// one of the manager's own tasks (it would wait for itself), and the pool
// must be able to run the awaited tasks.
//
// State of a task:
//
//   startRunnable --> running (on the list) --run() returns--> off the list
//        |                 |                                   (wrapper and
//        |              stop(): canRun() false                  payload deleted
//        |                                                      by the pool)
//        +--> finished(handle) delivered later in the manager's thread
//
// Invariants:
//  1. The running list holds the handles of started, unfinished tasks, each
//     once, in start order.
//  2. The destructor returns only after every task started by this manager has
//     left the running list and its wrapper and payload have been deleted: no
//     payload outlives the manager.
class DATABASE_EXPORT RunnableManager : public QObject
{
    Q_OBJECT
public:
    explicit RunnableManager(QObject *parent = nullptr);
    // Stops every task and waits until all have ended and every wrapper and
    // payload has been deleted.
    ~RunnableManager() override;

    // Takes ownership of task, starts it on pool with the given priority and
    // returns its handle.
    // REQUIRES: task and pool are not null; pool outlives the task.
    void *startRunnable(Runnable *task, QThreadPool *pool, int priority = 0);

    // Stops the task of the handle and, if wait is true, blocks until it has
    // ended. A handle no longer running is ignored and nothing is awaited.
    void stopRunnable(void *handle, bool wait);

    // Stops every running task, in start order, and, if wait is true, blocks
    // until the running list is empty. Tasks that other threads start during
    // the wait are not stopped, but they are awaited too.
    void stopRunnables(bool wait);

    // True while any task is running.
    bool isRunning() const;
    // True while the task of the handle is running.
    bool isRunning(void *handle) const;

signals:
    // The task of the handle has ended. Emitted in the manager's thread.
    void finished(void *handle);

private:
    Q_DISABLE_COPY(RunnableManager)

    QList<void *> m_running;
    mutable QReadWriteLock m_lock;
    // Counts the wrappers started here and not yet deleted.
    const QSharedPointer<RunnableTracker> m_tracker;
};

#endif // DATABASE_RUNNABLE_H
