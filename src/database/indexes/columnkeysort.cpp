#include "indexes/columnkeysort_p.h"

#include "storage/rowlayout_p.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>

namespace {

const quint64 kSignBit = quint64(1) << 63;
const quint64 kDecimalScaleBits = quint64(0x7f) << 56;

template <typename T> T cellValue(const unsigned char *row, const TableColumnDef *column)
{
    T value;
    std::memcpy(&value, RowLayout::cell(row, column), sizeof(T));
    return value;
}

// Radix digits of 8 bits. A pass scatters its elements to one place per
// bucket at once; with 256 buckets those places (and their pages) stay in the
// caches and the TLB, which at 2048 they did not: more passes, each cheaper.
// A digit that every key shares costs no pass at all.
const int kDigitBits = 8;
const int kDigits = (64 + kDigitBits - 1) / kDigitBits;
const int kBuckets = 1 << kDigitBits;

// Stable sort of `payloads` by `keys` (both rearranged). Only the bits in
// which some key differs from the first one get passes: the bits above and
// below them are shared by every key and order nothing, so 2000 distinct
// prices take two passes whatever their offset and scale. Without
// `keepKeys` the keys are left in no particular order: the last pass then
// moves the payloads alone.
void radixSort(std::vector<quint64> &keys, std::vector<quint64> &payloads, bool keepKeys)
{
    const size_t n = keys.size();
    if (n < 2)
        return;
    const quint64 first = keys[0];
    quint64 differ = 0;
    for (const quint64 key : keys)
        differ |= key ^ first;
    if (differ == 0)
        return;
    const int low = __builtin_ctzll(differ);
    const int bits = 64 - __builtin_clzll(differ) - low;
    const int digits = (bits + kDigitBits - 1) / kDigitBits;
    std::vector<quint32> counts(size_t(digits) * kBuckets, 0);
    for (const quint64 key : keys) {
        for (int d = 0; d < digits; ++d)
            ++counts[size_t(d) * kBuckets + ((key >> (low + d * kDigitBits)) & (kBuckets - 1))];
    }
    int lastPass = -1;
    for (int d = 0; d < digits; ++d) {
        if (counts[size_t(d) * kBuckets + ((first >> (low + d * kDigitBits)) & (kBuckets - 1))]
            != n)
            lastPass = d;
    }
    // Filled by the first scatter before anything reads them: no zero fill.
    std::unique_ptr<quint64[]> spareKeys;
    std::unique_ptr<quint64[]> sparePayloads;
    quint64 *from[2] = { keys.data(), payloads.data() };
    for (int d = 0; d < digits; ++d) {
        quint32 *count = counts.data() + size_t(d) * kBuckets;
        const int shift = low + d * kDigitBits;
        if (count[(first >> shift) & (kBuckets - 1)] == n)
            continue;
        quint32 start = 0;
        for (int b = 0; b < kBuckets; ++b) {
            const quint32 c = count[b];
            count[b] = start;
            start += c;
        }
        if (!spareKeys) {
            spareKeys.reset(new quint64[n]);
            sparePayloads.reset(new quint64[n]);
        }
        quint64 *to[2] = { from[0] == keys.data() ? spareKeys.get() : keys.data(),
                           from[1] == payloads.data() ? sparePayloads.get() : payloads.data() };
        if (d == lastPass && !keepKeys) {
            for (size_t i = 0; i < n; ++i)
                to[1][count[(from[0][i] >> shift) & (kBuckets - 1)]++] = from[1][i];
            from[1] = to[1];
            break;
        }
        for (size_t i = 0; i < n; ++i) {
            const quint32 place = count[(from[0][i] >> shift) & (kBuckets - 1)]++;
            to[0][place] = from[0][i];
            to[1][place] = from[1][i];
        }
        from[0] = to[0];
        from[1] = to[1];
    }
    if (keepKeys && from[0] != keys.data())
        std::copy(from[0], from[0] + n, keys.begin());
    if (from[1] != payloads.data())
        std::copy(from[1], from[1] + n, payloads.begin());
}

} // namespace

void ColumnKeySort::sortPairs(std::vector<quint64> &keys, std::vector<quint64> &payloads,
                              KeysAfter keysAfter)
{
    radixSort(keys, payloads, keysAfter == KeysAfter::Sorted);
}

ColumnKeySort::ColumnKeySort(const QVector<Column> &columns, int expectedRows)
{
    for (const Column &column : columns) {
        if (!column.def) {
            m_usable = false;
            continue;
        }
        switch (column.def->type) {
        case FieldType::Integer:
        case FieldType::Integer64:
        case FieldType::DateTime:
        case FieldType::Decimal:
        case FieldType::Double:
            m_columns.push_back(ColumnKeys { column, {}, {}, 0, -1, {}, 0 });
            m_columns.back().keys.reserve(size_t(qMax(expectedRows, 0)));
            m_columns.back().present.reserve(size_t(qMax(expectedRows, 0)));
            break;
        case FieldType::VarChar:
            m_usable = false;
            break;
        default: // no order: every cell compares equal
            break;
        }
    }
}

