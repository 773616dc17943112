#ifndef DATABASE_CONCURRENTSORT_H
#define DATABASE_CONCURRENTSORT_H

#include <database/database_global.h>
#include <database/record.h>

#include <QtConcurrent/QtConcurrentMap>

#include <QtCore/qtypeinfo.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>

#if defined(__SANITIZE_THREAD__)
#define DATABASE_CONCURRENTSORT_TSAN
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define DATABASE_CONCURRENTSORT_TSAN
#endif
#endif
#ifdef DATABASE_CONCURRENTSORT_TSAN
#include <sanitizer/tsan_interface.h>
#endif

// ConcurrentSort: a stable sort of a random-access range on the global thread
// pool, used by sorted indexes to re-establish the order of their whole
// partitioned list.
//
// stableSortHelper() cuts the range into eight blocks at fixed offsets (n/8,
// n/4, ..., 7n/8, whatever the number of processors), sorts the blocks in
// parallel and merges them pairwise in three levels. Each level waits for the
// previous one. Ranges shorter than 512 elements are sorted on the calling
// thread alone.
//
// Relocatable elements (those Qt declares relocatable, as Record is): the
// elements are moved out of the range once, bit for bit, into a contiguous
// array, sorted there and moved back, so that no handle is copied or
// destroyed on the way (no reference-count traffic) and the merges run over
// plain memory. Each block is sorted by binary insertion into runs of 32 and
// bottom-up merges; every merge level, the last one included, is cut by merge
// paths into eight equal pieces of output so that all processors share it. Two
// neighbouring runs already in order are joined with one comparison, so sorted
// input costs about one comparison per element. The range itself is written
// only at the end: an ordering that throws leaves it as it was. The array
// takes two pointers' worth of memory per element; when it cannot be had, or
// the elements are not relocatable, the blocks are sorted and merged in place
// through the iterators (std::stable_sort, std::inplace_merge), the last merge
// on the calling thread.
//
// Stability: every step is stable (a run never takes an element of its right
// neighbour before an equal one of its own), so elements with equal keys keep
// their order.
//
// Threads: the ordering is called on pool threads at once and must not change
// any state. Each task touches only its own stretch of the range or of the
// array and the structure behind the iterators must not change during the sort
// (for a PartitionList only elements move, never parts). The call returns when
// the range is sorted. While it waits for a level, Qt lets the calling thread
// run work that no pool thread has taken yet, so a call from a pool thread does
// not deadlock on a busy pool.

