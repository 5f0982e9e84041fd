#ifndef VALUETABLE_H
#define VALUETABLE_H

#include <QtGlobal>

#include <vector>

// The client's value map: address -> last value, one entry per address, in
// ascending address order. A flat array rather than a tree: a read of 64
// values costs 64 stores, not 64 node allocations, and clearing it keeps its
// memory for the next read.
//
// Stores are appended and put in order when the table is next looked at;
// of several values stored for one address the last one counts, as with a
// map. A run of ascending stores past the end (a read of ascending
// addresses, a registration in order) never needs sorting.
//
// Not thread-safe: the client guards it with its data lock.
class ValueTable
{
public:
    struct Entry {
        // Left unset: a read makes room for its values and then writes
        // each one, so zeroing them first would be work done twice.
        Entry() {}
        Entry(qint32 a, qint32 v) : address(a), value(v) {}
        qint32 address;
        qint32 value;
    };

    void clear();
    // Inserts or overwrites.
    void store(qint32 address, qint32 value);
    // The same for count pairs, in their order.
    void store(const qint32 *addresses, const qint32 *values, int count);
    // Overwrites an address already in the table; false (and nothing
    // stored) when it is not there.
    bool update(qint32 address, qint32 value);
    // Removes the addresses given (absent ones are ignored).
    void remove(const qint32 *addresses, int count);

    qint32 value(qint32 address, qint32 absent = 0) const;
    bool contains(qint32 address) const;
    int size() const;
    bool isEmpty() const { return m_entries.empty(); }
    // Entries in ascending address order; valid until the next change.
    const Entry &at(int index) const;
    const Entry *entries() const;

private:
    // Puts the appended entries in order and drops the overwritten ones.
    void settle() const;
    int find(qint32 address) const;

    mutable std::vector<Entry> m_entries;
    mutable std::vector<Entry> m_scratch;
    mutable size_t m_settled = 0;   // entries before this index are in order, one per address
    size_t m_hint = 0;              // where update() looks first
};

#endif
