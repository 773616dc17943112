#ifndef TESTS_TRANSFIXTURE_H
#define TESTS_TRANSFIXTURE_H

// A quote table keyed by id, with a sorted view by price and an index that
// records the batches the table hands it; shared by the transaction and undo
// tests. The expected content of the table is modelled as a map id -> Quote.

#include <database/indexsort.h>
#include <database/masterindex.h>
#include <database/table.h>

#include <QMap>
#include <QVector>

#include <memory>

namespace TransFixture {

enum Column { Id, Name, Price, Qty };

struct Quote
{
    QString name;
    double price = 0;
    int qty = 0;
    bool operator==(const Quote &o) const
    {
        return name == o.name && price == o.price && qty == o.qty;
    }
};
using Model = QMap<int, Quote>;

inline Quote quoteOf(const Record &row)
{
    return { row.data(Name).toString(), row.data(Price).get<double>(),
             row.data(Qty).get<qint32>() };
}

// The table's rows by key, read through the master index.
inline Model modelOf(const Table &table)
{
    Model model;
    const MasterIndex *master = table.masterIndex();
    for (auto it = master->begin(); it != master->end(); ++it)
        model.insert((*it).data(Id).get<qint32>(), quoteOf(*it));
    return model;
}

inline int comparePrice(const Record &a, const Record &b)
{
    const double pa = a.data(Price).get<double>();
    const double pb = b.data(Price).get<double>();
    return pa < pb ? -1 : (pb < pa ? 1 : 0);
}

class PriceIndex : public IndexSort
{
public:
    explicit PriceIndex(Table *table)
        : IndexSort(table, true)
    {
    }
    int compare(const Record &a, const Record &b) const override { return comparePrice(a, b); }
};

// Keeps nothing; records the list sizes and column range of every batch.
class RecordingIndex : public Index
{
public:
    struct Batch
    {
        int removed, updated, inserted, changed, first, last;
    };
    explicit RecordingIndex(Table *table)
        : m_table(table)
    {
        table->addIndex(this);
    }
    ~RecordingIndex() override { m_table->removeIndex(this); }
    void clear() override { }
    void build() override { }
    void add(const Record &) override
    {
        if (throwOnAdd)
            throw QStringLiteral("add refused");
    }
    void preprocess(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                    const QList<Record> &inserted, const QList<Record> &changed) override
    {
        batches.append(
            { removed.size(), updated.size(), inserted.size(), changed.size(), first, last });
    }
    void process(const QList<Record> &, const QList<Record> &, int, int,
                 const QList<Record> &) override
    {
    }
    bool remove(const Record &, int) override { return false; }
    bool filter(const Record &) const override { return true; }
    bool contains(const Record &) const override { return false; }
    const char *getClassName() const override { return "RecordingIndex"; }

    QVector<Batch> batches;
    bool throwOnAdd = false;

private:
    Table *m_table;
};

// Columns id (Integer, not null), name (VarChar 12), price (Double), qty
// (Integer); a column master key on id, a price view and a recorder. The
// indexes go before the table.
struct QuoteTable
{
    QuoteTable()
    {
        table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
        table.addColumn(QStringLiteral("name"), FieldType::VarChar, 12);
        table.addColumn(QStringLiteral("price"), FieldType::Double);
        table.addColumn(QStringLiteral("qty"), FieldType::Integer);
        table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("id")));
        byPrice.reset(new PriceIndex(&table));
        recorder.reset(new RecordingIndex(&table));
    }

    // A fresh row that is not in the table.
    Record row(int id, const Quote &quote) const
    {
        Record row(&table);
        row.data(Id).set<qint32>(id);
        row.data(Name) = quote.name;
        row.data(Price).set<double>(quote.price);
        row.data(Qty).set<qint32>(quote.qty);
        return row;
    }
    Record find(int id) const { return table.masterIndex()->find(row(id, {}), -1); }
    void fill(const Model &model)
    {
        for (auto it = model.cbegin(); it != model.cend(); ++it)
            table.appendRow(table.cloneRow(row(it.key(), it.value()).row()));
        recorder->batches.clear();
    }

    Table table { QStringLiteral("quotes") };
    std::unique_ptr<PriceIndex> byPrice;
    std::unique_ptr<RecordingIndex> recorder;
};

} // namespace TransFixture

#endif // TESTS_TRANSFIXTURE_H
