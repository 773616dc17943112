#include <core/icore.h>
#include <database/database.h>
#include <database/fielddefconvertor.h>
#include <database/indexlist.h>
#include <database/masterindex.h>
#include <database/tableio.h>

#include "indexchecker.h"

#include <QBuffer>
#include <QDataStream>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace {

// A table of every cell type, keyed by "id". Row i: id i, name "n<i>", price
// i/4 (Decimal), qty i/2 (null for every third row), time, volume, boards.
std::unique_ptr<Table> quotes(const QString &name, int rows)
{
    auto table = std::make_unique<Table>(name);
    table->addColumn("id", FieldType::Integer, 0, false);
    table->addColumn("name", FieldType::VarChar, 6);
    table->addColumn("price", FieldType::Decimal, 4);
    table->addColumn("qty", FieldType::Double);
    table->addColumn("time", FieldType::DateTime);
    table->addColumn("volume", FieldType::Integer64);
    table->addColumn("boards", FieldType::BoardList);
    table->setMasterIndex(new MasterIndex_Column_Pure(table.get(), QStringLiteral("id")));
    for (int i = 0; i < rows; ++i) {
        unsigned char *row = table->allocRow();
        table->dataPtr(row, 0).set<qint32>(i);
        table->dataPtr(row, 1) = QStringLiteral("n%1").arg(i);
        table->dataPtr(row, 2).set<quint64>(decimal(qint64(i) * 25, 2).raw());
        if (i % 3)
            table->dataPtr(row, 3).set<double>(i / 2.0);
        table->dataPtr(row, 4).set<qint64>(1600000000000LL + i);
        table->dataPtr(row, 5).set<qint64>(qint64(i) * 1000000007LL);
        table->appendRow(row);
    }
    return table;
}

// The rows of a table as text, in master order; "~" for a null cell.
QStringList rowTexts(const Table &table)
{
    QStringList texts;
    for (const Record &record : IndexChecker::rowsOf(table.masterIndex())) {
        QStringList cells;
        for (int c = 0; c < table.columnCount(); ++c) {
            const Field field = record.data(c);
            cells << (field.isNull() ? QStringLiteral("~") : field.toString());
        }
        texts << cells.join('|');
    }
    return texts;
}

QByteArray save(Table &table, bool withRows = true)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    TableIO io(&table);
    if (!io.write(stream, withRows))
        qWarning() << io.errorString();
    return bytes;
}

// The main index of a table under test: counts the batches and builds it sees.
class RecordingIndex : public Index
{
public:
    void clear() override { rows.clear(); }
    void build() override { ++builds; }
    void add(const Record &record) override { rows.append(record); }
    void process(const QList<Record> &, const QList<Record> &, int, int,
                 const QList<Record> &inserted) override
    {
        batches.append(inserted.size());
        rows += inserted;
    }
    bool remove(const Record &record, int) override { return rows.removeOne(record); }
    bool filter(const Record &) const override { return true; }
    bool contains(const Record &record) const override { return rows.contains(record); }
    const char *getClassName() const override { return "RecordingIndex"; }
    QList<Record> rows;
    QList<int> batches;
    int builds = 0;
};

// Keeps no record at all.
class RefuseAll : public FilterProgressTrue
{
public:
    bool filter(const Record &) const override { return false; }
};

// A device that fails every read or write once `limit` bytes have passed.
class FailingDevice : public QIODevice
{
public:
    FailingDevice(const QByteArray &data, qint64 limit)
        : m_data(data)
        , m_limit(limit)
    {
    }
    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override
    {
        return m_data.size() - m_pos + QIODevice::bytesAvailable();
    }

protected:
    qint64 readData(char *out, qint64 max) override
    {
        if (m_pos >= m_limit)
            return -1;
        const qint64 n = qMin(max, qMin<qint64>(m_data.size(), m_limit) - m_pos);
        memcpy(out, m_data.constData() + m_pos, size_t(n));
        m_pos += n;
        return n;
    }
    qint64 writeData(const char *, qint64 size) override
    {
        if (m_pos + size > m_limit)
            return -1;
        m_pos += size;
        return size;
    }

private:
    QByteArray m_data;
    qint64 m_limit;
    qint64 m_pos = 0;
};

