#include <database/logfile.h>

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

// Each existing file holds its own original name, so the directory's final
// state shows where every file went.
class TestLogFile : public QObject
{
    Q_OBJECT
private slots:
    void rotation_data();
    void rotation();
    void rotateName();
};

void TestLogFile::rotation_data()
{
    QTest::addColumn<QString>("log");
    QTest::addColumn<QStringList>("existing");
    QTest::addColumn<QStringList>("expected"); // "file=content" after opening and writing "new"

    QTest::newRow("no previous log") << "app.log" << QStringList { "app.2.log" }
                                     << QStringList { "app.2.log=app.2.log", "app.log=new" };
    QTest::newRow("full set") << "app.log" << QStringList { "app.log",   "app.1.log", "app.2.log",
                                                            "app.3.log", "app.4.log", "app.5.log" }
                              << QStringList { "app.1.log=app.log",   "app.2.log=app.1.log",
                                               "app.3.log=app.2.log", "app.4.log=app.3.log",
                                               "app.5.log=app.4.log", "app.log=new" };
    QTest::newRow("gap") << "app.log"
                         << QStringList { "app.log", "app.1.log", "app.2.log", "app.4.log" }
                         << QStringList { "app.1.log=app.log", "app.2.log=app.1.log",
                                          "app.3.log=app.2.log", "app.5.log=app.4.log",
                                          "app.log=new" };
    QTest::newRow("no suffix") << "app" << QStringList { "app", "app.1." }
                               << QStringList { "app=new", "app.1.=app", "app.2.=app.1." };
    QTest::newRow("several dots") << "app.2024.log" << QStringList { "app.2024.log" }
                                  << QStringList { "app.2024.1.log=app.2024.log",
                                                   "app.2024.log=new" };
    QTest::newRow("percent in name") << "a%1.log" << QStringList { "a%1.log" }
                                     << QStringList { "a%1.1.log=a%1.log", "a%1.log=new" };
}

void TestLogFile::rotation()
{
    QFETCH(QString, log);
    QFETCH(QStringList, existing);
    QFETCH(QStringList, expected);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    for (const QString &name : existing) {
        QFile file(dir.filePath(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(name.toUtf8());
    }
    {
        LogFile logFile(dir.filePath(log));
        logFile << "new";
    }
    QStringList actual;
    const QDir qdir(dir.path());
    for (const QString &name : qdir.entryList(QDir::Files, QDir::Name)) {
        QFile file(qdir.filePath(name));
        QVERIFY(file.open(QIODevice::ReadOnly));
        actual << name + '=' + QString::fromUtf8(file.readAll());
    }
    actual.sort();
    expected.sort();
    QCOMPARE(actual, expected);
}

void TestLogFile::rotateName()
{
    const QString sep = QDir::separator();
    QCOMPARE(LogFile::rotateName(QFileInfo("logs/app.log"), 3), "logs" + sep + "app.3.log");
    QCOMPARE(LogFile::rotateName(QFileInfo("/var/log/a.b.c"), 12), "/var/log" + sep + "a.b.12.c");
    QCOMPARE(LogFile::rotateName(QFileInfo("app"), 1), "." + sep + "app.1.");
}

QTEST_APPLESS_MAIN(TestLogFile)
#include "tst_logfile.moc"
