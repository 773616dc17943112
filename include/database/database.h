#ifndef DATABASE_DATABASE_H
#define DATABASE_DATABASE_H

// Umbrella header: includes every public header of the library that needs
// only QtCore and QtConcurrent. The undo commands (<database/undo.h>) derive
// from QUndoCommand and so need QtWidgets: include that header on its own and
// link Database::undo (CMake) or database-undo (pkg-config).

#include <database/database_global.h>

#include <database/checksum.h>
#include <database/columndef.h>
#include <database/concurrentsort.h>
#include <database/core/icore.h>
#include <database/core/log.h>
#include <database/datetime.h>
#include <database/decimal.h>
#include <database/deflatedevice.h>
#include <database/exception.h>
#include <database/field.h>
#include <database/fielddefconvertor.h>
#include <database/fieldtype.h>
#include <database/index.h>
#include <database/indexdepend.h>
#include <database/indexlimit.h>
#include <database/indexlist.h>
#include <database/indexmodel.h>
#include <database/indexobserver.h>
#include <database/indexsort.h>
#include <database/indexsortcolumns.h>
#include <database/indexvector.h>
#include <database/logfile.h>
#include <database/masterindex.h>
#include <database/partitionlist.h>
#include <database/rangeset.h>
#include <database/record.h>
#include <database/recordstrans.h>
#include <database/runnable.h>
#include <database/settings/appsettings.h>
#include <database/settings/defaultsettings.h>
#include <database/settings/mapsettings.h>
#include <database/settings/qtjsonsettings.h>
#include <database/settings/settings.h>
#include <database/settings/workplacesettings.h>
#include <database/table.h>
#include <database/tableio.h>
#include <database/tablejoin.h>
#include <database/tablerebuilder.h>
#include <database/version.h>
#include <database/volat.h>
#include <database/watchindex.h>

#endif // DATABASE_DATABASE_H
