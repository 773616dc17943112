// dbtool: the command-line companion of the database library (see dbtool.h).

#include "dbtool.h"

#include <QCoreApplication>

namespace {

// The tool reports the errors of table files itself, once, naming the file;
// the library's warnings about them would say it twice.
QtMessageHandler standardHandler = nullptr;

void dropTableFileWarnings(QtMsgType type, const QMessageLogContext &context,
                           const QString &message)
{
    if (type == QtWarningMsg && message.startsWith(QLatin1String("TableIO: ")))
        return;
    if (standardHandler)
        standardHandler(type, context, message);
}

} // namespace

int main(int argc, char **argv)
{
    standardHandler = qInstallMessageHandler(dropTableFileWarnings);
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("dbtool"));
    QTextStream out(stdout);
    QTextStream err(stderr);
    // Cell texts are Unicode (the application's are Russian); the C locale's
    // codec would turn them into question marks.
    out.setCodec("UTF-8");
    err.setCodec("UTF-8");
    return dbtool::runCommandLine(app.arguments().mid(1), out, err);
}