struct RowPair
{
    unsigned char *src;
    unsigned char *dst;
};

QString runProgram(const QString &program, const QStringList &args, QByteArray *out)
{
    if (QStandardPaths::findExecutable(program).isEmpty())
        return QStringLiteral("no ") + program;
    QProcess process;
    process.start(program, args);
    if (!process.waitForFinished(60000) || process.exitCode() != 0)
        return QString::fromLocal8Bit(process.readAllStandardError());
    *out = process.readAllStandardOutput();
    return QString();
}

} // namespace

class TestTableIO : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { DefaultCore::global()->setCompressTableFiles(false); }
    void fileRoundTrip_data();
    void fileRoundTrip();
    void headerLayout_data();
    void headerLayout();
    void failedSaveKeepsPreviousFile();
    void loadOutcomes();
    void hostileInput_data();
    void hostileInput();
    void faultyDevices();
    void addColumnsAndFilters();
    void batchesAndOneRebuild();
    void rowLists();
    void conversions_data();
    void conversions();
    void conversionRules();
    void outsideWorld();
};

// Both forms through the directory API; only the form saved last remains.
void TestTableIO::fileRoundTrip_data()
{
    QTest::addColumn<bool>("gzip");
    QTest::addColumn<int>("rows");
    for (bool gzip : { false, true }) {
        const char *form = gzip ? "gzip" : "plain";
        QTest::addRow("%s, empty", form) << gzip << 0;
        QTest::addRow("%s, 1000 rows", form) << gzip << 1000;
    }
}

void TestTableIO::fileRoundTrip()
{
    QFETCH(bool, gzip);
    QFETCH(int, rows);
    QTemporaryDir dir;
    auto source = quotes("quotes", rows);
    TableIO writer(source.get());
    DefaultCore::global()->setCompressTableFiles(!gzip);
    QVERIFY(writer.write(QDir(dir.path())));
    DefaultCore::global()->setCompressTableFiles(gzip);
    QVERIFY2(writer.write(QDir(dir.path())), qPrintable(writer.errorString()));
    QVERIFY(writer.errorString().isEmpty());
    QCOMPARE(QFile::exists(writer.fileName(QDir(dir.path()))), !gzip);
    QCOMPARE(QFile::exists(writer.compressedFileName(QDir(dir.path()))), gzip);

    auto target = quotes("quotes", 0);
    IndexList list(target.get(), true);
    TableIO reader(target.get());
    QVERIFY2(reader.read(QDir(dir.path()), false), qPrintable(reader.errorString()));
    QCOMPARE(rowTexts(*target), rowTexts(*source));
    QVERIFY_INDEXES(target.get());
    QVERIFY(TableIO::memoryUsage(target.get()) >= qint64(target->rowSize()) * rows);
}

void TestTableIO::headerLayout_data()
{
    QTest::addColumn<int>("columns");
    QTest::addColumn<int>("flagBytes");
    QTest::newRow("none") << 0 << 0;
    QTest::newRow("eight") << 8 << 1;
    QTest::newRow("nine") << 9 << 2;
}

// The header byte for byte, and withRows false still declaring the row count.
void TestTableIO::headerLayout()
{
    QFETCH(int, columns);
    QFETCH(int, flagBytes);
    Table table("t");
    for (int c = 0; c < columns; ++c)
        table.addColumn(QStringLiteral("c%1").arg(c), FieldType::Integer, 0, false);
    if (columns)
        table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("c0")));
    for (int i = 0; columns && i < 3; ++i) {
        unsigned char *row = table.allocRow();
        table.dataPtr(row, 0).set<qint32>(0x01020304 + i);
        table.appendRow(row);
    }
    const QByteArray bare = save(table, false);
    const QByteArray full = save(table, true);
    QCOMPARE(bare.left(4), QByteArray::fromHex("20151002"));
    QCOMPARE(bare.mid(4, 2),
             QByteArray::fromHex(QByteArray::number(columns, 16).rightJustified(4, '0')));
    QCOMPARE(bare.mid(6, 4), QByteArray::fromHex(columns ? "00000003" : "00000000"));
    QCOMPARE(bare.mid(10, 4),
             QByteArray::fromHex(QByteArray::number(4 * columns, 16).rightJustified(8, '0')));
    QCOMPARE(bare.mid(14, 4).toHex().toInt(nullptr, 16), flagBytes);
    const int stored = 4 * columns + flagBytes;
    QCOMPARE(full.size(), bare.size() + (columns ? 3 : 0) * stored);
    if (columns) {
        // Cells raw in host order, then the flag bytes (c0 non-null: bit 0).
        QCOMPARE(full.mid(bare.size(), 4), QByteArray::fromHex("04030201"));
        QCOMPARE(quint8(full.at(bare.size() + 4 * columns)), quint8(0xFF));
    }
}

