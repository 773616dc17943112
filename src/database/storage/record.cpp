#include <database/record.h>

#include "storage/rowlayout_p.h"
#include <database/table.h>

#include <QDebug>

#include <cstring>

static_assert(RowLayout::RefCountOffset == 0,
              "Record's inline reference counting reads the count at the start of the row");

Record::Record(const Table *table)
    : m_row(table ? table->allocRow() : nullptr)
{
    ref();
}

Record::Record(unsigned char *row) noexcept
    : m_row(row)
{
    ref();
}

void Record::freeRow(unsigned char *row) noexcept
{
    RowLayout::owner(row)->freeRow(row);
}

int Record::releaseWithoutFree() noexcept
{
    if (!m_row)
        return 0;
    const int left = __atomic_sub_fetch(countOf(m_row), 1, __ATOMIC_ACQ_REL);
    m_row = nullptr;
    return left;
}

Table *Record::table() const noexcept
{
    if (!m_row)
        return nullptr;
    return RowLayout::owner(m_row);
}

int Record::refCount() const noexcept
{
    return m_row ? __atomic_load_n(countOf(m_row), __ATOMIC_ACQUIRE) : 0;
}

Record Record::clone() const
{
    if (!m_row)
        return Record();
    return Record(table()->cloneRow(m_row));
}

void Record::copy(const Record &other)
{
    if (m_row == other.m_row || !m_row || !other.m_row)
        return;
    table()->copyRowContent(m_row, other.m_row);
}

void Record::copy(const Record &other, int first, int last)
{
    if (m_row == other.m_row || !m_row || !other.m_row)
        return;
    table()->copyRowContent(m_row, other.m_row, first, last);
}

Field Record::data(const QString &name)
{
    return qAsConst(*this).data(name);
}

Field Record::data(const QString &name) const
{
    if (!m_row) {
        qWarning("Record::data: the record is null (column '%s'); a row must be allocated "
                 "(Record(table)) or found before its cells are used",
                 qPrintable(name));
        return Field();
    }
    const Table *t = table();
    const int column = t->columnIndex(name);
    if (column < 0) {
        qWarning("Record::data: table '%s' has no column '%s'. Its columns are: %s. Check the "
                 "name, or add the column with Table::addColumn()",
                 qPrintable(t->name()), qPrintable(name),
                 qPrintable(t->columns().join(QStringLiteral(", "))));
        return Field();
    }
    return t->dataPtr(m_row, column);
}

Field Record::data(int column) const
{
    return table()->dataPtr(m_row, column);
}

QString Record::dump() const
{
    if (!m_row)
        return QStringLiteral("{ NULL }");
    const Table *t = table();
    QStringList fields;
    for (int i = 0; i < t->columnCount(); ++i) {
        const Field field = t->dataPtr(m_row, i);
        fields << t->columnName(i) + QLatin1Char('=')
                + (field.isNull() ? QStringLiteral("\"\"") : field.toString());
    }
    return QStringLiteral("%1:(ptr:0x%2 ref:%3) { %4 }")
        .arg(t->name())
        .arg(quintptr(m_row), 16, 16, QLatin1Char('0'))
        .arg(refCount())
        .arg(fields.join(QLatin1Char(' ')));
}
