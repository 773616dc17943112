// Defaults, application and workplace settings: the layers, workplace files,
// the change signal, damaged files and two processes writing one file.

#include <database/database.h>

#include <QtTest>

namespace {

void writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(file.write(content), qint64(content.size()));
}

// The keys a settings file holds: only what its own layer set.
QStringList keysIn(const QString &path)
{
    return QSettings(path, QtJsonSettings::JsonFormat).allKeys();
}

// Child mode of this program: writes keys <prefix>0 .. <prefix>N-1 to a file,
// one save each, as a second process of the application would.
int writeKeys(const QString &path, const QString &prefix, int count)
{
    AppSettings settings(DefaultSettings(), path);
    for (int i = 0; i < count; ++i) {
        settings.setValue(prefix + QString::number(i), i);
        settings.sync();
        if (settings.status() != QSettings::NoError)
            return 1;
    }
    return 0;
}

} // namespace

class tst_AppSettings : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void fallsBackThroughLayers();
    void workplaceOperations();
    void hostileNames_data();
    void hostileNames();
    void changeSignal();
    void damagedFiles();
    void twoProcessesKeepEachOthersKeys();

private:
    QString path(const QString &name) const { return dir.filePath(name); }

    QTemporaryDir dir;
    DefaultSettings defaults;
};

void tst_AppSettings::initTestCase()
{
    QVERIFY(dir.isValid());
    QStandardPaths::setTestModeEnabled(true);
    writeFile(path("defaults.json"),
              R"({"font": 10, "window": {"width": 800, "height": 600}, "theme": "light"})");
    defaults = DefaultSettings(path("defaults.json"));
    QCOMPARE(defaults.status(), QSettings::NoError);
}

void tst_AppSettings::fallsBackThroughLayers()
{
    AppSettings app(defaults, path("layers-app.json"));
    app.setValue("window/width", 1024);
    app.setValue("theme", "dark");
    WorkplaceSettings desk(app, path("layers"));
    QVERIFY(desk.saveAs("trading"));
    desk.setValue("window/width", 1920);
    desk.setValue("window/panes/left", true);

    using S = AppSettings::Source;
    const QList<std::tuple<QString, QVariant, S>> expected {
        { "window/width", 1920, S::WorkplaceSource },
        { "window/panes/left", true, S::WorkplaceSource },
        { "theme", "dark", S::ApplicationSource },
        { "window/height", 600, S::DefaultSource },
        { "font", 10, S::DefaultSource },
        { "missing", QVariant(), S::NoSource },
    };
    for (const auto &[key, value, source] : expected) {
        QCOMPARE(desk.value(key), value);
        QCOMPARE(desk.source(key), source);
    }
    QCOMPARE(desk.value("missing", 7), QVariant(7));
    QCOMPARE(
        desk.allKeys(),
        QStringList({ "font", "theme", "window/height", "window/panes/left", "window/width" }));

    // Resetting a group of the workplace lets the application's value through,
    // resetting the application's key lets the default through.
    desk.reset("window");
    QCOMPARE(desk.value("window/width"), QVariant(1024));
    QCOMPARE(desk.source("window/panes/left"), S::NoSource);
    app.reset("window/width");
    QCOMPARE(desk.value("window/width"), QVariant(800));
    QCOMPARE(app.source("theme"), S::ApplicationSource);

    desk.setValue("columns", QStringList { "bid", "ask" });
    desk.sync();
    app.sync();
    QCOMPARE(keysIn(path("layers/trading.json")), QStringList { "columns" });
    QCOMPARE(keysIn(path("layers-app.json")), QStringList { "theme" });
}

