#ifndef DATABASE_RANGESET_H
#define DATABASE_RANGESET_H

#include <database/database_global.h>

#include <QVector>
#include <QtGlobal>

#include <algorithm>
#include <iterator>

// RangeSet: a set of positions held as sorted, disjoint half-open ranges.
//
// It gathers the positions to take out of a PartitionList so that they can be
// removed in one pass (PartitionList::removeRanges). A range (from, to) holds
// from .. to - 1; one position p is the range (p, p + 1).
//
// Storage: one sorted vector of boundaries read in pairs (entries 2k and 2k + 1
// bound the k-th range).
// Invariants:
//   1. the boundary count is even;
//   2. boundaries are strictly increasing: ranges are non-empty, do not overlap
//      and do not touch;
//   3. so the ranges are maximal: adding a range that overlaps or touches
//      existing ones (to of one equal to from of the other) fuses them all into
//      one range. Adding positions 4 and 5 gives the single range (4, 6).
//
// Iteration yields the ranges in ascending order; count() is the number of
// ranges, not of positions.
//
// Threads: a value type without locking; const members may be used from several
// threads at once.
template <typename T> class RangeSet
{
public:
    struct Range
    {
        T from;
        T to;
    };

    // Walks the ranges in ascending order.
    class const_iterator
    {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Range;
        using difference_type = std::ptrdiff_t;
        using pointer = const Range *;
        using reference = Range;

        const_iterator() = default;
        explicit const_iterator(const T *boundary)
            : m_boundary(boundary)
        {
        }
        Range operator*() const { return Range { m_boundary[0], m_boundary[1] }; }
        const_iterator &operator++()
        {
            m_boundary += 2;
            return *this;
        }
        const_iterator operator++(int)
        {
            const_iterator old = *this;
            m_boundary += 2;
            return old;
        }
        bool operator==(const const_iterator &other) const
        {
            return m_boundary == other.m_boundary;
        }
        bool operator!=(const const_iterator &other) const
        {
            return m_boundary != other.m_boundary;
        }

    private:
        const T *m_boundary = nullptr;
    };

    // Adds the positions from .. to - 1. An empty range (from == to) adds
    // nothing; a reversed one (from > to) is a caller's error: warned about and
    // ignored.
    void addRange(T from, T to)
    {
        if (from >= to) {
            if (from > to)
                qWarning("RangeSet::addRange: reversed range ignored");
            return;
        }
        // Lower bound for `from` and upper bound for `to`: an odd index means
        // the boundary falls inside an existing range or touches it, and that
        // range's own boundary is kept, which fuses touching ranges too.
        const int first
            = int(std::lower_bound(m_bounds.cbegin(), m_bounds.cend(), from) - m_bounds.cbegin());
        const int last
            = int(std::upper_bound(m_bounds.cbegin(), m_bounds.cend(), to) - m_bounds.cbegin());
        const int eraseFrom = (first & 1) ? first - 1 : first;
        const int eraseTo = (last & 1) ? last + 1 : last;
        const T newFrom = (first & 1) ? m_bounds.at(first - 1) : from;
        const T newTo = (last & 1) ? m_bounds.at(last) : to;
        m_bounds.remove(eraseFrom, eraseTo - eraseFrom);
        m_bounds.insert(eraseFrom, newTo);
        m_bounds.insert(eraseFrom, newFrom);
    }
    // The single position `position`.
    void add(T position) { addRange(position, position + 1); }

    bool isEmpty() const { return m_bounds.isEmpty(); }
    // Number of ranges.
    int count() const { return m_bounds.size() / 2; }
    void clear() { m_bounds.clear(); }

    const_iterator begin() const { return const_iterator(m_bounds.constData()); }
    const_iterator end() const { return const_iterator(m_bounds.constData() + m_bounds.size()); }

    // The sorted boundary list: from0, to0, from1, to1, ...
    const QVector<T> &boundaries() const { return m_bounds; }

private:
    QVector<T> m_bounds;
};

#endif // DATABASE_RANGESET_H
