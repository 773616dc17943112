// Settings: the library registers a JSON format with QSettings while it loads,
// so any QSettings can keep its values in a nested, readable JSON file.

#include <database/database.h>

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include <cstdio>

int main()
{
    QTemporaryDir scratch;
    const QString path = scratch.filePath(QStringLiteral("workplace.json"));

    //! [write]
    // Groups become JSON objects, arrays of groups JSON arrays; numbers keep
    // their kind. QSettings writes the file when it is destroyed (or sync()).
    {
        QSettings settings(path, QtJsonSettings::JsonFormat);
        settings.setValue(QStringLiteral("window/width"), 1280);
        settings.setValue(QStringLiteral("window/title"), QStringLiteral("Quotes"));
        settings.beginWriteArray(QStringLiteral("boards"));
        const char *boards[] = { "TQBR", "SMAL" };
        for (int i = 0; i < 2; ++i) {
            settings.setArrayIndex(i);
            settings.setValue(QStringLiteral("name"), QString::fromLatin1(boards[i]));
        }
        settings.endArray();
    }
    //! [write]

    QFile file(path);
    if (file.open(QIODevice::ReadOnly))
        std::printf("%s\n", file.readAll().constData());

    //! [read]
    QSettings settings(path, QtJsonSettings::JsonFormat);
    const int width = settings.value(QStringLiteral("window/width")).toInt();
    const int boards = settings.beginReadArray(QStringLiteral("boards"));
    settings.setArrayIndex(1);
    const QString second = settings.value(QStringLiteral("name")).toString();
    settings.endArray();
    // A file that cannot be parsed shows in status(), and in the log.
    const bool ok = settings.status() == QSettings::NoError;
    //! [read]

    std::printf("width %d, %d boards, the second %s, status ok: %d\n", width, boards,
                qPrintable(second), ok);
    return width == 1280 && boards == 2 && second == QLatin1String("SMAL") && ok ? 0 : 1;
}
