#ifndef DATABASE_SETTINGS_WORKPLACESETTINGS_H
#define DATABASE_SETTINGS_WORKPLACESETTINGS_H

#include <database/database_global.h>
#include <database/settings/appsettings.h>

#include <QObject>
#include <QSettings>
#include <QStringList>
#include <QVariant>

class WorkplaceSettingsPrivate;

// Named workplaces: the layout of windows, views, column orders and filters,
// one JSON settings file "<name>.json" each in a workplaces folder (by
// default "workplaces" in QStandardPaths::AppConfigLocation). The handle has
// at most one current workplace.
//
// Layers, top to bottom (source() tells which one a value comes from):
//   WorkplaceSource    the current workplace's file
//   ApplicationSource  the application's file (AppSettings)
//   DefaultSource      the application's defaults
// Reads fall back down the layers; setValue and reset act on the current
// workplace only. Without a current workplace, reads see the application's
// layers and a write is misuse (a warning, nothing written).
//
// States:
//     no workplace --switchTo/saveAs(name)--> workplace "name"
//     workplace "a" --switchTo/saveAs(b)----> workplace "b"
//     workplace "a" --rename(a, b)----------> workplace "b"
//     workplace "a" --removed by another handle--> no workplace
// currentChanged(name) announces each move (an empty name: none). Handles
// of the process whose workplace is renamed or removed through another
// handle follow (queued when they live in another thread).
//
// Names: 1 to MaxNameLength characters, no "/", "\", NUL or other control
// characters, not starting with "." (so not "." or ".."), no spaces at either
// end. Anything else is refused, with the reason in errorString(), before any
// file is touched. Operations return false on failure and say why in
// errorString(); they never overwrite an existing workplace (create, copy,
// rename and saveAs refuse a name that is taken) and refuse to remove the
// current one.
//
// Change signal, data safety and damaged files: as for AppSettings, for the
// current workplace's file and the application's file below it (a change of
// the application's file is announced only for keys the workplace does not
// hold). After a failed operation status() is AccessError and errorString()
// says why, until an operation succeeds; otherwise both report on the current
// workplace's file.
//
// Thread-safety: as for AppSettings.
class DATABASE_EXPORT WorkplaceSettings : public QObject
{
    Q_OBJECT
public:
    static constexpr int MaxNameLength = 100;

    // Layers under the workplaces: the file and defaults of app (which is
    // not kept: this handle opens the same file itself). An empty folder
    // means defaultFolder().
    explicit WorkplaceSettings(const AppSettings &app, const QString &folder = QString(),
                               QObject *parent = nullptr);
    ~WorkplaceSettings() override;

    // "workplaces" in QStandardPaths::AppConfigLocation.
    static QString defaultFolder();
    // Whether name may name a workplace; if not and error is given, why.
    static bool isValidName(const QString &name, QString *error = nullptr);

    QString folder() const;
    // Names of the workplaces in the folder, sorted.
    QStringList workplaces() const;
    // The current workplace, or an empty string.
    QString current() const;

    // A new, empty workplace (not made current).
    bool create(const QString &name);
    // A new workplace holding the keys of from.
    bool copy(const QString &from, const QString &to);
    bool rename(const QString &from, const QString &to);
    bool remove(const QString &name);
    // Makes an existing workplace current (saving the one left).
    bool switchTo(const QString &name);
    // Copies the current workplace (or, without one, creates an empty one)
    // under a new name and makes it current.
    bool saveAs(const QString &name);

    QVariant value(const QString &key, const QVariant &defaultValue = QVariant()) const;
    bool contains(const QString &key) const;
    AppSettings::Source source(const QString &key) const;
    QStringList allKeys() const;

    void setValue(const QString &key, const QVariant &value);
    void reset(const QString &keyOrGroup);

    void sync();
    QSettings::Status status() const;
    QString errorString() const;

Q_SIGNALS:
    void valueChanged(const QString &key);
    void currentChanged(const QString &name);

private:
    WorkplaceSettingsPrivate *const d;
};

#endif // DATABASE_SETTINGS_WORKPLACESETTINGS_H
