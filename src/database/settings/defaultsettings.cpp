#include <database/settings/defaultsettings.h>

#include <database/core/log.h>
#include <database/settings/qtjsonsettings.h>

#include <QBuffer>
#include <QCoreApplication>
#include <QFile>

class DefaultSettingsPrivate
{
public:
    QString fileName;
    QSettings::SettingsMap map;
    QSettings::Status status = QSettings::NoError;
    QString errorString;
};

namespace {

QSharedPointer<const DefaultSettingsPrivate> readDefaults(const QString &fileName)
{
    auto d = QSharedPointer<DefaultSettingsPrivate>::create();
    d->fileName = fileName;
    if (fileName.isEmpty())
        return d;
    QFile file(fileName);
    QByteArray data;
    if (file.open(QIODevice::ReadOnly))
        data = file.read(QtJsonSettings::MaxFileSize + 1);
    if (file.error() != QFileDevice::NoError) {
        d->status = QSettings::AccessError;
        d->errorString = QCoreApplication::translate("DefaultSettings",
                                                     "Не удалось прочитать файл настроек по "
                                                     "умолчанию %1: %2")
                             .arg(fileName, file.errorString());
    } else if (!data.isEmpty()) {
        // Read from a copy: the format moves damaged files of its own aside,
        // and this one is the installation's.
        QBuffer buffer(&data);
        buffer.open(QIODevice::ReadOnly);
        if (!QtJsonSettings::readJsonFile(buffer, d->map)) {
            d->status = QSettings::FormatError;
            d->errorString = QCoreApplication::translate("DefaultSettings",
                                                         "Файл настроек по умолчанию %1 "
                                                         "повреждён")
                                 .arg(fileName);
        }
    }
    if (d->status != QSettings::NoError)
        qCWarning(QGuiLog).noquote() << d->errorString;
    return d;
}

} // namespace

DefaultSettings::DefaultSettings()
    : d(readDefaults(QString()))
{
}

DefaultSettings::DefaultSettings(const QString &fileName)
    : d(readDefaults(fileName))
{
}

DefaultSettings::~DefaultSettings() = default;
DefaultSettings::DefaultSettings(const DefaultSettings &other) = default;
DefaultSettings &DefaultSettings::operator=(const DefaultSettings &other) = default;

QString DefaultSettings::fileName() const
{
    return d->fileName;
}

QSettings::Status DefaultSettings::status() const
{
    return d->status;
}

QString DefaultSettings::errorString() const
{
    return d->errorString;
}

QVariant DefaultSettings::value(const QString &key, const QVariant &defaultValue) const
{
    return d->map.value(key, defaultValue);
}

bool DefaultSettings::contains(const QString &key) const
{
    return d->map.contains(key);
}

QStringList DefaultSettings::allKeys() const
{
    return d->map.keys();
}
