// Table files: save and load of a million-row table, plain and gzip, against
// their peers measured in the same run on the same bytes: writing and reading
// the plain file's bytes raw, and zlib compressing and decompressing them
// alone (in memory, gzip format, level 6); and a load into a table with two
// sorted indexes against the same load into the master index alone. The rows
// are those of bench_peers: integer id key, decimal price repeating about 500
// times, random timestamp, quantity, side, symbol. Times are the process's
// CPU time (the index builds may use the thread pool). Prints the ratios at
// the end (rate / peer rate; 1 means no overhead over the peer).
#include <database/core/icore.h>
#include <database/decimal.h>
#include <database/indexsortcolumns.h>
#include <database/masterindex.h>
#include <database/table.h>
#include <database/tableio.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdio>
#include <memory>
#include <random>

#include "ratioreporter.h"

namespace {

const int kRows = 1000000;

std::unique_ptr<Table> makeQuotes(int rows)
{
    auto table = std::make_unique<Table>(QStringLiteral("quotes"));
    table->addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
    table->addColumn(QStringLiteral("price"), FieldType::Decimal, 0, false);
    table->addColumn(QStringLiteral("ts"), FieldType::DateTime, 0, false);
    table->addColumn(QStringLiteral("qty"), FieldType::Double);
    table->addColumn(QStringLiteral("side"), FieldType::Integer);
    table->addColumn(QStringLiteral("symbol"), FieldType::VarChar, 8);
    table->setMasterIndex(new MasterIndex_Column_Pure(table.get(), QStringLiteral("id")));
    std::mt19937 random(7);
    for (int i = 0; i < rows; ++i) {
        unsigned char *row = table->allocRow();
        table->dataPtr(row, 0).set<qint32>(i);
        table->dataPtr(row, 1).set<quint64>(decimal(10000 + qint64(random() % 2000), 2).raw());
        table->dataPtr(row, 2).set<qint64>(1700000000000LL + qint64(random() % 3600000000LL));
        table->dataPtr(row, 3).set<double>(double(random() % 10000));
        table->dataPtr(row, 4).set<qint32>(int(random() % 2));
        table->dataPtr(row, 5)
            = QStringLiteral("S%1").arg(random() % 3000, 5, 10, QLatin1Char('0'));
        table->appendRow(row);
    }
    return table;
}

// The shared fixture: the table, a directory and the plain file's bytes.
struct Fixture
{
    Fixture()
        : source(makeQuotes(kRows))
        , target(makeQuotes(0))
        , indexed(makeQuotes(0))
        , byPrice(new IndexSortColumns(indexed.get(), QStringLiteral("price")))
        , byTs(new IndexSortColumns(indexed.get(), QStringLiteral("ts")))
    {
        DefaultCore::global()->setCompressTableFiles(false);
        TableIO(source.get()).write(QDir(dir.path()));
        QFile file(QDir(dir.path()).filePath(QStringLiteral("quotes")));
        file.open(QIODevice::ReadOnly);
        plain = file.readAll();
        compressed = zlibCompress(plain);
    }

    static QByteArray zlibCompress(const QByteArray &input)
    {
        z_stream z {};
        deflateInit2(&z, 6, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
        QByteArray out(int(deflateBound(&z, uLong(input.size()))), Qt::Uninitialized);
        z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(input.constData()));
        z.avail_in = uInt(input.size());
        z.next_out = reinterpret_cast<Bytef *>(out.data());
        z.avail_out = uInt(out.size());
        deflate(&z, Z_FINISH);
        out.resize(int(z.total_out));
        deflateEnd(&z);
        return out;
    }

