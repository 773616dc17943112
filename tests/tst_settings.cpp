// The "json" settings format, the Settings handle, in-memory MapSettings, and
// the layers above them: defaults, application and workplace settings, their
// workplace files, the change signal, damaged files and two processes writing
// one file.

#include <database/database.h>

#include "testsupport.h"

#include <QColor>
#include <QFont>
#include <QKeySequence>
#include <QtTest>

#include <new>

namespace {

// Every message logged while a Capture is alive, as "category/type: text".
QStringList logged;
void capture(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    logged << QStringLiteral("%1/%2: %3").arg(context.category).arg(type).arg(text);
}
struct Capture
{
    Capture()
        : previous(qInstallMessageHandler(capture))
    {
        logged.clear();
    }
    ~Capture() { qInstallMessageHandler(previous); }
    QtMessageHandler previous;
};

QSettings::SettingsMap readFile(const QString &path)
{
    QFile file(path);
    QSettings::SettingsMap map;
    if (!file.open(QIODevice::ReadOnly) || !QtJsonSettings::readJsonFile(file, map))
        map.insert(QStringLiteral("unreadable"), path);
    return map;
}

QSettings::SettingsMap roundTrip(const QSettings::SettingsMap &map)
{
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    QSettings::SettingsMap read;
    if (!QtJsonSettings::writeJsonFile(buffer, map))
        return read;
    buffer.close();
    buffer.open(QIODevice::ReadOnly);
    QtJsonSettings::readJsonFile(buffer, read);
    return read;
}

// What an application without any JSON knowledge keeps in its settings.
struct Unsaveable
{
    int x = 0;
};

// An application type with stream operators, kept through "@Variant(...)".
struct Streamable
{
    qint32 x = 0;
    bool operator==(const Streamable &other) const { return x == other.x; }
};
QDataStream &operator<<(QDataStream &out, const Streamable &value)
{
    return out << value.x;
}
QDataStream &operator>>(QDataStream &in, Streamable &value)
{
    return in >> value.x;
}

const QString DebugReadError
    = QStringLiteral("QGuiLog/%1: Ошибка при чтении настроек JSON:\n ").arg(QtDebugMsg);

void writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(file.write(content), qint64(content.size()));
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

class tst_Settings : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void writeNesting_data();
    void writeNesting();
    void readsJsonOfOtherPrograms();
    void badFiles_data();
    void badFiles();
    void deviceErrors();
    void keepsWhatJsonCannotHold();
    void refusesWhatItCannotKeep();
    void mapSettingsKeepApart();
    void mapSettingsStoreAndRestore();
    void mapSettingsNeverTouchDisk();
    void settingsOwnership();
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

void tst_Settings::writeNesting_data()
{
    QTest::addColumn<QVariantMap>("map");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("map value gets prefix") << QVariantMap { { "g/m", QVariantMap { { "k", 1 } } } }
                                           << QByteArray(R"({"g":{"@Map_m":{"k":1}}})");
    QTest::newRow("complete array stays an object")
        << QVariantMap { { "arr/1/x", 1 }, { "arr/2/x", 2 }, { "arr/size", 2 } }
        << QByteArray(R"({"arr":{"1":{"x":1},"2":{"x":2},"size":2}})");
    QTest::newRow("one entry missing makes a list")
        << QVariantMap { { "arr/2/x", 2 }, { "arr/size", 2 } }
        << QByteArray(R"({"arr":[null,{"x":2}]})");
    QTest::newRow("root array would not read back")
        << QVariantMap { { "2/x", 2 }, { "size", 2 } } << QByteArray(R"({"2":{"x":2},"size":2})");
    QTest::newRow("huge size stays a value")
        << QVariantMap { { "arr/1/x", 1 }, { "arr/size", 2147483647 } }
        << QByteArray(R"({"arr":{"1":{"x":1},"size":2147483647}})");
    QTest::newRow("empty key skipped") << QVariantMap { { "", 1 } } << QByteArray("{}");
    QTest::newRow("integer beyond 2^53 kept as text")
        << QVariantMap { { "big", qlonglong(1) << 60 }, { "small", qlonglong(1) << 40 } }
        << QByteArray(R"({"big":"1152921504606846976","small":1099511627776})");
}

void tst_Settings::writeNesting()
{
    QFETCH(QVariantMap, map);
    QFETCH(QByteArray, expected);
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    QVERIFY(QtJsonSettings::writeJsonFile(buffer, map));
    const QByteArray written = buffer.data();
    QVERIFY2(written.contains('\n'), written.constData()); // indented, human-readable
    QCOMPARE(QJsonDocument::fromJson(written).toJson(QJsonDocument::Compact), expected);
}

// A file as Python's json module writes it (escaped text, indented, arrays of
// objects) reads back with every kind of value. (Python reading our files is
// checked with the tagged values below.)
void tst_Settings::readsJsonOfOtherPrograms()
{
    const QString path = dir.filePath(QStringLiteral("other.json"));
    writeFile(path, R"({"window": {"geometry": {"x": 10},
 "title": "\u041a\u043e\u0442\u0438\u0440\u043e\u0432\u043a\u0438 \u2713"},
 "rows": [{"name": "a"}, {"name": "b", "n": 2}],
 "cols": [1, 2.5, "\u0442\u0440\u0438", true, null], "empty": [], "nothing": {},
 "@Map_filter": {"board": "TQBR", "lots": 10}, "big": 12345678901})");
    QSettings settings(path, QtJsonSettings::JsonFormat);
    QVariantMap read;
    for (const QString &key : settings.allKeys())
        read.insert(key, settings.value(key));
    // QVariant equality does not compare the number kinds: checked apart.
    const QVariantMap expected {
        { "window/geometry/x", 10 },
        { "window/title", QStringLiteral("Котировки ✓") },
        { "rows/size", 2 },
        { "rows/1/name", "a" },
        { "rows/2/name", "b" },
        { "rows/2/n", 2 },
        { "cols", QVariantList { 1, 2.5, QStringLiteral("три"), true, QVariant() } },
        { "empty", QVariantList() },
        { "filter", QVariantMap { { "board", "TQBR" }, { "lots", 10 } } },
        { "big", qlonglong(12345678901) }
    };
    QCOMPARE(read, expected);
    for (auto it = expected.constBegin(); it != expected.constEnd(); ++it)
        QCOMPARE(read.value(it.key()).userType(), it.value().userType());
}

