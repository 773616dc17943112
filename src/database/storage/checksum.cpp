#include <database/checksum.h>

#include <array>

namespace {

constexpr quint64 Polynomial = Q_UINT64_C(0x42F0E1EBA9EA3693);

constexpr std::array<quint64, 256> makeTable()
{
    std::array<quint64, 256> table {};
    for (int byte = 0; byte < 256; ++byte) {
        quint64 crc = quint64(byte) << 56;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & (quint64(1) << 63)) ? (crc << 1) ^ Polynomial : crc << 1;
        table[size_t(byte)] = crc;
    }
    return table;
}

constexpr std::array<quint64, 256> Table = makeTable();

} // namespace

quint64 qChecksum64(const char *data, qint64 length)
{
    if (length <= 0)
        return 0;
    quint64 crc = ~quint64(0);
    for (qint64 i = 0; i < length; ++i)
        crc = Table[size_t(((crc >> 56) ^ quint8(data[i])) & 0xFF)] ^ (crc << 8);
    return ~crc;
}
