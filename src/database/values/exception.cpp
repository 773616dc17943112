#include <database/exception.h>

#include <QDebug>

#include <cstdlib>
#include <execinfo.h>

Exception::Exception(const QString &message)
    : message(message)
    , stack(getStack())
{
}

Exception::Exception(const Exception &other) = default;

const char *Exception::what() const noexcept
{
    // Built on demand: the message is a public field that callers may change.
    m_what = message.toUtf8();
    return m_what.constData();
}

Exception::~Exception()
{
    dump();
}

QStringList Exception::getStack()
{
    void *addresses[128];
    const int frames = backtrace(addresses, 128);
    QStringList result;
    if (frames <= 1)
        return result;
    char **lines = backtrace_symbols(addresses, frames);
    if (!lines)
        return result;
    result.reserve(frames - 1);
    for (int i = 1; i < frames; ++i)
        result.append(QString::fromLatin1(lines[i]));
    std::free(lines);
    return result;
}

void Exception::dump() const
{
    for (const QString &line : stack)
        QMessageLogger("../../src/database/exception", __LINE__, "void Exception::dump() const")
                .debug()
            << line;
}
