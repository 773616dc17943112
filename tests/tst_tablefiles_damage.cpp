// Table files that are damaged, too big, or meet a failing disk: a load either
// reads the whole file or leaves the table exactly as it was; a save either
// reaches the disk or reports why. The sweeps print figures for the README.

#include <database/core/icore.h>
#include <database/database.h>

#include "indexchecker.h"
#include "testsupport.h"

#include <QtTest>

#include <cerrno>
#include <memory>

using TestSupport::rowTexts;

namespace {

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

class tst_TableFilesDamage : public QObject
{
    Q_OBJECT
private slots:
    void damagedFileLeavesTableAsItWas_data();
    void damagedFileLeavesTableAsItWas();
    void limitsAndMemory();
    void tableWithoutPrimaryKey();
    void fileOfMostColumns();
    void failingSyncFailsTheSave();
    void sweeps();
};

void tst_TableFilesDamage::damagedFileLeavesTableAsItWas_data()
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

void tst_TableFilesDamage::damagedFileLeavesTableAsItWas()
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

void tst_TableFilesDamage::limitsAndMemory()
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

void tst_TableFilesDamage::tableWithoutPrimaryKey()
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
void tst_TableFilesDamage::fileOfMostColumns()
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

void tst_TableFilesDamage::failingSyncFailsTheSave()
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
void tst_TableFilesDamage::sweeps()
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

QTEST_GUILESS_MAIN(tst_TableFilesDamage)
#include "tst_tablefiles_damage.moc"
