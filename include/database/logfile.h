#ifndef DATABASE_LOGFILE_H
#define DATABASE_LOGFILE_H

#include <database/database_global.h>

#include <QFile>
#include <QObject>
#include <QTextStream>

class QFileInfo;

// LogFile is a text stream onto a log file that keeps the five previous logs,
// so that each run of the application starts a fresh file. Write to it as to
// any QTextStream.
//
// Opening moves an existing file of that name aside: copy 5 (the oldest) is
// deleted, copies 4 to 1 each move up by one number, and the current file
// becomes copy 1. A missing copy leaves a gap that the others shift past
// independently. At most six files exist afterwards: the new log and copies
// 1 (newest) to 5 (oldest), named by rotateName.
//
// Failures of remove, rename or open are silent: a log must never stop the
// application. If the file cannot be opened, writes are lost; check
// device()->isOpen() when that matters.
//
// Ownership: the LogFile owns its QFile. Thread-safety: none, like QTextStream;
// the rotation is not guarded against another process rotating the same log.
class DATABASE_EXPORT LogFile : public QObject, public QTextStream
{
    Q_OBJECT
public:
    // Rotates the existing copies of fileName, then opens it for appending
    // text.
    explicit LogFile(const QString &fileName, QObject *parent = nullptr);
    // Flushes the stream and closes the file.
    ~LogFile() override;

    // The name of copy number of the file: its directory, the native
    // separator, then "<complete base name>.<number>.<suffix>". A name with
    // several dots keeps all but the last in the base name (a.b.log -> a.b.1.log);
    // a name without suffix ends in a dot (app -> app.1.).
    static QString rotateName(const QFileInfo &info, int number);

private:
    Q_DISABLE_COPY(LogFile)

    QFile m_file;
};

#endif // DATABASE_LOGFILE_H
