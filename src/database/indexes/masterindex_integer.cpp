#include <database/masterindex_integer.h>

#include "indexes/masterkeyrefusals_p.h"
#include "indexes/orderkey_p.h"
#include "storage/rowlayout_p.h"

#include <algorithm>

MasterIndex_Integer::MasterIndex_Integer(Table *table, const QString &column)
    : MasterIndex_Column_Pure(table, QStringList { column })
{
    setup();
}

MasterIndex_Integer::MasterIndex_Integer(Table *table, int column)
    : MasterIndex_Column_Pure(table, QList<int> { column })
{
    setup();
}

MasterIndex_Integer::~MasterIndex_Integer() = default;

void MasterIndex_Integer::setup()
{
    const TableColumnDef *column = keyColumns().constFirst();
    switch (column->type) {
    case FieldType::Integer:
        m_shift = 32;
        break;
    case FieldType::Integer64:
    case FieldType::DateTime:
        m_shift = 0;
        break;
    default:
        MasterKeyRefusals::unsupportedType(column);
    }
    MasterKeyRefusals::refuseNullable(column);
    m_offset = RowLayout::HeaderSize + column->offset;
    setOrderKey(
        [](const void *context, const Record &record) {
            const auto *index = static_cast<const MasterIndex_Integer *>(context);
            return record.isNull() ? OrderKey::nullKey(false)
                                   : OrderKey::ofInteger(index->keyOf(record.row()), false);
        },
        this);
}

int MasterIndex_Integer::compare(const Record &first, const Record &second) const
{
    const unsigned char *a = first.row();
    const unsigned char *b = second.row();
    if (Q_UNLIKELY(!a || !b))
        return int(a != nullptr) - int(b != nullptr);
    const qint64 x = keyOf(a);
    const qint64 y = keyOf(b);
    return int(x > y) - int(x < y);
}

int MasterIndex_Integer::search(const Record &key, int from) const
{
    const PartitionList<Record> &list = records();
    int low = std::max(from + 1, 0);
    int high = list.count() - 1;
    if (!key.row() || low > high)
        return IndexSort::search(key, from);
    const qint64 target = keyOf(key.row());
    // The parts' first rows, read by every look-up, stay in cache: they
    // narrow the range to one part without a fetch from memory.
    const std::pair<int, int> part = list.partitionPart(
        low, [this, target](const Record &record) { return keyOf(record.row()) < target; });
    low = part.first;
    high = std::min(high, part.second);
    qint64 lowKey = keyOf(list.at(low).row());
    if (lowKey >= target)
        return lowKey == target ? low : -1;
    qint64 highKey = keyOf(list.at(high).row());
    if (highKey < target)
        return -1;
    // Keys at low are below the target, keys at high are not; the first
    // position holding the target's key (if any) is in (low, high]. Each step
    // reads a window of rows around its guess, all fetched at once: about
    // the wait of one row, and a guess a few places off still lands inside.
    constexpr int window = 32;
    const Record *handles[window];
    bool halve = false;
    while (high - low > 1) {
        int probe;
        if (halve) {
            probe = low + (high - low) / 2;
        } else {
            const long double share = (static_cast<long double>(target) - lowKey)
                / (static_cast<long double>(highKey) - lowKey);
            probe = low + 1 + int(share * (high - low - 1));
        }
        const int first = std::max(low + 1, std::min(probe - window / 2, high - window));
        const int size = std::min(window, high - first);
        auto it = list.cbegin() + first;
        for (int i = 0; i < size; ++i, ++it) {
            handles[i] = &*it;
            __builtin_prefetch(handles[i]->row() + m_offset);
        }
        int above = 0;
        while (above < size && keyOf(handles[above]->row()) < target)
            ++above;
        const int before = high - low;
        if (above == size) {
            low = first + size - 1;
            lowKey = keyOf(handles[size - 1]->row());
        } else if (above == 0) {
            high = first;
            highKey = keyOf(handles[0]->row());
        } else {
            return keyOf(handles[above]->row()) == target ? first + above : -1;
        }
        halve = !halve && qint64(high - low) * 2 > before;
    }
    return highKey == target ? high : -1;
}