void tst_Settings::badFiles_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<qint64>("sparseSize");
    QTest::addColumn<QString>("error");
    QTest::addColumn<int>("line");

    QTest::newRow("syntax error") << QByteArray("{\n  \"a\": 1,\n  \"b\": ]\n}") << qint64(0)
                                  << "object is missing after a comma" << 3;
    QTest::newRow("not json") << QByteArray("[General]\nkey=value\n") << qint64(0)
                              << "illegal number" << 1;
    QTest::newRow("whitespace only") << QByteArray("\n\n") << qint64(0) << "illegal value" << 3;
    QTest::newRow("deep nesting") << QByteArray(100000, '[') << qint64(0)
                                  << "too deeply nested document" << 1;
    QTest::newRow("huge file") << QByteArray() << QtJsonSettings::MaxFileSize + 1
                               << "too large document" << 1;
    QTest::newRow("array of scalars")
        << QByteArray("[1, 2]") << qint64(0) << "the document is not a settings object" << 1;
}

void tst_Settings::badFiles()
{
    QFETCH(QByteArray, content);
    QFETCH(qint64, sparseSize);
    QFETCH(QString, error);
    QFETCH(int, line);

    const QString path = dir.filePath(QStringLiteral("bad-%1.json").arg(QTest::currentDataTag()));
    writeFile(path, content);
    if (sparseSize)
        QVERIFY(QFile::resize(path, sparseSize));
    Capture capture;
    QSettings settings(path, QtJsonSettings::JsonFormat);
    QCOMPARE(settings.status(), QSettings::FormatError);
    QVERIFY(settings.allKeys().isEmpty());
    // The damaged file is moved aside untouched before anything can write.
    const QString aside = QtJsonSettings::damagedCopy(path);
    QVERIFY(aside.startsWith(path + QStringLiteral(".damaged-")));
    QCOMPARE(logged,
             QStringList(
                 { DebugReadError + path + QStringLiteral(" \n%1 в строке %2").arg(error).arg(line),
                   QStringLiteral("QGuiLog/%1: Повреждённый файл настроек %2 сохранён как %3")
                       .arg(QtWarningMsg)
                       .arg(path, aside) }));
    settings.setValue("new", 1);
    settings.sync();
    QFile moved(aside);
    QVERIFY(moved.open(QIODevice::ReadOnly));
    QCOMPARE(moved.size(), sparseSize ? sparseSize : content.size());
    if (!sparseSize)
        QCOMPARE(moved.readAll(), content);
    QCOMPARE(readFile(path), QSettings::SettingsMap({ { "new", 1 } }));
}

