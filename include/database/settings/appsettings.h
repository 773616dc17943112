#ifndef DATABASE_SETTINGS_APPSETTINGS_H
#define DATABASE_SETTINGS_APPSETTINGS_H

#include <database/database_global.h>
#include <database/settings/defaultsettings.h>

#include <QObject>
#include <QSettings>
#include <QStringList>
#include <QVariant>

class AppSettingsPrivate;

// The user's application settings: one JSON settings file (the "json" format
// of QtJsonSettings), by default "settings.json" in the user's configuration
// location (QStandardPaths::AppConfigLocation; the host may name another
// file). Reads fall back to the defaults; writes go to this file only.
//
// Layers, top to bottom, and where a value comes from (source()):
//   ApplicationSource  the user's file
//   DefaultSource      the DefaultSettings given at construction
//   NoSource           neither holds the key: value() returns defaultValue
// reset(key) removes a key, or a group with everything below it, from the
// user's file, so the layer below shows through again.
//
// Change signal: valueChanged(key) is emitted when a value of this file
// changes through any AppSettings or WorkplaceSettings of the process
// (setValue, reset), so that open views can follow; handles living in other
// threads get it queued. The key is the one given to setValue or reset (for a
// reset of a group: the group). Setting a key to the value it already holds
// emits nothing. Changes made by other processes, or through a plain
// QSettings, are not signalled.
//
// Data safety (QSettings' own machinery under the "json" format):
//   - saves are atomic: sync() writes a new file beside the old one and
//     renames it over, so a crash or full disk leaves the previous file;
//   - two processes writing the same file keep each other's keys: a save
//     holds "<file>.lock", rereads the file when its size or modification
//     time changed since this process read it, and writes the merge of what
//     is there with this process's own changes. (A rewrite by another process
//     with exactly the same size within the same millisecond is not seen.)
//   - a damaged file (bad JSON, wrong shape) is moved aside as
//     "<file>.damaged-<yyyyMMdd-HHmmss>" before anything can write over it;
//     status() is then QSettings::FormatError, errorString() names both files,
//     a warning is logged, and the defaults are used until the user's next
//     save writes a fresh file.
//
// Thread-safety: an object is used by one thread at a time; objects on the
// same file in different threads of the process share QSettings' store,
// which guards itself.
class DATABASE_EXPORT AppSettings : public QObject
{
    Q_OBJECT
public:
    enum Source { NoSource, DefaultSource, ApplicationSource, WorkplaceSource };
    Q_ENUM(Source)

    // An empty fileName means defaultFileName().
    explicit AppSettings(const DefaultSettings &defaults = DefaultSettings(),
                         const QString &fileName = QString(), QObject *parent = nullptr);
    ~AppSettings() override;

    // "settings.json" in QStandardPaths::AppConfigLocation.
    static QString defaultFileName();

    QString fileName() const;
    DefaultSettings defaults() const;

    QVariant value(const QString &key, const QVariant &defaultValue = QVariant()) const;
    bool contains(const QString &key) const;
    Source source(const QString &key) const;
    // Every key of the file and of the defaults, sorted.
    QStringList allKeys() const;

    void setValue(const QString &key, const QVariant &value);
    void reset(const QString &keyOrGroup);

    // Writes pending changes (QSettings also does so from the event loop and
    // on destruction).
    void sync();
    QSettings::Status status() const;
    QString errorString() const;

Q_SIGNALS:
    void valueChanged(const QString &key);

private:
    AppSettingsPrivate *const d;
};

#endif // DATABASE_SETTINGS_APPSETTINGS_H
