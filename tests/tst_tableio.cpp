// Table files: the format byte for byte, both forms on disk, conversions and
// row lists; the compressing device underneath; then files that are damaged, too big, or meet a
// failing disk: a load either reads the whole file or leaves the table exactly as it was, a save
// either reaches the disk or reports why. The sweeps print figures for the README.

#include "storage/tabletesting_p.h"
#include "testsupport.h"
#include <database/core/icore.h>
#include <database/database.h>

#include "indexchecker.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>
#include <memory>

// Corrupts a valid header before a load.
using HeaderEdit = void (*)(TableIO::TableHeader &header);
Q_DECLARE_METATYPE(HeaderEdit)
using Format = DeflateDevice::StreamFormat;
Q_DECLARE_METATYPE(Format)

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

using TestSupport::FaultyDevice;
using TestSupport::loadBytes;
using TestSupport::RecordingIndex;
using TestSupport::rowTexts;
using TestSupport::savedBytes;

class RefuseAll : public FilterProgressTrue
{
public:
    bool filter(const Record &) const override { return false; }
};

enum Form { Plain, Compressed, CompressedByGzip };

const Format kFormats[]
    = { DeflateDevice::ZlibFormat, DeflateDevice::GzipFormat, DeflateDevice::RawDeflateFormat };
const QString kNoError = QStringLiteral("Unknown error"); // QIODevice's text before any error

// Pseudo-random bytes (incompressible) followed by a compressible run.
QByteArray sampleData(int size)
{
    QByteArray data(size, 'a');
    QRandomGenerator random(size);
    for (int i = 0; i < size * 3 / 4; ++i)
        data[i] = char(random.bounded(256));
    return data;
}

std::unique_ptr<DeflateDevice> deflateOn(QIODevice *device, Format format, int bufferSize = 65500,
                                         int level = 6)
{
    auto deflater = std::make_unique<DeflateDevice>(device, level, bufferSize);
    deflater->setStreamFormat(format);
    return deflater;
}

QByteArray compress(const QByteArray &data, Format format, int level = 6)
{
    QBuffer target;
    auto writer = deflateOn(&target, format, 65500, level);
    if (!writer->open(QIODevice::WriteOnly) || writer->write(data) != data.size())
        return "write failed";
    writer->close();
    return target.data();
}