void TestTableIO::failedSaveKeepsPreviousFile()
{
    QTemporaryDir dir;
    auto table = quotes("quotes", 5);
    TableIO io(table.get());
    DefaultCore::global()->setCompressTableFiles(true);
    QVERIFY(io.write(QDir(dir.path())));
    // The plain path is taken by a directory: the plain save cannot be made.
    QVERIFY(QDir(dir.path()).mkdir("quotes"));
    DefaultCore::global()->setCompressTableFiles(false);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("TableIO: .*quotes"));
    QVERIFY(!io.write(QDir(dir.path())));
    QVERIFY(io.errorString().contains(io.fileName(QDir(dir.path()))));
    QVERIFY(QFile::exists(io.compressedFileName(QDir(dir.path()))));
}

// Plain beats gzip; no file leaves the table as it was; bad magic clears it.
void TestTableIO::loadOutcomes()
{
    QTemporaryDir dir;
    auto three = quotes("quotes", 3);
    auto five = quotes("quotes", 5);
    DefaultCore::global()->setCompressTableFiles(true);
    QVERIFY(TableIO(five.get()).write(QDir(dir.path())));
    QFile plain(TableIO(three.get()).fileName(QDir(dir.path())));
    QVERIFY(plain.open(QIODevice::WriteOnly));
    plain.write(save(*three));
    plain.close();

    auto target = quotes("quotes", 1);
    TableIO io(target.get());
    QVERIFY(io.read(QDir(dir.path()), false));
    QCOMPARE(target->rowCount(), 3);

    QTemporaryDir empty;
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("No table file"));
    QVERIFY(!io.read(QDir(empty.path()), false));
    QCOMPARE(target->rowCount(), 3);

    QByteArray junk = save(*three);
    junk[0] = 0x21;
    QDataStream stream(junk);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("not a table file"));
    QVERIFY(!io.read(stream, false));
    QCOMPARE(target->rowCount(), 0);
}

void TestTableIO::hostileInput_data()
{
    QTest::addColumn<int>("field");
    QTest::addColumn<qint64>("value");
    QTest::addColumn<int>("rowsLoaded");
    // field: 0 rowCount, 1 columnCount, 2 type of column 1, 3 size of column
    // 0, 4 length of the VarChar, 5 key count, 6 rowLength, 7 drop all columns
    QTest::newRow("more rows than data") << 0 << qint64(0x7FFFFFFF) << 2;
    QTest::newRow("negative rows") << 0 << qint64(-5) << 0;
    QTest::newRow("negative columns") << 1 << qint64(-1) << 0;
    QTest::newRow("unknown type") << 2 << qint64(9) << 0;
    QTest::newRow("invalid type") << 2 << qint64(0) << 0;
    QTest::newRow("size disagrees") << 3 << qint64(8) << 0;
    QTest::newRow("huge string") << 4 << qint64(0x40000000) << 0;
    QTest::newRow("huge key count") << 5 << qint64(0x7FFFFFFF) << 0;
    QTest::newRow("row length disagrees") << 6 << qint64(1) << 0;
    QTest::newRow("rows of no columns") << 7 << qint64(0x7FFFFFFF) << 0;
}

