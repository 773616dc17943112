#ifndef DATABASE_TABLETESTING_P_H
#define DATABASE_TABLETESTING_P_H

// Test hooks of Table: not installed, and exported only from a library built
// with its tests.

#include <database/table.h>

// Installs `index` as the table's main index without ownership and without a
// master index (masterIndex() stays null), so a test double can observe the
// notification order. Null removes it.
// REQUIRES: no master index is installed (otherwise a warning and nothing
// happens); `index` outlives its use here or leaves when destroyed.
DATABASE_AUTOTEST_EXPORT void testingSetMainIndex(Table *table, Index *index);

#endif // DATABASE_TABLETESTING_P_H