// Reads the stream at the start of source in pieces of chunk bytes.
QByteArray decompress(QIODevice *source, Format format, int bufferSize = 65500, int chunk = 777)
{
    auto reader = deflateOn(source, format, bufferSize);
    if (!reader->open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return "open failed";
    QByteArray result, piece(chunk, 0);
    qint64 n;
    while ((n = reader->read(piece.data(), chunk)) > 0) {
        if (reader->bytesAvailable() > 1)
            return "bytesAvailable above 1";
        result += piece.left(int(n));
    }
    return n < 0 ? "read failed: " + reader->errorString().toLatin1() : result;
}
// id (key), name, price; row i holds i, "r<i>", i / 8 (or 1 for all: rows of
// equal price, whose order in a sorted view is their arrival order).
std::unique_ptr<Table> prices(int rows, bool withKey = true, bool flat = false)
{
    auto table = std::make_unique<Table>(QStringLiteral("prices"));
    table->addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
    table->addColumn(QStringLiteral("name"), FieldType::VarChar, 5);
    table->addColumn(QStringLiteral("price"), FieldType::Double);
    if (withKey)
        table->setMasterIndex(new MasterIndex_Column_Pure(table.get(), QStringLiteral("id")));
    for (int i = 0; i < rows; ++i) {
        unsigned char *row = table->allocRow();
        table->dataPtr(row, 0).set<qint32>(i);
        table->dataPtr(row, 1) = QStringLiteral("r%1").arg(i);
        table->dataPtr(row, 2).set<double>(flat ? 1.0 : i / 8.0);
        table->appendRow(row);
    }
    return table;
}

QByteArray fileOf(Table &table, bool compressed)
{
    QTemporaryDir tmp;
    DefaultCore::global()->setCompressTableFiles(compressed);
    TableIO io(&table);
    if (!io.write(QDir(tmp.path())))
        return QByteArray();
    QFile file(compressed ? io.compressedFileName(QDir(tmp.path()))
                          : io.fileName(QDir(tmp.path())));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Puts `bytes` in `dir` as the table's only file and loads it into `table`.
bool loadFile(Table &table, const QDir &dir, const QByteArray &bytes, bool compressed,
              QString *error = nullptr)
{
    TableIO io(&table);
    QFile::remove(io.fileName(dir));
    QFile::remove(io.compressedFileName(dir));
    QFile file(compressed ? io.compressedFileName(dir) : io.fileName(dir));
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        return false;
    file.close();
    const bool loaded = io.read(dir, false);
    if (error)
        *error = io.errorString();
    return loaded;
}

// A sorted view whose order depends on the rows' arrival: by price, falling.
class ByPriceDown : public IndexSort
{
public:
    using IndexSort::IndexSort;
    int compare(const Record &a, const Record &b) const override
    {
        const double pa = a.data(2).get<double>(), pb = b.data(2).get<double>();
        return pa > pb ? -1 : (pb > pa ? 1 : 0);
    }
};

int failingSync(int)
{
    errno = EIO;
    return -1;
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
    void filesOnDisk();
    void hostileInput_data();
    void hostileInput();
    void faultyDevices();
    void addColumnsAndFilters();
    void batchesAndOneRebuild();
    void rowLists();
    void conversions_data();
    void conversions();
    void conversionRules();
    void deflateRoundTrip_data();
    void deflateRoundTrip();
    void deflateStreamEndingAnywhereInTheBuffer();
    void deflateMisuseAndFailures();
    void deflateGzipMembersAndDamage();
    void deflateInteroperatesWithPython();
    void damagedFileLeavesTableAsItWas_data();
    void damagedFileLeavesTableAsItWas();
    void limitsAndMemory();
    void tableWithoutPrimaryKey();
    void fileOfMostColumns();
    void failingSyncFailsTheSave();
    void sweeps();
};

void TestTableIO::fileRoundTrip_data()
{
    QTest::addColumn<int>("form");
    QTest::addColumn<int>("rows");
    for (int rows : { 0, 1000 }) {
        QTest::addRow("plain, %d rows", rows) << int(Plain) << rows;
        QTest::addRow("gzip, %d rows", rows) << int(Compressed) << rows;
        QTest::addRow("compressed by gzip(1), %d rows", rows) << int(CompressedByGzip) << rows;
    }
}

// Saves the other form by a per-call choice against the host's switch (which
// stays as it was), then the wanted one by the switch: only the last remains.
// Loads it back and has gzip(1) and the independent reader confirm the bytes.
void TestTableIO::fileRoundTrip()
{
    QFETCH(int, form);
    QFETCH(int, rows);
    QTemporaryDir tmp;
    const QDir dir(tmp.path());
    auto source = quotes("quotes", rows);
    TableIO writer(source.get());
    const bool gzip = form == Compressed;
    DefaultCore::global()->setCompressTableFiles(gzip);
    QVERIFY(writer.write(dir, gzip ? TableIO::Compression::Plain : TableIO::Compression::Gzip));
    QCOMPARE(DefaultCore::global()->compressTableFiles(), gzip);
    QVERIFY2(writer.write(dir), qPrintable(writer.errorString()));
    QCOMPARE(QFile::exists(writer.fileName(dir)), !gzip);
    QCOMPARE(QFile::exists(writer.compressedFileName(dir)), gzip);
    QByteArray out;
    if (form == CompressedByGzip)
        RUN_TOOL(out, {}, "gzip", writer.fileName(dir));
    const QString path = form == Plain ? writer.fileName(dir) : writer.compressedFileName(dir);

    auto target = quotes("quotes", 0);
    IndexList list(target.get(), true);
    TableIO reader(target.get());
    QVERIFY2(reader.read(dir, false), qPrintable(reader.errorString()));
    QCOMPARE(rowTexts(*target), rowTexts(*source));
    QVERIFY_INDEXES(target.get());

    if (gzip) {
        RUN_TOOL(out, {}, "gzip", "-t", path);
        RUN_TOOL(out, {}, "gzip", "-dc", path);
        QCOMPARE(out, savedBytes(*source));
    }
    RUN_TOOL(out, {}, "python3", QStringLiteral(TESTS_SOURCE_DIR "/read_tablefile.py"), path);
    const QJsonObject file = QJsonDocument::fromJson(out).object();
    QCOMPARE(file["keyColumns"].toArray(), QJsonArray { "id" });
    QCOMPARE(file["trailing"].toInt(), 0);
    const QJsonArray cells = file["rows"].toArray();
    QCOMPARE(cells.size(), rows);
    const std::vector<Record> records = IndexChecker::rowsOf(source->masterIndex());
    for (int i = 0; i < rows; ++i) {
        const QJsonArray row = cells.at(i).toArray();
        QCOMPARE(row.at(0).toInt(), records[i].data(0).get<qint32>());
        QCOMPARE(row.at(1).toString(), records[i].data(1).toString());
        QCOMPARE(row.at(2).toString().toULongLong(nullptr, 16), records[i].data(2).get<quint64>());
        QCOMPARE(row.at(3).isNull(), records[i].data(3).isNull());
        QCOMPARE(row.at(5).toDouble(), double(records[i].data(5).get<qint64>()));
    }
}

void TestTableIO::headerLayout_data()
{
    QTest::addColumn<int>("columns");
    QTest::addColumn<QByteArray>("flags"); // of a row whose cells are all present
    QTest::newRow("none") << 0 << QByteArray();
    QTest::newRow("eight") << 8 << QByteArray("ff");
    QTest::newRow("nine") << 9 << QByteArray("ff01");
}

// The header byte for byte; withRows false still declares the row count.
void TestTableIO::headerLayout()
{
    QFETCH(int, columns);
    QFETCH(QByteArray, flags);
    const int flagBytes = flags.size() / 2;
    Table table("t");
    for (int c = 0; c < columns; ++c)
        table.addColumn(QStringLiteral("c%1").arg(c), FieldType::Integer, 0, false);
    const int rows = columns ? 3 : 0;
    if (columns)
        table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("c0")));
    for (int i = 0; i < rows; ++i) {
        unsigned char *row = table.allocRow();
        table.dataPtr(row, 0).set<qint32>(0x01020304 + i);
        table.appendRow(row);
    }
    const QByteArray bare = savedBytes(table, false);
    const QByteArray full = savedBytes(table);
    auto hex = [](int value, int digits) {
        return QByteArray::number(value, 16).rightJustified(digits, '0');
    };
    QCOMPARE(bare.left(18).toHex(),
             "20151002" + hex(columns, 4) + hex(rows, 8) + hex(4 * columns, 8) + hex(flagBytes, 8));
    QCOMPARE(full.size(), bare.size() + rows * (4 * columns + flagBytes));
    // Cells raw in host order, then the flag bytes.
    QCOMPARE(full.mid(bare.size(), 4), QByteArray::fromHex(rows ? "04030201" : ""));
    QCOMPARE(full.mid(bare.size() + 4 * columns, flagBytes).toHex(), flags);
}

