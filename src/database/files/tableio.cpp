#include <database/tableio.h>

#include "storage/rowlayout_p.h"
#include "storage/rowslab_p.h"

#include <database/core/icore.h>
#include <database/deflatedevice.h>
#include <database/exception.h>
#include <database/fielddefconvertor.h>
#include <database/indexlist.h>
#include <database/masterindex_column.h>
#include <database/masterindex_struct.h>
#include <database/table.h>
#include <database/tablerebuilder.h>

#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QSet>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <typeinfo>
#include <vector>

namespace {

// The longest VarChar a file may declare, in UTF-16 units: string cells are
// read with a 16-bit counter, so longer ones cannot exist in a working table.
const int kMaxStringLength = 32767;
// The longest stored row a file may declare: well beyond any real table, and
// small enough that no count in a header can make a load allocate without
// bound or overflow a row's size.
const qint64 kMaxRowLength = 16 << 20;

int flagBytesFor(int columnCount)
{
    return (columnCount + 7) / 8;
}

// Whether the device has reported an error of its own (QIODevice starts
// with "Unknown error" as its error string).
bool hasDeviceError(const QIODevice &device)
{
    const QString error = device.errorString();
    return !error.isEmpty() && error != QLatin1String("Unknown error");
}

bool streamOk(const QDataStream &stream)
{
    return stream.status() == QDataStream::Ok;
}

// Frees a row block of a table when it goes out of scope.
struct RowGuard
{
    const Table *table;
    unsigned char *row;
    ~RowGuard()
    {
        if (row)
            table->freeRow(row);
    }
};

// Deletes the convertors of a load on every path.
struct ConvertorsGuard
{
    QList<FieldDefConvertor *> &list;
    ~ConvertorsGuard()
    {
        qDeleteAll(list);
        list.clear();
    }
};

// Stored rows are moved through a buffer of about this many bytes, so that a
// stream sees one read or write per megabyte of rows rather than one per row
// or cell (the deflate device takes and gives blocks of any size).
const int kBlockBytes = 1 << 20;

// Where the bytes of a stored row lie in a row block: the cells, packed in the
// file, each at its 8-byte aligned place in the block, then the flag bytes
// after the data area. Neighbouring pieces that are neighbours on both sides
// (cells of a multiple of 8 bytes) are one piece, so a row of 8-byte cells is
// copied by a single memcpy.
class StoredLayout
{
public:
    StoredLayout(const QList<const TableColumnDef *> &columns, int rowLength, int flagBytes)
    {
        int stored = 0;
        for (const TableColumnDef *column : columns) {
            add(RowLayout::HeaderSize + int(column->offset), stored, int(column->size));
            stored += int(column->size);
        }
        add(RowLayout::HeaderSize + rowLength, stored, flagBytes);
    }
    void unpack(const unsigned char *stored, unsigned char *row) const
    {
        for (const Piece &piece : m_pieces)
            std::memcpy(row + piece.inRow, stored + piece.inStored, size_t(piece.size));
    }
    void pack(const unsigned char *row, unsigned char *stored) const
    {
        for (const Piece &piece : m_pieces)
            std::memcpy(stored + piece.inStored, row + piece.inRow, size_t(piece.size));
    }

private:
    struct Piece
    {
        int inRow;
        int inStored;
        int size;
    };
    void add(int inRow, int inStored, int size)
    {
        if (size <= 0)
            return;
        if (!m_pieces.isEmpty()) {
            Piece &last = m_pieces.last();
            if (last.inRow + last.size == inRow && last.inStored + last.size == inStored) {
                last.size += size;
                return;
            }
        }
        m_pieces.append({ inRow, inStored, size });
    }
    QVector<Piece> m_pieces;
};

// Hands out the stored rows of one row section, read from the stream a block
// at a time. It never reads past the section's `rows` rows, so that whatever
// follows the section on the stream (another row list) stays unread.
class StoredRowReader
{
public:
    StoredRowReader(QDataStream &stream, int storedSize, qint64 rows)
        : m_stream(stream)
        , m_storedSize(storedSize)
        , m_left(rows)
        , m_blockRows(qMax(1, kBlockBytes / qMax(1, storedSize)))
    {
    }
    // The next stored row, or null when the data ends first.
    const unsigned char *next()
    {
        if (m_pos + m_storedSize > m_end && !refill())
            return nullptr;
        const unsigned char *row
            = reinterpret_cast<const unsigned char *>(m_buffer.constData()) + m_pos;
        m_pos += m_storedSize;
        return row;
    }

private:
    bool refill()
    {
        const qint64 rows = qMin<qint64>(m_left, m_blockRows);
        if (rows <= 0)
            return false;
        // Grows with the data actually read, never on a count's word alone.
        if (m_buffer.size() < rows * m_storedSize)
            m_buffer.resize(int(rows * m_storedSize));
        const int read = m_stream.readRawData(m_buffer.data(), int(rows * m_storedSize));
        m_left = read == rows * m_storedSize ? m_left - rows : 0;
        m_pos = 0;
        m_end = read < 0 ? 0 : read - read % m_storedSize;
        return m_end > 0;
    }

