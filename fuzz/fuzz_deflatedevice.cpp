// Fuzz target of DeflateDevice: arbitrary bytes are read as a compressed
// stream in each format, with a work buffer and read size chosen by the first
// bytes, and then compressed and read back, which must give them unchanged.
#include <database/deflatedevice.h>

#include <QBuffer>

#include <cstdint>
#include <cstdlib>

namespace {

// Bounds the output of a highly compressed input, to keep each run short.
const qint64 kMaxDecompressed = 1 << 20;

void readArbitraryStream(const QByteArray &input, DeflateDevice::StreamFormat format,
                         int bufferSize, int chunk)
{
    QBuffer source;
    source.setData(input);
    source.open(QIODevice::ReadOnly);
    DeflateDevice device(&source, 6, bufferSize);
    device.setStreamFormat(format);
    if (!device.open(QIODevice::ReadOnly))
        std::abort();
    char out[4096];
    qint64 total = 0;
    qint64 n;
    while (total < kMaxDecompressed && (n = device.read(out, chunk)) > 0) {
        total += n;
        if (device.bytesAvailable() > 1)
            std::abort();
    }
    // Whatever follows the stream stays readable from the source.
    source.readAll();
}

void roundTrip(const QByteArray &input, DeflateDevice::StreamFormat format, int bufferSize)
{
    QBuffer compressed;
    {
        DeflateDevice writer(&compressed, 6, bufferSize);
        writer.setStreamFormat(format);
        if (!writer.open(QIODevice::WriteOnly) || writer.write(input) != input.size())
            std::abort();
    }
    if (input.isEmpty() != compressed.data().isEmpty())
        std::abort();
    if (input.isEmpty())
        return;
    compressed.open(QIODevice::ReadOnly);
    DeflateDevice reader(&compressed, 6, bufferSize);
    reader.setStreamFormat(format);
    if (!reader.open(QIODevice::ReadOnly) || reader.readAll() != input)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > (1u << 16))
        return 0;
    const QByteArray input
        = QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size));
    const int bufferSize = size > 0 ? 1 + data[0] % 64 : 65500;
    const int chunk = size > 1 ? 1 + data[1] % 4096 : 4096;
    for (DeflateDevice::StreamFormat format :
         { DeflateDevice::ZlibFormat, DeflateDevice::GzipFormat,
           DeflateDevice::RawDeflateFormat }) {
        readArbitraryStream(input, format, bufferSize, chunk);
        readArbitraryStream(input, format, 65500, chunk);
        roundTrip(input, format, bufferSize);
    }
    return 0;
}
