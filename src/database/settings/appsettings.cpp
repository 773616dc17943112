#include <database/settings/appsettings.h>

#include "settings/settingshub_p.h"

#include <database/settings/qtjsonsettings.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

#include <algorithm>

SettingsHub *SettingsHub::instance()
{
    static SettingsHub *const hub = new SettingsHub;
    return hub;
}

QString SettingsHub::fileKey(const QString &fileName)
{
    return QDir::cleanPath(QFileInfo(fileName).absoluteFilePath());
}

bool SettingsLayers::setValue(QSettings &top, const QString &key, const QVariant &value)
{
    if (top.contains(key)) {
        const QVariant old = top.value(key);
        if (old.userType() == value.userType() && old == value)
            return false;
    }
    top.setValue(key, value);
    return true;
}

bool SettingsLayers::remove(QSettings &top, const QString &keyOrGroup)
{
    bool present = top.contains(keyOrGroup);
    if (!present) {
        top.beginGroup(keyOrGroup);
        present = !top.allKeys().isEmpty();
        top.endGroup();
    }
    if (present)
        top.remove(keyOrGroup);
    return present;
}

QString SettingsLayers::errorString(const QSettings &top)
{
    switch (top.status()) {
    case QSettings::NoError:
        return QString();
    case QSettings::FormatError: {
        const QString aside = QtJsonSettings::damagedCopy(top.fileName());
        if (aside.isEmpty())
            return QCoreApplication::translate("AppSettings", "Файл настроек %1 повреждён")
                .arg(top.fileName());
        return QCoreApplication::translate("AppSettings",
                                           "Файл настроек %1 повреждён и сохранён как %2")
            .arg(top.fileName(), aside);
    }
    case QSettings::AccessError:
        break;
    }
    return QCoreApplication::translate("AppSettings", "Не удалось записать файл настроек %1")
        .arg(top.fileName());
}

class AppSettingsPrivate
{
public:
    AppSettingsPrivate(const DefaultSettings &defaults, const QString &fileName)
        : defaults(defaults)
        , file(SettingsHub::fileKey(fileName))
        , settings(file, QtJsonSettings::JsonFormat)
    {
    }

    const DefaultSettings defaults;
    const QString file;
    QSettings settings;
};

AppSettings::AppSettings(const DefaultSettings &defaults, const QString &fileName, QObject *parent)
    : QObject(parent)
    , d(new AppSettingsPrivate(defaults, fileName.isEmpty() ? defaultFileName() : fileName))
{
    connect(SettingsHub::instance(), &SettingsHub::changed, this,
            [this](const QString &file, const QString &key) {
                if (file == d->file)
                    Q_EMIT valueChanged(key);
            });
}

AppSettings::~AppSettings()
{
    delete d;
}

QString AppSettings::defaultFileName()
{
    return QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation)
        + QStringLiteral("/settings.json");
}

QString AppSettings::fileName() const
{
    return d->file;
}

DefaultSettings AppSettings::defaults() const
{
    return d->defaults;
}

QVariant AppSettings::value(const QString &key, const QVariant &defaultValue) const
{
    if (d->settings.contains(key))
        return d->settings.value(key);
    return d->defaults.value(key, defaultValue);
}

bool AppSettings::contains(const QString &key) const
{
    return source(key) != NoSource;
}

AppSettings::Source AppSettings::source(const QString &key) const
{
    if (d->settings.contains(key))
        return ApplicationSource;
    return d->defaults.contains(key) ? DefaultSource : NoSource;
}

QStringList AppSettings::allKeys() const
{
    QStringList keys = d->settings.allKeys() + d->defaults.allKeys();
    keys.sort();
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    return keys;
}

void AppSettings::setValue(const QString &key, const QVariant &value)
{
    if (SettingsLayers::setValue(d->settings, key, value))
        Q_EMIT SettingsHub::instance()->changed(d->file, key);
}

void AppSettings::reset(const QString &keyOrGroup)
{
    if (SettingsLayers::remove(d->settings, keyOrGroup))
        Q_EMIT SettingsHub::instance()->changed(d->file, keyOrGroup);
}

void AppSettings::sync()
{
    d->settings.sync();
}

QSettings::Status AppSettings::status() const
{
    return d->settings.status();
}

QString AppSettings::errorString() const
{
    return SettingsLayers::errorString(d->settings);
}
