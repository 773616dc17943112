#include "orderbook.h"

#include <database/datetime.h>
#include <database/indexlimit.h>
#include <database/indexsort.h>
#include <database/masterindex_column.h>
#include <database/recordstrans.h>
#include <database/undo.h>

#include <QDateTime>
#include <QGridLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QStyledItemDelegate>
#include <QTableView>
#include <QTimer>

namespace {

// One side of the book: its levels, best price first.
class SideIndex : public IndexSort
{
public:
    SideIndex(Table *table, int side)
        : IndexSort(table)
        , m_side(side)
    {
    }
    bool filter(const Record &record) const override
    {
        return record.data(OrderBook::Side).get<qint32>() == m_side;
    }
    int compare(const Record &a, const Record &b) const override
    {
        const double pa = a.data(OrderBook::Price).get<double>();
        const double pb = b.data(OrderBook::Price).get<double>();
        const int c = pa < pb ? -1 : (pb < pa ? 1 : 0);
        return m_side == 0 ? -c : c; // bids: highest first
    }

private:
    const int m_side;
};

// The trades table keeps its last rows: the oldest trade sorts first and is
// the first to be evicted.
class LastTrades : public IndexLimit
{
public:
    using IndexLimit::IndexLimit;
    int compare(const Record &a, const Record &b) const override
    {
        const qint64 ia = a.data(OrderBook::TradeId).get<qint64>();
        const qint64 ib = b.data(OrderBook::TradeId).get<qint64>();
        return ia < ib ? -1 : (ib < ia ? 1 : 0);
    }
};

// Paints a cell that changed recently over a background that fades: green
// when its number went up, red when it went down, amber otherwise.
class FlashDelegate : public QStyledItemDelegate
{
public:
    using QStyledItemDelegate::QStyledItemDelegate;
    void paint(QPainter *painter, const QStyleOptionViewItem &option,
               const QModelIndex &index) const override
    {
        const QVariant direction = index.data(IndexModel::ChangeDirectionRole);
        if (direction.isValid()) {
            const auto *model = static_cast<const IndexModel *>(index.model());
            const double age = index.data(IndexModel::ChangeAgeRole).toDouble();
            const double fade = 1.0 - age / qMax(1, model->changeHighlightPeriod());
            QColor color = direction.toInt() > 0 ? QColor(60, 180, 75)
                : direction.toInt() < 0          ? QColor(220, 60, 60)
                                                 : QColor(240, 180, 40);
            color.setAlphaF(qBound(0.0, 0.6 * fade, 0.6));
            painter->fillRect(option.rect, color);
        }
        QStyledItemDelegate::paint(painter, option, index);
    }
};

} // namespace

OrderBook::OrderBook(quint32 seed, QWidget *parent)
    : QWidget(parent)
    , m_book(QStringLiteral("book"))
    , m_trades(QStringLiteral("trades"))
    , m_random(seed)
{
    m_book.addColumn(QStringLiteral("id"), FieldType::Integer, 0, false, QStringLiteral("№"));
    m_book.addColumn(QStringLiteral("side"), FieldType::Integer, 0, false);
    m_book.addColumn(QStringLiteral("price"), FieldType::Double, 0, false, QStringLiteral("Цена"));
    m_book.addColumn(QStringLiteral("qty"), FieldType::Integer, 0, false, QStringLiteral("Объём"));
    m_book.setMasterIndex(new MasterIndex_Column_Pure(&m_book, QStringLiteral("id")));
    m_trades.addColumn(QStringLiteral("id"), FieldType::Integer64, 0, false, QStringLiteral("№"));
    m_trades.addColumn(QStringLiteral("time"), FieldType::DateTime, 0, false,
                       QStringLiteral("Время"));
    m_trades.addColumn(QStringLiteral("price"), FieldType::Double, 0, false,
                       QStringLiteral("Цена"));
    m_trades.addColumn(QStringLiteral("qty"), FieldType::Integer, 0, false,
                       QStringLiteral("Объём"));
    m_trades.setMasterIndex(new MasterIndex_Column_Pure(&m_trades, QStringLiteral("id")));

    m_bids.reset(new SideIndex(&m_book, 0));
    m_asks.reset(new SideIndex(&m_book, 1));
    m_lastTrades.reset(new LastTrades(tradesKept, &m_trades));
    for (int i = 0; i < 15; ++i) {
        for (int side = 0; side < 2; ++side) {
            const double price = m_mid + (side == 0 ? -1 : 1) * (0.05 + 0.1 * i);
            m_book.appendRow(m_book.cloneRow(
                level(m_nextLevel++, side, price, 10 + int(m_random.bounded(90))).row()));
        }
    }

    const QStringList levelColumns { QStringLiteral("price"), QStringLiteral("qty") };
    auto *bids = new IndexModel(m_bids.get(), this);
    auto *asks = new IndexModel(m_asks.get(), this);
    auto *bestBids = new IndexModel(m_bids.get(), this);
    auto *bestAsks = new IndexModel(m_asks.get(), this);
    auto *trades = new IndexModel(m_lastTrades.get(), this);
    for (IndexModel *model : { bids, asks, bestBids, bestAsks })
        model->setColumns(levelColumns);
    bestBids->setRowLimit(10);
    bestAsks->setRowLimit(10);
    trades->setColumns({ QStringLiteral("time"), QStringLiteral("price"), QStringLiteral("qty") });
    trades->sort(-1);
    m_models = { bids, asks, bestBids, bestAsks, trades };

    auto *grid = new QGridLayout(this);
    const QStringList titles { QStringLiteral("Покупка"), QStringLiteral("Продажа"),
                               QStringLiteral("Лучшие 10: покупка"),
                               QStringLiteral("Лучшие 10: продажа"), QStringLiteral("Сделки") };
    for (int i = 0; i < m_models.size(); ++i) {
        grid->addWidget(new QLabel(titles.at(i), this), 0, i);
        grid->addWidget(addView(m_models.at(i)), 1, i);
        grid->setColumnStretch(i, i == m_models.size() - 1 ? 4 : 2);
    }
    m_views.last()->horizontalHeader()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    m_views.last()->sortByColumn(0, Qt::DescendingOrder);
    m_views.last()->setSortingEnabled(true);

    auto *undo = new QPushButton(QStringLiteral("Отменить"), this);
    auto *redo = new QPushButton(QStringLiteral("Повторить"), this);
    connect(undo, &QPushButton::clicked, &m_undo, &QUndoStack::undo);
    connect(redo, &QPushButton::clicked, &m_undo, &QUndoStack::redo);
    connect(&m_undo, &QUndoStack::canUndoChanged, undo, &QWidget::setEnabled);
    connect(&m_undo, &QUndoStack::canRedoChanged, redo, &QWidget::setEnabled);
    undo->setEnabled(false);
    redo->setEnabled(false);
    m_undo.setUndoLimit(50);
    grid->addWidget(undo, 2, 0);
    grid->addWidget(redo, 2, 1);

    // The flashes fade between changes: repaint the views a few times a second.
    auto *fade = new QTimer(this);
    connect(fade, &QTimer::timeout, this, [this] {
        for (QTableView *view : qAsConst(m_views))
            view->viewport()->update();
    });
    fade->start(100);
    setWindowTitle(QStringLiteral("Стакан"));
    resize(1320, 560);
}

