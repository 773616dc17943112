#ifndef DATABASE_TABLEIO_H
#define DATABASE_TABLEIO_H

#include <database/columndef.h>
#include <database/partitionlist.h>
#include <database/record.h>

#include <QList>
#include <QMap>
#include <QScopedPointer>
#include <QString>
#include <QStringList>

#include <functional>

class FieldDefConvertor;
class QDataStream;
class QDir;
class Table;
class TableIOPrivate;

// FilterProgress: the caller's hook into loads and saves.
//
// operator()(current, total) is called once per row (before a row is read,
// after a row is written) with the row's index from 0 and the row count; its
// result is ignored by the table files. filter(record) is asked for every
// loaded record whether to keep it. Both are called on the loading or saving
// thread.
class DATABASE_EXPORT FilterProgress
{
public:
    virtual ~FilterProgress();
    virtual bool operator()(int current, int total) = 0;
    virtual bool filter(const Record &record) const = 0;
};

// FilterProgressTrue: reports nothing and keeps every record.
//
// The per-row calls are skipped altogether when the object given to a load or
// save is exactly a FilterProgressTrue: the check compares the dynamic type
// once per operation (typeid), not per row. A subclass is always called, even
// one that overrides nothing: it costs a virtual call per row, never a wrong
// answer.
class DATABASE_EXPORT FilterProgressTrue : public FilterProgress
{
public:
    bool operator()(int current, int total) override;
    bool filter(const Record &record) const override;

    // Whether `progress` is a plain FilterProgressTrue, whose calls can be skipped.
    static bool isDefault(const FilterProgress &progress);
};

// TableIO: saves a table (column definitions, primary-key column names and,
// optionally, its rows) to a binary stream and loads it back, into a table of
// the same layout or one whose columns have changed since. On disk a table
// file is named after the table, plain or gzip-compressed (name + ".gz"). The
// byte layout is documented in docs/table-file-format.md; in short:
//
//   header   magic 0x20151002 (qint32), columnCount (qint16), rowCount,
//            rowLength, flagBytes (qint32 each), columnCount column records
//            (TableColumnDef::write), key-column count (qint32) and names
//            (QString each); all big-endian, QDataStream's defaults
//   rows     rowCount stored rows of rowLength + flagBytes bytes: each cell's
//            bytes as in memory (host order, no padding), then the presence
//            flag bytes
//   row list the table's name (QString); when not empty, a header (rowCount
//            = the list's count) and the rows
//
// Ownership: a TableIO is bound to its table and owns nothing but its error
// text. Threads: a save holds the table's lock for the header and rows; a load
// runs inside one update bracket of the table and is meant for the thread that
// owns the table.
//
// Loading (read) is all-or-nothing: the file is read, checked and converted
// in full before the table is touched, so a load that fails for any reason
// (bad header, truncated or damaged data, data that goes on after the last
// row, a limit passed, memory running out) leaves the table with its columns,
// its rows and its indexes' order exactly as they were. The price is memory:
// during a load the old rows and the new ones exist side by side.
//
//   stream at its end ----------------------------> false, table untouched
//   header short, corrupt or wrong magic ---------> false, table untouched
//   rows or bytes above loadLimits() -------------> false, table untouched
//   conversions built (Exception passes out) -----> table untouched
//   rows read, converted, filtered into staging
//     data ends early, out of memory -------------> false, table untouched
//     file goes on after the last row (file
//     loads), bad gzip trailer ------------------> false, table untouched
//   commit: bracket opened, columns added (addColumns), a master index made
//   when the table has none, rows replaced in batches of BatchSize, bracket
//   closed, indexes rebuilt once -----------------> true
//
// FilterProgress::filter() sees each record before it joins the table; when
// the load adds columns, the record's table() is a stand-in of the table's
// final layout, so its cells read as they will in the table.
//
// Should memory run out while the table takes the rows (its index lists
// growing), the table gets its previous rows back (with any added columns)
// and the load returns false.
//
// A table without a main index has nowhere to keep rows: a load gives it the
// file's primary key (a MasterIndex_Column_Pure over the file's key columns)
// or, when the file names none, fails.
//
// Limits (LoadLimits): a load refuses, before reading any row, a file that
// declares more than maxRows rows, or whose rows would take more than
// maxBytes bytes in memory (row blocks of the table's layout plus two handles
// each). The defaults, 100 million rows and 4 GiB, suit a desktop; a host
// sets its own for every new TableIO with setDefaultLoadLimits(), or for one
// with setLoadLimits(). A file of a few hundred kilobytes can declare
// billions of rows that compress to nothing; the limits stop it before any
// memory is taken.
//
// Errors: expected failures (files that cannot be opened, read or committed,
// corrupt or truncated data) return false, set errorString() and log a
// warning naming the file or table; errorString() is empty after a success.
// Thrown through a load, after its clean-up (bracket closed, scratch table,
// conversions and batch freed, indexes rebuilt): std::bad_alloc when a row
// cannot be allocated, Exception from the conversions ("Column not found in
// translation.", a refused conversion of FieldDefConvertor), and whatever the
// caller's FilterProgress throws.
//
// A file of another layout still loads: its columns are matched to the
// table's by name (and by the caller's Convertors), and the load warns, naming
// the table and the columns, when file columns reach no column of the table or
// table columns get nothing from the file, with the way to bring them along.
//
// Hostile input: every count and length read from a stream is checked before
// it is used and nothing is reserved on the word of a file: a header with a
// negative or inconsistent count, an unknown type, a VarChar longer than 32767
// units, a column record whose size disagrees with its type, a row length that
// is not the sum of its cells or exceeds 16 MiB is refused with an error. A
// file whose rows carry no bytes (no columns) loads no rows, since no data
// could back their count.
//
// Performance: stored rows move between the stream and the rows through a
// buffer of about 1 MiB, one read or write per block of rows (through the
// compressor too), each row packed or unpacked by a few precomputed copies
// (neighbouring 8-byte cells are one copy); a load whose file layout equals
// the table's (every column copied to the same place) unpacks stored rows
// straight into the new rows, without the scratch row and the conversions.
// Loaded records are staged in the batches of BatchSize that reach the table
// (Table::appendList), each handle made once; the main index takes the
// batches as they come (a file is in its order) and the listed indexes are
// rebuilt once, at the end (TableIndexRebuilder), each by one build.
//
// Saving never loses the previous file: a save writes through QSaveFile
// (under the compressor when compressed), syncs the new file to the disk
// before it replaces the old one and the directory after, and deletes the
// other form (plain or ".gz") only once the new file is committed. A sync that
// fails is a failed save (before the replacement the old file stays; after
// it, the save reports that the directory could not be synced).
class DATABASE_EXPORT TableIO
{
public:
    static const qint32 Magic = 0x20151002;
    // Records handed to Table::appendList at a time during a load.
    static const int BatchSize = 10240;
    // The compressor's settings for table files.
    static const int CompressionLevel = 6;
    static const int CompressionBufferSize = 65500;

