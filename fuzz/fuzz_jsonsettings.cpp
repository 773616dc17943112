// Feeds arbitrary bytes to the "json" settings reader. What parses is written
// back; the writer may refuse it (member names full of "/" can nest deeper
// than any reader accepts), but what it writes must parse again: the writer
// may never produce a file that the reader refuses.

#include <database/settings/qtjsonsettings.h>

#include <QBuffer>

#include <cstdint>
#include <cstdlib>

namespace {

void dropMessage(QtMsgType, const QMessageLogContext &, const QString &)
{
}

} // namespace

// QtCore 5.15's JSON parser leaks the value it replaces when an object repeats a
// key whose value is itself an object. That leak lives inside QtCore (its stack
// shows only QtCore frames); leaks of this library's own allocations still show.
extern "C" const char *__lsan_default_suppressions()
{
    return "leak:libQt5Core.so";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const QtMessageHandler previous = qInstallMessageHandler(dropMessage);
    Q_UNUSED(previous);
    if (size > std::size_t(QtJsonSettings::MaxFileSize))
        return 0;

    QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size));
    QBuffer input(&bytes);
    input.open(QIODevice::ReadOnly);
    QSettings::SettingsMap map;
    if (!QtJsonSettings::readJsonFile(input, map)) {
        if (!map.isEmpty())
            std::abort();
        return 0;
    }

    QBuffer output;
    output.open(QIODevice::WriteOnly);
    if (!QtJsonSettings::writeJsonFile(output, map))
        return 0;
    output.close();
    output.open(QIODevice::ReadOnly);
    QSettings::SettingsMap reread;
    if (!QtJsonSettings::readJsonFile(output, reread))
        std::abort();
    return 0;
}