void tst_Settings::deviceErrors()
{
    Capture capture;
    QBuffer readOnly;
    readOnly.open(QIODevice::ReadOnly);
    QVERIFY(!QtJsonSettings::writeJsonFile(readOnly, { { "a", 1 } }));
    QCOMPARE(logged.last(),
             QStringLiteral("QGuiLog/%1: Ошибка при записи настроек JSON").arg(QtWarningMsg));

    // A key nested too deeply for any reader is refused rather than written.
    QBuffer out;
    out.open(QIODevice::WriteOnly);
    const QString deepKey = QString("k/").repeated(QtJsonSettings::MaxDepth) + "k";
    QVERIFY(!QtJsonSettings::writeJsonFile(out, { { deepKey, 1 } }));
    QVERIFY(out.data().isEmpty());
}

// Every value comes back with its type and value, and the file stays plain
// JSON that Python reads with the plain values where they were.
void tst_Settings::keepsWhatJsonCannotHold()
{
    qRegisterMetaTypeStreamOperators<Streamable>("Streamable");
    QMetaType::registerEqualsComparator<Streamable>();
    QByteArray geometry("\x01\xd9\xd0\xcb\x00\x03\x00\x00\xff\xfe", 10);
    QFont font(QStringLiteral("Mono"), 11);
    font.setStyleName(QStringLiteral("Bold"));
    font.setFamilies({ QStringLiteral("Mono"), QStringLiteral("Courier") });
    const QSettings::SettingsMap written {
        { "window", 640 },
        { "window/height", 480 },
        { "window/geometry", geometry },
        { "window/rect", QRect(-5, 10, 800, 600) },
        { "window/size", QSize(3, 4) },
        { "window/pos", QPoint(-1, 2) },
        { "columns", QStringList { "bid", "ask" } },
        { "one column", QStringList { "@bid" } },
        { "nan", std::numeric_limits<double>::quiet_NaN() },
        { "inf", std::numeric_limits<double>::infinity() },
        { "hash", QVariantHash { { "a", 1 }, { "b", QByteArray("\0", 1) } } },
        { "@Map_plain", 1 },
        { "@Map_group/a", 2 },
        { "@@x", "@" },
        { "text", "@ByteArray(AA==)" },
        { "rows", QVariantList { QVariantMap { { "a", 1 } }, 2 } },
        { "arr/2/x", 2 },
        { "arr/size", 2 },
        { "arr/zzz", 3 },
        { "local", QDateTime(QDate(2026, 11, 23), QTime(10, 1, 2, 345)) },
        { "utc", QDateTime(QDate(2026, 1, 1), QTime(0, 0), Qt::UTC) },
        { "offset", QDateTime(QDate(2026, 1, 1), QTime(0, 0), Qt::OffsetFromUTC, 3 * 3600) },
        { "nodate", QDateTime() },
        { "date", QDate(2026, 2, 3) },
        { "color", QColor(10, 20, 30, 40) },
        { "keys", QKeySequence(Qt::CTRL + Qt::Key_S) },
        { "font", font },
        { "own type", QVariant::fromValue(Streamable { 42 }) },
    };
    const QSettings::SettingsMap read = roundTrip(written);
    QCOMPARE(read.keys(), written.keys());
    for (auto it = written.constBegin(); it != written.constEnd(); ++it) {
        const QVariant back = read.value(it.key());
        QCOMPARE(back.userType(), it.value().userType());
        if (it.value().userType() == QMetaType::Double)
            QCOMPARE(QString::number(back.toDouble()), QString::number(it.value().toDouble()));
        else
            QCOMPARE(back, it.value());
        if (it.value().userType() == QMetaType::QDateTime)
            QCOMPARE(back.toDateTime().timeSpec(), it.value().toDateTime().timeSpec());
    }

    const QString path = dir.filePath(QStringLiteral("qt-types.json"));
    {
        QSettings settings(path, QtJsonSettings::JsonFormat);
        for (auto it = written.constBegin(); it != written.constEnd(); ++it)
            settings.setValue(it.key(), it.value());
        settings.sync();
        QCOMPARE(settings.status(), QSettings::NoError);
    }
    QByteArray out;
    RUN_TOOL(out, {}, "python3", "-c",
             "import json,sys; d = json.load(open(sys.argv[1])); w = d['window']; "
             "print(w[''], w['height'], w['rect'], d['columns'], d['@@Map_plain'], "
             "d['@@Map_group'], d['@@@x'], d['text'], d['nan'], d['arr'], "
             "d['utc'], sorted(d['@Hash_hash']))",
             path);
    QCOMPARE(out.trimmed(),
             QByteArray("640 480 @Rect(-5 10 800 600) ['bid', 'ask'] 1 {'a': 2} @@ "
                        "@@ByteArray(AA==) @Double(nan) {'2': {'x': 2}, 'size': 2, 'zzz': 3} "
                        "@DateTime(2026-01-01T00:00:00.000Z) ['a', 'b']"));
}