// Corrupt headers get an error or an empty load: no crash, hang or huge allocation.
void TestTableIO::hostileInput()
{
    QFETCH(int, field);
    QFETCH(qint64, value);
    QFETCH(int, rowsLoaded);
    auto source = quotes("quotes", 2);
    TableIO io(source.get());
    TableIO::TableHeader header;
    TableIO::setupHeader(header, source.get());
    QByteArray rows = save(*source);
    QByteArray headerBytes;
    {
        QDataStream s(&headerBytes, QIODevice::WriteOnly);
        TableIO::writeHeader(header, s);
    }
    rows = rows.mid(headerBytes.size());
    switch (field) {
    case 0:
        header.rowCount = qint32(value);
        break;
    case 1:
        header.columnCount = qint16(value);
        break;
    case 2:
        header.columns[1].type = FieldType::Type(value);
        break;
    case 3:
        header.columns[0].size = value;
        break;
    case 4:
        header.columns[1].length = qint32(value);
        header.columns[1].size = 2 * value;
        break;
    case 5:
        header.keyColumns = QStringList();
        break;
    case 6:
        header.rowLength += qint32(value);
        break;
    case 7:
        header.columns.clear();
        header.columnCount = 0;
        header.rowLength = 0;
        header.flagBytes = 0;
        header.rowCount = qint32(value);
        rows.clear();
        break;
    }
    QByteArray bytes;
    {
        QDataStream s(&bytes, QIODevice::WriteOnly);
        TableIO::writeHeader(header, s);
    }
    if (field == 5)
        bytes.replace(bytes.size() - 4, 4, QByteArray::fromHex("7fffffff"));
    bytes += rows;
    auto target = quotes("quotes", 4);
    TableIO reader(target.get());
    QDataStream stream(bytes);
    if (field != 7)
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("TableIO: "));
    QCOMPARE(reader.read(stream, true), field == 7);
    QCOMPARE(target->rowCount(), rowsLoaded);
    QVERIFY_INDEXES(target.get());
}

void TestTableIO::faultyDevices()
{
    auto table = quotes("quotes", 50);
    const QByteArray bytes = save(*table);
    for (qint64 limit : { qint64(10), qint64(bytes.size() - 10) }) {
        FailingDevice sink(QByteArray(), limit);
        sink.open(QIODevice::WriteOnly);
        QDataStream out(&sink);
        TableIO io(table.get());
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("TableIO: "));
        QVERIFY(!io.write(out, true));
        QVERIFY(!io.errorString().isEmpty());

        FailingDevice source(bytes, limit);
        source.open(QIODevice::ReadOnly);
        QDataStream in(&source);
        auto target = quotes("quotes", 0);
        TableIO reader(target.get());
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("TableIO: "));
        QVERIFY(!reader.read(in, false));
        QVERIFY(target->rowCount() < 50);
        QVERIFY_INDEXES(target.get());
    }
}

// addColumns adds what the table lacks unless a drop entry names it; a filter
// that refuses everything still leaves the added columns.
void TestTableIO::addColumnsAndFilters()
{
    auto source = quotes("quotes", 4);
    const QByteArray bytes = save(*source);
    auto makeTarget = [] {
        auto t = std::make_unique<Table>("quotes");
        t->addColumn("id", FieldType::Integer, 0, false);
        t->setMasterIndex(new MasterIndex_Column_Pure(t.get(), QStringLiteral("id")));
        return t;
    };
    auto plain = makeTarget();
    QDataStream s1(bytes);
    QVERIFY(TableIO(plain.get()).read(s1, false));
    QCOMPARE(plain->columns(), QStringList { "id" });
    QCOMPARE(plain->rowCount(), 4);

    auto added = makeTarget();
    TableIO::Convertors drop;
    drop.insert(TableIO::ConvertKey(QString(), "QTY"), nullptr);
    QDataStream s2(bytes);
    QVERIFY(TableIO(added.get()).read(s2, true, drop));
    QCOMPARE(added->columns(), (QStringList { "id", "name", "price", "time", "volume", "boards" }));
    QCOMPARE(rowTexts(*added).at(3),
             QStringLiteral("3|n3|0.75|2020.09.13 12:26:40.003|3000000021|~"));

    auto none = makeTarget();
    RefuseAll refuse;
    QDataStream s3(bytes);
    QVERIFY(TableIO(none.get()).read(refuse, s3, true, TableIO::Convertors()));
    QCOMPARE(none->rowCount(), 0);
    QCOMPARE(none->columnCount(), 7);
}

