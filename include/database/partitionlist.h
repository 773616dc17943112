#ifndef DATABASE_PARTITIONLIST_H
#define DATABASE_PARTITIONLIST_H

#include <database/database_global.h>
#include <database/rangeset.h>

#include <QList>
#include <QVector>
#include <QtGlobal>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

template <typename T> class PartitionList;

// Called for elements a few places ahead of the one being destroyed when a
// part is released. An element type whose destruction touches memory elsewhere
// overloads it (next to the type) to prefetch that memory, so that releasing
// a part waits for memory about once per group of elements rather than once
// per element. Does nothing by default.
template <typename T> inline void prefetchForRelease(const T &)
{
}

// APartList: one part of a PartitionList, a bounded array of elements.
//
// Owned by its list and deleted with it; the elements in [0, count()) are live
// and hold their resources (for Record: one reference to the row each), the
// rest of the capacity is raw storage. Elements are relocated with memmove, so
// T must be a relocatable type (Q_MOVABLE_TYPE or primitive).
template <typename T> class DATABASE_EXPORT APartList
{
    static_assert(QTypeInfoQuery<T>::isRelocatable, "parts relocate their elements bitwise");
    static_assert(alignof(T) <= alignof(std::max_align_t), "parts use malloc alignment");

public:
    APartList(PartitionList<T> *owner, int capacity)
        : m_owner(owner)
    {
        realloc(capacity);
    }
    ~APartList()
    {
        constexpr int ahead = 48;
        for (int i = 0; i < m_count; ++i) {
            if (i + ahead < m_count)
                prefetchForRelease(m_items[i + ahead]);
            m_items[i].~T();
        }
        std::free(m_items);
    }
    APartList(const APartList &) = delete;
    APartList &operator=(const APartList &) = delete;

    int count() const { return m_count; }
    int capacity() const { return m_capacity; }
    PartitionList<T> *owner() const { return m_owner; }
    T &operator[](int i) { return m_items[i]; }
    const T &operator[](int i) const { return m_items[i]; }

    // Changes the capacity to `n` elements (never below count()), keeping the
    // contents. Throws std::bad_alloc when the storage cannot be had.
    void realloc(int n)
    {
        n = std::max(n, m_count);
        void *storage
            = std::realloc(static_cast<void *>(m_items), size_t(std::max(n, 1)) * sizeof(T));
        if (!storage)
            throw std::bad_alloc();
        m_items = static_cast<T *>(storage);
        m_capacity = n;
    }

private:
    friend class PartitionList<T>;

    T *m_items = nullptr;
    int m_capacity = 0;
    int m_count = 0;
    PartitionList<T> *m_owner;
};

