#ifndef DATABASE_TABLEJOIN_P_H
#define DATABASE_TABLEJOIN_P_H

// Private part of TableJoin, shared with its two indexes: not installed.

#include <database/tablejoin.h>

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QVector>

class Table;

// The join's state. Everything below is guarded by the main table's lock:
// main-side calls come under it, dependent-side calls take it.
//
// A key is the byte form of the key values (see keyOf()); a value block is the
// joined cells of one dependent row: each joined column's cell bytes at
// `offsets[i]`, then one presence byte per column. An empty value block means
// "no dependent row": every joined cell null.
class TableJoinPrivate
{
public:
    enum State { Invalid, Active, Detached };

    struct Entry
    {
        QByteArray values;
        // Dependent rows with this key, in arrival order; the first supplies
        // the values.
        QVector<unsigned char *> dependentRows;
        QSet<unsigned char *> mainRows;
    };
    using Entries = QHash<QByteArray, Entry>;

    State state = Invalid;
    QString error;
    Table *main = nullptr;
    Table *dependent = nullptr;
    QVector<int> mainKey;
    QVector<int> dependentKey;
    QVector<int> mainColumns;
    QVector<int> dependentColumns;
    QVector<int> sizes;
    QVector<int> offsets;
    int cellBytes = 0;

    Entries entries;
    QHash<const unsigned char *, QByteArray> mainKeyOf;
    QHash<const unsigned char *, QByteArray> dependentKeyOf;
    // Keys whose values changed while main rows hold them: refreshed by flush().
    QSet<QByteArray> pending;
    // Brackets of the main table opened for brackets of the dependent table.
    int openBrackets = 0;

    TableJoinMain *mainIndex = nullptr;
    TableJoinDep *dependentIndex = nullptr;
    // Receives the tables' destroyed() signals.
    QObject watcher;

    bool validate(const QStringList &mainKeyColumns, const QList<TableJoin::Column> &columns);
    void attach(const QList<TableJoin::Column> &columns);
    void moveMainIndexFirst();
    void detach();

    QByteArray keyOf(const Table *table, const unsigned char *row,
                     const QVector<int> &columns) const;
    QByteArray valuesOf(const unsigned char *dependentRow) const;
    bool present(const QByteArray &values, int i) const;
    bool cellAgrees(const unsigned char *mainRow, const QByteArray &values, int i) const;
    bool cellsAgree(const unsigned char *mainRow, const QByteArray &values) const;
    void writeCell(unsigned char *row, const QByteArray &values, int i) const;

    // Main side.
    void attachMain(unsigned char *row);
    bool detachMain(const unsigned char *row);
    void checkMain(unsigned char *row);
    void clearMain();
    void buildMain();

    // Dependent side.
    void attachDependent(unsigned char *row);
    bool detachDependent(unsigned char *row);
    void checkDependent(unsigned char *row);
    void setValues(Entries::iterator entry, const QByteArray &values);
    void clearDependent();
    void buildDependent();

    void pruneIfUnused(Entries::iterator entry);
    // Refreshes the main rows of the pending keys in one batch on the main table.
    void flush();
    void flushIfIdle();
};

// Holds the main table's lock for a dependent-side call.
class MainTableLocker
{
public:
    explicit MainTableLocker(const TableJoinPrivate *join);
    ~MainTableLocker();

private:
    Q_DISABLE_COPY(MainTableLocker)
    Table *m_table;
};

#endif // DATABASE_TABLEJOIN_P_H