// A value no reader could rebuild fails the save loudly and keeps the old file;
// a tag that does not decode reads back as its text.
void tst_Settings::refusesWhatItCannotKeep()
{
    const QString path = dir.filePath(QStringLiteral("refused.json"));
    {
        QSettings settings(path, QtJsonSettings::JsonFormat);
        settings.setValue("kept", 1);
        settings.sync();
        settings.setValue("custom", QVariant::fromValue(Unsaveable()));
        Capture capture;
        settings.sync();
        QCOMPARE(settings.status(), QSettings::AccessError);
        QVERIFY2(logged.first().contains("custom (Unsaveable)"), qPrintable(logged.first()));
    }
    QCOMPARE(readFile(path), QSettings::SettingsMap({ { "kept", 1 } }));

    QBuffer buffer;
    buffer.setData(
        R"j({"a": "@Variant(!!)", "b": "@Rect(1 2)", "c": "@Nope(1)", "d": "@Size(1 2"})j");
    buffer.open(QIODevice::ReadOnly);
    QSettings::SettingsMap map;
    QVERIFY(QtJsonSettings::readJsonFile(buffer, map));
    QCOMPARE(map,
             QSettings::SettingsMap({ { "a", "@Variant(!!)" },
                                      { "b", "@Rect(1 2)" },
                                      { "c", "@Nope(1)" },
                                      { "d", "@Size(1 2" } }));
}

void tst_Settings::mapSettingsKeepApart()
{
    MapSettings a;
    MapSettings b;
    a.setValue("k", 1);
    b.setValue("k", 2);
    QCOMPARE(a.value("k"), QVariant(1));
    QCOMPARE(a.allKeys(), QStringList { "k" });

    MapSettings copy(a);
    copy.setValue("k", 3);
    copy.setValue("extra", 4);
    QCOMPARE(a.value("k"), QVariant(1));
    QCOMPARE(copy.allKeys().size(), 2);

    b = copy;
    const MapSettings &alias = b;
    b = alias;
    QCOMPARE(b.allKeys(), copy.allKeys());

    // A new object at the address of a destroyed one starts empty.
    alignas(MapSettings) unsigned char storage[sizeof(MapSettings)];
    auto *first = new (storage) MapSettings;
    first->setValue("left/behind", 1);
    first->~MapSettings();
    auto *second = new (storage) MapSettings;
    QVERIFY(second->allKeys().isEmpty());
    second->~MapSettings();

    // Only the three live objects hold anything in the shared store.
    QSettings store(QString(), QtJsonSettings::mapFormat());
    QCOMPARE(store.childGroups().size(), 3);

    // clear() inside a group empties this object alone, back in its own group.
    a.beginGroup("g");
    a.clear();
    QVERIFY(a.allKeys().isEmpty() && !a.group().contains('/'));
    QCOMPARE(b.allKeys().size(), 2);
}

void tst_Settings::mapSettingsStoreAndRestore()
{
    QSettings target(dir.filePath(QStringLiteral("store.json")), QtJsonSettings::JsonFormat);
    target.setValue("keep", 1);
    target.setValue("g/old", 1);
    target.setValue("g/shared", 1);
    target.setValue("g/sub/x", 1);

    MapSettings map;
    map.setValue("shared", 2);
    map.setValue("sub", 5);

    map.storeAdd(target, "g");
    QCOMPARE(target.allKeys(), QStringList({ "g/old", "g/shared", "g/sub", "keep" }));
    QCOMPARE(target.value("g/shared"), QVariant(2));

    Settings handle(&target);
    map.store(handle, "g");
    QCOMPARE(target.allKeys(), QStringList({ "g/shared", "g/sub", "keep" }));

    MapSettings restored;
    restored.setValue("mine", 1);
    restored.restore(target, "g");
    QCOMPARE(restored.allKeys(), QStringList({ "mine", "shared", "sub" }));
    QCOMPARE(target.group(), QString());

    const MapSettings whole(static_cast<const QSettings &>(target));
    QCOMPARE(whole.allKeys(), target.allKeys());
    QCOMPARE(MapSettings(handle).value("g/sub"), QVariant(5));
}

void tst_Settings::mapSettingsNeverTouchDisk()
{
    QTemporaryDir empty;
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(empty.path()));
    {
        MapSettings map;
        map.setValue("a", 1);
        map.sync();
        // Even on a real file name the "map" format commits nothing; a second
        // sync rereads nothing and must not lose the value.
        QSettings named(empty.filePath(QStringLiteral("named.map")), QtJsonSettings::mapFormat());
        named.setValue("b", 2);
        named.sync();
        named.sync();
        QCOMPARE(named.value("b"), QVariant(2));
    }
    QVERIFY(QDir::setCurrent(previous));
    QCOMPARE(QDir(empty.path())
                 .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot),
             QStringList());
}