OrderBook::~OrderBook()
{
    // The models watch the indexes and tables: they go first.
    for (QTableView *view : qAsConst(m_views))
        view->setModel(nullptr);
    qDeleteAll(m_models);
    m_undo.clear();
}

void OrderBook::advanceClock(int milliseconds)
{
    for (IndexModel *model : qAsConst(m_models))
        model->testingAdvanceClock(milliseconds);
}

QList<QTableView *> OrderBook::views() const
{
    return m_views;
}

Record OrderBook::level(int id, int side, double price, int quantity) const
{
    Record row(&m_book);
    row.data(LevelId).set<qint32>(id);
    row.data(Side).set<qint32>(side);
    row.data(Price).set<double>(qRound(price * 100) / 100.0);
    row.data(Quantity).set<qint32>(quantity);
    return row;
}

QTableView *OrderBook::addView(IndexModel *model)
{
    auto *view = new QTableView(this);
    view->setModel(model);
    view->setItemDelegate(new FlashDelegate(view));
    view->verticalHeader()->setDefaultSectionSize(20);
    view->verticalHeader()->hide();
    view->horizontalHeader()->setSectionResizeMode(QHeaderView::Stretch);
    view->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_views.append(view);
    return view;
}

void OrderBook::tick()
{
    m_mid += (int(m_random.bounded(5)) - 2) * 0.01;
    // The book: a few levels change size or price, one may appear or vanish.
    auto *edit = new Undo::Transaction(&m_book);
    const QList<Record> levels(m_book.masterIndex()->begin(), m_book.masterIndex()->end());
    QSet<int> touched;
    for (int n = 1 + int(m_random.bounded(3)); n > 0 && !levels.isEmpty(); --n) {
        const Record &old = levels.at(int(m_random.bounded(levels.size())));
        const int id = old.data(LevelId).get<qint32>();
        if (touched.contains(id))
            continue;
        touched.insert(id);
        const int side = old.data(Side).get<qint32>();
        double price = old.data(Price).get<double>();
        if (m_random.bounded(4) == 0)
            price += (side == 0 ? -1 : 1) * 0.01 * (1 + int(m_random.bounded(3)));
        new Undo::TransUpdate(old.clone(), level(id, side, price, 1 + int(m_random.bounded(120))),
                              edit);
    }
    if (m_random.bounded(3) == 0) {
        const int side = int(m_random.bounded(2));
        const double price = m_mid + (side == 0 ? -1 : 1) * (0.01 + 0.01 * m_random.bounded(150));
        new Undo::TransInsert(level(m_nextLevel++, side, price, 1 + int(m_random.bounded(90))),
                              edit);
    } else if (levels.size() > 24 && m_random.bounded(3) == 0) {
        const Record &gone = levels.at(int(m_random.bounded(levels.size())));
        if (!touched.contains(gone.data(LevelId).get<qint32>()))
            new Undo::TransDelete(gone, edit);
    }
    m_undo.push(edit);

    // The trades: one more, the oldest beyond the limit leaves the table.
    m_trades.beginUpdate();
    {
        RecordsTrans trans(&m_trades);
        Record trade(&m_trades);
        trade.data(TradeId).set<qint64>(m_nextTrade);
        trade.data(TradeTime).set<datetime>(datetime::fromDateTime(
            QDateTime(QDate(2026, 11, 23), QTime(10, 0)).addSecs(m_nextTrade * 7)));
        trade.data(TradePrice).set<double>(qRound(m_mid * 100) / 100.0);
        trade.data(TradeQuantity).set<qint32>(1 + int(m_random.bounded(50)));
        ++m_nextTrade;
        RecordUpdater updater(&trans);
        updater.insertInMap(trade);
    }
    m_trades.endUpdate();
}