// A failed save keeps the previous file; the plain file beats the ".gz" one;
// no file leaves the table as it was.
void TestTableIO::filesOnDisk()
{
    QTemporaryDir tmp;
    const QDir dir(tmp.path());
    auto three = quotes("quotes", 3);
    auto target = quotes("quotes", 1);
    TableIO io(target.get());
    DefaultCore::global()->setCompressTableFiles(true);
    QVERIFY(TableIO(quotes("quotes", 5).get()).write(dir));
    // A directory takes the plain file's path: the plain save cannot be made.
    QVERIFY(dir.mkdir("quotes"));
    DefaultCore::global()->setCompressTableFiles(false);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("TableIO: .*quotes"));
    QVERIFY(!io.write(dir));
    QVERIFY(io.errorString().contains(io.fileName(dir)));
    QVERIFY(QFile::exists(io.compressedFileName(dir)));

    QVERIFY(dir.rmdir("quotes"));
    QFile plain(io.fileName(dir));
    QVERIFY(plain.open(QIODevice::WriteOnly) && plain.write(savedBytes(*three)) > 0);
    plain.close();
    QVERIFY(io.read(dir, false));
    QCOMPARE(target->rowCount(), 3);

    QTemporaryDir empty;
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("No table file"));
    QVERIFY(!io.read(QDir(empty.path()), false));
    QCOMPARE(target->rowCount(), 3);
}

void TestTableIO::hostileInput_data()
{
    QTest::addColumn<HeaderEdit>("edit");
    QTest::addColumn<int>("rowsLoaded");
    QTest::addColumn<QString>("error"); // empty: the load succeeds
    using H = TableIO::TableHeader;
    auto row = [](const char *name, int rowsLoaded, const char *error, HeaderEdit edit) {
        QTest::newRow(name) << edit << rowsLoaded << QString(error);
    };
    row("bad magic", 4, "not a table file .magic 0x20151003.", [](H &h) { h.magic += 1; });
    row("rows past the limit", 4, "more than the limit", [](H &h) { h.rowCount = 0x7FFFFFFF; });
    row("more rows than data", 4, "data ends after 2", [](H &h) { h.rowCount = 3; });
    row("negative rows", 4, "inconsistent counts", [](H &h) { h.rowCount = -5; });
    row("negative columns", 4, "negative column count", [](H &h) { h.columnCount = -1; });
    row("unknown type", 4, "unknown type 9", [](H &h) { h.columns[1].type = FieldType::Type(9); });
    row("size disagrees", 4, "declares 8 bytes", [](H &h) { h.columns[0].size = 8; });
    row("huge string", 4, "bad string length", [](H &h) {
        h.columns[1].length = 0x40000000;
        h.columns[1].size = 0x80000000LL;
    });
    // An empty key list is written below as a key count that no names follow.
    row("huge key count", 4, "inside the key columns", [](H &h) { h.keyColumns.clear(); });
    row("row length disagrees", 4, "row length", [](H &h) { h.rowLength += 1; });
    // Rows of no bytes: their count is not to be believed.
    row("rows of no columns", 0, "",
        [](H &h) { h = H { h.magic, 0, 0x7FFFFFFF, 0, 0, {}, h.keyColumns }; });
}

// Corrupt headers get an error and leave the table's rows as they were, or
// an empty load: no crash, hang or huge allocation.
void TestTableIO::hostileInput()
{
    QFETCH(HeaderEdit, edit);
    QFETCH(int, rowsLoaded);
    QFETCH(QString, error);
    auto source = quotes("quotes", 2);
    TableIO::TableHeader header;
    TableIO::setupHeader(header, source.get());
    const QByteArray rows = savedBytes(*source).mid(savedBytes(*source, false).size());
    edit(header);
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    TableIO::writeHeader(header, out);
    if (header.keyColumns.isEmpty())
        bytes.replace(bytes.size() - 4, 4, QByteArray::fromHex("7fffffff"));
    bytes += rows;

    auto target = quotes("quotes", 4);
    if (!error.isEmpty())
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("TableIO: .*" + error));
    QCOMPARE(loadBytes(*target, bytes, true), error.isEmpty());
    QCOMPARE(target->rowCount(), rowsLoaded);
    QVERIFY_INDEXES(target.get());
}