void tst_Settings::settingsOwnership()
{
    const QString path = dir.filePath(QStringLiteral("owned.json"));
    QPointer<QSettings> owned;
    {
        Settings settings(path);
        owned = settings.getQSettings();
        const Settings copy = settings;
        settings.setValue("x", 5);
    }
    QVERIFY(owned.isNull());
    QCOMPARE(QSettings(path, QtJsonSettings::JsonFormat).value("x"), QVariant(5));

    auto *borrowed = new QSettings(path, QtJsonSettings::JsonFormat);
    const QPointer<QSettings> watch(borrowed);
    Settings handle(borrowed);
    Settings(handle).setValue("y", 1); // a copy goes away without deleting the object
    QVERIFY(!watch.isNull());
    delete borrowed;
    QVERIFY(handle.isNull());
    QTest::ignoreMessage(QtWarningMsg, "Settings::value: no QSettings object behind this handle");
    QCOMPARE(handle.value("x", 7), QVariant(7));
}

Q_DECLARE_METATYPE(Unsaveable)
Q_DECLARE_METATYPE(Streamable)

void tst_Settings::initTestCase()
{
    QVERIFY(dir.isValid());
    QStandardPaths::setTestModeEnabled(true);
    writeFile(path("defaults.json"),
              R"({"font": 10, "window": {"width": 800, "height": 600}, "theme": "light"})");
    defaults = DefaultSettings(path("defaults.json"));
    QCOMPARE(defaults.status(), QSettings::NoError);
}

void tst_Settings::fallsBackThroughLayers()
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
    QCOMPARE(readFile(path("layers/trading.json")).keys(), QStringList { "columns" });
    QCOMPARE(readFile(path("layers-app.json")).keys(), QStringList { "theme" });
}

void tst_Settings::workplaceOperations()
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
    QCOMPARE(readFile(path("ops/copy.json")).keys(), QStringList { "layout/split" });

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

void tst_Settings::hostileNames_data()
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
void tst_Settings::hostileNames()
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

void tst_Settings::changeSignal()
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
void tst_Settings::damagedFiles()
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
    QCOMPARE(readFile(path("damaged-app.json")).keys(), QStringList { "font" });

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

void tst_Settings::twoProcessesKeepEachOthersKeys()
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
    QCOMPARE(readFile(file).size(), 2 * count);
}

int main(int argc, char **argv)
{
    if (argc == 5 && qstrcmp(argv[1], "--write-keys") == 0) {
        QCoreApplication app(argc, argv);
        return writeKeys(QString::fromLocal8Bit(argv[2]), QString::fromLocal8Bit(argv[3]),
                         QByteArray(argv[4]).toInt());
    }
    QCoreApplication app(argc, argv);
    tst_Settings test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_settings.moc"
