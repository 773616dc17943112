#ifndef DATABASE_CORE_ICORE_H
#define DATABASE_CORE_ICORE_H

#include <database/database_global.h>

#include <QScopedPointer>
#include <QString>

class Table;

// ICore: what the library asks of the host application's core object.
//
// The library reaches the host only through ICore::instance(): table files ask
// whether saves are to be compressed, and row lists and by-name list indexes
// look tables up by name. A host installs its own subclass with setInstance();
// until then (and after setInstance(nullptr)) the library's DefaultCore
// answers, so instance() is never null.
//
// Ownership: setInstance() does not take ownership; the host keeps its core
// alive while it is installed. Thread-safety: instance() and setInstance() may
// be called from any thread; the DefaultCore's registry is guarded by a mutex.
class DATABASE_EXPORT ICore
{
public:
    virtual ~ICore();

    static ICore *instance();
    static void setInstance(ICore *core);

    // The table registered under `name`, or null when there is none.
    virtual Table *findTable(const QString &name) const = 0;
    // Whether table files are saved gzip-compressed; asked afresh on every save.
    virtual bool compressTableFiles() const = 0;
};

// DefaultCore: the core used when no host has installed its own. It keeps a
// registry of tables by name and a compression switch, off by default.
//
// The core sits below the table layer and knows tables only as pointers: the
// host names each table it registers, and a table leaves the registry when it
// is destroyed (its destructor calls forgetTable()), so a lookup never answers
// a deleted table. The global instance lives until the process ends.
class DefaultCorePrivate;

class DATABASE_EXPORT DefaultCore : public ICore
{
public:
    DefaultCore();
    ~DefaultCore() override;

    // The process-wide default core.
    static DefaultCore *global();

    // Registers `table` under `name` (normally Table::name()), replacing an
    // earlier table of that name. A null table is ignored.
    void addTable(const QString &name, Table *table);
    void removeTable(const QString &name);
    // Drops every name under which `table` is registered.
    void forgetTable(const Table *table);
    void setCompressTableFiles(bool compress);

    Table *findTable(const QString &name) const override;
    bool compressTableFiles() const override;

private:
    Q_DISABLE_COPY(DefaultCore)
    const QScopedPointer<DefaultCorePrivate> d;
};

#endif // DATABASE_CORE_ICORE_H
