#include <database/indexmodel.h>

#include <database/decimal.h>
#include <database/indexlist.h>
#include <database/indexsort.h>
#include <database/indexsortcolumns.h>
#include <database/table.h>

#include <QDebug>
#include <QElapsedTimer>
#include <QHash>
#include <QMutex>
#include <QPair>
#include <QSet>
#include <QThread>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <vector>

namespace {

using RowKey = const unsigned char *;
using CellKey = QPair<RowKey, int>; // row block, model column

struct CellChange
{
    qint64 at = 0;
    int direction = 0;
};

// One row entering the view: an update (cur >= 0, its current row in the
// model) or an insert (cur == -1), bound for row `final` of the new list.
struct Entering
{
    Record record;
    int cur = -1;
    int final = 0;
};

bool isNumeric(FieldType::Type type)
{
    switch (type) {
    case FieldType::Integer:
    case FieldType::Integer64:
    case FieldType::Double:
    case FieldType::Decimal:
        return true;
    default:
        return false;
    }
}

double numberOf(const Field &field)
{
    if (field.isNull())
        return std::numeric_limits<double>::quiet_NaN();
    switch (field.type()) {
    case FieldType::Integer:
        return field.get<qint32>();
    case FieldType::Integer64:
        return double(field.get<qint64>());
    case FieldType::Double:
        return field.get<double>();
    case FieldType::Decimal:
        return field.get<decimal>().toDouble();
    default:
        return std::numeric_limits<double>::quiet_NaN();
    }
}

// The header-sort index: one column in either order, over the rows that the
// model's original index accepts.
class HeaderSortIndex : public IndexSortColumns
{
public:
    HeaderSortIndex(Table *table, const QString &column, Qt::SortOrder order, const Index *source)
        : IndexSortColumns(table, column, order)
        , m_source(source)
    {
    }
    bool filter(const Record &record) const override
    {
        return !m_source || m_source->filter(record);
    }
    void forgetSource() { m_source = nullptr; }

private:
    const Index *m_source;
};

} // namespace

// Watches the original index while the model shows its header-sort index,
// which reads that index's filter(): when the original goes, so does the
// model's content.
class SourceWatch final : public IndexObserver
{
public:
    explicit SourceWatch(IndexModel *model)
        : m_model(model)
    {
    }
    void indexRowInserted(int, const Record &) override { }
    void indexRowRemoved(int, const Record &) override { }
    void indexRowUpdated(int, int, const Record &, int, int) override { }
    void indexBatchProcessed(const Batch &) override { }
    void indexReset() override { }
    void indexBeginUpdate() override { }
    void indexEndUpdate() override { }
    void indexDestroyed() override
    {
        QMetaObject::invokeMethod(m_model, "sourceDestroyed", Qt::DirectConnection);
    }

private:
    IndexModel *m_model;
};

class IndexModelPrivate
{
public:
    explicit IndexModelPrivate(IndexModel *q)
        : q(q)
    {
        clock.start();
    }

    IndexModel *q;
    IndexIterative *source = nullptr;
    IndexList *sourceList = nullptr;
    IndexList *shown = nullptr;
    std::unique_ptr<HeaderSortIndex> sortIndex;
    std::unique_ptr<SourceWatch> sourceWatch;
    Table *table = nullptr;
    QVector<int> columns;
    PartitionList<Record> rows; // what the view was told
    int limit = -1;
    int layoutThreshold = 16;
    int highlightPeriod = 3000;

    // Changes of the model's own thread, held until the bracket closes.
    int depth = 0;
    QVector<IndexObserver::Batch> pending;
    bool pendingReset = false;

    // Changes of other threads, applied by one queued call.
    QMutex foreignMutex;
    QList<Record> foreignTouched;
    int foreignFirst = std::numeric_limits<int>::max();
    int foreignLast = -1;
    bool foreignReset = false;
    bool foreignScheduled = false;

    QElapsedTimer clock;
    qint64 clockOffset = 0;
    QHash<CellKey, CellChange> changes;
    // The numbers of the cells last seen (shown or changed), per row and
    // model column; NaN for text and null cells.
    mutable QHash<RowKey, QVector<double>> seen;

