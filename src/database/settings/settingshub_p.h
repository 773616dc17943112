#ifndef DATABASE_SETTINGS_SETTINGSHUB_P_H
#define DATABASE_SETTINGS_SETTINGSHUB_P_H

#include <database/settings/appsettings.h>

#include <QObject>
#include <QSettings>

// The process-wide meeting point of the settings handles: each one announces
// here what it changed, and listens for the files it reads. Receivers connect
// with themselves as context, so a handle in another thread gets the news
// queued and a destroyed one none.
class SettingsHub : public QObject
{
    Q_OBJECT
public:
    // Created on first use and never destroyed: handles may outlive statics.
    static SettingsHub *instance();

    // The key under which a file is known: its absolute, clean path.
    static QString fileKey(const QString &fileName);

Q_SIGNALS:
    // A key (or group) of the file changed through some handle.
    void changed(const QString &file, const QString &key);
    // A workplace file was renamed (to is its new name) or removed (to is
    // empty); handles on it follow.
    void moved(const QString &from, const QString &to);
};

// Reads and writes shared by AppSettings and WorkplaceSettings.
namespace SettingsLayers {

// Sets key in the top layer; false when it already held that value.
bool setValue(QSettings &top, const QString &key, const QVariant &value);

// Removes a key, or a group with everything below it, from the top layer;
// false when there was nothing to remove.
bool remove(QSettings &top, const QString &keyOrGroup);

// The message for a top layer's status, or empty when all is well.
QString errorString(const QSettings &top);

} // namespace SettingsLayers

#endif // DATABASE_SETTINGS_SETTINGSHUB_P_H