// Loaded rows reach the main index in batches of 10240; the listed indexes are
// built once, at the end, and see no batch.
void TestTableIO::batchesAndOneRebuild()
{
    for (int rows : { 10240, 25000 }) {
        auto source = quotes("quotes", rows);
        Table target("quotes");
        for (const TableColumnDef *def : source->fieldDefs())
            target.addColumn(*def);
        RecordingIndex main;
        RecordingIndex listed;
        target.testingSetMainIndex(&main);
        target.addIndex(&listed);
        QDataStream stream(save(*source));
        QVERIFY(TableIO(&target).read(stream, false));
        QCOMPARE(main.batches,
                 rows == 10240 ? QList<int> { 10240 } : (QList<int> { 10240, 10240, 4520 }));
        QCOMPARE(main.rows.size(), rows);
        QCOMPARE(listed.builds, 1);
        QVERIFY(listed.batches.isEmpty());
        QCOMPARE(target.indexes(), QList<Index *> { &listed });
        target.removeIndex(&listed);
        target.testingSetMainIndex(nullptr);
    }
}

// A list of a table the host does not know is skipped whole; an empty list
// writes an empty name; a list goes only to a table of its own layout.
void TestTableIO::rowLists()
{
    auto known = quotes("known", 3);
    auto stranger = quotes("stranger", 4);
    DefaultCore::global()->addTable(known.get());
    PartitionList<Record> strangers, knowns;
    for (const Record &record : IndexChecker::rowsOf(stranger->masterIndex()))
        strangers.append(record);
    for (const Record &record : IndexChecker::rowsOf(known->masterIndex()))
        knowns.append(record);
    QByteArray bytes;
    {
        QDataStream out(&bytes, QIODevice::WriteOnly);
        TableIO io(nullptr);
        FilterProgressTrue progress;
        QVERIFY(io.writeRowList(progress, out, strangers));
        QVERIFY(io.writeRowList(progress, out, PartitionList<Record>()));
        QVERIFY(io.writeRowList(progress, out, knowns));
    }
    QDataStream in(bytes);
    TableIO io(nullptr);
    FilterProgressTrue progress;
    PartitionList<Record> read;
    for (int i = 0; i < 3; ++i)
        QVERIFY(io.readRowList(progress, in, read));
    QVERIFY(in.atEnd());
    QCOMPARE(read.count(), 3);
    QCOMPARE(read.at(2).data("name").toString(), QStringLiteral("n2"));
    QCOMPARE(read.at(2).table(), known.get());
    QCOMPARE(known->rowCount(), 3);

    // Registered under the name of a table with another layout.
    Table other("stranger");
    other.addColumn("id", FieldType::Integer);
    DefaultCore::global()->addTable(&other);
    QDataStream again(bytes);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("layout"));
    QVERIFY(!io.readRowList(progress, again, read));
    QVERIFY(io.readRowList(progress, again, read));
    DefaultCore::global()->removeTable("stranger");
    DefaultCore::global()->removeTable("known");
}

