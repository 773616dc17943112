#include <database/settings/workplacesettings.h>

#include "settings/settingshub_p.h"

#include <database/settings/qtjsonsettings.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <algorithm>
#include <memory>

namespace {

const QString Suffix = QStringLiteral(".json");

// Names become file names: the UTF-8 form plus the suffix must stay well
// inside the 255 bytes a file name may take.
constexpr int MaxNameBytes = 200;

QString tr(const char *text)
{
    return QCoreApplication::translate("WorkplaceSettings", text);
}

} // namespace

class WorkplaceSettingsPrivate
{
public:
    WorkplaceSettingsPrivate(const AppSettings &app, const QString &folder)
        : app(app.defaults(), app.fileName())
        , folder(SettingsHub::fileKey(folder))
    {
    }

    QString path(const QString &name) const { return folder + QLatin1Char('/') + name + Suffix; }
    bool exists(const QString &name) const { return QFileInfo(path(name)).isFile(); }

    bool fail(const QString &message)
    {
        error = message;
        return false;
    }
    bool succeed()
    {
        error.clear();
        return true;
    }

    // Checks a name and whether a workplace of that name must (or must not)
    // exist.
    bool check(const QString &name, bool mustExist)
    {
        QString why;
        if (!WorkplaceSettings::isValidName(name, &why))
            return fail(why);
        if (mustExist && !exists(name))
            return fail(tr("Рабочее место «%1» не найдено").arg(name));
        if (!mustExist && QFileInfo::exists(path(name)))
            return fail(tr("Рабочее место «%1» уже существует").arg(name));
        return true;
    }

    // Writes the pending changes of every handle of the process on the file.
    bool flush(const QString &name)
    {
        QSettings settings(path(name), QtJsonSettings::JsonFormat);
        settings.sync();
        if (settings.status() == QSettings::NoError)
            return true;
        return fail(SettingsLayers::errorString(settings));
    }

    // A new workplace file holding "{}": created exclusively, so a workplace
    // made meanwhile by another process is never overwritten.
    bool createFile(const QString &name)
    {
        if (!QDir().mkpath(folder))
            return fail(tr("Не удалось создать папку рабочих мест %1").arg(folder));
        QFile file(path(name));
        if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly))
            return fail(
                tr("Не удалось создать рабочее место «%1»: %2").arg(name, file.errorString()));
        const QByteArray empty("{}\n");
        if (file.write(empty) != empty.size() || !file.flush()) {
            const QString why = file.errorString();
            file.remove();
            return fail(tr("Не удалось создать рабочее место «%1»: %2").arg(name, why));
        }
        return true;
    }

    void open(const QString &name)
    {
        workplace.reset();
        current = name;
        if (!name.isEmpty())
            workplace = std::make_unique<QSettings>(path(name), QtJsonSettings::JsonFormat);
    }

    AppSettings app;
    const QString folder;
    QString current;
    std::unique_ptr<QSettings> workplace;
    QString error;
};

WorkplaceSettings::WorkplaceSettings(const AppSettings &app, const QString &folder, QObject *parent)
    : QObject(parent)
    , d(new WorkplaceSettingsPrivate(app, folder.isEmpty() ? defaultFolder() : folder))
{
    // A child, so that it follows this object to another thread; d deletes
    // it first, which takes it off the children.
    d->app.setParent(this);
    SettingsHub *hub = SettingsHub::instance();
    connect(hub, &SettingsHub::changed, this, [this](const QString &file, const QString &key) {
        if (d->workplace && file == d->path(d->current))
            Q_EMIT valueChanged(key);
    });
    connect(&d->app, &AppSettings::valueChanged, this, [this](const QString &key) {
        if (!d->workplace || !d->workplace->contains(key))
            Q_EMIT valueChanged(key);
    });
    connect(hub, &SettingsHub::moved, this, [this](const QString &from, const QString &to) {
        if (!d->workplace || from != d->path(d->current))
            return;
        d->open(to.isEmpty() ? QString() : QFileInfo(to).completeBaseName());
        Q_EMIT currentChanged(d->current);
    });
}

WorkplaceSettings::~WorkplaceSettings()
{
    delete d;
}

QString WorkplaceSettings::defaultFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation)
        + QStringLiteral("/workplaces");
}

bool WorkplaceSettings::isValidName(const QString &name, QString *error)
{
    QString why;
    if (name.isEmpty())
        why = tr("Имя рабочего места не задано");
    else if (name.size() > MaxNameLength || name.toUtf8().size() > MaxNameBytes)
        why = tr("Имя рабочего места длиннее %1 символов").arg(MaxNameLength);
    else if (std::any_of(name.begin(), name.end(), [](QChar c) {
                 return c == QLatin1Char('/') || c == QLatin1Char('\\')
                     || c.category() == QChar::Other_Control;
             }))
        why = tr("Имя рабочего места содержит недопустимый символ: «/», «\\» или управляющий");
    else if (name.startsWith(QLatin1Char('.')))
        why = tr("Имя рабочего места не может начинаться с точки");
    else if (name.trimmed() != name)
        why = tr("Имя рабочего места не может начинаться или заканчиваться пробелом");
    if (error)
        *error = why;
    return why.isEmpty();
}