// Writes and reads that fail early (in the header) or late (in the last row):
// either way the load changes nothing, the table keeps exactly its own three
// rows. A failed write leaves a prefix of the good bytes.
void TestTableIO::faultyDevices()
{
    auto table = quotes("quotes", 50);
    const QByteArray bytes = savedBytes(*table);
    for (const qint64 limit : { qint64(10), qint64(bytes.size() - 10) }) {
        FaultyDevice sink, source;
        sink.limit = source.limit = limit;
        source.setData(bytes);
        sink.open(QIODevice::WriteOnly);
        source.open(QIODevice::ReadOnly);
        QDataStream out(&sink), in(&source);
        TableIO io(table.get());
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("TableIO: "));
        QVERIFY(!io.write(out, true));
        QVERIFY(!io.errorString().isEmpty());
        QVERIFY(bytes.startsWith(sink.data()));

        auto target = quotes("quotes", 3);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("TableIO: "));
        QVERIFY(!TableIO(target.get()).read(in, false));
        QCOMPARE(target->rowCount(), 3);
        QVERIFY_INDEXES(target.get());
    }
}

// addColumns adds what the table lacks unless a drop rule names it; a filter
// that refuses everything still leaves the added columns.
void TestTableIO::addColumnsAndFilters()
{
    auto source = quotes("quotes", 4);
    const QByteArray bytes = savedBytes(*source);
    auto makeTarget = [] {
        auto t = std::make_unique<Table>("quotes");
        t->addColumn("id", FieldType::Integer, 0, false);
        t->setMasterIndex(new MasterIndex_Column_Pure(t.get(), QStringLiteral("id")));
        return t;
    };
    auto plain = makeTarget();
    QVERIFY(loadBytes(*plain, bytes));
    QCOMPARE(plain->columns(), QStringList { "id" });
    QCOMPARE(plain->rowCount(), 4);

    auto added = makeTarget();
    TableIO::Convertors drop;
    drop.insert(TableIO::ConvertKey(QString(), "QTY"), nullptr);
    QDataStream s2(bytes);
    QVERIFY(TableIO(added.get()).read(s2, true, drop));
    QCOMPARE(added->columns(), (QStringList { "id", "name", "price", "time", "volume", "boards" }));
    QCOMPARE(rowTexts(*added).at(3), "3|n3|0.75|2020.09.13 12:26:40.003|3000000021|~");

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
    auto source = quotes("quotes", 25000);
    Table target("quotes");
    for (const TableColumnDef *def : source->fieldDefs())
        target.addColumn(*def);
    RecordingIndex main, listed;
    testingSetMainIndex(&target, &main);
    target.addIndex(&listed);
    QVERIFY(loadBytes(target, savedBytes(*source)));
    QCOMPARE(main.batches, (QList<int> { 10240, 10240, 4520 }));
    QCOMPARE(main.rows.size(), 25000);
    QCOMPARE(listed.builds, 1);
    QVERIFY(listed.batches.isEmpty());
    QCOMPARE(target.indexes(), QList<Index *> { &listed });
    target.removeIndex(&listed);
    testingSetMainIndex(&target, nullptr);
}

// A list of a table the host does not know is skipped whole; an empty list
// writes an empty name; a list goes only to a table of its own layout.
void TestTableIO::rowLists()
{
    auto known = quotes("known", 3);
    auto stranger = quotes("stranger", 4);
    DefaultCore::global()->addTable(known->name(), known.get());
    PartitionList<Record> strangers, knowns, read;
    for (const Record &record : IndexChecker::rowsOf(stranger->masterIndex()))
        strangers.append(record);
    for (const Record &record : IndexChecker::rowsOf(known->masterIndex()))
        knowns.append(record);
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    TableIO io(nullptr);
    FilterProgressTrue progress;
    QVERIFY(io.writeRowList(progress, out, strangers));
    QVERIFY(io.writeRowList(progress, out, PartitionList<Record>()));
    QVERIFY(io.writeRowList(progress, out, knowns));

    QDataStream in(bytes);
    for (int i = 0; i < 3; ++i)
        QVERIFY(io.readRowList(progress, in, read));
    QVERIFY(in.atEnd());
    QCOMPARE(read.count(), 3);
    QCOMPARE(read.at(2).data("name").toString(), QStringLiteral("n2"));
    QCOMPARE(read.at(2).table(), known.get());
    QCOMPARE(known->rowCount(), 3);

    Table other("stranger");
    other.addColumn("id", FieldType::Integer);
    DefaultCore::global()->addTable(other.name(), &other);
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
    QTest::addColumn<QString>("value"); // null: a null source
    QTest::addColumn<int>("to");
    QTest::addColumn<int>("toLength");
    QTest::addColumn<QString>("expected"); // null: a null target
    QTest::addColumn<int>("failures");
    auto row = [](const char *name, int from, int fromLength, const char *value, int to,
                  int toLength, const char *expected, int failures = 0) {
        QTest::newRow(name) << from << fromLength << QString(value) << to << toLength
                            << QString(expected) << failures;
    };
    const int I = FieldType::Integer, L = FieldType::Integer64, D = FieldType::Double,
              M = FieldType::Decimal, S = FieldType::VarChar, T = FieldType::DateTime;
    row("int to decimal", I, 0, "12", M, 2, "12");
    row("int to text", I, 0, "123456", S, 4, "1234");
    row("int64 fits int", L, 0, "-2147483648", I, 0, "-2147483648");
    row("int64 beyond int", L, 0, "2147483648", I, 0, nullptr, 1);
    row("int64 beyond decimal", L, 0, "72057594037927936", M, 0, nullptr, 1);
    row("int64 to datetime", L, 0, "1000", T, 0, "1970.01.01 00:00:01.000");
    row("double to decimal", D, 0, "0.1", M, 4, "0.1");
    row("whole double to int", D, 0, "42", I, 0, "42");
    row("fraction to int", D, 0, "4.5", I, 0, nullptr, 1);
    row("decimal to text", M, 2, "-1.25", S, 8, "-1.25");
    row("bad text to int", S, 8, "7x", I, 0, nullptr, 1);
    row("empty text to double", S, 8, "", D, 0, nullptr);
    row("text to decimal", S, 8, "3.50", M, 2, "3.50");
    row("text to datetime", S, 12, "2024-02-29", T, 0, "2024.02.29 00:00:00.000");
    row("shorter text", S, 8, "abcdef", S, 3, "abc");
    row("datetime to int64", T, 0, "1970.01.01 00:00:02.000", L, 0, "2000");
    row("null stays null", I, 0, nullptr, D, 0, nullptr);
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
    unsigned char *src = source.allocRow(), *dst = target.allocRow();
    if (!value.isNull())
        source.dataPtr(src, 0) = value;
    std::unique_ptr<FieldDefConvertor> convertor(
        FieldDefConvertor::create(source.columnDef(0), target.columnDef(0)));
    TableIO::convertDefs({ convertor.get() }, dst, src);
    const Field result = target.dataPtr(dst, 0);
    QCOMPARE(result.isNull(), expected.isNull());
    QCOMPARE(result.isNull() ? QString() : result.toString(), expected);
    QCOMPARE(convertor->failures(), failures);
    source.freeRow(src);
    target.freeRow(dst);
}

