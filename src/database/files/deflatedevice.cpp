#include <database/deflatedevice.h>

#include <QtGlobal>

#include <cstring>
#include <limits>
#include <memory>

#include <zlib.h>

namespace {

// The version announced to zlib's initialisation functions: the oldest zlib
// the library is meant to run with. zlib checks only its major number.
const char *const kAnnouncedZlibVersion = "1.2.5";

const int kMemoryLevel = 8;
const uInt kMaxZlibChunk = std::numeric_limits<uInt>::max();

int windowBitsFor(DeflateDevice::StreamFormat format)
{
    switch (format) {
    case DeflateDevice::GzipFormat:
        return 15 + 16;
    case DeflateDevice::RawDeflateFormat:
        return -15;
    case DeflateDevice::ZlibFormat:
        break;
    }
    return 15;
}

} // namespace

class DeflateDevicePrivate
{
public:
    enum State {
        ReadNotStarted = 0,
        ReadInStream = 1,
        ReadAtEnd = 2,
        WriteNothingWritten = 3,
        WriteBytesWritten = 4,
        Closed = 5,
        Failed = 6
    };

    DeflateDevicePrivate(DeflateDevice *owner, QIODevice *device, int compressionLevel,
                         int bufferSize);

    // Error string = message + zlib's text for code.
    void setZlibError(const QString &message, int code);
    // Writes the first count bytes of the work buffer to the underlying device.
    bool writeCompressed(qint64 count);
    // Runs deflate with an empty input until the flush is complete.
    void flushZlib(int flushMode);
    // Gives the unconsumed compressed input back to the underlying device.
    void pushBackUnconsumedInput();
    bool nextGzipMemberFollows();
    void closeManagedDevice();

    DeflateDevice *const owner;
    QIODevice *const device;
    bool manageDevice = false;
    z_stream zlibStream;
    const int compressionLevel;
    const int bufferSize;
    const std::unique_ptr<Bytef[]> buffer;
    State state = Closed;
    DeflateDevice::StreamFormat streamFormat = DeflateDevice::ZlibFormat;
    // Gzip: bytes that do not start another member followed the last one.
    bool trailingData = false;
};

namespace {

int checkedBufferSize(int bufferSize)
{
    if (bufferSize >= 1)
        return bufferSize;
    qWarning("DeflateDevice: buffer size %d is too small, using 1 byte", bufferSize);
    return 1;
}

} // namespace

DeflateDevicePrivate::DeflateDevicePrivate(DeflateDevice *owner, QIODevice *device,
                                           int compressionLevel, int bufferSize)
    : owner(owner)
    , device(device)
    , compressionLevel(compressionLevel)
    , bufferSize(checkedBufferSize(bufferSize))
    ,
    // Zero-filled, so that the byte pushed back after the unconsumed input
    // is never uninitialised memory.
    buffer(new Bytef[static_cast<size_t>(this->bufferSize)]())
{
    zlibStream.next_in = Z_NULL;
    zlibStream.avail_in = 0;
    zlibStream.next_out = Z_NULL;
    zlibStream.avail_out = 0;
    zlibStream.msg = Z_NULL;
    zlibStream.zalloc = Z_NULL;
    zlibStream.zfree = Z_NULL;
    zlibStream.opaque = Z_NULL;
}

void DeflateDevicePrivate::setZlibError(const QString &message, int code)
{
    // zError indexes a table without a range check: ask it only about codes
    // that zlib defines.
    const char *text = (code >= Z_VERSION_ERROR && code <= Z_NEED_DICT) ? zError(code) : nullptr;
    if (text && *text)
        owner->setErrorString(message + QString::fromLatin1(text));
    else
        owner->setErrorString(message + QStringLiteral(" Unknown error, code ")
                              + QString::number(code));
}

bool DeflateDevicePrivate::writeCompressed(qint64 count)
{
    const char *block = reinterpret_cast<const char *>(buffer.get());
    qint64 written = 0;
    while (written < count) {
        // Each attempt writes the whole block again (see the header comment).
        const qint64 result = device->write(block, count);
        if (result <= 0) {
            state = Failed;
            owner->setErrorString(QStringLiteral("Error writing to underlying device: ")
                                  + device->errorString());
            return false;
        }
        written += result;
    }
    state = WriteBytesWritten;
    return true;
}