    qint64 now() const { return clock.elapsed() + clockOffset; }
    bool foreignThread() const { return QThread::currentThread() != q->thread(); }
    int shownCount() const
    {
        const int count = shown ? shown->count() : 0;
        return limit < 0 ? count : qMin(count, limit);
    }
    QList<Record> shownRows() const
    {
        QList<Record> list;
        const int count = shownCount();
        list.reserve(count);
        if (shown) {
            auto it = shown->begin();
            for (int i = 0; i < count; ++i, ++it)
                list.append(*it);
        }
        return list;
    }
    int lastTableColumn() const { return table ? table->columnCount() - 1 : -1; }
    void columnRange(int first, int last, int &lo, int &hi) const
    {
        lo = first < 0 ? 0 : first;
        hi = last < 0 ? lastTableColumn() : last;
    }

    void attach(IndexList *index);
    void detach();
    void enqueue(const IndexObserver::Batch &batch);
    void flush();
    void relayout();
    bool applyFast(const IndexObserver::Batch &batch, int lo, int hi);
    void applyDiff(const QSet<RowKey> &touched, int lo, int hi, bool noteChanges);
    bool applySequence(QVector<int> removed, std::vector<Entering> entering, int lo, int hi);
    void applyAsLayout(QVector<int> removed, std::vector<Entering> entering);
    void emitDataChanged(QVector<int> rowList, int lo, int hi);
    void noteChanged(const Record &record, int lo, int hi);
    void remember(const Record &record) const;
    void forget(const Record &record);
};

void IndexModelPrivate::attach(IndexList *index)
{
    shown = index;
    if (!shown)
        return;
    shown->addObserver(q);
}

void IndexModelPrivate::detach()
{
    if (shown)
        shown->removeObserver(q);
    shown = nullptr;
}

void IndexModelPrivate::enqueue(const IndexObserver::Batch &batch)
{
    if (foreignThread()) {
        QMutexLocker locker(&foreignMutex);
        foreignTouched += batch.leaving;
        foreignTouched += batch.entering;
        int lo, hi;
        columnRange(batch.firstColumn, batch.lastColumn, lo, hi);
        foreignFirst = qMin(foreignFirst, lo);
        foreignLast = qMax(foreignLast, hi);
        if (!foreignScheduled) {
            foreignScheduled = true;
            QMetaObject::invokeMethod(q, "applyForeignChanges", Qt::QueuedConnection);
        }
        return;
    }
    pending.append(batch);
    if (depth == 0)
        flush();
}

void IndexModelPrivate::flush()
{
    if (pending.isEmpty() && !pendingReset)
        return;
    const QVector<IndexObserver::Batch> batches = std::move(pending);
    pending.clear();
    const bool reset = pendingReset;
    pendingReset = false;

    int lo = std::numeric_limits<int>::max(), hi = -1;
    for (const IndexObserver::Batch &batch : batches) {
        int first, last;
        columnRange(batch.firstColumn, batch.lastColumn, first, last);
        lo = qMin(lo, first);
        hi = qMax(hi, last);
        // The rows that both left and entered were updated: note their cells.
        QSet<RowKey> entering;
        for (const Record &record : batch.entering)
            entering.insert(record.row());
        for (const Record &record : batch.leaving) {
            if (entering.contains(record.row()))
                noteChanged(record, first, last);
        }
    }
    if (changes.size() > 4096) {
        const qint64 expired = now() - highlightPeriod;
        for (auto it = changes.begin(); it != changes.end();)
            it = it.value().at < expired ? changes.erase(it) : std::next(it);
    }
    if (reset || !shown) {
        relayout();
        return;
    }
    if (batches.size() == 1 && limit < 0 && applyFast(batches.first(), lo, hi))
        return;
    QSet<RowKey> touched;
    for (const IndexObserver::Batch &batch : batches) {
        for (const Record &record : batch.leaving)
            touched.insert(record.row());
        for (const Record &record : batch.entering)
            touched.insert(record.row());
    }
    applyDiff(touched, lo, hi, false);
}

// One layoutChanged: the rows are read again from the index and every
// persistent index follows its row (or becomes invalid when the row left).
void IndexModelPrivate::relayout()
{
    const QList<Record> next = shownRows();
    emit q->layoutAboutToBeChanged();
    const QModelIndexList before = q->persistentIndexList();
    QModelIndexList after;
    after.reserve(before.size());
    if (!before.isEmpty()) {
        QHash<RowKey, int> wanted;
        for (const QModelIndex &index : before)
            wanted.insert(rows.at(index.row()).row(), -1);
        int left = wanted.size();
        for (int i = 0; i < next.size() && left > 0; ++i) {
            const auto it = wanted.find(next.at(i).row());
            if (it != wanted.end() && it.value() < 0) {
                it.value() = i;
                --left;
            }
        }
        for (const QModelIndex &index : before) {
            const int row = wanted.value(rows.at(index.row()).row(), -1);
            after.append(row < 0 ? QModelIndex() : q->index(row, index.column()));
        }
    }
    rows.clear();
    rows.insert(0, next);
    seen.clear();
    q->changePersistentIndexList(before, after);
    emit q->layoutChanged();
}