    QDataStream &m_stream;
    const int m_storedSize;
    qint64 m_left;
    const int m_blockRows;
    QByteArray m_buffer;
    int m_pos = 0;
    int m_end = 0;
};

// Packs stored rows into a block and writes the stream a block at a time.
class StoredRowWriter
{
public:
    // `rows`: how many rows will be appended, so that a short list takes a
    // buffer of its own size.
    StoredRowWriter(QDataStream &stream, const QList<const TableColumnDef *> &columns,
                    int rowLength, int flagBytes, qint64 rows)
        : m_stream(stream)
        , m_layout(columns, rowLength, flagBytes)
        , m_storedSize(flagBytes)
    {
        for (const TableColumnDef *column : columns)
            m_storedSize += int(column->size);
        m_blockRows = int(qBound<qint64>(1, rows, qMax(1, kBlockBytes / qMax(1, m_storedSize))));
    }
    ~StoredRowWriter() { flush(); }
    void append(const unsigned char *row)
    {
        if (m_buffer.empty())
            m_buffer.resize(size_t(m_blockRows) * size_t(m_storedSize));
        m_layout.pack(row, m_buffer.data() + m_used);
        m_used += size_t(m_storedSize);
        if (m_used == m_buffer.size())
            flush();
    }
    void flush()
    {
        if (m_used > 0)
            m_stream.writeRawData(reinterpret_cast<const char *>(m_buffer.data()), int(m_used));
        m_used = 0;
    }

private:
    QDataStream &m_stream;
    const StoredLayout m_layout;
    int m_storedSize;
    int m_blockRows = 1;
    std::vector<unsigned char> m_buffer;
    size_t m_used = 0;
};

// Whether the conversions copy every column of the table from the file column
// at the same place: the file's layout is the table's, and stored rows can go
// straight into the table's rows.
bool copiesEveryColumnInPlace(const QList<FieldDefConvertor *> &conversions, const Table *table,
                              const Table *scratch)
{
    if (conversions.size() != table->columnCount()
        || scratch->columnCount() != table->columnCount())
        return false;
    for (int i = 0; i < conversions.size(); ++i) {
        const FieldDefConvertor *c = conversions.at(i);
        const bool copy = dynamic_cast<const FieldDefConvertor_Copy4 *>(c)
            || dynamic_cast<const FieldDefConvertor_Copy8 *>(c)
            || dynamic_cast<const FieldDefConvertor_CopySized *>(c);
        if (!copy || c->source()->index != i || c->target()->index != i
            || c->source()->size != c->target()->size)
            return false;
    }
    return true;
}

// Skips `bytes` bytes of the stream; false when it ends first.
bool skipBytes(QDataStream &stream, qint64 bytes)
{
    while (bytes > 0) {
        const int chunk = int(qMin<qint64>(bytes, std::numeric_limits<int>::max()));
        if (stream.skipRawData(chunk) != chunk)
            return false;
        bytes -= chunk;
    }
    return true;
}

// Whether the table's columns have exactly the header's types and sizes.
bool sameLayout(const Table *table, const TableIO::TableHeader &header)
{
    const QList<const TableColumnDef *> &columns = table->fieldDefs();
    if (columns.size() != header.columns.size())
        return false;
    for (int i = 0; i < columns.size(); ++i) {
        if (columns.at(i)->type != header.columns.at(i).type
            || columns.at(i)->size != header.columns.at(i).size)
            return false;
    }
    return true;
}

// Where a table's layout and a stored layout first differ, in words naming the
// column: the message a user needs to see which side to change.
QString layoutDifference(const Table *table, const TableIO::TableHeader &header)
{
    const QList<const TableColumnDef *> &columns = table->fieldDefs();
    for (int i = 0; i < qMin(columns.size(), header.columns.size()); ++i) {
        const TableColumnDef *mine = columns.at(i);
        const TableColumnDef &stored = header.columns.at(i);
        if (mine->type != stored.type || mine->size != stored.size)
            return QStringLiteral("column %1 is '%2' %3 of %4 bytes in the table, '%5' %6 of %7 "
                                  "bytes in the data")
                .arg(i)
                .arg(mine->name, QLatin1String(FieldType::typeName(mine->type)))
                .arg(mine->size)
                .arg(stored.name, QLatin1String(FieldType::typeName(stored.type)))
                .arg(stored.size);
    }
    return QStringLiteral("the table has %1 columns, the data %2")
        .arg(columns.size())
        .arg(header.columns.size());
}

// Tells the user which columns a load passes over: file columns that reach no
// column of the table, and table columns that nothing in the file fills. The
// rows still load; the warning says how to bring the columns along.
void warnUnmatchedColumns(const Table *table, const Table *scratch,
                          const QList<FieldDefConvertor *> &conversions,
                          const TableIO::Convertors &convertors)
{
    // Sets of the columns the conversions read and write: linear in the
    // number of columns, also for the widest files.
    QSet<const TableColumnDef *> sources;
    QSet<const TableColumnDef *> targets;
    for (const FieldDefConvertor *conversion : conversions) {
        sources.insert(conversion->source());
        targets.insert(conversion->target());
    }
    QStringList notLoaded;
    QStringList notFilled;
    for (const TableColumnDef *column : scratch->fieldDefs()) {
        const bool dropped = convertors.contains(TableIO::ConvertKey(QString(), column->name));
        if (!sources.contains(column) && !dropped)
            notLoaded << column->name;
    }
    for (const TableColumnDef *column : table->fieldDefs()) {
        const bool ruled = convertors.contains(TableIO::ConvertKey(column->name, QString()));
        if (!targets.contains(column) && !ruled)
            notFilled << column->name;
    }
    if (!notLoaded.isEmpty())
        qWarning("TableIO: table '%s': the file's columns %s are not in the table and are not "
                 "loaded. Read with addColumns to add them, or map them to columns of the "
                 "table with TableIO::Convertors",
                 qPrintable(table->name()), qPrintable(notLoaded.join(QStringLiteral(", "))));
    if (!notFilled.isEmpty())
        qWarning("TableIO: table '%s': the columns %s are not in the file and keep the value of "
                 "a fresh row. Map them from a file column with TableIO::Convertors if they "
                 "were renamed",
                 qPrintable(table->name()), qPrintable(notFilled.join(QStringLiteral(", "))));
}

// Bytes of a list-shaped index of `count` rows that does not account for
// itself: parts of at most 9999 handles (as appends fill them), each allocated
// for 10002.
qint64 estimatedListBytes(int count)
{
    const qint64 partSize = 10000;
    const qint64 parts = (qint64(count) + partSize - 2) / (partSize - 1);
    const qint64 partOverhead = 2 * qint64(sizeof(int)) + 2 * qint64(sizeof(void *));
    return parts * ((partSize + 2) * qint64(sizeof(Record)) + partOverhead)
        + (parts + 2) * qint64(sizeof(void *));
}

qint64 indexBytes(const Index *index)
{
    if (const auto *list = dynamic_cast<const IndexList *>(index))
        return list->memoryUsage();
    if (const auto *iterative = dynamic_cast<const IndexIterative *>(index))
        return estimatedListBytes(iterative->count());
    return 0;
}

// The rows of the table's master index, in its order.
QList<Record> rowsOfMasterIndex(const Table *table)
{
    QList<Record> rows;
    if (const MasterIndex *master = table->masterIndex()) {
        rows.reserve(master->count());
        for (auto it = master->begin(), end = master->end(); it != end; ++it)
            rows.append(*it);
    }
    return rows;
}

// Names the file in the messages of one save or load.
struct FileContext
{
    FileContext(QString &slot, const QString &path)
        : slot(slot)
    {
        slot = path;
    }
    ~FileContext() { slot.clear(); }
    QString &slot;
};

} // namespace