// Renames, a column left without a source, and the rules that are refused.
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
    auto make = [&](const QString &target, const QString &source) {
        TableIO::Convertors rules;
        rules.insert(TableIO::ConvertKey(target, source), nullptr);
        try {
            io.make_fromDefs(list, &scratch, rules);
        } catch (const Exception &e) {
            return e.message;
        }
        return QString();
    };
    QCOMPARE(make("NEW", "old"), QString());
    QCOMPARE(list.size(), 1); // "fresh" has no source and keeps its fresh-row state
    QCOMPARE(list.at(0)->source(), scratch.columnDef("old"));
    QCOMPARE(list.at(0)->target(), table.columnDef("new"));
    qDeleteAll(list);

    QCOMPARE(make("new", "gone"), "Column not found in translation.");
    QVERIFY(list.isEmpty());
    table.addColumn("when", FieldType::DateTime);
    QCOMPARE(make("when", "d"), "Can't convert double to datetime.");
    QCOMPARE(make("when", "m"), "Can't convert from decimal to datetime.");
}

// Members written one after another read as one stream, also through a tiny
// buffer; a damaged length in the trailer fails; bytes after the last member
// are left to the underlying device and reported. (A bad CRC, cuts and garbled
// tails of whole table files are the damage tests' job.)
void TestTableIO::deflateGzipMembersAndDamage()
{
    const QByteArray a = sampleData(5000), b = sampleData(70000).mid(3);
    const QByteArray first = compress(a, DeflateDevice::GzipFormat);
    FaultyDevice both(first + compress(b, DeflateDevice::GzipFormat));
    QCOMPARE(decompress(&both, DeflateDevice::GzipFormat, 7), a + b);

    QByteArray badLength = first;
    badLength[badLength.size() - 1] = char(badLength.at(badLength.size() - 1) ^ 1);
    FaultyDevice length(badLength);
    QCOMPARE(decompress(&length, DeflateDevice::GzipFormat),
             "read failed: Internal zlib error when decompressing: data error");

    for (const QByteArray &after : { QByteArray("tail"), QByteArray() }) {
        FaultyDevice source(first + after);
        DeflateDevice reader(&source);
        reader.setStreamFormat(DeflateDevice::GzipFormat);
        QVERIFY(reader.open(QIODevice::ReadOnly));
        QCOMPARE(reader.readAll(), a);
        QCOMPARE(reader.hasTrailingData(), !after.isEmpty());
        QVERIFY(source.readAll().startsWith(after));
    }
}

void TestTableIO::deflateRoundTrip_data()
{
    QTest::addColumn<Format>("format");
    QTest::addColumn<int>("bufferSize");
    QTest::addColumn<int>("dataSize");
    for (Format format : kFormats)
        for (int bufferSize : { 1, 2, 7, 16, 65500 })
            for (int dataSize : { 0, 1, 100000 })
                QTest::addRow("format %d, buffer %d, data %d", format, bufferSize, dataSize)
                    << format << bufferSize << dataSize;
}

void TestTableIO::deflateRoundTrip()
{
    QFETCH(Format, format);
    QFETCH(int, bufferSize);
    QFETCH(int, dataSize);
    const QByteArray data = sampleData(dataSize), half = data.left(dataSize / 2);
    QBuffer target;
    auto writer = deflateOn(&target, format, bufferSize);
    QVERIFY(writer->open(QIODevice::WriteOnly));
    QCOMPARE(writer->write(half), qint64(half.size()));
    // A flush makes what was written decodable; a second one, with nothing
    // new, must neither fail nor (with tiny buffers) repeat flush markers forever.
    writer->flush();
    writer->flush();
    FaultyDevice flushed(target.data());
    flushed.growing = true;
    auto flushedReader = deflateOn(&flushed, format);
    flushedReader->open(QIODevice::ReadOnly | QIODevice::Unbuffered);
    QCOMPARE(flushedReader->read(half.size()), half);
    // Read in small pieces, the bytes decoded just before the input runs out
    // still arrive.
    FaultyDevice piecewise(target.data());
    piecewise.growing = true;
    QCOMPARE(decompress(&piecewise, format, bufferSize), half);
    QCOMPARE(writer->write(data.mid(half.size())), qint64(data.size() - half.size()));
    writer->close();
    QCOMPARE(writer->errorString(), kNoError);
    FaultyDevice written(target.data());
    // Nothing written: no header, no trailer.
    QCOMPARE(data.isEmpty() ? target.data() : decompress(&written, format, bufferSize), data);
}

