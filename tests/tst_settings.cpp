// The "json" settings format, the Settings handle and in-memory MapSettings.

#include <database/database.h>

#include "testsupport.h"

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

QByteArray runPython(const QString &script, const QString &path)
{
    const TestSupport::ProgramRun python = TestSupport::runProgram(
        QStringLiteral("python3"), { QStringLiteral("-c"), script, path });
    return python.ok ? python.out.trimmed() : "python failed: " + python.err;
}

const QString DebugReadError
    = QStringLiteral("QGuiLog/%1: Ошибка при чтении настроек JSON:\n ").arg(QtDebugMsg);

} // namespace

class tst_Settings : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QVERIFY(dir.isValid()); }
    void writeNesting_data();
    void writeNesting();
    void interoperatesWithPython();
    void badFiles_data();
    void badFiles();
    void deviceErrors();
    void mapSettingsKeepApart();
    void mapSettingsStoreAndRestore();
    void mapSettingsNeverTouchDisk();
    void settingsOwnership();

private:
    QTemporaryDir dir;
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

// Files we write are read by Python's json module, and files it writes read
// back here, with every kind of value.
void tst_Settings::interoperatesWithPython()
{
    if (QStandardPaths::findExecutable(QStringLiteral("python3")).isEmpty())
        QSKIP("python3 is not installed");
    const QString path = dir.filePath(QStringLiteral("roundtrip.json"));
    const QSettings::SettingsMap written { { "window/title", QStringLiteral("Котировки ✓") },
                                           { "window/width", 800 },
                                           { "window/ratio", 0.75 },
                                           { "window/visible", true },
                                           { "filter", QVariantMap { { "board", "TQBR" } } },
                                           { "columns", QVariantList { 1, "b" } },
                                           { "id", qlonglong(1) << 40 } };
    {
        QSettings settings(path, QtJsonSettings::JsonFormat);
        for (auto it = written.constBegin(); it != written.constEnd(); ++it)
            settings.setValue(it.key(), it.value());
        settings.sync();
        QCOMPARE(settings.status(), QSettings::NoError);
    }
    QCOMPARE(
        runPython("import json,sys; print(json.dumps(json.load(open(sys.argv[1], "
                  "encoding='utf-8')), sort_keys=True, separators=(',',':'), "
                  "ensure_ascii=False))",
                  path),
        QStringLiteral(R"({"@Map_filter":{"board":"TQBR"},"columns":[1,"b"],"id":1099511627776,)"
                       R"("window":{"ratio":0.75,"title":"Котировки ✓","visible":true,)"
                       R"("width":800}})")
            .toUtf8());

    const QString pythonPath = dir.filePath(QStringLiteral("python.json"));
    QCOMPARE(runPython(R"(import json,sys
doc = {"window": {"geometry": {"x": 10}, "title": "Котировки ✓"},
       "rows": [{"name": "a"}, {"name": "b", "n": 2}],
       "cols": [1, 2.5, "три", True, None], "empty": [], "nothing": {},
       "@Map_filter": {"board": "TQBR", "lots": 10},
       "big": 12345678901}
json.dump(doc, open(sys.argv[1], "w"), indent=1))",
                       pythonPath),
             QByteArray());
    QSettings settings(pythonPath, QtJsonSettings::JsonFormat);
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
}

void tst_Settings::badFiles()
{
    QFETCH(QByteArray, content);
    QFETCH(qint64, sparseSize);
    QFETCH(QString, error);
    QFETCH(int, line);

    const QString path = dir.filePath(QStringLiteral("bad-%1.json").arg(QTest::currentDataTag()));
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        QVERIFY(file.write(content) == content.size());
        if (sparseSize)
            QVERIFY(file.resize(sparseSize));
    }
    Capture capture;
    QSettings settings(path, QtJsonSettings::JsonFormat);
    QCOMPARE(settings.status(), QSettings::FormatError);
    QVERIFY(settings.allKeys().isEmpty());
    QCOMPARE(logged,
             QStringList(DebugReadError + path
                         + QStringLiteral(" \n%1 в строке %2").arg(error).arg(line)));
}

void tst_Settings::deviceErrors()
{
    Capture capture;
    // QSettings never reads an empty file (it is an empty settings file), but
    // the read function itself refuses an empty document.
    QBuffer empty;
    empty.open(QIODevice::ReadOnly);
    QSettings::SettingsMap map;
    QVERIFY(!QtJsonSettings::readJsonFile(empty, map));
    QVERIFY(map.isEmpty());
    QBuffer readOnly;
    readOnly.open(QIODevice::ReadOnly);
    QVERIFY(!QtJsonSettings::writeJsonFile(readOnly, { { "a", 1 } }));
    QCOMPARE(logged.first(), DebugReadError + QStringLiteral("QBuffer \nillegal value в строке 1"));
    QCOMPARE(logged.last(),
             QStringLiteral("QGuiLog/%1: Ошибка при записи настроек JSON").arg(QtWarningMsg));

    // A key nested too deeply for any reader is refused rather than written.
    QBuffer out;
    out.open(QIODevice::WriteOnly);
    const QString deepKey = QString("k/").repeated(QtJsonSettings::MaxDepth) + "k";
    QVERIFY(!QtJsonSettings::writeJsonFile(out, { { deepKey, 1 } }));
    QVERIFY(out.data().isEmpty());
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

    const QString base = QStringLiteral("0x%1").arg(quintptr(&a), 16, 16, QLatin1Char('0'));
    QCOMPARE(a.group(), base);
    a.beginGroup("g");
    a.beginGroup("h");
    a.setValue("x", 1);
    a.endAllGroups();
    QCOMPARE(a.group(), base);
    QVERIFY(a.allKeys().contains("g/h/x"));
    a.beginGroup("g");
    a.clear();
    QCOMPARE(a.group(), base);
    QVERIFY(a.allKeys().isEmpty());
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

QTEST_GUILESS_MAIN(tst_Settings)
#include "tst_settings.moc"
