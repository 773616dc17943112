#include <database/core/log.h>

const QLoggingCategory &QGuiLog()
{
    static const QLoggingCategory category("QGuiLog");
    return category;
}
