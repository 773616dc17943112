#include "tablefile.h"

#include <database/deflatedevice.h>
#include <database/exception.h>
#include <database/fieldtype.h>
#include <database/masterindex.h>

#include <QBuffer>
#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>
#include <QtEndian>

#include <cstdio>
#include <unistd.h>

namespace dbtool {

namespace {

// Thrown by the row hook to end a load that the caller no longer needs.
struct StopLoading
{
};

// The library's row hook: counts and hands on rows, drives the progress bar.
class RowHook : public FilterProgress
{
public:
    RowHook(ProgressBar &bar, const TableFile::RowCallback &onRow)
        : m_bar(bar)
        , m_onRow(onRow)
    {
    }
    bool operator()(int current, int total) override
    {
        if ((current & 1023) == 0)
            m_bar.update(current, total);
        return true;
    }
    bool filter(const Record &record) const override
    {
        ++rows;
        if (!m_onRow)
            return true;
        const TableFile::RowAction action = m_onRow(record);
        if (action == TableFile::Stop)
            throw StopLoading();
        return action == TableFile::Keep;
    }
    mutable qint64 rows = 0;

private:
    ProgressBar &m_bar;
    const TableFile::RowCallback &m_onRow;
};

// The library prefixes its messages with "Table NAME: "; the tool names the
// file instead.
QString withoutTablePrefix(const QString &message, const QString &table)
{
    const QString prefix = QStringLiteral("Table %1: ").arg(table);
    return message.startsWith(prefix) ? message.mid(prefix.size()) : message;
}

// QIODevice's error text is "Unknown error" until a device sets one.
QString deviceError(const QIODevice *device)
{
    const QString error = device ? device->errorString() : QString();
    return error == QLatin1String("Unknown error") ? QString() : error;
}

bool isGzipFile(QIODevice &file)
{
    char magic[2];
    return file.peek(magic, 2) == 2 && quint8(magic[0]) == 0x1f && quint8(magic[1]) == 0x8b;
}

FieldType::Type typeFromName(const QString &name)
{
    for (int type = FieldType::Integer; type <= FieldType::BoardList; ++type) {
        if (name.compare(QLatin1String(FieldType::typeName(type)), Qt::CaseInsensitive) == 0)
            return FieldType::Type(type);
    }
    return FieldType::Invalid;
}

} // namespace

// --- ProgressBar ----------------------------------------------------------------------------

ProgressBar::ProgressBar(const QString &label, bool quiet)
    : m_label(label)
    , m_enabled(!quiet && isatty(STDERR_FILENO))
{
    m_clock.start();
}

ProgressBar::~ProgressBar()
{
    finish();
}

void ProgressBar::update(qint64 done, qint64 total)
{
    if (!m_enabled || total <= 0 || m_clock.elapsed() < 1000)
        return;
    const int permille = int(qBound<qint64>(0, done * 1000 / total, 1000));
    if (permille == m_lastPermille)
        return;
    m_lastPermille = permille;
    const int width = 30;
    const int filled = permille * width / 1000;
    std::fprintf(stderr, "\r%s [%s%s] %3d%%", qPrintable(m_label),
                 QByteArray(filled, '#').constData(), QByteArray(width - filled, ' ').constData(),
                 permille / 10);
    std::fflush(stderr);
    m_drawn = true;
}

void ProgressBar::finish()
{
    if (!m_drawn)
        return;
    std::fprintf(stderr, "\r\033[K");
    std::fflush(stderr);
    m_drawn = false;
}

// --- TableFile ------------------------------------------------------------------------------

bool TableFile::locate(const QString &path, QString &error)
{
    const QFileInfo info(path);
    if (!info.exists()) {
        error = QStringLiteral("%1: no such file").arg(info.filePath());
        return false;
    }
    if (info.isDir()) {
        error = QStringLiteral("%1: is a directory, not a table file ('dbtool info %1' lists "
                               "its tables)")
                    .arg(info.filePath());
        return false;
    }
    m_path = info.filePath();
    m_tableName = info.fileName();
    if (m_tableName.endsWith(QLatin1String(".gz")))
        m_tableName.chop(3);
    m_fileSize = info.size();
    return true;
}

bool TableFile::openStream(QIODevice *&device, QString &error)
{
    m_decompressor.reset();
    auto file = std::make_unique<QFile>(m_path);
    if (!file->open(QIODevice::ReadOnly)) {
        error = QStringLiteral("%1: can't open: %2").arg(m_path, file->errorString());
        return false;
    }
    m_gzip = isGzipFile(*file);
    m_file = std::move(file);
    device = m_file.get();
    if (m_gzip) {
        auto inflater = std::make_unique<DeflateDevice>(
            m_file.get(), int(TableIO::CompressionLevel), int(TableIO::CompressionBufferSize));
        inflater->setStreamFormat(DeflateDevice::GzipFormat);
        if (!inflater->open(QIODevice::ReadOnly)) {
            error = QStringLiteral("%1: %2").arg(m_path, inflater->errorString());
            return false;
        }
        m_decompressor = std::move(inflater);
        device = m_decompressor.get();
    }
    return true;
}

bool TableFile::readHeader(QString &error)
{
    QIODevice *device = nullptr;
    if (!openStream(device, error))
        return false;
    // Any file may be named (info lists a whole directory): one that does not
    // start with the magic number is refused before its header is believed.
    char magic[4];
    if (device->peek(magic, 4) == 4
        && qFromBigEndian<qint32>(reinterpret_cast<const uchar *>(magic)) != TableIO::Magic) {
        error = QStringLiteral("%1: not a table file (magic 0x%2)")
                    .arg(m_path)
                    .arg(qFromBigEndian<quint32>(reinterpret_cast<const uchar *>(magic)), 8, 16,
                         QLatin1Char('0'));
        return false;
    }
    Table probe(m_tableName);
    TableIO io(&probe);
    QDataStream stream(device);
    m_header = TableIO::TableHeader();
    if (!io.readHeader(m_header, stream) || !io.checkHeader(m_header)) {
        QString why = withoutTablePrefix(io.errorString(), m_tableName);
        if (!deviceError(m_decompressor.get()).isEmpty())
            why += QStringLiteral(" (%1)").arg(deviceError(m_decompressor.get()));
        error = QStringLiteral("%1: %2").arg(m_path, why);
        return false;
    }
    return true;
}

qint64 TableFile::headerSize() const
{
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    QDataStream stream(&buffer);
    TableIO::writeHeader(m_header, stream);
    return buffer.size();
}

bool setKeyColumns(Table &table, const QStringList &keyColumns, QString &error)
{
    try {
        if (keyColumns.isEmpty())
            table.setMasterIndex(new MasterIndexOrdered(&table));
        else
            table.setMasterIndex(new MasterIndex_Column_Pure(&table, keyColumns));
    } catch (const Exception &e) {
        error = e.message;
        return false;
    } catch (const QString &message) {
        error = message;
        return false;
    }
    return true;
}

std::unique_ptr<Table> TableFile::makeTable(QString &error) const
{
    auto table = std::make_unique<Table>(m_tableName);
    try {
        table->addColumns(m_header.columns);
    } catch (const QString &message) {
        error = QStringLiteral("%1: %2").arg(m_path, message);
        return nullptr;
    }
    return table;
}

bool TableFile::read(const RowCallback &onRow, bool quiet, QString &error)
{
    m_rowsRead = 0;
    if (!readHeader(error))
        return false;
    m_table = makeTable(error);
    if (!m_table)
        return false;
    if (!setKeyColumns(*m_table, m_header.keyColumns, error)) {
        error = QStringLiteral("%1: key columns: %2").arg(m_path, error);
        return false;
    }
    QIODevice *device = nullptr;
    if (!openStream(device, error))
        return false;
    ProgressBar bar(QStringLiteral("reading %1").arg(QFileInfo(m_path).fileName()), quiet);
    RowHook hook(bar, onRow);
    TableIO io(m_table.get());
    QDataStream stream(device);
    bool loaded = false;
    try {
        loaded = io.read(hook, stream, false, TableIO::Convertors());
    } catch (const StopLoading &) {
        m_rowsRead = hook.rows;
        return true;
    } catch (const Exception &e) {
        error = QStringLiteral("%1: %2").arg(m_path, e.message);
        return false;
    } catch (const std::bad_alloc &) {
        error = QStringLiteral("%1: out of memory after %2 rows").arg(m_path).arg(hook.rows);
        return false;
    }
    bar.finish();
    m_rowsRead = hook.rows;
    const qint64 offset = headerSize() + m_rowsRead * storedRowSize();
    const QString where
        = QStringLiteral("%1: row %2 at offset %3%4: ")
              .arg(m_path)
              .arg(m_rowsRead + 1)
              .arg(offset)
              .arg(m_gzip ? QStringLiteral(" of the uncompressed data") : QString());
    if (!loaded) {
        QString why = withoutTablePrefix(io.errorString(), m_tableName);
        if (!deviceError(m_decompressor.get()).isEmpty())
            why += QStringLiteral(" (%1)").arg(deviceError(m_decompressor.get()));
        error = where + why;
        return false;
    }
    // The rows are whole; what follows them must be nothing (and for gzip the
    // trailer's checksum is checked only when the end is read).
    char probe;
    const qint64 extra = device->read(&probe, 1);
    if (extra < 0 && m_decompressor) {
        error = QStringLiteral("%1: %2").arg(m_path, m_decompressor->errorString());
        return false;
    }
    if (extra > 0) {
        error = QStringLiteral("%1: offset %2%3: data after the last of %4 rows")
                    .arg(m_path)
                    .arg(offset)
                    .arg(m_gzip ? QStringLiteral(" of the uncompressed data") : QString())
                    .arg(m_rowsRead);
        return false;
    }
    return true;
}

QJsonObject TableFile::toJson() const
{
    QJsonArray columns;
    for (const TableColumnDef &c : m_header.columns) {
        QJsonObject column;
        column.insert(QStringLiteral("name"), c.name);
        column.insert(QStringLiteral("type"), QLatin1String(FieldType::typeName(c.type)));
        column.insert(QStringLiteral("length"), c.length);
        column.insert(QStringLiteral("size"), double(c.size));
        column.insert(QStringLiteral("nullable"), c.nullable);
        column.insert(QStringLiteral("title"), c.title);
        column.insert(QStringLiteral("description"), c.description);
        column.insert(QStringLiteral("auxFlag"), c.auxFlag);
        columns.append(column);
    }
    QJsonObject json;
    json.insert(QStringLiteral("file"), m_path);
    json.insert(QStringLiteral("table"), m_tableName);
    json.insert(QStringLiteral("format"),
                m_gzip ? QStringLiteral("gzip") : QStringLiteral("plain"));
    json.insert(QStringLiteral("fileSize"), double(m_fileSize));
    json.insert(QStringLiteral("rowCount"), m_header.rowCount);
    json.insert(QStringLiteral("rowLength"), m_header.rowLength);
    json.insert(QStringLiteral("flagBytes"), m_header.flagBytes);
    json.insert(QStringLiteral("columns"), columns);
    json.insert(QStringLiteral("keyColumns"), QJsonArray::fromStringList(m_header.keyColumns));
    return json;
}

// --- schemas --------------------------------------------------------------------------------

bool readSchemaFile(const QString &path, QJsonObject &schema, QString &error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("%1: can't open: %2").arg(path, file.errorString());
        return false;
    }
    // A schema is a few kilobytes; a file far larger is not one.
    const QByteArray text = file.read(16 << 20);
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(text, &parseError);
    if (document.isNull()) {
        error = QStringLiteral("%1: not JSON: %2 at offset %3")
                    .arg(path, parseError.errorString())
                    .arg(parseError.offset);
        return false;
    }
    if (document.isArray() && document.array().size() == 1 && document.array().at(0).isObject())
        schema = document.array().at(0).toObject();
    else if (document.isObject())
        schema = document.object();
    else {
        error = QStringLiteral("%1: a schema is the object that 'dbtool info FILE --json' prints")
                    .arg(path);
        return false;
    }
    return true;
}

