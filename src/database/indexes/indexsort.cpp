#include <database/indexsort.h>

#include "indexes/columnkeysort_p.h"
#include "indexes/indexobservers_p.h"
#include "storage/rowlayout_p.h"

#include <database/concurrentsort.h>
#include <database/indexsortcolumns.h>
#include <database/masterindex_struct.h>
#include <database/table.h>

#include <QHash>
#include <QMessageLogger>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <typeinfo>
#include <vector>

class IndexSortPrivate
{
public:
    // What preprocess() found, for the process() of the same batch.
    QList<Record> leaving;
    QVector<int> positions;
    // The subclass's order key (setOrderKey()), or null.
    quint64 (*keyOf)(const void *context, const Record &record) = nullptr;
    const void *keyContext = nullptr;
};

namespace {

// A 65536-bit filter of row addresses: most rows of a scan are rejected by
// one bit test before the hash is consulted.
class RowFilter
{
public:
    void insert(const unsigned char *row) { m_bits[slot(row) >> 6] |= bit(row); }
    bool mayContain(const unsigned char *row) const
    {
        return (m_bits[slot(row) >> 6] & bit(row)) != 0;
    }

private:
    static quint32 slot(const unsigned char *row)
    {
        return quint32((quint64(quintptr(row) >> 3) * 0x9E3779B97F4A7C15ull) >> 48);
    }
    static quint64 bit(const unsigned char *row) { return quint64(1) << (slot(row) & 63); }
    quint64 m_bits[1024] = {};
};

// Tells the observers of a sorted index where a batch took its rows from and
// put them, when it goes out of scope (after the batch, also on an early
// return). Costs nothing without observers.
class IndexBatchReport
{
public:
    IndexBatchReport(IndexObservers *observers, const QList<Record> &leaving,
                     const QVector<int> &positions, int first, int last)
        : m_observers(observers)
    {
        if (!m_observers)
            return;
        m_batch.leaving = leaving;
        m_batch.leavingPositions = positions;
        m_batch.firstColumn = first;
        m_batch.lastColumn = last;
    }
    ~IndexBatchReport()
    {
        if (m_observers)
            m_observers->batch(m_batch);
    }
    IndexBatchReport(const IndexBatchReport &) = delete;
    IndexBatchReport &operator=(const IndexBatchReport &) = delete;

    // The entering rows in an order the index no longer tells.
    void setEnteringUnplaced(const QList<Record> &entering)
    {
        if (m_observers)
            m_batch.entering = entering;
    }
    // The entering rows (in key order) went in as one run at `position`.
    void setEnteringFrom(const QList<Record> &entering, int position)
    {
        if (!m_observers)
            return;
        m_batch.entering = entering;
        m_batch.enteringPositions.resize(m_batch.entering.size());
        for (int i = 0; i < m_batch.entering.size(); ++i)
            m_batch.enteringPositions[i] = position + i;
    }
    // Each entering row (in key order) went to its upper bound `targets[i]` in
    // the list without the batch; the rows merged before it shift it by i.
    void setEnteringTargets(const QList<Record> &entering, const QVector<int> &targets)
    {
        if (!m_observers)
            return;
        m_batch.entering = entering;
        m_batch.enteringPositions.resize(targets.size());
        for (int i = 0; i < targets.size(); ++i)
            m_batch.enteringPositions[i] = targets.at(i) + i;
    }

private:
    IndexObservers *m_observers;
    IndexObserver::Batch m_batch;
};

// Puts the handles' bits (a Record is its row pointer) back into the list in
// their new order: relocated, each reference staying with its row, none
// counted again. REQUIRES: the same handles as the list holds, as many.
void relocateHandles(PartitionList<Record> &list, const std::vector<quint64> &handles)
{
    static_assert(sizeof(Record) == sizeof(quint64) && QTypeInfo<Record>::isRelocatable,
                  "a Record is one relocatable pointer");
    auto handle = handles.cbegin();
    for (auto it = list.begin(), end = list.end(); it != end; ++it, ++handle)
        std::memcpy(static_cast<void *>(&*it), &*handle, sizeof(Record));
}

// Puts the list into the order of its elements' order keys (IndexSort::
// setOrderKey()): `keys` and `handles` hold each element's key and bits, in
// list order, and are used up. Runs of equal odd keys keep their list order
// through the radix sort and are then sorted stably by compare(). False when
// memory for the sort is short (then the list is unchanged).
bool placeByKeys(const IndexSort &index, PartitionList<Record> &list, std::vector<quint64> &keys,
                 std::vector<quint64> &handles)
{
    const size_t n = keys.size();
    const auto decides = [](quint64 key) { return (key & 1) == 0; };
    bool inOrder = true;
    auto previous = list.cbegin();
    for (size_t i = 1; i < n && inOrder; ++i) {
        const auto current = previous + 1;
        inOrder = keys[i - 1] < keys[i]
            || (keys[i - 1] == keys[i]
                && (decides(keys[i]) || index.compare(*previous, *current) <= 0));
        previous = current;
    }
    if (inOrder)
        return true;
    // Without odd keys every tie is settled and the sorted keys are not needed.
    const bool anyRounded = std::any_of(keys.cbegin(), keys.cend(),
                                        [&decides](quint64 key) { return !decides(key); });
    try {
        ColumnKeySort::sortPairs(keys, handles,
                                 anyRounded ? ColumnKeySort::KeysAfter::Sorted
                                            : ColumnKeySort::KeysAfter::Unused);
    } catch (const std::bad_alloc &) {
        return false;
    }
    relocateHandles(list, handles);
    for (size_t first = 0; anyRounded && first < n;) {
        size_t last = first + 1;
        while (last < n && keys[last] == keys[first])
            ++last;
        if (last - first > 1 && !decides(keys[first])) {
            auto begin = list.begin();
            begin += qint64(first);
            std::stable_sort(begin, begin + qint64(last - first), IndexSort::LessThan(&index));
        }
        first = last;
    }
    return true;
}

} // namespace