void ColumnKeySort::add(const unsigned char *row)
{
    const quint32 position = m_rows++;
    if (!m_usable)
        return;
    for (ColumnKeys &keys : m_columns) {
        const TableColumnDef *def = keys.column.def;
        const bool present = RowLayout::isPresent(row, def);
        keys.present.push_back(present);
        quint64 key = 0;
        if (!present) {
            ++keys.nulls;
            keys.keys.push_back(0);
            continue;
        }
        switch (def->type) {
        case FieldType::Integer:
            key = quint64(qint64(cellValue<qint32>(row, def))) ^ kSignBit;
            break;
        case FieldType::Integer64:
        case FieldType::DateTime:
            key = quint64(cellValue<qint64>(row, def)) ^ kSignBit;
            break;
        case FieldType::Decimal: {
            const quint64 word = cellValue<quint64>(row, def);
            if ((word & ~kDecimalScaleBits) == 0) { // zero, of whatever scale
                keys.zeros.push_back(position);
                break;
            }
            const int scale = int((word & kDecimalScaleBits) >> 56);
            if (keys.scale < 0)
                keys.scale = scale;
            else if (keys.scale != scale)
                m_usable = false;
            key = word ^ kSignBit;
            break;
        }
        case FieldType::Double: {
            double value = cellValue<double>(row, def);
            if (std::isnan(value))
                m_usable = false;
            if (value == 0)
                value = 0; // -0 equals +0
            quint64 bits;
            std::memcpy(&bits, &value, sizeof(bits));
            key = (bits & kSignBit) ? ~bits : bits | kSignBit;
            break;
        }
        default:
            break;
        }
        keys.keys.push_back(keys.column.descending ? ~key : key);
    }
}

bool ColumnKeySort::finish()
{
    if (!m_usable)
        return false;
    for (ColumnKeys &keys : m_columns) {
        const quint64 zero = (quint64(qMax(keys.scale, 0)) << 56) ^ kSignBit;
        for (quint32 position : keys.zeros)
            keys.keys[position] = keys.column.descending ? ~zero : zero;
        keys.zeros = {};
        keys.least = ~quint64(0);
        for (quint32 i = 0; i < m_rows; ++i) {
            if (keys.present[i])
                keys.least = std::min(keys.least, keys.keys[i]);
        }
        // Nulls take the least key: their place is settled by presence.
        for (quint32 i = 0; keys.nulls > 0 && i < m_rows; ++i) {
            if (!keys.present[i])
                keys.keys[i] = keys.least;
        }
    }
    return true;
}

int ColumnKeySort::compareRows(quint32 a, quint32 b) const
{
    for (const ColumnKeys &keys : m_columns) {
        const bool aPresent = keys.present[a];
        const bool bPresent = keys.present[b];
        int c = 0;
        if (aPresent != bPresent)
            c = (aPresent ? 1 : -1) * (keys.column.descending ? -1 : 1);
        else if (aPresent && keys.keys[a] != keys.keys[b])
            c = keys.keys[a] < keys.keys[b] ? -1 : 1;
        if (c != 0)
            return c;
    }
    return 0;
}

bool ColumnKeySort::inOrder() const
{
    for (quint32 i = 1; i < m_rows; ++i) {
        if (compareRows(i - 1, i) > 0)
            return false;
    }
    return true;
}

std::vector<quint64> ColumnKeySort::order() const
{
    std::vector<quint64> positions(m_rows);
    for (quint32 i = 0; i < m_rows; ++i)
        positions[i] = i;
    std::vector<quint64> keys;
    std::vector<quint64> nulls;
    // Least significant column first: each stable pass keeps the order the
    // later columns gave among rows equal in this one.
    for (auto it = m_columns.crbegin(); it != m_columns.crend(); ++it) {
        const ColumnKeys &column = *it;
        if (column.nulls < qint64(m_rows)) {
            keys.resize(m_rows);
            for (quint32 j = 0; j < m_rows; ++j)
                keys[j] = column.keys[positions[j]];
            radixSort(keys, positions, false);
        }
        if (column.nulls == 0 || column.nulls == qint64(m_rows))
            continue;
        // Nulls before the present cells ascending, after them descending.
        nulls.clear();
        quint32 kept = 0;
        for (quint32 j = 0; j < m_rows; ++j) {
            if (column.present[positions[j]])
                positions[kept++] = positions[j];
            else
                nulls.push_back(positions[j]);
        }
        if (column.column.descending) {
            std::copy(nulls.cbegin(), nulls.cend(), positions.begin() + kept);
        } else {
            std::copy_backward(positions.cbegin(), positions.cbegin() + kept, positions.end());
            std::copy(nulls.cbegin(), nulls.cend(), positions.begin());
        }
    }
    return positions;
}

void ColumnKeySort::sort(std::vector<quint64> &payloads)
{
    if (m_columns.empty())
        return;
    if (m_columns.size() == 1 && m_columns.front().nulls == 0) {
        // The keys are not needed after this: they are sorted in place.
        ColumnKeys &column = m_columns.front();
        radixSort(column.keys, payloads, false);
        column.keys = {};
        return;
    }
    const std::vector<quint64> positions = order();
    const std::vector<quint64> unsorted = payloads;
    for (quint32 i = 0; i < m_rows; ++i)
        payloads[i] = unsorted[positions[i]];
}