std::unique_ptr<Table> tableFromSchema(const QJsonObject &schema, const QString &name,
                                       QString &error)
{
    const QJsonArray columns = schema.value(QStringLiteral("columns")).toArray();
    if (columns.isEmpty()) {
        error = QStringLiteral("the schema has no \"columns\"");
        return nullptr;
    }
    auto table = std::make_unique<Table>(name);
    for (int i = 0; i < columns.size(); ++i) {
        const QJsonObject column = columns.at(i).toObject();
        const QString columnName = column.value(QStringLiteral("name")).toString();
        const QString typeName = column.value(QStringLiteral("type")).toString();
        const FieldType::Type type = typeFromName(typeName);
        const int length = column.value(QStringLiteral("length")).toInt(0);
        if (type == FieldType::Invalid) {
            error = QStringLiteral("column %1 (%2): unknown type '%3'")
                        .arg(i + 1)
                        .arg(columnName, typeName);
            return nullptr;
        }
        if (type == FieldType::VarChar && (length < 1 || length > 32767)) {
            error = QStringLiteral("column %1 (%2): a VarChar's length is 1 to 32767, not %3")
                        .arg(i + 1)
                        .arg(columnName)
                        .arg(length);
            return nullptr;
        }
        // Columns made by the application carry null texts; JSON cannot tell
        // null from empty, and empty is taken for null so a file rebuilt from
        // its own schema has the same bytes.
        const auto text = [&column](const char *key) {
            const QString value = column.value(QLatin1String(key)).toString();
            return value.isEmpty() ? QString() : value;
        };
        try {
            table->addColumn(columnName, type, length,
                             column.value(QStringLiteral("nullable")).toBool(true), text("title"),
                             column.value(QStringLiteral("auxFlag")).toBool(true),
                             text("description"));
        } catch (const QString &message) {
            error = QStringLiteral("column %1 (%2): %3").arg(i + 1).arg(columnName, message);
            return nullptr;
        }
    }
    QStringList keys;
    for (const QJsonValue &key : schema.value(QStringLiteral("keyColumns")).toArray())
        keys << key.toString();
    if (!setKeyColumns(*table, keys, error)) {
        error = QStringLiteral("key columns: %1").arg(error);
        return nullptr;
    }
    return table;
}