void tst_AppSettings::workplaceOperations()
{
    AppSettings app(defaults, path("ops-app.json"));
    WorkplaceSettings desk(app, path("ops"));
    WorkplaceSettings other(app, path("ops"));
    QSignalSpy currentSpy(&other, &WorkplaceSettings::currentChanged);

    QTest::ignoreMessage(QtWarningMsg,
                         "WorkplaceSettings::setValue: no current workplace; k is not written");
    desk.setValue("k", 1);
    QVERIFY(desk.create("Утро"));
    QVERIFY(!desk.create("Утро"));
    QCOMPARE(desk.errorString(), QStringLiteral("Рабочее место «Утро» уже существует"));
    QVERIFY(desk.switchTo("Утро"));
    desk.setValue("layout/split", 3);
    QVERIFY(!desk.switchTo("nowhere"));
    QCOMPARE(desk.current(), QStringLiteral("Утро"));

    // Copies carry unsaved values; saveAs copies and switches.
    QVERIFY(desk.copy("Утро", "copy"));
    QVERIFY(desk.saveAs("Вечер"));
    QCOMPARE(desk.current(), QStringLiteral("Вечер"));
    QCOMPARE(desk.value("layout/split"), QVariant(3));
    QCOMPARE(desk.workplaces(), QStringList({ "copy", "Вечер", "Утро" }));
    QCOMPARE(keysIn(path("ops/copy.json")), QStringList { "layout/split" });

    // Renaming the current workplace: both handles on it follow.
    QVERIFY(other.switchTo("Вечер"));
    QVERIFY(desk.rename("Вечер", "Ночь"));
    QCOMPARE(desk.current(), QStringLiteral("Ночь"));
    QCOMPARE(other.current(), QStringLiteral("Ночь"));
    QVERIFY(!desk.rename("copy", "Утро"));
    QVERIFY(!desk.remove("Ночь"));
    QCOMPARE(desk.errorString(), QStringLiteral("Нельзя удалить текущее рабочее место «Ночь»"));

    // Removing through one handle drops the workplace of the other.
    QVERIFY(desk.switchTo("copy"));
    QVERIFY(desk.remove("Ночь"));
    QCOMPARE(other.current(), QString());
    QCOMPARE(currentSpy.count(), 3);
    QCOMPARE(desk.workplaces(), QStringList({ "copy", "Утро" }));
    QVERIFY(!QFile::exists(path("ops/Ночь.json")));
    QCOMPARE(desk.status(), QSettings::NoError);
}

void tst_AppSettings::hostileNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("error");
    const QString character = "недопустимый символ", dot = "с точки";
    for (const char *name : { "../x", "a/b", "a\\b", "a\nb" })
        QTest::newRow(name) << QString(name) << character;
    QTest::newRow("nul") << QString::fromUtf16(u"a\0b", 3) << character;
    QTest::newRow("dot dot") << ".." << dot;
    QTest::newRow("hidden") << ".x" << dot;
    QTest::newRow("empty") << QString("") << QString("не задано");
    QTest::newRow("spaces") << QString(" a") << QString("пробелом");
    QTest::newRow("long") << QString(101, 'x') << "длиннее 100";
    QTest::newRow("long in bytes") << QString(70, QChar(0x4e00)) << "длиннее 100";
}

