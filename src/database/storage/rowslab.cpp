#include "storage/rowslab_p.h"

#include "storage/rowlayout_p.h"

#include <database/table.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define DATABASE_POISON(address, size) ASAN_POISON_MEMORY_REGION(address, size)
#define DATABASE_UNPOISON(address, size) ASAN_UNPOISON_MEMORY_REGION(address, size)
#else
#define DATABASE_POISON(address, size) ((void)(address), (void)(size))
#define DATABASE_UNPOISON(address, size) ((void)(address), (void)(size))
#endif

namespace {

// About a megabyte per slab: a few dozen heap calls for a million rows, and
// little held back by a slab with a few live rows.
constexpr size_t kSlabBytes = size_t(1) << 20;
constexpr size_t kHeaderBytes = 16;
constexpr size_t kUnit = 8;

quint32 markerOf(const unsigned char *row)
{
    quint32 marker;
    std::memcpy(&marker, row + RowLayout::AllocationOffset, sizeof(marker));
    return marker;
}

void setMarker(unsigned char *row, quint32 marker)
{
    std::memcpy(row + RowLayout::AllocationOffset, &marker, sizeof(marker));
}

} // namespace

struct RowSlabAllocator::Slab
{
    std::atomic<qint64> live;
    size_t stride;

    unsigned char *base() { return reinterpret_cast<unsigned char *>(this); }
    unsigned char *row(size_t index) { return base() + kHeaderBytes + index * stride; }
    // Drops `count` from the count; frees the slab when none is left.
    void release(qint64 count)
    {
        if (live.fetch_sub(count, std::memory_order_acq_rel) == count) {
            this->~Slab();
            std::free(this);
        }
    }
};

static_assert(sizeof(std::atomic<qint64>) + sizeof(size_t) <= kHeaderBytes,
              "the slab header holds the count and the stride");

RowSlabAllocator::RowSlabAllocator(const Table *layout)
    : m_layout(layout)
    , m_rowSize(size_t(layout->rowSize()))
    , m_stride((m_rowSize + kUnit - 1) / kUnit * kUnit)
    , m_rowsPerSlab((kSlabBytes - kHeaderBytes) / m_stride)
{
}

RowSlabAllocator::~RowSlabAllocator()
{
    dropSlab();
}

void RowSlabAllocator::dropSlab()
{
    if (!m_slab)
        return;
    // The rows never handed out, and the allocator's own hold.
    m_slab->release(qint64(m_rowsPerSlab - m_used) + 1);
    m_slab = nullptr;
}

unsigned char *RowSlabAllocator::allocRow()
{
    if (m_rowsPerSlab < 2)
        return m_layout->allocRow();
    if (!m_slab || m_used == m_rowsPerSlab) {
        dropSlab();
        void *block = std::malloc(kHeaderBytes + m_rowsPerSlab * m_stride);
        if (!block)
            return nullptr;
        m_slab = new (block) Slab { { qint64(m_rowsPerSlab) + 1 }, m_stride };
        m_used = 0;
        DATABASE_POISON(m_slab->row(0), m_rowsPerSlab * m_stride);
    }
    unsigned char *row = m_slab->row(m_used++);
    DATABASE_UNPOISON(row, m_rowSize);
    m_layout->initRow(row);
    setMarker(row, quint32(size_t(row - m_slab->base()) / kUnit));
    return row;
}

void RowSlabAllocator::freeRow(unsigned char *row) noexcept
{
    const quint32 marker = markerOf(row);
    if (marker == 0) {
        std::free(row);
        return;
    }
    auto *slab = reinterpret_cast<Slab *>(row - size_t(marker) * kUnit);
    // The row's bytes are dead from here on; a stray use is caught under
    // the address sanitizer as for a heap block.
    DATABASE_POISON(row, slab->stride);
    slab->release(1);
}

bool RowSlabAllocator::inSlab(const unsigned char *row) noexcept
{
    return markerOf(row) != 0;
}

unsigned char *RowSlabAllocator::resizeRow(unsigned char *row, size_t oldSize,
                                           size_t newSize) noexcept
{
    if (!inSlab(row))
        return static_cast<unsigned char *>(std::realloc(row, newSize));
    auto *own = static_cast<unsigned char *>(std::malloc(newSize));
    if (!own)
        return nullptr;
    std::memcpy(own, row, std::min(oldSize, newSize));
    markOwnBlock(own);
    freeRow(row);
    return own;
}

void RowSlabAllocator::markOwnBlock(unsigned char *row) noexcept
{
    setMarker(row, 0);
}
