#ifndef DATABASE_INDEXVECTOR_H
#define DATABASE_INDEXVECTOR_H

#include <database/index.h>
#include <database/record.h>

#include <QVector>

class Table;

// IndexVector: a small sorted view held in one contiguous vector of records.
//
// For short lists, where a linear scan beats the partitioned list of the list
// indexes: every operation (insert position, removal by identity, search) is a
// scan of the vector. The ordering is the subclass's compare().
//
// Invariants:
//  1. records() is in compare() order; records with equal keys keep the order
//     in which they were added.
//  2. Each record appears at most once (identity of the row block) and holds
//     one reference to its row.
//
// contains() tests key equality, not identity: a different row with the same
// key counts as contained. This is what lookups by key want.
//
// The index does not register itself: the owner calls Table::addIndex(). Like
// every index it leaves the registry when destroyed. It is empty until build().
//
// Threads: as every index, called on the thread that changes the table, under
// its lock. resort() sorts through the process-wide sortIndex pointer; resorts
// of different vectors are serialised by a process-wide mutex, so two of them
// never see each other's pointer.
class DATABASE_EXPORT IndexVector : public Index
{
public:
    explicit IndexVector(Table *table);
    ~IndexVector() override;

    void clear() override;
    void build() override;
    void add(const Record &record) override;
    // The position argument is ignored: the row is found by identity.
    bool remove(const Record &record, int position) override;
    bool filter(const Record &record) const override;
    bool contains(const Record &record) const override;
    const char *getClassName() const override;

    // Negative when a sorts before b, 0 for equal keys, positive after.
    virtual int compare(const Record &a, const Record &b) const = 0;
    // The first position after `from` whose key equals `key`'s, or -1.
    virtual int search(const Record &key, int from) const;
    // Stable sort of the whole vector by compare().
    virtual void resort();

    Table *table() const { return m_table; }
    int count() const { return m_records.size(); }
    Record at(int position) const { return m_records.value(position); }
    const QVector<Record> &records() const { return m_records; }

    // The index whose resort() is running; read by lessThan().
    static const IndexVector *sortIndex;
    // True when sortIndex->compare(a, b) is negative.
    static bool lessThan(const Record &a, const Record &b);

private:
    Q_DISABLE_COPY(IndexVector)
    Table *m_table;
    QVector<Record> m_records;
};

#endif // DATABASE_INDEXVECTOR_H
