#ifndef DATABASE_CONCURRENTSORT_H
#define DATABASE_CONCURRENTSORT_H

#include <database/database_global.h>

#include <QtConcurrent/QtConcurrentMap>

#include <algorithm>
#include <array>

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
// parallel, merges them pairwise in two parallel levels and does the last merge
// on the calling thread. Each level waits for the previous one. Ranges shorter
// than 512 elements are sorted on the calling thread alone.
//
// Stability: every step is stable (std::stable_sort, std::inplace_merge of
// adjacent blocks in order), so elements with equal keys keep their order.
//
// Threads: the ordering is called on pool threads at once and must not change
// any state. Each task touches only its own stretch of the range and the
// structure behind the iterators must not change during the sort (for a
// PartitionList only elements move, never parts). The call returns when the
// range is sorted. While it waits for a level, Qt lets the calling thread run
// work that no pool thread has taken yet, so a call from a pool thread does not
// deadlock on a busy pool.

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

} // namespace Detail

template <typename Iterator, typename LessThan>
void stableSortHelper(Iterator begin, Iterator end, LessThan lessThan)
{
    using Block = BeginEnd<Iterator, LessThan>;
    using Merge = BeginMiddleEnd<Iterator, LessThan>;
    const auto n = end - begin;
    if (n < 512) {
        ConcurrentSort::sort(Block { begin, end, lessThan });
        return;
    }
    const Iterator b[9] = { begin,
                            begin + (n >> 3),
                            begin + (n >> 2),
                            begin + ((3 * n) >> 3),
                            begin + (n >> 1),
                            begin + ((5 * n) >> 3),
                            begin + ((6 * n) >> 3),
                            begin + ((7 * n) >> 3),
                            end };

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