    QTemporaryDir dir;
    std::unique_ptr<Table> source;
    std::unique_ptr<Table> target;
    std::unique_ptr<Table> indexed;
    std::unique_ptr<IndexSortColumns> byPrice;
    std::unique_ptr<IndexSortColumns> byTs;
    QByteArray plain;
    QByteArray compressed;
};

Fixture &fixture()
{
    static Fixture f;
    return f;
}

void setBytes(benchmark::State &state)
{
    state.SetBytesProcessed(int64_t(state.iterations()) * fixture().plain.size());
}

// Saves the source table in the given form, again and again.
void save(benchmark::State &state, bool compressed)
{
    Fixture &f = fixture();
    DefaultCore::global()->setCompressTableFiles(compressed);
    TableIO io(f.source.get());
    for (auto _ : state)
        if (!io.write(QDir(f.dir.path())))
            state.SkipWithError("save failed");
    setBytes(state);
}

// Loads the file of the given form into `table`, again and again.
void load(benchmark::State &state, bool compressed, Table *table)
{
    Fixture &f = fixture();
    DefaultCore::global()->setCompressTableFiles(compressed);
    TableIO(f.source.get()).write(QDir(f.dir.path()));
    TableIO io(table);
    for (auto _ : state)
        if (!io.read(QDir(f.dir.path()), false) || table->rowCount() != kRows)
            state.SkipWithError("load failed");
    setBytes(state);
}

void BM_SavePlain(benchmark::State &state)
{
    save(state, false);
}

void BM_LoadPlain(benchmark::State &state)
{
    load(state, false, fixture().target.get());
}

void BM_LoadPlainTwoSortedIndexes(benchmark::State &state)
{
    Fixture &f = fixture();
    load(state, false, f.indexed.get());
    if (f.byPrice->count() != kRows || f.byTs->count() != kRows)
        state.SkipWithError("indexes not built");
}

void BM_SaveGzip(benchmark::State &state)
{
    save(state, true);
}

void BM_LoadGzip(benchmark::State &state)
{
    load(state, true, fixture().target.get());
}

void BM_RawWrite(benchmark::State &state)
{
    Fixture &f = fixture();
    const QString path = QDir(f.dir.path()).filePath(QStringLiteral("raw"));
    for (auto _ : state) {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(f.plain) != f.plain.size())
            state.SkipWithError("write failed");
    }
    setBytes(state);
}

void BM_RawRead(benchmark::State &state)
{
    Fixture &f = fixture();
    const QString path = QDir(f.dir.path()).filePath(QStringLiteral("raw"));
    {
        QFile file(path);
        file.open(QIODevice::WriteOnly);
        file.write(f.plain);
    }
    for (auto _ : state) {
        QFile file(path);
        file.open(QIODevice::ReadOnly);
        benchmark::DoNotOptimize(file.readAll().size());
    }
    setBytes(state);
}

void BM_ZlibCompress(benchmark::State &state)
{
    Fixture &f = fixture();
    for (auto _ : state)
        benchmark::DoNotOptimize(Fixture::zlibCompress(f.plain).size());
    setBytes(state);
}

void BM_ZlibDecompress(benchmark::State &state)
{
    Fixture &f = fixture();
    QByteArray out(f.plain.size(), Qt::Uninitialized);
    for (auto _ : state) {
        z_stream z {};
        inflateInit2(&z, 31);
        z.next_in = reinterpret_cast<Bytef *>(f.compressed.data());
        z.avail_in = uInt(f.compressed.size());
        z.next_out = reinterpret_cast<Bytef *>(out.data());
        z.avail_out = uInt(out.size());
        if (inflate(&z, Z_FINISH) != Z_STREAM_END)
            state.SkipWithError("inflate failed");
        inflateEnd(&z);
    }
    setBytes(state);
}

#define TABLEIO_BENCH(name)                                                                        \
    BENCHMARK(name)->Unit(benchmark::kMillisecond)->Iterations(3)->MeasureProcessCPUTime()
TABLEIO_BENCH(BM_SavePlain);
TABLEIO_BENCH(BM_RawWrite);
TABLEIO_BENCH(BM_LoadPlain);
TABLEIO_BENCH(BM_LoadPlainTwoSortedIndexes);
TABLEIO_BENCH(BM_RawRead);
TABLEIO_BENCH(BM_SaveGzip);
TABLEIO_BENCH(BM_ZlibCompress);
TABLEIO_BENCH(BM_LoadGzip);
TABLEIO_BENCH(BM_ZlibDecompress);

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto ratio = [&](const char *mine, const char *peer, const char *what) {
        const double a = reporter.counter(mine, "bytes_per_second");
        const double b = reporter.counter(peer, "bytes_per_second");
        if (a > 0 && b > 0)
            std::printf("%s: %.1f MB/s against %.1f MB/s, ratio %.2f\n", what, a / 1e6, b / 1e6,
                        a / b);
    };
    std::printf("table file of %d rows, %.1f MB plain\n", kRows, fixture().plain.size() / 1e6);
    ratio("BM_SavePlain", "BM_RawWrite", "plain save / raw write");
    ratio("BM_LoadPlain", "BM_RawRead", "plain load / raw read");
    ratio("BM_SaveGzip", "BM_ZlibCompress", "gzip save / zlib compress");
    ratio("BM_LoadGzip", "BM_ZlibDecompress", "gzip load / zlib decompress");
    ratio("BM_LoadPlainTwoSortedIndexes", "BM_LoadPlain",
          "plain load, master + 2 sorted indexes / master alone");
    return 0;
}
