#ifndef DATABASE_INDEXOBSERVERS_P_H
#define DATABASE_INDEXOBSERVERS_P_H

// The observers of one list-family index, and the notifications the index
// sends them. Not installed.

#include <database/indexobserver.h>

class IndexObservers
{
public:
    QVector<IndexObserver *> list;
    // While above 0 the index is being rearranged wholesale (build): the
    // single-row notifications of that work are swallowed and one reset is
    // sent when the outermost rearrangement ends.
    int resetting = 0;

    bool quiet() const { return resetting > 0; }
    void inserted(int position, const Record &record)
    {
        if (!quiet())
            for (IndexObserver *o : list)
                o->indexRowInserted(position, record);
    }
    void removed(int position, const Record &record)
    {
        if (!quiet())
            for (IndexObserver *o : list)
                o->indexRowRemoved(position, record);
    }
    void updated(int from, int to, const Record &record, int first, int last)
    {
        if (!quiet())
            for (IndexObserver *o : list)
                o->indexRowUpdated(from, to, record, first, last);
    }
    void batch(const IndexObserver::Batch &batch)
    {
        if (!quiet())
            for (IndexObserver *o : list)
                o->indexBatchProcessed(batch);
    }
    void reset()
    {
        if (!quiet())
            for (IndexObserver *o : list)
                o->indexReset();
    }
};

// Swallows the single-row notifications of a wholesale rearrangement and
// sends one reset at its end. Does nothing for an index without observers.
class IndexResetScope
{
public:
    explicit IndexResetScope(IndexObservers *observers)
        : m_observers(observers)
    {
        if (m_observers)
            ++m_observers->resetting;
    }
    ~IndexResetScope()
    {
        if (m_observers && --m_observers->resetting == 0)
            m_observers->reset();
    }
    IndexResetScope(const IndexResetScope &) = delete;
    IndexResetScope &operator=(const IndexResetScope &) = delete;

private:
    IndexObservers *m_observers;
};

// Swallows every notification of a piece of work that the caller reports
// itself in another form.
class IndexQuietScope
{
public:
    explicit IndexQuietScope(IndexObservers *observers)
        : m_observers(observers)
    {
        if (m_observers)
            ++m_observers->resetting;
    }
    ~IndexQuietScope()
    {
        if (m_observers)
            --m_observers->resetting;
    }
    IndexQuietScope(const IndexQuietScope &) = delete;
    IndexQuietScope &operator=(const IndexQuietScope &) = delete;

private:
    IndexObservers *m_observers;
};

#endif // DATABASE_INDEXOBSERVERS_P_H
