// RangesAdapter, by which a vector of intervals is handed to a query, and RangeFilter, the interval set that
// a module's scope builds from the announced addresses and that the line readers consult.

#include "orn_ranges.h"

#include "orn_log.h"

#include <algorithm>

namespace ORN_3_30 {

bool RangesAdapter::getRange(unsigned long index, unsigned long long& begin, unsigned long long& size) const {
    if (index >= getCount())
        return false;
    const auto& range = (*m_ranges)[index];
    begin = range.first;
    size = range.second - range.first;
    return true;
}

unsigned long RangesAdapter::getCount() const {
    return m_ranges ? m_ranges->size() : 0;
}

// Quirk: intervals that overlap in other ways than the ones merged here stay side by side. A lookup takes the
// first interval that ends above an address, which is right for any single address all the same.
int RangeFilter::add(unsigned long long low, unsigned long long high) {
    auto after = m_beginByEnd.upper_bound(high);
    if (after != m_beginByEnd.end() && after->second <= high) {
        after->second = std::min(after->second, low);
        return 1;
    }
    if (after != m_beginByEnd.begin() && std::prev(after)->first == high) {
        // Swallow the interval with the same end, then every earlier one that the growing interval reaches.
        auto last = after;
        auto first = std::prev(after);
        low = std::min(low, first->second);
        while (first != m_beginByEnd.begin() && std::prev(first)->first > low) {
            --first;
            low = std::min(low, first->second);
        }
        m_beginByEnd.erase(first, last);
        m_beginByEnd[high] = low;
        return 1;
    }
    m_beginByEnd[high] = low;
    return 1;
}

bool RangeFilter::overlaps(unsigned long long low, unsigned long long high) const {
    auto found = m_beginByEnd.upper_bound(low);
    return found != m_beginByEnd.end() && high > found->second;
}

} // namespace ORN_3_30
