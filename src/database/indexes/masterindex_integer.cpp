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
    qint64 lowKey = keyOf(list.at(low).row());
    if (lowKey >= target)
        return lowKey == target ? low : -1;
    qint64 highKey = keyOf(list.at(high).row());
    if (highKey < target)
        return -1;
    // Keys at low are below the target, keys at high are not; the first
    // position holding the target's key (if any) is in (low, high].
    bool halve = false;
    while (high - low > 1) {
        int probe;
        if (halve) {
            probe = low + (high - low) / 2;
        } else {
            const long double share = (static_cast<long double>(target) - lowKey)
                / (static_cast<long double>(highKey) - lowKey);
            probe = low + 1 + int(share * (high - low - 1));
            probe = std::min(std::max(probe, low + 1), high - 1);
        }
        const int before = high - low;
        const qint64 probeKey = keyOf(list.at(probe).row());
        if (probeKey == target && !halve) {
            // A guess that hits the key is most often its first position:
            // the row before it says so, and sits next to it in memory more
            // often than a halving step's row does.
            if (probe == low + 1 || keyOf(list.at(probe - 1).row()) < target)
                return probe;
            high = probe - 1;
            highKey = target;
            halve = true;
            continue;
        }
        if (probeKey < target) {
            low = probe;
            lowKey = probeKey;
        } else {
            high = probe;
            highKey = probeKey;
        }
        halve = !halve && qint64(high - low) * 2 > before;
    }
    return highKey == target ? high : -1;
}