void DeflateDevicePrivate::flushZlib(int flushMode)
{
    zlibStream.next_in = Z_NULL;
    zlibStream.avail_in = 0;
    for (;;) {
        zlibStream.next_out = buffer.get();
        zlibStream.avail_out = static_cast<uInt>(bufferSize);
        const int result = deflate(&zlibStream, flushMode);
        // A sync flush with nothing new since the last one gives Z_BUF_ERROR:
        // not an error.
        const bool nothingToFlush = result == Z_BUF_ERROR && flushMode != Z_FINISH;
        if (result != Z_OK && result != Z_STREAM_END && !nothingToFlush) {
            state = Failed;
            setZlibError(QStringLiteral("Internal zlib error when compressing: "), result);
            return;
        }
        if (!writeCompressed(bufferSize - zlibStream.avail_out))
            return;
        if (flushMode == Z_FINISH) {
            if (result == Z_STREAM_END)
                return;
            continue;
        }
        if (nothingToFlush || zlibStream.avail_out != 0)
            return;
        // The buffer is full: go on only while zlib holds output, otherwise
        // another call would emit a further flush marker, and with a buffer
        // smaller than a marker that would never end.
        unsigned pending = 0;
        int bits = 0;
        if (deflatePending(&zlibStream, &pending, &bits) != Z_OK || pending == 0)
            return;
    }
}

void DeflateDevicePrivate::pushBackUnconsumedInput()
{
    const Bytef *const unconsumed = zlibStream.next_in;
    const uInt count = zlibStream.avail_in;
    if (!unconsumed)
        return;
    // The byte just after the unconsumed input goes back too (long-standing
    // behaviour), but only when it lies inside the work buffer.
    const Bytef *const bufferEnd = buffer.get() + bufferSize;
    if (unconsumed + count < bufferEnd)
        device->ungetChar(static_cast<char>(unconsumed[count]));
    for (uInt i = count; i > 0; --i)
        device->ungetChar(static_cast<char>(unconsumed[i - 1]));
}

bool DeflateDevicePrivate::nextGzipMemberFollows()
{
    // Looks at the two bytes after the member that just ended, reading more
    // input when fewer are buffered; they stay unconsumed either way.
    if (zlibStream.avail_in < 2) {
        const uInt kept = zlibStream.avail_in;
        if (kept > 0)
            std::memmove(buffer.get(), zlibStream.next_in, kept);
        const qint64 read = device->read(reinterpret_cast<char *>(buffer.get()) + kept,
                                         bufferSize - qint64(kept));
        zlibStream.next_in = buffer.get();
        zlibStream.avail_in = kept + static_cast<uInt>(qMax<qint64>(read, 0));
    }
    if (zlibStream.avail_in == 0)
        return false;
    if (zlibStream.avail_in >= 2 && zlibStream.next_in[0] == 0x1f && zlibStream.next_in[1] == 0x8b)
        return true;
    trailingData = true;
    return false;
}

void DeflateDevicePrivate::closeManagedDevice()
{
    if (manageDevice) {
        device->close();
        manageDevice = false;
    }
}

DeflateDevice::DeflateDevice(QIODevice *device, int compressionLevel, int bufferSize)
    : d(new DeflateDevicePrivate(this, device, compressionLevel, bufferSize))
{
}

DeflateDevice::~DeflateDevice()
{
    close();
}

void DeflateDevice::setStreamFormat(StreamFormat format)
{
    if (format == GzipFormat && !checkGzipSupport(ZLIB_VERSION))
        qWarning("DeflateDevice::setStreamFormat: zlib 1.2.x or higher is required to use the gzip "
                 "format."
                 " Current version is: %s",
                 ZLIB_VERSION);
    d->streamFormat = format;
}

DeflateDevice::StreamFormat DeflateDevice::streamFormat() const
{
    return d->streamFormat;
}

bool DeflateDevice::isGzipSupported()
{
    return checkGzipSupport(zlibVersion());
}

bool DeflateDevice::checkGzipSupport(const char *versionString)
{
    if (!versionString || versionString[0] == '\0' || versionString[1] == '\0'
        || versionString[2] == '\0')
        return false;
    if (versionString[0] == '0')
        return false;
    if (versionString[0] != '1')
        return true;
    return static_cast<unsigned char>(versionString[2] - '0') > 1;
}

