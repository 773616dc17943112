// Fuzz target of table-file loads: arbitrary bytes are loaded as a table file
// into a table with a master index and a list index, with and without adding
// the file's columns. A load may fail or throw the library's own errors; it
// must never crash, hang, leave the indexes disagreeing with the rows, or
// change the table when it fails.
#include <database/exception.h>
#include <database/indexlist.h>
#include <database/masterindex.h>
#include <database/table.h>
#include <database/tableio.h>

#include <QDataStream>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

namespace {

void quiet(QtMsgType, const QMessageLogContext &, const QString &)
{
}

std::unique_ptr<Table> makeTable()
{
    auto table = std::make_unique<Table>(QStringLiteral("quotes"));
    table->addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
    table->addColumn(QStringLiteral("name"), FieldType::VarChar, 8);
    table->addColumn(QStringLiteral("price"), FieldType::Decimal, 4);
    table->addColumn(QStringLiteral("qty"), FieldType::Double);
    table->setMasterIndex(new MasterIndex_Column_Pure(table.get(), QStringLiteral("id")));
    unsigned char *row = table->allocRow();
    table->dataPtr(row, 0).set<qint32>(-7);
    table->appendRow(row);
    return table;
}

void load(const QByteArray &bytes, bool addColumns)
{
    auto table = makeTable();
    IndexList list(table.get(), true);
    list.build();
    TableIO io(table.get());
    QDataStream stream(bytes);
    bool loaded = false;
    try {
        loaded = io.read(stream, addColumns);
    } catch (const Exception &) {
    } catch (const QString &) {
    } catch (const std::bad_alloc &) {
    }
    if (list.count() != table->masterIndex()->count())
        std::abort();
    if (!loaded && table->masterIndex()->count() != 1)
        std::abort(); // a failed load leaves the table's one row in place
    if (loaded && table->masterIndex()->count() > bytes.size())
        std::abort(); // every loaded row is backed by at least one byte
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool silenced = (qInstallMessageHandler(quiet), true);
    Q_UNUSED(silenced);
    if (size > (1u << 16))
        return 0;
    const QByteArray bytes
        = QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size));
    load(bytes, false);
    load(bytes, true);
    return 0;
}
