#ifndef DATABASE_CORE_LOG_H
#define DATABASE_CORE_LOG_H

#include <database/database_global.h>

#include <QLoggingCategory>

// The logging category shared with the host application: "QGuiLog". The
// library writes its user-facing diagnostics (settings files that fail to
// parse, for example) through it, so the host can route or silence them with
// the usual QT_LOGGING_RULES.
DATABASE_EXPORT const QLoggingCategory &QGuiLog();

#define GUI_DEBUG qCDebug(QGuiLog)
#define GUI_WARNING qCWarning(QGuiLog)

#endif // DATABASE_CORE_LOG_H