// Rows a load may allocate before the test hook makes allocation fail; -1: no hook.
std::atomic<qint64> testingAllocationBudget { -1 };
std::atomic<qint64> defaultMaxRows { TableIO::LoadLimits().maxRows };
std::atomic<qint64> defaultMaxBytes { TableIO::LoadLimits().maxBytes };
std::atomic<int (*)(int)> syncFunction { &::fsync };

// Whether a failed sync means the disk refused, not that the file system
// cannot sync at all (then there is nothing more to do).
bool refused()
{
    return errno != EINVAL && errno != ENOTSUP;
}

// Writes the file's data to the disk; false (errno set) when the disk refuses.
bool syncToDisk(QFileDevice &file)
{
    if (!file.flush())
        return false;
    return syncFunction.load()(file.handle()) == 0 || !refused();
}

// Makes a rename in `dir` durable; false (errno set) when the disk refuses.
bool syncDirectory(const QString &dir)
{
    const int fd = ::open(QFile::encodeName(dir).constData(), O_RDONLY | O_DIRECTORY);
    if (fd < 0)
        return false;
    const bool synced = syncFunction.load()(fd) == 0 || !refused();
    const int saved = errno;
    ::close(fd);
    errno = saved;
    return synced;
}

// Names the decompressor of one load in its messages, on every path.
struct DecompressorContext
{
    DecompressorContext(const QIODevice *&slot, const QIODevice *device)
        : slot(slot)
    {
        slot = device;
    }
    ~DecompressorContext() { slot = nullptr; }
    const QIODevice *&slot;
};

// --- FilterProgress ---------------------------------------------------------------------

FilterProgress::~FilterProgress() = default;

bool FilterProgressTrue::operator()(int, int)
{
    return true;
}

bool FilterProgressTrue::filter(const Record &) const
{
    return true;
}

bool FilterProgressTrue::isDefault(const FilterProgress &progress)
{
    return typeid(progress) == typeid(FilterProgressTrue);
}

// --- ConvertKey -----------------------------------------------------------------------------

bool TableIO::ConvertKey::operator<(const ConvertKey &other) const
{
    if (first != other.first)
        return first < other.first;
    return second < other.second;
}

bool TableIO::ConvertKey::operator==(const ConvertKey &other) const
{
    return first == other.first && second == other.second;
}

// --- TableIO ----------------------------------------------------------------------------------

class TableIOPrivate
{
public:
    Table *table = nullptr;
    TableIO::LoadLimits limits = TableIO::defaultLoadLimits();
    QString error;
    // The file being saved or loaded, named in every message about it.
    QString file;

    // The decompressor of the file being loaded: its own error, when it has
    // one, is the cause of any failure and is named with it.
    const QIODevice *decompressor = nullptr;

    bool fail(QString message)
    {
        if (decompressor && hasDeviceError(*decompressor)
            && !message.contains(decompressor->errorString()))
            message += QStringLiteral(" (%1)").arg(decompressor->errorString());
        error = file.isEmpty() ? message : QStringLiteral("%1: %2").arg(file, message);
        qWarning("TableIO: %s", qPrintable(error));
        return false;
    }
    QString tableName() const { return table ? table->name() : QStringLiteral("(none)"); }
};

TableIO::TableIO(Table *table)
    : d(new TableIOPrivate)
{
    d->table = table;
}

TableIO::~TableIO() = default;

Table *TableIO::table() const
{
    return d->table;
}

QString TableIO::errorString() const
{
    return d->error;
}

TableIO::LoadLimits TableIO::loadLimits() const
{
    return d->limits;
}

void TableIO::setLoadLimits(const LoadLimits &limits)
{
    d->limits = limits;
}

