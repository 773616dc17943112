#include <database/logfile.h>

#include <QTemporaryDir>
#include <QtTest>

// A row reads "log: files before -> listing after". Each file that exists
// beforehand holds its own name, so the listing ("name=content", by name)
// shows where every file went; the new log holds "new".
class TestLogFile : public QObject
{
    Q_OBJECT
private slots:
    void rotation_data();
    void rotation();
};

void TestLogFile::rotation_data()
{
    QTest::addColumn<QString>("row");
    QTest::newRow("no previous log") << "app.log: app.2.log -> app.2.log=app.2.log app.log=new";
    QTest::newRow("oldest dropped, gap kept")
        << "app.log: app.log app.1.log app.2.log app.4.log app.5.log -> app.1.log=app.log "
           "app.2.log=app.1.log app.3.log=app.2.log app.5.log=app.4.log app.log=new";
    QTest::newRow("no suffix") << "app: app app.1. -> app=new app.1.=app app.2.=app.1.";
    QTest::newRow("dots and percent")
        << "a%1.b.log: a%1.b.log -> a%1.b.1.log=a%1.b.log a%1.b.log=new";
}

void TestLogFile::rotation()
{
    QFETCH(QString, row);
    const QStringList parts = row.split(QRegularExpression(": | -> "));
    QTemporaryDir dir;
    for (const QString &name : parts[1].split(' ')) {
        QFile file(dir.filePath(name));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(name.toUtf8()) > 0);
    }
    LogFile(dir.filePath(parts[0])) << "new";
    QStringList listing;
    for (const QString &name : QDir(dir.path()).entryList(QDir::Files, QDir::Name)) {
        QFile file(dir.filePath(name));
        listing << name + '=' + (file.open(QIODevice::ReadOnly) ? file.readAll() : "?");
    }
    QCOMPARE(listing.join(' '), parts[2]);
}

QTEST_APPLESS_MAIN(TestLogFile)
#include "tst_logfile.moc"