QString WorkplaceSettings::folder() const
{
    return d->folder;
}

QStringList WorkplaceSettings::workplaces() const
{
    QStringList names;
    const QStringList files
        = QDir(d->folder).entryList({ QLatin1Char('*') + Suffix }, QDir::Files, QDir::Name);
    for (const QString &file : files) {
        const QString name = file.left(file.size() - Suffix.size());
        if (isValidName(name))
            names << name;
    }
    return names;
}

QString WorkplaceSettings::current() const
{
    return d->current;
}

bool WorkplaceSettings::create(const QString &name)
{
    return d->check(name, false) && d->createFile(name) && d->succeed();
}

bool WorkplaceSettings::copy(const QString &from, const QString &to)
{
    if (!d->check(from, true) || !d->check(to, false) || !d->flush(from) || !d->createFile(to))
        return false;
    const QSettings source(d->path(from), QtJsonSettings::JsonFormat);
    QSettings target(d->path(to), QtJsonSettings::JsonFormat);
    for (const QString &key : source.allKeys())
        target.setValue(key, source.value(key));
    target.sync();
    if (target.status() != QSettings::NoError) {
        const QString why = SettingsLayers::errorString(target);
        QFile::remove(d->path(to));
        return d->fail(why);
    }
    return d->succeed();
}

bool WorkplaceSettings::rename(const QString &from, const QString &to)
{
    if (!d->check(from, true) || !d->check(to, false) || !d->flush(from))
        return false;
    QFile file(d->path(from));
    if (!file.rename(d->path(to)))
        return d->fail(
            tr("Не удалось переименовать рабочее место «%1»: %2").arg(from, file.errorString()));
    Q_EMIT SettingsHub::instance()->moved(d->path(from), d->path(to));
    return d->succeed();
}

bool WorkplaceSettings::remove(const QString &name)
{
    if (!d->check(name, true))
        return false;
    if (name == d->current)
        return d->fail(tr("Нельзя удалить текущее рабочее место «%1»").arg(name));
    if (!d->flush(name))
        return false;
    Q_EMIT SettingsHub::instance()->moved(d->path(name), QString());
    QFile file(d->path(name));
    if (!file.remove())
        return d->fail(
            tr("Не удалось удалить рабочее место «%1»: %2").arg(name, file.errorString()));
    return d->succeed();
}

bool WorkplaceSettings::switchTo(const QString &name)
{
    if (!d->check(name, true))
        return false;
    if (name != d->current) {
        if (d->workplace)
            d->workplace->sync();
        d->open(name);
        Q_EMIT currentChanged(name);
    }
    return d->succeed();
}

bool WorkplaceSettings::saveAs(const QString &name)
{
    const bool made = d->current.isEmpty() ? create(name) : copy(d->current, name);
    return made && switchTo(name);
}

QVariant WorkplaceSettings::value(const QString &key, const QVariant &defaultValue) const
{
    if (d->workplace && d->workplace->contains(key))
        return d->workplace->value(key);
    return d->app.value(key, defaultValue);
}

bool WorkplaceSettings::contains(const QString &key) const
{
    return source(key) != AppSettings::NoSource;
}

AppSettings::Source WorkplaceSettings::source(const QString &key) const
{
    if (d->workplace && d->workplace->contains(key))
        return AppSettings::WorkplaceSource;
    return d->app.source(key);
}

QStringList WorkplaceSettings::allKeys() const
{
    QStringList keys = d->app.allKeys();
    if (d->workplace) {
        keys += d->workplace->allKeys();
        keys.sort();
        keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    }
    return keys;
}

void WorkplaceSettings::setValue(const QString &key, const QVariant &value)
{
    if (!d->workplace) {
        qWarning("WorkplaceSettings::setValue: no current workplace; %s is not written",
                 qPrintable(key));
        return;
    }
    if (SettingsLayers::setValue(*d->workplace, key, value))
        Q_EMIT SettingsHub::instance()->changed(d->path(d->current), key);
}

void WorkplaceSettings::reset(const QString &keyOrGroup)
{
    if (!d->workplace) {
        qWarning("WorkplaceSettings::reset: no current workplace; %s is not reset",
                 qPrintable(keyOrGroup));
        return;
    }
    if (SettingsLayers::remove(*d->workplace, keyOrGroup))
        Q_EMIT SettingsHub::instance()->changed(d->path(d->current), keyOrGroup);
}

void WorkplaceSettings::sync()
{
    if (d->workplace)
        d->workplace->sync();
}

QSettings::Status WorkplaceSettings::status() const
{
    if (!d->error.isEmpty())
        return QSettings::AccessError;
    return d->workplace ? d->workplace->status() : QSettings::NoError;
}

QString WorkplaceSettings::errorString() const
{
    if (!d->error.isEmpty() || !d->workplace)
        return d->error;
    return SettingsLayers::errorString(*d->workplace);
}