// A single batch whose positions the index reported: no walk of the list.
bool IndexModelPrivate::applyFast(const IndexObserver::Batch &batch, int lo, int hi)
{
    const int count = rows.count();
    if (batch.leaving.size() != batch.leavingPositions.size()
        || batch.entering.size() != batch.enteringPositions.size())
        return false;
    QHash<RowKey, int> enteringAt;
    for (int i = 0; i < batch.entering.size(); ++i)
        enteringAt.insert(batch.entering.at(i).row(), batch.enteringPositions.at(i));
    QVector<int> removed;
    std::vector<Entering> entering;
    QSet<RowKey> updated;
    for (int i = 0; i < batch.leaving.size(); ++i) {
        const int position = batch.leavingPositions.at(i);
        const Record &record = batch.leaving.at(i);
        if (position < 0)
            continue;
        // The model must be where the index was before the batch.
        if (position >= count || rows.at(position) != record)
            return false;
        const auto it = enteringAt.constFind(record.row());
        if (it == enteringAt.constEnd()) {
            removed.append(position);
        } else {
            entering.push_back({ record, position, it.value() });
            updated.insert(record.row());
        }
    }
    for (int i = 0; i < batch.entering.size(); ++i) {
        if (!updated.contains(batch.entering.at(i).row()))
            entering.push_back({ batch.entering.at(i), -1, batch.enteringPositions.at(i) });
    }
    if (removed.size() + int(entering.size()) > layoutThreshold) {
        applyAsLayout(removed, std::move(entering));
        return true;
    }
    if (!applySequence(removed, std::move(entering), lo, hi)) {
        qWarning() << "IndexModel: the index reported positions that do not add up; "
                      "reading it again";
        relayout();
    }
    return true;
}

// Compares the model's rows with the index: rows not touched by the changes
// keep their order, the touched ones left, entered or moved.
void IndexModelPrivate::applyDiff(const QSet<RowKey> &touchedRows, int lo, int hi, bool noteChanges)
{
    const QList<Record> next = shownRows();
    QSet<RowKey> touched = touchedRows;
    if (limit >= 0) {
        // Rows pushed out of or pulled into the window count as touched.
        QSet<RowKey> before, after;
        for (int i = 0; i < rows.count(); ++i)
            before.insert(rows.at(i).row());
        for (const Record &record : next)
            after.insert(record.row());
        for (RowKey row : before)
            if (!after.contains(row))
                touched.insert(row);
        for (RowKey row : after)
            if (!before.contains(row))
                touched.insert(row);
    }
    QHash<RowKey, int> leaving;
    QVector<RowKey> keptBefore;
    int i = 0;
    for (auto it = rows.cbegin(), end = rows.cend(); it != end; ++it, ++i) {
        if (touched.contains(it->row()))
            leaving.insert(it->row(), i);
        else
            keptBefore.append(it->row());
    }
    QVector<int> removed;
    std::vector<Entering> entering;
    int kept = 0;
    bool consistent = true;
    QSet<RowKey> staying;
    for (int j = 0; j < next.size(); ++j) {
        const Record &record = next.at(j);
        if (!touched.contains(record.row())) {
            consistent
                = consistent && kept < keptBefore.size() && keptBefore.at(kept) == record.row();
            ++kept;
            continue;
        }
        const auto it = leaving.constFind(record.row());
        entering.push_back({ record, it == leaving.constEnd() ? -1 : it.value(), j });
        if (it != leaving.constEnd()) {
            staying.insert(record.row());
            if (noteChanges)
                noteChanged(record, lo, hi);
        }
    }
    consistent = consistent && kept == keptBefore.size();
    for (auto it = leaving.cbegin(); it != leaving.cend(); ++it) {
        if (!staying.contains(it.key()))
            removed.append(it.value());
    }
    if (!consistent)
        relayout();
    else if (removed.size() + int(entering.size()) > layoutThreshold)
        applyAsLayout(removed, std::move(entering));
    else if (!applySequence(removed, std::move(entering), lo, hi))
        relayout();
}