// The stream ends at each offset of the last buffer fill, its very last byte
// included: the data after it must come back intact, and nothing outside the
// work buffer may be touched (which the sanitizer build checks).
void TestTableIO::deflateStreamEndingAnywhereInTheBuffer()
{
    const QByteArray trailer = sampleData(50);
    for (Format format : kFormats) {
        for (int bufferSize : { 1, 16, 65500 }) {
            // Every offset of a small buffer; of the large one its first two
            // and its last byte (stored blocks make the stream size predictable).
            const bool large = bufferSize > 16;
            const int wanted = large ? 3 : bufferSize;
            QSet<int> offsets;
            for (int dataSize = large ? 65400 : 1; offsets.size() < wanted && dataSize < 70000;
                 ++dataSize) {
                const QByteArray data = sampleData(dataSize);
                const QByteArray stream = compress(data, format, 0);
                const int offset = stream.size() % bufferSize;
                if (offsets.contains(offset) || (large && offset > 1 && offset < bufferSize - 1))
                    continue;
                offsets.insert(offset);
                for (const QByteArray &after : { trailer, trailer.left(3), QByteArray() }) {
                    FaultyDevice source(stream + after);
                    QCOMPARE(decompress(&source, format, bufferSize, 4096), data);
                    QCOMPARE(source.read(after.size()), after);
                    QVERIFY(source.bytesAvailable() <= 1); // at most the one stray byte
                }
            }
            QCOMPARE(offsets.size(), wanted);
        }
    }
}

void TestTableIO::deflateMisuseAndFailures()
{
    QBuffer underlying;
    DeflateDevice device(&underlying);
    QTest::ignoreMessage(QtWarningMsg,
                         "DeflateDevice::open: DeflateDevice can only be opened "
                         "in the ReadOnly or WriteOnly modes");
    QVERIFY(!device.open(QIODevice::ReadWrite));
    underlying.open(QIODevice::ReadOnly);
    QTest::ignoreMessage(QtWarningMsg,
                         "DeflateDevice::open: underlying device must be open in "
                         "one of the ReadOnly or WriteOnly modes");
    QVERIFY(!device.open(QIODevice::WriteOnly));
    QVERIFY(device.open(QIODevice::ReadOnly));
    QTest::ignoreMessage(QtWarningMsg, "DeflateDevice::open: device already open");
    QVERIFY(!device.open(QIODevice::ReadOnly));
    QCOMPARE(device.errorString(), kNoError);
    device.close();
    QVERIFY(underlying.isOpen()); // not opened by the device: left open

    // A device the deflate device opened itself is closed again by close()
    // and by a failed open().
    QBuffer own;
    auto writer = deflateOn(&own, DeflateDevice::GzipFormat);
    QVERIFY(writer->open(QIODevice::WriteOnly));
    writer->close();
    DeflateDevice badLevel(&own, 42);
    QVERIFY(!own.isOpen() && !badLevel.open(QIODevice::WriteOnly) && !own.isOpen());
    QCOMPARE(badLevel.errorString(), "Internal zlib error: stream error");
    QFile missing("/nonexistent/no/such/file");
    DeflateDevice missingReader(&missing);
    QVERIFY(!missingReader.open(QIODevice::ReadOnly));
    QVERIFY(missingReader.errorString().startsWith("Error opening underlying device: "));

    // A truncated stream reads as "nothing yet" from a device still being
    // written, as an error once a random-access one is at its end; a corrupt
    // one, or an underlying device that fails, fails for good.
    const QByteArray data = sampleData(1000), stream = compress(data, DeflateDevice::GzipFormat);
    FaultyDevice truncated(stream.left(stream.size() / 2)), failing(stream);
    FaultyDevice corrupt("\x78\x9c\xff\xff\xff\xff garbage");
    failing.failing = true;
    truncated.growing = true;
    QVERIFY(data.startsWith(decompress(&truncated, DeflateDevice::GzipFormat)));
    FaultyDevice cutFile(stream.left(1));
    QCOMPARE(decompress(&cutFile, DeflateDevice::GzipFormat),
             "read failed: Unexpected end of the compressed stream");
    QCOMPARE(decompress(&corrupt, DeflateDevice::ZlibFormat),
             "read failed: Internal zlib error when decompressing: data error");
    QCOMPARE(decompress(&failing, DeflateDevice::GzipFormat),
             "read failed: Error reading data from underlying device: injected failure");
    // A write fails at once, or (a tiny one) only with the trailer that close() writes.
    for (bool early : { true, false }) {
        FaultyDevice target;
        target.failing = early;
        writer = deflateOn(&target, DeflateDevice::GzipFormat, early ? 16 : 65500);
        QVERIFY(writer->open(QIODevice::WriteOnly));
        QCOMPARE(writer->write(early ? sampleData(100000) : "x"), early ? -1 : 1);
        target.failing = true;
        QCOMPARE(writer->write("x"), early ? -1 : 1); // a failed device stays failed
        writer->close();
        QCOMPARE(writer->errorString(), "Error writing to underlying device: injected failure");
    }

    QVERIFY(DeflateDevice::isGzipSupported() && DeflateDevice::checkGzipSupport("1.2.5")
            && DeflateDevice::checkGzipSupport("1.2.13"));
    for (const char *version : { "1.1.4", "1.", "", static_cast<const char *>(nullptr) })
        QVERIFY(!DeflateDevice::checkGzipSupport(version));
}

