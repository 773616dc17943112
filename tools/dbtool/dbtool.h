#ifndef DBTOOL_DBTOOL_H
#define DBTOOL_DBTOOL_H

// The command framework of dbtool: exit codes, the command table, the shared
// options and the readers of option values.
//
// Every command is a Command: a name, a one-line summary, a function that
// declares its options and positional arguments on a QCommandLineParser and
// a function that runs it on the parsed line. main() (runCommandLine) looks
// the command up, parses its line with its own parser, answers --help and
// `dbtool help COMMAND` from the same parser, and maps the outcome to an exit
// code:
//
//   0  success                         2  bad or unreadable input
//   1  usage error (bad line, value)   3  the output could not be written
//
// Messages: results go to stdout, every error to stderr as
// "dbtool COMMAND: FILE: what is wrong". Outputs are written atomically
// (QSaveFile): a failed command leaves no half file and never touches an
// existing one.
//
// Threads: the tool runs on its main thread only.

#include <QCommandLineParser>
#include <QString>
#include <QStringList>
#include <QTextStream>

namespace dbtool {

enum ExitCode { ExitOk = 0, ExitUsage = 1, ExitBadInput = 2, ExitWriteFailed = 3 };

// What a running command reports through.
struct Context
{
    QString command;
    QTextStream &out;
    QTextStream &err;
    bool quiet = false;

    // "dbtool COMMAND: MESSAGE" on stderr; returns `code`.
    int fail(int code, const QString &message) const;
    // A warning on stderr that does not change the exit code.
    void warn(const QString &message) const;
};

struct Command
{
    const char *name;
    const char *summary;
    void (*setup)(QCommandLineParser &parser);
    int (*run)(const QCommandLineParser &parser, Context &context);
};

// Every command, in the order `dbtool help` lists them.
const QList<Command> &commands();
const Command *findCommand(const QString &name);

// Parses `arguments` (the command's own, without the program and command
// names) with the command's parser. Returns false with `error` set for a line
// that the parser refuses (unknown option, missing value).
bool parseCommandLine(const Command &command, QCommandLineParser &parser,
                      const QStringList &arguments, QString &error);

// Runs a whole command line (without the program name) and returns the exit
// code.
int runCommandLine(const QStringList &arguments, QTextStream &out, QTextStream &err);

// --- option values (false with `error` naming the option and the value) ---

// A whole number >= 0 ("--limit -1", "--limit abc" are refused).
bool readCount(const QString &option, const QString &text, qint64 &value, QString &error);
// A finite number; with `positive`, > 0.
bool readNumber(const QString &option, const QString &text, bool positive, double &value,
                QString &error);

// A row condition: COLUMN=VALUE, COLUMN!=VALUE, COLUMN<VALUE, COLUMN>VALUE,
// COLUMN<=VALUE, COLUMN>=VALUE. The value is read by the column's type once
// the table is known.
struct Condition
{
    QString column;
    QString op; // "=", "!=", "<", ">", "<=", ">="
    QString value;
};
bool readCondition(const QString &text, Condition &condition, QString &error);

// A sort key: COLUMN or COLUMN:asc or COLUMN:desc.
struct SortKey
{
    QString column;
    bool descending = false;
};
bool readSortKey(const QString &text, SortKey &key, QString &error);

// A comma-separated list of column names, none empty.
bool readColumnList(const QString &text, QStringList &columns, QString &error);

// The option every command has.
extern const QCommandLineOption quietOption;

// The commands.
void setupInfo(QCommandLineParser &parser);
int runInfo(const QCommandLineParser &parser, Context &context);
void setupDescribe(QCommandLineParser &parser);
int runDescribe(const QCommandLineParser &parser, Context &context);
void setupCreate(QCommandLineParser &parser);
int runCreate(const QCommandLineParser &parser, Context &context);
void setupDump(QCommandLineParser &parser);
int runDump(const QCommandLineParser &parser, Context &context);
void setupExport(QCommandLineParser &parser);
int runExport(const QCommandLineParser &parser, Context &context);
void setupImport(QCommandLineParser &parser);
int runImport(const QCommandLineParser &parser, Context &context);
void setupConvert(QCommandLineParser &parser);
int runConvert(const QCommandLineParser &parser, Context &context);
void setupVerify(QCommandLineParser &parser);
int runVerify(const QCommandLineParser &parser, Context &context);
void setupStats(QCommandLineParser &parser);
int runStats(const QCommandLineParser &parser, Context &context);
void setupPrice(QCommandLineParser &parser);
int runPrice(const QCommandLineParser &parser, Context &context);

} // namespace dbtool

#endif // DBTOOL_DBTOOL_H