// The same change as applySequence(), told as one layoutChanged: the rows
// leave and enter silently and each persistent index is moved to where its
// row went, computed from the positions alone (no walk of the rows).
void IndexModelPrivate::applyAsLayout(QVector<int> removed, std::vector<Entering> entering)
{
    emit q->layoutAboutToBeChanged();
    QVector<int> leaving = removed;
    QHash<RowKey, int> updatedFinal;
    for (const Entering &e : entering) {
        if (e.cur >= 0) {
            leaving.append(e.cur);
            updatedFinal.insert(e.record.row(), e.final);
        }
    }
    std::sort(leaving.begin(), leaving.end());
    leaving.erase(std::unique(leaving.begin(), leaving.end()), leaving.end());
    std::sort(entering.begin(), entering.end(),
              [](const Entering &a, const Entering &b) { return a.final < b.final; });
    QSet<RowKey> removedRows;
    for (int position : qAsConst(removed))
        removedRows.insert(rows.at(position).row());

    const QModelIndexList before = q->persistentIndexList();
    QModelIndexList after;
    after.reserve(before.size());
    for (const QModelIndex &index : before) {
        const RowKey row = rows.at(index.row()).row();
        int target = -1;
        if (updatedFinal.contains(row)) {
            target = updatedFinal.value(row);
        } else if (!removedRows.contains(row)) {
            // An untouched row keeps its order among the untouched rows; the
            // entering rows that land before it push it down.
            target = index.row()
                - int(std::lower_bound(leaving.cbegin(), leaving.cend(), index.row())
                      - leaving.cbegin());
            for (const Entering &e : entering) {
                if (e.final > target)
                    break;
                ++target;
            }
        }
        after.append(target < 0 ? QModelIndex() : q->index(target, index.column()));
    }
    for (int k = leaving.size() - 1; k >= 0; --k) {
        if (removedRows.contains(rows.at(leaving.at(k)).row()))
            forget(rows.at(leaving.at(k)));
        rows.remove(leaving.at(k));
    }
    for (const Entering &e : entering)
        rows.insert(qMin(e.final, rows.count()), e.record);
    q->changePersistentIndexList(before, after);
    emit q->layoutChanged();
    if (rows.count() != shownCount()) {
        qWarning() << "IndexModel: the index reported positions that do not add up; "
                      "reading it again";
        relayout();
    }
}

// Removes the rows at `removed` (positions of the model's rows), then brings
// each entering row to its final place in ascending order of final places,
// with moves for updated rows and inserts for new ones, then tells the views
// which cells of the updated rows changed. False when the result does not
// match the index (the caller then lays the model out again).
bool IndexModelPrivate::applySequence(QVector<int> removed, std::vector<Entering> entering, int lo,
                                      int hi)
{
    std::sort(removed.begin(), removed.end());
    removed.erase(std::unique(removed.begin(), removed.end()), removed.end());
    for (Entering &e : entering) {
        if (e.cur >= 0)
            e.cur -= int(std::lower_bound(removed.cbegin(), removed.cend(), e.cur)
                         - removed.cbegin());
    }
    for (int last = removed.size() - 1; last >= 0;) {
        int first = last;
        while (first > 0 && removed.at(first - 1) == removed.at(first) - 1)
            --first;
        q->beginRemoveRows(QModelIndex(), removed.at(first), removed.at(last));
        for (int k = last; k >= first; --k) {
            forget(rows.at(removed.at(k)));
            rows.remove(removed.at(k));
        }
        q->endRemoveRows();
        last = first - 1;
    }

    std::sort(entering.begin(), entering.end(),
              [](const Entering &a, const Entering &b) { return a.final < b.final; });
    // The updated rows not yet placed, by current row; moves and inserts
    // shift them monotonically, so their order never changes.
    std::vector<std::pair<int, int>> waiting; // current row, entering item
    for (int k = 0; k < int(entering.size()); ++k) {
        if (entering[k].cur >= 0)
            waiting.emplace_back(entering[k].cur, k);
    }
    std::sort(waiting.begin(), waiting.end());
    QVector<int> changedRows;
    for (int k = 0; k < int(entering.size()); ++k) {
        Entering &e = entering[k];
        int cur = -1;
        if (e.cur >= 0) {
            const auto self
                = std::find_if(waiting.begin(), waiting.end(),
                               [k](const std::pair<int, int> &w) { return w.second == k; });
            cur = self->first;
            waiting.erase(self);
            for (auto &w : waiting) {
                if (w.first > cur)
                    --w.first;
            }
        }
        // Every row before the place is final, except the updated rows that
        // still wait there: step over them.
        int place = e.final;
        for (const auto &w : waiting) {
            if (w.first >= place)
                break;
            ++place;
        }
        const int size = rows.count() - (cur >= 0 ? 1 : 0);
        if (place > size)
            return false;
        if (cur < 0) {
            q->beginInsertRows(QModelIndex(), place, place);
            rows.insert(place, e.record);
            q->endInsertRows();
        } else if (place != cur) {
            q->beginMoveRows(QModelIndex(), cur, cur, QModelIndex(),
                             place > cur ? place + 1 : place);
            rows.remove(cur);
            rows.insert(place, e.record);
            q->endMoveRows();
        }
        for (auto &w : waiting) {
            if (w.first >= place)
                ++w.first;
        }
        if (cur >= 0)
            changedRows.append(e.final);
    }
    if (rows.count() != shownCount())
        return false;
    emitDataChanged(changedRows, lo, hi);
    return true;
}

