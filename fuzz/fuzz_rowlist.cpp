// Fuzz target of row lists: arbitrary bytes are read as a sequence of row
// lists while the host knows a table named "quotes". Reading may fail; it
// must never crash, hang, or hand out records of another table.
#include <database/core/icore.h>
#include <database/table.h>
#include <database/tableio.h>

#include <QDataStream>

#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

void quiet(QtMsgType, const QMessageLogContext &, const QString &)
{
}

Table *knownTable()
{
    static Table *table = [] {
        auto *t = new Table(QStringLiteral("quotes"));
        t->addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
        t->addColumn(QStringLiteral("name"), FieldType::VarChar, 8);
        t->addColumn(QStringLiteral("price"), FieldType::Decimal, 4);
        t->addColumn(QStringLiteral("qty"), FieldType::Double);
        DefaultCore::global()->addTable(t->name(), t);
        return t;
    }();
    return table;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool silenced = (qInstallMessageHandler(quiet), true);
    Q_UNUSED(silenced);
    if (size > (1u << 16))
        return 0;
    Table *table = knownTable();
    const QByteArray bytes
        = QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size));
    QDataStream stream(bytes);
    TableIO io(nullptr);
    FilterProgressTrue progress;
    PartitionList<Record> records;
    try {
        for (int i = 0; i < 64 && io.readRowList(progress, stream, records); ++i) { }
    } catch (const std::bad_alloc &) {
    }
    for (auto it = records.begin(), end = records.end(); it != end; ++it)
        if ((*it).table() != table)
            std::abort();
    if (records.count() > int(size))
        std::abort();
    return 0;
}