IndexSort::IndexSort(Table *table, bool registered)
    : IndexList(table, registered)
    , d(new IndexSortPrivate)
{
}

IndexSort::IndexSort(const QString &tableName, bool registered)
    : IndexList(tableName, registered)
    , d(new IndexSortPrivate)
{
}

IndexSort::~IndexSort() = default;

const char *IndexSort::getClassName() const
{
    return "IndexSort";
}

// --- searches ----------------------------------------------------------------------

int IndexSort::search(const Record &key, int from) const
{
    const PartitionList<Record> &list = records();
    const int position = list.partitionPoint(
        from + 1, [this, &key](const Record &element) { return compare(element, key) < 0; });
    return position < list.count() && compare(list.at(position), key) == 0 ? position : -1;
}

int IndexSort::searchLast(const Record &key, int from) const
{
    const PartitionList<Record> &list = records();
    int low = qMax(from + 1, 0);
    int high = list.count();
    int result = -1;
    while (low < high) {
        const int middle = low + ((high - low) >> 1);
        const int c = compare(list.at(middle), key);
        if (c <= 0) {
            if (c == 0)
                result = middle;
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return result;
}

int IndexSort::searchFull(const Record &key, int from) const
{
    const PartitionList<Record> &list = records();
    const int start = qMax(from + 1, 0);
    if (start >= list.count())
        return -1;
    auto it = list.cbegin();
    it += start;
    int stepped = 0;
    for (auto end = list.cend(); it != end; ++it, ++stepped) {
        if (compare(*it, key) == 0)
            return stepped;
    }
    return -1;
}

Record IndexSort::find(const Record &key, int from) const
{
    const int position = search(key, from);
    return position < 0 ? Record() : records().at(position);
}

int IndexSort::lowerBound(const Record &record) const
{
    return records().partitionPoint(
        0, [this, &record](const Record &element) { return compare(element, record) < 0; });
}

int IndexSort::upperBound(const Record &record, int low) const
{
    return records().partitionPoint(
        low, [this, &record](const Record &element) { return compare(element, record) <= 0; });
}

int IndexSort::indexOfAdd(const Record &record) const
{
    return upperBound(record, 0);
}

// From the lower bound of the record's key to the end, then the stretch
// before it: together one pass over the list at worst, for a row that is no
// longer where its key says.
int IndexSort::indexOf(const Record &record) const
{
    if (record.isNull())
        return -1;
    const PartitionList<Record> &list = records();
    const int low = lowerBound(record);
    auto it = list.cbegin();
    it += low;
    const auto end = list.cend();
    for (int position = low; it != end; ++it, ++position) {
        if (*it == record)
            return position;
    }
    int position = 0;
    for (it = list.cbegin(); position < low; ++it, ++position) {
        if (*it == record)
            return position;
    }
    return -1;
}

QVector<int> IndexSort::bounds(const QList<Record> &wanted, bool upper) const
{
    const PartitionList<Record> &list = records();
    QVector<int> result(wanted.size());
    // Prefetch the lines of the row that compare() reads first: the header
    // and the first cells, and the presence flags at the end of the data.
    const Table *source = table();
    const int flags = RowLayout::HeaderSize + (source ? source->rowLength() : 0);
    const auto touch = [flags](const Record &element) {
        const unsigned char *row = element.row();
        __builtin_prefetch(row);
        __builtin_prefetch(row + 64);
        if (flags >= 128)
            __builtin_prefetch(row + flags);
    };
    if (upper) {
        list.partitionPoints(
            wanted.size(),
            [this, &wanted](const Record &element, int q) {
                return compare(element, wanted.at(q)) <= 0;
            },
            touch, result.data());
    } else {
        list.partitionPoints(
            wanted.size(),
            [this, &wanted](const Record &element, int q) {
                return compare(element, wanted.at(q)) < 0;
            },
            touch, result.data());
    }
    return result;
}

QVector<int> IndexSort::indexOfs(const QList<Record> &wanted) const
{
    const PartitionList<Record> &list = records();
    QVector<int> result(wanted.size(), -1);
    const QVector<int> lower = bounds(wanted, false);
    // Among the equal keys, by identity: handles are compared as pointers, so
    // that a run of equal keys costs a walk through contiguous handles rather
    // than a second search. The identity settles the position wherever the
    // walk meets the row; the key is read only after `firstCheck` rows and at
    // doubling distances, to end the walk of a row that is not in its run
    // (each read is a row fetched from memory, and runs of a few hundred
    // equal keys are common).
    constexpr int firstCheck = 1024;
    // Each walk starts at handles of its own, far from the last walk's: their
    // first lines are fetched a few walks ahead.
    constexpr int ahead = 4;
    const auto fetchWalk = [&list, &lower](int i) {
        const int from = lower.at(i);
        if (from < 0 || from >= list.count())
            return;
        const char *first = reinterpret_cast<const char *>(&list.at(from));
        for (int line = 0; line < 4; ++line)
            __builtin_prefetch(first + 64 * line);
    };
    for (int i = 0; i < std::min(ahead, int(wanted.size())); ++i)
        fetchWalk(i);
    for (int i = 0; i < wanted.size(); ++i) {
        if (i + ahead < wanted.size())
            fetchWalk(i + ahead);
        const Record &record = wanted.at(i);
        if (!record.isNull())
            result[i] = list.indexOfFrom(
                lower.at(i), record, firstCheck,
                [this, &record](const Record &element) { return compare(element, record) != 0; });
    }
    // Rows not found among their equal keys, to be found by one scan.
    QHash<const unsigned char *, int> strays;
    for (int i = 0; i < wanted.size(); ++i) {
        if (result.at(i) < 0 && !wanted.at(i).isNull())
            strays.insert(wanted.at(i).row(), -1);
    }
    if (strays.isEmpty())
        return result;
    auto filter = std::make_unique<RowFilter>();
    for (auto it = strays.cbegin(); it != strays.cend(); ++it)
        filter->insert(it.key());
    int left = strays.size();
    int position = 0;
    for (auto it = list.cbegin(), end = list.cend(); it != end && left > 0; ++it, ++position) {
        if (!filter->mayContain(it->row()))
            continue;
        const auto stray = strays.find(it->row());
        if (stray != strays.end() && stray.value() < 0) {
            stray.value() = position;
            --left;
        }
    }
    for (int i = 0; i < wanted.size(); ++i) {
        if (result.at(i) < 0 && !wanted.at(i).isNull())
            result[i] = strays.value(wanted.at(i).row(), -1);
    }
    return result;
}

// --- changes ----------------------------------------------------------------------

void IndexSort::build()
{
    Table *source = table();
    if (!source)
        return;
    TableLocker locker(source);
    const MasterIndex *master = source->masterIndex();
    if (!master || static_cast<const IndexList *>(master) == this)
        return;
    IndexResetScope resetting(observers());
    clear();
    // An index with an order key sorts by it; a multi-column index (exactly
    // IndexSortColumns) by the keys of its columns; any other by compare().
    // The keys need memory of their own: without it the build falls back on
    // the comparison sort rather than fail.
    std::unique_ptr<ColumnKeySort> columnKeys;
    std::vector<quint64> orderKeys;
    std::vector<quint64> handles;
    bool keyed = d->keyOf != nullptr;
    if (keyed) {
        try {
            orderKeys.reserve(size_t(master->count()));
            handles.reserve(size_t(master->count()));
        } catch (const std::bad_alloc &) {
            keyed = false;
        }
    } else if (typeid(*this) == typeid(IndexSortColumns)) {
        QVector<ColumnKeySort::Column> columns;
        for (const SortColumn &column : static_cast<IndexSortColumns *>(this)->columns())
            columns.append({ source->columnDef(column.name), column.order == Qt::DescendingOrder });
        try {
            columnKeys.reset(new ColumnKeySort(columns, master->count()));
            handles.reserve(size_t(master->count()));
        } catch (const std::bad_alloc &) {
            columnKeys.reset();
        }
        if (columnKeys && !columnKeys->usable())
            columnKeys.reset();
    }
    // Each handle is copied once, into the list, in master order: the
    // reference counts are touched row after row, not at random, and each
    // row's key is read while the row is at hand. With keys, the handles'
    // bits travel through the key sort and are put back in key order
    // (relocateHandles()).
    PartitionList<Record> &list = records();
    for (auto it = master->begin(), end = master->end(); it != end; ++it) {
        if (!filter(*it))
            continue;
        list.append(*it);
        if (keyed) {
            orderKeys.push_back(d->keyOf(d->keyContext, *it));
            handles.push_back(quint64(quintptr(it->row())));
        } else if (columnKeys) {
            columnKeys->add(it->row());
            handles.push_back(quint64(quintptr(it->row())));
        }
    }
    if (keyed) {
        if (placeByKeys(*this, list, orderKeys, handles))
            return;
    } else if (columnKeys && columnKeys->finish()) {
        if (columnKeys->inOrder())
            return;
        try {
            columnKeys->sort(handles);
        } catch (const std::bad_alloc &) {
            columnKeys.reset();
        }
        if (columnKeys) {
            relocateHandles(list, handles);
            return;
        }
    }
    if (!std::is_sorted(list.cbegin(), list.cend(), LessThan(this)))
        resort();
}

void IndexSort::add(const Record &record)
{
    if (!filter(record))
        return;
    PartitionList<Record> &list = records();
    const int n = list.count();
    // Rows often arrive in key order (builds, re-laying, ordered masters):
    // the upper bound is then the end, known from one comparison.
    const int position = n == 0 || compare(list.at(n - 1), record) <= 0 ? n : indexOfAdd(record);
    list.insert(position, record);
    if (IndexObservers *observers = this->observers())
        observers->inserted(position, record);
}

void IndexSort::reposition(const Record &record, int position, int first, int last)
{
    PartitionList<Record> &list = records();
    list.remove(position);
    const int to = indexOfAdd(record);
    list.insert(to, record);
    if (IndexObservers *observers = this->observers())
        observers->updated(position, to, record, first, last);
}

void IndexSort::update(const Record &changed, int first, int last, int position)
{
    // A copy: `changed` may be a handle stored in this very list.
    const Record record = changed;
    if (!filter(record)) {
        remove(record, position);
        return;
    }
    const PartitionList<Record> &list = records();
    const int n = list.count();
    if (position >= n || (position >= 0 && list.at(position) != record))
        position = -1;
    if (position < 0) {
        const int first = search(record, -1);
        if (first >= 0) {
            auto it = list.cbegin();
            it += first;
            for (int p = first; p < n; ++p, ++it) {
                if (*it == record) {
                    position = p;
                    break;
                }
                if (compare(record, *it) != 0)
                    break;
            }
        }
        if (position < 0) {
            const int found = IndexList::indexOf(record);
            if (found < 0) {
                add(record);
                return;
            }
            QMessageLogger("indexsort", 230,
                           "virtual void IndexSort::update(const Record&, int, int, int)")
                    .warning()
                << "update"
                << "Full search can impact the performance";
            reposition(record, found, first, last);
            return;
        }
    }
    const bool afterPrevious = position == 0 || compare(list.at(position - 1), record) <= 0;
    const bool beforeNext = position + 1 >= n || compare(record, list.at(position + 1)) <= 0;
    if (!afterPrevious || !beforeNext)
        reposition(record, position, first, last);
    else if (IndexObservers *observers = this->observers())
        observers->updated(position, position, record, first, last);
}

void IndexSort::clear()
{
    d->leaving.clear();
    d->positions.clear();
    IndexList::clear();
}

void IndexSort::preprocess(const QList<Record> &removed, const QList<Record> &updated, int, int,
                           const QList<Record> &, const QList<Record> &)
{
    d->leaving = removed + updated;
    d->positions = indexOfs(d->leaving);
}

QVector<int> IndexSort::leavingPositions(const QList<Record> &leaving) const
{
    const PartitionList<Record> &list = records();
    bool noted = d->leaving.size() == leaving.size();
    // The noted handles are fetched together before they are checked one by
    // one, so that the check waits for memory about once, not once per row.
    for (int i = 0; noted && i < leaving.size(); ++i) {
        const int position = d->positions.at(i);
        if (position >= 0 && position < list.count())
            __builtin_prefetch(&list.at(position));
    }
    for (int i = 0; noted && i < leaving.size(); ++i) {
        const int position = d->positions.at(i);
        noted = d->leaving.at(i) == leaving.at(i)
            && (position < 0 || (position < list.count() && list.at(position) == leaving.at(i)));
    }
    return noted ? d->positions : indexOfs(leaving);
}

QVector<bool> IndexSort::staying(const QList<Record> &updated, const QVector<int> &positions,
                                 int offset, const QList<Record> &inserted) const
{
    const PartitionList<Record> &list = records();
    QVector<int> sortedLeaving = positions;
    std::sort(sortedLeaving.begin(), sortedLeaving.end());
    const auto isLeaving = [&sortedLeaving](int position) {
        return std::binary_search(sortedLeaving.cbegin(), sortedLeaving.cend(), position);
    };
    QVector<bool> stays(updated.size(), false);
    QList<Record> candidates;
    QVector<int> candidateOf;
    // The neighbours' rows of a group are fetched before any is compared, so
    // that the group waits for memory about once rather than twice per row.
    constexpr int group = 64;
    for (int i = 0; i < updated.size(); ++i) {
        if (i % group == 0) {
            for (int j = i; j < std::min(i + group, updated.size()); ++j) {
                const int position = positions.at(offset + j);
                if (position > 0 && position <= list.count())
                    __builtin_prefetch(list.at(position - 1).row());
                if (position >= 0 && position + 1 < list.count())
                    __builtin_prefetch(list.at(position + 1).row());
            }
        }
        const int position = positions.at(offset + i);
        const Record &record = updated.at(i);
        if (position < 0 || !filter(record))
            continue;
        const bool afterPrevious = position == 0
            || (!isLeaving(position - 1) && compare(list.at(position - 1), record) < 0);
        const bool beforeNext = position + 1 >= list.count()
            || (!isLeaving(position + 1) && compare(record, list.at(position + 1)) < 0);
        if (afterPrevious && beforeNext) {
            stays[i] = true;
            candidates.append(record);
            candidateOf.append(i);
        }
    }
    if (candidates.isEmpty())
        return stays;
    // A row stays only when no other entering row shares its key: the merge
    // would order those by arrival, which may put the other one first.
    QList<Record> others;
    for (int i = 0; i < updated.size(); ++i) {
        if (!stays.at(i) && filter(updated.at(i)))
            others.append(updated.at(i));
    }
    for (const Record &record : inserted) {
        if (filter(record))
            others.append(record);
    }
    const LessThan less(this);
    std::sort(others.begin(), others.end(), less);
    QVector<int> order(candidates.size());
    for (int i = 0; i < order.size(); ++i)
        order[i] = i;
    std::sort(order.begin(), order.end(),
              [&](int a, int b) { return less(candidates.at(a), candidates.at(b)); });
    for (int k = 0; k < order.size(); ++k) {
        const Record &record = candidates.at(order.at(k));
        const bool equalCandidate = (k > 0 && compare(candidates.at(order.at(k - 1)), record) == 0)
            || (k + 1 < order.size() && compare(record, candidates.at(order.at(k + 1))) == 0);
        const auto other = std::lower_bound(others.cbegin(), others.cend(), record, less);
        if (equalCandidate || (other != others.cend() && compare(*other, record) == 0))
            stays[candidateOf.at(order.at(k))] = false;
    }
    return stays;
}

void IndexSort::process(const QList<Record> &removed, const QList<Record> &allUpdated, int first,
                        int last, const QList<Record> &inserted)
{
    PartitionList<Record> &list = records();
    const QList<Record> leaving = removed + allUpdated;
    QVector<int> positions = leaving.isEmpty() ? QVector<int>() : leavingPositions(leaving);
    d->leaving.clear();
    d->positions.clear();
    // Filled only for observers: what they are told once the batch is in.
    IndexBatchReport report(observers(), leaving, positions, first, last);

    // Updated rows that the merge would put back exactly where they stand
    // (strictly between staying neighbours, no other entering row with an
    // equal key) neither leave nor enter: the same result for less work.
    // Observers are told every updated row as leaving and entering, so an
    // observed index takes the full path.
    QList<Record> updated = allUpdated;
    if (!observers() && !allUpdated.isEmpty() && list.count() > 0) {
        const QVector<bool> stays = staying(allUpdated, positions, removed.size(), inserted);
        if (stays.contains(true)) {
            updated.clear();
            QVector<int> moving = positions.mid(0, removed.size());
            for (int i = 0; i < allUpdated.size(); ++i) {
                if (!stays.at(i)) {
                    updated.append(allUpdated.at(i));
                    moving.append(positions.at(removed.size() + i));
                }
            }
            positions = moving;
        }
    }

    if (list.count() > 0 && !positions.isEmpty()) {
        std::sort(positions.begin(), positions.end());
        RangeSet<int> ranges;
        bool any = false;
        for (int position : qAsConst(positions)) {
            if (position >= 0) {
                ranges.addRange(position, position + 1);
                any = true;
            }
        }
        if (any)
            list.removeRanges(ranges);
    }

    // When only inserted rows enter and all pass filter(), the entering list
    // is the caller's list, shared: no handle is copied for it.
    QList<Record> entering;
    if (updated.isEmpty()
        && std::all_of(inserted.cbegin(), inserted.cend(),
                       [this](const Record &record) { return filter(record); })) {
        entering = inserted;
    } else {
        entering.reserve(updated.size() + inserted.size());
        for (const Record &record : updated) {
            if (filter(record))
                entering.append(record);
        }
        for (const Record &record : inserted) {
            if (filter(record))
                entering.append(record);
        }
    }
    if (entering.isEmpty())
        return;

    // Rows that arrive in key order (a table file loads in master order) need
    // no sort, and when they all sort after the last row they are one run
    // appended at the end: the same places the upper-bound merge would give.
    const bool sorted = std::is_sorted(entering.cbegin(), entering.cend(), LessThan(this));
    if (list.count() == 0) {
        // Appending in arrival order and sorting stably gives the same order
        // as merging, with the sort spread over the thread pool.
        list.insert(0, entering);
        if (!sorted) {
            IndexQuietScope quiet(observers());
            resort();
            report.setEnteringUnplaced(entering);
        } else {
            report.setEnteringFrom(entering, 0);
        }
        return;
    }

    if (!sorted)
        std::stable_sort(entering.begin(), entering.end(), LessThan(this));
    if (compare(list.at(list.count() - 1), entering.constFirst()) <= 0) {
        report.setEnteringFrom(entering, list.count());
        list.insert(list.count(), entering);
        return;
    }
    // The entering rows are in key order, so are their upper bounds; the
    // running maximum only guards against a row standing out of order.
    QVector<int> targets = bounds(entering, true);
    for (int i = 1; i < targets.size(); ++i)
        targets[i] = qMax(targets.at(i), targets.at(i - 1));
    report.setEnteringTargets(entering, targets);
    list.insertSorted(targets, entering);
}

bool IndexSort::resortByKeys()
{
    PartitionList<Record> &list = records();
    const size_t n = size_t(list.count());
    std::vector<quint64> keys;
    std::vector<quint64> handles;
    try {
        keys.reserve(n);
        handles.reserve(n);
    } catch (const std::bad_alloc &) {
        return false;
    }
    for (auto it = list.cbegin(), end = list.cend(); it != end; ++it) {
        keys.push_back(d->keyOf(d->keyContext, *it));
        handles.push_back(quint64(quintptr(it->row())));
    }
    return placeByKeys(*this, list, keys, handles);
}

void IndexSort::resort()
{
    PartitionList<Record> &list = records();
    if (list.count() > 1 && (!d->keyOf || !resortByKeys()))
        ConcurrentSort::stableSortHelper(list.begin(), list.end(), LessThan(this));
    if (IndexObservers *observers = this->observers())
        observers->reset();
}

void IndexSort::setOrderKey(OrderKeyFunction keyOf, const void *context)
{
    d->keyOf = keyOf;
    d->keyContext = context;
}
