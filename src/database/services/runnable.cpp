#include <database/runnable.h>

#include <QMetaObject>
#include <QThreadPool>
#include <QWaitCondition>
#include <QtDebug>

#if defined(__SANITIZE_THREAD__)
#define DATABASE_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define DATABASE_THREAD_SANITIZER 1
#endif
#endif

#ifdef DATABASE_THREAD_SANITIZER
#include <sanitizer/tsan_interface.h>
#endif

namespace {
// Qt's mutexes, read-write locks and thread pool queue synchronise through
// futexes inside the Qt library, which the thread sanitizer does not
// instrument, so it cannot see the ordering they give. These two mark exactly
// that ordering on the object concerned: "acquired" right after taking a lock
// (or receiving an object from another thread), "releasing" right before
// giving it up (or handing the object over). Outside such builds they are
// empty.
inline void syncAcquired(const void *object)
{
#ifdef DATABASE_THREAD_SANITIZER
    __tsan_acquire(const_cast<void *>(object));
#else
    Q_UNUSED(object)
#endif
}

inline void syncReleasing(const void *object)
{
#ifdef DATABASE_THREAD_SANITIZER
    __tsan_release(const_cast<void *>(object));
#else
    Q_UNUSED(object)
#endif
}

class MutexGuard
{
public:
    explicit MutexGuard(QMutex &mutex)
        : m_mutex(mutex)
    {
        m_mutex.lock();
        syncAcquired(&m_mutex);
    }
    ~MutexGuard()
    {
        syncReleasing(&m_mutex);
        m_mutex.unlock();
    }

private:
    Q_DISABLE_COPY(MutexGuard)
    QMutex &m_mutex;
};

class ReadGuard
{
public:
    explicit ReadGuard(QReadWriteLock &lock)
        : m_lock(lock)
    {
        m_lock.lockForRead();
        syncAcquired(&m_lock);
    }
    ~ReadGuard()
    {
        syncReleasing(&m_lock);
        m_lock.unlock();
    }

private:
    Q_DISABLE_COPY(ReadGuard)
    QReadWriteLock &m_lock;
};

class WriteGuard
{
public:
    explicit WriteGuard(QReadWriteLock &lock)
        : m_lock(lock)
    {
        m_lock.lockForWrite();
        syncAcquired(&m_lock);
    }
    ~WriteGuard()
    {
        syncReleasing(&m_lock);
        m_lock.unlock();
    }

private:
    Q_DISABLE_COPY(WriteGuard)
    QReadWriteLock &m_lock;
};
} // namespace

// The wrappers of one manager that exist: the pool deletes a wrapper (and its
// payload) only after it has left the running list, so the manager's
// destructor waits here for the count to reach zero.
class RunnableTracker
{
public:
    void started()
    {
        MutexGuard guard(mutex);
        ++live;
    }
    void gone()
    {
        MutexGuard guard(mutex);
        if (--live == 0)
            allGone.wakeAll();
    }
    void waitUntilAllGone()
    {
        MutexGuard guard(mutex);
        while (live > 0) {
            syncReleasing(&mutex);
            allGone.wait(&mutex);
            syncAcquired(&mutex);
        }
    }

private:
    QMutex mutex;
    QWaitCondition allGone;
    int live = 0;
};

Runnable::Runnable()
    : m_mayRun(true)
{
}

Runnable::~Runnable() = default;

void Runnable::stop()
{
    MutexGuard guard(m_mutex);
    m_mayRun = false;
}

bool Runnable::canRun() const
{
    MutexGuard guard(m_mutex);
    return m_mayRun;
}

RunnableWrapper::RunnableWrapper(Runnable *payload, RunnableManager *manager, QList<void *> *list,
                                 QReadWriteLock *lock)
    : m_payload(payload)
    , m_waitCondition(QSharedPointer<QWaitCondition>::create())
    , m_manager(manager)
    , m_list(list)
    , m_lock(lock)
{
}

RunnableWrapper::~RunnableWrapper()
{
    delete m_payload;
    if (m_tracker)
        m_tracker->gone();
}

Runnable *RunnableWrapper::payload() const
{
    return m_payload;
}

void RunnableWrapper::run()
{
    syncAcquired(this); // handed over by startRunnable through the pool's queue
    m_payload->run();
    QMetaObject::invokeMethod(m_manager, "finished", Qt::QueuedConnection,
                              Q_ARG(void *, static_cast<void *>(this)));
    WriteGuard guard(*m_lock);
    m_list->removeOne(this);
    m_waitCondition->wakeAll();
}

void RunnableWrapper::wait()
{
    // Both are copied first: once woken, this wrapper may already be deleted.
    const QSharedPointer<QWaitCondition> condition = m_waitCondition;
    QReadWriteLock *const lock = m_lock;
    syncReleasing(lock);
    condition->wait(lock);
    syncAcquired(lock);
}

RunnableManager::RunnableManager(QObject *parent)
    : QObject(parent)
    , m_tracker(QSharedPointer<RunnableTracker>::create())
{
}

RunnableManager::~RunnableManager()
{
    stopRunnables(true);
    // Off the list is not yet deleted: the pool deletes the wrapper, and with
    // it the payload, only after run() has returned.
    m_tracker->waitUntilAllGone();
}

void *RunnableManager::startRunnable(Runnable *task, QThreadPool *pool, int priority)
{
    if (!task) {
        qWarning("RunnableManager::startRunnable: null task");
        return nullptr;
    }
    if (!pool) {
        qWarning("RunnableManager::startRunnable: null thread pool, task deleted");
        delete task;
        return nullptr;
    }
    auto *wrapper = new RunnableWrapper(task, this, &m_running, &m_lock);
    wrapper->m_tracker = m_tracker;
    m_tracker->started();
    {
        WriteGuard guard(m_lock);
        m_running.append(wrapper);
    }
    syncReleasing(wrapper);
    pool->start(wrapper, priority);
    return wrapper;
}

void RunnableManager::stopRunnable(void *handle, bool wait)
{
    ReadGuard guard(m_lock);
    if (m_running.lastIndexOf(handle) < 0)
        return;
    auto *wrapper = static_cast<RunnableWrapper *>(handle);
    wrapper->payload()->stop();
    if (wait)
        wrapper->wait();
}

void RunnableManager::stopRunnables(bool wait)
{
    ReadGuard guard(m_lock);
    const QList<void *> running = m_running;
    for (void *handle : running)
        static_cast<RunnableWrapper *>(handle)->payload()->stop();
    if (!wait)
        return;
    while (!m_running.isEmpty())
        static_cast<RunnableWrapper *>(m_running.first())->wait();
}

bool RunnableManager::isRunning() const
{
    ReadGuard guard(m_lock);
    return !m_running.isEmpty();
}

bool RunnableManager::isRunning(void *handle) const
{
    ReadGuard guard(m_lock);
    return m_running.lastIndexOf(handle) >= 0;
}
