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

// Test hooks carry DATABASE_AUTOTEST_EXPORT instead: they are declared only in
// private headers and exported only from a library built with its tests
// (DATABASE_TESTING), so they never become part of the installed API.
#if defined(DATABASE_TESTING)
#define DATABASE_AUTOTEST_EXPORT DATABASE_EXPORT
#else
#define DATABASE_AUTOTEST_EXPORT
#endif

#endif // DATABASE_DATABASE_GLOBAL_H
