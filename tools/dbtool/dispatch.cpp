// The command table, the help, the dispatch and the readers of option values
// (the contract is in dbtool.h); the commands live in the cmd_*.cpp files.

#include "dbtool.h"

#include <QRegularExpression>

#include <cmath>

namespace dbtool {

const QCommandLineOption quietOption(QStringList { QStringLiteral("q"), QStringLiteral("quiet") },
                                     QStringLiteral("No progress bar."));

const QList<Command> &commands()
{
    static const QList<Command> table {
        { "info", "Header, row count, form and sizes of table files (--json: schema)", setupInfo,
          runInfo },
        { "dump", "Rows as aligned text, TSV, CSV or JSON lines; filter, sort, page", setupDump,
          runDump },
        { "export", "Write a table file's rows to a CSV or JSON-lines file", setupExport,
          runExport },
        { "import", "Build a table file from a CSV file and a schema", setupImport, runImport },
        { "convert", "Re-encode a table file (plain/gzip) and convert its columns", setupConvert,
          runConvert },
        { "verify", "Read every row of table files; report the first bad offset", setupVerify,
          runVerify },
        { "stats", "Per column: nulls, min, max, distinct values", setupStats, runStats },
        { "price", "Option price, greeks and implied volatility", setupPrice, runPrice },
        { "describe", "Column layout of a table file (offsets, cell sizes, flags)", setupDescribe,
          runDescribe },
        { "create", "Write a sample quote table file", setupCreate, runCreate },
    };
    return table;
}

const Command *findCommand(const QString &name)
{
    for (const Command &command : commands()) {
        if (name == QLatin1String(command.name))
            return &command;
    }
    return nullptr;
}

int Context::fail(int code, const QString &message) const
{
    out.flush(); // what was printed before the error comes before it
    err << "dbtool " << command << ": " << message << '\n';
    err.flush();
    return code;
}

void Context::warn(const QString &message) const
{
    out.flush();
    err << "dbtool " << command << ": warning: " << message << '\n';
    err.flush();
}

namespace {

void prepareParser(const Command &command, QCommandLineParser &parser)
{
    parser.setApplicationDescription(QString::fromLatin1(command.summary));
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    parser.addOption(QCommandLineOption(QStringList { QStringLiteral("h"), QStringLiteral("help") },
                                        QStringLiteral("This help.")));
    parser.addOption(quietOption);
    command.setup(parser);
}

// QCommandLineParser's help names the program only; the tool names the
// command too.
QString commandHelp(const Command &command, QCommandLineParser &parser)
{
    QString text = parser.helpText();
    text.replace(QRegularExpression(QStringLiteral("^Usage: \\S+")),
                 QStringLiteral("Usage: dbtool %1").arg(QLatin1String(command.name)));
    return text;
}

void generalHelp(QTextStream &out)
{
    out << "Usage: dbtool COMMAND [options] [arguments]\n\n"
           "The command-line companion of the table database: inspect, dump, export,\n"
           "import, convert and check table files, and price options.\n\nCommands:\n";
    for (const Command &command : commands())
        out << QStringLiteral("  %1 %2\n")
                   .arg(QLatin1String(command.name), -9)
                   .arg(QLatin1String(command.summary));
    out << "\n'dbtool help COMMAND' or 'dbtool COMMAND --help' describes a command.\n"
           "Exit codes: 0 success, 1 usage error, 2 bad or unreadable input,\n"
           "3 output could not be written.\n";
}

} // namespace

bool parseCommandLine(const Command &command, QCommandLineParser &parser,
                      const QStringList &arguments, QString &error)
{
    prepareParser(command, parser);
    if (!parser.parse(QStringList { QStringLiteral("dbtool") } + arguments)) {
        error = parser.errorText();
        return false;
    }
    return true;
}

int runCommandLine(const QStringList &arguments, QTextStream &out, QTextStream &err)
{
    const QString name = arguments.value(0);
    if (name.isEmpty() || name == QLatin1String("help") || name == QLatin1String("--help")
        || name == QLatin1String("-h")) {
        const QString topic = name == QLatin1String("help") ? arguments.value(1) : QString();
        if (topic.isEmpty()) {
            generalHelp(name.isEmpty() ? err : out);
            return name.isEmpty() ? ExitUsage : ExitOk;
        }
        const Command *command = findCommand(topic);
        if (!command) {
            err << "dbtool help: unknown command '" << topic << "'; 'dbtool help' lists them\n";
            return ExitUsage;
        }
        QCommandLineParser parser;
        prepareParser(*command, parser);
        out << commandHelp(*command, parser);
        return ExitOk;
    }
    const Command *command = findCommand(name);
    if (!command) {
        err << "dbtool: unknown command '" << name << "'; 'dbtool help' lists the commands\n";
        return ExitUsage;
    }
    QCommandLineParser parser;
    QString error;
    Context context { name, out, err };
    if (!parseCommandLine(*command, parser, arguments.mid(1), error))
        return context.fail(ExitUsage,
                            QStringLiteral("%1 ('dbtool help %2' describes it)").arg(error, name));
    if (parser.isSet(QStringLiteral("help"))) {
        out << commandHelp(*command, parser);
        return ExitOk;
    }
    context.quiet = parser.isSet(quietOption);
    const int code = command->run(parser, context);
    out.flush();
    err.flush();
    return code;
}

// --- option values --------------------------------------------------------------------------

bool readCount(const QString &option, const QString &text, qint64 &value, QString &error)
{
    bool ok = false;
    value = text.toLongLong(&ok);
    if (!ok || value < 0) {
        error = QStringLiteral("--%1: '%2' is not a whole number of 0 or more").arg(option, text);
        return false;
    }
    return true;
}

bool readNumber(const QString &option, const QString &text, bool positive, double &value,
                QString &error)
{
    bool ok = false;
    value = text.toDouble(&ok);
    if (!ok || !std::isfinite(value) || (positive && value <= 0)) {
        error = QStringLiteral("--%1: '%2' is not a %3number")
                    .arg(option, text, positive ? QStringLiteral("positive ") : QString());
        return false;
    }
    return true;
}

bool readCondition(const QString &text, Condition &condition, QString &error)
{
    static const char *const operators[] = { "!=", "<=", ">=", "=", "<", ">" };
    int best = -1;
    QString op;
    for (const char *candidate : operators) {
        const int at = text.indexOf(QLatin1String(candidate));
        if (at > 0 && (best < 0 || at < best)) {
            best = at;
            op = QLatin1String(candidate);
        }
    }
    if (best <= 0) {
        error = QStringLiteral("--where: '%1' is not COLUMN=VALUE (or !=, <, >, <=, >=)").arg(text);
        return false;
    }
    // "a<=b" is found as "<" and "<=" at the same place: the longer wins.
    for (const char *candidate : operators) {
        if (text.mid(best).startsWith(QLatin1String(candidate))
            && int(qstrlen(candidate)) > op.size())
            op = QLatin1String(candidate);
    }
    condition.column = text.left(best).trimmed();
    condition.op = op;
    condition.value = text.mid(best + op.size());
    return true;
}

bool readSortKey(const QString &text, SortKey &key, QString &error)
{
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    key.column = colon < 0 ? text : text.left(colon);
    const QString order = colon < 0 ? QStringLiteral("asc") : text.mid(colon + 1).toLower();
    if (key.column.isEmpty() || (order != QLatin1String("asc") && order != QLatin1String("desc"))) {
        error = QStringLiteral("--sort: '%1' is not COLUMN, COLUMN:asc or COLUMN:desc").arg(text);
        return false;
    }
    key.descending = order == QLatin1String("desc");
    return true;
}

bool readColumnList(const QString &text, QStringList &columns, QString &error)
{
    columns = text.split(QLatin1Char(','));
    for (QString &column : columns) {
        column = column.trimmed();
        if (column.isEmpty()) {
            error = QStringLiteral("--columns: '%1' names an empty column").arg(text);
            return false;
        }
    }
    return true;
}

} // namespace dbtool