// Hostile names are refused by every operation, and nothing appears on disk.
void tst_AppSettings::hostileNames()
{
    QFETCH(QString, name);
    QFETCH(QString, error);
    AppSettings app(defaults, path("hostile-app.json"));
    WorkplaceSettings desk(app, path("hostile/inner"));
    QVERIFY(desk.create("good"));
    const std::function<bool()> operations[] = {
        [&] { return desk.create(name); },         [&] { return desk.copy("good", name); },
        [&] { return desk.rename("good", name); }, [&] { return desk.saveAs(name); },
        [&] { return desk.switchTo(name); },       [&] { return desk.remove(name); },
    };
    for (const auto &operation : operations) {
        QVERIFY(!operation());
        QVERIFY2(desk.errorString().contains(error), qPrintable(desk.errorString()));
    }
    QCOMPARE(
        QDir(path("hostile")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
        QStringList { "inner" });
    QCOMPARE(desk.workplaces(), QStringList { "good" });
    QVERIFY(desk.remove("good"));
}

void tst_AppSettings::changeSignal()
{
    AppSettings first(defaults, path("signal-app.json"));
    AppSettings second(defaults, path("signal-app.json"));
    WorkplaceSettings desk(first, path("signal"));
    QVERIFY(desk.saveAs("w"));
    desk.setValue("overridden", 1);
    QSignalSpy secondSpy(&second, &AppSettings::valueChanged);
    QSignalSpy deskSpy(&desk, &WorkplaceSettings::valueChanged);

    first.setValue("theme", "dark");
    first.setValue("theme", "dark"); // unchanged: no signal
    first.setValue("overridden", 2); // hidden by the workplace
    desk.setValue("grid", true);
    second.reset("theme");
    second.reset("absent"); // nothing to reset: no signal
    QCOMPARE(secondSpy, QList<QVariantList>({ { "theme" }, { "overridden" }, { "theme" } }));
    QCOMPARE(deskSpy, QList<QVariantList>({ { "theme" }, { "grid" }, { "theme" } }));

    // A handle living in another thread hears of the change in its own thread.
    QThread worker;
    AppSettings remote(defaults, path("signal-app.json"));
    remote.moveToThread(&worker);
    QStringList heard;
    QThread *heardIn = nullptr;
    connect(&remote, &AppSettings::valueChanged, &remote, [&](const QString &key) {
        QMetaObject::invokeMethod(this, [&, key, thread = QThread::currentThread()] {
            heard << key;
            heardIn = thread;
        });
    });
    worker.start();
    first.setValue("font", 14);
    QTRY_COMPARE(heard, QStringList { "font" });
    QCOMPARE(heardIn, &worker);
    worker.quit();
    QVERIFY(worker.wait());
}

// A damaged file is moved aside, reported, and the layer below is used until
// the next save writes a fresh file; the damaged defaults stay where they are.
void tst_AppSettings::damagedFiles()
{
    const QByteArray damaged("{\"theme\": \"dark\", \"font\": ");
    writeFile(path("damaged-app.json"), damaged);
    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression("^Повреждённый файл настроек .* сохранён как "));
    AppSettings app(defaults, path("damaged-app.json"));
    QCOMPARE(app.status(), QSettings::FormatError);
    const QString aside = QtJsonSettings::damagedCopy(path("damaged-app.json"));
    QCOMPARE(app.errorString(),
             QStringLiteral("Файл настроек %1 повреждён и сохранён как %2")
                 .arg(path("damaged-app.json"), aside));
    QCOMPARE(app.value("theme"), QVariant("light"));
    app.setValue("font", 12);
    app.sync();
    QFile moved(aside);
    QVERIFY(moved.open(QIODevice::ReadOnly));
    QCOMPARE(moved.readAll(), damaged);
    QCOMPARE(keysIn(path("damaged-app.json")), QStringList { "font" });

    writeFile(path("damaged-defaults.json"), "[1]");
    QTest::ignoreMessage(QtWarningMsg,
                         qPrintable(QStringLiteral("Файл настроек по умолчанию %1 повреждён")
                                        .arg(path("damaged-defaults.json"))));
    const DefaultSettings badDefaults(path("damaged-defaults.json"));
    QCOMPARE(badDefaults.status(), QSettings::FormatError);
    QVERIFY(badDefaults.allKeys().isEmpty());
    QVERIFY(QFile::exists(path("damaged-defaults.json")));
    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression("^Не удалось прочитать файл настроек по умолчанию"));
    QCOMPARE(DefaultSettings(path("absent.json")).status(), QSettings::AccessError);
}

void tst_AppSettings::twoProcessesKeepEachOthersKeys()
{
    const QString file = path("shared.json");
    constexpr int count = 40;
    QProcess writers[2];
    for (int i = 0; i < 2; ++i)
        writers[i].start(QCoreApplication::applicationFilePath(),
                         { QStringLiteral("--write-keys"), file, QStringLiteral("p%1_").arg(i),
                           QString::number(count) });
    for (QProcess &writer : writers) {
        QVERIFY(writer.waitForFinished(60000));
        QCOMPARE(writer.exitCode(), 0);
    }
    QFile json(file);
    QVERIFY(json.open(QIODevice::ReadOnly));
    QSettings::SettingsMap map;
    QVERIFY(QtJsonSettings::readJsonFile(json, map));
    QCOMPARE(map.size(), 2 * count);
}

int main(int argc, char **argv)
{
    if (argc == 5 && qstrcmp(argv[1], "--write-keys") == 0) {
        QCoreApplication app(argc, argv);
        return writeKeys(QString::fromLocal8Bit(argv[2]), QString::fromLocal8Bit(argv[3]),
                         QByteArray(argv[4]).toInt());
    }
    QCoreApplication app(argc, argv);
    tst_AppSettings test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_appsettings.moc"
