#include <database/core/icore.h>

#include <QAtomicPointer>
#include <QHash>
#include <QMutex>

namespace {
QAtomicPointer<ICore> installedCore;
}

ICore::~ICore() = default;

ICore *ICore::instance()
{
    ICore *core = installedCore.loadAcquire();
    return core ? core : DefaultCore::global();
}

void ICore::setInstance(ICore *core)
{
    installedCore.storeRelease(core);
}

class DefaultCorePrivate
{
public:
    mutable QMutex mutex;
    QHash<QString, Table *> tables;
    bool compress = false;
};

DefaultCore::DefaultCore()
    : d(new DefaultCorePrivate)
{
}

DefaultCore::~DefaultCore() = default;

DefaultCore *DefaultCore::global()
{
    // Never destroyed: tables that outlive static destruction still forget
    // themselves safely.
    static DefaultCore *const core = new DefaultCore;
    return core;
}

void DefaultCore::addTable(const QString &name, Table *table)
{
    if (!table)
        return;
    QMutexLocker locker(&d->mutex);
    d->tables.insert(name, table);
}

void DefaultCore::forgetTable(const Table *table)
{
    QMutexLocker locker(&d->mutex);
    for (auto it = d->tables.begin(); it != d->tables.end();) {
        if (it.value() == table)
            it = d->tables.erase(it);
        else
            ++it;
    }
}

void DefaultCore::removeTable(const QString &name)
{
    QMutexLocker locker(&d->mutex);
    d->tables.remove(name);
}

void DefaultCore::setCompressTableFiles(bool compress)
{
    QMutexLocker locker(&d->mutex);
    d->compress = compress;
}

Table *DefaultCore::findTable(const QString &name) const
{
    QMutexLocker locker(&d->mutex);
    return d->tables.value(name);
}

bool DefaultCore::compressTableFiles() const
{
    QMutexLocker locker(&d->mutex);
    return d->compress;
}