TableIO::LoadLimits TableIO::defaultLoadLimits()
{
    LoadLimits limits;
    limits.maxRows = defaultMaxRows.load();
    limits.maxBytes = defaultMaxBytes.load();
    return limits;
}

void TableIO::setDefaultLoadLimits(const LoadLimits &limits)
{
    defaultMaxRows.store(limits.maxRows);
    defaultMaxBytes.store(limits.maxBytes);
}

void TableIO::testingFailAllocationAfter(qint64 rows)
{
    testingAllocationBudget.store(rows);
}

void TableIO::testingSetSyncFunction(int (*sync)(int fd))
{
    syncFunction.store(sync ? sync : &::fsync);
}

QString TableIO::fileName(const QDir &dir) const
{
    return dir.filePath(d->table ? d->table->name() : QString());
}

QString TableIO::compressedFileName(const QDir &dir) const
{
    return fileName(dir) + QStringLiteral(".gz");
}

// --- header ------------------------------------------------------------------------------------

void TableIO::setupHeader(TableHeader &header, const Table *table)
{
    const QList<const TableColumnDef *> &defs = table->fieldDefs();
    const MasterIndex *master = table->masterIndex();
    header.magic = Magic;
    header.columnCount = qint16(defs.size());
    header.rowCount = master ? master->count() : 0;
    header.rowLength = table->rowLengthUnaligned();
    header.flagBytes = flagBytesFor(table->columnCount());
    header.columns.clear();
    for (const TableColumnDef *def : defs)
        header.columns.append(TableColumnDef(nullptr, *def));
    header.keyColumns = master ? master->columnNames() : QStringList();
}

void TableIO::writeHeader(const TableHeader &header, QDataStream &stream)
{
    stream << header.magic << header.columnCount << header.rowCount << header.rowLength
           << header.flagBytes;
    for (const TableColumnDef &column : header.columns)
        column.write(stream);
    stream << qint32(header.keyColumns.size());
    for (const QString &name : header.keyColumns)
        stream << name;
}

bool TableIO::readHeader(TableHeader &header, QDataStream &stream)
{
    d->error.clear();
    header = TableHeader();
    stream >> header.magic >> header.columnCount >> header.rowCount >> header.rowLength
        >> header.flagBytes;
    if (!streamOk(stream))
        return d->fail(QStringLiteral("Table %1: the header is truncated.").arg(d->tableName()));
    if (header.columnCount < 0)
        return d->fail(QStringLiteral("Table %1: negative column count %2 in the header.")
                           .arg(d->tableName())
                           .arg(header.columnCount));
    for (int i = 0; i < header.columnCount; ++i) {
        TableColumnDef column;
        column.read(stream);
        if (!streamOk(stream))
            return d->fail(QStringLiteral("Table %1: the header ends inside column record %2.")
                               .arg(d->tableName())
                               .arg(i));
        header.columns.append(column);
    }
    qint32 keyCount = 0;
    stream >> keyCount;
    if (!streamOk(stream) || keyCount < 0)
        return d->fail(
            QStringLiteral("Table %1: bad key-column count in the header.").arg(d->tableName()));
    for (qint32 i = 0; i < keyCount; ++i) {
        QString name;
        stream >> name;
        if (!streamOk(stream))
            return d->fail(QStringLiteral("Table %1: the header ends inside the key columns.")
                               .arg(d->tableName()));
        header.keyColumns.append(name);
    }
    return true;
}

bool TableIO::checkHeader(const TableHeader &header)
{
    d->error.clear();
    const QString table = d->tableName();
    if (header.magic != Magic)
        return d->fail(QStringLiteral("Table %1: not a table file (magic 0x%2).")
                           .arg(table)
                           .arg(quint32(header.magic), 8, 16, QLatin1Char('0')));
    if (header.columnCount != header.columns.size() || header.rowCount < 0 || header.rowLength < 0)
        return d->fail(QStringLiteral("Table %1: inconsistent counts in the header.").arg(table));
    qint64 rowLength = 0;
    for (const TableColumnDef &column : header.columns) {
        if (column.type <= FieldType::Invalid || column.type > FieldType::BoardList)
            return d->fail(QStringLiteral("Table %1: column '%2' has the unknown type %3.")
                               .arg(table, column.name)
                               .arg(int(column.type)));
        if (column.type == FieldType::VarChar
            && (column.length < 1 || column.length > kMaxStringLength))
            return d->fail(QStringLiteral("Table %1: column '%2' has the bad string length %3.")
                               .arg(table, column.name)
                               .arg(column.length));
        const int size = FieldType::typeLength(column.type, column.length);
        if (column.size != size)
            return d->fail(
                QStringLiteral("Table %1: column '%2' of type %3 declares %4 bytes instead of %5.")
                    .arg(table, column.name,
                         FieldType::typeNameWithLength(column.type, column.length))
                    .arg(column.size)
                    .arg(size));
        rowLength += size;
    }
    if (rowLength > kMaxRowLength)
        return d->fail(
            QStringLiteral("Table %1: rows of %2 bytes are too long.").arg(table).arg(rowLength));
    if (rowLength != header.rowLength || header.flagBytes != flagBytesFor(header.columnCount))
        return d->fail(
            QStringLiteral("Table %1: the row length or flag bytes disagree with the columns.")
                .arg(table));
    return true;
}

// --- saving
// ---------------------------------------------------------------------------------------

