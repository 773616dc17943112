#ifndef TESTS_TESTSUPPORT_H
#define TESTS_TESTSUPPORT_H

// Helpers shared by the test programs: a device that fails on demand, a table
// file saved to and loaded from memory, an outside program run with a bounded
// wait (RUN_TOOL in a test), the table's lock taken from another thread with a bounded wait, and an
// index that records what it is told.

#include <database/index.h>
#include <database/masterindex.h>
#include <database/record.h>
#include <database/table.h>
#include <database/tableio.h>

#include <QBuffer>
#include <QDataStream>
#include <QProcess>
#include <QStandardPaths>
#include <QStringList>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <thread>

// Runs an outside program that must succeed, with `input` on its standard input
// and its output into `out`; skips the rest of the test when the program is not
// installed.
#define RUN_TOOL(out, input, program, ...)                                                         \
    do {                                                                                           \
        if (QStandardPaths::findExecutable(program).isEmpty())                                     \
            QSKIP(program " is not installed");                                                    \
        const TestSupport::ProgramRun run                                                          \
            = TestSupport::runProgram(program, { __VA_ARGS__ }, input);                            \
        QVERIFY2(run.ok, run.err.constData());                                                     \
        out = run.out;                                                                             \
    } while (false)

namespace TestSupport {

// A buffer whose reads and writes fail (error "injected failure") while
// `failing` is set, and once `limit` bytes of it have passed. Built over data,
// it starts open for reading.
class FaultyDevice : public QBuffer
{
public:
    FaultyDevice() = default;
    explicit FaultyDevice(const QByteArray &data)
    {
        setData(data);
        open(ReadOnly);
    }
    bool failing = false;
    qint64 limit = std::numeric_limits<qint64>::max();
    // A device still being written may deliver more later: running out of
    // input is then "nothing yet", not a truncated stream.
    bool growing = false;
    bool atEnd() const override { return !growing && QBuffer::atEnd(); }

protected:
    qint64 readData(char *to, qint64 n) override
    {
        return failing || pos() >= limit ? fail() : QBuffer::readData(to, qMin(n, limit - pos()));
    }
    qint64 writeData(const char *from, qint64 n) override
    {
        return failing || n > limit - pos() ? fail() : QBuffer::writeData(from, n);
    }

private:
    qint64 fail()
    {
        setErrorString(QStringLiteral("injected failure"));
        return -1;
    }
};

// Every row as its cells' texts joined by '|' ("~" for a null cell), in master
// order; no rows without a master index.
inline QStringList rowTexts(const Table &table)
{
    QStringList texts;
    if (!table.masterIndex())
        return texts;
    for (const Record &record : *table.masterIndex()) {
        QStringList cells;
        for (int c = 0; c < table.columnCount(); ++c)
            cells << (record.data(c).isNull() ? QStringLiteral("~") : record.data(c).toString());
        texts << cells.join('|');
    }
    return texts;
}

// The table's file as bytes (empty when the save fails), and a load of such
// bytes; addColumns as in TableIO::read.
inline QByteArray savedBytes(Table &table, bool withRows = true)
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    return TableIO(&table).write(out, withRows) ? bytes : QByteArray();
}

inline bool loadBytes(Table &table, const QByteArray &bytes, bool addColumns = false)
{
    QDataStream in(bytes);
    return TableIO(&table).read(in, addColumns);
}

struct ProgramRun
{
    bool ok = false; // started, ended within the time, exit code 0
    QByteArray out;
    QByteArray err;
};

// Runs an outside program with `input` on its standard input. A program still
// running after `ms` is killed, so a test fails rather than hangs.
inline ProgramRun runProgram(const QString &program, const QStringList &arguments,
                             const QByteArray &input = QByteArray(), int ms = 60000)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PYTHONIOENCODING"), QStringLiteral("utf-8"));
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    const bool ended = process.waitForFinished(ms);
    if (!ended) {
        process.kill();
        process.waitForFinished(1000);
    }
    ProgramRun run;
    run.ok = ended && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