bool DeflateDevice::open(QIODevice::OpenMode mode)
{
    if (isOpen()) {
        qWarning("DeflateDevice::open: device already open");
        return false;
    }
    const bool reading = mode & QIODevice::ReadOnly;
    const bool writing = mode & QIODevice::WriteOnly;
    if (reading == writing) {
        qWarning("DeflateDevice::open: DeflateDevice can only be opened in the ReadOnly or "
                 "WriteOnly modes");
        return false;
    }
    if (!d->device) {
        qWarning("DeflateDevice::open: no underlying device");
        return false;
    }

    if (d->device->isOpen()) {
        d->manageDevice = false;
        const QIODevice::OpenMode direction = reading ? QIODevice::ReadOnly : QIODevice::WriteOnly;
        if (!(d->device->openMode() & direction)) {
            qWarning("DeflateDevice::open: underlying device must be open in one of the ReadOnly "
                     "or WriteOnly modes");
            return false;
        }
    } else {
        d->manageDevice = true;
        if (!d->device->open(mode)) {
            d->manageDevice = false;
            setErrorString(QStringLiteral("Error opening underlying device: ")
                           + d->device->errorString());
            return false;
        }
    }

    const int windowBits = windowBitsFor(d->streamFormat);
    int status;
    if (reading) {
        d->state = DeflateDevicePrivate::ReadNotStarted;
        d->trailingData = false;
        d->zlibStream.next_in = Z_NULL;
        d->zlibStream.avail_in = 0;
        if (d->streamFormat == ZlibFormat) {
            status = inflateInit_(&d->zlibStream, kAnnouncedZlibVersion,
                                  static_cast<int>(sizeof(z_stream)));
        } else {
            if (!checkGzipSupport(zlibVersion())) {
                setErrorString(
                    QStringLiteral("The gzip format not supported in this version of zlib."));
                d->closeManagedDevice();
                return false;
            }
            status = inflateInit2_(&d->zlibStream, windowBits, kAnnouncedZlibVersion,
                                   static_cast<int>(sizeof(z_stream)));
        }
    } else {
        d->state = DeflateDevicePrivate::WriteNothingWritten;
        if (d->streamFormat == ZlibFormat)
            status = deflateInit_(&d->zlibStream, d->compressionLevel, kAnnouncedZlibVersion,
                                  static_cast<int>(sizeof(z_stream)));
        else
            status = deflateInit2_(&d->zlibStream, d->compressionLevel, Z_DEFLATED, windowBits,
                                   kMemoryLevel, Z_DEFAULT_STRATEGY, kAnnouncedZlibVersion,
                                   static_cast<int>(sizeof(z_stream)));
    }

    if (status != Z_OK) {
        d->setZlibError(QStringLiteral("Internal zlib error: "), status);
        d->closeManagedDevice();
        return false;
    }
    return QIODevice::open(mode);
}

void DeflateDevice::close()
{
    if (!isOpen())
        return;
    if (openMode() & ReadOnly) {
        d->state = DeflateDevicePrivate::ReadNotStarted;
        inflateEnd(&d->zlibStream);
    } else {
        if (d->state == DeflateDevicePrivate::WriteBytesWritten) {
            d->state = DeflateDevicePrivate::WriteNothingWritten;
            d->flushZlib(Z_FINISH);
        }
        deflateEnd(&d->zlibStream);
    }
    d->closeManagedDevice();
    QIODevice::close();
}

void DeflateDevice::flush()
{
    // Nothing written yet: stay without output (no header for a flush alone).
    if (!isOpen() || (openMode() & ReadOnly) || d->state != DeflateDevicePrivate::WriteBytesWritten)
        return;
    d->flushZlib(Z_SYNC_FLUSH);
}

bool DeflateDevice::isSequential() const
{
    return true;
}

qint64 DeflateDevice::bytesAvailable() const
{
    if (!(openMode() & ReadOnly))
        return 0;
    qint64 count = 0;
    switch (d->state) {
    case DeflateDevicePrivate::ReadNotStarted:
        count = d->device->bytesAvailable();
        break;
    case DeflateDevicePrivate::ReadInStream:
        count = 1;
        break;
    default:
        break;
    }
    count += QIODevice::bytesAvailable();
    // Only "something" or "nothing": the decompressed size is not known. The
    // sum is judged as a 32-bit count, as the device always has: an unstarted
    // stream whose size is a multiple of 4 GiB reports nothing.
    return static_cast<int>(count) > 0 ? 1 : 0;
}