// Streams of every format cross-checked both ways with an independent
// implementation, Python's zlib module (gzip(1) checks the table files).
void TestTableIO::deflateInteroperatesWithPython()
{
    const QString script = QStringLiteral(TESTS_SOURCE_DIR "/deflate_interop.py");
    const QByteArray data = sampleData(200000);
    const QString windowBits[] = { "15", "31", "-15" };
    QByteArray out;
    for (Format format : kFormats) {
        RUN_TOOL(out, compress(data, format), "python3", script, "decompress", windowBits[format]);
        QCOMPARE(out, data);
        RUN_TOOL(out, data, "python3", script, "compress", windowBits[format]);
        FaultyDevice theirs(out);
        QCOMPARE(decompress(&theirs, format), data);
    }
}

void TestTableIO::damagedFileLeavesTableAsItWas_data()
{
    QTest::addColumn<bool>("compressed");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("error");
    auto source = prices(40);
    const QByteArray plain = fileOf(*source, false), gzip = fileOf(*source, true);
    // The header ends with the key names: a count (4 bytes) and "id" (4 + 4).
    const int headerEnd = plain.size() - 40 * (4 + 10 + 8 + 1);
    QByteArray fewerRows = plain, noKeys = plain, badCrc = gzip;
    fewerRows[9] = char(39); // low byte of the big-endian row count
    noKeys.replace(headerEnd - 12, 4, QByteArray(4, '\0'));
    badCrc[badCrc.size() - 6] = char(badCrc.at(badCrc.size() - 6) ^ 0x10);
    QTest::newRow("plain cut in the rows") << false << plain.left(plain.size() - 5) << "data ends";
    QTest::newRow("plain, row count lowered") << false << fewerRows << "follow the last row";
    QTest::newRow("plain, key count zeroed") << false << noKeys << "follow the last row";
    QTest::newRow("gzip cut in the trailer")
        << true << gzip.left(gzip.size() - 3) << "Unexpected end";
    QTest::newRow("gzip cut in the data") << true << gzip.left(gzip.size() / 2) << "Unexpected end";
    QTest::newRow("gzip, bad CRC") << true << badCrc << "data error";
    QTest::newRow("gzip, garbled tail") << true << gzip + "\x01\x02garble"
                                        << "goes on after";
}

void TestTableIO::damagedFileLeavesTableAsItWas()
{
    QFETCH(bool, compressed);
    QFETCH(QByteArray, bytes);
    QFETCH(QString, error);
    QTemporaryDir tmp;
    auto table = prices(7, true, true);
    ByPriceDown view(table.get());
    view.build();
    QVERIFY_INDEXES(table.get());
    const QStringList before = rowTexts(*table);
    const std::vector<Record> order = IndexChecker::rowsOf(&view);
    QString message;
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("TableIO: .*" + error));
    QVERIFY(!loadFile(*table, QDir(tmp.path()), bytes, compressed, &message));
    QVERIFY2(message.contains(error), qPrintable(message));
    QCOMPARE(rowTexts(*table), before);
    QVERIFY(IndexChecker::rowsOf(&view) == order);
    QVERIFY_INDEXES(table.get());
}

void TestTableIO::limitsAndMemory()
{
    QTemporaryDir tmp;
    auto source = prices(50);
    const QByteArray plain = fileOf(*source, false);
    auto table = prices(3);
    const QStringList before = rowTexts(*table);
    TableIO io(table.get());
    QFile file(io.fileName(QDir(tmp.path())));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(plain) == plain.size());
    file.close();

    QCOMPARE(io.loadLimits().maxRows, TableIO::defaultLoadLimits().maxRows);
    TableIO::LoadLimits limits;
    limits.maxRows = 49;
    io.setLoadLimits(limits);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("more than the limit of 49"));
    QVERIFY(!io.read(QDir(tmp.path()), false));
    limits = TableIO::LoadLimits();
    limits.maxBytes = 1000;
    io.setLoadLimits(limits);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("more than the limit of 1000"));
    QVERIFY(!io.read(QDir(tmp.path()), false));
    QCOMPARE(rowTexts(*table), before);

    // Memory running out in the middle of the rows is a failed load.
    io.setLoadLimits(TableIO::LoadLimits());
    TableIO::testingFailAllocationAfter(20);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("out of memory after 20 of 50 rows"));
    const bool loaded = io.read(QDir(tmp.path()), false);
    TableIO::testingFailAllocationAfter(-1);
    QVERIFY(!loaded);
    QCOMPARE(rowTexts(*table), before);
    QVERIFY(io.read(QDir(tmp.path()), false));
    QCOMPARE(rowTexts(*table), rowTexts(*source));
}