bool TableIO::writeRows(FilterProgress &progress, const TableHeader &header, QDataStream &stream)
{
    d->error.clear();
    const MasterIndex *master = d->table->masterIndex();
    if (!master)
        return true;
    const bool report = !FilterProgressTrue::isDefault(progress);
    StoredRowWriter writer(stream, d->table->fieldDefs(), d->table->rowLength(), header.flagBytes,
                           header.rowCount);
    int i = 0;
    for (auto it = master->begin(), end = master->end(); it != end; ++it, ++i) {
        writer.append((*it).row());
        if (report)
            progress(i, header.rowCount);
    }
    writer.flush();
    if (!streamOk(stream))
        return d->fail(QStringLiteral("Table %1: writing the rows failed.").arg(d->tableName()));
    return true;
}

bool TableIO::write(FilterProgress &progress, QDataStream &stream, bool withRows)
{
    d->error.clear();
    if (!d->table)
        return d->fail(QStringLiteral("no table to write"));
    const TableLocker lock(d->table);
    TableHeader header;
    setupHeader(header, d->table);
    writeHeader(header, stream);
    if (withRows && !writeRows(progress, header, stream))
        return false;
    if (!streamOk(stream))
        return d->fail(QStringLiteral("Table %1: writing failed.").arg(d->tableName()));
    return true;
}

bool TableIO::write(QDataStream &stream, bool withRows)
{
    FilterProgressTrue progress;
    return write(progress, stream, withRows);
}

bool TableIO::write(FilterProgress &progress, const QDir &dir, bool withRows)
{
    return write(progress, dir, withRows, Compression::HostDefault);
}

bool TableIO::write(const QDir &dir, Compression compression)
{
    FilterProgressTrue progress;
    return write(progress, dir, true, compression);
}

bool TableIO::write(FilterProgress &progress, const QDir &dir, bool withRows,
                    Compression compression)
{
    d->error.clear();
    if (!d->table)
        return d->fail(QStringLiteral("no table to write"));
    const bool compress = compression == Compression::HostDefault
        ? ICore::instance()->compressTableFiles()
        : compression == Compression::Gzip;
    const QString path = compress ? compressedFileName(dir) : fileName(dir);
    const QString other = compress ? fileName(dir) : compressedFileName(dir);
    FileContext context(d->file, path);

    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return d->fail(QStringLiteral("can't open for writing: %1").arg(file.errorString()));
    bool written;
    QString deviceError;
    if (compress) {
        DeflateDevice compressor(&file, CompressionLevel, CompressionBufferSize);
        compressor.setStreamFormat(DeflateDevice::GzipFormat);
        if (!compressor.open(QIODevice::WriteOnly))
            return d->fail(QStringLiteral("can't compress: %1").arg(compressor.errorString()));
        QDataStream stream(&compressor);
        written = write(progress, stream, withRows);
        compressor.close();
        if (hasDeviceError(compressor))
            deviceError = compressor.errorString();
    } else {
        QDataStream stream(&file);
        written = write(progress, stream, withRows);
    }
    if (!written)
        return false;
    if (!deviceError.isEmpty() || file.error() != QFileDevice::NoError) {
        const QString reason = deviceError.isEmpty() ? file.errorString() : deviceError;
        file.cancelWriting();
        return d->fail(QStringLiteral("can't write: %1").arg(reason));
    }
    // The data must be on the disk before the new file replaces the old one
    // (QSaveFile syncs too, but ignores a failure).
    if (!syncToDisk(file)) {
        const QString reason = QString::fromLocal8Bit(std::strerror(errno));
        file.cancelWriting();
        return d->fail(QStringLiteral("can't write to the disk: %1").arg(reason));
    }
    if (!file.commit())
        return d->fail(QStringLiteral("can't commit: %1").arg(file.errorString()));
    if (!syncDirectory(QFileInfo(path).absolutePath()))
        return d->fail(QStringLiteral("saved, but the directory can't be written to the disk: %1")
                           .arg(QString::fromLocal8Bit(std::strerror(errno))));
    if (QFile::exists(other) && !QFile::remove(other))
        return d->fail(QStringLiteral("saved, but the stale %1 can't be removed").arg(other));
    return true;
}

bool TableIO::write(const QDir &dir)
{
    FilterProgressTrue progress;
    return write(progress, dir, true);
}

// --- loading
// ------------------------------------------------------------------------------------------

bool TableIO::read(FilterProgress &progress, QDataStream &stream, bool addColumns,
                   const Convertors &convertors)
{
    return load(progress, stream, addColumns, convertors, nullptr);
}

QList<TableColumnDef> TableIO::columnsToAdd(const TableHeader &header,
                                            const Convertors &convertors) const
{
    QList<TableColumnDef> added;
    for (const TableColumnDef &column : header.columns) {
        if (column.name.isEmpty() || d->table->columnIndex(column.name) >= 0)
            continue;
        bool dropped = false;
        for (auto it = convertors.cbegin(); it != convertors.cend(); ++it) {
            if (it.key().first.compare(column.name, Qt::CaseInsensitive) == 0) {
                dropped = false;
                break;
            }
            if (it.key().first.isEmpty()
                && it.key().second.compare(column.name, Qt::CaseInsensitive) == 0)
                dropped = true;
        }
        if (!dropped)
            added.append(TableColumnDef(nullptr, column));
    }
    return added;
}

