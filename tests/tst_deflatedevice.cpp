#include <deflatedevice.h>

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

std::unique_ptr<QBuffer> sourceOf(const QByteArray &data)
{
    auto source = std::make_unique<QBuffer>();
    source->setData(data);
    source->open(QIODevice::ReadOnly);
    return source;
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

// A device over a byte array whose reads and writes fail on demand.
class FlakyDevice : public QBuffer
{
public:
    bool failing = false;

protected:
    bool fails()
    {
        setErrorString("injected failure");
        return failing;
    }
    qint64 readData(char *data, qint64 size) override
    {
        return fails() ? -1 : QBuffer::readData(data, size);
    }
    qint64 writeData(const char *data, qint64 size) override
    {
        return fails() ? -1 : QBuffer::writeData(data, size);
    }
};
} // namespace

class TestDeflateDevice : public QObject
{
    Q_OBJECT
private slots:
    void roundTrip_data();
    void roundTrip();
    void streamEndingAnywhereInTheBuffer();
    void misuseAndBadInput();
    void underlyingDeviceFailures();
    void interoperatesWithPython();
};

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
    target.open(QIODevice::WriteOnly);
    auto writer = deflateOn(&target, format, bufferSize);
    QVERIFY(writer->open(QIODevice::WriteOnly));
    QCOMPARE(writer->write(half), qint64(half.size()));
    // A flush makes what was written decodable; a second one, with nothing
    // new, must neither fail nor (with tiny buffers) repeat flush markers forever.
    writer->flush();
    writer->flush();
    auto flushed = sourceOf(target.data());
    auto flushedReader = deflateOn(flushed.get(), format);
    flushedReader->open(QIODevice::ReadOnly | QIODevice::Unbuffered);
    QCOMPARE(flushedReader->read(half.size()), half);
    QCOMPARE(writer->write(data.mid(half.size())), qint64(data.size() - half.size()));
    writer->close();
    QCOMPARE(writer->errorString(), kNoError);
    if (data.isEmpty())
        QVERIFY(target.data().isEmpty()); // never written: no header, no trailer
    else
        QCOMPARE(decompress(sourceOf(target.data()).get(), format, bufferSize), data);
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
                    auto source = sourceOf(stream + after);
                    QCOMPARE(decompress(source.get(), format, bufferSize, 4096), data);
                    QCOMPARE(source->read(after.size()), after);
                    QVERIFY(source->bytesAvailable() <= 1); // at most the one stray byte
                }
            }
            QCOMPARE(offsets.size(), wanted);
        }
    }
}

void TestDeflateDevice::misuseAndBadInput()
{
    QBuffer underlying;
    DeflateDevice device(&underlying);
    for (QIODevice::OpenMode mode : { QIODevice::ReadWrite, QIODevice::Text }) {
        QTest::ignoreMessage(QtWarningMsg,
                             "DeflateDevice::open: DeflateDevice can only be opened "
                             "in the ReadOnly or WriteOnly modes");
        QVERIFY(!device.open(mode));
    }
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

    // A truncated stream reads as "nothing yet", not as an error; a corrupt
    // one fails for good.
    const QByteArray stream = compress(sampleData(1000), DeflateDevice::GzipFormat);
    auto truncated = sourceOf(stream.left(stream.size() / 2));
    auto reader = deflateOn(truncated.get(), DeflateDevice::GzipFormat);
    QVERIFY(reader->open(QIODevice::ReadOnly));
    QCOMPARE(reader->read(2000), QByteArray());
    QCOMPARE(reader->errorString(), kNoError);
    QCOMPARE(reader->bytesAvailable(), qint64(1));
    auto corrupt = sourceOf("\x78\x9c\xff\xff\xff\xff garbage");
    reader = deflateOn(corrupt.get(), DeflateDevice::ZlibFormat);
    QVERIFY(reader->open(QIODevice::ReadOnly));
    char byte;
    QCOMPARE(reader->read(&byte, 1), qint64(-1));
    QCOMPARE(reader->errorString(), "Internal zlib error when decompressing: data error");
    QCOMPARE(reader->read(&byte, 1), qint64(-1)); // failed for good

    // Devices the deflate device opened itself are closed again by close()
    // and by a failed open().
    QTemporaryDir dir;
    QFile file(dir.filePath("never-written"));
    auto writer = deflateOn(&file, DeflateDevice::GzipFormat);
    QVERIFY(writer->open(QIODevice::WriteOnly));
    writer->close();
    QVERIFY(!file.isOpen());
    DeflateDevice badLevel(&file, 42);
    QVERIFY(!badLevel.open(QIODevice::WriteOnly));
    QCOMPARE(badLevel.errorString(), "Internal zlib error: stream error");
    QVERIFY(!file.isOpen());
    QFile missing(dir.filePath("no/such/file"));
    DeflateDevice missingReader(&missing);
    QVERIFY(!missingReader.open(QIODevice::ReadOnly));
    QVERIFY(missingReader.errorString().startsWith("Error opening underlying device: "));

    QVERIFY(DeflateDevice::isGzipSupported());
    for (const char *version : { "1.1.4", "0.9", "1.", "", static_cast<const char *>(nullptr) })
        QVERIFY(!DeflateDevice::checkGzipSupport(version));
    for (const char *version : { "1.2.5", "1.2.13", "1.3", "2.0" })
        QVERIFY2(DeflateDevice::checkGzipSupport(version), version);
}