void TestTableIO::tableWithoutPrimaryKey()
{
    auto source = prices(5);
    // The table takes the file's primary key and its rows.
    auto bare = prices(0, false);
    QVERIFY(TestSupport::loadBytes(*bare, TestSupport::savedBytes(*source)));
    QVERIFY(bare->masterIndex());
    QCOMPARE(bare->masterIndex()->columnNames(), QStringList { "id" });
    QCOMPARE(rowTexts(*bare), rowTexts(*source));

    // A file that names no key cannot give one: refused, nothing dropped silently.
    const QByteArray noKey = TestSupport::savedBytes(*prices(0, false));
    auto target = prices(0, false);
    QDataStream keylessIn(noKey);
    TableIO io(target.get());
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("no primary-key index"));
    QVERIFY(!io.read(keylessIn, false));
    QVERIFY(io.errorString().contains("names no key columns"));
    QVERIFY(!target->masterIndex());
}

// The most columns a file can declare load through one re-laying of the
// scratch table, not one per column.
void TestTableIO::fileOfMostColumns()
{
    Table wide(QStringLiteral("wide"));
    QList<TableColumnDef> columns;
    TableColumnDef def;
    def.type = FieldType::Integer;
    for (int i = 0; i < 32767; ++i) {
        def.name = QStringLiteral("column number %1").arg(i);
        columns.append(def);
    }
    wide.addColumns(columns);
    wide.setMasterIndex(new MasterIndex_Column_Pure(&wide, QStringLiteral("column number 0")));
    unsigned char *row = wide.allocRow();
    wide.dataPtr(row, 32766).set<qint32>(42);
    wide.appendRow(row);
    Table target(QStringLiteral("wide"));
    QVERIFY(TestSupport::loadBytes(target, TestSupport::savedBytes(wide), true));
    QCOMPARE(target.columnCount(), 32767);
    QCOMPARE(target.masterIndex()->begin()->data(32766).get<qint32>(), 42);
}

void TestTableIO::failingSyncFailsTheSave()
{
    QTemporaryDir tmp;
    const QDir dir(tmp.path());
    DefaultCore::global()->setCompressTableFiles(false);
    auto old = prices(4), fresh = prices(9);
    QVERIFY(TableIO(old.get()).write(dir));
    TableIO::testingSetSyncFunction(&failingSync);
    TableIO io(fresh.get());
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("can't write to the disk"));
    const bool saved = io.write(dir);
    TableIO::testingSetSyncFunction(nullptr);
    QVERIFY(!saved);
    QVERIFY(io.errorString().contains(QString::fromLocal8Bit(strerror(EIO))));
    auto check = prices(0);
    QVERIFY(TableIO(check.get()).read(dir, false));
    QCOMPARE(rowTexts(*check), rowTexts(*old));
}

// Every truncation and every single-bit flip, plain and gzip. A load of a
// damaged file must fail and leave the table as it was, or (a flip that the
// format cannot see: a cell's bytes in a plain file, a gzip header field)
// succeed with the file's full row count. Prints the figures.
void TestTableIO::sweeps()
{
    QTemporaryDir tmp;
    const QDir dir(tmp.path());
    auto source = prices(24);
    const QStringList original = rowTexts(*source);
    const auto silent = [](QtMsgType, const QMessageLogContext &, const QString &) {};
    const QtMessageHandler testHandler = qInstallMessageHandler(silent);
    for (bool compressed : { false, true }) {
        const QByteArray good = fileOf(*source, compressed);
        int tried = 0, wrongSuccesses = 0, partial = 0, unseenFlips = 0;
        auto attempt = [&](const QByteArray &bytes, bool flip) {
            auto table = prices(2);
            const QStringList before = rowTexts(*table);
            ++tried;
            if (loadFile(*table, dir, bytes, compressed)) {
                const QStringList after = rowTexts(*table);
                if (!flip || after.size() != original.size() || (compressed && after != original))
                    ++wrongSuccesses;
                else if (after != original)
                    ++unseenFlips;
            } else if (rowTexts(*table) != before || !IndexChecker::check(table.get()).isEmpty()) {
                ++partial;
            }
        };
        for (int size = 0; size < good.size(); ++size)
            attempt(good.left(size), false);
        for (int bit = 0; bit < 8 * good.size(); ++bit) {
            QByteArray flipped = good;
            flipped[bit / 8] = char(flipped.at(bit / 8) ^ (1 << (bit % 8)));
            attempt(flipped, true);
        }
        qInstallMessageHandler(testHandler);
        qInfo(
            "%s file of %d bytes: %d damaged loads tried (every truncation and "
            "single-bit flip), crashes 0, wrong successes %d, tables changed by a failed load %d, "
            "flips of cell bytes loaded as other values %d",
            compressed ? "gzip" : "plain", int(good.size()), tried, wrongSuccesses, partial,
            unseenFlips);
        QCOMPARE(wrongSuccesses, 0);
        QCOMPARE(partial, 0);
        qInstallMessageHandler(silent);
    }
    qInstallMessageHandler(testHandler);
}

QTEST_GUILESS_MAIN(TestTableIO)
#include "tst_tableio.moc"
