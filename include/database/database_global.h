#ifndef DATABASE_DATABASE_GLOBAL_H
#define DATABASE_DATABASE_GLOBAL_H

#include <QtCore/qglobal.h>

// Export macro of the database library: every public class and free function
// carries it. DATABASE_LIBRARY is defined only while the library itself is built.
#if defined(DATABASE_LIBRARY)
#define DATABASE_EXPORT Q_DECL_EXPORT
#else
#define DATABASE_EXPORT Q_DECL_IMPORT
#endif

#endif // DATABASE_DATABASE_GLOBAL_H
