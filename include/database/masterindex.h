#ifndef DATABASE_MASTERINDEX_H
#define DATABASE_MASTERINDEX_H

// Every kind of master index: the abstract MasterIndex and the ordered master,
// the column key, the raw-byte key and the integer key.

#include <database/masterindex_column.h>
#include <database/masterindex_fast.h>
#include <database/masterindex_integer.h>
#include <database/masterindex_struct.h>

#endif // DATABASE_MASTERINDEX_H