void IndexModelPrivate::emitDataChanged(QVector<int> rowList, int lo, int hi)
{
    int left = -1, right = -1;
    for (int c = 0; c < columns.size(); ++c) {
        if (columns.at(c) >= lo && columns.at(c) <= hi) {
            if (left < 0)
                left = c;
            right = c;
        }
    }
    if (left < 0 || rowList.isEmpty())
        return;
    std::sort(rowList.begin(), rowList.end());
    for (int last = rowList.size() - 1; last >= 0;) {
        int first = last;
        while (first > 0 && rowList.at(first - 1) >= rowList.at(first) - 1)
            --first;
        emit q->dataChanged(q->index(rowList.at(first), left), q->index(rowList.at(last), right));
        last = first - 1;
    }
}

void IndexModelPrivate::noteChanged(const Record &record, int lo, int hi)
{
    if (record.isNull())
        return;
    const qint64 at = now();
    auto known = seen.find(record.row());
    for (int c = 0; c < columns.size(); ++c) {
        const int column = columns.at(c);
        if (column < lo || column > hi)
            continue;
        const double value = numberOf(record.data(column));
        int direction = 0;
        if (known != seen.end() && !std::isnan(value) && !std::isnan(known.value().at(c))) {
            const double before = known.value().at(c);
            if (value == before)
                continue;
            direction = value > before ? 1 : -1;
        }
        changes.insert(qMakePair(record.row(), c), { at, direction });
        if (known != seen.end())
            known.value()[c] = value;
    }
    if (known == seen.end())
        remember(record);
}

void IndexModelPrivate::remember(const Record &record) const
{
    QVector<double> values(columns.size());
    for (int c = 0; c < columns.size(); ++c)
        values[c] = numberOf(record.data(columns.at(c)));
    seen.insert(record.row(), values);
}

void IndexModelPrivate::forget(const Record &record)
{
    if (seen.remove(record.row()) == 0 && changes.isEmpty())
        return;
    for (int c = 0; c < columns.size(); ++c)
        changes.remove(qMakePair(record.row(), c));
}

// --- the model ------------------------------------------------------------------

IndexModel::IndexModel(IndexIterative *index, QObject *parent)
    : QAbstractTableModel(parent)
    , d(new IndexModelPrivate(this))
{
    d->source = index;
    d->sourceList = dynamic_cast<IndexList *>(index);
    if (!d->sourceList) {
        qWarning() << "IndexModel: the index is not a list-family index; the model stays empty";
        return;
    }
    d->table = d->sourceList->table();
    if (d->table) {
        for (int c = 0; c < d->table->columnCount(); ++c)
            d->columns.append(c);
    }
    TableLocker lock(d->table);
    d->attach(d->sourceList);
    d->rows.insert(0, d->shownRows());
}

IndexModel::~IndexModel()
{
    TableLocker lock(d->table);
    d->detach();
    if (d->sourceWatch && d->sourceList)
        d->sourceList->removeObserver(d->sourceWatch.get());
    d->sortIndex.reset();
}

IndexIterative *IndexModel::sourceIndex() const
{
    return d->source;
}