    // The form of a table file saved to a directory.
    enum class Compression {
        HostDefault, // as ICore::compressTableFiles() says at the time of the save
        Plain, // the plain file, fileName()
        Gzip // the gzip file, compressedFileName()
    };

    // The in-memory form of the file header, fields in file order.
    struct DATABASE_EXPORT TableHeader
    {
        qint32 magic = 0;
        qint16 columnCount = 0;
        qint32 rowCount = 0;
        qint32 rowLength = 0;
        qint32 flagBytes = 0;
        QList<TableColumnDef> columns;
        QStringList keyColumns;
    };

    // A column conversion rule: `first` names a column of the loaded table
    // (the target), `second` a column of the file (the source).
    //   (target, source) -> convertor  the target is filled from that source;
    //                                   a non-null convertor is cloned and
    //                                   bound to the pair, null picks the
    //                                   conversion table's convertor
    //   ("", source)                    the file's column is dropped: never
    //                                   added, never matched by name
    //   (target, "")                    the target has no source: it keeps the
    //                                   state of a fresh row
    // Names compare without regard to case. The map keeps the caller's
    // convertors; a load never deletes them.
    struct DATABASE_EXPORT ConvertKey
    {
        ConvertKey() = default;
        ConvertKey(const QString &first, const QString &second)
            : first(first)
            , second(second)
        {
        }
        bool operator<(const ConvertKey &other) const;
        bool operator==(const ConvertKey &other) const;
        QString first;
        QString second;
    };
    typedef QMap<ConvertKey, FieldDefConvertor *> Convertors;

    // Bounds of one load; see the class comment.
    struct LoadLimits
    {
        qint64 maxRows = 100 * 1000 * 1000;
        qint64 maxBytes = qint64(4) << 30;
    };

    explicit TableIO(Table *table);
    ~TableIO();

    // This object's limits, the process-wide defaults when constructed.
    LoadLimits loadLimits() const;
    void setLoadLimits(const LoadLimits &limits);
    // The limits every TableIO starts with. Thread-safe.
    static LoadLimits defaultLoadLimits();
    static void setDefaultLoadLimits(const LoadLimits &limits);

    // Test hooks. A load of any TableIO fails to allocate (as if memory ran
    // out) once it has staged `rows` rows; -1 turns it off.
    static void testingFailAllocationAfter(qint64 rows);
    // Saves sync files and directories with `sync` instead of fsync (null:
    // fsync again), so that a test can make the disk refuse.
    static void testingSetSyncFunction(int (*sync)(int fd));

    Table *table() const;
    // The last failure's message; empty after a success.
    QString errorString() const;

    // The path of the table's plain file in `dir` (the table's name, no extension).
    QString fileName(const QDir &dir) const;
    // fileName() + ".gz".
    QString compressedFileName(const QDir &dir) const;