void TestTableIO::conversions_data()
{
    QTest::addColumn<int>("from");
    QTest::addColumn<int>("fromLength");
    QTest::addColumn<QString>("value");
    QTest::addColumn<int>("to");
    QTest::addColumn<int>("toLength");
    QTest::addColumn<QString>("expected"); // null: the target is null
    QTest::addColumn<int>("failures");
    using F = FieldType;
    QTest::newRow("int to int64") << +F::Integer << 0 << "-7" << +F::Integer64 << 0 << "-7" << 0;
    QTest::newRow("int to double") << +F::Integer << 0 << "5" << +F::Double << 0 << "5" << 0;
    QTest::newRow("int to decimal") << +F::Integer << 0 << "12" << +F::Decimal << 2 << "12" << 0;
    QTest::newRow("int to text") << +F::Integer << 0 << "123456" << +F::VarChar << 4 << "1234" << 0;
    QTest::newRow("int64 fits int")
        << +F::Integer64 << 0 << "-2147483648" << +F::Integer << 0 << "-2147483648" << 0;
    QTest::newRow("int64 beyond int")
        << +F::Integer64 << 0 << "2147483648" << +F::Integer << 0 << QString() << 1;
    QTest::newRow("int64 beyond decimal")
        << +F::Integer64 << 0 << "72057594037927936" << +F::Decimal << 0 << QString() << 1;
    QTest::newRow("int64 to datetime")
        << +F::Integer64 << 0 << "1000" << +F::DateTime << 0 << "1970.01.01 00:00:01.000" << 0;
    QTest::newRow("double to decimal")
        << +F::Double << 0 << "0.1" << +F::Decimal << 4 << "0.1" << 0;
    QTest::newRow("whole double to int")
        << +F::Double << 0 << "42" << +F::Integer << 0 << "42" << 0;
    QTest::newRow("fraction to int")
        << +F::Double << 0 << "4.5" << +F::Integer << 0 << QString() << 1;
    QTest::newRow("decimal to double")
        << +F::Decimal << 2 << "1.25" << +F::Double << 0 << "1.25" << 0;
    QTest::newRow("decimal to text")
        << +F::Decimal << 2 << "-1.25" << +F::VarChar << 8 << "-1.25" << 0;
    QTest::newRow("whole decimal to int64")
        << +F::Decimal << 2 << "300.00" << +F::Integer64 << 0 << "300" << 0;
    QTest::newRow("text to int") << +F::VarChar << 8 << "77" << +F::Integer << 0 << "77" << 0;
    QTest::newRow("bad text to int")
        << +F::VarChar << 8 << "7x" << +F::Integer << 0 << QString() << 1;
    QTest::newRow("empty text to double")
        << +F::VarChar << 8 << "" << +F::Double << 0 << QString() << 0;
    QTest::newRow("text to decimal")
        << +F::VarChar << 8 << "3.50" << +F::Decimal << 2 << "3.50" << 0;
    QTest::newRow("text to datetime")
        << +F::VarChar << 12 << "2024-02-29" << +F::DateTime << 0 << "2024.02.29 00:00:00.000" << 0;
    QTest::newRow("shorter text") << +F::VarChar << 8 << "abcdef" << +F::VarChar << 3 << "abc" << 0;
    QTest::newRow("longer text") << +F::VarChar << 3 << "abc" << +F::VarChar << 8 << "abc" << 0;
    QTest::newRow("decimal of new length")
        << +F::Decimal << 2 << "9.99" << +F::Decimal << 6 << "9.99" << 0;
    QTest::newRow("datetime to int64")
        << +F::DateTime << 0 << "1970.01.01 00:00:02.000" << +F::Integer64 << 0 << "2000" << 0;
    QTest::newRow("null stays null")
        << +F::Integer << 0 << QString() << +F::Double << 0 << QString() << 0;
    QTest::newRow("null copy") << +F::Double << 0 << QString() << +F::Double << 0 << QString() << 0;
}

void TestTableIO::conversions()
{
    QFETCH(int, from);
    QFETCH(int, fromLength);
    QFETCH(QString, value);
    QFETCH(int, to);
    QFETCH(int, toLength);
    QFETCH(QString, expected);
    QFETCH(int, failures);
    Table source("s"), target("t");
    source.addColumn("c", FieldType::Type(from), fromLength);
    target.addColumn("c", FieldType::Type(to), toLength, false);
    RowPair rows { source.allocRow(), target.allocRow() };
    if (!value.isNull()) {
        Field field = source.dataPtr(rows.src, 0);
        field = value;
    }
    std::unique_ptr<FieldDefConvertor> convertor(
        FieldDefConvertor::create(source.columnDef(0), target.columnDef(0)));
    TableIO::convertDefs({ convertor.get() }, rows.dst, rows.src);
    const Field result = target.dataPtr(rows.dst, 0);
    QCOMPARE(result.isNull(), expected.isNull());
    if (!expected.isNull())
        QCOMPARE(result.toString(), expected);
    QCOMPARE(convertor->failures(), failures);
    source.freeRow(rows.src);
    target.freeRow(rows.dst);
}