IndexIterative *IndexModel::shownIndex() const
{
    return d->shown;
}

void IndexModel::setColumns(const QStringList &names)
{
    QVector<int> columns;
    if (d->table) {
        for (const QString &name : names) {
            const int column = d->table->columnIndex(name);
            if (column < 0)
                qWarning() << "IndexModel::setColumns: no column" << name;
            else
                columns.append(column);
        }
        if (names.isEmpty()) {
            for (int c = 0; c < d->table->columnCount(); ++c)
                columns.append(c);
        }
    }
    beginResetModel();
    d->columns = columns;
    d->seen.clear();
    d->changes.clear();
    endResetModel();
}

QStringList IndexModel::columns() const
{
    QStringList names;
    if (d->table) {
        for (int column : qAsConst(d->columns))
            names.append(d->table->columnName(column));
    }
    return names;
}

int IndexModel::tableColumn(int column) const
{
    return column >= 0 && column < d->columns.size() ? d->columns.at(column) : -1;
}

void IndexModel::setRowLimit(int limit)
{
    TableLocker lock(d->table);
    d->limit = limit < 0 ? -1 : limit;
    const QList<Record> next = d->shownRows();
    const int before = d->rows.count();
    if (next.size() < before) {
        beginRemoveRows(QModelIndex(), next.size(), before - 1);
        for (int row = before - 1; row >= next.size(); --row) {
            d->forget(d->rows.at(row));
            d->rows.remove(row);
        }
        endRemoveRows();
    } else if (next.size() > before) {
        beginInsertRows(QModelIndex(), before, next.size() - 1);
        d->rows.insert(before, next.mid(before));
        endInsertRows();
    }
}

int IndexModel::rowLimit() const
{
    return d->limit;
}

void IndexModel::setLayoutThreshold(int rows)
{
    d->layoutThreshold = qMax(rows, 0);
}

int IndexModel::layoutThreshold() const
{
    return d->layoutThreshold;
}

void IndexModel::setChangeHighlightPeriod(int milliseconds)
{
    d->highlightPeriod = qMax(milliseconds, 0);
}

int IndexModel::changeHighlightPeriod() const
{
    return d->highlightPeriod;
}

Record IndexModel::record(int row) const
{
    return row >= 0 && row < d->rows.count() ? d->rows.at(row) : Record();
}

int IndexModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : d->rows.count();
}

int IndexModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : d->columns.size();
}

QVariant IndexModel::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return QVariant();
    const int column = d->columns.at(index.column());
    switch (role) {
    case Qt::TextAlignmentRole:
        if (isNumeric(d->table->columnType(column)))
            return int(Qt::AlignRight | Qt::AlignVCenter);
        return QVariant();
    case RecordRole:
        return QVariant::fromValue(d->rows.at(index.row()));
    case ChangeDirectionRole:
    case ChangeAgeRole: {
        const auto it
            = d->changes.constFind(qMakePair(d->rows.at(index.row()).row(), index.column()));
        if (it == d->changes.constEnd())
            return QVariant();
        const qint64 age = d->now() - it.value().at;
        if (age > d->highlightPeriod)
            return QVariant();
        return role == ChangeAgeRole ? QVariant(int(age)) : QVariant(it.value().direction);
    }
    case Qt::DisplayRole:
    case Qt::EditRole: {
        TableLocker lock(d->table);
        const Record &record = d->rows.at(index.row());
        const Field field = record.data(column);
        if (role == Qt::DisplayRole && !d->seen.contains(record.row()))
            d->remember(record);
        if (field.isNull())
            return QVariant();
        if (role == Qt::EditRole)
            return field.toVariant();
        return field.type() == FieldType::BoardList ? field.toSystemString() : field.toString();
    }
    default:
        return QVariant();
    }
}

QVariant IndexModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation == Qt::Horizontal && role == Qt::DisplayRole && d->table && section >= 0
        && section < d->columns.size())
        return d->table->columnTitle(d->columns.at(section));
    return QAbstractTableModel::headerData(section, orientation, role);
}

