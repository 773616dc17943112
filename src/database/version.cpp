#include <database/version.h>

const char *databaseVersion()
{
    // The string of the headers this library was built with, so it names the
    // library actually loaded, whatever the caller was compiled against.
    return DATABASE_VERSION_STR;
}