// --- writing --------------------------------------------------------------------------------

namespace {

class WriteProgress : public FilterProgressTrue
{
public:
    explicit WriteProgress(ProgressBar &bar)
        : m_bar(bar)
    {
    }
    bool operator()(int current, int total) override
    {
        if ((current & 1023) == 0)
            m_bar.update(current, total);
        return true;
    }

private:
    ProgressBar &m_bar;
};

} // namespace

bool writeTableFile(Table &table, const QString &path, bool gzip, bool quiet, QString &error)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        error = QStringLiteral("%1: can't write: %2").arg(path, file.errorString());
        return false;
    }
    ProgressBar bar(QStringLiteral("writing %1").arg(QFileInfo(path).fileName()), quiet);
    WriteProgress progress(bar);
    TableIO io(&table);
    bool written;
    QString writeError;
    if (gzip) {
        DeflateDevice compressor(&file, TableIO::CompressionLevel, TableIO::CompressionBufferSize);
        compressor.setStreamFormat(DeflateDevice::GzipFormat);
        if (!compressor.open(QIODevice::WriteOnly)) {
            error = QStringLiteral("%1: can't compress: %2").arg(path, compressor.errorString());
            return false;
        }
        QDataStream stream(&compressor);
        written = io.write(progress, stream, true);
        compressor.close();
        writeError = deviceError(&compressor);
    } else {
        QDataStream stream(&file);
        written = io.write(progress, stream, true);
    }
    bar.finish();
    if (!written || !writeError.isEmpty() || file.error() != QFileDevice::NoError) {
        const QString reason = !writeError.isEmpty() ? writeError
            : file.error() != QFileDevice::NoError   ? file.errorString()
                                                     : io.errorString();
        file.cancelWriting();
        error = QStringLiteral("%1: can't write: %2").arg(path, reason);
        return false;
    }
    if (!file.commit()) {
        error = QStringLiteral("%1: can't write: %2").arg(path, file.errorString());
        return false;
    }
    return true;
}

bool outputIsGzip(const QCommandLineParser &parser, const QString &path)
{
    if (parser.isSet(QStringLiteral("gzip")))
        return true;
    if (parser.isSet(QStringLiteral("plain")))
        return false;
    return path.endsWith(QLatin1String(".gz"));
}

bool sameFile(const QString &a, const QString &b)
{
    const QFileInfo first(a);
    const QFileInfo second(b);
    return first.exists() && second.exists()
        && first.canonicalFilePath() == second.canonicalFilePath();
}

} // namespace dbtool