namespace ConcurrentSort {

// One block to sort.
template <typename Iterator, typename LessThan> struct BeginEnd
{
    Iterator begin;
    Iterator end;
    LessThan lessThan;
};

// Two adjacent sorted blocks [begin, middle) and [middle, end) to merge.
template <typename Iterator, typename LessThan> struct BeginMiddleEnd
{
    Iterator begin;
    Iterator middle;
    Iterator end;
    LessThan lessThan;
};

// Stable sort of one block on the calling thread (buffered merge sort, or an
// in-place stable sort when no buffer can be had).
template <typename Iterator, typename LessThan> void sort(const BeginEnd<Iterator, LessThan> &block)
{
    std::stable_sort(block.begin, block.end, block.lessThan);
}

// Stable merge of two adjacent sorted blocks.
template <typename Iterator, typename LessThan>
void inplaceMerge(const BeginMiddleEnd<Iterator, LessThan> &blocks)
{
    std::inplace_merge(blocks.begin, blocks.middle, blocks.end, blocks.lessThan);
}

namespace Detail {

// Qt's thread engine orders every task after the blocking call starts it and
// before the call returns, through synchronisation that the thread sanitizer
// cannot see in an uninstrumented Qt. Marking exactly those edges lets the
// sanitizer check the sort's own memory accesses, and nothing is hidden.
inline void publish(const void *task)
{
#ifdef DATABASE_CONCURRENTSORT_TSAN
    __tsan_release(const_cast<void *>(task));
#else
    Q_UNUSED(task);
#endif
}

inline void receive(const void *task)
{
#ifdef DATABASE_CONCURRENTSORT_TSAN
    __tsan_acquire(const_cast<void *>(task));
#else
    Q_UNUSED(task);
#endif
}

// Runs every task with `run` on the global pool and returns when all are done.
template <typename Task, std::size_t N>
void runAll(std::array<Task, N> &tasks, void (*run)(const Task &))
{
    for (const Task &task : tasks)
        publish(&task);
    QtConcurrent::blockingMap(tasks, [run](Task &task) {
        receive(&task);
        run(task);
        publish(&task);
    });
    for (const Task &task : tasks)
        receive(&task);
}

// Elements of relocatable types move by copying their bytes: the source is
// then treated as raw memory and neither destroyed nor read as an object.
template <typename T> inline void relocate(T *to, const T *from)
{
    std::memcpy(static_cast<void *>(to), static_cast<const void *>(from), sizeof(T));
}

template <typename T> inline void relocateRange(T *to, const T *from, std::ptrdiff_t n)
{
    if (n > 0)
        std::memcpy(static_cast<void *>(to), static_cast<const void *>(from), sizeof(T) * n);
}

template <typename T> inline void relocateOverlapping(T *to, const T *from, std::ptrdiff_t n)
{
    if (n > 0)
        std::memmove(static_cast<void *>(to), static_cast<const void *>(from), sizeof(T) * n);
}

// The memory an ordering is about to read for an element, fetched ahead so
// that the merges wait for memory less: a record's row, of which the key
// cells are usually near the start. Nothing for other elements.
template <typename T> inline void prefetch(const T &)
{
}

inline void prefetch(const Record &record)
{
    const unsigned char *row = record.row();
    if (!row)
        return;
    __builtin_prefetch(row);
    __builtin_prefetch(row + 64);
}

// How far ahead of the merge position the next rows are fetched.
constexpr std::ptrdiff_t kPrefetchDistance = 8;

// Stable merge of the sorted runs [a, aEnd) and [b, bEnd) into out, which
// overlaps neither. An element of b goes first only when it is less than the
// element of a.
template <typename T, typename LessThan>
void mergeRuns(const T *a, const T *aEnd, const T *b, const T *bEnd, T *out,
               const LessThan &lessThan)
{
    if (a != aEnd && b != bEnd && !lessThan(*b, aEnd[-1])) {
        relocateRange(out, a, aEnd - a);
        relocateRange(out + (aEnd - a), b, bEnd - b);
        return;
    }
    for (std::ptrdiff_t i = 0; i < kPrefetchDistance; ++i) {
        if (a + i < aEnd)
            prefetch(a[i]);
        if (b + i < bEnd)
            prefetch(b[i]);
    }
    while (a != aEnd && b != bEnd) {
        if (lessThan(*b, *a)) {
            if (bEnd - b > kPrefetchDistance)
                prefetch(b[kPrefetchDistance]);
            relocate(out++, b++);
        } else {
            if (aEnd - a > kPrefetchDistance)
                prefetch(a[kPrefetchDistance]);
            relocate(out++, a++);
        }
    }
    relocateRange(out, a, aEnd - a);
    relocateRange(out + (aEnd - a), b, bEnd - b);
}

// How many of the first `diagonal` elements of the stable merge of a and b
// come from a (a merge path): the rest of them are the first of b.
template <typename T, typename LessThan>
std::ptrdiff_t mergePath(const T *a, std::ptrdiff_t aCount, const T *b, std::ptrdiff_t bCount,
                         std::ptrdiff_t diagonal, const LessThan &lessThan)
{
    std::ptrdiff_t low = std::max<std::ptrdiff_t>(0, diagonal - bCount);
    std::ptrdiff_t high = std::min(diagonal, aCount);
    while (low < high) {
        const std::ptrdiff_t fromA = low + (high - low) / 2;
        // a[fromA] precedes b[diagonal - fromA - 1] unless it is greater.
        if (!lessThan(b[diagonal - fromA - 1], a[fromA]))
            low = fromA + 1;
        else
            high = fromA;
    }
    return low;
}

constexpr std::ptrdiff_t kInsertionRun = 32;

// Binary insertion sort of a short run. While each element has stayed at the
// end, the next one is first compared with the last alone, so sorted input
// costs one comparison per element.
template <typename T, typename LessThan>
void insertionSort(T *data, std::ptrdiff_t n, const LessThan &lessThan)
{
    for (std::ptrdiff_t i = 0; i < n; ++i)
        prefetch(data[i]);
    alignas(T) unsigned char held[sizeof(T)];
    const T &element = *reinterpret_cast<const T *>(held);
    bool ascending = true;
    for (std::ptrdiff_t i = 1; i < n; ++i) {
        relocate(reinterpret_cast<T *>(held), data + i);
        if (ascending && !lessThan(element, data[i - 1]))
            continue; // already in place
        std::ptrdiff_t low = 0, high = ascending ? i - 1 : i;
        while (low < high) {
            const std::ptrdiff_t middle = low + (high - low) / 2;
            if (lessThan(element, data[middle]))
                high = middle;
            else
                low = middle + 1;
        }
        ascending = false;
        if (low == i) {
            ascending = true;
            continue;
        }
        relocateOverlapping(data + low + 1, data + low, i - low);
        relocate(data + low, reinterpret_cast<const T *>(held));
    }
}

// Stable sort of one block of the array: runs of kInsertionRun, then
// bottom-up merges between the block and its stretch of scratch. The result
// is left in `data`.
template <typename T, typename LessThan>
void sortBlock(T *data, T *scratch, std::ptrdiff_t n, const LessThan &lessThan)
{
    for (std::ptrdiff_t start = 0; start < n; start += kInsertionRun)
        insertionSort(data + start, std::min(kInsertionRun, n - start), lessThan);
    T *from = data;
    T *to = scratch;
    for (std::ptrdiff_t width = kInsertionRun; width < n; width *= 2) {
        for (std::ptrdiff_t start = 0; start < n; start += 2 * width) {
            const std::ptrdiff_t middle = std::min(start + width, n);
            const std::ptrdiff_t end = std::min(start + 2 * width, n);
            mergeRuns(from + start, from + middle, from + middle, from + end, to + start, lessThan);
        }
        std::swap(from, to);
    }
    if (from != data)
        relocateRange(data, from, n);
}

template <typename T, typename LessThan> struct BlockTask
{
    T *data;
    T *scratch;
    std::ptrdiff_t count;
    LessThan lessThan;
};

template <typename T, typename LessThan> void runBlock(const BlockTask<T, LessThan> &task)
{
    sortBlock(task.data, task.scratch, task.count, task.lessThan);
}

// One piece of a merge: output positions [first, last) of the stable merge of
// the runs [a, a + aCount) and [b, b + bCount) into out.
template <typename T, typename LessThan> struct MergeTask
{
    const T *a;
    std::ptrdiff_t aCount;
    const T *b;
    std::ptrdiff_t bCount;
    T *out;
    std::ptrdiff_t first;
    std::ptrdiff_t last;
    LessThan lessThan;
};

template <typename T, typename LessThan> void runMerge(const MergeTask<T, LessThan> &task)
{
    const std::ptrdiff_t aFirst
        = mergePath(task.a, task.aCount, task.b, task.bCount, task.first, task.lessThan);
    const std::ptrdiff_t aLast
        = mergePath(task.a, task.aCount, task.b, task.bCount, task.last, task.lessThan);
    mergeRuns(task.a + aFirst, task.a + aLast, task.b + (task.first - aFirst),
              task.b + (task.last - aLast), task.out + task.first, task.lessThan);
}

// Merges neighbouring pairs of the sorted runs between cuts of `from` (Runs
// runs; a run spans 8 / Runs of the positions cuts[0] .. cuts[8], counted from
// the array's start) into `to`, cut into eight pieces of output in all.
template <std::size_t Runs, typename T, typename LessThan>
void mergeLevel(const T *from, T *to, const std::ptrdiff_t (&cuts)[9], const LessThan &lessThan)
{
    constexpr std::size_t cutsPerRun = 8 / Runs;
    constexpr std::size_t piecesPerMerge = 8 / (Runs / 2);
    using Task = MergeTask<T, LessThan>;
    const auto piece = [&](std::size_t slot) {
        const std::size_t merge = slot / piecesPerMerge;
        const std::size_t part = slot % piecesPerMerge;
        const std::ptrdiff_t begin = cuts[2 * merge * cutsPerRun];
        const std::ptrdiff_t middle = cuts[(2 * merge + 1) * cutsPerRun];
        const std::ptrdiff_t end = cuts[(2 * merge + 2) * cutsPerRun];
        const std::ptrdiff_t total = end - begin;
        return Task { from + begin,
                      middle - begin,
                      from + middle,
                      end - middle,
                      to + begin,
                      std::ptrdiff_t(total * std::ptrdiff_t(part) / std::ptrdiff_t(piecesPerMerge)),
                      std::ptrdiff_t(total * std::ptrdiff_t(part + 1)
                                     / std::ptrdiff_t(piecesPerMerge)),
                      lessThan };
    };
    std::array<Task, 8> tasks { piece(0), piece(1), piece(2), piece(3),
                                piece(4), piece(5), piece(6), piece(7) };
    runAll(tasks, &runMerge<T, LessThan>);
}

// Frees the sort's array with std::free.
struct FreeMemory
{
    void operator()(void *memory) const { std::free(memory); }
};

// The sort over a contiguous array; false when the array cannot be had.
template <typename Iterator, typename LessThan>
bool sortThroughArray(Iterator begin, const std::ptrdiff_t (&cuts)[9], LessThan lessThan)
{
    using T = typename std::iterator_traits<Iterator>::value_type;
    const std::ptrdiff_t n = cuts[8];
    std::unique_ptr<void, FreeMemory> memory(std::malloc(sizeof(T) * std::size_t(n) * 2));
    if (!memory)
        return false;
    T *const array = static_cast<T *>(memory.get());
    T *const scratch = array + n;
    {
        Iterator it = begin;
        for (std::ptrdiff_t i = 0; i < n; ++i, ++it)
            relocate(array + i, std::addressof(*it));
    }

    using Block = BlockTask<T, LessThan>;
    const auto block = [&](int i) {
        return Block { array + cuts[i], scratch + cuts[i], cuts[i + 1] - cuts[i], lessThan };
    };
    std::array<Block, 8> blocks { block(0), block(1), block(2), block(3),
                                  block(4), block(5), block(6), block(7) };
    runAll(blocks, &runBlock<T, LessThan>);
    mergeLevel<8>(array, scratch, cuts, lessThan);
    mergeLevel<4>(scratch, array, cuts, lessThan);
    mergeLevel<2>(array, scratch, cuts, lessThan);

    Iterator it = begin;
    for (std::ptrdiff_t i = 0; i < n; ++i, ++it)
        relocate(std::addressof(*it), scratch + i);
    return true;
}

} // namespace Detail

template <typename Iterator, typename LessThan>
void stableSortHelper(Iterator begin, Iterator end, LessThan lessThan)
{
    using Block = BeginEnd<Iterator, LessThan>;
    using Merge = BeginMiddleEnd<Iterator, LessThan>;
    using T = typename std::iterator_traits<Iterator>::value_type;
    const auto n = end - begin;
    if (n < 512) {
        ConcurrentSort::sort(Block { begin, end, lessThan });
        return;
    }
    const std::ptrdiff_t cuts[9] = { 0,
                                     std::ptrdiff_t(n >> 3),
                                     std::ptrdiff_t(n >> 2),
                                     std::ptrdiff_t((3 * n) >> 3),
                                     std::ptrdiff_t(n >> 1),
                                     std::ptrdiff_t((5 * n) >> 3),
                                     std::ptrdiff_t((6 * n) >> 3),
                                     std::ptrdiff_t((7 * n) >> 3),
                                     std::ptrdiff_t(n) };
    if (QTypeInfo<T>::isRelocatable && Detail::sortThroughArray(begin, cuts, lessThan))
        return;

    const Iterator b[9] = { begin,           begin + cuts[1], begin + cuts[2],
                            begin + cuts[3], begin + cuts[4], begin + cuts[5],
                            begin + cuts[6], begin + cuts[7], end };

    // Fixed arrays rather than growable lists: an ordering need not be
    // assignable (a lambda is not).
    std::array<Block, 8> blocks { Block { b[0], b[1], lessThan }, Block { b[1], b[2], lessThan },
                                  Block { b[2], b[3], lessThan }, Block { b[3], b[4], lessThan },
                                  Block { b[4], b[5], lessThan }, Block { b[5], b[6], lessThan },
                                  Block { b[6], b[7], lessThan }, Block { b[7], b[8], lessThan } };
    Detail::runAll(blocks, &ConcurrentSort::sort<Iterator, LessThan>);

    std::array<Merge, 4> pairs { Merge { b[0], b[1], b[2], lessThan },
                                 Merge { b[2], b[3], b[4], lessThan },
                                 Merge { b[4], b[5], b[6], lessThan },
                                 Merge { b[6], b[7], b[8], lessThan } };
    Detail::runAll(pairs, &ConcurrentSort::inplaceMerge<Iterator, LessThan>);

    std::array<Merge, 2> halves { Merge { b[0], b[2], b[4], lessThan },
                                  Merge { b[4], b[6], b[8], lessThan } };
    Detail::runAll(halves, &ConcurrentSort::inplaceMerge<Iterator, LessThan>);

    ConcurrentSort::inplaceMerge(Merge { b[0], b[4], b[8], lessThan });
}

} // namespace ConcurrentSort

#endif // DATABASE_CONCURRENTSORT_H