// Takes and releases the table's lock on another thread. False when that
// thread still waits after `ms` (a bracket leaked the lock): it is left behind,
// blocked, and the test fails instead of hanging until the CTest timeout.
inline bool lockableElsewhere(const Table &table, int ms = 10000)
{
    // A mutex and a condition rather than a future: the checker sees the
    // hand-over through them (the standard library's futex is invisible).
    struct Done
    {
        std::mutex mutex;
        std::condition_variable condition;
        bool done = false;
    };
    auto done = std::make_shared<Done>();
    std::thread([&table, done] {
        table.lock();
        table.unlock();
        const std::lock_guard<std::mutex> guard(done->mutex);
        done->done = true;
        done->condition.notify_one();
    }).detach();
    std::unique_lock<std::mutex> lock(done->mutex);
    return done->condition.wait_for(lock, std::chrono::milliseconds(ms),
                                    [&] { return done->done; });
}

// An index that holds the rows it is given, counts builds and batches and, with
// a log, writes every call as "name.call(arguments)" into a space-separated log
// shared by the indexes of a test (a record is written as its column 0).
class RecordingIndex : public Index
{
public:
    explicit RecordingIndex(const QString &name = QString(), QString *log = nullptr,
                            const char *className = "IndexList")
        : name(name)
        , log(log)
        , className(className)
    {
    }

    void clear() override { emptied("clear"); }
    void clear(bool rebuilding) override { emptied("clear", rebuilding); }
    void build() override { built("build"); }
    void build(bool rebuilding) override { built("build", rebuilding); }
    void add(const Record &record) override
    {
        note("add", record);
        rows.append(record);
        if (onAdd)
            onAdd(record);
    }
    void preprocess(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                    const QList<Record> &inserted, const QList<Record> &changed) override
    {
        note("preprocess", removed, updated, first, last, inserted, changed);
    }
    void process(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                 const QList<Record> &inserted) override
    {
        note("process", removed, updated, first, last, inserted);
        batches.append(inserted.size());
        for (const Record &record : removed)
            rows.removeOne(record);
        rows += inserted;
    }
    bool remove(const Record &record, int position) override
    {
        note("remove", record, position);
        return rows.removeOne(record);
    }
    bool filter(const Record &record) const override { return idOf(record) != rejected; }
    bool contains(const Record &record) const override { return rows.contains(record); }
    void update(const Record &record, int a, int b, int position) override
    {
        note("update", record, a, b, position);
    }
    int indexOf(const Record &record) const override { return rows.indexOf(record); }
    void beginUpdate() override { note("begin"); }
    void endUpdate() override { note("end"); }
    void dependentBeginUpdate(Table *table) override { note("depBegin", table); }
    void dependentEndUpdate(Table *table) override { note("depEnd", table); }
    const char *getClassName() const override { return className; }

    static int idOf(const Record &record)
    {
        return record.isNull() ? -1 : record.data(0).get<int>();
    }

    QString name;
    QString *log;
    const char *className;
    QList<Record> rows;
    QList<int> batches; // the size of each inserted list that process() saw
    int builds = 0;
    int rejected = -1; // the column-0 value that filter() turns away
    std::function<void(const Record &)> onAdd;

private:
    static QString text(int number) { return QString::number(number); }
    static QString text(const Record &record) { return text(idOf(record)); }
    static QString text(Table *table) { return table->name(); }
    static QString text(const QList<Record> &records)
    {
        QStringList ids;
        for (const Record &record : records)
            ids << text(record);
        return '[' + ids.join(',') + ']';
    }
    template <typename... Args> void note(const char *call, const Args &...args)
    {
        if (!log)
            return;
        const QStringList parts { text(args)... };
        *log += (log->isEmpty() ? "" : " ") + name + '.' + call
            + (parts.isEmpty() ? "" : '(' + parts.join(',') + ')');
    }
    template <typename... Args> void emptied(const char *call, const Args &...args)
    {
        note(call, args...);
        rows.clear();
    }
    template <typename... Args> void built(const char *call, const Args &...args)
    {
        note(call, args...);
        ++builds;
    }
};

} // namespace TestSupport

#endif // TESTS_TESTSUPPORT_H
