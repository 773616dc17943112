#include <database/settings/settings.h>

#include <QPointer>

class SettingsPrivate
{
public:
    SettingsPrivate(QSettings *settings, bool owned)
        : settings(settings)
        , owned(owned)
    {
    }
    ~SettingsPrivate()
    {
        if (owned)
            delete settings.data();
    }
    SettingsPrivate(const SettingsPrivate &) = delete;
    SettingsPrivate &operator=(const SettingsPrivate &) = delete;

    const QPointer<QSettings> settings;
    const bool owned;
};

Settings::Settings(QSettings *settings)
    : d(new SettingsPrivate(settings, false))
{
}

Settings::Settings(const QString &fileName, QSettings::Format format)
    : d(new SettingsPrivate(new QSettings(fileName, format), true))
{
}

Settings::~Settings() = default;
Settings::Settings(const Settings &other) = default;
Settings &Settings::operator=(const Settings &other) = default;

bool Settings::isNull() const
{
    return d->settings.isNull();
}

QSettings *Settings::getQSettings() const
{
    return d->settings.data();
}

QSettings *Settings::checked(const char *operation) const
{
    QSettings *settings = d->settings.data();
    if (!settings)
        qWarning("Settings::%s: no QSettings object behind this handle", operation);
    return settings;
}

QVariant Settings::value(const QString &key, const QVariant &defaultValue) const
{
    QSettings *settings = checked("value");
    return settings ? settings->value(key, defaultValue) : defaultValue;
}

bool Settings::contains(const QString &key) const
{
    QSettings *settings = checked("contains");
    return settings && settings->contains(key);
}

QStringList Settings::allKeys() const
{
    QSettings *settings = checked("allKeys");
    return settings ? settings->allKeys() : QStringList();
}

QStringList Settings::childKeys() const
{
    QSettings *settings = checked("childKeys");
    return settings ? settings->childKeys() : QStringList();
}

QStringList Settings::childGroups() const
{
    QSettings *settings = checked("childGroups");
    return settings ? settings->childGroups() : QStringList();
}

QString Settings::group() const
{
    QSettings *settings = checked("group");
    return settings ? settings->group() : QString();
}

void Settings::beginGroup(const QString &prefix) const
{
    if (QSettings *settings = checked("beginGroup"))
        settings->beginGroup(prefix);
}

void Settings::endGroup() const
{
    if (QSettings *settings = checked("endGroup"))
        settings->endGroup();
}

int Settings::beginReadArray(const QString &prefix) const
{
    QSettings *settings = checked("beginReadArray");
    return settings ? settings->beginReadArray(prefix) : 0;
}

void Settings::beginWriteArray(const QString &prefix, int size)
{
    if (QSettings *settings = checked("beginWriteArray"))
        settings->beginWriteArray(prefix, size);
}

void Settings::setArrayIndex(int i) const
{
    if (QSettings *settings = checked("setArrayIndex"))
        settings->setArrayIndex(i);
}

void Settings::endArray() const
{
    if (QSettings *settings = checked("endArray"))
        settings->endArray();
}

void Settings::setValue(const QString &key, const QVariant &value)
{
    if (QSettings *settings = checked("setValue"))
        settings->setValue(key, value);
}

void Settings::remove(const QString &key)
{
    if (QSettings *settings = checked("remove"))
        settings->remove(key);
}

void Settings::sync() const
{
    if (QSettings *settings = checked("sync"))
        settings->sync();
}

QSettings::Status Settings::status() const
{
    QSettings *settings = checked("status");
    return settings ? settings->status() : QSettings::AccessError;
}
