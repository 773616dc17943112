// The order-book example: run it to watch a book move; with --screenshot FILE
// it plays a fixed stretch of market, saves a picture of the window and checks
// that the picture is not blank and that every view shows the rows its model
// says (exit status 1 otherwise).

#include "orderbook.h"

#include <QApplication>
#include <QDebug>
#include <QImage>
#include <QSet>
#include <QTableView>
#include <QTimer>

namespace {

QString checkViews(const OrderBook &book)
{
    for (QTableView *view : book.views()) {
        const QAbstractItemModel *model = view->model();
        if (model->rowCount() == 0)
            return QStringLiteral("a view has no rows");
        for (int row = 0; row < model->rowCount(); ++row) {
            const QModelIndex index = model->index(row, 0);
            const QRect rect = view->visualRect(index);
            if (!view->viewport()->rect().contains(rect.center()))
                break; // scrolled out of sight
            if (view->indexAt(rect.center()) != index)
                return QStringLiteral("row %1 is not where the model puts it").arg(row);
            if (index.data().toString().isEmpty())
                return QStringLiteral("row %1 shows no text").arg(row);
        }
    }
    return QString();
}

QString checkPicture(const QImage &image)
{
    if (image.isNull() || image.width() < 100 || image.height() < 100)
        return QStringLiteral("no picture");
    QSet<QRgb> colours;
    for (int y = 0; y < image.height(); y += 3) {
        for (int x = 0; x < image.width(); x += 3)
            colours.insert(image.pixel(x, y));
    }
    return colours.size() < 4 ? QStringLiteral("the picture is blank") : QString();
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    const int shot = arguments.indexOf(QStringLiteral("--screenshot"));
    OrderBook book(shot >= 0 ? 2026 : QRandomGenerator::global()->generate());
    book.show();
    if (shot < 0 || shot + 1 >= arguments.size()) {
        QTimer timer;
        QObject::connect(&timer, &QTimer::timeout, &book, &OrderBook::tick);
        timer.start(250);
        return app.exec();
    }

    for (int i = 0; i < 80; ++i) {
        book.tick();
        app.processEvents();
        book.advanceClock(250);
    }
    app.processEvents();
    const QImage image = book.grab().toImage();
    QString error = checkPicture(image);
    if (error.isEmpty())
        error = checkViews(book);
    if (!image.save(arguments.at(shot + 1)))
        error = QStringLiteral("cannot write %1").arg(arguments.at(shot + 1));
    if (!error.isEmpty()) {
        qCritical().noquote() << "orderbook:" << error;
        return 1;
    }
    return 0;
}
