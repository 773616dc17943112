#ifndef DATABASE_SETTINGS_DEFAULTSETTINGS_H
#define DATABASE_SETTINGS_DEFAULTSETTINGS_H

#include <database/database_global.h>

#include <QSettings>
#include <QSharedPointer>
#include <QStringList>
#include <QVariant>

class DefaultSettingsPrivate;

// The application's shipped defaults: a JSON settings file (the "json"
// format of QtJsonSettings) that the host names, on disk or in Qt resources
// (":/defaults.json"). It is read once, when the object is built, and never
// written: the bottom layer under AppSettings and WorkplaceSettings.
//
// A file that is missing, unreadable or damaged leaves the defaults empty and
// is reported by status() (AccessError or FormatError), errorString() and a
// warning of category "QGuiLog". Unlike the user's files it is left where it
// is: it belongs to the installation, not to the user.
//
// A value type: copies share the one read-only map. Thread-safe for reading
// from any number of threads.
class DATABASE_EXPORT DefaultSettings
{
public:
    // No defaults at all.
    DefaultSettings();
    explicit DefaultSettings(const QString &fileName);
    ~DefaultSettings();
    DefaultSettings(const DefaultSettings &other);
    DefaultSettings &operator=(const DefaultSettings &other);

    QString fileName() const;
    QSettings::Status status() const;
    QString errorString() const;

    QVariant value(const QString &key, const QVariant &defaultValue = QVariant()) const;
    bool contains(const QString &key) const;
    QStringList allKeys() const;

private:
    QSharedPointer<const DefaultSettingsPrivate> d;
};

#endif // DATABASE_SETTINGS_DEFAULTSETTINGS_H
