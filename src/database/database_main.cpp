// The library's main object: created by a static initialiser when the library
// is loaded, it registers the library's value types with Qt's meta-type system.

#include "database/record.h"

namespace Database {

class Main
{
public:
    Main() { qRegisterMetaType<Record>("Record"); }
};

static Main main;

} // namespace Database