    // --- header ---
    // Fills `header` from `table` (rowCount from the rows the master index holds).
    static void setupHeader(TableHeader &header, const Table *table);
    static void writeHeader(const TableHeader &header, QDataStream &stream);
    // Reads the header fields without checking magic. Returns false (with
    // errorString()) when the data ends early or a count is negative; the key
    // names are read one by one, never reserved on the stream's word.
    bool readHeader(TableHeader &header, QDataStream &stream);
    // Checks a header read from a stream: magic, counts, known types, cell
    // sizes agreeing with types, row length and flag bytes agreeing with the
    // columns. Returns false with errorString() otherwise.
    bool checkHeader(const TableHeader &header);

    // --- saving ---
    // The row section: the master index's rows in its order.
    bool writeRows(FilterProgress &progress, const TableHeader &header, QDataStream &stream);
    // Header, then the rows if `withRows` (rowCount is declared either way),
    // under the table's lock.
    bool write(FilterProgress &progress, QDataStream &stream, bool withRows);
    bool write(QDataStream &stream, bool withRows);
    // Saves to fileName(dir), gzip-compressed (fileName + ".gz") when the
    // host's switch (ICore::compressTableFiles, asked on every save) is on.
    bool write(FilterProgress &progress, const QDir &dir, bool withRows);
    bool write(const QDir &dir);
    // The same with the form chosen for this call: Plain or Gzip whatever the
    // host's switch says, HostDefault to ask the switch as above. One table
    // can thus be saved compressed without changing the process-wide switch,
    // which other threads may be reading.
    bool write(FilterProgress &progress, const QDir &dir, bool withRows, Compression compression);
    bool write(const QDir &dir, Compression compression);

    // --- loading ---
    // Loads from a stream (see the states above). With `addColumns` the file's
    // columns that the table lacks are added (unless dropped by `convertors`).
    bool read(FilterProgress &progress, QDataStream &stream, bool addColumns,
              const Convertors &convertors);
    bool read(QDataStream &stream, bool addColumns, const Convertors &convertors);
    bool read(QDataStream &stream, bool addColumns);
    // Loads the plain file, or else the ".gz" one; neither leaves the table
    // untouched (and returns false). Unlike a stream, a file must end with
    // its last row (and, compressed, with a sound gzip trailer; members
    // written one after another read as one stream).
    bool read(FilterProgress &progress, const QDir &dir, bool addColumns);
    bool read(const QDir &dir, bool addColumns);

    // --- row lists ---
    // Writes the list's table name, header and rows. An empty list writes an
    // empty name. REQUIRES (checked): every record is non-null and of the
    // first record's table; otherwise nothing is written and false returned.
    bool writeRowList(FilterProgress &progress, QDataStream &stream,
                      const PartitionList<Record> &records);
    // Reads one row list and appends its records (allocated from the table of
    // that name, found through ICore) to `records`. A list of a table the host
    // does not know is skipped whole (true, nothing appended), so that a
    // following list on the stream reads; so is, with false, one whose layout
    // differs from the table's. An empty name is an empty list (true).
    bool readRowList(FilterProgress &progress, QDataStream &stream, PartitionList<Record> &records);

    // --- conversions ---
    // One convertor per column of this table that has a source in `scratch`
    // (a table mirroring the file's columns), by the rules of ConvertKey and,
    // failing an entry, by equal names. A column without a source gets none
    // and keeps the state of a fresh row (zero; present when not nullable).
    // Throws Exception "Column not found in translation." when an entry names
    // a source that `scratch` lacks, and the refusals of FieldDefConvertor;
    // `list` is then left empty. The caller owns the convertors.
    void make_fromDefs(QList<FieldDefConvertor *> &list, const Table *scratch,
                       const Convertors &convertors);
    // Applies the convertors to one row: dst and src are row blocks of the
    // convertors' target and source tables.
    static void convertDefs(const QList<FieldDefConvertor *> &list, unsigned char *dst,
                            unsigned char *src);

    // Bytes held by the table's rows (each row block as the heap allocates it:
    // rowSize plus the allocator's header, rounded to its granule; rows loaded
    // from a file share larger blocks and take a little less) and
    // by the record lists of its indexes (the master index and the listed
    // ones): list indexes report their parts' capacity (IndexList::memoryUsage);
    // other iterable indexes are estimated from their row count as if filled by
    // appends; indexes of other shapes count nothing.
    static qint64 memoryUsage(const Table *table);

private:
    Q_DISABLE_COPY(TableIO)
    // The load behind every read(): `dataEnded`, when set, is asked after the
    // last row whether the data ended there (false with errorString() set).
    bool load(FilterProgress &progress, QDataStream &stream, bool addColumns,
              const Convertors &convertors, const std::function<bool()> &dataEnded);
    // The file columns that a load with addColumns adds to the table.
    QList<TableColumnDef> columnsToAdd(const TableHeader &header,
                                       const Convertors &convertors) const;
    static void makeConvertors(QList<FieldDefConvertor *> &list, const Table *target,
                               const Table *scratch, const Convertors &convertors);

    const QScopedPointer<TableIOPrivate> d;
};

#endif // DATABASE_TABLEIO_H
