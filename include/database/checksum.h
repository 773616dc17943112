#ifndef DATABASE_CHECKSUM_H
#define DATABASE_CHECKSUM_H

#include <database/database_global.h>

// CRC-64 of `length` bytes: ECMA-182 polynomial 0x42F0E1EBA9EA3693, most
// significant bit first, initial value all ones, result complemented. The check
// value of the nine bytes "123456789" is 0x62EC59E3F1A4F00A. A length of 0 (or
// less) gives 0. Reentrant.
DATABASE_EXPORT quint64 qChecksum64(const char *data, qint64 length);

#endif // DATABASE_CHECKSUM_H
