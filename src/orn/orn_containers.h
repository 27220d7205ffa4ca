// Iterators over standard containers. Both keep plain pointers into the container: its owner has to outlive
// them.
#ifndef ORN_CONTAINERS_H
#define ORN_CONTAINERS_H

#include "orn/iterator.h"

#include <cstddef>

namespace ORN_3_30 {

/// Walks a vector of `T`.
template <typename Vector, typename T>
class VectorIteratorWrapper : public SymMgrObject<IIterator<T>> {
public:
    VectorIteratorWrapper(const Vector* vector, ILock* lock)
        : SymMgrObject<IIterator<T>>(lock), m_cursor(0), m_vector(vector) {}

    T current() override { return m_cursor < m_vector->size() ? (*m_vector)[m_cursor] : T(); }
    bool next() override {
        if (m_cursor < m_vector->size())
            ++m_cursor;
        return m_cursor < m_vector->size();
    }
    void reset() override { m_cursor = 0; }

private:
    std::size_t m_cursor; ///< an index, so that a vector that grows meanwhile does no harm
    const Vector* m_vector;
};

/// Says which mapped values a MapIteratorWrapper yields; this one lets everything pass.
template <typename T, typename FilterArg>
class CFilter {
public:
    explicit CFilter(FilterArg argument) : m_argument(argument) {}
    bool passes(const T&) const { return true; }

private:
    [[maybe_unused]] FilterArg m_argument;
};

/// Walks the mapped values of a map that the filter lets pass.
template <typename Map, typename T, typename Filter, typename FilterArg>
class MapIteratorWrapper : public SymMgrObject<IIterator<T>> {
public:
    MapIteratorWrapper(const Map& map, FilterArg argument, ILock* lock)
        : SymMgrObject<IIterator<T>>(lock),
          m_filter(argument),
          m_cursor(map.begin()),
          m_begin(map.begin()),
          m_end(map.end()) {
        skipRefused();
    }

    T current() override { return m_cursor != m_end ? T(m_cursor->second) : T(); }
    bool next() override {
        if (m_cursor != m_end) {
            ++m_cursor;
            skipRefused();
        }
        return m_cursor != m_end;
    }
    void reset() override {
        m_cursor = m_begin;
        skipRefused();
    }

private:
    void skipRefused() {
        while (m_cursor != m_end && !m_filter.passes(m_cursor->second))
            ++m_cursor;
    }

    Filter m_filter;
    typename Map::const_iterator m_cursor;
    typename Map::const_iterator m_begin;
    typename Map::const_iterator m_end;
};

} // namespace ORN_3_30

#endif
