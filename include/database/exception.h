#ifndef DATABASE_EXCEPTION_H
#define DATABASE_EXCEPTION_H

#include <database/database_global.h>

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <exception>

// Exception is thrown for conversion faults of fields and for master-index
// key errors. It carries its message and the call stack captured when it was
// made.
//
// Callers of the library catch three kinds of thrown objects: Exception, a bare
// QString (definition and layout errors) and the character string
// "decimal:overflow" (decimal::fromDouble).
//
// Every destruction logs the stored stack through dump(), so a copy made while
// catching by value and the thrown object each log it once. This is deliberate:
// the stack reaches the log even when the catcher ignores the exception.
//
// Exception derives from std::exception so that a handler for the standard
// exceptions catches it too and an uncaught one is reported by what(): the
// message, UTF-8 encoded.
//
// Thread-safety: an Exception is a value; distinct objects may be used on
// distinct threads (what() refreshes a per-object buffer).
class DATABASE_EXPORT Exception : public std::exception
{
public:
    // Stores the message, then captures the current stack.
    explicit Exception(const QString &message);
    // Copies message and stack; the stack is not captured again.
    Exception(const Exception &other);
    Exception &operator=(const Exception &other) = default;
    ~Exception() override;

    // The message, UTF-8 encoded; valid until the next what() or until the
    // exception is destroyed.
    const char *what() const noexcept override;

    // The current call stack, innermost frame first, without getStack's own
    // frame. Empty when the platform reports one frame or none.
    static QStringList getStack();

    // Writes each stack line, quoted, to the debug log. The message is not logged.
    void dump() const;

    QString message;
    QStringList stack;

private:
    mutable QByteArray m_what;
};

#endif // DATABASE_EXCEPTION_H
