#ifndef DATABASE_SETTINGS_SETTINGS_H
#define DATABASE_SETTINGS_SETTINGS_H

#include <database/database_global.h>
#include <database/settings/qtjsonsettings.h>

#include <QSettings>
#include <QSharedPointer>
#include <QStringList>
#include <QVariant>

class SettingsPrivate;

// A handle on a QSettings object, so that code can take "some settings" by
// value whether they live in a file or in memory (MapSettings).
//
// Ownership:
//   - Settings(QSettings *) borrows: it never deletes the object, which must be
//     owned elsewhere. If that object is destroyed first the handle notices
//     and behaves as a null handle (below) instead of touching freed memory.
//   - Settings(fileName, format) creates its QSettings and owns it; copies
//     share it and the last copy deletes it (QSettings syncs on deletion).
// Copies always share the one QSettings: a group entered through one copy is
// the current group of all of them.
//
// Constness is shallow, as for a pointer: a const Settings may read and move
// through groups and arrays (which changes the wrapped object's position, not
// its contents); writing (setValue, remove, beginWriteArray) needs a non-const
// handle.
//
// A null handle (built over nullptr, or whose borrowed object is gone) is
// misuse: each call logs a warning and returns an empty value.
//
// Thread-safety: as for the wrapped QSettings; one thread at a time.
class DATABASE_EXPORT Settings
{
public:
    explicit Settings(QSettings *settings);
    explicit Settings(const QString &fileName,
                      QSettings::Format format = QtJsonSettings::JsonFormat);
    ~Settings();
    Settings(const Settings &other);
    Settings &operator=(const Settings &other);

    bool isNull() const;
    QSettings *getQSettings() const;

    QVariant value(const QString &key, const QVariant &defaultValue = QVariant()) const;
    bool contains(const QString &key) const;
    QStringList allKeys() const;
    QStringList childKeys() const;
    QStringList childGroups() const;

    QString group() const;
    void beginGroup(const QString &prefix) const;
    void endGroup() const;

    int beginReadArray(const QString &prefix) const;
    void beginWriteArray(const QString &prefix, int size = -1);
    void setArrayIndex(int i) const;
    void endArray() const;

    void setValue(const QString &key, const QVariant &value);
    void remove(const QString &key);

    void sync() const;
    QSettings::Status status() const;

private:
    QSettings *checked(const char *operation) const;

    QSharedPointer<const SettingsPrivate> d;
};

#endif // DATABASE_SETTINGS_SETTINGS_H
