#include <database/deflatedevice.h>

#include "testsupport.h"

#include <QtTest>

#include <memory>

using Format = DeflateDevice::StreamFormat;
Q_DECLARE_METATYPE(Format)

namespace {
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

using TestSupport::FaultyDevice;

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
} // namespace

class TestDeflateDevice : public QObject
{
    Q_OBJECT
private slots:
    void roundTrip_data();
    void roundTrip();
    void streamEndingAnywhereInTheBuffer();
    void misuseAndFailures();
    void gzipMembersAndDamage();
    void interoperatesWithPython();
};

// Members written one after another read as one stream, also through a tiny
// buffer; a damaged length in the trailer fails; bytes after the last member
// are left to the underlying device and reported. (A bad CRC, cuts and garbled
// tails of whole table files are the damage tests' job.)
void TestDeflateDevice::gzipMembersAndDamage()
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

void TestDeflateDevice::roundTrip_data()
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

void TestDeflateDevice::roundTrip()
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
void TestDeflateDevice::streamEndingAnywhereInTheBuffer()
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

void TestDeflateDevice::misuseAndFailures()
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
void TestDeflateDevice::interoperatesWithPython()
{
    const QString python = QStandardPaths::findExecutable("python3");
    if (python.isEmpty())
        QSKIP("python3 not found");
    const QString script = QStringLiteral(TESTS_SOURCE_DIR "/deflate_interop.py");
    auto run = [](const QString &program, const QStringList &arguments, const QByteArray &input) {
        const TestSupport::ProgramRun run = TestSupport::runProgram(program, arguments, input);
        return run.ok ? run.out : "process failed: " + run.err;
    };
    const QByteArray data = sampleData(200000);
    const QString windowBits[] = { "15", "31", "-15" };
    for (Format format : kFormats) {
        QCOMPARE(run(python, { script, "decompress", windowBits[format] }, compress(data, format)),
                 data);
        FaultyDevice theirs(run(python, { script, "compress", windowBits[format] }, data));
        QCOMPARE(decompress(&theirs, format), data);
    }
}

QTEST_GUILESS_MAIN(TestDeflateDevice)
#include "tst_deflatedevice.moc"
