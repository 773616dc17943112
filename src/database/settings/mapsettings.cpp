#include <database/settings/mapsettings.h>

#include <database/settings/qtjsonsettings.h>

class MapSettingsPrivate
{
public:
    explicit MapSettingsPrivate(MapSettings *owner)
        : baseGroup(QStringLiteral("0x%1").arg(quintptr(owner), 16, 16, QLatin1Char('0')))
        , view(owner)
    {
    }

    const QString baseGroup;
    Settings view;
};

namespace {

QSettings::SettingsMap readKeys(const Settings &source, const QString &group)
{
    if (!group.isEmpty())
        source.beginGroup(group);
    QSettings::SettingsMap keys;
    for (const QString &key : source.allKeys())
        keys.insert(key, source.value(key));
    if (!group.isEmpty())
        source.endGroup();
    return keys;
}

} // namespace

MapSettings::MapSettings()
    : QSettings(QString(), QtJsonSettings::mapFormat())
    , d(new MapSettingsPrivate(this))
{
    init();
}

MapSettings::MapSettings(const QSettings &source)
    : MapSettings()
{
    restore(source);
}

MapSettings::MapSettings(const Settings &source)
    : MapSettings()
{
    restore(source);
}

MapSettings::MapSettings(const MapSettings &other)
    : MapSettings()
{
    restore(static_cast<const QSettings &>(other));
}

MapSettings &MapSettings::operator=(const MapSettings &other)
{
    if (&other != this) {
        clear();
        restore(static_cast<const QSettings &>(other));
    }
    return *this;
}

MapSettings::~MapSettings()
{
    clear();
}

void MapSettings::init()
{
    while (!group().isEmpty())
        endGroup();
    beginGroup(d->baseGroup);
}

void MapSettings::clear()
{
    while (!group().isEmpty())
        endGroup();
    remove(d->baseGroup);
    beginGroup(d->baseGroup);
}

void MapSettings::endAllGroups()
{
    while (group() != d->baseGroup && !group().isEmpty())
        endGroup();
}

QSettings::SettingsMap MapSettings::snapshot() const
{
    return readKeys(d->view, QString());
}

void MapSettings::store(QSettings &target, const QString &group) const
{
    const SettingsMap keys = snapshot();
    if (!group.isEmpty())
        target.beginGroup(group);
    for (const QString &key : target.allKeys())
        target.remove(key);
    for (auto it = keys.constBegin(); it != keys.constEnd(); ++it)
        target.setValue(it.key(), it.value());
    if (!group.isEmpty())
        target.endGroup();
}

void MapSettings::store(Settings &target, const QString &group) const
{
    if (QSettings *settings = target.getQSettings())
        store(*settings, group);
    else
        qWarning("MapSettings::store: the target Settings handle is null");
}

void MapSettings::storeAdd(QSettings &target, const QString &group) const
{
    const SettingsMap keys = snapshot();
    if (!group.isEmpty())
        target.beginGroup(group);
    for (auto it = keys.constBegin(); it != keys.constEnd(); ++it) {
        target.remove(it.key());
        target.setValue(it.key(), it.value());
    }
    if (!group.isEmpty())
        target.endGroup();
}

void MapSettings::restore(const Settings &source, const QString &group)
{
    if (source.isNull()) {
        qWarning("MapSettings::restore: the source Settings handle is null");
        return;
    }
    const SettingsMap keys = readKeys(source, group);
    for (auto it = keys.constBegin(); it != keys.constEnd(); ++it)
        setValue(it.key(), it.value());
}

void MapSettings::restore(QSettings &source, const QString &group)
{
    restore(Settings(&source), group);
}

void MapSettings::restore(const QSettings &source)
{
    // Reading without a group leaves the source untouched.
    restore(Settings(const_cast<QSettings *>(&source)), QString());
}

Settings &MapSettings::asSetRef()
{
    return d->view;
}

const Settings &MapSettings::asSetRef() const
{
    return d->view;
}
