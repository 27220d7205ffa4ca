// Interval set that limits a partial load.
#ifndef ORN_RANGES_IMPL_H
#define ORN_RANGES_IMPL_H

#include "orn/object.h"
#include "orn/ranges.h"

#include <map>

namespace ORN_3_30 {

/// Address intervals for lookups, kept from each interval's end to its beginning.
class RangeFilter : public SymMgrObjectImpl {
public:
    explicit RangeFilter(ILock* lock = nullptr) : SymMgrObjectImpl(lock) {}

    /// Enters [low, high). Always 1.
    int add(unsigned long long low, unsigned long long high);
    /// Whether the first interval that ends above `low` begins below `high`.
    bool overlaps(unsigned long long low, unsigned long long high) const;
    bool isEmpty() const { return m_beginByEnd.empty(); }

private:
    std::map<unsigned long long, unsigned long long> m_beginByEnd;
};

} // namespace ORN_3_30

#endif
