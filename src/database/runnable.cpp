#include "runnable.h"

#include <QMetaObject>
#include <QMutexLocker>
#include <QReadLocker>
#include <QThreadPool>
#include <QWaitCondition>
#include <QWriteLocker>
#include <QtDebug>

Runnable::Runnable()
    : m_mayRun(true)
{
}

Runnable::~Runnable() = default;

void Runnable::stop()
{
    QMutexLocker locker(&m_mutex);
    m_mayRun = false;
}

bool Runnable::canRun() const
{
    QMutexLocker locker(&m_mutex);
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
}

Runnable *RunnableWrapper::payload() const
{
    return m_payload;
}

void RunnableWrapper::run()
{
    m_payload->run();
    QMetaObject::invokeMethod(m_manager, "finished", Qt::QueuedConnection,
                              Q_ARG(void *, static_cast<void *>(this)));
    QWriteLocker locker(m_lock);
    m_list->removeOne(this);
    m_waitCondition->wakeAll();
}

void RunnableWrapper::wait()
{
    // Both are copied first: once woken, this wrapper may already be deleted.
    const QSharedPointer<QWaitCondition> condition = m_waitCondition;
    QReadWriteLock *const lock = m_lock;
    condition->wait(lock);
}

RunnableManager::RunnableManager(QObject *parent)
    : QObject(parent)
{
}

RunnableManager::~RunnableManager()
{
    stopRunnables(true);
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
    {
        QWriteLocker locker(&m_lock);
        m_running.append(wrapper);
    }
    pool->start(wrapper, priority);
    return wrapper;
}

void RunnableManager::stopRunnable(void *handle, bool wait)
{
    QReadLocker locker(&m_lock);
    if (m_running.lastIndexOf(handle) < 0)
        return;
    auto *wrapper = static_cast<RunnableWrapper *>(handle);
    wrapper->payload()->stop();
    if (wait)
        wrapper->wait();
}

void RunnableManager::stopRunnables(bool wait)
{
    QReadLocker locker(&m_lock);
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
    QReadLocker locker(&m_lock);
    return !m_running.isEmpty();
}

bool RunnableManager::isRunning(void *handle) const
{
    QReadLocker locker(&m_lock);
    return m_running.lastIndexOf(handle) >= 0;
}