bool TableIO::load(FilterProgress &progress, QDataStream &stream, bool addColumns,
                   const Convertors &convertors, const std::function<bool()> &dataEnded)
{
    d->error.clear();
    if (!d->table)
        return d->fail(QStringLiteral("no table to read"));
    if (!stream.device() || stream.atEnd())
        return d->fail(QStringLiteral("Table %1: the stream is empty.").arg(d->tableName()));
    Table *table = d->table;

    // --- staging: the table is not touched until the whole file is read ---
    TableHeader header;
    if (!readHeader(header, stream) || !checkHeader(header))
        return false;

    Table scratch(QStringLiteral("saved"), QString());
    const QList<TableColumnDef> added
        = addColumns ? columnsToAdd(header, convertors) : QList<TableColumnDef>();
    // Rows are staged in blocks of the table's layout after the load: its own,
    // or, when columns are to be added, that of a preview table holding the
    // table's columns and the added ones in the same order.
    std::unique_ptr<Table> preview;
    const Table *layout = table;
    try {
        scratch.addColumns(header.columns);
        if (!added.isEmpty()) {
            preview.reset(new Table(table->name(), QString()));
            QList<TableColumnDef> all;
            for (const TableColumnDef *def : table->fieldDefs())
                all.append(TableColumnDef(nullptr, *def));
            preview->addColumns(all + added);
            layout = preview.get();
        }
    } catch (const QString &message) {
        return d->fail(QStringLiteral("Table %1: %2").arg(d->tableName(), message));
    }

    // A table without a main index has nowhere to keep rows: it gets the
    // primary key the file names, or the load fails.
    const bool needsKey = !table->hasMainIndex();
    if (needsKey) {
        if (header.keyColumns.isEmpty())
            return d->fail(QStringLiteral("Table %1 has no primary-key index and the file names "
                                          "no key columns: its rows would have nowhere to go.")
                               .arg(d->tableName()));
        for (const QString &name : qAsConst(header.keyColumns)) {
            if (layout->columnIndex(name) < 0)
                return d->fail(QStringLiteral("Table %1 has no primary-key index and lacks the "
                                              "file's key column '%2'.")
                                   .arg(d->tableName(), name));
        }
    }

    // Rows without bytes carry nothing that could back their count.
    const int rowCount = scratch.columnCount() == 0 ? 0 : header.rowCount;
    const qint64 bytesPerRow = qint64(layout->rowSize()) + 2 * qint64(sizeof(Record));
    if (rowCount > d->limits.maxRows)
        return d->fail(
            QStringLiteral("Table %1: the file holds %2 rows, more than the limit of %3.")
                .arg(d->tableName())
                .arg(rowCount)
                .arg(d->limits.maxRows));
    if (rowCount * bytesPerRow > d->limits.maxBytes)
        return d->fail(
            QStringLiteral("Table %1: the file's %2 rows need %3 bytes, more than the limit of %4.")
                .arg(d->tableName())
                .arg(rowCount)
                .arg(rowCount * bytesPerRow)
                .arg(d->limits.maxBytes));

    QList<FieldDefConvertor *> conversions;
    ConvertorsGuard conversionsGuard { conversions };
    try {
        makeConvertors(conversions, layout, &scratch, convertors);
    } catch (const Exception &e) {
        d->fail(QStringLiteral("Table %1: %2").arg(d->tableName(), e.message));
        throw;
    }
    warnUnmatchedColumns(layout, &scratch, conversions, convertors);

    const bool report = !FilterProgressTrue::isDefault(progress);
    // Same layout: stored rows go straight into the new rows.
    const bool inPlace = copiesEveryColumnInPlace(conversions, layout, &scratch);
    const StoredLayout fileLayout(scratch.fieldDefs(), scratch.rowLength(), header.flagBytes);
    const StoredLayout tableLayout(layout->fieldDefs(), layout->rowLength(), header.flagBytes);
    const qint64 allocationBudget = testingAllocationBudget.load();
    // The rows are staged in the batches the table takes them in: each
    // handle is made once and handed on without further copies.
    QList<QList<Record>> staged;
    // The rows come from slabs: a load makes them all at once, and a table
    // replaced by the next load frees them all at once.
    RowSlabAllocator slabs(layout);
    qint64 stagedRows = 0;
    int loaded = 0;
    try {
        RowGuard source { &scratch, scratch.allocRow() };
        if (!source.row)
            throw std::bad_alloc();
        StoredRowReader reader(stream, header.rowLength + header.flagBytes, rowCount);
        for (; loaded < rowCount; ++loaded) {
            if (report)
                progress(loaded, rowCount);
            const unsigned char *stored = reader.next();
            if (!stored)
                break;
            if (allocationBudget >= 0 && stagedRows >= allocationBudget)
                throw std::bad_alloc();
            unsigned char *row = slabs.allocRow();
            if (!row)
                throw std::bad_alloc();
            if (inPlace) {
                tableLayout.unpack(stored, row);
            } else {
                fileLayout.unpack(stored, source.row);
                convertDefs(conversions, row, source.row);
            }
            Record record(row);
            if (report && !progress.filter(record))
                continue;
            if (staged.isEmpty() || staged.last().size() >= BatchSize) {
                staged.append(QList<Record>());
                staged.last().reserve(int(qMin<qint64>(BatchSize, rowCount - loaded)));
            }
            // A null handle in place, then the record moved in: one count.
            QList<Record> &batch = staged.last();
            batch.append(Record());
            batch.last() = std::move(record);
            ++stagedRows;
        }
    } catch (const std::bad_alloc &) {
        return d->fail(QStringLiteral("Table %1: out of memory after %2 of %3 rows; the table "
                                      "is left as it was.")
                           .arg(d->tableName())
                           .arg(loaded)
                           .arg(rowCount));
    }
    if (loaded < rowCount)
        return d->fail(QStringLiteral("Table %1: the data ends after %2 of %3 rows.")
                           .arg(d->tableName())
                           .arg(loaded)
                           .arg(rowCount));
    if (dataEnded && !dataEnded())
        return false;

    int failures = 0;
    for (const FieldDefConvertor *conversion : qAsConst(conversions))
        failures += conversion->failures();
    if (failures > 0)
        qWarning("TableIO: table %s: %d values could not be converted and were loaded as null",
                 qPrintable(d->tableName()), failures);

    // --- commit: the rows replace the table's ---
    TableIndexRebuilder rebuilder(table);
    const TableUpdateBracket bracket(table);
    if (!added.isEmpty()) {
        table->addColumns(added);
        // The staged blocks have the table's new layout: they become its rows.
        for (const QList<Record> &batch : qAsConst(staged)) {
            for (const Record &record : batch)
                RowLayout::setOwner(record.row(), table);
        }
    }
    if (needsKey)
        table->setMasterIndex(new MasterIndex_Column_Pure(table, header.keyColumns));
    QList<Record> previous;
    try {
        previous = rowsOfMasterIndex(table);
        table->clear();
        for (QList<Record> &batch : staged) {
            table->appendList(batch);
            batch = QList<Record>();
        }
    } catch (const std::bad_alloc &) {
        staged.clear();
        table->clear();
        table->appendList(previous);
        return d->fail(QStringLiteral("Table %1: out of memory while taking the loaded rows; the "
                                      "table keeps its previous rows.")
                           .arg(d->tableName()));
    }
    return true;
}