void TestDeflateDevice::underlyingDeviceFailures()
{
    const QString writeError = "Error writing to underlying device: injected failure";
    for (Format format : kFormats) {
        FlakyDevice target;
        target.failing = true;
        auto writer = deflateOn(&target, format, 16);
        QVERIFY(writer->open(QIODevice::WriteOnly));
        QCOMPARE(writer->write(sampleData(100000)), qint64(-1));
        QCOMPARE(writer->errorString(), writeError);
        target.failing = false;
        QCOMPARE(writer->write("x"), qint64(-1)); // failed for good
        writer->close();
        QCOMPARE(target.size(), qint64(0));

        FlakyDevice late; // only the trailer written by close() fails
        auto lateWriter = deflateOn(&late, format);
        QVERIFY(lateWriter->open(QIODevice::WriteOnly));
        QCOMPARE(lateWriter->write("x"), qint64(1));
        late.failing = true;
        lateWriter->close();
        QCOMPARE(lateWriter->errorString(), writeError);

        FlakyDevice source;
        source.setData(compress("some text", format));
        source.failing = true;
        auto reader = deflateOn(&source, format);
        QVERIFY(reader->open(QIODevice::ReadOnly));
        QCOMPARE(reader->read(10), QByteArray());
        QCOMPARE(reader->errorString(),
                 "Error reading data from underlying device: injected failure");
    }
}

// Streams cross-checked both ways with an independent implementation: Python's
// zlib module, and gzip -t.
void TestDeflateDevice::interoperatesWithPython()
{
    const QString python = QStandardPaths::findExecutable("python3");
    if (python.isEmpty())
        QSKIP("python3 not found");
    const QString script = QStringLiteral(TESTS_SOURCE_DIR "/deflate_interop.py");
    auto run = [](const QString &program, const QStringList &arguments, const QByteArray &input) {
        QProcess process;
        process.start(program, arguments);
        process.write(input);
        process.closeWriteChannel();
        process.waitForFinished(-1);
        return process.exitCode() == 0 ? process.readAllStandardOutput() : "process failed";
    };
    const QByteArray data = sampleData(200000);
    const QString windowBits[] = { "15", "31", "-15" };
    for (Format format : kFormats) {
        QCOMPARE(run(python, { script, "decompress", windowBits[format] }, compress(data, format)),
                 data);
        auto theirs = sourceOf(run(python, { script, "compress", windowBits[format] }, data));
        QCOMPARE(decompress(theirs.get(), format), data);
    }
    const QString gzip = QStandardPaths::findExecutable("gzip");
    if (!gzip.isEmpty())
        QCOMPARE(run(gzip, { "-t" }, compress(data, DeflateDevice::GzipFormat)), QByteArray());
}

QTEST_GUILESS_MAIN(TestDeflateDevice)
#include "tst_deflatedevice.moc"
