#ifndef DATABASE_DEFLATEDEVICE_H
#define DATABASE_DEFLATEDEVICE_H

#include <database/database_global.h>

#include <QIODevice>
#include <QScopedPointer>

class DeflateDevicePrivate;

// DeflateDevice: a sequential QIODevice that compresses what is written to it
// and decompresses what is read from it, on top of another QIODevice (the
// underlying device). Streams are zlib, gzip or bare deflate data.
//
// Ownership: the underlying device is not owned and must outlive the device
// (or at least its close()). open() opens the underlying device when it is not
// open yet; close() then closes it again, otherwise it is left open.
//
// Threads: one thread at a time; there are no locks.
//
// Errors: expected failures (zlib errors, failing underlying device) are
// reported by the usual QIODevice return values (false, -1) and errorString();
// nothing throws. Misuse of open() is logged as a warning and returns false
// without touching errorString().
//
// States (with the numeric values of the private state):
//
//   reading                                 writing
//
//   Closed(5)                               Closed(5)
//     | open(ReadOnly)                        | open(WriteOnly)
//     v                                       v
//   ReadNotStarted(0) <--------+            WriteNothingWritten(3) <-----+
//     | first compressed bytes |              | first block written      |
//     v                        | close()      v                          | close()
//   ReadInStream(1) ---------->+            WriteBytesWritten(4) --------+ writes the
//     | end of stream          |                                           trailer
//     v                        |
//   ReadAtEnd(2) ------------->+
//
//   Any zlib or underlying-device error leads to Failed(6): every later read
//   and write returns -1 until the next open(). close() in read mode leaves it
//   for ReadNotStarted; in write mode it stays, and nothing more is written.
//
// Invariants:
//  1. The work buffer is allocated once, in the constructor, and reused; no
//     other allocation happens while reading or writing.
//  2. bytesAvailable() is 0 or 1, never an exact count: 1 while decompressed
//     data may still come.
//  3. A stream opened for writing and never written to is closed without any
//     output: not even a header or trailer.
//  4. When a read reaches the end of the stream, the compressed input that was
//     read ahead but not consumed is pushed back into the underlying device
//     (QIODevice::ungetChar), so that data following the stream can be read
//     from it. The push-back covers one byte more than the unconsumed input:
//     the work-buffer byte just after it, which follows the pushed-back data.
//     When the unconsumed input ends exactly at the end of the work buffer
//     there is no such byte and only the unconsumed input is pushed back; the
//     device never reads outside its buffer. For an underlying QFile this
//     means that data after the stream reads back exactly, followed by at
//     most one stray byte at the end of the file.
//
// Deliberate behaviours kept for compatibility of the files on disk:
//  - A short write of the underlying device is retried with the whole block
//    from its start (duplicating data on devices that write partially; files
//    never do). A device that accepts no byte at all counts as a write error,
//    so the retry cannot spin forever.
//
// Damaged input:
//  - A read that runs out of compressed input before the end of the stream
//    returns the bytes it did decode in that call, or 0 ("nothing available
//    yet") while the underlying device may still deliver more (a sequential
//    device). When the underlying device is random-access (a file, a buffer)
//    and at its end, more will never come: the stream is truncated, and the
//    read fails (-1, "Unexpected end of the compressed stream", state Failed). A bad CRC or length
//    in a gzip trailer fails likewise, with zlib's text.
//  - Gzip: members written one after another read as one stream, as gzip
//    reads them. Bytes after the last member that do not begin another one
//    are not decompressed: they are pushed back (invariant 4) and
//    hasTrailingData() turns true, so that a reader that expects the file to
//    end with the stream can refuse it.
//
// Decisions of this implementation:
//  - flush() does nothing before the first write (invariant 3 holds for a
//    flushed but unwritten stream too) and in the Failed state. A flush with
//    nothing new to flush is not an error. A flush that fills the buffer goes
//    on only while zlib still holds output, so that buffers smaller than a
//    flush marker cannot emit markers forever.
//  - When open() fails after it opened the underlying device itself, it closes
//    that device again.
//  - A buffer size below 1 is raised to 1, with a warning. Reads and writes
//    larger than zlib's 32-bit counters are handled in pieces.
class DATABASE_EXPORT DeflateDevice : public QIODevice
{
    Q_OBJECT
public:
    enum StreamFormat {
        ZlibFormat = 0, // zlib header and trailer
        GzipFormat = 1, // gzip header and trailer
        RawDeflateFormat = 2 // bare deflate data
    };

    // REQUIRES: device is not null when open() is called.
    explicit DeflateDevice(QIODevice *device, int compressionLevel = 6, int bufferSize = 65500);
    ~DeflateDevice() override;

    // Takes effect at the next open(). Warns if the zlib this library was built
    // against cannot write gzip, and sets the format all the same.
    void setStreamFormat(StreamFormat format);
    StreamFormat streamFormat() const;

    // Whether the zlib found at run time handles gzip streams.
    static bool isGzipSupported();
    // Whether a zlib of the given version string handles gzip (1.2 and later).
    static bool checkGzipSupport(const char *versionString);

    // mode must hold exactly one of ReadOnly and WriteOnly.
    bool open(QIODevice::OpenMode mode) override;
    // Writes the stream's trailer if anything was written, and closes the
    // underlying device if open() opened it.
    void close() override;
    // Pushes everything written so far to the underlying device (zlib sync
    // flush), without flushing the underlying device itself.
    void flush();

    bool isSequential() const override;
    qint64 bytesAvailable() const override;

    // Gzip reading: bytes that do not begin another member followed the end of
    // the stream (known once a read has reached it). Reset by open().
    bool hasTrailingData() const;

protected:
    qint64 readData(char *data, qint64 maxSize) override;
    qint64 writeData(const char *data, qint64 size) override;

private:
    Q_DISABLE_COPY(DeflateDevice)
    const QScopedPointer<DeflateDevicePrivate> d;
    friend class DeflateDevicePrivate;
};

#endif // DATABASE_DEFLATEDEVICE_H
