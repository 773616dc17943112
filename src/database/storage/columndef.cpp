#include <database/columndef.h>

#include <QDataStream>

TableColumnDef::TableColumnDef(Table *table)
    : table(table)
{
}

TableColumnDef::TableColumnDef(Table *table, const TableColumnDef &other)
    : table(table)
    , size(other.size)
{
    name = other.name;
    title = other.title;
    description = other.description;
    type = other.type;
    length = other.length;
    nullable = other.nullable;
    auxFlag = other.auxFlag;
}

void TableColumnDef::write(QDataStream &stream) const
{
    stream << name << title << description << qint32(length) << qint8(type) << qint32(size)
           << nullable << auxFlag;
}

void TableColumnDef::read(QDataStream &stream)
{
    qint32 len = 0;
    qint8 t = 0;
    qint32 sz = 0;
    stream >> name >> title >> description >> len >> t >> sz >> nullable >> auxFlag;
    length = len;
    type = FieldType::Type(int(t));
    size = sz;
}