void IndexModel::sort(int column, Qt::SortOrder order)
{
    if (!d->sourceList || !d->table)
        return;
    TableLocker lock(d->table);
    std::unique_ptr<HeaderSortIndex> previous = std::move(d->sortIndex);
    IndexList *next = d->sourceList;
    if (column >= 0 && column < d->columns.size()) {
        d->sortIndex.reset(new HeaderSortIndex(
            d->table, d->table->columnName(d->columns.at(column)), order, d->sourceList));
        d->sortIndex->build();
        next = d->sortIndex.get();
    }
    d->detach();
    d->attach(next);
    // Deleting a registered index is silent: the replaced sort index leaves
    // the table's registry first, so that the table's listeners hear of it.
    if (previous)
        d->table->removeIndex(previous.get());
    if (next == d->sourceList) {
        if (d->sourceWatch)
            d->sourceList->removeObserver(d->sourceWatch.get());
        d->sourceWatch.reset();
    } else if (!d->sourceWatch) {
        d->sourceWatch.reset(new SourceWatch(this));
        d->sourceList->addObserver(d->sourceWatch.get());
    }
    d->pending.clear();
    d->pendingReset = false;
    d->relayout();
}

void IndexModel::testingAdvanceClock(int milliseconds)
{
    d->clockOffset += milliseconds;
}

// --- observer callbacks (the changing thread, under the table's lock) ----------

void IndexModel::indexRowInserted(int position, const Record &record)
{
    Batch batch;
    batch.entering.append(record);
    batch.enteringPositions.append(position);
    d->enqueue(batch);
}

void IndexModel::indexRowRemoved(int position, const Record &record)
{
    Batch batch;
    batch.leaving.append(record);
    batch.leavingPositions.append(position);
    d->enqueue(batch);
}

void IndexModel::indexRowUpdated(int from, int to, const Record &record, int firstColumn,
                                 int lastColumn)
{
    Batch batch;
    batch.leaving.append(record);
    batch.leavingPositions.append(from);
    batch.entering.append(record);
    batch.enteringPositions.append(to);
    batch.firstColumn = firstColumn;
    batch.lastColumn = lastColumn;
    d->enqueue(batch);
}

void IndexModel::indexBatchProcessed(const Batch &batch)
{
    d->enqueue(batch);
}

void IndexModel::indexReset()
{
    if (d->foreignThread()) {
        QMutexLocker locker(&d->foreignMutex);
        d->foreignReset = true;
        if (!d->foreignScheduled) {
            d->foreignScheduled = true;
            QMetaObject::invokeMethod(this, "applyForeignChanges", Qt::QueuedConnection);
        }
        return;
    }
    d->pendingReset = true;
    if (d->depth == 0)
        d->flush();
}

void IndexModel::indexBeginUpdate()
{
    if (!d->foreignThread())
        ++d->depth;
}

void IndexModel::indexEndUpdate()
{
    if (d->foreignThread() || d->depth == 0)
        return;
    if (--d->depth == 0)
        d->flush();
}

void IndexModel::indexDestroyed()
{
    sourceDestroyed();
}

// Only the original index can go away under the model (the sort index is the
// model's own); its table may be going too, so the model forgets both.
void IndexModel::sourceDestroyed()
{
    const int count = d->rows.count();
    if (count > 0)
        beginRemoveRows(QModelIndex(), 0, count - 1);
    d->shown = nullptr;
    d->sourceList = nullptr;
    d->source = nullptr;
    d->table = nullptr;
    d->sourceWatch.reset();
    // The sort index is not deleted here: the table may be in its destructor.
    // It stays registered, accepting every row, until the model goes.
    if (d->sortIndex) {
        d->sortIndex->removeObserver(this);
        d->sortIndex->forgetSource();
    }
    d->rows.clear();
    d->pending.clear();
    d->seen.clear();
    d->changes.clear();
    if (count > 0)
        endRemoveRows();
}

void IndexModel::applyForeignChanges()
{
    TableLocker lock(d->table);
    QSet<RowKey> touched;
    QList<Record> touchedRecords; // keeps the touched rows' addresses theirs
    int lo, hi;
    bool reset;
    {
        QMutexLocker locker(&d->foreignMutex);
        touchedRecords.swap(d->foreignTouched);
        for (const Record &record : qAsConst(touchedRecords))
            touched.insert(record.row());
        lo = d->foreignFirst;
        hi = d->foreignLast;
        reset = d->foreignReset;
        d->foreignTouched.clear();
        d->foreignFirst = std::numeric_limits<int>::max();
        d->foreignLast = -1;
        d->foreignReset = false;
        d->foreignScheduled = false;
    }
    if (reset || !d->shown)
        d->relayout();
    else
        d->applyDiff(touched, lo, hi, true);
}