bool DeflateDevice::hasTrailingData() const
{
    return d->trailingData;
}

qint64 DeflateDevice::readData(char *data, qint64 maxSize)
{
    if (d->state == DeflateDevicePrivate::ReadAtEnd)
        return 0;
    if (d->state == DeflateDevicePrivate::Failed)
        return -1;
    if (maxSize < 1)
        return 0;

    z_stream &stream = d->zlibStream;
    stream.next_out = reinterpret_cast<Bytef *>(data);
    stream.avail_out = static_cast<uInt>(qMin<qint64>(maxSize, kMaxZlibChunk));
    const uInt requested = stream.avail_out;

    int status;
    do {
        if (stream.avail_in == 0) {
            const qint64 read
                = d->device->read(reinterpret_cast<char *>(d->buffer.get()), d->bufferSize);
            if (read == -1) {
                d->state = DeflateDevicePrivate::Failed;
                setErrorString(QStringLiteral("Error reading data from underlying device: ")
                               + d->device->errorString());
                return -1;
            }
            if (d->state != DeflateDevicePrivate::ReadInStream) {
                if (read == 0)
                    return 0;
                d->state = DeflateDevicePrivate::ReadInStream;
            } else if (read == 0 && d->device->atEnd() && !d->device->isSequential()) {
                // A file that ends inside the stream will never give more:
                // hand over what this call decoded, then fail.
                if (stream.avail_out != requested)
                    return requested - stream.avail_out;
                d->state = DeflateDevicePrivate::Failed;
                setErrorString(QStringLiteral("Unexpected end of the compressed stream"));
                return -1;
            }
            stream.next_in = d->buffer.get();
            stream.avail_in = static_cast<uInt>(read);
        }

        status = inflate(&stream, Z_SYNC_FLUSH);
        switch (status) {
        case Z_NEED_DICT:
        case Z_DATA_ERROR:
        case Z_MEM_ERROR:
        case Z_STREAM_ERROR:
            d->state = DeflateDevicePrivate::Failed;
            d->setZlibError(QStringLiteral("Internal zlib error when decompressing: "), status);
            return -1;
        case Z_BUF_ERROR:
            // No input left and no progress possible: hand over what this
            // call did inflate (zlib has consumed its input), and be called
            // again when more input exists.
            return requested - stream.avail_out;
        case Z_STREAM_END:
            if (d->streamFormat == GzipFormat && d->nextGzipMemberFollows()) {
                inflateReset(&stream);
                status = Z_OK;
            }
            break;
        default:
            break;
        }
    } while (stream.avail_out != 0 && status != Z_STREAM_END);

    if (status == Z_STREAM_END) {
        d->state = DeflateDevicePrivate::ReadAtEnd;
        d->pushBackUnconsumedInput();
    }
    return requested - stream.avail_out;
}

qint64 DeflateDevice::writeData(const char *data, qint64 size)
{
    if (size < 1)
        return 0;
    if (d->state == DeflateDevicePrivate::Failed)
        return -1;

    z_stream &stream = d->zlibStream;
    qint64 remaining = size;
    const char *next = data;
    // zlib counts in 32 bits: feed larger writes in pieces.
    while (remaining > 0) {
        const uInt chunk = static_cast<uInt>(qMin<qint64>(remaining, kMaxZlibChunk));
        stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(next));
        stream.avail_in = chunk;
        do {
            stream.next_out = d->buffer.get();
            stream.avail_out = static_cast<uInt>(d->bufferSize);
            const int status = deflate(&stream, Z_NO_FLUSH);
            if (status != Z_OK) {
                d->state = DeflateDevicePrivate::Failed;
                d->setZlibError(QStringLiteral("Internal zlib error when compressing: "), status);
                return -1;
            }
            if (!d->writeCompressed(d->bufferSize - stream.avail_out))
                return -1;
        } while (stream.avail_out == 0);
        next += chunk;
        remaining -= chunk;
    }
    return size;
}
