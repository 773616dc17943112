#ifndef ORDERBOOK_H
#define ORDERBOOK_H

#include <database/indexmodel.h>
#include <database/table.h>

#include <QRandomGenerator>
#include <QUndoStack>
#include <QWidget>

#include <memory>

class IndexSort;
class IndexLimit;
class QTableView;

// An order book fed by a timer: the price levels of one instrument in a table
// (bids and asks as two sorted indexes, each shown in full and as its best
// ten levels) and the trades in a second table kept to its last rows by a
// limited index. Every tick is one undoable transaction on the book and one
// trade; the undo and redo buttons act on the book.
class OrderBook : public QWidget
{
    Q_OBJECT
public:
    enum BookColumn { LevelId, Side, Price, Quantity };
    enum TradeColumn { TradeId, TradeTime, TradePrice, TradeQuantity };
    static constexpr int tradesKept = 30;

    explicit OrderBook(quint32 seed, QWidget *parent = nullptr);
    ~OrderBook() override;

    // One market update: a few levels change, appear or vanish; one trade.
    void tick();
    QList<QTableView *> views() const;
    // Lets the flashes age as if time passed (a scripted run has no pauses).
    void advanceClock(int milliseconds);

private:
    Record level(int id, int side, double price, int quantity) const;
    QTableView *addView(IndexModel *model);

    Table m_book;
    Table m_trades;
    std::unique_ptr<IndexSort> m_bids;
    std::unique_ptr<IndexSort> m_asks;
    std::unique_ptr<IndexLimit> m_lastTrades;
    QList<IndexModel *> m_models;
    QList<QTableView *> m_views;
    QUndoStack m_undo;
    QRandomGenerator m_random;
    int m_nextLevel = 0;
    qint64 m_nextTrade = 1;
    double m_mid = 100.0;
};

#endif // ORDERBOOK_H
