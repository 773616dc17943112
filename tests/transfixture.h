#ifndef TESTS_TRANSFIXTURE_H
#define TESTS_TRANSFIXTURE_H

// A quote table keyed by id, with a price view that records the batches the
// table hands it. The expected content is a map id -> Quote.

#include <database/indexlimit.h>
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

inline Model modelOf(const Table &table)
{
    Model model;
    for (const Record &row : *table.masterIndex())
        model.insert(row.data(Id).get<qint32>(), quoteOf(row));
    return model;
}

// A sorted view (IndexSort or IndexLimit) ordered by price.
template <typename View> class ByPrice : public View
{
public:
    using View::View;
    int compare(const Record &a, const Record &b) const override
    {
        const double pa = a.data(Price).get<double>(), pb = b.data(Price).get<double>();
        return pa < pb ? -1 : (pb < pa ? 1 : 0);
    }
};

// One batch as preprocess() saw it: the sizes of the removed, updated, inserted
// and changed lists, then the first and last changed column.
using Batch = QVector<int>;

// The price view, also recording every batch it is handed; can refuse add().
class RecordingView : public ByPrice<IndexSort>
{
public:
    using ByPrice::ByPrice;
    void add(const Record &record) override
    {
        if (throwOnAdd)
            throw QStringLiteral("add refused");
        ByPrice::add(record);
    }
    void preprocess(const QList<Record> &removed, const QList<Record> &updated, int first, int last,
                    const QList<Record> &inserted, const QList<Record> &changed) override
    {
        ByPrice::preprocess(removed, updated, first, last, inserted, changed);
        batches.append(
            { removed.size(), updated.size(), inserted.size(), changed.size(), first, last });
    }

    QVector<Batch> batches;
    bool throwOnAdd = false;
};

// Columns id (Integer, not null), name (VarChar 12), price (Double), qty
// (Integer); a column master key on id. The view goes before the table.
struct QuoteTable
{
    QuoteTable()
    {
        table.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false);
        table.addColumn(QStringLiteral("name"), FieldType::VarChar, 12);
        table.addColumn(QStringLiteral("price"), FieldType::Double);
        table.addColumn(QStringLiteral("qty"), FieldType::Integer);
        table.setMasterIndex(new MasterIndex_Column_Pure(&table, QStringLiteral("id")));
        view.reset(new RecordingView(&table));
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
        view->batches.clear();
    }

    Table table { QStringLiteral("quotes") };
    std::unique_ptr<RecordingView> view;
};

} // namespace TransFixture

#endif // TESTS_TRANSFIXTURE_H
