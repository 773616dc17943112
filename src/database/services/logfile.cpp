#include <database/logfile.h>

#include <QDir>
#include <QFileInfo>

namespace {
// The number of previous logs kept beside the current one.
constexpr int kKeptCopies = 5;
} // namespace

LogFile::LogFile(const QString &fileName, QObject *parent)
    : QObject(parent)
    , m_file(fileName)
{
    const QFileInfo info(fileName);
    if (info.exists()) {
        for (int number = kKeptCopies; number >= 1; --number) {
            const QString copy = rotateName(info, number);
            if (!QFile::exists(copy))
                continue;
            if (number == kKeptCopies)
                QFile::remove(copy);
            else
                QFile::rename(copy, rotateName(info, number + 1));
        }
        QFile::rename(fileName, rotateName(info, 1));
    }
    m_file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Text);
    setDevice(&m_file);
}

LogFile::~LogFile()
{
    // The file member dies before the stream base, so the stream must let go
    // of it here, flushing what it still buffers.
    setDevice(nullptr);
    m_file.close();
}

QString LogFile::rotateName(const QFileInfo &info, int number)
{
    // One multi-argument arg() call, so that a '%' in the file name is never
    // taken for a place marker.
    return info.path() + QDir::separator()
        + QStringLiteral("%1.%2.%3")
              .arg(info.completeBaseName(), QString::number(number), info.suffix());
}
