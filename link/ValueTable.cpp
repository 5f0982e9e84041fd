#include "ValueTable.h"

#include <algorithm>

namespace {

bool byAddress(const ValueTable::Entry &a, const ValueTable::Entry &b)
{
    return a.address < b.address;
}

} // namespace

void ValueTable::clear()
{
    m_entries.clear();
    m_settled = 0;
    m_hint = 0;
}

void ValueTable::store(qint32 address, qint32 value)
{
    m_entries.push_back({ address, value });
}

void ValueTable::store(const qint32 *addresses, const qint32 *values, int count)
{
    const size_t at = m_entries.size();
    m_entries.resize(at + size_t(count));
    Entry *out = m_entries.data() + at;
    for (int i = 0; i < count; ++i) {
        out[i].address = addresses[i];
        out[i].value = values[i];
    }
}

bool ValueTable::update(qint32 address, qint32 value)
{
    settle();
    // Poll replies update runs of neighbours: try the next entry first.
    size_t i = m_hint;
    if (i >= m_entries.size() || m_entries[i].address != address) {
        const int found = find(address);
        if (found < 0)
            return false;
        i = size_t(found);
    }
    m_entries[i].value = value;
    m_hint = i + 1;
    return true;
}

void ValueTable::remove(const qint32 *addresses, int count)
{
    settle();
    std::vector<qint32> gone(addresses, addresses + count);
    std::sort(gone.begin(), gone.end());
    const auto end = std::remove_if(m_entries.begin(), m_entries.end(), [&gone](const Entry &e) {
        return std::binary_search(gone.begin(), gone.end(), e.address);
    });
    m_entries.erase(end, m_entries.end());
    m_settled = m_entries.size();
}

qint32 ValueTable::value(qint32 address, qint32 absent) const
{
    const int i = find(address);
    return i < 0 ? absent : m_entries[size_t(i)].value;
}

bool ValueTable::contains(qint32 address) const
{
    return find(address) >= 0;
}

int ValueTable::size() const
{
    settle();
    return int(m_entries.size());
}

const ValueTable::Entry &ValueTable::at(int index) const
{
    settle();
    return m_entries[size_t(index)];
}

const ValueTable::Entry *ValueTable::entries() const
{
    settle();
    return m_entries.data();
}

int ValueTable::find(qint32 address) const
{
    settle();
    const auto it = std::lower_bound(m_entries.begin(), m_entries.end(), Entry{ address, 0 }, byAddress);
    return it != m_entries.end() && it->address == address ? int(it - m_entries.begin()) : -1;
}

void ValueTable::settle() const
{
    const size_t size = m_entries.size();
    if (m_settled == size)
        return;
    // The common case: stores in ascending order past the last entry.
    size_t i = m_settled;
    if (i == 0 || m_entries[i].address > m_entries[i - 1].address) {
        while (i + 1 < size && m_entries[i + 1].address > m_entries[i].address)
            ++i;
        if (i + 1 == size) {
            m_settled = size;
            return;
        }
    }
    // Otherwise: order the new entries (stable, so that the later of two
    // stores to one address stays later), merge them behind the older ones
    // and keep the last entry of each address.
    const auto head = m_entries.begin() + std::ptrdiff_t(m_settled);
    std::stable_sort(head, m_entries.end(), byAddress);
    m_scratch.clear();
    m_scratch.reserve(size);
    std::merge(m_entries.begin(), head, head, m_entries.end(), std::back_inserter(m_scratch), byAddress);
    m_entries.clear();
    for (size_t k = 0; k < m_scratch.size(); ++k)
        if (k + 1 == m_scratch.size() || m_scratch[k + 1].address != m_scratch[k].address)
            m_entries.push_back(m_scratch[k]);
    m_settled = m_entries.size();
}
