#include "core/icore.h"

#include "database/table.h"

#include <QAtomicPointer>
#include <QHash>
#include <QMutex>
#include <QPointer>

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

struct DefaultCore::Private
{
    mutable QMutex mutex;
    QHash<QString, QPointer<Table>> tables;
    bool compress = false;
};

DefaultCore::DefaultCore()
    : d(new Private)
{
}

DefaultCore::~DefaultCore()
{
    delete d;
}

DefaultCore *DefaultCore::global()
{
    static DefaultCore core;
    return &core;
}

void DefaultCore::addTable(Table *table)
{
    if (!table)
        return;
    QMutexLocker locker(&d->mutex);
    d->tables.insert(table->name(), table);
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
    return d->tables.value(name).data();
}

bool DefaultCore::compressTableFiles() const
{
    QMutexLocker locker(&d->mutex);
    return d->compress;
}