// Refused pairs, renames and translation entries that name no file column.
void TestTableIO::conversionRules()
{
    Table scratch("saved"), table("t");
    scratch.addColumn("old", FieldType::Integer);
    scratch.addColumn("d", FieldType::Double);
    scratch.addColumn("m", FieldType::Decimal, 2);
    table.addColumn("new", FieldType::Integer64);
    table.addColumn("fresh", FieldType::Integer, 0, false);
    TableIO io(&table);
    QList<FieldDefConvertor *> list;
    TableIO::Convertors rename;
    rename.insert(TableIO::ConvertKey("NEW", "old"), nullptr);
    io.make_fromDefs(list, &scratch, rename);
    QCOMPARE(list.size(), 1); // "fresh" has no source and keeps its fresh-row state
    QCOMPARE(list.at(0)->source(), scratch.columnDef("old"));
    QCOMPARE(list.at(0)->target(), table.columnDef("new"));
    qDeleteAll(list);

    auto message = [&](const TableIO::Convertors &rules) {
        try {
            io.make_fromDefs(list, &scratch, rules);
        } catch (const Exception &e) {
            return e.message;
        }
        return QString();
    };
    TableIO::Convertors missing;
    missing.insert(TableIO::ConvertKey("new", "gone"), nullptr);
    QCOMPARE(message(missing), QStringLiteral("Column not found in translation."));
    QVERIFY(list.isEmpty());
    TableIO::Convertors toDate;
    table.addColumn("when", FieldType::DateTime);
    toDate.insert(TableIO::ConvertKey("when", "d"), nullptr);
    QCOMPARE(message(toDate), QStringLiteral("Can't convert double to datetime."));
    toDate.clear();
    toDate.insert(TableIO::ConvertKey("when", "m"), nullptr);
    QCOMPARE(message(toDate), QStringLiteral("Can't convert from decimal to datetime."));
}

// gzip and an independent reader agree with the library about the bytes.
void TestTableIO::outsideWorld()
{
    QTemporaryDir dir;
    auto table = quotes("quotes", 20);
    TableIO io(table.get());
    QVERIFY(io.write(QDir(dir.path())));
    const QString plainPath = io.fileName(QDir(dir.path()));
    QFile plain(plainPath);
    QVERIFY(plain.open(QIODevice::ReadOnly));
    const QByteArray plainBytes = plain.readAll();
    plain.close();

    QByteArray json;
    const QString reader = QStringLiteral(TESTS_SOURCE_DIR "/read_tablefile.py");
    QString error = runProgram("python3", { reader, plainPath }, &json);
    if (!error.startsWith("no "))
        QVERIFY2(error.isEmpty(), qPrintable(error));
    if (error.isEmpty()) {
        const QJsonObject file = QJsonDocument::fromJson(json).object();
        QCOMPARE(file["rowCount"].toInt(), 20);
        QCOMPARE(file["keyColumns"].toArray().at(0).toString(), QStringLiteral("id"));
        QCOMPARE(file["trailing"].toInt(), 0);
        const QJsonArray rows = file["rows"].toArray();
        const std::vector<Record> records = IndexChecker::rowsOf(table->masterIndex());
        for (int i = 0; i < 20; ++i) {
            const QJsonArray cells = rows.at(i).toArray();
            QCOMPARE(cells.at(0).toInt(), records[i].data(0).get<qint32>());
            QCOMPARE(cells.at(1).toString(), records[i].data(1).toString());
            QCOMPARE(cells.at(2).toString().toULongLong(nullptr, 16),
                     records[i].data(2).get<quint64>());
            QCOMPARE(cells.at(3).isNull(), records[i].data(3).isNull());
            QCOMPARE(cells.at(5).toDouble(), double(records[i].data(5).get<qint64>()));
        }
    }

    DefaultCore::global()->setCompressTableFiles(true);
    QVERIFY(io.write(QDir(dir.path())));
    QByteArray unpacked;
    error = runProgram("gzip", { "-t", io.compressedFileName(QDir(dir.path())) }, &unpacked);
    if (error.startsWith("no "))
        QSKIP("gzip is not installed");
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QVERIFY(runProgram("gzip", { "-dc", io.compressedFileName(QDir(dir.path())) }, &unpacked)
                .isEmpty());
    QCOMPARE(unpacked, plainBytes);

    // A plain file compressed by gzip itself loads.
    QFile::remove(io.compressedFileName(QDir(dir.path())));
    QFile out(plainPath);
    QVERIFY(out.open(QIODevice::WriteOnly));
    out.write(plainBytes);
    out.close();
    QVERIFY(runProgram("gzip", { plainPath }, &unpacked).isEmpty());
    auto target = quotes("quotes", 0);
    QVERIFY(TableIO(target.get()).read(QDir(dir.path()), false));
    QCOMPARE(rowTexts(*target), rowTexts(*table));
}

QTEST_GUILESS_MAIN(TestTableIO)
#include "tst_tableio.moc"
