#ifndef DATABASE_WATCHINDEX_H
#define DATABASE_WATCHINDEX_H

#include <database/index.h>
#include <database/record.h>

#include <QList>

class Table;

// WatchIndex: what happened to a table's rows since the index was last reset.
//
// The host registers it with Table::addIndex(), lets changes happen, then reads
// addedRecords(), removedRecords() and updatedRecords() and calls reset(). Like
// every index it leaves the registry when destroyed.
//
// Bookkeeping, in the order of the events:
//  - add: a row that is in the removed list (same row block) leaves it (first
//    occurrence) and is listed as updated; any other row is listed as added;
//  - remove: the row is appended to the removed list;
//  - update: the row is appended to the updated list (no de-duplication: a row
//    updated twice is listed twice).
// contains() answers for the added and updated lists only.
//
// build(), clear() and reset() empty all three lists, so Index::rebuild() simply
// starts a new watch. Each listed record holds a reference to its row, keeping
// removed rows readable until the next reset.
//
// Threads: as every index, called on the thread that changes the table, under
// its lock; read the lists on that thread or under Table::lock().
class DATABASE_EXPORT WatchIndex : public Index
{
public:
    explicit WatchIndex(Table *table);
    ~WatchIndex() override;

    void clear() override;
    void build() override;
    void add(const Record &record) override;
    bool remove(const Record &record, int position) override;
    bool filter(const Record &record) const override;
    bool contains(const Record &record) const override;
    void update(const Record &record, int a, int b, int position) override;
    const char *getClassName() const override;

    Table *table() const { return m_table; }
    const QList<Record> &addedRecords() const { return m_added; }
    const QList<Record> &removedRecords() const { return m_removed; }
    const QList<Record> &updatedRecords() const { return m_updated; }
    bool isEmpty() const { return m_added.isEmpty() && m_removed.isEmpty() && m_updated.isEmpty(); }
    // Forgets everything watched so far.
    void reset() { clear(); }

private:
    Q_DISABLE_COPY(WatchIndex)
    Table *m_table;
    QList<Record> m_added;
    QList<Record> m_removed;
    QList<Record> m_updated;
};

#endif // DATABASE_WATCHINDEX_H