bool TableIO::read(QDataStream &stream, bool addColumns, const Convertors &convertors)
{
    FilterProgressTrue progress;
    return read(progress, stream, addColumns, convertors);
}

bool TableIO::read(QDataStream &stream, bool addColumns)
{
    return read(stream, addColumns, Convertors());
}

bool TableIO::read(FilterProgress &progress, const QDir &dir, bool addColumns)
{
    d->error.clear();
    if (!d->table)
        return d->fail(QStringLiteral("no table to read"));
    const QString plainPath = fileName(dir);
    QFile plain(plainPath);
    if (plain.open(QIODevice::ReadOnly)) {
        FileContext context(d->file, plainPath);
        QDataStream stream(&plain);
        // The rows must end exactly where the file does: a header whose counts
        // were lowered would otherwise load rows read at the wrong offsets.
        const auto dataEnded = [&]() {
            return plain.atEnd()
                || d->fail(QStringLiteral("Table %1: %2 bytes follow the last row; the header "
                                          "does not describe the data.")
                               .arg(d->tableName())
                               .arg(plain.size() - plain.pos()));
        };
        return load(progress, stream, addColumns, Convertors(), dataEnded);
    }
    const QString gzipPath = compressedFileName(dir);
    QFile gzip(gzipPath);
    if (!gzip.open(QIODevice::ReadOnly))
        return d->fail(QStringLiteral("No table file %1 (nor %2): %3")
                           .arg(plainPath, gzipPath, plain.errorString()));
    FileContext context(d->file, gzipPath);
    DeflateDevice decompressor(&gzip, CompressionLevel, CompressionBufferSize);
    decompressor.setStreamFormat(DeflateDevice::GzipFormat);
    if (!decompressor.open(QIODevice::ReadOnly))
        return d->fail(decompressor.errorString());
    QDataStream stream(&decompressor);
    // The gzip trailer (CRC and length) is checked only when the end of the
    // compressed stream is read: ask for one more byte, which must not exist.
    const auto dataEnded = [&]() {
        char probe;
        const qint64 extra = decompressor.read(&probe, 1);
        if (extra < 0)
            return d->fail(decompressor.errorString());
        if (extra > 0)
            return d->fail(QStringLiteral("Table %1: data follows the last row; the header does "
                                          "not describe the data.")
                               .arg(d->tableName()));
        if (decompressor.hasTrailingData())
            return d->fail(QStringLiteral("Table %1: the file goes on after the compressed data.")
                               .arg(d->tableName()));
        return true;
    };
    const DecompressorContext named(d->decompressor, &decompressor);
    return load(progress, stream, addColumns, Convertors(), dataEnded);
}

bool TableIO::read(const QDir &dir, bool addColumns)
{
    FilterProgressTrue progress;
    return read(progress, dir, addColumns);
}

// --- row lists
// ------------------------------------------------------------------------------------------

bool TableIO::writeRowList(FilterProgress &progress, QDataStream &stream,
                           const PartitionList<Record> &records)
{
    d->error.clear();
    if (records.count() == 0) {
        stream << QString(QLatin1String(""));
        return streamOk(stream) || d->fail(QStringLiteral("writing an empty row list failed"));
    }
    const Table *table = (*records.begin()).table();
    if (!table)
        return d->fail(QStringLiteral("a row list holds a null record"));
    for (auto it = records.begin(), end = records.end(); it != end; ++it) {
        if ((*it).table() != table)
            return d->fail(QStringLiteral("a row list of table %1 holds a record of another table")
                               .arg(table->name()));
    }
    stream << table->name();
    if (table->name().isEmpty())
        return streamOk(stream) || d->fail(QStringLiteral("writing a row list failed"));

    const TableLocker lock(table);
    TableHeader header;
    setupHeader(header, table);
    header.rowCount = records.count();
    writeHeader(header, stream);
    const bool report = !FilterProgressTrue::isDefault(progress);
    StoredRowWriter writer(stream, table->fieldDefs(), table->rowLength(), header.flagBytes,
                           header.rowCount);
    int i = 0;
    for (auto it = records.begin(), end = records.end(); it != end; ++it, ++i) {
        writer.append((*it).row());
        if (report)
            progress(i, header.rowCount);
    }
    writer.flush();
    if (!streamOk(stream))
        return d->fail(
            QStringLiteral("writing the row list of table %1 failed").arg(table->name()));
    return true;
}