// PartitionList: an ordered sequence stored as a chain of bounded parts, so
// that inserting or removing in the middle of millions of elements moves at
// most one part's worth of them. Used with T = Record by every list-shaped
// index; the list owns its parts, and each stored Record holds one reference
// to its row (the row is freed through its table when the last one goes).
//
// Structure. `parts` is an array of part pointers that always begins and ends
// with a null sentinel; the real parts lie between them in list order. A
// parallel array of start positions (the list position of each slot's first
// element; the trailing sentinel's entry is count()) makes at() and iterator
// jumps a binary search over parts instead of a walk; it is kept current by
// every change, so const members never write anything.
//
// Invariants (at rest, between public calls):
//   1. parts[0] and parts[last] are null, no other slot is;
//   2. no part is empty;
//   3. no part holds partSize (10000) or more elements: inserts split a part
//      that reaches it (a single insert at half its count);
//   4. count() is the sum of the part counts, and each start position is the
//      sum of the counts of the parts before it;
//   5. a part created by the list has capacity partSize + 2.
// Join rules: after a single remove, the part is joined with its next part and
// then with its previous part whenever the two counts sum to less than
// joinSize (5000); a sum of exactly joinSize does not join. After a range
// removal one joinPartitions() pass applies the same rule along the list.
// append() never splits: it opens a new last part when the last one would
// reach partSize, so a part filled by appends holds at most partSize - 1.
//
// Positions: remove() and removeRanges() ignore positions outside
// [0, count()); insert() at count() appends to the last part, beyond count()
// appends in a new last part, and a negative position is warned about and
// ignored. at() outside the list warns and returns a null element.
//
// Iterators (iterator, const_iterator) are random-access and cross parts; any
// change of the list's structure (insert, append, remove, clear, split, join)
// invalidates them. Writing through iterators (as a sort does) changes only
// elements, never the structure.
//
// Threads: not synchronised. The owning index changes the list under its
// table's discipline. Const members may run on several threads at once while
// nobody changes the list, and disjoint stretches may be written through
// iterators concurrently (the concurrent sort relies on both).
template <typename T> class DATABASE_EXPORT PartitionList
{
public:
    static constexpr int partSize = 10000;
    static constexpr int joinSize = 5000;
    using Part = APartList<T>;

    template <bool Const> class Iterator
    {
        friend class PartitionList;
        using List = std::conditional_t<Const, const PartitionList, PartitionList>;

    public:
        using iterator_category = std::random_access_iterator_tag;
        using value_type = T;
        using difference_type = qint64;
        using pointer = std::conditional_t<Const, const T *, T *>;
        using reference = std::conditional_t<Const, const T &, T &>;

        Iterator() = default;
        template <bool C = Const, typename = std::enable_if_t<C>>
        Iterator(const Iterator<false> &other) // iterator converts to const_iterator
            : m_list(other.m_list)
            , m_part(other.m_part)
            , m_slot(other.m_slot)
            , m_offset(other.m_offset)
        {
        }

        reference operator*() const { return m_part->m_items[m_offset]; }
        pointer operator->() const { return m_part->m_items + m_offset; }
        reference operator[](difference_type n) const { return *(*this + n); }

        Iterator &operator+=(difference_type n)
        {
            const qint64 inPart = qint64(m_offset) + n;
            if (m_part && inPart >= 0 && inPart < m_part->m_count)
                m_offset = int(inPart);
            else if (n != 0)
                seek(position() + n);
            return *this;
        }
        Iterator &operator-=(difference_type n) { return *this += -n; }
        Iterator &operator++()
        {
            if (++m_offset >= m_part->m_count)
                seek(m_list->m_starts[m_slot + 1], m_slot + 1);
            return *this;
        }
        Iterator &operator--()
        {
            if (m_offset > 0)
                --m_offset;
            else
                seek(position() - 1);
            return *this;
        }
        Iterator operator++(int)
        {
            Iterator old = *this;
            ++*this;
            return old;
        }
        Iterator operator--(int)
        {
            Iterator old = *this;
            --*this;
            return old;
        }
        friend Iterator operator+(Iterator it, difference_type n) { return it += n; }
        friend Iterator operator+(difference_type n, Iterator it) { return it += n; }
        friend Iterator operator-(Iterator it, difference_type n) { return it -= n; }
        friend difference_type operator-(const Iterator &a, const Iterator &b)
        {
            return a.position() - b.position();
        }
        // The part identifies the slot (the sentinels' null parts are only
        // ever the trailing one's, at end()). Comparing the pointer rather
        // than the slot keeps the compiler from fusing slot and offset into
        // one wide load of two narrow stores, which stalls every step of a
        // loop that has just advanced the iterator.
        friend bool operator==(const Iterator &a, const Iterator &b)
        {
            return a.m_offset == b.m_offset && a.m_part == b.m_part;
        }
        friend bool operator!=(const Iterator &a, const Iterator &b) { return !(a == b); }
        friend bool operator<(const Iterator &a, const Iterator &b)
        {
            return a.position() < b.position();
        }
        friend bool operator>(const Iterator &a, const Iterator &b) { return b < a; }
        friend bool operator<=(const Iterator &a, const Iterator &b) { return !(b < a); }
        friend bool operator>=(const Iterator &a, const Iterator &b) { return !(a < b); }

        // The list position of the element (count() for end()).
        qint64 position() const { return qint64(m_list->m_starts[m_slot]) + m_offset; }

    private:
        Iterator(List *list, qint64 pos)
            : m_list(list)
        {
            seek(pos);
        }
        void seek(qint64 pos) { seek(pos, m_list->slotAt(pos)); }
        void seek(qint64 pos, int slot)
        {
            m_slot = slot;
            m_part = m_list->m_parts[slot];
            m_offset = int(pos - m_list->m_starts[slot]);
        }

        List *m_list = nullptr;
        std::conditional_t<Const, const Part *, Part *> m_part = nullptr;
        int m_slot = 0;
        int m_offset = 0;

        template <bool> friend class Iterator;
    };
    using iterator = Iterator<false>;
    using const_iterator = Iterator<true>;

    PartitionList() = default;
    ~PartitionList() { deleteParts(); }
    PartitionList(const PartitionList &) = delete;
    PartitionList &operator=(const PartitionList &) = delete;

    int count() const { return m_count; }
    bool isEmpty() const { return m_count == 0; }

    // The element at `pos`: a binary search over the part start positions.
    // REQUIRES: 0 <= pos < count() (otherwise: warning, null element).
    const T &at(int pos) const
    {
        if (Q_UNLIKELY(pos < 0 || pos >= m_count)) {
            qWarning("PartitionList::at: position %d outside 0..%d", pos, m_count - 1);
            static const T null {};
            return null;
        }
        const int slot = slotAt(pos);
        return m_parts[slot]->m_items[pos - m_starts[slot]];
    }

    // The positions [first, last] between which partitionPoint(from, pred)
    // lies, found by probing only the parts' first elements: the part the
    // point falls in, and the next part's first position (count() after the
    // last part). A caller that searches the part itself in its own way
    // starts there. REQUIRES: as partitionPoint(); from < count().
    template <typename Pred> std::pair<int, int> partitionPart(int from, Pred pred) const
    {
        from = std::max(from, 0);
        if (from >= m_count)
            return { m_count, m_count };
        const int firstSlot = slotAt(from);
        const int slot = partitionSlot(firstSlot, pred);
        return { slot == firstSlot ? from : m_starts[slot], m_starts[slot + 1] };
    }

    // The first position in [from, count()) whose element fails `pred`, or
    // count(). REQUIRES: `pred` holds for a prefix of that range and fails for
    // the rest (as for std::partition_point). Probes the parts' first elements,
    // then one part's array directly: no position look-up per probe.
    template <typename Pred> int partitionPoint(int from, Pred pred) const
    {
        from = std::max(from, 0);
        if (from >= m_count)
            return m_count;
        const int firstSlot = slotAt(from);
        const int slot = partitionSlot(firstSlot, pred);
        const Part *part = m_parts[slot];
        const T *items = part->m_items;
        const T *found = std::partition_point(
            items + (slot == firstSlot ? from - m_starts[slot] : 0), items + part->m_count, pred);
        return m_starts[slot] + int(found - part->m_items);
    }

    // The first position in [from, count()) holding an element == `value`, or
    // -1. After `firstCheck` elements passed over, and again each time that
    // number doubles, `giveUp(element)` may end the walk (-1). Walks the
    // parts' arrays directly, so a long walk costs a comparison per element
    // and nothing per position.
    template <typename GiveUp>
    int indexOfFrom(int from, const T &value, int firstCheck, GiveUp giveUp) const
    {
        from = std::max(from, 0);
        if (from >= m_count)
            return -1;
        int passed = 0;
        qint64 check = std::max(firstCheck, 1);
        const int lastSlot = m_parts.size() - 1;
        const int firstSlot = slotAt(from);
        for (int slot = firstSlot; slot < lastSlot; ++slot) {
            const Part *part = m_parts[slot];
            const int begin = slot == firstSlot ? from - m_starts[slot] : 0;
            const T *items = part->m_items;
            // Up to the next check, a search that the library unrolls.
            for (int i = begin; i < part->m_count;) {
                const int chunk = int(std::min<qint64>(part->m_count - i, check - passed));
                const T *hit = std::find(items + i, items + i + chunk, value);
                if (hit != items + i + chunk)
                    return m_starts[slot] + int(hit - items);
                passed += chunk;
                i += chunk;
                if (passed == check) {
                    if (giveUp(items[i - 1]))
                        return -1;
                    check *= 2;
                }
            }
        }
        return -1;
    }

    // partitionPoint(0, ...) for `n` queries at once: points[q] becomes the first
    // position whose element fails pred(element, q). REQUIRES: for each q,
    // pred(·, q) holds for a prefix of the list and fails for the rest.
    //
    // The searches advance in lockstep, a group of queries per step, so that
    // the memory each probe needs is fetched while the other queries of the
    // group are probed: `touch(element)` is called one pass before
    // pred(element, q) and should prefetch what pred will read (for records:
    // the row). A batch of searches then waits for memory about once per step
    // of the group rather than once per probe.
    template <typename Pred, typename Touch>
    void partitionPoints(int n, Pred pred, Touch touch, int *points) const
    {
        constexpr int group = 32;
        int low[group];
        int high[group];
        const T *items[group];
        const int lastSlot = m_parts.size() - 1; // the trailing sentinel
        for (int first = 0; first < n; first += group) {
            const int size = std::min(group, n - first);
            // The part: the last one whose first element passes (the first
            // real part when none does), as partitionPoint() finds it.
            for (int i = 0; i < size; ++i) {
                low[i] = 2;
                high[i] = lastSlot;
            }
            const auto slotProbe = [this, &low, &high](int i) -> const T & {
                return m_parts[low[i] + ((high[i] - low[i]) >> 1)]->m_items[0];
            };
            lockstep(size, first, low, high, slotProbe, pred, touch);
            // Within the part: its own array, no position look-up per probe.
            for (int i = 0; i < size; ++i) {
                const Part *part = m_parts[low[i] - 1];
                items[i] = part ? part->m_items : nullptr;
                points[first + i] = part ? m_starts[low[i] - 1] : 0;
                low[i] = 0;
                high[i] = part ? part->m_count : 0;
            }
            const auto itemProbe = [&items, &low, &high](int i) -> const T & {
                return items[i][low[i] + ((high[i] - low[i]) >> 1)];
            };
            lockstep(size, first, low, high, itemProbe, pred, touch);
            for (int i = 0; i < size; ++i)
                points[first + i] += low[i];
        }
    }

    // Inserts `value` before position `pos`, splitting the part at half when it
    // reaches partSize.
    void insert(int pos, const T &value)
    {
        int slot = 0;
        Part *part = partForInsert(pos, slot);
        if (!part)
            return;
        if (part->m_count == part->m_capacity)
            part->realloc(grownCapacity(part, 1));
        T *gap = openGap(part, pos, 1);
        new (gap) T(value);
        ++m_count;
        if (part->m_count >= partSize)
            split(slot, part->m_count / 2);
        else
            recount(slot + 1);
    }

    // Inserts `values` as a run before position `pos`, in their order, shifting
    // the receiving part once. A part pushed to partSize or beyond is cut into
    // equal pieces each below partSize (two halves when it just reached it).
    void insert(int pos, const QList<T> &values)
    {
        if (values.size() <= 1) {
            if (!values.isEmpty())
                insert(pos, values.first());
            return;
        }
        int slot = 0;
        Part *part = partForInsert(pos, slot);
        if (!part)
            return;
        const int n = values.size();
        if (part->m_count + n > part->m_capacity)
            part->realloc(grownCapacity(part, n));
        T *gap = openGap(part, pos, n);
        for (const T &value : values)
            new (gap++) T(value);
        m_count += n;
        if (part->m_count >= partSize)
            splitEvenly(slot);
        else
            recount(slot + 1);
    }

    // Inserts values[i] before the element now at targets[i], all at once:
    // each part receiving values is merged in one pass from its end, so a
    // batch costs a part's length per part it touches rather than per value.
    // Values with equal targets go in their given order; a target at a part's
    // end stays in that part, and a part that reaches partSize is split
    // evenly. REQUIRES: targets non-decreasing, within [0, count()], and as
    // many as values (otherwise: warning, nothing inserted).
    void insertSorted(const QVector<int> &targets, const QList<T> &values)
    {
        const int n = values.size();
        if (targets.size() != n || (n > 0 && (targets.first() < 0 || targets.last() > m_count))
            || !std::is_sorted(targets.cbegin(), targets.cend())) {
            qWarning(
                "PartitionList::insertSorted: targets out of order or range; nothing inserted");
            return;
        }
        if (n == 0)
            return;
        if (m_count == 0) {
            insert(0, values);
            return;
        }
        int lastValue = n;
        int firstSlot = m_parts.size() - 2;
        while (lastValue > 0) {
            // The part receiving targets[lastValue - 1] and every earlier value
            // bound for it: the last real slot whose start is below the target,
            // or the first real slot.
            const int target = targets.at(lastValue - 1);
            int slot = int(std::lower_bound(m_starts.cbegin() + 1, m_starts.cend() - 1, target)
                           - m_starts.cbegin())
                - 1;
            slot = std::max(slot, 1);
            const int start = m_starts[slot];
            int firstValue = lastValue - 1;
            while (firstValue > 0 && targets.at(firstValue - 1) > start)
                --firstValue;
            if (slot == 1)
                firstValue = 0;
            mergeInto(slot, start, targets, values, firstValue, lastValue);
            firstSlot = slot;
            lastValue = firstValue;
        }
        m_count += n;
        recount(firstSlot + 1);
    }

    // Appends at the end without ever splitting: a new last part is opened when
    // there is none or the last one would reach partSize.
    void append(const T &value)
    {
        int last = m_parts.size() - 2;
        if (!m_parts[last] || m_parts[last]->m_count + 1 >= partSize)
            last = createPart(last + 1);
        Part *part = m_parts[last];
        if (part->m_count == part->m_capacity)
            part->realloc(grownCapacity(part, 1));
        new (part->m_items + part->m_count) T(value);
        ++part->m_count;
        ++m_count;
        m_starts[last + 1] = m_count; // the trailing sentinel
    }

    // Removes the element at `pos` and applies the join rules; positions
    // outside the list are ignored.
    void remove(int pos)
    {
        if (pos < 0 || pos >= m_count)
            return;
        const int slot = slotAt(pos);
        Part *part = m_parts[slot];
        // The element leaves the list before it is destroyed, so a row freed
        // by its last reference never sees a half-changed list.
        const T removed = takeAt(part, pos - m_starts[slot]);
        --m_count;
        if (part->m_count == 0) {
            eraseSlot(slot);
            recount(slot);
            return;
        }
        recount(slot + 1);
        if (m_parts[slot + 1] && part->m_count + m_parts[slot + 1]->m_count < joinSize)
            join(slot);
        if (slot > 1 && part->m_count + m_parts[slot - 1]->m_count < joinSize)
            join(slot - 1);
    }

    // Removes every position of `ranges` (positions are those before the call;
    // the part outside [0, count()) is ignored). Each touched part is compacted
    // with one pass, then joinPartitions() runs once.
    void removeRanges(const RangeSet<int> &ranges)
    {
        const QVector<int> &bounds = ranges.boundaries();
        int range = 0;
        const int rangeCount = bounds.size() / 2;
        int partStart = 0; // position of the current part before the call
        for (int slot = 1; m_parts[slot] && range < rangeCount; ++slot) {
            Part *part = m_parts[slot];
            const int partEnd = partStart + part->m_count;
            while (range < rangeCount && bounds[2 * range + 1] <= partStart)
                ++range;
            int read = 0;
            int write = 0;
            while (range < rangeCount && bounds[2 * range] < partEnd) {
                const int from = std::max(bounds[2 * range], partStart) - partStart;
                const int to = std::min(bounds[2 * range + 1], partEnd) - partStart;
                moveDown(part->m_items + write, part->m_items + read, from - read);
                write += from - read;
                std::destroy(part->m_items + from, part->m_items + to);
                read = to;
                if (bounds[2 * range + 1] > partEnd)
                    break; // the range goes on into the next part
                ++range;
            }
            if (read > 0) {
                moveDown(part->m_items + write, part->m_items + read, part->m_count - read);
                write += part->m_count - read;
                m_count -= part->m_count - write;
                part->m_count = write;
            }
            partStart = partEnd;
        }
        joinPartitions();
    }

    // Drops every element and part; back to the two sentinels.
    void clear()
    {
        deleteParts();
        m_parts = { nullptr, nullptr };
        m_starts = { 0, 0 };
        m_count = 0;
    }

    // --- part management (each keeps counts and start positions current) ---

    // Inserts a fresh empty part (capacity partSize + 2) at `slot`, before the
    // part or sentinel there; returns `slot`. The caller fills it at once: an
    // empty part must not survive the public call that made it.
    // REQUIRES: 1 <= slot <= index of the trailing sentinel.
    int createPart(int slot)
    {
        Part *part = new Part(this, partSize + 2);
        m_parts.insert(slot, part);
        m_starts.insert(slot, m_starts[slot]);
        return slot;
    }

    // Moves the elements [at, count) of the part in `slot` into a new part
    // placed right after it. REQUIRES: a real part and 0 < at < its count.
    void split(int slot, int at)
    {
        Part *part = m_parts.value(slot);
        if (!part || at <= 0 || at >= part->m_count) {
            qWarning("PartitionList::split: no split of slot %d at %d", slot, at);
            return;
        }
        const int moved = part->m_count - at;
        Part *tail = new Part(this, std::max(partSize + 2, moved));
        std::memcpy(static_cast<void *>(tail->m_items), part->m_items + at,
                    size_t(moved) * sizeof(T));
        tail->m_count = moved;
        part->m_count = at;
        m_parts.insert(slot + 1, tail);
        m_starts.insert(slot + 1, 0);
        recount(slot + 1);
    }

    // Appends the part after `slot` to the part in `slot` and deletes it.
    // REQUIRES: both slots hold real parts.
    void join(int slot)
    {
        Part *part = m_parts.value(slot);
        Part *next = m_parts.value(slot + 1);
        if (!part || !next) {
            qWarning("PartitionList::join: slot %d has no next part", slot);
            return;
        }
        if (part->m_count + next->m_count > part->m_capacity)
            part->realloc(part->m_count + next->m_count);
        std::memcpy(static_cast<void *>(part->m_items + part->m_count), next->m_items,
                    size_t(next->m_count) * sizeof(T));
        part->m_count += next->m_count;
        next->m_count = 0;
        eraseSlot(slot + 1);
    }

    // Deletes empty parts and joins neighbours whose counts sum to less than
    // joinSize, walking the list once from the first part.
    void joinPartitions()
    {
        for (int slot = 1; m_parts[slot];) {
            if (m_parts[slot]->m_count == 0) {
                eraseSlot(slot);
                continue;
            }
            while (m_parts[slot + 1]
                   && m_parts[slot]->m_count + m_parts[slot + 1]->m_count < joinSize)
                join(slot);
            ++slot;
        }
        recount(1);
    }

    // --- iteration ---
    iterator begin() { return iterator(this, 0); }
    iterator end() { return iterator(this, m_count); }
    const_iterator begin() const { return const_iterator(this, 0); }
    const_iterator end() const { return const_iterator(this, m_count); }
    const_iterator cbegin() const { return begin(); }
    const_iterator cend() const { return end(); }

    // --- diagnostics ---

    // The counts of the real parts in list order.
    QVector<int> partCounts() const
    {
        QVector<int> counts;
        counts.reserve(m_parts.size() - 2);
        for (int slot = 1; m_parts[slot]; ++slot)
            counts << m_parts[slot]->m_count;
        return counts;
    }
    // The capacities of the real parts in list order.
    QVector<int> partCapacities() const
    {
        QVector<int> capacities;
        for (int slot = 1; m_parts[slot]; ++slot)
            capacities << m_parts[slot]->m_capacity;
        return capacities;
    }
    // Bytes held by the list itself: part storage by capacity plus the slot
    // arrays and part headers. The rows the elements refer to are not counted.
    qint64 memoryUsage() const
    {
        qint64 bytes = qint64(sizeof(*this)) + qint64(m_parts.capacity()) * qint64(sizeof(Part *))
            + qint64(m_starts.capacity()) * qint64(sizeof(int));
        for (int slot = 1; m_parts[slot]; ++slot)
            bytes += qint64(sizeof(Part)) + qint64(m_parts[slot]->m_capacity) * qint64(sizeof(T));
        return bytes;
    }

private:
    // One binary search per query i in [0, size) over [low[i], high[i]), all
    // advancing a step at a time: probe(i) is the middle element, prefetched
    // and touched a pass before pred(element, first + i) reads it.
    template <typename Probe, typename Pred, typename Touch>
    static void lockstep(int size, int first, int *low, int *high, Probe probe, Pred pred,
                         Touch touch)
    {
        for (bool active = true; active;) {
            for (int i = 0; i < size; ++i) {
                if (low[i] < high[i])
                    __builtin_prefetch(&probe(i));
            }
            for (int i = 0; i < size; ++i) {
                if (low[i] < high[i])
                    touch(probe(i));
            }
            active = false;
            for (int i = 0; i < size; ++i) {
                if (low[i] >= high[i])
                    continue;
                const int middle = low[i] + ((high[i] - low[i]) >> 1);
                if (pred(probe(i), first + i))
                    low[i] = middle + 1;
                else
                    high[i] = middle;
                active = active || low[i] < high[i];
            }
        }
    }

    // The slot holding position `pos`; the trailing sentinel for pos >= count().
    // The slot, from `firstSlot` on, of the last part whose first element
    // passes `pred` (`firstSlot` when no later one does).
    template <typename Pred> int partitionSlot(int firstSlot, Pred pred) const
    {
        int low = firstSlot + 1;
        int high = m_parts.size() - 1;
        while (low < high) {
            const int middle = low + ((high - low) >> 1);
            if (pred(m_parts[middle]->m_items[0]))
                low = middle + 1;
            else
                high = middle;
        }
        return low - 1;
    }

    int slotAt(qint64 pos) const
    {
        if (pos >= m_count)
            return m_parts.size() - 1;
        // Last real slot whose start is not after pos (parts are never empty,
        // so starts are strictly increasing over real slots).
        return int(std::upper_bound(m_starts.cbegin() + 1, m_starts.cend() - 1, int(pos))
                   - m_starts.cbegin())
            - 1;
    }

    // The part that receives an insert at `pos` (a position equal to a part's
    // end stays in that part); `pos` becomes the offset in it. Beyond the end
    // a new last part is created. Null for a negative position.
    Part *partForInsert(int &pos, int &slot)
    {
        if (pos < 0) {
            qWarning("PartitionList::insert: negative position %d ignored", pos);
            return nullptr;
        }
        // First slot whose end (the next slot's start) is at or after pos.
        slot
            = int(std::lower_bound(m_starts.cbegin() + 2, m_starts.cend(), pos) - m_starts.cbegin())
            - 1;
        if (pos > m_count || !m_parts[slot]) {
            slot = createPart(m_parts.size() - 1);
            pos = 0;
        } else {
            pos -= m_starts[slot];
        }
        return m_parts[slot];
    }

    static int grownCapacity(const Part *part, int extra)
    {
        const int needed = part->m_count + extra;
        return std::max(needed, std::min(part->m_capacity * 2, partSize + 2));
    }

    // Shifts the elements from `offset` up by `n` (capacity must allow it) and
    // returns the raw gap; the part's count already includes the gap.
    static T *openGap(Part *part, int offset, int n)
    {
        T *gap = part->m_items + offset;
        std::memmove(static_cast<void *>(gap + n), gap, size_t(part->m_count - offset) * sizeof(T));
        part->m_count += n;
        return gap;
    }

    static T takeAt(Part *part, int offset)
    {
        T *item = part->m_items + offset;
        T taken(std::move(*item));
        item->~T();
        --part->m_count;
        moveDown(item, item + 1, part->m_count - offset);
        return taken;
    }

    static void moveDown(T *to, T *from, int n)
    {
        if (to != from && n > 0)
            std::memmove(static_cast<void *>(to), from, size_t(n) * sizeof(T));
    }

    // Cuts the part in `slot` into the fewest equal pieces that each stay
    // below partSize, splitting from the back so every element moves once.
    void splitEvenly(int slot)
    {
        Part *part = m_parts[slot];
        const int total = part->m_count;
        const int pieces = (total + partSize - 2) / (partSize - 1);
        const int base = total / pieces;
        const int longer = total % pieces; // the first `longer` pieces get one more
        for (int piece = pieces - 1; piece > 0; --piece)
            split(slot, piece * base + std::min(piece, longer));
        if (part->m_capacity > partSize + 2)
            part->realloc(partSize + 2);
    }

    // insertSorted() for the values [firstValue, lastValue), all bound for the
    // part at `slot` whose list start is `start`. Leaves m_count and the
    // later starts to the caller.
    void mergeInto(int slot, int start, const QVector<int> &targets, const QList<T> &values,
                   int firstValue, int lastValue)
    {
        Part *part = m_parts[slot];
        const int extra = lastValue - firstValue;
        if (part->m_count + extra > part->m_capacity)
            part->realloc(grownCapacity(part, extra));
        T *items = part->m_items;
        int unmoved = part->m_count; // existing elements [0, unmoved) are in place
        int write = part->m_count + extra;
        for (int i = lastValue - 1; i >= firstValue; --i) {
            const int local = targets.at(i) - start;
            const int chunk = unmoved - local;
            write -= chunk;
            std::memmove(static_cast<void *>(items + write),
                         static_cast<const void *>(items + local), size_t(chunk) * sizeof(T));
            unmoved = local;
            new (items + --write) T(values.at(i));
        }
        part->m_count += extra;
        if (part->m_count >= partSize)
            splitEvenly(slot);
    }

    void eraseSlot(int slot)
    {
        delete m_parts[slot];
        m_parts.remove(slot);
        m_starts.remove(slot);
    }

    // Recomputes the start positions from `slot` on.
    void recount(int slot)
    {
        for (int s = std::max(slot, 1); s < m_parts.size(); ++s)
            m_starts[s] = m_starts[s - 1] + (m_parts[s - 1] ? m_parts[s - 1]->m_count : 0);
    }

    void deleteParts()
    {
        for (Part *part : qAsConst(m_parts))
            delete part;
    }

    QVector<Part *> m_parts { nullptr, nullptr };
    QVector<int> m_starts { 0, 0 };
    int m_count = 0;
};

#endif // DATABASE_PARTITIONLIST_H