bool TableIO::readRowList(FilterProgress &progress, QDataStream &stream,
                          PartitionList<Record> &records)
{
    d->error.clear();
    if (!stream.device() || stream.atEnd())
        return d->fail(QStringLiteral("no row list: the stream is at its end"));
    QString name;
    stream >> name;
    if (!streamOk(stream))
        return d->fail(QStringLiteral("a row list's table name is truncated"));
    if (name.isEmpty())
        return true;

    TableHeader header;
    if (!readHeader(header, stream) || !checkHeader(header))
        return d->fail(QStringLiteral("row list of table %1: %2").arg(name, d->error));
    const qint64 bytes = (qint64(header.rowLength) + header.flagBytes) * header.rowCount;

    const Table *table = ICore::instance()->findTable(name);
    if (!table) {
        if (!skipBytes(stream, bytes))
            return d->fail(
                QStringLiteral("row list of the unknown table %1 is truncated").arg(name));
        return true;
    }
    if (!sameLayout(table, header)) {
        skipBytes(stream, bytes);
        return d->fail(
            QStringLiteral("row list of table %1 does not have the table's layout: %2. A row "
                           "list carries rows as they lie in memory; write it again from "
                           "the table as it is now")
                .arg(name, layoutDifference(table, header)));
    }
    const int rowCount = table->columnCount() == 0 ? 0 : header.rowCount;
    const bool report = !FilterProgressTrue::isDefault(progress);
    const StoredLayout layout(table->fieldDefs(), table->rowLength(), header.flagBytes);
    StoredRowReader reader(stream, header.rowLength + header.flagBytes, rowCount);
    for (int i = 0; i < rowCount; ++i) {
        if (report)
            progress(i, rowCount);
        const unsigned char *stored = reader.next();
        if (!stored)
            return d->fail(QStringLiteral("row list of table %1 ends after %2 of %3 rows")
                               .arg(name)
                               .arg(i)
                               .arg(rowCount));
        unsigned char *row = table->allocRow();
        if (!row)
            throw std::bad_alloc();
        Record record(row);
        layout.unpack(stored, row);
        if (report && !progress.filter(record))
            continue;
        records.append(record);
    }
    return true;
}

// --- conversions
// -----------------------------------------------------------------------------------------

void TableIO::make_fromDefs(QList<FieldDefConvertor *> &list, const Table *scratch,
                            const Convertors &convertors)
{
    makeConvertors(list, d->table, scratch, convertors);
}

void TableIO::makeConvertors(QList<FieldDefConvertor *> &list, const Table *targetTable,
                             const Table *scratch, const Convertors &convertors)
{
    QList<FieldDefConvertor *> made;
    try {
        for (const TableColumnDef *target : targetTable->fieldDefs()) {
            const TableColumnDef *source = nullptr;
            const FieldDefConvertor *prototype = nullptr;
            bool ruled = false;
            for (auto it = convertors.cbegin(); it != convertors.cend(); ++it) {
                if (it.key().first.compare(target->name, Qt::CaseInsensitive) != 0)
                    continue;
                ruled = true;
                prototype = it.value();
                if (!it.key().second.isEmpty()) {
                    source = scratch->columnDef(it.key().second);
                    if (!source)
                        throw Exception(QStringLiteral("Column not found in translation."));
                }
                break;
            }
            if (!ruled) {
                source = scratch->columnDef(target->name);
                for (auto it = convertors.cbegin(); source && it != convertors.cend(); ++it) {
                    if (it.key().first.isEmpty()
                        && it.key().second.compare(source->name, Qt::CaseInsensitive) == 0)
                        source = nullptr;
                }
            }
            if (!source)
                continue;
            FieldDefConvertor *convertor = nullptr;
            if (prototype) {
                convertor = prototype->clone();
                convertor->bind(source, target);
            } else {
                convertor = FieldDefConvertor::create(source, target);
            }
            made.append(convertor);
        }
    } catch (...) {
        qDeleteAll(made);
        list.clear();
        throw;
    }
    list = made;
}

void TableIO::convertDefs(const QList<FieldDefConvertor *> &list, unsigned char *dst,
                          unsigned char *src)
{
    for (FieldDefConvertor *convertor : list) {
        const TableColumnDef *s = convertor->source();
        const TableColumnDef *t = convertor->target();
        const Field source(s, RowLayout::cell(src, s), &RowLayout::flagByte(src, s), s->flagMask);
        Field target(t, RowLayout::cell(dst, t), &RowLayout::flagByte(dst, t), t->flagMask);
        convertor->convert(target, source);
    }
}

// --- memory
// ---------------------------------------------------------------------------------------------------

qint64 TableIO::memoryUsage(const Table *table)
{
    if (!table)
        return 0;
    // What the heap takes for one block of `size` bytes: the size plus the
    // size word in front, rounded up to the 16-byte granule, at least 32 bytes
    // (the 64-bit glibc allocator's chunk).
    const auto heapBytes = [](qint64 size) {
        const qint64 word = qint64(sizeof(size_t));
        const qint64 granule = 2 * word;
        return qMax(4 * word, (size + word + granule - 1) / granule * granule);
    };
    const MasterIndex *master = table->masterIndex();
    qint64 bytes = master ? heapBytes(table->rowSize()) * master->count() + indexBytes(master) : 0;
    for (const Index *index : table->indexes())
        bytes += indexBytes(index);
    return bytes;
}
